"""Arguments of any bytes and length, scarce resources, and streams without a reader: values are stored unchanged or
refused, the exit status agrees with the database, and every run ends."""

import contextlib
import json
import os
import re
import resource
import signal
import socket

import pytest
from harness import DELETED_CWD, DONE, Result
from harness.mailboxes import DIRECTORY, MAILNAME, SET_RESP, error_texts, put_file, run_sql
from torture import errors
from torture.scene import COMMANDS

ADD_ATTACH = ("--add-attach", *MAILNAME, "--source", "/tmp/source", "--filename")
DEL_ATTACH = ("--del-attach", *MAILNAME, "--filename")

TEXT_COLUMNS = {"key-str": "keystr", "key-where": "key_where", "subj": "subject", "reply-to": "reply_to",
                "forward-to": "forward_to", "charset": "charset"}
ALL_BYTES = bytes(range(1, 256))  # 0 ends an argument
LONGEST = 128 * 1024 - 1  # bytes of an argument, without the final 0
TOO_LONG = b"x" * LONGEST
SHELL_BYTES = b'"$`\\'  # special between double quotes


each_command = pytest.mark.parametrize("command", COMMANDS)


def attachments(sandbox):
    """The names of the attachments in the database, and those of the files."""
    rows = sandbox.rows("SELECT CAST(filename AS BLOB) FROM attachments")
    return [name for name, in rows], os.listdir(os.fsencode(sandbox.path(DIRECTORY)))


# -- text options and addresses


@pytest.mark.parametrize("values", [
    *([ALL_BYTES[first + place:] + ALL_BYTES[:first + place] for place in range(6)] for first in range(0, 255, 32)),
    *([value] * 6 for value in (
        b"-", b"--", b"--help", b"-h", b"=", b"=x", b"@/etc/passwd", b" ", b"\n", b"\t", b"\x7f", b"\xff", b"\xc0\x80",
        b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xef\xbb\xbf", b"'", b'"', b"'; DROP TABLE autoresponder; --", b"?",
        b":x", b"%n", b"%s%s%s%s%n", b"%99999999d", b"$(touch /tmp/harm)", b"`touch /tmp/harm`", b"${IFS}", b"\\",
        b"\\0", b"\x1b[2J")),
    [bytes([65 + place]) * (LONGEST - len(f"--{name}=")) for place, name in enumerate(TEXT_COLUMNS)],
], ids=lambda values: repr(values[0])[:60])
def test_any_text_is_stored_unchanged(mailbox, values):
    arguments = [f"--{name}=".encode() + value for name, value in zip(TEXT_COLUMNS, values)]

    assert mailbox.run(*SET_RESP, *arguments) == DONE

    columns = ", ".join(f"CAST({column} AS BLOB)" for column in TEXT_COLUMNS.values())
    assert mailbox.rows(f"SELECT {columns} FROM autoresponder") == [tuple(values)]
    assert not mailbox.path("/tmp/harm").exists()


@pytest.mark.parametrize("local_part", [
    *(b"us" + bytes([byte]) + b"er" for byte in [byte for byte in ALL_BYTES if byte >= 128 or chr(byte) in
                                                 "\x01\t\n\r !\"#$%()*,/:;<=>?[\\]^`{|}~\x7f"][::4]),
    b"x" * (LONGEST - len("@example.org")),
], ids=lambda value: repr(value)[:20])
def test_bad_address_is_refused_byte_for_byte(mailbox, local_part):
    assert mailbox.run("--del-resp", "--mailname", local_part + b"@example.org") == Result(
        1, b"Error: " + local_part + b" - incorrect format of local part of email address\n", b"", [])


# -- names of attachments


def test_name_of_all_bytes_but_those_of_the_shell_is_added_and_deleted(mailbox):
    name = bytes(byte for byte in ALL_BYTES if byte not in b"/" + SHELL_BYTES)

    assert mailbox.run(*ADD_ATTACH, name) == DONE
    assert attachments(mailbox) == ([name], [name])
    assert mailbox.run(*DEL_ATTACH, name) == DONE
    assert attachments(mailbox) == ([], [])


