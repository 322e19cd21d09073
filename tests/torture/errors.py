"""An error of the system at every call, once and for ever: the exit status tells the truth about the database."""

import time

from .kill import report_files
from .points import one_of_a_kind, points_of, start_disturbed, trace_log
from .report import Report
from .scene import Scene, described, named

ERRORS = ("EIO", "ENOSPC", "EDQUOT", "EACCES", "EMFILE", "EINTR")
WAYS = ("once", "for ever")
COLUMNS = [f"{way}: {outcome}" for way in WAYS for outcome in ("0", "1", "waits")]

# What SQLite takes for "locked by somebody else" when a lock is refused so; and the calls that are repeated, by SQLite,
# the C library or the copy, until they are no longer interrupted. Nobody ever gives up on these.
BUSY = ("EINTR", "EACCES")
REPEATED = ("openat", "pread64", "pwrite64", "ftruncate", "copy_file_range", "wait4")
PATIENCE = 1  # seconds, for a run that may wait for ever
LIMIT = 60  # seconds, for all others


def empty_report():
    return Report("Errors of system calls", ("command", "call", "error"), ("tried", *COLUMNS))


def torture(sandbox, name, bounded=False, thin=1):
    """Tries the command; when `bounded`, only calls of a kind, with one error each, in one way, and of these only every
    `thin`-th one."""
    report = empty_report()
    scene = Scene(sandbox, name)
    points = [point for point in points_of(scene) if point.name != "exit_group"]
    if bounded:
        trials = [(point, ERRORS[number % len(ERRORS)], WAYS[number // len(ERRORS) % len(WAYS)])
                  for number, point in enumerate(one_of_a_kind(points)[::thin])]
    else:
        trials = [(point, error, way) for point in points for error in ERRORS for way in WAYS]
    for point, error, way in trials:
        try_point(report, scene, point, error, way)
    scene.close()
    return report


def may_wait(point, error, way):
    """Whether the design has a run wait for ever."""
    if way == "once":
        return False
    return (point.name == "fcntl" and error in BUSY) or (point.name in REPEATED and error == "EINTR")


def try_point(report, scene, point, error, way):
    """One trial: the run that is disturbed, and what it leaves."""
    where = f"{scene.name}, {point}, {error} {way}"
    scene.begin()
    running = start_disturbed(scene, point, f"error={error}:when={point.when}{'' if way == 'once' else '+'}")
    if may_wait(point, error, way):
        end = time.monotonic() + PATIENCE
        while running.running() and time.monotonic() < end:
            time.sleep(0.005)
    if may_wait(point, error, way) and running.running():
        running.kill()
        result, outcome = None, "waits"
    else:
        try:
            result = running.wait(LIMIT)
        except AssertionError as problem:
            report.problem(where, problem)
            return
        outcome = str(result.status)
    if b"(INJECTED)" not in trace_log(scene):
        report.problem(where, f"was not reached: {result}")
        return
    if result is not None and result.status not in (0, 1):
        report.problem(where, f"ended with {result}")
        return
    report.count((scene.name, point.name, error), "tried", f"{way}: {outcome}")
    look(report, scene, where, result, told=result is not None and bool(result.records))


def look(report, scene, where, result, told):
    """Compares what a run says with what it has left. `result` is None for a run that was killed; `told` is whether it
    has given a reason."""
    try:
        rows = scene.rows()
    except AssertionError as problem:
        report.problem(where, problem)
        return
    status = None if result is None else result.status
    if named(scene.command, rows) is None and rows not in (*scene.command.partly, *scene.command.lenient):
        report.problem(where, f"{status}, and rows {described(rows, scene.command.after)}")
    report_files(report, scene, where, rows)
    if status == 1 and not told and not result.stdout:
        report.problem(where, "failed without a word")
    if status == 0:
        # The counters of a mailbox are the one thing that may be left over without a word.
        excused = rows in scene.command.lenient and (told or scene.name == "del-resp")
        if rows != scene.command.after and not excused:
            report.problem(where, f"success, but rows {described(rows, scene.command.after)}")
        if scene.leftover_files() and not (scene.name == "del-resp" and told):
            report.problem(where, f"success, but {scene.leftover_files()}")
