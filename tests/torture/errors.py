"""A system error at every call, once and at all later calls, too: the exit status must match the database."""

import time

from .kill import report_files
from .points import one_of_a_kind, points_of, start_disturbed, trace_log
from .report import Report
from .scene import Scene, described, named

ERRORS = ("EIO", "ENOSPC", "EDQUOT", "EACCES", "EMFILE", "EINTR")
WAYS = ("once", "for good")
COLUMNS = [f"{way}: {outcome}" for way in WAYS for outcome in ("0", "1", "waits")]

# Errors of a lock that SQLite takes for "locked"; and calls that SQLite, the C library or the copy repeat after EINTR.
# All these are repeated without a limit.
BUSY = ("EINTR", "EACCES")
REPEATED = ("openat", "pread64", "pwrite64", "ftruncate", "copy_file_range", "wait4")
PATIENCE = 1  # seconds, for a run that may wait for ever
LIMIT = 60  # seconds, for all others


def empty_report():
    return Report("Errors of system calls", ("command", "call", "error"), ("tried", *COLUMNS))


def torture(sandbox, name, bounded=False, thin=1):
    """Tries the command; if `bounded`, only calls of different kinds, each with one error in one way, and of these
    every `thin`-th one."""
    report = empty_report()
    scene = Scene(sandbox, name)
    points = [point for point in points_of(scene) if point.name != "exit_group"]
    if bounded:
        trials = [(point, ERRORS[number % len(ERRORS)], WAYS[number // len(ERRORS) % len(WAYS)])
                  for number, point in enumerate(one_of_a_kind(points)[::thin])]
    else:
        trials = [(point, error, way) for point in points for error in ERRORS for way in WAYS]
    for point, error, way in trials:
        try:
            try_point(report, scene, point, error, way)
        except AssertionError as problem:
            report.problem(f"{scene.name}, {point}, {error} {way}", problem)
    scene.close()
    return report


def may_wait(point, error, way):
    """Whether the run waits for ever by design."""
    return way == "for good" and ((point.name == "fcntl" and error in BUSY) or
                                  (point.name in REPEATED and error == "EINTR"))


def try_point(report, scene, point, error, way):
    """One trial: the disturbed run, and the state that it leaves."""
    where = f"{scene.name}, {point}, {error} {way}"
    scene.begin()
    running = start_disturbed(scene, point, f"error={error}:when={point.when}{'' if way == 'once' else '+'}")
    end = time.monotonic() + (PATIENCE if may_wait(point, error, way) else 0)
    while running.running() and time.monotonic() < end:
        time.sleep(0.005)
    if may_wait(point, error, way) and running.running():
        running.kill()
        result, outcome = None, "waits"
    else:
        result = running.wait(LIMIT)
        outcome = str(result.status)
    assert b"(INJECTED)" in trace_log(scene), f"was not reached: {result}"
    assert result is None or result.status in (0, 1), f"ended with {result}"
    report.count((scene.name, point.name, error), "tried", f"{way}: {outcome}")
    check_state(report, scene, where, result, logged=result is not None and bool(result.records))


def check_state(report, scene, where, result, logged):
    """Compares the status of a run with the state that it leaves. `result` is None for a killed run; `logged` is
    whether the run has given a reason."""
    rows = scene.rows()
    status = None if result is None else result.status
    if named(scene.command, rows) is None and rows not in (*scene.command.partly, *scene.command.lenient):
        report.problem(where, f"{status}, and rows {described(rows, scene.command.after)}")
    report_files(report, scene, where, rows)
    if status == 1 and not logged and not result.stdout:
        report.problem(where, "failed without a message")
    if status == 0:
        # Only the counters of a mailbox may be left over without a message.
        excused = rows in scene.command.lenient and (logged or scene.name == "del-resp")
        if rows != scene.command.after and not excused:
            report.problem(where, f"success, but rows {described(rows, scene.command.after)}")
        if scene.leftover_files() and not (scene.name == "del-resp" and logged):
            report.problem(where, f"success, but {scene.leftover_files()}")
