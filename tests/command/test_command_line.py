"""The command line as a whole: help, errors, the choice of the command, and what a run does with its surroundings."""

import itertools
import os
import shutil

import pytest
from harness import Result, needs_tracing, preload

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
ADDRESS = ["--mailname", "user@example.org"]
SET_RESP = ["--set-resp", *ADDRESS, "--real-owner", "user@example.org"]
DEL_RESP = ["--del-resp", *ADDRESS]
ADD_ATTACH = ["--add-attach", *ADDRESS, "--filename", "new.txt", "--source", "/tmp/new.txt"]
DEL_ATTACH = ["--del-attach", *ADDRESS, "--filename", "old.txt"]

HELP = (
    b"\n"
    b"Allowed commands:\n"
    b"  --init-db                            Init autoresponder db\n"
    b"  --set-resp                           Add or Update autoresponder\n"
    b"  --del-resp                           Delete autoresponder\n"
    b"  --add-attach                         Add attachment to autoresponder\n"
    b"  --del-attach                         Delete attachment from autoresponder\n"
    b"  --set-extra-headers                  Set extra auto-reply headers (expects \n"
    b"                                       JSON on stdin)\n"
    b"  -h [ --help ]                        Display this help page.\n"
    b"\n"
    b"REQUIRED option for all autoresponder and attachments manipulation commands:\n"
    b"  --mailname arg                       Autoresponder owner email address\n"
    b"\n"
    b"REQUIRED option for all attachments manipulation commands:\n"
    b"  --filename arg                       Attachment file name to manipulate with\n"
    b"\n"
    b"Add and Update autoresponder command options:\n"
    b"  --key-str arg                        Key string to look for to trigger \n"
    b"                                       response\n"
    b"  --key-where arg (=no)                Wehere to look for key string (no, subj,\n"
    b"                                       body)\n"
    b"  --subj arg (=Re: <request_subject>)  Response message subject\n"
    b"  --reply-to arg                       Response message 'Reply To:' header \n"
    b"                                       value\n"
    b"  --forward-to arg                     Email address to forward original \n"
    b"                                       message to\n"
    b"  --content-type arg (=text/plain)     Response message body content type \n"
    b"                                       (text/plain, text/html)\n"
    b"  --charset arg (=UTF-8)               Response message body charset to convert\n"
    b"                                       to before send\n"
    b"  --ans-freq arg (=10)                 Per email address answer limit per day\n"
    b"  --ans-limit arg (=1000)              (DEPRECATED)\n"
    b"  --real-owner arg                     Mailname with physical mail box to which\n"
    b"                                       message will be delivered\n"
    b"\n"
    b"Add attachment to autoresponder command options:\n"
    b"  --source arg                         Source file to use as an attachment\n"
    b"\n"
)

HELP_PAGE = Result(1, HELP, b"", [])
SILENT_SUCCESS = Result(0, b"", b"", [])

COMMANDS = ["--init-db", "--set-resp", "--del-resp", "--add-attach", "--del-attach", "--set-extra-headers"]
VALUES = {
    "--mailname": "user@example.org",
    "--filename": "file",
    "--key-str": "key",
    "--key-where": "subj",
    "--subj": "subject",
    "--reply-to": "reply",
    "--forward-to": "forward",
    "--content-type": "html",
    "--charset": "KOI8-R",
    "--ans-freq": "1",
    "--ans-limit": "2",
    "--real-owner": "user@example.org",
    "--source": "source",
}


def refused(message):
    return Result(1, b"Error: " + message.encode() + b"\n", b"", [])


def untouched(sandbox):
    return list(sandbox.path("/var/lib/quarn").iterdir()) == []


# -- the help page


def test_without_arguments_the_help_page_is_shown(sandbox):
    assert sandbox.run() == HELP_PAGE


def test_without_even_a_program_name_the_help_page_is_shown(sandbox):
    assert sandbox.start_command("/usr/sbin/arspctl", []).wait() == HELP_PAGE


@pytest.mark.parametrize("spelling", ["--help", "-h", "--hel", "--h"])
def test_help_is_shown_on_request(sandbox, spelling):
    assert sandbox.run(spelling) == HELP_PAGE


