"""--set-resp: one row written whole, with the body from standard input."""

import os
import resource
import signal

import pytest
from harness import DONE, sqlite_shim
from harness.mailboxes import error_texts, run_sql
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
MAILBOX = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org")
COLUMNS = {"keystr": "", "key_where": "no", "subject": "Re: <request_subject>", "reply_to": "", "forward_to": "",
           "content_type": "text/plain", "charset": "UTF-8", "body": b"", "ans_freq": 10, "ans_limit": 1000,
           "real_owner": "a@example.org", "mn": "a@example.org"}
REPLACE = f"REPLACE INTO autoresponder ({', '.join(COLUMNS)}) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );"
FORMER = ("former key", "subj", "former subject", "former reply", "former forward", "text/html", "KOI8-R",
          b"former body", 3, 4, "former@example.org", "a@example.org")
AS_NOBODY = ("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/usr/sbin/arspctl", *MAILBOX)
CANNOT_OPEN = f"Unable to open database {DATABASE}: "
CANNOT_PREPARE = f"Unable to prepare SQL statement for query '{REPLACE}': "
CANNOT_ADD = "Unable to add/update autoresponder (a@example.org): "
CANNOT_END = "Unable to end sqlite transaction: "


@pytest.fixture
def database(sandbox):
    """The sandbox with an empty database."""
    sandbox.init_db()
    return sandbox


@pytest.fixture
def former(database):
    """The sandbox with the row FORMER in its database."""
    run_sql(database, f"INSERT INTO autoresponder ({', '.join(COLUMNS)}) VALUES "
                      f"{(*FORMER[:7], 'former body', *FORMER[8:])}")
    return database


def rows(sandbox):
    columns = ", ".join(COLUMNS).replace("body", "CAST(body AS BLOB)")
    return sandbox.rows(f"SELECT {columns} FROM autoresponder ORDER BY rowid")


def row(**changed):
    """The row of a run without options, but for `changed`."""
    return tuple({**COLUMNS, **changed}.values())


def assert_failed(result, text):
    assert (result.status, result.stdout, error_texts(result)) == (1, b"", [text])


def assert_left_the_row(sandbox, result, text):
    """The run failed with one record, and FORMER is still the only row."""
    assert_failed(result, text)
    assert rows(sandbox) == [FORMER]
    assert sandbox.rows("PRAGMA integrity_check") == [("ok",)]


# -- the row


@pytest.mark.parametrize("options, stored", [
    ([], {}),
    ([word for option in ("key-str", "key-where", "subj", "reply-to", "forward-to", "charset")
      for word in (f"--{option}", "")], {"key_where": "", "subject": "", "charset": ""}),
    (["--key-where", "anything"], {"key_where": "anything"}),
    (["--charset", "no such charset"], {"charset": "no such charset"}),
    (["--reply-to", "not an address"], {"reply_to": "not an address"}),
    (["--forward-to", "@@"], {"forward_to": "@@"}),
    (["--key-str", "x" * 100000], {"keystr": "x" * 100000}),
    (["--subj", "\x01\n\x7f"], {"subject": "\x01\n\x7f"}),
    (["--key-str", "007", "--subj", "1e3"], {"keystr": "007", "subject": "1e3"}),
], ids=["defaults", "empty", "key-where", "charset", "reply-to", "forward-to", "key-str", "subj", "numbers in texts"])
def test_options_are_stored_unchecked_and_no_column_is_null(database, options, stored):
    assert database.run(*MAILBOX, *options, stdin=b"42") == DONE

    assert rows(database) == [row(**stored, body=b"42")]
    types = ", ".join(f"typeof({column})" for column in COLUMNS)
    assert database.rows(f"SELECT {types} FROM autoresponder") == [("text",) * 8 + ("integer",) * 2 + ("text",) * 2]


def test_every_option_is_stored_in_its_column(database):
    assert database.run(
        "--set-resp", "--mailname", "Info@Example.ORG", "--real-owner", "OWNER@example.Net",
        "--key-str", "kéy ключ 鍵 🔑", "--key-where", "subj", "--subj", "  Ré: 'quoted' \"twice\" %s %n; -- ",
        "--reply-to", "No Address <Reply@TO>",
        "--forward-to", "somewhere ELSE,\tother", "--content-type", "html", "--charset", "kOi8-R", "--ans-freq", "7",
        "--ans-limit", "13", stdin="Dear Ünïversé,\n\nböd¥ 🙂\r\n".encode()) == DONE

    assert rows(database) == [("kéy ключ 鍵 🔑", "subj", "  Ré: 'quoted' \"twice\" %s %n; -- ",
                               "No Address <Reply@TO>", "somewhere ELSE,\tother", "text/html", "kOi8-R",
                               "Dear Ünïversé,\n\nböd¥ 🙂\r\n".encode(), 7, 13, "owner@example.net",
                               "info@example.org")]


def test_second_run_replaces_the_whole_row(former):
    assert former.run("--set-resp", "--mailname", "A@EXAMPLE.org", "--real-owner", "a@example.org") == DONE

    assert rows(former) == [row()]


