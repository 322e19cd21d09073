"""How the cost of one command grows with the size of its data.

What a command does not touch must cost nothing: the exponent is that of the whole time, and near 0. What it touches may
cost its share: the exponent is that of what is added to the time at the least size.
"""

import math
import os
import statistics
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

import competitors
from competitors import BARE_C, BODY, CONF, HEADERS, TOOL

SECONDS = 4  # for the measured runs of one size together, about
MOST_ROUNDS, LEAST_ROUNDS = 41, 3


@dataclass
class Curve:
    """
    prepare  brings the arena to a size; it starts from the state that furnish() makes
    case     the command at that size
    room     bytes for one unit, in the arena and in memory together
    flat     whether the size must not matter
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
    """The cost of one size, by competitor: wall time in ms, memory in MiB."""

    size: int
    rounds: int
    wall: dict
    memory: dict


MAILBOX = competitors.mailbox(0)
COMMENT = "# Where the panel keeps its mail, its web sites and its databases.\n"


def _write_conf(lines):
    return lambda arena, size: arena.write(CONF, "QUARN_MAILNAMES_D /var/qmail/mailnames\n" + "".join(lines(size)))


def _variables(names):
    return _write_conf(lambda size: (f"PANEL_VARIABLE_{number % names} /opt/panel/value/{number}\n"
                                     for number in range(size)))


def _one_mailbox(arena, _):
    arena.make_database(1, 0)


def _large_body(arena, size):
    arena.make_database(1, 0)
    arena.write_large(BODY, size)


def _by_powers(most):
    return [10**power for power in range(round(math.log10(most)) + 1)]


def _closer_together(most):
    """The powers of ten and, below the last one, where the size has an effect, four sizes more."""
    return sorted({*_by_powers(most), *(most * part // 1000 for part in (20, 50, 200, 500))})


def curves():
    """All of them, in the order of the report."""
    def del_attach(_):
        return competitors.del_attach(MAILBOX)

    return [
        Curve("set-resp, mailboxes in the database", "mailboxes", _by_powers(1_000_000),
              lambda arena, size: arena.make_database(size, 0),
              lambda size: competitors.set_resp(competitors.mailbox(size // 2)), room=400, flat=True),
        Curve("del-resp, mailboxes in the database", "mailboxes", _by_powers(1_000_000),
              lambda arena, size: arena.make_database(size, 0),
              lambda size: competitors.del_resp(competitors.mailbox(size // 2), 3, 1), room=400, flat=True),
        Curve("del-resp, counters of other mailboxes", "counters", _by_powers(10_000_000),
              lambda arena, size: arena.make_database(1, size),
              lambda size: competitors.del_resp(MAILBOX, 3, 1), room=200, flat=True),
        Curve("del-resp, counters of the deleted mailbox", "counters", _closer_together(1_000_000), _one_mailbox,
              lambda size: competitors.del_resp(MAILBOX, size, 1), room=400),
        Curve("set-resp, bytes of the body", "bytes",
              [1000, 10**4, 10**5, 10**6, 10**7, 5 * 10**7, 10**8, 2 * 10**8, 5 * 10**8], _large_body,
              lambda size: competitors.set_resp(MAILBOX), room=6),
        Curve("set-extra-headers, pairs", "pairs", _closer_together(100_000),
              lambda arena, size: arena.write(HEADERS, competitors.headers_document(size)),
              lambda size: competitors.set_extra_headers(), room=2000),
        Curve("del-resp, files in the attachment directory", "files", _closer_together(10_000), _one_mailbox,
              lambda size: competitors.del_resp(MAILBOX, 3, size), room=10_000),
        Curve("del-attach, comment lines in the configuration", "lines", _closer_together(1_000_000),
              _write_conf(lambda size: [COMMENT] * size), del_attach, room=200),
        Curve("del-attach, lines in the configuration that define one of 30 names", "lines",
              _closer_together(1_000_000), _variables(30), del_attach, room=200),
        Curve("del-attach, lines in the configuration that define a name each", "lines", _closer_together(10_000),
              _variables(10_000), del_attach, room=200),
        Curve("set-resp, runs at once, each for its own mailbox", "runs", [1, 2, 4, 8, 16, 32, 64],
              _write_conf(lambda size: []), lambda size: competitors.set_resp("job{}@example.org"), names=(TOOL,),
              jobs=True),
    ]


def room(directory):
    """The bytes free for an arena in `directory`; on a tmpfs they are memory as well."""
    status = os.statvfs(directory)
    meminfo = dict(line.split(":") for line in Path("/proc/meminfo").read_text(encoding="ascii").splitlines())
    return min(status.f_bavail * status.f_frsize, int(meminfo["MemAvailable"].split()[0]) * 1024) * 0.8


def measure(arena, curve, wanted_rounds=None):
    """Yields a Point for each size that has room, as soon as it is measured."""
    for size in curve.sizes:
        if size * curve.room > room(arena.directory):
            return
        curve.prepare(arena, size)
        case, jobs = curve.case(size), size if curve.jobs else 1
        urgent = not curve.jobs  # runs at once compete as ordinary processes do
        once = arena.time(case, curve.names, 1, jobs, urgent)
        spent = sum(sample.median("wall") for sample in once.values()) / 1000
        rounds = wanted_rounds or max(LEAST_ROUNDS, min(MOST_ROUNDS, int(SECONDS / spent)))
        figures = arena.time(case, curve.names, rounds, jobs, urgent)
        yield Point(size, rounds, *({name: figures[name].median(field) for name in curve.names}
                                    for field in ("wall", "memory")))


def slope(points):
    """The exponent k of y = c * x^k that fits best, by least squares of the logarithms; None for less than two."""
    logs = [(math.log(x), math.log(y)) for x, y in points if x > 0 and y > 0]
    return statistics.linear_regression(*zip(*logs)).slope if len(logs) > 1 else None


def exponent(curve, points, name):
    """Returns (exponent, number of sizes it was fitted to)."""
    walls = [(point.size, point.wall[name]) for point in points]
    if not curve.flat:
        least, base = walls[0]
        walls = [(size - least, wall - base) for size, wall in walls if wall - base > base / 2]
    return slope(walls), len(walls)
