"""SIGKILL at every call that changes a file or a lock: the old state, the new one or a committed step is left."""

import signal

from .points import one_of_a_kind, points_of, start_disturbed, trace_log
from .report import Report
from .scene import Scene, described, named


def empty_report():
    return Report("SIGKILL", ("command", "call", "of"), ("tried", "rows as before", "rows as between", "rows as after"))


def torture(sandbox, name, bounded=False, thin=1):
    """Tries the command; if `bounded`, only calls of different kinds, and of these every `thin`-th one."""
    report = empty_report()
    scene = Scene(sandbox, name)
    points = [point for point in points_of(scene) if point.changing]
    for point in one_of_a_kind(points)[::thin] if bounded else points:
        try:
            try_point(report, scene, point)
        except AssertionError as problem:
            report.problem(f"{scene.name}, {point}", problem)
    scene.close()
    return report


def try_point(report, scene, point):
    """One trial: a killed run, the state that it leaves, and the same run again."""
    where = f"{scene.name}, {point}"
    scene.begin()
    result = start_disturbed(scene, point, f"signal=KILL:when={point.when}").wait()
    # strace ends like the tool, without a complete log; of the copy it logs a call that did not return.
    log = trace_log(scene)
    reached = b"= ?" in log or b"<unfinished" in log if point.child else result.status == -signal.SIGKILL
    assert reached, f"was not reached: {result}, {log}"
    rows = scene.rows()
    outcome = named(scene.command, rows)
    assert outcome is not None, f"rows neither old nor new: {described(rows, scene.command.after)}"
    report.count((scene.name, point.name, "copy" if point.child else "tool"), "tried", f"rows as {outcome}")
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
