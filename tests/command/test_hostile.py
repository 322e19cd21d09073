"""Arguments of any bytes and of any length, and callers that leave a run hardly anything to live on: what is stored is
what was given, or it is refused in the known words; the status is right, and every run ends."""

import contextlib
import json
import os
import re
import resource
import signal
import socket

import pytest
from harness import DELETED_CWD, Result
from harness.mailboxes import add_autoresponder, error_texts, put_file, run_sql
from harness.private_root import script
from harness.sandbox import program_under_test
from torture import errors
from torture.scene import COMMANDS, Scene

USER = "user@example.org"
SET_RESP = ("--set-resp", "--mailname", USER, "--real-owner", USER)
ADD_ATTACH = ("--add-attach", "--mailname", USER, "--source", "/tmp/source", "--filename")
DEL_ATTACH = ("--del-attach", "--mailname", USER, "--filename")
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
SUCCESS = Result(0, b"", b"", [])

TEXT_COLUMNS = {"key-str": "keystr", "key-where": "key_where", "subj": "subject", "reply-to": "reply_to",
                "forward-to": "forward_to", "charset": "charset"}
ALL_BYTES = bytes(range(1, 256))  # 0 ends an argument
LONGEST = 128 * 1024 - 1  # of an argument, which the kernel ends with one byte more
SHELLS_OWN = b'"$`\\'  # what the shell looks for between double quotes

SANITIZED = script.is_sanitized(str(program_under_test()))


@pytest.fixture
def mailbox(sandbox):
    """A root with one autoresponder, and a file to attach."""
    sandbox.init_db()
    add_autoresponder(sandbox, USER)
    put_file(sandbox, "/tmp/source", b"a file", mode=0o644)
    return sandbox


@pytest.fixture
def scene(request, sandbox):
    """The scene of the command that the test is parametrized with."""
    made = Scene(sandbox, request.getfixturevalue("command"))
    made.begin()
    yield made
    made.close()


each_command = pytest.mark.parametrize("command", COMMANDS)


def text_columns(sandbox):
    """The text options of the one mailbox, {name: bytes}."""
    columns = ", ".join(f"CAST({column} AS BLOB)" for column in TEXT_COLUMNS.values())
    return dict(zip(TEXT_COLUMNS, sandbox.rows(f"SELECT {columns} FROM autoresponder")[0]))


def attached_names(sandbox):
    return [name for name, in sandbox.rows("SELECT CAST(filename AS BLOB) FROM attachments")]


def headers(sandbox):
    return sandbox.rows("SELECT CAST(name AS BLOB), CAST(value AS BLOB) FROM extra_headers ORDER BY rowid")


# -- text options


@pytest.mark.parametrize("first", range(0, 255, 32))
def test_every_byte_anywhere_in_a_text_option_is_stored_as_given(mailbox, first):
    turned = [ALL_BYTES[first + place:] + ALL_BYTES[:first + place] for place in range(len(TEXT_COLUMNS))]
    values = dict(zip(TEXT_COLUMNS, turned))

    assert mailbox.run(*SET_RESP, *(f"--{name}=".encode() + value for name, value in values.items())) == SUCCESS
    assert text_columns(mailbox) == values


@pytest.mark.parametrize("value", [
    b"-", b"--", b"--help", b"-h", b"=", b"=x", b"@/etc/passwd", b" ", b"\n", b"\t", b"\x7f", b"\xff", b"\xc0\x80",
    b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xef\xbb\xbf", b"'", b'"', b"'; DROP TABLE autoresponder; --", b"?", b":x",
    b"%n", b"%s%s%s%s%n", b"%99999999d", b"$(touch /tmp/harm)", b"`touch /tmp/harm`", b"${IFS}", b"\\", b"\\0", b"\x1b[2J",
])
def test_no_text_means_anything_else(mailbox, value):
    assert mailbox.run(*SET_RESP, *(f"--{name}=".encode() + value for name in TEXT_COLUMNS)) == SUCCESS

    assert text_columns(mailbox) == dict.fromkeys(TEXT_COLUMNS, value)
    assert not mailbox.path("/tmp/harm").exists()


