"""--set-extra-headers: the list of header lines that every automatic reply carries, replaced by a JSON document."""

import contextlib
import fcntl
import json
import os
import resource
import signal
import sys
import syslog
import termios
import threading

import pytest
from harness import Result
from harness.sandbox import DATABASE
from harness.waiting import has_open, until, until_it_retries

CANNOT_PARSE = "Unable to parse auto-reply headers json: "
CANNOT_OPEN = "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"
SUCCESS = Result(0, b"", b"", [])
STACK = {resource.RLIMIT_STACK: 8 << 20}  # bytes, what processes usually get
DEEPEST = 2000  # levels


@pytest.fixture
def box(sandbox):
    """A private root with a database whose list holds one header."""
    sandbox.init_db()
    change(sandbox, "INSERT INTO extra_headers VALUES ('X-Old', 'old')")
    return sandbox


def change(sandbox, sql):
    with contextlib.closing(sandbox.db()) as db:
        db.execute("PRAGMA synchronous = OFF")
        db.executescript(sql)


def refuse(sandbox, event, how="ABORT", when="1"):
    """Lets SQLite refuse each row of the list for which `when` holds."""
    change(sandbox, f"CREATE TRIGGER refuse BEFORE {event} ON extra_headers WHEN {when} "
                    f"BEGIN SELECT RAISE({how}, 'refused'); END;")


def set_headers(sandbox, document, **options):
    return sandbox.run("--set-extra-headers", stdin=document, **options)


def headers(sandbox):
    """The list, in the order in which the mail side reads it."""
    return sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid")


def logged(result):
    """What a failed or half successful run logged; it has printed nothing else."""
    assert result.stdout == b""
    assert {record.priority for record in result.records} <= {syslog.LOG_MAIL | syslog.LOG_ERR}
    copies = [line.split(b": ", 1)[1].decode() for line in result.stderr.splitlines()]
    texts = [record.text for record in result.records]
    assert copies == texts
    return texts


# -- what becomes of the document


def test_members_become_rows_in_the_order_of_the_document(box):
    assert set_headers(box, b'{"X-Loop": "yes", "Precedence": "bulk"}') == SUCCESS

    assert headers(box) == [("X-Loop", "yes"), ("Precedence", "bulk")]


def test_the_other_tables_are_left_alone(box):
    change(box, """
        INSERT INTO autoresponder (mn, real_owner) VALUES ('info@example.org', 'info@example.org');
        INSERT INTO attachments VALUES ('info@example.org', 'a.txt');
        INSERT INTO resp_freq VALUES ('info@example.org', 'a@example.net', 3, 1700000000);""")
    tables = ("autoresponder", "attachments", "resp_freq")
    before = [box.rows(f"SELECT * FROM {table}") for table in tables]

    assert set_headers(box, b'{"X-Loop": "yes"}') == SUCCESS

    assert [box.rows(f"SELECT * FROM {table}") for table in tables] == before


@pytest.mark.parametrize("document", [b"{}", b"[]", b'"a text"', b"1", b"true", b"null", b" {\n} \n"])
def test_a_document_without_members_empties_the_list(box, document):
    assert set_headers(box, document) == SUCCESS

    assert headers(box) == []


def test_numbers_and_words_are_stored_as_they_are_written(box):
    numbers = "1", "0", "-0", "1.50", "-12.0e+3", "1E5", "12345678901234567890123.000"
    members = ", ".join(f'"n{place}": {number}' for place, number in enumerate(numbers))

    assert set_headers(box, f'{{{members}, "t": true, "f": false, "n": null}}'.encode()) == SUCCESS

    rows = box.rows("SELECT value, typeof(value) FROM extra_headers ORDER BY rowid")
    assert rows == [(text, "text") for text in (*numbers, "true", "false", "null")]


def test_nested_values_are_empty(box):
    assert set_headers(box, b'{"a": {"b": "c"}, "d": ["e", {"f": "g"}], "h": {}, "i": [], "j": "k"}') == SUCCESS

    assert headers(box) == [("a", ""), ("d", ""), ("h", ""), ("i", ""), ("j", "k")]


def test_elements_of_an_array_have_no_names(box):
    assert set_headers(box, b'["a", "b", 1, null, ["c"], {"d": "e"}]') == SUCCESS

    assert headers(box) == [("", "a"), ("", "b"), ("", "1"), ("", "null"), ("", ""), ("", "")]


