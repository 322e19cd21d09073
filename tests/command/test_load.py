"""Eight runs at once, of all kinds that change a database, on mailboxes of their own and on shared ones, beside the mail
side that counts its answers: every run ends, and every effect is there. (--init-db is not among them: it throws away
what the others did.)"""

import contextlib
import json
import random
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest
from harness.mailboxes import put_file, run_sql
from harness.private_root import REPOSITORY

AT_ONCE = 8
ROUNDS = 3
PATIENCE = 30  # seconds; a run that waits for ever is what this is about
NO_DIRECTORY = "Unable to remove autoresponder attachments: "
SHARED = ("shared0@example.org", "shared1@example.org")
SENDER = "a@example.net"
MAIL_TREE = "/var/qmail/mailnames"


class Administrator:
    """One of those who work at the same time, each with one run after the other."""

    def __init__(self, sandbox, number):
        self.sandbox = sandbox
        self.number = number
        self.own = f"own{number}@example.org"
        self.passing = f"passing{number}@example.org"
        self.shared = SHARED[number % len(SHARED)]
        self.wrong = []

    def run(self, *args, stdin=b""):
        """A run that has to succeed. Only that there is no directory to clear may be told."""
        result = self.sandbox.run(*args, stdin=stdin, timeout=PATIENCE)
        told = [record.text for record in result.records if not record.text.startswith(NO_DIRECTORY)]
        if (result.status, result.stdout, told) != (0, b"", []):
            self.wrong.append((args, result))

    def set_resp(self, mailbox, subject, body=b"Away."):
        self.run("--set-resp", "--mailname", mailbox, "--real-owner", mailbox, "--subj", subject, stdin=body)

    def add_attach(self, mailbox, name):
        self.run("--add-attach", "--mailname", mailbox, "--filename", name, "--source", "/tmp/source")

    def del_attach(self, mailbox, name):
        self.run("--del-attach", "--mailname", mailbox, "--filename", name)

    def del_resp(self, mailbox):
        self.run("--del-resp", "--mailname", mailbox)

    def set_headers(self, number):
        self.run("--set-extra-headers", stdin=json.dumps({"X-By": str(self.number), "X-Round": str(number)}).encode())

    def work(self):
        chance = random.Random(self.number)
        for number in range(ROUNDS):
            steps = [
                lambda: self.set_resp(self.shared, f"by {self.number}"),
                lambda: self.del_attach(self.shared, f"of nobody {self.number}"),
                lambda: self.set_headers(number),
                lambda: self.del_resp(self.passing),
                lambda: self.set_resp(self.passing, "soon gone"),
            ]
            chance.shuffle(steps)
            for step in steps:
                step()
            self.set_resp(self.own, f"round {number}", b"body %d" % number)
            self.add_attach(self.own, f"kept {number}")
            self.add_attach(self.own, "passing")
            self.add_attach(self.shared, f"of {self.number}, {number}")
            self.del_attach(self.own, "passing")
        self.del_resp(self.passing)
        return self.wrong


@contextlib.contextmanager
def counting_answers(sandbox, mailbox):
    """The mail side at work for the time of the block; the list gets the number of its answers at the end."""
    counted = []
    with subprocess.Popen([sys.executable, REPOSITORY / "tests" / "outside" / "answer_counter.py", sandbox.directory,
                           *map(str, sandbox.popuser), mailbox, SENDER], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as process:
        yield counted
        output, error = process.communicate()
    assert (process.returncode, error) == (0, "")
    counted.append(int(output))


@pytest.fixture
def office(sandbox):
    """A private root with the shared mailboxes, one that only the mail side writes about, and a file to attach."""
    sandbox.init_db()
    put_file(sandbox, "/tmp/source", b"the file", mode=0o644)
    for mailbox in SHARED:
        assert sandbox.run("--set-resp", "--mailname", mailbox, "--real-owner", mailbox).status == 0
    run_sql(sandbox, f"INSERT INTO resp_freq VALUES ('counted@example.org', '{SENDER}', 0, 1700000000)")
    return sandbox


def attached(mailboxes):
    """(mailbox, name) of all attachments that have to be there in the end."""
    own = [(f"own{number}@example.org", f"kept {round_}") for number in range(mailboxes) for round_ in range(ROUNDS)]
    shared = [(SHARED[number % len(SHARED)], f"of {number}, {round_}")
              for number in range(mailboxes) for round_ in range(ROUNDS)]
    return sorted(own + shared)


def test_runs_of_all_kinds_at_once_end_and_every_effect_is_there(office):
    administrators = [Administrator(office, number) for number in range(AT_ONCE)]

    with counting_answers(office, "counted@example.org") as counted, ThreadPoolExecutor(AT_ONCE) as pool:
        wrong = [run for done in pool.map(Administrator.work, administrators) for run in done]

    assert wrong == []
    assert office.rows("PRAGMA integrity_check") == [("ok",)]
    assert office.rows("SELECT mn, subject, body FROM autoresponder WHERE mn NOT LIKE 'shared%' ORDER BY mn") == [
        (f"own{number}@example.org", "round 2", "body 2") for number in range(AT_ONCE)]
    for place, mailbox in enumerate(SHARED):
        assert office.rows("SELECT subject FROM autoresponder WHERE mn = ?", mailbox)[0][0] in {
            f"by {number}" for number in range(place, AT_ONCE, len(SHARED))}
    assert office.rows("SELECT mn, filename FROM attachments ORDER BY mn, filename") == attached(AT_ONCE)
    assert_files_are_those_of_the_rows(office)
    assert_headers_are_whole_lists(office)
    assert counted[0] > 0
    assert office.rows("SELECT mn, email, num FROM resp_freq") == [("counted@example.org", SENDER, counted[0])]


def assert_files_are_those_of_the_rows(office):
    files = {path: entry for path, entry in office.tree(MAIL_TREE).items() if entry[0] == "file"}
    expected = {f"example.org/{mailbox.partition('@')[0]}/@attachments/{name}": ("file", 0o644, 1110, 31, b"the file")
                for mailbox, name in attached(AT_ONCE)}
    assert files == expected


def assert_headers_are_whole_lists(office):
    """Two runs that empty the list before either fills it leave both lists, one after the other."""
    rows = office.rows("SELECT name, value FROM extra_headers ORDER BY rowid")
    assert rows
    assert [name for name, _ in rows] == ["X-By", "X-Round"] * (len(rows) // 2)
    assert {value for _, value in rows[::2]} <= {str(number) for number in range(AT_ONCE)}
