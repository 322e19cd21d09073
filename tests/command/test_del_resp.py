"""--del-resp: attachment rows, attachment files, the autoresponder and its counters, in one transaction."""

import contextlib
import os
import resource
import socket
import subprocess

import pytest
from harness import Result
from harness.faults import first_call_fails
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows, error_texts,
                               make_directories, put_file, put_link, run_sql)
from harness.sandbox import DATABASE

MAIL_TREE = "/var/qmail/mailnames"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
DONE = Result(0, b"", b"", [])
EMPTIED = {".": ("dir", 0o700, 1110, 31, None)}
USER = ("user@example.org", "user@example.org")
OTHER = ("other@example.org", "other@example.org")
ROWS = [("user@example.org", "a.pdf"), ("user@example.org", "b.pdf")]
OTHER_ROW = ("other@example.org", "a.pdf")
COUNTERS = [("user@example.org", "x@example.net"), ("user@example.org", "y@example.net")]
OTHER_COUNTER = ("other@example.org", "x@example.net")
ERROR_REMOVING = "Error removing attachments for mailname (user@example.org)"


def options(mailname="user@example.org"):
    return "--del-resp", "--mailname", mailname


def counter_rows(sandbox):
    return sandbox.rows("SELECT mn, email FROM resp_freq ORDER BY mn, email")


def all_rows(sandbox):
    """The autoresponders, attachments and counters of user@example.org, once each."""
    own = [sandbox.rows(f"SELECT mn FROM {table}") for table in ("autoresponder", "attachments", "resp_freq")]
    return [rows.count(("user@example.org",)) for rows in own]


def prepare(sandbox):
    sandbox.init_db()
    for mailname in ("user@example.org", "other@example.org"):
        add_autoresponder(sandbox, mailname)
    add_attachment_rows(sandbox, "user@example.org", "a.pdf", "b.pdf")
    add_attachment_rows(sandbox, "other@example.org", "a.pdf")
    run_sql(sandbox, "INSERT INTO resp_freq VALUES ('user@example.org', 'x@example.net', 3, 7),"
                     "('user@example.org', 'y@example.net', 1, 7), ('other@example.org', 'x@example.net', 1, 7)")
    for user in ("user", "other"):
        make_directories(sandbox, f"/var/qmail/mailnames/example.org/{user}/@attachments")
        put_file(sandbox, f"/var/qmail/mailnames/example.org/{user}/@attachments/a.pdf", b"content")
    return sandbox


@pytest.fixture
def mailbox(sandbox):
    """A root with all that a mailbox can have, twice: user@example.org and other@example.org."""
    return prepare(sandbox)


@pytest.fixture
def twin(make_sandbox):
    """Another one just like that."""
    return prepare(make_sandbox())


# -- what is gone, and what is not


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_everything_of_the_mailbox_goes_and_the_empty_directory_stays(mailbox, umask):
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options(), umask=umask) == DONE

    assert autoresponder_rows(mailbox) == [OTHER]
    assert attachment_rows(mailbox) == [OTHER_ROW]
    assert counter_rows(mailbox) == [OTHER_COUNTER]
    assert mailbox.tree(MAIL_TREE) == {
        name: entry for name, entry in before.items() if name != "example.org/user/@attachments/a.pdf"}


def test_a_mail_name_that_has_nothing_is_no_failure(mailbox):
    result = mailbox.run(*options("nobody@example.org"))

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == [
        "Unable to remove autoresponder attachments: cannot open directory "
        "/var/qmail/mailnames/example.org/nobody/@attachments: No such file or directory"]
    assert autoresponder_rows(mailbox) == [OTHER, USER]
    assert attachment_rows(mailbox) == [OTHER_ROW, *ROWS]
    assert counter_rows(mailbox) == [OTHER_COUNTER, *COUNTERS]


def test_rows_go_though_there_is_no_directory(mailbox):
    mailbox.path(DIRECTORY + "/a.pdf").unlink()
    mailbox.path(DIRECTORY).rmdir()

    assert mailbox.run(*options()).status == 0

    assert all_rows(mailbox) == [0, 0, 0]
    assert not mailbox.path(DIRECTORY).exists()


def test_counters_without_an_autoresponder_go(mailbox):
    run_sql(mailbox, "DELETE FROM autoresponder; DELETE FROM attachments")

    assert mailbox.run(*options()) == DONE

    assert counter_rows(mailbox) == [OTHER_COUNTER]


def test_the_directory_cleared_is_the_mail_names_and_not_its_owners(mailbox):
    run_sql(mailbox, "UPDATE autoresponder SET real_owner = 'other@example.org' WHERE mn = 'user@example.org'")

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(DIRECTORY) == EMPTIED
    assert sorted(mailbox.tree("/var/qmail/mailnames/example.org/other/@attachments")) == [".", "a.pdf"]


