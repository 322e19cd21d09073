"""The bill of materials matches the libraries that the loader and the linker's command line show."""

import json
import re
import subprocess
from pathlib import Path

import pytest
from harness.private_root import REPOSITORY
from harness.sandbox import BUILD_DIRECTORY

GENERATOR = REPOSITORY / "cmake" / "bill_of_materials.py"


def output_of(*words, **options):
    return subprocess.run(words, capture_output=True, text=True, check=True, **options).stdout


def package_of(path):
    return output_of("dpkg-query", "-S", str(Path(path).resolve())).partition(":")[0]


def loaded_package_of(path):
    """Returns the package of a shared library, which dpkg may list below /lib or below /usr/lib."""
    real = str(Path(path).resolve())
    names = subprocess.run(["dpkg-query", "-S", real, real.removeprefix("/usr")], capture_output=True, text=True,
                           check=False).stdout
    return names.partition(":")[0]


# Each program, the libraries that it loads and those of which only headers are compiled in.
PROGRAMS = {
    "cli/arspctl": ({"libc6"}, {"libboost1.74-dev"}),
    "info/arspinfo": ({"libc6", "libsmartcols1"}, {"libcli11-dev", "nlohmann-json3-dev"}),
}


@pytest.fixture(scope="module", params=PROGRAMS)
def program(request):
    """Returns a program of the build, as its path below the build directory."""
    return request.param


@pytest.fixture(scope="module")
def bill(program):
    return json.loads((BUILD_DIRECTORY / (program + ".spdx.json")).read_text())


@pytest.fixture(scope="module")
def packages(bill):
    """Returns the entries of the bill by identifier."""
    return {package["SPDXID"]: package for package in bill["packages"]}


def related(bill, packages, kind):
    return {packages[relation["relatedSpdxElement"]]["name"] for relation in bill["relationships"]
            if relation["relationshipType"] == kind}


@pytest.fixture
def generate(tmp_path):
    """Returns a function that runs the generator for a static program linked from the given files."""

    def generate(*paths):
        source = tmp_path / "nothing.s"
        source.write_text(".globl _start\n_start: ret\n")
        subprocess.run(["gcc", "-nostdlib", "-static", source, "-o", tmp_path / "nothing"], check=True)
        (tmp_path / "map").write_text("".join(f"LOAD {path}\n" for path in paths))
        command = [GENERATOR, "--program", tmp_path / "nothing", "--version", "1", "--build", tmp_path,
                   "--map", tmp_path / "map", "--output", tmp_path / "bill"]
        return subprocess.run(command, capture_output=True, text=True, check=False)

    return generate


def test_bill_lists_the_loaded_libraries(bill, packages, program):
    libraries = output_of("readelf", "-dW", BUILD_DIRECTORY / program)
    paths = dict(re.findall(r"(\S+) => (/\S+) ", output_of("ldd", BUILD_DIRECTORY / program)))
    found = {loaded_package_of(paths[name]) for name in re.findall(r"NEEDED.*\[(.*)\]", libraries) if name in paths}

    assert related(bill, packages, "DYNAMIC_LINK") - {"libc6"} == found - {"libc6"}
    assert related(bill, packages, "DYNAMIC_LINK") == PROGRAMS[program][0]


def test_bill_lists_the_linked_libraries(bill, packages, program):
    name = program.partition("/")[2]
    (command,) = [line for line in output_of("ninja", "-C", BUILD_DIRECTORY, "-t", "commands", name).splitlines()
                  if f" -o {program} " in line]
    files = set(re.findall(r"(?<= )/\S+\.a(?= )", command))
    assert {"-static-libstdc++", "-static-libgcc"} < set(command.split())
    files |= {output_of("g++", "-print-file-name=" + name).strip() for name in ("libstdc++.a", "libgcc.a", "Scrt1.o")}

    assert related(bill, packages, "STATIC_LINK") == {package_of(path) for path in files} | PROGRAMS[program][1]


@pytest.mark.parametrize("program, source, mark", [
    ("cli/arspctl", "sqlite3", b"SQLite format 3"), ("cli/arspctl", "boost1.74", b"N5boost15program_options"),
    ("cli/arspctl", "boost1.74", b"N5boost13property_tree"), ("cli/arspctl", "gcc-12", b"St9bad_alloc"),
    ("info/arspinfo", "sqlite3", b"SQLite format 3"), ("info/arspinfo", "cli11", b"N3CLI"),
    ("info/arspinfo", "nlohmann-json3", b"N8nlohmann")], indirect=["program"], scope="module")
def test_bill_lists_the_source_of_code_found_in_the_program(packages, program, source, mark):
    assert mark in (BUILD_DIRECTORY / program).read_bytes()
    assert source in {package.get("sourceInfo", "").partition(" ")[0] for package in packages.values()}


def test_version_of_sqlite_matches_the_program(packages, program):
    version = packages["SPDXRef-libsqlite3-dev"]["versionInfo"].partition("-")[0]

    assert b"\0" + version.encode() + b"\0" in (BUILD_DIRECTORY / program).read_bytes()


def test_versions_match_the_installed_packages_of_this_architecture(packages):
    architecture = output_of("dpkg", "--print-architecture").strip()
    for package in packages.values():
        if "externalRefs" in package:
            (reference,) = package["externalRefs"]
            _, _, found = reference["referenceLocator"].partition("?arch=")
            assert found in (architecture, "all")
            name = package["name"] if found == "all" else f"{package['name']}:{architecture}"
            assert output_of("dpkg-query", "-W", "-f", "${Version}", name) == package["versionInfo"]


def test_entries_have_all_required_fields(bill, packages, program):
    assert bill["spdxVersion"] == "SPDX-2.3"
    assert bill["dataLicense"] == "CC0-1.0"
    assert bill["SPDXID"] == "SPDXRef-DOCUMENT"
    assert re.fullmatch(r"urn:uuid:[0-9a-f-]{36}", bill["documentNamespace"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", bill["creationInfo"]["created"])
    assert bill["creationInfo"]["creators"]
    assert len(packages) == len(bill["packages"])
    for identifier, package in packages.items():
        assert re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", identifier)
        assert package["name"] and package["versionInfo"] and package["downloadLocation"] and package["licenseDeclared"]
    for relation in bill["relationships"]:
        assert relation["spdxElementId"] in {"SPDXRef-DOCUMENT", "SPDXRef-" + program.partition("/")[2]}
        assert relation["relatedSpdxElement"] in packages


def test_library_without_a_known_licence_stops_the_build(generate):
    result = generate("/usr/bin/bash")

    assert result.returncode == 1
    assert result.stderr.startswith("bill of materials: bash (bash) is linked: check its licence and list it in ")


def test_library_without_a_package_stops_the_build(generate):
    result = generate("/opt/lib/other.o")

    assert result.returncode == 1
    assert result.stderr == "bill of materials: /opt/lib/other.o is linked and belongs to no package\n"
