"""The six commands as a Python script would do them: the same statements, files and owners. Arguments as for bare.c."""

import os
import sqlite3
import sys

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"


def connect():
    return sqlite3.connect(DATABASE, timeout=0.05, isolation_level=None)


def mail_user():
    import pwd

    return pwd.getpwnam("popuser")


def attachment_dir(address):
    root = "/var/qmail/mailnames"
    with open("/etc/kel/kel.conf", encoding="utf-8") as conf:
        for line in conf:
            words = line.split()
            if words[:1] == ["QUARN_MAILNAMES_D"]:
                root = words[1]
    local_part, domain = address.split("@")
    return f"{root}/{domain}/{local_part}/@attachments"


def init_db(schema):
    if os.path.exists(DATABASE):
        os.unlink(DATABASE)
    directory = os.path.dirname(DATABASE)
    os.makedirs(directory, exist_ok=True)
    db = connect()
    db.executescript(schema)
    db.close()
    user = mail_user()
    os.chown(directory, user.pw_uid, 0)
    os.chmod(directory, 0o755)
    os.chown(DATABASE, user.pw_uid, user.pw_gid)
    os.chmod(DATABASE, 0o600)


def set_resp(mailname, real_owner, subject, keystr="", key_where="no", reply_to="", forward_to="",
             content_type="text/html", charset="UTF-8", ans_freq=10, ans_limit=1000):
    body = sys.stdin.buffer.read().decode("utf-8", "surrogateescape")
    db = connect()
    db.execute("BEGIN TRANSACTION")
    db.execute("REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, "
               "body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
               (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit,
                real_owner, mailname))
    db.execute("END TRANSACTION")
    db.close()


def del_resp(mailname):
    directory = attachment_dir(mailname)
    db = connect()
    db.execute("BEGIN TRANSACTION")
    db.execute("DELETE FROM attachments WHERE mn=?", (mailname,))
    for entry in os.scandir(directory):
        os.unlink(entry.path)
    db.execute("DELETE FROM autoresponder WHERE mn=?", (mailname,))
    db.execute("DELETE FROM resp_freq WHERE mn=?", (mailname,))
    db.execute("END TRANSACTION")
    db.close()


def add_attach(mailname, filename, source):
    db = connect()
    db.execute("BEGIN TRANSACTION")
    (owner,) = db.execute("SELECT real_owner FROM autoresponder WHERE mn=?", (mailname,)).fetchone()
    directory = attachment_dir(owner)
    user = mail_user()
    if not os.path.isdir(directory):
        os.makedirs(directory, 0o700)
    path = f"{directory}/{filename}"
    if os.system(f'/bin/cp "{source}" "{path}"') != 0:
        sys.exit(1)
    os.chown(path, user.pw_uid, user.pw_gid)
    db.execute("REPLACE INTO attachments VALUES (?, ?)", (mailname, filename))
    db.execute("END TRANSACTION")
    db.close()


def del_attach(mailname, filename):
    path = f"{attachment_dir(mailname)}/{filename}"
    db = connect()
    db.execute("BEGIN TRANSACTION")
    if db.execute("SELECT real_owner FROM autoresponder WHERE mn=?", (mailname,)).fetchone() is None:
        sys.exit(1)
    db.execute("DELETE FROM attachments WHERE mn=? AND filename=?", (mailname, filename))
    db.execute("END TRANSACTION")
    db.close()
    os.unlink(path)


def set_extra_headers():
    import json

    headers = json.load(sys.stdin)
    db = connect()
    db.execute("DELETE FROM extra_headers")
    db.execute("BEGIN TRANSACTION")
    for pair in headers.items():
        db.execute("REPLACE INTO extra_headers VALUES (?, ?)", pair)
    db.execute("END TRANSACTION")
    db.close()


COMMANDS = {"init-db": init_db, "set-resp": set_resp, "del-resp": del_resp, "add-attach": add_attach,
            "del-attach": del_attach, "set-extra-headers": set_extra_headers}

if __name__ == "__main__":
    COMMANDS[sys.argv[1]](*sys.argv[2:])
