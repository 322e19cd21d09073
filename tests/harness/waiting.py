"""Waiting for an event of a run, instead of for a time."""

import contextlib
import os
import re
import time

SLEEPS_IN_ONE_TIMEOUT = 6  # SQLite's: 1, 2, 5, 10, 15 and 20 ms, until a busy timeout of 50 ms is over


def until(condition, what, timeout=30):
    """Returns as soon as `condition()` is true; fails with the event `what` after `timeout` seconds."""
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, f"did not happen: {what}"
        time.sleep(0.001)


def has_open(running, name):
    """Whether the run has a file called `name` open."""
    directory = f"/proc/{running.pid}/fd"
    with contextlib.suppress(FileNotFoundError):
        for number in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):
                if os.path.basename(os.readlink(f"{directory}/{number}")) == name:
                    return True
    return False


def until_it_retries(running):
    """Returns when the run has opened the database and then found it busy more than once."""
    until(lambda: has_open(running, "responder.db"), "the run opens the database")
    first = _sleeps(running)
    until(lambda: _sleeps(running) > first + 3 * SLEEPS_IN_ONE_TIMEOUT, "the run retries")


def until_it_sleeps(running):
    """Returns when the run sleeps in a call that waits."""
    until(lambda: _state(running) == "S", "the run sleeps")


def _state(running):
    assert running.running(), "the run has ended instead of waiting"
    with open(f"/proc/{running.pid}/stat", encoding="ascii", errors="replace") as status:
        return status.read().rpartition(")")[2].split()[0]


def _sleeps(running):
    assert running.running(), "the run has ended instead of waiting"
    with open(f"/proc/{running.pid}/status", encoding="ascii") as status:
        return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", status.read(), re.MULTILINE)[1])
