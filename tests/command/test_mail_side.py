"""The other side of the database: an independent process, tests/outside/mail_side.py, which answers mail."""

import contextlib
import json
import subprocess
import sys

import pytest
from harness import Result
from harness.private_root import REPOSITORY
from harness.sandbox import DATABASE
from harness.waiting import until_it_retries

INFO, SALES, SENDER, NOW = "info@example.org", "sales@example.org", "a@example.net", 1700000000
SUCCESS = Result(0, b"", b"", [])
PLAIN_HEADERS = [["Subject", "Re: <request_subject>"], ["Reply-To", ""], ["Content-Type", "text/plain; charset=UTF-8"]]


class MailSide:
    """The process, and what it is asked."""

    def __init__(self, sandbox):
        program = REPOSITORY / "tests" / "outside" / "mail_side.py"
        uid, gid = sandbox.popuser
        self._process = subprocess.Popen([sys.executable, program, sandbox.directory, str(uid), str(gid)],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.ask("sql", "SELECT 1") == [[1]]  # connected: from here on a test may replace the file

    def begin(self, *request):
        """Sends a request without waiting for the reply."""
        print(json.dumps(request), file=self._process.stdin, flush=True)

    def reply(self):
        return json.loads(self._process.stdout.readline())

    def ask(self, *request):
        self.begin(*request)
        return self.reply()

    def answer(self, mailbox, sender=SENDER):
        return self.ask("answer", mailbox, sender, NOW)

    def counters(self):
        return self.ask("sql", "SELECT * FROM resp_freq ORDER BY mn, email")

    def leave(self):
        self._process.stdin.close()
        status = self._process.wait()
        self._process.stdout.close()
        assert status == 0


@pytest.fixture
def box(sandbox):
    """A private root with an empty database, and a file to attach."""
    sandbox.init_db()
    sandbox.path("/tmp/price list").write_text("7 apples")
    return sandbox


@pytest.fixture
def mail_side(box):
    """The mail side at work in that root."""
    side = MailSide(box)
    yield side
    side.leave()


def set_resp(box, mailbox, *options, body=b"", owner=None):
    result = box.run("--set-resp", "--mailname", mailbox, "--real-owner", owner or mailbox, *options, stdin=body)
    assert result == SUCCESS


def attach(box, mailbox, name):
    assert box.run("--add-attach", "--mailname", mailbox, "--filename", name, "--source", "/tmp/price list") == SUCCESS


def del_resp(box, mailbox):
    """It says so when there is no directory of attachments to clear; that is no failure."""
    assert box.run("--del-resp", "--mailname", mailbox).status == 0


def set_headers(box, document):
    return box.run("--set-extra-headers", stdin=document)


# -- what every command leaves


def test_an_empty_database_answers_nobody(mail_side):
    assert mail_side.answer(INFO) is None
    assert mail_side.counters() == []


def test_an_answer_has_everything_that_was_set(box, mail_side):
    set_resp(box, INFO, "--subj", "Away — until Monday", "--key-str", "price", "--key-where", "body", "--reply-to",
             "Desk <desk@example.org>", "--forward-to", "deputy@example.org", "--content-type", "html", "--charset",
             "KOI8-R", "--ans-freq", "3", body="<p>Back on Monday.\r\nП'\"</p>\n".encode())

    assert mail_side.answer(INFO) == {
        "key": ["price", "body"],
        "to": SENDER,
        "headers": [["Subject", "Away — until Monday"], ["Reply-To", "Desk <desk@example.org>"],
                    ["Content-Type", "text/html; charset=KOI8-R"]],
        "body": "<p>Back on Monday.\r\nП'\"</p>\n",
        "forward_to": "deputy@example.org",
        "attachments": {},
    }


def test_an_answer_has_the_defaults_of_what_was_not_set(box, mail_side):
    set_resp(box, INFO, body=b"Away.")

    assert mail_side.answer(INFO) == {"key": ["", "no"], "to": SENDER, "headers": PLAIN_HEADERS, "body": "Away.",
                                      "forward_to": "", "attachments": {}}


def test_attachments_can_be_read_by_the_mail_systems_user(box, mail_side):
    set_resp(box, INFO, owner="owner@example.com")
    set_resp(box, SALES)
    attach(box, INFO, "prices.txt")
    attach(box, INFO, "/home/x/Prices 2.txt")
    attach(box, SALES, "other.txt")

    assert mail_side.answer(INFO)["attachments"] == {"prices.txt": "7 apples", "Prices 2.txt": "7 apples"}


def test_a_deleted_attachment_is_not_sent_any_more(box, mail_side):
    set_resp(box, INFO)
    attach(box, INFO, "prices.txt")
    attach(box, INFO, "list.txt")

    assert box.run("--del-attach", "--mailname", INFO, "--filename", "prices.txt") == SUCCESS

    assert mail_side.answer(INFO)["attachments"] == {"list.txt": "7 apples"}


def test_every_answer_carries_the_extra_headers_in_their_order(box, mail_side):
    set_resp(box, INFO)
    set_resp(box, SALES)
    assert set_headers(box, b'{"X-Loop": "yes", "Precedence": "bulk", "X-Loop": "no"}') == SUCCESS
    expected = [*PLAIN_HEADERS, ["X-Loop", "yes"], ["Precedence", "bulk"], ["X-Loop", "no"]]

    assert mail_side.answer(INFO)["headers"] == expected
    assert mail_side.answer(SALES)["headers"] == expected


def test_after_headers_that_could_not_be_parsed_answers_carry_none(box, mail_side):
    set_resp(box, INFO)
    assert set_headers(box, b'{"X-Loop": "yes"}') == SUCCESS

    assert set_headers(box, b'{"X-Loop": "yes"').status == 1

    assert mail_side.answer(INFO)["headers"] == PLAIN_HEADERS


def test_headers_that_could_not_be_read_leave_the_answers_as_they_were(box, mail_side):
    set_resp(box, INFO)
    assert set_headers(box, b'{"X-Loop": "yes"}') == SUCCESS

    assert set_headers(box, None).status == 1

    assert mail_side.answer(INFO)["headers"] == [*PLAIN_HEADERS, ["X-Loop", "yes"]]


def test_changes_show_over_the_connection_that_is_open(box, mail_side):
    set_resp(box, INFO, body=b"first")
    assert mail_side.answer(INFO)["body"] == "first"

    set_resp(box, INFO, body=b"second")
    assert mail_side.answer(INFO)["body"] == "second"

    del_resp(box, INFO)
    assert mail_side.answer(INFO) is None


def test_an_upper_cased_address_is_the_same_mailbox(box, mail_side):
    set_resp(box, "Info@Example.ORG", body=b"Away.")

    assert mail_side.answer(INFO)["body"] == "Away."


# -- counters


def test_counters_outlive_every_change_of_the_autoresponder(box, mail_side):
    set_resp(box, INFO, "--ans-freq", "5")
    assert mail_side.ask("answers", INFO, SENDER, NOW, 3) == 3

    set_resp(box, INFO, "--ans-freq", "4", body=b"new")
    attach(box, INFO, "prices.txt")
    assert box.run("--del-attach", "--mailname", INFO, "--filename", "prices.txt") == SUCCESS
    assert set_headers(box, b'{"X-Loop": "yes"}') == SUCCESS

    assert mail_side.counters() == [[INFO, SENDER, 3, NOW]]
    assert mail_side.answer(INFO)["body"] == "new"
    assert mail_side.answer(INFO) is None  # four answers are enough
    assert mail_side.counters() == [[INFO, SENDER, 4, NOW]]


def test_deleting_an_autoresponder_takes_its_counters_and_nobody_elses(box, mail_side):
    for mailbox in (INFO, SALES):
        set_resp(box, mailbox)
        attach(box, mailbox, "prices.txt")
        mail_side.answer(mailbox)
        mail_side.answer(mailbox, "b@example.net")

    del_resp(box, INFO)

    assert mail_side.counters() == [[SALES, SENDER, 1, NOW], [SALES, "b@example.net", 1, NOW]]
    assert mail_side.ask("sql", "SELECT * FROM attachments") == [[SALES, "prices.txt"]]
    assert mail_side.answer(SALES)["attachments"] == {"prices.txt": "7 apples"}


def test_counting_starts_again_after_an_autoresponder_was_deleted(box, mail_side):
    set_resp(box, INFO, "--ans-freq", "2")
    assert mail_side.ask("answers", INFO, SENDER, NOW, 5) == 2

    del_resp(box, INFO)
    set_resp(box, INFO, "--ans-freq", "1")

    assert mail_side.ask("answers", INFO, SENDER, NOW, 5) == 1


# -- a new database


def test_a_new_database_is_found_by_a_new_connection_only(box, mail_side):
    set_resp(box, INFO, body=b"Away.")
    assert set_headers(box, b'{"X-Loop": "yes"}') == SUCCESS
    mail_side.answer(INFO)

    box.init_db()

    assert mail_side.ask("sql", "SELECT body FROM autoresponder") == [["Away."]]  # in the file that was removed
    mail_side.ask("reconnect")
    assert mail_side.answer(INFO) is None
    assert mail_side.ask("sql", "SELECT * FROM extra_headers") == []
    assert mail_side.counters() == []


def test_a_new_database_can_be_written_by_the_mail_systems_user(box, mail_side):
    box.init_db()
    set_resp(box, INFO)
    mail_side.ask("reconnect")

    assert mail_side.answer(INFO)["to"] == SENDER

    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]


