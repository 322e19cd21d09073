"""Failures that the commands handle alike: the database, its transaction, the pause on a lock, memory."""

import contextlib

import pytest
from harness import Result, preload, sqlite_shim
from harness.mailboxes import (ADD_NEW, DEL, DEL_RESP, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILBOX, SET_EXTRA_HEADERS,
                               SET_RESP, attachment_rows, autoresponder_rows, corrupt_page_of,
                               make_directories, put_file, run_sql)
from harness.outcomes import outcome
from harness.sandbox import DATABASE

HEADERS = b'{"X-New": "yes"}'
TRANSACTIONS = [SET_RESP, DEL_RESP, ADD_NEW, DEL]

# The pause by which the tool itself waits, after two tries of six pauses by SQLite.
INTERRUPTED = ["clock_nanosleep:error=EINTR:when=13", "nanosleep:error=EINTR:when=13"]


@pytest.fixture
def box(mailbox_with_attachment):
    return mailbox_with_attachment


def headers(sandbox):
    return sandbox.rows("SELECT name, value FROM extra_headers")


def assert_rows_are_as_before(sandbox):
    assert autoresponder_rows(sandbox) == [("user@example.org", "user@example.org")]
    assert attachment_rows(sandbox) == [("user@example.org", "report.pdf")]


def files(sandbox):
    return sorted(sandbox.tree(DIRECTORY))[1:]


# -- a database that cannot be read


def replace_by_directory(sandbox):
    sandbox.path(DATABASE).unlink()
    sandbox.path(DATABASE).mkdir()


def remove(sandbox):
    sandbox.path(DATABASE).unlink()


def corrupt(sandbox):
    corrupt_page_of(sandbox, "mn")


ERROR_REMOVING = "Error removing attachments for mailname (user@example.org)"
NO_TABLE = "Unable to prepare SQL statement for query '{}': no such table: {}"
NOT_OPENED = "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"
NO_OWNERS = NO_TABLE.format("SELECT real_owner FROM autoresponder WHERE mn=?", "autoresponder")
NOT_READ = ["Unable to read data from database: database disk image is malformed",
            "Error selecting autoresponder for mailname (user@example.org)"]


@pytest.mark.parametrize(("args", "damage", "texts"), [
    *((args, replace_by_directory, [NOT_OPENED]) for args in (ADD_NEW, DEL, DEL_RESP)),
    (ADD_NEW, remove, [NO_OWNERS]), (DEL, remove, [NO_OWNERS]),
    (DEL_RESP, remove, [NO_TABLE.format("DELETE FROM attachments WHERE mn=?", "attachments"), ERROR_REMOVING]),
    (ADD_NEW, corrupt, NOT_READ), (DEL, corrupt, NOT_READ)])
def test_database_that_cannot_be_read_keeps_the_files(box, args, damage, texts):
    before = box.tree(MAIL_TREE)
    damage(box)

    assert outcome(box.run(*args)) == (1, *texts)

    assert box.tree(MAIL_TREE) == before


@pytest.mark.parametrize("args", [ADD_NEW, DEL], ids=lambda args: args[0])
def test_mail_name_without_an_autoresponder_keeps_rows_and_files(box, args):
    run_sql(box, "DELETE FROM autoresponder")
    before = box.tree(MAIL_TREE)

    assert outcome(box.run(*args)) == (1, "No autoresponder found for mailname (user@example.org)")

    assert box.tree(MAIL_TREE) == before
    assert attachment_rows(box) == [("user@example.org", "report.pdf")]


# -- a database that cannot be written

FILES_LEFT = {ADD_NEW: ["new.pdf", "report.pdf"], DEL: ["report.pdf"], DEL_RESP: []}
NOT_ADDED = "Unable to add autoresponder attachment (user@example.org:new.pdf): "
NOT_DELETED = "Unable to delete autoresponder attachment (user@example.org:report.pdf): "
NOT_ENDED = "Unable to end sqlite transaction: "


