"""The private root that the competitors meet in, and what can be measured there."""

import contextlib
import os
import re
import shutil
import sqlite3
import stat
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

import competitors

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "tests"))

from harness.private_root import PrivateRoot, choose_mode  # noqa: E402

ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}
FIELDS = ("wall", "user", "system", "memory", "minor", "major", "waits")
SYNCS = ("fsync", "fdatasync", "sync", "syncfs", "sync_file_range", "msync")


class ArenaError(Exception):
    """What went wrong, in words for the user."""


class Sample:
    """All runs of one competitor: lists by field; wall time in ms, CPU in ms, memory in MiB, page faults."""

    def __init__(self, rows):
        columns = dict(zip(FIELDS, zip(*rows)))
        self.wall = [value / 1e6 for value in columns["wall"]]
        self.cpu = [(user + system) / 1e3 for user, system in zip(columns["user"], columns["system"])]
        self.memory = [value / 1024 for value in columns["memory"]]
        self.faults = [minor + major for minor, major in zip(columns["minor"], columns["major"])]

    def median(self, field):
        return statistics.median(getattr(self, field))

    def least(self, field):
        return min(getattr(self, field))


class Arena:
    """A private root in `parent` with the programs of the build directories; a context manager that removes it."""

    def __init__(self, parent, build, shared_build=None):
        self.directory = Path(tempfile.mkdtemp(prefix="arsp-bench-", dir=parent))
        self._root = PrivateRoot(str(self.directory), None, choose_mode())
        self.traceable = shutil.which("strace") is not None
        self.in_namespace = self._root.mode == "namespace"
        self._root.prepare()
        self._put(build / "cli" / "arspctl", competitors.ARSPCTL)
        if shared_build is not None:
            self._put(shared_build / "cli" / "arspctl", competitors.SHARED_ARSPCTL)
        for program in (competitors.BARE, competitors.FIXTURE, competitors.RUNNER, competitors.FUNCTIONS):
            self._put(build / "bench" / Path(program).name, program)
        for script in (competitors.SCRIPT, competitors.PYTHON_SCRIPT, competitors.PYTHON_TOOL):
            self._put(REPOSITORY / "bench" / Path(script).name, script)
        self.write(competitors.PYTHON_SCHEMA, competitors.schema(REPOSITORY))
        if not self.in_namespace:
            for program in ("/usr/bin/install", "/usr/bin/rm", "/usr/bin/chown"):
                self._root.add_program(program)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._root.remove()

    def _put(self, source, inside):
        if not source.exists():
            raise ArenaError(f"{source} is not there: it has to be built first")
        target = self.path(inside)
        target.unlink(missing_ok=True)
        self._root.add_program(str(source), inside)

    def path(self, inside):
        return self.directory / inside.lstrip("/")

    def write(self, inside, content):
        self.path(inside).write_bytes(content if isinstance(content, bytes) else content.encode())

    def write_large(self, inside, size):
        """A file of so many bytes of text, which is never whole in the memory of this process."""
        line = b"I am away until Monday. In urgent cases write to office@example.org, or come by." * 1000
        with open(self.path(inside), "wb") as file:
            for begin in range(0, size, len(line)):
                file.write(line[:size - begin])

    # -- runs

    def run(self, words, stdin=""):
        """Runs a program inside, fed from the file `stdin` inside, and returns what it wrote to standard output."""
        with contextlib.ExitStack() as files:
            source = files.enter_context(open(self.path(stdin) if stdin else os.devnull, "rb"))
            pipe = subprocess.Popen(["cat"], stdin=source, stdout=subprocess.PIPE)
            answer = subprocess.run(words, stdin=pipe.stdout, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                                    preexec_fn=self._root.enter, env=ENVIRONMENT)
            pipe.stdout.close()
            pipe.wait()
        if answer.returncode != 0:
            raise ArenaError(f"{' '.join(words)[:200]} ended with {answer.returncode}: "
                             f"{answer.stderr.decode(errors='replace')}")
        return answer.stdout.decode(errors="replace")

    def fixture(self, *words):
        self.run([competitors.FIXTURE, *map(str, words)])

    def time(self, case, names, rounds, jobs=1, urgent=True):
        """Runs the competitors `names` by turns; returns {name: Sample}.

        urgent   with real-time priority, so that whatever else the machine does costs the competitors nothing
        """
        plan = b"".join(part.encode() + b"\x1e" for name in names
                        for part in (case.stdin, "\x1f".join(case.before), "\x1f".join(case.programs[name])))

        def go_in():
            if urgent:
                with contextlib.suppress(OSError):
                    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(20))
            self._root.enter()

        answer = subprocess.run([competitors.RUNNER, str(rounds), str(jobs)], input=plan, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, check=False, preexec_fn=go_in, env=ENVIRONMENT)
        if answer.returncode != 0:
            raise ArenaError(f"{case.name}: {answer.stderr.decode(errors='replace')}")
        rows = [tuple(map(int, line.split())) for line in answer.stdout.decode().splitlines()]
        return {name: Sample([row[1:] for row in rows if row[0] == number]) for number, name in enumerate(names)}

    def system_calls(self, case, name):
        """Returns {system call: number}, of the program and all that it starts."""
        if case.before:
            self.run(case.before)
        self.run(["/usr/bin/strace", "-f", "-qq", "-e", "signal=none", "-o", "/tmp/trace", *case.programs[name]], case.stdin)
        calls = {}
        for line in self.path("/tmp/trace").read_text(errors="surrogateescape").splitlines():
            begun = re.match(r"\d+ +(\w+)\(", line)
            if begun:
                calls[begun[1]] = calls.get(begun[1], 0) + 1
        return calls

    def instructions(self, case, name):
        """Returns {function: instructions} of the program itself, without what it starts."""
        if case.before:
            self.run(case.before)
        self.path("/tmp/callgrind").unlink(missing_ok=True)
        self.run(["/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/tmp/callgrind", "--compress-strings=no",
                  "--compress-pos=no", *case.programs[name]], case.stdin)
        return _self_costs(self.path("/tmp/callgrind").read_text(errors="replace"))

    # -- the same work

    def state(self):
        """All that a command can have changed: rows, and files with owner, mode and content."""
        with contextlib.closing(sqlite3.connect(f"file:{self.path(competitors.DATABASE)}?mode=ro", uri=True)) as db:
            db.text_factory = bytes
            tables = {table: sorted(db.execute(f"SELECT * FROM {table}").fetchall())
                      for table in ("autoresponder", "attachments", "resp_freq", "extra_headers")}
            tables["schema"] = db.execute("SELECT name, sql FROM sqlite_master ORDER BY name").fetchall()
        files = {}
        for top in (competitors.DIRECTORY, competitors.MAILNAMES):
            for directory, _, names in os.walk(self.path(top)):
                for name in ["", *names]:
                    path = Path(directory, name)
                    status = path.lstat()
                    content = b"" if name in ("", "responder.db") else path.read_bytes()
                    files[str(path)] = (stat.filemode(status.st_mode), status.st_uid, status.st_gid, content)
        return tables, files

    def check(self, case, names):
        """Raises ArenaError unless all competitors leave the same behind."""
        left = {}
        for name in names:
            if case.before:
                self.run(case.before)
            self.run(case.programs[name], case.stdin)
            left[name] = self.state()
            if left[name] != left[names[0]]:
                raise ArenaError(f"{case.name}: {name} leaves something else behind than {names[0]}")


def _self_costs(text):
    """Sums up a callgrind file: each function's own instructions. Nameless ones count for their object."""
    costs, function, object_name, skip = {}, "", "", False
    for line in text.splitlines():
        if line.startswith("ob="):
            object_name = Path(line[3:]).name
        elif line.startswith("fn="):
            function = re.sub(r"'\d+$", "", line[3:])  # '2 marks recursion
            if function.startswith("0x"):
                function = f"({object_name})"
        elif line.startswith("calls="):
            skip = True  # the next line tells what the called function took
        elif line[:1].isdigit() or line[:1] in "+-*":
            position_and_cost = line.split()
            if not skip and len(position_and_cost) == 2:
                costs[function] = costs.get(function, 0) + int(position_and_cost[1])
            skip = False
    return costs
