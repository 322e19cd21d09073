"""A database that another process holds: every command waits for it, for as long as it takes."""

import contextlib
import re
import sqlite3

import pytest
from harness import sqlite_shim, tracing
from harness.sandbox import DATABASE
from harness.waiting import until, until_it_retries

TOOL = "/usr/sbin/arspctl"
DIRECTORY = "/var/lib/quarn/mail/autoresponder"
SET_RESP = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org", "--subj", "new")
JOURNAL = DATABASE + "-journal"
REPLACE = ("REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
           "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );")

# SQLite's own pauses in one call with a busy timeout of 50 ms, in ns; those of the tool are a thousandth of that.
OF_SQLITE = [1_000_000, 2_000_000, 5_000_000, 10_000_000, 15_000_000, 17_000_000]


@pytest.fixture
def database(sandbox):
    """The sandbox with one row in its database."""
    sandbox.init_db()
    with contextlib.closing(sandbox.db()) as db:
        db.execute("INSERT INTO autoresponder (mn, real_owner, subject)"
                   " VALUES ('a@example.org', 'a@example.org', 'old')")
    return sandbox


class Lock:
    """Holds a lock on the database for this process, which is another one than the tool's."""

    def __init__(self, sandbox, kind):
        self._connections = [sandbox.db(), sandbox.db()]
        holder, reader = self._connections
        holder.execute("PRAGMA busy_timeout = 0")
        if kind in ("SHARED", "PENDING"):
            reader.execute("BEGIN")
            reader.execute("SELECT count(*) FROM sqlite_master").fetchall()
        if kind in ("RESERVED", "PENDING"):
            holder.execute("BEGIN IMMEDIATE")
        if kind == "EXCLUSIVE":
            holder.execute("BEGIN EXCLUSIVE")
        if kind == "PENDING":  # a writer who waits for the last reader lets nobody in
            holder.execute("DELETE FROM resp_freq")
            holder.execute("CREATE TABLE waits (x)")
            with pytest.raises(sqlite3.OperationalError, match="database is locked"):
                holder.execute("COMMIT")

    def release(self):
        for connection in reversed(self._connections):  # the reader first
            connection.execute("PRAGMA busy_timeout = 30000")  # the tool may just have a look
            if connection.in_transaction:
                connection.execute("COMMIT")

    def close(self):
        for connection in self._connections:
            connection.close()


@contextlib.contextmanager
def locked(sandbox, kind):
    lock = Lock(sandbox, kind)
    try:
        yield lock
    finally:
        lock.close()


def subjects(sandbox):
    return [subject for subject, in sandbox.rows("SELECT subject FROM autoresponder")]


def assert_silent(result, status):
    assert (result.status, result.stdout, result.stderr, result.records) == (status, b"", b"", [])


class Traced:
    """A run under strace whose calls can be read while it goes on."""

    LOG = "/.busy-trace"

    def __init__(self, sandbox, *args, calls, inject=(), paths=()):
        self._log = sandbox.path(self.LOG)
        words = [*tracing.strace_arguments(self.LOG, calls, inject, paths), TOOL, *args]
        self._running = sandbox.start_command("/usr/bin/strace", words, traced=True)

    def calls(self):
        text = self._log.read_text(errors="surrogateescape") if self._log.exists() else ""
        return tracing.parse_trace(text[:text.rfind("\n") + 1])

    def until(self, condition, what):
        def so():
            answer = condition(self.calls())
            assert answer or self._running.running(), "the run has ended"
            return answer
        until(so, what)

    def wait(self):
        return self._running.wait()


def pause(call):
    """The length of a pause in ns, None for another call."""
    if call.name not in ("nanosleep", "clock_nanosleep"):
        return None
    seconds, nanoseconds = re.search(r"\{tv_sec=(\d+), tv_nsec=(\d+)\}", call.args_text).groups()
    return int(seconds) * 1_000_000_000 + int(nanoseconds)


def pauses(calls):
    return [pause(call) for call in calls if pause(call) is not None]


def own_pauses(calls):
    """The pauses of the tool itself: so short that none of SQLite's is among them."""
    return [length for length in pauses(calls) if length < 1_000_000]


# -- waiting


@pytest.mark.parametrize("kind", ["RESERVED", "PENDING", "EXCLUSIVE", "SHARED"])
def test_set_resp_waits_until_the_lock_is_gone(database, kind):
    with locked(database, kind) as lock:
        running = database.start(*SET_RESP)
        until_it_retries(running)
        lock.release()
        assert_silent(running.wait(), 0)

    assert subjects(database) == ["new"]


