"""Links of root's in the mail tree: where they may lie, where they may lead, and what their texts may lead through."""

import os

import pytest
from harness import Result
from harness.mailboxes import (add_autoresponder, attachment_rows, error_texts, make_directories, put_file, put_link)

MAIL_TREE = "/var/qmail/mailnames"
DOMAIN = "/var/qmail/mailnames/example.org"
MAILBOX = "/var/qmail/mailnames/example.org/user"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
FILE = "/var/qmail/mailnames/example.org/user/@attachments/report.pdf"
ROOT, POPUSER, STRANGER = (0, 0), (1110, 31), (4321, 0)
DONE = Result(0, b"", b"", [])
LOOP = "Too many levels of symbolic links"

ADD = ("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf", "--source", "/tmp/source")
DEL = ("--del-attach", "--mailname", "user@example.org", "--filename", "report.pdf")
DEL_RESP = ("--del-resp", "--mailname", "user@example.org")
REFUSALS = {  # the exit status and the record of each command
    ADD: (1, f"Unable to move attachment /tmp/source to {FILE}: {LOOP}"),
    DEL: (1, f"Unable to delete attachment {FILE}: {LOOP}"),
    DEL_RESP: (0, f"Unable to remove autoresponder attachments: cannot open directory {DIRECTORY}: {LOOP}"),
}

each_command = pytest.mark.parametrize("args", REFUSALS, ids=["add-attach", "del-attach", "del-resp"])


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and the file /tmp/source; the mail tree is empty, and /srv is
    root's."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=ROOT, mode=0o644)
    make_directories(sandbox, "/srv", owner=ROOT, mode=0o755)
    return sandbox


def make_target(mailbox, link, target="/srv/target", owner=POPUSER):
    """Makes the directories that are expected below `link` below `target` instead, and the attachment report.pdf in the
    last of them. `target` belongs to `owner`."""
    make_directories(mailbox, target, owner=owner, mode=0o755)
    make_directories(mailbox, target + DIRECTORY.removeprefix(link))
    put_file(mailbox, target + DIRECTORY.removeprefix(link) + "/report.pdf", b"precious", owner=ROOT)


def everything(mailbox):
    return mailbox.tree("/srv"), mailbox.tree(MAIL_TREE)


def assert_followed(mailbox, args):
    """Whether the command does its work on the only file report.pdf."""
    (path,) = mailbox.path("/srv").rglob("report.pdf")

    assert mailbox.run(*args) == DONE

    if args == ADD:
        assert (path.read_bytes(), path.stat().st_uid) == (b"the report", POPUSER[0])
    else:
        assert list(path.parent.iterdir()) == []


def assert_refused(mailbox, args, **options):
    before = everything(mailbox)

    result = mailbox.run(*args, **options)

    status, text = REFUSALS[args]
    assert (result.status, result.stdout, error_texts(result)) == (status, b"", [text])
    assert everything(mailbox) == before
    assert attachment_rows(mailbox) == []


# -- a link that others can move to another place


@each_command
def test_link_of_roots_that_the_mail_user_moved_does_not_lead_to_roots_directory(mailbox, args):
    make_directories(mailbox, MAILBOX)
    make_target(mailbox, DIRECTORY, "/srv/backup", owner=ROOT)
    put_link(mailbox, MAILBOX + "/backup", "/srv/backup", ROOT)
    os.rename(mailbox.path(MAILBOX + "/backup"), mailbox.path(DIRECTORY))

    assert_refused(mailbox, args)


@each_command
@pytest.mark.parametrize("link", [MAILBOX, DIRECTORY])
@pytest.mark.parametrize("target_owner", [ROOT, STRANGER])
def test_link_of_roots_in_the_mail_users_directory_leads_to_no_directory_of_others(mailbox, args, link, target_owner):
    make_directories(mailbox, link.rpartition("/")[0])
    make_target(mailbox, link, owner=target_owner)
    put_link(mailbox, link, "/srv/target", ROOT)

    assert_refused(mailbox, args)


@each_command
@pytest.mark.parametrize("link", [MAILBOX, DIRECTORY])
def test_link_of_roots_in_the_mail_users_directory_leads_to_the_mail_users_directories(mailbox, args, link):
    make_directories(mailbox, link.rpartition("/")[0])
    make_directories(mailbox, "/srv/private", owner=ROOT, mode=0o700)
    make_target(mailbox, link, "/srv/private/mail")
    put_link(mailbox, link, "/srv/private/mail", ROOT)

    assert_followed(mailbox, args)


