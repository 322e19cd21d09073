"""What scripts/mutants changes, and what it leaves alone."""

import subprocess
import sys
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "tests"))

from mutants.known import known_survivors  # noqa: E402
from mutants.mutator import TOKEN, Deck, Source, letters, with_another_letter  # noqa: E402
from mutants.workshop import CAGE, sources  # noqa: E402


class Lowest:
    """Chance that always takes the first."""

    @staticmethod
    def choice(things):
        return things[0]


def changes(body):
    """All changes of a function with that body, as "kind: before -> after"; a letter's without the after."""
    source = Source("a.cpp", "int f(int a, int b)\n{\n" + body + "\n}\n")
    return {f"{kind}: {before} -> {after}" for kind, _, before, others in source.places() for after in others or ["letter"]}


def test_operators_are_swapped():
    assert changes("g(a == b && !a);") >= {"operator: == -> !=", "operator: && -> ||", "operator: ! -> "}


def test_what_only_looks_like_an_operator_is_left_alone():
    assert not [change for change in changes("std::vector<int> &c = *h(&a, -1);") if change.startswith("operator")]


def test_constants_are_changed():
    assert changes("open(p, O_CREAT | O_EXCL, 0644, true, 'x', 1);") >= {
        "constant: O_EXCL -> 0", "constant: 0644 -> 0645", "constant: true -> false", "constant: 'x' -> '#'",
        "constant: 1 -> 0", "constant: 1 -> 2"}


def test_a_letter_of_a_text_is_changed():
    assert "letter: \"Unable\" -> letter" in changes('g("Unable");')
    assert with_another_letter('"Unable"', Lowest) == '"Anable"'


def test_conversions_and_escapes_of_a_text_stay():
    assert [r'"%-5ld\n a%%"'[position] for position in letters(r'"%-5ld\n a%%"')] == [" ", "a"]


def test_statements_are_removed_but_no_declarations():
    assert {change for change in changes("std::string c(a); g(c); if (b) h(); ") if change.startswith("statement removed")} == {
        "statement removed: g(c); -> ", "statement removed: h(); -> {}"}


def test_neighbouring_statements_are_swapped():
    assert "statements swapped: g(a); h(b); -> h(b); g(a);" in changes("g(a); h(b);")


def test_statements_with_something_between_are_not_swapped():
    assert not [change for change in changes("g(a); if (a) k(); h(b);") if change.startswith("statements swapped")]


def test_statements_that_do_not_depend_on_each_other_are_not_swapped():
    assert not [change for change in changes("c = a; d = b;") if change.startswith("statements swapped")]
    assert "statements swapped: c = a; d = c; -> d = c; c = a;" in changes("c = a; d = c;")


def test_conditions_are_negated():
    assert changes("if (int c = g(); c < a) h();") >= {"condition negated: c < a -> !(c < a)"}


def test_early_returns_are_removed_but_not_the_last_one():
    assert {change for change in changes("if (a) return 1; while (b) { return 2; } return 3;")
            if change.startswith("return")} == {"return removed: return 1; -> {}", "return removed: return 2; -> {}"}


def test_statements_of_lambdas_count():
    assert "statement removed: h(a); -> " in changes("g([&] { h(a); return 0; });")


def test_comments_includes_and_assertions_of_the_compiler_are_left_alone():
    assert changes('/* g(1 == 2); */ // "x" h(3);\n#include "y.h"\n#define Z 4\nstatic_assert(5 == 5, "five");') == set()


def test_every_place_of_the_sources_is_code():
    for path, text in sources().items():
        skipped = [match.span() for match in TOKEN.finditer(text) if match.lastgroup in ("comment", "directive")]
        for _, start, before, _ in Source(path, text).places():
            assert text.startswith(before, start)
            assert not [span for span in skipped if span[0] <= start < span[1]], (path, before)


def test_a_mutant_differs_in_its_place_only():
    texts = sources()
    deck = Deck(texts, 1)
    for number in range(1, len(deck) + 1):
        mutant = deck.draw(number)
        old, new = texts[mutant.path], mutant.applied(texts[mutant.path])
        assert new != old
        assert new[:mutant.start] == old[:mutant.start]
        assert new[mutant.start + len(mutant.after):] == old[mutant.start + len(mutant.before):]


def test_a_seed_always_draws_the_same():
    decks = [Deck(sources(), seed) for seed in (1, 1, 2)]
    drawn = [[deck.draw(number, attempt) for number in range(1, 40) for attempt in (0, 1)] for deck in decks]

    assert drawn[0] == drawn[1]
    assert drawn[0] != drawn[2]


def test_the_difference_shows_the_lines():
    text = "int f(int a)\n{\n    g(a);\n    return a + 1;\n}\n"
    deck = Deck({"a.cpp": text}, 1)
    differences = {deck.draw(number).difference(text) for number in range(1, len(deck) + 1)}

    assert "- return a + 1;\n+ return a - 1;" in differences
    assert "- g(a);\n+" in differences


def test_what_nothing_can_see_is_a_change_of_lines_that_are_there():
    assert known_survivors()
    for (path, difference), reason in known_survivors().items():
        lines = [line.strip() for line in sources()[path].splitlines()]
        assert [line for line in difference.splitlines() if line.startswith("- ") and line[2:] not in lines] == [], path
        assert reason


@pytest.mark.parametrize("attempt", ["chmod 700 {outside}", "touch {outside}/file", "mkdir {outside}/directory"])
def test_what_a_mutant_runs_cannot_write_outside_its_copy(tmp_path, attempt):
    outside, inside = tmp_path / "outside", tmp_path / "inside"
    outside.mkdir(mode=0o755)
    inside.mkdir()
    before = outside.stat()
    cage = [*CAGE, REPOSITORY / "tests/mutants/cage.py", inside, "/bin/sh", "-c"]

    subprocess.run([*cage, attempt.format(outside=outside)], capture_output=True, check=False)

    assert (outside.stat().st_mode, outside.stat().st_ctime_ns) == (before.st_mode, before.st_ctime_ns)
    assert list(outside.iterdir()) == []
