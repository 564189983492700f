"""The pictures of docs/performance.md."""

import io
import re
import statistics

import matplotlib
import numpy

matplotlib.use("svg")
# The same figures give the same file, and a small one: text stays text instead of outlines.
matplotlib.rcParams.update({"svg.hashsalt": "bonjour", "svg.fonttype": "none", "font.size": 9,
                            "font.family": "DejaVu Sans", "grid.alpha": 0.3,
                            "axes.axisbelow": True})

from matplotlib import pyplot  # noqa: E402  the backend has to be chosen first

from bench import growth  # noqa: E402

_COLOURS = {
    "daemon": "#1f6fb4",
    "packaged": "#1f6fb4",
    "plain": "#7db8e0",
    "floor": "#b0b0b0",
}

# Points of a curve that stands for thousands of values.
_SHARES = numpy.linspace(0, 1, 101)


def _save(figure, path):
    """Writes the picture, with coordinates no finer than a tenth of a point and any plain font."""
    figure.tight_layout()
    drawn = io.StringIO()
    figure.savefig(drawn, format="svg", metadata={"Date": None})
    pyplot.close(figure)
    text = drawn.getvalue().replace("'DejaVu Sans'", "sans-serif")
    text = re.sub(r"(\d\.\d)\d+", r"\1", text)
    path.write_text(re.sub(r"\s*\n\s*", "\n", text))


def micro(path, counts, times):
    """Bars: instructions, and nanoseconds beside the floor's, of each operation."""
    names = [name for name in counts if not growth.is_growth(name)]
    rows = range(len(names))
    figure, (left, right) = pyplot.subplots(1, 2, figsize=(9, 7), sharey=True)
    left.barh(rows, [counts[name] for name in names], color=_COLOURS["daemon"])
    left.set_xlabel("instructions")
    for index, (label, offset) in enumerate((("daemon", -0.2), ("floor", 0.2))):
        right.barh([row + offset for row in rows], [times[name][index] for name in names], 0.4,
                   label=label, color=_COLOURS[label])
    right.set_xlabel("nanoseconds")
    right.legend()
    for axes in (left, right):
        axes.set_xscale("log")
        axes.minorticks_off()
        axes.tick_params(axis="y", left=False)
        axes.grid(axis="x")
    left.set_yticks(rows, names)
    left.invert_yaxis()
    _save(figure, path)


def latency(path, latencies, rates):
    """Shares of questions answered within a time, and what is sustained."""
    figure, panels = pyplot.subplots(1, 3, figsize=(10, 3.6))
    for axes, (title, by_target) in zip(panels, latencies.items()):
        for name, values in by_target.items():
            times = numpy.quantile(values, _SHARES, method="lower")
            axes.plot(times, _SHARES, label=name, color=_COLOURS[name])
        axes.set_xlim(0, 4 * sorted(by_target["floor"])[len(by_target["floor"]) // 2])
        axes.set_xlabel("µs to the first answer")
        axes.set_title(title)
        axes.grid()
        axes.legend()
    panels[0].set_ylabel("share of the questions")
    for place, (name, values) in enumerate(rates.items()):
        usual = numpy.quantile(values, 0.5, method="lower")
        panels[2].bar(place, usual, color=_COLOURS[name])
        panels[2].plot([place] * len(values), values, "k.", markersize=4)
    panels[2].set_xticks(range(len(rates)), rates)
    panels[2].set_title("answered questions a second")
    _save(figure, path)


def growth_lines(path, counts, nanoseconds):
    """Cost against the number of services and of questions."""
    figure, panels = pyplot.subplots(2, 2, figsize=(9, 6))
    groups = ((growth.SERVICES, "services"), (growth.QUESTIONS, "questions in the message"))
    costs = ((counts, "instructions"), (nanoseconds, "nanoseconds"))
    for column, (group, what) in enumerate(groups):
        for row, (values, unit) in enumerate(costs):
            axes = panels[row][column]
            sizes, found = growth.points(group, values)
            slope, intercept, _ = growth.line(group, values)
            axes.plot(sizes, found, "o", color=_COLOURS["daemon"])
            axes.plot(sizes, [intercept + slope * size for size in sizes], color=_COLOURS["floor"],
                      label=f"{slope:.0f} each")
            axes.set_xlabel(what)
            axes.set_ylabel(unit)
            axes.legend()
    _save(figure, path)


def idle(path, figures):
    """Bars: calls, wake-ups and processor time a minute."""
    figure, panels = pyplot.subplots(1, 3, figsize=(9, 3))
    rows = (
        ("system calls a minute", lambda one: sum(one["calls"].values())),
        ("wake-ups a minute", lambda one: one["wakeups"]),
        ("ms of processor time a minute", lambda one: statistics.fmean(one["milliseconds"])),
    )
    for axes, (title, of) in zip(panels, rows):
        bars = axes.bar(list(figures), [of(one) for one in figures.values()],
                        color=[_COLOURS[name] for name in figures])
        axes.bar_label(bars, fmt="%.1f")
        axes.set_title(title)
        axes.margins(y=0.15)
    _save(figure, path)
