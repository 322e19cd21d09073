"""The built files have the compiler's and the linker's protections."""

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
    environment = {"LC_ALL": "C", "PATH": "/usr/bin"}
    return subprocess.run(words, capture_output=True, text=True, check=True, env=environment).stdout


def calls(archive):
    """Returns the undefined symbols of an archive's objects."""
    return set(re.findall(r" U (\S+)", output_of("nm", archive)))


def test_program_is_position_independent(each_program):
    assert re.search(r"Type:\s+DYN \(Position-Independent Executable file\)", output_of("readelf", "-h", each_program))


def test_relocations_are_resolved_at_start_and_then_read_only(each_program):
    assert " GNU_RELRO " in output_of("readelf", "-lW", each_program)
    assert re.search(r"\(FLAGS\)\s+BIND_NOW", output_of("readelf", "-dW", each_program))


def test_no_segment_is_writable_and_executable(each_program):
    headers = output_of("readelf", "-lW", each_program)
    segments = re.findall(r"^  (\S+) +(?:0x\S+ +){5}([RWE ]{3}) ", headers, re.MULTILINE)

    assert ("GNU_STACK", "RW ") in segments
    assert [name for name, rights in segments if "W" in rights and "E" in rights] == []


def test_functions_that_no_command_calls_are_dropped(program, archives):
    names = ["first_existing_path", "find_dir_entry", "rename_dir", "chown_chmod_to_user", "read_first_line",
             "conf_get_by_name", "str_dup_lower", "store_autoresponder_record"]
    in_libraries, in_program = (output_of("nm", "-C", *files) for files in (archives, [program]))

    assert [name for name in names if f" T {name}(" not in in_libraries] == []
    assert [name for name in names if f" {name}(" in in_program] == []


def test_stack_protector_is_used(archives):
    for archive in archives:
        assert "__stack_chk_fail" in calls(archive)


def test_format_functions_are_fortified(archives):
    made = set().union(*map(calls, archives))

    assert {"__snprintf_chk", "__syslog_chk", "__vasprintf_chk", "__vsnprintf_chk"} <= made
    assert [name for name in made if re.fullmatch(r"v?(f|s|as|d)?printf|v?syslog", name)] == []


def test_container_assertions_are_enabled(archives):
    assert "std::__glibcxx_assert_fail" in output_of("nm", "-C", *archives)


def test_own_objects_are_marked_for_ibt_and_shadow_stack(archives):
    # The program itself has no mark, because some of Debian's objects linked into it have none.
    for archive in archives:
        objects = output_of("readelf", "-nW", archive).split("\nFile: ")[1:]
        assert objects
        for notes in objects:
            assert "x86 feature: IBT, SHSTK" in notes, notes.splitlines()[0]


@pytest.fixture(scope="module")
def compilations():
    """Returns the compiler command of each product source."""
    commands = json.loads((BUILD_DIRECTORY / "compile_commands.json").read_text())
    return [entry["command"].split() for entry in commands
            if re.search(r" -o (cli|info|store|support)/", entry["command"])]


def test_compilations_cover_every_source(compilations):
    sources = [path for folder in ("cli", "info", "store", "support") for path in (REPOSITORY / folder).glob("*.cpp")]

    assert sorted(Path(words[-1]).name for words in compilations) == sorted(path.name for path in sources)


@pytest.mark.parametrize("protection", PROTECTIONS)
def test_every_source_is_compiled_with_protection(compilations, protection):
    assert [words[-1] for words in compilations if not set(words) & set(protection.split("|"))] == []


def test_last_fortify_level_is_three(compilations):
    for words in compilations:
        assert [word for word in words if "_FORTIFY_SOURCE" in word][-1] == "-D_FORTIFY_SOURCE=3"
