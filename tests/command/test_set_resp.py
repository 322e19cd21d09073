"""--set-resp: one row written whole, with the body from standard input."""

import contextlib
import os
import re
import resource
import signal

import pytest
from harness import sqlite_shim
from harness.descriptors import number_of_call
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
MAILBOX = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org")
REPLACE = ("REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
           "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );")
COLUMNS = ("keystr, key_where, subject, reply_to, forward_to, content_type, charset, CAST(body AS BLOB), ans_freq, "
           "ans_limit, real_owner, mn")
DEFAULTS = ("", "no", "Re: <request_subject>", "", "", "text/plain", "UTF-8", b"", 10, 1000, "a@example.org",
            "a@example.org")
FORMER = ("former key", "subj", "former subject", "former reply", "former forward", "text/html", "KOI8-R",
          b"former body", 3, 4, "former@example.org", "a@example.org")


@pytest.fixture
def database(sandbox):
    """The sandbox with an empty database."""
    sandbox.init_db()
    return sandbox


@pytest.fixture
def former(database):
    """The sandbox with the row FORMER in its database."""
    with contextlib.closing(database.db()) as db:
        db.execute(f"INSERT INTO autoresponder ({COLUMNS.replace('CAST(body AS BLOB)', 'body')})"
                   " VALUES (?, ?, ?, ?, ?, ?, ?, CAST(? AS TEXT), ?, ?, ?, ?)", FORMER)
    return database


def rows(sandbox):
    return sandbox.rows(f"SELECT {COLUMNS} FROM autoresponder ORDER BY rowid")


def row(**changed):
    """The row of a run without options, but for `changed`."""
    names = ["keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body", "ans_freq",
             "ans_limit", "real_owner", "mn"]
    return tuple({**dict(zip(names, DEFAULTS)), **changed}.values())


def assert_stored(result):
    assert (result.status, result.stdout, result.stderr, result.records) == (0, b"", b"", [])


def assert_failed(result, *texts):
    records = [(record.priority, record.text) for record in result.records]
    assert (result.status, result.stdout, records) == (1, b"", [(19, text) for text in texts])


def execute(sandbox, *statements):
    with contextlib.closing(sandbox.db()) as db:
        for statement in statements:
            db.execute(statement)


# -- the row


def test_options_not_given_take_their_defaults_and_no_column_is_null(database):
    assert_stored(database.run(*MAILBOX))

    assert rows(database) == [("", "no", "Re: <request_subject>", "", "", "text/plain", "UTF-8", b"", 10, 1000,
                               "a@example.org", "a@example.org")]
    types = database.rows("SELECT typeof(keystr), typeof(key_where), typeof(subject), typeof(reply_to),"
                          " typeof(forward_to), typeof(content_type), typeof(charset), typeof(body), typeof(ans_freq),"
                          " typeof(ans_limit), typeof(real_owner), typeof(mn) FROM autoresponder")
    assert types == [("text",) * 8 + ("integer",) * 2 + ("text",) * 2]


def test_every_value_is_stored_as_given(database):
    result = database.run(
        "--set-resp", "--mailname", "info@example.org", "--real-owner", "owner@example.net",
        "--key-str", "kéy ключ 鍵 🔑", "--key-where", "subj", "--subj", "  Ré: 'quoted' \"twice\" %s %n; -- ",
        "--reply-to", "No Address <Reply@TO>",
        "--forward-to", "somewhere ELSE,\tother", "--content-type", "html", "--charset", "kOi8-R", "--ans-freq", "7",
        "--ans-limit", "13", stdin="Dear Ünïversé,\n\nböd¥ 🙂\r\n".encode())

    assert_stored(result)
    assert rows(database) == [("kéy ключ 鍵 🔑", "subj", "  Ré: 'quoted' \"twice\" %s %n; -- ",
                               "No Address <Reply@TO>", "somewhere ELSE,\tother", "text/html", "kOi8-R",
                               "Dear Ünïversé,\n\nböd¥ 🙂\r\n".encode(), 7, 13, "owner@example.net",
                               "info@example.org")]


