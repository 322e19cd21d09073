"""Figures as tables in Markdown."""

import math
import statistics

from competitors import BARE_C, BARE_PYTHON, DIRECT, PYTHON, SHARED, SHELL, TOOL

TITLES = {TOOL: "arspctl", SHARED: "arspctl, shared libraries", BARE_C: "bare C", SHELL: "sqlite3 script",
          DIRECT: "sqlite3 directly", PYTHON: "Python", BARE_PYTHON: "bare Python"}


def table(head, rows):
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")
    print()


def geometric_mean(values):
    return math.exp(statistics.fmean(math.log(value) for value in values))


def timing(figures, names):
    """`figures` is {command: {competitor: Sample}}."""
    for field, what in (("wall", "Wall time, ms: median (least)"), ("cpu", "CPU time, user and system, ms: median (least)"),
                        ("memory", "Peak memory, MiB: median"), ("faults", "Page faults: median")):
        print(f"### {what}\n")
        digits, with_least = {"wall": (2, True), "cpu": (2, True), "memory": (2, False), "faults": (0, False)}[field]
        rows = []
        for command, samples in figures.items():
            row = [command]
            for name in names:
                text = f"{samples[name].median(field):.{digits}f}"
                row.append(f"{text} ({samples[name].least(field):.{digits}f})" if with_least else text)
            rows.append(row)
        table(["command", *(TITLES[name] for name in names)], rows)


def ratios(figures, names):
    """The tool's medians divided by each other's."""
    for field, what in (("wall", "Wall time"), ("cpu", "CPU time")):
        print(f"### {what} of arspctl, relative to\n")
        others = [name for name in names if name != TOOL]
        rows, means = [], {name: [] for name in others}
        for command, samples in figures.items():
            row = [command]
            for name in others:
                ratio = samples[TOOL].median(field) / samples[name].median(field)
                means[name].append(ratio)
                row.append(f"{ratio:.3f}")
            rows.append(row)
        rows.append(["geometric mean", *(f"{geometric_mean(means[name]):.3f}" for name in others)])
        table(["command", *(TITLES[name] for name in others)], rows)


def system_calls(counted, names, syncs):
    """`counted` is {command: {competitor: {call: number}}}."""
    print("### System calls, with those of the programs it starts; in brackets those that wait for the disk\n")
    rows = []
    for command, calls in counted.items():
        rows.append([command, *(f"{sum(calls[name].values())} ({sum(calls[name].get(call, 0) for call in syncs)})"
                                for name in names)])
    table(["command", *(TITLES[name] for name in names)], rows)
    print("### System calls of arspctl beyond those of the bare C program\n")
    rows = []
    for command, calls in counted.items():
        tool, bare = calls[TOOL], calls[BARE_C]
        extra = {call: tool.get(call, 0) - bare.get(call, 0) for call in sorted({*tool, *bare})}
        rows.append([command, ", ".join(f"{call} {number:+}" for call, number in extra.items() if number) or "none"])
    table(["command", "calls"], rows)


def instructions(totals, names):
    """`totals` is {command: {competitor: instructions}}."""
    print("### Instructions in user mode, of the program itself, in thousands\n")
    table(["command", *(TITLES[name] for name in names), "ratio"],
          [[command, *(f"{counts[name] / 1000:.0f}" for name in names), f"{counts[TOOL] / counts[BARE_C]:.3f}"]
           for command, counts in totals.items()])


def curve(measured, points):
    """What each size of one curve took; `points` in the order of the sizes."""
    print(f"### {measured.title}\n")
    compared = {TOOL, BARE_C} <= {*measured.names}
    head = [measured.unit, "rounds"] + [text for name in measured.names for text in (f"{TITLES[name]}, ms", "MiB")]
    rows = []
    for point in points:
        row = [f"{point.size:,}", point.rounds]
        for name in measured.names:
            row += [f"{point.wall[name]:.2f}", f"{point.memory[name]:.1f}"]
        if compared:
            row += [f"{values[TOOL] / values[BARE_C]:.3f}" for values in (point.wall, point.memory)]
        rows.append(row)
    table(head + (["ratio of wall time", "of memory"] if compared else []), rows)
    if len(points) < len(measured.sizes):
        print(f"No room for {measured.sizes[len(points)]:,} {measured.unit} and more.\n")


def exponents(lines):
    """`lines` holds for each curve itself, its points and {competitor: (exponent or None, number of sizes)}."""
    print("### Exponents\n")
    rows = []
    for measured, points, fitted in lines:
        times = points[-1].wall[TOOL] / points[0].wall[TOOL]
        row = [measured.title, f"{points[0].size:,} to {points[-1].size:,}",
               f"{times:.2f}" if times < 10 else f"{times:,.0f}", "the time" if measured.flat else "what is added"]
        for name in (TOOL, BARE_C):
            exponent, sizes = fitted.get(name, (None, 0))
            row.append("-" if exponent is None else f"{exponent:.3f} ({sizes})")
        rows.append(row)
    table(["curve", "sizes", "time at the last size over that at the first", "exponent of",
           f"{TITLES[TOOL]} (sizes it is fitted to)", f"{TITLES[BARE_C]}"], rows)
