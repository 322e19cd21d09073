"""--add-attach: directory, copy and owner come first, the row last; what was made before a failure stays."""

import contextlib
import os
import resource
import signal
from pathlib import Path

import pytest
from harness import Result
from harness.faults import fault_at, first_call_fails, places_on
from harness.mailboxes import (add_autoresponder, attachment_rows, autoresponder_rows, copying_from_pipe, corrupt_page_of,
                               error_texts, make_directories, put_file, run_sql)
from harness.sandbox import DATABASE
from harness.waiting import until

MAIL_TREE = "/var/qmail/mailnames"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
DONE = Result(0, b"", b"", [])
ROW = ("user@example.org", "report.pdf")
ROOT = ("dir", 0o755, 0, 0, None)
MADE = ("dir", 0o700, 1110, 31, None)  # as the tool makes its directories: the mail user's alone
NO_FILE = {".": ROOT, "example.org": MADE, "example.org/user": MADE, "example.org/user/@attachments": MADE}


def options(filename="report.pdf", source="/tmp/source", mailname="user@example.org"):
    return "--add-attach", "--mailname", mailname, "--filename", filename, "--source", source


def copied(name="report.pdf", mode=0o644, owner=(1110, 31), content=b"the report"):
    """The mail tree with one attachment in it."""
    return {**NO_FILE, f"example.org/user/@attachments/{name}": ("file", mode, *owner, content)}


def process_called(name, running):
    """The process of that name that was started by the run; there is just one."""
    found = []
    for status in Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):  # it has ended meanwhile
            pid, rest = status.read_text().split(" (", 1)
            command, fields = rest.rsplit(") ", 1)
            if command == name and int(fields.split()[2]) == running.pid:
                found.append(int(pid))
    (process,) = found
    return process


