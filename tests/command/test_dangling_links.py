"""A link of root's to a missing file, at the name of an attachment. With POSIXLY_CORRECT set, cp creates the file."""

import pytest
from harness import Result
from harness.mailboxes import add_autoresponder, attachment_rows, error_texts, make_directories, put_file, put_link

DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
FILE = DIRECTORY + "/report.pdf"
ADD = ("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf", "--source", "/tmp/source")
POPUSER, STRANGER, ROOT = (1110, 31), (4321, 0), (0, 0)
CP_CREATES_TARGETS = {"PATH": "/usr/bin", "POSIXLY_CORRECT": "1"}
CANNOT_MOVE = f"Unable to move attachment /tmp/source to {FILE}: "


@pytest.fixture
def linked(sandbox):
    """The attachment's name is root's link to /srv/nothing. Only root may write to /srv and the attachments."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=ROOT, mode=0o644)
    make_directories(sandbox, DIRECTORY.rpartition("/")[0])
    make_directories(sandbox, DIRECTORY, owner=ROOT, mode=0o755)
    make_directories(sandbox, "/srv", owner=ROOT, mode=0o755)
    put_link(sandbox, FILE, "/srv/nothing", ROOT)
    return sandbox


def test_cp_refuses_to_create_the_target(linked):
    result = linked.run(*ADD)

    assert (result.status, error_texts(result)) == (1, [CANNOT_MOVE + "Child status 1"])
    assert sorted(linked.tree("/srv")) == ["."]
    assert attachment_rows(linked) == []


@pytest.mark.parametrize("target", ["/srv/nothing", "/srv/link"])
def test_cp_creates_the_target_that_only_root_can_have_chosen(linked, target):
    linked.path(FILE).unlink()
    put_link(linked, FILE, target, ROOT)
    put_link(linked, "/srv/link", "nothing", ROOT)

    assert linked.run(*ADD, env=CP_CREATES_TARGETS) == Result(0, b"", b"", [])

    assert linked.tree("/srv")["nothing"] == ("file", 0o644, *POPUSER, b"the report")
    assert attachment_rows(linked) == [("user@example.org", "report.pdf")]


def give_away_the_directory(box):
    box.path(DIRECTORY).chmod(0o775)


def give_away_the_directory_of_the_target(box):
    box.path("/srv").chmod(0o757)


def lead_through_a_directory_of_others(box):
    make_directories(box, "/srv/others/sub", owner=POPUSER, mode=0o755)
    put_link(box, "/srv/nothing", "others/sub/../../nowhere", ROOT)


def lead_through_a_link_of_others(box):
    put_link(box, "/srv/nothing", "nowhere", STRANGER)


def lead_through_a_link_of_roots_that_others_can_exchange(box):
    make_directories(box, "/srv/others", owner=POPUSER, mode=0o755)
    put_link(box, "/srv/others/link", "/srv/nowhere", ROOT)
    put_link(box, "/srv/nothing", "others/link", ROOT)


def lead_out_of_the_attachment_directory(box):
    box.path(FILE).unlink()
    put_link(box, FILE, "../nowhere", ROOT)


@pytest.mark.parametrize("change", [
    give_away_the_directory, give_away_the_directory_of_the_target, lead_through_a_directory_of_others,
    lead_through_a_link_of_others, lead_through_a_link_of_roots_that_others_can_exchange,
    lead_out_of_the_attachment_directory])
@pytest.mark.parametrize("env", [None, CP_CREATES_TARGETS])
def test_target_that_others_can_choose_is_refused(linked, change, env):
    change(linked)
    before = linked.tree("/srv"), linked.tree("/var/qmail/mailnames")

    result = linked.run(*ADD, env=env)

    assert (result.status, error_texts(result)) == (1, [CANNOT_MOVE + "Too many levels of symbolic links"])
    assert (linked.tree("/srv"), linked.tree("/var/qmail/mailnames")) == before
    assert attachment_rows(linked) == []
