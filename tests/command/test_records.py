"""The store library as other programs of the panel have it: installed, found, linked, and called by tests/outside.

Every operation comes in three ways: with a connection of its own ("none"), as the same function with the caller's
connection ("borrowed"), and as the worker below it, which always takes the caller's ("worker").
"""

import contextlib
import os
import resource
import signal
import subprocess
import syslog
from pathlib import Path

import pytest
from harness import sqlite_shim, tracing
from harness.private_root import REPOSITORY
from harness.sandbox import DATABASE, program_under_test
from harness.waiting import until_it_retries

WAYS = ["none", "borrowed", "worker"]
WORKERS = {
    "store_autoresponder_record": "replace_autoresponder_record",
    "store_attachment_records": "replace_attachment_records",
    "remove_autoresponder_record": "delete_autoresponder_record",
    "remove_attachment_records": "delete_attachment_records",
    "store_extra_headers": "replace_extra_headers",
}
OPERATIONS = {
    "store_autoresponder_record": ("Info", "Example.ORG"),
    "store_attachment_records": ("Info", "Example.ORG", "new.txt"),
    "remove_autoresponder_record": ("Info", "Example.ORG"),
    "remove_attachment_records": ("Info", "Example.ORG"),
    "store_extra_headers": ("X-New", "new"),
}
STATEMENTS = {
    "store_autoresponder_record":
        "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
        "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );",
    "store_attachment_records": "REPLACE INTO attachments VALUES (?, ?  );",
    "remove_autoresponder_record": "DELETE FROM autoresponder WHERE mn = ?;",
    "remove_attachment_records": "DELETE FROM attachments WHERE mn = ?;",
    "store_extra_headers": "REPLACE INTO extra_headers VALUES (?, ?  );",
}
TABLES = {
    "store_autoresponder_record": "autoresponder",
    "store_attachment_records": "attachments",
    "remove_autoresponder_record": "autoresponder",
    "remove_attachment_records": "attachments",
    "store_extra_headers": "extra_headers",
}
MAILBOX = ("info", "example.org")
CLOSED = ("sql", 21)  # what a statement answers on a connection that is closed: SQLITE_MISUSE
TOO_LONG = "#1001"  # a text of 1,001 bytes, where 1,000 are taken

each_way = pytest.mark.parametrize("way", WAYS)
each_operation = pytest.mark.parametrize("name", OPERATIONS)


def in_build_cache(name):
    cache = (program_under_test().parents[1] / "CMakeCache.txt").read_text()
    return next(line.partition("=")[2] for line in cache.splitlines() if line.startswith(name + ":"))


def command(*words, **options):
    result = subprocess.run(words, capture_output=True, text=True, check=False, **options)
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout


@pytest.fixture(scope="session")
def installed(sandbox_directory):
    """Where the build under test was installed."""
    prefix = sandbox_directory / "installed"
    command("cmake", "--install", program_under_test().parents[1], "--prefix", prefix)
    return prefix


@pytest.fixture(scope="session")
def compiler_flags():
    """What a program needs to link libraries that were built like those under test."""
    flags = {"ARSP_SANITIZE": "-fsanitize=address,undefined", "ARSP_COVERAGE": "--coverage"}
    return [flag for option, flag in flags.items() if in_build_cache(option) == "ON"]


@pytest.fixture(scope="session")
def outside(sandbox_directory, installed, compiler_flags):
    """The outside program, built against what was installed."""
    build = sandbox_directory / "outside"
    command("cmake", "-S", REPOSITORY / "tests" / "outside", "-B", build, "-G", "Ninja",
            f"-DCMAKE_PREFIX_PATH={installed}", f"-DCMAKE_CXX_COMPILER={in_build_cache('CMAKE_CXX_COMPILER')}",
            f"-DCMAKE_CXX_FLAGS={' '.join(compiler_flags)}")
    command("cmake", "--build", build)
    return build / "outside"


class Panel:
    """Another program of the panel at work in the private root."""

    def __init__(self, sandbox, program):
        self._sandbox = sandbox
        self._program = str(program)
        sandbox.execute(self._program)  # has it put into the root

    def start(self, *steps, before=(), **options):
        words = [*before, self._program, *(word for step in steps for word in (",", *step))]
        return self._sandbox.start_command(words[0], words, **options)

    def finish(self, running):
        """The steps with their results, and the texts that were logged."""
        result = running.wait()
        assert (result.status, result.stderr) == (0, b"")
        assert {record.priority for record in result.records} <= {syslog.LOG_MAIL | syslog.LOG_ERR}
        results = [tuple(line.split()) for line in result.stdout.decode().splitlines()]
        return [(name, int(code)) for name, code in results], [record.text for record in result.records]

    def call(self, *steps, **options):
        return self.finish(self.start(*steps, **options))


