"""The measured commands, and how each competitor performs them.

All competitors start from the same database, files and owners and leave the same behind, which Arena.check verifies
before anything is measured. The script around the sqlite3 shell and the Python program could replace the tool.
"""

import json
from dataclasses import dataclass
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]

TOOL, SHARED, BARE_C, SHELL, PYTHON = "arspctl", "arspctl, shared libraries", "bare C", "sqlite3 script", "Python"
PROGRAMS = {TOOL: ["/usr/sbin/arspctl"], SHARED: ["/usr/sbin/arspctl-shared"], BARE_C: ["/usr/sbin/bench_bare"],
            SHELL: ["/usr/sbin/sqlite3_way.sh"], PYTHON: ["/usr/bin/python3", "/usr/sbin/python_tool.py"]}
FIXTURE = "/usr/sbin/bench_fixture"
RUNNER = "/usr/sbin/bench_runner"
SCHEMA = "/usr/sbin/schema.sql"  # for the Python program

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
MAILNAMES = "/var/qmail/mailnames"
CONF = "/etc/kel/kel.conf"
SOURCE = "/tmp/report.txt"
BODY = "/tmp/body"
HEADERS = "/tmp/headers.json"
SUBJECT = "Out of office"
TEXT = "I am away until Monday. In urgent cases write to office@example.org.\n"


@dataclass
class Case:
    """One command, ready to run.

    programs   the argument vectors by competitor
    stdin      the file that is standard input
    restored   (address, SQL, files): what a run deletes and the fixture restores before it
    """

    name: str
    programs: dict
    stdin: str = ""
    restored: tuple = ()

    def before(self):
        """The argument vector of the fixture; empty when there is nothing to restore."""
        if not self.restored:
            return []
        address, sql, files = self.restored
        return [FIXTURE, sql, attachments_of(address), str(files)]


def mailbox(number):
    return f"user{number:07}@example.org"


def attachments_of(address):
    local_part, domain = address.split("@")
    return f"{MAILNAMES}/{domain}/{local_part}/@attachments"


def schema():
    """The schema script, from the text of its C++ literal."""
    text = Path(REPOSITORY, "store", "schema.h").read_text(encoding="utf-8")
    literal = text[text.index("RESPONDER_DB_SCHEMA[]"):]
    return "".join(line.strip().rstrip(";").strip('"') for line in literal[:literal.index(";\n")].splitlines()[1:])


def rows(count, statement):
    """SQL that inserts so many rows; `i` counts them from 0."""
    return f"WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n LIMIT {count}) {statement} FROM n;"


def mailbox_rows(count, address):
    return rows(count, "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, "
                f"charset, body, ans_freq, ans_limit, real_owner, mn) SELECT '', 'no', '{SUBJECT}', '', '', "
                f"'text/html', 'UTF-8', '{TEXT}', 10, 1000, {address}, {address}")


def counter_rows(count, address, sender):
    return rows(count, f"REPLACE INTO resp_freq SELECT {address}, {sender}, 1, 1700000000")


def attachment_rows(count, address):
    return rows(count, f"REPLACE INTO attachments SELECT '{address}', printf('file%05d.txt', i)")


def headers_document(count):
    return json.dumps({f"X-Header-{number}": f"value {number}" for number in range(count)})


def _case(command, options, places, stdin="", restored=()):
    """`options` are those of the tool, `places` the arguments of programs that take them by place."""
    by_place = (BARE_C, SHELL)
    programs = {name: [*words, command, *places] if name in by_place else [*words, f"--{command}", *options]
                for name, words in PROGRAMS.items()}
    return Case(command, programs, stdin, restored)


def init_db():
    return _case("init-db", [], [schema()])


def set_resp(address):
    options = ["--mailname", address, "--real-owner", address, "--subj", SUBJECT, "--content-type", "html"]
    return _case("set-resp", options, [address, address, SUBJECT], BODY)


def del_resp(address, counters, files):
    sender = "printf('sender%07d@example.net', i)"
    sql = (mailbox_rows(1, f"'{address}'") + counter_rows(counters, f"'{address}'", sender)
           + attachment_rows(files, address))
    return _case("del-resp", ["--mailname", address], [address], restored=(address, f"BEGIN;{sql}COMMIT", files))


def add_attach(address):
    options = ["--mailname", address, "--filename", "hours.txt", "--source", SOURCE]
    return _case("add-attach", options, [address, "hours.txt", SOURCE])


def del_attach(address):
    options = ["--mailname", address, "--filename", "file00000.txt"]
    return _case("del-attach", options, [address, "file00000.txt"], restored=(address, attachment_rows(1, address), 1))


def set_extra_headers():
    return _case("set-extra-headers", [], [], HEADERS)
