"""--init-db: the database made from scratch, its directory, and who owns them."""

import contextlib
import re
import shutil

import pytest
from harness import sqlite_shim
from harness.descriptors import number_of_call, on_files
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"

SCHEMA = [
    ("table", "attachments", "attachments",
     "CREATE TABLE attachments (mn VARCHAR(255) NOT NULL,filename VARCHAR(255) NOT NULL)"),
    ("index", "attach", "attachments", "CREATE UNIQUE INDEX attach ON attachments(mn, filename)"),
    ("table", "autoresponder", "autoresponder",
     "CREATE TABLE autoresponder (mn VARCHAR(255) NOT NULL,keystr VARCHAR(255),"
     "key_where VARCHAR(10) NOT NULL DEFAULT 'no',subject VARCHAR(255),reply_to VARCHAR(255),forward_to VARCHAR(255),"
     "content_type VARCHAR(255) NOT NULL DEFAULT 'text/plain',charset VARCHAR(255) NOT NULL DEFAULT 'UTF-8',body TEXT,"
     "ans_freq INTEGER DEFAULT 10,ans_limit INTEGER DEFAULT 1000,real_owner VARCHAR(255) NOT NULL)"),
    ("index", "mn", "autoresponder", "CREATE UNIQUE INDEX mn ON autoresponder(mn)"),
    ("table", "resp_freq", "resp_freq",
     "CREATE TABLE resp_freq (mn VARCHAR(255) NOT NULL,email VARCHAR(255) NOT NULL,num INTEGER DEFAULT 0,"
     "time_resp INTEGER NOT NULL)"),
    ("index", "respfreq", "resp_freq", "CREATE UNIQUE INDEX respfreq on resp_freq (mn, email)"),
    ("table", "extra_headers", "extra_headers", "CREATE TABLE extra_headers (name TEXT NOT NULL,value TEXT NOT NULL)"),
]

SCRIPT = ("BEGIN TRANSACTION;CREATE TABLE attachments (mn VARCHAR(255) NOT NULL,filename VARCHAR(255) NOT NULL);"
          "CREATE UNIQUE INDEX attach ON attachments(mn, filename);"
          "CREATE TABLE autoresponder (mn VARCHAR(255) NOT NULL,keystr VARCHAR(255),"
          "key_where VARCHAR(10) NOT NULL DEFAULT 'no',subject VARCHAR(255),reply_to VARCHAR(255),"
          "forward_to VARCHAR(255),content_type VARCHAR(255) NOT NULL DEFAULT 'text/plain',"
          "charset VARCHAR(255) NOT NULL DEFAULT 'UTF-8',body TEXT,ans_freq INTEGER DEFAULT 10,"
          "ans_limit INTEGER DEFAULT 1000,real_owner VARCHAR(255) NOT NULL);"
          "CREATE UNIQUE INDEX mn ON autoresponder(mn);"
          "CREATE TABLE resp_freq (mn VARCHAR(255) NOT NULL,email VARCHAR(255) NOT NULL,num INTEGER DEFAULT 0,"
          "time_resp INTEGER NOT NULL);CREATE UNIQUE INDEX respfreq on resp_freq (mn, email);"
          "CREATE TABLE extra_headers (name TEXT NOT NULL,value TEXT NOT NULL);COMMIT;")

CANNOT_MAKE_DIRECTORY = ("Unable to create directory for autoresponders database "
                         "for(/var/lib/quarn/mail/autoresponder/responder.db): ")


def messages(result):
    return [(record.priority, record.text) for record in result.records]


def assert_made(result):
    assert (result.status, result.stdout, result.stderr, result.records) == (0, b"", b"", [])


def assert_failed(result, *expected):
    assert (result.status, result.stdout, messages(result)) == (1, b"", list(expected))


def schema(sandbox):
    return sandbox.rows("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid")


def owner_and_mode(sandbox, path):
    kind, mode, uid, gid, _ = sandbox.tree(path)["."]
    return kind, mode, uid, gid


def fill(sandbox):
    with contextlib.closing(sandbox.db()) as db:
        db.execute("INSERT INTO autoresponder (mn, real_owner) VALUES ('a@example.org', 'a@example.org')")
        db.execute("INSERT INTO attachments VALUES ('a@example.org', 'file.txt')")
        db.execute("INSERT INTO resp_freq VALUES ('a@example.org', 'b@example.org', 1, 2)")
        db.execute("INSERT INTO extra_headers VALUES ('X-Header', 'value')")


def count(sandbox):
    return sandbox.rows("SELECT (SELECT count(*) FROM autoresponder), (SELECT count(*) FROM attachments),"
                        " (SELECT count(*) FROM resp_freq), (SELECT count(*) FROM extra_headers)")


