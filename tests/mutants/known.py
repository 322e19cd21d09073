"""The changes of which docs/testing.md says why nothing can see them."""

import re

from .workshop import REPOSITORY

ENTRY = re.compile(r"^- `([\w./]+)`: (.*?)\n+ *```diff\n(.*?)^ *```", re.DOTALL | re.MULTILINE)


def known_survivors():
    """{(path, difference): reason}, the difference as Mutant.difference() shows it."""
    text = (REPOSITORY / "docs" / "testing.md").read_text()
    return {(path, "\n".join(line.strip() for line in lines.splitlines())): " ".join(reason.split())
            for path, reason, lines in ENTRY.findall(text)}