@pytest.fixture
def panel(sandbox, outside):
    """The outside program beside an empty database."""
    sandbox.init_db()
    return Panel(sandbox, outside)


def steps(way, name, *args):
    """The steps that do the operation in one of the three ways."""
    if way == "none":
        return [(name, "none", *args)]
    if way == "borrowed":
        return [("open",), (name, "borrowed", *args)]
    return [("open",), (WORKERS[name], *args)]


def result_of(way, name, code):
    """What these steps print when the operation ends with `code`."""
    if way == "none":
        return [(name, code)]
    return [("open", 0), (name if way == "borrowed" else WORKERS[name], code)]


def fill(sandbox):
    """Two mailboxes with an attachment each, and one header."""
    change(sandbox, """
        BEGIN;
        INSERT INTO autoresponder (mn, subject, real_owner) VALUES ('info@example.org', 'Old', 'o@example.org'),
                                                                   ('sales@example.org', 'Old', 'o@example.org');
        INSERT INTO attachments VALUES ('info@example.org', 'old.txt'), ('sales@example.org', 'old.txt');
        INSERT INTO resp_freq VALUES ('info@example.org', 'a@example.net', 3, 1700000000),
                                     ('sales@example.org', 'a@example.net', 2, 1700000000);
        INSERT INTO extra_headers VALUES ('X-Old', 'old');
        COMMIT;""")


def everything(sandbox):
    """All rows of all tables."""
    return {table: sandbox.rows(f"SELECT * FROM {table}")
            for table in ("autoresponder", "attachments", "resp_freq", "extra_headers")}


def change(sandbox, sql):
    with contextlib.closing(sandbox.db()) as db:
        db.execute("PRAGMA synchronous = OFF")
        db.executescript(sql)


def refuse(sandbox, event, table, how="ABORT", when="1"):
    """Lets SQLite refuse each row for which `when` holds."""
    change(sandbox, f"CREATE TRIGGER refuse BEFORE {event} ON {table} WHEN {when} "
                    f"BEGIN SELECT RAISE({how}, 'refused'); END;")


# -- the package


def test_the_installed_tool_is_the_built_one(installed):
    assert Path(installed, "sbin", "arspctl").read_bytes() == program_under_test().read_bytes()


def test_every_header_is_installed(installed, tmp_path):
    headers = sorted(str(file.relative_to(REPOSITORY)) for folder in ("store", "support")
                     for file in Path(REPOSITORY, folder).glob("*.h"))
    top = installed / "include" / "arsp"
    assert sorted(str(file.relative_to(top)) for file in top.rglob("*") if file.is_file()) == headers

    source = tmp_path / "all.cpp"
    source.write_text("".join(f'#include "{header}"\n' for header in headers))
    command("g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", f"-I{top}", source)


def test_the_package_is_found_by_pkg_config_wherever_the_tree_was_moved(installed, compiler_flags, tmp_path):
    moved = tmp_path / "moved"
    moved.symlink_to(installed)
    (folder,) = moved.glob("lib/**/pkgconfig")
    environment = {**os.environ, "PKG_CONFIG_PATH": str(folder)}

    flags = command("pkg-config", "--cflags", "--libs", "arsp", env=environment).split()
    command("g++", "-std=c++20", *compiler_flags, REPOSITORY / "tests/outside/outside.cpp", "-o", tmp_path / "outside",
            *flags)

    assert command(tmp_path / "outside") == ""


def test_the_package_depends_on_nothing_but_sqlite(installed):
    (folder,) = installed.glob("lib/**/cmake/arsp")
    package = "".join(file.read_text() for file in folder.iterdir())

    assert "find_dependency(SQLite3)" in package
    assert "Boost" not in package
    assert "build_options" not in package
    assert str(REPOSITORY) not in package


# -- an autoresponder