def test_init_db_waits_for_a_file_that_it_could_not_unlink(sandbox, needs_tracing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).touch()
    with locked(sandbox, "EXCLUSIVE") as lock:
        run = Traced(sandbox, "--init-db", calls="unlink,clock_nanosleep,nanosleep",
                     inject=["unlink:error=EPERM:when=1"])
        run.until(lambda calls: len(own_pauses(calls)) >= 3, "three pauses")
        lock.release()
        assert_silent(run.wait(), 0)

    assert run.calls()[0].injected
    assert sandbox.rows("SELECT count(*) FROM sqlite_master") == [(7,)]


def test_init_db_waits_for_a_reader_before_its_commit(sandbox, needs_tracing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    with contextlib.closing(sqlite3.connect(sandbox.path(DATABASE))) as db:
        db.execute("PRAGMA user_version = 7")
    with locked(sandbox, "SHARED") as lock:
        run = Traced(sandbox, "--init-db", calls="unlink,clock_nanosleep,nanosleep",
                     inject=["unlink:error=EPERM:when=1"])
        run.until(lambda calls: len(own_pauses(calls)) >= 3, "three pauses")
        lock.release()
        assert_silent(run.wait(), 0)

    assert sandbox.rows("SELECT count(*) FROM sqlite_master") == [(7,)]


def test_waiting_holds_no_lock_before_the_transaction_has_read(database):
    with locked(database, "EXCLUSIVE") as lock:
        running = database.start(*SET_RESP)
        until_it_retries(running)
        with contextlib.closing(database.db()) as other:
            lock.release()
            other.execute("PRAGMA busy_timeout = 30000")
            other.execute("INSERT INTO extra_headers VALUES ('X-Header', 'value')")
        assert_silent(running.wait(), 0)

    assert subjects(database) == ["new"]
    assert database.rows("SELECT count(*) FROM extra_headers") == [(1,)]


def test_writers_at_the_same_time_all_get_their_turn(database):
    with locked(database, "EXCLUSIVE") as lock:
        running = [database.start("--set-resp", "--mailname", f"box{number}@example.org",
                                  "--real-owner", "a@example.org") for number in range(6)]
        for one in running:
            until_it_retries(one)
        lock.release()
        for one in running:
            assert_silent(one.wait(), 0)

    assert database.rows("SELECT count(*) FROM autoresponder WHERE mn LIKE 'box%'") == [(6,)]


# -- the pauses


def taken_apart(pauses_seen):
    """Takes the pauses apart: SQLite's within each call, and the tool's after it ([] when there is none)."""
    rounds, own = [], []
    rest = list(pauses_seen)
    while rest:
        rounds.append([])
        while rest and rest[0] >= 1_000_000:
            rounds[-1].append(rest.pop(0))
            if len(rounds[-1]) == len(OF_SQLITE):
                break
        own.append(rest.pop(0) if rest and rest[0] < 1_000_000 else None)
    return rounds, own


@pytest.mark.parametrize("kind", ["EXCLUSIVE", "RESERVED", "SHARED"], ids=["prepare", "step", "end"])
def test_pauses_grow_by_ten_microseconds_and_one_follows_the_last_try(database, needs_tracing, kind):
    with locked(database, kind) as lock:
        run = Traced(database, *SET_RESP, calls="clock_nanosleep,nanosleep")
        run.until(lambda calls: len(own_pauses(calls)) >= 4, "four pauses")
        lock.release()
        assert_silent(run.wait(), 0)

    rounds, own = taken_apart(pauses(run.calls()))
    assert own[0] is None  # the first retry follows at once
    assert own[1:] == [10_000 * number for number in range(1, len(own))]
    assert rounds[:-1] == [OF_SQLITE] * (len(rounds) - 1)
    assert rounds[-1] == OF_SQLITE[:len(rounds[-1])]  # the try that met no lock any more, or no longer to its end


def test_pause_after_the_last_try_comes_after_success(database, needs_tracing):
    with locked(database, "SHARED") as lock:
        run = Traced(database, *SET_RESP, calls="clock_nanosleep,nanosleep,unlink")
        run.until(lambda calls: own_pauses(calls), "a pause")
        lock.release()
        assert_silent(run.wait(), 0)

    last, after = run.calls()[-2:]
    assert (last.name, last.strings) == ("unlink", [JOURNAL])  # which is what commits
    assert pause(after) == own_pauses(run.calls())[-2] + 10_000


def test_nothing_pauses_without_a_lock(database, needs_tracing):
    result, calls = database.trace(*SET_RESP, calls="clock_nanosleep,nanosleep")

    assert_silent(result, 0)
    assert calls == []


def test_busy_step_is_reset_before_the_next_try(database):
    with locked(database, "RESERVED") as lock:
        running = database.start(*SET_RESP, env=sqlite_shim.environment(database))
        until_it_retries(running)
        lock.release()
        assert_silent(running.wait(), 0)

    calls = sqlite_shim.calls(database)
    steps = calls[calls.index("bind_text 12 = 0") + 1:calls.index("prepare END TRANSACTION; = 0")]
    busy = (len(steps) - 2) // 3
    assert busy >= 2
    retries = [["step = 5", "reset", f"pause {number * 10_000}"] for number in range(1, busy)]
    assert steps == ["step = 5", "reset", *sum(retries, []), "step = 101", f"pause {busy * 10_000}", "finalize"]


def test_open_is_not_tried_again_and_prepare_is(database):
    with locked(database, "EXCLUSIVE") as lock:
        running = database.start(*SET_RESP, env=sqlite_shim.environment(database))
        until_it_retries(running)
        lock.release()
        assert_silent(running.wait(), 0)

    calls = sqlite_shim.calls(database)
    assert calls.count(f"open {DATABASE}") == 1
    answers = [call.rpartition(" = ")[2] for call in calls if call.startswith("prepare REPLACE")]
    assert len(answers) >= 3
    assert answers == ["5"] * (len(answers) - 1) + ["0"]


def test_busy_close_is_tried_again(database):
    result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "close 3"))

    assert_silent(result, 0)
    assert sqlite_shim.calls(database)[-7:] == ["close = 5", "close = 5", "pause 10000", "close = 5", "pause 20000",
                                                "close = 0", "pause 30000"]
    assert subjects(database) == ["new"]