def prepare(sandbox):
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=(0, 0), mode=0o644)
    return sandbox


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and the file /tmp/source."""
    return prepare(sandbox)


@pytest.fixture
def twin(make_sandbox):
    """Another one just like that."""
    return prepare(make_sandbox())


# -- what is there afterwards


@pytest.mark.parametrize(("umask", "source_mode", "mode"), [
    (0o000, 0o666, 0o666), (0o022, 0o666, 0o644), (0o077, 0o666, 0o600),
    (0o000, 0o640, 0o640), (0o022, 0o400, 0o400), (0o077, 0o777, 0o700),
])
def test_directories_are_the_mail_users_alone_and_the_copy_keeps_the_mode_of_cp(mailbox, umask, source_mode, mode):
    mailbox.path("/tmp/source").chmod(source_mode)

    assert mailbox.run(*options(), umask=umask) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=mode)
    assert attachment_rows(mailbox) == [ROW]
    assert mailbox.tree("/tmp")["source"] == ("file", source_mode, 0, 0, b"the report")


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_directories_that_exist_keep_owner_and_mode(mailbox, umask):
    make_directories(mailbox, "/var/qmail/mailnames/example.org", owner=(1234, 5678), mode=0o755)
    make_directories(mailbox, "/var/qmail/mailnames/example.org/user", owner=(0, 0), mode=0o2750)

    assert mailbox.run(*options(), umask=umask) == DONE

    assert mailbox.tree(MAIL_TREE) == {
        ".": ROOT,
        "example.org": ("dir", 0o755, 1234, 5678, None),
        "example.org/user": ("dir", 0o2750, 0, 0, None),
        "example.org/user/@attachments": ("dir", 0o2700, 1110, 31, None),  # the group bit is inherited
        "example.org/user/@attachments/report.pdf": ("file", 0o666 & 0o644 & ~umask, 1110, 31, b"the report"),
    }


def test_the_rest_of_the_mail_tree_is_left_alone(mailbox):
    make_directories(mailbox, "/var/qmail/mailnames/example.org/user/@attachments", owner=(4, 4), mode=0o750)
    make_directories(mailbox, "/var/qmail/mailnames/example.org/other/@attachments", owner=(5, 5), mode=0o711)
    put_file(mailbox, DIRECTORY + "/older.pdf", b"older", owner=(6, 6), mode=0o604)
    put_file(mailbox, "/var/qmail/mailnames/example.org/other/@attachments/report.pdf", b"other's", mode=0o640)
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options()) == DONE

    new = {"example.org/user/@attachments/report.pdf": ("file", 0o644, 1110, 31, b"the report")}
    assert mailbox.tree(MAIL_TREE) == {**before, **new}


def test_an_empty_file_is_an_attachment(mailbox):
    put_file(mailbox, "/tmp/source", b"", owner=(0, 0), mode=0o644)

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(content=b"")


def test_adding_again_replaces_the_file_and_keeps_one_row(mailbox):
    assert mailbox.run(*options()) == DONE
    put_file(mailbox, "/tmp/source", b"a newer and longer report", owner=(0, 0), mode=0o666)

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(content=b"a newer and longer report")
    assert attachment_rows(mailbox) == [ROW]


def test_a_file_that_is_there_keeps_its_mode_and_changes_its_owner(mailbox):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, DIRECTORY + "/report.pdf", b"somebody's, and longer than the new one", owner=(7, 7), mode=0o606)

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=0o606)


def test_a_directory_in_the_place_of_the_file_takes_the_copy_in(mailbox):
    make_directories(mailbox, DIRECTORY)
    make_directories(mailbox, DIRECTORY + "/report.pdf", owner=(0, 0), mode=0o750)

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(MAIL_TREE) == {
        **NO_FILE,
        "example.org/user/@attachments/report.pdf": ("dir", 0o750, 1110, 31, None),
        "example.org/user/@attachments/report.pdf/source": ("file", 0o644, 0, 0, b"the report"),
    }
    assert attachment_rows(mailbox) == [ROW]


# -- which directory


def test_the_copy_goes_to_the_owner_and_the_row_to_the_mail_name(mailbox):
    add_autoresponder(mailbox, "sales@example.com", "user@example.org")

    assert mailbox.run(*options(mailname="sales@example.com")) == DONE

    assert mailbox.tree(MAIL_TREE) == copied()
    assert attachment_rows(mailbox) == [("sales@example.com", "report.pdf")]


@pytest.mark.parametrize(("owner", "directory"), [
    ("shared", "shared/shared/@attachments"),
    ("first@second@third", "second@third/first/@attachments"),
    ("@example.org", "example.org/@attachments"),
    ("user@", "user/@attachments"),
    ("", "@attachments"),
    ("User@Example.ORG", "Example.ORG/User/@attachments"),
    ("a/b@c/d", "c/d/a/b/@attachments"),
    ("/@/", "@attachments"),
    (".@.", "@attachments"),
    ("...@..x/x../a..b", "..x/x../a..b/.../@attachments"),
    ("us\ner@ex\x01am\x7fple.org", "ex\x01am\x7fple.org/us\ner/@attachments"),
    ("it's *?[a];|&<> größe@example.org", "example.org/it's *?[a];|&<> größe/@attachments"),
])
def test_the_owners_directory_is_found_by_the_first_at_sign(mailbox, owner, directory):
    add_autoresponder(mailbox, "sales@example.com", owner)

    assert mailbox.run(*options(mailname="sales@example.com")) == DONE

    parents = directory.split("/")
    assert mailbox.tree(MAIL_TREE) == {
        ".": ROOT, directory + "/report.pdf": ("file", 0o644, 1110, 31, b"the report"),
        **{"/".join(parents[:count]): MADE for count in range(1, len(parents) + 1)}}


@pytest.mark.parametrize(("owner", "directory"), [
    ('us"er@example.org', 'example.org/us"er'),
    ("user@example$org", "example$org/user"),
    ("`touch /tmp/harm`@example.org", "example.org/`touch /tmp/harm`"),
    ("$(touch /tmp/harm)", "$(touch /tmp/harm)/$(touch /tmp/harm)"),
    ("user\\@example.org", "example.org/user\\"),
    ('user@example.org"; touch "/tmp/harm', 'example.org"; touch "/tmp/harm/user'),
    ("x@../../../etc/service.d", "../../../etc/service.d/x"),
    ("../../../../etc@example.org", "example.org/../../../../etc"),
    ("..", "../.."),
    ("user@..", "../user"),
    ("..@example.org", "example.org/.."),
    ("user@example.org/..", "example.org/../user"),
    ("a/../b@example.org", "example.org/a/../b"),
    ("user@example.org//..//x", "example.org//..//x/user"),
])
def test_an_owner_that_set_resp_never_stored_is_refused_before_anything_is_made(mailbox, owner, directory):
    add_autoresponder(mailbox, "sales@example.com", owner)
    before = [mailbox.tree(place) for place in ("/etc", "/tmp", "/var")]

    result = mailbox.run(*options(mailname="sales@example.com"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to move attachment /tmp/source to "
                                   f"/var/qmail/mailnames/{directory}/@attachments/report.pdf: Invalid argument"]
    assert [mailbox.tree(place) for place in ("/etc", "/tmp", "/var")] == before


def test_an_owner_is_cut_at_a_nul_before_it_is_looked_at(mailbox):
    run_sql(mailbox, "UPDATE autoresponder SET real_owner = CAST(x'7573657240646f6d61696e002f2e2e2f24' AS TEXT)")

    assert mailbox.run(*options()) == DONE

    assert mailbox.path(MAIL_TREE + "/domain/user/@attachments/report.pdf").exists()


@pytest.mark.parametrize("owner", ['us"er@$', "..@.."])
def test_the_other_commands_do_not_care_about_the_owner(mailbox, owner):
    assert mailbox.run(*options()) == DONE
    run_sql(mailbox, f"UPDATE autoresponder SET real_owner = '{owner}'")

    assert mailbox.run("--del-attach", "--mailname", "user@example.org", "--filename", "report.pdf") == DONE
    assert mailbox.run("--del-resp", "--mailname", "user@example.org") == DONE

    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert autoresponder_rows(mailbox) == []


def test_a_row_without_an_owner_means_the_empty_address(sandbox):
    sandbox.init_db()
    run_sql(sandbox, "DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
                     "INSERT INTO autoresponder VALUES ('user@example.org', NULL)")

    result = sandbox.run(*options(source="/tmp/none"))

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/none to /var/qmail/mailnames///@attachments/report.pdf: Child status 1"]
    assert sandbox.tree(MAIL_TREE) == {".": ROOT, "@attachments": MADE}


# -- which name


@pytest.mark.parametrize(("filename", "name"), [
    ("/tmp/x/report.pdf", "report.pdf"),
    ("x/report.pdf", "report.pdf"),
    ("../../other/@attachments/report.pdf", "report.pdf"),
    ("//report.pdf", "report.pdf"),
    ("two words.pdf", "two words.pdf"),
    (" ", " "),
    ("bericht-für-größe-名.pdf", "bericht-für-größe-名.pdf"),
    ("line\nfeed.pdf", "line\nfeed.pdf"),
    ("it's.pdf", "it's.pdf"),
    ("*?[a];|&<>.pdf", "*?[a];|&<>.pdf"),
    ("dir/-f", "-f"),
    (".hidden", ".hidden"),
    ("x" * 255, "x" * 255),
])
def test_row_and_file_bear_the_base_name(mailbox, filename, name):
    assert mailbox.run(*options(filename)) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(name)
    assert attachment_rows(mailbox) == [("user@example.org", name)]


def test_a_name_of_bytes_that_are_no_text_is_kept(mailbox):
    assert mailbox.run(*options(b"caf\xe9.pdf")) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(os.fsdecode(b"caf\xe9.pdf"))
    assert mailbox.rows("SELECT CAST(filename AS BLOB) FROM attachments") == [(b"caf\xe9.pdf",)]


@pytest.mark.parametrize("filename", ["", "/", "/tmp/reports/"])
def test_without_a_base_name_the_copy_goes_into_the_directory_under_its_own_name(mailbox, filename):
    assert mailbox.run(*options(filename)) == DONE

    assert mailbox.tree(MAIL_TREE) == copied("source", owner=(0, 0))  # the directory's owner is what was changed
    assert attachment_rows(mailbox) == [("user@example.org", "")]


def test_without_a_base_name_the_path_ends_in_a_slash(mailbox):
    result = mailbox.run(*options("reports/", source="/tmp/none"))

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/none to /var/qmail/mailnames/example.org/user/@attachments/: Child status 1"]


@pytest.mark.parametrize("first", [True, False])
def test_a_name_that_no_file_can_have_is_left_to_cp(mailbox, first):
    if not first:
        make_directories(mailbox, DIRECTORY)

    result = mailbox.run(*options("x" * 256))

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        f"/var/qmail/mailnames/example.org/user/@attachments/{'x' * 256}: Child status 1"]
    assert attachment_rows(mailbox) == []


# -- the order of things


def test_directory_copy_owner_row_in_this_order(mailbox, needs_tracing):
    result, calls = mailbox.trace(*options(), calls="/mkdir,execve,/chown,pwrite64,unlink,fcntl,wait4")

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


def test_the_shell_is_given_the_values_between_double_quotes_as_they_are(mailbox, needs_tracing):
    source = "/tmp/my source $(echo) `echo` \\ *"

    _, calls = mailbox.trace(*options("a b.pdf", source), calls="execve")

    shells = [call for call in calls if call.strings[0] == "/bin/sh"]
    assert [(call.strings[1], call.strings[2]) for call in shells] == [("sh", "-c")]
    assert ('"/bin/cp \\"/tmp/my source $(echo) `echo` \\\\ *\\" '
            '\\"/var/qmail/mailnames/example.org/user/@attachments/a b.pdf\\""]') in shells[0].args_text


def test_what_the_shell_finds_in_the_source_it_carries_out(mailbox):
    assert mailbox.run(*options(source="/tmp/$(echo seen > /tmp/proof; echo source)")) == DONE

    assert mailbox.path("/tmp/proof").read_bytes() == b"seen\n"
    assert mailbox.tree(MAIL_TREE) == copied()


@pytest.mark.parametrize("source", ["/tmp/none", "/tmp", "/dev/null/x", "", "-no-such-option"])
def test_a_source_that_cp_refuses_leaves_the_directory_and_no_row(mailbox, source):
    result = mailbox.run(*options(source=source))

    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.startswith(b"/bin/cp: ")
    assert error_texts(result) == [
        f"Unable to move attachment {source} to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 1"]
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


def test_a_source_that_cannot_be_read_leaves_the_directory_and_no_row(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(), inject=["openat:error=EACCES"], paths=["/tmp/source"])

    assert result.status == 1
    assert result.stderr.startswith(b"/bin/cp: cannot open '/tmp/source' for reading: Permission denied\n")
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 1"]
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("code", [2, 127, 255])
def test_the_exit_code_is_told(mailbox, code):
    source = f'/dev/null" /dev/null; exit {code}; "'

    result = mailbox.run(*options(source=source))

    assert result.status == 1
    assert error_texts(result) == [
        f'Unable to move attachment /dev/null" /dev/null; exit {code}; " to '
        f"/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status {code}"]
    assert attachment_rows(mailbox) == []


def test_a_killed_shell_counts_as_a_copy_so_that_the_missing_file_is_noticed_next(mailbox):
    result = mailbox.run(*options(source="$(kill -KILL $$)"))

    assert result.status == 1
    assert error_texts(result) == ["Unable to change owner for "
                                   "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: "
                                   "No such file or directory"]
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGHUP])
def test_a_killed_shell_is_not_noticed_where_a_file_was_already(mailbox, number):
    make_directories(mailbox, DIRECTORY)
    put_file(mailbox, DIRECTORY + "/report.pdf", b"older", owner=(0, 0), mode=0o640)

    assert mailbox.run(*options(source=f"$(kill -{number:d} $$)")) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(mode=0o640, content=b"older")
    assert attachment_rows(mailbox) == [ROW]


def test_a_killed_cp_is_told_by_the_shell_and_its_half_copy_stays(mailbox):
    with copying_from_pipe(mailbox, "/tmp/pipe", mailname="user@example.org", filename="report.pdf") as running:
        until(mailbox.path(DIRECTORY + "/report.pdf").exists, "the copy is made")
        os.kill(process_called("cp", running), signal.SIGKILL)

    result = running.wait()
    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/pipe to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 137"]
    assert mailbox.tree(MAIL_TREE) == copied(owner=(0, 0), content=b"")
    assert attachment_rows(mailbox) == []


def test_copy_beyond_the_file_size_limit_fails_with_status_1_and_its_beginning_stays(mailbox):
    put_file(mailbox, "/tmp/source", b"x" * 300_000, owner=(0, 0), mode=0o644)

    result = mailbox.run(*options(), rlimits={resource.RLIMIT_FSIZE: 200_000})

    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.startswith(b"/bin/cp: ")
    assert b": File too large\n" in result.stderr
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 1"]
    assert mailbox.tree(MAIL_TREE) == copied(owner=(0, 0), content=b"x" * 200_000)
    assert attachment_rows(mailbox) == []


def test_ignored_sigchld_hides_the_end_of_the_copy_and_fails_the_command(mailbox):
    result = mailbox.run(*options(), ignore=[signal.SIGCHLD])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: No child processes"]
    assert mailbox.tree(MAIL_TREE) == copied(owner=(0, 0))
    assert attachment_rows(mailbox) == []


def test_env_gives_sigchld_its_default_action_back(mailbox):
    command = ["/usr/bin/env", "--default-signal=CHLD", "/usr/sbin/arspctl"]

    failed = mailbox.execute(*command, *options(source="/tmp/none"), ignore=[signal.SIGCHLD])
    done = mailbox.execute(*command, *options(), ignore=[signal.SIGCHLD])

    assert (failed.status, done) == (1, DONE)
    assert error_texts(failed) == [
        "Unable to move attachment /tmp/none to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 1"]
    assert mailbox.tree(MAIL_TREE) == copied()


def test_a_child_that_cannot_be_waited_for_is_told_with_the_systems_error(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(source="/tmp/none"), inject=["wait4:error=ECHILD:when=1"])

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/none to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: No child processes"]
    assert attachment_rows(mailbox) == []


def test_a_child_that_cannot_be_made_counts_as_a_shell_that_cannot_be_run(mailbox, needs_tracing):
    result, calls = mailbox.trace(*options(), inject=["/^(clone3?|v?fork)$:error=EAGAIN"])

    assert result.status == 1
    assert [call.strings[0] for call in calls if call.name == "execve"] == ["/usr/sbin/arspctl"]
    assert error_texts(result) == [  # 127 is what the C library makes of it
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 127"]
    assert mailbox.tree(MAIL_TREE) == NO_FILE
    assert attachment_rows(mailbox) == []


def test_a_copy_that_cannot_be_given_away_stays_without_a_row(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(), inject=["/^fchown(at)?$:error=EROFS"], paths=[DIRECTORY + "/report.pdf"])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to change owner for /var/qmail/mailnames/example.org/user/@attachments/report.pdf: "
        "Read-only file system"]
    assert mailbox.tree(MAIL_TREE) == copied(owner=(0, 0))
    assert attachment_rows(mailbox) == []


# -- the directory


@pytest.mark.parametrize(("in_the_way", "refused"), [
    ("/var/qmail/mailnames/example.org", "/var/qmail/mailnames/example.org/user"),
    ("/var/qmail/mailnames/example.org/user", "/var/qmail/mailnames/example.org/user/@attachments"),
])
def test_a_file_in_the_place_of_a_directory_ends_the_run(mailbox, in_the_way, refused):
    make_directories(mailbox, os.path.dirname(in_the_way))
    put_file(mailbox, in_the_way, b"in the way")
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    printed = f"Cannot create directory {refused}: Not a directory\nSystem error 20: Not a directory\n".encode()
    assert result == Result(1, printed, printed, [])
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == []


def test_a_file_in_the_place_of_the_last_directory_is_left_to_cp(mailbox):
    make_directories(mailbox, "/var/qmail/mailnames/example.org/user")
    put_file(mailbox, DIRECTORY, b"in the way")

    result = mailbox.run(*options())

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to move attachment /tmp/source to "
        "/var/qmail/mailnames/example.org/user/@attachments/report.pdf: Child status 1"]
    assert attachment_rows(mailbox) == []


def test_a_directory_that_cannot_be_made_ends_the_run_and_those_above_it_stay(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(), inject=["mkdirat:error=ENOSPC"], paths=["user"])

    printed = (b"Cannot create directory /var/qmail/mailnames/example.org/user: No space left on device\n"
               b"System error 28: No space left on device\n")
    assert result == Result(1, printed, printed, [])
    assert mailbox.tree(MAIL_TREE) == {".": ROOT, "example.org": MADE}
    assert attachment_rows(mailbox) == []


def test_a_directory_that_cannot_be_given_away_is_reported_and_the_run_goes_on(mailbox, needs_tracing):
    result, _ = mailbox.trace(*options(), inject=["/^fchown(at)?$:error=EROFS"], paths=["/var/qmail/mailnames/example.org/user"])

    printed = (b"Cannot chown /var/qmail/mailnames/example.org/user: Read-only file system\n"
               b"System error 30: Read-only file system\n")
    assert result == Result(0, printed, printed, [])
    assert mailbox.tree(MAIL_TREE) == {**copied(), "example.org/user": ("dir", 0o700, 0, 0, None)}
    assert attachment_rows(mailbox) == [ROW]


# -- the mail system's user


def test_without_the_mail_user_nothing_is_touched(mailbox):
    mailbox.popuser_exists(False)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to get uid:gid for popuser: Success"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}
    assert attachment_rows(mailbox) == []


def test_a_user_database_that_cannot_be_read_is_told(mailbox):
    mailbox.path("/etc/passwd").unlink()
    mailbox.path("/etc/passwd").mkdir()

    result = mailbox.run(*options())

    assert result.status == 1
    assert error_texts(result) == ["Unable to get uid:gid for popuser: Is a directory"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}


def test_the_mail_user_is_looked_up_in_every_run(mailbox):
    assert mailbox.run(*options()) == DONE
    mailbox.path("/etc/passwd").write_text("popuser:x:2222:3333::/:/bin/false\n")

    assert mailbox.run(*options()) == DONE

    assert mailbox.tree(MAIL_TREE) == copied(owner=(2222, 3333))


# -- the database


def test_a_mail_name_without_an_autoresponder_touches_no_file(mailbox):
    result = mailbox.run(*options(mailname="nobody@example.org"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["No autoresponder found for mailname (nobody@example.org)"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}
    assert attachment_rows(mailbox) == []


def test_a_database_that_cannot_be_opened_touches_no_file(mailbox):
    mailbox.path(DATABASE).unlink()
    mailbox.path(DATABASE).mkdir()

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}


def test_a_missing_database_is_noticed_by_the_owner_look_up(mailbox):
    mailbox.path(DATABASE).unlink()

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'SELECT real_owner FROM autoresponder WHERE mn=?': "
        "no such table: autoresponder"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}


def test_a_damaged_database_is_told_twice_by_the_owner_look_up(mailbox):
    corrupt_page_of(mailbox, "mn")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to read data from database: database disk image is malformed",
                                   "Error selecting autoresponder for mailname (user@example.org)"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}


@pytest.mark.parametrize(("error", "text"), [("EIO", "database disk image is malformed"), ("ESTALE", "disk I/O error")])
def test_a_database_that_cannot_be_read_is_told_twice_by_the_owner_look_up(mailbox, needs_tracing, error, text):
    _, calls = mailbox.trace(*options(mailname="nobody@example.org"), calls="openat,close,pread64")
    last_read = [place for place in places_on(calls, DATABASE) if calls[place].name == "pread64"][-1]

    result, _ = mailbox.trace(*options(), inject=[fault_at(calls, last_read, error)])

    assert result.status == 1
    assert error_texts(result) == [f"Unable to read data from database: {text}",
                                   "Error selecting autoresponder for mailname (user@example.org)"]
    assert mailbox.tree(MAIL_TREE) == {".": ROOT}


@pytest.mark.parametrize(("action", "rows"), [
    ("ABORT", [("sales@example.com", "old.pdf")]),
    ("FAIL", [("sales@example.com", "old.pdf")]),
    ("ROLLBACK", [("sales@example.com", "old.pdf")]),
])
def test_a_refused_row_leaves_the_file_without_one(mailbox, action, rows):
    run_sql(mailbox, "INSERT INTO attachments VALUES ('sales@example.com', 'old.pdf');"
                     "CREATE TRIGGER refuse BEFORE INSERT ON attachments "
                     f"BEGIN SELECT RAISE({action}, 'no more attachments'); END")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to add autoresponder attachment (user@example.org:report.pdf): no more attachments"]
    assert mailbox.tree(MAIL_TREE) == copied()
    assert attachment_rows(mailbox) == rows


def test_what_a_trigger_did_before_it_failed_is_discarded(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE INSERT ON attachments "
                     "BEGIN DELETE FROM autoresponder; SELECT RAISE(FAIL, 'no more attachments'); END")

    assert mailbox.run(*options()).status == 1

    assert autoresponder_rows(mailbox) == [("user@example.org", "user@example.org")]


def test_a_missing_attachments_table_leaves_the_file_without_a_row(mailbox):
    run_sql(mailbox, "DROP TABLE attachments")

    result = mailbox.run(*options())

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'REPLACE INTO attachments VALUES (?, ?  );': "
        "no such table: attachments"]
    assert mailbox.tree(MAIL_TREE) == copied()


def test_a_row_that_cannot_be_written_leaves_the_file_without_one(mailbox, twin, needs_tracing):
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE + "-journal", "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to add autoresponder attachment (user@example.org:report.pdf): disk I/O error"]
    assert mailbox.tree(MAIL_TREE) == copied()
    assert attachment_rows(mailbox) == []


def test_a_row_that_cannot_be_committed_leaves_the_file_without_one(mailbox, twin, needs_tracing):
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE, "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to end sqlite transaction: disk I/O error"]
    assert mailbox.tree(MAIL_TREE) == copied()
    assert attachment_rows(mailbox) == []


def test_the_database_is_closed_before_the_run_ends(mailbox, needs_tracing):
    for wanted in (options(), options(mailname="nobody@example.org"), options(source="/tmp/none")):
        _, calls = mailbox.trace(*wanted, calls="openat,close")

        names = [calls[place].name for place in places_on(calls, DATABASE)]
        assert names[-1] == "close"
        assert names.count("openat") == names.count("close")
