"""What all subcommands of arspinfo have in common: their rights, their outputs, and that they change nothing."""

import json
import os
import re
import shutil

import pytest

from harness import INFO_PROGRAM, preload
from harness.info import put_row
from harness.mailboxes import MAIL_TREE, put_file, run_sql
from harness.sandbox import DATABASE

COMMANDS = {"list": ("list",), "show": ("show", "user@example.org"), "check": ("check",), "export": ("export", "/out")}
FAILED = {name: 2 if name == "check" else 1 for name in COMMANDS}


@pytest.fixture(params=[*COMMANDS])
def command(request):
    """The name of each subcommand in turn."""
    return request.param


@pytest.fixture
def box(mailbox_with_attachment):
    """A root in which every subcommand has something to read: attachments, a counter and an extra header."""
    put_row(mailbox_with_attachment, "other@example.org")
    return mailbox_with_attachment


class Rights:
    """The ids of a traced run and the locks that it holds, followed from call to call."""

    def __init__(self):
        self.user, self.group = 0, 0
        self.groups_dropped = False
        self.locked = False
        self._names = {}
        self.opened = []  # (path, effective user, effective group, whether something was locked)
        self.writable = []  # paths that were opened for writing
        self.written = []  # whether something was locked

    def follow(self, call):
        words = call.args_text.split(", ")
        if call.name in ("setresuid", "setresgid") and words[1] != "-1":
            setattr(self, "user" if call.name == "setresuid" else "group", int(words[1]))
        elif call.name == "setgroups":
            self.groups_dropped = words[0] == "0"
        elif call.name == "fcntl" and "F_SETLK" in call.args_text:
            self.locked = "F_UNLCK" not in call.args_text or "l_len=0" not in call.args_text and self.locked
        elif call.name in ("openat", "open", "mkdir", "mkdirat") and call.strings:
            base = self._names.get(words[0], "")
            path = os.path.normpath(os.path.join(base, call.strings[0]))
            self.opened.append((path, self.user, self.group, self.locked))
            if "O_WRONLY" in call.args_text or "O_RDWR" in call.args_text:
                self.writable.append(path)
            if call.name == "openat" and call.error is None:
                self._names[str(call.value)] = path
        elif call.name == "fcntl" and "F_DUPFD" in call.args_text:
            self._names[str(call.value)] = self._names.get(words[0], "")
        elif call.name == "write" and words[0] in ("1", "2"):
            self.written.append(self.locked)


def followed(box, command):
    result, calls = box.trace(*COMMANDS[command], program=INFO_PROGRAM)
    assert result.status in (0, 1), result
    rights = Rights()
    for call in calls:
        rights.follow(call)
    return rights


def test_database_and_mail_tree_are_read_with_the_mail_users_rights(box, command, needs_tracing):
    rights = followed(box, command)
    customers = [(path, user, group) for path, user, group, _ in rights.opened
                 if path.startswith((MAIL_TREE, os.path.dirname(DATABASE)))]
    assert {(user, group) for _, user, group in customers} == {box.popuser}
    assert DATABASE in [path for path, *_ in customers]
    assert rights.groups_dropped
    assert (rights.user, rights.group) == box.popuser


def test_nothing_but_the_target_of_an_export_is_opened_for_writing(box, command, needs_tracing):
    run_sql(box, "DELETE FROM autoresponder WHERE mn = 'user@example.org'")
    put_row(box, "user@example.org")  # complete, so that its attachment is copied
    if command == "check":
        put_file(box, DATABASE + "-journal")  # it then looks for a process that writes
    assert [path for path in followed(box, command).writable if not path.startswith("/out/")] == []


def test_export_is_written_with_roots_rights(box, needs_tracing):
    written = [entry for entry in followed(box, "export").opened if entry[0].startswith("/out")]
    assert {(user, group) for _, user, group, _ in written} == {(0, 0)}
    assert [re.sub(r".*/", "", path) for path, *_ in written] == [
        "out", "out", "bodies", "attachments", "00000001", "headers.json", "NOT-RESTORED", "restore.sh.part"]


def test_no_lock_is_held_while_files_are_looked_at_or_anything_is_printed(box, command, needs_tracing):
    rights = followed(box, command)
    assert not any(locked for path, _, _, locked in rights.opened if path.startswith((MAIL_TREE, "/out")))
    assert rights.written and not any(rights.written)


def test_mail_user_gets_the_same_output_as_root(box, command):
    as_root = box.info(*COMMANDS[command])
    shutil.rmtree(box.path("/out"), ignore_errors=True)
    box.path("/out").mkdir()
    os.chown(box.path("/out"), *box.popuser)
    assert box.info(*COMMANDS[command], user=box.popuser) == as_root


