"""The mail user changes the mail tree while the tool works in it as root: nothing outside the tree is made, emptied or
given away. One race remains by design: `cp` follows a name that was exchanged after the check."""

import contextlib
import os
import select
import shutil

import pytest
from harness.attackers import attacked_runs, exchange, stopped_after
from harness.mailboxes import (ADD, DEL, DEL_RESP, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILBOX, POPUSER, ROOT, STRANGER,
                               attachment_rows, copying_from_pipe, error_texts, make_directories, put_file, put_link,
                               run_sql)
from harness.outcomes import not_moved, outcome
from harness.sandbox import PIPE_ROOM
from harness.waiting import until

each_command = pytest.mark.parametrize("args", [ADD, DEL, DEL_RESP], ids=lambda args: args[0])


def name_of(path):
    return path.rpartition("/")[2]


def begin(mailbox):
    """Undoes what an earlier attack and its run have changed: empties /srv and the mail tree, and restores the row."""
    for place in ("/srv", MAIL_TREE):
        path = mailbox.path(place)
        path.mkdir(mode=0o755, exist_ok=True)
        for entry in path.iterdir():
            if entry.is_dir() and not entry.is_symlink():
                shutil.rmtree(entry)
            else:
                entry.unlink()
    run_sql(mailbox, "PRAGMA synchronous = OFF;"
                     "REPLACE INTO autoresponder (mn, real_owner) VALUES ('user@example.org', 'user@example.org')")


def put_foreign_mailbox(mailbox):
    """Makes the target of the attacks: directories of root's in /srv/foreign, with the names of a mailbox in them."""
    for link in (DOMAIN, MAILBOX, DIRECTORY):
        below = f"/srv/foreign/{name_of(link)}{DIRECTORY.removeprefix(link)}"
        make_directories(mailbox, below, owner=ROOT, mode=0o755)
        put_file(mailbox, below + "/report.pdf", b"precious", owner=ROOT)


def without_copies(tree):
    """Kinds, modes and owners in `tree`, without the files of root's: `cp` may have made or written them."""
    return {name: entry[:4] for name, entry in tree.items() if entry[0] != "file" or entry[2:4] != ROOT}


def assert_leads_nowhere_else(mailbox, args, prepare, attack):
    """Attacks runs with `args` at each moment, each in a mailbox of its own with a foreign mailbox beside it, which
    must stay unchanged."""
    def prepare_all():
        begin(mailbox)
        put_foreign_mailbox(mailbox)
        prepare()

    prepare_all()
    visible = without_copies if args == ADD else dict
    foreign = visible(mailbox.tree("/srv/foreign"))
    for result in attacked_runs(mailbox, args, prepare_all, attack):
        assert result.status in (0, 1)
        assert visible(mailbox.tree("/srv/foreign")) == foreign, result
    assert result.status == 0, "the last run, which was not attacked"


# -- a name that changes between two system calls


@each_command
@pytest.mark.parametrize(("link", "other_owner"), [(DOMAIN, POPUSER), (MAILBOX, ROOT), (DIRECTORY, POPUSER)])
def test_link_of_roots_exchanged_for_another_at_any_moment_leads_nowhere_else(mailbox, needs_tracing, args, link,
                                                                                 other_owner):
    def prepare():
        make_directories(mailbox, "/srv/mail" + DIRECTORY.removeprefix(link))
        make_directories(mailbox, link.rpartition("/")[0])
        put_link(mailbox, link, "/srv/mail", ROOT)
        put_link(mailbox, link + ".evil", "/srv/foreign/" + name_of(link), other_owner)

    assert_leads_nowhere_else(mailbox, args, prepare, lambda: exchange(mailbox, link, link + ".evil"))