@each_command
@pytest.mark.parametrize(("owner", "mode"), [
    (ROOT, 0o775), (ROOT, 0o757), (ROOT, 0o1777), ((0, 31), 0o770), (POPUSER, 0o500), (STRANGER, 0o755)])
def test_link_of_roots_in_a_directory_that_others_may_write_leads_to_no_directory_of_roots(mailbox, args, owner, mode):
    make_directories(mailbox, DOMAIN, owner=owner, mode=mode)
    make_target(mailbox, MAILBOX, owner=ROOT)
    put_link(mailbox, MAILBOX, "/srv/target", ROOT)

    assert_refused(mailbox, args)


@each_command
@pytest.mark.parametrize(("owner", "mode", "target_owner"), [
    (ROOT, 0o755, ROOT), (ROOT, 0o700, STRANGER), ((0, 31), 0o2755, ROOT)])
def test_link_of_roots_in_a_directory_that_only_root_may_write_leads_anywhere(mailbox, args, owner, mode, target_owner):
    make_directories(mailbox, DOMAIN, owner=owner, mode=mode)
    make_target(mailbox, MAILBOX, owner=target_owner)
    put_link(mailbox, MAILBOX, "/srv/target", ROOT)

    assert_followed(mailbox, args)


@pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=["del-attach", "del-resp"])
@pytest.mark.parametrize("owner", [ROOT, POPUSER])
def test_without_the_mail_user_links_of_roots_are_followed_in_directories_of_roots_only(mailbox, args, owner):
    make_directories(mailbox, DOMAIN, owner=owner, mode=0o755)
    make_target(mailbox, MAILBOX)
    put_link(mailbox, MAILBOX, "/srv/target", ROOT)
    mailbox.popuser_exists(False)

    (assert_followed if owner == ROOT else assert_refused)(mailbox, args)


@pytest.mark.parametrize(("directory_owner", "file_owner", "status"), [
    (POPUSER, POPUSER, 0), (POPUSER, ROOT, 1), (POPUSER, STRANGER, 1), (ROOT, ROOT, 0), (ROOT, POPUSER, 0)])
def test_link_of_roots_in_the_place_of_the_file_leads_to_the_mail_users_files_where_it_can_be_moved(
        mailbox, directory_owner, file_owner, status):
    make_directories(mailbox, MAILBOX)
    make_directories(mailbox, DIRECTORY, owner=directory_owner, mode=0o755)
    put_file(mailbox, "/srv/shared", b"older", owner=file_owner, mode=0o640)
    put_link(mailbox, FILE, "/srv/shared", ROOT)

    if status == 1:
        assert_refused(mailbox, ADD)
    else:
        assert mailbox.run(*ADD) == DONE
        assert mailbox.tree("/srv")["shared"] == ("file", 0o640, *POPUSER, b"the report")


@pytest.mark.parametrize("env", [{}, {"POSIXLY_CORRECT": "1"}])  # with it, cp makes what a link leads to
def test_link_of_roots_in_the_place_of_the_file_makes_no_file_where_it_can_be_moved(mailbox, env):
    make_directories(mailbox, DIRECTORY)
    put_link(mailbox, FILE, "/srv/nothing", ROOT)

    assert_refused(mailbox, ADD, env={"PATH": "/usr/bin", **env})


# -- what the text of root's link leads through


@each_command
@pytest.mark.parametrize(("text", "current", "link_owner"), [
    ("/srv/www/current/mail", "/srv/releases", STRANGER), ("../../../srv/www/current/mail", "../releases", POPUSER),
    ("/srv//www/./current/mail/", "../../../srv/releases/", STRANGER),
    ("/srv/www/../www/current/mail/.", "./../www/../releases//", ROOT)])
def test_links_in_a_directory_of_roots_are_followed_on_the_way(mailbox, args, text, current, link_owner):
    make_directories(mailbox, "/srv/www", owner=ROOT, mode=0o755)
    make_target(mailbox, DOMAIN, "/srv/releases/mail")
    put_link(mailbox, "/srv/www/current", current, link_owner)
    put_link(mailbox, DOMAIN, text, ROOT)

    assert_followed(mailbox, args)


@each_command
@pytest.mark.parametrize(("text", "www_owner", "mode", "link_owner"), [
    ("/srv/www/current/mail", ROOT, 0o775, STRANGER), ("/srv/www/current/mail", ROOT, 0o1777, POPUSER),
    ("/srv/www/current/mail", POPUSER, 0o755, POPUSER), ("/srv/www/current/mail", STRANGER, 0o500, POPUSER),
    ("../../../srv/www/current/mail", STRANGER, 0o755, STRANGER), ("/srv/www/current/mail", STRANGER, 0o755, ROOT)])