def test_directory_and_parents_keep_owner_and_mode(mailbox):
    for path, mode in (("/var/qmail/mailnames/example.org/user", 0o751), (DIRECTORY, 0o2770)):
        os.chown(mailbox.path(path), 8, 9)
        mailbox.path(path).chmod(mode)

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree("/var/qmail/mailnames/example.org/user") == {
        ".": ("dir", 0o751, 8, 9, None), "@attachments": ("dir", 0o2770, 8, 9, None)}


def test_entries_of_every_kind_go_with_all_that_is_below(mailbox):
    make_directories(mailbox, DIRECTORY + "/one/two/three")
    make_directories(mailbox, DIRECTORY + "/empty", owner=(0, 0), mode=0o000)
    for name in (".hidden", "two words", "line\nfeed", "größe", "-rf", "...", "*", "x" * 255, "one/x", "one/two/y"):
        put_file(mailbox, f"{DIRECTORY}/{name}", b"content", owner=(0, 0), mode=0o000)
    os.mkfifo(mailbox.path(DIRECTORY + "/one/fifo"))
    os.mknod(mailbox.path(DIRECTORY + "/one/device"), 0o020600, os.makedev(1, 3))
    os.chdir(mailbox.path(DIRECTORY))  # the name of a socket has no room for the whole path
    with contextlib.closing(socket.socket(socket.AF_UNIX)) as listening:
        listening.bind("socket")
    os.chdir("/")
    put_link(mailbox, DIRECTORY + "/dangling", "/nowhere", owner=(0, 0))

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_thousands_of_entries_go(mailbox):
    for number in range(3000):
        mailbox.path(f"{DIRECTORY}/an attachment with quite a long name, so that one read is not enough {number}").touch()

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(DIRECTORY) == EMPTIED


# -- directories nested deeper than a process may have files open, and deeper than a path can say


@pytest.fixture
def nest(mailbox):
    """Makes directories in the attachment directory, each in the one before, the last with the file "innermost"."""

    def make(count, name="level"):
        place = os.open(mailbox.path(DIRECTORY), os.O_RDONLY)
        for _ in range(count):
            os.mkdir(name, dir_fd=place)
            below = os.open(name, os.O_RDONLY, dir_fd=place)
            os.close(place)
            place = below
        os.close(os.open("innermost", os.O_CREAT | os.O_WRONLY, dir_fd=place))
        os.close(place)

    yield make
    subprocess.run(["rm", "-rf", mailbox.path(DIRECTORY)], check=True)  # Python's own removal recurses


@pytest.mark.parametrize(("count", "descriptors"), [(1100, 1024), (5000, 1024), (1100, 24)])
def test_nested_directories_go_however_deep_they_are(mailbox, nest, count, descriptors):
    nest(count)

    limits = {resource.RLIMIT_NOFILE: descriptors, resource.RLIMIT_STACK: 8 << 20}
    assert mailbox.run(*options(), rlimits=limits) == DONE

    assert os.listdir(mailbox.path(DIRECTORY)) == []


def test_entries_beside_nested_directories_go(mailbox):
    for number in range(20):
        for path in (f"/a{number}/b/c", f"/a{number}/d/e/f/g"):
            make_directories(mailbox, DIRECTORY + path)
            for name in ("/x", "/y"):
                put_file(mailbox, f"{DIRECTORY}{path}/..{name}")

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(DIRECTORY) == EMPTIED


@pytest.mark.parametrize("count", [10, 1100])  # the latter makes a path that the system log takes in no record
def test_place_that_cannot_be_cleared_is_named_by_its_beginning_and_its_last_name(mailbox, nest, needs_tracing, count):
    nest(count, "x" * 250)

    result, _ = mailbox.trace(*options(), inject=["unlinkat:error=EPERM"], paths=["innermost"])

    assert (result.status, result.stdout) == (0, b"")
    (text,) = error_texts(result)
    assert text.startswith("Unable to remove autoresponder attachments: cannot remove "
                           "/var/qmail/mailnames/example.org/user/@attachments/xxxx")
    assert text.endswith("innermost: Operation not permitted")
    assert "..." in text
    assert len(text) <= 2048
    assert all_rows(mailbox) == [0, 0, 0]


def test_directory_that_is_left_nested_is_named_by_its_beginning_and_its_last_name(mailbox, nest, needs_tracing):
    nest(1100, "x" * 250)

    result, _ = mailbox.trace(*options(), inject=["getdents64:error=EIO:when=1100"])

    assert (result.status, result.stdout) == (0, b"")
    (text,) = error_texts(result)
    assert text.startswith("Unable to remove autoresponder attachments: cannot read directory "
                           "/var/qmail/mailnames/example.org/user/@attachments/xxxx")
    assert text.endswith("x" * 250 + ": Input/output error")
    assert "..." in text
    assert len(text) <= 2048


