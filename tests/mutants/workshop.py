"""A copy of the tree in which one mutant after the other is built and tested, each in the cage."""

import hashlib
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
FOLDERS = ("support", "store", "cli")  # each is tested by the unit tests of its own and of those after it
NOT_COPIED = {".git", "build", "__pycache__", ".pytest_cache"}
CAGE = ["unshare", "--mount", "--pid", "--ipc", "--net", "--fork", "--kill-child", "--", "/usr/bin/python3", "-I"]

UNIT_SECONDS, PYTEST_SECONDS = 100, 2400  # a mutant that takes longer hangs; a sound tree takes a tenth of it
LIKELY = {
    "support/conf": ["conf"], "support/log": ["hostile", "command_line"], "support/mail_syntax": ["mail_address"],
    "support/dirs": ["init_db", "add_attach"], "support/files": ["init_db"], "support/fatal": ["add_attach"],
    "support/standard_input": ["standard_input", "set_resp"], "support/text": ["mail_address", "conf"],
    "support/c_handles": ["conf", "del_resp"],
    "store/attachment_dir": ["attachment_links", "del_resp", "del_attach", "add_attach"],
    "store/attachments": ["add_attach", "del_attach", "attachment_links"],
    "store/autoresponder_row": ["set_resp", "records"], "store/busy_retry": ["busy", "deadlock"],
    "store/del_resp": ["del_resp", "deadlock"], "store/extra_headers": ["set_extra_headers"],
    "store/init_db": ["init_db", "busy"], "store/records": ["records"],
    "store/responder_db": ["failure_points", "busy", "deadlock"], "store/schema": ["init_db"],
    "store/set_resp": ["set_resp", "busy"], "store/transaction": ["failure_points", "busy"],
    "cli/commands": ["command_line", "set_resp", "add_attach"], "cli/content_type_option": ["content_type"],
    "cli/mail_address_option": ["mail_address"], "cli/main": ["command_line", "hostile"],
    "cli/options": ["command_line", "set_resp"], "cli/required_option": ["command_line"], "cli/startup": ["hostile"],
}
SLOW = ["mail_side", "records", "torture_errors", "torture_memory", "torture_kill", "load"]
WITHOUT_THE_TOOL = {"sandbox"}


def sources():
    """The product's sources: {path: text}."""
    return {str(path.relative_to(REPOSITORY)): path.read_text() for folder in FOLDERS
            for path in sorted((REPOSITORY / folder).iterdir()) if path.suffix in (".cpp", ".h")}


def files(top):
    """All files below `top` that make up the tree, as paths relative to it."""
    found = []
    for directory, names, entries in os.walk(top):
        names[:] = sorted(set(names) - NOT_COPIED)
        found += [Path(directory, entry).relative_to(top) for entry in entries]
    return sorted(found)


def fingerprint():
    """Tells one state of what mutants are built from and tested with from another."""
    sum_of_all = hashlib.sha256()
    for path in files(REPOSITORY):
        if str(path) in ("scripts/mutants", "docs/testing.md") or path.is_relative_to("tests/mutants"):
            continue
        sum_of_all.update(f"{path}\0".encode() + hashlib.sha256((REPOSITORY / path).read_bytes()).digest())
    return sum_of_all.hexdigest()


def test_files(path):
    """The tests of the tool in the order in which they are likely to see a change of the source `path`."""
    stem = path.rpartition(".")[0]
    likely = next((names for name, names in sorted(LIKELY.items(), reverse=True) if stem.startswith(name)), [])
    names = [file.name[5:-3] for file in sorted((REPOSITORY / "tests/command").glob("test_*.py"))]
    rest = [name for name in names if name not in likely and name not in SLOW and name not in WITHOUT_THE_TOOL]
    last = [name for name in SLOW if name not in likely and name in names]
    return [*(f"tests/command/test_{name}.py" for name in likely + rest), "tests/docs",
            *(f"tests/command/test_{name}.py" for name in last)]


class DoesNotCompile(Exception):
    """The change is none that could ever run."""


