"""Databases that the mail user has made to harm: every subcommand of arspinfo ends soon, with a result or an error, and
changes nothing."""

import contextlib
import json
import os
import resource
import socket
import sqlite3
import stat
import struct
import threading
from dataclasses import dataclass
from typing import Callable

import pytest
from harness import INFO_PROGRAM, preload
from harness.mailboxes import MAIL_TREE, corrupt_page_of, make_directories, put_file, put_link, run_sql
from harness.sandbox import DATABASE

USER = "user@example.org"
PLACE = os.path.dirname(DATABASE)
JOURNAL = DATABASE + "-journal"
EXPORT = ("export", "/export")
PAGE = 4096
SUBCOMMANDS = [("list",), ("list", "--json"), ("list", "--raw", "--output", "+OWNER,CHARSET,LIMIT,FORWARD,REPLYTO"),
               ("show", USER), ("show", "--json", USER), ("show", "--body", USER), ("check",), ("check", "--json"),
               EXPORT]


def state(sandbox):
    """What lies in the place of the database and in the mail tree; times of change show every write."""
    found = {}
    for top in (PLACE, MAIL_TREE, "/tmp"):
        for directory, names, files in os.walk(sandbox.path(top)):
            for path in [directory, *(os.path.join(directory, name) for name in names + files)]:
                status = os.lstat(path)
                found[path] = (status.st_mode, status.st_uid, status.st_gid, status.st_size, status.st_ino,
                               status.st_mtime_ns, status.st_ctime_ns)
    return found


def run_all(sandbox, subcommands=SUBCOMMANDS):
    """The results of all subcommands, which run side by side."""
    running = [sandbox.start(*words, program=INFO_PROGRAM) for words in subcommands]
    return {words: run.wait() for words, run in zip(subcommands, running)}


def patched(offset, content):
    """Overwrites bytes of the file."""

    def make(sandbox):
        with open(sandbox.path(DATABASE), "r+b") as file:
            file.seek(offset)
            file.write(content)

    return make


def page_of(sandbox, name):
    """The number and the bytes of the root page of a table or index."""
    ((number,),) = sandbox.rows("SELECT rootpage FROM sqlite_schema WHERE name = ?", name)
    return number, sandbox.path(DATABASE).read_bytes()[(number - 1) * PAGE:number * PAGE]


def put_page(sandbox, number, page):
    assert len(page) == PAGE
    patched((number - 1) * PAGE, page)(sandbox)


def add_page(sandbox, page):
    """Appends a page to the file and returns its number."""
    number = sandbox.path(DATABASE).stat().st_size // PAGE + 1
    put_page(sandbox, number, page)
    patched(28, struct.pack(">I", number))(sandbox)  # the number of pages
    return number


def page_with(kind, right, cell, count):
    """A page with the same cell `count` times; `right` is the last child of an inner page."""
    at = PAGE - len(cell)
    header = struct.pack(">BHHHB", kind, 0, count, at, 0) + (struct.pack(">I", right) if right else b"")
    return (header + struct.pack(">H", at) * count).ljust(at, b"\0") + cell


def only_cell(page):
    """The bytes of the cell of a page that has one, which was the first to be written."""
    return page[struct.unpack(">H", page[8:10])[0]:]


