"""Every allocation has failed once, alone and with all after it: the status tells the truth, and nobody dies of it."""

import re
from pathlib import Path

from harness import preload

from .errors import check_state
from .report import Report
from .scene import Scene

REPORT = "/.allocations"
WAYS = ("once", "from then on")
COLUMNS = ["allocations", "tried", *(f"{way}: {outcome}" for way in WAYS for outcome in ("0", "1")),
           "deaths in the C library"]
LIMIT = 30  # seconds
SPREAD = 20  # how many allocations a bounded try spreads over the whole run; and the last ones, which are the command's
LAST = 20


def empty_report():
    return Report("Memory", ("command",), COLUMNS)


def torture(sandbox, name, bounded=False):
    """Tries the command; with all its allocations, or with some when `bounded`."""
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


def run(scene, fails=None):
    """A run of the command; answers its Result and what the library has written."""
    code = Path(__file__).with_name("allocation_failures.cpp").read_text()
    failing = {} if fails is None else {"ALLOCATION_FAILS": fails}
    environment = preload.environment(scene.sandbox, code, ALLOCATION_REPORT=REPORT, **failing)
    result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, env=environment, timeout=LIMIT)
    path = scene.sandbox.path(REPORT)
    text = path.read_text() if path.exists() else ""
    path.unlink(missing_ok=True)
    return result, text


def allocations(scene):
    """How many allocations an undisturbed run makes."""
    scene.begin()
    result, text = run(scene)
    if result.status != 0:
        raise AssertionError(f"{scene.name} fails with all its memory: {result}")
    return int(re.fullmatch(r"(\d+) allocations\n", text)[1])


def try_allocation(report, scene, number, way):
    """One trial: the run that lacks memory, and what it leaves."""
    where = f"{scene.name}, allocation {number} {way}"
    scene.begin()
    result, text = run(scene, f"{number}{'' if way == 'once' else '+'}")
    report.count((scene.name,), "tried")
    if result.status in (0, 1):
        report.count((scene.name,), f"{way}: {result.status}")
    elif result.status < 0 and died_in_c_library(text):
        report.count((scene.name,), "deaths in the C library")
    else:
        report.problem(where, f"ended with {result}\n{text}")
    check_state(report, scene, where, result, logged=bool(result.records))


def frames_of_death(text):
    """From inside out, what called abort() or got the deadly signal, and its callers."""
    frames = [line for line in text.splitlines() if line.endswith("]") and "[0x" in line]
    while frames and preload.INSIDE in frames[0]:
        del frames[0]
    del frames[:1]  # the return from the signal
    aborts = [place for place, line in enumerate(frames) if "(abort+" in line]
    return frames[aborts[0] + 1:] if aborts else frames


def died_in_c_library(text):
    """Whether that is a function of the C library."""
    return "/libc.so" in "".join(frames_of_death(text)[:1])