def test_other_mailboxes_and_tables_stay_unchanged(former):
    run_sql(former, """INSERT INTO attachments VALUES ('b@example.org', 'file.txt');
                       INSERT INTO resp_freq VALUES ('b@example.org', 'c@example.org', 1, 2);
                       INSERT INTO extra_headers VALUES ('X-Header', 'value');""")

    for _ in range(2):
        assert former.run("--set-resp", "--mailname", "b@example.org", "--real-owner", "a@example.org") == DONE

    assert rows(former) == [FORMER, row(mn="b@example.org")]
    assert former.rows("SELECT * FROM attachments") == [("b@example.org", "file.txt")]
    assert former.rows("SELECT * FROM resp_freq") == [("b@example.org", "c@example.org", 1, 2)]
    assert former.rows("SELECT * FROM extra_headers") == [("X-Header", "value")]


def test_database_keeps_its_owner_and_mode_and_no_other_file_remains(database):
    assert database.run(*MAILBOX, umask=0) == DONE

    assert {name: entry[:4] for name, entry in database.tree(DIRECTORY).items()} == {
        ".": ("dir", 0o755, 1110, 0), "responder.db": ("file", 0o600, 1110, 31)}


@pytest.mark.parametrize("body", [
    b"", b"\n", b"no line feed at the end", b"line\n", b"line\n\n\n", b"\r\n.\r\n", b"  blanks \t ", b"nul \0 inside",
    b"\0", b"at the end\0", b"no UTF-8: \xff\xfe\x80 \xc3", bytes(range(256)), "\ufeffBOM".encode(),
    *(pytest.param((bytes(range(1, 256)) * 12400)[:length], id=str(length))
      for length in (4095, 4096, 65535, 65536, 65537, 131071, 131072, 131073, 3 * 1024 * 1024 + 1))], ids=repr)
def test_body_is_stored_byte_for_byte(database, body):
    assert database.run(*MAILBOX, stdin=body) == DONE

    assert rows(database) == [row(body=body)]
    assert database.rows("SELECT typeof(body) FROM autoresponder") == [("text",)]


def test_calls_to_sqlite_are_made_in_order(database):
    assert database.run(*MAILBOX, env=sqlite_shim.environment(database)) == DONE

    assert sqlite_shim.calls(database) == [
        f"open {DATABASE}", "busy_timeout 50",
        "prepare BEGIN TRANSACTION; = 0", "step = 101", "finalize",
        f"prepare {REPLACE} = 0",
        *[f"bind_text {index} = 0" for index in range(1, 9)], "bind_int 9 = 0", "bind_int 10 = 0", "bind_text 11 = 0",
        "bind_text 12 = 0", "step = 101", "finalize",
        "prepare END TRANSACTION; = 0", "step = 101", "finalize",
        "close = 0"]


# -- unusable databases


def test_missing_database_becomes_an_empty_file(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)

    assert_failed(sandbox.run(*MAILBOX, stdin=b"body"), CANNOT_PREPARE + "no such table: autoresponder")

    tree = sandbox.tree(DIRECTORY)
    assert tree["responder.db"] == ("file", 0o600, 0, 0, b"")
    assert set(tree) == {".", "responder.db"}


@pytest.mark.parametrize("make", [lambda path: None, lambda path: path.mkdir(parents=True),
                                  lambda path: (path.parent.mkdir(parents=True), path.symlink_to("missing/file"))],
                         ids=["missing directory", "directory in its place", "dangling link"])
def test_failed_open_is_not_retried_and_closes_its_handle(sandbox, make):
    make(sandbox.path(DATABASE))

    result = sandbox.run(*MAILBOX, env=sqlite_shim.environment(sandbox))

    assert_failed(result, CANNOT_OPEN + "unable to open database file")
    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}", "errmsg", "close = 0"]


