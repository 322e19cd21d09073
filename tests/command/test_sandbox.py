"""The private root itself: no other test is worth believing when the tool gets out of it, or is not seen in it."""

import os
import resource
import shutil
import signal
import stat
import subprocess
import syslog
import tempfile

import pytest
from harness import DELETED_CWD, Result
from harness.private_root import REPOSITORY, script
from harness.sandbox import DATABASE, program_under_test

SANDBOX = str(REPOSITORY / "scripts" / "sandbox")
CANNOT_OPEN = "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"
MODES = ["namespace", "chroot"] if script.namespaces_allowed() else ["chroot"]


@pytest.fixture(params=MODES)
def either_sandbox(request, make_sandbox):
    """A private root of each kind that this machine allows."""
    return make_sandbox(mode=request.param)


def shell(sandbox, text, *words, **options):
    return sandbox.execute("/bin/sh", "-c", text, *words, **options)


def run_script(*words, before=(), **options):
    command = [*before, SANDBOX, "--program", program_under_test(), *words]
    return subprocess.run(command, capture_output=True, check=False, timeout=60, **options)


# -- the root


def test_what_is_written_inside_stays_inside(either_sandbox):
    directories = ["/", "/dev", "/etc", "/proc", "/tmp", "/usr/bin", "/usr/lib", "/usr/sbin", "/var/lib", "/var/lib/quarn"]
    paths = [os.path.join(directory, "arsp-written-inside") for directory in directories]

    shell(either_sandbox, "for path; do (echo x > $path) 2> /dev/null; done; :", "sh", *paths)

    on_the_host = [path for path in paths if os.path.exists(path)]
    for path in on_the_host:
        os.unlink(path)
    assert on_the_host == []
    assert either_sandbox.path("/var/lib/quarn/arsp-written-inside").read_bytes() == b"x\n"


def test_the_database_is_made_inside(either_sandbox):
    host_has_one = os.path.exists("/var/lib/quarn")

    either_sandbox.init_db()

    assert either_sandbox.path("/var/lib/quarn/mail/autoresponder/responder.db").exists()
    assert os.path.exists("/var/lib/quarn") == host_has_one


def test_programs_of_the_chroot_are_no_links_to_files_of_the_host(make_sandbox):
    sandbox = make_sandbox(mode="chroot")

    inside, host = os.stat(sandbox.path("/bin/sh")), os.stat("/bin/sh")

    assert (inside.st_dev, inside.st_ino) != (host.st_dev, host.st_ino)


def test_a_new_root_holds_no_database_and_no_configuration(either_sandbox):
    directory = ("dir", 0o755, 0, 0, None)

    assert either_sandbox.tree("/var/lib") == {".": directory, "quarn": directory}
    assert either_sandbox.tree("/etc/kel") == {".": directory}
    assert either_sandbox.tree("/var/qmail") == {".": directory, "mailnames": directory}


def test_devices_work_inside(either_sandbox):
    assert shell(either_sandbox, "echo x > /dev/null && read line < /dev/urandom").status == 0


def test_popuser_is_gone_on_request(either_sandbox):
    uid, gid = either_sandbox.popuser
    assert f"popuser:x:{uid}:{gid}:" in either_sandbox.path("/etc/passwd").read_text()
    assert f"popuser:x:{gid}:" in either_sandbox.path("/etc/group").read_text()

    either_sandbox.popuser_exists(False)

    assert "popuser" not in either_sandbox.path("/etc/passwd").read_text()
    assert "popuser" not in either_sandbox.path("/etc/group").read_text()


# -- what reaches the tool


def test_standard_input_arrives_whole_and_standard_output_comes_back(either_sandbox):
    content = bytes(range(256)) * 8192

    result = either_sandbox.execute("/bin/cat", stdin=content)

    assert result == Result(0, content, b"", [])


@pytest.mark.parametrize("number", [0, 1, 2])
def test_a_closed_descriptor_stays_closed(either_sandbox, number):
    result = shell(either_sandbox, f": 7>&{number}", close_fds=[number])

    assert result.status == 2


def test_no_other_descriptor_reaches_the_tool(either_sandbox):
    text = "for n in {3..99}; do (: >&$n) 2> /dev/null && echo $n; done; :"

    result = either_sandbox.execute("/bin/bash", "-c", text)

    assert result == Result(0, b"", b"", [])