@pytest.mark.parametrize("command", COMMANDS)
def test_help_wins_over_a_command(sandbox, command):
    assert sandbox.run(command, "--help") == HELP_PAGE
    assert untouched(sandbox)


def test_help_wins_over_a_complete_command(sandbox):
    sandbox.init_db()

    assert sandbox.run("--help", *SET_RESP) == HELP_PAGE
    assert sandbox.rows("SELECT * FROM autoresponder") == []


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        (["-h", "--no-such-option"], "unrecognised option '--no-such-option'"),
        (["--help", "--ans-freq", "x"], "the argument ('x') for option '--ans-freq' is invalid"),
        (["--help", "--mailname", "x"], "x - incorrect email address format"),
        (["--help", "-h"], "option '--help' cannot be specified more than once"),
    ],
)
def test_an_error_wins_over_help(sandbox, arguments, message):
    assert sandbox.run(*arguments) == refused(message)


# -- no command


@pytest.mark.parametrize(
    "arguments",
    [
        ["--subj", "x"],
        ["--mailname", "user@example.org", "--real-owner", "user@example.org"],
        ["--filename", "f", "--source", "s"],
        ["word"],
        ["word", "another"],
        ["init-db"],
        [""],
        ["-"],
        ["--"],
        ["--", "--init-db"],
        ["--", "--help"],
        ["--", "--no-such-option"],
    ],
)
def test_without_a_command_nothing_is_done_in_silence(sandbox, arguments):
    assert sandbox.run(*arguments) == SILENT_SUCCESS
    assert untouched(sandbox)


# -- required options


@pytest.mark.parametrize(
    ("arguments", "missing"),
    [
        (["--set-resp"], "mailname"),
        (["--set-resp", "--real-owner", "user@example.org"], "mailname"),
        (["--set-resp", *ADDRESS], "real-owner"),
        (["--del-resp"], "mailname"),
        (["--add-attach"], "mailname"),
        (["--add-attach", "--filename", "f", "--source", "s"], "mailname"),
        (["--add-attach", *ADDRESS], "filename"),
        (["--add-attach", *ADDRESS, "--source", "s"], "filename"),
        (["--add-attach", *ADDRESS, "--filename", "f"], "source"),
        (["--del-attach"], "mailname"),
        (["--del-attach", "--filename", "f"], "mailname"),
        (["--del-attach", *ADDRESS], "filename"),
        (["--del-attach", *ADDRESS, "--source", "s"], "filename"),
    ],
)
def test_the_first_missing_option_is_named(sandbox, arguments, missing):
    assert sandbox.run(*arguments) == refused(f"Missing option: {missing}")
    assert untouched(sandbox)


def test_an_option_is_missed_before_standard_input_is_read(sandbox):
    reader, writer = os.pipe()
    with open(reader, "rb") as nothing_yet, open(writer, "wb"):
        result = sandbox.run("--set-resp", *ADDRESS, stdin=nothing_yet)

    assert result == refused("Missing option: real-owner")


# -- the choice of the command


@pytest.fixture
def filled(sandbox):
    """A database in which each command leaves a trace: an autoresponder, an attachment, an extra header."""
    sandbox.init_db()
    assert sandbox.run(*SET_RESP, "--subj", "old", stdin=b"body") == SILENT_SUCCESS
    sandbox.path("/tmp/old.txt").write_bytes(b"old")
    sandbox.path("/tmp/new.txt").write_bytes(b"new")
    assert sandbox.run("--add-attach", *ADDRESS, "--filename", "old.txt", "--source", "/tmp/old.txt") == SILENT_SUCCESS
    assert sandbox.run("--set-extra-headers", stdin=b'{"X-Old": "1"}') == SILENT_SUCCESS
    assert contents(sandbox) == FILLED
    return sandbox


def contents(sandbox):
    """Subjects, names of attachments and names of extra headers."""
    return tuple(
        [value for [value] in sandbox.rows(query)]
        for query in (
            "SELECT subject FROM autoresponder",
            "SELECT filename FROM attachments ORDER BY filename",
            "SELECT name FROM extra_headers",
        )
    )


