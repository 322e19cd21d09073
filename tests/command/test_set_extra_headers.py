"""--set-extra-headers: the header lines of every automatic reply, replaced by the members of a JSON document."""

import contextlib
import fcntl
import json
import os
import re
import resource
import signal
import sys
import termios

import pytest
from harness import DONE, Result
from harness.mailboxes import error_texts, run_sql
from harness.sandbox import DATABASE
from harness.waiting import has_open, until, until_it_retries

CANNOT_PARSE = "Unable to parse auto-reply headers json: "
CANNOT_EMPTY = "Unable to remove autoresponder extra headers: "
CANNOT_ADD = "Unable to add autoresponder extra headers: "
CANNOT_END = "Unable to end sqlite transaction: "
CANNOT_READ = "Unable to read standard input: "
STACK = {resource.RLIMIT_STACK: 8 << 20}  # bytes, the usual limit
DEEPEST = 2000  # levels
DOCUMENT = b'{"X-A": "1"}'
BYTES = "".join(map(chr, range(1, 256)))
PLAIN = "".join(chr(byte) for byte in range(32, 128) if chr(byte) not in '"\\') + "é€😀"
BRACKETS = "[{" * 10000
THOUSANDS = [(f"X-{number}", str(number * 7)) for number in range(10000)]
OLD = [("X-Old", "old")]
HOSTILE_TEXTS = ["'); DELETE FROM autoresponder; --", "?1", "%s%n", "%d '\"", "%n", "$(touch /tmp/harm)", "`id`", "\\",
                 "'; DROP TABLE extra_headers; --"]


@pytest.fixture
def box(sandbox):
    """A private root with a database whose list holds one header."""
    sandbox.init_db()
    run_sql(sandbox, "INSERT INTO extra_headers VALUES ('X-Old', 'old')")
    return sandbox


def refuse(sandbox, event, how="ABORT", when="1"):
    """Lets SQLite refuse each row of the list for which `when` holds."""
    run_sql(sandbox, f"CREATE TRIGGER refuse BEFORE {event} ON extra_headers WHEN {when} "
                     f"BEGIN SELECT RAISE({how}, 'refused'); END;")


def set_headers(sandbox, document=DOCUMENT, **options):
    return sandbox.run("--set-extra-headers", stdin=document, **options)


def headers(sandbox):
    """The list, in the order in which the mail side reads it."""
    return sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid")


def assert_logged(result, status, *texts):
    """The run ended with `status`, logged these texts and printed nothing but copies of the records."""
    assert (result.status, result.stdout, error_texts(result)) == (status, b"", list(texts))
    assert [line.split(b": ", 1)[1].decode() for line in result.stderr.splitlines()] == list(texts)


def nested(opening, closing, levels, inside=b""):
    return opening * levels + inside + closing * levels


# -- from the document to the list


