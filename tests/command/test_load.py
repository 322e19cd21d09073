"""Eight administrators at once change shared mailboxes and their own, beside the mail side that counts replies: every
run ends, and every effect is there. (--init-db is not among the commands: it discards what the others did.)"""

import json
import random
from concurrent.futures import ThreadPoolExecutor

import pytest
from harness.mail_side import mail_side_at_work
from harness.mailboxes import MAIL_TREE, POPUSER, attachment_rows, put_file, run_sql

AT_ONCE = 8
ROUNDS = 3
PATIENCE = 30  # seconds; a deadlock would last for ever
NO_DIRECTORY = "Unable to remove autoresponder attachments: "
SHARED = ("shared0@example.org", "shared1@example.org")
COUNTED, SENDER = "counted@example.org", "a@example.net"


class Administrator:
    """Makes one run after the other; `wrong` lists the runs that did not succeed."""

    def __init__(self, sandbox, number):
        self.sandbox = sandbox
        self.number = number
        self.own = f"own{number}@example.org"
        self.passing = f"passing{number}@example.org"
        self.shared = SHARED[number % len(SHARED)]
        self.wrong = []

    def run(self, *args, stdin=b""):
        """Runs the tool, which may log only that a directory to clear is missing."""
        result = self.sandbox.run(*args, stdin=stdin, timeout=PATIENCE)
        logged = [record.text for record in result.records if not record.text.startswith(NO_DIRECTORY)]
        if (result.status, result.stdout, logged) != (0, b"", []):
            self.wrong.append((args, result))

    def set_resp(self, mailbox, subject, body=b"Away."):
        self.run("--set-resp", "--mailname", mailbox, "--real-owner", mailbox, "--subj", subject, stdin=body)

    def add_attach(self, mailbox, name):
        self.run("--add-attach", "--mailname", mailbox, "--filename", name, "--source", "/tmp/source")

    def del_attach(self, mailbox, name):
        self.run("--del-attach", "--mailname", mailbox, "--filename", name)

    def del_resp(self, mailbox):
        self.run("--del-resp", "--mailname", mailbox)

    def set_headers(self):
        headers = {"X-By": str(self.number), "X-Also-By": str(self.number)}
        self.run("--set-extra-headers", stdin=json.dumps(headers).encode())

    def work(self):
        chance = random.Random(self.number)
        for round_ in range(ROUNDS):
            steps = [
                lambda: self.set_resp(self.shared, f"by {self.number}"),
                lambda: self.del_attach(self.shared, f"missing {self.number}"),
                self.set_headers,
                lambda: self.del_resp(self.passing),
                lambda: self.set_resp(self.passing, "soon gone"),
            ]
            chance.shuffle(steps)
            for step in steps:
                step()
            self.set_resp(self.own, f"round {round_}", b"body %d" % round_)
            self.add_attach(self.own, f"kept {round_}")
            self.add_attach(self.own, "passing")
            self.add_attach(self.shared, f"of {self.number}, {round_}")
            self.del_attach(self.own, "passing")
        self.del_resp(self.passing)
        return self.wrong


@pytest.fixture
def office(sandbox):
    """A private root with the shared mailboxes, one that only the mail side writes about, and a file to attach."""
    sandbox.init_db()
    put_file(sandbox, "/tmp/source", b"the file", mode=0o644)
    for mailbox in SHARED:
        assert sandbox.run("--set-resp", "--mailname", mailbox, "--real-owner", mailbox).status == 0
    run_sql(sandbox, f"INSERT INTO resp_freq VALUES ('{COUNTED}', '{SENDER}', 0, 1700000000)")
    return sandbox


def test_concurrent_runs_of_all_kinds_end_and_every_effect_is_there(office):
    administrators = [Administrator(office, number) for number in range(AT_ONCE)]

    with mail_side_at_work(office) as mail_side:
        mail_side.begin("count", COUNTED, SENDER)
        with ThreadPoolExecutor(AT_ONCE) as pool:
            wrong = [run for done in pool.map(Administrator.work, administrators) for run in done]
        mail_side.begin("sql", "SELECT 1")
        counted = mail_side.result()

    assert wrong == []
    assert office.rows("PRAGMA integrity_check") == [("ok",)]
    assert office.rows("SELECT mn, subject, body FROM autoresponder WHERE mn NOT LIKE 'shared%' ORDER BY mn") == [
        (administrator.own, "round 2", "body 2") for administrator in administrators]
    for place, mailbox in enumerate(SHARED):
        assert office.rows("SELECT subject FROM autoresponder WHERE mn = ?", mailbox)[0][0] in {
            f"by {number}" for number in range(place, AT_ONCE, len(SHARED))}
    assert counted > 0
    assert office.rows("SELECT mn, email, num FROM resp_freq") == [(COUNTED, SENDER, counted)]
    assert_attachments_are_complete(office, administrators)
    assert_headers_are_whole_lists(office)


def assert_attachments_are_complete(office, administrators):
    attached = [(mailbox, name.format(round_)) for administrator in administrators for round_ in range(ROUNDS)
                for mailbox, name in ((administrator.own, "kept {}"),
                                      (administrator.shared, f"of {administrator.number}, {{}}"))]
    assert attachment_rows(office) == sorted(attached)
    files = {path: entry for path, entry in office.tree(MAIL_TREE).items() if entry[0] == "file"}
    assert files == {f"example.org/{mailbox.partition('@')[0]}/@attachments/{name}":
                     ("file", 0o644, *POPUSER, b"the file") for mailbox, name in attached}


def assert_headers_are_whole_lists(office):
    """Two runs that empty the list before either fills it leave both lists, one after the other."""
    rows = office.rows("SELECT name, value FROM extra_headers ORDER BY rowid")
    assert rows
    assert [name for name, _ in rows] == ["X-By", "X-Also-By"] * (len(rows) // 2)
    assert [value for _, value in rows[::2]] == [value for _, value in rows[1::2]]
    assert {value for _, value in rows} <= {str(number) for number in range(AT_ONCE)}