FILLED = (["old"], ["old.txt"], ["X-Old"])
DONE = {
    "--init-db": ([], [], []),
    "--set-resp": (["new"], ["old.txt"], ["X-Old"]),
    "--del-resp": ([], [], ["X-Old"]),
    "--add-attach": (["old"], ["new.txt", "old.txt"], ["X-Old"]),
    "--del-attach": (["old"], [], ["X-Old"]),
    "--set-extra-headers": (["old"], ["old.txt"], ["X-New"]),
}
COMPLETE = {
    "--init-db": [],
    "--set-resp": [*ADDRESS, "--real-owner", "user@example.org", "--subj", "new"],
    "--del-resp": ADDRESS,
    "--add-attach": [*ADDRESS, "--filename", "new.txt", "--source", "/tmp/new.txt"],
    "--del-attach": [*ADDRESS, "--filename", "old.txt"],
    "--set-extra-headers": [],
}


@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_does_its_own_work_in_silence(filled, command):
    assert filled.run(command, *COMPLETE[command], stdin=b'{"X-New": "1"}') == SILENT_SUCCESS
    assert contents(filled) == DONE[command]


@pytest.mark.parametrize(("first", "later"), itertools.combinations(COMMANDS, 2))
def test_only_the_first_command_of_the_fixed_order_runs(filled, first, later):
    # The later command stands first, and lacks what it requires unless both take the same.
    assert filled.run(later, first, *COMPLETE[first], stdin=b'{"X-New": "1"}') == SILENT_SUCCESS
    assert contents(filled) == DONE[first]


def test_an_earlier_command_needs_its_options_whatever_comes_later(filled):
    assert filled.run("--set-extra-headers", "--del-resp", stdin=b"{}") == refused("Missing option: mailname")
    assert contents(filled) == FILLED


def test_a_command_runs_among_stray_words(filled):
    assert filled.run("word", "--del-resp", "another", *ADDRESS, "last") == SILENT_SUCCESS
    assert contents(filled) == DONE["--del-resp"]


def test_options_of_other_commands_are_ignored(filled):
    arguments = ["--filename", "old.txt", "--source", "/tmp/new.txt", "--subj", "new"]

    assert filled.run("--del-resp", *ADDRESS, *arguments) == SILENT_SUCCESS
    assert contents(filled) == DONE["--del-resp"]


# -- the exit status of a command


def test_a_failed_command_prints_nothing_and_exits_with_1(sandbox):
    result = sandbox.run(*SET_RESP)

    assert (result.status, result.stdout, len(result.records)) == (1, b"", 1)


def test_every_failure_of_a_command_exits_with_1(filled):
    filled.path(DATABASE).write_bytes(b"This is no database. " * 100)

    result = filled.run("--set-extra-headers", stdin=b"{}")

    assert (result.status, result.stdout, len(result.records)) == (1, b"", 1)


# -- spellings


def test_every_option_of_set_resp_reaches_its_column(sandbox):
    sandbox.init_db()

    result = sandbox.run("--set-resp", "--mailname", "name@example.org", "--key-str", "key", "--key-where", "anything",
                         "--subj", "subject", "--reply-to", "reply", "--forward-to", "forward",
                         "--content-type", "html", "--charset", "KOI8-R", "--ans-freq", "3", "--ans-limit", "4",
                         "--real-owner", "owner@example.org", stdin=b"body\n")

    assert result == SILENT_SUCCESS
    assert sandbox.rows(
        "SELECT mn, keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit,"
        " real_owner FROM autoresponder"
    ) == [("name@example.org", "key", "anything", "subject", "reply", "forward", "text/html", "KOI8-R", "body\n", 3, 4,
           "owner@example.org")]


@pytest.mark.parametrize(
    ("arguments", "subject"),
    [
        ([], "Re: <request_subject>"),
        (["--subj", ""], ""),
        (["--subj", "a b"], "a b"),
        (["--subj", "a", "b"], "a"),
        (["--subj=a"], "a"),
        (["--subj= a "], " a "),
        (["--subj=a=b"], "a=b"),
        (["--su", "a"], "a"),
        (["--subj", "-z"], "-z"),
        (["--subj", "--unknown"], "--unknown"),
        (["--subj", "--"], "--"),
        (["--subj=--del-resp"], "--del-resp"),
        (["--subj=-h"], "-h"),
        (["--subj", "m\u00fcller \u2013 %s \\n"], "m\u00fcller \u2013 %s \\n"),
    ],
)
def test_a_value_is_taken_as_it_stands(sandbox, arguments, subject):
    sandbox.init_db()

    result = sandbox.run(*SET_RESP, *arguments)

    assert result == SILENT_SUCCESS
    assert sandbox.rows("SELECT subject FROM autoresponder") == [(subject,)]


