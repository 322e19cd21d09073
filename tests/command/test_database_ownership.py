"""--init-db works in a directory of the mail user's: its file is readable for others at no time, and only this file is
given to the mail user, whatever other processes do in the directory meanwhile."""

import contextlib
import os
import resource
import shutil
import stat

import pytest
from harness import Result
from harness.attackers import linker, opener, racing, replacer, stopped_after
from harness.mailboxes import error_texts, put_file, put_link
from harness.sandbox import DATABASE

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
JOURNAL = DATABASE + "-journal"
POPUSER = (1110, 31)
STRANGER = (4321, 4321)
NOBODY = (65534, 65534)
ROOT = (0, 0)
SHADOW = ("file", 0o640, 0, 42, b"root:*:19000:0:99999:7:::\n")
DONE = Result(0, b"", b"", [])


@pytest.fixture
def shadow(sandbox):
    """Root's /etc/shadow."""
    put_file(sandbox, "/etc/shadow", SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])


def owner_and_mode(sandbox, path):
    kind, mode, uid, gid, _ = sandbox.tree(path)["."]
    return kind, mode, uid, gid


def not_given_away(text):
    """The two records about a file that is not what --init-db made."""
    return [f"Unable to change owner/group of '{DATABASE}' to 1110/31: {text}",
            f"Unable to change permissions of '{DATABASE}' to 0600: {text}"]


CANNOT_OPEN = ("Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
               "unable to open database file")


@contextlib.contextmanager
def open_directory(sandbox, path):
    directory = os.open(sandbox.path(path), os.O_RDONLY | os.O_DIRECTORY)
    try:
        yield directory
    finally:
        os.close(directory)


# -- readable for others at no time


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_other_users_get_no_descriptor_of_the_first_database(sandbox, umask):
    names = ["mail/autoresponder/responder.db", "mail/autoresponder/responder.db-journal"]
    with open_directory(sandbox, "/var/lib/quarn") as directory, racing(NOBODY, opener(directory, *names)) as race:
        for _ in range(30):
            shutil.rmtree(sandbox.path("/var/lib/quarn/mail"), ignore_errors=True)
            assert sandbox.run("--init-db", umask=umask) == DONE

    assert race.won is None


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_other_users_get_no_descriptor_of_a_later_database(sandbox, umask):
    sandbox.init_db()
    names = ["responder.db", "responder.db-journal"]
    with open_directory(sandbox, DIRECTORY) as directory, racing(NOBODY, opener(directory, *names)) as race:
        for _ in range(30):
            assert sandbox.run("--init-db", umask=umask) == DONE

    assert race.won is None


def modes_given(calls, path, umask):
    """The modes that the traced calls give to the file `path`, in their order: at its making and after it."""
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


@pytest.mark.parametrize("umask", [0o000, 0o022])
@pytest.mark.parametrize("made_before", [False, True])
@pytest.mark.parametrize("path", [DATABASE, JOURNAL])
def test_database_and_journal_never_have_a_wider_mode_than_0600(sandbox, needs_tracing, path, made_before, umask):
    if made_before:
        sandbox.init_db()

    result, calls = sandbox.trace("--init-db", calls="umask,openat,chmod,fchmod", umask=umask)

    assert result == DONE
    modes = modes_given(calls, path, umask)
    assert modes != []
    assert [oct(mode) for mode in modes if mode & ~0o600] == []


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_failed_schema_leaves_the_file_to_root_alone(sandbox, umask):
    result = sandbox.run("--init-db", umask=umask, rlimits={resource.RLIMIT_FSIZE: 20_000})

    assert (result.status, error_texts(result)) == (
        1, ["Unable to re-create autoresponders database: disk I/O error"])
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


@pytest.mark.parametrize("umask", [0o000, 0o022])
def test_without_popuser_the_file_stays_with_root_alone(sandbox, umask):
    sandbox.popuser_exists(False)

    result = sandbox.run("--init-db", umask=umask)

    assert (result.status, error_texts(result)) == (1, ["Unable to get uid/gid for popuser: Success (0)"])
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


def test_failed_changes_of_owner_and_mode_leave_the_file_to_root_alone(sandbox, needs_tracing):
    result, _ = sandbox.trace("--init-db", umask=0, calls="chown,fchown,chmod,fchmod",
                              inject=["chown,fchown,chmod,fchmod:error=EPERM"])

    assert (result.status, len(error_texts(result))) == (1, 4)
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, 0, 0)


# -- something else in the place of the file


def plant_link(sandbox):
    """A link of the mail user's to /etc/shadow, in the directory of the database. Returns the path of root's file."""
    put_link(sandbox, DIRECTORY + "/planted", "/etc/shadow", POPUSER)
    return "/etc/shadow"


def plant_file(sandbox):
    """A file of root's in that directory, whose names the mail user can change."""
    put_file(sandbox, DIRECTORY + "/planted", SHADOW[4], owner=SHADOW[2:4], mode=SHADOW[1])
    return DIRECTORY + "/planted"


def put_in_place(sandbox):
    """What the mail user does at a moment of its choice."""
    sandbox.path(DIRECTORY + "/planted").rename(sandbox.path(DATABASE))