# -- both at the same time

COMMANDS = {
    "set-resp": ("--set-resp", "--mailname", INFO, "--real-owner", INFO, "--subj", "New"),
    "del-resp": ("--del-resp", "--mailname", INFO),
    "add-attach": ("--add-attach", "--mailname", INFO, "--filename", "new.txt", "--source", "/tmp/price list"),
    "del-attach": ("--del-attach", "--mailname", INFO, "--filename", "prices.txt"),
    "set-extra-headers": ("--set-extra-headers",),
}


@pytest.fixture
def busy_box(box):
    """A database in which every command has something to change."""
    set_resp(box, INFO)
    attach(box, INFO, "prices.txt")
    assert set_headers(box, b'{"X-Old": "old"}') == SUCCESS
    return box


def state(mail_side):
    return {table: mail_side.ask("sql", f"SELECT * FROM {table}") for table in ("autoresponder", "attachments",
                                                                               "extra_headers")}


@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_waits_while_the_mail_side_writes(busy_box, mail_side, command):
    before = state(mail_side)
    mail_side.ask("sql", "BEGIN IMMEDIATE")
    mail_side.ask("sql", f"INSERT INTO resp_freq VALUES ('{INFO}', '{SENDER}', 1, {NOW})")
    running = busy_box.start(*COMMANDS[command], stdin=b'{"X-New": "new"}')
    until_it_retries(running)
    assert state(mail_side) == before
    mail_side.ask("sql", "COMMIT")

    assert running.wait() == SUCCESS
    assert state(mail_side) != before
    assert mail_side.counters() == ([] if command == "del-resp" else [[INFO, SENDER, 1, NOW]])


