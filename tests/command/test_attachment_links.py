"""The mail tree belongs to the mail user, and the tool walks it as root: whose links does it follow?"""

import pytest
from harness import Result
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows, error_texts,
                               make_directories, put_file, put_link)

DOMAIN = "/var/qmail/mailnames/example.org"
MAILBOX = "/var/qmail/mailnames/example.org/user"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
FILE = "/var/qmail/mailnames/example.org/user/@attachments/report.pdf"
DIRECTORIES = [DOMAIN, MAILBOX, DIRECTORY]
POPUSER = (1110, 31)
STRANGERS = [POPUSER, (4321, 0)]  # the group that owns a link does not matter
ROOT = (0, 0)
DONE = Result(0, b"", b"", [])
ROW = ("user@example.org", "report.pdf")

ADD = ("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf", "--source", "/tmp/source")
DEL = ("--del-attach", "--mailname", "user@example.org", "--filename", "report.pdf")
DEL_RESP = ("--del-resp", "--mailname", "user@example.org")


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and the file /tmp/source; the mail tree is empty."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=ROOT, mode=0o644)
    return sandbox


def lead_astray(sandbox, link, owner, target="/srv/target"):
    """Puts a link of `owner` in the place of the directory `link`; what should be below it is below the link's target,
    with the attachment report.pdf in it. Answers where that directory of attachments really is."""
    make_directories(sandbox, link.rpartition("/")[0])
    real = target + DIRECTORY.removeprefix(link)
    make_directories(sandbox, real)
    put_file(sandbox, real + "/report.pdf", b"precious", owner=(11, 12), mode=0o604)
    put_link(sandbox, link, target, owner)
    return real


def everything(sandbox):
    return sandbox.tree("/srv"), sandbox.tree("/var/qmail/mailnames")


# -- --add-attach


@pytest.mark.parametrize("owner", STRANGERS)
@pytest.mark.parametrize("link", DIRECTORIES)
def test_add_attach_refuses_a_directory_link_before_anything_is_copied(mailbox, link, owner):
    lead_astray(mailbox, link, owner)
    before = everything(mailbox)

    result = mailbox.run(*ADD)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Too many levels of symbolic links"]
    assert everything(mailbox) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("link", DIRECTORIES)
def test_add_attach_refuses_a_directory_link_before_anything_is_created(mailbox, link):
    make_directories(mailbox, link.rpartition("/")[0])
    make_directories(mailbox, "/srv/target")
    put_link(mailbox, link, "/srv/target", POPUSER)
    before = everything(mailbox)

    result = mailbox.run(*ADD)

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Too many levels of symbolic links"]
    assert everything(mailbox) == before


@pytest.mark.parametrize("link", DIRECTORIES)
def test_add_attach_refuses_a_link_to_nothing(mailbox, link):
    make_directories(mailbox, link.rpartition("/")[0])
    put_link(mailbox, link, "/srv/target", POPUSER)
    before = everything(mailbox)

    result = mailbox.run(*ADD)

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Too many levels of symbolic links"]
    assert everything(mailbox) == before


@pytest.mark.parametrize("link", DIRECTORIES)
def test_add_attach_follows_a_directory_link_of_roots(mailbox, link):
    real = lead_astray(mailbox, link, ROOT)

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree(real) == {".": ("dir", 0o700, 1110, 31, None),
                                  "report.pdf": ("file", 0o604, 1110, 31, b"the report")}
    assert attachment_rows(mailbox) == [ROW]


@pytest.mark.parametrize(("link", "owner"), [(DOMAIN, ROOT), (MAILBOX, POPUSER)])
def test_add_attach_makes_directories_behind_a_link_of_roots(mailbox, link, owner):
    make_directories(mailbox, link.rpartition("/")[0])
    make_directories(mailbox, "/srv/target", owner=owner, mode=0o755)
    put_link(mailbox, link, "/srv/target", ROOT)

    assert mailbox.run(*ADD) == DONE

    made = mailbox.tree("/srv/target" + DIRECTORY.removeprefix(link))
    assert made == {".": ("dir", 0o700, 1110, 31, None), "report.pdf": ("file", 0o644, 1110, 31, b"the report")}


@pytest.mark.parametrize("owner", STRANGERS)
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing", "/srv", "report.pdf"])
def test_add_attach_refuses_a_link_in_the_place_of_the_file(mailbox, owner, target):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/precious", b"precious", owner=ROOT)
    put_link(mailbox, FILE, target, owner)
    before = everything(mailbox)

    result = mailbox.run(*ADD)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Too many levels of symbolic links"]
    assert everything(mailbox) == before
    assert attachment_rows(mailbox) == []


def test_add_attach_follows_a_link_of_roots_in_the_place_of_the_file(mailbox):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/shared", b"older", mode=0o640)
    put_link(mailbox, FILE, "/srv/shared", ROOT)

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree("/srv")["shared"] == ("file", 0o640, 1110, 31, b"the report")
    assert mailbox.tree(DIRECTORY)["report.pdf"] == ("link", 0o777, 0, 0, "/srv/shared")
    assert attachment_rows(mailbox) == [ROW]


def test_add_attach_runs_no_copy_when_it_refuses(mailbox, needs_tracing):
    lead_astray(mailbox, DIRECTORY, POPUSER)

    result, calls = mailbox.trace(*ADD, calls="execve,/mkdir,/chown,/clone,/fork")

    assert result.status == 1
    assert [call.strings[0] for call in calls] == ["/usr/sbin/arspctl"]


