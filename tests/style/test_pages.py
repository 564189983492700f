"""Links of the pages lead somewhere, no limit on them is missed, and their pictures are small."""

import pathlib
import re

import pytest

pytestmark = pytest.mark.release

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGES = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("lab/*.md")]
PICTURES = list(ROOT.glob("docs/**/*.svg"))
PICTURE_MAX = 40_000


def anchors(page):
    """The names under which headings can be linked to."""
    headings = re.findall(r"^#+ (.*)$", page.read_text(), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def is_dead(page, link):
    path, _, anchor = link.partition("#")
    target = page.parent / path if path else page
    return not target.exists() or (anchor and anchor not in anchors(target))


def test_links_lead_somewhere():
    links = [
        (page, link)
        for page in PAGES
        for link in re.findall(r"\]\(([^)\s]+)\)", page.read_text())
        if "://" not in link
    ]
    assert links
    assert [(page.name, link) for page, link in links if is_dead(page, link)] == []


def test_no_limit_is_missed():
    assert PAGES
    assert [page.name for page in PAGES if "MISSED" in page.read_text()] == []


def test_pictures_are_small():
    assert PICTURES
    assert [each.name for each in PICTURES if each.stat().st_size >= PICTURE_MAX] == []
