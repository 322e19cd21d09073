"""--del-resp: one transaction deletes the attachment rows, the attachment files, the autoresponder and its counters."""

import contextlib
import os
import resource
import socket
import subprocess

import pytest
from harness import DONE
from harness.mailboxes import (DEL_RESP, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILBOX, ROOT, add_attachment_rows,
                               add_autoresponder, make_directories, put_file, put_link, run_sql)
from harness.outcomes import outcome
from harness.sandbox import DATABASE
from harness.tracing import on_files

EMPTIED = {".": ("dir", 0o700, 1110, 31, None)}
COUNTS = [1, 2, 2]  # rows of user@example.org in the fixture
ERROR_REMOVING = "Error removing attachments for mailname (user@example.org)"
NOT_REMOVED = "Unable to remove autoresponder attachments: "


def counts(sandbox, mailname="user@example.org"):
    """The numbers of the autoresponders, attachments and counters of `mailname`; None for a missing table."""
    tables = sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'table'")
    return [sandbox.rows(f"SELECT count(*) FROM {table} WHERE mn = ?", mailname)[0][0] if (table,) in tables else None
            for table in ("autoresponder", "attachments", "resp_freq")]


@pytest.fixture
def box(mailbox):
    """A root with an autoresponder, attachments, counters and files of user@example.org and of other@example.org."""
    add_autoresponder(mailbox, "other@example.org")
    add_attachment_rows(mailbox, "user@example.org", "report.pdf", "b.pdf")
    add_attachment_rows(mailbox, "other@example.org", "report.pdf")
    run_sql(mailbox, "INSERT INTO resp_freq VALUES ('user@example.org', 'x@example.net', 3, 7),"
                     "('user@example.org', 'y@example.net', 1, 7), ('other@example.org', 'x@example.net', 1, 7)")
    for user in ("user", "other"):
        make_directories(mailbox, f"{DOMAIN}/{user}/@attachments")
        put_file(mailbox, f"{DOMAIN}/{user}/@attachments/report.pdf")
    return mailbox


# -- what is deleted, and what remains


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_everything_of_the_mailbox_is_deleted_and_the_empty_directory_stays(box, umask):
    before = box.tree(MAIL_TREE)

    assert box.run(*DEL_RESP, umask=umask) == DONE

    assert (counts(box), counts(box, "other@example.org")) == ([0, 0, 0], [1, 1, 1])
    assert box.tree(MAIL_TREE) == {
        name: entry for name, entry in before.items() if name != "example.org/user/@attachments/report.pdf"}


def test_mail_name_that_has_nothing_is_no_failure(box):
    assert outcome(box.run("--del-resp", "--mailname", "none@example.org")) == (
        0, NOT_REMOVED + "cannot open directory /var/qmail/mailnames/example.org/none/@attachments: "
                         "No such file or directory")

    assert (counts(box), counts(box, "other@example.org")) == (COUNTS, [1, 1, 1])


def test_missing_directory_does_not_keep_the_rows(box):
    box.path(FILE).unlink()
    box.path(DIRECTORY).rmdir()

    assert box.run(*DEL_RESP).status == 0

    assert counts(box) == [0, 0, 0]
    assert not box.path(DIRECTORY).exists()


def test_counters_without_an_autoresponder_are_deleted(box):
    run_sql(box, "DELETE FROM autoresponder; DELETE FROM attachments")

    assert box.run(*DEL_RESP) == DONE

    assert (counts(box), counts(box, "other@example.org")) == ([0, 0, 0], [0, 0, 1])


def test_cleared_directory_is_that_of_the_mail_name_and_not_of_its_owner(box):
    run_sql(box, "UPDATE autoresponder SET real_owner = 'other@example.org' WHERE mn = 'user@example.org'")

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(DIRECTORY) == EMPTIED
    assert sorted(box.tree(DOMAIN + "/other/@attachments")) == [".", "report.pdf"]


def test_directory_and_parents_keep_owner_and_mode(box):
    for path, mode in ((MAILBOX, 0o751), (DIRECTORY, 0o2770)):
        os.chown(box.path(path), 8, 9)
        box.path(path).chmod(mode)

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(MAILBOX) == {".": ("dir", 0o751, 8, 9, None), "@attachments": ("dir", 0o2770, 8, 9, None)}


def test_entries_of_every_kind_are_removed_with_everything_below(box):
    make_directories(box, DIRECTORY + "/one/two/three")
    make_directories(box, DIRECTORY + "/empty", owner=ROOT, mode=0o000)
    for name in (".hidden", "two words", "line\nfeed", "größe", "-rf", "...", "*", "x" * 255, "one/x", "one/two/y"):
        put_file(box, f"{DIRECTORY}/{name}", b"content", owner=ROOT, mode=0o000)
    os.mkfifo(box.path(DIRECTORY + "/one/fifo"))
    os.mknod(box.path(DIRECTORY + "/one/device"), 0o020600, os.makedev(1, 3))
    os.chdir(box.path(DIRECTORY))  # the name of a socket has no room for the whole path
    with contextlib.closing(socket.socket(socket.AF_UNIX)) as listening:
        listening.bind("socket")
    os.chdir("/")
    put_link(box, DIRECTORY + "/dangling", "/nowhere", owner=ROOT)

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(DIRECTORY) == EMPTIED