def overlapping_rows(sandbox):
    """All rows of the table are the same bytes, which end in a long chain of pages."""
    run_sql(sandbox, "UPDATE autoresponder SET body = zeroblob(1000000)")
    number, page = page_of(sandbox, "autoresponder")
    put_page(sandbox, number, page_with(0x0D, 0, only_cell(page), 1500 - len(only_cell(page)) // 2))


def pages_below_themselves(name, kind):
    """A tree in which each page has the next one as its child often: more ways than any reader can go."""

    def make(sandbox):
        number, page = page_of(sandbox, name)
        child = add_page(sandbox, page)
        key = b"\x01" if kind == 0x05 else only_cell(page)
        for _ in range(12):
            child = add_page(sandbox, page_with(kind, child, struct.pack(">I", child) + key, 50))
        put_page(sandbox, number, sandbox.path(DATABASE).read_bytes()[(child - 1) * PAGE:child * PAGE])

    return make


def cyclic_value(sandbox):
    """The pages of a long value form a ring."""
    run_sql(sandbox, "UPDATE autoresponder SET body = zeroblob(1000000)")
    _, page = page_of(sandbox, "autoresponder")
    first = struct.unpack(">I", only_cell(page)[-4:])[0]
    patched((first - 1) * PAGE, struct.pack(">I", first))(sandbox)


def cyclic_table(sandbox):
    number, _ = page_of(sandbox, "autoresponder")
    put_page(sandbox, number, page_with(0x05, number, struct.pack(">I", number) + b"\x01", 100))


def changed_schema(script, name=None):
    """Runs SQL, or gives the object `name` another text without making it."""
    if name is None:
        return lambda sandbox: run_sql(sandbox, script)

    def make(sandbox):
        with contextlib.closing(sandbox.db()) as connection:
            connection.execute("PRAGMA writable_schema = ON")
            connection.execute("UPDATE sqlite_schema SET sql = ? WHERE name = ?", (script, name))

    return make


def instead(path, make_other):
    """Puts something else in the place of a file."""

    def make(sandbox):
        with contextlib.suppress(FileNotFoundError):
            sandbox.path(path).unlink()
        make_other(sandbox.path(path))

    return make


def unix_socket(path):
    here = os.open(".", os.O_RDONLY)
    os.chdir(path.parent)  # a socket's path is short
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(path.name)
    os.fchdir(here)
    os.close(here)


def other_encoding(sandbox):
    schema = [sql for (sql,) in sandbox.rows("SELECT sql FROM sqlite_schema")]
    sandbox.path(DATABASE).unlink()
    with contextlib.closing(sqlite3.connect(sandbox.path(DATABASE))) as connection:
        connection.executescript(";".join(["PRAGMA encoding = 'UTF-16'", *schema]))


def sparse(keep):
    """A file of 1 TB that begins with the database, or with nothing."""

    def make(sandbox):
        if not keep:
            sandbox.path(DATABASE).write_bytes(b"")
        os.truncate(sandbox.path(DATABASE), 1 << 40)

    return make


def huge_values(sandbox):
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute("UPDATE autoresponder SET key_where='subj', subject=?, keystr=?, body=?, charset=?",
                           ("\n" * 300_000, b"\xff\0" * 100_000,
                            "x" * 5_000_000, "\u202e" * 100_000))
        connection.execute("INSERT INTO attachments VALUES (?, ?)", (USER, "/" * 300_000))
        connection.execute("INSERT INTO extra_headers VALUES (?, ?)", ("y" * 300_000, "\n" * 300_000))


def many_rows(sandbox):
    run_sql(sandbox, "INSERT INTO attachments WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                     f"WHERE i < 5000) SELECT '{USER}', i FROM n;"
                     "INSERT INTO resp_freq SELECT mn, filename, 9e99, 9223372036854775807 FROM attachments;")


def hot_journal(sandbox):
    """A journal that must be rolled back, and that names a file to be deleted."""
    name = b"/tmp/report.pdf"
    header = bytes.fromhex("d9d505f920a163d7") + struct.pack(">IIIII", 0, 1, 3, 512, PAGE)
    tail = struct.pack(">I", 0x40000001) + name + struct.pack(">II", len(name), sum(name)) + header[:8]
    put_file(sandbox, "/tmp/report.pdf")
    put_file(sandbox, JOURNAL, header.ljust(512, b"\0") + tail)


@dataclass
class Case:
    name: str
    make: Callable
    code: str | None  # of the finding, if any
    usable: bool = False  # whether the other subcommands have a result
    message: str | None = None  # of the other subcommands, unless it is that of the code


MESSAGES = {
    "db-missing": f"cannot open {DATABASE}: No such file or directory",
    "db-unreadable": f"cannot open {DATABASE}: Permission denied",
    "db-type": f"{DATABASE} is no regular file",
    "db-wal": f"{DATABASE} uses a write-ahead log, which only a writer can read",
    "db-schema": f"{DATABASE} has not the tables of arspctl --init-db",
    "db-journal": f"cannot read {DATABASE}: an interrupted command left a journal that must be rolled back first",
}


CASES = [
    Case("missing", lambda sandbox: sandbox.path(DATABASE).unlink(), "db-missing"),
    Case("closed", lambda sandbox: sandbox.path(DATABASE).chmod(0), "db-unreadable"),
    Case("closed directory", lambda sandbox: sandbox.path(PLACE).chmod(0), "db-unreadable"),
    Case("trigger", changed_schema("CREATE TRIGGER t AFTER UPDATE ON autoresponder BEGIN DELETE FROM attachments; END"),
         "db-schema"),
    Case("endless view", changed_schema("DROP TABLE autoresponder; CREATE VIEW autoresponder AS "
                                        "WITH RECURSIVE n(mn) AS (SELECT 1 UNION ALL SELECT mn + 1 FROM n) "
                                        "SELECT mn FROM n"), "db-schema"),
    Case("view of another name", changed_schema("CREATE VIEW v AS SELECT load_extension('/tmp/x')"), None, True),
    Case("table in other letters", changed_schema("DROP TABLE resp_freq; CREATE TABLE RESP_freq (mn, email, num, "
                                                  "time_resp)"), "db-schema"),
    Case("generated column", changed_schema("DROP TABLE extra_headers; CREATE TABLE extra_headers (name TEXT NOT NULL,"
                                            "value TEXT AS (printf('%.*c', 1e9, name)) NOT NULL)"), "db-schema"),
    Case("index on an expression", changed_schema("CREATE INDEX i ON autoresponder(hex(zeroblob(length(mn) * 99)))"),
         "db-schema"),
    Case("code in the schema", changed_schema("CREATE TABLE extra_headers (name, value DEFAULT (load_extension('/x')))",
                                              "extra_headers"), "db-schema"),
    Case("no schema", changed_schema("CREATE nonsense", "extra_headers"), "db-damaged"),
    Case("format of the future", patched(44, b"\0\0\0\5"), "db-schema",
         message=f"cannot read {DATABASE}: unsupported file format"),
    Case("virtual table", changed_schema("CREATE VIRTUAL TABLE v USING fts5(x)"), None, True),
    Case("other encoding", other_encoding, "db-schema"),
    Case("huge values", huge_values, "header-injection", True),
    Case("many rows", many_rows, "attachment-missing", True),
    Case("overlapping rows", overlapping_rows, "db-damaged"),
    Case("cyclic table", cyclic_table, "db-damaged"),
    Case("cyclic value", cyclic_value, "db-damaged"),
    Case("endless table", pages_below_themselves("autoresponder", 0x05), "db-damaged"),
    Case("endless index", pages_below_themselves("mn", 0x02), "db-damaged"),
    Case("endless headers", pages_below_themselves("extra_headers", 0x05), "db-damaged"),
    Case("page of nonsense", lambda sandbox: corrupt_page_of(sandbox, "autoresponder"), "db-damaged"),
    Case("page size", patched(16, b"\xff\xff"), "db-damaged"),
    Case("cut off", lambda sandbox: os.truncate(sandbox.path(DATABASE), 5000), "db-damaged"),
    Case("empty", lambda sandbox: os.truncate(sandbox.path(DATABASE), 0), "db-schema"),
    Case("write-ahead log", patched(18, b"\2\1"), "db-wal"),
    Case("write-ahead log for readers", patched(18, b"\1\2"), "db-wal"),
    Case("hot journal", hot_journal, "db-journal"),
    Case("journal as pipe", instead(JOURNAL, os.mkfifo), "db-journal"),
    Case("journal as directory", instead(JOURNAL, os.mkdir), "db-journal"),
    Case("pipe", instead(DATABASE, os.mkfifo), "db-type"),
    Case("directory", instead(DATABASE, os.mkdir), "db-type"),
    Case("socket", instead(DATABASE, unix_socket), "db-type"),
    Case("device", instead(DATABASE, lambda path: os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(1, 5))), "db-type"),
    Case("link to itself", lambda sandbox: (sandbox.path(DATABASE).unlink(),
                                            put_link(sandbox, DATABASE, DATABASE, sandbox.popuser)), "db-link",
         message=f"cannot open {DATABASE}: Too many levels of symbolic links"),
    Case("link to a device", lambda sandbox: (sandbox.path(DATABASE).unlink(),
                                              put_link(sandbox, DATABASE, "/dev/zero", sandbox.popuser)), "db-link",
         message=MESSAGES["db-type"]),
    Case("sparse file", sparse(keep=False), "db-damaged"),
]


