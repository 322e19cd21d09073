"""--add-attach: directory, copy and owner come first, the row last; a failure leaves what was made before it."""

import contextlib
import os
import resource
import signal
from pathlib import Path

import pytest
from harness import DONE, Result
from harness.mailboxes import (ADD, DEL, DEL_RESP, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILBOX, POPUSER, ROOT,
                               add_autoresponder, attachment_rows, autoresponder_rows, copying_from_pipe,
                               make_directories, put_file, run_sql)
from harness.outcomes import not_moved, outcome
from harness.sandbox import DATABASE
from harness.tracing import on_files
from harness.waiting import until

ROW = ("user@example.org", "report.pdf")
ROOTS = ("dir", 0o755, 0, 0, None)
MADE = ("dir", 0o700, 1110, 31, None)  # as the tool makes its directories: the mail user's alone
NO_FILE = {".": ROOTS, "example.org": MADE, "example.org/user": MADE, "example.org/user/@attachments": MADE}


def options(filename="report.pdf", source="/tmp/source", mailname="user@example.org"):
    return "--add-attach", "--mailname", mailname, "--filename", filename, "--source", source


def copied(name="report.pdf", mode=0o644, owner=POPUSER, content=b"the report"):
    """The mail tree with one attachment in it."""
    return {**NO_FILE, f"example.org/user/@attachments/{name}": ("file", mode, *owner, content)}


def process_called(name, running):
    """The only process of that name that the run has started."""
    found = []
    for status in Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):  # the process has ended
            pid, rest = status.read_text().split(" (", 1)
            command, fields = rest.rsplit(") ", 1)
            if command == name and int(fields.split()[2]) == running.pid:
                found.append(int(pid))
    (process,) = found
    return process


def printed(status, text, number, error):
    """The Result of a run that prints a message with a system error."""
    lines = f"{text}: {error}\nSystem error {number}: {error}\n".encode()
    return Result(status, lines, lines, [])


# -- directories, copy and row


@pytest.mark.parametrize(("umask", "source_mode", "mode"), [
    (0o000, 0o666, 0o666), (0o022, 0o666, 0o644), (0o077, 0o666, 0o600),
    (0o000, 0o640, 0o640), (0o022, 0o400, 0o400), (0o077, 0o777, 0o700), (0o000, 0o6777, 0o777),
])
def test_directories_are_the_mail_users_alone_and_the_copy_keeps_the_mode_of_cp(mailbox, umask, source_mode, mode):
    mailbox.path("/tmp/source").chmod(source_mode)

    assert mailbox.run(*ADD, umask=umask) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=mode)
    assert attachment_rows(mailbox) == [ROW]
    assert mailbox.tree("/tmp")["source"] == ("file", source_mode, 0, 0, b"the report")


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_existing_directories_keep_owner_and_mode(mailbox, umask):
    make_directories(mailbox, DOMAIN, owner=(1234, 5678), mode=0o755)
    make_directories(mailbox, MAILBOX, owner=ROOT, mode=0o2750)

    assert mailbox.run(*ADD, umask=umask) == DONE

    assert mailbox.tree(MAIL_TREE) == {
        ".": ROOTS,
        "example.org": ("dir", 0o755, 1234, 5678, None),
        "example.org/user": ("dir", 0o2750, 0, 0, None),
        "example.org/user/@attachments": ("dir", 0o2700, 1110, 31, None),  # the group bit is inherited
        "example.org/user/@attachments/report.pdf": ("file", 0o644 & ~umask, 1110, 31, b"the report"),
    }


def test_rest_of_the_mail_tree_is_left_alone(mailbox):
    make_directories(mailbox, DIRECTORY, owner=(4, 4), mode=0o750)
    make_directories(mailbox, DOMAIN + "/other/@attachments", owner=(5, 5), mode=0o711)
    put_file(mailbox, DIRECTORY + "/older.pdf", b"older", owner=(6, 6), mode=0o604)
    put_file(mailbox, DOMAIN + "/other/@attachments/report.pdf", b"other's", mode=0o640)
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*ADD) == DONE

    new = {"example.org/user/@attachments/report.pdf": ("file", 0o644, 1110, 31, b"the report")}
    assert mailbox.tree(MAIL_TREE) == {**before, **new}


