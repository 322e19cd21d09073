"""The mail delivery side: a process of the mail user that replies to mail from the tool's database and counts replies.

    mail_side.py ROOT UID GID

Each line of standard input is a request in JSON, each line of standard output its result:

    ["answer", MAILBOX, SENDER, TIME]         the reply to one mail; null without an autoresponder, and when the sender
                                              has received enough replies
    ["answers", MAILBOX, SENDER, TIME, COUNT] how many of COUNT mails were replied to
    ["count", MAILBOX, SENDER]                counts replies, one short transaction each, until more input or the end of
                                              input; returns the number
    ["sql", SQL]                              the rows, over the same connection
    ["reconnect"]                             null; the connection is new
"""

import json
import os
import select
import sqlite3
import sys
import time

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
TIMEOUT = 30  # seconds that this side waits for a lock
PATIENCE = 5  # seconds within which another reply must be counted
PAUSE = 0.002  # seconds between two counted replies


def connect():
    return sqlite3.connect(f"file:{DATABASE}?mode=rw", uri=True, timeout=TIMEOUT, isolation_level=None)


def answer(db, mailbox, sender, when):
    db.execute("BEGIN IMMEDIATE")
    try:
        return answer_in_transaction(db, mailbox, sender, when)
    finally:
        db.execute("COMMIT")


def answer_in_transaction(db, mailbox, sender, when):
    row = db.execute("SELECT * FROM autoresponder WHERE mn = ?", (mailbox,)).fetchone()
    if row is None:
        return None
    _, keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, ans_freq, _, real_owner = row
    count = db.execute("SELECT num FROM resp_freq WHERE mn = ? AND email = ?", (mailbox, sender)).fetchone()
    if count is None:
        db.execute("INSERT INTO resp_freq VALUES (?, ?, 0, ?)", (mailbox, sender, when))
    elif count[0] >= ans_freq:
        return None
    db.execute("UPDATE resp_freq SET num = num + 1, time_resp = ? WHERE mn = ? AND email = ?", (when, mailbox, sender))
    names = [name for name, in db.execute("SELECT filename FROM attachments WHERE mn = ? ORDER BY 1", (mailbox,))]
    return {
        "key": [keystr, key_where],
        "to": sender,
        "headers": [["Subject", subject], ["Reply-To", reply_to],
                    ["Content-Type", f"{content_type}; charset={charset}"],
                    *db.execute("SELECT * FROM extra_headers ORDER BY rowid")],
        "body": body,
        "forward_to": forward_to,
        "attachments": {name: attachment(real_owner, name) for name in names},
    }


def attachment(real_owner, name):
    local_part, _, domain = real_owner.partition("@")
    with open(f"{MAILNAMES}/{domain}/{local_part}/@attachments/{name}", encoding="utf-8") as file:
        return file.read()


def count_one(db, mailbox, sender):
    """Counts one reply; returns whether it did. A transaction that has read cannot write after another writer's
    commit."""
    db.execute("BEGIN")
    db.execute("SELECT num FROM resp_freq WHERE mn = ? AND email = ?", (mailbox, sender)).fetchall()
    try:
        db.execute("UPDATE resp_freq SET num = num + 1 WHERE mn = ? AND email = ?", (mailbox, sender))
    except sqlite3.OperationalError as error:
        if "locked" not in str(error):
            raise
        db.execute("ROLLBACK")
        return False
    db.execute("COMMIT")
    return True


def count_replies(db, mailbox, sender):
    counted, last = 0, time.monotonic()
    while not select.select([sys.stdin], [], [], PAUSE)[0]:
        if count_one(db, mailbox, sender):
            counted, last = counted + 1, time.monotonic()
        elif time.monotonic() > last + PATIENCE:
            sys.exit(f"kept from writing for {PATIENCE} seconds")
    return counted


def main():
    root, uid, gid = sys.argv[1:]
    os.chroot(root)
    os.chdir("/")
    os.setgroups([])
    os.setgid(int(gid))
    os.setuid(int(uid))
    db = connect()
    for line in sys.stdin:
        what, *args = json.loads(line)
        result = None
        if what == "answer":
            result = answer(db, *args)
        elif what == "answers":
            *mail, count = args
            result = sum(answer(db, *mail) is not None for _ in range(count))
        elif what == "count":
            result = count_replies(db, *args)
        elif what == "sql":
            result = db.execute(*args).fetchall()
        elif what == "reconnect":
            db.close()
            db = connect()
        print(json.dumps(result), flush=True)


main()