def test_file_that_is_no_database_stays_unchanged(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(b"this is no database\n" * 100)

    assert_failed(sandbox.run(*MAILBOX), CANNOT_PREPARE + "file is not a database")

    assert sandbox.path(DATABASE).read_bytes() == b"this is no database\n" * 100


@pytest.mark.parametrize("change, options, text", [
    ("RENAME COLUMN charset TO cs", (), CANNOT_PREPARE + "table autoresponder has no column named charset"),
    ("ADD COLUMN spare CONSTRAINT few CHECK (ans_freq < 100)", ("--ans-freq", "100"),
     CANNOT_ADD + "CHECK constraint failed: few"),
], ids=["missing column", "constraint"])
def test_table_with_another_schema_stays_unchanged(database, change, options, text):
    run_sql(database, f"ALTER TABLE autoresponder {change}")

    assert_failed(database.run(*MAILBOX, *options), text)

    assert database.rows("SELECT * FROM autoresponder") == []


# -- failed steps

PARAMETERS = ["keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body", "ans_freq",
              "ans_limit", "real_owner", "mailname"]


@pytest.mark.parametrize("fault, text, last_calls", [
    ("open", CANNOT_OPEN + "general DB errror", [f"open {DATABASE}"]),
    *((f"prepare {sql.split()[0]}", f"Unable to prepare SQL statement for query '{sql}': string or blob too big",
       [f"prepare {sql} = 18", "errmsg", "close = 0"]) for sql in ("BEGIN TRANSACTION;", REPLACE, "END TRANSACTION;")),
    ("begun", "Unable to begin sqlite transaction: cannot start a transaction within a transaction",
     ["step = 1", "finalize", "errmsg", "close = 0"]),
    *((f"bind {index}", f"Unable to bind parameter {name}: column index out of range",
       [f"bind_{'int' if index in (9, 10) else 'text'} {index} = 25", "errmsg", "finalize", "close = 0"])
      for index, name in enumerate(PARAMETERS, start=1)),
])
def test_refused_call_to_sqlite_leaves_the_row(former, fault, text, last_calls):
    result = former.run(*MAILBOX, stdin=b"body", env=sqlite_shim.environment(former, fault))

    calls = sqlite_shim.calls(former)
    assert calls[-len(last_calls):] == last_calls
    assert fault != "open" or len(calls) == 1
    assert_left_the_row(former, result, text)


def test_body_too_long_for_sqlite_leaves_the_row(former):
    with open(os.memfd_create("body"), "rb") as body:
        os.truncate(body.fileno(), 1_000_000_001)
        result = former.run(*MAILBOX, stdin=body, timeout=300)

    assert_left_the_row(former, result, "Unable to bind parameter body: string or blob too big")


@pytest.mark.parametrize("kind", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize("when", ["BEFORE", "AFTER"])
def test_row_refused_by_a_trigger_leaves_the_former(former, kind, when):
    run_sql(former, f"CREATE TRIGGER refuse {when} INSERT ON autoresponder BEGIN SELECT RAISE({kind}, 'not now'); END")

    result = former.run("--set-resp", "--mailname", "A@Example.org", "--real-owner", "b@example.org")

    assert_left_the_row(former, result, CANNOT_ADD + "not now")


def test_row_ignored_by_a_trigger_is_no_failure(former):
    run_sql(former, "CREATE TRIGGER leave BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(IGNORE); END")

    assert former.run(*MAILBOX) == DONE

    assert rows(former) == [FORMER]


def test_failed_step_is_finalized_before_its_error_text_is_read(former):
    run_sql(former, "CREATE TRIGGER refuse BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END")

    former.run(*MAILBOX, env=sqlite_shim.environment(former))

    assert sqlite_shim.calls(former)[-4:] == ["step = 19", "finalize", "errmsg", "close = 0"]


@pytest.mark.parametrize("mode, text", [(0o644, CANNOT_ADD + "attempt to write a readonly database"),
                                        (0o600, CANNOT_OPEN + "unable to open database file")])
def test_user_without_permission_leaves_the_row(former, mode, text):
    former.path(DATABASE).chmod(mode)

    assert_left_the_row(former, former.execute(*AS_NOBODY), text)


def test_limit_on_the_size_of_files_fails_the_commit(former):
    result = former.run(*MAILBOX, stdin=b"x" * 200_000, ignore=[signal.SIGXFSZ],
                        rlimits={resource.RLIMIT_FSIZE: 100_000})

    assert_left_the_row(former, result, CANNOT_END + "disk I/O error")


@pytest.mark.parametrize("fault, path, text", [
    # The first open of the database looks for a link, the third is SQLite's, read-only.
    ("openat:error=EROFS:when=2", DATABASE, CANNOT_ADD + "attempt to write a readonly database"),
    ("openat:error=ENOSPC", DATABASE + "-journal", CANNOT_ADD + "unable to open database file"),
    ("unlink:error=EIO", DATABASE + "-journal", CANNOT_END + "disk I/O error"),
], ids=["read-only", "open journal", "remove journal"])
def test_failed_call_on_a_path_leaves_the_row(former, needs_tracing, fault, path, text):
    result, _ = former.trace(*MAILBOX, calls=fault.partition(":")[0], inject=[fault], paths=[path])

    assert_left_the_row(former, result, text)


@pytest.mark.parametrize("fault, path, text", [
    ("pwrite64:error=ENOSPC:when=1", DATABASE, "database or disk is full"),
    ("pwrite64:error=ENOSPC", DATABASE, "database or disk is full"),
    ("pwrite64:error=EIO:when=2", DATABASE, "disk I/O error"),
    ("/^f(data)?sync$:error=EIO:when=1", DATABASE, "disk I/O error"),
    ("/^f(data)?sync$:error=EIO:when=1", DATABASE + "-journal", "disk I/O error"),
], ids=["full", "full for good", "write", "sync", "sync journal"])
def test_failed_write_or_sync_fails_the_commit(former, needs_tracing, fault, path, text):
    result, calls = former.trace(*MAILBOX, inject=[fault], paths=[path])

    assert any(call.injected for call in calls)
    assert_left_the_row(former, result, CANNOT_END + text)


def test_failed_close_of_the_file_is_no_failure(former, needs_tracing):
    result, calls = former.trace(*MAILBOX, inject=["close:error=EIO:when=1"], paths=[DATABASE])

    assert [call.injected for call in calls].count(True) == 1
    assert result == DONE
    assert rows(former) == [row()]
