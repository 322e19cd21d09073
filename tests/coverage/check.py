"""check.py COUNTS: fails unless all lines ran but those in exclusions.txt. COUNTS is a report of gcovr in JSON."""

import json
import sys
from pathlib import Path

FOLDERS = ("cli", "store", "support")
WHOLE_FILE = "all lines"  # of a source outside the counted programs
REPOSITORY = Path(__file__).resolve().parents[2]


def exclusions():
    """(file, text of the line, reason) of every excluded line."""
    text = Path(__file__).with_name("exclusions.txt").read_text(encoding="utf-8")
    paragraphs = [paragraph.splitlines() for paragraph in text.strip().split("\n\n")]
    return [(lines[0], lines[1], " ".join(lines[2:])) for lines in paragraphs if not lines[0].startswith("#")]


def places(file, line):
    """The numbers of the lines with this text."""
    path = REPOSITORY / file
    if line == WHOLE_FILE:
        return [WHOLE_FILE] if path.exists() else []
    texts = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
    return [number for number, text in enumerate(texts, 1) if text.strip() == line]


def main():
    with open(sys.argv[1], encoding="utf-8") as report:
        files = json.load(report)["files"]
    counts = {(file["file"], line["line_number"]): line["count"] for file in files for line in file["lines"]
              if not line["gcovr/noncode"]}
    missed = {place for place, count in counts.items() if count == 0}
    sources = {str(path.relative_to(REPOSITORY)) for folder in FOLDERS for path in (REPOSITORY / folder).glob("*.cpp")}
    left_aside = {(file, WHOLE_FILE) for file in sources - {file["file"] for file in files}}
    print(f"Lines: {len(counts) - len(missed)} of {len(counts)} ran, {len(missed)} did not")

    missed |= left_aside
    problems = []
    for file, line, _ in exclusions():
        left_out = {(file, number) for number in places(file, line)} & missed
        if len(left_out) != 1:
            problems.append(f"exclusions.txt must name one line that did not run, not {len(left_out)}: {file}: {line}")
        missed -= left_out
    problems += [f"{file}:{number} did not run" for file, number in sorted(missed, key=str)]
    print("\n".join(problems) or f"All lines ran but the {len(exclusions())} in exclusions.txt")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
