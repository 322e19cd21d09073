"""Figures as tables in Markdown."""

import math
import statistics

from competitors import BARE_C, DIRECT, PYTHON, SHARED, SHELL, TOOL

TITLES = {TOOL: "arspctl", SHARED: "arspctl, shared libraries", BARE_C: "bare C", SHELL: "sqlite3 script",
          DIRECT: "sqlite3 directly", PYTHON: "Python"}


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


def curve(curve, points, exponents):
    """`exponents` is {competitor: (exponent, number of sizes)}."""
    print(f"### {curve.title}\n")
    head, rows = [curve.unit, "rounds"], []
    for name in curve.names:
        head += [f"{TITLES[name]}, ms", "MiB"]
    compared = TOOL in curve.names and BARE_C in curve.names
    if compared:
        head += ["ratio of wall time", "of memory"]
    for point in points:
        row = [f"{point.size:,}", point.rounds]
        for name in curve.names:
            row += [f"{point.wall[name]:.2f}", f"{point.memory[name]:.1f}"]
        if compared:
            row += [f"{values[TOOL] / values[BARE_C]:.3f}" for values in (point.wall, point.memory)]
        rows.append(row)
    table(head, rows)
    if len(points) < len(curve.sizes):
        print(f"No room for {curve.sizes[len(points)]:,} {curve.unit} and more.\n")
    what = "of the time" if curve.flat else f"of the time beyond that of {points[0].size:,} {curve.unit}"
    for name, (exponent, sizes) in exponents.items():
        fitted = "too few sizes to fit one" if exponent is None else f"{exponent:.3f} (fitted to {sizes} sizes)"
        print(f"- {TITLES[name]}: exponent {what}: {fitted}")
    print()