def test_links_that_others_may_exchange_are_not_followed_on_the_way(mailbox, args, text, www_owner, mode, link_owner):
    make_directories(mailbox, "/srv/www", owner=www_owner, mode=mode)
    make_directories(mailbox, "/srv/releases", owner=ROOT, mode=0o755)
    make_target(mailbox, DOMAIN, "/srv/releases/mail")
    put_link(mailbox, "/srv/www/current", "/srv/releases", link_owner)
    put_link(mailbox, DOMAIN, text, ROOT)

    assert_refused(mailbox, args)


@each_command
def test_link_of_roots_may_lead_through_another_to_the_mail_users_directory(mailbox, args):
    make_directories(mailbox, "/srv/www", owner=STRANGER, mode=0o755)
    make_target(mailbox, DOMAIN, "/srv/releases/mail")
    put_link(mailbox, "/srv/www/current", "/srv/releases", ROOT)
    put_link(mailbox, DOMAIN, "/srv/www/current/mail", ROOT)

    assert_followed(mailbox, args)


@each_command
def test_directories_of_any_owner_lie_on_the_way(mailbox, args):
    make_directories(mailbox, "/srv/www", owner=STRANGER, mode=0o777)
    make_target(mailbox, DOMAIN, "/srv/www/mail")
    put_link(mailbox, DOMAIN, "/srv/www/mail", ROOT)

    assert_followed(mailbox, args)


@each_command
def test_link_of_the_mail_users_behind_a_link_of_roots_is_refused(mailbox, args):
    make_target(mailbox, MAILBOX, "/srv/foreign", owner=ROOT)
    make_directories(mailbox, "/srv/target", owner=ROOT, mode=0o755)
    put_link(mailbox, "/srv/target/user", "/srv/foreign", POPUSER)
    put_link(mailbox, DOMAIN, "/srv/target", ROOT)

    assert_refused(mailbox, args)


def test_link_in_the_place_of_the_file_leads_through_no_link_that_others_may_exchange(mailbox):
    make_directories(mailbox, DIRECTORY, owner=ROOT, mode=0o755)
    make_directories(mailbox, "/srv/www", owner=STRANGER, mode=0o755)
    put_file(mailbox, "/srv/shared", b"older", owner=POPUSER)
    put_link(mailbox, "/srv/www/current", "/srv", STRANGER)
    put_link(mailbox, FILE, "/srv/www/current/shared", ROOT)

    assert_refused(mailbox, ADD)


# -- as far as the system goes


@each_command
def test_text_as_long_as_a_link_can_hold_is_followed(mailbox, args):
    make_target(mailbox, DOMAIN)
    text = "/srv" + "/." * 2042 + "/target"
    assert len(text) == 4095
    put_link(mailbox, DOMAIN, text, ROOT)

    assert_followed(mailbox, args)


def put_chain(mailbox, link, count, target):
    """Makes `link` lead to `target` through `count` links of root's, itself included; the others lie in /srv."""
    for number in range(1, count):
        below = f"/srv/{os.path.basename(link)}{number + 1}" if number + 1 < count else target
        put_link(mailbox, f"/srv/{os.path.basename(link)}{number}", below, ROOT)
    put_link(mailbox, link, f"/srv/{os.path.basename(link)}1" if count > 1 else target, ROOT)


@each_command
def test_forty_links_are_followed(mailbox, args):
    make_target(mailbox, DOMAIN)
    put_chain(mailbox, DOMAIN, 40, "/srv/target")

    assert_followed(mailbox, args)


@pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=["del-attach", "del-resp"])
def test_one_link_more_is_one_too_many(mailbox, args):
    make_target(mailbox, DOMAIN)
    put_chain(mailbox, DOMAIN, 41, "/srv/target")

    assert_refused(mailbox, args)


@pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=["del-attach", "del-resp"])
def test_links_of_the_whole_way_add_up(mailbox, args):
    make_directories(mailbox, "/srv/domain", owner=ROOT, mode=0o755)
    make_target(mailbox, MAILBOX)
    put_chain(mailbox, DOMAIN, 21, "/srv/domain")
    put_chain(mailbox, "/srv/domain/user", 20, "/srv/target")

    assert_refused(mailbox, args)


@pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=["del-attach", "del-resp"])
def test_links_that_multiply_come_to_an_end(mailbox, args):
    make_target(mailbox, DOMAIN)
    for number in range(30):
        put_link(mailbox, f"/srv/{number}", f"/srv/{number + 1}/../{number + 1}", ROOT)
    put_link(mailbox, "/srv/30", "/srv/target", ROOT)
    put_link(mailbox, DOMAIN, "/srv/0", ROOT)

    assert_refused(mailbox, args)