@each_way
def test_a_record_becomes_a_row_with_lower_cased_names(sandbox, panel, way):
    assert panel.call(*steps(way, "store_autoresponder_record", "Info", "Example.ORG")) == (
        result_of(way, "store_autoresponder_record", 0), [])

    assert sandbox.rows("SELECT * FROM autoresponder") == [
        ("info@example.org", "holiday", "subj", "Away", "desk@example.org", "deputy@example.org", "text/html", "KOI8-R",
         "Back soon.", 3, 400, "owner@example.org")]


@each_way
def test_a_record_replaces_the_whole_row_and_no_other(sandbox, panel, way):
    fill(sandbox)
    before = everything(sandbox)

    panel.call(*steps(way, "store_autoresponder_record", "info", "example.org", "subject=New"))

    new_row = ("info@example.org", "holiday", "subj", "New", "desk@example.org", "deputy@example.org", "text/html",
               "KOI8-R", "Back soon.", 3, 400, "owner@example.org")
    assert everything(sandbox) == {**before, "autoresponder": [before["autoresponder"][1], new_row]}


def test_empty_texts_are_texts_and_numbers_keep_their_sign(sandbox, panel):
    empty = [field + "=" for field in ("keystr", "key_where", "subject", "reply_to", "content_type", "charset", "body",
                                       "forward_to", "owner_local_part")]

    panel.call(("store_autoresponder_record", "none", "", "", *empty, "ans_freq=-2147483648", "ans_limit=2147483647"))

    assert sandbox.rows("SELECT * FROM autoresponder") == [
        ("@", "", "", "", "", "", "", "", "", -2147483648, 2147483647, "@")]


def test_a_long_body_is_stored_whole(sandbox, panel):
    panel.call(("store_autoresponder_record", "none", "info", "example.org", "body=#5000000"))

    assert sandbox.rows("SELECT body FROM autoresponder") == [("x" * 5000000,)]


def test_only_ascii_letters_are_lower_cased_and_nothing_is_checked(sandbox, panel):
    panel.call(("store_autoresponder_record", "none", "Ä B@C", "%S", "owner_local_part=É'Q"))

    assert sandbox.rows("SELECT mn, real_owner FROM autoresponder") == [("Ä b@c@%s", "É'q@%s")]


@each_way
def test_deleting_a_record_leaves_everything_else(sandbox, panel, way):
    fill(sandbox)
    before = everything(sandbox)

    assert panel.call(*steps(way, "remove_autoresponder_record", "Info", "Example.ORG")) == (
        result_of(way, "remove_autoresponder_record", 0), [])

    assert everything(sandbox) == {**before, "autoresponder": before["autoresponder"][1:]}


# -- attachments


@each_way
def test_file_names_become_rows_and_keep_their_letters(sandbox, panel, way):
    assert panel.call(*steps(way, "store_attachment_records", "Info", "Example.ORG", "Price List.PDF", "", "a/b")) == (
        result_of(way, "store_attachment_records", 0), [])

    assert sandbox.rows("SELECT mn, filename FROM attachments ORDER BY rowid") == [
        ("info@example.org", "Price List.PDF"), ("info@example.org", ""), ("info@example.org", "a/b")]


def test_file_names_are_added_to_those_that_are_there(sandbox, panel):
    fill(sandbox)

    assert panel.call(("store_attachment_records", "none", "info", "example.org", "new.txt", "old.txt", "new.txt")) == (
        [("store_attachment_records", 0)], [])

    assert sandbox.rows("SELECT mn, filename FROM attachments ORDER BY mn, filename") == [
        ("info@example.org", "new.txt"), ("info@example.org", "old.txt"), ("sales@example.org", "old.txt")]


@pytest.mark.parametrize("way", ["none", "borrowed"])
@pytest.mark.parametrize("name, mailbox", [("store_attachment_records", ("info", "example.org")),
                                           ("store_extra_headers", ())])
def test_no_names_at_all_take_no_transaction(sandbox, panel, way, name, mailbox):
    fill(sandbox)
    change(sandbox, f"DROP TABLE {TABLES[name]}")

    with contextlib.closing(sandbox.db()) as other:
        other.execute("BEGIN EXCLUSIVE")
        assert panel.call(*steps(way, name, *mailbox)) == (result_of(way, name, 0), [])


@pytest.mark.parametrize("name, mailbox", [("replace_attachment_records", ("info", "example.org")),
                                           ("replace_extra_headers", ())])
