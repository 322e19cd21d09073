"""The mail tree as the tool finds it: what the system itself refuses is reported by the step that fails, a copy into a
directory is looked at like any other, and directories are made the tool's own way."""

import os
import subprocess

import pytest
from harness import Result, automount
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, error_texts, make_directories,
                               put_file, put_link)

MAIL_TREE = "/var/qmail/mailnames"
DOMAIN = "/var/qmail/mailnames/example.org"
MAILBOX = "/var/qmail/mailnames/example.org/user"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
FILE = "/var/qmail/mailnames/example.org/user/@attachments/report.pdf"
ROOT, POPUSER, STRANGER = (0, 0), (1110, 31), (4321, 0)
DONE = Result(0, b"", b"", [])
LOOP = "Too many levels of symbolic links"

ADD = ("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf", "--source", "/tmp/source")
DEL_RESP = ("--del-resp", "--mailname", "user@example.org")


def delete(filename):
    return "--del-attach", "--mailname", "user@example.org", "--filename", filename


def add(filename, source="/tmp/source"):
    return "--add-attach", "--mailname", "user@example.org", "--filename", filename, "--source", source


def add_mailbox(sandbox):
    """Makes the autoresponder user@example.org and the file /tmp/source."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=ROOT, mode=0o644)


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and the file /tmp/source; the mail tree is empty."""
    add_mailbox(sandbox)
    return sandbox


def cannot_create(path, number, text):
    """The end of a run that cannot make the directory `path`."""
    printed = f"Cannot create directory {path}: {text}\nSystem error {number}: {text}\n".encode()
    return Result(1, printed, printed, [])


def chain(mailbox, link, count):
    """Makes `link` lead to an empty directory through `count` links of root's, itself included."""
    make_directories(mailbox, "/srv/target")
    os.symlink("/srv/target", mailbox.path(f"/srv/{count - 1}"))
    for number in range(1, count - 1):
        os.symlink(f"/srv/{number + 1}", mailbox.path(f"/srv/{number}"))
    os.symlink("/srv/1", mailbox.path(link))


# -- what the system refuses


@pytest.mark.parametrize(("link", "refused"), [(DOMAIN, MAILBOX), (MAILBOX, DIRECTORY)])
def test_looping_link_of_roots_refuses_the_directory_below_it(mailbox, link, refused):
    make_directories(mailbox, link.rpartition("/")[0])
    put_link(mailbox, link, link, ROOT)
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*ADD) == cannot_create(refused, 40, LOOP)

    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


def test_looping_root_refuses_the_directory_below_it(mailbox):
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_link(mailbox, "/srv/mail", "mail", ROOT)
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

    assert mailbox.run(*ADD) == cannot_create("/srv/mail/example.org", 40, LOOP)


def test_more_links_than_the_system_follows_refuse_the_directory_below_them(mailbox):
    chain(mailbox, DOMAIN, 41)

    assert mailbox.run(*ADD) == cannot_create(MAILBOX, 40, LOOP)