# -- the files cannot be removed: told, and no failure


def test_a_file_in_the_place_of_the_directory_is_told_and_stays(mailbox):
    mailbox.path(DIRECTORY + "/a.pdf").unlink()
    mailbox.path(DIRECTORY).rmdir()
    put_file(mailbox, DIRECTORY, b"a file")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == [
        "Unable to remove autoresponder attachments: cannot open directory "
        "/var/qmail/mailnames/example.org/user/@attachments: Not a directory"]
    assert mailbox.path(DIRECTORY).read_bytes() == b"a file"
    assert all_rows(mailbox) == [0, 0, 0]


@pytest.mark.parametrize(("inject", "paths", "text"), [
    ("openat:error=EACCES", ["."],
     "cannot open directory /var/qmail/mailnames/example.org/user/@attachments: Permission denied"),
    ("getdents64:error=EIO", [],
     "cannot read directory /var/qmail/mailnames/example.org/user/@attachments: Input/output error"),
    ("unlinkat:error=EPERM", [],
     "cannot remove /var/qmail/mailnames/example.org/user/@attachments/a.pdf: Operation not permitted"),
], ids=["not opened", "not read", "not removed"])
def test_a_directory_that_cannot_be_cleared_is_told_and_the_command_goes_on(mailbox, needs_tracing, inject, paths, text):
    result, _ = mailbox.trace(*options(), inject=[inject], paths=paths)

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == ["Unable to remove autoresponder attachments: " + text]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "a.pdf"]
    assert all_rows(mailbox) == [0, 0, 0]


def test_a_directory_below_that_cannot_be_removed_is_told(mailbox, needs_tracing):
    make_directories(mailbox, DIRECTORY + "/sub")
    put_file(mailbox, DIRECTORY + "/sub/x")

    result, _ = mailbox.trace(*options(), inject=["unlinkat:error=EPERM"], paths=["x"])

    assert result.status == 0
    assert error_texts(result) == ["Unable to remove autoresponder attachments: cannot remove "
                                   "/var/qmail/mailnames/example.org/user/@attachments/sub/x: Operation not permitted"]
    assert all_rows(mailbox) == [0, 0, 0]


def test_a_file_that_vanishes_meanwhile_is_fine(mailbox, needs_tracing):
    result, calls = mailbox.trace(*options(), inject=["unlinkat:error=ENOENT"], calls="unlinkat")

    assert result == DONE
    assert [(call.strings, call.injected) for call in calls] == [(["a.pdf"], True)]
    assert all_rows(mailbox) == [0, 0, 0]


# -- the order of things


def test_the_files_go_before_the_rows_are_committed(mailbox, needs_tracing):
    result, calls = mailbox.trace(*options(), calls="unlink,unlinkat")

    assert result == DONE
    assert [call.strings[0] for call in calls] == ["a.pdf", DATABASE + "-journal"]


# -- the attachment rows


@pytest.mark.parametrize(("action", "left"), [("ABORT", ROWS), ("FAIL", ROWS[1:])])
def test_attachment_rows_that_may_not_go_keep_the_autoresponder_and_what_was_done_is_committed(mailbox, action, left):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON attachments WHEN old.filename = 'b.pdf' "
                     f"BEGIN SELECT RAISE({action}, 'b stays'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to delete from attachments (user@example.org): b stays", ERROR_REMOVING]
    assert attachment_rows(mailbox) == [OTHER_ROW, *left]
    assert autoresponder_rows(mailbox) == [OTHER, USER]
    assert counter_rows(mailbox) == [OTHER_COUNTER, *COUNTERS]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_attachment_rows_that_roll_back_leave_nothing_to_end(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON attachments WHEN old.filename = 'b.pdf' "
                     "BEGIN SELECT RAISE(ROLLBACK, 'b stays'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to delete from attachments (user@example.org): b stays", ERROR_REMOVING,
        "Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert all_rows(mailbox) == [1, 2, 2]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_both_failures_about_attachments_are_told_in_their_order(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON attachments BEGIN SELECT RAISE(ABORT, 'rows stay'); END")
    mailbox.path(DIRECTORY).rename(mailbox.path("/tmp/moved"))

    result = mailbox.run(*options())

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to delete from attachments (user@example.org): rows stay",
        "Unable to remove autoresponder attachments: cannot open directory "
        "/var/qmail/mailnames/example.org/user/@attachments: No such file or directory",
        ERROR_REMOVING]


def test_without_the_attachments_table_nothing_is_done(mailbox):
    run_sql(mailbox, "DROP TABLE attachments")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=?': no such table: attachments",
        ERROR_REMOVING]
    assert autoresponder_rows(mailbox) == [OTHER, USER]
    assert counter_rows(mailbox) == [OTHER_COUNTER, *COUNTERS]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "a.pdf"]


