"""Links in the mail tree, in which the tool works as root: it follows no link of other users, and links of root's only
where no other user can redirect them."""

import pytest
from harness import DONE, Result
from harness.mailboxes import (ADD, DEL, DEL_RESP, DIRECTORY, DOMAIN, FILE, LOOP, MAIL_TREE, MAILBOX, MAILNAME, POPUSER,
                               ROOT, STRANGER, add_attachment_rows, attachment_rows, autoresponder_rows,
                               make_directories, put_chain, put_file, put_link)
from harness.outcomes import outcome

REFUSALS = {
    ADD: (1, f"Unable to move attachment /tmp/source to {FILE}: {LOOP}"),
    DEL: (1, f"Unable to delete attachment {FILE}: {LOOP}"),
    DEL_RESP: (0, f"Unable to remove autoresponder attachments: cannot open directory {DIRECTORY}: {LOOP}"),
}

each_command = pytest.mark.parametrize("args", REFUSALS, ids=lambda args: args[0])
each_deletion = pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=lambda args: args[0])


@pytest.fixture
def box(mailbox):
    """The mailbox with an empty mail tree, and root's directory /srv."""
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    return mailbox


def make_target(box, link, target="/srv/target", owner=POPUSER):
    """Makes the directories that are expected below `link` below `target` instead, and the attachment report.pdf in the
    last of them. `target` belongs to `owner`."""
    make_directories(box, target, owner=owner, mode=0o755)
    make_directories(box, target + DIRECTORY.removeprefix(link))
    put_file(box, target + FILE.removeprefix(link), b"precious", owner=ROOT, mode=0o604)


def everything(box):
    return box.tree("/srv"), box.tree(MAIL_TREE)


def assert_followed(box, args):
    """Checks that the command does its work on the only file report.pdf below /srv."""
    (path,) = box.path("/srv").rglob("report.pdf")
    before = box.tree(MAIL_TREE)

    assert box.run(*args) == DONE

    left = box.tree(path.parent.relative_to(box.directory).as_posix())
    del left["."]
    assert left == ({"report.pdf": ("file", 0o604, *POPUSER, b"the report")} if args == ADD else {})
    assert box.tree(MAIL_TREE) == before


def assert_refused(box, args, **options):
    """Checks that the command changes no file; the deletions have deleted their rows by then."""
    if args != ADD:
        add_attachment_rows(box, "user@example.org", "report.pdf")
    before = everything(box)

    assert outcome(box.run(*args, **options)) == REFUSALS[args]

    assert everything(box) == before
    assert attachment_rows(box) == []
    assert (autoresponder_rows(box) == []) == (args == DEL_RESP)


# -- links that root does not own


@each_command
@pytest.mark.parametrize(("target", "owner"), [
    ("/srv/target", POPUSER), ("/srv/target", STRANGER), ("/srv/empty", POPUSER), ("/srv/nothing", POPUSER)])
@pytest.mark.parametrize("link", [DOMAIN, MAILBOX, DIRECTORY])
def test_link_of_other_users_in_the_place_of_a_directory_is_refused(box, args, link, target, owner):
    make_target(box, link)
    make_directories(box, "/srv/empty")
    make_directories(box, link.rpartition("/")[0])
    put_link(box, link, target, owner)

    assert_refused(box, args)


@pytest.mark.parametrize("owner", [POPUSER, STRANGER])
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing", "/srv", "report.pdf"])
def test_link_of_other_users_in_the_place_of_the_file_is_refused_by_add_attach(box, owner, target):
    make_directories(box, DIRECTORY)
    put_file(box, "/srv/precious", b"precious", owner=ROOT)
    put_link(box, FILE, target, owner)

    assert_refused(box, ADD)


@pytest.mark.parametrize("owner", [POPUSER, ROOT])
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing", "/srv"])
def test_link_in_the_place_of_the_file_is_unlinked_by_del_attach(box, owner, target):
    make_directories(box, DIRECTORY)
    put_file(box, "/srv/precious", b"precious", owner=ROOT)
    put_link(box, FILE, target, owner)
    add_attachment_rows(box, "user@example.org", "report.pdf")
    before = box.tree("/srv")

    assert box.run(*DEL) == DONE

    assert sorted(box.tree(DIRECTORY)) == ["."]
    assert box.tree("/srv") == before
    assert attachment_rows(box) == []


