"""A copy of the tree in which mutants are built and tested one after the other."""

import os
import re
import shutil
import subprocess
import sys
from collections import Counter
from pathlib import Path

from .cage import caged

REPOSITORY = Path(__file__).resolve().parents[2]
FOLDERS = {"support": ("support", "store", "cli", "info"), "store": ("store", "cli", "info"), "cli": ("cli",),
           "info": ("info",)}  # the unit tests of which folders detect the mutants of a folder
NOT_COPIED = {".git", "build", "__pycache__", ".pytest_cache"}
SLOW = re.compile(r"mail_side|records|torture|load|info_export|info_hostile")
UNIT_SECONDS, PYTEST_SECONDS = 100, 2400  # ten times what a sound tree takes
DETECTIONS = Counter()  # of mutants of a source by a test file, (source, test file), in this run


class DoesNotCompile(Exception):
    """The mutant is not counted."""


def sources():
    """The product's sources: {path: text}."""
    return {str(path.relative_to(REPOSITORY)): path.read_text() for folder in FOLDERS
            for path in sorted((REPOSITORY / folder).iterdir()) if path.suffix in (".cpp", ".h")}


def known_equivalents():
    """What equivalent.txt lists: {(path, difference): reason}."""
    blocks = Path(__file__).with_name("equivalent.txt").read_text().strip().split("\n\n")
    entries = [block.split("\n", 1) for block in blocks if not block.startswith("#")]
    return {(head.partition(": ")[0], difference): head.partition(": ")[2] for head, difference in entries}


def files(top):
    """All files of the tree at `top`, as paths relative to it."""
    found = []
    for directory, names, entries in os.walk(top):
        names[:] = set(names) - NOT_COPIED
        found += [Path(directory, entry).relative_to(top) for entry in entries]
    return found


def test_files(path):
    """The tests of both programs, or for info/ those of arspinfo: first those that detected mutants of the source
    `path`, then those with a word of its name in theirs, slow ones last."""
    words = Path(path).stem.split("_")
    pattern = "test_info*.py" if path.startswith("info/") else "test_*.py"
    tests = [test.relative_to(REPOSITORY) for test in (REPOSITORY / "tests/command").glob(pattern)
             if test.stem != "test_sandbox"]  # it tests the private root
    return sorted([*tests, Path("tests/docs")], key=lambda test: (
        -DETECTIONS[path, str(test)], not any(word.startswith(name) for word in words for name in test.stem.split("_")),
        SLOW.search(test.stem) is not None, test))


class Workshop:
    """One copy of the tree in `directory`, which is kept for the next run."""

    def __init__(self, directory):
        self.directory = directory
        self.build = directory / "build" / "dev"

    def prepare(self):
        """Updates the copy. An unchanged file keeps its time, so that it is not built again."""
        self.directory.mkdir(parents=True, exist_ok=True)
        wanted = files(REPOSITORY)
        for path in set(files(self.directory)) - set(wanted):
            (self.directory / path).unlink()
        for path in wanted:
            copy, content = self.directory / path, (REPOSITORY / path).read_bytes()
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(REPOSITORY / path, copy)
        subprocess.run(["cmake", "--preset", "dev", "-DCMAKE_CXX_FLAGS_DEBUG=-O0"], cwd=self.directory, check=True,
                       stdout=subprocess.DEVNULL)

    def first_failure(self, path):
        """Builds and tests the copy, first what a change of the source `path` most likely breaks.

        Returns the name of the test that failed, or None. Raises DoesNotCompile.
        """
        for folder in FOLDERS[path.partition("/")[0]]:
            self._build(f"{folder}_test")
            if failure := self._confirmed(lambda only, unit=folder: self._unit_test(unit, only)):
                return failure
        self._build("arspctl", "arspinfo")
        failure = self._confirmed(lambda only: self._pytest([only] if only else test_files(path)))
        if failure:
            DETECTIONS[path, failure.partition("::")[0]] += 1
        return failure

    def failure_with(self, mutant):
        """Returns the first failure with a mutant in the copy, and restores the copy."""
        copy = self.directory / mutant.path
        original = copy.read_text()
        copy.write_text(mutant.applied(original))
        try:
            return self.first_failure(mutant.path)
        finally:
            copy.write_text(original)

    def _build(self, *targets):
        result = subprocess.run(["ninja", "-j1", "-C", self.build, *targets], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, check=False)
        if result.returncode != 0:
            raise DoesNotCompile(result.stdout)

    @staticmethod
    def _confirmed(test):
        """A failure that repeats, alone or with all tests: the load of the machine must not catch a mutant."""
        failure = test(None)
        if failure is None or failure.startswith("(") or test(failure):
            return failure
        return test(None)

    def _unit_test(self, folder, only):
        status, output = self._run(["scripts/sandbox", "--program", self.build / "cli/arspctl",
                                    self.build / f"tests/unit/{folder}_test", "--gtest_fail_fast", "--gtest_color=no",
                                    f"--gtest_filter={only or '*'}"], UNIT_SECONDS)
        if status == 0:
            return None
        begun = re.findall(r"^\[ RUN {6}\] (\S+)", output, re.MULTILINE)
        failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", output, re.MULTILINE)
        return failed[0] if failed else f"({status}: {begun[-1] if begun else folder})"

    def _pytest(self, which):
        status, output = self._run(["/usr/bin/python3", "-m", "pytest", "-x", "-q", "--tb=no", "-rfE", "-p",
                                    "no:cacheprovider", *which], PYTEST_SECONDS)
        if status == 0:
            return None
        failed = re.findall(r"^(?:FAILED|ERROR) (.*?)(?: - .*)?$", output, re.MULTILINE)
        return failed[0] if failed else f"({status}: {output[-300:]})"

    def _run(self, words, seconds):
        """Runs a program in the cage; returns (status, output), the status "timeout" when it took too long."""
        environment = {**os.environ, "ARSP_BUILD_DIR": str(self.build), "PYTHONDONTWRITEBYTECODE": "1"}
        process = subprocess.Popen(caged(self.directory, words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace", env=environment)
        try:
            output = process.communicate(timeout=seconds)[0]
        except subprocess.TimeoutExpired:
            process.kill()
            return "timeout", process.communicate()[0]
        if output.startswith("bwrap: "):
            sys.exit(f"scripts/mutants: {output}")
        return process.returncode, output
