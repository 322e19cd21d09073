"""The text literals of the sources, and patterns for the messages among them."""

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

# Statements of info/ with a message that ends a run, and with the reasons of `export` for leaving something out.
INFO_FAILURE = r"\b(?:Database)?Failure\([^;]*;|text \+= [^;]*;"
INFO_REASON = r'\bskip\w*\([^;]*;|return "(?:its|a) [^;]*;'

# Messages that the code composes from more than one literal.
COMPOSED = {
    "Error: ": "Error: Missing option: %s",
    "Missing option: ": "Error: Missing option: %s",
    " - incorrect email address format": "Error: %s - incorrect email address format",
    " - incorrect format of local part of email address": "Error: %s - incorrect format of local part of email address",
    " - incorrect format of domain part of email address":
        "Error: %s - incorrect format of domain part of email address",
    "Unable to begin sqlite transaction": "Unable to begin sqlite transaction: %s",
    "Unable to end sqlite transaction": "Unable to end sqlite transaction: %s",
    "Unable to remove autoresponder attachments: %s": "Unable to remove autoresponder attachments: %s %s: %s",
    "Unable to add autoresponder data": "Unable to add autoresponder data (%s): %s",
    "Unable to add autoresponder attachment": "Unable to add autoresponder attachment (%s): %s",
}
PARTS = {"cannot open directory", "cannot read directory", "cannot leave directory", "cannot remove",
         "nested too deeply", "general DB errror", "\nSystem error %d: %s"}  # of other messages


def named_tests():
    """Every test below tests/ as PATH::FUNCTION or, of GoogleTest, PATH::SUITE.NAME."""
    patterns = {"test_*.py": r"^ *def (test_\w+)\(", "*_test.cpp": r"^TEST(?:_F|_P)?\((\w+), (\w+)\)"}
    return {f"{path.relative_to(REPOSITORY)}::{'.'.join(match.groups())}"
            for files, pattern in patterns.items() for path in (REPOSITORY / "tests").rglob(files)
            for match in re.finditer(pattern, path.read_text(), re.MULTILINE)}


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
    """{literal: its file} for every message of the code."""
    found = {}
    for folder in FOLDERS:
        for path in sorted((REPOSITORY / folder).glob("*.*")):
            name = str(path.relative_to(REPOSITORY))
            if path.suffix in (".cpp", ".h") and name not in NO_MESSAGES:
                found.update((literal, name) for literal in literals(path) if is_message(literal))
    return found


def info_messages(statement):
    """The words of each message of arspinfo that is in a statement of this pattern."""
    return {words for path in (REPOSITORY / "info").glob("*.cpp") for text in re.findall(statement, path.read_text())
            for words in (literal.strip(" :/") for literal in re.findall(r'"((?:\\.|[^"\\])*)"', text)) if " " in words}


def as_pattern(literal):
    """A pattern with one word for each conversion and any white space for white space."""
    parts, end = [], 0
    literal = literal.strip()
    for match in [*CONVERSION.finditer(literal), None]:
        text = literal[end:match.start() if match else len(literal)]
        parts.append(r"\s+".join(map(re.escape, re.split(r"\s+", text))))
        if match:
            parts.append(r"\S+?")
            end = match.end()
    return re.compile("".join(parts))
