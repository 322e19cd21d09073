"""Lets every allocation fail, alone and with all later ones: the exit status must match the database, and the tool must
not crash."""

import re

from harness import preload

from .errors import check_state
from .report import Report
from .scene import Scene

REPORT = "/.allocations"
WAYS = ("once", "from then on")
COLUMNS = ["allocations", "tried", *(f"{way}: {outcome}" for way in WAYS for outcome in ("0", "1")),
           "crashes in getpwnam"]
LIMIT = 30  # seconds
SPREAD = 20  # a bounded try spreads that many allocations over the whole run
LAST = 20  # and takes the last ones, which are the command's


def empty_report():
    return Report("Memory", ("command",), COLUMNS)


def torture(sandbox, name, bounded=False):
    """Tries the command with all its allocations, or with some if `bounded`."""
    report = empty_report()
    scene = Scene(sandbox, name)
    total = allocations(scene)
    report.count((name,), *["allocations"] * total)
    numbers = range(1, total + 1)
    if bounded:
        step = max(1, total // SPREAD)
        numbers = [number for number in numbers if number <= 2 or number % step == 0 or number > total - LAST]
    for number in numbers:
        for way in WAYS:
            try:
                try_allocation(report, scene, number, way)
            except AssertionError as problem:
                report.problem(f"{scene.name}, allocation {number} {way}", problem)
    scene.close()
    return report


def run(scene, **variables):
    """Runs the command; returns its Result and the library's report."""
    scene.begin()
    environment = preload.environment(scene.sandbox, ALLOCATION_REPORT=REPORT, **variables)
    result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, env=environment, timeout=LIMIT)
    path = scene.sandbox.path(REPORT)
    text = path.read_text() if path.exists() else ""
    path.unlink(missing_ok=True)
    return result, text


def allocations(scene):
    """The number of allocations in an undisturbed run."""
    result, text = run(scene)
    if result.status != 0:
        raise AssertionError(f"{scene.name} fails with all its memory: {result}")
    return int(re.fullmatch(r"(\d+) allocations\n", text)[1])


def try_allocation(report, scene, number, way):
    """One trial: a run without that memory, and what it leaves."""
    where = f"{scene.name}, allocation {number} {way}"
    result, text = run(scene, ALLOCATION_FAILS=f"{number}{'' if way == 'once' else '+'}")
    report.count((scene.name,), "tried")
    if result.status in (0, 1):
        report.count((scene.name,), f"{way}: {result.status}")
    elif result.status < 0 and text.endswith(" in getpwnam\n"):
        report.count((scene.name,), "crashes in getpwnam")
    else:
        report.problem(where, f"ended with {result}\n{text}")
    check_state(report, scene, where, result, logged=bool(result.records))
