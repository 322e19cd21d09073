"""What the options of the build change: the libraries that arspctl is linked with, and the tests."""

import re
import subprocess

from harness.private_root import REPOSITORY
from harness.sandbox import BUILD_DIRECTORY
from test_protections import output_of


def configure(directory, *options):
    words = ["cmake", "-S", REPOSITORY, "-B", directory, "-G", "Ninja", *options]
    subprocess.run(words, capture_output=True, check=True)


def linked_libraries(directory):
    """The file names of SQLite and of the option library on the linker's command line for arspctl."""
    commands = output_of("ninja", "-C", directory, "-t", "commands", "arspctl").splitlines()
    (link,) = [line for line in commands if " -o cli/arspctl " in line]
    return set(re.findall(r"/(lib(?:sqlite3|boost_program_options)\.(?:a|so))\b", link))


def needed_libraries(program):
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", output_of("readelf", "-dW", program))


def test_only_the_c_library_is_loaded_at_the_start(program):
    needed = needed_libraries(program)

    assert "libc.so.6" in needed
    assert [name for name in needed if not re.fullmatch(r"libc\.so\.6|ld-linux.*", name)] == []


def test_arspctl_has_no_library_of_arspinfo(program):
    text = program.read_bytes()

    assert [name for name in (b"libsmartcols", b"N3CLI", b"nlohmann") if name in text] == []


def test_arspinfo_loads_its_table_library_and_the_c_library_only():
    needed = needed_libraries(BUILD_DIRECTORY / "info" / "arspinfo")

    assert sorted(name for name in needed if not name.startswith("ld-linux")) == ["libc.so.6", "libsmartcols.so.1"]


def test_configured_folder_switches_to_shared_libraries(tmp_path):
    configure(tmp_path, "-DARSP_STATIC_LIBRARIES=ON")
    assert linked_libraries(tmp_path) == {"libsqlite3.a", "libboost_program_options.a"}

    configure(tmp_path, "-DARSP_STATIC_LIBRARIES=OFF")
    assert linked_libraries(tmp_path) == {"libsqlite3.so", "libboost_program_options.so"}


def test_build_testing_off_leaves_the_tests_out(tmp_path):
    configure(tmp_path, "-DBUILD_TESTING=OFF")

    assert "store_test" not in output_of("ninja", "-C", tmp_path, "-t", "targets", "all")
    assert "Total Tests: 0" in output_of("ctest", "--test-dir", tmp_path, "-N")
