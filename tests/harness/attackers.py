"""Attacks on a run of the tool by another process, at chosen moments."""

import contextlib
import ctypes
import os
import re
import signal
from collections import Counter

from . import tracing
from .mailboxes import MAIL_TREE
from .private_root import PROGRAM
from .waiting import until

STOPPED_LOG = "/.stopped"
AT_FDCWD = -100
RENAME_EXCHANGE = 2

libc = ctypes.CDLL(None, use_errno=True)


def moment(sandbox, call, arguments, *args, program=PROGRAM):
    """The number of the last system call `call` of a run whose arguments match the regular expression: the value of
    `when` for another run. For tests that need tracing."""
    texts = [made.args_text for made in sandbox.trace(*args, program=program)[1] if made.name == call]
    return max(number for number, text in enumerate(texts, 1) if re.search(arguments, text))


@contextlib.contextmanager
def stopped_after(sandbox, call, path, *args, when=1, program=PROGRAM):
    """A run of the tool, or of `program`, that is stopped for the duration of the block, after its `when`-th system
    call `call` with the argument `path`, or with any if that is None. For tests that need tracing."""
    words = tracing.strace_arguments(STOPPED_LOG, call, [f"{call}:signal=SIGSTOP:when={when}"], [path] if path else [])
    words.remove("-f")
    running = sandbox.start_command("/usr/bin/strace", [*words, "-e", "signal=SIGSTOP", program, *args], traced=True)
    log = sandbox.path(STOPPED_LOG)

    def stopped():
        assert running.running(), f"the run has ended without a stop: {running.wait()}"
        return log.exists() and "--- stopped by SIGSTOP ---" in log.read_text(errors="replace")

    until(stopped, f"the run stops after {call} of {path}")
    yield running
    log.unlink()
    os.killpg(running.pid, signal.SIGCONT)


def attacked_runs(sandbox, args, prepare, attack):
    """Runs the tool with `args` again and again and yields each Result. `prepare()` comes before each run. The first
    run is stopped before its first system call on a path of the mail tree or of /srv, the next one after that call, and
    so on; `attack()` is called then. The last run is not attacked. For tests that need tracing."""
    prepare()
    _, calls = sandbox.trace(*args, calls="%file,fchown")
    counts, moments, former = Counter(), [], None
    for call, path in tracing.on_files(calls):
        counts[call.name] += 1
        this = call.name, counts[call.name]
        if path.startswith((MAIL_TREE, "/srv")):
            moments += [this] if moments else [former, this]
        former = this
    assert moments, "no call on the mail tree"
    for name, when in moments:
        prepare()
        with stopped_after(sandbox, name, None, *args, when=when) as running:
            attack()
        yield running.wait()
    prepare()
    yield sandbox.run(*args)


def exchange(sandbox, one, other):
    """Exchanges the entries of two paths in one step."""
    paths = [os.fsencode(sandbox.path(path)) for path in (one, other)]
    if libc.renameat2(AT_FDCWD, paths[0], AT_FDCWD, paths[1], RENAME_EXCHANGE) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), one)