def test_other_users_are_refused(box, command):
    result = box.info(*COMMANDS[command], user=(4321, 4321))
    assert (result.status, result.stdout, result.stderr) == (
        FAILED[command], b"", b"arspinfo: must be run as root or as popuser\n")


def test_missing_mail_user_is_an_error(box, command):
    box.popuser_exists(False)
    result = box.info(*COMMANDS[command])
    assert (result.status, result.stdout, result.stderr) == (FAILED[command], b"", b"arspinfo: no user popuser\n")


def test_closed_stream_that_cannot_be_replaced_ends_the_run_silently(box, needs_tracing):
    result, _ = box.trace("list", program=INFO_PROGRAM, redirect="1>&-", paths=["/"], inject=["openat:error=EMFILE"])
    assert (result.status, result.stdout, result.stderr) == (1, b"", b"")


def test_user_database_that_cannot_be_read_is_an_error(box):
    box.path("/etc/passwd").unlink()
    assert box.info("check").stderr == b"arspinfo: no user popuser: No such file or directory\n"


@pytest.mark.parametrize("call", ["setgroups", "setresgid", "setresuid"])
def test_rights_that_cannot_be_taken_end_the_run(box, needs_tracing, call):
    result, _ = box.trace("check", program=INFO_PROGRAM, calls=call, inject=[f"{call}:error=EPERM:when=1"])
    assert (result.status, result.stdout, result.stderr) == (
        2, b"", b"arspinfo: cannot take the rights of popuser: Operation not permitted\n")


def test_configuration_is_read_with_the_callers_rights(box):
    box.conf("QUARN_MAILNAMES_D /srv/mail\nmalformed\n")
    box.path("/etc/kel/kel.conf").chmod(0o600)
    result = box.info("check")
    assert b" /srv/mail/example.org/user/@attachments/" in result.stdout
    assert (result.stderr, result.records) == (b"", [])


@pytest.mark.shared
@pytest.mark.unsanitized
def test_lack_of_memory_for_the_configuration_leaves_the_defaults(box, command):
    expected = box.info(*COMMANDS[command])
    shutil.rmtree(box.path("/out"), ignore_errors=True)
    environment = preload.environment(box, ALLOCATION_FAILS="@arspinfo")
    assert box.info(*COMMANDS[command], env=environment) == expected


def test_nothing_is_changed(box, command):
    before = {top: box.tree(top) for top in ("/var", "/etc", "/tmp")}
    times = box.path(DATABASE).stat().st_mtime_ns, box.path(DATABASE).parent.stat().st_mtime_ns
    assert box.info(*COMMANDS[command]).records == []
    assert {top: box.tree(top) for top in before} == before
    assert (box.path(DATABASE).stat().st_mtime_ns, box.path(DATABASE).parent.stat().st_mtime_ns) == times


# -- standard streams


@pytest.mark.parametrize("args", [["--help"], ["list", "--help"]])
def test_lost_help_is_an_error(box, args):
    with open(box.path("/dev/full"), "wb") as full:
        result = box.info(*args, stdout=full)
    assert (result.status, result.stderr) == (1, b"arspinfo: cannot write the output: No space left on device\n")


def test_lost_output_is_an_error(box, command):
    with open(box.path("/dev/full"), "wb") as full:
        result = box.info(*COMMANDS[command], stdout=full)
    lines = result.stderr.decode().splitlines()
    assert (result.status, lines[-1]) == (FAILED[command], "arspinfo: cannot write the output: No space left on device")


def test_output_of_which_a_part_is_lost_is_an_error(box):
    run_sql(box, "UPDATE autoresponder SET body = hex(zeroblob(100000)); "
                 "UPDATE autoresponder SET body = replace(body, '0', 'line' || char(10))")
    with open(box.path("/dev/full"), "wb") as full:
        result = box.info("show", "user@example.org", stdout=full)
    assert (result.status, result.stderr) == (1, b"arspinfo: cannot write the output: No space left on device\n")


def test_closed_output_is_an_error(box, command):
    result = box.info(*COMMANDS[command], close_fds=(1,))
    lines = result.stderr.decode().splitlines()
    assert (result.status, lines[-1]) == (FAILED[command], "arspinfo: cannot write the output: Bad file descriptor")


def test_reader_that_went_away_ends_the_run_without_a_message(box, command):
    result = box.info(*COMMANDS[command], broken_pipes=(1,))
    assert result.status == -13
    assert b"cannot write" not in result.stderr