@pytest.mark.parametrize("action", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize(("args", "event", "text"), [
    (ADD_NEW, "INSERT", NOT_ADDED + "refused"), (DEL, "DELETE", NOT_DELETED + "refused")])
def test_refused_row_discards_the_transaction(box, args, event, text, action):
    run_sql(box, f"CREATE TRIGGER refuse BEFORE {event} ON attachments "
                 f"BEGIN DELETE FROM autoresponder; SELECT RAISE({action}, 'refused'); END")

    assert outcome(box.run(*args)) == (1, text)

    assert_rows_are_as_before(box)
    assert files(box) == FILES_LEFT[args]


@pytest.mark.parametrize(("args", "query"), [
    (ADD_NEW, "REPLACE INTO attachments VALUES (?, ?  );"),
    (DEL, "DELETE FROM attachments WHERE mn=? AND filename=?")])
def test_missing_attachments_table_keeps_the_files(box, args, query):
    run_sql(box, "DROP TABLE attachments")

    assert outcome(box.run(*args)) == (1, NO_TABLE.format(query, "attachments"))

    assert files(box) == FILES_LEFT[args]


@pytest.mark.parametrize(("args", "path", "texts"), [
    (ADD_NEW, DATABASE + "-journal", [NOT_ADDED + "disk I/O error"]),
    (DEL, DATABASE + "-journal", [NOT_DELETED + "disk I/O error"]),
    (DEL_RESP, DATABASE + "-journal", [
        "Unable to delete from attachments (user@example.org): disk I/O error", ERROR_REMOVING,
        NOT_ENDED + "cannot commit - no transaction is active"]),
    *((args, DATABASE, [NOT_ENDED + "disk I/O error"]) for args in (ADD_NEW, DEL, DEL_RESP))])
def test_disk_error_keeps_the_rows(box, needs_tracing, args, path, texts):
    result, _ = box.trace(*args, inject=["pwrite64:error=EIO:when=1"], paths=[path])

    assert outcome(result) == (1, *texts)
    assert_rows_are_as_before(box)
    assert files(box) == FILES_LEFT[args]


# -- transactions and values


BEGIN_REFUSED = "Unable to begin sqlite transaction: cannot start a transaction within a transaction"
NOT_PREPARED = "Unable to prepare SQL statement for query '{}': string or blob too big"
NOT_BOUND = "Unable to bind parameter {}: column index out of range"


@pytest.mark.parametrize("args", TRANSACTIONS, ids=lambda args: args[0])
@pytest.mark.parametrize(("fault", "text"), [
    ("begun", BEGIN_REFUSED), ("prepare BEGIN", NOT_PREPARED.format("BEGIN TRANSACTION;"))])
def test_transaction_that_cannot_begin_changes_nothing(box, args, fault, text):
    before = box.tree(MAIL_TREE)

    assert outcome(box.run(*args, env=sqlite_shim.environment(box, fault))) == (1, text)

    assert_rows_are_as_before(box)
    assert box.tree(MAIL_TREE) == before


@pytest.mark.parametrize("args", TRANSACTIONS, ids=lambda args: args[0])
def test_end_that_cannot_be_prepared_keeps_the_rows(box, args):
    result = box.run(*args, env=sqlite_shim.environment(box, "prepare END"))

    assert outcome(result) == (1, NOT_PREPARED.format("END TRANSACTION;"))
    assert_rows_are_as_before(box)


@pytest.mark.parametrize(("args", "first", "records"), [
    (SET_RESP, 1, [NOT_BOUND.format("keystr")]),
    (DEL_RESP, 1, [NOT_BOUND.format("mailname"), ERROR_REMOVING]),
    (ADD_NEW, 1, [NOT_BOUND.format("mailname")]), (ADD_NEW, 2, [NOT_BOUND.format("filename")]),
    (DEL, 1, [NOT_BOUND.format("mailname")]), (DEL, 2, [NOT_BOUND.format("filename")])])
def test_value_that_cannot_be_bound_keeps_the_rows(box, args, first, records):
    assert outcome(box.run(*args, env=sqlite_shim.environment(box, f"bind {first}"))) == (1, *records)

    assert_rows_are_as_before(box)


@pytest.mark.parametrize(("fault", "text", "left"), [
    ("begun", BEGIN_REFUSED, [("X-Old", "yes")]),  # the list was emptied in the transaction that is lost
    ("prepare BEGIN", NOT_PREPARED.format("BEGIN TRANSACTION;"), []),
    ("prepare REPLACE", NOT_PREPARED.format("REPLACE INTO extra_headers VALUES (?, ?  );"), []),
    ("bind 1", NOT_BOUND.format("name"), []), ("bind 2", NOT_BOUND.format("value"), []),
    ("prepare END", NOT_PREPARED.format("END TRANSACTION;"), [])])
def test_headers_that_cannot_be_written_leave_the_list_empty(box, fault, text, left):
    result = box.run(*SET_EXTRA_HEADERS, stdin=HEADERS, env=sqlite_shim.environment(box, fault))

    assert outcome(result) == (1, text)
    assert headers(box) == left


# -- the pause on a locked database


@pytest.mark.parametrize("args", [*TRANSACTIONS, SET_EXTRA_HEADERS], ids=lambda args: args[0])
def test_pause_that_fails_ends_the_command_without_a_record(box, needs_tracing, args):
    before = box.tree(MAIL_TREE)
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN EXCLUSIVE")
        result, calls = box.trace(*args, stdin=HEADERS, calls="clock_nanosleep,nanosleep", inject=INTERRUPTED)

    assert any(call.injected for call in calls)
    assert result == Result(1, b"", b"", [])
    assert_rows_are_as_before(box)
    assert headers(box) == [("X-Old", "yes")]
    assert box.tree(MAIL_TREE) == before


# -- directories


def test_emptied_directory_that_cannot_be_removed_is_logged_and_the_rows_go(box, needs_tracing):
    box.path(FILE).unlink()
    make_directories(box, DIRECTORY + "/old")

    # The first call finds out that it is a directory.
    result, _ = box.trace(*DEL_RESP, calls="unlinkat", inject=["unlinkat:error=EBUSY:when=2"])

    assert outcome(result) == (
        0, f"Unable to remove autoresponder attachments: cannot remove {DIRECTORY}/old: Device or resource busy")
    assert sorted(box.tree(DIRECTORY)) == [".", "old"]
    assert (autoresponder_rows(box), attachment_rows(box)) == ([], [])


# -- memory


def test_missing_memory_for_the_path_ends_add_attach_before_the_copy(box):
    before = box.tree(MAIL_TREE)

    result = box.run(*ADD_NEW, env=preload.environment(box, ALLOCATION_FAILS="vasprintf"))

    message = b"Cannot allocate memory: Cannot allocate memory\nSystem error 12: Cannot allocate memory\n"
    assert result == Result(1, message, message, [])
    assert_rows_are_as_before(box)
    assert box.tree(MAIL_TREE) == before


@pytest.mark.unsanitized
def test_missing_memory_for_the_configuration_leaves_the_defaults(box):
    box.conf("QUARN_MAILNAMES_D /srv/mail\n")

    result = box.run(*DEL_RESP, env=preload.environment(box, ALLOCATION_FAILS="calloc"))

    # Nothing goes to the console: the log is open already.
    assert set(outcome(result)) == {0, "Not enough memory to allocate Quarn runtime configuration structure"}
    assert box.tree(DIRECTORY) == {".": ("dir", 0o700, *box.popuser, None)}


@pytest.mark.unsanitized
def test_run_that_ends_reports_missing_memory_for_its_message(box):
    box.path(DOMAIN).rename(box.path("/tmp/moved"))
    put_file(box, DOMAIN)  # in the way of the directory

    result = box.run(*ADD_NEW, env=preload.environment(box, ALLOCATION_FAILS="=4096"))

    message = b"Can't allocate memory for error message\n"
    assert result == Result(1, message, message, [])
    assert_rows_are_as_before(box)


@pytest.mark.unsanitized
def test_run_that_goes_on_reports_missing_memory_for_each_message(box, needs_tracing):
    box.path(DOMAIN).rename(box.path("/tmp/moved"))

    result, _ = box.trace(*ADD_NEW, env=preload.environment(box, ALLOCATION_FAILS="=4096"),
                          inject=["/^fchown(at)?$:error=EROFS"], paths=[DOMAIN, MAILBOX, DIRECTORY])

    message = b"Can't allocate memory for error message\n" * 3  # example.org, user and @attachments
    assert result == Result(0, message, message, [])
    assert attachment_rows(box) == [("user@example.org", "new.pdf"), ("user@example.org", "report.pdf")]
    assert box.path(DIRECTORY + "/new.pdf").read_bytes() == b"the report"
