"""The stop at many moments: the last packet of every service is its goodbye."""

import pytest
from last_word import AT_ANY_TIME, WITHOUT_PACKETS, WITHOUT_SERVICES, Moment, stop_at

STOPS = 3

MOMENTS = {
    "silent link, ten printers": Moment(printers=10),
    "question 20 ms before": Moment(before=0.02),
    "question just before": Moment(before=0.0),
    "question just after": Moment(after=0.0),
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


@pytest.mark.alone
@pytest.mark.release
@pytest.mark.parametrize(
    "moment, most",
    [
        (Moment(printers=0), WITHOUT_SERVICES),
        (Moment(printers=10), WITHOUT_PACKETS),
        (Moment(printers=10, rate=300), AT_ANY_TIME),
    ],
    ids=["without services", "without packets", "at any time"],
)
def test_stop_is_over_at_once(lab, moment, most):
    assert stop_at(lab, moment) <= most