@pytest.mark.parametrize("content", [b"", b"a newer and longer report"])
def test_adding_again_replaces_the_content_and_keeps_one_row(mailbox, content):
    assert mailbox.run(*ADD) == DONE
    put_file(mailbox, "/tmp/source", content, owner=ROOT, mode=0o666)

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(content=content)
    assert attachment_rows(mailbox) == [ROW]


def test_existing_file_keeps_its_mode_and_changes_its_owner(mailbox):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"content longer than that of the new file", owner=(7, 7), mode=0o606)

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=0o606)


# -- which directory


def test_copy_goes_to_the_owner_and_the_row_to_the_mail_name(mailbox):
    add_autoresponder(mailbox, "sales@example.com", "user@example.org")

    assert mailbox.run(*options(mailname="sales@example.com")) == DONE

    assert mailbox.tree(MAIL_TREE) == copied()
    assert attachment_rows(mailbox) == [("sales@example.com", "report.pdf")]


@pytest.mark.parametrize(("owner", "directory"), [
    ("shared", "shared/shared/@attachments"), ("first@second@third", "second@third/first/@attachments"),
    ("@example.org", "example.org/@attachments"), ("user@", "user/@attachments"), ("", "@attachments"),
    ("User@Example.ORG", "Example.ORG/User/@attachments"), ("a/b@c/d", "c/d/a/b/@attachments"),
    ("/@/", "@attachments"), (".@.", "@attachments"), ("...@..x/x../a..b", "..x/x../a..b/.../@attachments"),
    ("us\ner@ex\x01am\x7fple.org", "ex\x01am\x7fple.org/us\ner/@attachments"),
    ("it's *?[a];|&<> größe@example.org", "example.org/it's *?[a];|&<> größe/@attachments"),
])
def test_owners_directory_is_found_by_the_first_at_sign(mailbox, owner, directory):
    add_autoresponder(mailbox, "sales@example.com", owner)

    assert mailbox.run(*options(mailname="sales@example.com")) == DONE

    parents = directory.split("/")
    assert mailbox.tree(MAIL_TREE) == {
        ".": ROOTS, directory + "/report.pdf": ("file", 0o644, 1110, 31, b"the report"),
        **{"/".join(parents[:count]): MADE for count in range(1, len(parents) + 1)}}


@pytest.mark.parametrize(("owner", "directory"), [
    ('us"er@example.org', 'example.org/us"er'), ("user@example$org", "example$org/user"),
    ("`touch /tmp/harm`@example.org", "example.org/`touch /tmp/harm`"),
    ("$(touch /tmp/harm)", "$(touch /tmp/harm)/$(touch /tmp/harm)"), ("user\\@example.org", "example.org/user\\"),
    ('user@example.org"; touch "/tmp/harm', 'example.org"; touch "/tmp/harm/user'),
    ("x@../../../etc/service.d", "../../../etc/service.d/x"),
    ("../../../../etc@example.org", "example.org/../../../../etc"), ("..", "../.."), ("user@..", "../user"),
    ("..@example.org", "example.org/.."), ("user@example.org/..", "example.org/../user"),
    ("a/../b@example.org", "example.org/a/../b"), ("user@example.org//..//x", "example.org//..//x/user"),
])
def test_owner_that_set_resp_never_stores_is_refused_before_anything_is_made(mailbox, owner, directory):
    add_autoresponder(mailbox, "sales@example.com", owner)
    before = [mailbox.tree(place) for place in ("/etc", "/tmp", "/var")]

    assert outcome(mailbox.run(*options(mailname="sales@example.com"))) == (
        1, "Unable to move attachment /tmp/source to "
           f"/var/qmail/mailnames/{directory}/@attachments/report.pdf: Invalid argument")

    assert [mailbox.tree(place) for place in ("/etc", "/tmp", "/var")] == before


def test_owner_is_cut_at_a_nul_before_its_check(mailbox):
    run_sql(mailbox, "UPDATE autoresponder SET real_owner = CAST(x'7573657240646f6d61696e002f2e2e2f24' AS TEXT)")

    assert mailbox.run(*ADD) == DONE

    assert mailbox.path(MAIL_TREE + "/domain/user/@attachments/report.pdf").exists()


@pytest.mark.parametrize("owner", ['us"er@$', "..@.."])
def test_other_commands_ignore_the_owner(mailbox, owner):
    assert mailbox.run(*ADD) == DONE
    run_sql(mailbox, f"UPDATE autoresponder SET real_owner = '{owner}'")

    assert mailbox.run(*DEL) == DONE
    assert mailbox.run(*DEL_RESP) == DONE

    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert autoresponder_rows(mailbox) == []