def test_thousands_of_entries_are_removed(box):
    for number in range(3000):
        box.path(f"{DIRECTORY}/an attachment with quite a long name, so that one read is not enough {number}").touch()

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(DIRECTORY) == EMPTIED


# -- directories nested deeper than a process can have files open, and deeper than a path can be long


@pytest.fixture
def nest(box):
    """Makes directories in the attachment directory, each in the one before, the last with the file "innermost"."""

    def make(count, name="level"):
        place = os.open(box.path(DIRECTORY), os.O_RDONLY)
        for _ in range(count):
            os.mkdir(name, dir_fd=place)
            below = os.open(name, os.O_RDONLY, dir_fd=place)
            os.close(place)
            place = below
        os.close(os.open("innermost", os.O_CREAT | os.O_WRONLY, dir_fd=place))
        os.close(place)

    yield make
    subprocess.run(["rm", "-rf", box.path(DIRECTORY)], check=True)  # Python's own removal recurses


@pytest.mark.parametrize(("count", "descriptors"), [(1100, 1024), (5000, 1024), (1100, 24)])
def test_nested_directories_of_any_depth_are_removed(box, nest, count, descriptors):
    nest(count)

    limits = {resource.RLIMIT_NOFILE: descriptors, resource.RLIMIT_STACK: 8 << 20}
    assert box.run(*DEL_RESP, rlimits=limits) == DONE

    assert os.listdir(box.path(DIRECTORY)) == []


def test_entries_beside_nested_directories_are_removed(box):
    for number in range(20):
        for path in (f"/a{number}/b/c", f"/a{number}/d/e/f/g"):
            make_directories(box, DIRECTORY + path)
            for name in ("/x", "/y"):
                put_file(box, f"{DIRECTORY}{path}/..{name}")

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(DIRECTORY) == EMPTIED


@pytest.mark.parametrize(("count", "inject", "paths", "beginning", "end"), [
    (10, "unlinkat:error=EPERM", ["innermost"], "cannot remove ", "innermost: Operation not permitted"),
    (1100, "unlinkat:error=EPERM", ["innermost"], "cannot remove ", "innermost: Operation not permitted"),
    (1100, "getdents64:error=EIO:when=1100", [], "cannot read directory ", "x" * 250 + ": Input/output error")])
def test_path_too_long_for_a_record_is_logged_by_its_beginning_and_its_last_name(
        box, nest, needs_tracing, count, inject, paths, beginning, end):
    nest(count, "x" * 250)

    result, _ = box.trace(*DEL_RESP, inject=[inject], paths=paths)

    status, text = outcome(result)
    assert status == 0
    assert text.startswith(f"{NOT_REMOVED}{beginning}/var/qmail/mailnames/example.org/user/@attachments/xxxx")
    assert text.endswith(end)
    assert "..." in text
    assert len(text) <= 2048
    assert counts(box) == [0, 0, 0]


# -- files that cannot be removed are logged, and are no failure


def test_file_in_the_place_of_the_directory_is_logged_and_stays(box):
    box.path(FILE).unlink()
    box.path(DIRECTORY).rmdir()
    put_file(box, DIRECTORY, b"a file")

    assert outcome(box.run(*DEL_RESP)) == (0, f"{NOT_REMOVED}cannot open directory {DIRECTORY}: Not a directory")

    assert box.path(DIRECTORY).read_bytes() == b"a file"
    assert counts(box) == [0, 0, 0]


@pytest.mark.parametrize(("inject", "paths", "text", "kept"), [
    ("openat:error=EACCES", ["."], "cannot open directory {}: Permission denied", "report.pdf"),
    ("getdents64:error=EIO", [], "cannot read directory {}: Input/output error", "report.pdf"),
    ("unlinkat:error=EPERM", ["report.pdf"], "cannot remove {}/report.pdf: Operation not permitted", "report.pdf"),
    ("unlinkat:error=EPERM", ["x"], "cannot remove {}/sub/x: Operation not permitted", "sub/x"),
    ("/fstat:error=EIO:when=2", [DIRECTORY], "cannot open directory {}/sub: Input/output error", "sub/x"),
    ("openat:error=EACCES", [".."], "cannot leave directory {}/sub: Permission denied", "sub"),
], ids=["not opened", "not read", "not removed", "not removed below", "not entered", "not left"])
def test_directory_that_cannot_be_cleared_is_logged_and_the_rows_are_deleted(
        box, needs_tracing, inject, paths, text, kept):
    make_directories(box, DIRECTORY + "/sub")
    put_file(box, DIRECTORY + "/sub/x")

    result, _ = box.trace(*DEL_RESP, inject=[inject], paths=paths)

    assert outcome(result) == (0, NOT_REMOVED + text.format(DIRECTORY))
    assert kept in box.tree(DIRECTORY)
    assert counts(box) == [0, 0, 0]


