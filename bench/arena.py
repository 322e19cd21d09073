"""The private root that the competitors share, and what can be measured there."""

import contextlib
import os
import re
import sqlite3
import stat
import statistics
import subprocess
import tempfile
from collections import Counter
from pathlib import Path

import competitors
from competitors import BARE_C, DATABASE, FIXTURE, MAILNAMES, PROGRAMS, PYTHON, REPOSITORY, RUNNER, SHARED, SHELL, TOOL
from harness.private_root import INFO_PROGRAM, POPUSER_GID, POPUSER_UID, PrivateRoot, choose_mode

ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}


class ArenaError(Exception):
    """The reason why the measurement ends, for the user."""


class Sample:
    """All runs of one competitor: lists of wall time in ms, CPU time in ms, memory in MiB and page faults."""

    def __init__(self, rows):
        wall, cpu, memory, self.faults = zip(*rows)
        self.wall = [value / 1e6 for value in wall]
        self.cpu = [value / 1e3 for value in cpu]
        self.memory = [value / 1024 for value in memory]

    def median(self, field):
        return statistics.median(getattr(self, field))

    def least(self, field):
        return min(getattr(self, field))


class Arena:
    """A private root in `parent` with the programs of the build directories; a context manager that removes it."""

    def __init__(self, parent, build, shared_build):
        if choose_mode() != "namespace":
            raise ArenaError("needs a machine that allows mount namespaces")
        self.directory = Path(tempfile.mkdtemp(prefix="arsp-bench-", dir=parent))
        self._root = PrivateRoot(str(self.directory), None, "namespace")
        self._root.prepare()
        for source, inside in ((build / "cli/arspctl", PROGRAMS[TOOL][-1]),
                               (shared_build / "cli/arspctl", PROGRAMS[SHARED][-1]),
                               (build / "info/arspinfo", INFO_PROGRAM),
                               (build / "bench/bench_bare", PROGRAMS[BARE_C][-1]),
                               (build / "bench/bench_fixture", FIXTURE), (build / "bench/bench_runner", RUNNER),
                               (REPOSITORY / "bench/sqlite3_way.sh", PROGRAMS[SHELL][-1]),
                               (REPOSITORY / "bench/python_tool.py", PROGRAMS[PYTHON][-1])):
            self._root.add_program(str(source), inside)
        self.write(competitors.SCHEMA, competitors.schema())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._root.remove()

    def path(self, inside):
        return self.directory / inside.lstrip("/")

    def write(self, inside, content):
        self.path(inside).write_text(content, encoding="utf-8")

    def write_large(self, inside, size):
        """Writes that many bytes of text, piece by piece: this process must not hold them all."""
        line = b"I am away until Monday. In urgent cases write to office@example.org, or come by." * 1000
        with open(self.path(inside), "wb") as file:
            for begin in range(0, size, len(line)):
                file.write(line[:size - begin])

    def make_database(self, mailboxes, counters):
        """Makes a new database with that many mailboxes, and counters spread over other mailboxes."""
        path = self.path(DATABASE)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.unlink(missing_ok=True)
        with contextlib.closing(sqlite3.connect(path)) as db:
            db.executescript("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-200000;"
                             + competitors.schema())
            db.executescript("BEGIN;" + competitors.mailbox_rows(mailboxes, "printf('user%07d@example.org', i)")
                             + competitors.counter_rows(counters, "printf('other%05d@example.org', i / 1000)",
                                                        "printf('sender%03d@example.net', i % 1000)")
                             + "INSERT INTO extra_headers VALUES ('X-Loop', 'yes'), ('Precedence', 'bulk'); COMMIT")
        path.chmod(0o600)
        os.chown(path, POPUSER_UID, POPUSER_GID)
        os.chown(path.parent, POPUSER_UID, 0)

    def make_attachments(self, address):
        """Makes the attachment directory of a mailbox."""
        path = self.path(MAILNAMES)
        for name in competitors.attachments_of(address).removeprefix(MAILNAMES).split("/"):
            path /= name
            if not path.exists():
                path.mkdir(mode=0o700)
                os.chown(path, POPUSER_UID, POPUSER_GID)

    # -- runs

    def run(self, words, stdin=os.devnull):
        """Runs a program inside, which must succeed; `stdin` is a file outside."""
        with open(stdin, "rb") as source:
            result = subprocess.run(words, stdin=source, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
                                    preexec_fn=self._root.enter, env=ENVIRONMENT)
        if result.returncode != 0:
            raise ArenaError(f"{' '.join(words)[:200]} ended with {result.returncode}: "
                             f"{result.stderr.decode(errors='replace')}")

    def run_case(self, case, name, prefix=()):
        """Restores what the case needs and runs one competitor, behind the words of `prefix`."""
        self._restore(case)
        self.run([*prefix, *case.programs[name]], self.path(case.stdin) if case.stdin else os.devnull)

    def _restore(self, case):
        if case.restored:
            self.make_attachments(case.restored[0])
            self.run(case.before())

    def time(self, case, names, rounds, jobs=1, urgent=True):
        """Runs the competitors `names` by turns; returns {name: Sample}.

        urgent   with real-time priority, so that other processes of the machine do not delay the competitors
        """
        self._restore(case)
        plan = ""
        for name in names:
            programs = ([word.replace("{}", str(job)) for word in case.programs[name]] for job in range(jobs))
            plan += "".join("\x1f".join(words) + "\x1e" for words in ([case.stdin], case.before(), *programs))

        def enter():
            if urgent:
                with contextlib.suppress(OSError):
                    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(20))
            self._root.enter()

        result = subprocess.run([RUNNER, str(rounds), str(jobs)], input=plan, capture_output=True, text=True,
                                check=False, preexec_fn=enter, env=ENVIRONMENT)
        if result.returncode != 0:
            raise ArenaError(f"{case.name}: {result.stderr}")
        rows = [tuple(map(int, line.split())) for line in result.stdout.splitlines()]
        return {name: Sample([row[1:] for row in rows if row[0] == number]) for number, name in enumerate(names)}

    def system_calls(self, case, name):
        """Returns {system call: number}, of the program and all that it starts."""
        self.run_case(case, name, ["/usr/bin/strace", "-f", "-qq", "-e", "signal=none", "-o", "/tmp/trace"])
        calls = re.findall(r"^\d+ +(\w+)\(", self.path("/tmp/trace").read_text(errors="surrogateescape"), re.MULTILINE)
        return Counter(calls)

    def instructions(self, case, name):
        """Returns {function: instructions} of the program itself, without what it starts."""
        self.path("/tmp/callgrind").unlink(missing_ok=True)
        self.run_case(case, name, ["/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/tmp/callgrind",
                                   "--compress-strings=no", "--compress-pos=no"])
        return _self_costs(self.path("/tmp/callgrind").read_text(errors="replace"))

    # -- the same work

    def state(self):
        """All that a command can change: rows, and files with owner, mode and content."""
        with contextlib.closing(sqlite3.connect(f"file:{self.path(DATABASE)}?mode=ro", uri=True)) as db:
            db.text_factory = bytes
            tables = {table: sorted(db.execute(f"SELECT * FROM {table}").fetchall())
                      for table in ("autoresponder", "attachments", "resp_freq", "extra_headers")}
            tables["schema"] = db.execute("SELECT name, sql FROM sqlite_master ORDER BY name").fetchall()
        files = {}
        for top in (os.path.dirname(DATABASE), MAILNAMES):
            for path in [self.path(top), *self.path(top).rglob("*")]:
                status = path.lstat()
                content = path.read_bytes() if path.is_file() and path.name != "responder.db" else b""
                files[path] = (stat.filemode(status.st_mode), status.st_uid, status.st_gid, content)
        return tables, files

    def check(self, case, names):
        """Raises ArenaError unless all competitors leave the same state."""
        first = None
        for name in names:
            self.run_case(case, name)
            left = self.state()
            if left != (first or left):
                raise ArenaError(f"{case.name}: {name} leaves another state than {names[0]}")
            first = left


def _self_costs(text):
    """Sums up a callgrind file: each function's own instructions. Functions without a name count for their object."""
    costs, function, object_name, skip = Counter(), "", "", False
    for line in text.splitlines():
        if line.startswith("ob="):
            object_name = Path(line[3:]).name
        elif line.startswith("fn="):
            function = re.sub(r"'\d+$", "", line[3:])  # '2 marks recursion
            if function.startswith("0x"):
                function = f"({object_name})"
        elif line.startswith("calls="):
            skip = True  # the next line is the cost of the called function
        elif line[:1].isdigit() or line[:1] in "+-*":
            position_and_cost = line.split()
            if not skip and len(position_and_cost) == 2:
                costs[function] += int(position_and_cost[1])
            skip = False
    return costs