def test_row_without_an_owner_has_the_empty_address(mailbox):
    run_sql(mailbox, "DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
                     "INSERT INTO autoresponder VALUES ('user@example.org', NULL)")

    assert outcome(mailbox.run(*options(source="/tmp/none"))) == (
        1, "Unable to move attachment /tmp/none to /var/qmail/mailnames///@attachments/report.pdf: Child status 1")

    assert mailbox.tree(MAIL_TREE) == {".": ROOTS, "@attachments": MADE}


# -- which name


@pytest.mark.parametrize(("filename", "name"), [
    ("/tmp/x/report.pdf", "report.pdf"), ("x/report.pdf", "report.pdf"), ("//report.pdf", "report.pdf"),
    ("../../other/@attachments/report.pdf", "report.pdf"), ("dir/-f", "-f"),
    *((name, name) for name in (
        "two words.pdf", " ", "bericht-für-größe-名.pdf", "line\nfeed.pdf", "it's.pdf", "*?[a];|&<>.pdf", ".hidden",
        "x" * 255, os.fsdecode(b"caf\xe9.pdf"))),
])
def test_row_and_file_have_the_base_name(mailbox, filename, name):
    assert mailbox.run(*options(filename)) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(name)
    assert mailbox.rows("SELECT mn, CAST(filename AS BLOB) FROM attachments") == [
        ("user@example.org", os.fsencode(name))]


# -- the order of steps


def test_directory_copy_owner_row_in_this_order(mailbox, needs_tracing):
    result, calls = mailbox.trace(*ADD, calls="/mkdir,execve,/chown,pwrite64,unlink,fcntl,wait4")

    assert result == DONE
    steps = []
    for call in calls:
        text = call.args_text
        if call.name == "mkdirat" and call.error is None:
            steps.append(f"mkdir {call.strings[0]}")
        elif call.name == "execve" and call.strings[0] == "/bin/cp":
            steps.append("cp begins")
        elif call.name == "wait4" and call.pid == calls[0].pid:
            steps.append("cp has ended")
        elif "chown" in call.name and "the write lock is taken" not in steps:  # then it is SQLite's journal
            steps.append("the owner is changed" if "1110, 31" in text else text)
        elif call.name == "fcntl" and "F_WRLCK" in text and "l_start=1073741825" in text:
            steps.append("the write lock is taken")
        elif call.name == "unlink" and call.strings[0] == DATABASE + "-journal":
            steps.append("the row is committed")
    assert steps == [
        "mkdir example.org", "the owner is changed",
        "mkdir user", "the owner is changed",
        "mkdir @attachments", "the owner is changed",
        "cp begins",
        "cp has ended",
        "the owner is changed",
        "the write lock is taken",
        "the row is committed",
    ]


# -- the copy


def test_shell_receives_the_values_unchanged_between_double_quotes(mailbox, needs_tracing):
    source = "/tmp/my source $(echo) `echo` \\ *"

    _, calls = mailbox.trace(*options("a b.pdf", source), calls="execve")

    shells = [call for call in calls if call.strings[0] == "/bin/sh"]
    assert [(call.strings[1], call.strings[2]) for call in shells] == [("sh", "-c")]
    assert ('"/bin/cp \\"/tmp/my source $(echo) `echo` \\\\ *\\" '
            '\\"/var/qmail/mailnames/example.org/user/@attachments/a b.pdf\\""]') in shells[0].args_text


def test_shell_carries_out_commands_in_the_source(mailbox):
    assert mailbox.run(*options(source="/tmp/$(echo seen > /tmp/proof; echo source)")) == DONE

    assert mailbox.path("/tmp/proof").read_bytes() == b"seen\n"
    assert mailbox.tree(MAIL_TREE) == copied()


@pytest.mark.parametrize("exists", [True, False])
@pytest.mark.parametrize(("filename", "source"), [
    *(("report.pdf", source) for source in ("/tmp/none", "/tmp", "/dev/null/x", "", "-no-such-option")),
    ("", "/tmp/none"), ("x" * 256, "/tmp/source")])