def test_texts_as_long_as_an_argument_can_be_are_stored_whole(mailbox):
    values = {name: bytes([65 + place]) * (LONGEST - len(f"--{name}=")) for place, name in enumerate(TEXT_COLUMNS)}

    assert mailbox.run(*SET_RESP, *(f"--{name}=".encode() + value for name, value in values.items())) == SUCCESS
    assert text_columns(mailbox) == values


@pytest.mark.parametrize("byte", [bytes([byte]) for byte in ALL_BYTES if not chr(byte).isascii() or chr(byte) in
                                  "\x01\t\n\r !\"#$%()*,/:;<=>?[\\]^`{|}~\x7f"][::4])
def test_an_address_of_other_bytes_is_refused_byte_for_byte(mailbox, byte):
    local_part = b"us" + byte + b"er"

    assert mailbox.run("--del-resp", "--mailname", local_part + b"@example.org") == Result(
        1, b"Error: " + local_part + b" - incorrect format of local part of email address\n", b"", [])


def test_an_address_as_long_as_an_argument_can_be_is_refused_whole(mailbox):
    local_part = b"x" * (LONGEST - len("@example.org"))

    assert mailbox.run("--del-resp", "--mailname", local_part + b"@example.org") == Result(
        1, b"Error: " + local_part + b" - incorrect format of local part of email address\n", b"", [])


# -- names of attachments


def test_a_name_of_every_byte_but_those_of_the_shell_comes_and_goes(mailbox):
    name = bytes(byte for byte in ALL_BYTES if byte not in b"/" + SHELLS_OWN)

    assert mailbox.run(*ADD_ATTACH, name) == SUCCESS
    assert attached_names(mailbox) == [name]
    assert os.listdir(os.fsencode(mailbox.path(DIRECTORY))) == [name]
    assert mailbox.run(*DEL_ATTACH, name) == SUCCESS
    assert attached_names(mailbox) == []
    assert os.listdir(mailbox.path(DIRECTORY)) == []


@pytest.mark.parametrize(("name", "told"), [
    (b'a"b', b'Unable to move attachment /tmp/source to %s/a"b: Child status 2'),
    (b"a`b", b"Unable to move attachment /tmp/source to %s/a`b: Child status 2"),
    (b"a$b", b"Unable to change owner for %s/a$b: No such file or directory"),
    (b"a\\\\b", b"Unable to change owner for %s/a\\\\b: No such file or directory"),
    (b"%n$1%s", b"Unable to change owner for %s/%%n$1%%s: No such file or directory"),
])
def test_a_name_that_the_shell_takes_for_another_is_refused(mailbox, name, told):
    result = mailbox.run(*ADD_ATTACH, name)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [(told % DIRECTORY.encode()).decode()]
    assert attached_names(mailbox) == []


@pytest.mark.parametrize("name", [b'a"b', b"a`b", b"a$b", b"a\\\\b", b"$(touch /tmp/harm)", b"%n%s", b"-rf", b"*"])
def test_a_name_is_no_matter_of_the_shell_when_it_goes(mailbox, name):
    base_name = name.rpartition(b"/")[2]
    assert mailbox.run(*ADD_ATTACH, "first").status == 0
    run_sql(mailbox, f"INSERT INTO attachments VALUES ('{USER}', CAST(x'{base_name.hex()}' AS TEXT))")
    with open(os.path.join(os.fsencode(mailbox.path(DIRECTORY)), base_name), "wb"):
        pass

    assert mailbox.run(*DEL_ATTACH, base_name) == SUCCESS
    assert attached_names(mailbox) == [b"first"]
    assert os.listdir(mailbox.path(DIRECTORY)) == ["first"]
    assert not mailbox.path("/tmp/harm").exists()


def test_a_name_too_long_for_the_shell_is_refused(mailbox):
    name = "x" * LONGEST

    result = mailbox.run(*ADD_ATTACH, name)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [f"Unable to move attachment /tmp/source to {DIRECTORY}/{name}: Child status 127"]
    assert attached_names(mailbox) == []


