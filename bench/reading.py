"""arspinfo beside the usual programs that read the same, and how long it makes writers wait."""

import contextlib
import fcntl
import os
import sqlite3
import struct
import threading
import time
from dataclasses import dataclass

import competitors
from competitors import BODY, DATABASE, MAILNAMES, TOOL
from harness.private_root import INFO_PROGRAM, POPUSER_GID, POPUSER_UID

MAILBOXES, CHECKED, ATTACHMENTS = 100_000, 10_000, 2  # the last for each checked mailbox
EXPORT = "/tmp/export"
ROWS = " ".join(f"'SELECT * FROM {table}'" for table in ("autoresponder", "attachments", "resp_freq", "extra_headers"))
READ = f"/usr/bin/sqlite3 -batch {DATABASE} {ROWS} >/dev/null"
LIST = ("SELECT mn, subject, content_type, key_where || CASE WHEN key_where IN ('subj', 'body') THEN ':' || keystr ELSE "
        "'' END, ans_freq, length(CAST(body AS BLOB)), (SELECT count(*) FROM attachments t WHERE t.mn = a.mn), (SELECT "
        "count(*) || '/' || CAST(total(num) AS INTEGER) FROM resp_freq r WHERE r.mn = a.mn AND r.time_resp > "
        "CAST(strftime('%s', 'now') AS INTEGER) - 86400) FROM autoresponder a ORDER BY mn")
URGENT = ("/usr/bin/chrt", "-f", "20")  # other work of the machine must stop neither the reader nor the writer
SHARED_LOCK = struct.pack("hhqqixxxx", fcntl.F_WRLCK, os.SEEK_SET, 0x40000002, 510, 0)  # struct flock: SQLite's readers
F_OFD_GETLK = 36


@dataclass
class Reading(competitors.Case):
    """A command of arspinfo and a competitor, which both may write to EXPORT."""

    def before(self):
        return ["/usr/bin/rm", "-rf", EXPORT]

    def names(self):
        return list(self.programs)


def shell(text):
    return ["/bin/sh", "-euc", text]


def against(name, words, other, competitor):
    return Reading(name, {"arspinfo": [INFO_PROGRAM, *words], other: competitor})


def list_case():
    return against("list --raw", ["list", "--raw"], "sqlite3's SELECT", ["/usr/bin/sqlite3", "-batch", DATABASE, LIST])


def check_case():
    return against("check", ["check"], "find and sqlite3", shell(f"/usr/bin/find {MAILNAMES} -ls >/dev/null; {READ}"))


def export_case():
    return against("export", ["export", EXPORT], "cp -r and sqlite3", shell(f"/bin/cp -r {MAILNAMES} {EXPORT}; {READ}"))


def show_case():
    address = competitors.mailbox(CHECKED // 2)
    return Reading("show", {"arspinfo": [INFO_PROGRAM, "show", address],
                            "arspctl --set-resp": competitors.set_resp(address).programs[TOOL]}, BODY)


def prepare(arena, mailboxes, attachments=0):
    """Makes that many mailboxes, each with so many attachments, and returns the arena."""
    arena.make_database(mailboxes, 0)
    with contextlib.closing(sqlite3.connect(arena.path(DATABASE))) as db:
        for number in range(attachments):
            db.execute(f"INSERT INTO attachments SELECT mn, 'file{number}.txt' FROM autoresponder")
        db.execute("INSERT INTO extra_headers VALUES ('Auto-Submitted', 'auto-replied')")
        db.commit()
    for mailbox in range(mailboxes if attachments else 0):
        address = competitors.mailbox(mailbox)
        arena.make_attachments(address)
        for number in range(attachments):
            path = arena.path(f"{competitors.attachments_of(address)}/file{number}.txt")
            path.write_text(competitors.TEXT * 10, encoding="ascii")
            os.chown(path, POPUSER_UID, POPUSER_GID)
    return arena


def growth_cases():
    """Each command with the sizes of its curve."""
    return [(list_case(), [100, 1000, 10_000, 100_000], 0), (check_case(), [100, 1000, 10_000], ATTACHMENTS),
            (export_case(), [100, 1000, 10_000], ATTACHMENTS)]


# -- locks


@contextlib.contextmanager
def running(run):
    """Runs `run` in a thread beside an urgent block, which gets an event that is set when it is done."""
    done = threading.Event()
    thread = threading.Thread(target=lambda: (run(), done.set()))
    thread.start()
    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(20))
    try:
        yield done
    finally:
        os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
        thread.join()


def longest_lock(arena, run):
    """The longest time in ms for which another process has SQLite's shared lock while `run` runs."""
    longest, since = 0, None
    with open(arena.path(DATABASE), "rb+") as database, running(run) as done:
        while not done.is_set():
            held = struct.unpack_from("h", fcntl.fcntl(database, F_OFD_GETLK, SHARED_LOCK))[0] != fcntl.F_UNLCK
            now = time.perf_counter()
            since = (since or now) if held else None
            longest = max(longest, now - since) if since else longest
            time.sleep(0.0002)
    return longest * 1000


def longest_write(arena, run):
    """The longest transaction in ms of a program that writes to the database without a pause while `run` runs."""
    longest = 0
    with contextlib.closing(sqlite3.connect(arena.path(DATABASE), timeout=0, isolation_level=None)) as db:
        db.execute("PRAGMA synchronous=OFF")
        with running(run) as done:
            while not done.is_set():
                begin = time.perf_counter()
                for statement in ("BEGIN IMMEDIATE", "UPDATE resp_freq SET num = num + 1 WHERE rowid = 1", "COMMIT"):
                    _insist(db, statement)
                longest = max(longest, time.perf_counter() - begin)
                time.sleep(0.002)
    return longest * 1000


def _insist(db, statement):
    while True:
        try:
            db.execute(statement)
            return
        except sqlite3.OperationalError as error:
            if "locked" not in str(error):
                raise
            time.sleep(0.0002)


def waits(arena, rounds):
    """{command: (longest shared lock, longest write)} in ms, of that many runs each."""
    figures = {}
    for case in (list_case(), check_case(), export_case()):
        def run(case=case):
            for _ in range(rounds):
                arena.run(case.before())
                arena.run([*URGENT, *case.programs["arspinfo"]])

        figures[case.name] = (longest_lock(arena, run), longest_write(arena, run))
    return figures
