"""A private root for one test, and runs of the tool in it."""

import contextlib
import os
import resource
import signal
import sqlite3
import stat
import subprocess
import threading
import unittest
from dataclasses import dataclass
from pathlib import Path

from . import private_root, tracing
from .log_records import LogCatcher, Record, parse_record
from .preload_library import preload_library
from .private_root import INFO_PROGRAM, PROGRAM, REPOSITORY

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
BUILD_DIRECTORY = Path(os.environ.get("ARSP_BUILD_DIR") or REPOSITORY / "build" / "release").resolve()
EMULATOR = os.environ.get("ARSP_EMULATOR")  # runs the programs of a cross build
PROGRAMS_DIRECTORY = BUILD_DIRECTORY / "emulated" if EMULATOR else BUILD_DIRECTORY
DELETED_CWD = object()  # as `cwd`: a working directory that is deleted
DEFAULT_ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
TRACE, STRACE_LIBRARY = "/.trace", "/.strace.so"
UTF8_LOCALE = "/usr/lib/locale/C.utf8/LC_CTYPE"
PIPE_ROOM = 65536  # bytes that a pipe takes without a reader
SANITIZER_STATUS = 99  # the tool never exits with it
SANITIZER_REPORTS = "/.sanitizer"
SANITIZER_MARKS = (b"ERROR: AddressSanitizer", b"ERROR: LeakSanitizer", b"AddressSanitizer: CHECK failed",
                   b"AddressSanitizer:DEADLYSIGNAL", b"runtime error: ")


def program_under_test():
    """The arspctl under test: that of the build directory in ARSP_BUILD_DIR, or of build/release."""
    program = PROGRAMS_DIRECTORY / "cli" / "arspctl"
    if not program.exists():
        raise FileNotFoundError(f"{program} does not exist: build it first")
    return program


def sanitized():
    """Whether the program under test is built with AddressSanitizer."""
    return private_root.is_sanitized(str(program_under_test()))


def needs_native_program(reason):
    """Skips the test if the tool under test runs under an emulator."""
    if EMULATOR:
        raise unittest.SkipTest(f"the tool is emulated: {reason}")  # pytest accepts it; scripts run without pytest


@dataclass(frozen=True)
class Result:
    """The end of a run: `status` is the exit status, or minus the number of the signal that ended it."""

    status: int
    stdout: bytes
    stderr: bytes
    records: list[Record]


DONE = Result(0, b"", b"", [])  # success without output


