"""What the tests of arspinfo have in common: rows to show, a terminal to show them in, the bytes behind an output."""

import contextlib
import fcntl
import os
import re
import struct
import termios
import tty

from .private_root import INFO_PROGRAM

UTF8 = {"LC_CTYPE": "C.UTF-8"}  # environments
ASCII = {"LC_ALL": "C"}
DEFAULTS = {"keystr": "", "key_where": "no", "subject": "Re: <request_subject>", "reply_to": "", "forward_to": "",
            "content_type": "text/plain", "charset": "UTF-8", "body": "", "ans_freq": 10, "ans_limit": 1000}

# Bytes that forge lines, drive a terminal, hide or reorder text, are no UTF-8, or look like an escape of the outputs.
HOSTILE = [b"a\nb\rc\td", b"\x1b[2J\x1b]0;title\x07", b"\xc2\x9b31m", b"\x7f\x08", b"\xff\xfe\xc3", b"\xc0\x80",
           b"\xed\xa0\x80", b"\xf4\x90\x80\x80", "a\u202eb\u2066c\u200bd\u2028e\ufefff\U000e0041g".encode(), b"a\0b\0",
           b"\\x41 \\x5cx41 \\u0041", b"\0\\x00", "\uef80\uef00\uefff \U0010ffff".encode(), b"\"'\\", b" a  b "]


def texts(*values):
    """SQL for the bytes as values of type TEXT, which need not be UTF-8."""
    return ", ".join(f"CAST(x'{value.hex()}' AS TEXT)" for value in values)


def put_row(sandbox, mn, real_owner=None, **columns):
    """Adds an autoresponder with the columns that --set-resp writes by default; bytes become a value of type TEXT."""
    row = {"mn": mn, "real_owner": mn if real_owner is None else real_owner, **DEFAULTS, **columns}
    marks = ["CAST(? AS TEXT)" if isinstance(value, bytes) else "?" for value in row.values()]
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute(f"INSERT INTO autoresponder ({','.join(row)}) VALUES ({','.join(marks)})", [*row.values()])


def json_bytes(text):
    """The bytes behind a text in arspinfo's JSON.

    JSON holds characters, a stored value any bytes. A byte that is NUL, or above 7F and not part of a valid character,
    is therefore written as the private character U+EFNN, NN being the byte. So are the bytes of the characters U+EF00
    to U+EFFF themselves: each of these characters stands for one byte, always.
    """
    return b"".join(bytes([ord(character) & 0xFF]) if 0xEF00 <= ord(character) <= 0xEFFF else character.encode()
                    for character in text)


def unescaped(text):
    """The bytes behind the escapes that arspinfo writes for a terminal."""
    return re.sub(rb"\\x([0-9a-f]{2})", lambda match: bytes.fromhex(match[1].decode()), text)


def in_terminal(sandbox, columns, *args, env=None):
    """Runs arspinfo with a terminal of that width as its outputs; returns (exit status, what the terminal received)."""
    master, slave = os.openpty()
    with open(master, "rb", buffering=0) as terminal:
        with open(slave, "wb", buffering=0) as end:
            tty.setraw(end)
            fcntl.ioctl(end, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            running = sandbox.start(*args, program=INFO_PROGRAM, stdout=end, stderr=end, env=env)
        received = b""
        with contextlib.suppress(OSError):  # EIO: the run has closed the terminal
            while part := terminal.read(65536):
                received += part
        return running.wait().status, received
