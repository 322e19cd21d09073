"""Records of the system log, as they arrive at /dev/log."""

import re
from dataclasses import dataclass

# <19>Jan  2 03:04:05 arspctl[4711]: text. The name is whatever the program was called, so it may hold anything.
RECORD = re.compile(rb"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d (.*?)(?:\[(\d+)\])?: (.*)", re.DOTALL)


@dataclass(frozen=True)
class Record:
    """One record: `priority` is severity plus facility, both in syslog's own numbers (19 is 16, mail, plus 3, error)."""

    priority: int
    ident: str
    pid: int | None
    text: str

    @property
    def severity(self):
        return self.priority & 7

    @property
    def facility(self):
        return self.priority & ~7


def parse_record(datagram):
    """The record in the bytes that were sent; bytes that are no UTF-8 stand in its texts as surrogates."""
    match = RECORD.fullmatch(datagram.rstrip(b"\0"))
    if match is None:
        raise ValueError(f"not a log record: {datagram!r}")
    priority, ident, pid, text = match.groups()
    return Record(int(priority), ident.decode(errors="surrogateescape"), int(pid) if pid else None,
                  text.decode(errors="surrogateescape"))