class Sandbox:
    """A fresh private root, prepared for `program`. The fixture `sandbox` makes and removes it.

    popuser    (uid, gid) of the mail user inside
    directory  where the root is, seen from outside
    """

    popuser = (private_root.POPUSER_UID, private_root.POPUSER_GID)

    def __init__(self, directory, program, mode, pool=None, tracing_declared=True):
        self._tracing_declared = tracing_declared
        self._sanitized = private_root.is_sanitized(str(program))
        self._received = []
        self._running = []
        self._root = private_root.PrivateRoot(str(directory), str(program), mode, pool=pool)
        self._root.prepare()
        self._catcher = LogCatcher(self._root.directory, self._received.append)
        self.directory = Path(self._root.directory)

    def remove(self):
        """Kills the runs that have not ended and removes the root."""
        for running in self._running:
            running.kill()
        if self._catcher is not None:
            self._catcher.stop()
        self._root.remove()

    # -- runs

    def run(self, *args, **options):
        """Runs the tool with `args` (text or bytes) and returns its Result.

        stdin         bytes, sent through a pipe; a file or descriptor; None for a closed one
        stdout/stderr a file or descriptor instead of the pipe into the Result
        env           the whole environment (default: a PATH and nothing else)
        umask         of the tool
        timeout       in seconds; the run is killed then, and the test fails
        close_fds     the standard descriptors (0, 1, 2) that are closed at the start
        broken_pipes  those that are pipes whose other end is closed
        rlimits       {resource.RLIMIT_...: limit or (soft, hard)}
        ignore        signals that are ignored at the start
        cwd           the working directory inside (default "/"), or DELETED_CWD
        argv0         the tool's own name, instead of its path
        user          (uid, gid) of the tool, instead of root's
        """
        timeout = options.pop("timeout", 60)
        return self.start(*args, **options).wait(timeout)

    def start(self, *args, program=PROGRAM, **options):
        """Like run(), but returns a Running at once; of another program, with `program`."""
        self.provide(program)
        argv0 = options.pop("argv0", program)
        return self.start_command(program, [argv0, *args], **options)

    def info(self, *args, **options):
        """Like run(), but runs arspinfo."""
        return self.run(*args, program=INFO_PROGRAM, **options)

    def execute(self, *words, **options):
        """Runs another program, by its path, with the options of run()."""
        timeout = options.pop("timeout", 60)
        self.provide(os.fsdecode(words[0]))
        return self.start_command(words[0], words, **options).wait(timeout)

    def trace(self, *args, calls=None, inject=None, paths=(), redirect="", program=PROGRAM, **options):
        """Like run() or, with `program`, start() under strace; returns (Result, [Call, ...]).

        calls     the system calls to list, as for strace -e trace=; all by default
        inject    strace -e inject= expressions, such as "unlink:error=EACCES:when=1"
        paths     list and count only calls with these paths or on descriptors of them (strace -P)
        redirect  redirections of a shell that becomes the tool, such as "0<&-"

        The execve of the tool comes first, and counts for inject. The list includes the calls of the dynamic loader.
        """
        if not self._tracing_declared:
            raise RuntimeError("a test that traces asks for the fixture needs_tracing")
        if "argv0" in options or options.get("close_fds") or options.get("stdin", b"") is None:
            raise TypeError("strace passes neither a closed standard descriptor nor another name on to the tool")
        self.provide(program)
        timeout = options.pop("timeout", 60)
        given = options.pop("env", None)
        command = ["/bin/sh", "-c", f'exec "$0" "$@" {redirect}', program] if redirect else [program]
        settings = [f"{name}={value}" for name, value in (DEFAULT_ENVIRONMENT if given is None else given).items()]
        with contextlib.ExitStack() as ours:
            environment = {}
            if self._root.mode == "chroot":
                proc = os.open("/proc", os.O_RDONLY | os.O_DIRECTORY)
                ours.callback(os.close, proc)
                self.path(STRACE_LIBRARY).write_bytes(preload_library())
                environment = {"LD_PRELOAD": STRACE_LIBRARY, "STRACE_PROC": str(proc)}
                options["pass_fds"] = [proc]
            words = tracing.strace_arguments(TRACE, calls, inject, paths, [*environment, *settings])
            running = self.start_command("/usr/bin/strace", [*words, *command, *args], traced=True, env=environment,
                                         **options)
        result = running.wait(timeout)
        log = self.path(TRACE)
        found = tracing.parse_trace(log.read_text(errors="surrogateescape")) if log.exists() else []
        log.unlink(missing_ok=True)
        return result, found

    def start_command(self, path, words, *, stdin=b"", stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=None,
                      umask=0o022, close_fds=(), broken_pipes=(), rlimits=None, ignore=(), cwd=None, traced=False,
                      pass_fds=(), user=None):
        """Starts the program `path` inside with the argument vector `words`; the options are those of run()."""
        if {resource.RLIMIT_AS, resource.RLIMIT_NOFILE} & set(rlimits or {}):
            needs_native_program("the limit would stop the emulator")
        environment = dict(DEFAULT_ENVIRONMENT if env is None else env)
        if self._sanitized:
            # The search for leaks cannot trace arspinfo either, once that has another user's rights.
            environment.update(self._sanitizer_options(leaks=not traced and path != private_root.INFO_PROGRAM))

        def go_in():
            self._root.enter()
            if cwd is DELETED_CWD:
                os.mkdir("/tmp/gone")
                os.chdir("/tmp/gone")
                os.rmdir("/tmp/gone")
            elif cwd is not None:
                os.chdir(cwd)
            os.umask(umask)
            for number in ignore:
                signal.signal(number, signal.SIG_IGN)
            for number, limit in (rlimits or {}).items():
                resource.setrlimit(number, limit if isinstance(limit, tuple) else (limit, limit))
            for number in close_fds:
                os.close(number)
            if user is not None:
                os.setgroups([])
                os.setgid(user[1])
                os.setuid(user[0])

        with contextlib.ExitStack() as ours:
            ends = {0: stdin, 1: stdout, 2: stderr}
            for number in broken_pipes:
                ends[number] = _half_pipe(ours, keep=0 if number == 0 else 1)
            feed = None
            if ends[0] is None:
                close_fds = (*close_fds, 0)
                ends[0] = subprocess.DEVNULL
            elif isinstance(ends[0], (bytes, bytearray)):
                ends[0], feed = _feeding_pipe(ours, bytes(ends[0]))
            first_record = len(self._received)
            process = subprocess.Popen(words, executable=path, stdin=ends[0], stdout=ends[1], stderr=ends[2],
                                       env=environment, preexec_fn=go_in, process_group=0, pass_fds=pass_fds)
        if feed is not None:
            feed.start()
        running = Running(self, process, first_record, feed, by_pid=not traced and path == PROGRAM)
        self._running.append(running)
        return running

    def enter(self):
        """Moves the calling process, a forked one, into the root for good."""
        self._root.enter()

    def provide(self, program):
        """Makes the program, given by its path, available inside."""
        if program == INFO_PROGRAM:
            self._root.add_program(str(PROGRAMS_DIRECTORY / "info" / "arspinfo"), INFO_PROGRAM)
            self._root.provide(UTF8_LOCALE)
        elif program != PROGRAM:
            self._root.provide(program)

    # -- what is inside

    def path(self, path):
        """The path outside of a path inside."""
        return Path(self.directory, os.fspath(path).lstrip("/"))

    def tree(self, path):
        """All entries below the directory `path`, itself as ".": {name: (type, mode, uid, gid, content)}.

        type is "dir", "file", "link", "fifo", "socket", "char" or "block", mode the permission bits, content the
        bytes of a file, the target of a link, otherwise None. Empty if the directory does not exist.
        """
        top = self.path(path)
        if not os.path.lexists(top):
            return {}
        found = {".": _entry(top)}
        for directory, names, files in os.walk(top):
            for name in names + files:
                entry = Path(directory, name)
                found[str(entry.relative_to(top))] = _entry(entry)
        return found

    def conf(self, content):
        """Writes the panel's configuration file."""
        self.path("/etc/kel/kel.conf").write_bytes(content.encode() if isinstance(content, str) else content)

    def popuser_exists(self, present):
        """Adds the mail user, which exists at first, or removes it."""
        self._root.set_popuser(present)

    def no_log(self):
        """Removes /dev/log, as if the system log were not running."""
        self._catcher.stop()
        self._catcher = None

    # -- the database

    def init_db(self):
        """Makes the database with the tool."""
        result = self.run("--init-db")
        assert (result.status, result.stdout, result.stderr) == (0, b"", b""), result
        return result

    def db(self):
        """A connection to the existing database in autocommit mode; the caller closes it."""
        return sqlite3.connect(f"file:{self.path(DATABASE)}?mode=rw", uri=True, isolation_level=None)

    def rows(self, sql, *params):
        """The rows that the query returns."""
        with contextlib.closing(self.db()) as connection:
            return connection.execute(sql, params).fetchall()

    # -- the log

    def records(self):
        """All records caught so far."""
        return self._records_since(0)

    def _records_since(self, first):
        if self._catcher is not None:
            self._catcher.drain()
        return [parse_record(datagram) for datagram in self._received[first:]]

    # -- sanitizers

    def _sanitizer_options(self, leaks=True):
        leaks = leaks and tracing.why_not() is None  # the search for leaks traces the process
        common = f"exitcode={SANITIZER_STATUS}:log_path={SANITIZER_REPORTS}"
        return {"ASAN_OPTIONS": f"{common}:abort_on_error=0:detect_leaks={int(leaks)}",
                "UBSAN_OPTIONS": f"{common}:halt_on_error=1:print_stacktrace=1"}

    def fail_on_sanitizer_report(self, result):
        """Fails the test if a sanitizer has reported an error, whatever the test itself checks."""
        if not self._sanitized:
            return
        reports = [result.stderr] + [file.read_bytes() for file in self.directory.glob(SANITIZER_REPORTS[1:] + ".*")]
        found = [report for report in reports if any(mark in report for mark in SANITIZER_MARKS)]
        if found or result.status == SANITIZER_STATUS:
            raise AssertionError("a sanitizer reports:\n" + b"\n".join(found).decode(errors="replace"))


