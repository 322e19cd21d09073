"""The compiler's and the linker's protections, read from the built files."""

import json
import re
import subprocess
from pathlib import Path

import pytest
from harness.private_root import REPOSITORY
from harness.sandbox import BUILD_DIRECTORY

PROTECTIONS = ["-D_FORTIFY_SOURCE=3", "-D_GLIBCXX_ASSERTIONS", "-fstack-protector-strong", "-fstack-clash-protection",
               "-fcf-protection", "-ftrivial-auto-var-init=zero", "-fPIE|-fPIC"]


def output_of(*words):
    return subprocess.run(words, capture_output=True, text=True, check=True, env={"LC_ALL": "C", "PATH": "/usr/bin"}).stdout


def calls(archive):
    """The functions that the objects of an archive take from elsewhere."""
    return set(re.findall(r" U (\S+)", output_of("nm", archive)))


def test_the_program_is_loaded_at_any_address(program):
    assert re.search(r"Type:\s+DYN \(Position-Independent Executable file\)", output_of("readelf", "-h", program))


def test_addresses_are_settled_before_the_program_starts_and_then_read_only(program):
    assert " GNU_RELRO " in output_of("readelf", "-lW", program)
    assert re.search(r"\(FLAGS\)\s+BIND_NOW", output_of("readelf", "-dW", program))


def test_no_segment_can_be_both_written_and_executed(program):
    segments = re.findall(r"^  (\S+) +(?:0x\S+ +){5}([RWE ]{3}) ", output_of("readelf", "-lW", program), re.MULTILINE)

    assert ("GNU_STACK", "RW ") in segments
    assert [name for name, rights in segments if "W" in rights and "E" in rights] == []


def test_a_smashed_stack_ends_the_program(archives):
    for archive in archives:
        assert "__stack_chk_fail" in calls(archive)


def test_formats_are_checked(archives):
    made = set().union(*map(calls, archives))

    assert {"__snprintf_chk", "__syslog_chk", "__vasprintf_chk", "__vsnprintf_chk"} <= made
    assert [name for name in made if re.fullmatch(r"v?(f|s|as|d)?printf|v?syslog", name)] == []


def test_indexes_of_containers_are_checked(archives):
    assert "std::__glibcxx_assert_fail" in output_of("nm", "-C", *archives)


def test_every_object_of_ours_admits_only_marked_jumps_and_a_shadow_stack(archives):
    # The program does not say so of itself: some of Debian's objects that are linked into it are without the marks.
    for archive in archives:
        objects = output_of("readelf", "-nW", archive).split("\nFile: ")[1:]
        assert objects
        for notes in objects:
            assert "x86 feature: IBT, SHSTK" in notes, notes.splitlines()[0]


@pytest.fixture(scope="module")
def compilations():
    """The command line of each of our sources."""
    commands = json.loads((BUILD_DIRECTORY / "compile_commands.json").read_text())
    return [entry["command"].split() for entry in commands
            if re.search(r" -o (cli|store|support)/", entry["command"])]


def test_every_source_is_looked_at(compilations):
    sources = [str(path) for folder in ("cli", "store", "support") for path in (REPOSITORY / folder).glob("*.cpp")]

    assert sorted(Path(words[-1]).name for words in compilations) == sorted(Path(path).name for path in sources)


@pytest.mark.parametrize("protection", PROTECTIONS)
def test_every_source_is_compiled_with(compilations, protection):
    assert [words[-1] for words in compilations if not set(words) & set(protection.split("|"))] == []


def test_nothing_takes_the_checks_of_formats_back(compilations):
    for words in compilations:
        assert [word for word in words if "_FORTIFY_SOURCE" in word][-1] == "-D_FORTIFY_SOURCE=3"