@pytest.mark.parametrize("closed", [(0,), (2,), (0, 1, 2)])
def test_closed_streams_get_none_of_the_files(box, command, closed):
    database = box.path(DATABASE).read_bytes()
    expected = box.info(*COMMANDS[command])
    shutil.rmtree(box.path("/out"), ignore_errors=True)
    result = box.info(*COMMANDS[command], close_fds=closed)
    assert result.status == (FAILED[command] if 1 in closed else expected.status)
    assert box.path(DATABASE).read_bytes() == database
    if command == "export":
        assert box.path("/out/restore.sh").read_bytes().startswith(b"#!/bin/sh\n")


@pytest.mark.parametrize("value", ["NULL", "x'00ff'", "'no number'", "1e400", "9223372036854775807", "-0.0"])
def test_json_is_valid_whatever_type_a_value_has(box, value):
    run_sql(box, f"""UPDATE autoresponder SET (subject, body, keystr, ans_freq, ans_limit) =
        ({value}, {value}, {value}, {value}, {value}) WHERE mn = 'user@example.org';
        INSERT INTO resp_freq VALUES ('user@example.org', 'x', {value}, 9e15)""")
    columns = "MAILNAME,SUBJECT,TRIGGER,FREQ,LIMIT,SIZE,REPLIES"
    *_, row = json.loads(box.info("list", "--json", "-o", columns).stdout)["autoresponders"]
    assert row["mailname"] == "user@example.org"
    assert isinstance(row["freq"], int | None)
    assert json.loads(box.info("show", "--json", "user@example.org").stdout)["mailname"] == "user@example.org"
    assert json.loads(box.info("check", "--json").stdout)["summary"].keys() == {"errors", "warnings", "notes"}


# -- the command line


@pytest.mark.parametrize(("args", "status", "message"), [
    ([], 1, "A subcommand is required"), (["lst"], 1, "A subcommand is required"),
    (["check", "--bogus\x1b"], 2, "The following argument was not expected: --bogus\\x1b"),
    (["export"], 1, "directory is required")])
def test_wrong_command_line_is_one_line_on_standard_error(box, args, status, message):
    result = box.info(*args)
    assert (result.status, result.stdout, result.stderr.decode()) == (status, b"", f"arspinfo: {message}\n")


HELP = {  # without the layout
    "": """Shows, checks and exports the mail autoresponders of the panel.
        Usage: arspinfo [OPTIONS] SUBCOMMAND
        Options: -h,--help Print this help and exit
        Subcommands: list List the autoresponders, one per line
        show Show everything about one mailbox
        check Report what is wrong with the database and the attachments
        export Write everything to a new directory, with a script to restore it""",
    "list": """List the autoresponders, one per line
        Usage: arspinfo list [OPTIONS]
        Options: -h,--help Print this help and exit
        --domain NAME Only the mailboxes of this domain
        -o,--output COLUMNS Columns to print; +COLUMNS adds to the default ones
        -J,--json Excludes: --raw Print JSON
        -r,--raw Excludes: --json Print one blank between columns, blanks escaped
        -n,--noheadings Do not print the headings
        Columns (* by default):
        * MAILNAME mailbox that replies
        OWNER mailbox whose directory holds the attachments
        * SUBJECT subject of the reply
        * TYPE content type of the body
        CHARSET charset of the body that is sent
        * TRIGGER where a text must occur, and the text
        * FREQ replies per sender address and day
        LIMIT deprecated, still stored
        FORWARD address that gets the incoming message
        REPLYTO Reply-To of the reply
        * SIZE bytes of the body
        * ATTACHMENTS number of attachments
        * REPLIES senders answered within a day, and replies sent to them""",
    "show": """Show everything about one mailbox
        Usage: arspinfo show [OPTIONS] address
        Positionals: address ADDRESS REQUIRED Mail name
        Options: -h,--help Print this help and exit
        -J,--json Excludes: --body Print JSON
        --body Excludes: --json Print the body alone, byte for byte""",
    "check": """Report what is wrong with the database and the attachments
        Usage: arspinfo check [OPTIONS]
        Options: -h,--help Print this help and exit
        -J,--json Print JSON""",
    "export": """Write everything to a new directory, with a script to restore it
        Usage: arspinfo export [OPTIONS] directory [addresses...]
        Positionals: directory DIRECTORY REQUIRED New directory
        addresses ADDRESS ... Only these mailboxes
        Options: -h,--help Print this help and exit
        --domain NAME Only the mailboxes of this domain"""}


@pytest.mark.parametrize("option", ["--help", "-h"])
@pytest.mark.parametrize("name", HELP)
def test_help_describes_the_command_line_and_needs_no_rights(box, name, option):
    result = box.info(*name.split(), option, user=(4321, 4321))
    assert (result.status, result.stderr) == (0, b"")
    assert result.stdout.decode().split() == HELP[name].split()