@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_waits_while_the_mail_side_reads(busy_box, mail_side, command):
    mail_side.ask("sql", "BEGIN")
    before = state(mail_side)
    running = busy_box.start(*COMMANDS[command], stdin=b'{"X-New": "new"}')
    until_it_retries(running)
    assert state(mail_side) == before
    mail_side.ask("sql", "COMMIT")

    assert running.wait() == SUCCESS
    assert state(mail_side) != before


def test_the_mail_side_waits_for_a_command_that_is_about_to_commit(busy_box, mail_side):
    with contextlib.closing(busy_box.db()) as reader:
        reader.execute("BEGIN")
        reader.execute("SELECT * FROM autoresponder").fetchall()
        running = busy_box.start(*COMMANDS["set-resp"])
        until_it_retries(running)  # it holds its lock until the reader has finished
        mail_side.begin("answer", INFO, SENDER, NOW)
        reader.execute("COMMIT")

    assert running.wait() == SUCCESS
    assert mail_side.reply()["headers"][0] == ["Subject", "New"]
    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]


def test_no_answer_goes_uncounted_while_commands_run(busy_box, mail_side):
    set_resp(busy_box, INFO, "--ans-freq", "1000")
    mail_side.begin("answers", INFO, SENDER, NOW, 100)
    for number in range(8):
        set_resp(busy_box, INFO, "--ans-freq", "1000", "--subj", str(number))
        assert set_headers(busy_box, b'{"X-Number": %d}' % number) == SUCCESS

    assert mail_side.reply() == 100
    assert mail_side.counters() == [[INFO, SENDER, 100, NOW]]
    assert mail_side.answer(INFO)["headers"] == [["Subject", "7"], *PLAIN_HEADERS[1:], ["X-Number", "7"]]


def test_the_mail_side_goes_on_after_a_command_was_killed_in_its_commit(busy_box, mail_side):
    with contextlib.closing(busy_box.db()) as reader:
        reader.execute("BEGIN")
        reader.execute("SELECT * FROM autoresponder").fetchall()
        running = busy_box.start(*COMMANDS["set-resp"])
        until_it_retries(running)
        assert busy_box.path(DATABASE + "-journal").exists()
        running.kill()

    assert mail_side.answer(INFO)["headers"] == [*PLAIN_HEADERS, ["X-Old", "old"]]
    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]
    assert mail_side.ask("sql", "PRAGMA integrity_check") == [["ok"]]