@pytest.fixture
def mailbox(sandbox):
    """A root with an autoresponder, an attachment and a header, which the test then makes hostile."""
    sandbox.init_db()
    run_sql(sandbox, f"INSERT INTO autoresponder (mn, real_owner, body) VALUES ('{USER}', '{USER}', 'Hi.');"
                     f"INSERT INTO attachments VALUES ('{USER}', 'report.pdf');"
                     f"INSERT INTO resp_freq VALUES ('{USER}', 'a@example.org', 1, 1);"
                     "INSERT INTO extra_headers VALUES ('Auto-Submitted', 'auto-replied')")
    make_directories(sandbox, f"{MAIL_TREE}/example.org/user/@attachments")
    put_file(sandbox, f"{MAIL_TREE}/example.org/user/@attachments/report.pdf", b"the report")
    return sandbox


def assert_is_error(words, result):
    """One line on standard error, and status 1, or 2 for a check that could not be made."""
    assert (result.status, result.stdout) == (2 if words[0] == "check" else 1, b""), (words, result)
    assert result.stderr.startswith(b"arspinfo: ") and result.stderr.count(b"\n") == 1, (words, result)


@pytest.mark.parametrize("case", CASES, ids=[case.name.replace(" ", "-") for case in CASES])
def test_every_subcommand_ends_with_a_result_or_an_error_and_changes_nothing(mailbox, case):
    case.make(mailbox)
    before = state(mailbox)
    results = run_all(mailbox)
    assert state(mailbox) == before
    codes = [finding["code"] for finding in json.loads(results.pop(("check", "--json")).stdout)["findings"]]
    assert (case.code in codes) if case.code else codes == []
    assert results.pop(("check",)).status == (1 if case.code else 0)
    for words, result in results.items():
        if case.usable:
            assert result.status in (0, 1) and result.stdout, (words, result)
        elif case.code != "db-damaged":
            assert_is_error(words, result)
            assert result.stderr.decode() == f"arspinfo: {case.message or MESSAGES[case.code]}\n", words
        else:  # a part may be readable
            assert result.status == 0 or (result.status == 1 and result.stderr), (words, result)
    if case.usable or case.code != "db-damaged":
        assert mailbox.path(EXPORT[1] + "/restore.sh").exists() == case.usable


