"""What scripts/mutants changes, what it leaves alone, and that broken code stays in its directory."""

import subprocess
import sys
from collections import Counter
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from mutants import cage, workshop  # noqa: E402
from mutants.mutator import MASKED, Mutant, drawn, places  # noqa: E402
from mutants.workshop import known_equivalents, sources  # noqa: E402

CHANGES = {
    "return a == b && !a;": {"== -> !=", "&& -> ||", "! -> "},
    "std::vector<int> &c = *h(&a, -a);": set(),  # signs that look like binary operators
    "const int c = open(p, O_CREAT | O_EXCL, 0644, true, 'x', 1);": {
        "| -> &", "O_CREAT -> 0", "O_EXCL -> 0", "0644 -> 0645", "0644 -> 0664", "0644 -> 0444", "true -> false",
        "'x' -> '#'", "1 -> 0", "1 -> 2"},
    "const int c = open(p, O_RDONLY | O_EXCL);": {"| -> &", "O_RDONLY -> O_RDWR", "O_EXCL -> 0"},
    'return "Ab";': {'"Ab" -> "bb"', '"Ab" -> "Aa"'},
    r'return "%-5ld\n a%%";': {r'"%-5ld\n a%%" -> "%-5ld\naa%%"', r'"%-5ld\n a%%" -> "%-5ld\n b%%"'},
    'return R"x("a" !=\n)x";': {'"a" !=\n -> "b" !=\n', '"a" !=\n -> "a"a!=\n'},
    "std::string c = a;\n    g(c);": {"g(c); -> {}"},  # no declaration is removed
    "if (b)\n        h();": {"b -> !(b)", "h(); -> {}"},
    "g(a);\n    h(b);": {"g(a); -> {}", "h(b); -> {}", "g(a);\n    h(b); -> h(b);\n    g(a);"},
    "g(a);\n    if (a)\n        k();\n    h(b);": {"g(a); -> {}", "k(); -> {}", "h(b); -> {}", "a -> !(a)"},
    "c = a;\n    d = b;": {"c = a; -> {}", "d = b; -> {}"},  # independent statements are not swapped
    "c = a;\n    d = c;": {"c = a; -> {}", "d = c; -> {}", "c = a;\n    d = c; -> d = c;\n    c = a;"},
    "if (int c = g(); c < a)\n        h();": {"c < a -> !(c < a)", "< -> <=", "< -> >=", "h(); -> {}"},
    "if (a)\n        return b;\n    return c;": {"a -> !(a)", "return b; -> {}"},
    "run([&] {\n        h(a);\n        return b;\n    });": {"h(a); -> {}"},
    "A(const A &) = delete;\n    A();\n    ~A() = default;": {"A(); -> {}"},
    '/* g(1 == 2); */ // "x" h(3);\n#include "y.h"\n#define Z 4\nstatic_assert(5 == 5, "five");': set(),
}


@pytest.mark.parametrize("body", CHANGES)
def test_exactly_these_places_are_changed(body):
    found = {f"{before} -> {after}" for _, _, before, others in places(f"int f(int a, int b)\n{{\n    {body}\n}}\n")
             for after in others}

    assert found == CHANGES[body]


def test_every_place_of_the_sources_is_code():
    for path, text in sources().items():
        skipped = [match.span() for match in MASKED.finditer(text) if match.lastgroup is None]
        for _, start, before, _ in places(text):
            assert text.startswith(before, start)
            assert not [span for span in skipped if span[0] <= start < span[1]], (path, before)


def test_mutant_differs_in_its_place_only():
    texts = sources()
    for mutant in drawn(texts, 1):
        old, new = texts[mutant.path], mutant.applied(texts[mutant.path])
        assert new != old
        assert new[:mutant.start] == old[:mutant.start]
        assert new[mutant.start + len(mutant.after):] == old[mutant.start + len(mutant.before):]


@pytest.mark.parametrize(("path", "first", "all_tests"), [
    ("info/show.cpp", "test_info_show.py", "test_info*.py"), ("cli/conf.cpp", "test_conf.py", "test_*.py")])
def test_tests_of_the_changed_file_run_first(path, first, all_tests):
    names = [test.name for test in workshop.test_files(path)]

    assert names[0] == first
    assert {*names} == {test.name for test in (workshop.REPOSITORY / "tests/command").glob(all_tests)
                        } - {"test_sandbox.py"} | {"docs"}


def test_seed_decides_order_and_changes():
    first, again, other = (drawn(sources(), seed) for seed in (1, 1, 2))

    assert first == again
    assert first != other


def test_difference_shows_lines_without_comments():
    text = "int f(int a)\n{\n    g(a); /* why */\n    return a + 1;\n}\n"
    differences = {mutant.difference(text) for mutant in drawn({"a.cpp": text}, 1)}

    assert differences >= {"  g(a);\n- return a + 1;\n+ return a - 1;", "  {\n- g(a);\n+ {}"}


def test_each_known_equivalent_is_one_mutant_of_the_sources():
    times = Counter()
    for path in {path for path, _ in known_equivalents()}:
        text = sources()[path]
        times.update((path, Mutant(path, 0, kind, start, before, after).difference(text))
                     for kind, start, before, others in places(text) for after in others)

    assert {known: times[known] for known in known_equivalents() if times[known] != 1} == {}
    assert all(known_equivalents().values())


def test_broken_code_cannot_write_outside_its_directory(tmp_path):
    if subprocess.run(cage.caged(tmp_path, ["true"]), capture_output=True, check=False).returncode != 0:
        pytest.skip("the machine allows no mounts")

    assert cage.escape(tmp_path) is None
    assert list(tmp_path.iterdir()) == []


def test_writing_outside_is_detected(tmp_path, monkeypatch):
    monkeypatch.setattr(cage, "caged", lambda _, words: words)

    assert cage.escape(tmp_path)
