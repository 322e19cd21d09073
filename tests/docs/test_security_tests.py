"""docs/security-tests.md: the tests that it names and the sentences of SECURITY.md that it quotes exist."""

import re

import sources
from sources import REPOSITORY

LINES = re.findall(r"^\| (?!--)(.*) \|$", (REPOSITORY / "docs" / "security-tests.md").read_text(), re.MULTILINE)
HEAD, *ROWS = [line.split(" | ") for line in LINES]
SECURITY = (REPOSITORY / "SECURITY.md").read_text()
TEST = re.compile(r"`(tests/[^`]*::[^`]*)`")
SENTENCE = re.compile(r'\[SECURITY\.md\]\(\.\./SECURITY\.md#([a-z-]+)\): "([^"]+)"')


def test_rows_are_complete_unique_and_ordered_by_class():
    weaknesses = [row[1] for row in ROWS]

    assert HEAD == ["Class", "Weakness", "Here", "Shown by"]
    assert [row for row in ROWS if len(row) != 4 or not re.match(r"CVE-\d{4}-\d{4,}, \w", row[1])] == []
    assert len(set(weaknesses)) == len(weaknesses)
    assert [row[0] for row in ROWS] == sorted((row[0] for row in ROWS), key=str.lower)


def test_each_row_names_tests_or_quotes_sentences_and_nothing_else():
    for row in ROWS:
        for part in row[3].split("<br>"):
            assert TEST.fullmatch(part) or SENTENCE.fullmatch(part) or (REPOSITORY / part.strip("`")).is_file(), part


def test_named_tests_exist():
    assert {name for row in ROWS for name in TEST.findall(row[3])} - sources.named_tests() == set()


def test_quoted_sentences_are_in_their_section():
    sections = {re.sub("[^a-z -]", "", title.lower()).replace(" ", "-"): " ".join(text.split())
                for title, text in re.findall(r"^##+ (.*)\n((?:(?!##).*\n)*)", SECURITY, re.MULTILINE)}

    assert [(section, text) for row in ROWS for section, text in SENTENCE.findall(row[3])
            if text not in sections.get(section, "")] == []
