"""--init-db: the new database, its directory, and the owners and modes of both."""

import contextlib
import shutil

import pytest
from harness import DONE, sqlite_shim
from harness.outcomes import outcome, owner_and_mode
from harness.sandbox import DATABASE
from harness.tracing import on_files

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

SCRIPT = ";".join(["BEGIN TRANSACTION", *(sql for *_, sql in SCHEMA), "COMMIT;"])

CRITICAL = 18  # in the mail facility
ROOTS_FILE = ("file", 0o600, 0, 0)
POPUSERS_FILE = ("file", 0o600, 1110, 31)
ROOTS_DIRECTORY = ("dir", 0o755, 0, 0)
POPUSERS_DIRECTORY = ("dir", 0o755, 1110, 0)


def schema(sandbox):
    return sandbox.rows("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid")


def fill(sandbox):
    with contextlib.closing(sandbox.db()) as db:
        db.execute("INSERT INTO autoresponder (mn, real_owner) VALUES ('a@example.org', 'a@example.org')")
        db.execute("INSERT INTO attachments VALUES ('a@example.org', 'file.txt')")
        db.execute("INSERT INTO resp_freq VALUES ('a@example.org', 'b@example.org', 1, 2)")
        db.execute("INSERT INTO extra_headers VALUES ('X-Header', 'value')")


def count(sandbox):
    return sandbox.rows("SELECT (SELECT count(*) FROM autoresponder), (SELECT count(*) FROM attachments),"
                        " (SELECT count(*) FROM resp_freq), (SELECT count(*) FROM extra_headers)")


# -- the new database


