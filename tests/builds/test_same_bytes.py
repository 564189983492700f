"""The same sources give the same daemon, wherever and whenever it is built."""

import calendar
import re
import time

import building
import pytest

# 2025-03-03 11:06:40 UTC
EPOCH = "1741000000"


def commands(build):
    return (build / "compile_commands.json").read_text()


@pytest.mark.seconds(20)
def test_two_places_give_the_same_bytes_with_the_date_in_the_banner(lab, tmp_path, monkeypatch):
    flags = {"CFLAGS": "-g", "CXXFLAGS": "-g"}
    daemons = []
    for place in (tmp_path / "here", tmp_path / "another place"):
        place.mkdir()
        source = building.copy_of_sources(place / "sources")
        building.build(place / "build", source=source, SOURCE_DATE_EPOCH=EPOCH, **flags)
        daemons.append(place / "build/bonjour")
        building.run("strip", daemons[-1])
    assert daemons[0].read_bytes() == daemons[1].read_bytes()

    monkeypatch.setenv("BONJOUR", str(daemons[0]))
    started = lab.router.start()
    assert "[QX] T5140 Bonjour v2.1 Start (Mar  3 2025 11:06:40)" in started.texts()


def test_date_is_kept_when_a_folder_is_configured_again_and_follows_a_new_epoch(tmp_path):
    building.configure(tmp_path, building.UNOPTIMISED, SOURCE_DATE_EPOCH=EPOCH)
    before = commands(tmp_path)
    building.configure(tmp_path)
    assert commands(tmp_path) == before
    building.configure(tmp_path, SOURCE_DATE_EPOCH="1764547199")
    assert "Nov 30 2025 23:59:59" in commands(tmp_path)


def test_date_without_source_date_epoch_is_that_of_the_configuration(tmp_path):
    begun = int(time.time())
    building.configure(tmp_path, building.UNOPTIMISED)
    (date,) = re.findall(r"BUILD_TIME=\W*([\w :]+)", commands(tmp_path))
    configured = calendar.timegm(time.strptime(date, "%b %d %Y %H:%M:%S"))
    assert begun <= configured <= time.time()
