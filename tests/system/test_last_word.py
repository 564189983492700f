"""The stop at many moments: the last packet of every service is its goodbye."""

from concurrent.futures import ThreadPoolExecutor

import pytest
from lab import Lab
from last_word import AT_ANY_TIME, WITHOUT_PACKETS, WITHOUT_SERVICES, Moment, stop_at

STOPS = 3

MOMENTS = {
    "silent link": Moment(),
    "silent link, ten printers": Moment(printers=10),
    "question 20 ms before": Moment(before=0.02),
    "question just before": Moment(before=0.0),
    "question just after": Moment(after=0.0),
    "question 300 ms after": Moment(after=0.3),
    "40 questions a second": Moment(rate=40),
    "300 questions a second": Moment(rate=300),
    "300 questions a second, ten printers": Moment(printers=10, rate=300),
    "printer comes": Moment(coming=True),
    "ten printers come at 40 questions a second": Moment(printers=10, rate=40, coming=True),
    "printer goes": Moment(going=True),
    "ten printers go": Moment(printers=10, going=True),
}


@pytest.mark.seconds(15)
@pytest.mark.parametrize("moment", MOMENTS.values(), ids=MOMENTS.keys())
def test_stop_lets_the_goodbye_be_the_last_word(lab, moment):
    for _ in range(STOPS):
        stop_at(lab, moment)


TIMED = [
    (Moment(printers=0), WITHOUT_SERVICES),
    (Moment(printers=10), WITHOUT_PACKETS),
    (Moment(printers=10, before=0.0), AT_ANY_TIME),
    (Moment(printers=2, rate=40), AT_ANY_TIME),
    (Moment(printers=10, rate=300), AT_ANY_TIME),
    (Moment(printers=10, coming=True), AT_ANY_TIME),
]


@pytest.mark.alone
@pytest.mark.release
@pytest.mark.seconds(20)
def test_stop_is_over_at_once():
    """Side by side, each on a link of its own, and with no other test beside them."""

    def seconds_of(moment):
        with Lab() as own:
            return stop_at(own, moment)

    with ThreadPoolExecutor(len(TIMED)) as pool:
        took = list(pool.map(seconds_of, (moment for moment, _ in TIMED)))
    late = [
        f"{moment}: {seconds:.2f} s, at most {most}"
        for (moment, most), seconds in zip(TIMED, took)
        if seconds > most
    ]
    print(*(f"{seconds:.2f} s  {moment}" for (moment, _), seconds in zip(TIMED, took)), sep="\n")
    assert not late
