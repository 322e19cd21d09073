"""The directory of the database belongs to the mail user: links and journals in it lead no command to other files."""

import contextlib
import shutil
import struct

import pytest
from harness import Result
from harness.attackers import stopped_after
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows, error_texts,
                               make_directories, put_file, put_link)
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
JOURNAL = DATABASE + "-journal"
ATTACHMENTS = "/var/qmail/mailnames/example.org/user/@attachments"
POPUSER = (1110, 31)
STRANGER = (4321, 4321)
ROOT = (0, 0)
SHADOW = ("file", 0o640, 0, 42, b"root:*:19000:0:99999:7:::\n")
DONE = Result(0, b"", b"", [])

MAILBOX = ("--mailname", "user@example.org")
COMMANDS = {
    "set-resp": ("--set-resp", *MAILBOX, "--real-owner", "user@example.org"),
    "del-resp": ("--del-resp", *MAILBOX),
    "add-attach": ("--add-attach", *MAILBOX, "--filename", "new.pdf", "--source", "/tmp/source"),
    "del-attach": ("--del-attach", *MAILBOX, "--filename", "report.pdf"),
    "set-extra-headers": ("--set-extra-headers",),
}
INPUT = b'{"X-New": "yes"}'

CANNOT_OPEN = ("Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
               "unable to open database file")

each_command = pytest.mark.parametrize("command", COMMANDS)


@pytest.fixture
def shadow(sandbox):
    """Root's /etc/shadow."""
    put_file(sandbox, "/etc/shadow", SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])


@pytest.fixture
def mailbox(sandbox, shadow):
    """A root with the autoresponder user@example.org and its attachment report.pdf."""
    sandbox.init_db()
    fill(sandbox)
    return sandbox


def fill(sandbox):
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, ATTACHMENTS)
    put_file(sandbox, ATTACHMENTS + "/report.pdf", b"the report")
    put_file(sandbox, "/tmp/source", b"a new one")


def run(sandbox, command, **options):
    return sandbox.run(*COMMANDS[command], stdin=INPUT, **options)


def entry(sandbox, path):
    return sandbox.tree(path)["."]


def owner_and_mode(sandbox, path):
    kind, mode, uid, gid, _ = entry(sandbox, path)
    return kind, mode, uid, gid


def tables(sandbox):
    return [name for name, in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")]


TABLES = ["attachments", "autoresponder", "extra_headers", "resp_freq"]


# -- a database that a command makes


@each_command
def test_empty_database_that_a_command_makes_is_for_its_caller_only(sandbox, command):
    sandbox.path(DIRECTORY).mkdir(parents=True)

    assert run(sandbox, command, umask=0).status == 1

    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


def test_umask_of_the_caller_holds_for_the_attachment(mailbox):
    mailbox.path("/tmp/source").chmod(0o666)

    assert mailbox.run(*COMMANDS["add-attach"], umask=0o026) == DONE

    assert owner_and_mode(mailbox, ATTACHMENTS + "/new.pdf") == ("file", 0o640, *POPUSER)


# -- links in the place of the database


@pytest.mark.parametrize("owner", [POPUSER, STRANGER])
@pytest.mark.parametrize("target", ["../../../../../srv/database", "/srv/nothing"])
@each_command
def test_link_that_root_does_not_own_is_not_followed(mailbox, command, target, owner):
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    shutil.copy(mailbox.path(DATABASE), mailbox.path("/srv/database"))
    mailbox.path(DATABASE).unlink()
    put_link(mailbox, DATABASE, target, owner)
    before = mailbox.tree("/srv"), mailbox.tree(DIRECTORY), mailbox.tree(ATTACHMENTS)

    result = run(mailbox, command)

    assert (result.status, result.stdout, error_texts(result)) == (1, b"", [CANNOT_OPEN])
    assert (mailbox.tree("/srv"), mailbox.tree(DIRECTORY), mailbox.tree(ATTACHMENTS)) == before


def assert_every_command_works(sandbox):
    for command in ("set-resp", "add-attach", "del-attach", "set-extra-headers"):
        assert run(sandbox, command) == DONE
    assert attachment_rows(sandbox) == [("user@example.org", "new.pdf")]
    assert sandbox.rows("SELECT name FROM extra_headers") == [("X-New",)]
    assert run(sandbox, "del-resp") == DONE
    assert (autoresponder_rows(sandbox), attachment_rows(sandbox)) == ([], [])


def test_link_of_roots_is_followed_by_every_command(mailbox):
    make_directories(mailbox, "/srv")
    mailbox.path(DATABASE).rename(mailbox.path("/srv/real.db"))
    put_link(mailbox, DATABASE, "../../../../../srv/real.db", ROOT)

    assert_every_command_works(mailbox)

    assert sorted(mailbox.tree("/srv")) == [".", "real.db"]
    assert mailbox.tree(DIRECTORY) == {".": ("dir", 0o755, 1110, 0, None),
                                       "responder.db": ("link", 0o777, 0, 0, "../../../../../srv/real.db")}


def test_journal_is_beside_the_target_of_roots_link(mailbox, needs_tracing):
    make_directories(mailbox, "/srv")
    mailbox.path(DATABASE).rename(mailbox.path("/srv/real.db"))
    put_link(mailbox, DATABASE, "/srv/real.db", ROOT)

    result, calls = mailbox.trace(*COMMANDS["set-resp"], calls="openat,unlink")

    assert result == DONE
    assert [(call.name, call.strings[0]) for call in calls if call.strings[0].endswith("-journal")] == [
        ("openat", "/srv/real.db-journal"), ("unlink", "/srv/real.db-journal")]


def test_link_of_roots_to_nothing_becomes_an_empty_file(mailbox):
    make_directories(mailbox, "/srv")
    mailbox.path(DATABASE).unlink()
    put_link(mailbox, DATABASE, "/srv/new.db", ROOT)

    assert run(mailbox, "set-resp").status == 1

    assert entry(mailbox, "/srv/new.db") == ("file", 0o600, 0, 0, b"")


@pytest.mark.parametrize("owner", [ROOT, STRANGER])
@pytest.mark.parametrize("link", [DIRECTORY, "/var/lib/quarn/mail", "/var/lib/quarn"])
def test_links_above_the_database_are_followed(mailbox, link, owner):
    mailbox.path("/srv").mkdir()
    mailbox.path(link).rename(mailbox.path("/srv/real"))
    up = "../" * (link.count("/") - 1)
    put_link(mailbox, link, up + "srv/real", owner)

    assert_every_command_works(mailbox)
    assert mailbox.run("--init-db") == DONE

    assert owner_and_mode(mailbox, DATABASE) == ("file", 0o600, *POPUSER)
    assert tables(mailbox) == TABLES


# -- journals that others put beside the database


def hot_journal(pages, super_journal):
    """A rollback journal that changes nothing in a database of so many pages, and names a super-journal: the file that
    SQLite deletes when it has played the journal back."""
    magic = bytes.fromhex("d9d505f920a163d7")
    header = magic + struct.pack(">IIIII", 0, 0, pages, 512, 4096)
    name = super_journal.encode()
    lock_page = struct.pack(">I", 0x40000000 // 4096 + 1)
    return header.ljust(512, b"\0") + lock_page + name + struct.pack(">II", len(name), sum(name)) + magic


def plant_journal(sandbox, super_journal, database=DATABASE):
    pages = sandbox.path(database).stat().st_size // 4096
    put_file(sandbox, database + "-journal", hot_journal(pages, super_journal))


VICTIMS = ["/etc/shadow", "/srv/real.db", "/srv/real.db-journal", "/srv/responder.db-journal", "/srv/responder.db-wal",
           DIRECTORY + "/other.db-journal", DIRECTORY + "/other.db-wal"]


@pytest.mark.parametrize("path", VICTIMS)
def test_file_that_a_planted_journal_names_stays(mailbox, path):
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, path, SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])
    plant_journal(mailbox, path)

    assert run(mailbox, "set-resp") == DONE

    assert entry(mailbox, path) == SHADOW
    assert not mailbox.path(JOURNAL).exists()


