"""docs/failures.md: its table is complete, and every test that it names is there."""

import re

import pytest
import sources
from sources import REPOSITORY

CELLS = ["Command", "Failure", "Exit status", "Database", "Files", "Log record", "Test"]
COMMANDS = ["any", "--init-db", "--set-resp", "--del-resp", "--add-attach", "--del-attach", "--set-extra-headers",
            "record operation", "library function"]

# Put together from pieces, or parts of other messages.
COMPOSED = {"Unable to begin sqlite transaction": "Unable to begin sqlite transaction: TEXT",
            "Unable to end sqlite transaction": "Unable to end sqlite transaction: TEXT"}
PARTS = {"\nSystem error %d: %s", "cannot open directory", "cannot read directory", "cannot leave directory", "cannot remove", "nested too deeply"}


def table():
    lines = [line for line in (REPOSITORY / "docs" / "failures.md").read_text().splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line[2:-2].split(" | ")] for line in lines if not line.startswith("|--")]


ROWS = table()[1:]


def test_there_is_one_table_with_its_columns():
    assert table()[0] == CELLS
    assert [row for row in table() if len(row) != len(CELLS)] == []


def test_no_cell_is_empty():
    assert [row for row in ROWS if not all(row)] == []


def test_no_row_stands_twice():
    keys = [(row[0], row[1], row[5], row[6]) for row in ROWS]

    assert len(set(keys)) == len(keys)


@pytest.mark.parametrize("command", COMMANDS)
def test_every_command_has_its_rows(command):
    assert [row for row in ROWS if row[0].strip("`") == command]


def test_rows_stand_by_command():
    order = [COMMANDS.index(row[0].strip("`")) for row in ROWS]

    assert order == sorted(order)


@pytest.mark.parametrize("test", sorted({row[6].strip("`") for row in ROWS}))
def test_the_test_that_is_named_exists(test):
    if "::" in test:
        file, function = test.split("::")
        assert re.search(rf"^ *def {function}\(", (REPOSITORY / "tests" / "command" / file).read_text(), re.MULTILINE)
    else:
        suite, name = test.split(".")
        texts = [path.read_text() for path in (REPOSITORY / "tests" / "unit").glob("*/*_test.cpp")]
        assert any(re.search(rf"^TEST(_F|_P)?\({suite}, {name}\)", text, re.MULTILINE) for text in texts)


def test_every_message_is_in_the_table():
    records = " ".join(row[5] for row in ROWS)

    assert [literal for literal in sources.messages() if literal not in PARTS
            and not sources.as_pattern(COMPOSED.get(literal, literal)).search(records)] == []
