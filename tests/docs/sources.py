"""What the tests of the documents take from the sources: their text literals, and which of these are messages."""

import re
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
FOLDERS = ("cli", "store", "support")

TOKEN = re.compile(r"""//[^\n]*|/\*.*?\*/|\b\d[\w'.]*|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*'|\s+|.""", re.DOTALL)
ESCAPES = {"n": "\n", "t": "\t", '"': '"', "'": "'", "\\": "\\", "0": "\0", "r": "\r"}
CONVERSION = re.compile(r"0?%[-+ #0-9.]*[hlzjt]*[a-zA-Z]")
SQL = re.compile(r"(SELECT|REPLACE|DELETE|BEGIN|END|CREATE)\b")
NO_MESSAGES = {"cli/options.cpp", "store/schema.h"}  # the help page and the schema
FILE_TYPES = {"regular file", "character device", "block device", "symbolic link"}


def literals(path):
    """The string literals of a source, adjacent ones joined."""
    text = re.sub(r"^\s*#.*$", "", path.read_text(), flags=re.MULTILINE)
    found, joining = [], False
    for token in TOKEN.findall(text):
        if token.startswith('"'):
            value = re.sub(r"\\(.)", lambda match: ESCAPES[match[1]], token[1:-1], flags=re.DOTALL)
            found[-1:] = [found[-1] + value] if joining else found[-1:] + [value]
            joining = True
        elif not token.isspace() and not token.startswith(("//", "/*")):
            joining = False
    return found


def is_message(literal):
    words = CONVERSION.sub("", literal)
    return (" " in literal and re.search("[A-Za-z]", words) and not SQL.match(literal)
            and not literal.startswith("/") and literal not in FILE_TYPES)


def messages():
    """Every message of the code: {literal: the file it stands in}."""
    found = {}
    for folder in FOLDERS:
        for path in sorted((REPOSITORY / folder).glob("*.*")):
            name = str(path.relative_to(REPOSITORY))
            if path.suffix in (".cpp", ".h") and name not in NO_MESSAGES:
                found.update((literal, name) for literal in literals(path) if is_message(literal))
    return found


def as_pattern(literal):
    """A pattern for the message with one word in the place of each conversion; white space is all the same."""
    parts, end = [], 0
    literal = literal.strip()
    for match in [*CONVERSION.finditer(literal), None]:
        text = literal[end:match.start() if match else len(literal)]
        parts.append(r"\s+".join(map(re.escape, re.split(r"\s+", text))))
        if match:
            parts.append(r"\S+?")
            end = match.end()
    return re.compile("".join(parts))
