"""The command line as a whole: help, errors, the choice of the command, standard streams and the log."""

import itertools
import os
import shutil

import pytest
from harness import DONE, Result
from harness.sandbox import DATABASE

ADDRESS = ["--mailname", "user@example.org"]
SET_RESP = ["--set-resp", *ADDRESS, "--real-owner", "user@example.org"]
DEL_RESP = ["--del-resp", *ADDRESS]

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
SILENT_FAILURE = Result(1, b"", b"", [])

COMMANDS = {  # with complete options
    "--init-db": [],
    "--set-resp": [*ADDRESS, "--real-owner", "user@example.org", "--subj", "new"],
    "--del-resp": ADDRESS,
    "--add-attach": [*ADDRESS, "--filename", "new.txt", "--source", "/tmp/new.txt"],
    "--del-attach": [*ADDRESS, "--filename", "old.txt"],
    "--set-extra-headers": [],
}
FLAGS = [*COMMANDS, "--help"]
VALUES = {"--mailname": "user@example.org", "--filename": "file", "--key-str": "key", "--key-where": "subj",
          "--subj": "subject", "--reply-to": "reply", "--forward-to": "forward", "--content-type": "html",
          "--charset": "KOI8-R", "--ans-freq": "1", "--ans-limit": "2", "--real-owner": "user@example.org",
          "--source": "source"}
LONG_TEXT = "x" * 100_000  # more than a pipe holds


def refused(message):
    return Result(1, b"Error: " + message.encode() + b"\n", b"", [])


def untouched(sandbox):
    return list(sandbox.path("/var/lib/quarn").iterdir()) == []


# -- the help page


@pytest.mark.parametrize("words", [
    [], ["/usr/sbin/arspctl"], *(["arspctl", spelling] for spelling in ("--help", "-h", "--hel", "--h")),
    *(["arspctl", command, "--help"] for command in COMMANDS), ["arspctl", "--help", *SET_RESP],
], ids=str)
def test_help_is_shown_without_arguments_or_on_request(sandbox, words):
    assert sandbox.start_command("/usr/sbin/arspctl", words).wait() == HELP_PAGE
    assert untouched(sandbox)


# -- no command


@pytest.mark.parametrize("arguments", [
    ["--subj", "x"], ["--mailname", "user@example.org", "--real-owner", "user@example.org"],
    ["--filename", "f", "--source", "s"], ["--subj", "--init-db"], ["word"], ["word", "another"], ["init-db"], [""],
    ["-"], ["--"], ["--", "--init-db"], ["--", "--help"], ["--", "--no-such-option"],
], ids=str)
def test_run_without_a_command_does_nothing_silently(sandbox, arguments):
    assert sandbox.run(*arguments) == DONE
    assert untouched(sandbox)


# -- errors


@pytest.mark.parametrize("arguments, missing", [
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
], ids=str)
def test_first_missing_option_is_reported_before_input_is_read(sandbox, arguments, missing):
    reader, writer = os.pipe()
    with open(reader, "rb") as empty, open(writer, "wb"):
        assert sandbox.run(*arguments, stdin=empty) == refused(f"Missing option: {missing}")

    assert untouched(sandbox)


