"""The mail delivery side at its shortest: counts answers as the mail system's user, one short transaction each.

    answer_counter.py ROOT UID GID MAILBOX SENDER

Counts until standard input ends, then prints how many it has counted. Fails when it is kept waiting for more than
TIMEOUT seconds.
"""

import os
import select
import sqlite3
import sys
import time

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
TIMEOUT = 5  # seconds
PAUSE = 0.002  # seconds between two mails


def count_one(db, mailbox, sender):
    """Counts one answer. Says False, and has changed nothing, when another writer was first: two that have read cannot
    both go on to write, so this one lets go and has to begin anew."""
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


def main():
    root, uid, gid, mailbox, sender = sys.argv[1:]
    os.chroot(root)
    os.chdir("/")
    os.setgroups([])
    os.setgid(int(gid))
    os.setuid(int(uid))
    db = sqlite3.connect(f"file:{DATABASE}?mode=rw", uri=True, timeout=TIMEOUT, isolation_level=None)
    counted, last = 0, time.monotonic()
    while not select.select([sys.stdin], [], [], PAUSE)[0]:
        if count_one(db, mailbox, sender):
            counted, last = counted + 1, time.monotonic()
        elif time.monotonic() > last + TIMEOUT:
            sys.exit(f"kept from writing for {TIMEOUT} seconds")
    print(counted)


main()