def test_a_check_ends_when_the_database_is_too_large_to_be_copied(mailbox):
    sparse(keep=True)(mailbox)
    assert mailbox.info("list", "--noheadings", "-o", "mailname").stdout == f"{USER}\n".encode()
    for words in (("check",), EXPORT):
        result = mailbox.info(*words)
        assert_is_error(words, result)
        assert result.stderr.decode() == f"arspinfo: {DATABASE} is too large to be copied to memory\n"


@pytest.mark.unsanitized
@pytest.mark.parametrize(("words", "limit", "message"), [
    (("show", USER), 60_000_000, "std::bad_alloc"), (EXPORT, 60_000_000, f"cannot read {DATABASE}: out of memory"),
    (("check",), 60_000_000, f"cannot read {DATABASE}: out of memory"),
    (("check",), 40_000_000, f"cannot read {DATABASE}: out of memory")], ids=["show", "export", "check", "copy"])
def test_lack_of_memory_is_an_error(mailbox, words, limit, message):
    run_sql(mailbox, "UPDATE autoresponder SET body = zeroblob(40000000)")
    result = mailbox.info(*words, rlimits={resource.RLIMIT_AS: limit})
    assert_is_error(words, result)
    assert result.stderr.decode() == f"arspinfo: {message}\n"


@pytest.mark.shared
@pytest.mark.unsanitized
def test_lack_of_memory_for_a_connection_is_an_error(mailbox):
    result = mailbox.info("list", env=preload.environment(mailbox, ALLOCATION_FAILS="@libsqlite3"))
    assert_is_error(("list",), result)
    assert result.stderr.decode() == f"arspinfo: cannot read {DATABASE}: out of memory\n"


@pytest.mark.parametrize(("name", "kind", "words", "problem"), [
    ("respfreq", 0x02, ("list",), "it takes too long"),
    ("respfreq", 0x02, ("show", USER), "it has more rows than room"),
    ("extra_headers", 0x05, ("show", USER), "it has more rows than room")])
def test_reading_ends_where_a_tree_has_no_end(mailbox, name, kind, words, problem):
    pages_below_themselves(name, kind)(mailbox)
    result = mailbox.info(*words)
    assert_is_error(words, result)
    assert result.stderr.decode() == f"arspinfo: cannot read {DATABASE}: {problem}\n"


def test_reading_ends_where_an_index_leads_to_one_value_again_and_again(mailbox):
    run_sql(mailbox, "UPDATE autoresponder SET body = zeroblob(1000000)")
    number, page = page_of(mailbox, "mn")
    put_page(mailbox, number, page_with(0x0A, 0, only_cell(page), 600))
    result = mailbox.info(*EXPORT)
    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.decode().endswith(f"\narspinfo: cannot read {DATABASE}: it has more rows than room\n")


def test_a_locked_database_is_waited_for_only_some_seconds(mailbox):
    with contextlib.closing(mailbox.db()) as writer:
        writer.execute("BEGIN EXCLUSIVE")
        for words, result in run_all(mailbox).items():
            assert_is_error(words, result)
            assert result.stderr.endswith(b": database is locked\n")


def test_a_database_that_is_replaced_while_it_is_read_makes_no_crash(mailbox):
    content = mailbox.path(DATABASE).read_bytes()
    stopped = threading.Event()

    def replace_always():
        path, other = mailbox.path(DATABASE), mailbox.path(PLACE + "/other")
        for number in range(10**9):
            if stopped.is_set():
                return
            other.write_bytes(content if number % 2 else content[:5000])
            other.chmod(0o600)
            os.chown(other, *mailbox.popuser)
            other.rename(path)
            os.truncate(path, number % 3 * 9000)

    attacker = threading.Thread(target=replace_always)
    attacker.start()
    try:
        for _ in range(5):
            for words, result in run_all(mailbox).items():
                assert result.status in (0, 1, 2), (words, result)
    finally:
        stopped.set()
        attacker.join()