@each_command
def test_link_exchanged_at_any_moment_in_the_path_of_another_leads_nowhere_else(mailbox, needs_tracing, args):
    def prepare():
        make_directories(mailbox, "/srv/mail" + DIRECTORY.removeprefix(DOMAIN))
        make_directories(mailbox, "/srv/www", owner=STRANGER, mode=0o755)
        put_link(mailbox, "/srv/www/current", "/srv/mail", ROOT)
        put_link(mailbox, "/srv/www/evil", "/srv/foreign/example.org", STRANGER)
        put_link(mailbox, DOMAIN, "/srv/www/current", ROOT)

    assert_leads_nowhere_else(mailbox, args, prepare, lambda: exchange(mailbox, "/srv/www/current", "/srv/www/evil"))


@each_command
@pytest.mark.parametrize("directory", [MAILBOX, DIRECTORY])
def test_directory_exchanged_for_a_link_at_any_moment_leads_nowhere_else(mailbox, needs_tracing, args, directory):
    def prepare():
        make_directories(mailbox, DIRECTORY)
        put_file(mailbox, FILE, b"older")
        put_link(mailbox, directory + ".evil", "/srv/foreign/" + name_of(directory), POPUSER)

    assert_leads_nowhere_else(mailbox, args, prepare, lambda: exchange(mailbox, directory, directory + ".evil"))


@pytest.mark.parametrize(("directory", "target"), [
    (DOMAIN, "/srv/foreign/example.org"), (MAILBOX, "/srv/foreign/empty"), (DIRECTORY, "/srv/foreign/@attachments"),
    (DIRECTORY, "/srv/foreign/empty")])
def test_new_directory_exchanged_for_a_link_at_any_moment_gives_nothing_away(mailbox, needs_tracing, directory, target):
    """The attacker waits for the directory, and puts a link in its place before the tool changes its owner."""

    def prepare():
        make_directories(mailbox, "/srv/foreign/empty", owner=ROOT)
        mailbox.path(MAIL_TREE).chmod(0o777)  # lets the mail user rename the domain's directory as well

    def attack():
        with contextlib.suppress(FileNotFoundError):
            mailbox.path(directory).rename(mailbox.path(directory + ".old"))
        with contextlib.suppress(FileNotFoundError):
            put_link(mailbox, directory, target, POPUSER)

    assert_leads_nowhere_else(mailbox, ADD, prepare, attack)


@pytest.mark.parametrize("directory", [DOMAIN, MAILBOX, DIRECTORY])
def test_new_directory_exchanged_for_one_of_roots_at_any_moment_gives_nothing_away(mailbox, needs_tracing, directory):
    """The mail user can rename a directory of root's in its own directory, but cannot read it."""

    def prepare():
        begin(mailbox)
        mailbox.path(MAIL_TREE).chmod(0o777)
        make_directories(mailbox, directory.rpartition("/")[0])
        make_directories(mailbox, directory + ".roots", owner=ROOT)
        put_file(mailbox, directory + ".roots/secret", b"precious", owner=ROOT)

    def attack():
        if mailbox.path(directory).exists():
            exchange(mailbox, directory, directory + ".roots")

    for result in attacked_runs(mailbox, ADD, prepare, attack):
        assert result.status in (0, 1)
        tree = mailbox.tree(MAIL_TREE)
        (secret,) = [name for name in tree if name.endswith("/secret")]
        assert tree[os.path.dirname(secret)][2:4] == ROOT, result
    assert result.status == 0, "the last run, which was not attacked"


# -- the owner of the copy


def swap_for_link(mailbox, path):
    """Puts a link to root's directory or file of the same name in the place of `path`."""
    mailbox.path(path).rename(mailbox.path(path + ".old"))
    put_link(mailbox, path, "/srv/foreign/" + name_of(path), POPUSER)


@pytest.fixture
def replaced(mailbox):
    """The mailbox with an attachment report.pdf, and a foreign tree with files of the same names."""
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"older")
    put_foreign_mailbox(mailbox)
    put_file(mailbox, "/srv/foreign/report.pdf", b"precious", owner=ROOT)
    return mailbox


