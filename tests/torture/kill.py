"""SIGKILL at every call that changes a file or a lock: what is left is the old state, the new one, or a committed step."""

import signal

from .points import one_of_a_kind, points_of, start_disturbed, trace_log
from .report import Report
from .scene import Scene, described, named

OUTCOMES = ("before", "between", "after")


def empty_report():
    return Report("SIGKILL", ("command", "call", "of"), ("tried", *(f"rows as {outcome}" for outcome in OUTCOMES)))


def torture(sandbox, name, bounded=False, thin=1):
    """Tries the command; of its calls, one of a kind when `bounded`, and of these only every `thin`-th one."""
    report = empty_report()
    scene = Scene(sandbox, name)
    points = [point for point in points_of(scene) if point.changing]
    for point in one_of_a_kind(points)[::thin] if bounded else points:
        try_point(report, scene, point)
    scene.close()
    return report


def try_point(report, scene, point):
    """One trial: the run that is killed, what it leaves, and the same run again."""
    where = f"{scene.name}, {point}"
    row = (scene.name, point.name, "copy" if point.child else "tool")
    scene.begin()
    result = start_disturbed(scene, point, f"signal=KILL:when={point.when}").wait()
    # strace ends as the tool does, and then takes its log along; of the copy it tells a call that never came back.
    log = trace_log(scene)
    if not (b"= ?" in log or b"<unfinished" in log if point.child else result.status == -signal.SIGKILL):
        report.problem(where, f"was not reached: {result}, {log}")
        return
    try:
        rows = scene.rows()
    except AssertionError as problem:
        report.problem(where, problem)
        return
    outcome = named(scene.command, rows)
    if outcome is None:
        report.problem(where, f"rows neither old nor new: {described(rows, scene.command.after)}")
        return
    report.count(row, "tried", f"rows as {outcome}")
    report_files(report, scene, where, rows)
    again = scene.run()
    if again.status != 0:
        report.problem(where, f"the run after it fails: {again}")
    rows = scene.rows()
    if rows != scene.command.after or scene.leftover_files():
        report.problem(where, f"the run after it leaves {scene.leftover_files()}, "
                              f"{described(rows, scene.command.after)}")
    report_files(report, scene, where, rows)


def report_files(report, scene, where, rows):
    problem = scene.files_problem(rows)
    if problem is not None:
        report.problem(where, problem)
