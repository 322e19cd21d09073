"""The mail tree as the tool finds it: the step that fails reports the refusal of the system, a copy into a directory
passes the same checks as any other, and directories are made with mode 0700."""

import os
import subprocess

import pytest
from harness import DONE, Result, automount
from harness.mailboxes import (ADD, DEL, DEL_RESP, DIRECTORY, DOMAIN, FILE, LOOP, MAIL_TREE, MAILBOX, MAILNAME, POPUSER,
                               ROOT, STRANGER, add_attachment_rows, add_autoresponder, add_mailbox, attachment_rows,
                               make_directories, put_file, put_link)
from harness.outcomes import not_moved, outcome

each_command = pytest.mark.parametrize("args", [ADD, DEL, DEL_RESP], ids=lambda args: args[0])


def add(filename, source="/tmp/source"):
    return "--add-attach", *MAILNAME, "--filename", filename, "--source", source


def cannot_create(path, number, text):
    """The Result of a run that cannot make the directory `path`."""
    printed = f"Cannot create directory {path}: {text}\nSystem error {number}: {text}\n".encode()
    return Result(1, printed, printed, [])


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


@pytest.mark.parametrize("link", [DIRECTORY, FILE])
def test_looping_link_of_roots_at_the_end_is_left_to_cp(mailbox, link):
    make_directories(mailbox, link.rpartition("/")[0])
    put_link(mailbox, link, link, ROOT)
    before = mailbox.tree(MAIL_TREE)

    assert outcome(mailbox.run(*ADD)) == not_moved("Child status 1")

    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize(("error", "number", "text"), [
    ("EACCES", 13, "Permission denied"), ("EIO", 5, "Input/output error"), ("ENODEV", 19, "No such device")])
def test_directory_that_cannot_be_opened_refuses_the_directory_below_it(mailbox, needs_tracing, error, number, text):
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
    assert outcome(result) == not_moved(text)
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


