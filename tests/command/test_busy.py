"""A database that another process has locked: a command waits for it, for as long as it takes."""

import contextlib
import itertools
import re
import sqlite3

import pytest
from harness import DONE, Result, sqlite_shim, tracing
from harness.mailboxes import run_sql
from harness.sandbox import DATABASE
from harness.waiting import until, until_it_retries

TOOL = "/usr/sbin/arspctl"
SET_RESP = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org", "--subj", "new")
REPLACE = ("REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
           "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );")
SILENT_FAILURE = Result(1, b"", b"", [])

# SQLite's own pauses in one call with a busy timeout of 50 ms, in ns. Those of the tool stay below OWN_PAUSES_END.
OF_SQLITE = [1_000_000, 2_000_000, 5_000_000, 10_000_000, 15_000_000, 17_000_000]
OWN_PAUSES_END = 1_000_000
PAUSES = "clock_nanosleep,nanosleep"


@pytest.fixture
def database(sandbox):
    """The sandbox with one row in its database."""
    sandbox.init_db()
    run_sql(sandbox, "INSERT INTO autoresponder (mn, real_owner, subject)"
                     " VALUES ('a@example.org', 'a@example.org', 'old')")
    return sandbox


@contextlib.contextmanager
def locked(sandbox, kind):
    """Holds a lock on the database for this process until the function that the block receives is called."""
    with contextlib.closing(sandbox.db()) as holder, contextlib.closing(sandbox.db()) as reader:
        def release():
            for connection in (reader, holder):
                connection.execute("PRAGMA busy_timeout = 30000")  # the tool may just try
                if connection.in_transaction:
                    connection.execute("COMMIT")

        holder.execute("PRAGMA busy_timeout = 0")
        if kind in ("SHARED", "PENDING"):
            reader.execute("BEGIN")
            reader.execute("SELECT count(*) FROM sqlite_master").fetchall()
        if kind != "SHARED":
            holder.execute("BEGIN EXCLUSIVE" if kind == "EXCLUSIVE" else "BEGIN IMMEDIATE")
        if kind == "PENDING":  # a writer that waits for the last reader admits no others
            holder.execute("DELETE FROM resp_freq")
            holder.execute("CREATE TABLE waits (x)")
            with pytest.raises(sqlite3.OperationalError, match="database is locked"):
                holder.execute("COMMIT")
        yield release


def subjects(sandbox):
    return [subject for subject, in sandbox.rows("SELECT subject FROM autoresponder")]


def pause(call):
    """The length of a pause in ns, None for another call."""
    match = re.search(r"nanosleep\(.*\{tv_sec=(\d+), tv_nsec=(\d+)\}", f"{call.name}({call.args_text}")
    return int(match[1]) * 1_000_000_000 + int(match[2]) if match else None


def pauses(calls):
    return [pause(call) for call in calls if pause(call) is not None]


def own_pauses(calls):
    return [length for length in pauses(calls) if length < OWN_PAUSES_END]


def run_until_unlocked(sandbox, kind, **options):
    """A run of --set-resp whose lock is released after some attempts; it succeeds silently."""
    with locked(sandbox, kind) as release:
        running = sandbox.start(*SET_RESP, **options)
        until_it_retries(running)
        release()
        assert running.wait() == DONE


def trace_until_unlocked(sandbox, kind, own, *args, calls=PAUSES, inject=()):
    """The calls of a traced run whose lock is released after so many of the tool's own pauses; it succeeds silently."""
    log = sandbox.path("/.busy-trace")

    def calls_so_far():
        text = log.read_text(errors="surrogateescape") if log.exists() else ""
        return tracing.parse_trace(text[:text.rfind("\n") + 1])

    def has_paused():
        paused = len(own_pauses(calls_so_far())) >= own
        assert paused or running.running(), "the run has ended"
        return paused

    with locked(sandbox, kind) as release:
        words = [*tracing.strace_arguments("/.busy-trace", calls, inject, ()), TOOL, *args]
        running = sandbox.start_command("/usr/bin/strace", words, stdin=b"{}", traced=True)
        until(has_paused, f"{own} pauses")
        release()
        assert running.wait() == DONE
    return calls_so_far()


# -- waiting


