"""Two writers at once: a run that has looked an owner up gives way to a writer that waits for all readers to finish.

The look-up takes a read lock that lasts until END. Another run that has written waits at its own END for the last
reader, while the reader waits for its turn to write. Unless the reader gives way, both wait for ever.
"""

import contextlib
import fcntl
import os
import signal
import sqlite3
import struct

import pytest
from harness import DONE, tracing
from harness.mailboxes import (DIRECTORY, MAIL_TREE, add_attachment_rows, add_autoresponder, attachment_rows,
                               autoresponder_rows, copying_from_pipe, error_texts, make_directories, put_file)
from harness.private_root import PROGRAM
from harness.sandbox import DATABASE
from harness.waiting import until

PATIENCE = 20  # seconds; a deadlock would last for ever
DIRECTORY_OF_SALES = MAIL_TREE + "/example.com/sales/@attachments"
COPIED = ("file", 0o644, 1110, 31, b"the report")

# Where SQLite locks the database file: (first byte, count).
PENDING, RESERVED, SHARED = (0x40000000, 1), (0x40000001, 1), (0x40000002, 510)
LOCK_NAMES = {PENDING: "pending", RESERVED: "reserved", SHARED: "shared", (0x40000000, 2): "pending and reserved",
              (0, 0): "all"}

SALES, OTHER = ("--mailname", "sales@example.com"), ("--mailname", "other@example.org")
ADD = ("--add-attach", *SALES, "--filename", "report.pdf", "--source", "/tmp/source")
DEL = ("--del-attach", *SALES, "--filename", "old.pdf")
SET_RESP = ("--set-resp", "--mailname", "new@example.org", "--real-owner", "new@example.org")
DEL_RESP = ("--del-resp", *SALES)


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
    """The process that holds a lock on that region of the database file, or 0. A test that has the database open must
    not call it: closing the file here would release this process's own locks."""
    file = os.open(sandbox.path(DATABASE), os.O_RDWR)
    try:
        asked = struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, *region, 0)
        kind, _, _, _, pid = struct.unpack("hhqqi", fcntl.fcntl(file, fcntl.F_GETLK, asked))
    finally:
        os.close(file)
    return 0 if kind == fcntl.F_UNLCK else pid


def copying(sandbox):
    return copying_from_pipe(sandbox, "/tmp/pipe", b"the report", mailname="sales@example.com", filename="report.pdf")


def start_writer(sandbox, *args):
    """Starts a run and returns it when it has written and waits for the last reader."""
    running = sandbox.start(*args, stdin=b"body")
    # In this order: a run that begins to read holds PENDING for a moment, too.
    until(lambda: lock_holder(sandbox, RESERVED) == running.pid, "the other run has written")
    until(lambda: lock_holder(sandbox, PENDING) == running.pid, "the other run waits for the last reader")
    return running


# -- add-attach


@pytest.mark.parametrize(("other", "autoresponders", "attachments"), [
    (SET_RESP, [("new@example.org", "new@example.org")], [("other@example.org", "old.pdf")]),
    (("--add-attach", *OTHER, "--filename", "new.pdf", "--source", "/tmp/source"), [],
     [("other@example.org", "new.pdf"), ("other@example.org", "old.pdf")]),
    (("--del-attach", *OTHER, "--filename", "old.pdf"), [], []),
    (("--add-attach", *SALES, "--filename", "new.pdf", "--source", "/tmp/source"), [],
     [("other@example.org", "old.pdf"), ("sales@example.com", "new.pdf")]),
])
def test_add_attach_and_another_writer_both_succeed(mailbox, other, autoresponders, attachments):
    with copying(mailbox) as adding:
        writing = start_writer(mailbox, *other)

    assert writing.wait(PATIENCE) == DONE
    assert adding.wait(PATIENCE) == DONE
    assert autoresponder_rows(mailbox) == [*autoresponders, ("other@example.org", "other@example.org"),
                                           ("sales@example.com", "user@example.org")]
    assert attachment_rows(mailbox) == sorted([*attachments, ("sales@example.com", "old.pdf"),
                                               ("sales@example.com", "report.pdf")])
    assert mailbox.tree(DIRECTORY)["report.pdf"] == COPIED


def test_add_attach_gives_way_to_a_writer_of_another_program(mailbox):
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


def test_autoresponder_that_vanishes_during_the_copy_takes_no_attachment(mailbox):
    with copying(mailbox) as adding:
        deleting = start_writer(mailbox, *DEL_RESP)

    assert deleting.wait(PATIENCE).status == 0
    result = adding.wait(PATIENCE)
    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["No autoresponder found for mailname (sales@example.com)"]
    assert autoresponder_rows(mailbox) == [("other@example.org", "other@example.org")]
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]
    assert mailbox.tree(DIRECTORY)["report.pdf"] == COPIED


def test_owner_that_changes_during_the_copy_does_not_move_the_attachment(mailbox):
    with copying(mailbox) as adding:
        changing = start_writer(mailbox, "--set-resp", *SALES, "--real-owner", "third@example.org")

    assert changing.wait(PATIENCE) == DONE
    assert adding.wait(PATIENCE) == DONE
    assert ("sales@example.com", "third@example.org") in autoresponder_rows(mailbox)
    assert ("sales@example.com", "report.pdf") in attachment_rows(mailbox)
    assert mailbox.tree(DIRECTORY)["report.pdf"] == COPIED
    assert mailbox.tree(MAIL_TREE + "/example.org/third") == {}


# -- del-attach


@contextlib.contextmanager
def looked_up(sandbox):
    """A run of DEL that is stopped for the duration of the block, after its look-up and before its deletion."""
    _, calls = sandbox.trace(*DEL[:-1], "missing.pdf", calls="fcntl")
    found = locks(calls)
    last_of_look_up = found.index(("take", "reserved")) + len(calls) - len(found)
    words = tracing.strace_arguments("/dev/null", "fcntl", [f"fcntl:signal=SIGSTOP:when={last_of_look_up}"], ())
    running = sandbox.start_command("/usr/bin/strace", [*words, PROGRAM, *DEL], traced=True)

    def stopped():
        pid = lock_holder(sandbox, SHARED)
        if not pid or lock_holder(sandbox, PENDING):
            return False
        with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
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


def test_del_attach_and_another_writer_both_succeed(mailbox, needs_tracing):
    make_directories(mailbox, DIRECTORY_OF_SALES)
    put_file(mailbox, DIRECTORY_OF_SALES + "/old.pdf")
    with looked_up(mailbox) as deleting:
        writing = start_writer(mailbox, *SET_RESP)

    assert writing.wait(PATIENCE) == DONE
    assert deleting.wait(PATIENCE) == DONE
    assert ("new@example.org", "new@example.org") in autoresponder_rows(mailbox)
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]
    assert sorted(mailbox.tree(DIRECTORY_OF_SALES)) == ["."]


def test_autoresponder_that_vanishes_after_the_look_up_fails_del_attach(mailbox, needs_tracing):
    with looked_up(mailbox) as deleting:
        writing = start_writer(mailbox, *DEL_RESP)

    assert writing.wait(PATIENCE).status == 0
    result = deleting.wait(PATIENCE)
    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.endswith(b": No autoresponder found for mailname (sales@example.com)\n")
    assert attachment_rows(mailbox) == [("other@example.org", "old.pdf")]


# -- no other writer


@pytest.mark.parametrize("command", [ADD, DEL])
def test_run_without_another_writer_makes_one_transaction(mailbox, needs_tracing, command):
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
