"""The other side of the database: an independent process, tests/outside/mail_side.py, which replies to mail."""

import contextlib

import pytest
from harness import DONE
from harness.mail_side import MailSide
from harness.sandbox import DATABASE
from harness.waiting import until_it_retries

INFO, SALES, SENDER, NOW = "info@example.org", "sales@example.org", "a@example.net", 1700000000
PLAIN_HEADERS = [["Subject", "Re: <request_subject>"], ["Reply-To", ""], ["Content-Type", "text/plain; charset=UTF-8"]]
COMMANDS = {
    "set-resp": ("--set-resp", "--mailname", INFO, "--real-owner", INFO, "--subj", "New"),
    "del-resp": ("--del-resp", "--mailname", INFO),
    "add-attach": ("--add-attach", "--mailname", INFO, "--filename", "new.txt", "--source", "/tmp/price list"),
    "del-attach": ("--del-attach", "--mailname", INFO, "--filename", "prices.txt"),
    "set-extra-headers": ("--set-extra-headers",),
}


class Replies(MailSide):
    """The mail side, with its most frequent requests."""

    def reply(self, mailbox=INFO, sender=SENDER):
        return self.ask("answer", mailbox, sender, NOW)

    def counters(self):
        return self.ask("sql", "SELECT * FROM resp_freq ORDER BY mn, email")

    def state(self):
        """The rows that commands change."""
        tables = ("autoresponder", "attachments", "extra_headers")
        return [self.ask("sql", f"SELECT * FROM {table}") for table in tables]


@pytest.fixture
def box(sandbox):
    """A private root with an empty database, and a file to attach."""
    sandbox.init_db()
    sandbox.path("/tmp/price list").write_text("7 apples")
    return sandbox


@pytest.fixture
def mail_side(box):
    """The mail side at work in that root."""
    side = Replies(box)
    yield side
    side.leave()


@pytest.fixture
def busy_box(box):
    """A database in which every command has something to change."""
    set_resp(box)
    attach(box)
    set_headers(box, b'{"X-Old": "old"}')
    return box


def set_resp(box, mailbox=INFO, *options, body=b"", owner=None):
    result = box.run("--set-resp", "--mailname", mailbox, "--real-owner", owner or mailbox, *options, stdin=body)
    assert result == DONE


def attach(box, mailbox=INFO, name="prices.txt"):
    assert box.run("--add-attach", "--mailname", mailbox, "--filename", name, "--source", "/tmp/price list") == DONE


def del_resp(box):
    """Deletes the autoresponder of INFO. A missing attachment directory is logged and is no failure."""
    assert box.run(*COMMANDS["del-resp"]).status == 0


def set_headers(box, document, status=0):
    assert box.run("--set-extra-headers", stdin=document).status == status


# -- replies


def test_mailbox_without_autoresponder_gets_no_reply(mail_side):
    assert mail_side.reply() is None
    assert mail_side.counters() == []


@pytest.mark.parametrize("mailbox, options, expected", [
    ("Info@Example.ORG", [], {"key": ["", "no"], "headers": PLAIN_HEADERS, "forward_to": ""}),
    (INFO, ["--subj", "Away — until Monday", "--key-str", "price", "--key-where", "body", "--reply-to",
            "Desk <desk@example.org>", "--forward-to", "deputy@example.org", "--content-type", "html", "--charset",
            "KOI8-R", "--ans-freq", "3"],
     {"key": ["price", "body"], "forward_to": "deputy@example.org",
      "headers": [["Subject", "Away — until Monday"], ["Reply-To", "Desk <desk@example.org>"],
                  ["Content-Type", "text/html; charset=KOI8-R"]]}),
], ids=["defaults", "all options"])
def test_reply_has_the_options_and_the_body(box, mail_side, mailbox, options, expected):
    body = "<p>Back on Monday.\r\nП'\"</p>\n"
    set_resp(box, mailbox, *options, body=body.encode())

    assert mail_side.reply() == {"to": SENDER, "body": body, "attachments": {}, **expected}


def test_reply_has_the_attachments_until_they_are_deleted(box, mail_side):
    set_resp(box, INFO, owner="owner@example.com")
    set_resp(box, SALES)
    attach(box)
    attach(box, INFO, "/home/x/Prices 2.txt")
    attach(box, SALES, "other.txt")
    assert mail_side.reply()["attachments"] == {"prices.txt": "7 apples", "Prices 2.txt": "7 apples"}

    assert box.run(*COMMANDS["del-attach"]) == DONE

    assert mail_side.reply()["attachments"] == {"Prices 2.txt": "7 apples"}


def test_every_reply_has_the_extra_headers_in_their_order(box, mail_side):
    set_resp(box, INFO)
    set_resp(box, SALES)
    set_headers(box, b'{"X-Loop": "yes", "Precedence": "bulk", "X-Loop": "no"}')
    expected = [*PLAIN_HEADERS, ["X-Loop", "yes"], ["Precedence", "bulk"], ["X-Loop", "no"]]

    assert mail_side.reply(INFO)["headers"] == expected
    assert mail_side.reply(SALES)["headers"] == expected


@pytest.mark.parametrize("document, left", [(b'{"X-Loop": "yes"', []), (None, [["X-Old", "old"]])],
                         ids=["invalid", "unreadable"])
def test_invalid_document_empties_the_extra_headers_and_an_unreadable_one_does_not(busy_box, mail_side, document, left):
    set_headers(busy_box, document, status=1)

    assert mail_side.reply()["headers"] == [*PLAIN_HEADERS, *left]