def test_a_name_given_twice_is_stored_twice(box):
    assert set_headers(box, b'{"X-A": "1", "X-B": "2", "X-A": "3", "X-A": "3"}') == SUCCESS

    assert headers(box) == [("X-A", "1"), ("X-B", "2"), ("X-A", "3"), ("X-A", "3")]


def test_a_name_with_dots_stays_one_name(box):
    assert set_headers(box, b'{"a.b": "1", "a": "2", "a.b.c": "3", ".": "4"}') == SUCCESS

    assert headers(box) == [("a.b", "1"), ("a", "2"), ("a.b.c", "3"), (".", "4")]


def test_empty_names_and_values_are_stored(box):
    assert set_headers(box, b'{"": "a", "b": "", "": ""}') == SUCCESS

    assert box.rows("SELECT name, value, typeof(name), typeof(value) FROM extra_headers ORDER BY rowid") == [
        ("", "a", "text", "text"), ("b", "", "text", "text"), ("", "", "text", "text")]


def test_escapes_are_resolved(box):
    assert set_headers(box, rb'{"\u0041\u00e9": "\ud83d\ude00\u20ac \" \\ \/ \b\f\n\r\t"}') == SUCCESS

    assert headers(box) == [("A\u00e9", "\U0001F600\u20ac \" \\ / \b\f\n\r\t")]


def test_texts_end_at_an_escaped_nul(box):
    assert set_headers(box, rb'{"X-A\u0000B": "1\u00002", "\u0000": "\u0000", "X-C": "3"}') == SUCCESS

    assert headers(box) == [("X-A", "1"), ("", ""), ("X-C", "3")]


def test_letters_of_other_alphabets_arrive_byte_for_byte(box):
    assert set_headers(box, '{"X-Gruß": "привет, 世界 😀"}'.encode()) == SUCCESS

    assert headers(box) == [("X-Gruß", "привет, 世界 😀")]


def test_a_byte_order_mark_is_skipped(box):
    assert set_headers(box, b'\xef\xbb\xbf{"X-A": "1"}') == SUCCESS

    assert headers(box) == [("X-A", "1")]


def test_no_text_is_taken_for_sql_or_for_a_format(box):
    document = {"'); DELETE FROM autoresponder; --": "?1", "%s%n": "%d '\""}

    assert set_headers(box, json.dumps(document).encode()) == SUCCESS

    assert headers(box) == list(document.items())


def test_ten_thousand_pairs_are_stored_in_order(box):
    pairs = [(f"X-{number}", str(number * 7)) for number in range(10000)]

    assert set_headers(box, json.dumps(dict(pairs)).encode()) == SUCCESS

    assert headers(box) == pairs


def test_a_value_of_megabytes_is_stored_whole(box):
    assert set_headers(box, b'{"X-A": "%s"}' % (b"x" * 3000000)) == SUCCESS

    assert headers(box) == [("X-A", "x" * 3000000)]


# -- what can't be parsed


@pytest.mark.parametrize("document", [
    b"", b" \n", b"{", b"[", b'"', b'{"a"', b'{"a":', b'{"a": "b', b'{"a": "b"', b'{"a": "b",', b'["a"', b"nul",
    b'{"a": "b",}', b"['a']", b"{a: 1}", b'{"a": "b" "c": "d"}', b'{"a": 01}', b'{"a": +1}', b'{"a": 1.}', b'{"a": .5}',
    b'{"a": NaN}', b'{"a": TRUE}', b"X-A: 1\n", b"}", b'// a comment\n{"a": "b"}',
], ids=repr)
def test_what_is_no_json_empties_the_list_and_fails(box, document):
    result = set_headers(box, document)

    assert result.status == 1
    (text,) = logged(result)
    assert text.startswith(CANNOT_PARSE)
    assert len(text) > len(CANNOT_PARSE)
    assert headers(box) == []


@pytest.mark.parametrize("document", [
    b'{"a": "b"} x', b'{"a": "b"}{"c": "d"}', b'{"a": "b"}\0', b'{"a": "b"}]',  # something after the document
    b'{"a": "\xff"}', b'{"a": "\xc3("}', b'{"a": "\xc3"}', b'{"\xe9": "b"}',  # no UTF-8
    b'{"a": "b\0c"}', b'{"a": "b\nc"}', b"\xff\xfe{\0}\0",
    rb'{"a": "\ud83d"}', rb'{"a": "\ude00"}', rb'{"a": "\u12"}', rb'{"a": "\x"}',  # no such escape
], ids=repr)
def test_a_document_that_begins_well_stores_nothing_when_it_does_not_end_so(box, document):
    result = set_headers(box, document)

    assert result.status == 1
    (text,) = logged(result)
    assert text.startswith(CANNOT_PARSE)
    assert headers(box) == []


