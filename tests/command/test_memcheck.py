"""valgrind's memcheck over each command: no error, and nothing is lost."""

import contextlib
import subprocess

import pytest
from harness.mailboxes import (add_attachment_rows, add_autoresponder, error_texts, make_directories, put_file, run_sql)

DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
MAILBOX = ("--mailname", "user@example.org")
SET_RESP = ("--set-resp", *MAILBOX, "--real-owner", "new@example.org", "--subj", "Away", "--content-type", "html")
ADD_ATTACH = ("--add-attach", *MAILBOX, "--filename", "new.pdf", "--source", "/tmp/source")
DEL_ATTACH = ("--del-attach", *MAILBOX, "--filename", "report.pdf")
HEADERS = b'{"X-New": "yes", "X-Newer": "yes"}'


@pytest.fixture
def mailbox(sandbox):
    """A root with a configuration and with the autoresponder user@example.org, its attachment and an extra header."""
    sandbox.conf("# of the panel\nQUARN_MAILNAMES_D /var/qmail/mailnames\nWEB_STAT /usr/bin/stat # the second one\n")
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, DIRECTORY + "/old")
    put_file(sandbox, DIRECTORY + "/report.pdf", b"the report")
    put_file(sandbox, "/tmp/source", b"a new one")
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute("INSERT INTO extra_headers VALUES ('X-Old', 'yes')")
    return sandbox


# -- each command does its work


@pytest.mark.parametrize(("args", "stdin"), [
    (("--init-db",), b""),
    (SET_RESP, b"I am away.\n" * 20000),
    (("--del-resp", *MAILBOX), b""),
    (ADD_ATTACH, b""),
    (DEL_ATTACH, b""),
    (("--set-extra-headers",), HEADERS),
], ids=lambda value: value[0] if isinstance(value, tuple) else "")
def test_a_command_that_succeeds_makes_no_error_and_loses_nothing(mailbox, args, stdin):
    result = mailbox.memcheck(*args, stdin=stdin)

    assert (result.status, result.stdout, result.records) == (0, b"", [])


# -- each command fails


def test_init_db_without_the_mail_user_makes_no_error_and_loses_nothing(mailbox):
    mailbox.popuser_exists(False)

    result = mailbox.memcheck("--init-db")

    assert (result.status, error_texts(result)) == (1, ["Unable to get uid/gid for popuser: Success (0)"])


def test_set_resp_that_a_trigger_refuses_makes_no_error_and_loses_nothing(mailbox):
    run_sql(mailbox, "CREATE TRIGGER no BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END")

    result = mailbox.memcheck(*SET_RESP, stdin=b"I am away.\n")

    assert (result.status, error_texts(result)) == (
        1, ["Unable to add/update autoresponder (user@example.org): not now"])


def test_del_resp_without_the_attachments_table_makes_no_error_and_loses_nothing(mailbox):
    run_sql(mailbox, "DROP TABLE attachments")

    result = mailbox.memcheck("--del-resp", *MAILBOX)

    assert (result.status, error_texts(result)) == (1, [
        "Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=?': no such table: attachments",
        "Error removing attachments for mailname (user@example.org)"])


def test_add_attach_without_a_source_makes_no_error_and_loses_nothing(mailbox):
    mailbox.path("/tmp/source").unlink()

    result = mailbox.memcheck(*ADD_ATTACH)

    assert (result.status, error_texts(result)) == (
        1, [f"Unable to move attachment /tmp/source to {DIRECTORY}/new.pdf: Child status 1"])


def test_del_attach_of_a_directory_makes_no_error_and_loses_nothing(mailbox):
    result = mailbox.memcheck("--del-attach", *MAILBOX, "--filename", "old")

    assert (result.status, error_texts(result)) == (1, [f"Unable to delete attachment {DIRECTORY}/old: Is a directory"])


def test_set_extra_headers_that_are_cut_off_make_no_error_and_lose_nothing(mailbox):
    result = mailbox.memcheck("--set-extra-headers", stdin=HEADERS[:-1])

    assert (result.status, error_texts(result)) == (
        1, ["Unable to parse auto-reply headers json: <unspecified file>(1): expected '}' or ','"])


def test_a_refused_command_line_makes_no_error_and_loses_nothing(sandbox):
    result = sandbox.memcheck("--set-resp", "--ans-freq", "many")

    assert (result.status, result.stdout) == (
        1, b"Error: the argument ('many') for option '--ans-freq' is invalid\n")


# -- memcheck itself


@pytest.mark.parametrize(("body", "report"), [
    ("volatile char *lost = new char[7]; lost = nullptr; return lost != nullptr;",
     "7 bytes in 1 blocks are definitely lost"),
    ("int *unset = new int; if (*unset == 7) std::abort(); delete unset;",
     "Conditional jump or move depends on uninitialised value"),
    ("int unset; if (*&unset == 7) std::abort();", "Conditional jump or move depends on uninitialised value"),
    ("char *text = new char[3]; std::free(text + 3 - 3); return text[2] == 7;", "Invalid read of size 1"),
], ids=["leak", "heap", "stack", "freed"])
def test_what_memcheck_is_here_to_find_fails_a_test(make_sandbox, sandbox_directory, body, report):
    program = sandbox_directory / "wrong"
    subprocess.run(["g++", "-O0", "-w", "-x", "c++", "-", "-o", program], check=True,
                   input=f"#include <cstdlib>\nint main() {{ {body} }}\n".encode())

    with pytest.raises(AssertionError, match=report):
        make_sandbox(program=program).memcheck()