@pytest.mark.parametrize("document, expected", [
    *((empty, []) for empty in (b"{}", b"[]", b'"a text"', b"1", b"true", b"null", b" {\n} \n")),
    (b'{"X-Loop": "yes", "Precedence": "bulk"}', [("X-Loop", "yes"), ("Precedence", "bulk")]),
    (b'{"a": {"b": "c"}, "d": ["e", {"f": "g"}], "h": {}, "i": [], "j": "k"}',
     [("a", ""), ("d", ""), ("h", ""), ("i", ""), ("j", "k")]),
    (b'["a", "b", 1, null, ["c"], {"d": "e"}]', [("", "a"), ("", "b"), ("", "1"), ("", "null"), ("", ""), ("", "")]),
    (b'{"X-A": "1", "X-B": "2", "X-A": "3", "X-A": "3"}', [("X-A", "1"), ("X-B", "2"), ("X-A", "3"), ("X-A", "3")]),
    (b'{"a.b": "1", "a": "2", "a.b.c": "3", ".": "4"}', [("a.b", "1"), ("a", "2"), ("a.b.c", "3"), (".", "4")]),
    (b'{"": "a", "b": "", "": ""}', [("", "a"), ("b", ""), ("", "")]),
    (b'{"a": 1, "b": -0, "c": 1.50, "d": -12.0e+3, "e": 1E5, "f": 12345678901234567890123.000, "g": 0}',
     [("a", "1"), ("b", "-0"), ("c", "1.50"), ("d", "-12.0e+3"), ("e", "1E5"), ("f", "12345678901234567890123.000"),
      ("g", "0")]),
    (b'{"t": true, "f": false, "n": null}', [("t", "true"), ("f", "false"), ("n", "null")]),
    (rb'{"\u0041\u00e9": "\ud83d\ude00\u20ac \" \\ \/ \b\f\n\r\t"}',
     [("A\u00e9", "\U0001F600\u20ac \" \\ / \b\f\n\r\t")]),
    (rb'{"X-A\u0000B": "1\u00002", "\u0000": "\u0000", "X-C": "3"}', [("X-A", "1"), ("", ""), ("X-C", "3")]),
    ('{"X-Gruß": "привет, 世界 😀"}'.encode(), [("X-Gruß", "привет, 世界 😀")]),
    (b'\xef\xbb\xbf{"X-A": "1"}', [("X-A", "1")]),  # a byte order mark
    *((json.dumps({text: text}).encode(), [(text, text)]) for text in [*HOSTILE_TEXTS, BYTES]),
    (f'{{"{PLAIN}": "{PLAIN}"}}'.encode(), [(PLAIN, PLAIN)]),
    pytest.param(json.dumps(dict(THOUSANDS)).encode(), THOUSANDS, id="ten thousand pairs"),
    pytest.param(b'{"X-A": "%s"}' % (b"x" * 3000000), [("X-A", "x" * 3000000)], id="a value of megabytes"),
    pytest.param(('{"wide": [%s[]], "text": "%s\\"%s", "%s": ""}' % ("[], {}, " * 10000, *[BRACKETS] * 3)).encode(),
                 [("wide", ""), ("text", f'{BRACKETS}"{BRACKETS}'), (BRACKETS, "")], id="brackets that do not nest"),
], ids=lambda value: repr(value)[:60])
def test_members_of_the_document_replace_the_list(box, document, expected):
    assert set_headers(box, document) == DONE

    assert headers(box) == expected
    assert box.rows("SELECT count(*) FROM extra_headers WHERE typeof(name) || typeof(value) <> 'texttext'") == [(0,)]
    assert not box.path("/tmp/harm").exists()


def test_other_tables_stay_unchanged(box):
    run_sql(box, """
        INSERT INTO autoresponder (mn, real_owner) VALUES ('info@example.org', 'info@example.org');
        INSERT INTO attachments VALUES ('info@example.org', 'a.txt');
        INSERT INTO resp_freq VALUES ('info@example.org', 'a@example.net', 3, 1700000000);""")
    tables = ("autoresponder", "attachments", "resp_freq")
    before = [box.rows(f"SELECT * FROM {table}") for table in tables]

    assert set_headers(box) == DONE

    assert [box.rows(f"SELECT * FROM {table}") for table in tables] == before


@pytest.mark.parametrize("levels", [1000, DEEPEST])
@pytest.mark.parametrize("opening, closing, inside", [
    (b"[", b"]", b""), (b'{"a":', b"}", b"1"), (b'{ "a \\" b" : ', b" }\n", b'"[{"'),
], ids=["arrays", "objects", "wide objects"])
def test_deeply_nested_document_is_parsed(box, opening, closing, inside, levels):
    document = b'{"X-Deep": %s, "X-A": "1"}' % nested(opening, closing, levels - 1, inside)

    assert set_headers(box, document, rlimits=STACK) == DONE

    assert headers(box) == [("X-Deep", ""), ("X-A", "1")]


@pytest.mark.parametrize("document", [
    nested(b"[", b"]", DEEPEST + 1), nested(b'{"a":', b"}", DEEPEST + 1, b"1"), nested(b'[{"a":', b"}]", DEEPEST, b"1"),
    nested(b"[", b"", 3000000), nested(b'{"a":', b"", 1000000), nested(b'["\\"",', b"1]", 1000000),
    b'{"X-A": "1", "X-Deep": %s}' % nested(b"[", b"]", 1000000),
], ids=["arrays", "objects", "both", "open arrays", "open objects", "arrays with texts", "an object with arrays"])
def test_document_nested_too_deeply_for_the_stack_empties_the_list(box, document):
    assert_logged(set_headers(box, document, rlimits=STACK), 1, CANNOT_PARSE + "nested too deeply")

    assert headers(box) == []