def test_file_that_vanishes_before_its_removal_is_no_failure(box, needs_tracing):
    result, calls = box.trace(*DEL_RESP, inject=["unlinkat:error=ENOENT"], calls="unlinkat")

    assert result == DONE
    assert [(call.strings, call.injected) for call in calls] == [(["report.pdf"], True)]
    assert counts(box) == [0, 0, 0]


def test_files_are_removed_before_the_rows_are_committed(box, needs_tracing):
    result, calls = box.trace(*DEL_RESP, calls="unlink,unlinkat")

    assert result == DONE
    assert [call.strings[0] for call in calls] == ["report.pdf", DATABASE + "-journal"]


# -- rows that cannot be deleted


def trigger(table, action, text, condition=""):
    """A trigger by which SQLite refuses to delete rows of `table`."""
    return (f"CREATE TRIGGER keep_{table} BEFORE DELETE ON {table} {condition} "
            f"BEGIN SELECT RAISE({action}, '{text}'); END;")


def keep_b(action):
    return trigger("attachments", action, "b stays", "WHEN old.filename = 'b.pdf'")


B_STAYS = ["Unable to delete from attachments (user@example.org): b stays", ERROR_REMOVING]
NOT_AN_ERROR = "Unable to delete autoresponder (user@example.org): not an error"  # the text after the next statement
NOT_ENDED = "Unable to end sqlite transaction: cannot commit - no transaction is active"
NO_TABLE = "Unable to prepare SQL statement for query 'DELETE FROM {0} WHERE mn=?': no such table: {0}"


@pytest.mark.parametrize(("sql", "ending", "left"), [
    (keep_b("ABORT"), (1, *B_STAYS), [1, 2, 2]),
    (keep_b("FAIL"), (1, *B_STAYS), [1, 1, 2]),  # the rows deleted before the refusal are committed
    (keep_b("ROLLBACK"), (1, *B_STAYS, NOT_ENDED), [1, 2, 2]),
    (trigger("autoresponder", "ABORT", "it stays"), (1, NOT_AN_ERROR), [1, 0, 0]),
    (trigger("autoresponder", "FAIL", "it stays"), (1, NOT_AN_ERROR), [1, 0, 0]),
    # The counters are deleted after the rollback, outside any transaction.
    (trigger("autoresponder", "ROLLBACK", "it stays"), (1, NOT_AN_ERROR, NOT_ENDED), [1, 2, 0]),
    (trigger("resp_freq", "ABORT", "counters stay"), (0,), [0, 0, 2]),
    (trigger("resp_freq", "FAIL", "counters stay"), (0,), [0, 0, 2]),
    (trigger("resp_freq", "ROLLBACK", "counters stay"), (1, NOT_ENDED), [1, 2, 2]),
    (trigger("autoresponder", "ABORT", "it stays") + trigger("resp_freq", "ABORT", "counters stay"),
     (1, "Unable to delete autoresponder (user@example.org): counters stay"), [1, 0, 2]),
    ("DROP TABLE autoresponder", (1, NO_TABLE.format("autoresponder")), [None, 2, 2]),
    ("DROP TABLE resp_freq", (1, NO_TABLE.format("resp_freq")), [1, 2, None]),
    ("DROP TABLE resp_freq;" + trigger("autoresponder", "ABORT", "it stays"),
     (1, NO_TABLE.format("resp_freq")), [1, 2, None]),
])
def test_rows_that_cannot_be_deleted_stay_and_the_files_are_removed(box, sql, ending, left):
    run_sql(box, sql)

    assert outcome(box.run(*DEL_RESP)) == ending

    assert counts(box) == left
    assert counts(box, "other@example.org") == [None if count is None else 1 for count in left]
    assert box.tree(DIRECTORY) == EMPTIED


def test_missing_attachments_table_keeps_rows_and_files(box):
    run_sql(box, "DROP TABLE attachments")

    assert outcome(box.run(*DEL_RESP)) == (1, NO_TABLE.format("attachments"), ERROR_REMOVING)

    assert counts(box) == [1, None, 2]
    assert sorted(box.tree(DIRECTORY)) == [".", "report.pdf"]


def test_missing_attachments_table_closes_the_database_between_the_records(box, needs_tracing):
    run_sql(box, "DROP TABLE attachments")

    _, calls = box.trace(*DEL_RESP, calls="openat,close,sendto")

    names = [call.name for call, path in on_files(calls)
             if call.name == "sendto" or (call.name == "close" and path == DATABASE)]
    assert names[-3:] == ["sendto", "close", "sendto"]


def test_failures_of_attachment_rows_and_files_are_logged_in_their_order(box):
    run_sql(box, trigger("attachments", "ABORT", "rows stay"))
    box.path(DIRECTORY).rename(box.path("/tmp/moved"))

    assert outcome(box.run(*DEL_RESP)) == (
        1, "Unable to delete from attachments (user@example.org): rows stay",
        f"{NOT_REMOVED}cannot open directory {DIRECTORY}: No such file or directory", ERROR_REMOVING)