@pytest.mark.parametrize("name, message", [
    (b'a"b', b'Unable to move attachment /tmp/source to %s/a"b: Child status 2'),
    (b"a`b", b"Unable to move attachment /tmp/source to %s/a`b: Child status 2"),
    (b"a$b", b"Unable to change owner for %s/a$b: No such file or directory"),
    (b"a\\\\b", b"Unable to change owner for %s/a\\\\b: No such file or directory"),
    (b"%n$1%s", b"Unable to change owner for %s/%%n$1%%s: No such file or directory"),
    pytest.param(TOO_LONG, b"Unable to move attachment /tmp/source to %s/" + TOO_LONG + b": Child status 127",
                 id="too long"),
])
def test_name_that_the_shell_changes_or_refuses_is_not_added(mailbox, name, message):
    result = mailbox.run(*ADD_ATTACH, name)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [(message % DIRECTORY.encode()).decode()]
    assert attachments(mailbox)[0] == []


@pytest.mark.parametrize("name", [b'a"b', b"a`b", b"a$b", b"a\\\\b", b"$(touch harm)", b"%n%s", b"-rf", b"*", TOO_LONG],
                         ids=lambda name: repr(name)[:20])
def test_del_attach_never_passes_the_name_to_a_shell(mailbox, name):
    assert mailbox.run(*ADD_ATTACH, "first") == DONE
    run_sql(mailbox, f"INSERT INTO attachments VALUES ('user@example.org', CAST(x'{name.hex()}' AS TEXT))")
    if name != TOO_LONG:
        put_file(mailbox, f"{DIRECTORY}/{name.decode()}")

    result = mailbox.run(*DEL_ATTACH, name, cwd="/tmp")

    if name == TOO_LONG:
        assert (result.status, result.stdout) == (1, b"")
        assert error_texts(result) == [f"Unable to delete attachment {DIRECTORY}/{name.decode()}: File name too long"]
    else:
        assert result == DONE
    assert attachments(mailbox) == ([b"first"], [b"first"])
    assert not mailbox.path("/tmp/harm").exists()


# -- scarce resources


def assert_truthful(scene, result):
    """The status agrees with the database, and a failure is reported at least on standard error."""
    report = errors.empty_report()
    assert result.status in (0, 1), result
    errors.check_state(report, scene, scene.name, result, logged=bool(result.stderr))
    assert report.problems == []


@pytest.mark.parametrize("kind, limit", [
    *((resource.RLIMIT_FSIZE, size) for size in (0, 512, 4096, 8192, 20000, 40000)),
    *(pytest.param(resource.RLIMIT_NOFILE, descriptors, marks=pytest.mark.unsanitized) for descriptors in (4, 5, 6))])
@each_command
def test_status_is_truthful_under_a_limit_on_file_sizes_or_descriptors(scene, command, kind, limit):
    assert_truthful(scene, scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, rlimits={kind: limit}))


HOSTILE = {
    "PATH": "", "IFS": "/", "ENV": "/tmp/source", "BASH_ENV": "/tmp/source", "CDPATH": "/tmp", "POSIXLY_CORRECT": "1",
    "TMPDIR": "/nonexistent", "SQLITE_TMPDIR": "/nonexistent", "HOME": "/nonexistent", "LD_BIND_NOW": "1",
    "TZ": "../../../../etc/passwd", "LANG": "%n", "LC_ALL": "tr_TR.UTF-8", "LANGUAGE": "%s", "NLSPATH": "/tmp/source",
    "LOCPATH": "/tmp", "MALLOC_PERTURB_": "165", "QUARN_LOG_LEVEL": "7777", "QUARN_LOG_TRACE_ID": "%n" * 100,
    "HOSTALIASES": "/tmp/source", "GLIBC_TUNABLES": "glibc.malloc.mxfast=" * 2 + "x:" * 5000, "": "no name",
    "WITHOUT": "\n=\x01\x7f", **{f"HUGE{i}": "x" * 100000 for i in range(10)},
}
OUTSIDE = os.open("/", os.O_PATH | os.O_DIRECTORY)  # a working directory that no path inside leads to