def test_empty_texts_are_stored_as_empty_texts(database):
    assert_stored(database.run(*MAILBOX, "--key-str", "", "--key-where", "", "--subj", "", "--reply-to", "",
                               "--forward-to", "", "--charset", ""))

    assert rows(database) == [row(key_where="", subject="", charset="")]
    assert database.rows("SELECT count(*) FROM autoresponder WHERE typeof(keystr) || typeof(key_where) ||"
                         " typeof(subject) || typeof(reply_to) || typeof(forward_to) || typeof(charset)"
                         " = 'texttexttexttexttexttext'") == [(1,)]


@pytest.mark.parametrize("option, column, value", [
    ("--key-where", "key_where", "anything"), ("--charset", "charset", "no such charset"),
    ("--reply-to", "reply_to", "not an address"), ("--forward-to", "forward_to", "@@"),
    ("--key-str", "keystr", "x" * 100000), ("--subj", "subject", "\x01\n\x7f")])
def test_text_options_are_not_checked(database, option, column, value):
    assert_stored(database.run(*MAILBOX, option, value))

    assert rows(database) == [row(**{column: value})]


def test_texts_that_are_no_unicode_are_stored_byte_for_byte(database):
    assert_stored(database.run(*MAILBOX, "--subj", b"\xff\xfe \xc3"))

    stored = database.rows("SELECT CAST(subject AS BLOB), typeof(subject) FROM autoresponder")
    assert stored == [(b"\xff\xfe \xc3", "text")]


@pytest.mark.parametrize("number", [-2147483648, -1, 0, 2147483647])
def test_numbers_are_stored_as_given(database, number):
    assert_stored(database.run(*MAILBOX, f"--ans-freq={number}", f"--ans-limit={-1 - number}"))

    assert rows(database) == [row(ans_freq=number, ans_limit=-1 - number)]


def test_both_addresses_are_stored_lower_cased(database):
    assert_stored(database.run("--set-resp", "--mailname", "Info@Example.ORG", "--real-owner", "OWNER@example.Net"))

    assert rows(database) == [row(mn="info@example.org", real_owner="owner@example.net")]


def test_numbers_in_texts_stay_texts(database):
    assert_stored(database.run(*MAILBOX, "--key-str", "007", "--subj", "1e3", stdin=b"42"))

    assert rows(database) == [row(keystr="007", subject="1e3", body=b"42")]


def test_second_run_replaces_the_row_whole(database):
    assert_stored(database.run(*MAILBOX, "--subj", "first", "--ans-freq", "77", "--content-type", "text/html",
                               stdin=b"first body"))
    assert_stored(database.run(*MAILBOX, "--key-str", "second", stdin=b"second body"))

    assert rows(database) == [row(keystr="second", body=b"second body")]


def test_mailbox_in_another_case_is_the_same_mailbox(former):
    assert_stored(former.run("--set-resp", "--mailname", "A@EXAMPLE.org", "--real-owner", "a@example.org"))

    assert rows(former) == [DEFAULTS]


def test_other_mailboxes_and_tables_stay_as_they_are(former):
    execute(former, "INSERT INTO attachments VALUES ('b@example.org', 'file.txt')",
            "INSERT INTO resp_freq VALUES ('b@example.org', 'c@example.org', 1, 2)",
            "INSERT INTO extra_headers VALUES ('X-Header', 'value')")

    assert_stored(former.run("--set-resp", "--mailname", "b@example.org", "--real-owner", "a@example.org"))
    assert_stored(former.run("--set-resp", "--mailname", "b@example.org", "--real-owner", "a@example.org"))

    assert rows(former) == [FORMER, row(mn="b@example.org")]
    assert former.rows("SELECT * FROM attachments") == [("b@example.org", "file.txt")]
    assert former.rows("SELECT * FROM resp_freq") == [("b@example.org", "c@example.org", 1, 2)]
    assert former.rows("SELECT * FROM extra_headers") == [("X-Header", "value")]


def test_owner_and_mode_of_the_file_stay_and_nothing_is_left_beside_it(database):
    assert_stored(database.run(*MAILBOX, umask=0))

    tree = database.tree(DIRECTORY)
    assert {name: entry[:4] for name, entry in tree.items()} == {
        ".": ("dir", 0o755, 1110, 0), "responder.db": ("file", 0o600, 1110, 31)}


# -- the body


