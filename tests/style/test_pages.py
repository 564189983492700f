"""Links of the pages lead somewhere, tests that they name exist, no limit on them is missed, and
their pictures are small."""

import pathlib
import re

import pytest

pytestmark = pytest.mark.release

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGES = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("lab/*.md")]


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


def test_conformance_names_tests_that_exist():
    page = (ROOT / "docs/conformance.md").read_text()
    folders = "|".join(path.name for path in (ROOT / "tests").iterdir())
    named = re.findall(rf"`({folders})/(\w+)`(?:: ([^`;.|]*))?", page)
    assert named
    for folder, module, words in named:
        names = (f"test_{module}.py", f"{module}_test.cpp")
        (path,) = filter(pathlib.Path.exists, (ROOT / "tests" / folder / name for name in names))
        text = re.sub(r"\W|_", "", path.read_text()).lower()
        for word in words.split(", "):
            assert re.sub(r"\W|_", "", word).lower() in text, f"{path.name}: {word}"
    sections = re.findall(r"`((?:rfc_6763_)?section_\w+)`", page)
    assert sections
    tests = "".join(path.read_text() for path in ROOT.glob("tests/standard_link/*.py"))
    assert [name for name in sections if f"def test_{name}" not in tests] == []


def test_no_limit_is_missed():
    assert PAGES
    assert [page.name for page in PAGES if "MISSED" in page.read_text()] == []


def test_pictures_are_small():
    pictures = list(ROOT.glob("docs/**/*.svg"))
    assert pictures
    assert [each.name for each in pictures if each.stat().st_size >= 40_000] == []
