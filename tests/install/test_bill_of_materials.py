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


@pytest.fixture(scope="module")
def bill():
    return json.loads((BUILD_DIRECTORY / "cli" / "arspctl.spdx.json").read_text())


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
    found = {loaded_package_of(path) for path in re.findall(r"(/\S+) \(0x", output_of("ldd", program))}

    assert related(bill, packages, "DYNAMIC_LINK") == found == {"libc6"}


def test_bill_lists_the_linked_libraries(bill, packages):
    (command,) = [line for line in output_of("ninja", "-C", BUILD_DIRECTORY, "-t", "commands", "arspctl").splitlines()
                  if " -o cli/arspctl " in line]
    files = set(re.findall(r"(?<= )/\S+\.a(?= )", command))
    assert {"-static-libstdc++", "-static-libgcc"} < set(command.split())
    files |= {output_of("g++", "-print-file-name=" + name).strip() for name in ("libstdc++.a", "libgcc.a", "Scrt1.o")}

    # Boost.PropertyTree consists of headers only.
    assert related(bill, packages, "STATIC_LINK") == {package_of(path) for path in files} | {"libboost1.74-dev"}


@pytest.mark.parametrize("source, mark", [
    ("sqlite3", b"SQLite format 3"), ("boost1.74", b"N5boost15program_options"),
    ("boost1.74", b"N5boost13property_tree"), ("gcc-12", b"St9bad_alloc")])
def test_bill_lists_the_source_of_code_found_in_the_program(packages, program, source, mark):
    assert mark in program.read_bytes()
    assert source in {package.get("sourceInfo", "").partition(" ")[0] for package in packages.values()}


def test_version_of_sqlite_matches_the_program(packages, program):
    version = packages["SPDXRef-libsqlite3-dev"]["versionInfo"].partition("-")[0]

    assert b"\0" + version.encode() + b"\0" in program.read_bytes()


def test_versions_match_the_installed_packages_of_this_architecture(packages):
    architecture = output_of("dpkg", "--print-architecture").strip()
    for package in packages.values():
        if package["name"] != "arspctl":
            (reference,) = package["externalRefs"]
            assert reference["referenceLocator"].endswith(f"?arch={architecture}")
            name = f"{package['name']}:{architecture}"
            assert output_of("dpkg-query", "-W", "-f", "${Version}", name) == package["versionInfo"]


def test_entries_have_all_required_fields(bill, packages):
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
        assert relation["spdxElementId"] in {"SPDXRef-DOCUMENT", "SPDXRef-arspctl"}
        assert relation["relatedSpdxElement"] in packages


def test_library_without_a_known_licence_stops_the_build(generate):
    result = generate("/usr/bin/bash")

    assert result.returncode == 1
    assert result.stderr.startswith("bill of materials: bash (bash) is linked: check its licence and list it in ")


def test_library_without_a_package_stops_the_build(generate):
    result = generate("/opt/lib/other.o")

    assert result.returncode == 1
    assert result.stderr == "bill of materials: /opt/lib/other.o is linked and belongs to no package\n"
