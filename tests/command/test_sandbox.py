"""The private root itself: a run inside changes nothing outside, and the fixtures report what it did."""

import os
import resource
import shutil
import signal
import stat
import subprocess
import syslog
import tempfile

import pytest
from harness import DELETED_CWD, DONE, Result
from harness.private_root import REPOSITORY, namespaces_allowed
from harness.sandbox import DATABASE, program_under_test, sanitized

SANDBOX = REPOSITORY / "scripts" / "sandbox"
CANNOT_OPEN = "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"
MODES = ["namespace", "chroot"] if namespaces_allowed() else ["chroot"]
OVERRUN = b"int main(int count, char **) { int three[3] = {}; return three[count + 2]; }\n"

each_mode = pytest.mark.parametrize("mode", MODES)
each_mode_of_the_tool = pytest.mark.parametrize("mode", [mode for mode in MODES
                                                         if mode == "namespace" or not sanitized()])


@pytest.fixture(params=MODES)
def either_sandbox(request, make_sandbox):
    """A private root in each mode that this machine allows."""
    return make_sandbox(mode=request.param)


@pytest.fixture(scope="session")
def overrun(sandbox_directory):
    """A program with AddressSanitizer that reads beyond an array."""
    program = sandbox_directory / "overrun"
    subprocess.run(["g++", "-g1", "-fsanitize=address", "-x", "c++", "-", "-o", program], input=OVERRUN, check=True)
    return program


def shell(sandbox, text, *words, **options):
    return sandbox.execute("/bin/sh", "-c", text, *words, **options)


def run_script(*words, before=(), **options):
    command = [*before, SANDBOX, "--program", program_under_test(), *words]
    return subprocess.run(command, capture_output=True, check=False, timeout=60, **options)


# -- the root


def test_files_written_inside_stay_inside(either_sandbox):
    directories = ["/", "/dev", "/etc", "/proc", "/tmp", "/usr/bin", "/usr/lib", "/usr/sbin", "/var/lib",
                   "/var/lib/quarn"]
    paths = [os.path.join(directory, "arsp-written-inside") for directory in directories]

    shell(either_sandbox, "for path; do (echo x > $path) 2> /dev/null; done; :", "sh", *paths)

    on_the_host = [path for path in paths if os.path.exists(path)]
    for path in on_the_host:
        os.unlink(path)
    assert on_the_host == []
    assert either_sandbox.path("/var/lib/quarn/arsp-written-inside").read_bytes() == b"x\n"


def test_database_is_made_inside(either_sandbox):
    host_has_one = os.path.exists("/var/lib/quarn")

    either_sandbox.init_db()

    assert either_sandbox.path(DATABASE).exists()
    assert os.path.exists("/var/lib/quarn") == host_has_one


def test_programs_in_a_chroot_are_copies(make_sandbox):
    sandbox = make_sandbox(mode="chroot")

    assert not os.path.samefile(sandbox.path("/bin/sh"), "/bin/sh")


def test_new_root_holds_no_database_and_no_configuration(either_sandbox):
    directory = ("dir", 0o755, 0, 0, None)

    assert either_sandbox.tree("/var/lib") == {".": directory, "quarn": directory}
    assert either_sandbox.tree("/etc/kel") == {".": directory}
    assert either_sandbox.tree("/var/qmail") == {".": directory, "mailnames": directory}


def test_devices_work_inside(either_sandbox):
    assert shell(either_sandbox, "echo x > /dev/null && read line < /dev/urandom").status == 0


def test_popuser_can_be_removed(either_sandbox):
    uid, gid = either_sandbox.popuser
    files = [either_sandbox.path(path) for path in ("/etc/passwd", "/etc/group")]
    assert f"popuser:x:{uid}:{gid}:" in files[0].read_text()
    assert f"popuser:x:{gid}:" in files[1].read_text()

    either_sandbox.popuser_exists(False)

    assert not any("popuser" in file.read_text() for file in files)


# -- options of a run


def test_standard_input_arrives_whole_and_standard_output_comes_back(either_sandbox):
    content = bytes(range(256)) * 8192

    assert either_sandbox.execute("/bin/cat", stdin=content) == Result(0, content, b"", [])


@pytest.mark.parametrize("number", [0, 1, 2])
def test_closed_descriptor_stays_closed(either_sandbox, number):
    assert shell(either_sandbox, f": 7>&{number}", close_fds=[number]).status == 2