# -- a pause that fails


# Two tries of six pauses by SQLite itself, and then the tool's first.
INTERRUPTED = ["clock_nanosleep:error=EINTR:when=13", "nanosleep:error=EINTR:when=13"]
TOUCHING_FILES = "clock_nanosleep,nanosleep,fcntl,close,openat,unlink,pwrite64,sendto"


def assert_last_of_the_database(calls):
    """The failed pause comes last: nothing is unlocked, written, closed, removed or logged after it."""
    files = [call.value for call in calls if call.name == "openat" and call.strings[0].startswith(DATABASE)
             and "O_NONBLOCK" not in call.args_text]  # not the descriptor through which --init-db sets owner and mode
    failed = [call.error for call in calls].index("EINTR")
    assert pause(calls[failed]) == 10_000
    assert [call for call in calls[failed + 1:] if call.name not in ("openat", "close")] == []
    assert [call for call in calls[failed + 1:] if call.name == "openat" and DATABASE in call.strings] == []
    assert [call for call in calls[failed + 1:] if call.name == "close" and int(call.args_text) in files] == []


@pytest.mark.parametrize("kind", ["EXCLUSIVE", "RESERVED", "PENDING", "SHARED"])
def test_failed_pause_ends_set_resp_in_silence_and_leaves_everything_to_the_exit(database, needs_tracing, kind):
    with locked(database, kind):
        result, calls = database.trace(*SET_RESP, calls=TOUCHING_FILES, inject=INTERRUPTED)

    assert_silent(result, 1)
    assert_last_of_the_database(calls)
    assert subjects(database) == ["old"]


def test_failed_pause_ends_init_db_in_silence_and_leaves_everything_to_the_exit(sandbox, needs_tracing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).touch()
    with locked(sandbox, "EXCLUSIVE"):
        result, calls = sandbox.trace("--init-db", calls=TOUCHING_FILES + ",chown,chmod",
                                      inject=["unlink:error=EPERM:when=1", *INTERRUPTED])

    assert_silent(result, 1)
    assert_last_of_the_database(calls)
    assert sandbox.path(DATABASE).stat().st_size == 0


@pytest.mark.parametrize("kind, last", [
    ("EXCLUSIVE", [f"prepare {REPLACE} = 5"] * 2 + ["pause 10000"]),
    ("RESERVED", ["step = 5", "reset"] * 2 + ["pause 10000"]),
    ("SHARED", ["step = 5", "reset"] * 2 + ["pause 10000"])], ids=["prepare", "step", "end"])
def test_after_a_failed_pause_nothing_is_finalized_or_closed(database, kind, last):
    with locked(database, kind):
        result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "pause"))

    assert_silent(result, 1)
    assert sqlite_shim.calls(database)[-len(last):] == last


def test_failed_pause_in_closing_fails_a_command_whose_work_is_done(database):
    result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "close 3,pause"))

    assert_silent(result, 1)
    assert sqlite_shim.calls(database)[-3:] == ["close = 5", "close = 5", "pause 10000"]
    assert subjects(database) == ["new"]


def test_failed_pause_lets_the_lock_go_at_the_exit(database, needs_tracing):
    with locked(database, "SHARED"):
        database.trace(*SET_RESP, calls="clock_nanosleep,nanosleep", inject=INTERRUPTED)

    with contextlib.closing(database.db()) as other:
        other.execute("PRAGMA busy_timeout = 0")
        other.execute("UPDATE autoresponder SET subject = 'free'")
    assert subjects(database) == ["free"]