class Running:
    """A started run."""

    def __init__(self, sandbox, process, first_record, feed, by_pid):
        self._sandbox = sandbox
        self._process = process
        self._first_record = first_record
        self._feed = feed
        self._by_pid = by_pid
        self.pid = process.pid

    def wait(self, timeout=60):
        """Waits for the end and returns the Result with the run's own records. Fails after `timeout` seconds."""
        try:
            stdout, stderr = self._process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"still running after {timeout} seconds: {self._process.args}") from None
        if self._feed is not None:
            self._feed.join()
        records = self._sandbox._records_since(self._first_record)
        if self._by_pid:
            records = [record for record in records if record.pid in (self.pid, None)]
        result = Result(self._process.returncode, stdout or b"", stderr or b"", records)
        self._sandbox.fail_on_sanitizer_report(result)
        return result

    def running(self):
        """Whether the run has not ended."""
        return self._process.poll() is None

    def kill(self):
        """Kills the run and the processes it has started."""
        if self._process.poll() is None:
            os.killpg(self.pid, signal.SIGKILL)
            self._process.communicate()


def _half_pipe(ours, keep):
    ends = os.pipe()
    os.close(ends[1 - keep])
    ours.callback(os.close, ends[keep])
    return ends[keep]


def _feeding_pipe(ours, content):
    """The end to read `content` from, and a thread that writes it if the pipe cannot take it at once."""
    reader, writer = os.pipe()
    ours.callback(os.close, reader)
    if len(content) <= PIPE_ROOM:
        os.write(writer, content)
        os.close(writer)
        return reader, None

    def write_all():
        with open(writer, "wb", buffering=0) as pipe, contextlib.suppress(BrokenPipeError):
            rest = memoryview(content)
            while rest:
                rest = rest[pipe.write(rest):]

    return reader, threading.Thread(target=write_all, daemon=True)


def _entry(path):
    state = path.lstat()
    kinds = {stat.S_IFDIR: "dir", stat.S_IFREG: "file", stat.S_IFLNK: "link", stat.S_IFIFO: "fifo",
             stat.S_IFSOCK: "socket", stat.S_IFCHR: "char", stat.S_IFBLK: "block"}
    kind = kinds[stat.S_IFMT(state.st_mode)]
    content = path.read_bytes() if kind == "file" else os.readlink(path) if kind == "link" else None
    return (kind, stat.S_IMODE(state.st_mode), state.st_uid, state.st_gid, content)