def test_a_name_too_long_for_a_file_goes_from_the_database_and_is_told(mailbox):
    name = "x" * LONGEST
    assert mailbox.run(*ADD_ATTACH, "first").status == 0
    run_sql(mailbox, f"INSERT INTO attachments VALUES ('{USER}', '{name}')")

    result = mailbox.run(*DEL_ATTACH, name)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [f"Unable to delete attachment {DIRECTORY}/{name}: File name too long"]
    assert attached_names(mailbox) == [b"first"]


# -- extra headers


def test_headers_of_every_code_point_of_a_byte_are_stored(mailbox):
    text = "".join(map(chr, ALL_BYTES))

    assert mailbox.run("--set-extra-headers", stdin=json.dumps({text: text}).encode()) == SUCCESS
    assert headers(mailbox) == [(text.encode(), text.encode())]


def test_headers_of_every_byte_that_json_takes_as_it_is_are_stored(mailbox):
    text = bytes(byte for byte in range(32, 128) if byte not in b'"\\') + "é€😀".encode()

    assert mailbox.run("--set-extra-headers", stdin=b'{"' + text + b'": "' + text + b'"}') == SUCCESS
    assert headers(mailbox) == [(text, text)]


@pytest.mark.parametrize("place", [b'{"a%sb": "c"}', b'{"a": "b%sc"}'])
@pytest.mark.parametrize("bad", [b"\0", b"\x01", b"\n", b"\x1f", b"\x80", b"\xbf", b"\xc3", b"\xff"])
def test_a_header_of_other_bytes_is_unparsable(mailbox, place, bad):
    result = mailbox.run("--set-extra-headers", stdin=place % bad)

    assert (result.status, result.stdout) == (1, b"")
    [text] = error_texts(result)
    assert text.startswith("Unable to parse auto-reply headers json: <unspecified file>(1): ")
    assert headers(mailbox) == []


@pytest.mark.parametrize("text", ["%n", "%s%s%n", "$(touch /tmp/harm)", "'; DROP TABLE extra_headers; --", "`id`", "\\"])
def test_no_header_means_anything_else(mailbox, text):
    assert mailbox.run("--set-extra-headers", stdin=json.dumps({text: text}).encode()) == SUCCESS
    assert headers(mailbox) == [(text.encode(), text.encode())]


# -- little to live on


def assert_truth(scene, result):
    """The status tells the truth about the database, and a failure is told at least on standard error."""
    report = errors.empty_report()
    assert result.status in (0, 1), result
    errors.look(report, scene, scene.name, result, told=bool(result.stderr))
    assert report.problems == []


@pytest.mark.parametrize("size", [0, 512, 4096, 8192, 20000, 40000])
@each_command
def test_a_limit_on_the_size_of_files_ends_no_command_by_a_signal(scene, command, size):
    result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, rlimits={resource.RLIMIT_FSIZE: size})

    assert_truth(scene, result)


@each_command
def test_a_working_directory_that_is_gone_hinders_no_command(scene, command):
    result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, cwd=DELETED_CWD)

    assert (result.status, result.stdout, result.records) == (0, b"", [])  # the shell that copies may remark on it
    assert scene.rows() == scene.command.after


HOSTILE = {
    "PATH": "", "IFS": "/", "ENV": "/tmp/source", "BASH_ENV": "/tmp/source", "CDPATH": "/tmp", "POSIXLY_CORRECT": "1",
    "TMPDIR": "/nonexistent", "SQLITE_TMPDIR": "/nonexistent", "HOME": "/nonexistent", "LD_BIND_NOW": "1",
    "TZ": "../../../../etc/passwd", "LANG": "%n", "LC_ALL": "tr_TR.UTF-8", "LANGUAGE": "%s", "NLSPATH": "/tmp/source",
    "LOCPATH": "/tmp", "MALLOC_PERTURB_": "165", "QUARN_LOG_LEVEL": "7777", "QUARN_LOG_TRACE_ID": "%n" * 100,
    "HOSTALIASES": "/tmp/source", "": "no name", "WITHOUT": "\n=\x01\x7f", **{f"HUGE{i}": "x" * 100000 for i in range(10)},
}


