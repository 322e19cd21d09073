"""Status 0 holds after a power cut: which files and directories each command flushes to the disk and when, and what
remains after a flush that fails."""

import os

import pytest
from harness import DONE
from harness.mailboxes import ADD as ADD_AGAIN
from harness.mailboxes import DEL as DEL_ATTACH
from harness.mailboxes import (ADD_NEW, DEL_RESP, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILBOX, SET_EXTRA_HEADERS,
                               SET_RESP, attachment_rows, autoresponder_rows, make_directories, put_link, run_sql)
from harness.outcomes import outcome, owner_and_mode
from harness.sandbox import DATABASE
from harness.tracing import on_files

pytestmark = pytest.mark.usefixtures("needs_tracing")

INIT_DB = ("--init-db",)
DB_DIRECTORY = "/var/lib/quarn/mail/autoresponder"
JOURNAL = DATABASE + "-journal"
NEW = DIRECTORY + "/new.pdf"
CALLS = ("openat,fcntl,fsync,fdatasync,sync,syncfs,sync_file_range,msync,unlink,unlinkat,"
         "chown,fchown,fchownat,chmod,fchmod,fchmodat")

# What SQLite itself flushes in each commit: the journal, its directory, the journal's header, and the database. The
# deletion of the journal is the commit.
COMMIT = [("flush", JOURNAL), ("flush", DB_DIRECTORY), ("flush", JOURNAL), ("flush", DATABASE), ("unlink", JOURNAL)]
COMMIT_FLUSHED = [*COMMIT, ("flush", DB_DIRECTORY)]


@pytest.fixture
def box(mailbox_with_attachment):
    return mailbox_with_attachment


def run(sandbox, args, **options):
    return sandbox.trace(*args, stdin=b'{"X-New": "yes"}', **options)


def steps(calls):
    """What the traced calls do, in their order: [("flush", "unlink", "chown" or "chmod", path), ...]."""
    kinds = {"unlinkat": "unlink", "fchown": "chown", "fchownat": "chown", "fchmod": "chmod", "fchmodat": "chmod",
             "fsync": "flush", "fdatasync": "flush"}
    return [(kinds.get(call.name, call.name), path) for call, path in on_files(calls)
            if call.name not in ("openat", "fcntl") and call.error is None and (call.name, path) != ("fchown", JOURNAL)]


def steps_of(sandbox, args):
    """The steps of a run that succeeds."""
    result, calls = run(sandbox, args, calls=CALLS)
    assert result == DONE
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
    assert len(flushed(found)) == len(flushed(COMMIT)) + 2


@pytest.mark.parametrize(("args", "found"), [
    (SET_RESP, COMMIT_FLUSHED),
    (SET_EXTRA_HEADERS, [*COMMIT, *COMMIT_FLUSHED]),
    (ADD_NEW, [("chown", NEW), ("flush", NEW), ("flush", DIRECTORY), *COMMIT_FLUSHED]),
    (ADD_AGAIN, [("chown", FILE), ("flush", FILE), *COMMIT_FLUSHED]),  # no new entry in the directory
    (DEL_ATTACH, [*COMMIT_FLUSHED, ("unlink", FILE), ("flush", DIRECTORY)]),
    (DEL_RESP, [("unlink", FILE), ("flush", DIRECTORY), *COMMIT_FLUSHED]),
], ids=["set-resp", "set-extra-headers", "add-attach-new", "add-attach-again", "del-attach", "del-resp"])
def test_each_command_flushes_its_files_and_the_directory_of_the_database(box, args, found):
    assert steps_of(box, args) == found


def test_copy_is_flushed_through_a_descriptor_that_cannot_change_it(box):
    _, calls = run(box, ADD_NEW, calls=CALLS)

    opened = [call.args_text for call, path in on_files(calls) if (call.name, path) == ("openat", NEW)]
    assert "O_RDONLY" in opened[-1]


def test_emptied_list_of_headers_is_flushed(box):
    result, calls = box.trace(*SET_EXTRA_HEADERS, stdin=b"{}", calls=CALLS)

    assert (result, steps(calls)) == (DONE, COMMIT_FLUSHED)


@pytest.mark.parametrize("directory", ["/srv", "/"])
def test_directory_of_the_file_behind_roots_link_is_flushed(box, directory):
    make_directories(box, "/srv")
    target = os.path.join(directory, "real.db")
    box.path(DATABASE).rename(box.path(target))
    put_link(box, DATABASE, target, (0, 0))

    assert flushed(steps_of(box, SET_RESP))[-1] == directory


def test_named_pipe_that_receives_the_copy_is_not_flushed(box):
    box.path(FILE).unlink()
    os.mkfifo(box.path(FILE))
    with open(os.open(box.path(FILE), os.O_RDONLY | os.O_NONBLOCK), "rb") as pipe:
        result, calls = box.trace(*ADD_AGAIN, calls="openat,fcntl,fsync")
        assert pipe.read() == b"the report"

    assert result == DONE
    assert [path for call, path in on_files(calls) if call.name == "fsync"] == [DB_DIRECTORY]


@pytest.mark.parametrize(("removed", "parents"), [
    (DIRECTORY, [MAILBOX]), (MAILBOX, [DOMAIN, MAILBOX]), (DOMAIN, [MAIL_TREE, DOMAIN, MAILBOX]),
    (MAIL_TREE, ["/var/qmail", MAIL_TREE, DOMAIN, MAILBOX])])
def test_add_attach_flushes_every_directory_with_a_new_entry(box, removed, parents):
    box.path(removed).rename(box.path("/tmp/removed"))

    found = flushed(steps_of(box, ADD_NEW))

    commit = flushed(COMMIT_FLUSHED)
    assert (sorted(found[:-len(commit)]), found[-len(commit):]) == (sorted([*parents, DIRECTORY, NEW]), commit)