def test_open_connection_sees_every_change(box, mail_side):
    for body in ("first", "second"):
        set_resp(box, body=body.encode())
        assert mail_side.reply()["body"] == body

    del_resp(box)
    assert mail_side.reply() is None


# -- counters


def test_changes_of_the_autoresponder_keep_the_counters(box, mail_side):
    set_resp(box, INFO, "--ans-freq", "5")
    assert mail_side.ask("answers", INFO, SENDER, NOW, 3) == 3

    set_resp(box, INFO, "--ans-freq", "4", body=b"new")
    attach(box)
    assert box.run(*COMMANDS["del-attach"]) == DONE
    set_headers(box, b'{"X-Loop": "yes"}')

    assert mail_side.counters() == [[INFO, SENDER, 3, NOW]]
    assert mail_side.reply()["body"] == "new"
    assert mail_side.reply() is None  # four replies are the limit
    assert mail_side.counters() == [[INFO, SENDER, 4, NOW]]


def test_deleting_an_autoresponder_deletes_its_counters_only(box, mail_side):
    for mailbox in (INFO, SALES):
        set_resp(box, mailbox)
        attach(box, mailbox)
        mail_side.reply(mailbox)
        mail_side.reply(mailbox, "b@example.net")

    del_resp(box)

    assert mail_side.counters() == [[SALES, SENDER, 1, NOW], [SALES, "b@example.net", 1, NOW]]
    assert mail_side.ask("sql", "SELECT * FROM attachments") == [[SALES, "prices.txt"]]
    assert mail_side.reply(SALES)["attachments"] == {"prices.txt": "7 apples"}


def test_counting_restarts_after_an_autoresponder_was_deleted(box, mail_side):
    set_resp(box, INFO, "--ans-freq", "2")
    assert mail_side.ask("answers", INFO, SENDER, NOW, 5) == 2

    del_resp(box)
    set_resp(box, INFO, "--ans-freq", "1")

    assert mail_side.ask("answers", INFO, SENDER, NOW, 5) == 1


# -- a new database


def test_new_database_is_empty_writable_and_needs_a_new_connection(box, mail_side):
    set_resp(box, body=b"Away.")
    set_headers(box, b'{"X-Loop": "yes"}')
    mail_side.reply()

    box.init_db()

    assert mail_side.ask("sql", "SELECT body FROM autoresponder") == [["Away."]]  # in the deleted file
    mail_side.ask("reconnect")
    assert mail_side.reply() is None
    assert mail_side.ask("sql", "SELECT * FROM extra_headers") == []
    assert mail_side.counters() == []
    set_resp(box)
    assert mail_side.reply()["to"] == SENDER
    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]


# -- both at the same time


@pytest.mark.parametrize("transaction, counters", [
    (["BEGIN IMMEDIATE", f"INSERT INTO resp_freq VALUES ('{INFO}', '{SENDER}', 1, {NOW})"], [[INFO, SENDER, 1, NOW]]),
    (["BEGIN"], [])], ids=["writes", "reads"])
@pytest.mark.parametrize("command", COMMANDS)
def test_command_waits_while_the_mail_side_uses_the_database(busy_box, mail_side, command, transaction, counters):
    for statement in transaction:
        mail_side.ask("sql", statement)
    before = mail_side.state()
    running = busy_box.start(*COMMANDS[command], stdin=b'{"X-New": "new"}')
    until_it_retries(running)
    assert mail_side.state() == before
    mail_side.ask("sql", "COMMIT")

    assert running.wait() == DONE
    assert mail_side.state() != before
    assert mail_side.counters() == ([] if command == "del-resp" else counters)


@contextlib.contextmanager
def about_to_commit(box):
    """A run of --set-resp that holds its lock until the block ends: a reader delays its commit."""
    with contextlib.closing(box.db()) as reader:
        reader.execute("BEGIN")
        reader.execute("SELECT * FROM autoresponder").fetchall()
        running = box.start(*COMMANDS["set-resp"])
        until_it_retries(running)
        yield running
        reader.execute("COMMIT")


def test_mail_side_waits_for_a_command_that_is_about_to_commit(busy_box, mail_side):
    with about_to_commit(busy_box) as running:
        mail_side.begin("answer", INFO, SENDER, NOW)

    assert running.wait() == DONE
    assert mail_side.result()["headers"][0] == ["Subject", "New"]
    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]


def test_every_reply_is_counted_while_commands_run(busy_box, mail_side):
    set_resp(busy_box, INFO, "--ans-freq", "1000")
    mail_side.begin("answers", INFO, SENDER, NOW, 100)
    for number in range(8):
        set_resp(busy_box, INFO, "--ans-freq", "1000", "--subj", str(number))
        set_headers(busy_box, b'{"X-Number": %d}' % number)

    assert mail_side.result() == 100
    assert mail_side.counters() == [[INFO, SENDER, 100, NOW]]
    assert mail_side.reply()["headers"] == [["Subject", "7"], *PLAIN_HEADERS[1:], ["X-Number", "7"]]


def test_mail_side_continues_after_a_command_was_killed_during_its_commit(busy_box, mail_side):
    with about_to_commit(busy_box) as running:
        assert busy_box.path(DATABASE + "-journal").exists()
        running.kill()

    assert mail_side.reply()["headers"] == [*PLAIN_HEADERS, ["X-Old", "old"]]
    assert mail_side.counters() == [[INFO, SENDER, 1, NOW]]
    assert mail_side.ask("sql", "PRAGMA integrity_check") == [["ok"]]
