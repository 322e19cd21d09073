"""The store library as other programs use it: installed, found, linked, and called by tests/outside.

The tests run every operation in three ways: with a connection of its own ("none"), with the caller's connection
("borrowed"), and as the worker function below it, which always uses the caller's connection ("worker").
"""

import contextlib
import os
import resource
import signal
import subprocess
from collections import namedtuple
from pathlib import Path

import pytest
from harness import sqlite_shim, tracing
from harness.mailboxes import error_texts, run_sql
from harness.private_root import REPOSITORY
from harness.sandbox import BUILD_DIRECTORY, DATABASE, EMULATOR
from harness.waiting import until_it_retries

WAYS = ["none", "borrowed", "worker"]
MAILBOX = ("info", "example.org")
CLOSED = 21  # SQLITE_MISUSE, the result of a statement on a closed connection
BUSY = 1  # SQLITE_ERROR, the result of BEGIN inside a transaction and of ROLLBACK outside
TOO_LONG = "#1001"  # a text of 1,001 bytes, with a limit of 1,000
TEXT_FIELDS = ("keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body")

Operation = namedtuple("Operation", "worker args table statement")
OPERATIONS = {
    "store_autoresponder_record": Operation(
        "replace_autoresponder_record", MAILBOX, "autoresponder",
        "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
        "ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );"),
    "store_attachment_records": Operation("replace_attachment_records", (*MAILBOX, "new.txt"), "attachments",
                                          "REPLACE INTO attachments VALUES (?, ?  );"),
    "remove_autoresponder_record": Operation("delete_autoresponder_record", MAILBOX, "autoresponder",
                                             "DELETE FROM autoresponder WHERE mn = ?;"),
    "remove_attachment_records": Operation("delete_attachment_records", MAILBOX, "attachments",
                                           "DELETE FROM attachments WHERE mn = ?;"),
    "store_extra_headers": Operation("replace_extra_headers", ("X-New", "new"), "extra_headers",
                                     "REPLACE INTO extra_headers VALUES (?, ?  );"),
}

each_way = pytest.mark.parametrize("way", WAYS)
each_operation = pytest.mark.parametrize("name", OPERATIONS)


def in_build_cache(name):
    """The value of a variable in the build under test; None without it."""
    cache = (BUILD_DIRECTORY / "CMakeCache.txt").read_text()
    return next((line.partition("=")[2] for line in cache.splitlines() if line.startswith(name + ":")), None)


def emulated(program):
    """The words that run a program of the build under test."""
    return [EMULATOR, program] if EMULATOR else [program]


def command(*words, **options):
    result = subprocess.run(words, capture_output=True, text=True, check=False, **options)
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout


@pytest.fixture(scope="session")
def installed(sandbox_directory):
    """The prefix below which the build under test was installed."""
    prefix = sandbox_directory / "installed"
    command("cmake", "--install", BUILD_DIRECTORY, "--prefix", prefix)
    return prefix


@pytest.fixture(scope="session")
def compiler_flags():
    """The flags that a program needs to link libraries that were built like those under test."""
    flags = {"ARSP_SANITIZE": "-fsanitize=address,undefined", "ARSP_COVERAGE": "-fprofile-instr-generate"}
    return [flag for option, flag in flags.items() if in_build_cache(option) == "ON"]


@pytest.fixture(scope="session")
def outside(sandbox_directory, installed, compiler_flags):
    """The outside program, built against the installed files."""
    build = sandbox_directory / "outside"
    toolchain = in_build_cache("CMAKE_TOOLCHAIN_FILE")
    compiler = f"TOOLCHAIN_FILE={toolchain}" if toolchain else f"CXX_COMPILER={in_build_cache('CMAKE_CXX_COMPILER')}"
    command("cmake", "-S", REPOSITORY / "tests" / "outside", "-B", build, "-G", "Ninja",
            f"-DCMAKE_PREFIX_PATH={installed}", f"-DCMAKE_{compiler}", f"-DCMAKE_CXX_FLAGS={' '.join(compiler_flags)}")
    command("cmake", "--build", build)
    return build / "outside"


def operation_steps(way, name, *args):
    """The steps that do the operation in one of the three ways."""
    if way == "none":
        return [(name, "none", *args)]
    return [("open",), (name, "borrowed", *args) if way == "borrowed" else (OPERATIONS[name].worker, *args)]


