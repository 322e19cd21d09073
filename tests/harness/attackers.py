"""Runs of the tool that are stopped after a system call, so that a test can act as another process at that moment."""

import contextlib
import os
import signal

from . import tracing
from .private_root import PROGRAM
from .waiting import until

STOPPED_LOG = "/.stopped"


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
