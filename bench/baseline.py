"""Instruction counts against those recorded in bench/instructions.txt.

They depend on the compiler, on the C library and on the processor's features, not on what else the machine does: the
same build counts the same on every run. The file has each command's total and its functions from LEAST on.
"""

import platform
import subprocess
from pathlib import Path

FILE = Path(__file__).with_name("instructions.txt")
LEAST = 1000
TOLERATED = 0.005  # of a command's total: less than this is not worth a line


def tools():
    """The versions that the counts depend on, without the processor's features."""
    words = {"g++": ["g++", "-dumpfullversion"], "valgrind": ["valgrind", "--version"]}
    versions = {name: subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
                for name, command in words.items()}
    return f"# g++ {versions['g++']}, glibc {platform.libc_ver()[1]}, {versions['valgrind']}, {platform.machine()}"


def record(counted):
    lines = ["# Instructions per command and function, written by: scripts/bench --counts --record", tools()]
    for command, costs in counted.items():
        lines.append(f"{command} {sum(costs.values())}")
        by_cost = sorted(costs.items(), key=lambda item: (-item[1], item[0]))
        lines += [f"\t{number} {function}" for function, number in by_cost if number >= LEAST]
    FILE.write_text("\n".join(lines) + "\n", encoding="utf-8")


def read():
    """Returns {command: (total, {function: instructions})}."""
    recorded, functions = {}, {}
    for line in FILE.read_text(encoding="utf-8").splitlines():
        if line.startswith("#"):
            continue
        if line.startswith("\t"):
            number, function = line[1:].split(" ", 1)
            functions[function] = int(number)
        else:
            command, total = line.split()
            functions = {}
            recorded[command] = (int(total), functions)
    return recorded


def compare(counted):
    """Prints what changed and returns whether a command has grown."""
    recorded, grown = read(), False
    if tools() not in FILE.read_text(encoding="utf-8").splitlines():
        print("The recorded counts are of other tools, which may cause a difference")
    for command, costs in counted.items():
        total, (before, functions) = sum(costs.values()), recorded[command]
        change = (total - before) / before
        print(f"{command}: {total} instructions, {before} recorded, {change:+.2%}")
        grown = grown or change > TOLERATED
        if change <= TOLERATED:
            continue
        differences = {}
        for function, number in costs.items():
            if number >= LEAST or function in functions:
                differences[function] = number - functions.get(function, 0)
        for function, more in sorted(differences.items(), key=lambda item: -item[1])[:15]:
            if more > TOLERATED * before / 10:
                print(f"    {more:+} {function}" + ("" if function in functions else " (not recorded)"))
    return grown