@pytest.mark.parametrize(
    ("command", "arguments"),
    [
        ("--del-resp", ["--del-r", "--mailn", "user@example.org"]),
        ("--del-resp", ["--del-resp", "--m=user@example.org"]),
        ("--del-attach", ["--del-a", "--ma", "user@example.org", "--fi", "old.txt"]),
        ("--add-attach", ["--ad", "--ma", "user@example.org", "--fi", "new.txt", "--so=/tmp/new.txt"]),
        ("--init-db", ["--i"]),
    ],
)
def test_long_names_may_be_cut_short(filled, command, arguments):
    assert filled.run(*arguments) == SILENT_SUCCESS
    assert contents(filled) == DONE[command]


@pytest.mark.parametrize(
    ("argument", "message"),
    [
        ("--set", "option '--set' is ambiguous and matches '--set-extra-headers', and '--set-resp'"),
        ("--del", "option '--del' is ambiguous and matches '--del-attach', and '--del-resp'"),
        ("--s", "option '--s' is ambiguous and matches '--set-extra-headers', '--set-resp', '--source', and '--subj'"),
        ("--key", "option '--key' is ambiguous and matches '--key-str', and '--key-where'"),
        ("--ans", "option '--ans' is ambiguous and matches '--ans-freq', and '--ans-limit'"),
        ("--no-such-option", "unrecognised option '--no-such-option'"),
        ("--no-such-option=x", "unrecognised option '--no-such-option=x'"),
        ("--Init-db", "unrecognised option '--Init-db'"),
        ("--init-dbs", "unrecognised option '--init-dbs'"),
        ("-init-db", "unrecognised option '-init-db'"),
        ("-x", "unrecognised option '-x'"),
        ("-h1", "unrecognised option '-h1'"),
        ("-hh", "option '--help' cannot be specified more than once"),
        ("--subj=", "the argument for option '--subj' should follow immediately after the equal sign"),
        ("--m\u00fcll", "unrecognised option '--m\u00fcll'"),
    ],
)
def test_what_the_option_library_refuses_is_reported_in_its_words(sandbox, argument, message):
    assert sandbox.run(argument, "--init-db") == refused(message)
    assert untouched(sandbox)


@pytest.mark.parametrize("flag", [*COMMANDS, "--help"])
def test_a_flag_takes_no_value(sandbox, flag):
    assert sandbox.run(flag + "=1") == refused(f"option '{flag}' does not take any arguments")


@pytest.mark.parametrize("flag", [*COMMANDS, "--help"])
def test_a_flag_given_twice_is_refused(sandbox, flag):
    assert sandbox.run(flag, flag) == refused(f"option '{flag}' cannot be specified more than once")
    assert untouched(sandbox)


@pytest.mark.parametrize("option", VALUES)
def test_an_option_given_twice_is_refused(sandbox, option):
    result = sandbox.run(option, VALUES[option], option, VALUES[option])

    assert result == refused(f"option '{option}' cannot be specified more than once")


@pytest.mark.parametrize("option", VALUES)
def test_an_option_without_its_value_is_refused(sandbox, option):
    assert sandbox.run("--init-db", option) == refused(f"the required argument for option '{option}' is missing")
    assert untouched(sandbox)


def test_the_short_name_of_help_is_not_taken_for_a_value(sandbox):
    assert sandbox.run("--subj", "-h") == refused("the required argument for option '--subj' is missing")


def test_the_long_name_of_an_option_is_taken_for_a_value(sandbox):
    assert sandbox.run("--subj", "--init-db") == SILENT_SUCCESS
    assert untouched(sandbox)


def test_an_error_is_shown_byte_for_byte(sandbox):
    result = sandbox.run(b"--ans-freq", b"\xff%s\n")

    assert result == Result(1, b"Error: the argument ('\xff%s\n') for option '--ans-freq' is invalid\n", b"", [])