@pytest.mark.parametrize("arguments, message", [
    # abbreviations and unknown options
    (["--set"], "option '--set' is ambiguous and matches '--set-extra-headers', and '--set-resp'"),
    (["--del"], "option '--del' is ambiguous and matches '--del-attach', and '--del-resp'"),
    (["--s"], "option '--s' is ambiguous and matches '--set-extra-headers', '--set-resp', '--source', and '--subj'"),
    (["--key"], "option '--key' is ambiguous and matches '--key-str', and '--key-where'"),
    (["--ans"], "option '--ans' is ambiguous and matches '--ans-freq', and '--ans-limit'"),
    *(([option, "--init-db"], f"unrecognised option '{option}'") for option in (
        "--no-such-option", "--no-such-option=x", "--Init-db", "--init-dbs", "-init-db", "-x", "-h1", "--m\u00fcll")),
    (["-h", "--no-such-option"], "unrecognised option '--no-such-option'"),
    # repetitions
    *(([flag, flag], f"option '{flag}' cannot be specified more than once") for flag in FLAGS),
    *(([option, value, option, value], f"option '{option}' cannot be specified more than once")
      for option, value in VALUES.items()),
    (["-hh"], "option '--help' cannot be specified more than once"),
    (["--help", "-h"], "option '--help' cannot be specified more than once"),
    # values
    *(([f"{flag}=1"], f"option '{flag}' does not take any arguments") for flag in FLAGS),
    *((["--init-db", option], f"the required argument for option '{option}' is missing") for option in VALUES),
    (["--subj", "-h"], "the required argument for option '--subj' is missing"),
    (["--subj=", "--init-db"], "the argument for option '--subj' should follow immediately after the equal sign"),
    (["--help", "--mailname", "x"], "x - incorrect email address format"),
    (["--help", "--ans-freq", "x"], "the argument ('x') for option '--ans-freq' is invalid"),
    # texts that the option library could mistake for placeholders of its messages
    (["--content-type=%value%"], "the argument ('%value%') for option '--content-type' is invalid"),
    (["--ans-freq=%value%"], "the argument ('%value%') for option '--ans-freq' is invalid"),
    (["--%canonical_option%"], "unrecognised option '--%canonical_option%'"),
    pytest.param(["--ans-freq", LONG_TEXT], f"the argument ('{LONG_TEXT}') for option '--ans-freq' is invalid",
                 id="a long text"),
], ids=lambda value: str(value)[:60])
def test_refused_argument_is_reported_and_nothing_is_done(sandbox, arguments, message):
    assert sandbox.run(*arguments) == refused(message)
    assert untouched(sandbox)


def test_error_is_shown_byte_for_byte(sandbox):
    result = sandbox.run(b"--ans-freq", b"\xff%s\n\x1b[2J")

    assert result == Result(1, b"Error: the argument ('\xff%s\n\x1b[2J') for option '--ans-freq' is invalid\n", b"", [])


# -- the choice of the command


@pytest.fixture
def filled(sandbox):
    """A database in which each command has a visible effect: an autoresponder, an attachment, an extra header."""
    sandbox.init_db()
    assert sandbox.run(*SET_RESP, "--subj", "old", stdin=b"body") == DONE
    sandbox.path("/tmp/old.txt").write_bytes(b"old")
    sandbox.path("/tmp/new.txt").write_bytes(b"new")
    assert sandbox.run("--add-attach", *ADDRESS, "--filename", "old.txt", "--source", "/tmp/old.txt") == DONE
    assert sandbox.run("--set-extra-headers", stdin=b'{"X-Old": "1"}') == DONE
    assert contents(sandbox) == FILLED
    return sandbox


def contents(sandbox):
    """Subjects, names of attachments and names of extra headers."""
    return tuple([value for [value] in sandbox.rows(f"SELECT {column} FROM {table} ORDER BY 1")] for column, table in (
        ("subject", "autoresponder"), ("filename", "attachments"), ("name", "extra_headers")))


FILLED = (["old"], ["old.txt"], ["X-Old"])
EFFECTS = {
    "--init-db": ([], [], []),
    "--set-resp": (["new"], ["old.txt"], ["X-Old"]),
    "--del-resp": ([], [], ["X-Old"]),
    "--add-attach": (["old"], ["new.txt", "old.txt"], ["X-Old"]),
    "--del-attach": (["old"], [], ["X-Old"]),
    "--set-extra-headers": (["old"], ["old.txt"], ["X-New"]),
}