@pytest.mark.parametrize("link", [DIRECTORY, FILE])
def test_looping_link_of_roots_at_the_end_is_left_to_cp(mailbox, link):
    make_directories(mailbox, link.rpartition("/")[0])
    put_link(mailbox, link, link, ROOT)
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*ADD)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [f"Unable to move attachment /tmp/source to {FILE}: Child status 1"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize(("error", "number", "text"), [
    ("EACCES", 13, "Permission denied"), ("EIO", 5, "Input/output error"), ("ENODEV", 19, "No such device")])
def test_directory_that_cannot_be_entered_refuses_the_directory_below_it(mailbox, needs_tracing, error, number, text):
    make_directories(mailbox, DOMAIN)

    result, _ = mailbox.trace(*ADD, inject=[f"openat:error={error}"], paths=["example.org"])

    assert result == cannot_create(MAILBOX, number, text)
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize(("error", "text"), [
    ("EMFILE", "Too many open files"), ("ENFILE", "Too many open files in system"),
    ("ENOMEM", "Cannot allocate memory")])
@pytest.mark.parametrize("name", ["example.org", "user", "@attachments", "report.pdf"])
def test_shortage_during_the_check_ends_the_command_before_anything_is_made(mailbox, needs_tracing, name, error, text):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"older")
    before = mailbox.tree(MAIL_TREE)

    result, calls = mailbox.trace(*ADD, inject=[f"openat:error={error}:when=1"], paths=[name])

    assert any(call.injected for call in calls)
    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [f"Unable to move attachment /tmp/source to {FILE}: {text}"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


def test_directory_whose_path_is_too_long_for_a_call_is_not_made(mailbox):
    """The tool walks by single names, but its directories are named by whole paths elsewhere."""
    room = 4095 - len(MAIL_TREE) - len("/") - len("/user")  # for the domain, so that the mailbox still has a path
    domain = "/".join(["d" * 200] * (room // 201))
    domain += "/" + "d" * (room - len(domain) - 1)
    mailbox_path = f"{MAIL_TREE}/{domain}/user"
    assert len(mailbox_path) == 4095
    add_autoresponder(mailbox, "sales@example.org", "user@" + domain)

    result = mailbox.run("--add-attach", "--mailname", "sales@example.org", "--filename", "report.pdf",
                         "--source", "/tmp/source")

    message = f"Cannot create directory {mailbox_path}/@attachments: File name too long\n".encode()
    assert (result.status, result.records) == (1, [])
    assert (result.stdout[:len(message)], result.stderr[:len(message)]) == (message, message)
    found = subprocess.run(["find", ".", "-name", "user"], cwd=mailbox.path(MAIL_TREE), capture_output=True, check=True)
    assert found.stdout == f"./{domain}/user\n".encode()
    assert subprocess.run(["find", ".", "-name", "@attachments"], cwd=mailbox.path(MAIL_TREE), capture_output=True,
                          check=True).stdout == b""


@pytest.mark.parametrize("exists", [True, False])
@pytest.mark.parametrize(("length", "status"), [(4095, 0), (4096, 1), (5000, 1)])
def test_path_of_an_attachment_that_is_too_long_for_a_call_is_not_unlinked(mailbox, exists, length, status):
    name = "./" * ((length - len(DIRECTORY) - 1) // 2 - 1)
    name += "x" * (length - len(f"{DIRECTORY}/{name}"))
    make_directories(mailbox, DIRECTORY)
    if exists:
        put_file(mailbox, DIRECTORY + "/" + name.rpartition("/")[2])
    add_attachment_rows(mailbox, "user@example.org", name)

    result = mailbox.run(*delete(name))

    texts = [f"Unable to delete attachment {DIRECTORY}/{name}: File name too long"]
    assert (result.status, error_texts(result)) == (status, texts[:status])
    assert attachment_rows(mailbox) == []
    assert len(list(mailbox.path(DIRECTORY).iterdir())) == (1 if exists and status == 1 else 0)


# -- a name that is a directory: cp puts the copy into it, under the name of its source

INTO = [  # --filename and the directory that the copy goes to
    ("report.pdf", FILE), ("", DIRECTORY), ("reports/", DIRECTORY), (".", DIRECTORY), ("x/.", DIRECTORY),
    ("..", MAILBOX)]
into_a_directory = pytest.mark.parametrize(("filename", "directory"), INTO)


def path_of(filename):
    return f"{DIRECTORY}/{filename.rpartition('/')[2]}"


@into_a_directory
@pytest.mark.parametrize("owner", [POPUSER, STRANGER])
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing"])
def test_link_below_a_directory_that_takes_the_copy_in_is_refused(mailbox, filename, directory, owner, target):
    make_directories(mailbox, directory)
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/precious", b"precious", owner=ROOT)
    put_link(mailbox, directory + "/source", target, owner)
    before = mailbox.tree("/srv"), mailbox.tree(MAIL_TREE)

    result = mailbox.run(*add(filename))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [f"Unable to move attachment /tmp/source to {path_of(filename)}: {LOOP}"]
    assert (mailbox.tree("/srv"), mailbox.tree(MAIL_TREE)) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("source", ["/tmp/source/", "/tmp//source//", "/tmp/./source/"])
def test_source_with_slashes_at_its_end_has_the_name_before_them(mailbox, source):
    mailbox.path("/tmp/source").unlink()
    make_directories(mailbox, "/tmp/source")
    make_directories(mailbox, FILE)
    put_link(mailbox, FILE + "/source", "/srv", POPUSER)

    result = mailbox.run(*add("report.pdf", source))

    assert error_texts(result) == [f"Unable to move attachment {source} to {FILE}: {LOOP}"]


@pytest.mark.parametrize(("owner", "status", "content"), [(POPUSER, 0, b"the report"), (ROOT, 1, b"older")])
def test_link_of_roots_below_a_directory_that_takes_the_copy_in_leads_to_the_mail_users_files(
        mailbox, owner, status, content):
    make_directories(mailbox, FILE)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/shared", b"older", owner=owner)
    put_link(mailbox, FILE + "/source", "/srv/shared", ROOT)

    result = mailbox.run(*ADD)

    texts = [f"Unable to move attachment /tmp/source to {FILE}: {LOOP}"]
    assert (result.status, error_texts(result)) == (status, texts[:status])
    assert mailbox.path("/srv/shared").read_bytes() == content


@into_a_directory
@pytest.mark.parametrize("exists", [True, False])
def test_directory_takes_the_copy_in(mailbox, filename, directory, exists):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, directory)
    if exists:
        put_file(mailbox, directory + "/source", b"older")

    assert mailbox.run(*add(filename)) == DONE

    assert mailbox.path(directory + "/source").read_bytes() == b"the report"
    assert attachment_rows(mailbox) == [("user@example.org", filename.rpartition("/")[2])]


# -- how directories are made


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o777])
def test_directories_are_made_closed_and_given_away_by_their_descriptors(mailbox, needs_tracing, umask):
    result, calls = mailbox.trace(*add("report.pdf"), calls="/chown|chmod|mkdir|execve", umask=umask)

    assert result.status == 0
    shell = next(place for place, call in enumerate(calls) if call.strings[:1] == ["/bin/sh"])
    steps = [(call.name, *call.strings, call.args_text.rpartition(" ")[2])
             for call in calls[1:shell] if call.error is None]
    assert [step for step in steps if step[0] != "fchown" and step[:2] != ("fchownat", "")] == [
        ("mkdirat", name, "0700") for name in ("example.org", "user", "@attachments")]
    assert {entry for name, entry in mailbox.tree(DOMAIN).items() if entry[0] == "dir"} == {
        ("dir", 0o700, *POPUSER, None)}


# -- automounts

each_command = pytest.mark.parametrize("args", [ADD, delete("report.pdf"), DEL_RESP],
                                       ids=["add-attach", "del-attach", "del-resp"])


@each_command
def test_directories_of_the_way_are_opened_as_directories_so_that_automounts_are_mounted(mailbox, needs_tracing, args):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"older")

    _, calls = mailbox.trace(*args, calls="openat")

    for name in ("mailnames", "example.org", "user", "@attachments"):
        opened = next(call.args_text for call in calls if call.strings and call.strings[0].rpartition("/")[2] == name)
        assert "O_DIRECTORY" in opened, opened


