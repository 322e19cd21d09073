"""The start of every trial, a database with two mailboxes; the six commands; and the states that each may leave."""

import contextlib
import copy
import itertools
import os
import shutil
import subprocess
from dataclasses import dataclass, field

from harness.mailboxes import MAIL_TREE, make_directories, put_file
from harness.sandbox import DATABASE, sanitized

TREES = ("/var/lib/quarn", MAIL_TREE)
TABLES = ("attachments", "autoresponder", "extra_headers", "resp_freq")

USER, OTHER, OWNER = "user@example.org", "other@example.org", "owner@example.com"
BODY = "Away until Monday.\n" * 1000  # does not fit into one page of the database
NEW_BODY = "Back again.\n" * 1500
SOURCE = b"the new report " * 5000
REPORT = "example.org/user/@attachments/report.pdf"
COPY = "example.com/owner/@attachments/new.pdf"

# Possible states of the database instead of its rows.
ABSENT = "no database"
EMPTY = "a database without tables"

BEFORE = {
    "attachments": [(OTHER, "keep.pdf"), (USER, "old.pdf"), (USER, "report.pdf")],
    "autoresponder": [
        (OTHER, "", "no", "Re: other", "", "", "text/plain", "UTF-8", BODY, 10, 1000, OTHER),
        (USER, "", "no", "Re: user", "", "", "text/plain", "UTF-8", BODY, 10, 1000, OWNER),
    ],
    "extra_headers": [("X-Old", "1"), ("X-Older", "2")],
    "resp_freq": [(OTHER, "a@example.net", 3, 1700000000), (USER, "a@example.net", 1, 1700000000)],
}
NO_ROWS = {table: [] for table in TABLES}


def thinning():
    """1, or a larger number n if only every n-th trial fits into a test: a sanitized program starts slowly."""
    return 4 if sanitized() else 1


def but(rows, **changed):
    """The rows, with some tables changed."""
    return {**copy.deepcopy(rows), **changed}


def of_other(table):
    """The rows of a table that belong to the other mailbox."""
    return [row for row in BEFORE[table] if row[0] == OTHER]


@dataclass(frozen=True)
class Command:
    """One of the six commands, on USER.

    after     the rows after success
    steps     other rows that a killed or failed run may leave: the command commits in more than one step
    partly    other rows that a failed run may leave by design
    lenient   other rows that a successful run may leave by design
    touches   prefixes of the files below MAIL_TREE that it may make or remove
    before    the rows at the start
    """

    args: tuple
    after: dict
    stdin: bytes = b""
    steps: tuple = ()
    partly: tuple = ()
    lenient: tuple = ()
    touches: tuple = ()
    before: object = field(default_factory=lambda: BEFORE)


NEW_HEADERS = [("X-New", "yes"), ("X-Newer", "<b>&"), ("X-Newest", "z" * 6000)]
WITHOUT_USER = {"attachments": of_other("attachments"), "autoresponder": of_other("autoresponder")}

COMMANDS = {
    "init-db": Command(("--init-db",), NO_ROWS, steps=(ABSENT, EMPTY)),
    "init-db, for the first time": Command(("--init-db",), NO_ROWS, steps=(EMPTY,), before=ABSENT),
    "set-resp": Command(
        ("--set-resp", "--mailname", USER, "--real-owner", USER, "--subj", "Re: new", "--ans-freq", "3"),
        but(BEFORE, autoresponder=[*of_other("autoresponder"), (
            USER, "", "no", "Re: new", "", "", "text/plain", "UTF-8", NEW_BODY, 3, 1000, USER)]),
        stdin=NEW_BODY.encode()),
    "del-resp": Command(
        ("--del-resp", "--mailname", USER), but(BEFORE, **WITHOUT_USER, resp_freq=of_other("resp_freq")),
        lenient=(but(BEFORE, **WITHOUT_USER),),  # counters that cannot be deleted are not noticed
        # The work before and after a refused row is committed.
        partly=(but(BEFORE, attachments=of_other("attachments")),
                but(BEFORE, attachments=of_other("attachments"), resp_freq=of_other("resp_freq")),
                but(BEFORE, resp_freq=of_other("resp_freq"))),
        touches=("example.org/user/@attachments/",)),
    "add-attach": Command(
        ("--add-attach", "--mailname", USER, "--filename", "new.pdf", "--source", "/tmp/source"),
        but(BEFORE, attachments=[(OTHER, "keep.pdf"), (USER, "new.pdf"), (USER, "old.pdf"), (USER, "report.pdf")]),
        touches=("example.com",)),
    "del-attach": Command(
        ("--del-attach", "--mailname", USER, "--filename", "report.pdf"),
        but(BEFORE, attachments=[(OTHER, "keep.pdf"), (USER, "old.pdf")]), touches=(REPORT,)),
    "set-extra-headers": Command(
        ("--set-extra-headers",), but(BEFORE, extra_headers=NEW_HEADERS),
        stdin=b'{"X-New": "yes", "X-Newer": "<b>&", "X-Newest": "' + b"z" * 6000 + b'"}',
        steps=(but(BEFORE, extra_headers=[]),),
        # A refused row is left out; so are all earlier ones if SQLite rolls back.
        lenient=tuple(but(BEFORE, extra_headers=list(left)) for count in (0, 1, 2)
                      for left in itertools.combinations(NEW_HEADERS, count))),
}