def test_add_attach_runs_no_copy_when_it_refuses(box, needs_tracing):
    make_target(box, DIRECTORY)
    make_directories(box, MAILBOX)
    put_link(box, DIRECTORY, "/srv/target", POPUSER)

    result, calls = box.trace(*ADD, calls="execve,/mkdir,/chown,/clone,/fork")

    assert result.status == 1
    assert [call.strings[0] for call in calls] == ["/usr/sbin/arspctl"]


def test_link_of_any_user_above_the_mail_tree_is_followed(box):
    make_directories(box, "/srv/mail", owner=ROOT, mode=0o755)
    box.path(MAIL_TREE).rmdir()
    put_link(box, MAIL_TREE, "/srv/mail", (4321, 4321))

    assert box.run(*ADD) == DONE

    assert box.tree("/srv/mail/example.org/user/@attachments")["report.pdf"] == (
        "file", 0o644, *POPUSER, b"the report")


@pytest.mark.parametrize(("owner", "ending"), [
    (POPUSER, (1, f"Unable to delete attachment {DIRECTORY}/sub/x: {LOOP}")), (ROOT, (0,))])
def test_del_attach_of_a_name_with_slashes_follows_only_links_of_roots(box, owner, ending):
    make_directories(box, DIRECTORY)
    make_directories(box, "/srv/target")
    put_file(box, "/srv/target/x", b"precious", owner=ROOT)
    put_link(box, DIRECTORY + "/sub", "/srv/target", owner)

    assert outcome(box.run("--del-attach", *MAILNAME, "--filename", "sub/x")) == ending

    assert box.path("/srv/target/x").exists() == (owner == POPUSER)


@pytest.mark.parametrize("owner", [POPUSER, ROOT])
def test_del_resp_removes_the_links_inside_and_leaves_their_targets(box, owner):
    make_directories(box, DIRECTORY + "/sub")
    make_directories(box, "/srv/below", owner=ROOT, mode=0o755)
    for path in ("/srv/precious", "/srv/below/precious"):
        put_file(box, path, b"precious", owner=ROOT)
    for name, target in {"file": "/srv/precious", "directory": "/srv/below", "nothing": "/srv/nothing", "up": "..",
                         "self": "self", "sub/directory": "/srv/below", "sub/file": "/srv/precious"}.items():
        put_link(box, f"{DIRECTORY}/{name}", target, owner)
    before = box.tree("/srv")

    assert box.run(*DEL_RESP) == DONE

    assert box.tree(DIRECTORY) == {".": ("dir", 0o700, *POPUSER, None)}
    assert box.tree("/srv") == before


def test_del_resp_does_not_enter_a_link_that_replaced_a_directory(box, needs_tracing):
    make_target(box, DIRECTORY)
    make_directories(box, DIRECTORY)
    put_link(box, DIRECTORY + "/papers", "/srv/target", POPUSER)
    before = everything(box)

    result, _ = box.trace(*DEL_RESP, inject=["unlinkat:error=EISDIR:when=1"])

    assert outcome(result) == (0, "Unable to remove autoresponder attachments: cannot open directory "
                                  "/var/qmail/mailnames/example.org/user/@attachments/papers: Not a directory")
    assert everything(box) == before


# -- links of root's, by the directory that they are in


@each_command
@pytest.mark.parametrize(("link", "owner", "mode", "target_owner"), [
    (DOMAIN, ROOT, 0o755, POPUSER), (MAILBOX, POPUSER, 0o700, POPUSER), (DIRECTORY, POPUSER, 0o700, POPUSER),
    (MAILBOX, ROOT, 0o755, ROOT), (MAILBOX, ROOT, 0o700, STRANGER), (MAILBOX, (0, 31), 0o2755, ROOT)])
def test_link_of_roots_leads_to_the_mail_users_directory_or_anywhere_if_only_root_can_move_it(
        box, args, link, owner, mode, target_owner):
    make_directories(box, link.rpartition("/")[0], owner=owner, mode=mode)
    make_directories(box, "/srv/private", owner=ROOT, mode=0o700)
    make_target(box, link, "/srv/private/mail", owner=target_owner)
    put_link(box, link, "/srv/private/mail", ROOT)

    assert_followed(box, args)


@each_command
@pytest.mark.parametrize(("link", "owner", "mode", "target_owner"), [
    (MAILBOX, POPUSER, 0o700, ROOT), (MAILBOX, POPUSER, 0o700, STRANGER), (DIRECTORY, POPUSER, 0o700, ROOT),
    (DIRECTORY, POPUSER, 0o700, STRANGER), (MAILBOX, ROOT, 0o775, ROOT), (MAILBOX, ROOT, 0o757, ROOT),
    (MAILBOX, ROOT, 0o1777, ROOT), (MAILBOX, (0, 31), 0o770, ROOT), (MAILBOX, POPUSER, 0o500, ROOT),
    (MAILBOX, STRANGER, 0o755, ROOT)])