def test_directory_whose_path_is_too_long_for_a_call_is_not_made(mailbox):
    """The tool opens one name at a time; the limit is that of a whole path."""
    room = 4095 - len(MAIL_TREE) - len("/") - len("/user")  # for the domain, so that the mailbox still has a path
    domain = "/".join(["d" * 200] * (room // 201))
    domain += "/" + "d" * (room - len(domain) - 1)
    mailbox_path = f"{MAIL_TREE}/{domain}/user"
    assert len(mailbox_path) == 4095
    add_autoresponder(mailbox, "sales@example.org", "user@" + domain)

    result = mailbox.run("--add-attach", "--mailname", "sales@example.org", *ADD[3:])

    message = f"Cannot create directory {mailbox_path}/@attachments: File name too long\n".encode()
    assert (result.status, result.records) == (1, [])
    assert (result.stdout[:len(message)], result.stderr[:len(message)]) == (message, message)
    found = subprocess.run(["find", ".", "-name", "user", "-o", "-name", "@attachments"], cwd=mailbox.path(MAIL_TREE),
                           capture_output=True, check=True)
    assert found.stdout == f"./{domain}/user\n".encode()


@pytest.mark.parametrize("exists", [True, False])
@pytest.mark.parametrize(("length", "status"), [(4095, 0), (4096, 1), (5000, 1)])
def test_attachment_whose_path_is_too_long_for_a_call_is_not_unlinked(mailbox, exists, length, status):
    name = "./" * ((length - len(DIRECTORY) - 1) // 2 - 1)
    name += "x" * (length - len(f"{DIRECTORY}/{name}"))
    make_directories(mailbox, DIRECTORY)
    if exists:
        put_file(mailbox, DIRECTORY + "/" + name.rpartition("/")[2])
    add_attachment_rows(mailbox, "user@example.org", name)

    result = mailbox.run("--del-attach", *MAILNAME, "--filename", name)

    texts = [f"Unable to delete attachment {DIRECTORY}/{name}: File name too long"]
    assert outcome(result) == (status, *texts[:status])
    assert attachment_rows(mailbox) == []
    assert len(list(mailbox.path(DIRECTORY).iterdir())) == (1 if exists and status == 1 else 0)


# -- a name that is a directory: cp puts the copy into it, under the name of its source

into_a_directory = pytest.mark.parametrize(("filename", "directory"), [  # --filename, and where the copy goes
    ("report.pdf", FILE), ("", DIRECTORY), ("reports/", DIRECTORY), (".", DIRECTORY), ("x/.", DIRECTORY),
    ("..", MAILBOX)])


@into_a_directory
@pytest.mark.parametrize("owner", [POPUSER, STRANGER])
@pytest.mark.parametrize("target", ["/srv/precious", "/srv/nothing"])
def test_link_in_a_directory_that_receives_the_copy_is_refused(mailbox, filename, directory, owner, target):
    make_directories(mailbox, directory)
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/precious", b"precious", owner=ROOT)
    put_link(mailbox, directory + "/source", target, owner)
    before = mailbox.tree("/srv"), mailbox.tree(MAIL_TREE)

    assert outcome(mailbox.run(*add(filename))) == not_moved(LOOP, name=filename.rpartition("/")[2])

    assert (mailbox.tree("/srv"), mailbox.tree(MAIL_TREE)) == before
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("source", ["/tmp/source/", "/tmp//source//", "/tmp/./source/"])
def test_source_with_slashes_at_its_end_has_the_name_before_them(mailbox, source):
    mailbox.path("/tmp/source").unlink()
    make_directories(mailbox, "/tmp/source")
    make_directories(mailbox, FILE)
    put_link(mailbox, FILE + "/source", "/srv", POPUSER)

    assert outcome(mailbox.run(*add("report.pdf", source))) == not_moved(LOOP, source=source)


@pytest.mark.parametrize("source", ["/", "//", "///"])
def test_root_directory_as_source_is_left_to_cp(mailbox, source):
    make_directories(mailbox, FILE)

    assert outcome(mailbox.run(*add("report.pdf", source))) == not_moved("Child status 1", source=source)


@pytest.mark.parametrize(("owner", "ending", "content"), [
    (POPUSER, (0,), b"the report"), (ROOT, not_moved(LOOP), b"older")])
def test_link_of_roots_in_a_directory_that_receives_the_copy_leads_to_the_mail_users_files(
        mailbox, owner, ending, content):
    make_directories(mailbox, FILE)
    make_directories(mailbox, "/srv", owner=ROOT, mode=0o755)
    put_file(mailbox, "/srv/shared", b"older", owner=owner)
    put_link(mailbox, FILE + "/source", "/srv/shared", ROOT)

    assert outcome(mailbox.run(*ADD)) == ending

    assert mailbox.path("/srv/shared").read_bytes() == content


@into_a_directory
@pytest.mark.parametrize("exists", [True, False])
def test_directory_receives_the_copy_and_is_given_away(mailbox, filename, directory, exists):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, directory)
    os.chown(mailbox.path(directory), *ROOT)
    if exists:
        put_file(mailbox, directory + "/source", b"older")

    assert mailbox.run(*add(filename)) == DONE

    tree = mailbox.tree(directory)
    assert tree["."] == ("dir", 0o700, *POPUSER, None)
    assert tree["source"] == ("file", *((0o600, *POPUSER) if exists else (0o644, *ROOT)), b"the report")
    assert attachment_rows(mailbox) == [("user@example.org", filename.rpartition("/")[2])]


# -- how directories are made


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o777])
def test_directories_are_made_closed_and_given_away_by_their_descriptors(mailbox, needs_tracing, umask):
    result, calls = mailbox.trace(*ADD, calls="/chown|chmod|mkdir|execve", umask=umask)

    assert result.status == 0
    shell = next(place for place, call in enumerate(calls) if call.strings[:1] == ["/bin/sh"])
    steps = [(call.name, *call.strings, call.args_text.rpartition(" ")[2])
             for call in calls[1:shell] if call.error is None]
    assert [step for step in steps if step[0] != "fchown" and step[:2] != ("fchownat", "")] == [
        ("mkdirat", name, "0700") for name in ("example.org", "user", "@attachments")]
    assert {entry for name, entry in mailbox.tree(DOMAIN).items() if entry[0] == "dir"} == {
        ("dir", 0o700, *POPUSER, None)}


# -- automounts


@each_command
def test_directories_of_the_path_are_opened_with_o_directory_to_mount_automounts(mailbox, needs_tracing, args):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"older")

    _, calls = mailbox.trace(*args, calls="openat")

    for name in ("mailnames", "example.org", "user", "@attachments"):
        opened = next(call.args_text for call in calls if call.strings and call.strings[0].rpartition("/")[2] == name)
        assert "O_DIRECTORY" in opened, opened


if automount.possible():

    @each_command
    @pytest.mark.parametrize("directory", [MAIL_TREE, DOMAIN, DIRECTORY])
    def test_automount_in_the_path_is_mounted(make_sandbox, args, directory):
        mailbox = make_sandbox(mode="namespace")  # a mount in a chroot is one of the whole machine
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

        assert outcome(result) == not_moved(LOOP)
        assert sorted(mailbox.tree("/srv/foreign")) == [".", "@attachments"]


# -- the configuration


def test_del_attach_reads_the_path_of_the_mail_tree_only_for_an_autoresponder(mailbox, needs_tracing):
    """Each value that is read from the missing configuration file is an attempt to open it."""

    def attempts(mailname):
        _, calls = mailbox.trace("--del-attach", "--mailname", mailname, "--filename", "x", calls="openat")
        return [call.strings[0] for call in calls].count("/etc/kel/kel.conf")

    assert (attempts("none@example.org"), attempts("user@example.org")) == (1, 2)
