"""What fails alike in every command: the frame around its statements, the pause on a locked database, memory."""

import contextlib

import pytest
from harness import Result, preload, sqlite_shim
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows, error_texts,
                               make_directories, put_file)
from harness.private_root import script
from harness.sandbox import program_under_test

DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
MAIL_TREE = "/var/qmail/mailnames"
MAILBOX = ("--mailname", "user@example.org")
COMMANDS = {
    "set-resp": ("--set-resp", *MAILBOX, "--real-owner", "new@example.org"),
    "del-resp": ("--del-resp", *MAILBOX),
    "add-attach": ("--add-attach", *MAILBOX, "--filename", "new.pdf", "--source", "/tmp/source"),
    "del-attach": ("--del-attach", *MAILBOX, "--filename", "report.pdf"),
    "set-extra-headers": ("--set-extra-headers",),
}
HEADERS = b'{"X-New": "yes"}'
HEADER_QUERY = "REPLACE INTO extra_headers VALUES (?, ?  );"

# The pause by which the tool itself waits, after two tries of six pauses by SQLite.
INTERRUPTED = ["clock_nanosleep:error=EINTR:when=13", "nanosleep:error=EINTR:when=13"]
BUSY_FIRST = "clock_nanosleep,nanosleep"

SANITIZED = script.is_sanitized(str(program_under_test()))

each_command = pytest.mark.parametrize("command", COMMANDS)
each_transaction = pytest.mark.parametrize("command", [name for name in COMMANDS if name != "set-extra-headers"])


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org, its attachment report.pdf and one extra header."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, DIRECTORY + "/report.pdf", b"the report")
    put_file(sandbox, "/tmp/source", b"a new one")
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute("INSERT INTO extra_headers VALUES ('X-Old', 'yes')")
    return sandbox


def headers(sandbox):
    return sandbox.rows("SELECT name, value FROM extra_headers")


def assert_rows_are_as_before(sandbox):
    assert autoresponder_rows(sandbox) == [("user@example.org", "user@example.org")]
    assert attachment_rows(sandbox) == [("user@example.org", "report.pdf")]


def run(mailbox, command, **options):
    return mailbox.run(*COMMANDS[command], stdin=HEADERS, **options)


# -- the frame