def test_attachment_rows_that_cannot_be_written_keep_the_autoresponder(mailbox, twin, needs_tracing):
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE + "-journal", "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert result.status == 1
    assert error_texts(result)[:2] == ["Unable to delete from attachments (user@example.org): disk I/O error",
                                       ERROR_REMOVING]
    assert all_rows(mailbox) == [1, 2, 2]
    assert mailbox.tree(DIRECTORY) == EMPTIED


# -- the autoresponder row and the counters


@pytest.mark.parametrize("action", ["ABORT", "FAIL"])
def test_an_autoresponder_that_may_not_go_is_told_after_the_counters_and_the_rest_is_committed(mailbox, action):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON autoresponder "
                     f"BEGIN SELECT RAISE({action}, 'autoresponders stay'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    # the text is the connection's at that moment, and the counters' statement has just succeeded
    assert error_texts(result) == ["Unable to delete autoresponder (user@example.org): not an error"]
    assert autoresponder_rows(mailbox) == [OTHER, USER]
    assert attachment_rows(mailbox) == [OTHER_ROW]
    assert counter_rows(mailbox) == [OTHER_COUNTER]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_an_autoresponder_and_counters_that_may_not_go_are_told_with_the_counters_text(mailbox):
    run_sql(mailbox, "CREATE TRIGGER keep_row BEFORE DELETE ON autoresponder "
                     "BEGIN SELECT RAISE(ABORT, 'autoresponders stay'); END;"
                     "CREATE TRIGGER keep_counters BEFORE DELETE ON resp_freq "
                     "BEGIN SELECT RAISE(ABORT, 'counters stay'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to delete autoresponder (user@example.org): counters stay"]
    assert all_rows(mailbox) == [1, 0, 2]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_an_autoresponder_that_rolls_back_leaves_nothing_to_end_and_the_counters_gone(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON autoresponder "
                     "BEGIN SELECT RAISE(ROLLBACK, 'autoresponders stay'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to delete autoresponder (user@example.org): not an error",
                                   "Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert all_rows(mailbox) == [1, 2, 0]  # the counters' statement ran outside any transaction


@pytest.mark.parametrize("action", ["ABORT", "FAIL"])
def test_counters_that_may_not_go_are_not_noticed(mailbox, action):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON resp_freq "
                     f"BEGIN SELECT RAISE({action}, 'counters stay'); END")

    assert mailbox.run(*options()) == DONE

    assert all_rows(mailbox) == [0, 0, 2]


def test_counters_that_roll_back_leave_nothing_to_end(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON resp_freq "
                     "BEGIN SELECT RAISE(ROLLBACK, 'counters stay'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert all_rows(mailbox) == [1, 2, 2]


def test_without_the_autoresponder_table_nothing_is_committed_but_the_files_are_gone(mailbox):
    run_sql(mailbox, "DROP TABLE autoresponder")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM autoresponder WHERE mn=?': no such table: autoresponder"]
    assert attachment_rows(mailbox) == [OTHER_ROW, *ROWS]
    assert counter_rows(mailbox) == [OTHER_COUNTER, *COUNTERS]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_without_the_counters_table_nothing_is_committed_but_the_files_are_gone(mailbox):
    run_sql(mailbox, "DROP TABLE resp_freq")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM resp_freq WHERE mn=?': no such table: resp_freq"]
    assert attachment_rows(mailbox) == [OTHER_ROW, *ROWS]
    assert autoresponder_rows(mailbox) == [OTHER, USER]
    assert mailbox.tree(DIRECTORY) == EMPTIED


def test_a_lost_counters_table_hides_that_the_autoresponder_may_not_go(mailbox):
    run_sql(mailbox, "DROP TABLE resp_freq; CREATE TRIGGER refuse BEFORE DELETE ON autoresponder "
                     "BEGIN SELECT RAISE(ABORT, 'autoresponders stay'); END")

    result = mailbox.run(*options())

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM resp_freq WHERE mn=?': no such table: resp_freq"]
    assert attachment_rows(mailbox) == [OTHER_ROW, *ROWS]


# -- opening and ending


def test_a_database_that_cannot_be_opened_keeps_the_files(mailbox):
    mailbox.path(DATABASE).unlink()
    mailbox.path(DATABASE).mkdir()

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "a.pdf"]


def test_a_missing_database_is_noticed_by_the_attachment_rows(mailbox):
    mailbox.path(DATABASE).unlink()

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=?': no such table: attachments",
        ERROR_REMOVING]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "a.pdf"]


def test_an_end_that_fails_keeps_all_rows_but_the_files_are_gone(mailbox, twin, needs_tracing):
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE, "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to end sqlite transaction: disk I/O error"]
    assert all_rows(mailbox) == [1, 2, 2]
    assert mailbox.tree(DIRECTORY) == EMPTIED