@each_command
def test_no_environment_hinders_a_command(scene, command):
    assert scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, env=HOSTILE) == SUCCESS
    assert scene.rows() == scene.command.after


@each_command
def test_an_empty_environment_hinders_no_command(scene, command):
    assert scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, env={}) == SUCCESS
    assert scene.rows() == scene.command.after


if not SANITIZED:  # such a program takes descriptors for itself, and more room for addresses than any limit leaves

    @pytest.mark.parametrize("descriptors", [4, 5, 6])
    @each_command
    def test_with_few_descriptors_the_status_tells_the_truth(scene, command, descriptors):
        result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin,
                                   rlimits={resource.RLIMIT_NOFILE: descriptors})

        assert_truth(scene, result)

    def test_a_record_that_finds_no_descriptor_is_on_standard_error(mailbox):
        result = mailbox.run(*SET_RESP, rlimits={resource.RLIMIT_NOFILE: 4})

        assert (result.status, result.stdout, result.records) == (1, b"", [])
        assert result.stderr.endswith(
            b": Unable to add/update autoresponder (user@example.org): unable to open database file\n")

    @each_command
    def test_with_little_room_for_addresses_the_status_tells_the_truth(scene, command):
        def run(room, *args):
            return scene.sandbox.run(*args, stdin=scene.command.stdin, rlimits={resource.RLIMIT_AS: room})

        # With the least room a run without a command gets through with; below, the loader may not get as far as main.
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
            assert_truth(scene, result)
            statuses.append(result.status)

        assert statuses[0] == 1
        assert statuses[-1] == 0


# -- a system log, or a standard error, that takes nothing


@pytest.fixture
def stuck_log(mailbox):
    """The mailbox with a system log that is there and full: nobody reads it."""
    mailbox.no_log()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as writer:
        directory = os.open(mailbox.path("/dev"), os.O_RDONLY | os.O_DIRECTORY)
        try:
            log.bind(f"/proc/self/fd/{directory}/log")
            writer.connect(f"/proc/self/fd/{directory}/log")
        finally:
            os.close(directory)
        writer.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                writer.send(b"x")
        yield mailbox


