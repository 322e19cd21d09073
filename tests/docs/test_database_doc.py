"""docs/database.md: the example reader works with the database of the tool, and the tables are those of the schema."""

import contextlib
import json
import re
import sqlite3
import subprocess
import sys
import threading

import pytest
from harness.mailboxes import MAIL_TREE
from harness.sandbox import DATABASE
from sources import REPOSITORY

DOCUMENT = (REPOSITORY / "docs" / "database.md").read_text()
EXAMPLE = REPOSITORY / "docs" / "examples" / "responder.py"
ANNA = ("--mailname", "anna@example.org", "--real-owner", "owner@example.org")


sys.path.insert(0, str(EXAMPLE.parent))
sys.dont_write_bytecode = True

import responder  # noqa: E402


@pytest.fixture
def connection(sandbox):
    """The example's connection to a database with one autoresponder."""
    sandbox.init_db()
    sandbox.path("/tmp/map.png").write_bytes(b"map")
    assert sandbox.run("--set-resp", *ANNA, "--ans-freq", "2", stdin="Bis später\n".encode()).status == 0
    assert sandbox.run("--add-attach", "--mailname", "anna@example.org", "--filename", "map.png", "--source",
                       "/tmp/map.png").status == 0
    headers = b'{"Auto-Submitted": "auto-replied", "": "x", "X": "1\\r\\nY: 2"}'
    assert sandbox.run("--set-extra-headers", stdin=headers).status == 0
    with contextlib.closing(responder.connect(sandbox.path(DATABASE))) as connection:
        yield connection


def reply(connection, sandbox, sender="ben@example.net", **options):
    return responder.answer(connection, "anna@example.org", sender, mailnames=sandbox.path(MAIL_TREE), **options)


# -- the example


def test_example_prints_the_reply(connection, sandbox):
    command = [EXAMPLE, "--database", sandbox.path(DATABASE), "--mailnames", sandbox.path(MAIL_TREE),
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
        "attachments": [str(sandbox.path(MAIL_TREE + "/example.org/owner/@attachments/map.png"))],
    }
    assert sandbox.rows("SELECT mn, email, num FROM resp_freq") == [("anna@example.org", "ben@example.net", 1)]


def test_counters_survive_a_power_cut(connection):
    assert connection.execute("PRAGMA synchronous").fetchone() == (3,)  # EXTRA


def test_mailbox_without_autoresponder_gets_no_reply(connection, sandbox):
    assert responder.answer(connection, "nobody@example.org", "ben@example.net") is None
    assert sandbox.rows("SELECT * FROM resp_freq") == []


def test_sender_gets_the_permitted_number_of_replies_a_day(connection, sandbox):
    moments = [0, 10, 20, 86399, 86400, 86401, 86402]

    assert [reply(connection, sandbox, now=now) is not None for now in moments] == [
        True, True, False, False, True, True, False]
    assert reply(connection, sandbox, sender="cy@example.net", now=20) is not None


@pytest.mark.parametrize("where, subject, body, replies", [
    ("subj", "the word", "", True), ("subj", "", "the word", False),
    ("body", "the word", "", False), ("body", "", "the word", True),
    ("no", "", "", True), ("anything", "", "", True),
])
def test_key_is_searched_in_the_selected_part(connection, sandbox, where, subject, body, replies):
    sandbox.run("--set-resp", *ANNA, "--key-str", "word", "--key-where", where)

    assert (reply(connection, sandbox, subject=subject, body=body) is not None) == replies


def test_row_without_a_file_is_left_out(connection, sandbox):
    sandbox.path(MAIL_TREE + "/example.org/owner/@attachments/map.png").unlink()

    assert reply(connection, sandbox)["attachments"] == []


def test_bytes_that_are_no_text_are_replaced(connection, sandbox):
    sandbox.run("--set-resp", *ANNA, "--subj", b"\xff", stdin=b"\0\xfe")

    assert reply(connection, sandbox)["body"] == "\0\ufffd"


def test_example_creates_no_database(sandbox):
    sandbox.path(DATABASE).parent.mkdir(parents=True)

    with pytest.raises(sqlite3.OperationalError, match="unable to open database file"):
        responder.connect(sandbox.path(DATABASE))


def test_counting_waits_for_a_writer_and_releases_its_lock(connection, sandbox):
    writer = sqlite3.connect(sandbox.path(DATABASE), isolation_level=None, check_same_thread=False)
    writer.execute("BEGIN IMMEDIATE")
    begun = threading.Event()
    connection.set_trace_callback(lambda statement: begun.set() if statement.startswith("BEGIN IMMEDIATE") else None)
    committed = threading.Thread(target=lambda: (begun.wait(60), writer.execute("COMMIT"), writer.close()))
    committed.start()

    assert reply(connection, sandbox) is not None

    committed.join()
    assert not connection.in_transaction
    assert sandbox.run("--set-resp", *ANNA).status == 0


def test_failed_transaction_releases_its_lock(connection, sandbox):
    with pytest.raises(ZeroDivisionError):
        with responder.transaction(connection, "BEGIN IMMEDIATE"):
            connection.execute("DELETE FROM resp_freq")
            1 / 0

    assert not connection.in_transaction
    assert sandbox.run("--set-resp", *ANNA).status == 0


# -- the document


def test_tables_columns_defaults_and_indexes_are_those_of_the_database(sandbox):
    sandbox.init_db()
    columns, defaults, indexes = {}, {}, {}
    for (table,) in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'table'"):
        info = sandbox.rows(f"PRAGMA table_info({table})")
        columns[table] = {name: kind + (" NOT NULL" if not_null else "") for _, name, kind, not_null, _, _ in info}
        defaults.update({name: default.strip("'") for _, name, _, _, default, _ in info if default is not None})
    for (index,) in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'index'"):
        indexes[index] = ", ".join(column for _, _, column in sandbox.rows(f"PRAGMA index_info({index})"))

    assert {title: dict(re.findall(r"^\| `(\w+)` \| ([A-Z][^|]*?) \|", text, re.MULTILINE)) for title, text in
            re.findall(r"^### (\w+)\n(.*?)(?=^#)", DOCUMENT, re.DOTALL | re.MULTILINE)} == columns
    rows = re.findall(r"^\| `(\w+)` \| [A-Z][^|]*\| `?([^|`]*?)`? \|", DOCUMENT, re.MULTILINE)
    assert {name: default for name, default in rows if name in defaults} == defaults
    assert {name: text.replace("`", "") for name, text in re.findall(
        r"Unique\s+index\s+`(\w+)`\s+on\s+(`[^.]*`)\.", DOCUMENT)} == indexes