class Scene:
    """A private root in which one command is tried again and again. begin() restores the state at the start of a trial;
    rows(), files_problem() and leftover_files() inspect the state that the trial leaves."""

    def __init__(self, sandbox, name):
        self.sandbox = sandbox
        self.name = name
        self.command = COMMANDS[name]
        self._template = sandbox.directory.parent / (sandbox.directory.name + ".template")
        self._furnish()
        self._template.mkdir()
        subprocess.run(["cp", "-a", "--parents", *(place[1:] for place in TREES), self._template],
                       cwd=sandbox.directory, check=True)
        self._untouched = self._fingerprint()
        self.files_before = sandbox.tree(MAIL_TREE)

    def close(self):
        """Removes the copy of the state at the start."""
        shutil.rmtree(self._template)

    def begin(self):
        """Restores the database and the files if they have changed."""
        if self._fingerprint() == self._untouched:
            return
        for place in TREES:
            shutil.rmtree(self.sandbox.path(place))
        subprocess.run(["cp", "-a", f"{self._template}/.", self.sandbox.directory], check=True)
        self._untouched = self._fingerprint()

    def run(self):
        """An undisturbed run of the command."""
        return self.sandbox.run(*self.command.args, stdin=self.command.stdin)

    # -- the state after a trial

    def rows(self):
        """The rows of all tables, ABSENT or EMPTY. Fails if SQLite finds the file damaged. Opening the database rolls
        an unfinished transaction back."""
        if self._fingerprint() == self._untouched:
            return self.command.before
        if not self.sandbox.path(DATABASE).exists():
            return ABSENT
        with contextlib.closing(self.sandbox.db()) as connection:
            check = connection.execute("PRAGMA integrity_check").fetchall()
            assert check == [("ok",)], f"integrity_check: {check}"
            tables = [name for name, in connection.execute("SELECT name FROM sqlite_master WHERE type = 'table'"
                                                           " ORDER BY name")]
            if not tables:
                return EMPTY
            assert tables == list(TABLES), f"a part of the schema: {tables}"
            return {table: connection.execute(
                f"SELECT * FROM {table} ORDER BY {'rowid' if table == 'extra_headers' else '1, 2'}").fetchall()
                for table in TABLES}

    def files_problem(self, rows):
        """The difference between the files below the mail tree and those rows in words, or None."""
        files = self.sandbox.tree(MAIL_TREE)
        for path in {*files, *self.files_before}:
            if files.get(path) != self.files_before.get(path) and not path.startswith(self.command.touches or ("//",)):
                return f"{path} was {self.files_before.get(path)} and is {files.get(path)}"
        attachments = rows["attachments"] if isinstance(rows, dict) else []
        if (USER, "new.pdf") in attachments and files.get(COPY) != ("file", 0o644, *self.sandbox.popuser, SOURCE):
            return "a row for new.pdf, but no such file"
        if self.name == "del-attach" and (USER, "report.pdf") in attachments and REPORT not in files:
            return "a row for report.pdf, but the file is gone"
        return None

    def leftover_files(self):
        """The files that a successful run would have removed, or would have made, and has not."""
        files = self.sandbox.tree(MAIL_TREE)
        if self.name == "del-resp":
            return [path for path in files if path.startswith(self.command.touches)]
        if self.name == "del-attach":
            return [REPORT] if REPORT in files else []
        return [COPY] if self.name == "add-attach" and COPY not in files else []

    # -- pieces

    def _furnish(self):
        sandbox = self.sandbox
        put_file(sandbox, "/tmp/source", SOURCE, mode=0o644)
        if self.command.before != ABSENT:
            sandbox.init_db()
            with contextlib.closing(sandbox.db()) as connection:
                for table, rows in BEFORE.items():
                    connection.executemany(f"INSERT INTO {table} VALUES ({', '.join('?' * len(rows[0]))})", rows)
        for local_part, name in (("user", "report.pdf"), ("user", "old.pdf"), ("other", "keep.pdf")):
            directory = f"{MAIL_TREE}/example.org/{local_part}/@attachments"
            make_directories(sandbox, directory)
            put_file(sandbox, f"{directory}/{name}", name.encode())
        make_directories(sandbox, f"{MAIL_TREE}/example.org/user/@attachments/left over")
        put_file(sandbox, f"{MAIL_TREE}/example.org/user/@attachments/left over/by hand", b"?")

    def _fingerprint(self):
        found = []
        for place in TREES:
            for directory, names, files in os.walk(self.sandbox.path(place)):
                for name in (".", *names, *files):
                    state = os.lstat(os.path.join(directory, name))
                    found.append((directory, name, state.st_ino, state.st_mtime_ns, state.st_mode, state.st_uid,
                                  state.st_gid, state.st_size))
        return sorted(found)


def named(command, rows):
    """The stage of the command that has these rows: "before", "between" or "after"; None for other rows."""
    if rows == command.after:
        return "after"
    if rows == command.before:
        return "before"
    return "between" if rows in command.steps else None


def described(rows, expected):
    """The difference between two states of the rows, for a report."""
    if not isinstance(rows, dict) or not isinstance(expected, dict):
        return str(rows)[:300]
    return "; ".join(f"{table}: {str([row for row in rows[table] if row not in expected[table]])[:200]} too many, "
                     f"{str([row for row in expected[table] if row not in rows[table]])[:200]} missing"
                     for table in TABLES if rows[table] != expected[table])


