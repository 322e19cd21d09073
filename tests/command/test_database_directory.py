"""The directory of the database belongs to the mail user: links, files and journals in it lead no command to other
files, and --init-db gives away only the file that it has made, which other users cannot read at any time."""

import contextlib
import shutil
import struct

import pytest
from harness import DONE
from harness.attackers import stopped_after
from harness.mailboxes import (ADD_NEW, DEL, DEL_RESP, POPUSER, ROOT, SET_EXTRA_HEADERS, SET_RESP, attachment_rows,
                               autoresponder_rows, make_directories, put_chain, put_file, put_link)
from harness.mailboxes import DIRECTORY as ATTACHMENTS
from harness.outcomes import outcome, owner_and_mode
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
JOURNAL = DATABASE + "-journal"
STRANGER = (4321, 4321)
SHADOW = ("file", 0o640, 0, 42, b"root:*:19000:0:99999:7:::\n")
TABLES = ["attachments", "autoresponder", "extra_headers", "resp_freq"]
CANNOT_OPEN = ("Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
               "unable to open database file")

each_command = pytest.mark.parametrize("args", [SET_RESP, ADD_NEW, DEL, SET_EXTRA_HEADERS, DEL_RESP],
                                       ids=lambda args: args[0])
each_umask = pytest.mark.parametrize("umask", [0o000, 0o022])


def put_shadow(sandbox, path="/etc/shadow"):
    """Writes a file of root's with the content and the mode of /etc/shadow."""
    put_file(sandbox, path, SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])


@pytest.fixture
def box(mailbox_with_attachment):
    """The mailbox with an attachment, and root's directory /srv."""
    make_directories(mailbox_with_attachment, "/srv", owner=ROOT, mode=0o755)
    return mailbox_with_attachment


def run(sandbox, args, **options):
    return sandbox.run(*args, stdin=b'{"X-New": "yes"}', **options)


def entry(sandbox, path):
    return sandbox.tree(path)["."]


def tables(sandbox):
    return [name for name, in sandbox.rows("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")]


# -- a database that a command makes


@each_command
def test_empty_database_that_a_command_makes_is_for_its_caller_only(sandbox, args):
    sandbox.path(DIRECTORY).mkdir(parents=True)

    assert run(sandbox, args, umask=0).status == 1

    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


def test_umask_of_the_caller_applies_to_the_attachment(box):
    box.path("/tmp/source").chmod(0o666)

    assert box.run(*ADD_NEW, umask=0o026) == DONE

    assert owner_and_mode(box, ATTACHMENTS + "/new.pdf") == ("file", 0o640, *POPUSER)


def modes_given(calls, path, umask):
    """The modes that the traced calls give to the file `path`, in their order: when it is created and afterwards."""
    descriptors, modes = set(), []
    for call in calls:
        words = call.args_text.split(", ")
        if call.error is not None:
            continue
        if call.name == "umask":
            umask = int(words[0], 8)
        elif call.name == "openat":
            (descriptors.add if call.strings[0] == path else descriptors.discard)(str(call.value))
            if call.strings[0] == path and "O_CREAT" in words[2]:
                modes.append(int(words[3], 8) & ~umask)
        elif call.name == "chmod" and call.strings[0] == path or call.name == "fchmod" and words[0] in descriptors:
            modes.append(int(words[1], 8))
    return modes


@each_umask
@pytest.mark.parametrize("made_before", [False, True])
def test_database_and_journal_never_have_a_wider_mode_than_0600(sandbox, needs_tracing, made_before, umask):
    if made_before:
        sandbox.init_db()

    result, calls = sandbox.trace("--init-db", calls="umask,openat,chmod,fchmod", umask=umask)

    assert result == DONE
    for path in (DATABASE, JOURNAL):
        modes = modes_given(calls, path, umask)
        assert modes != []
        assert [oct(mode) for mode in modes if mode & ~0o600] == []


# -- links in the place of the database


