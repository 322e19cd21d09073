"""Fixtures of the installation tests: the build under test and its installed components."""

import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from harness.sandbox import BUILD_DIRECTORY, program_under_test  # noqa: E402


@pytest.fixture(scope="session")
def program():
    """Returns the arspctl under test."""
    return program_under_test()


@pytest.fixture(params=["cli/arspctl", "info/arspinfo"])
def each_program(request):
    """Returns each program of the build in turn."""
    return BUILD_DIRECTORY / request.param


@pytest.fixture(scope="session")
def archives():
    """Returns the libraries that other programs link."""
    return [BUILD_DIRECTORY / folder / f"libarsp_{folder}.a" for folder in ("store", "support")]


@pytest.fixture
def install(tmp_path):
    """Returns a function that installs one component and returns its files, sorted, relative to the prefix."""

    def install(component):
        place = tmp_path / component
        subprocess.run(["cmake", "--install", BUILD_DIRECTORY, "--prefix", place, "--component", component],
                       capture_output=True, check=True)
        return sorted(str(path.relative_to(place)) for path in place.rglob("*") if not path.is_dir())

    return install
