"""The commands that are measured, and how each competitor carries them out.

All find the same database, files and owners and leave the same behind; Arena.check makes sure of that before anything
is measured. The sqlite3 shell competes twice:

  script   sqlite3_way.sh, which can stand in for the tool: it takes the values as arguments and the text on standard
           input. This is what a user would write, and what "the same work" means.
  direct   the sqlite3 program alone, with everything in the statements among its arguments. It is spared the shell and
           reading the text; whoever calls it has made correct SQL of the text himself, at his own cost. The files are
           seen to by .shell, in a directory that is known already, and nobody asks whether that went well. No way to use
           the sqlite3 shell is cheaper.

So does Python: as python_tool.py, which has the tool's own command line and checks it and is started as programs are, and
as python_way.py, which takes the values by their places as they are and is started without the site's modules.
"""

import json
from dataclasses import dataclass, field
from pathlib import Path

ARSPCTL = "/usr/sbin/arspctl"
SHARED_ARSPCTL = "/usr/sbin/arspctl-shared"
BARE = "/usr/sbin/bench_bare"
FIXTURE = "/usr/sbin/bench_fixture"
RUNNER = "/usr/sbin/bench_runner"
FUNCTIONS = "/usr/sbin/bench_functions"
SCRIPT = "/usr/sbin/sqlite3_way.sh"
PYTHON_SCRIPT = "/usr/sbin/python_way.py"
PYTHON_TOOL = "/usr/sbin/python_tool.py"
PYTHON_SCHEMA = "/usr/sbin/schema.sql"

TOOL, SHARED, BARE_C, SHELL, DIRECT = "arspctl", "shared", "bare C", "script", "direct"
PYTHON, BARE_PYTHON = "Python", "bare Python"

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
DIRECTORY = "/var/lib/quarn/mail/autoresponder"
MAILNAMES = "/var/qmail/mailnames"
CONF = "/etc/kel/kel.conf"
SOURCE = "/tmp/report.txt"
BODY = "/tmp/body"
HEADERS = "/tmp/headers.json"
SUBJECT = "Out of office"


@dataclass
class Case:
    """One command, ready to run: the argument vectors by competitor.

    stdin    the file inside that is piped in
    before   the program that brings the state back before each run
    """

    name: str
    programs: dict
    stdin: str = ""
    before: list = field(default_factory=list)


def mailbox(number):
    return f"user{number:07}@example.org"


def attachments_of(address):
    local_part, domain = address.split("@")
    return f"{MAILNAMES}/{domain}/{local_part}/@attachments"


def _quoted(text):
    return "'" + text.replace("'", "''") + "'"


def _programs(command, options, places, direct):
    """`options` are the tool's, `places` the arguments of those who take them by place."""
    programs = {TOOL: [ARSPCTL, "--" + command, *options], SHARED: [SHARED_ARSPCTL, "--" + command, *options],
                BARE_C: [BARE, command, *places], SHELL: [SCRIPT, command, *places],
                PYTHON: ["/usr/bin/python3", PYTHON_TOOL, "--" + command, *options],
                BARE_PYTHON: ["/usr/bin/python3", "-I", "-S", PYTHON_SCRIPT, command, *places]}
    if direct is not None:
        programs[DIRECT] = direct
    return programs


def _sqlite3(*statements):
    return ["/usr/bin/sqlite3", "-batch", DATABASE, ".timeout 50", *statements]


def schema(repository):
    """The schema script, from the text of its C++ literal."""
    text = Path(repository, "store", "schema.h").read_text(encoding="utf-8")
    literal = text[text.index("RESPONDER_DB_SCHEMA[]"):]
    return "".join(line.strip().rstrip(";").strip('"') for line in literal[:literal.index(";\n")].splitlines()[1:])


def init_db(script):
    work = (f"umask 077; rm -f {DATABASE}; install -d -o popuser -g root -m 0755 {DIRECTORY}; "
            f"/usr/bin/sqlite3 -batch {DATABASE} \"{script}\"; exec chown popuser:popuser {DATABASE}")
    case = Case("init-db", _programs("init-db", [], [script], ["/bin/sh", "-c", work]))
    return case


def set_resp(address, body, stdin=BODY):
    """With `body` None the text is too long for an argument, and sqlite3 is not called directly."""
    options = ["--mailname", address, "--real-owner", address, "--subj", SUBJECT, "--content-type", "html"]
    direct = None if body is None else _sqlite3("BEGIN TRANSACTION", (
        "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
        f"ans_freq, ans_limit, real_owner, mn) VALUES ('', 'no', {_quoted(SUBJECT)}, '', '', 'text/html', 'UTF-8', "
        f"{_quoted(body)}, 10, 1000, {_quoted(address)}, {_quoted(address)})"), "END TRANSACTION")
    return Case("set-resp", _programs("set-resp", options, [address, address, SUBJECT], direct), stdin=stdin)


def del_resp(address, counters, files):
    direct = _sqlite3("BEGIN TRANSACTION", f"DELETE FROM attachments WHERE mn={_quoted(address)}",
                      f".shell rm -rf {attachments_of(address)}/*",
                      f"DELETE FROM autoresponder WHERE mn={_quoted(address)}",
                      f"DELETE FROM resp_freq WHERE mn={_quoted(address)}", "END TRANSACTION")
    return Case("del-resp", _programs("del-resp", ["--mailname", address], [address], direct),
                before=[FIXTURE, "mailbox", address, str(counters), str(files)])


def add_attach(address, name):
    directory = attachments_of(address)
    work = (f"[ -d {directory} ] || install -d -o popuser -g popuser -m 0700 {directory}; "
            f"/bin/cp {SOURCE} {directory}/{name} && exec chown popuser:popuser {directory}/{name}")
    direct = _sqlite3("BEGIN TRANSACTION", f"SELECT real_owner FROM autoresponder WHERE mn={_quoted(address)}",
                      ".shell " + work, f"REPLACE INTO attachments VALUES ({_quoted(address)}, {_quoted(name)})",
                      "END TRANSACTION")
    options = ["--mailname", address, "--filename", name, "--source", SOURCE]
    return Case("add-attach", _programs("add-attach", options, [address, name, SOURCE], direct))


def del_attach(address, name):
    direct = _sqlite3("BEGIN TRANSACTION", f"SELECT real_owner FROM autoresponder WHERE mn={_quoted(address)}",
                      f"DELETE FROM attachments WHERE mn={_quoted(address)} AND filename={_quoted(name)}",
                      "END TRANSACTION", f".shell rm -f {attachments_of(address)}/{name}")
    return Case("del-attach", _programs("del-attach", ["--mailname", address, "--filename", name], [address, name], direct),
                before=[FIXTURE, "attachment", address, name])


def headers_document(count):
    return json.dumps({f"X-Header-{number}": f"value {number}" for number in range(count)})


def set_extra_headers(count, stdin=HEADERS):
    direct = _sqlite3("DELETE FROM extra_headers", "BEGIN TRANSACTION",
                      f"REPLACE INTO extra_headers SELECT key, value FROM json_each({_quoted(headers_document(count))})",
                      "END TRANSACTION") if count <= 1000 else None
    return Case("set-extra-headers", _programs("set-extra-headers", [], [], direct), stdin=stdin)
