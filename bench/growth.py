"""How the cost of a question grows: straight lines through cases that differ in size only."""

import statistics

SERVICES = "growth by services/"
QUESTIONS = "growth by questions/"


def is_growth(name):
    """Whether the case differs from others in size only."""
    return name.startswith((SERVICES, QUESTIONS))


def points(group, values):
    """Sizes and costs of a group's cases, in the order of sizes."""
    found = sorted(
        (int(name.removeprefix(group)), value)
        for name, value in values.items()
        if name.startswith(group)
    )
    return [size for size, _ in found], [value for _, value in found]


def line(group, values):
    """Slope, intercept and correlation of the straight line through the group's cases."""
    sizes, costs = points(group, values)
    slope, intercept = statistics.linear_regression(sizes, costs)
    return slope, intercept, statistics.correlation(sizes, costs)