class Panel:
    """Another program of the panel at work in the private root."""

    def __init__(self, sandbox, program):
        self._sandbox = sandbox
        self._program = emulated(str(program))
        sandbox.provide(str(program))

    def start(self, *steps, before=(), **options):
        words = [*before, *self._program, *(word for step in steps for word in (",", *step))]
        return self._sandbox.start_command(words[0], words, **options)

    def finish(self, running, *steps):
        """The results of the steps, and the logged texts."""
        result = running.wait()
        assert (result.status, result.stderr) == (0, b"")
        names, results = zip(*(line.split() for line in result.stdout.decode().splitlines()))
        assert list(names) == [step[0] for step in steps]
        return [int(code) for code in results], error_texts(result)

    def call(self, *steps, **options):
        return self.finish(self.start(*steps, **options), *steps)

    def operate(self, way, name, *args, sql=(), **options):
        """The result of the operation, those of the statements that the caller runs next, and the logged texts."""
        results, texts = self.call(*operation_steps(way, name, *args), *(("sql", text) for text in sql), **options)
        if way != "none":
            assert results.pop(0) == 0  # open
        return results[0], results[1:], texts


@pytest.fixture
def panel(sandbox, outside):
    """The outside program beside a database with two mailboxes with attachments, and one header."""
    sandbox.init_db()
    run_sql(sandbox, """
        BEGIN;
        INSERT INTO autoresponder (mn, subject, real_owner) VALUES ('info@example.org', 'Old', 'o@example.org'),
                                                                   ('sales@example.org', 'Old', 'o@example.org');
        INSERT INTO attachments VALUES ('info@example.org', 'old.txt'), ('info@example.org', 'second.txt'),
                                       ('sales@example.org', 'old.txt');
        INSERT INTO resp_freq VALUES ('info@example.org', 'a@example.net', 3, 1700000000),
                                     ('sales@example.org', 'a@example.net', 2, 1700000000);
        INSERT INTO extra_headers VALUES ('X-Old', 'old');
        COMMIT;""")
    return Panel(sandbox, outside)


@pytest.fixture
def unchanged(sandbox, panel):
    """The private root of the panel, for a test that leaves all rows unchanged."""
    before = everything(sandbox)
    yield sandbox
    assert everything(sandbox) == before


def everything(sandbox):
    """All rows of all tables, the oldest first."""
    return {table: sandbox.rows(f"SELECT * FROM {table} ORDER BY rowid")
            for table in ("autoresponder", "attachments", "resp_freq", "extra_headers")}


def refuse(sandbox, event, table, how="ABORT", when="1"):
    """Lets SQLite refuse each row for which `when` holds."""
    run_sql(sandbox, f"CREATE TRIGGER refuse BEFORE {event} ON {table} WHEN {when} "
                     f"BEGIN SELECT RAISE({how}, 'refused'); END;")


# -- the package


def test_installed_tool_is_the_built_one(installed):
    assert Path(installed, "sbin", "arspctl").read_bytes() == Path(BUILD_DIRECTORY, "cli", "arspctl").read_bytes()


def test_pkg_config_finds_a_package_that_was_moved(installed, compiler_flags, tmp_path):
    moved = tmp_path / "moved"
    moved.symlink_to(installed)
    (folder,) = moved.glob("lib/**/pkgconfig")
    environment = {**os.environ, "PKG_CONFIG_PATH": str(folder)}

    flags = command("pkg-config", "--cflags", "--libs", "arsp", env=environment).split()
    command(in_build_cache("CMAKE_CXX_COMPILER"), "-std=c++20", *compiler_flags,
            REPOSITORY / "tests/outside/outside.cpp", "-o", tmp_path / "outside", *flags)

    assert command(*emulated(tmp_path / "outside")) == ""


def test_package_depends_on_sqlite_only(installed):
    (folder,) = installed.glob("lib/**/cmake/arsp")
    package = "".join(file.read_text() for file in folder.iterdir())

    assert "find_dependency(SQLite3)" in package
    for absent in ("Boost", "build_options", str(REPOSITORY)):
        assert absent not in package


# -- success

NEW_ROW = ("holiday", "subj", "Away", "desk@example.org", "deputy@example.org", "text/html", "KOI8-R", "Back soon.", 3,
           400, "owner@example.org")
