"""Two writers at once: whoever has looked an owner up gives way to the writer that waits for all readers to finish.

The owner's look-up takes a read lock that lasts until END. Another run that has written waits at its own END for the
last reader, while the reader waits for its turn to write: without giving way neither would ever go on.
"""

import contextlib
import fcntl
import os
import signal
import sqlite3
import struct

import pytest
from harness import Result
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows,
                               copying_from_pipe, error_texts, make_directories, put_file)
from harness.sandbox import DATABASE
from harness.waiting import until

DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
DONE = Result(0, b"", b"", [])
PATIENCE = 20  # seconds; two runs that wait for each other never end

# Where SQLite locks the database file: (first byte, count).
PENDING, RESERVED, SHARED = (0x40000000, 1), (0x40000001, 1), (0x40000002, 510)
LOCK_NAMES = {PENDING: "pending", RESERVED: "reserved", SHARED: "shared", (0x40000000, 2): "pending and reserved",
              (0, 0): "all"}

ADD = ("--add-attach", "--mailname", "sales@example.com", "--filename", "report.pdf", "--source", "/tmp/source")
DEL = ("--del-attach", "--mailname", "sales@example.com", "--filename", "old.pdf")
SET_RESP = ("--set-resp", "--mailname", "new@example.org", "--real-owner", "new@example.org")


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponders sales@example.com, owned by user@example.org, and other@example.org; both have
    the attachment old.pdf."""
    sandbox.init_db()
    add_autoresponder(sandbox, "sales@example.com", "user@example.org")
    add_autoresponder(sandbox, "other@example.org")
    for mailname in ("sales@example.com", "other@example.org"):
        add_attachment_rows(sandbox, mailname, "old.pdf")
    put_file(sandbox, "/tmp/source", b"the other report", mode=0o644)
    return sandbox


def lock_holder(sandbox, region):
    """The process that holds a lock on that region of the database file, or 0. Not for tests that have the database open
    themselves: closing the file here would lose this process's own locks."""
    file = os.open(sandbox.path(DATABASE), os.O_RDWR)
    try:
        asked = struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, *region, 0)
        kind, _, _, _, pid = struct.unpack("hhqqi", fcntl.fcntl(file, fcntl.F_GETLK, asked))
    finally:
        os.close(file)
    return 0 if kind == fcntl.F_UNLCK else pid


def copying(sandbox):
    return copying_from_pipe(sandbox, "/tmp/pipe", b"the report", mailname="sales@example.com", filename="report.pdf")


def start_other(sandbox, *args):
    """A run that has written and waits for the last reader."""
    running = sandbox.start(*args, stdin=b"body")
    # In this order: PENDING is held for a moment, too, by whoever begins to read.
    until(lambda: lock_holder(sandbox, RESERVED) == running.pid, "the other run has written")
    until(lambda: lock_holder(sandbox, PENDING) == running.pid, "the other run waits for the last reader")
    return running


# -- add-attach


@pytest.mark.parametrize(("other", "autoresponders", "attachments"), [
    (SET_RESP, [("new@example.org", "new@example.org")], [("other@example.org", "old.pdf")]),
    (("--add-attach", "--mailname", "other@example.org", "--filename", "new.pdf", "--source", "/tmp/source"),
     [], [("other@example.org", "new.pdf"), ("other@example.org", "old.pdf")]),
    (("--del-attach", "--mailname", "other@example.org", "--filename", "old.pdf"), [], []),
    (("--add-attach", "--mailname", "sales@example.com", "--filename", "new.pdf", "--source", "/tmp/source"),
     [], [("other@example.org", "old.pdf"), ("sales@example.com", "new.pdf")]),
])
def test_add_attach_and_another_writer_both_get_done(mailbox, other, autoresponders, attachments):
    with copying(mailbox) as adding:
        writing = start_other(mailbox, *other)

    assert writing.wait(PATIENCE) == DONE
    assert adding.wait(PATIENCE) == DONE
    assert autoresponder_rows(mailbox) == [*autoresponders, ("other@example.org", "other@example.org"),
                                           ("sales@example.com", "user@example.org")]
    assert attachment_rows(mailbox) == sorted([*attachments, ("sales@example.com", "old.pdf"),
                                               ("sales@example.com", "report.pdf")])
    assert mailbox.tree(DIRECTORY)["report.pdf"] == ("file", 0o644, 1110, 31, b"the report")


def test_add_attach_lets_a_writer_of_another_program_through(mailbox):
    with contextlib.closing(mailbox.db()) as mail_side:
        mail_side.execute(f"PRAGMA busy_timeout = {PATIENCE * 1000}")
        with copying(mailbox) as adding:
            mail_side.execute("BEGIN IMMEDIATE")
            mail_side.execute("INSERT INTO resp_freq VALUES ('sales@example.com', 'x@example.net', 1, 7)")
        try:
            mail_side.execute("COMMIT")
        except sqlite3.OperationalError as error:
            pytest.fail(f"the other program's COMMIT: {error}")
        assert adding.wait(PATIENCE) == DONE

    assert mailbox.rows("SELECT mn FROM resp_freq") == [("sales@example.com",)]
    assert ("sales@example.com", "report.pdf") in attachment_rows(mailbox)