@each_command
def test_planted_journal_is_played_back_once_and_the_command_works(mailbox, command):
    plant_journal(mailbox, "/etc/shadow")

    assert run(mailbox, command) == DONE

    assert entry(mailbox, "/etc/shadow") == SHADOW
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "responder.db"]
    if command == "del-resp":
        assert (autoresponder_rows(mailbox), attachment_rows(mailbox)) == ([], [])
        fill(mailbox)
    assert_every_command_works(mailbox)


def test_init_db_removes_a_planted_journal_and_nothing_else(sandbox, shadow):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    put_file(sandbox, JOURNAL, hot_journal(8, "/etc/shadow"))

    assert sandbox.run("--init-db") == DONE

    assert entry(sandbox, "/etc/shadow") == SHADOW
    assert sorted(sandbox.tree(DIRECTORY)) == [".", "responder.db"]
    assert tables(sandbox) == TABLES


def test_file_that_a_journal_planted_during_init_db_names_stays(mailbox, needs_tracing):
    with stopped_after(mailbox, "unlink", DATABASE, "--init-db") as running:
        put_file(mailbox, DATABASE, b"x" * 4096)
        put_file(mailbox, JOURNAL, hot_journal(1, "/etc/shadow"))

    assert running.wait().status == 1
    assert entry(mailbox, "/etc/shadow") == SHADOW


def test_file_that_a_journal_beside_the_target_of_roots_link_names_stays(mailbox):
    make_directories(mailbox, "/srv")
    mailbox.path(DATABASE).rename(mailbox.path("/srv/real.db"))
    put_link(mailbox, DATABASE, "../../../../../srv/real.db", ROOT)
    put_file(mailbox, JOURNAL, SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])  # not this database's own
    plant_journal(mailbox, JOURNAL, "/srv/real.db")

    assert run(mailbox, "set-resp") == DONE

    assert entry(mailbox, JOURNAL) == SHADOW
    assert sorted(mailbox.tree("/srv")) == [".", "real.db"]


def use_write_ahead_log(sandbox):
    with contextlib.closing(sandbox.db()) as connection:
        assert connection.execute("PRAGMA journal_mode = WAL").fetchall() == [("wal",)]


@pytest.mark.parametrize("target", ["/etc/shadow", "/etc/nothing"])
@pytest.mark.parametrize("suffix", ["-journal", "-wal", "-shm"])
def test_link_beside_the_database_is_not_followed(mailbox, suffix, target):
    if suffix != "-journal":
        use_write_ahead_log(mailbox)
    put_link(mailbox, DATABASE + suffix, target, POPUSER)
    before = mailbox.tree("/etc")

    assert run(mailbox, "set-resp").status == 1

    assert mailbox.tree("/etc") == before


def test_write_ahead_log_is_removed_at_the_end(mailbox):
    use_write_ahead_log(mailbox)

    for command in ("set-resp", "add-attach", "del-attach", "set-extra-headers", "del-resp"):
        assert run(mailbox, command) == DONE
        assert sorted(mailbox.tree(DIRECTORY)) == [".", "responder.db"]
