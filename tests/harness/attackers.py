"""Processes of other users that race the tool, and runs that stop at the moment of an attack."""

import contextlib
import os
import signal
import stat

from . import tracing
from .private_root import PROGRAM
from .waiting import until

STOPPED_LOG = "/.stopped"


class Race:
    """The success of a racing process: a text, or None. Valid after the race."""

    won = None


@contextlib.contextmanager
def racing(user, strike):
    """A process of `user`, (uid, gid), that calls `strike` repeatedly for the duration of the block. The first text that
    `strike` returns ends the race and is its success."""
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            os.setgroups([])
            os.setresgid(user[1], user[1], user[1])
            os.setresuid(user[0], user[0], user[0])
            os.write(writer, b"+")
            while (won := strike()) is None:
                pass
            os.write(writer, won.encode())
        except BaseException as error:
            os.write(writer, repr(error).encode())
        finally:
            os._exit(0)
    os.close(writer)
    race = Race()
    with open(reader, "rb") as results:
        try:
            assert results.read(1) == b"+", "the racing process has not begun"
            yield race
        finally:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        race.won = results.read().decode() or None


def opener(directory, *names):
    """A strike that opens one of the `names` below the open directory `directory`."""
    def strike():
        for name in names:
            for flags in (os.O_RDONLY, os.O_RDWR):
                with contextlib.suppress(FileNotFoundError, PermissionError):
                    os.close(os.open(name, flags | os.O_NOFOLLOW, dir_fd=directory))
                    return f"a descriptor of {name}"
        return None

    return strike


def linker(directory, name, target):
    """A strike that makes the link `name` to `target` in the open directory `directory` whenever `name` is missing. It
    never succeeds by itself: the test checks where the tool then makes its file."""
    def strike():
        with contextlib.suppress(FileExistsError):
            os.symlink(target, name, dir_fd=directory)

    return strike


def replacer(directory, name, planted):
    """A strike that renames `planted` to `name`, both in the open directory `directory`, once `name` is a non-empty file
    of root's. It never succeeds by itself: the test checks what the tool then does to the planted file."""
    def strike():
        with contextlib.suppress(FileNotFoundError):
            state = os.stat(name, dir_fd=directory, follow_symlinks=False)
            if stat.S_ISREG(state.st_mode) and state.st_uid == 0 and state.st_size > 0:
                os.rename(planted, name, src_dir_fd=directory, dst_dir_fd=directory)

    return strike


@contextlib.contextmanager
def stopped_after(sandbox, call, path, *args):
    """A run of the tool that is stopped for the duration of the block, after its first system call `call` with the
    argument `path`. For tests that need tracing."""
    words = tracing.strace_arguments(STOPPED_LOG, call, [f"{call}:signal=SIGSTOP:when=1"], [path])
    running = sandbox.start_command("/usr/bin/strace", [*words, "-e", "signal=SIGSTOP", PROGRAM, *args],
                                    traced=True)
    log = sandbox.path(STOPPED_LOG)

    def stopped():
        assert running.running(), f"the run has ended without a stop: {running.wait()}"
        return log.exists() and "--- stopped by SIGSTOP ---" in log.read_text(errors="replace")

    until(stopped, f"the run stops after {call} of {path}")
    yield running
    log.unlink()
    os.killpg(running.pid, signal.SIGCONT)
