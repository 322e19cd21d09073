"""Status 0 is a promise that outlives a power cut: which files and directories each command flushes to the disk and when,
and what a flush that fails leaves behind."""

import contextlib

import pytest
from harness.descriptors import on_files
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows, error_texts,
                               make_directories, put_file, put_link)
from harness.sandbox import DATABASE

pytestmark = pytest.mark.usefixtures("needs_tracing")

DB_DIRECTORY = "/var/lib/quarn/mail/autoresponder"
JOURNAL = DATABASE + "-journal"
MAIL_TREE = "/var/qmail/mailnames"
DOMAIN = MAIL_TREE + "/example.org"
DIRECTORY = DOMAIN + "/user/@attachments"

MAILBOX = ("--mailname", "user@example.org")
INIT_DB = ("--init-db",)
SET_RESP = ("--set-resp", *MAILBOX, "--real-owner", "new@example.org")
DEL_RESP = ("--del-resp", *MAILBOX)
ADD_NEW = ("--add-attach", *MAILBOX, "--filename", "new.pdf", "--source", "/tmp/source")
ADD_AGAIN = ("--add-attach", *MAILBOX, "--filename", "report.pdf", "--source", "/tmp/source")
DEL_ATTACH = ("--del-attach", *MAILBOX, "--filename", "report.pdf")
SET_EXTRA_HEADERS = ("--set-extra-headers",)

FLUSHES = ("fsync", "fdatasync")
CALLS = "openat,fcntl,fsync,fdatasync,unlink,unlinkat,chown,fchown,fchownat,chmod,fchmod,fchmodat"

# What SQLite itself flushes in each commit: the journal, its directory, the journal's header, and the database. The
# deletion of the journal is the commit.
COMMIT = [("flush", JOURNAL), ("flush", DB_DIRECTORY), ("flush", JOURNAL), ("flush", DATABASE), ("unlink", JOURNAL)]
COMMIT_FLUSHED = [*COMMIT, ("flush", DB_DIRECTORY)]


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org, its attachment report.pdf, and one extra header."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, DIRECTORY + "/report.pdf", b"the report")
    put_file(sandbox, "/tmp/source", b"a new one")
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute("INSERT INTO extra_headers VALUES ('X-Old', 'yes')")
    return sandbox


def run(sandbox, args, **options):
    return sandbox.trace(*args, stdin=b'{"X-New": "yes"}', **options)


def steps(calls):
    """What the traced calls do, in their order: [("flush", "unlink", "chown" or "chmod", path), ...]."""
    kinds = {"unlinkat": "unlink", "fchown": "chown", "fchownat": "chown", "fchmod": "chmod", "fchmodat": "chmod",
             **dict.fromkeys(FLUSHES, "flush")}
    return [(kinds.get(call.name, call.name), path) for call, path in on_files(calls)
            if call.name not in ("openat", "fcntl") and call.error is None and (call.name, path) != ("fchown", JOURNAL)]


def steps_of(sandbox, args):
    """The steps of a run that succeeds."""
    result, calls = run(sandbox, args, calls=CALLS)
    assert (result.status, result.stdout, result.stderr, result.records) == (0, b"", b"", [])
    return steps(calls)


def flushed(found):
    return [path for name, path in found if name == "flush"]


# -- what is flushed, and when


@pytest.mark.parametrize("made_before", [False, True])
def test_init_db_flushes_owner_and_mode_of_file_and_directory(sandbox, made_before):
    if made_before:
        sandbox.init_db()

    found = steps_of(sandbox, INIT_DB)

    assert found[-len(COMMIT) - 6:] == [
        *COMMIT, ("chown", DB_DIRECTORY), ("chmod", DB_DIRECTORY), ("chown", DATABASE), ("chmod", DATABASE),
        ("flush", DATABASE), ("flush", DB_DIRECTORY)]


def test_set_resp_flushes_the_directory_after_its_commit(mailbox):
    assert steps_of(mailbox, SET_RESP) == COMMIT_FLUSHED


def test_set_extra_headers_flushes_the_directory_once_after_both_commits(mailbox):
    assert steps_of(mailbox, SET_EXTRA_HEADERS) == [*COMMIT, *COMMIT_FLUSHED]


def test_emptied_list_of_headers_is_flushed(mailbox):
    result, calls = mailbox.trace(*SET_EXTRA_HEADERS, stdin=b"{}", calls=CALLS)

    assert result.status == 0
    assert steps(calls) == COMMIT_FLUSHED


def test_directory_of_the_file_behind_roots_link_is_flushed(mailbox):
    make_directories(mailbox, "/srv")
    mailbox.path(DATABASE).rename(mailbox.path("/srv/real.db"))
    put_link(mailbox, DATABASE, "/srv/real.db", (0, 0))

    assert flushed(steps_of(mailbox, SET_RESP))[-1] == "/srv"