def test_an_error_longer_than_a_pipe_is_shown_whole(sandbox):
    long_text = "x" * 100_000

    result = sandbox.run("--ans-freq", long_text)

    assert result == refused(f"the argument ('{long_text}') for option '--ans-freq' is invalid")


# -- the log and the configuration


@pytest.mark.parametrize(
    ("argv0", "ident"),
    [
        ("/usr/sbin/arspctl", "arspctl"),
        ("arspctl", "arspctl"),
        ("../sbin/other-name", "other-name"),
        ("two words/and more", "and more"),
        ("/usr/sbin/", ""),
        ("", ""),
    ],
)
def test_records_bear_the_last_component_of_the_programs_name(sandbox, argv0, ident):
    [record] = sandbox.run(*SET_RESP, argv0=argv0).records

    assert record.ident == ident


def test_records_are_errors_of_the_mail_facility_and_copied_to_standard_error(sandbox):
    result = sandbox.run(*SET_RESP)

    [record] = result.records
    assert record.priority == 16 + 3
    assert result.stderr == f"arspctl[{record.pid}]: {record.text}\n".encode()


@pytest.mark.parametrize("level", [None, "7"])
def test_warnings_are_not_logged(sandbox, level):
    sandbox.conf("this line is no pair of name and value\nNAME_ALONE\n")

    assert sandbox.run("--subj", "x", env={"QUARN_LOG_LEVEL": level} if level else {}) == SILENT_SUCCESS


def test_the_configuration_is_loaded(filled):
    filled.conf("QUARN_MAILNAMES_D /var/qmail/elsewhere\n")

    assert filled.run(*ADD_ATTACH) == SILENT_SUCCESS
    assert filled.path("/var/qmail/elsewhere/example.org/user/@attachments/new.txt").read_bytes() == b"new"


def test_an_unreadable_configuration_stops_nothing(sandbox):
    sandbox.path("/etc/kel/kel.conf").mkdir()

    assert sandbox.run("--init-db") == SILENT_SUCCESS


# -- standard streams of any kind

CLOSED = [fds for count in (1, 2, 3) for fds in itertools.combinations((0, 1, 2), count)]


@pytest.fixture
def no_leak_of_libc(sandbox):
    """An environment for runs that log without a standard error: the C library then loses its buffer, once a record."""
    sandbox.path("/tmp/known-leaks").write_text("leak:_IO_file_doallocate\n")
    return {"LSAN_OPTIONS": "suppressions=/tmp/known-leaks:print_suppressions=0"}


@pytest.mark.parametrize("closed", CLOSED)
def test_closed_streams_do_not_hinder_a_command(sandbox, no_leak_of_libc, closed):
    sandbox.conf("QUARN_MAILNAMES_D /var/qmail/mailnames\n")
    before = sandbox.path("/etc/kel/kel.conf").read_bytes()

    assert sandbox.run("--init-db", close_fds=closed) == SILENT_SUCCESS
    assert sandbox.run(*DEL_RESP, close_fds=closed, env=no_leak_of_libc).status == 0
    assert sandbox.rows("PRAGMA integrity_check") == [("ok",)]
    assert sandbox.path("/etc/kel/kel.conf").read_bytes() == before


@pytest.mark.parametrize("closed", CLOSED)
def test_the_log_is_not_written_to_as_a_standard_stream(sandbox, no_leak_of_libc, closed):
    sandbox.path("/var/lib/quarn/mail").write_bytes(b"in the way")  # takes two records to tell

    result = sandbox.run("--init-db", close_fds=closed, env=no_leak_of_libc)

    assert [(record.ident, record.priority) for record in result.records] == [("arspctl", 18), ("arspctl", 18)]
    assert result.status == 1


@pytest.mark.parametrize("closed", CLOSED)
def test_closed_streams_do_not_change_the_exit_status_of_help_and_errors(sandbox, closed):
    assert sandbox.run("--help", close_fds=closed).status == 1
    assert sandbox.run("--no-such-option", close_fds=closed).status == 1


ROOT_DOES_NOT_OPEN = """
#include <cerrno>
#include <cstring>
#include <fcntl.h>
extern "C" int open(const char *path, int flags, ...)
{
    if (std::strcmp(path, "/") != 0)
        return openat(AT_FDCWD, path, flags, 0666);
    errno = EMFILE;
    return -1;
}
"""