@pytest.mark.parametrize("args", [SET_RESP, ADD_NEW, DEL_ATTACH, DEL_RESP, SET_EXTRA_HEADERS])
def test_run_that_writes_no_row_flushes_no_directory_of_the_database(box, args):
    run_sql(box, "DROP TABLE autoresponder; DROP TABLE attachments; DROP TABLE resp_freq; DROP TABLE extra_headers")

    result, calls = run(box, args, calls=CALLS)

    assert (result.status, flushed(steps(calls))) == (1, [])


# -- flushes that fail


def run_failing(sandbox, args, path, when):
    """A run whose `when`-th fsync, which must be that of `path`, fails. SQLite itself calls fdatasync."""
    result, calls = run(sandbox, args, calls="openat,fcntl,fsync", inject=[f"fsync:error=EIO:when={when}"])
    assert [file for call, file in on_files(calls) if call.injected] == [path]
    return result


def rows(sandbox):
    return (autoresponder_rows(sandbox), [name for _, name in attachment_rows(sandbox)],
            [name for name, in sandbox.rows("SELECT name FROM extra_headers")])


USER = ("user@example.org", "user@example.org")
OLD = ([USER], ["report.pdf"], ["X-Old"])
WRITTEN = {
    SET_RESP: ([("user@example.org", "new@example.org")], ["report.pdf"], ["X-Old"]),
    DEL_RESP: ([], [], ["X-Old"]),
    ADD_NEW: ([USER], ["new.pdf", "report.pdf"], ["X-Old"]),
    ADD_AGAIN: OLD,
    DEL_ATTACH: ([USER], [], ["X-Old"]),
    SET_EXTRA_HEADERS: ([USER], ["report.pdf"], ["X-New"]),
}


@pytest.mark.parametrize(("args", "path", "when", "files"), [
    (SET_RESP, DB_DIRECTORY, 1, ["report.pdf"]), (ADD_NEW, DB_DIRECTORY, 3, ["new.pdf", "report.pdf"]),
    (ADD_AGAIN, DB_DIRECTORY, 2, ["report.pdf"]), (SET_EXTRA_HEADERS, DB_DIRECTORY, 1, ["report.pdf"]),
    (DEL_ATTACH, DB_DIRECTORY, 1, ["report.pdf"]), (DEL_ATTACH, DIRECTORY, 2, []),  # the row goes before the file
    (DEL_RESP, DIRECTORY, 1, []), (DEL_RESP, DB_DIRECTORY, 2, [])])
def test_failed_flush_of_a_directory_is_reported_and_the_rows_stay_written(box, args, path, when, files):
    result = run_failing(box, args, path, when)

    assert outcome(result) == (1, f"Unable to flush {path}: Input/output error")
    assert rows(box) == WRITTEN[args]
    assert sorted(box.tree(DIRECTORY)) == [".", *files]
    assert run(box, args)[0].status == 0


@pytest.mark.parametrize("args", WRITTEN)
def test_directory_that_cannot_be_opened_for_its_flush_is_reported_and_the_rows_stay_written(box, args):
    commits = 2 if args == SET_EXTRA_HEADERS else 1
    inject = [f"openat:error=EMFILE:when={commits + 1}"]  # SQLite opens it in each commit, for a flush of its own

    result, calls = run(box, args, calls="openat", inject=inject, paths=[DB_DIRECTORY])

    assert [call.injected for call in calls][commits:] == [True]
    assert outcome(result) == (1, "Unable to flush /var/lib/quarn/mail/autoresponder: Too many open files")
    assert rows(box) == WRITTEN[args]


def assert_not_added(box, result):
    assert outcome(result) == (1, "Unable to move attachment /tmp/source to "
                                  "/var/qmail/mailnames/example.org/user/@attachments/new.pdf: Input/output error")
    assert rows(box) == OLD
    assert box.run(*ADD_NEW) == DONE
    assert rows(box) == WRITTEN[ADD_NEW]


@pytest.mark.parametrize(("path", "when"), [(NEW, 1), (DIRECTORY, 2)])
def test_failed_flush_of_the_copy_or_its_directory_adds_no_row(box, path, when):
    assert_not_added(box, run_failing(box, ADD_NEW, path, when))


@pytest.mark.parametrize(("inject", "path"), [
    ("/fstat:error=EIO:when=3", NEW), ("openat:error=EIO:when=4", "new.pdf"), ("/fstat:error=EIO:when=4", NEW)])
def test_copy_that_cannot_be_opened_for_its_flush_adds_no_row(box, inject, path):
    assert_not_added(box, box.trace(*ADD_NEW, inject=[inject], paths=[path])[0])


@pytest.mark.parametrize("when", [1, 2, 3, 4, 5])
def test_failed_flush_of_any_new_directory_adds_no_row(box, when):
    box.path(DOMAIN).rename(box.path("/tmp/removed"))

    result, calls = run(box, ADD_NEW, calls="fsync", inject=[f"fsync:error=EIO:when={when}"])

    assert [call.injected for call in calls].count(True) == 1
    assert_not_added(box, result)


@pytest.mark.parametrize(("path", "when"), [(DATABASE, 1), (DB_DIRECTORY, 2)])
def test_failed_flush_of_owner_and_mode_fails_init_db(sandbox, path, when):
    result = run_failing(sandbox, INIT_DB, path, when)

    assert outcome(result) == (1, f"Unable to flush {path}: Input/output error")
    assert sandbox.rows("SELECT count(*) FROM sqlite_master") == [(7,)]
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 1110, 31)