def test_link_of_roots_that_others_can_move_leads_to_no_directory_but_the_mail_users(
        box, args, link, owner, mode, target_owner):
    make_directories(box, link.rpartition("/")[0], owner=owner, mode=mode)
    make_target(box, link, owner=target_owner)
    put_link(box, link, "/srv/target", ROOT)

    assert_refused(box, args)


@each_deletion
@pytest.mark.parametrize(("owner", "check"), [(ROOT, assert_followed), (POPUSER, assert_refused)])
def test_without_the_mail_user_links_of_roots_are_followed_in_directories_of_roots_only(box, args, owner, check):
    make_directories(box, DOMAIN, owner=owner, mode=0o755)
    make_target(box, MAILBOX)
    put_link(box, MAILBOX, "/srv/target", ROOT)
    box.popuser_exists(False)

    check(box, args)


@pytest.mark.parametrize(("link", "owner"), [(DOMAIN, ROOT), (MAILBOX, POPUSER)])
def test_add_attach_makes_directories_behind_a_link_of_roots(box, link, owner):
    make_directories(box, link.rpartition("/")[0])
    make_directories(box, "/srv/target", owner=owner, mode=0o755)
    put_link(box, link, "/srv/target", ROOT)

    assert box.run(*ADD) == DONE

    assert box.tree("/srv/target" + DIRECTORY.removeprefix(link)) == {
        ".": ("dir", 0o700, *POPUSER, None), "report.pdf": ("file", 0o644, *POPUSER, b"the report")}


@pytest.mark.parametrize(("directory_owner", "file_owner", "refused"), [
    (POPUSER, POPUSER, False), (POPUSER, ROOT, True), (POPUSER, STRANGER, True), (ROOT, ROOT, False),
    (ROOT, POPUSER, False)])
def test_link_of_roots_in_the_place_of_the_file_leads_to_the_mail_users_files_where_others_can_move_it(
        box, directory_owner, file_owner, refused):
    make_directories(box, MAILBOX)
    make_directories(box, DIRECTORY, owner=directory_owner, mode=0o755)
    put_file(box, "/srv/shared", b"older", owner=file_owner, mode=0o640)
    put_link(box, FILE, "/srv/shared", ROOT)

    if refused:
        assert_refused(box, ADD)
    else:
        assert box.run(*ADD) == DONE
        assert box.tree("/srv")["shared"] == ("file", 0o640, *POPUSER, b"the report")
        assert box.tree(DIRECTORY)["report.pdf"] == ("link", 0o777, *ROOT, "/srv/shared")
        assert attachment_rows(box) == [("user@example.org", "report.pdf")]


@pytest.mark.parametrize("env", [{}, {"POSIXLY_CORRECT": "1"}])  # with it, cp makes the target of a link
def test_link_of_roots_in_the_place_of_the_file_makes_no_file_where_others_can_move_it(box, env):
    make_directories(box, DIRECTORY)
    put_link(box, FILE, "/srv/nothing", ROOT)

    assert_refused(box, ADD, env={"PATH": "/usr/bin", **env})


# -- links and directories in the text of root's link


@each_command
@pytest.mark.parametrize(("text", "current", "www_owner", "link_owner"), [
    ("/srv/www/current/mail", "/srv/releases", ROOT, STRANGER),
    ("../../../srv/www/current/mail", "../releases", ROOT, POPUSER),
    ("/srv//www/./current/mail/", "../../../srv/releases/", ROOT, STRANGER),
    ("/srv/www/../www/current/mail/.", "./../www/../releases//", ROOT, ROOT),
    ("/srv/www/current/mail", "/srv/releases", STRANGER, ROOT)])  # root's link to the mail user's directory
def test_links_of_roots_and_links_in_a_directory_of_roots_are_followed_on_the_way(
        box, args, text, current, www_owner, link_owner):
    make_directories(box, "/srv/www", owner=www_owner, mode=0o755)
    make_target(box, DOMAIN, "/srv/releases/mail")
    put_link(box, "/srv/www/current", current, link_owner)
    put_link(box, DOMAIN, text, ROOT)

    assert_followed(box, args)


