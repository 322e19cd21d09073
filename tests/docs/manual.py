"""The manual pages as text, their items with explanations, and their examples."""

import re
import subprocess

from sources import REPOSITORY

ARSPCTL = REPOSITORY / "doc" / "arspctl.8"
KEL_CONF = REPOSITORY / "doc" / "kel.conf.5"
ESCAPES = {r"\e": "\\", r"\&": "", r"\(aq": "'", r"\(dq": '"', r"\ ": " "}


def rendered(page):
    """The formatted page, without line breaks inside a paragraph."""
    command = ["mandoc", "-T", "ascii", "-O", "width=1000", page]
    output = subprocess.run(command, capture_output=True, text=True, check=True)
    return re.sub(".\b", "", output.stdout)


def section(text, title):
    """The lines below a heading, subsections included."""
    return re.search(rf"^{re.escape(title)}\n(.*?)(?=^\S|\Z)", text, re.DOTALL | re.MULTILINE)[1]


def items(text):
    """The items of the tagged lists in a section: [(head, explanation), ...]."""
    found = []
    for line in text.splitlines():
        if re.match(r" {5}\S", line):
            found.append((line.strip(), ""))
        elif line.startswith(" " * 11) and found:
            head, explanation = found[-1]
            found[-1] = (head, f"{explanation} {line.strip()}".strip())
    return found


def unescape(source):
    return re.sub(r"\\(?:\(..|.)", lambda match: ESCAPES[match[0]], source)


def examples(page):
    """The literal displays of EXAMPLES: {the preceding sentence, up to its first punctuation: the text}."""
    found, intro, code = {}, [], None
    for line in page.read_text().split("\n.Sh EXAMPLES\n")[1].split("\n.Sh ")[0].splitlines():
        if line.startswith(".Bd"):
            code = []
        elif line == ".Ed":
            found[re.match(r"[^;:,]*", " ".join(intro))[0]] = unescape("".join(code))
            intro, code = [], None
        elif code is not None:
            code.append(line + "\n")
        elif not line.startswith("."):
            intro.append(line)
    return found