def assert_not_given_away(mailbox, result, foreign):
    assert mailbox.tree("/srv/foreign") == foreign
    assert outcome(result) == (1, "Unable to change owner for /var/qmail/mailnames/example.org/user/@attachments/"
                                  "report.pdf: Too many levels of symbolic links")
    assert attachment_rows(mailbox) == []


each_name = pytest.mark.parametrize("path", [DOMAIN, MAILBOX, DIRECTORY, FILE])


@each_name
def test_name_swapped_while_the_source_is_read_gives_nothing_away(replaced, path):
    foreign = replaced.tree("/srv/foreign")
    options = {"mailname": "user@example.org", "filename": "report.pdf"}

    with copying_from_pipe(replaced, "/tmp/pipe", b"new", **options) as running:
        until(lambda: replaced.path(FILE).stat().st_size == 0, "the copy has opened its file")
        swap_for_link(replaced, path)

    assert_not_given_away(replaced, running.wait(), foreign)


@each_name
def test_name_swapped_while_a_named_pipe_holds_the_copy_gives_nothing_away(replaced, path):
    replaced.path(FILE).unlink()
    os.mkfifo(replaced.path(FILE))
    os.chown(replaced.path(FILE), *POPUSER)
    put_file(replaced, "/tmp/source", b"x" * (PIPE_ROOM + 1), owner=ROOT)  # more than the pipe takes: the copy waits
    foreign = replaced.tree("/srv/foreign")
    with open(os.open(replaced.path(FILE), os.O_RDONLY | os.O_NONBLOCK), "rb", buffering=0) as pipe:
        running = replaced.start(*ADD)
        select.select([pipe], [], [], 60)
        swap_for_link(replaced, path)
        os.set_blocking(pipe.fileno(), True)
        assert len(pipe.readall()) == PIPE_ROOM + 1

    assert_not_given_away(replaced, running.wait(), foreign)


def test_copy_replaced_after_its_owner_is_set_is_not_taken_for_flushed(mailbox, needs_tracing):
    with stopped_after(mailbox, "fchownat", None, *ADD) as running:
        mailbox.path(FILE).rename(mailbox.path(FILE + ".old"))
        put_file(mailbox, FILE, b"other")

    assert outcome(running.wait()) == not_moved("Stale file handle")
    assert attachment_rows(mailbox) == []


# -- a directory that is moved away while its contents are removed


def test_directory_moved_out_of_the_tree_at_any_moment_leads_del_resp_nowhere_else(mailbox, needs_tracing):
    def prepare():
        begin(mailbox)
        make_directories(mailbox, DIRECTORY + "/one/two/three")
        for path in ("/file", "/one/file", "/one/two/file", "/one/two/three/file"):
            put_file(mailbox, DIRECTORY + path)
        make_directories(mailbox, "/srv/mail/one")
        for path in ("/srv/file", "/srv/mail/file", "/srv/mail/one/file", MAILBOX + "/file"):
            put_file(mailbox, path, b"precious")

    def attack():
        with contextlib.suppress(FileNotFoundError):
            mailbox.path(DIRECTORY + "/one/two").rename(mailbox.path("/srv/mail/two"))

    texts = set()
    for result in attacked_runs(mailbox, DEL_RESP, prepare, attack):
        assert (result.status, result.stdout) == (0, b"")
        texts.update(error_texts(result))
        assert {name for name, entry in mailbox.tree("/srv").items() if entry[4] == b"precious"} == {
            "file", "mail/file", "mail/one/file"}, result
        assert mailbox.path("/srv/mail/one").is_dir()
        assert mailbox.path(MAILBOX + "/file").read_bytes() == b"precious"
        assert mailbox.path(DIRECTORY).is_dir()

    assert any(text.startswith("Unable to remove autoresponder attachments: ") and text.endswith(": Stale file handle")
               for text in texts), texts