def test_links_above_the_mail_tree_are_not_the_mail_users(mailbox):
    make_directories(mailbox, "/srv/mail", owner=ROOT, mode=0o755)
    mailbox.path("/var/qmail/mailnames").rmdir()
    put_link(mailbox, "/var/qmail/mailnames", "/srv/mail", (4321, 4321))

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree("/srv/mail/example.org/user/@attachments")["report.pdf"] == (
        "file", 0o644, 1110, 31, b"the report")


# -- --del-attach


@pytest.mark.parametrize("owner", STRANGERS)
@pytest.mark.parametrize("link", DIRECTORIES)
def test_del_attach_refuses_a_directory_link_when_the_row_is_gone(mailbox, link, owner):
    lead_astray(mailbox, link, owner)
    add_attachment_rows(mailbox, "user@example.org", "report.pdf")
    before = everything(mailbox)

    result = mailbox.run(*DEL)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to delete attachment "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Too many levels of symbolic links"]
    assert everything(mailbox) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("link", DIRECTORIES)
def test_del_attach_follows_a_directory_link_of_roots(mailbox, link):
    real = lead_astray(mailbox, link, ROOT)

    assert mailbox.run(*DEL) == DONE

    assert mailbox.tree(real) == {".": ("dir", 0o700, 1110, 31, None)}
    assert mailbox.path(link).is_symlink()


@pytest.mark.parametrize("owner", [POPUSER, ROOT])
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing", "/srv"])
def test_del_attach_unlinks_a_link_in_the_place_of_the_file(mailbox, owner, target):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/precious", b"precious", owner=ROOT)
    put_link(mailbox, FILE, target, owner)
    add_attachment_rows(mailbox, "user@example.org", "report.pdf")
    before = mailbox.tree("/srv")

    assert mailbox.run(*DEL) == DONE

    assert sorted(mailbox.tree(DIRECTORY)) == ["."]
    assert mailbox.tree("/srv") == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize(("owner", "status"), [(POPUSER, 1), (ROOT, 0)])
def test_del_attach_of_a_name_with_slashes_follows_only_links_of_roots(mailbox, owner, status):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv")
    put_file(mailbox, "/srv/x", b"precious", owner=ROOT)
    put_link(mailbox, DIRECTORY + "/sub", "/srv", owner)

    result = mailbox.run("--del-attach", "--mailname", "user@example.org", "--filename", "sub/x")

    assert result.status == status
    assert mailbox.path("/srv/x").exists() == (status == 1)
    assert error_texts(result) == [
        "Unable to delete attachment "
        "/var/qmail/mailnames/example.org/user/@attachments/sub/x: Too many levels of symbolic links"][:status]


# -- --del-resp


@pytest.mark.parametrize("owner", STRANGERS)
@pytest.mark.parametrize("link", DIRECTORIES)
def test_del_resp_clears_nothing_behind_a_directory_link_and_goes_on(mailbox, link, owner):
    lead_astray(mailbox, link, owner)
    add_attachment_rows(mailbox, "user@example.org", "report.pdf")
    before = everything(mailbox)

    result = mailbox.run(*DEL_RESP)

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == [
        "Unable to remove autoresponder attachments: cannot open directory "
        "/var/qmail/mailnames/example.org/user/@attachments: Too many levels of symbolic links"]
    assert everything(mailbox) == before
    assert attachment_rows(mailbox) == []
    assert autoresponder_rows(mailbox) == []


@pytest.mark.parametrize("link", DIRECTORIES)
def test_del_resp_follows_a_directory_link_of_roots(mailbox, link):
    real = lead_astray(mailbox, link, ROOT)

    assert mailbox.run(*DEL_RESP) == DONE

    assert mailbox.tree(real) == {".": ("dir", 0o700, 1110, 31, None)}
    assert mailbox.path(link).is_symlink()


@pytest.mark.parametrize("owner", [POPUSER, ROOT])
def test_del_resp_removes_the_links_inside_and_leaves_their_targets(mailbox, owner):
    make_directories(mailbox, DIRECTORY + "/sub")
    make_directories(mailbox, "/srv/below", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/precious", b"precious", owner=ROOT)
    put_file(mailbox, "/srv/below/precious", b"precious", owner=ROOT)
    for name, target in (("file", "/srv/precious"), ("directory", "/srv/below"), ("nothing", "/srv/nothing"),
                         ("up", ".."), ("self", "self"), ("sub/directory", "/srv/below"), ("sub/file", "/srv/precious")):
        put_link(mailbox, f"{DIRECTORY}/{name}", target, owner)
    before = mailbox.tree("/srv")

    assert mailbox.run(*DEL_RESP) == DONE

    assert mailbox.tree(DIRECTORY) == {".": ("dir", 0o700, 1110, 31, None)}
    assert mailbox.tree("/srv") == before
    assert mailbox.path(DIRECTORY).exists()


def test_del_resp_does_not_enter_a_link_that_was_a_directory_a_moment_ago(mailbox, needs_tracing):
    make_directories(mailbox, "/srv/target")
    put_file(mailbox, "/srv/target/report.pdf", b"precious")
    make_directories(mailbox, DIRECTORY)
    put_link(mailbox, DIRECTORY + "/papers", "/srv/target", POPUSER)
    before = everything(mailbox)

    result, _ = mailbox.trace(*DEL_RESP, inject=["unlinkat:error=EISDIR:when=1"])

    assert result.status == 0
    assert error_texts(result) == ["Unable to remove autoresponder attachments: cannot open directory "
                                   "/var/qmail/mailnames/example.org/user/@attachments/papers: Not a directory"]
    assert everything(mailbox) == before