if automount.possible():

    @each_command
    @pytest.mark.parametrize("directory", [MAIL_TREE, DOMAIN, DIRECTORY])
    def test_directory_that_is_mounted_on_demand_is_mounted(make_sandbox, args, directory):
        mailbox = make_sandbox(mode="namespace")  # a chroot would mount for the whole machine
        add_mailbox(mailbox)
        make_directories(mailbox, directory, owner=ROOT, mode=0o755)
        make_directories(mailbox, "/srv/mounted" + DIRECTORY.removeprefix(directory))
        put_file(mailbox, "/srv/mounted" + FILE.removeprefix(directory), b"older")

        with automount.mounted_on_demand(mailbox, "/srv/mounted", directory):
            assert mailbox.run(*args) == DONE

        left = {name: entry[4] for name, entry in mailbox.tree("/srv/mounted").items() if entry[0] == "file"}
        assert left == ({FILE.removeprefix(directory + "/"): b"the report"} if args == ADD else {})

    def test_link_behind_an_automount_is_refused(make_sandbox):
        mailbox = make_sandbox(mode="namespace")
        add_mailbox(mailbox)
        make_directories(mailbox, "/srv/mounted/example.org")
        make_directories(mailbox, "/srv/foreign/@attachments", owner=ROOT)
        put_link(mailbox, "/srv/mounted/example.org/user", "/srv/foreign", POPUSER)

        with automount.mounted_on_demand(mailbox, "/srv/mounted", MAIL_TREE):
            result = mailbox.run(*ADD)

        assert error_texts(result) == [f"Unable to move attachment /tmp/source to {FILE}: {LOOP}"]
        assert sorted(mailbox.tree("/srv/foreign")) == [".", "@attachments"]


# -- the configuration


def test_del_attach_looks_for_the_directory_only_when_there_is_an_autoresponder(mailbox, needs_tracing):
    """Without a file, each look at the configuration tries to open it."""

    def looks(mailname):
        _, calls = mailbox.trace("--del-attach", "--mailname", mailname, "--filename", "x", calls="openat")
        return [call.strings[0] for call in calls].count("/etc/kel/kel.conf")

    assert (looks("nobody@example.org"), looks("user@example.org")) == (1, 2)
