"""arspinfo holds its lock on the database while it copies it or reads rows and at no other time, so that writers need
not wait for files, for the mail tree or for a reader of the output."""

import fcntl
import os
import struct

import pytest
from harness import INFO_PROGRAM
from harness.mailboxes import DIRECTORY, make_directories, put_file, run_sql
from harness.sandbox import DATABASE
from harness.waiting import until_it_sleeps

USER = "user@example.org"
PENDING_BYTE, LOCK_BYTES = 0x40000000, 512  # SQLite's locks are on these bytes of the file
SUBCOMMANDS = [("list",), ("list", "--raw"), ("show", USER), ("check",), ("export", "/export")]


@pytest.fixture
def many(sandbox):
    """A root with 5,000 mailboxes; the attachments of user@example.org are missing, except for one."""
    sandbox.init_db()
    run_sql(sandbox, "INSERT INTO autoresponder (mn, real_owner, subject, body) WITH RECURSIVE n(i) AS "
                     "(SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 5000) SELECT 'u' || i || '@example.org', "
                     "'u' || i || '@example.org', 'On holiday', 'Hi.' FROM n;"
                     f"INSERT INTO autoresponder (mn, real_owner) VALUES ('{USER}', '{USER}');"
                     f"INSERT INTO attachments SELECT '{USER}', mn FROM autoresponder;")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, f"{DIRECTORY}/{USER}", b"the report")
    return sandbox


def is_locked(sandbox):
    """Whether a process holds a lock on the database, even one for reading only."""
    with open(sandbox.path(DATABASE), "r+b") as file:
        lock = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, PENDING_BYTE, LOCK_BYTES, 0)
        return struct.unpack("hhqqi4x", fcntl.fcntl(file, fcntl.F_OFD_GETLK, lock))[0] != fcntl.F_UNLCK


def test_the_probe_sees_the_lock_of_a_reader(many):
    with many.db() as reader:
        assert not is_locked(many)
        reader.execute("BEGIN")
        reader.execute("SELECT count(*) FROM autoresponder").fetchall()
        assert is_locked(many)
    reader.close()


@pytest.mark.parametrize("words, blocked", [(words, "stdout") for words in SUBCOMMANDS[:-1]] +
                         [(SUBCOMMANDS[-1], "stderr")], ids=lambda value: " ".join(value) if value[0] != "s" else value)
def test_a_reader_of_the_output_that_stops_keeps_no_lock(many, words, blocked):
    reader, writer = os.pipe()
    with open(reader, "rb") as ours:
        with open(writer, "wb") as end:
            running = many.start(*words, program=INFO_PROGRAM, **{blocked: end})
        first = ours.read(1)  # the run has begun to print, and the pipe cannot take all of it
        until_it_sleeps(running)
        assert not is_locked(many)
        assert many.run("--del-resp", "--mailname", "u1@example.org").status == 0
        assert running.running() and len(first + ours.read()) > 65536
        assert running.wait().status == (0 if words[0] in ("list", "show") else 1)


@pytest.mark.parametrize(("size", "copied"), [(10**6, True), (40 * 10**6, False)])
def test_list_copies_a_small_database_instead_of_reading_rows_under_the_lock(many, needs_tracing, size, copied):
    run_sql(many, f"UPDATE autoresponder SET body = zeroblob({size}) WHERE mn = '{USER}'")
    result, calls = many.trace("list", "-o", "mailname", program=INFO_PROGRAM, calls="pread64", paths=[DATABASE])
    assert result.stdout.count(b"@example.org") == 5001
    assert (len([call for call in calls if ", 4096, " in call.args_text]) > size / 4096) == copied