@pytest.mark.parametrize("owner", [POPUSER, STRANGER])
@pytest.mark.parametrize("target", ["../../../../../srv/database", "/srv/nothing"])
@each_command
def test_link_that_root_does_not_own_is_not_followed(box, args, target, owner):
    shutil.copy(box.path(DATABASE), box.path("/srv/database"))
    box.path(DATABASE).unlink()
    put_link(box, DATABASE, target, owner)
    before = [box.tree(path) for path in ("/srv", DIRECTORY, ATTACHMENTS)]

    assert outcome(run(box, args)) == (1, CANNOT_OPEN)

    assert [box.tree(path) for path in ("/srv", DIRECTORY, ATTACHMENTS)] == before


def assert_every_command_works(sandbox):
    for args in (SET_RESP, ADD_NEW, DEL, SET_EXTRA_HEADERS):
        assert run(sandbox, args) == DONE
    assert attachment_rows(sandbox) == [("user@example.org", "new.pdf")]
    assert sandbox.rows("SELECT name FROM extra_headers") == [("X-New",)]
    assert run(sandbox, DEL_RESP) == DONE
    assert (autoresponder_rows(sandbox), attachment_rows(sandbox)) == ([], [])


def move_behind_link_of_roots(box, text):
    """Moves the database to /srv/real.db; a link of root's with the target `text` takes its place."""
    box.path(DATABASE).rename(box.path("/srv/real.db"))
    put_link(box, DATABASE, text, ROOT)


def test_link_of_roots_is_followed_by_every_command(box):
    move_behind_link_of_roots(box, "../../../../../srv/real.db")

    assert_every_command_works(box)

    assert sorted(box.tree("/srv")) == [".", "real.db"]
    assert box.tree(DIRECTORY) == {".": ("dir", 0o755, 1110, 0, None),
                                   "responder.db": ("link", 0o777, 0, 0, "../../../../../srv/real.db")}


@pytest.mark.parametrize(("count", "ending"), [(40, (0,)), (41, (1, CANNOT_OPEN))])
def test_forty_links_of_roots_are_followed_and_no_more(box, count, ending):
    box.path(DATABASE).rename(box.path("/srv/real.db"))
    put_chain(box, DATABASE, count, "/srv/real.db")

    assert outcome(run(box, SET_RESP)) == ending


def test_directory_that_cannot_be_resolved_fails_the_open(box, needs_tracing):
    result, calls = box.trace(*SET_RESP, inject=["/stat:error=EIO"], paths=["/var/lib/quarn"])

    assert [call.injected for call in calls] == [True]
    assert outcome(result) == (1, CANNOT_OPEN)


def test_journal_is_beside_the_target_of_roots_link(box, needs_tracing):
    move_behind_link_of_roots(box, "/srv/real.db")

    result, calls = box.trace(*SET_RESP, calls="openat,unlink")

    assert result == DONE
    assert [(call.name, call.strings[0]) for call in calls if call.strings[0].endswith("-journal")] == [
        ("openat", "/srv/real.db-journal"), ("unlink", "/srv/real.db-journal")]


def test_link_of_roots_to_nothing_becomes_an_empty_file(box):
    box.path(DATABASE).unlink()
    put_link(box, DATABASE, "/srv/new.db", ROOT)

    assert run(box, SET_RESP).status == 1

    assert entry(box, "/srv/new.db") == ("file", 0o600, 0, 0, b"")


@pytest.mark.parametrize("owner", [ROOT, STRANGER])
@pytest.mark.parametrize("link", [DIRECTORY, "/var/lib/quarn/mail", "/var/lib/quarn"])
def test_links_above_the_database_are_followed(box, link, owner):
    box.path(link).rename(box.path("/srv/real"))
    put_link(box, link, "../" * (link.count("/") - 1) + "srv/real", owner)

    assert_every_command_works(box)
    assert box.run("--init-db") == DONE

    assert owner_and_mode(box, DATABASE) == ("file", 0o600, *POPUSER)
    assert tables(box) == TABLES


# -- entries that others put in the place of the database while --init-db runs


