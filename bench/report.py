"""Figures as tables in Markdown."""

import statistics

from competitors import BARE_C, TOOL

SYNCS = ("fsync", "fdatasync", "sync", "syncfs", "sync_file_range", "msync")


def table(title, head, rows):
    print(f"### {title}\n\n| " + " | ".join(head) + " |\n|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")
    print()


def timing(figures, names):
    """`figures` is {command: {competitor: Sample}}."""
    for field, title in (("wall", "Wall time"), ("cpu", "CPU time, user and system")):
        table(f"{title}, ms: median (least)", ["command", *names], [
            [command, *(f"{samples[name].median(field):.2f} ({samples[name].least(field):.2f})" for name in names)]
            for command, samples in figures.items()])
    for field, title, digits in (("memory", "Peak memory, MiB: median", 2), ("faults", "Page faults: median", 0)):
        table(title, ["command", *names], [[command, *(f"{samples[name].median(field):.{digits}f}" for name in names)]
                                           for command, samples in figures.items()])


def ratios(figures, names):
    """The tool's medians divided by those of each other competitor."""
    others = [name for name in names if name != TOOL]
    for field, what in (("wall", "Wall time"), ("cpu", "CPU time")):
        values = {command: [samples[TOOL].median(field) / samples[name].median(field) for name in others]
                  for command, samples in figures.items()}
        values["geometric mean"] = [statistics.geometric_mean(column) for column in zip(*values.values())]
        table(f"{what} of arspctl, relative to", ["command", *others],
              [[command, *(f"{value:.3f}" for value in row)] for command, row in values.items()])


def system_calls(counted, names):
    """`counted` is {command: {competitor: Counter}}."""
    table("System calls, with those of the programs it starts; in brackets those that wait for the disk",
          ["command", *names],
          [[command, *(f"{calls[name].total()} ({sum(calls[name][call] for call in SYNCS)})" for name in names)]
           for command, calls in counted.items()])
    rows = []
    for command, calls in counted.items():
        extra = {call: calls[TOOL][call] - calls[BARE_C][call] for call in sorted(calls[TOOL] | calls[BARE_C])}
        rows.append([command, ", ".join(f"{call} {number:+}" for call, number in extra.items() if number) or "none"])
    table("System calls of arspctl beyond those of the bare C program", ["command", "calls"], rows)


def instructions(totals, names):
    """`totals` is {command: {competitor: instructions}}."""
    table("Instructions in user mode, of the program itself, in thousands", ["command", *names, "ratio"],
          [[command, *(f"{counts[name] / 1000:.0f}" for name in names), f"{counts[TOOL] / counts[BARE_C]:.3f}"]
           for command, counts in totals.items()])


def reading(title, samples):
    """`samples` is {command: {program: Sample}}, arspinfo first."""
    rows = []
    for name, figures in samples.items():
        own, other = figures.values()
        rows.append([name, list(figures)[1], f"{own.median('wall'):.2f}", f"{other.median('wall'):.2f}",
                     f"{own.median('wall') / other.median('wall'):.3f}", f"{own.median('memory'):.1f}"])
    table(title, ["command", "competitor", "arspinfo, ms", "competitor, ms", "ratio", "arspinfo, MiB"], rows)


def waits(figures):
    """`figures` is {command: (longest shared lock, longest write)} in ms."""
    table("Waiting for arspinfo, ms", ["command", "longest shared lock", "longest write of another program"],
          [[name, *(f"{value:.1f}" for value in values)] for name, values in figures.items()])


def curve(measured, points):
    """The figures of one curve; `points` in the order of the sizes."""
    compared = BARE_C in measured.names
    rows = []
    for point in points:
        row = [f"{point.size:,}", point.rounds]
        row += [text for name in measured.names for text in (f"{point.wall[name]:.2f}", f"{point.memory[name]:.1f}")]
        if compared:
            row += [f"{values[TOOL] / values[BARE_C]:.3f}" for values in (point.wall, point.memory)]
        rows.append(row)
    head = [measured.unit, "rounds", *(text for name in measured.names for text in (f"{name}, ms", "MiB"))]
    table(measured.title, head + (["ratio of wall time", "of memory"] if compared else []), rows)
    if len(points) < len(measured.sizes):
        print(f"No room for {measured.sizes[len(points)]:,} {measured.unit} and more.\n")


def exponents(lines):
    """`lines` has each curve, its points and {competitor: (exponent or None, number of sizes)}."""
    rows = []
    for measured, points, fitted in lines:
        times = points[-1].wall[TOOL] / points[0].wall[TOOL]
        row = [measured.title, f"{points[0].size:,} to {points[-1].size:,}",
               f"{times:.2f}" if times < 10 else f"{times:,.0f}", "the time" if measured.flat else "what is added"]
        for name in (TOOL, BARE_C):
            exponent, sizes = fitted.get(name, (None, 0))
            row.append("-" if exponent is None else f"{exponent:.3f} ({sizes})")
        rows.append(row)
    table("Exponents", ["curve", "sizes", "time at the last size over that at the first", "exponent of",
                        f"{TOOL} (sizes it is fitted to)", BARE_C], rows)
