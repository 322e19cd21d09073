"""check.py LINES CONDITIONS: prints what ran, and fails unless exclusions.txt lists the rest of lines and conditions.

LINES and CONDITIONS are exports of llvm-cov, the first in lcov's format with lines and branches, the second in JSON.
A condition is covered (MC/DC) if two runs of its decision differ in this condition only, and in the decision's result.
"""

import json
import sys
from collections import defaultdict
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]


def exclusions():
    """(file, text of the line, reason) of every excluded line."""
    text = Path(__file__).with_name("exclusions.txt").read_text(encoding="utf-8")
    paragraphs = [paragraph.splitlines() for paragraph in text.strip().split("\n\n")]
    return [(lines[0], lines[1], " ".join(lines[2:])) for lines in paragraphs if not lines[0].startswith("#")]


def numbers(file, line):
    """The numbers of the lines with this text."""
    path = REPOSITORY / file
    texts = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
    return [number for number, text in enumerate(texts, 1) if text.strip() == line]


def relative(path):
    return str(Path(path).relative_to(REPOSITORY))


def lines_and_branches(report):
    """Whether each (file, line) and each (file, line, branch ...) ran."""
    lines, branches, file = {}, defaultdict(bool), None
    for word, _, values in (line.strip().partition(":") for line in report):
        if word == "SF":
            file = relative(values)
        elif word == "DA":
            line, count = values.split(",")
            lines[file, int(line)] = count != "0"
        elif word == "BRDA":
            line, *branch, count = values.split(",")
            branches[file, int(line), *branch] |= count not in ("-", "0")
    return lines, branches


def conditions(report):
    """Whether each (file, line, decision, number of the condition) is covered, in any instance of a template."""
    found = defaultdict(bool)
    for file in json.load(report)["data"][0]["files"]:
        for *place, covered in file["mcdc_records"]:
            for number, value in enumerate(covered, 1):
                found[relative(file["filename"]), place[0], tuple(place), number] |= value
    return found


def main():
    with open(sys.argv[1], encoding="utf-8") as report:
        lines, branches = lines_and_branches(report)
    with open(sys.argv[2], encoding="utf-8") as report:
        counts = {"lines": lines, "branches": branches, "conditions": conditions(report)}
    for folder in sorted({place[0].split("/")[0] for place in lines}):
        print(folder + "/", end="")
        for what, places in counts.items():
            ran = [value for place, value in places.items() if place[0].startswith(folder + "/")]
            print(f" {what}: {sum(ran)} of {len(ran)}", end="")
        print()

    missed = {what: {place for place, ran in counts[what].items() if not ran} for what in ("lines", "conditions")}
    problems = []
    for file, line, _ in exclusions():
        places = {(file, number) for number in numbers(file, line)}
        if not any(place[:2] in places for gaps in missed.values() for place in gaps):
            problems.append(f"exclusions.txt lists a covered line: {file}: {line}")
        missed = {what: {place for place in gaps if place[:2] not in places} for what, gaps in missed.items()}
    problems += [f"{file}:{line} did not run" for file, line in sorted(missed["lines"])]
    problems += [f"{file}:{line} condition {number} is not covered"
                 for file, line, _, number in sorted(missed["conditions"])]
    print("\n".join(problems) or f"All lines and conditions are covered but the {len(exclusions())} in exclusions.txt")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