def test_no_names_at_all_do_not_even_need_an_open_connection(panel, name, mailbox):
    assert panel.call((name, *mailbox)) == ([(name, 0)], [])


@each_way
def test_deleting_attachments_leaves_everything_else(sandbox, panel, way):
    fill(sandbox)
    change(sandbox, "INSERT INTO attachments VALUES ('info@example.org', 'second.txt')")
    before = everything(sandbox)

    assert panel.call(*steps(way, "remove_attachment_records", "Info", "Example.ORG")) == (
        result_of(way, "remove_attachment_records", 0), [])

    assert everything(sandbox) == {**before, "attachments": [("sales@example.org", "old.txt")]}


@each_way
@pytest.mark.parametrize("name", ["remove_autoresponder_record", "remove_attachment_records"])
def test_deleting_what_is_not_there_succeeds(sandbox, panel, way, name):
    fill(sandbox)
    before = everything(sandbox)

    assert panel.call(*steps(way, name, "nobody", "example.org")) == (result_of(way, name, 0), [])

    assert everything(sandbox) == before


# -- the list of extra headers


@each_way
def test_headers_are_added_in_order(sandbox, panel, way):
    fill(sandbox)

    assert panel.call(*steps(way, "store_extra_headers", "X-B", "1", "X-A", "2", "X-B", "3")) == (
        result_of(way, "store_extra_headers", 0), [])

    assert sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid") == [
        ("X-Old", "old"), ("X-B", "1"), ("X-A", "2"), ("X-B", "3")]


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_the_list_is_emptied_by_itself(sandbox, panel, way):
    fill(sandbox)
    before = everything(sandbox)

    assert panel.call(*steps(way, "delete_extra_headers")) == (result_of(way, "delete_extra_headers", 0), [])

    assert everything(sandbox) == {**before, "extra_headers": []}


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_an_import_adds_to_the_list(sandbox, panel, way):
    fill(sandbox)

    assert panel.call(*steps(way, "import_extra_headers_json", '{"X-A": "1", "X-B": "2"}')) == (
        result_of(way, "import_extra_headers_json", 0), [])

    assert sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid") == [
        ("X-Old", "old"), ("X-A", "1"), ("X-B", "2")]


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_an_import_that_can_not_be_parsed_leaves_the_list(sandbox, panel, way):
    fill(sandbox)

    results, texts = panel.call(*steps(way, "import_extra_headers_json", '{"X-A": "1", '))

    assert results == result_of(way, "import_extra_headers_json", -1)
    (text,) = texts
    assert text.startswith("Unable to parse auto-reply headers json: ")
    assert sandbox.rows("SELECT name, value FROM extra_headers") == [("X-Old", "old")]


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_a_list_that_can_not_be_emptied_answers_what_sqlite_says(sandbox, panel, way):
    refuse(sandbox, "DELETE", "extra_headers")
    change(sandbox, "INSERT INTO extra_headers VALUES ('X-Old', 'old')")

    assert panel.call(*steps(way, "delete_extra_headers")) == (
        result_of(way, "delete_extra_headers", 19), ["Unable to remove autoresponder extra headers: refused"])


def test_a_list_can_not_be_emptied_over_a_closed_connection(panel):
    assert panel.call(("delete_extra_headers", "borrowed")) == (
        [("delete_extra_headers", 21)], ["Unable to remove autoresponder extra headers: general DB errror"])


# -- the connection


@each_operation
@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_the_callers_connection_stays_open(panel, way, name):
    results, texts = panel.call(*steps(way, name, *OPERATIONS[name]), ("sql", "BEGIN"), ("sql", "COMMIT"), ("close",))

    assert (results[2:], texts) == ([("sql", 0), ("sql", 0), ("close", 0)], [])


def test_all_operations_share_one_connection(sandbox, panel):
    results, texts = panel.call(
        ("open",),
        *((name, "borrowed", *args) for name, args in OPERATIONS.items()),
        *((WORKERS[name], *args) for name, args in OPERATIONS.items()),
        ("close",))

    assert (set(code for _, code in results), texts) == ({0}, [])
    assert everything(sandbox) == {"autoresponder": [], "attachments": [], "resp_freq": [],
                                   "extra_headers": [("X-New", "new"), ("X-New", "new")]}