@pytest.mark.parametrize("kind", ["RESERVED", "PENDING", "EXCLUSIVE", "SHARED"])
def test_set_resp_waits_for_the_end_of_any_lock(database, kind):
    run_until_unlocked(database, kind)

    assert subjects(database) == ["new"]


@pytest.mark.parametrize("kind", ["EXCLUSIVE", "SHARED"])
def test_init_db_waits_for_a_file_that_it_cannot_unlink(sandbox, needs_tracing, kind):
    sandbox.path(DATABASE).parent.mkdir(parents=True)
    with contextlib.closing(sqlite3.connect(sandbox.path(DATABASE))) as db:
        db.execute("PRAGMA user_version = 7")

    calls = trace_until_unlocked(sandbox, kind, 3, "--init-db", calls=f"unlink,{PAUSES}",
                                 inject=["unlink:error=EPERM:when=1"])

    assert calls[0].injected
    assert sandbox.rows("SELECT count(*) FROM sqlite_master") == [(7,)]


def test_waiting_run_holds_no_lock_before_its_first_read(database):
    with locked(database, "EXCLUSIVE") as release, contextlib.closing(database.db()) as other:
        running = database.start(*SET_RESP)
        until_it_retries(running)
        release()
        other.execute("PRAGMA busy_timeout = 30000")
        other.execute("INSERT INTO extra_headers VALUES ('X-Header', 'value')")
        assert running.wait() == DONE

    assert subjects(database) == ["new"]
    assert database.rows("SELECT count(*) FROM extra_headers") == [(1,)]


def test_concurrent_writers_all_succeed(database):
    with locked(database, "EXCLUSIVE") as release:
        running = [database.start("--set-resp", "--mailname", f"box{number}@example.org",
                                  "--real-owner", "a@example.org") for number in range(6)]
        for one in running:
            until_it_retries(one)
        release()
        assert [one.wait() for one in running] == [DONE] * 6

    assert database.rows("SELECT count(*) FROM autoresponder WHERE mn LIKE 'box%'") == [(6,)]


# -- the pauses


@pytest.mark.parametrize("kind, args", [
    ("EXCLUSIVE", SET_RESP), ("RESERVED", SET_RESP), ("SHARED", SET_RESP), ("RESERVED", ["--set-extra-headers"]),
], ids=["prepare", "step", "end", "script"])
def test_pauses_grow_by_ten_microseconds_and_one_follows_the_last_attempt(database, needs_tracing, kind, args):
    seen = pauses(trace_until_unlocked(database, kind, 4, *args))

    groups = [list(group) for _, group in itertools.groupby(seen, lambda length: length < OWN_PAUSES_END)]
    of_sqlite, own = groups[::2], groups[1::2]
    assert of_sqlite[0] == OF_SQLITE * 2  # the first retry follows at once
    assert of_sqlite[1:-1] == [OF_SQLITE] * len(of_sqlite[1:-1])
    assert of_sqlite[-1] in [OF_SQLITE * 2, *(OF_SQLITE[:length] for length in range(1, 7))]  # ended by the release
    assert [len(group) for group in own[:-1]] == [1] * (len(own) - 1)
    assert sum(own, []) == [10_000 * number for number in range(1, len(sum(own, [])) + 1)]
    assert seen[-1] < OWN_PAUSES_END


def test_pause_after_the_last_attempt_follows_the_commit(database, needs_tracing):
    calls = trace_until_unlocked(database, "SHARED", 1, *SET_RESP, calls=f"unlink,{PAUSES}")

    last, after = calls[-2:]
    assert (last.name, last.strings) == ("unlink", [DATABASE + "-journal"])  # the commit
    assert pause(after) == own_pauses(calls)[-2] + 10_000


def test_nothing_pauses_without_a_lock(database, needs_tracing):
    assert database.trace(*SET_RESP, calls=PAUSES) == (DONE, [])


def test_busy_step_is_reset_before_the_next_attempt(database):
    run_until_unlocked(database, "RESERVED", env=sqlite_shim.environment(database))

    calls = sqlite_shim.calls(database)
    steps = calls[calls.index("bind_text 12 = 0") + 1:calls.index("prepare END TRANSACTION; = 0")]
    busy = (len(steps) - 2) // 3
    assert busy >= 2
    retries = [["step = 5", "reset", f"pause {number * 10_000}"] for number in range(1, busy)]
    assert steps == ["step = 5", "reset", *sum(retries, []), "step = 101", f"pause {busy * 10_000}", "finalize"]