INFO_ROWS = [("info@example.org", "old.txt"), ("info@example.org", "second.txt")]
SALES_ROW = ("sales@example.org", "old.txt")
SUCCESSES = [
    ("store_autoresponder_record", ("New", "Example.ORG"), lambda old: [*old, ("new@example.org", *NEW_ROW)]),
    ("store_autoresponder_record", ("Info", "Example.ORG"), lambda old: [*old[1:], ("info@example.org", *NEW_ROW)]),
    ("store_attachment_records", ("Info", "Example.ORG", "Price List.PDF", "", "a/b", "old.txt", "a/b"),
     lambda old: [*old[1:], *(("info@example.org", name) for name in ("Price List.PDF", "", "old.txt", "a/b"))]),
    ("remove_autoresponder_record", ("Info", "Example.ORG"), lambda old: old[1:]),
    ("remove_autoresponder_record", ("missing", "example.org"), lambda old: old),
    ("remove_attachment_records", ("Info", "Example.ORG"), lambda old: [SALES_ROW]),
    ("remove_attachment_records", ("missing", "example.org"), lambda old: old),
    ("store_extra_headers", ("X-B", "1", "X-A", "2", "X-B", "3"),
     lambda old: [*old, ("X-B", "1"), ("X-A", "2"), ("X-B", "3")]),
    ("import_extra_headers_json", ('{"X-A": "1", "X-B": "2"}',), lambda old: [*old, ("X-A", "1"), ("X-B", "2")]),
    ("delete_extra_headers", (), lambda old: []),
]


@pytest.mark.parametrize("way, name, args, expected", [
    pytest.param(way, *success, id=f"{way}-{success[0]}-{'-'.join(success[1][:1])}")
    for success in SUCCESSES for way in WAYS if way != "worker" or success[0] in OPERATIONS])
def test_operation_changes_only_its_rows(sandbox, panel, way, name, args, expected):
    before = everything(sandbox)
    table = OPERATIONS[name].table if name in OPERATIONS else "extra_headers"

    assert panel.operate(way, name, *args) == (0, [], [])

    assert everything(sandbox) == {**before, table: expected(before[table])}


@pytest.mark.parametrize("mailbox, fields, row", [
    (("", ""), [*(f"{field}=" for field in (*TEXT_FIELDS, "owner_local_part")), "ans_freq=-2147483648",
                "ans_limit=2147483647"],
     ("@", "", "", "", "", "", "", "", "", -2147483648, 2147483647, "@")),
    (("new", "example.org"), ["unset"], ("new@example.org", *[""] * 8, 0, 0, "@example.org")),
    (("Ä B@C", "%S"), ["owner_local_part=É'Q"], ("Ä b@c@%s", *NEW_ROW[:-1], "É'q@%s")),  # only ASCII is lower-cased
    (("long", "example.org"), ["body=#5000000"],
     ("long@example.org", *NEW_ROW[:7], "x" * 5000000, *NEW_ROW[8:-1], "owner@example.org")),
], ids=["empty", "unset", "unchecked", "long"])
def test_fields_of_a_record_are_stored_unchecked(sandbox, panel, mailbox, fields, row):
    before = everything(sandbox)["autoresponder"]

    assert panel.operate("none", "store_autoresponder_record", *mailbox, *fields) == (0, [], [])

    assert everything(sandbox)["autoresponder"] == [*before, row]


def test_all_operations_share_one_connection_which_stays_open(sandbox, panel):
    results, texts = panel.call(
        ("open",),
        *((name, "borrowed", *operation.args) for name, operation in OPERATIONS.items()),
        *((operation.worker, *operation.args) for operation in OPERATIONS.values()),
        ("sql", "BEGIN"), ("sql", "COMMIT"), ("close",))

    assert (results, texts) == ([0] * len(results), [])
    rows = everything(sandbox)
    assert rows["attachments"] == [SALES_ROW]
    assert rows["extra_headers"] == [("X-Old", "old"), ("X-New", "new"), ("X-New", "new")]


@pytest.mark.parametrize("name, mailbox", [("store_attachment_records", MAILBOX), ("store_extra_headers", ())])
def test_empty_list_needs_neither_lock_nor_table_nor_open_connection(sandbox, panel, name, mailbox):
    run_sql(sandbox, f"DROP TABLE {OPERATIONS[name].table}")

    with contextlib.closing(sandbox.db()) as other:
        other.execute("BEGIN EXCLUSIVE")
        assert panel.operate("none", name, *mailbox) == (0, [], [])
        assert panel.operate("borrowed", name, *mailbox) == (0, [], [])
        assert panel.call((OPERATIONS[name].worker, *mailbox)) == ([0], [])