def test_no_other_descriptor_reaches_the_tool(either_sandbox):
    text = "for n in {3..99}; do (: >&$n) 2> /dev/null && echo $n; done; :"

    assert either_sandbox.execute("/bin/bash", "-c", text) == DONE


@pytest.mark.parametrize(("text", "options", "status", "output"), [
    ("echo x", {"broken_pipes": [1]}, -signal.SIGPIPE, b""),
    ("read line", {"broken_pipes": [0]}, 1, b""),
    ("umask; ulimit -n; echo $COLOUR$HOME",
     {"umask": 0o027, "env": {"COLOUR": "red"}, "rlimits": {resource.RLIMIT_NOFILE: 33}}, 0, b"0027\n33\nred\n"),
    ("kill -USR1 $$; echo on", {"ignore": [signal.SIGUSR1]}, 0, b"on\n"),
    ("kill -USR1 $$; echo on", {}, -signal.SIGUSR1, b""),
    ("pwd", {}, 0, b"/\n"),
    ("pwd", {"cwd": "/var/lib"}, 0, b"/var/lib\n"),
])
def test_options_reach_the_run(either_sandbox, text, options, status, output):
    result = shell(either_sandbox, text, **options)

    assert (result.status, result.stdout) == (status, output)


def test_working_directory_can_be_deleted(either_sandbox):
    assert b"getcwd() failed" in shell(either_sandbox, ":", cwd=DELETED_CWD).stderr


def test_run_that_does_not_end_is_killed(sandbox):
    with pytest.raises(AssertionError, match="still running after 0.1 seconds"):
        shell(sandbox, "while :; do :; done", timeout=0.1)


# -- what is seen of a run


def test_records_are_caught_with_priority_name_and_process(either_sandbox):
    running = either_sandbox.start("--del-resp", "--mailname", "nobody@example.org", argv0="other-name")
    result = running.wait()

    assert result.status == 1
    (record,) = result.records
    assert record.priority == syslog.LOG_MAIL | syslog.LOG_ERR
    assert (record.facility, record.severity) == (syslog.LOG_MAIL, syslog.LOG_ERR)
    assert (record.ident, record.pid, record.text) == ("other-name", running.pid, CANNOT_OPEN)


def test_no_record_of_a_flood_is_lost(either_sandbox):
    lines = [f"line {number}" for number in range(500)]
    either_sandbox.path("/tmp/lines").write_text("\n".join(lines) + "\n")

    either_sandbox.execute("/usr/bin/logger", "-p", "mail.err", "-t", "flood", "-f", "/tmp/lines")

    assert [record.text for record in either_sandbox.records()] == lines


@each_mode
def test_sanitizer_report_fails_the_test_whatever_it_checks(make_sandbox, overrun, mode):
    with pytest.raises(AssertionError, match="(?s)a sanitizer reports:.*stack-buffer-overflow"):
        make_sandbox(mode=mode, program=overrun).run()


def test_traced_calls_are_those_of_the_tool(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="execve,unlink")

    assert result == DONE
    assert [(call.name, call.strings[0], call.error) for call in calls] == [
        ("execve", "/usr/sbin/arspctl", None), ("unlink", DATABASE, "ENOENT"), ("unlink", DATABASE + "-journal", None)]


def test_chosen_call_fails(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="fchmod", inject=["fchmod:error=EROFS:when=2"])

    assert result.status == 1
    assert [(call.error, call.injected) for call in calls] == [(None, False), ("EROFS", True)]


def test_calls_on_a_descriptor_are_found_by_its_path(either_sandbox, needs_tracing):
    result, calls = either_sandbox.trace("--init-db", calls="fsync,fdatasync,close", paths=[DATABASE + "-journal"],
                                         inject=["close:error=EIO"])

    assert result.status == 0
    assert [(call.name, call.error) for call in calls] == [("fdatasync", None), ("fdatasync", None), ("close", "EIO")]