@each_transaction
def test_a_transaction_that_cannot_begin_changes_nothing(mailbox, command):
    before = mailbox.tree(MAIL_TREE)

    result = run(mailbox, command, env=sqlite_shim.environment(mailbox, "begun"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to begin sqlite transaction: cannot start a transaction within a transaction"]
    assert_rows_are_as_before(mailbox)
    assert mailbox.tree(MAIL_TREE) == before


@each_transaction
def test_a_begin_that_cannot_be_prepared_changes_nothing(mailbox, command):
    before = mailbox.tree(MAIL_TREE)

    result = run(mailbox, command, env=sqlite_shim.environment(mailbox, "prepare BEGIN"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': string or blob too big"]
    assert_rows_are_as_before(mailbox)
    assert mailbox.tree(MAIL_TREE) == before


@each_transaction
def test_an_end_that_cannot_be_prepared_keeps_the_rows(mailbox, command):
    result = run(mailbox, command, env=sqlite_shim.environment(mailbox, "prepare END"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'END TRANSACTION;': string or blob too big"]
    assert_rows_are_as_before(mailbox)


# -- values


@pytest.mark.parametrize(("command", "first", "records"), [
    ("set-resp", 1, ["Unable to bind parameter keystr: column index out of range"]),
    ("del-resp", 1, ["Unable to bind parameter mailname: column index out of range",
                     "Error removing attachments for mailname (user@example.org)"]),
    ("add-attach", 1, ["Unable to bind parameter mailname: column index out of range"]),
    ("add-attach", 2, ["Unable to bind parameter filename: column index out of range"]),
    ("del-attach", 1, ["Unable to bind parameter mailname: column index out of range"]),
    ("del-attach", 2, ["Unable to bind parameter filename: column index out of range"]),
])
def test_a_value_that_cannot_be_bound_keeps_the_rows(mailbox, command, first, records):
    result = run(mailbox, command, env=sqlite_shim.environment(mailbox, f"bind {first}"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == records
    assert_rows_are_as_before(mailbox)


# -- the list of headers, which is empty by then


def assert_list_is_empty(mailbox, result, text):
    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [text]
    assert headers(mailbox) == []


def test_a_header_transaction_that_cannot_begin_leaves_the_list_empty(mailbox):
    result = run(mailbox, "set-extra-headers", env=sqlite_shim.environment(mailbox, "prepare BEGIN"))

    assert_list_is_empty(mailbox, result,
                         "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': string or blob too big")


def test_a_header_transaction_that_is_refused_keeps_the_list(mailbox):
    result = run(mailbox, "set-extra-headers", env=sqlite_shim.environment(mailbox, "begun"))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to begin sqlite transaction: cannot start a transaction within a transaction"]
    assert headers(mailbox) == [("X-Old", "yes")]  # it was emptied in the transaction that is lost


def test_a_header_statement_that_cannot_be_prepared_leaves_the_list_empty(mailbox):
    result = run(mailbox, "set-extra-headers", env=sqlite_shim.environment(mailbox, "prepare REPLACE"))

    assert_list_is_empty(mailbox, result,
                         f"Unable to prepare SQL statement for query '{HEADER_QUERY}': string or blob too big")


@pytest.mark.parametrize(("first", "name"), [(1, "name"), (2, "value")])
def test_a_header_that_cannot_be_bound_leaves_the_list_empty(mailbox, first, name):
    result = run(mailbox, "set-extra-headers", env=sqlite_shim.environment(mailbox, f"bind {first}"))

    assert_list_is_empty(mailbox, result, f"Unable to bind parameter {name}: column index out of range")


def test_headers_that_cannot_be_committed_leave_the_list_empty(mailbox):
    result = run(mailbox, "set-extra-headers", env=sqlite_shim.environment(mailbox, "prepare END"))

    assert_list_is_empty(mailbox, result,
                         "Unable to prepare SQL statement for query 'END TRANSACTION;': string or blob too big")


def test_headers_that_cannot_be_read_keep_the_list(mailbox):
    result = mailbox.run("--set-extra-headers", stdin=None)

    assert (result.status, error_texts(result)) == (1, ["Unable to read standard input: Bad file descriptor"])
    assert headers(mailbox) == [("X-Old", "yes")]


# -- the pause on a locked database


@each_command
def test_a_pause_that_fails_ends_the_command_in_silence(mailbox, needs_tracing, command):
    before = mailbox.tree(MAIL_TREE)
    with contextlib.closing(mailbox.db()) as other:
        other.execute("BEGIN EXCLUSIVE")
        result, calls = mailbox.trace(*COMMANDS[command], stdin=HEADERS, calls=BUSY_FIRST, inject=INTERRUPTED)

    assert any(call.injected for call in calls)
    assert result == Result(1, b"", b"", [])
    assert_rows_are_as_before(mailbox)
    assert headers(mailbox) == [("X-Old", "yes")]
    assert mailbox.tree(MAIL_TREE) == before


# -- directories


def test_an_emptied_directory_that_cannot_be_removed_is_told_and_the_rows_go(mailbox, needs_tracing):
    mailbox.path(DIRECTORY + "/report.pdf").unlink()
    make_directories(mailbox, DIRECTORY + "/old")

    # the first call finds out that it is a directory
    result, _ = mailbox.trace(*COMMANDS["del-resp"], calls="unlinkat", inject=["unlinkat:error=EBUSY:when=2"])

    assert (result.status, error_texts(result)) == (0, [
        f"Unable to remove autoresponder attachments: cannot remove {DIRECTORY}/old: Device or resource busy"])
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "old"]
    assert (autoresponder_rows(mailbox), attachment_rows(mailbox)) == ([], [])


# -- memory


def test_without_memory_for_the_path_adding_an_attachment_ends_before_the_copy(mailbox):
    environment = preload.environment(mailbox, """
#include <cerrno>
#include <cstdarg>
extern "C" int vasprintf(char **, const char *, va_list) { errno = ENOMEM; return -1; }
extern "C" int __vasprintf_chk(char **, int, const char *, va_list) { errno = ENOMEM; return -1; }
""")
    before = mailbox.tree(MAIL_TREE)

    result = run(mailbox, "add-attach", env=environment)

    message = b"Cannot allocate memory: Cannot allocate memory\nSystem error 12: Cannot allocate memory\n"
    assert result == Result(1, message, message, [])
    assert_rows_are_as_before(mailbox)
    assert mailbox.tree(MAIL_TREE) == before


CALLED_BY_THE_TOOL = """
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>
static bool called_by_the_tool(void *place)
{
    Dl_info caller;
    return dladdr(place, &caller) != 0 && std::strstr(caller.dli_fname, "arspctl") != nullptr;
}
"""

if not SANITIZED:  # AddressSanitizer brings its own allocator, and nothing gets in front of that

    def test_without_memory_for_the_configuration_the_defaults_hold(mailbox):
        environment = preload.environment(mailbox, CALLED_BY_THE_TOOL + """
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *calloc(size_t count, size_t size)
{
    if (count != 1 || size != 32 || !called_by_the_tool(__builtin_return_address(0)))
        return __libc_calloc(count, size);
    errno = ENOMEM;
    return nullptr;
}
""")
        mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

        result = run(mailbox, "del-resp", env=environment)

        assert (result.status, result.stdout) == (0, b"")  # nothing goes to the console: the log is set up first
        assert set(error_texts(result)) == {
            "Not enough memory to allocate Quarn runtime configuration structure"}
        assert mailbox.tree(DIRECTORY) == {".": ("dir", 0o700, *mailbox.popuser, None)}

    NO_MEMORY_FOR_THE_MESSAGE = CALLED_BY_THE_TOOL + """
extern "C" void *__libc_malloc(size_t);
extern "C" void *malloc(size_t size)
{
    if (size != 4096 || !called_by_the_tool(__builtin_return_address(0)))
        return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}
"""

    def test_without_memory_for_the_message_a_run_that_ends_says_so(mailbox):
        environment = preload.environment(mailbox, NO_MEMORY_FOR_THE_MESSAGE)
        mailbox.path(MAIL_TREE + "/example.org").rename(mailbox.path("/tmp/moved"))
        put_file(mailbox, MAIL_TREE + "/example.org")  # in the way of the directory

        result = run(mailbox, "add-attach", env=environment)

        message = b"Can't allocate memory for error message\n"
        assert result == Result(1, message, message, [])
        assert_rows_are_as_before(mailbox)

    def test_without_memory_for_the_message_a_run_that_goes_on_says_so_and_goes_on(mailbox):
        environment = preload.environment(mailbox, NO_MEMORY_FOR_THE_MESSAGE + """
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
extern "C" int fchownat(int directory, const char *path, uid_t uid, gid_t gid, int flags)
{
    struct stat status = {};
    if (fstatat(directory, path, &status, flags) == 0 && !S_ISDIR(status.st_mode))
        return static_cast<int>(syscall(SYS_fchownat, directory, path, uid, gid, flags));
    errno = EROFS;
    return -1;
}
extern "C" int fchown(int fd, uid_t uid, gid_t gid)
{
    return fchownat(fd, "", uid, gid, AT_EMPTY_PATH);
}
""")
        mailbox.path(MAIL_TREE + "/example.org").rename(mailbox.path("/tmp/moved"))

        result = run(mailbox, "add-attach", env=environment)

        message = b"Can't allocate memory for error message\n" * 3  # example.org, user and @attachments
        assert result == Result(0, message, message, [])
        assert attachment_rows(mailbox) == [("user@example.org", "new.pdf"), ("user@example.org", "report.pdf")]
        assert mailbox.path(DIRECTORY + "/new.pdf").read_bytes() == b"a new one"
