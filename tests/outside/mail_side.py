"""The mail delivery side: a process of the mail user that replies to mail from the tool's database and counts replies.

    mail_side.py ROOT UID GID

Each line of standard input is a request in JSON, each line of standard output its result:

    ["answer", MAILBOX, SENDER, TIME]         the reply to one mail; null without an autoresponder, and when the sender
                                              has received enough replies
    ["answers", MAILBOX, SENDER, TIME, COUNT] how many of COUNT mails were replied to
    ["read", MAILBOXES, RATE]                 reads RATE replies a second, each of one of the mailboxes, until more
                                              input; returns [begin, end, mailbox, outcome] of each: whether there is an
                                              autoresponder, or an error
    ["count", MAILBOXES, RATE]                the same, but counts replies
    ["sql", SQL]                              the rows, over the same connection
    ["reconnect"]                             null; the connection is new
"""

import contextlib
import json
import os
import random
import select
import sqlite3
import sys
import time

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
TIMEOUT = 30  # seconds that this side waits for a lock
PAUSE = 0.001  # seconds between two attempts of a step that a lock refuses
SENDER = "sender@example.net"  # of the mails to many mailboxes


def connect(timeout=TIMEOUT):
    return sqlite3.connect(f"file:{DATABASE}?mode=rw", uri=True, timeout=timeout, isolation_level=None)


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


def repeated(step, *arguments):
    """Repeats a step until no lock refuses it, more often than SQLite: its pauses grow to a tenth of a second."""
    while True:
        try:
            return step(*arguments)
        except sqlite3.OperationalError as error:
            if str(error) != "database is locked":
                raise
        time.sleep(PAUSE)


def read_one(db, mailbox):
    """Reads what a reply consists of. Every list of extra headers consists of two with the same value."""
    db.execute("BEGIN")
    found = repeated(lambda: db.execute("SELECT * FROM autoresponder WHERE mn = ?", (mailbox,)).fetchall())
    db.execute("SELECT filename FROM attachments WHERE mn = ?", (mailbox,)).fetchall()
    values = db.execute("SELECT value FROM extra_headers ORDER BY rowid").fetchall()
    db.execute("COMMIT")
    return bool(found) if values[::2] == values[1::2] else f"torn extra headers: {values}"


def count_one(db, mailbox):
    """Counts a reply to SENDER. A transaction that has read cannot write after another writer's commit: it starts
    again."""
    if db.in_transaction:
        db.execute("ROLLBACK")
    db.execute("BEGIN")
    found = db.execute("SELECT 1 FROM autoresponder WHERE mn = ?", (mailbox,)).fetchall()
    if found:
        db.execute("INSERT INTO resp_freq VALUES (?, ?, 1, 0) ON CONFLICT (mn, email) DO UPDATE SET num = num + 1",
                   (mailbox, SENDER))
    repeated(db.execute, "COMMIT")
    return bool(found)


def serve(transaction, mailboxes, rate):
    """Opens the database for each transaction: --init-db may have replaced it."""
    chance, done, start = random.Random(0), [], time.monotonic()
    while not select.select([sys.stdin], [], [], max(0, start + len(done) / rate - time.monotonic()))[0]:
        mailbox, begin = chance.choice(mailboxes), time.monotonic()
        try:
            with contextlib.closing(connect(timeout=0)) as db:
                outcome = repeated(transaction, db, mailbox)
        except sqlite3.Error as error:
            outcome = str(error)
        done.append([begin, time.monotonic(), mailbox, outcome])
    return done


SERVED = {"read": read_one, "count": count_one}


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
        elif what in SERVED:
            result = serve(SERVED[what], *args)
        elif what == "sql":
            result = db.execute(*args).fetchall()
        elif what == "reconnect":
            db.close()
            db = connect()
        print(json.dumps(result), flush=True)


main()
