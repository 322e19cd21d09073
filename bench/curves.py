"""How the cost grows with what a command meets: the arena at several sizes, one command at each.

Two kinds. What a command does not touch must cost nothing: there the exponent is that of the whole time, and near 0. What
it touches may cost its share: there the exponent is that of what is added to the time at the least size.
"""

import math
import os
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import competitors
from competitors import BARE_C, TOOL

SECONDS = 4  # what the measured runs of one size may take together, about
MOST_ROUNDS, LEAST_ROUNDS = 41, 3


@dataclass
class Curve:
    """
    prepare  brings the arena to a size; the state that furnish() leaves is there before the first
    case     the command at that size
    room     what one unit takes in the arena and in memory together, in bytes
    flat     whether the command is not to notice the size
    jobs     whether the size is the number of runs at once
    """

    title: str
    unit: str
    sizes: list
    prepare: Callable
    case: Callable
    names: tuple = (TOOL, BARE_C)
    room: int = 0
    flat: bool = False
    jobs: bool = False


@dataclass
class Point:
    """What one size costs, by competitor: wall time in ms, CPU in ms, memory in MiB."""

    size: int
    rounds: int
    wall: dict
    cpu: dict
    memory: dict


MAILBOX = competitors.mailbox(0)
COMMENT = "# Where the panel keeps its mail, and what else it likes to tell\n"


def _conf(lines):
    return "QUARN_MAILNAMES_D /var/qmail/mailnames\n" + "".join(lines)


def _by_powers(most):
    return [10**power for power in range(round(math.log10(most)) + 1)]


def _closer_together(most):
    """The powers of ten, and between the last ones, where the size tells, four sizes more."""
    return sorted({*_by_powers(most), *(most * part // 1000 for part in (20, 50, 200, 500))})


def curves():
    """All of them, in the order of the report."""
    return [
        Curve("set-resp, mailboxes in the database", "mailboxes", _by_powers(1_000_000),
              lambda arena, size: arena.fixture("database", size, 0),
              lambda size: competitors.set_resp(competitors.mailbox(size // 2), None), room=400, flat=True),
        Curve("del-resp, mailboxes in the database", "mailboxes", _by_powers(1_000_000),
              lambda arena, size: arena.fixture("database", size, 0),
              lambda size: competitors.del_resp(competitors.mailbox(size // 2), 3, 1), room=400, flat=True),
        Curve("del-resp, counters of other mailboxes", "counters", _by_powers(10_000_000),
              lambda arena, size: arena.fixture("database", 1, size),
              lambda size: competitors.del_resp(MAILBOX, 3, 1), room=200, flat=True),
        Curve("del-resp, counters of the deleted mailbox", "counters", _closer_together(1_000_000),
              lambda arena, size: arena.fixture("database", 1, 0),
              lambda size: competitors.del_resp(MAILBOX, size, 1), room=400),
        Curve("set-resp, bytes of the body", "bytes", [1000, 10**4, 10**5, 10**6, 10**7, 5 * 10**7, 10**8, 2 * 10**8, 5 * 10**8],
              lambda arena, size: (arena.fixture("database", 1, 0), arena.write_large(competitors.BODY, size)),
              lambda size: competitors.set_resp(MAILBOX, None), room=6),
        Curve("set-extra-headers, pairs", "pairs", _closer_together(100_000),
              lambda arena, size: arena.write(competitors.HEADERS, competitors.headers_document(size)),
              lambda size: competitors.set_extra_headers(size), room=2000),
        Curve("del-resp, files in the attachment directory", "files", _closer_together(10_000),
              lambda arena, size: arena.fixture("database", 1, 0),
              lambda size: competitors.del_resp(MAILBOX, 3, size), room=10_000),
        Curve("del-attach, comment lines in the configuration", "lines", _closer_together(1_000_000),
              lambda arena, size: arena.write(competitors.CONF, _conf([COMMENT] * size)),
              lambda size: competitors.del_attach(MAILBOX, "old.txt"), room=200),
        Curve("del-attach, lines in the configuration that define one of 30 names", "lines", _closer_together(1_000_000),
              lambda arena, size: arena.write(competitors.CONF, _conf(
                  f"PANEL_VARIABLE_{number % 30} /opt/panel/value/{number}\n" for number in range(size))),
              lambda size: competitors.del_attach(MAILBOX, "old.txt"), room=200),
        Curve("del-attach, lines in the configuration that define a name each", "lines", _closer_together(10_000),
              lambda arena, size: arena.write(competitors.CONF, _conf(
                  f"PANEL_VARIABLE_{number} /opt/panel/value/{number}\n" for number in range(size))),
              lambda size: competitors.del_attach(MAILBOX, "old.txt"), room=200),
        Curve("set-resp, runs at once, each for its own mailbox", "runs", [1, 2, 4, 8, 16, 32, 64],
              lambda arena, size: arena.write(competitors.CONF, _conf([])),
              lambda size: competitors.set_resp("job{}@example.org", None), names=(TOOL,), jobs=True),
    ]


def room(directory):
    """What there is for an arena in `directory`, in bytes; on a tmpfs it is memory as well."""
    status = os.statvfs(directory)
    meminfo = dict(line.split(":") for line in Path("/proc/meminfo").read_text(encoding="ascii").splitlines())
    return min(status.f_bavail * status.f_frsize, int(meminfo["MemAvailable"].split()[0]) * 1024) * 0.8


def measure(arena, curve, wanted_rounds=None):
    """Yields a Point for each size that there is room for, as soon as it is measured."""
    for size in curve.sizes:
        if size * curve.room > room(arena.directory):
            return
        curve.prepare(arena, size)
        case, jobs = curve.case(size), size if curve.jobs else 1
        urgent = not curve.jobs  # many at once are to meet as ordinary processes do
        once = arena.time(case, curve.names, 1, jobs, urgent)
        spent = sum(sample.median("wall") for sample in once.values()) / 1000
        rounds = wanted_rounds or max(LEAST_ROUNDS, min(MOST_ROUNDS, int(SECONDS / spent)))
        figures = arena.time(case, curve.names, rounds, jobs, urgent)
        yield Point(size, rounds, *({name: figures[name].median(field) for name in curve.names}
                                    for field in ("wall", "cpu", "memory")))


def slope(points):
    """The exponent k of y = c * x^k that fits best, by least squares of the logarithms; None for less than two points."""
    logs = [(math.log(x), math.log(y)) for x, y in points if x > 0 and y > 0]
    if len(logs) < 2:
        return None
    mean_x, mean_y = (sum(column) / len(logs) for column in zip(*logs))
    return sum((x - mean_x) * (y - mean_y) for x, y in logs) / sum((x - mean_x) ** 2 for x, _ in logs)


def exponent(curve, points, name):
    """Returns (exponent, number of sizes it was fitted to)."""
    walls = [(point.size, point.wall[name]) for point in points]
    if not curve.flat:
        least, base = walls[0]
        walls = [(size - least, wall - base) for size, wall in walls if wall - base > base / 2]
    return slope(walls), len(walls)