class Workshop:
    """One copy of the tree below `directory`, which is kept for the next time."""

    def __init__(self, directory):
        self.directory = Path(directory)
        self.build = self.directory / "build" / "dev"

    def prepare(self):
        """Brings the copy up to date. What did not change keeps its time, so that it is not built again."""
        self.directory.mkdir(parents=True, exist_ok=True)
        wanted = files(REPOSITORY)
        for path in set(files(self.directory)) - set(wanted):
            (self.directory / path).unlink()
        for path in wanted:
            copy = self.directory / path
            content = (REPOSITORY / path).read_bytes()
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(REPOSITORY / path, copy)
        linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
        subprocess.run(["cmake", "--preset", "dev", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", *linker], cwd=self.directory, check=True,
                       stdout=subprocess.DEVNULL)

    def first_failure(self, path):
        """Builds what is there and tests it, first what a change of `path` most likely breaks.

        Answers the name of the test that failed, None when none did. Raises DoesNotCompile.
        """
        for folder in FOLDERS[FOLDERS.index(path.partition("/")[0]):]:
            self._ninja(f"{folder}_test")
            if failure := self._run(lambda only, unit=folder: self._unit_test(unit, only)):
                return failure
        self._ninja("arspctl")
        return self._run(lambda only: self._pytest([only] if only else test_files(path)))

    def with_change(self, mutant):
        """Does the same for a mutant, and takes the change back."""
        copy = self.directory / mutant.path
        original = copy.read_text()
        copy.write_text(mutant.applied(original))
        try:
            return self.first_failure(mutant.path)
        finally:
            copy.write_text(original)

    def _ninja(self, target):
        result = subprocess.run(["ninja", "-j1", "-C", self.build, target], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, check=False)
        if result.returncode != 0:
            raise DoesNotCompile(result.stdout)

    def _run(self, test):
        """What fails twice: alone, or else once more among the others. A machine under load must catch no mutant."""
        failure = test(None)
        if failure is None or failure.startswith("(") or test(failure):
            return failure
        return test(None)

    def _unit_test(self, folder, only):
        words = ["scripts/sandbox", "--program", self.build / "cli" / "arspctl", self.build / "tests/unit" / f"{folder}_test",
                 "--gtest_fail_fast", "--gtest_color=no"]
        status, output = self._in_cage([*words, f"--gtest_filter={only}"] if only else words, UNIT_SECONDS)
        if status == 0:
            return None
        begun = re.findall(r"^\[ RUN {6}\] (\S+)", output, re.MULTILINE)
        if status is None:
            return f"(no end: {begun[-1] if begun else folder})"
        failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", output, re.MULTILINE)
        return failed[0] if failed else f"(status {status}: {begun[-1] if begun else folder})"

    def _pytest(self, which):
        words = ["/usr/bin/python3", "-m", "pytest", "-x", "-q", "--tb=no", "-rfE", "-p", "no:cacheprovider", *which]
        status, output = self._in_cage(words, PYTEST_SECONDS)
        if status == 0:
            return None
        failed = re.findall(r"^(?:FAILED|ERROR) (.*?)(?: - .*)?$", output, re.MULTILINE)
        if failed:
            return failed[0]
        return "(no end of the command tests)" if status is None else f"(status {status}: {output[-300:]})"

    def _in_cage(self, words, seconds):
        """Answers (status, output); the status is None when the time was over."""
        environment = {**os.environ, "ARSP_BUILD_DIR": str(self.build), "PYTHONDONTWRITEBYTECODE": "1"}
        cage = [*CAGE, str(self.directory / "tests/mutants/cage.py"), str(self.directory)]
        process = subprocess.Popen([*cage, *map(str, words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace", env=environment)
        try:
            output = process.communicate(timeout=seconds)[0]
            if "cage.py" in output and "Traceback" in output:
                sys.exit(f"scripts/mutants: no cage can be made here:\n{output}")
            return process.returncode, output
        except subprocess.TimeoutExpired:
            process.kill()
            return None, process.communicate()[0]
