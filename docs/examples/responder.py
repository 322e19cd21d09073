#!/usr/bin/python3
"""Reads the autoresponder database as a program that sends replies should.

    responder.py [--database FILE] [--mailnames ROOT] MAILBOX SENDER [--subject TEXT] [--body TEXT]

Prints the reply to a message from SENDER to MAILBOX as JSON, or nothing if no reply is due.
"""

import argparse
import contextlib
import json
import sqlite3
import time
from pathlib import Path
from urllib.parse import quote

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
BUSY_TIMEOUT = 5  # seconds
A_DAY = 24 * 60 * 60  # seconds


def connect(database=DATABASE):
    """Returns a connection that waits for locks, never creates the file, and begins no transaction implicitly."""
    connection = sqlite3.connect(f"file:{quote(str(database))}?mode=rw", uri=True, timeout=BUSY_TIMEOUT,
                                 isolation_level=None)
    connection.text_factory = bytes  # stored texts need not be UTF-8
    connection.execute("PRAGMA synchronous = EXTRA")  # a counted reply stays counted after a power cut
    return connection


@contextlib.contextmanager
def transaction(connection, begin):
    """Runs `begin` and commits; rolls back after a failure, so that no lock is left."""
    connection.execute(begin)
    try:
        yield
        connection.execute("COMMIT")
    except BaseException:
        if connection.in_transaction:
            connection.execute("ROLLBACK")
        raise


def text(value):
    """Returns a column's bytes as text, and an empty text for NULL."""
    return (value or b"").decode(errors="replace")


def read_reply(connection, mailbox):
    """Returns the reply of the mailbox, or None. Reads all parts in one short transaction, so that they match."""
    with transaction(connection, "BEGIN"):
        row = connection.execute(
            "SELECT keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, ans_freq, real_owner"
            " FROM autoresponder WHERE mn = ?", (mailbox,)).fetchone()
        files = connection.execute("SELECT filename FROM attachments WHERE mn = ?", (mailbox,)).fetchall()
        headers = connection.execute("SELECT name, value FROM extra_headers ORDER BY rowid").fetchall()
    if row is None:
        return None
    names = ("keystr", "key_where", "subject", "reply_to", "forward_to", "content_type", "charset", "body")
    reply = dict(zip(names, map(text, row[:8])))
    reply["ans_freq"] = 10 if row[8] is None else row[8]
    reply["real_owner"] = text(row[9])
    reply["filenames"] = [text(name) for (name,) in files]
    reply["extra_headers"] = [(text(name), text(value)) for name, value in headers]
    return reply


def asks_for_reply(reply, subject, body):
    """Returns whether the incoming message contains the key in the required place."""
    searched = {"subj": subject, "body": body}.get(reply["key_where"])
    return searched is None or reply["keystr"] in searched


def count_reply(connection, mailbox, sender, limit, now):
    """Counts one more reply to `sender` and returns whether it may be sent.

    BEGIN IMMEDIATE takes the write lock before the first read, so that this connection waits while it holds no lock.
    """
    with transaction(connection, "BEGIN IMMEDIATE"):
        row = connection.execute("SELECT num, time_resp FROM resp_freq WHERE mn = ? AND email = ?",
                                 (mailbox, sender)).fetchone()
        sent, since = row if row is not None and now - row[1] < A_DAY else (0, now)
        if sent >= limit:
            return False
        connection.execute("REPLACE INTO resp_freq (mn, email, num, time_resp) VALUES (?, ?, ?, ?)",
                           (mailbox, sender, sent + 1, since))
        return True


def attachment_paths(reply, mailnames=MAILNAMES):
    """Returns the paths of the existing attachments; the file of a row may be missing."""
    local_part, _, domain = reply["real_owner"].partition("@")
    directory = Path(mailnames, domain, local_part, "@attachments")
    paths = [directory / name for name in reply["filenames"] if name and "/" not in name]
    return [path for path in paths if path.is_file()]


def header_lines(reply):
    """Returns the extra headers that are valid header lines."""
    return [(name, value) for name, value in reply["extra_headers"]
            if name and not any(c in "\r\n\0" for c in name + value)]


def answer(connection, mailbox, sender, subject="", body="", mailnames=MAILNAMES, now=None):
    """Returns the reply to send, already counted, or None. Holds no lock when it returns."""
    reply = read_reply(connection, mailbox)
    if reply is None or not asks_for_reply(reply, subject, body):
        return None
    if not count_reply(connection, mailbox, sender, reply["ans_freq"], int(time.time()) if now is None else now):
        return None
    return {
        "from": mailbox,
        "to": sender,
        "subject": reply["subject"].replace("<request_subject>", subject).replace("\r", " ").replace("\n", " "),
        "reply_to": reply["reply_to"],
        "forward_to": reply["forward_to"],
        "content_type": f"{reply['content_type']}; charset={reply['charset']}",
        "headers": header_lines(reply),
        "body": reply["body"],
        "attachments": [str(path) for path in attachment_paths(reply, mailnames)],
    }


def main():
    parser = argparse.ArgumentParser(description="Prints the reply to a message, or nothing if no reply is due.")
    parser.add_argument("--database", default=DATABASE)
    parser.add_argument("--mailnames", default=MAILNAMES)
    parser.add_argument("mailbox")
    parser.add_argument("sender")
    parser.add_argument("--subject", default="")
    parser.add_argument("--body", default="")
    arguments = parser.parse_args()
    with contextlib.closing(connect(arguments.database)) as connection:
        reply = answer(connection, arguments.mailbox.lower(), arguments.sender.lower(), arguments.subject,
                       arguments.body, arguments.mailnames)
    if reply is not None:
        print(json.dumps(reply, ensure_ascii=False, indent=2))


if __name__ == "__main__":
    main()