@pytest.mark.parametrize("body", [
    b"", b"\n", b"no line feed at the end", b"line\n", b"line\n\n\n", b"\r\n.\r\n", b"  blanks \t ", b"nul \0 inside",
    b"\0", b"at the end\0", b"no UTF-8: \xff\xfe\x80 \xc3", bytes(range(256)), "\ufeffBOM".encode()],
    ids=repr)
def test_body_is_stored_byte_for_byte(database, body):
    assert_stored(database.run(*MAILBOX, stdin=body))

    assert rows(database) == [row(body=body)]
    assert database.rows("SELECT typeof(body) FROM autoresponder") == [("text",)]


@pytest.mark.parametrize("length", [4095, 4096, 65535, 65536, 65537, 131071, 131072, 131073, 3 * 1024 * 1024 + 1])
def test_body_of_any_length_is_stored_whole(database, length):
    body = bytes(range(1, 256)) * (length // 255 + 1)

    assert_stored(database.run(*MAILBOX, stdin=body[:length]))

    assert rows(database) == [row(body=body[:length])]


# -- the calls and their order


def test_makes_its_calls_to_sqlite_in_order(database):
    assert_stored(database.run(*MAILBOX, env=sqlite_shim.environment(database)))

    assert sqlite_shim.calls(database) == [
        f"open {DATABASE}", "busy_timeout 50",
        "prepare BEGIN TRANSACTION; = 0", "step = 101", "finalize",
        f"prepare {REPLACE} = 0",
        *[f"bind_text {index} = 0" for index in range(1, 9)], "bind_int 9 = 0", "bind_int 10 = 0", "bind_text 11 = 0",
        "bind_text 12 = 0", "step = 101", "finalize",
        "prepare END TRANSACTION; = 0", "step = 101", "finalize",
        "close = 0"]


@pytest.mark.parametrize("args, missing", [
    (("--set-resp",), b"mailname"), (("--set-resp", "--real-owner", "a@example.org"), b"mailname"),
    (("--set-resp", "--mailname", "a@example.org"), b"real-owner")])
def test_missing_option_ends_the_run_before_input_and_database(sandbox, args, missing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    reader, writer = os.pipe()
    try:
        result = sandbox.run(*args, stdin=reader)
    finally:
        os.close(reader)
        os.close(writer)

    assert (result.status, result.stdout, result.records) == (1, b"Error: Missing option: " + missing + b"\n", [])
    assert set(sandbox.tree(DIRECTORY)) == {"."}


# -- a database that cannot be opened or has no table


def test_missing_database_becomes_an_empty_file_without_a_table(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)

    result = sandbox.run(*MAILBOX, stdin=b"body")

    assert_failed(result, "Unable to prepare SQL statement for query 'REPLACE INTO autoresponder (keystr, key_where, "
                          "subject, reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit, "
                          "real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );': "
                          "no such table: autoresponder")
    tree = sandbox.tree(DIRECTORY)
    assert tree["responder.db"] == ("file", 0o600, 0, 0, b"")
    assert set(tree) == {".", "responder.db"}


@pytest.mark.parametrize("make", [lambda path: None, lambda path: path.mkdir(parents=True),
                                  lambda path: (path.parent.mkdir(parents=True), path.symlink_to("missing/file"))],
                         ids=["missing directory", "directory in its place", "link to nowhere"])
def test_database_that_cannot_be_opened(sandbox, make):
    make(sandbox.path(DATABASE))

    assert_failed(sandbox.run(*MAILBOX), "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                                         "unable to open database file")


def test_no_handle_has_a_text_of_its_own(former):
    result = former.run(*MAILBOX, env=sqlite_shim.environment(former, "open"))

    assert_failed(result, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: general DB errror")
    assert sqlite_shim.calls(former) == [f"open {DATABASE}"]
    assert rows(former) == [FORMER]


def test_failed_open_is_not_tried_again_and_its_handle_is_closed(sandbox):
    result = sandbox.run(*MAILBOX, env=sqlite_shim.environment(sandbox))

    assert_failed(result, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                          "unable to open database file")
    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}", "errmsg", "close = 0"]


def test_file_that_is_no_database(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(b"this is no database\n" * 100)

    assert_failed(sandbox.run(*MAILBOX),
                  f"Unable to prepare SQL statement for query '{REPLACE}': file is not a database")
    assert sandbox.path(DATABASE).read_bytes() == b"this is no database\n" * 100


def test_table_with_a_column_missing(database):
    execute(database, "ALTER TABLE autoresponder RENAME COLUMN charset TO cs")

    assert_failed(database.run(*MAILBOX), f"Unable to prepare SQL statement for query '{REPLACE}': "
                                          "table autoresponder has no column named charset")


# -- steps that fail, one by one


@pytest.mark.parametrize("sql", ["BEGIN TRANSACTION;", REPLACE, "END TRANSACTION;"])
def test_statement_that_cannot_be_prepared(former, sql):
    result = former.run(*MAILBOX, env=sqlite_shim.environment(former, "prepare " + sql.split()[0]))

    assert_failed(result, f"Unable to prepare SQL statement for query '{sql}': string or blob too big")
    assert sqlite_shim.calls(former)[-3:] == [f"prepare {sql} = 18", "errmsg", "close = 0"]
    assert rows(former) == [FORMER]


def test_begin_that_is_not_done(former):
    result = former.run(*MAILBOX, env=sqlite_shim.environment(former, "begun"))

    assert_failed(result, "Unable to begin sqlite transaction: cannot start a transaction within a transaction")
    assert sqlite_shim.calls(former)[-4:] == ["step = 1", "finalize", "errmsg", "close = 0"]
    assert rows(former) == [FORMER]


@pytest.mark.parametrize("index, name", enumerate(
    ["keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body", "ans_freq",
     "ans_limit", "real_owner", "mailname"], start=1))
def test_parameter_that_cannot_be_bound(former, index, name):
    result = former.run(*MAILBOX, stdin=b"body", env=sqlite_shim.environment(former, f"bind {index}"))

    assert_failed(result, f"Unable to bind parameter {name}: column index out of range")
    kind = "int" if index in (9, 10) else "text"
    assert sqlite_shim.calls(former)[5 + index:] == [f"bind_{kind} {index} = 25", "errmsg", "finalize", "close = 0"]
    assert rows(former) == [FORMER]


def test_body_longer_than_sqlite_takes(former):
    with open(os.memfd_create("body"), "rb") as body:
        os.truncate(body.fileno(), 1_000_000_001)
        result = former.run(*MAILBOX, stdin=body, timeout=300)

    assert_failed(result, "Unable to bind parameter body: string or blob too big")
    assert rows(former) == [FORMER]


@pytest.mark.parametrize("kind", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize("when", ["BEFORE", "AFTER"])
def test_step_that_a_trigger_refuses(former, kind, when):
    execute(former, f"CREATE TRIGGER refuse {when} INSERT ON autoresponder BEGIN SELECT RAISE({kind}, 'not now'); END")

    result = former.run("--set-resp", "--mailname", "A@Example.org", "--real-owner", "b@example.org")

    assert_failed(result, "Unable to add/update autoresponder (a@example.org): not now")
    assert rows(former) == [FORMER]


def test_row_that_a_trigger_leaves_out_is_no_failure(former):
    execute(former, "CREATE TRIGGER leave BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(IGNORE); END")

    assert_stored(former.run(*MAILBOX))

    assert rows(former) == [FORMER]


def test_step_that_a_constraint_refuses(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).touch()
    execute(sandbox, "CREATE TABLE autoresponder (mn PRIMARY KEY, keystr, key_where, subject, reply_to, forward_to,"
                     " content_type, charset, body, ans_freq CONSTRAINT few CHECK (ans_freq < 100), ans_limit,"
                     " real_owner)")

    assert_failed(sandbox.run(*MAILBOX, "--ans-freq", "100"),
                  "Unable to add/update autoresponder (a@example.org): CHECK constraint failed: few")
    assert rows(sandbox) == []


def test_failed_step_is_finalized_before_its_text_is_asked_for(former):
    execute(former, "CREATE TRIGGER refuse BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END")

    former.run(*MAILBOX, env=sqlite_shim.environment(former))

    assert sqlite_shim.calls(former)[-4:] == ["step = 19", "finalize", "errmsg", "close = 0"]


def test_user_who_may_only_read_the_file(former):
    former.path(DATABASE).chmod(0o644)

    result = former.execute("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                            "/usr/sbin/arspctl", *MAILBOX)

    assert_failed(result, "Unable to add/update autoresponder (a@example.org): attempt to write a readonly database")
    assert rows(former) == [FORMER]


def test_user_who_may_not_read_the_file(former):
    result = former.execute("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                            "/usr/sbin/arspctl", *MAILBOX)

    assert_failed(result, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                          "unable to open database file")
    assert rows(former) == [FORMER]


def test_read_only_file_system(former, needs_tracing):
    only_second = ["openat:error=EROFS:when=2"]  # the first looks for a link, and SQLite tries a third, to read only
    result, _ = former.trace(*MAILBOX, calls="openat", inject=only_second, paths=[DATABASE])

    assert_failed(result, "Unable to add/update autoresponder (a@example.org): attempt to write a readonly database")
    assert rows(former) == [FORMER]


def test_limit_on_the_size_of_files_fails_the_end(former):
    result = former.run(*MAILBOX, stdin=b"x" * 200_000, ignore=[signal.SIGXFSZ],
                        rlimits={resource.RLIMIT_FSIZE: 100_000})

    assert_failed(result, "Unable to end sqlite transaction: disk I/O error")
    assert rows(former) == [FORMER]
    assert former.rows("PRAGMA integrity_check") == [("ok",)]


def trace_with_failure(sandbox, name, path, when, **options):
    """A run with a failing call on an open file; `name` is a pattern, `when` says "EIO:2", or "EIO:2+" for all after."""
    before = sandbox.path(DATABASE).read_bytes()
    error, _, nth = when.partition(":")
    _, calls = sandbox.trace(*MAILBOX, calls="openat,/^" + name, **options)
    sandbox.path(DATABASE).write_bytes(before)
    call = next(call.name for call in calls if re.fullmatch(name, call.name))
    number = number_of_call(calls, call, path, int(nth.rstrip("+")))
    return sandbox.trace(*MAILBOX, calls=call, inject=[f"{call}:error={error}:when={number}{nth.lstrip('0123456789')}"],
                         **options)


@pytest.mark.parametrize("name, path, when, text", [
    ("pwrite64", DATABASE, "ENOSPC:1", "database or disk is full"),
    ("pwrite64", DATABASE, "ENOSPC:1+", "database or disk is full"),
    ("pwrite64", DATABASE, "EIO:2", "disk I/O error"),
    ("f(data)?sync", DATABASE, "EIO:1", "disk I/O error"),
    ("f(data)?sync", DATABASE + "-journal", "EIO:1", "disk I/O error")],
    ids=["full", "full for good", "write", "sync", "sync journal"])
def test_disk_that_takes_no_more_fails_the_end(former, needs_tracing, name, path, when, text):
    result, calls = trace_with_failure(former, name, path, when)

    assert any(call.injected for call in calls)
    assert_failed(result, "Unable to end sqlite transaction: " + text)
    assert rows(former) == [FORMER]
    assert former.rows("PRAGMA integrity_check") == [("ok",)]


def test_journal_that_cannot_be_removed_fails_the_end(former, needs_tracing):
    result, _ = former.trace(*MAILBOX, calls="unlink", inject=["unlink:error=EIO"], paths=[DATABASE + "-journal"])

    assert_failed(result, "Unable to end sqlite transaction: disk I/O error")
    assert rows(former) == [FORMER]
    assert former.rows("PRAGMA integrity_check") == [("ok",)]


def test_journal_that_cannot_be_made_fails_the_step(former, needs_tracing):
    result, _ = former.trace(*MAILBOX, calls="openat", inject=["openat:error=ENOSPC"], paths=[DATABASE + "-journal"])

    assert_failed(result, "Unable to add/update autoresponder (a@example.org): unable to open database file")
    assert rows(former) == [FORMER]


def test_error_in_closing_the_file_does_not_fail_the_command(database, needs_tracing):
    result, calls = trace_with_failure(database, "close", DATABASE, "EIO:1", stdin=b"body")

    assert [call.injected for call in calls].count(True) == 1
    assert_stored(result)
    assert rows(database) == [row(body=b"body")]