@pytest.fixture
def full_pipe(request):
    """The end to write to of a pipe that is full: nobody reads it. It blocks, unless the parameter is "nonblocking"."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writer, b"x")
    os.set_blocking(writer, getattr(request, "param", "blocking") == "blocking")
    yield writer
    os.close(reader)
    os.close(writer)


def assert_told_on_standard_error(result):
    assert (result.status, result.stdout) == (1, b"")
    assert result.stderr.endswith(b": No autoresponder found for mailname (nobody@example.org)\n")


FAILING = ("--del-attach", "--mailname", "nobody@example.org", "--filename", "x")


def test_without_a_system_log_a_failure_is_on_standard_error(mailbox):
    mailbox.no_log()

    assert_told_on_standard_error(mailbox.run(*FAILING))


def test_a_run_does_not_wait_for_ever_for_a_system_log_that_nobody_reads(stuck_log):
    assert_told_on_standard_error(stuck_log.run(*FAILING))


def test_a_command_goes_on_after_a_record_that_nobody_reads(stuck_log):
    result = stuck_log.run("--del-resp", "--mailname", USER)  # there is no directory to clear

    assert (result.status, result.stdout) == (0, b"")
    assert stuck_log.rows("SELECT * FROM autoresponder") == []


def test_many_records_that_nobody_reads_cost_the_time_of_one(stuck_log):
    run_sql(stuck_log, "CREATE TRIGGER refuse BEFORE INSERT ON extra_headers BEGIN SELECT RAISE(ABORT, 'refused'); END")
    document = json.dumps({f"X-{number}": "" for number in range(200)}).encode()

    result = stuck_log.run("--set-extra-headers", stdin=document)

    assert (result.status, result.stdout) == (0, b"")
    assert result.stderr.count(b": Unable to add autoresponder extra headers: refused\n") == 200


def test_a_caller_who_ignores_the_alarm_does_not_make_a_run_wait_for_the_log(stuck_log):
    assert_told_on_standard_error(stuck_log.run(*FAILING, ignore=[signal.SIGALRM]))


def test_a_standard_error_that_nobody_reads_keeps_no_record_from_the_log(mailbox, full_pipe):
    result = mailbox.run(*FAILING, stderr=full_pipe)

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["No autoresponder found for mailname (nobody@example.org)"]


def test_many_records_go_to_the_log_though_nobody_reads_standard_error(mailbox, full_pipe):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE INSERT ON extra_headers BEGIN SELECT RAISE(ABORT, 'refused'); END")
    document = json.dumps({f"X-{number}": "" for number in range(200)}).encode()

    result = mailbox.run("--set-extra-headers", stdin=document, stderr=full_pipe)

    assert (result.status, result.stdout) == (0, b"")
    assert error_texts(result) == ["Unable to add autoresponder extra headers: refused"] * 200


SECOND = "{it_interval={tv_sec=1, tv_nsec=0}, it_value={tv_sec=1, tv_nsec=0}}"
STOPPED = "{it_interval={tv_sec=0, tv_nsec=0}, it_value={tv_sec=0, tv_nsec=0}}"


def started_timers(calls):
    """What the timer is set to by each call that starts it."""
    values = [re.match(r"0, 0, (\{.*?\}\})", call.args_text)[1] for call in calls if call.name == "timer_settime"]
    return [value for value in values if value != STOPPED]


def test_a_standard_error_that_nobody_reads_is_tried_once(mailbox, full_pipe, needs_tracing):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE INSERT ON extra_headers BEGIN SELECT RAISE(ABORT, 'refused'); END")

    result, calls = mailbox.trace("--set-extra-headers", stdin=b'{"X-A": "", "X-B": "", "X-C": ""}', stderr=full_pipe,
                                  calls="write,writev,timer_settime")

    assert len([call for call in calls if call.name != "timer_settime" and call.args_text.startswith("2, ")]) == 1
    assert set(started_timers(calls)) == {SECOND}  # the log has its second for each record
    assert error_texts(result) == ["Unable to add autoresponder extra headers: refused"] * 3


either_pipe = pytest.mark.parametrize("full_pipe", ["blocking", "nonblocking"], indirect=True)


@either_pipe
@pytest.mark.parametrize("arguments", [[], ["--help"], ["--no-such-option"], ["--set-resp"]])
def test_text_on_standard_output_that_is_not_read_does_not_hold_the_run(sandbox, full_pipe, arguments):
    assert sandbox.run(*arguments, stdout=full_pipe, timeout=20) == Result(1, b"", b"", [])


@pytest.mark.parametrize("arguments", [["--help"], ["--no-such-option"]])
def test_text_on_standard_output_has_a_second(sandbox, needs_tracing, arguments):
    _, calls = sandbox.trace(*arguments, calls="timer_settime,writev")

    assert started_timers(calls) == [SECOND]


@either_pipe
@pytest.mark.parametrize("streams", [("stdout", "stderr"), ("stdout",), ("stderr",)])
def test_a_fatal_message_that_nobody_reads_does_not_keep_the_run(mailbox, full_pipe, streams):
    put_file(mailbox, "/var/qmail/mailnames/example.org", b"where a directory is wanted", mode=0o644)

    result = mailbox.run("--add-attach", "--mailname", USER, "--filename", "x", "--source", "/etc/passwd",
                         **dict.fromkeys(streams, full_pipe))

    told = b"Cannot create directory /var/qmail/mailnames/example.org/user: Not a directory\nSystem error 20: Not a directory\n"
    assert (result.status, error_texts(result)) == (1, [])
    assert (result.stdout, result.stderr) == tuple(b"" if name in streams else told for name in ("stdout", "stderr"))


def test_a_record_may_wait_for_a_second(sandbox, needs_tracing):
    _, calls = sandbox.trace("--del-resp", "--mailname", "user@example.org", calls="timer_settime")

    assert started_timers(calls)[0] == SECOND
