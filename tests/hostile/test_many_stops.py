"""Stops under questions, one after the other: how many is an option of ./test."""

import os
import random

import pytest
from last_word import AT_ANY_TIME, Moment, stop_at

STOPS = int(os.environ.get("BONJOUR_STOPS", "4"))
SEED = int(os.environ.get("BONJOUR_STOPS_SEED", "1"))


@pytest.mark.seconds(5 * STOPS)
def test_no_service_is_left_behind_by_any_of_many_stops(lab):
    chance = random.Random(SEED)
    longest = 0.0
    for number in range(1, STOPS + 1):
        moment = Moment(
            printers=chance.choice((1, 2, 10)),
            rate=chance.choice((3, 40, 100, 300)),
            before=chance.choice((None, 0.0, chance.uniform(0, 0.75))),
            after=chance.choice((None, 0.0, chance.uniform(0, 0.75))),
            coming=chance.random() < 0.2,
        )
        longest = max(longest, stop_at(lab, moment))
        print(f"{number} stops, the longest took {longest:.2f} s", flush=True)
    if STOPS > 10:
        assert longest <= AT_ANY_TIME