# -- what it makes


def test_makes_the_four_tables_and_three_indexes(sandbox):
    assert_made(sandbox.run("--init-db"))

    assert schema(sandbox) == SCHEMA


def test_makes_the_missing_directories_and_gives_the_last_one_and_the_file_to_popuser(sandbox):
    assert_made(sandbox.run("--init-db"))

    assert owner_and_mode(sandbox, "/var/lib/quarn/mail") == ("dir", 0o755, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 1110, 0)
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 1110, 31)
    assert set(sandbox.tree(DIRECTORY)) == {".", "responder.db"}


@pytest.mark.parametrize("umask, parent", [(0o000, 0o755), (0o022, 0o755), (0o027, 0o750), (0o077, 0o700)])
def test_umask_only_reduces_the_directories_above(sandbox, umask, parent):
    assert_made(sandbox.run("--init-db", umask=umask))

    assert owner_and_mode(sandbox, "/var/lib/quarn/mail") == ("dir", parent, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 1110, 0)
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 1110, 31)


def test_makes_every_directory_of_the_path(sandbox):
    shutil.rmtree(sandbox.path("/var/lib"))

    assert_made(sandbox.run("--init-db"))

    for path in ("/var/lib", "/var/lib/quarn", "/var/lib/quarn/mail"):
        assert owner_and_mode(sandbox, path) == ("dir", 0o755, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 1110, 0)


