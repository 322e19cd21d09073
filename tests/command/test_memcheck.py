"""valgrind's memcheck over each command of both programs: no error and no leak."""

import os
import subprocess

import pytest
from harness import INFO_PROGRAM
from harness.info import put_row
from harness.mailboxes import (ADD_NEW, DEL, DEL_RESP, DIRECTORY, FILE, MAILNAME, SET_EXTRA_HEADERS, error_texts,
                               make_directories, run_sql)
from harness.private_root import PROGRAM
from harness.sandbox import DATABASE

STATUS = 98  # the tool never exits with it
REPORT = "/.memcheck"
VALGRIND = ("/usr/bin/valgrind", "--quiet", f"--error-exitcode={STATUS}", f"--log-file={REPORT}", "--leak-check=full",
            "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite", "--trace-children=no",
            "--child-silent-after-fork=yes", "--vgdb=no", "--num-callers=30")

INIT_DB = ("--init-db",)
SET_RESP = ("--set-resp", *MAILNAME, "--real-owner", "new@example.org", "--subj", "Away", "--content-type", "html")
HEADERS = b'{"X-New": "yes", "X-Newer": "yes"}'
REFUSE = "CREATE TRIGGER no BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END"


@pytest.fixture(autouse=True)
def needs_proc(sandbox_mode):
    if sandbox_mode == "chroot":
        pytest.skip("memcheck needs /proc, which a chroot does not have")


@pytest.fixture
def mailbox(mailbox_with_attachment):
    """The root `mailbox_with_attachment` with a configuration and a directory among the attachments."""
    mailbox_with_attachment.conf(
        "# of the panel\nQUARN_MAILNAMES_D /var/qmail/mailnames\nWEB_STAT /usr/bin/stat # the second one\n")
    make_directories(mailbox_with_attachment, DIRECTORY + "/old")
    return mailbox_with_attachment


@pytest.fixture
def readable(mailbox):
    """The root `mailbox` with arspinfo in it and a value in every column."""
    run_sql(mailbox, "DELETE FROM autoresponder")
    put_row(mailbox, "user@example.org")
    mailbox.info("--help")  # provides it
    return mailbox


def memcheck(sandbox, *args, stdin=b"", program=PROGRAM):
    """Runs the program under memcheck; fails with its report after an error or a leak."""
    result = sandbox.execute(*VALGRIND, program, *args, stdin=stdin, timeout=120)
    report = sandbox.path(REPORT).read_text(errors="replace")
    assert not report and result.status != STATUS, f"memcheck reports:\n{report}"
    return result


@pytest.mark.parametrize(("args", "stdin"), [
    (INIT_DB, b""), (SET_RESP, b"I am away.\n" * 20000), (DEL_RESP, b""), (ADD_NEW, b""), (DEL, b""),
    (SET_EXTRA_HEADERS, HEADERS),
], ids=lambda value: value[0] if isinstance(value, tuple) else "")
def test_command_that_succeeds_makes_no_error_and_loses_nothing(mailbox, args, stdin):
    result = memcheck(mailbox, *args, stdin=stdin)

    assert (result.status, result.stdout, result.records) == (0, b"", [])


@pytest.mark.parametrize(("args", "stdin", "spoil", "texts"), [
    (INIT_DB, b"", lambda box: box.popuser_exists(False), ["Unable to get uid/gid for popuser: Success (0)"]),
    (SET_RESP, b"I am away.\n", lambda box: run_sql(box, REFUSE),
     ["Unable to add/update autoresponder (user@example.org): not now"]),
    (DEL_RESP, b"", lambda box: run_sql(box, "DROP TABLE attachments"),
     ["Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=?': no such table: attachments",
      "Error removing attachments for mailname (user@example.org)"]),
    (ADD_NEW, b"", lambda box: box.path("/tmp/source").unlink(),
     [f"Unable to move attachment /tmp/source to {DIRECTORY}/new.pdf: Child status 1"]),
    (("--del-attach", *MAILNAME, "--filename", "old"), b"", lambda box: None,
     [f"Unable to delete attachment {DIRECTORY}/old: Is a directory"]),
    (SET_EXTRA_HEADERS, HEADERS[:-1], lambda box: None,
     ["Unable to parse auto-reply headers json: <unspecified file>(1): expected '}' or ','"]),
], ids=["init-db", "set-resp", "del-resp", "add-attach", "del-attach", "set-extra-headers"])
def test_command_that_fails_makes_no_error_and_loses_nothing(mailbox, args, stdin, spoil, texts):
    spoil(mailbox)

    result = memcheck(mailbox, *args, stdin=stdin)

    assert (result.status, error_texts(result)) == (1, texts)


@pytest.mark.parametrize("args", [
    ("list",), ("list", "--json"), ("show", "user@example.org"), ("show", "--json", "user@example.org"), ("check",),
    ("export", "/out")], ids=" ".join)
def test_arspinfo_that_succeeds_makes_no_error_and_loses_nothing(readable, args):
    result = memcheck(readable, *args, program=INFO_PROGRAM)

    assert (result.status, result.stderr) == (0, b"")
    assert result.stdout


@pytest.mark.parametrize(("args", "spoil", "status", "message"), [
    (("list",), lambda box: run_sql(box, "DROP TABLE resp_freq"), 1,
     f"{DATABASE} has not the tables of arspctl --init-db"),
    (("show", "a@example.org"), lambda box: None, 1, "a@example.org has no autoresponder"),
    (("check",), lambda box: os.truncate(box.path(DATABASE), 1 << 40), 2,
     f"{DATABASE} is too large to be copied to memory"),
    (("export", "/out"), lambda box: box.path(FILE).unlink(), 1,
     "not restored: user@example.org: attachment report.pdf: No such file or directory"),
    (("export", "/var"), lambda box: None, 1, "/var exists and is not empty"),
], ids=["list", "show", "check", "export with a loss", "export"])
def test_arspinfo_that_fails_makes_no_error_and_loses_nothing(readable, args, spoil, status, message):
    spoil(readable)

    result = memcheck(readable, *args, program=INFO_PROGRAM)

    assert (result.status, result.stderr.decode()) == (status, f"arspinfo: {message}\n")


def test_refused_command_line_makes_no_error_and_loses_nothing(sandbox):
    result = memcheck(sandbox, "--set-resp", "--ans-freq", "many")

    assert (result.status, result.stdout) == (
        1, b"Error: the argument ('many') for option '--ans-freq' is invalid\n")


@pytest.mark.parametrize(("body", "report"), [
    ("volatile char *lost = new char[7]; lost = nullptr; return lost != nullptr;",
     "7 bytes in 1 blocks are definitely lost"),
    ("int *unset = new int; if (*unset == 7) std::abort(); delete unset;",
     "Conditional jump or move depends on uninitialised value"),
    ("int unset; if (*&unset == 7) std::abort();", "Conditional jump or move depends on uninitialised value"),
    ("char *text = new char[3]; std::free(text + 3 - 3); return text[2] == 7;", "Invalid read of size 1"),
], ids=["leak", "heap", "stack", "freed"])
def test_error_that_memcheck_finds_fails_a_test(make_sandbox, sandbox_directory, body, report):
    program = sandbox_directory / "wrong"
    subprocess.run(["g++", "-O0", "-w", "-x", "c++", "-", "-o", program], check=True,
                   input=f"#include <cstdlib>\nint main() {{ {body} }}\n".encode())

    with pytest.raises(AssertionError, match=report):
        memcheck(make_sandbox(program=program))