def test_copy_that_cp_refuses_leaves_the_directory_and_no_row(mailbox, filename, source, exists):
    if exists:
        make_directories(mailbox, DIRECTORY)

    result = mailbox.run(*options(filename, source))

    assert outcome(result) == not_moved("Child status 1", source, filename)
    assert result.stderr.startswith(b"/bin/cp: ")
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


def test_source_that_cannot_be_read_leaves_the_directory_and_no_row(mailbox, needs_tracing):
    result, _ = mailbox.trace(*ADD, inject=["openat:error=EACCES"], paths=["/tmp/source"])

    assert outcome(result) == not_moved("Child status 1")
    assert result.stderr.startswith(b"/bin/cp: cannot open '/tmp/source' for reading: Permission denied\n")
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("code", [2, 127, 255])
def test_exit_code_of_the_shell_is_logged(mailbox, code):
    source = f'/dev/null" /dev/null; exit {code}; "'

    assert outcome(mailbox.run(*options(source=source))) == not_moved(f"Child status {code}", source)

    assert attachment_rows(mailbox) == []


def test_killed_shell_counts_as_success_and_the_missing_file_fails_the_change_of_owner(mailbox):
    assert outcome(mailbox.run(*options(source="$(kill -KILL $$)"))) == (
        1, "Unable to change owner for /var/qmail/mailnames/example.org/user/@attachments/report.pdf: "
           "No such file or directory")

    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGHUP])
def test_killed_shell_is_not_noticed_if_the_file_exists(mailbox, number):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, FILE, b"older", owner=ROOT, mode=0o640)

    assert mailbox.run(*options(source=f"$(kill -{number:d} $$)")) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=0o640, content=b"older")
    assert attachment_rows(mailbox) == [ROW]


def test_killed_cp_is_logged_and_its_partial_copy_stays(mailbox):
    with copying_from_pipe(mailbox, "/tmp/pipe", mailname="user@example.org", filename="report.pdf") as running:
        until(mailbox.path(FILE).exists, "the copy is made")
        os.kill(process_called("cp", running), signal.SIGKILL)

    assert outcome(running.wait()) == not_moved("Child status 137", "/tmp/pipe")
    assert mailbox.tree(MAIL_TREE) == copied(owner=ROOT, content=b"")
    assert attachment_rows(mailbox) == []


def test_copy_beyond_the_file_size_limit_fails_and_its_beginning_stays(mailbox):
    put_file(mailbox, "/tmp/source", b"x" * 300_000, owner=ROOT, mode=0o644)

    result = mailbox.run(*ADD, rlimits={resource.RLIMIT_FSIZE: 200_000})

    assert outcome(result) == not_moved("Child status 1")
    assert result.stderr.startswith(b"/bin/cp: ")
    assert b": File too large\n" in result.stderr
    assert mailbox.tree(MAIL_TREE) == copied(owner=ROOT, content=b"x" * 200_000)
    assert attachment_rows(mailbox) == []


def test_ignored_sigchld_hides_the_end_of_the_copy_and_fails_the_command(mailbox):
    assert outcome(mailbox.run(*ADD, ignore=[signal.SIGCHLD])) == not_moved("No child processes")

    assert mailbox.tree(MAIL_TREE) == copied(owner=ROOT)
    assert attachment_rows(mailbox) == []


def test_env_restores_the_default_action_of_sigchld(mailbox):
    command = ["/usr/bin/env", "--default-signal=CHLD", "/usr/sbin/arspctl"]

    failed = mailbox.execute(*command, *options(source="/tmp/none"), ignore=[signal.SIGCHLD])
    done = mailbox.execute(*command, *ADD, ignore=[signal.SIGCHLD])

    assert (outcome(failed), done) == (not_moved("Child status 1", "/tmp/none"), DONE)
    assert mailbox.tree(MAIL_TREE) == copied()


def test_child_that_cannot_be_waited_for_is_logged_with_the_system_error(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(source="/tmp/none"), inject=["wait4:error=ECHILD:when=1"])

    assert outcome(result) == not_moved("No child processes", "/tmp/none")
    assert attachment_rows(mailbox) == []


def test_child_that_cannot_be_made_counts_as_a_shell_that_cannot_run(mailbox, needs_tracing):
    result, calls = mailbox.trace(*ADD, inject=["/^(clone3?|v?fork)$:error=EAGAIN"])

    assert [call.strings[0] for call in calls if call.name == "execve"] == ["/usr/sbin/arspctl"]
    assert outcome(result) == not_moved("Child status 127")  # the C library reports it so
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