@pytest.mark.parametrize("command, arguments", [
    *((command, [command, *options]) for command, options in COMMANDS.items()),
    # The later command of the fixed order comes first, and lacks its options unless both take the same.
    *((first, [later, first, *COMMANDS[first]]) for first, later in itertools.combinations(COMMANDS, 2)),
    ("--del-resp", ["word", "--del-resp", "another", *ADDRESS, "last"]),
    ("--del-resp", ["--del-resp", *ADDRESS, "--filename", "old.txt", "--source", "/tmp/new.txt", "--subj", "new"]),
    ("--del-resp", ["--del-r", "--mailn", "user@example.org"]),
    ("--del-resp", ["--del-resp", "--m=user@example.org"]),
    ("--del-attach", ["--del-a", "--ma", "user@example.org", "--fi", "old.txt"]),
    ("--add-attach", ["--ad", "--ma", "user@example.org", "--fi", "new.txt", "--so=/tmp/new.txt"]),
    ("--init-db", ["--i"]),
], ids=str)
def test_first_command_of_the_fixed_order_runs_silently_and_alone(filled, command, arguments):
    assert filled.run(*arguments, stdin=b'{"X-New": "1"}') == DONE
    assert contents(filled) == EFFECTS[command]


def test_earlier_command_needs_its_options(filled):
    assert filled.run("--set-extra-headers", "--del-resp", stdin=b"{}") == refused("Missing option: mailname")
    assert contents(filled) == FILLED


@pytest.mark.parametrize("arguments, subject", [
    ([], "Re: <request_subject>"), (["--subj", ""], ""), (["--subj", "a b"], "a b"), (["--subj", "a", "b"], "a"),
    (["--subj=a"], "a"), (["--subj= a "], " a "), (["--subj=a=b"], "a=b"), (["--su", "a"], "a"),
    (["--subj", "-z"], "-z"), (["--subj", "--unknown"], "--unknown"), (["--subj", "--"], "--"),
    (["--subj=--del-resp"], "--del-resp"), (["--subj=-h"], "-h"),
    (["--subj", "m\u00fcller \u2013 %s \\n"], "m\u00fcller \u2013 %s \\n"),
], ids=str)
def test_value_is_stored_unchanged(sandbox, arguments, subject):
    sandbox.init_db()

    assert sandbox.run(*SET_RESP, *arguments) == DONE

    assert sandbox.rows("SELECT subject FROM autoresponder") == [(subject,)]


# -- the log


@pytest.mark.parametrize("argv0, ident", [
    ("/usr/sbin/arspctl", "arspctl"), ("arspctl", "arspctl"), ("../sbin/other-name", "other-name"),
    ("two words/and more", "and more"), ("/usr/sbin/", ""), ("", ""), ("%n%s%1$n%99999d", "%n%s%1$n%99999d"),
    pytest.param("x" * 100_000, "x" * 63, id="100000 bytes")])
def test_records_contain_the_last_component_of_the_program_name(sandbox, argv0, ident):
    [record] = sandbox.run(*SET_RESP, argv0=argv0).records

    assert (record.ident, record.text) == (ident, f"Unable to open database {DATABASE}: unable to open database file")


@pytest.mark.parametrize("arguments", [SET_RESP, ["--set-extra-headers"]], ids=str)
def test_failed_command_exits_with_1_and_copies_its_mail_error_to_standard_error(sandbox, arguments):
    sandbox.path(DATABASE).parent.mkdir(parents=True)
    sandbox.path(DATABASE).write_bytes(b"This is no database. " * 100)

    result = sandbox.run(*arguments)

    [record] = result.records
    assert record.priority == 16 + 3
    assert result == Result(1, b"", f"arspctl[{record.pid}]: {record.text}\n".encode(), [record])


# -- standard streams of any kind

each_set_of_closed_streams = pytest.mark.parametrize(
    "closed", [fds for count in (1, 2, 3) for fds in itertools.combinations((0, 1, 2), count)], ids=str)


@pytest.fixture
def no_leak_of_libc(sandbox):
    """An environment for runs that log without a standard error: the C library leaks a buffer with each record."""
    sandbox.path("/tmp/known-leaks").write_text("leak:_IO_file_doallocate\n")
    return {"LSAN_OPTIONS": "suppressions=/tmp/known-leaks:print_suppressions=0"}


