"""The same sources give the same daemon, wherever and whenever it is built."""

import calendar
import re
import time

import building
import pytest

# 2025-03-03 11:06:40 UTC
EPOCH = "1741000000"
# What packages of distributions are compiled and linked with.
COMPILE = (
    "-O2 -g3 -flto=auto -ffat-lto-objects -fstack-clash-protection -fcf-protection -Wdate-time"
    " -D_FORTIFY_SOURCE=3 -D_LARGEFILE64_SOURCE -D_FILE_OFFSET_BITS=64"
)
LINK = "-flto=auto -Wl,-O1,--hash-style=gnu,--as-needed,-z,relro,-z,now"


def date(build):
    (found,) = re.findall(
        r"BUILD_TIME=\W*([\w :]+)", (build / "compile_commands.json").read_text()
    )
    return found


@pytest.mark.seconds(20)
def test_two_places_give_the_same_bytes_with_the_date_and_without_a_warning(tmp_path):
    flags = {"CFLAGS": COMPILE, "CXXFLAGS": COMPILE, "LDFLAGS": LINK}
    daemons = []
    for place in (tmp_path / "here", tmp_path / "another place"):
        place.mkdir()
        source = building.copy_of_sources(place / "sources")
        printed = building.build(place / "build", source=source, SOURCE_DATE_EPOCH=EPOCH, **flags)
        assert "warning" not in printed
        daemons.append(place / "build/bonjour")
        building.run("strip", daemons[-1])
    assert daemons[0].read_bytes() == daemons[1].read_bytes()
    assert building.needs(daemons[0]) == ["libc.so.6"]
    # Of its banner.
    assert b"Mar  3 2025 11:06:40" in daemons[0].read_bytes()


def test_date_is_that_of_the_configuration_until_an_epoch_is_given(tmp_path):
    begun = int(time.time())
    building.configure(tmp_path, building.UNOPTIMISED)
    first = date(tmp_path)
    configured = calendar.timegm(time.strptime(first, "%b %d %Y %H:%M:%S"))
    assert begun <= configured <= time.time()
    building.configure(tmp_path)
    assert date(tmp_path) == first
    building.configure(tmp_path, SOURCE_DATE_EPOCH="1764547199")
    assert date(tmp_path).strip() == "Nov 30 2025 23:59:59"