def assert_is_roots(file):
    state = os.fstat(file.fileno())
    assert ("file", stat.S_IMODE(state.st_mode), state.st_uid, state.st_gid, file.read()) == SHADOW


@pytest.mark.parametrize("plant", [plant_link, plant_file])
def test_file_of_roots_is_not_given_away_for_the_new_database(sandbox, shadow, plant):
    sandbox.init_db()
    with open_directory(sandbox, DIRECTORY) as directory, \
            racing(POPUSER, replacer(directory, "responder.db", "armed")) as race:
        for _ in range(30):
            sandbox.path(DATABASE).unlink(missing_ok=True)
            with sandbox.path(plant(sandbox)).open("rb") as file:
                sandbox.path(DIRECTORY + "/planted").rename(sandbox.path(DIRECTORY + "/armed"))
                sandbox.run("--init-db")
                assert_is_roots(file)

    assert race.won is None


@pytest.mark.parametrize(("plant", "text"), [(plant_link, "Too many levels of symbolic links (40)"),
                                             (plant_file, "Stale file handle (116)")])
def test_exchange_after_the_commit_fails_both_changes(sandbox, shadow, needs_tracing, plant, text):
    sandbox.init_db()
    with sandbox.path(plant(sandbox)).open("rb") as file:
        with stopped_after(sandbox, "unlink", JOURNAL, "--init-db") as running:
            put_in_place(sandbox)
        result = running.wait()

        assert (result.status, error_texts(result)) == (1, not_given_away(text))
        assert_is_roots(file)
    assert owner_and_mode(sandbox, DIRECTORY) == ("dir", 0o755, 1110, 0)


def test_link_to_nothing_after_the_commit_fails_both_changes_and_makes_no_file(sandbox, needs_tracing):
    sandbox.init_db()
    put_link(sandbox, DIRECTORY + "/planted", "/etc/cron.d", POPUSER)
    with stopped_after(sandbox, "unlink", JOURNAL, "--init-db") as running:
        put_in_place(sandbox)
    result = running.wait()

    assert (result.status, error_texts(result)) == (1, not_given_away("Too many levels of symbolic links (40)"))
    assert not sandbox.path("/etc/cron.d").exists()


def test_link_that_another_process_makes_first_leads_nowhere(sandbox):
    sandbox.init_db()
    before = sandbox.tree("/etc")
    with open_directory(sandbox, DIRECTORY) as directory, \
            racing(POPUSER, linker(directory, "responder.db", "/etc/nothing")) as race:
        for _ in range(30):
            sandbox.run("--init-db")
            assert sandbox.tree("/etc") == before

    assert race.won is None


@pytest.mark.parametrize("target", ["/etc/nothing", "/etc/empty", "/etc/shadow"])
def test_link_that_is_put_there_before_the_making_leads_nowhere(sandbox, shadow, needs_tracing, target):
    sandbox.init_db()
    put_file(sandbox, "/etc/empty", owner=ROOT, mode=0o644)
    before = sandbox.tree("/etc")
    put_link(sandbox, DIRECTORY + "/planted", target, POPUSER)
    with stopped_after(sandbox, "unlink", DATABASE, "--init-db") as running:
        put_in_place(sandbox)
    result = running.wait()

    assert (result.status, error_texts(result)) == (1, [CANNOT_OPEN])
    assert sandbox.tree("/etc") == before
    assert sandbox.path(DATABASE).is_symlink()


def test_file_that_is_put_there_before_the_making_is_not_given_away(sandbox, needs_tracing):
    sandbox.init_db()
    put_file(sandbox, DIRECTORY + "/planted", owner=ROOT, mode=0o644)
    with stopped_after(sandbox, "unlink", DATABASE, "--init-db") as running:
        put_in_place(sandbox)
    result = running.wait()

    assert (result.status, error_texts(result)) == (1, not_given_away("File exists (17)"))
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o644, 0, 0)


def test_old_file_that_cannot_be_unlinked_gets_schema_owner_and_mode(sandbox, needs_tracing):
    sandbox.path(DIRECTORY).mkdir(parents=True)
    put_file(sandbox, DATABASE, owner=STRANGER, mode=0o666)
    number = sandbox.path(DATABASE).stat().st_ino

    result, _ = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert result == DONE
    assert sandbox.path(DATABASE).stat().st_ino == number
    assert owner_and_mode(sandbox, DATABASE) == ("file", 0o600, *POPUSER)
    assert sandbox.rows("SELECT count(*) FROM autoresponder") == [(0,)]


@pytest.mark.parametrize("target", ["/etc/nothing", "/etc/empty"])
def test_link_that_cannot_be_unlinked_is_not_followed(sandbox, needs_tracing, target):
    sandbox.init_db()
    put_file(sandbox, "/etc/empty", owner=ROOT, mode=0o644)
    before = sandbox.tree("/etc")
    put_link(sandbox, DIRECTORY + "/planted", target, POPUSER)
    put_in_place(sandbox)

    result, _ = sandbox.trace("--init-db", calls="unlink", inject=["unlink:error=EPERM"], paths=[DATABASE])

    assert (result.status, error_texts(result)) == (1, [CANNOT_OPEN])
    assert sandbox.tree("/etc") == before