def test_add_attach_flushes_the_copy_and_its_directory_before_the_row(mailbox):
    new = DIRECTORY + "/new.pdf"

    assert steps_of(mailbox, ADD_NEW) == [("chown", new), ("flush", new), ("flush", DIRECTORY), *COMMIT_FLUSHED]


def test_add_attach_flushes_only_the_copy_when_it_replaces_a_file(mailbox):
    old = DIRECTORY + "/report.pdf"

    assert steps_of(mailbox, ADD_AGAIN) == [("chown", old), ("flush", old), *COMMIT_FLUSHED]


@pytest.mark.parametrize(("removed", "parents"), [
    ("@attachments", [DOMAIN + "/user"]),
    ("user", [DOMAIN, DOMAIN + "/user"]),
    ("example.org", [MAIL_TREE, DOMAIN, DOMAIN + "/user"]),
    ("mailnames", ["/var/qmail", MAIL_TREE, DOMAIN, DOMAIN + "/user"]),
])
def test_add_attach_flushes_every_directory_with_a_new_entry(mailbox, removed, parents):
    mailbox.path(DIRECTORY[:DIRECTORY.index(removed)] + removed).rename(mailbox.path("/tmp/removed"))
    new = DIRECTORY + "/new.pdf"

    found = flushed(steps_of(mailbox, ADD_NEW))

    before_the_row = found[:-len(flushed(COMMIT_FLUSHED))]
    assert sorted(before_the_row) == sorted([*parents, DIRECTORY, new])
    assert found == before_the_row + flushed(COMMIT_FLUSHED)


def test_del_attach_flushes_the_lost_row_before_the_file_goes_and_the_lost_file_after_it(mailbox):
    assert steps_of(mailbox, DEL_ATTACH) == [
        *COMMIT_FLUSHED, ("unlink", DIRECTORY + "/report.pdf"), ("flush", DIRECTORY)]


def test_del_resp_flushes_the_cleared_directory_before_the_rows_go(mailbox):
    assert steps_of(mailbox, DEL_RESP) == [
        ("unlink", DIRECTORY + "/report.pdf"), ("flush", DIRECTORY), *COMMIT_FLUSHED]


@pytest.mark.parametrize(("args", "count"), [
    (INIT_DB, 6), (SET_RESP, 5), (ADD_NEW, 7), (ADD_AGAIN, 6), (DEL_ATTACH, 6), (DEL_RESP, 6), (SET_EXTRA_HEADERS, 9)])
def test_calls_that_wait_for_the_disk(mailbox, args, count):
    result, calls = run(mailbox, args, calls="fsync,fdatasync,sync,syncfs,sync_file_range,msync")

    assert (result.status, len([call for call in calls if call.name != "execve"])) == (0, count)


@pytest.mark.parametrize("args", [SET_RESP, ADD_NEW, DEL_ATTACH, DEL_RESP, SET_EXTRA_HEADERS])
def test_run_that_writes_no_row_flushes_no_directory_of_the_database(mailbox, args):
    with contextlib.closing(mailbox.db()) as connection:
        for table in ("autoresponder", "attachments", "resp_freq", "extra_headers"):
            connection.execute(f"DROP TABLE {table}")

    result, calls = run(mailbox, args, calls=CALLS)

    assert result.status == 1
    assert flushed(steps(calls)) == []


# -- flushes that fail


def run_failing(sandbox, args, path, when):
    """A run whose `when`-th fsync, which has to be that of `path`, fails. SQLite itself uses fdatasync."""
    result, calls = run(sandbox, args, calls="openat,fcntl,fsync", inject=[f"fsync:error=EIO:when={when}"])
    assert [file for call, file in on_files(calls) if call.injected] == [path]
    return result


def rows(sandbox):
    return (autoresponder_rows(sandbox), [name for _, name in attachment_rows(sandbox)],
            [name for name, in sandbox.rows("SELECT name FROM extra_headers")])


OLD = ([("user@example.org", "user@example.org")], ["report.pdf"], ["X-Old"])
WRITTEN = {
    SET_RESP: ([("user@example.org", "new@example.org")], ["report.pdf"], ["X-Old"]),
    DEL_RESP: ([], [], ["X-Old"]),
    ADD_NEW: ([("user@example.org", "user@example.org")], ["new.pdf", "report.pdf"], ["X-Old"]),
    ADD_AGAIN: OLD,
    DEL_ATTACH: ([("user@example.org", "user@example.org")], [], ["X-Old"]),
    SET_EXTRA_HEADERS: ([("user@example.org", "user@example.org")], ["report.pdf"], ["X-New"]),
}