def test_a_broken_pipe_is_one(either_sandbox):
    assert shell(either_sandbox, "echo x", broken_pipes=[1]).status == -signal.SIGPIPE
    assert shell(either_sandbox, "read line", broken_pipes=[0]).status == 1


def test_umask_limits_and_environment_arrive(either_sandbox):
    result = shell(either_sandbox, "umask; ulimit -n; echo $COLOUR$HOME", umask=0o027, env={"COLOUR": "red"},
                   rlimits={resource.RLIMIT_NOFILE: 33})

    assert result.stdout == b"0027\n33\nred\n"


def test_an_ignored_signal_is_ignored(either_sandbox):
    assert shell(either_sandbox, "kill -USR1 $$; echo on", ignore=[signal.SIGUSR1]).stdout == b"on\n"
    assert shell(either_sandbox, "kill -USR1 $$; echo on").status == -signal.SIGUSR1


def test_the_working_directory_can_be_chosen_or_gone(either_sandbox):
    assert shell(either_sandbox, "pwd").stdout == b"/\n"
    assert shell(either_sandbox, "pwd", cwd="/var/lib").stdout == b"/var/lib\n"
    assert b"getcwd() failed" in shell(either_sandbox, ":", cwd=DELETED_CWD).stderr


def test_a_run_that_does_not_end_is_ended(sandbox):
    with pytest.raises(AssertionError, match="still running after 0.1 seconds"):
        shell(sandbox, "while :; do :; done", timeout=0.1)


# -- what is seen of it


def test_records_are_caught_with_priority_name_and_process(either_sandbox):
    running = either_sandbox.start("--del-resp", "--mailname", "nobody@example.org", argv0="somebody")
    result = running.wait()

    assert result.status == 1
    (record,) = result.records
    assert record.priority == syslog.LOG_MAIL | syslog.LOG_ERR
    assert (record.facility, record.severity) == (syslog.LOG_MAIL, syslog.LOG_ERR)
    assert (record.ident, record.pid) == ("somebody", running.pid)
    assert record.text == CANNOT_OPEN


def test_no_record_of_a_flood_is_lost(either_sandbox):
    lines = [f"line {number}" for number in range(500)]
    either_sandbox.path("/tmp/lines").write_text("\n".join(lines) + "\n")

    either_sandbox.execute("/usr/bin/logger", "-p", "mail.err", "-t", "flood", "-f", "/tmp/lines")

    assert [record.text for record in either_sandbox.records()] == lines


def test_a_sanitizer_report_fails_the_test_whatever_it_looks_at(make_sandbox, tmp_path):
    source = tmp_path / "overrun.cpp"
    source.write_text("int main(int count, char **) { int three[3] = {}; return three[count + 2]; }\n")
    program = tmp_path / "overrun"
    subprocess.run(["g++", "-g1", "-fsanitize=address", source, "-o", program], check=True)

    for mode in MODES:
        with pytest.raises(AssertionError, match="(?s)a sanitizer reports:.*stack-buffer-overflow"):
            make_sandbox(mode=mode, program=program).run()


def test_traced_calls_are_those_of_the_tool(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="execve,unlink")

    assert result == Result(0, b"", b"", [])
    assert [(call.name, call.strings[0], call.error) for call in calls] == [
        ("execve", "/usr/sbin/arspctl", None),
        ("unlink", "/var/lib/quarn/mail/autoresponder/responder.db", "ENOENT"),
        ("unlink", "/var/lib/quarn/mail/autoresponder/responder.db-journal", None),
    ]


def test_the_call_that_was_asked_for_is_made_to_fail(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="fchmod", inject=["fchmod:error=EROFS:when=2"])

    assert result.status == 1
    assert [(call.error, call.injected) for call in calls] == [(None, False), ("EROFS", True)]


def test_calls_on_a_descriptor_are_found_by_its_path(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="fsync,fdatasync,close", paths=[DATABASE + "-journal"],
                                         inject=["close:error=EIO"])

    assert result.status == 0
    assert [(call.name, call.error) for call in calls] == [("fdatasync", None), ("fdatasync", None), ("close", "EIO")]


def test_a_traced_run_has_the_environment_it_was_given(either_sandbox, needs_tracing):
    given = {"QUARN_LOG_LEVEL": "7", "LD_PRELOAD": "/nowhere.so"}

    _, calls = either_sandbox.trace("--init-db", calls="execve", env=given)

    variables = set(calls[0].args_text.partition("], [")[2].rstrip("]").split(", "))
    assert {'"QUARN_LOG_LEVEL=7"', '"LD_PRELOAD=/nowhere.so"'} <= variables
    assert not any("STRACE" in variable or "strace" in variable for variable in variables)