@pytest.mark.parametrize("options", [{"env": {}}, {"env": HOSTILE}, {"cwd": DELETED_CWD}, {"cwd": OUTSIDE}],
                         ids=["empty environment", "hostile environment", "deleted working directory",
                              "working directory outside"])
@each_command
def test_environment_and_working_directory_affect_no_command(scene, command, options):
    result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, **options)

    assert (result.status, result.stdout, result.records) == (0, b"", [])
    assert result.stderr == b"" or "cwd" in options  # the shell that copies may report the missing directory
    assert scene.rows() == scene.command.after


@pytest.mark.unsanitized
def test_record_without_a_descriptor_for_the_log_is_on_standard_error(mailbox):
    result = mailbox.run(*SET_RESP, rlimits={resource.RLIMIT_NOFILE: 4})

    assert (result.status, result.stdout, result.records) == (1, b"", [])
    assert result.stderr.endswith(
        b": Unable to add/update autoresponder (user@example.org): unable to open database file\n")


@pytest.mark.unsanitized
@each_command
def test_status_is_truthful_with_little_address_space(scene, command):
    def run(limit, *args):
        return scene.sandbox.run(*args, stdin=scene.command.stdin, rlimits={resource.RLIMIT_AS: limit})

    # Start with the least space in which a run without a command succeeds: below, the loader may not reach main.
    too_little, enough = 1 << 20, 1 << 26
    while enough - too_little > 16384:
        middle = (too_little + enough) // 2
        if run(middle, "--subj", "x").status == 0:
            enough = middle
        else:
            too_little = middle

    statuses = []
    while 0 not in statuses and len(statuses) < 200:
        scene.begin()
        result = run(enough + len(statuses) * 128 * 1024, *scene.command.args)
        assert_truthful(scene, result)
        statuses.append(result.status)

    assert (statuses[0], statuses[-1]) == (1, 0)


# -- a system log, or a standard stream, without a reader

FAILING = ("--del-attach", "--mailname", "nobody@example.org", "--filename", "x")
TIMER_CALLS = ("setitimer", "timer_settime")
SECOND = (("1", "0"), ("1", "0"))  # interval and value
STOPPED = (("0", "0"), ("0", "0"))
REFUSED = "Unable to add autoresponder extra headers: refused"
each_blocking_mode = pytest.mark.parametrize("full_pipe", ["blocking", "nonblocking"], indirect=True)


@pytest.fixture
def refusing(mailbox):
    """The mailbox with a list of extra headers that refuses names that begin with X."""
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE INSERT ON extra_headers WHEN NEW.name LIKE 'X%' "
                     "BEGIN SELECT RAISE(ABORT, 'refused'); END")
    return mailbox


def headers_document(refused):
    """A document with so many members that the fixture `refusing` refuses, and a last one that it accepts."""
    return json.dumps({**{f"X-{number}": "" for number in range(refused)}, "Last": ""}).encode()


def fill(write):
    with contextlib.suppress(BlockingIOError):
        while True:
            write(b"x")


@pytest.fixture
def stuck_log(mailbox):
    """The mailbox with a system log that is full and has no reader."""
    mailbox.no_log()
    log, writer = [socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) for _ in range(2)]
    with log, writer:
        directory = os.open(mailbox.path("/dev"), os.O_RDONLY | os.O_DIRECTORY)
        try:
            log.bind(f"/proc/self/fd/{directory}/log")
            writer.connect(f"/proc/self/fd/{directory}/log")
        finally:
            os.close(directory)
        writer.setblocking(False)
        fill(writer.send)
        yield mailbox