@pytest.mark.parametrize("umask, parent", [(0o000, 0o755), (0o022, 0o755), (0o027, 0o750), (0o077, 0o700)])
def test_umask_reduces_only_the_modes_of_the_directories_above(sandbox, umask, parent):
    assert sandbox.run("--init-db", umask=umask) == DONE

    assert schema(sandbox) == SCHEMA
    assert owner_and_mode(sandbox, "/var/lib/quarn/mail") == ("dir", parent, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == POPUSERS_DIRECTORY
    assert owner_and_mode(sandbox, DATABASE) == POPUSERS_FILE
    assert set(sandbox.tree(DIRECTORY)) == {".", "responder.db"}


def test_every_directory_of_the_path_is_made(sandbox):
    shutil.rmtree(sandbox.path("/var/lib"))

    assert sandbox.run("--init-db") == DONE

    for path in ("/var/lib", "/var/lib/quarn", "/var/lib/quarn/mail"):
        assert owner_and_mode(sandbox, path) == ROOTS_DIRECTORY
    assert owner_and_mode(sandbox, DIRECTORY) == POPUSERS_DIRECTORY


def test_existing_directories_above_keep_owner_and_mode_and_other_files_stay(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path("/var/lib/quarn/mail").chmod(0o1771)
    sandbox.path(DIRECTORY).chmod(0o700)
    sandbox.path(DIRECTORY + "/other").write_bytes(b"other")

    assert sandbox.run("--init-db") == DONE

    assert owner_and_mode(sandbox, "/var/lib/quarn/mail") == ("dir", 0o1771, 0, 0)
    assert owner_and_mode(sandbox, DIRECTORY) == POPUSERS_DIRECTORY
    assert sandbox.tree(DIRECTORY)["other"] == ("file", 0o644, 0, 0, b"other")


# -- an existing entry in its place


@pytest.mark.parametrize("content", [b"", b"this is no database\n" * 100])
def test_file_that_is_no_database_is_replaced(sandbox, content):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(content)

    assert sandbox.run("--init-db") == DONE

    assert schema(sandbox) == SCHEMA


def test_symbolic_link_is_replaced_and_its_target_stays(sandbox):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    sandbox.path("/tmp/precious").write_bytes(b"precious")
    sandbox.path(DATABASE).symlink_to("/tmp/precious")

    assert sandbox.run("--init-db") == DONE

    assert sandbox.path("/tmp/precious").read_bytes() == b"precious"
    assert schema(sandbox) == SCHEMA


def test_locked_database_is_replaced_by_an_empty_one_and_its_reader_keeps_the_old_one(sandbox):
    sandbox.init_db()
    fill(sandbox)
    assert count(sandbox) == [(1, 1, 1, 1)]
    with contextlib.closing(sandbox.db()) as old:
        old.execute("BEGIN EXCLUSIVE")

        assert sandbox.run("--init-db") == DONE

        assert old.execute("SELECT name, value FROM extra_headers").fetchall() == [("X-Header", "value")]
    assert schema(sandbox) == SCHEMA
    assert count(sandbox) == [(0, 0, 0, 0)]


def test_journal_of_the_old_database_does_not_change_the_new_one(sandbox):
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

    assert sandbox.run("--init-db") == DONE

    assert schema(sandbox) == SCHEMA
    assert count(sandbox) == [(0, 0, 0, 0)]
    assert sandbox.rows("PRAGMA integrity_check") == [("ok",)]


# -- the order of calls


def test_unlink_is_first_and_changes_of_owner_and_mode_are_last(sandbox, needs_tracing):
    result, calls = sandbox.trace("--init-db", calls="unlink,mkdir,openat,chown,lchown,fchown,fchownat,chmod,fchmod,"
                                                     "fchmodat")

    assert result == DONE
    seen = [(call.name, path.removeprefix("/var/lib/quarn/mail"),
             "" if call.name == "openat" else call.args_text.partition(", ")[2])
            for call, path in on_files(calls)
            if path.startswith("/var/lib/quarn") and (call.name != "openat" or "O_EXCL" in call.args_text)]
    assert seen == [
        ("unlink", "/autoresponder/responder.db", ""),
        ("mkdir", "", "0755"),
        ("mkdir", "/autoresponder", "0755"),
        ("openat", "/autoresponder/responder.db", ""),
        ("fchown", "/autoresponder/responder.db-journal", "0, 0"),  # by SQLite
        ("unlink", "/autoresponder/responder.db-journal", ""),
        ("fchown", "/autoresponder", "1110, 0"),
        ("fchmod", "/autoresponder", "0755"),
        ("fchown", "/autoresponder/responder.db", "1110, 31"),
        ("fchmod", "/autoresponder/responder.db", "0600"),
    ]


def test_file_after_a_deleted_one_is_made_exclusively(sandbox, needs_tracing):
    """Another file that takes the place in between is not opened."""
    sandbox.init_db()
    sandbox.conf("QUARN_MAILNAMES_D /srv/mail\n")  # so that no missing file leaves its errno

    result, calls = sandbox.trace("--init-db", calls="openat", paths=[DATABASE])

    assert result == DONE
    assert ["O_EXCL" in call.args_text for call in calls if "O_CREAT" in call.args_text][:1] == [True]


def test_one_connection_with_a_timeout_runs_the_script_and_is_closed(sandbox):
    assert sandbox.run("--init-db", env=sqlite_shim.environment(sandbox)) == DONE

    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}", "busy_timeout 50", f"exec {SCRIPT} = 0", "close = 0"]


# -- directories that cannot be made


def assert_directory_not_made(result, text, number):
    assert (result.status, result.stdout) == (1, b"")
    assert [(record.priority, record.text) for record in result.records] == [
        (CRITICAL, "Unable to create directories for autoresponders database "
                   f"(/var/lib/quarn/mail/autoresponder): {text} ({number})"),
        (CRITICAL, "Unable to create directory for autoresponders database "
                   f"for(/var/lib/quarn/mail/autoresponder/responder.db): {text}")]


@pytest.mark.parametrize("component", ["/var/lib/quarn", "/var/lib/quarn/mail", DIRECTORY])
def test_regular_file_in_the_path_is_two_critical_records(sandbox, component):
    shutil.rmtree(sandbox.path("/var/lib/quarn"))
    sandbox.path(component).parent.mkdir(parents=True, exist_ok=True)
    sandbox.path(component).write_bytes(b"file")

    assert_directory_not_made(sandbox.run("--init-db"), "Not a directory", 20)

    assert owner_and_mode(sandbox, component) == ("file", 0o644, 0, 0)


@pytest.mark.parametrize("error, text, number", [
    ("EROFS", "Read-only file system", 30), ("ENOSPC", "No space left on device", 28),
    ("EACCES", "Permission denied", 13)])
def test_failing_mkdir_is_two_critical_records_with_one_error(sandbox, needs_tracing, error, text, number):
    result, _ = sandbox.trace("--init-db", calls="mkdir", inject=[f"mkdir:error={error}"], paths=[DIRECTORY])

    assert_directory_not_made(result, text, number)
    assert sandbox.tree("/var/lib/quarn/mail") == {".": (*ROOTS_DIRECTORY, None)}


def test_other_users_cannot_make_directories(sandbox):
    shutil.rmtree(sandbox.path("/var/lib/quarn"))

    result = sandbox.execute("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                             "/usr/sbin/arspctl", "--init-db")

    assert_directory_not_made(result, "Permission denied", 13)


# -- a database that cannot be made


def test_directory_in_place_of_the_file(sandbox):
    sandbox.path(DATABASE).mkdir(parents=True)

    assert outcome(sandbox.run("--init-db")) == (
        1, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file")

    assert owner_and_mode(sandbox, DIRECTORY) == ROOTS_DIRECTORY


def test_no_handle_has_a_text_of_its_own(sandbox):
    result = sandbox.run("--init-db", env=sqlite_shim.environment(sandbox, "open"))

    assert outcome(result) == (
        1, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: general DB errror")
    assert sqlite_shim.calls(sandbox) == [f"open {DATABASE}"]
    assert sandbox.tree(DATABASE) == {".": (*ROOTS_FILE, b"")}


def test_database_that_could_not_be_unlinked_is_kept(sandbox, needs_tracing):
    sandbox.init_db()
    fill(sandbox)
    sandbox.path(DATABASE).chmod(0o640)

    result, calls = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert [call.error for call in calls] == ["EPERM"]
    assert outcome(result) == (1, "Unable to re-create autoresponders database: table attachments already exists")
    assert count(sandbox) == [(1, 1, 1, 1)]
    assert owner_and_mode(sandbox, DATABASE)[1] == 0o640


@pytest.mark.parametrize("umask", [0o000, 0o022])
@pytest.mark.parametrize("name, error, text", [("pwrite64", "ENOSPC", "database or disk is full"),
                                               ("pwrite64", "EIO", "disk I/O error"),
                                               ("f(data)?sync", "EIO", "disk I/O error")])
def test_disk_error_fails_the_script_and_leaves_the_file_to_root(sandbox, needs_tracing, name, error, text, umask):
    result, _ = sandbox.trace("--init-db", inject=[f"/^{name}$:error={error}"], paths=[DATABASE], umask=umask)

    assert outcome(result) == (1, "Unable to re-create autoresponders database: " + text)
    assert owner_and_mode(sandbox, DIRECTORY) == ROOTS_DIRECTORY
    assert owner_and_mode(sandbox, DATABASE) == ROOTS_FILE
    assert schema(sandbox) == []


def test_script_that_fails_without_a_text(sandbox):
    result = sandbox.run("--init-db", env=sqlite_shim.environment(sandbox, "exec"))

    assert outcome(result) == (1, "Unable to re-create autoresponders database")
    assert sqlite_shim.calls(sandbox)[-1] == "close = 0"


# -- owner and mode


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_without_popuser_the_database_is_made_and_stays_with_root(sandbox, umask):
    sandbox.popuser_exists(False)

    result = sandbox.run("--init-db", umask=umask)

    assert outcome(result) == (1, "Unable to get uid/gid for popuser: Success (0)")
    assert schema(sandbox) == SCHEMA
    assert owner_and_mode(sandbox, DIRECTORY) == ROOTS_DIRECTORY
    assert owner_and_mode(sandbox, DATABASE) == ROOTS_FILE


OF_DIRECTORY = "Unable to change owner/group of '/var/lib/quarn/mail/autoresponder' to 1110/0: "
OF_FILE = "Unable to change owner/group of '/var/lib/quarn/mail/autoresponder/responder.db' to 1110/31: "
MODE_OF_DIRECTORY = "Unable to change permissions of '/var/lib/quarn/mail/autoresponder' to 0755: "
MODE_OF_FILE = "Unable to change permissions of '/var/lib/quarn/mail/autoresponder/responder.db' to 0600: "


@pytest.mark.parametrize("inject, file, expected", [
    (["fchown:error=EPERM:when=1"], POPUSERS_FILE, [OF_DIRECTORY + "Operation not permitted (1)"]),
    (["fchown:error=EPERM:when=2"], ROOTS_FILE, [OF_FILE + "Operation not permitted (1)"]),
    (["fchmod:error=EROFS:when=1"], POPUSERS_FILE, [MODE_OF_DIRECTORY + "Read-only file system (30)"]),
    (["fchmod:error=EROFS:when=2"], POPUSERS_FILE, [MODE_OF_FILE + "Read-only file system (30)"]),
    (["fchown:error=EIO:when=1+", "fchmod:error=EPERM:when=1+"], ROOTS_FILE,
     [OF_DIRECTORY + "Input/output error (5)", MODE_OF_DIRECTORY + "Operation not permitted (1)",
      OF_FILE + "Input/output error (5)", MODE_OF_FILE + "Operation not permitted (1)"]),
])
def test_each_failed_chown_or_chmod_is_logged_and_the_others_still_made(sandbox, needs_tracing, inject, file, expected):
    result, calls = sandbox.trace("--init-db", calls="openat,fchown,fchmod", umask=0, inject=inject,
                                  paths=[DIRECTORY, DATABASE])  # in this order

    assert outcome(result) == (1, *expected)
    changes = [(call, path) for call, path in on_files(calls)
               if call.name != "openat" and path in (DIRECTORY, DATABASE)]
    assert [(call.name, path) for call, path in changes] == [
        ("fchown", DIRECTORY), ("fchmod", DIRECTORY), ("fchown", DATABASE), ("fchmod", DATABASE)]
    assert [call.error is not None for call, _ in changes].count(True) == len(expected)
    assert owner_and_mode(sandbox, DATABASE) == file
    assert schema(sandbox) == SCHEMA