def not_given_away(text):
    """The two records about a file that --init-db has not made."""
    return (f"Unable to change owner/group of '{DATABASE}' to 1110/31: {text}",
            f"Unable to change permissions of '{DATABASE}' to 0600: {text}")


TOO_MANY_LINKS = not_given_away("Too many levels of symbolic links (40)")


@pytest.mark.parametrize(("unlinked", "target", "texts"), [
    (DATABASE, "/etc/nothing", [CANNOT_OPEN]), (DATABASE, "/etc/empty", [CANNOT_OPEN]),
    (DATABASE, "/etc/shadow", [CANNOT_OPEN]), (DATABASE, None, not_given_away("File exists (17)")),
    (JOURNAL, "/etc/nothing", TOO_MANY_LINKS), (JOURNAL, "/etc/shadow", TOO_MANY_LINKS),
    (JOURNAL, None, not_given_away("Stale file handle (116)")),
], ids=lambda value: str(value).rpartition("/")[2])
def test_entry_put_in_place_before_the_open_or_after_the_commit_is_not_given_away(
        sandbox, needs_tracing, unlinked, target, texts):
    """The unlinked file is that of the last call before the entry appears; without a target it is a file of root's."""
    sandbox.init_db()
    put_shadow(sandbox)
    put_file(sandbox, "/etc/empty", owner=ROOT, mode=0o644)
    before = sandbox.tree("/etc")
    if target is None:
        put_file(sandbox, DIRECTORY + "/planted", owner=ROOT, mode=0o644)
    else:
        put_link(sandbox, DIRECTORY + "/planted", target, POPUSER)
    planted = owner_and_mode(sandbox, DIRECTORY + "/planted")

    with stopped_after(sandbox, "unlink", unlinked, "--init-db") as running:
        sandbox.path(DIRECTORY + "/planted").rename(sandbox.path(DATABASE))

    assert outcome(running.wait()) == (1, *texts)
    assert sandbox.tree("/etc") == before
    assert owner_and_mode(sandbox, DATABASE) == planted


def test_database_unlinked_after_the_commit_is_not_given_away(sandbox, needs_tracing):
    with stopped_after(sandbox, "unlink", JOURNAL, "--init-db") as running:
        sandbox.path(DATABASE).unlink()

    assert outcome(running.wait()) == (1, *not_given_away("No such file or directory (2)"))


def test_old_file_that_cannot_be_unlinked_gets_schema_owner_and_mode(sandbox, needs_tracing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    put_file(sandbox, DATABASE, owner=STRANGER, mode=0o666)
    number = sandbox.path(DATABASE).stat().st_ino

    result, _ = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert result == DONE
    assert sandbox.path(DATABASE).stat().st_ino == number
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, *POPUSER)
    assert tables(sandbox) == TABLES


@pytest.mark.parametrize("target", ["/etc/nothing", "/etc/empty"])
def test_link_that_cannot_be_unlinked_is_not_followed(sandbox, needs_tracing, target):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    put_file(sandbox, "/etc/empty", owner=ROOT, mode=0o644)
    before = sandbox.tree("/etc")
    put_link(sandbox, DATABASE, target, POPUSER)

    result, _ = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert outcome(result) == (1, CANNOT_OPEN)
    assert sandbox.tree("/etc") == before


# -- journals that others put beside the database


