"""docs/database.md: the example reader works on what the tool writes, and the tables are those of the database."""

import contextlib
import importlib.machinery
import importlib.util
import json
import re
import sqlite3
import subprocess
import sys
import threading

import pytest
from sources import REPOSITORY

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
DOCUMENT = (REPOSITORY / "docs" / "database.md").read_text()
EXAMPLE = REPOSITORY / "docs" / "examples" / "responder.py"
ANNA = ("--mailname", "anna@example.org", "--real-owner", "owner@example.org")


def load_example():
    loader = importlib.machinery.SourceFileLoader("responder", str(EXAMPLE))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    sys.dont_write_bytecode = True
    loader.exec_module(module)
    return module


responder = load_example()


@pytest.fixture
def connection(sandbox):
    """The example's connection to a database in which one mailbox answers."""
    sandbox.init_db()
    sandbox.path("/tmp/map.png").write_bytes(b"map")
    assert sandbox.run("--set-resp", *ANNA, "--ans-freq", "2", stdin="Bis später\n".encode()).status == 0
    assert sandbox.run("--add-attach", "--mailname", "anna@example.org", "--filename", "map.png", "--source",
                       "/tmp/map.png").status == 0
    headers = b'{"Auto-Submitted": "auto-replied", "": "x", "X": "1\\r\\nY: 2"}'
    assert sandbox.run("--set-extra-headers", stdin=headers).status == 0
    with contextlib.closing(responder.connect(sandbox.path(DATABASE))) as connection:
        yield connection


def answer(connection, sandbox, sender="ben@example.net", **options):
    return responder.answer(connection, "anna@example.org", sender, mailnames=sandbox.path(MAILNAMES), **options)


# -- the example


def test_the_example_prints_the_reply(connection, sandbox):
    command = [EXAMPLE, "--database", sandbox.path(DATABASE), "--mailnames", sandbox.path(MAILNAMES),
               "Anna@example.org", "ben@example.net", "--subject", "Hello"]

    result = subprocess.run(command, capture_output=True, check=True)

    assert json.loads(result.stdout) == {
        "from": "anna@example.org",
        "to": "ben@example.net",
        "subject": "Re: Hello",
        "reply_to": "",
        "forward_to": "",
        "content_type": "text/plain; charset=UTF-8",
        "headers": [["Auto-Submitted", "auto-replied"]],
        "body": "Bis später\n",
        "attachments": [str(sandbox.path(MAILNAMES + "/example.org/owner/@attachments/map.png"))],
    }
    assert sandbox.rows("SELECT mn, email, num FROM resp_freq") == [("anna@example.org", "ben@example.net", 1)]


def test_counters_survive_a_power_cut(connection):
    assert connection.execute("PRAGMA synchronous").fetchone() == (3,)  # EXTRA


def test_a_mailbox_without_autoresponder_gets_no_answer(connection, sandbox):
    assert responder.answer(connection, "nobody@example.org", "ben@example.net") is None
    assert sandbox.rows("SELECT * FROM resp_freq") == []


def test_a_sender_gets_as_many_replies_a_day_as_were_allowed(connection, sandbox):
    moments = [0, 10, 20, 86399, 86400, 86401, 86402]

    assert [answer(connection, sandbox, now=now) is not None for now in moments] == [
        True, True, False, False, True, True, False]
    assert answer(connection, sandbox, sender="cy@example.net", now=20) is not None


@pytest.mark.parametrize("where, subject, body, answered", [
    ("subj", "the word", "", True), ("subj", "", "the word", False),
    ("body", "the word", "", False), ("body", "", "the word", True),
    ("no", "", "", True), ("anything", "", "", True),
])
def test_the_key_is_looked_for_where_it_has_to_be(connection, sandbox, where, subject, body, answered):
    sandbox.run("--set-resp", *ANNA, "--key-str", "word", "--key-where", where)

    assert (answer(connection, sandbox, subject=subject, body=body) is not None) == answered


def test_a_row_without_its_file_is_left_out(connection, sandbox):
    sandbox.path(MAILNAMES + "/example.org/owner/@attachments/map.png").unlink()

    assert answer(connection, sandbox)["attachments"] == []


def test_bytes_that_are_no_text_do_no_harm(connection, sandbox):
    sandbox.run("--set-resp", *ANNA, "--subj", b"\xff", stdin=b"\0\xfe")

    assert answer(connection, sandbox)["body"] == "\0\ufffd"


def test_the_example_creates_no_database(sandbox):
    sandbox.path(DATABASE).parent.mkdir(parents=True)

    with pytest.raises(sqlite3.OperationalError, match="unable to open database file"):
        responder.connect(sandbox.path(DATABASE))


def test_counting_waits_for_a_writer_and_leaves_no_lock(connection, sandbox):
    writer = sqlite3.connect(sandbox.path(DATABASE), isolation_level=None, check_same_thread=False)
    writer.execute("BEGIN IMMEDIATE")
    begun = threading.Event()
    connection.set_trace_callback(lambda statement: begun.set() if statement.startswith("BEGIN IMMEDIATE") else None)
    committed = threading.Thread(target=lambda: (begun.wait(60), writer.execute("COMMIT"), writer.close()))
    committed.start()

    assert answer(connection, sandbox) is not None

    committed.join()
    assert not connection.in_transaction
    assert sandbox.run("--set-resp", *ANNA).status == 0


def test_a_failure_leaves_no_lock(connection, sandbox):
    with pytest.raises(ZeroDivisionError):
        with responder.transaction(connection, "BEGIN IMMEDIATE"):
            connection.execute("DELETE FROM resp_freq")
            1 / 0

    assert not connection.in_transaction
    assert sandbox.run("--set-resp", *ANNA).status == 0


# -- the document


def tables_of_document():
    """{table: [(column, declaration)]} as the document tells them."""
    found = {}
    for title, text in re.findall(r"^### (\w+)\n(.*?)(?=^#)", DOCUMENT, re.DOTALL | re.MULTILINE):
        found[title] = re.findall(r"^\| `(\w+)` \| ([A-Z][^|]*?) \|", text, re.MULTILINE)
    return found


def test_tables_and_columns_are_those_of_the_database(sandbox):
    sandbox.init_db()
    tables = [name for (name,) in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'table'")]
    expected = {}
    for table in tables:
        columns = sandbox.rows(f"PRAGMA table_info({table})")
        expected[table] = sorted((column[1], column[2] + (" NOT NULL" if column[3] else "")) for column in columns)

    assert {table: sorted(columns) for table, columns in tables_of_document().items()} == expected


def test_defaults_are_those_of_the_database(sandbox):
    sandbox.init_db()
    expected = {name: default.strip("'") for table in ("autoresponder", "resp_freq")
                for _, name, _, _, default, _ in sandbox.rows(f"PRAGMA table_info({table})") if default is not None}

    rows = re.findall(r"^\| `(\w+)` \| [A-Z][^|]*\| `?([^|`]*?)`? \|", DOCUMENT, re.MULTILINE)
    told = {name: default for name, default in rows if name in expected}

    assert told == expected


def test_indexes_are_those_of_the_database(sandbox):
    sandbox.init_db()
    indexes = [name for (name,) in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'index'")]
    expected = {index: ", ".join(column[2] for column in sandbox.rows(f"PRAGMA index_info({index})"))
                for index in indexes}

    told = {name: columns.replace("`", "") for name, columns in re.findall(
        r"Unique\s+index\s+`(\w+)`\s+on\s+(`[^.]*`)\.", DOCUMENT)}

    assert told == expected