def nested(opening, closing, levels, inside=b""):
    return opening * levels + inside + closing * levels


@pytest.mark.parametrize("levels", [1000, DEEPEST])
@pytest.mark.parametrize("opening, closing, inside", [
    (b"[", b"]", b""), (b'{"a":', b"}", b"1"), (b'{ "a \\" b" : ', b" }\n", b'"[{"'),
], ids=["arrays", "objects", "wide objects"])
def test_a_deeply_nested_document_is_parsed(box, opening, closing, inside, levels):
    document = b'{"X-Deep": %s, "X-A": "1"}' % nested(opening, closing, levels - 1, inside)

    assert set_headers(box, document, rlimits=STACK) == SUCCESS

    assert headers(box) == [("X-Deep", ""), ("X-A", "1")]


@pytest.mark.parametrize("document", [
    nested(b"[", b"]", DEEPEST + 1), nested(b'{"a":', b"}", DEEPEST + 1, b"1"), nested(b'[{"a":', b"}]", DEEPEST, b"1"),
    nested(b"[", b"", 3000000), nested(b'{"a":', b"", 1000000), nested(b'["\\"",', b"1]", 1000000),
    b'{"X-A": "1", "X-Deep": %s}' % nested(b"[", b"]", 1000000),
], ids=["arrays", "objects", "both", "open arrays", "open objects", "arrays with texts", "an object with arrays"])
def test_a_document_too_deep_for_the_stack_is_unparsable(box, document):
    result = set_headers(box, document, rlimits=STACK)

    assert result.status == 1
    assert logged(result) == ["Unable to parse auto-reply headers json: nested too deeply"]
    assert headers(box) == []


def test_depth_is_not_breadth_and_not_in_texts(box):
    brackets = "[{" * 10000
    document = '{"wide": [%s[]], "text": "%s\\"%s", "%s": ""}' % ("[], {}, " * 10000, brackets, brackets, brackets)

    assert set_headers(box, document.encode()) == SUCCESS

    assert headers(box) == [("wide", ""), ("text", f'{brackets}"{brackets}'), (brackets, "")]


# -- standard input


def test_standard_input_that_is_no_file_fails_and_the_list_stays(box):
    directory = os.open(box.path("/tmp"), os.O_RDONLY | os.O_DIRECTORY)
    try:
        result = set_headers(box, directory)
    finally:
        os.close(directory)

    assert result.status == 1
    assert logged(result) == ["Unable to read standard input: Is a directory"]
    assert headers(box) == [("X-Old", "old")]


def test_closed_standard_input_fails_and_the_list_stays(box):
    result = set_headers(box, None)

    assert result.status == 1
    assert logged(result) == ["Unable to read standard input: Bad file descriptor"]
    assert headers(box) == [("X-Old", "old")]


def test_standard_input_that_breaks_off_fails_and_the_list_stays(box, needs_tracing):
    document = b'{"X-A": "1"}'
    _, calls = box.trace("--set-extra-headers", stdin=document, calls="read")
    reads = [call for call in calls if call.name == "read"]
    first = next(place for place, call in enumerate(reads, 1) if call.args_text.startswith("0, ") and call.value == 12)
    change(box, "DELETE FROM extra_headers; INSERT INTO extra_headers VALUES ('X-Old', 'old')")

    result, calls = box.trace("--set-extra-headers", stdin=document, calls="read",
                              inject=[f"read:error=EIO:when={first + 1}"])

    assert [call.args_text[:3] for call in calls if call.injected] == ["0, "]
    assert result.status == 1
    assert logged(result) == ["Unable to read standard input: Input/output error"]
    assert headers(box) == [("X-Old", "old")]


def test_unreadable_standard_input_is_told_before_the_database_is_opened(sandbox):
    sandbox.path("/var/lib/quarn/mail/autoresponder").mkdir(parents=True)

    result = set_headers(sandbox, None)

    assert logged(result) == ["Unable to read standard input: Bad file descriptor"]
    assert not sandbox.path(DATABASE).exists()