def test_existing_directories_above_keep_owner_and_mode(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path("/var/lib/quarn/mail").chmod(0o1771)
    sandbox.path(DIRECTORY).chmod(0o700)

    assert_made(sandbox.run("--init-db"))

    assert owner_and_mode(sandbox, "/var/lib/quarn/mail") == ("dir", 0o1771, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 1110, 0)


def test_other_files_in_the_directory_stay(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DIRECTORY + "/other").write_bytes(b"other")

    assert_made(sandbox.run("--init-db"))

    assert sandbox.tree(DIRECTORY)["other"] == ("file", 0o644, 0, 0, b"other")


# -- what it replaces


def test_replaces_an_existing_database_by_an_empty_one(sandbox):
    sandbox.init_db()
    fill(sandbox)
    assert count(sandbox) == [(1, 1, 1, 1)]

    assert_made(sandbox.run("--init-db"))

    assert schema(sandbox) == SCHEMA
    assert count(sandbox) == [(0, 0, 0, 0)]


@pytest.mark.parametrize("content", [b"", b"this is no database\n" * 100])
def test_replaces_a_file_that_is_no_database(sandbox, content):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(content)

    assert_made(sandbox.run("--init-db"))

    assert schema(sandbox) == SCHEMA


def test_replaces_a_symbolic_link_and_leaves_what_it_points_to(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path("/tmp/precious").write_bytes(b"precious")
    sandbox.path(DATABASE).symlink_to("/tmp/precious")

    assert_made(sandbox.run("--init-db"))

    assert sandbox.path("/tmp/precious").read_bytes() == b"precious"
    assert schema(sandbox) == SCHEMA


def test_takes_no_lock_on_the_old_file_which_its_reader_keeps(sandbox):
    sandbox.init_db()
    fill(sandbox)
    with contextlib.closing(sandbox.db()) as old:
        old.execute("BEGIN EXCLUSIVE")

        assert_made(sandbox.run("--init-db"))

        assert old.execute("SELECT name, value FROM extra_headers").fetchall() == [("X-Header", "value")]
    assert count(sandbox) == [(0, 0, 0, 0)]


def test_a_journal_of_the_old_file_does_not_come_back_into_the_new_one(sandbox):
    sandbox.init_db()
    fill(sandbox)
    with contextlib.closing(sandbox.db()) as crashed:
        crashed.execute("PRAGMA cache_size = 1")
        crashed.execute("PRAGMA cache_spill = 1")
        crashed.execute("BEGIN")
        crashed.executemany("INSERT INTO extra_headers VALUES (?, ?)", [("name", "v" * 3000)] * 100)
        journal = sandbox.path(DATABASE + "-journal").read_bytes()
    assert journal[:8] == bytes.fromhex("d9d505f920a163d7")
    sandbox.path(DATABASE + "-journal").write_bytes(journal)

    assert_made(sandbox.run("--init-db"))

    assert schema(sandbox) == SCHEMA
    assert count(sandbox) == [(0, 0, 0, 0)]
    assert sandbox.rows("PRAGMA integrity_check") == [("ok",)]


# -- in what order


def test_unlinks_first_and_gives_away_last(sandbox, needs_tracing):
    result, calls = sandbox.trace("--init-db", calls="unlink,mkdir,openat,chown,lchown,fchown,fchownat,chmod,fchmod,"
                                                     "fchmodat")

    assert_made(result)
    seen = [(call.name, path.removeprefix("/var/lib/quarn/mail"), call.args_text.partition(", ")[2])
            for call, path in on_files(calls)
            if path.startswith("/var/lib/quarn") and (call.name != "openat" or "O_EXCL" in call.args_text)]
    assert [(name, path) if name == "openat" else (name, path, words) for name, path, words in seen] == [
        ("unlink", "/autoresponder/responder.db", ""),
        ("mkdir", "", "0755"),
        ("mkdir", "/autoresponder", "0755"),
        ("openat", "/autoresponder/responder.db"),
        ("fchown", "/autoresponder/responder.db-journal", "0, 0"),  # by SQLite
        ("unlink", "/autoresponder/responder.db-journal", ""),
        ("fchown", "/autoresponder", "1110, 0"),
        ("fchmod", "/autoresponder", "0755"),
        ("fchown", "/autoresponder/responder.db", "1110, 31"),
        ("fchmod", "/autoresponder/responder.db", "0600"),
    ]


def test_works_on_one_connection_with_a_timeout_and_closes_it(sandbox):
    assert_made(sandbox.run("--init-db", env=sqlite_shim.environment(sandbox)))

    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}", "busy_timeout 50", f"exec {SCRIPT} = 0", "close = 0"]


# -- directories that cannot be made


@pytest.mark.parametrize("component", ["/var/lib/quarn", "/var/lib/quarn/mail", DIRECTORY])
def test_regular_file_in_the_path_is_two_critical_records(sandbox, component):
    shutil.rmtree(sandbox.path("/var/lib/quarn"))
    sandbox.path(component).parent.mkdir(parents=True, exist_ok=True)
    sandbox.path(component).write_bytes(b"file")

    result = sandbox.run("--init-db")

    assert_failed(
        result,
        (18, "Unable to create directories for autoresponders database (/var/lib/quarn/mail/autoresponder): "
             "Not a directory (20)"),
        (18, "Unable to create directory for autoresponders database "
             "for(/var/lib/quarn/mail/autoresponder/responder.db): Not a directory"))
    assert owner_and_mode(sandbox, component) == ("file", 0o644, 0, 0)


@pytest.mark.parametrize("error, text", [("EROFS", "Read-only file system (30)"),
                                         ("ENOSPC", "No space left on device (28)"),
                                         ("EACCES", "Permission denied (13)")])
def test_failing_mkdir_is_two_critical_records_with_one_error(sandbox, needs_tracing, error, text):
    result, _ = sandbox.trace("--init-db", calls="mkdir", inject=[f"mkdir:error={error}"], paths=[DIRECTORY])

    assert_failed(
        result,
        (18, f"Unable to create directories for autoresponders database (/var/lib/quarn/mail/autoresponder): {text}"),
        (18, CANNOT_MAKE_DIRECTORY + text.rpartition(" ")[0]))
    assert sandbox.tree("/var/lib/quarn/mail") == {".": ("dir", 0o755, 0, 0, None)}


def test_another_user_may_not_make_directories(sandbox):
    shutil.rmtree(sandbox.path("/var/lib/quarn"))

    result = sandbox.execute("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                             "/usr/sbin/arspctl", "--init-db")

    assert_failed(
        result,
        (18, "Unable to create directories for autoresponders database (/var/lib/quarn/mail/autoresponder): "
             "Permission denied (13)"),
        (18, "Unable to create directory for autoresponders database "
             "for(/var/lib/quarn/mail/autoresponder/responder.db): Permission denied"))


# -- a file that cannot be made


def test_directory_in_place_of_the_file(sandbox):
    sandbox.path(DATABASE).mkdir(parents=True)

    result = sandbox.run("--init-db")

    assert_failed(result, (19, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                               "unable to open database file"))
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 0, 0)


def test_no_handle_has_a_text_of_its_own(sandbox):
    result = sandbox.run("--init-db", env=sqlite_shim.environment(sandbox, "open"))

    assert_failed(result, (19, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                               "general DB errror"))
    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}"]
    assert sandbox.tree(DIRECTORY)["responder.db"] == ("file", 0o600, 0, 0, b"")


def test_failed_unlink_is_ignored(sandbox, needs_tracing):
    result, calls = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EACCES"], paths=[DATABASE])

    assert_made(result)
    assert [call.error for call in calls] == ["EACCES"]
    assert schema(sandbox) == SCHEMA