@each_set_of_closed_streams
def test_closed_streams_affect_neither_status_nor_files_nor_log(sandbox, no_leak_of_libc, closed):
    sandbox.conf("QUARN_MAILNAMES_D /var/qmail/mailnames\n")
    before = sandbox.path("/etc/kel/kel.conf").read_bytes()

    assert sandbox.run("--help", close_fds=closed).status == 1
    assert sandbox.run("--no-such-option", close_fds=closed).status == 1
    assert sandbox.run("--init-db", close_fds=closed) == DONE
    assert sandbox.run(*DEL_RESP, close_fds=closed, env=no_leak_of_libc).status == 0
    assert sandbox.rows("PRAGMA integrity_check") == [("ok",)]
    assert sandbox.path("/etc/kel/kel.conf").read_bytes() == before

    shutil.rmtree(sandbox.path("/var/lib/quarn/mail"))
    sandbox.path("/var/lib/quarn/mail").write_bytes(b"not a directory")  # takes two records to report
    result = sandbox.run("--init-db", close_fds=closed, env=no_leak_of_libc)
    assert [(record.ident, record.priority) for record in result.records] == [("arspctl", 18), ("arspctl", 18)]
    assert result.status == 1


@each_set_of_closed_streams
def test_closed_stream_that_cannot_be_replaced_ends_the_run_silently(sandbox, needs_tracing, closed):
    result, _ = sandbox.trace("--help", redirect=" ".join(f"{fd}>&-" for fd in closed), paths=["/"],
                              inject=["openat:error=EMFILE"])

    assert result == SILENT_FAILURE


def test_closed_stream_whose_number_is_taken_by_another_thread_ends_the_run_silently(sandbox, needs_tracing):
    # The shell's open of /var is the first one.
    result, calls = sandbox.trace("--help", redirect="0<&- 9</var", calls="openat,close", paths=["/", "/var"],
                                  inject=["openat:retval=9:when=2"])

    assert result == SILENT_FAILURE
    assert [(call.name, call.args_text) for call in calls][-1] == ("close", "9")


@pytest.mark.parametrize("argument", ["--help", "--no-such-option"])
def test_broken_or_full_standard_output_leaves_the_status(sandbox, argument):
    assert sandbox.run(argument, broken_pipes=(1,)) == SILENT_FAILURE
    with open("/dev/full", "wb") as full:
        assert sandbox.run(argument, stdout=full) == SILENT_FAILURE


def test_command_with_broken_streams_completes_its_work(filled):
    shutil.rmtree(filled.path("/var/qmail/mailnames/example.org"))  # is logged before the work is complete

    result = filled.run(*DEL_RESP, broken_pipes=(1, 2))

    assert (result.status, len(result.records)) == (0, 1)
    assert contents(filled) == EFFECTS["--del-resp"]


def test_copy_with_broken_streams_reports_its_own_status(filled):
    filled.path("/tmp/new.txt").unlink()

    [record] = filled.run("--add-attach", *COMMANDS["--add-attach"], broken_pipes=(1, 2)).records

    assert record.text.endswith("new.txt: Child status 1")


# -- output in pieces


@pytest.mark.parametrize("fault", ["EINTR", "EAGAIN"])
def test_interrupted_or_delayed_output_is_continued(sandbox, needs_tracing, fault):
    result, calls = sandbox.trace("--help", calls="writev,poll", inject=[f"writev:error={fault}:when=1"])

    assert [call.name for call in calls][-3:] == ["writev", "poll", "writev"]
    assert [call.injected for call in calls if call.name == "writev"] == [True, False]
    assert (result.status, result.stdout) == (1, HELP)


@pytest.mark.parametrize("written", [1, 100, len(HELP) - 1])
def test_output_continues_after_a_short_write(sandbox, needs_tracing, written):
    result, _ = sandbox.trace("--help", inject=[f"writev:retval={written}:when=1"])

    assert (result.status, result.stdout) == (1, HELP[written:])


def test_error_is_one_write(sandbox, needs_tracing):
    result, calls = sandbox.trace("--no-such-option", calls="write,writev")

    assert result.stdout == b"Error: unrecognised option '--no-such-option'\n"
    assert [call.name for call in calls if call.args_text.startswith("1, ")] == ["writev"]