def test_traced_run_has_the_given_environment(either_sandbox, needs_tracing):
    given = {"QUARN_LOG_LEVEL": "7", "LD_PRELOAD": "/nowhere.so"}

    _, calls = either_sandbox.trace("--init-db", calls="execve", env=given)

    variables = set(calls[0].args_text.partition("], [")[2].rstrip("]").split(", "))
    assert {'"QUARN_LOG_LEVEL=7"', '"LD_PRELOAD=/nowhere.so"'} <= variables
    assert not any("STRACE" in variable or "strace" in variable for variable in variables)


# -- scripts/sandbox


@each_mode
def test_script_passes_streams_umask_environment_and_status_on(mode):
    text = "cat; echo error >&2; umask; echo $COLOUR; exit 7"

    result = run_script("--mode", mode, "--with", "/bin/cat", "sh", "-c", text, input=b"in\n", umask=0o031,
                        env={"COLOUR": "red"})

    assert (result.returncode, result.stdout, result.stderr) == (7, b"in\n0031\nred\n", b"error\n")


@each_mode
def test_script_ends_like_the_command(mode):
    assert run_script("--mode", mode, "sh", "-c", "kill -TERM $$").returncode == -signal.SIGTERM
    assert run_script("--mode", mode, "no-such-command").returncode == 127


@each_mode
@pytest.mark.parametrize("number", [0, 1, 2])
def test_script_opens_nothing_in_a_closed_slot(mode, number, tmp_path):
    result = run_script("--mode", mode, "--log", tmp_path / "log", "sh", "-c", f": 7>&{number}",
                        preexec_fn=lambda: os.close(number))

    assert result.returncode == 2


@each_mode_of_the_tool
def test_script_keeps_a_root_and_reuses_it(mode, tmp_path):
    root = tmp_path / "root"

    assert run_script("--mode", mode, "--root", root, "--prepare").returncode == 0
    (root / "etc/kel/kel.conf").write_text("kept\n")
    assert run_script("--mode", mode, "--root", root, "arspctl", "--init-db", umask=0o031).returncode == 0

    database = os.stat(root / DATABASE[1:])
    assert (database.st_uid, database.st_gid, stat.S_IMODE(database.st_mode)) == (1110, 31, 0o600)
    assert (root / "etc/kel/kel.conf").read_text() == "kept\n"


def test_script_leaves_other_directories_alone(tmp_path):
    (tmp_path / "precious").write_text("x")

    result = run_script("--root", tmp_path, "sh", "-c", ":")

    assert (result.returncode, result.stderr) == (
        1, f"scripts/sandbox: {tmp_path} is not empty and is not a private root\n".encode())
    assert os.listdir(tmp_path) == ["precious"]


@each_mode_of_the_tool
def test_script_appends_the_log_one_record_a_line(mode, tmp_path):
    log = tmp_path / "log"
    log.write_text("before\n")

    run_script("--mode", mode, "--log", log, "arspctl", "--del-resp", "--mailname", "nobody@example.org")
    run_script("--mode", mode, "--log", log, "--with", "/usr/bin/logger", "logger", "-p", "user.info", "two\nlines")

    before, of_tool, of_logger = log.read_text().splitlines()
    assert before == "before"
    assert of_tool.startswith("<19>") and of_tool.endswith("]: " + CANNOT_OPEN)
    assert of_logger.startswith("<14>") and of_logger.endswith(": two#012lines")


def test_script_skips_sanitized_programs_in_a_chroot(overrun):
    result = run_script("--mode", "chroot", overrun)

    assert (result.returncode, result.stderr) == (
        77, b"scripts/sandbox: skipped: AddressSanitizer needs /proc, which a chroot does not have\n")


def test_script_falls_back_to_a_chroot_without_mount_namespaces():
    refused = ["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]

    assert run_script("sh", "-c", ":", before=refused).returncode == 0
    result = run_script("--mode", "namespace", "sh", "-c", ":", before=refused)
    assert (result.returncode, result.stderr) == (1, b"scripts/sandbox: this machine refuses mount namespaces\n")


def test_script_refuses_other_users():
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)  # the repository itself may lie where only root can go
        os.makedirs(f"{directory}/scripts")
        script = shutil.copy(SANDBOX, f"{directory}/scripts")
        shutil.copytree(REPOSITORY / "tests" / "harness", f"{directory}/tests/harness")
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

        result = subprocess.run([*nobody, script, "true"], capture_output=True, check=False, timeout=60)

    assert (result.returncode, result.stderr) == (1, b"scripts/sandbox: a private root can only be made by root\n")