@pytest.mark.parametrize("document", [
    # not JSON
    b"", b" \n", b"{", b"[", b'"', b'{"a"', b'{"a":', b'{"a": "b', b'{"a": "b"', b'{"a": "b",', b'["a"', b"nul",
    b'{"a": "b",}', b"['a']", b"{a: 1}", b'{"a": "b" "c": "d"}', b'{"a": 01}', b'{"a": +1}', b'{"a": 1.}', b'{"a": .5}',
    b'{"a": NaN}', b'{"a": TRUE}', b"X-A: 1\n", b"}", b'// a comment\n{"a": "b"}',
    # a document and more
    b'{"a": "b"} x', b'{"a": "b"}{"c": "d"}', b'{"a": "b"}\0', b'{"a": "b"}]',
    # wrong bytes and escapes
    *(place % bad for place in (b'{"a%sb": "c"}', b'{"a": "b%sc"}')
      for bad in (b"\0", b"\x01", b"\n", b"\x1f", b"\x80", b"\xbf", b"\xc3", b"\xff", b"\xe9", b"\xc3(")),
    b'{"a": "\xc3"}', b"\xff\xfe{\0}\0", rb'{"a": "\ud83d"}', rb'{"a": "\ude00"}', rb'{"a": "\u12"}', rb'{"a": "\x"}',
], ids=repr)
def test_invalid_document_empties_the_list_and_fails(box, document):
    result = set_headers(box, document)

    [text] = error_texts(result)
    assert re.fullmatch(re.escape(CANNOT_PARSE) + r"<unspecified file>\(\d\): .+", text)
    assert_logged(result, 1, text)
    assert headers(box) == []


# -- standard input


@pytest.mark.parametrize("standard_input, error", [("/", "Is a directory"), (None, "Bad file descriptor")],
                         ids=["directory", "closed"])
def test_unreadable_standard_input_leaves_the_list(box, standard_input, error):
    with contextlib.ExitStack() as stack:
        if standard_input is not None:
            standard_input = os.open(standard_input, os.O_RDONLY | os.O_DIRECTORY)
            stack.callback(os.close, standard_input)
        result = set_headers(box, standard_input)

    assert_logged(result, 1, CANNOT_READ + error)
    assert headers(box) == OLD


def test_failed_read_of_standard_input_leaves_the_list(box, needs_tracing):
    before = box.path(DATABASE).read_bytes()
    _, calls = box.trace("--set-extra-headers", stdin=DOCUMENT, calls="read")
    reads = [call for call in calls if call.name == "read"]
    first = next(number for number, call in enumerate(reads, 1)
                 if call.args_text.startswith("0, ") and call.value == len(DOCUMENT))
    box.path(DATABASE).write_bytes(before)

    result, calls = box.trace("--set-extra-headers", stdin=DOCUMENT, calls="read",
                              inject=[f"read:error=EIO:when={first + 1}"])

    assert [call.args_text[:3] for call in calls if call.injected] == ["0, "]
    assert_logged(result, 1, CANNOT_READ + "Input/output error")
    assert headers(box) == OLD


def test_standard_input_is_read_before_the_database_is_opened(sandbox):
    sandbox.path(DATABASE).parent.mkdir(parents=True)

    assert_logged(set_headers(sandbox, None), 1, CANNOT_READ + "Bad file descriptor")

    assert not sandbox.path(DATABASE).exists()


def test_waiting_for_input_holds_no_lock(box):
    def unread_bytes():
        return int.from_bytes(fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)), sys.byteorder)

    reading, writing = os.pipe()
    with open(reading, "rb", buffering=0) as pipe:
        running = box.start("--set-extra-headers", stdin=pipe)
    with open(writing, "wb", buffering=0) as pipe:
        pipe.write(b'{"X-A": ')
        until(lambda: unread_bytes() == 0, "the run reads the first part")
        assert not has_open(running, "responder.db")
        assert headers(box) == OLD
        pipe.write(b'"1"}')

    assert running.wait() == DONE
    assert headers(box) == [("X-A", "1")]


# -- failures of the database


def test_missing_directory_is_not_created(sandbox):
    result = set_headers(sandbox)

    assert_logged(result, 1, f"Unable to open database {DATABASE}: unable to open database file")
    assert not sandbox.path("/var/lib/quarn/mail").exists()


@pytest.mark.parametrize("content, text", [
    ("directory", f"Unable to open database {DATABASE}: unable to open database file"),
    (None, CANNOT_EMPTY + "no such table: extra_headers"),
    (b"no database " * 1000, CANNOT_EMPTY + "file is not a database"),
], ids=["directory", "missing", "no database"])
def test_unusable_database_fails(sandbox, content, text):
    path = sandbox.path(DATABASE)
    (path if content == "directory" else path.parent).mkdir(parents=True)
    if isinstance(content, bytes):
        path.write_bytes(content)

    assert_logged(set_headers(sandbox), 1, text)

    assert path.is_dir() or path.read_bytes() == (content or b"")