def hot_journal(pages, super_journal):
    """A rollback journal that changes nothing in a database of so many pages, and names a super-journal: the file that
    SQLite deletes after it has played the journal back."""
    magic = bytes.fromhex("d9d505f920a163d7")
    header = magic + struct.pack(">IIIII", 0, 0, pages, 512, 4096)
    name = super_journal.encode()
    lock_page = struct.pack(">I", 0x40000000 // 4096 + 1)
    return header.ljust(512, b"\0") + lock_page + name + struct.pack(">II", len(name), sum(name)) + magic


def plant_journal(sandbox, super_journal, database=DATABASE):
    pages = sandbox.path(database).stat().st_size // 4096
    put_file(sandbox, database + "-journal", hot_journal(pages, super_journal))


@pytest.mark.parametrize("path", [
    "/etc/shadow", "/srv/real.db", "/srv/real.db-journal", "/srv/responder.db-journal", "/srv/responder.db-wal",
    DIRECTORY + "/other.db-journal", DIRECTORY + "/other.db-wal"])
def test_file_that_a_planted_journal_names_stays(box, path):
    put_shadow(box, path)
    plant_journal(box, path)

    assert run(box, SET_RESP) == DONE

    assert entry(box, path) == SHADOW
    assert not box.path(JOURNAL).exists()


@each_command
def test_planted_journal_is_played_back_once_and_the_command_works(box, args):
    put_shadow(box)
    plant_journal(box, "/etc/shadow")

    assert run(box, args) == DONE

    assert entry(box, "/etc/shadow") == SHADOW
    assert sorted(box.tree(DIRECTORY)) == [".", "responder.db"]
    assert (autoresponder_rows(box) == [], attachment_rows(box) == []) == (args == DEL_RESP, args in (DEL, DEL_RESP))
    assert_every_command_works(box)


def test_init_db_removes_a_planted_journal_and_nothing_else(sandbox):
    put_shadow(sandbox)
    sandbox.path(DIRECTORY).mkdir(parents=True)
    put_file(sandbox, JOURNAL, hot_journal(8, "/etc/shadow"))

    assert sandbox.run("--init-db") == DONE

    assert entry(sandbox, "/etc/shadow") == SHADOW
    assert sorted(sandbox.tree(DIRECTORY)) == [".", "responder.db"]
    assert tables(sandbox) == TABLES


def test_file_that_a_journal_planted_during_init_db_names_stays(box, needs_tracing):
    put_shadow(box)
    with stopped_after(box, "unlink", DATABASE, "--init-db") as running:
        put_file(box, DATABASE, b"x" * 4096)
        put_file(box, JOURNAL, hot_journal(1, "/etc/shadow"))

    assert running.wait().status == 1
    assert entry(box, "/etc/shadow") == SHADOW


def test_file_that_a_journal_beside_the_target_of_roots_link_names_stays(box):
    move_behind_link_of_roots(box, "../../../../../srv/real.db")
    put_shadow(box, JOURNAL)  # not a journal of this database
    plant_journal(box, JOURNAL, "/srv/real.db")

    assert run(box, SET_RESP) == DONE

    assert entry(box, JOURNAL) == SHADOW
    assert sorted(box.tree("/srv")) == [".", "real.db"]


def use_write_ahead_log(sandbox):
    with contextlib.closing(sandbox.db()) as connection:
        assert connection.execute("PRAGMA journal_mode = WAL").fetchall() == [("wal",)]


@pytest.mark.parametrize("wal", [False, True], ids=["journal", "wal"])
@pytest.mark.parametrize("suffix", ["-journal", "-wal", "-shm"])
@pytest.mark.parametrize("args", [("--init-db",), SET_RESP, ADD_NEW, DEL, SET_EXTRA_HEADERS, DEL_RESP],
                         ids=lambda args: args[0])
def test_link_beside_the_database_is_not_followed(box, args, suffix, wal):
    put_shadow(box)
    if wal:
        use_write_ahead_log(box)
    before = box.tree("/etc")
    used = (suffix != "-journal") == wal and args != ("--init-db",)
    for target in ("/etc/shadow", "/etc/nothing"):
        put_link(box, DATABASE + suffix, target, POPUSER)

        assert run(box, args).status in ((1,) if used else (0, 1))

        assert box.tree("/etc") == before
        box.path(DATABASE + suffix).unlink(missing_ok=True)


def test_write_ahead_log_is_removed_at_the_end(box):
    use_write_ahead_log(box)

    for args in (SET_RESP, ADD_NEW, DEL, SET_EXTRA_HEADERS, DEL_RESP):
        assert run(box, args) == DONE
        assert sorted(box.tree(DIRECTORY)) == [".", "responder.db"]
