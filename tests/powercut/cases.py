"""The commands, the state before them, and the states that a power cut may leave."""

import contextlib
import sqlite3
import tarfile
import tempfile
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

DATABASE = "lib/quarn/mail/autoresponder/responder.db"  # below /var, as all paths here
ATTACHMENTS = "qmail/mailnames/example.org/user/@attachments"
ABSENT, NO_TABLES = None, {}  # instead of rows

INPUTS = {  # in the guest's /in
    "body": b"Away until Monday.\n" * 1000,  # does not fit into one page of the database
    "new-body": b"Back again.\n" * 1500,
    "source": b"the report " * 5000,
    "new-source": b"the revised report " * 5000,
    "headers": b'{"X-Old": "1", "X-Older": "2"}',
    "new-headers": b'{"X-New": "yes", "X-Newest": "' + b"z" * 6000 + b'"}',
}
USER = "--mailname user@example.org"
PREPARE = (
    "mkdir -p /var/lib /var/qmail/mailnames",
    "arspctl --init-db",
    f"arspctl --set-resp {USER} --real-owner user@example.org </in/body",
    "arspctl --set-resp --mailname other@example.org --real-owner owner@example.com </in/body",
    f"arspctl --add-attach {USER} --filename report.pdf --source /in/source",
    f"arspctl --add-attach {USER} --filename old.pdf --source /in/source",
    f"mkdir -p /var/{ATTACHMENTS}/left/over && echo >/var/{ATTACHMENTS}/left/over/by-hand",
    "arspctl --set-extra-headers </in/headers",
)


# Rolls an interrupted transaction back, and writes: a reader leaves a journal that was not yet needed.
NEXT_COMMAND = "arspctl --set-extra-headers </in/headers"


@dataclass(frozen=True)
class Case:
    """One command in one situation.

    command  as typed in the guest
    touches  the prefix of all paths that the command changes; "-": none
    before   what the guest runs, and flushes, before the command
    between  makes the other rows that a cut during the run may leave from the old rows
    proof    "new": new rows prove that the files are new; "old": old rows prove that the files are old
    recover  what the guest runs after a cut during the run, before it checks the database and the files
    finding  of that check, besides files without rows
    """

    command: str
    touches: str = "-"
    before: str = "true"
    between: Callable = lambda _: ()
    proof: str = ""
    recover: str = NEXT_COMMAND
    finding: str = ""


CASES = {
    "init-db": Case("arspctl --init-db", "lib/quarn", between=lambda _: (ABSENT, NO_TABLES),
                    recover="arspctl --init-db"),
    "init-db, first": Case("arspctl --init-db", "lib/quarn", "rm -r /var/lib/quarn", lambda _: (NO_TABLES,),
                           recover="arspctl --init-db"),
    "set-resp": Case(f"arspctl --set-resp {USER} --real-owner user@example.org --subj New </in/new-body"),
    "add-attach, new": Case(f"arspctl --add-attach {USER} --filename new.pdf --source /in/source",
                            f"{ATTACHMENTS}/new.pdf", proof="new"),
    "add-attach, new directories": Case(
        "arspctl --add-attach --mailname other@example.org --filename new.pdf --source /in/source",
        "qmail/mailnames/example.com", proof="new"),
    "add-attach, replaced": Case(f"arspctl --add-attach {USER} --filename report.pdf --source /in/new-source",
                                 f"{ATTACHMENTS}/report.pdf", finding="attachment-empty"),
    "del-attach": Case(f"arspctl --del-attach {USER} --filename report.pdf", f"{ATTACHMENTS}/report.pdf", proof="old"),
    "del-resp": Case(f"arspctl --del-resp {USER}", f"{ATTACHMENTS}/", proof="new", finding="attachment-missing"),
    "set-extra-headers": Case("arspctl --set-extra-headers </in/new-headers",
                              between=lambda rows: ({**rows, "extra_headers": []},)),
}


@dataclass(frozen=True)
class State:
    """The rows by table, and the files below /var: {path: (mode, uid, gid, content)}, the database without content."""

    rows: dict
    files: dict


def read_state(archive):
    """The state in a tar archive of /var; raises sqlite3.Error or tarfile.TarError when something is damaged."""
    files = {}
    with tarfile.open(archive) as members:
        for member in members:
            content = members.extractfile(member).read() if member.isfile() else b""
            files[member.name] = (f"{member.mode:04o}", member.uid, member.gid, content)
    journal = files.pop(f"{DATABASE}-journal", None)
    if DATABASE not in files:
        return State(ABSENT, files)
    *owner_and_mode, content = files[DATABASE]
    files[DATABASE] = (*owner_and_mode, b"")
    return State(read_rows(content, journal and journal[3]), files)


def read_rows(content, journal):
    """The rows of a database. SQLite rolls back a journal, as for every program that opens the file."""
    with tempfile.TemporaryDirectory() as directory:
        path = Path(directory, "responder.db")
        path.write_bytes(content)
        if journal is not None:
            Path(directory, "responder.db-journal").write_bytes(journal)
        with contextlib.closing(sqlite3.connect(path)) as connection:
            result = connection.execute("PRAGMA integrity_check").fetchall()
            if result != [("ok",)]:
                raise sqlite3.DatabaseError(f"integrity_check: {result}")
            tables = connection.execute("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name").fetchall()
            rows = {name: connection.execute(f"SELECT * FROM {name} ORDER BY rowid").fetchall() for name, in tables}
            # Only the extra headers have an order; a replaced row moves to the end.
            return {name: found if name == "extra_headers" else sorted(found) for name, found in rows.items()}


def read_findings(archive):
    """The lines of `arspinfo check`, without the summary, in a tar archive with its output."""
    with tarfile.open(archive) as members:
        return members.extractfile("findings").read().decode().splitlines()[:-1]


def problem_of_findings(case, new, found, acknowledged):
    """What `arspinfo check` found after a cut and should not have; None for nothing. Notes do not matter, except after
    an acknowledged command: then its lines are those of an undisturbed run."""
    if acknowledged:
        wrong = sorted({*new} ^ {*found})
    else:
        wrong = [line for line in found if not line.startswith("note ") and line.split(" ")[1] != f"{case.finding}:"]
    return "arspinfo check: " + "; ".join(wrong) if wrong else None


def problem(case, old, new, found, acknowledged):
    """The first fault of the state after a cut; None when it has none."""
    if found.rows not in ([new.rows] if acknowledged else [old.rows, new.rows, *case.between(old.rows)]):
        if found.rows in (ABSENT, NO_TABLES, old.rows):
            return "the rows are the old ones" if found.rows == old.rows else "the database or its tables are missing"
        return "wrong rows in " + ", ".join(name for name in new.rows if found.rows.get(name) != new.rows[name])
    if found.rows is not ABSENT and found.files[DATABASE][0] != "0600":
        return f"the mode of the database is {found.files[DATABASE][0]}"
    proved = acknowledged or (case.proof == "new" and found.rows == new.rows) or (
        case.proof == "old" and found.rows == old.rows)
    expected = old.files if case.proof == "old" and not acknowledged else new.files
    for path in sorted({*found.files, *expected}):
        if found.files.get(path) != expected.get(path) and (proved or not path.startswith(case.touches)):
            return f"{path} is {described(found.files.get(path))}, not {described(expected.get(path))}"
    return None


def described(file):
    return "absent" if file is None else f"{file[0]} {file[1]}:{file[2]} with {len(file[3])} bytes"