def test_nothing_is_locked_while_the_document_is_being_written(box):
    reading, writing = os.pipe()
    with open(reading, "rb", buffering=0) as pipe:
        running = box.start("--set-extra-headers", stdin=pipe)
    with open(writing, "wb", buffering=0) as pipe:
        pipe.write(b'{"X-A": ')
        until(lambda: unread_bytes(pipe) == 0, "the run reads what there is")
        assert not has_open(running, "responder.db")
        assert headers(box) == [("X-Old", "old")]
        pipe.write(b'"1"}')

    assert running.wait() == SUCCESS
    assert headers(box) == [("X-A", "1")]


def unread_bytes(pipe):
    return int.from_bytes(fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)), sys.byteorder)


# -- failures of the database


def test_a_database_that_can_not_be_opened_is_told(sandbox):
    sandbox.path(DATABASE).mkdir(parents=True)

    result = set_headers(sandbox, b"{}")

    assert result.status == 1
    assert logged(result) == [CANNOT_OPEN]


def test_a_missing_directory_is_not_made(sandbox):
    result = set_headers(sandbox, b"{}")

    assert result.status == 1
    assert logged(result) == [CANNOT_OPEN]
    assert not sandbox.path("/var/lib/quarn/mail").exists()


def test_a_database_without_tables_is_told(sandbox):
    sandbox.path("/var/lib/quarn/mail/autoresponder").mkdir(parents=True)

    result = set_headers(sandbox, b'{"X-A": "1"}')

    assert result.status == 1
    assert logged(result) == ["Unable to remove autoresponder extra headers: no such table: extra_headers"]
    assert sandbox.path(DATABASE).read_bytes() == b""


def test_a_file_that_is_no_database_is_told(sandbox):
    sandbox.path("/var/lib/quarn/mail/autoresponder").mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(b"no database " * 1000)

    result = set_headers(sandbox, b'{"X-A": "1"}')

    assert result.status == 1
    assert logged(result) == ["Unable to remove autoresponder extra headers: file is not a database"]