@each_operation
@pytest.mark.parametrize("way", ["none", "worker"])
def test_a_busy_database_is_waited_for(sandbox, panel, way, name):
    fill(sandbox)
    before = everything(sandbox)

    with contextlib.closing(sandbox.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        running = panel.start(*steps(way, name, *OPERATIONS[name]))
        until_it_retries(running)
        other.execute("ROLLBACK")

    assert panel.finish(running) == (result_of(way, name, 0), [])
    assert everything(sandbox)[TABLES[name]] != before[TABLES[name]]


@each_way
def test_calls_to_sqlite_stand_in_this_order(sandbox, panel, way):
    fill(sandbox)

    panel.call(*steps(way, "store_attachment_records", *MAILBOX, "a", "b"), ("close",),
               env=sqlite_shim.environment(sandbox))

    row = ["prepare REPLACE INTO attachments VALUES (?, ?  ); = 0", "bind_text 1 = 0", "bind_text 2 = 0", "step = 101",
           "finalize"]
    assert sqlite_shim.calls(sandbox) == [
        "open /var/lib/quarn/mail/autoresponder/responder.db", "busy_timeout 50",
        "prepare BEGIN TRANSACTION; = 0", "step = 101", "finalize", *row, *row,
        "prepare END TRANSACTION; = 0", "step = 101", "finalize", "close = 0"]


@pytest.mark.parametrize("name, mailbox", [("store_attachment_records", MAILBOX), ("store_extra_headers", ())])
def test_no_names_at_all_are_no_statement(sandbox, panel, name, mailbox):
    panel.call((name, "none", *mailbox), env=sqlite_shim.environment(sandbox))

    assert sqlite_shim.calls(sandbox) == ["open /var/lib/quarn/mail/autoresponder/responder.db", "busy_timeout 50",
                                          "close = 0"]


# -- failures


@pytest.mark.parametrize("name", [*OPERATIONS, "delete_extra_headers"])
def test_a_database_that_can_not_be_opened_is_told_and_fails(sandbox, panel, name):
    sandbox.path(DATABASE).unlink()
    sandbox.path(DATABASE).mkdir()

    assert panel.call((name, "none", *OPERATIONS.get(name, ()))) == (
        [(name, -1)],
        ["Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"])


@each_operation
def test_without_memory_for_a_connection_there_is_a_text_of_ours(panel, name):
    assert panel.call(("memory", "1"), (name, "none", *OPERATIONS[name])) == (
        [("memory", 0), (name, -1)],
        ["Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: general DB errror"])


@each_operation
def test_a_closed_connection_is_told_and_fails(panel, name):
    refused = "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror"

    assert panel.call((name, "borrowed", *OPERATIONS[name]), (WORKERS[name], *OPERATIONS[name])) == (
        [(name, -1), (WORKERS[name], -1)], [refused, refused])


@each_operation
@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_inside_a_transaction_of_the_caller_both_are_lost(sandbox, panel, way, name):
    fill(sandbox)
    before = everything(sandbox)
    opening, operation = steps(way, name, *OPERATIONS[name])

    results, texts = panel.call(opening, ("sql", "BEGIN"), ("sql", "DELETE FROM resp_freq"), operation,
                                ("sql", "COMMIT"))

    assert results[1:] == [("sql", 0), ("sql", 0), (operation[0], -1), CLOSED]
    assert texts == ["Unable to begin sqlite transaction: cannot start a transaction within a transaction"]
    assert everything(sandbox) == before


@pytest.mark.parametrize("word", ["BEGIN", "END"])
@each_operation
@each_way
def test_a_transaction_statement_that_can_not_be_prepared_closes_the_connection(sandbox, panel, way, name, word):
    fill(sandbox)
    before = everything(sandbox)

    results, texts = panel.call(*steps(way, name, *OPERATIONS[name]), ("sql", "SELECT 1"),
                                env=sqlite_shim.environment(sandbox, f"prepare {word}"))

    assert results == [*result_of(way, name, -1), CLOSED]
    assert texts == [f"Unable to prepare SQL statement for query '{word} TRANSACTION;': string or blob too big"]
    assert everything(sandbox) == before


@each_operation
@each_way
def test_a_missing_table_closes_the_connection(sandbox, panel, way, name):
    change(sandbox, f"DROP TABLE {TABLES[name]}")

    results, texts = panel.call(*steps(way, name, *OPERATIONS[name]), ("sql", "SELECT 1"))

    assert results == [*result_of(way, name, -1), CLOSED]
    assert texts == [f"Unable to prepare SQL statement for query '{STATEMENTS[name]}': no such table: {TABLES[name]}"]


TOO_LONG_FOR = [
    *((f"Unable to bind parameter {field}", "store_autoresponder_record", (*MAILBOX, f"{field}={TOO_LONG}"))
      for field in ("keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body")),
    ("Unable to bind parameter real_owner", "store_autoresponder_record", (*MAILBOX, f"owner_local_part={TOO_LONG}")),
    ("Unable to bind parameter mailname", "store_autoresponder_record", (TOO_LONG, "example.org")),
    ("Unable to bind parameter mailname", "store_attachment_records", (TOO_LONG, "example.org", "new.txt")),
    ("Unable to bind parameter filename", "store_attachment_records", (*MAILBOX, "new.txt", TOO_LONG)),
    ("Unable to bind parameter mailname", "remove_autoresponder_record", (TOO_LONG, "example.org")),
    ("Unable to bind parameter mailname", "remove_attachment_records", (TOO_LONG, "example.org")),
    ("Unable to bind parameter name", "store_extra_headers", ("X-New", "new", TOO_LONG, "")),
    ("Unable to bind parameter value", "store_extra_headers", ("X-New", "new", "X-A", TOO_LONG)),
]


@each_way
def test_a_text_that_sqlite_does_not_take_closes_the_connection(sandbox, panel, way):
    fill(sandbox)
    before = everything(sandbox)
    expected_results, expected_texts, calls = [("longest", 0)], [], [("longest", "1000")]
    for message, name, args in TOO_LONG_FOR:
        calls += [*steps(way, name, *args), ("sql", "SELECT 1")]
        expected_results += [*result_of(way, name, -1), CLOSED]
        expected_texts.append(f"{message}: string or blob too big")

    results, texts = panel.call(*calls)

    assert results == expected_results
    assert texts == expected_texts
    assert everything(sandbox) == before


@each_way
@pytest.mark.parametrize("first, message", [(9, "Unable to bind parameter ans_freq: column index out of range"),
                                            (10, "Unable to bind parameter ans_limit: column index out of range")])
def test_a_number_that_sqlite_does_not_take_closes_the_connection(sandbox, panel, way, first, message):
    results, texts = panel.call(*steps(way, "store_autoresponder_record", *MAILBOX), ("sql", "SELECT 1"),
                                env=sqlite_shim.environment(sandbox, f"bind {first}"))

    assert results == [*result_of(way, "store_autoresponder_record", -1), CLOSED]
    assert texts == [message]
    assert sandbox.rows("SELECT * FROM autoresponder") == []


def test_a_text_of_more_than_a_billion_bytes_is_refused(sandbox, panel):
    assert panel.call(("store_autoresponder_record", "none", "info", "example.org", "body=#1000000001")) == (
        [("store_autoresponder_record", -1)], ["Unable to bind parameter body: string or blob too big"])

    assert sandbox.rows("SELECT * FROM autoresponder") == []


@pytest.mark.parametrize("how", ["ABORT", "FAIL"])
@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_a_refused_record_leaves_the_transaction_to_the_caller(sandbox, panel, way, how):
    fill(sandbox)
    before = everything(sandbox)
    refuse(sandbox, "INSERT", "autoresponder", how)

    results, texts = panel.call(*steps(way, "store_autoresponder_record", "Info", "Example.ORG"),
                                ("sql", "BEGIN"), ("sql", "ROLLBACK"), ("sql", "ROLLBACK"))

    assert results == [*result_of(way, "store_autoresponder_record", -1), ("sql", 1), ("sql", 0), ("sql", 1)]
    assert texts == ["Unable to add/update autoresponder (info@example.org): refused"]
    assert everything(sandbox) == before


def test_the_caller_may_commit_after_a_refused_record(sandbox, panel):
    refuse(sandbox, "INSERT", "autoresponder")

    results, _ = panel.call(("open",), ("replace_autoresponder_record", *MAILBOX),
                            ("sql", "INSERT INTO extra_headers VALUES ('X-New', 'new')"), ("sql", "COMMIT"))

    assert results[1:] == [("replace_autoresponder_record", -1), ("sql", 0), ("sql", 0)]
    assert sandbox.rows("SELECT * FROM extra_headers") == [("X-New", "new")]


def test_closing_after_a_refused_record_lets_the_lock_go(sandbox, panel):
    refuse(sandbox, "INSERT", "autoresponder", "FAIL", when="NEW.mn = 'info@example.org'")

    results, _ = panel.call(("open",), ("replace_autoresponder_record", *MAILBOX), ("close",),
                            ("store_autoresponder_record", "none", "sales", "example.org"))

    assert results[1:] == [("replace_autoresponder_record", -1), ("close", 0), ("store_autoresponder_record", 0)]
    assert sandbox.rows("SELECT mn FROM autoresponder") == [("sales@example.org",)]


@pytest.mark.parametrize("how", ["ABORT", "FAIL", "ROLLBACK"])
def test_a_refused_record_over_an_own_connection_is_no_change(sandbox, panel, how):
    fill(sandbox)
    before = everything(sandbox)
    refuse(sandbox, "INSERT", "autoresponder", how)

    assert panel.call(("store_autoresponder_record", "none", "Info", "Example.ORG")) == (
        [("store_autoresponder_record", -1)], ["Unable to add/update autoresponder (info@example.org): refused"])

    assert everything(sandbox) == before


@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_a_record_whose_refusal_rolls_back_leaves_an_idle_connection(sandbox, panel, way):
    refuse(sandbox, "INSERT", "autoresponder", "ROLLBACK")

    results, texts = panel.call(*steps(way, "store_autoresponder_record", "Info", "Example.ORG"),
                                ("sql", "ROLLBACK"), ("sql", "SELECT 1"))

    assert results == [*result_of(way, "store_autoresponder_record", -1), ("sql", 1), ("sql", 0)]
    assert texts == ["Unable to add/update autoresponder (info@example.org): refused"]


@pytest.mark.parametrize("how", ["ABORT", "FAIL"])
@pytest.mark.parametrize("way, code", [("none", 21), ("borrowed", 0), ("worker", 0)])
def test_a_refused_attachment_is_left_out(sandbox, panel, way, code, how):
    refuse(sandbox, "INSERT", "attachments", how, when="NEW.filename LIKE 'bad%'")

    results, texts = panel.call(
        *steps(way, "store_attachment_records", "Info", "Example.ORG", "a", "bad1", "b", "bad2", "c"),
        ("sql", "SELECT 1"))

    assert results == [*result_of(way, "store_attachment_records", 0), ("sql", code)]
    assert texts == ["Unable to add autoresponder attachment (info@example.org): refused"] * 2
    assert sandbox.rows("SELECT mn, filename FROM attachments ORDER BY rowid") == [
        ("info@example.org", "a"), ("info@example.org", "b"), ("info@example.org", "c")]


@pytest.mark.parametrize("how", ["ABORT", "FAIL"])
@each_way
def test_a_refused_header_is_left_out(sandbox, panel, way, how):
    refuse(sandbox, "INSERT", "extra_headers", how, when="NEW.name = 'X-Bad'")

    assert panel.call(*steps(way, "store_extra_headers", "X-A", "1", "X-Bad", "2", "X-C", "3")) == (
        result_of(way, "store_extra_headers", 0), ["Unable to add autoresponder extra headers: refused"])

    assert sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid") == [("X-A", "1"), ("X-C", "3")]


@each_way
@pytest.mark.parametrize("name, args, message, left", [
    ("store_attachment_records", (*MAILBOX, "a", "bad", "c"),
     "Unable to add autoresponder attachment (info@example.org): refused", [("info@example.org", "c")]),
    ("store_extra_headers", ("a", "1", "bad", "2", "c", "3"),
     "Unable to add autoresponder extra headers: refused", [("c", "3")]),
])
def test_a_row_that_rolls_back_takes_those_before_it_along(sandbox, panel, way, name, args, message, left):
    column = "filename" if name == "store_attachment_records" else "name"
    refuse(sandbox, "INSERT", TABLES[name], "ROLLBACK", when=f"NEW.{column} = 'bad'")

    results, texts = panel.call(*steps(way, name, *args), ("sql", "SELECT 1"))

    assert results == [*result_of(way, name, -1), CLOSED]
    assert texts == [message, "Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert sandbox.rows(f"SELECT * FROM {TABLES[name]}") == left


DELETIONS = [
    ("remove_autoresponder_record", "Unable to add autoresponder data (info@example.org): refused"),
    ("remove_attachment_records", "Unable to add autoresponder attachment (info@example.org): refused"),
]


@pytest.mark.parametrize("how", ["ABORT", "FAIL"])
@pytest.mark.parametrize("name, message", DELETIONS)
@pytest.mark.parametrize("way, code", [("none", 21), ("borrowed", 0), ("worker", 0)])
def test_a_refused_deletion_speaks_of_adding_and_succeeds(sandbox, panel, way, code, name, message, how):
    fill(sandbox)
    before = everything(sandbox)
    refuse(sandbox, "DELETE", TABLES[name], how)

    results, texts = panel.call(*steps(way, name, "Info", "Example.ORG"), ("sql", "SELECT 1"))

    assert results == [*result_of(way, name, 0), ("sql", code)]
    assert texts == [message]
    assert everything(sandbox) == before


@each_way
@pytest.mark.parametrize("name, message", DELETIONS)
def test_a_deletion_that_rolls_back_fails_at_its_end(sandbox, panel, way, name, message):
    fill(sandbox)
    before = everything(sandbox)
    refuse(sandbox, "DELETE", TABLES[name], "ROLLBACK")

    results, texts = panel.call(*steps(way, name, "Info", "Example.ORG"), ("sql", "SELECT 1"))

    assert results == [*result_of(way, name, -1), CLOSED]
    assert texts == [message, "Unable to end sqlite transaction: cannot commit - no transaction is active"]
    assert everything(sandbox) == before


def test_what_a_refused_deletion_had_deleted_is_committed(sandbox, panel):
    change(sandbox, "INSERT INTO attachments VALUES ('info@example.org', 'a'), ('info@example.org', 'b')")
    refuse(sandbox, "DELETE", "attachments", "FAIL", when="OLD.filename = 'b'")

    assert panel.call(("remove_attachment_records", "none", *MAILBOX)) == (
        [("remove_attachment_records", 0)], ["Unable to add autoresponder attachment (info@example.org): refused"])

    assert sandbox.rows("SELECT filename FROM attachments") == [("b",)]


@each_operation
@each_way
def test_a_transaction_that_can_not_be_written_closes_the_connection(sandbox, panel, way, name):
    fill(sandbox)
    before = everything(sandbox)

    # The journal of the statement itself still fits, what END has to write does not.
    results, texts = panel.call(*steps(way, name, *OPERATIONS[name]), ("sql", "SELECT 1"),
                                rlimits={resource.RLIMIT_FSIZE: 10000}, ignore=[signal.SIGXFSZ])

    assert results == [*result_of(way, name, -1), CLOSED]
    assert texts == ["Unable to end sqlite transaction: disk I/O error"]
    assert everything(sandbox) == before


@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_a_broken_promise_of_the_database_is_told_at_the_end(sandbox, panel, way):
    change(sandbox, """
        CREATE TABLE known (mn PRIMARY KEY);
        CREATE TABLE seen (mn REFERENCES known DEFERRABLE INITIALLY DEFERRED);
        CREATE TRIGGER see AFTER INSERT ON attachments BEGIN INSERT INTO seen VALUES (NEW.mn); END;""")
    opening, operation = steps(way, "store_attachment_records", *MAILBOX, "a")

    results, texts = panel.call(opening, ("sql", "PRAGMA foreign_keys = ON"), operation, ("sql", "SELECT 1"))

    assert results[1:] == [("sql", 0), (operation[0], -1), CLOSED]
    assert texts == ["Unable to end sqlite transaction: FOREIGN KEY constraint failed"]
    assert sandbox.rows("SELECT * FROM attachments") == []


@each_operation
@each_way
def test_an_interrupted_pause_fails_in_silence_and_lets_the_connection_go(sandbox, panel, needs_tracing, way, name):
    fill(sandbox)
    before = everything(sandbox)
    tracer = tracing.strace_arguments("/dev/null", "clock_nanosleep", ["clock_nanosleep:error=EINTR"], ())

    with contextlib.closing(sandbox.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        answer = panel.call(*steps(way, name, *OPERATIONS[name]), ("sql", "SELECT 1"), traced=True,
                            before=["/usr/bin/strace", *tracer[1:]])
        other.execute("ROLLBACK")

    assert answer == ([*result_of(way, name, -1), CLOSED], [])
    assert everything(sandbox) == before