def test_prepare_is_retried_and_open_is_not(database):
    run_until_unlocked(database, "EXCLUSIVE", env=sqlite_shim.environment(database))

    calls = sqlite_shim.calls(database)
    assert calls.count(f"open {DATABASE}") == 1
    results = [call.rpartition(" = ")[2] for call in calls if call.startswith("prepare REPLACE")]
    assert len(results) >= 3
    assert results == ["5"] * (len(results) - 1) + ["0"]


def test_busy_close_is_retried(database):
    result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "close 3"))

    assert result == DONE
    assert sqlite_shim.calls(database)[-7:] == ["close = 5", "close = 5", "pause 10000", "close = 5", "pause 20000",
                                                "close = 0", "pause 30000"]
    assert subjects(database) == ["new"]


# -- a failed pause

# Two attempts with six pauses of SQLite's each come before the tool's first.
INTERRUPTED = ["clock_nanosleep:error=EINTR:when=13", "nanosleep:error=EINTR:when=13"]
TOUCHING_FILES = f"{PAUSES},fcntl,close,openat,unlink,pwrite64,sendto"


def assert_last_of_the_database(calls):
    """After the failed pause the run unlocks, writes, closes, removes and logs nothing."""
    files = [call.value for call in calls if call.name == "openat" and call.strings[0].startswith(DATABASE)
             and "O_NONBLOCK" not in call.args_text]  # not the descriptor through which --init-db sets owner and mode
    failed = [call.error for call in calls].index("EINTR")
    assert pause(calls[failed]) == 10_000
    for call in calls[failed + 1:]:
        assert call.name in ("openat", "close")
        assert call.name != "openat" or DATABASE not in call.strings
        assert call.name != "close" or int(call.args_text) not in files


@pytest.mark.parametrize("kind", ["EXCLUSIVE", "RESERVED", "PENDING", "SHARED"])
def test_failed_pause_ends_set_resp_silently_and_frees_the_lock_at_exit(database, needs_tracing, kind):
    with locked(database, kind):
        result, calls = database.trace(*SET_RESP, calls=TOUCHING_FILES, inject=INTERRUPTED)

    assert result == SILENT_FAILURE
    assert_last_of_the_database(calls)
    assert subjects(database) == ["old"]
    run_sql(database, "PRAGMA busy_timeout = 0; UPDATE autoresponder SET subject = 'free'")


def test_failed_pause_ends_init_db_silently(sandbox, needs_tracing):
    sandbox.path(DATABASE).parent.mkdir(parents=True)
    sandbox.path(DATABASE).touch()
    with locked(sandbox, "EXCLUSIVE"):
        result, calls = sandbox.trace("--init-db", calls=TOUCHING_FILES + ",chown,chmod",
                                      inject=["unlink:error=EPERM:when=1", *INTERRUPTED])

    assert result == SILENT_FAILURE
    assert_last_of_the_database(calls)
    assert sandbox.path(DATABASE).stat().st_size == 0


@pytest.mark.parametrize("kind, last", [
    ("EXCLUSIVE", [f"prepare {REPLACE} = 5"] * 2 + ["pause 10000"]),
    ("RESERVED", ["step = 5", "reset"] * 2 + ["pause 10000"]),
    ("SHARED", ["step = 5", "reset"] * 2 + ["pause 10000"])], ids=["prepare", "step", "end"])
def test_after_a_failed_pause_nothing_is_finalized_or_closed(database, kind, last):
    with locked(database, kind):
        result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "pause"))

    assert result == SILENT_FAILURE
    assert sqlite_shim.calls(database)[-len(last):] == last


def test_failed_pause_while_closing_fails_a_completed_command(database):
    result = database.run(*SET_RESP, env=sqlite_shim.environment(database, "close 3,pause"))

    assert result == SILENT_FAILURE
    assert sqlite_shim.calls(database)[-3:] == ["close = 5", "close = 5", "pause 10000"]
    assert subjects(database) == ["new"]