def test_copy_that_cannot_be_given_away_stays_without_a_row(mailbox, needs_tracing):
    result, _ = mailbox.trace(*ADD, inject=["/^fchown(at)?$:error=EROFS"], paths=[FILE])

    assert outcome(result) == (1, "Unable to change owner for /var/qmail/mailnames/example.org/user/@attachments/"
                                  "report.pdf: Read-only file system")
    assert mailbox.tree(MAIL_TREE) == copied(owner=ROOT)
    assert attachment_rows(mailbox) == []


# -- the directory


@pytest.mark.parametrize(("in_the_way", "refused"), [(DOMAIN, MAILBOX), (MAILBOX, DIRECTORY)])
def test_file_in_the_place_of_a_directory_ends_the_run(mailbox, in_the_way, refused):
    make_directories(mailbox, os.path.dirname(in_the_way))
    put_file(mailbox, in_the_way)
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*ADD) == printed(1, f"Cannot create directory {refused}", 20, "Not a directory")

    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


def test_file_in_the_place_of_the_last_directory_is_left_to_cp(mailbox):
    make_directories(mailbox, MAILBOX)
    put_file(mailbox, DIRECTORY)

    assert outcome(mailbox.run(*ADD)) == not_moved("Child status 1")

    assert attachment_rows(mailbox) == []


def test_directory_that_cannot_be_made_ends_the_run_and_those_above_it_stay(mailbox, needs_tracing):
    result, _ = mailbox.trace(*ADD, inject=["mkdirat:error=ENOSPC"], paths=["user"])

    assert result == printed(1, f"Cannot create directory {MAILBOX}", 28, "No space left on device")
    assert mailbox.tree(MAIL_TREE) == {".": ROOTS, "example.org": MADE}
    assert attachment_rows(mailbox) == []


def test_directory_that_cannot_be_given_away_is_reported_and_the_run_goes_on(mailbox, needs_tracing):
    result, _ = mailbox.trace(*ADD, inject=["/^fchown(at)?$:error=EROFS"], paths=[MAILBOX])

    assert result == printed(0, f"Cannot chown {MAILBOX}", 30, "Read-only file system")
    assert mailbox.tree(MAIL_TREE) == {**copied(), "example.org/user": ("dir", 0o700, 0, 0, None)}
    assert attachment_rows(mailbox) == [ROW]


# -- the mail user


@pytest.mark.parametrize(("readable", "text"), [(True, "Success"), (False, "Is a directory")])
def test_without_the_mail_user_no_file_is_made(mailbox, readable, text):
    if readable:
        mailbox.popuser_exists(False)
    else:
        mailbox.path("/etc/passwd").unlink()
        mailbox.path("/etc/passwd").mkdir()

    assert outcome(mailbox.run(*ADD)) == (1, "Unable to get uid:gid for popuser: " + text)

    assert mailbox.tree(MAIL_TREE) == {".": ROOTS}
    assert attachment_rows(mailbox) == []


def test_mail_user_is_looked_up_in_every_run(mailbox):
    assert mailbox.run(*ADD) == DONE
    mailbox.path("/etc/passwd").write_text("popuser:x:2222:3333::/:/bin/false\n")

    assert mailbox.run(*ADD) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(owner=(2222, 3333))


# -- the database


@pytest.mark.parametrize(("error", "text"), [("EIO", "database disk image is malformed"), ("ESTALE", "disk I/O error")])
def test_failed_read_of_the_owner_is_two_records(mailbox, needs_tracing, error, text):
    _, reads = mailbox.trace(*options(mailname="none@example.org"), calls="pread64", paths=[DATABASE])

    result, _ = mailbox.trace(*ADD, inject=[f"pread64:error={error}:when={len(reads)}"], paths=[DATABASE])

    assert outcome(result) == (1, f"Unable to read data from database: {text}",
                               "Error selecting autoresponder for mailname (user@example.org)")
    assert mailbox.tree(MAIL_TREE) == {".": ROOTS}


def test_database_is_closed_before_the_run_ends(mailbox, needs_tracing):
    for args in (ADD, options(mailname="none@example.org"), options(source="/tmp/none")):
        _, calls = mailbox.trace(*args, calls="openat,close")

        names = [call.name for call, path in on_files(calls) if path == DATABASE]
        assert names[-1] == "close"
        assert names.count("openat") == names.count("close")
