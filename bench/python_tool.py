"""The tool as a Python program: the same command line, checks, statements, files and owners."""

import argparse
import os
import re
import sqlite3
import sys
import syslog

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
SCHEMA = "/usr/sbin/schema.sql"
LOCAL_PART = re.compile(r"(?!\.)(?!.*\.\.)[A-Za-z0-9._&+'-]{1,245}(?<!\.)")
LABEL = r"[A-Za-z0-9][A-Za-z0-9-]{0,62}"
DOMAIN = re.compile(rf"(?=.{{1,255}}$)(?:{LABEL}(?<!-)\.)*{LABEL}")
VALUES = {"key-str": "", "key-where": "no", "subj": "Re: <request_subject>", "reply-to": "", "forward-to": "",
          "charset": "UTF-8", "filename": None, "source": None}


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


def init_db(_):
    if os.path.exists(DATABASE):
        os.unlink(DATABASE)
    directory = os.path.dirname(DATABASE)
    os.makedirs(directory, exist_ok=True)
    with open(SCHEMA, encoding="utf-8") as schema:
        connect().executescript(schema.read())
    user = mail_user()
    os.chown(directory, user.pw_uid, 0)
    os.chmod(directory, 0o755)
    os.chown(DATABASE, user.pw_uid, user.pw_gid)
    os.chmod(DATABASE, 0o600)


def set_resp(options):
    body = sys.stdin.buffer.read().decode("utf-8", "surrogateescape")
    db = connect()
    db.execute("BEGIN TRANSACTION")
    db.execute("REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, "
               "body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
               (options.key_str, options.key_where, options.subj, options.reply_to, options.forward_to,
                options.content_type, options.charset, body, options.ans_freq, options.ans_limit, options.real_owner,
                options.mailname))
    db.execute("END TRANSACTION")


def del_resp(options):
    directory = attachment_dir(options.mailname)
    db = connect()
    db.execute("BEGIN TRANSACTION")
    db.execute("DELETE FROM attachments WHERE mn=?", (options.mailname,))
    for entry in os.scandir(directory):
        os.unlink(entry.path)
    db.execute("DELETE FROM autoresponder WHERE mn=?", (options.mailname,))
    db.execute("DELETE FROM resp_freq WHERE mn=?", (options.mailname,))
    db.execute("END TRANSACTION")


def add_attach(options):
    db = connect()
    db.execute("BEGIN TRANSACTION")
    (owner,) = db.execute("SELECT real_owner FROM autoresponder WHERE mn=?", (options.mailname,)).fetchone()
    directory = attachment_dir(owner)
    user = mail_user()
    if not os.path.isdir(directory):
        os.makedirs(directory, 0o700)
    path = f"{directory}/{options.filename}"
    if os.system(f'/bin/cp "{options.source}" "{path}"') != 0:
        sys.exit(1)
    os.chown(path, user.pw_uid, user.pw_gid)
    db.execute("REPLACE INTO attachments VALUES (?, ?)", (options.mailname, options.filename))
    db.execute("END TRANSACTION")


def del_attach(options):
    path = f"{attachment_dir(options.mailname)}/{options.filename}"
    db = connect()
    db.execute("BEGIN TRANSACTION")
    if db.execute("SELECT real_owner FROM autoresponder WHERE mn=?", (options.mailname,)).fetchone() is None:
        sys.exit(1)
    db.execute("DELETE FROM attachments WHERE mn=? AND filename=?", (options.mailname, options.filename))
    db.execute("END TRANSACTION")
    os.unlink(path)


def set_extra_headers(_):
    import json

    headers = json.load(sys.stdin)
    db = connect()
    db.execute("DELETE FROM extra_headers")
    db.execute("BEGIN TRANSACTION")
    for pair in headers.items():
        db.execute("REPLACE INTO extra_headers VALUES (?, ?)", pair)
    db.execute("END TRANSACTION")


COMMANDS = (init_db, set_resp, del_resp, add_attach, del_attach, set_extra_headers)


def address(text):
    local_part, at, domain = text.partition("@")
    if not at or not LOCAL_PART.fullmatch(local_part) or not DOMAIN.fullmatch(domain):
        raise argparse.ArgumentTypeError(f"{text} - incorrect email address format")
    return text.lower()


def content_type(text):
    if text not in ("text/plain", "plain", "text/html", "html"):
        raise argparse.ArgumentTypeError(f"the argument ('{text}') is invalid")
    return text if "/" in text else "text/" + text


def main():
    parser = argparse.ArgumentParser()
    for command in COMMANDS:
        name = "--" + command.__name__.replace("_", "-")
        parser.add_argument(name, action="store_const", const=command, dest="command")
    for name in ("mailname", "real-owner"):
        parser.add_argument("--" + name, type=address)
    for name, default in VALUES.items():
        parser.add_argument("--" + name, default=default)
    parser.add_argument("--content-type", type=content_type, default="text/plain")
    parser.add_argument("--ans-freq", type=int, default=10)
    parser.add_argument("--ans-limit", type=int, default=1000)
    options = parser.parse_args()
    try:
        options.command(options)
    except (OSError, sqlite3.Error) as error:
        syslog.openlog("arspctl", syslog.LOG_PID, syslog.LOG_MAIL)
        syslog.syslog(syslog.LOG_ERR, str(error))
        return 1
    return 0


sys.exit(main())
