"""docs/failures.md: the table is complete, and the tests that it names exist."""

import re

import sources
from sources import REPOSITORY

CELLS = ["Command", "Failure", "Exit status", "Database", "Files", "Log record", "Test"]
COMMANDS = ["any", "--init-db", "--set-resp", "--del-resp", "--add-attach", "--del-attach", "--set-extra-headers",
            "record operation", "library function", "any of `arspinfo", "arspinfo list", "arspinfo show",
            "arspinfo check", "arspinfo export"]
LINES = re.findall(r"^\| (?!--)(.*) \|$", (REPOSITORY / "docs" / "failures.md").read_text(), re.MULTILINE)
HEAD, *ROWS = [[cell.strip() for cell in line.split(" | ")] for line in LINES]


def test_rows_are_complete_unique_and_ordered_by_command():
    commands = [row[0].strip("`") for row in ROWS]

    assert HEAD == CELLS
    assert [row for row in ROWS if len(row) != len(CELLS) or not all(row)] == []
    assert len({(row[0], row[1], row[5], row[6]) for row in ROWS}) == len(ROWS)
    assert commands == sorted(commands, key=COMMANDS.index)
    assert set(commands) == set(COMMANDS)


def test_named_tests_exist():
    names = {name.removeprefix("tests/command/") if name.startswith("tests/command/") else name.partition("::")[2]
             for name in sources.named_tests()}

    assert {row[6].strip("`") for row in ROWS} - names == set()


def test_every_message_is_in_the_table():
    records = " ".join(row[5] for row in ROWS)
    printed = " ".join(row[5] for row in ROWS if "arspinfo" in row[0])

    assert [literal for literal in sources.messages()
            if literal not in sources.PARTS and not sources.as_pattern(literal).search(records)] == []
    assert {words for words in sources.info_messages(sources.INFO_FAILURE) if words not in printed} == set()
