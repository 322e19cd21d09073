"""What the mail user can do to the mail tree while a run is at work in it."""

import ctypes
import itertools
import os
import socket
from pathlib import Path

from . import preload

AT_FDCWD = -100
RENAME_EXCHANGE = 2

libc = ctypes.CDLL(None, use_errno=True)


def exchange(sandbox, one, other):
    """Exchanges the entries of two paths in one step."""
    paths = [os.fsencode(sandbox.path(path)) for path in (one, other)]
    if libc.renameat2(AT_FDCWD, paths[0], AT_FDCWD, paths[1], RENAME_EXCHANGE) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), one)


def attacked_runs(sandbox, args, prepare, attack):
    """Runs the tool with `args` again and again and yields each Result. `prepare()` comes before each run. The first
    run is held before its first call that takes a name in a directory (held_calls.cpp), the second before its second,
    and so on; `attack()` is called then. The last run is not attacked: it has no further call."""
    code = Path(__file__).with_name("held_calls.cpp").read_text()
    for number in itertools.count(1):
        prepare()
        ours, theirs = socket.socketpair()
        with ours:
            ours.settimeout(60)
            environment = preload.environment(sandbox, code, HELD_NUMBER=str(number), HELD_SOCKET=str(theirs.fileno()))
            with theirs:
                running = sandbox.start(*args, env=environment, pass_fds=[theirs.fileno()])
            held = ours.recv(100)  # nothing when the run has ended
            if held:
                attack()
                ours.send(b"+")
            yield running.wait()
        if not held:
            assert number > 1, "no call was held"
            return