@pytest.fixture
def full_pipe(request):
    """The write end of a full pipe without a reader. It blocks, unless the parameter is "nonblocking"."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    fill(lambda text: os.write(writer, text))
    os.set_blocking(writer, getattr(request, "param", "blocking") == "blocking")
    yield writer
    os.close(reader)
    os.close(writer)


def started_timers(calls):
    """The interval and value, in seconds and fractions, of each call that starts a timer."""
    times = [re.findall(r"tv_sec=(\d+), tv_[un]sec=(\d+)", call.args_text)[:2]
             for call in calls if call.name in TIMER_CALLS]
    return [tuple(time) for time in times if tuple(time) != STOPPED]


@pytest.mark.parametrize("log, ignore", [("no_log", ()), ("stuck_log", ()), ("stuck_log", [signal.SIGALRM])],
                         ids=["missing", "stuck", "stuck, alarm ignored"])
def test_record_that_the_log_does_not_take_is_on_standard_error(request, mailbox, log, ignore):
    if log == "no_log":
        mailbox.no_log()
    else:
        request.getfixturevalue(log)

    result = mailbox.run(*FAILING, ignore=ignore)

    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.endswith(b": No autoresponder found for mailname (nobody@example.org)\n")


def test_many_records_for_a_stuck_log_delay_the_run_once(refusing, stuck_log):
    result = refusing.run("--set-extra-headers", stdin=headers_document(200))

    assert (result.status, result.stdout) == (0, b"")
    assert result.stderr.count(f": {REFUSED}\n".encode()) == 200
    assert refusing.rows("SELECT name FROM extra_headers") == [("Last",)]


def test_many_records_reach_the_log_though_standard_error_is_stuck(refusing, full_pipe):
    result = refusing.run("--set-extra-headers", stdin=headers_document(200), stderr=full_pipe)

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == [REFUSED] * 200
    assert refusing.rows("SELECT name FROM extra_headers") == [("Last",)]


def test_stuck_standard_error_is_written_to_once(refusing, full_pipe, needs_tracing):
    result, calls = refusing.trace("--set-extra-headers", stdin=headers_document(3), stderr=full_pipe,
                                   calls="write,writev," + ",".join(TIMER_CALLS))

    assert len([call for call in calls if call.name not in TIMER_CALLS and call.args_text.startswith("2, ")]) == 1
    assert set(started_timers(calls)) == {SECOND}  # each record may wait a second for the log
    assert error_texts(result) == [REFUSED] * 3


@each_blocking_mode
@pytest.mark.parametrize("arguments", [[], ["--help"], ["--no-such-option"], ["--set-resp"]], ids=str)
def test_stuck_standard_output_does_not_block_the_run(sandbox, full_pipe, arguments):
    assert sandbox.run(*arguments, stdout=full_pipe, timeout=20) == Result(1, b"", b"", [])


@pytest.mark.parametrize("argument", ["--help", "--no-such-option"])
def test_text_on_standard_output_may_wait_for_a_second(sandbox, needs_tracing, argument):
    _, calls = sandbox.trace(argument, calls="writev," + ",".join(TIMER_CALLS))

    assert started_timers(calls) == [SECOND]


@each_blocking_mode
@pytest.mark.parametrize("streams", [("stdout", "stderr"), ("stdout",), ("stderr",)], ids="-".join)
def test_fatal_message_on_a_stuck_stream_does_not_block_the_run(mailbox, full_pipe, streams):
    put_file(mailbox, "/var/qmail/mailnames/example.org", b"in place of a directory", mode=0o644)

    result = mailbox.run(*ADD_ATTACH, "x", **dict.fromkeys(streams, full_pipe))

    message = (b"Cannot create directory /var/qmail/mailnames/example.org/user: Not a directory\n"
               b"System error 20: Not a directory\n")
    assert (result.status, error_texts(result)) == (1, [])
    assert (result.stdout, result.stderr) == tuple(b"" if name in streams else message for name in ("stdout", "stderr"))