def test_an_autoresponder_that_vanished_during_the_copy_takes_no_attachment(mailbox):
    with copying(mailbox) as adding:
        deleting = start_other(mailbox, "--del-resp", "--mailname", "sales@example.com")

    assert deleting.wait(PATIENCE).status == 0
    result = adding.wait(PATIENCE)
    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["No autoresponder found for mailname (sales@example.com)"]
    assert autoresponder_rows(mailbox) == [("other@example.org", "other@example.org")]
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]
    assert mailbox.tree(DIRECTORY)["report.pdf"] == ("file", 0o644, 1110, 31, b"the report")


def test_an_owner_that_changed_during_the_copy_changes_nothing(mailbox):
    with copying(mailbox) as adding:
        changing = start_other(mailbox, "--set-resp", "--mailname", "sales@example.com",
                               "--real-owner", "third@example.org")

    assert changing.wait(PATIENCE) == DONE
    assert adding.wait(PATIENCE) == DONE
    assert ("sales@example.com", "third@example.org") in autoresponder_rows(mailbox)
    assert ("sales@example.com", "report.pdf") in attachment_rows(mailbox)
    assert mailbox.tree(DIRECTORY)["report.pdf"] == ("file", 0o644, 1110, 31, b"the report")
    assert mailbox.tree("/var/qmail/mailnames/example.org/third") == {}


# -- del-attach


@contextlib.contextmanager
def looked_up(sandbox):
    """A run of DEL that is stopped for the time of the block: it has looked up, and not written."""
    _, calls = sandbox.trace(*DEL[:-1], "never-there.pdf", calls="fcntl")
    last_of_look_up = locks(calls).index(("take", "reserved")) + len(calls) - len(locks(calls))
    running = sandbox.start_command("/usr/bin/strace", [
        "strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=fcntl",
        "-e", f"inject=fcntl:signal=SIGSTOP:when={last_of_look_up}", "/usr/sbin/arspctl", *DEL], traced=True)

    def stopped():
        pid = lock_holder(sandbox, SHARED)
        if not pid or lock_holder(sandbox, PENDING):
            return False
        with open(f"/proc/{pid}/status") as status:
            return any(line.startswith("State:\tt") for line in status)

    until(stopped, "the run stops between look-up and deletion")
    yield running
    os.killpg(running.pid, signal.SIGCONT)


def locks(calls):
    """What the traced calls do to the locks: [("read", "take" or "release", the name of the region), ...]."""
    found = []
    for call in calls:
        if "F_SETLK" in call.args_text:
            fields = dict(field.split("=") for field in call.args_text.split("{")[1].rstrip("}").split(", "))
            does = {"F_RDLCK": "read", "F_WRLCK": "take", "F_UNLCK": "release"}[fields["l_type"]]
            found.append((does, LOCK_NAMES[int(fields["l_start"]), int(fields["l_len"])]))
    return found


def test_del_attach_and_another_writer_both_get_done(mailbox, needs_tracing):
    make_directories(mailbox, "/var/qmail/mailnames/example.com/sales/@attachments")
    put_file(mailbox, "/var/qmail/mailnames/example.com/sales/@attachments/old.pdf")
    with looked_up(mailbox) as deleting:
        writing = start_other(mailbox, *SET_RESP)

    assert writing.wait(PATIENCE) == DONE
    assert deleting.wait(PATIENCE) == DONE
    assert ("new@example.org", "new@example.org") in autoresponder_rows(mailbox)
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]
    assert sorted(mailbox.tree("/var/qmail/mailnames/example.com/sales/@attachments")) == ["."]


def test_an_autoresponder_that_vanished_meanwhile_fails_del_attach(mailbox, needs_tracing):
    with looked_up(mailbox) as deleting:
        writing = start_other(mailbox, "--del-resp", "--mailname", "sales@example.com")

    assert writing.wait(PATIENCE).status == 0
    result = deleting.wait(PATIENCE)
    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.endswith(b": No autoresponder found for mailname (sales@example.com)\n")
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]


# -- nobody else


@pytest.mark.parametrize("command", [ADD, DEL])
def test_without_another_writer_there_is_one_transaction_and_nothing_more(mailbox, needs_tracing, command):
    result, calls = mailbox.trace(*command, calls="fcntl")

    assert result == DONE
    assert locks(calls) == [
        # the schema is read
        ("read", "pending"), ("read", "shared"), ("release", "pending"), ("release", "all"),
        # the owner is looked up
        ("read", "pending"), ("read", "shared"), ("release", "pending"),
        # the row is written
        ("take", "reserved"),
        # and committed
        ("take", "pending"), ("take", "shared"), ("read", "shared"), ("release", "pending and reserved"),
        ("release", "all"),
    ]