def test_database_that_could_not_be_unlinked_is_kept(sandbox, needs_tracing):
    sandbox.init_db()
    fill(sandbox)
    sandbox.path(DATABASE).chmod(0o640)

    result, _ = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert_failed(result, (19, "Unable to re-create autoresponders database: table attachments already exists"))
    assert count(sandbox) == [(1, 1, 1, 1)]
    assert owner_and_mode(sandbox, DATABASE)[1] == 0o640


@pytest.mark.parametrize("name, error, text", [("pwrite64", "ENOSPC", "database or disk is full"),
                                               ("pwrite64", "EIO", "disk I/O error"),
                                               ("f(data)?sync", "EIO", "disk I/O error")])
def test_disk_that_takes_no_more_fails_the_script(sandbox, needs_tracing, name, error, text):
    _, calls = sandbox.trace("--init-db", calls="openat,/^" + name)
    call = next(call.name for call in calls if re.fullmatch(name, call.name))
    number = number_of_call(calls, call, DATABASE)
    shutil.rmtree(sandbox.path("/var/lib/quarn/mail"))

    result, _ = sandbox.trace("--init-db", calls=call, inject=[f"{call}:error={error}:when={number}+"])

    assert_failed(result, (19, "Unable to re-create autoresponders database: " + text))
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 0, 0)
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)
    assert schema(sandbox) == []


def test_script_that_fails_without_a_text(sandbox):
    result = sandbox.run("--init-db", env=sqlite_shim.environment(sandbox, "exec"))

    assert_failed(result, (19, "Unable to re-create autoresponders database"))
    assert sqlite_shim.calls(sandbox)[-1] == "close = 0"


# -- owner and mode


def test_without_popuser_the_database_is_made_all_the_same(sandbox):
    sandbox.popuser_exists(False)

    result = sandbox.run("--init-db")

    assert_failed(result, (19, "Unable to get uid/gid for popuser: Success (0)"))
    assert schema(sandbox) == SCHEMA
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 0, 0)
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


OF_DIRECTORY = "Unable to change owner/group of '/var/lib/quarn/mail/autoresponder' to 1110/0: "
OF_FILE = "Unable to change owner/group of '/var/lib/quarn/mail/autoresponder/responder.db' to 1110/31: "
MODE_OF_DIRECTORY = "Unable to change permissions of '/var/lib/quarn/mail/autoresponder' to 0755: "
MODE_OF_FILE = "Unable to change permissions of '/var/lib/quarn/mail/autoresponder/responder.db' to 0600: "


@pytest.mark.parametrize("inject, expected", [
    (["fchown:error=EPERM:when={directory}"], [OF_DIRECTORY + "Operation not permitted (1)"]),
    (["fchown:error=EPERM:when={file}"], [OF_FILE + "Operation not permitted (1)"]),
    (["fchmod:error=EROFS:when={directory}"], [MODE_OF_DIRECTORY + "Read-only file system (30)"]),
    (["fchmod:error=EROFS:when={file}"], [MODE_OF_FILE + "Read-only file system (30)"]),
    (["fchown:error=EIO:when={directory}+", "fchmod:error=EPERM:when={directory}+"],
     [OF_DIRECTORY + "Input/output error (5)", MODE_OF_DIRECTORY + "Operation not permitted (1)",
      OF_FILE + "Input/output error (5)", MODE_OF_FILE + "Operation not permitted (1)"]),
])
def test_each_failed_chown_or_chmod_is_logged_and_the_others_still_made(sandbox, needs_tracing, inject, expected):
    _, calls = sandbox.trace("--init-db", calls="openat,fchown,fchmod")
    shutil.rmtree(sandbox.path("/var/lib/quarn/mail"))

    def numbered(fault):
        name = fault.partition(":")[0]
        return fault.format(directory=number_of_call(calls, name, DIRECTORY),
                            file=number_of_call(calls, name, DATABASE))

    result, calls = sandbox.trace("--init-db", calls="openat,fchown,fchmod",
                                  inject=[numbered(fault) for fault in inject])

    assert_failed(result, *[(19, text) for text in expected])
    changes = [(call, path) for call, path in on_files(calls)
               if call.name != "openat" and path in (DIRECTORY, DATABASE)]
    assert [(call.name, path) for call, path in changes] == [
        ("fchown", DIRECTORY), ("fchmod", DIRECTORY), ("fchown", DATABASE), ("fchmod", DATABASE)]
    assert [call.error is not None for call, _ in changes].count(True) == len(expected)
    assert schema(sandbox) == SCHEMA
