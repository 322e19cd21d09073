"""doc/arspinfo.8 is complete: options, columns, findings and messages are those of the program, in both directions."""

import re
import subprocess

import manual
import pytest
import sources
from sources import REPOSITORY

INFO = REPOSITORY / "info"
CODE = re.compile(r"[a-z]+(?:-[a-z]+)+|link|number")


@pytest.fixture(scope="module")
def page():
    return manual.rendered(REPOSITORY / "doc" / "arspinfo.8")


def heads(page, section):
    """Returns the heads of the items; the explanation of a short one begins in the same line."""
    return [re.split("  +", head)[0] for head, _ in manual.items(manual.section(page, section))]


def help_pages(sandbox):
    return "".join(sandbox.info(*command, "--help").stdout.decode()
                   for command in ([], ["list"], ["show"], ["check"], ["export"]))


def codes():
    """The codes of all findings: literals of that form in the calls that make one."""
    found = set()
    for path in [*INFO.glob("check_*.cpp"), INFO / "database.cpp"]:
        for call in re.findall(r"(?:findings_?\.add|warn|DatabaseFailure|checkPlace)\(.*?\);|return \"db-.*?\";",
                               path.read_text(), re.DOTALL):
            found |= {text for text in re.findall(r'"([^"]*)"', call) if CODE.fullmatch(text)}
    return found


def test_mandoc_finds_no_fault():
    assert subprocess.run(["mandoc", "-T", "lint", "-W", "warning", REPOSITORY / "doc" / "arspinfo.8"],
                                 capture_output=True, text=True, check=False).stdout == ""


def test_options_and_columns_are_those_of_the_help_pages(sandbox, page):
    text = help_pages(sandbox)
    items = heads(page, "DESCRIPTION")

    options = {name for head in items for name in re.findall(r"--[a-z]+", head)}
    assert options == set(re.findall(r"--[a-z]+", text))
    columns = {name: bool(star) for name, star in re.findall(r"^([A-Z]{3,})( \*)?$", "\n".join(items), re.MULTILINE)}
    assert columns == {name: mark == "*" for mark, name in re.findall(r"^([* ]) ([A-Z]+) ", text, re.MULTILINE)}


def test_findings_are_those_of_the_code(page):
    assert set(heads(page, "FINDINGS")) == codes()


def test_messages_of_the_code_are_in_the_page(page):
    diagnostics = " ".join(manual.section(page, "DIAGNOSTICS").split())
    messages = sources.info_messages(f"{sources.INFO_FAILURE}|{sources.INFO_REASON}")

    assert {words for words in messages if words not in diagnostics} == set()