# -- the script by itself


@pytest.mark.parametrize("mode", MODES)
def test_the_script_hands_everything_through(mode):
    text = "cat; echo error >&2; umask; echo $COLOUR; exit 7"

    result = run_script("--mode", mode, "--with", "/bin/cat", "sh", "-c", text, input=b"in\n", umask=0o031,
                        env={"COLOUR": "red"})

    assert (result.returncode, result.stdout, result.stderr) == (7, b"in\n0031\nred\n", b"error\n")


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("kept", [False, True])
def test_the_script_ends_like_the_command(mode, kept, tmp_path):
    root = ["--root", tmp_path / "root"] if kept else []

    assert run_script("--mode", mode, *root, "sh", "-c", "kill -TERM $$").returncode == -signal.SIGTERM
    assert run_script("--mode", mode, *root, "no-such-command").returncode == 127


@pytest.mark.parametrize("mode", MODES)
@pytest.mark.parametrize("number", [0, 1, 2])
def test_the_script_opens_nothing_in_a_closed_slot(mode, number, tmp_path):
    result = run_script("--mode", mode, "--log", tmp_path / "log", "sh", "-c", f": 7>&{number}",
                        preexec_fn=lambda: os.close(number))

    assert result.returncode == 2


@pytest.mark.parametrize("mode", MODES)
def test_the_script_keeps_a_root_and_finds_it_again(mode, tmp_path):
    root = tmp_path / "root"

    assert run_script("--mode", mode, "--root", root, "--prepare").returncode == 0
    (root / "etc/kel/kel.conf").write_text("kept\n")
    assert run_script("--mode", mode, "--root", root, "arspctl", "--init-db").returncode == 0
    assert run_script("--mode", mode, "--root", root, "--log", tmp_path / "log", "sh", "-c", ":").returncode == 0

    database = os.stat(root / "var/lib/quarn/mail/autoresponder/responder.db")
    assert (database.st_uid, database.st_gid, stat.S_IMODE(database.st_mode)) == (1110, 31, 0o600)
    assert (root / "etc/kel/kel.conf").read_text() == "kept\n"


def test_the_script_leaves_other_directories_alone(tmp_path):
    (tmp_path / "precious").write_text("x")

    result = run_script("--root", tmp_path, "sh", "-c", ":")

    assert result.returncode == 1
    assert result.stderr == f"scripts/sandbox: {tmp_path} is not empty and was not made by this script\n".encode()
    assert os.listdir(tmp_path) == ["precious"]


@pytest.mark.parametrize("mode", MODES)
def test_the_script_writes_the_log_one_record_a_line(mode, tmp_path):
    log = tmp_path / "log"
    log.write_text("before\n")

    run_script("--mode", mode, "--log", log, "arspctl", "--del-resp", "--mailname", "nobody@example.org")
    run_script("--mode", mode, "--log", log, "--with", "/usr/bin/logger", "logger", "-p", "user.info", "two\nlines")

    lines = log.read_text().splitlines()
    assert lines[0] == "before"
    assert lines[1].startswith("<19>")
    assert lines[1].endswith("]: " + CANNOT_OPEN)
    assert lines[2].startswith("<14>")
    assert lines[2].endswith(": two#012lines")
    assert len(lines) == 3


def test_the_script_leaves_popuser_out_on_request():
    result = run_script("--without-popuser", "arspctl", "--init-db")

    assert result.returncode == 1
    assert b"Unable to get uid/gid for popuser: " in result.stderr


def test_a_machine_without_mount_namespaces_gets_a_chroot():
    refused = ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]

    assert run_script("arspctl", "--init-db", before=refused).returncode == 0
    result = run_script("--mode", "namespace", "arspctl", "--init-db", before=refused)
    assert (result.returncode, result.stderr) == (1, b"scripts/sandbox: this machine refuses mount namespaces\n")


def test_the_script_tells_another_user_what_it_needs():
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)  # the repository itself may lie where only root can go
        copy = shutil.copy(SANDBOX, directory)
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

        result = subprocess.run([*nobody, copy, "true"], capture_output=True, check=False, timeout=60)

    assert (result.returncode, result.stderr) == (1, b"scripts/sandbox: a private root can only be made by root\n")
