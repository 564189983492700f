"""How the daemon compares with the floor program: a ratio and its 95 % bounds."""

import dataclasses

import numpy

LEAST_ROUNDS = 9
MOST_ROUNDS = 30
_RESAMPLINGS = 500
_SEED = 1


@dataclasses.dataclass(frozen=True)
class Ratio:
    """`low` and `high` are the 95 % bounds, estimated from how much the rounds differ."""

    value: float
    low: float
    high: float

    def __str__(self):
        return f"{self.value:.2f} ({self.low:.2f} to {self.high:.2f})"

    def is_apart_from(self, limit):
        return not self.low <= limit <= self.high


def ratio(rounds, upper, lower, statistic):
    """The statistic of all values of the target `upper` divided by that of the target `lower`. Each
    round has the values by target; the bounds come from resampling the rounds."""

    def of(chosen):
        over, under = (
            statistic(numpy.concatenate([rounds[number][name] for number in chosen]))
            for name in (upper, lower)
        )
        return over / under

    every = range(len(rounds))
    chance = numpy.random.default_rng(_SEED)
    drawn = [of(chance.choice(len(rounds), len(rounds))) for _ in range(_RESAMPLINGS)]
    low, high = numpy.percentile(drawn, (2.5, 97.5))
    return Ratio(of(every), float(low), float(high))


def measure(one_round, judge):
    """Calls one_round() until no limit lies within the bounds of its ratio, and returns the rounds.
    judge(rounds) returns the ratios, each with its limit."""
    rounds = []
    while len(rounds) < MOST_ROUNDS:
        rounds.append(one_round())
        if len(rounds) < LEAST_ROUNDS:
            continue
        if all(found.is_apart_from(limit) for found, limit in judge(rounds)):
            break
    return rounds