@pytest.mark.parametrize("how", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize("document", [DOCUMENT, b"no json"])
def test_refused_deletion_leaves_the_list_and_imports_nothing(box, document, how):
    refuse(box, "DELETE", how)

    assert_logged(set_headers(box, document), 1, CANNOT_EMPTY + "refused")

    assert headers(box) == OLD


def test_rows_deleted_before_a_refusal_stay_deleted_if_sqlite_keeps_them(box):
    run_sql(box, "INSERT INTO extra_headers VALUES ('X-Kept', 'old'), ('X-Last', 'old')")
    refuse(box, "DELETE", "FAIL", when="OLD.name = 'X-Kept'")

    assert set_headers(box).status == 1

    assert headers(box) == [("X-Kept", "old"), ("X-Last", "old")]


def test_unwritable_database_leaves_the_list(box):
    result = set_headers(box, rlimits={resource.RLIMIT_FSIZE: 0}, ignore=[signal.SIGXFSZ])

    assert_logged(result, 1, CANNOT_EMPTY + "disk I/O error")
    assert headers(box) == OLD


def test_deletion_is_committed_before_the_import(box):
    run_sql(box, "ALTER TABLE extra_headers ADD COLUMN more")

    assert_logged(set_headers(box), 1,
                  "Unable to prepare SQL statement for query 'REPLACE INTO extra_headers VALUES (?, ?  );': "
                  "table extra_headers has 3 columns but 2 values were supplied")

    assert headers(box) == []


@pytest.mark.parametrize("action, status, texts, left", [
    ("SELECT RAISE(ABORT, 'refused')", 0, [CANNOT_ADD + "refused"] * 2, ["X-A", "X-B", "X-C"]),
    ("SELECT RAISE(FAIL, 'refused')", 0, [CANNOT_ADD + "refused"] * 2, ["X-A", "X-B", "X-C"]),
    ("INSERT INTO extra_headers VALUES (NULL, '')", 0,
     [CANNOT_ADD + "NOT NULL constraint failed: extra_headers.name"] * 2, ["X-A", "X-B", "X-C"]),
    ("SELECT RAISE(ROLLBACK, 'refused')", 1,
     [CANNOT_ADD + "refused"] * 2 + [CANNOT_END + "cannot commit - no transaction is active"], ["X-B", "X-C"]),
], ids=["abort", "fail", "constraint", "rollback"])
def test_refused_row_is_logged_and_left_out(box, action, status, texts, left):
    run_sql(box, "CREATE TRIGGER refuse BEFORE INSERT ON extra_headers WHEN NEW.name LIKE 'X-Bad%' "
                 f"BEGIN {action}; END;")

    result = set_headers(box, b'{"X-A": "1", "X-Bad": "2", "X-B": "3", "X-Bad-2": "4", "X-C": "5"}')

    assert_logged(result, status, *texts)
    assert [name for name, _ in headers(box)] == left


def test_failed_commit_of_the_import_leaves_an_empty_list(box, needs_tracing):
    _, calls = box.trace("--set-extra-headers", stdin=DOCUMENT, calls="pwrite64", paths=[DATABASE])
    writes = len([call for call in calls if call.name == "pwrite64"])

    result, calls = box.trace("--set-extra-headers", stdin=DOCUMENT, calls="pwrite64", paths=[DATABASE],
                              inject=[f"pwrite64:error=EIO:when={writes}"])

    assert [call.error for call in calls if call.injected] == ["EIO"]
    assert_logged(result, 1, CANNOT_END + "disk I/O error")
    assert headers(box) == []


# -- other processes


def test_interrupted_pause_ends_the_run_silently(box, needs_tracing):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        result, _ = box.trace("--set-extra-headers", stdin=DOCUMENT, calls="clock_nanosleep",
                              inject=["clock_nanosleep:error=EINTR"])
        other.execute("ROLLBACK")

    assert result == Result(1, b"", b"", [])
    assert headers(box) == OLD


def test_killed_run_leaves_an_intact_unlocked_database(box):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN")
        other.execute("SELECT name FROM extra_headers").fetchall()
        running = box.start("--set-extra-headers", stdin=DOCUMENT)
        until_it_retries(running)  # it has deleted the rows and waits to commit
        running.kill()

    assert headers(box) == OLD
    with contextlib.closing(box.db()) as db:
        assert db.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        db.execute("BEGIN IMMEDIATE")