@pytest.mark.parametrize(("args", "when"), [
    (SET_RESP, 1), (DEL_RESP, 2), (ADD_NEW, 3), (ADD_AGAIN, 2), (DEL_ATTACH, 1), (SET_EXTRA_HEADERS, 1)])
def test_failed_flush_after_the_commit_is_reported_and_the_rows_stay_written(mailbox, args, when):
    result = run_failing(mailbox, args, DB_DIRECTORY, when)

    assert (result.status, result.stdout, error_texts(result)) == (
        1, b"", ["Unable to flush /var/lib/quarn/mail/autoresponder: Input/output error"])
    assert rows(mailbox) == WRITTEN[args]
    assert run(mailbox, args)[0].status == 0


@pytest.mark.parametrize("args", WRITTEN)
def test_directory_that_cannot_be_opened_for_its_flush_is_reported_and_the_rows_stay_written(mailbox, args):
    commits = 2 if args == SET_EXTRA_HEADERS else 1
    inject = [f"openat:error=EMFILE:when={commits + 1}"]  # SQLite opens it in each commit, for a flush of its own

    result, calls = run(mailbox, args, calls="openat", inject=inject, paths=[DB_DIRECTORY])

    assert [call.injected for call in calls][commits:] == [True]
    assert (result.status, error_texts(result)) == (
        1, ["Unable to flush /var/lib/quarn/mail/autoresponder: Too many open files"])
    assert rows(mailbox) == WRITTEN[args]


def test_failed_flush_of_the_deleted_row_keeps_the_file(mailbox):
    run_failing(mailbox, DEL_ATTACH, DB_DIRECTORY, 1)

    assert sorted(mailbox.tree(DIRECTORY)) == [".", "report.pdf"]


def test_failed_flush_of_the_deleted_file_is_reported(mailbox):
    result = run_failing(mailbox, DEL_ATTACH, DIRECTORY, 2)

    assert (result.status, result.stdout, error_texts(result)) == (
        1, b"", ["Unable to flush /var/qmail/mailnames/example.org/user/@attachments: Input/output error"])
    assert rows(mailbox) == WRITTEN[DEL_ATTACH]
    assert sorted(mailbox.tree(DIRECTORY)) == ["."]


def test_failed_flush_of_the_cleared_directory_is_reported_and_the_rows_go(mailbox):
    result = run_failing(mailbox, DEL_RESP, DIRECTORY, 1)

    assert (result.status, result.stdout, error_texts(result)) == (
        1, b"", ["Unable to flush /var/qmail/mailnames/example.org/user/@attachments: Input/output error"])
    assert rows(mailbox) == WRITTEN[DEL_RESP]
    assert sorted(mailbox.tree(DIRECTORY)) == ["."]


def assert_not_added(mailbox, result):
    assert (result.status, result.stdout, error_texts(result)) == (
        1, b"", ["Unable to move attachment /tmp/source to "
                 "/var/qmail/mailnames/example.org/user/@attachments/new.pdf: Input/output error"])
    assert rows(mailbox) == OLD
    assert mailbox.run(*ADD_NEW).status == 0
    assert rows(mailbox) == WRITTEN[ADD_NEW]


@pytest.mark.parametrize(("path", "when"), [(DIRECTORY + "/new.pdf", 1), (DIRECTORY, 2)])
def test_failed_flush_of_the_copy_or_its_directory_adds_no_row(mailbox, path, when):
    assert_not_added(mailbox, run_failing(mailbox, ADD_NEW, path, when))


@pytest.mark.parametrize("when", [1, 2, 3, 4, 5])
def test_failed_flush_of_any_new_directory_adds_no_row(mailbox, when):
    mailbox.path(DOMAIN).rename(mailbox.path("/tmp/removed"))

    result, calls = run(mailbox, ADD_NEW, calls="fsync", inject=[f"fsync:error=EIO:when={when}"])

    assert [call.injected for call in calls].count(True) == 1
    assert_not_added(mailbox, result)


@pytest.mark.parametrize(("path", "when"), [(DATABASE, 1), (DB_DIRECTORY, 2)])
def test_failed_flush_of_owner_and_mode_fails_init_db(sandbox, path, when):
    result = run_failing(sandbox, INIT_DB, path, when)

    assert (result.status, result.stdout, error_texts(result)) == (
        1, b"", [f"Unable to flush {path}: Input/output error"])
    assert sandbox.rows("SELECT count(*) FROM sqlite_master") == [(7,)]
    assert sandbox.tree(DB_DIRECTORY)["responder.db"][:4] == ("file", 0o600, 1110, 31)
