"""The mail delivery side, played by a process of its own: as the mail system's user it answers mail from the database
that the tool keeps, and counts its answers there.

    mail_side.py ROOT UID GID

Each line of standard input is a request in JSON, each line of standard output the reply to one:

    ["answer", MAILBOX, SENDER, TIME]         the answer to one mail; null when there is no autoresponder, or when the
                                              sender has had enough answers
    ["answers", MAILBOX, SENDER, TIME, COUNT] how many of so many mails were answered
    ["sql", SQL]                              the rows, over the same connection
    ["reconnect"]                             null; the connection is a new one now
"""

import json
import os
import sqlite3
import sys

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
TIMEOUT = 30  # seconds that this side waits for a lock


def connect():
    return sqlite3.connect(f"file:{DATABASE}?mode=rw", uri=True, timeout=TIMEOUT, isolation_level=None)


def answer(db, mailbox, sender, time):
    db.execute("BEGIN IMMEDIATE")
    try:
        return answer_in_transaction(db, mailbox, sender, time)
    finally:
        db.execute("COMMIT")


def answer_in_transaction(db, mailbox, sender, time):
    row = db.execute("SELECT * FROM autoresponder WHERE mn = ?", (mailbox,)).fetchone()
    if row is None:
        return None
    _, keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, ans_freq, _, real_owner = row
    count = db.execute("SELECT num FROM resp_freq WHERE mn = ? AND email = ?", (mailbox, sender)).fetchone()
    if count is None:
        db.execute("INSERT INTO resp_freq VALUES (?, ?, 0, ?)", (mailbox, sender, time))
    elif count[0] >= ans_freq:
        return None
    db.execute("UPDATE resp_freq SET num = num + 1, time_resp = ? WHERE mn = ? AND email = ?", (time, mailbox, sender))
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
        if what == "answer":
            reply = answer(db, *args)
        elif what == "answers":
            *mail, count = args
            reply = sum(answer(db, *mail) is not None for _ in range(count))
        elif what == "sql":
            reply = db.execute(*args).fetchall()
        elif what == "reconnect":
            db.close()
            db = connect()
            reply = None
        print(json.dumps(reply), flush=True)


main()