@pytest.mark.parametrize("how", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize("document", [b'{"X-A": "1"}', b"no json"])
def test_a_list_that_can_not_be_emptied_stays_and_nothing_is_imported(box, document, how):
    refuse(box, "DELETE", how)

    result = set_headers(box, document)

    assert result.status == 1
    assert logged(result) == ["Unable to remove autoresponder extra headers: refused"]
    assert headers(box) == [("X-Old", "old")]


def test_what_was_deleted_before_a_failure_is_gone_when_sqlite_keeps_it(box):
    change(box, "INSERT INTO extra_headers VALUES ('X-Kept', 'old'), ('X-Last', 'old')")
    refuse(box, "DELETE", "FAIL", when="OLD.name = 'X-Kept'")

    assert set_headers(box, b'{"X-A": "1"}').status == 1

    assert headers(box) == [("X-Kept", "old"), ("X-Last", "old")]


def test_a_list_that_can_not_be_written_stays(box):
    result = set_headers(box, b'{"X-A": "1"}', rlimits={resource.RLIMIT_FSIZE: 0}, ignore=[signal.SIGXFSZ])

    assert result.status == 1
    assert logged(result) == ["Unable to remove autoresponder extra headers: disk I/O error"]
    assert headers(box) == [("X-Old", "old")]


def test_the_emptied_list_is_committed_before_the_document_is_parsed(box):
    change(box, "DROP TABLE extra_headers; CREATE TABLE extra_headers (name, value, more);"
                "INSERT INTO extra_headers VALUES ('X-Old', 'old', '')")

    result = set_headers(box, b'{"X-A": "1"}')

    assert result.status == 1
    assert logged(result) == [
        "Unable to prepare SQL statement for query 'REPLACE INTO extra_headers VALUES (?, ?  );': "
        "table extra_headers has 3 columns but 2 values were supplied"]
    assert headers(box) == []


@pytest.mark.parametrize("how", ["ABORT", "FAIL"])
def test_a_refused_row_is_told_and_left_out(box, how):
    refuse(box, "INSERT", how, when="NEW.name LIKE 'X-Bad%'")

    result = set_headers(box, b'{"X-A": "1", "X-Bad": "2", "X-B": "3", "X-Bad-2": "4", "X-C": "5"}')

    assert result.status == 0
    assert logged(result) == ["Unable to add autoresponder extra headers: refused"] * 2
    assert headers(box) == [("X-A", "1"), ("X-B", "3"), ("X-C", "5")]


def test_a_row_that_breaks_a_constraint_is_left_out(box):
    change(box, "CREATE TRIGGER spoil BEFORE INSERT ON extra_headers WHEN NEW.value = 'x' "
                "BEGIN INSERT INTO extra_headers VALUES (NULL, ''); END;")

    result = set_headers(box, b'{"X-A": "1", "X-B": "x", "X-C": "3"}')

    assert result.status == 0
    assert logged(result) == [
        "Unable to add autoresponder extra headers: NOT NULL constraint failed: extra_headers.name"]
    assert headers(box) == [("X-A", "1"), ("X-C", "3")]


def test_a_row_that_rolls_back_takes_those_before_it_along(box):
    refuse(box, "INSERT", "ROLLBACK", when="NEW.name = 'X-Bad'")

    result = set_headers(box, b'{"X-A": "1", "X-Bad": "2", "X-B": "3"}')

    assert result.status == 1
    assert logged(result) == ["Unable to add autoresponder extra headers: refused",
                              "Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert headers(box) == [("X-B", "3")]


def test_rows_that_can_not_be_committed_leave_an_empty_list(box, needs_tracing):
    document = b'{"X-A": "1"}'
    _, calls = box.trace("--set-extra-headers", stdin=document, calls="pwrite64", paths=[DATABASE])
    writes = len([call for call in calls if call.name == "pwrite64"])

    result, calls = box.trace("--set-extra-headers", stdin=document, calls="pwrite64", paths=[DATABASE],
                              inject=[f"pwrite64:error=EIO:when={writes}"])

    assert [call.error for call in calls if call.injected] == ["EIO"]
    assert result.status == 1
    assert logged(result) == ["Unable to end sqlite transaction: disk I/O error"]
    assert headers(box) == []


# -- other processes


def test_a_busy_database_is_waited_for(box):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        other.execute("INSERT INTO extra_headers VALUES ('X-Other', 'other')")
        running = box.start("--set-extra-headers", stdin=b'{"X-A": "1"}')
        until_it_retries(running)
        other.execute("COMMIT")

    assert running.wait() == SUCCESS
    assert headers(box) == [("X-A", "1")]


def test_a_reader_keeps_the_list_until_it_has_finished(box):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN")
        assert other.execute("SELECT name FROM extra_headers").fetchall() == [("X-Old",)]
        running = box.start("--set-extra-headers", stdin=b'{"X-A": "1"}')
        until_it_retries(running)
        assert other.execute("SELECT name FROM extra_headers").fetchall() == [("X-Old",)]
        other.execute("COMMIT")

    assert running.wait() == SUCCESS
    assert headers(box) == [("X-A", "1")]


def test_pauses_between_tries_grow_by_ten_microseconds(box, needs_tracing):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN EXCLUSIVE")
        trace = threading.Thread(target=lambda: traced.append(box.trace("--set-extra-headers", stdin=b'{"X-A": "1"}')))
        traced = []
        trace.start()
        until(lambda: box.path("/.trace").exists() and "tv_nsec=30000}" in box.path("/.trace").read_text(),
              "the run has paused three times")
        other.execute("ROLLBACK")
        trace.join()

    result, calls = traced[0]
    pauses = [int(call.args_text.rpartition("tv_nsec=")[2].partition("}")[0]) for call in calls
              if call.name == "clock_nanosleep"]
    pauses = [pause for pause in pauses if pause < 1000000]  # the others are SQLite's own
    assert result == SUCCESS
    assert pauses == [10000 * (place + 1) for place in range(len(pauses))]
    assert headers(box) == [("X-A", "1")]


def test_an_interrupted_pause_ends_the_run_in_silence(box, needs_tracing):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        result, _ = box.trace("--set-extra-headers", stdin=b'{"X-A": "1"}', calls="clock_nanosleep",
                              inject=["clock_nanosleep:error=EINTR"])
        other.execute("ROLLBACK")

    assert result == Result(1, b"", b"", [])
    assert headers(box) == [("X-Old", "old")]


def test_a_run_that_is_killed_leaves_a_whole_database(box):
    with contextlib.closing(box.db()) as other:
        other.execute("BEGIN")
        other.execute("SELECT name FROM extra_headers").fetchall()
        running = box.start("--set-extra-headers", stdin=b'{"X-A": "1"}')
        until_it_retries(running)  # it has deleted the rows, and waits to commit
        running.kill()

    assert headers(box) == [("X-Old", "old")]
    with contextlib.closing(box.db()) as db:
        assert db.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        db.execute("BEGIN IMMEDIATE")  # nobody holds a lock any more