ROOT_OPENS_ELSEWHERE = """
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
extern "C" int open(const char *path, int flags, ...)
{
    const int fd = openat(AT_FDCWD, path, flags, 0666);
    return std::strcmp(path, "/") == 0 ? dup2(fd, 9) : fd;
}
extern "C" int close(int fd)
{
    if (fd == 9)
        mkdir("/tmp/closed", 0755);
    return static_cast<int>(syscall(SYS_close, fd));
}
"""


@pytest.mark.parametrize("closed", CLOSED)
def test_a_closed_stream_that_cannot_be_filled_ends_the_run_in_silence(sandbox, closed):
    assert sandbox.run("--help", env=preload.environment(sandbox, ROOT_DOES_NOT_OPEN), close_fds=closed) == Result(1, b"", b"", [])


def test_a_closed_stream_whose_place_another_thread_took_ends_the_run_in_silence(sandbox):
    assert sandbox.run("--help", env=preload.environment(sandbox, ROOT_OPENS_ELSEWHERE), close_fds=(0,)) == Result(1, b"", b"", [])
    assert sandbox.path("/tmp/closed").exists()


def test_a_vanished_reader_of_standard_output_ends_nothing(sandbox):
    assert sandbox.run("--help", broken_pipes=(1,)).status == 1
    assert sandbox.run("--no-such-option", broken_pipes=(1,)).status == 1


def test_a_full_device_as_standard_output_changes_nothing(sandbox):
    with open("/dev/full", "wb") as full:
        assert sandbox.run("--help", stdout=full) == Result(1, b"", b"", [])


def test_a_command_whose_messages_nobody_reads_does_its_work(filled):
    shutil.rmtree(filled.path("/var/qmail/mailnames/example.org"))  # its absence is told, in the middle of the work

    result = filled.run(*DEL_RESP, broken_pipes=(1, 2))

    assert (result.status, len(result.records)) == (0, 1)
    assert contents(filled) == DONE["--del-resp"]


def test_a_copy_whose_messages_nobody_reads_ends_with_its_own_status(filled):
    filled.path("/tmp/new.txt").unlink()

    [record] = filled.run(*ADD_ATTACH, broken_pipes=(1, 2)).records

    assert record.text.endswith("new.txt: Child status 1")


# -- output in pieces


@needs_tracing
def test_output_goes_on_after_an_interruption(sandbox):
    result, calls = sandbox.trace("--help", calls="writev", inject=["writev:error=EINTR:when=1"])

    assert [call.injected for call in calls] == [True, False]
    assert (result.status, result.stdout) == (1, HELP)


@needs_tracing
def test_output_waits_for_a_reader_that_is_slow(sandbox):
    result, calls = sandbox.trace("--help", calls="writev,poll", inject=["writev:error=EAGAIN:when=1"])

    assert [call.name for call in calls][-3:] == ["writev", "poll", "writev"]
    assert (result.status, result.stdout) == (1, HELP)


@needs_tracing
@pytest.mark.parametrize("taken", [1, 100, len(HELP) - 1])
def test_output_goes_on_where_a_short_write_ended(sandbox, taken):
    result, _ = sandbox.trace("--help", inject=[f"writev:retval={taken}:when=1"])

    assert (result.status, result.stdout) == (1, HELP[taken:])


@needs_tracing
def test_a_refusal_is_one_write(sandbox):
    result, calls = sandbox.trace("--no-such-option", calls="write,writev")

    assert result.stdout == b"Error: unrecognised option '--no-such-option'\n"
    assert [call.name for call in calls if call.args_text.startswith("1, ")] == ["writev"]


@pytest.mark.parametrize("arguments, text", [
    (["--content-type=%value%"], b"Error: the argument ('%value%') for option '--content-type' is invalid\n"),
    (["--ans-freq=%value%"], b"Error: the argument ('%value%') for option '--ans-freq' is invalid\n"),
    (["--%canonical_option%"], b"Error: unrecognised option '--%canonical_option%'\n"),
])
def test_a_placeholder_of_the_option_librarys_messages_is_an_argument_like_any_other(sandbox, arguments, text):
    assert sandbox.run(*arguments) == Result(1, text, b"", [])