@each_command
@pytest.mark.parametrize(("text", "www_owner", "mode", "link_owner"), [
    ("/srv/www/current/mail", ROOT, 0o775, STRANGER), ("/srv/www/current/mail", ROOT, 0o1777, POPUSER),
    ("/srv/www/current/mail", POPUSER, 0o755, POPUSER), ("/srv/www/current/mail", STRANGER, 0o500, POPUSER),
    ("../../../srv/www/current/mail", STRANGER, 0o755, STRANGER), ("/srv/www/current/mail", STRANGER, 0o755, ROOT)])
def test_links_that_others_can_exchange_are_not_followed_on_the_way(box, args, text, www_owner, mode, link_owner):
    make_directories(box, "/srv/www", owner=www_owner, mode=mode)
    make_directories(box, "/srv/releases", owner=ROOT, mode=0o755)
    make_target(box, DOMAIN, "/srv/releases/mail")
    put_link(box, "/srv/www/current", "/srv/releases", link_owner)
    put_link(box, DOMAIN, text, ROOT)

    assert_refused(box, args)


@each_command
def test_directories_of_any_owner_are_passed_on_the_way(box, args):
    make_directories(box, "/srv/www", owner=STRANGER, mode=0o777)
    make_target(box, DOMAIN, "/srv/www/mail")
    put_link(box, DOMAIN, "/srv/www/mail", ROOT)

    assert_followed(box, args)


@each_command
def test_link_of_the_mail_users_behind_a_link_of_roots_is_refused(box, args):
    make_target(box, MAILBOX, "/srv/foreign", owner=ROOT)
    make_directories(box, "/srv/target", owner=ROOT, mode=0o755)
    put_link(box, "/srv/target/user", "/srv/foreign", POPUSER)
    put_link(box, DOMAIN, "/srv/target", ROOT)

    assert_refused(box, args)


def test_link_in_the_place_of_the_file_leads_through_no_link_that_others_can_exchange(box):
    make_directories(box, DIRECTORY, owner=ROOT, mode=0o755)
    make_directories(box, "/srv/www", owner=STRANGER, mode=0o755)
    put_file(box, "/srv/shared", b"older", owner=POPUSER)
    put_link(box, "/srv/www/current", "/srv", STRANGER)
    put_link(box, FILE, "/srv/www/current/shared", ROOT)

    assert_refused(box, ADD)


# -- the limits of the system


@each_command
def test_text_as_long_as_a_link_can_hold_is_followed(box, args):
    make_target(box, DOMAIN)
    text = "/srv" + "/." * 2042 + "/target"
    assert len(text) == 4095
    put_link(box, DOMAIN, text, ROOT)

    assert_followed(box, args)


@pytest.mark.parametrize(("inject", "text"), [
    ("readlinkat:error=EIO", "Input/output error"), ("readlinkat:retval=4096", "File name too long")])
def test_link_of_roots_whose_text_cannot_be_read_is_not_followed(box, needs_tracing, inject, text):
    make_target(box, DOMAIN)
    put_link(box, DOMAIN, "/srv/target", ROOT)
    before = everything(box)

    result, _ = box.trace(*DEL, inject=[inject], paths=[DOMAIN])

    assert outcome(result) == (1, f"Unable to delete attachment {FILE}: {text}")
    assert everything(box) == before


@each_command
def test_forty_links_are_followed(box, args):
    make_target(box, DOMAIN)
    put_chain(box, DOMAIN, 40, "/srv/target")

    assert_followed(box, args)


@each_command
def test_forty_one_links_are_refused(box, args):
    make_target(box, DOMAIN)
    put_chain(box, DOMAIN, 41, "/srv/target")

    if args == ADD:
        printed = f"Cannot create directory {MAILBOX}: {LOOP}\nSystem error 40: {LOOP}\n".encode()
        assert box.run(*ADD) == Result(1, printed, printed, [])
    else:
        assert_refused(box, args)


@each_deletion
def test_links_of_the_whole_path_add_up(box, args):
    make_directories(box, "/srv/domain", owner=ROOT, mode=0o755)
    make_target(box, MAILBOX)
    put_chain(box, DOMAIN, 21, "/srv/domain")
    put_chain(box, "/srv/domain/user", 20, "/srv/target")

    assert_refused(box, args)


@each_deletion
def test_links_that_multiply_are_refused(box, args):
    make_target(box, DOMAIN)
    for number in range(30):
        put_link(box, f"/srv/{number}", f"/srv/{number + 1}/../{number + 1}", ROOT)
    put_link(box, "/srv/30", "/srv/target", ROOT)
    put_link(box, DOMAIN, "/srv/0", ROOT)

    assert_refused(box, args)