@pytest.mark.parametrize("name, mailbox", [("store_attachment_records", MAILBOX), ("store_extra_headers", ())])
def test_empty_list_runs_no_statement(sandbox, panel, name, mailbox):
    panel.operate("none", name, *mailbox, env=sqlite_shim.environment(sandbox))

    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}", "busy_timeout 50", "close = 0"]


@each_operation
@pytest.mark.parametrize("way", ["none", "worker"])
def test_operation_waits_for_a_busy_database(sandbox, panel, way, name):
    table = OPERATIONS[name].table
    before = everything(sandbox)[table]
    steps = operation_steps(way, name, *OPERATIONS[name].args)

    with contextlib.closing(sandbox.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        running = panel.start(*steps)
        until_it_retries(running)
        other.execute("ROLLBACK")

    assert panel.finish(running, *steps) == ([0] * len(steps), [])
    assert everything(sandbox)[table] != before


@each_way
def test_calls_to_sqlite_are_made_in_order(sandbox, panel, way):
    panel.call(*operation_steps(way, "store_attachment_records", *MAILBOX, "a", "b"), ("close",),
               env=sqlite_shim.environment(sandbox))

    row = ["prepare REPLACE INTO attachments VALUES (?, ?  ); = 0", "bind_text 1 = 0", "bind_text 2 = 0", "step = 101",
           "finalize"]
    assert sqlite_shim.calls(sandbox) == [
        f"open {DATABASE}", "busy_timeout 50",
        "prepare BEGIN TRANSACTION; = 0", "step = 101", "finalize", *row, *row,
        "prepare END TRANSACTION; = 0", "step = 101", "finalize", "close = 0"]


# -- failures of the connection


@pytest.mark.parametrize("name", [*OPERATIONS, "delete_extra_headers"])
def test_unopenable_database_fails(sandbox, panel, name):
    sandbox.path(DATABASE).unlink()
    sandbox.path(DATABASE).mkdir()
    args = OPERATIONS[name].args if name in OPERATIONS else ()

    assert panel.operate("none", name, *args) == (
        -1, [], [f"Unable to open database {DATABASE}: unable to open database file"])


@each_operation
def test_lack_of_memory_for_a_connection_fails(panel, name):
    assert panel.call(("memory", "1"), (name, "none", *OPERATIONS[name].args)) == (
        [0, -1], [f"Unable to open database {DATABASE}: general DB errror"])


@each_operation
def test_closed_connection_fails(panel, name):
    text = "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror"
    operation = OPERATIONS[name]

    assert panel.call((name, "borrowed", *operation.args), (operation.worker, *operation.args)) == (
        [-1, -1], [text, text])


@each_operation
@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_operation_inside_a_transaction_of_the_caller_fails_and_loses_it(unchanged, panel, way, name):
    opening, operation = operation_steps(way, name, *OPERATIONS[name].args)

    assert panel.call(opening, ("sql", "BEGIN"), ("sql", "DELETE FROM resp_freq"), operation, ("sql", "COMMIT")) == (
        [0, 0, 0, -1, CLOSED], ["Unable to begin sqlite transaction: cannot start a transaction within a transaction"])


# -- failures that close the connection


@pytest.mark.parametrize("word", ["BEGIN", "END"])
@each_operation
@each_way
def test_unprepared_transaction_statement_closes_the_connection(unchanged, panel, way, name, word):
    environment = sqlite_shim.environment(unchanged, f"prepare {word}")

    assert panel.operate(way, name, *OPERATIONS[name].args, sql=["SELECT 1"], env=environment) == (
        -1, [CLOSED], [f"Unable to prepare SQL statement for query '{word} TRANSACTION;': string or blob too big"])


@each_operation
@each_way
def test_missing_table_closes_the_connection(sandbox, panel, way, name):
    operation = OPERATIONS[name]
    run_sql(sandbox, f"DROP TABLE {operation.table}")

    assert panel.operate(way, name, *operation.args, sql=["SELECT 1"]) == (
        -1, [CLOSED],
        [f"Unable to prepare SQL statement for query '{operation.statement}': no such table: {operation.table}"])


@each_way
def test_too_long_text_closes_the_connection(unchanged, panel, way):
    cases = [
        *((field, "store_autoresponder_record", (*MAILBOX, f"{field}={TOO_LONG}")) for field in TEXT_FIELDS),
        ("real_owner", "store_autoresponder_record", (*MAILBOX, f"owner_local_part={TOO_LONG}")),
        ("mailname", "store_autoresponder_record", (TOO_LONG, "example.org")),
        ("mailname", "store_attachment_records", (TOO_LONG, "example.org", "new.txt")),
        ("filename", "store_attachment_records", (*MAILBOX, "new.txt", TOO_LONG)),
        ("mailname", "remove_autoresponder_record", (TOO_LONG, "example.org")),
        ("mailname", "remove_attachment_records", (TOO_LONG, "example.org")),
        ("name", "store_extra_headers", ("X-New", "new", TOO_LONG, "")),
        ("value", "store_extra_headers", ("X-New", "new", "X-A", TOO_LONG)),
    ]
    steps = [[*operation_steps(way, name, *args), ("sql", "SELECT 1")] for _, name, args in cases]

    results, texts = panel.call(("longest", "1000"), *sum(steps, []))

    assert results == [0] + [0, -1, CLOSED][way == "none":] * len(cases)
    assert texts == [f"Unable to bind parameter {parameter}: string or blob too big" for parameter, _, _ in cases]


@each_way
@pytest.mark.parametrize("index, name", [(9, "ans_freq"), (10, "ans_limit")])
def test_unbound_number_closes_the_connection(unchanged, panel, way, index, name):
    environment = sqlite_shim.environment(unchanged, f"bind {index}")

    assert panel.operate(way, "store_autoresponder_record", *MAILBOX, sql=["SELECT 1"], env=environment) == (
        -1, [CLOSED], [f"Unable to bind parameter {name}: column index out of range"])


def test_text_of_more_than_a_billion_bytes_is_refused(unchanged, panel):
    assert panel.operate("none", "store_autoresponder_record", *MAILBOX, "body=#1000000001") == (
        -1, [], ["Unable to bind parameter body: string or blob too big"])


@each_operation
@each_way
def test_failed_commit_closes_the_connection(unchanged, panel, way, name):
    # The statement's own journal fits within the limit, the writes of END do not.
    assert panel.operate(way, name, *OPERATIONS[name].args, sql=["SELECT 1"],
                         rlimits={resource.RLIMIT_FSIZE: 10000}, ignore=[signal.SIGXFSZ]) == (
        -1, [CLOSED], ["Unable to end sqlite transaction: disk I/O error"])


@pytest.mark.parametrize("way", ["borrowed", "worker"])
def test_violated_deferred_constraint_fails_the_commit(unchanged, panel, way):
    run_sql(unchanged, """
        CREATE TABLE known (mn PRIMARY KEY);
        CREATE TABLE seen (mn REFERENCES known DEFERRABLE INITIALLY DEFERRED);
        CREATE TRIGGER see AFTER INSERT ON attachments BEGIN INSERT INTO seen VALUES (NEW.mn); END;""")
    opening, operation = operation_steps(way, "store_attachment_records", *MAILBOX, "a")

    assert panel.call(opening, ("sql", "PRAGMA foreign_keys = ON"), operation, ("sql", "SELECT 1")) == (
        [0, 0, -1, CLOSED], ["Unable to end sqlite transaction: FOREIGN KEY constraint failed"])


@each_operation
@each_way
def test_interrupted_pause_fails_silently_and_closes_the_connection(unchanged, panel, needs_tracing, way, name):
    tracer = tracing.strace_arguments("/dev/null", "clock_nanosleep", ["clock_nanosleep:error=EINTR"], ())

    with contextlib.closing(unchanged.db()) as other:
        other.execute("BEGIN IMMEDIATE")
        assert panel.operate(way, name, *OPERATIONS[name].args, sql=["SELECT 1"], traced=True,
                             before=["/usr/bin/strace", *tracer[1:]]) == (-1, [CLOSED], [])


# -- refused rows


@pytest.mark.parametrize("how, begin", [("ABORT", BUSY), ("FAIL", BUSY), ("ROLLBACK", 0)])
@each_way
def test_refused_record_leaves_an_open_transaction_to_the_caller(unchanged, panel, way, how, begin):
    refuse(unchanged, "INSERT", "autoresponder", how)

    assert panel.operate(way, "store_autoresponder_record", "Info", "Example.ORG",
                         sql=["BEGIN", "ROLLBACK", "ROLLBACK"]) == (
        -1, [CLOSED] * 3 if way == "none" else [begin, 0, BUSY],
        ["Unable to add/update autoresponder (info@example.org): refused"])


def test_caller_may_commit_after_a_refused_record(sandbox, panel):
    refuse(sandbox, "INSERT", "autoresponder")

    results, _ = panel.call(("open",), ("replace_autoresponder_record", *MAILBOX),
                            ("sql", "INSERT INTO extra_headers VALUES ('X-New', 'new')"), ("sql", "COMMIT"))

    assert results == [0, -1, 0, 0]
    assert everything(sandbox)["extra_headers"] == [("X-Old", "old"), ("X-New", "new")]


def test_closing_after_a_refused_record_releases_the_lock(sandbox, panel):
    refuse(sandbox, "INSERT", "autoresponder", "FAIL", when="NEW.mn = 'info@example.org'")

    results, _ = panel.call(("open",), ("replace_autoresponder_record", *MAILBOX), ("close",),
                            ("store_autoresponder_record", "none", "new", "example.org"))

    assert results == [0, -1, 0, 0]
    assert everything(sandbox)["autoresponder"][-1] == ("new@example.org", *NEW_ROW)


CANNOT_ADD_ATTACHMENT = "Unable to add autoresponder attachment (info@example.org): refused"
REFUSALS = [  # the rows after a refusal, and after a refusal that rolls back the transaction
    ("store_attachment_records", (*MAILBOX, "a", "bad1", "b", "bad2", "c"), "INSERT", "NEW.filename LIKE 'bad%'",
     [CANNOT_ADD_ATTACHMENT] * 2,
     lambda old: [*old, *(("info@example.org", name) for name in "abc")],
     lambda old: [*old, *(("info@example.org", name) for name in "bc")]),
    ("store_extra_headers", ("a", "1", "bad1", "2", "b", "3", "bad2", "4", "c", "5"), "INSERT", "NEW.name LIKE 'bad%'",
     ["Unable to add autoresponder extra headers: refused"] * 2,
     lambda old: [*old, ("a", "1"), ("b", "3"), ("c", "5")],
     lambda old: [*old, ("b", "3"), ("c", "5")]),
    ("remove_autoresponder_record", MAILBOX, "DELETE", "1",
     ["Unable to add autoresponder data (info@example.org): refused"], lambda old: old, lambda old: old),
    ("remove_attachment_records", MAILBOX, "DELETE", "1", [CANNOT_ADD_ATTACHMENT], lambda old: old, lambda old: old),
]


@pytest.mark.parametrize("how", ["ABORT", "FAIL", "ROLLBACK"])
@pytest.mark.parametrize("name, args, event, when, refusals, kept, kept_by_rollback", REFUSALS,
                         ids=[refusal[0] for refusal in REFUSALS])
@each_way
def test_refused_row_is_logged_and_left_out(sandbox, panel, way, name, args, event, when, refusals, kept,
                                            kept_by_rollback, how):
    table = OPERATIONS[name].table
    before = everything(sandbox)
    refuse(sandbox, event, table, how, when)

    outcome = panel.operate(way, name, *args, sql=["SELECT 1"])

    if how == "ROLLBACK":
        assert outcome == (-1, [CLOSED], [
            *refusals, "Unable to end sqlite transaction: cannot commit - no transaction is active"])
    else:
        assert outcome == (0, [CLOSED if way == "none" else 0], refusals)
    left = kept_by_rollback if how == "ROLLBACK" else kept
    assert everything(sandbox) == {**before, table: left(before[table])}


def test_rows_deleted_before_a_refusal_are_committed(sandbox, panel):
    refuse(sandbox, "DELETE", "attachments", "FAIL", when="OLD.filename = 'second.txt'")

    assert panel.operate("none", "remove_attachment_records", *MAILBOX) == (0, [], [CANNOT_ADD_ATTACHMENT])

    assert everything(sandbox)["attachments"] == [("info@example.org", "second.txt"), SALES_ROW]


# -- the list of extra headers


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_invalid_document_leaves_the_list(unchanged, panel, way):
    result, _, [text] = panel.operate(way, "import_extra_headers_json", '{"X-A": "1", ')

    assert result == -1
    assert text.startswith("Unable to parse auto-reply headers json: ")


@pytest.mark.parametrize("way", ["none", "borrowed"])
def test_refused_deletion_of_the_list_returns_the_code_of_sqlite(unchanged, panel, way):
    refuse(unchanged, "DELETE", "extra_headers")

    assert panel.operate(way, "delete_extra_headers") == (
        19, [], ["Unable to remove autoresponder extra headers: refused"])


def test_closed_connection_fails_the_deletion_of_the_list(unchanged, panel):
    assert panel.call(("delete_extra_headers", "borrowed")) == (
        [21], ["Unable to remove autoresponder extra headers: general DB errror"])
