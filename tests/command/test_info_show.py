"""arspinfo show: everything about one mailbox."""

import json
import os

import pytest

from harness.info import ASCII, HOSTILE, UTF8, in_terminal, json_bytes, put_row, texts, unescaped
from harness.mailboxes import DIRECTORY, FILE, add_attachment_rows, make_directories, put_file, put_link, run_sql

FIELDS = {"subject": b"On \xff holiday", "content_type": "text/html", "charset": "UTF-8", "keystr": "urgent",
          "key_where": "subj", "ans_freq": 3, "ans_limit": -7, "forward_to": "f@example.net",
          "reply_to": "r@example.net", "body": "Dear \u4f11\x1b[0m\r\n\nBye"}
TEXT = f"""\
Mail name:      user@example.org
Owner:          user@example.org
Subject:        On \\xff holiday
Content type:   text/html
Charset:        UTF-8
Trigger:        subject contains: urgent
Daily limit:    3
Old limit:      -7
Forward to:     f@example.net
Reply-To:       r@example.net
Body:           18 bytes
  | Dear \u4f11\\x1b[0m
  |\x20
  | Bye
Attachments:    3 in {DIRECTORY}
  gone.pdf: missing
  link: 7 bytes, root:root, 0777, 2001-09-09 01:46:40 +0000, symbolic link
  report.pdf: 14 bytes, popuser:popuser, 0640, 2001-09-09 01:46:40 +0000
Counters:       1
  x@example.net: 2 since 2001-09-09 01:46:40 +0000
Extra headers:  2
  X-Twice: one
  X-Twice: two\\x0a
"""


@pytest.fixture
def full(sandbox):
    """A root whose user@example.org has a value in every column, three attachments, a counter and extra headers."""
    sandbox.init_db()
    put_row(sandbox, "user@example.org", **FIELDS)
    put_row(sandbox, "other@example.org")
    add_attachment_rows(sandbox, "user@example.org", "gone.pdf", "report.pdf", "link")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, FILE, b"the old report", mode=0o640)
    put_link(sandbox, DIRECTORY + "/link", "/target", owner=(0, 0))
    for name in ("report.pdf", "link"):
        os.utime(sandbox.path(DIRECTORY + "/" + name), (1e9, 1e9), follow_symlinks=False)
    run_sql(sandbox, """INSERT INTO resp_freq VALUES ('user@example.org', 'x@example.net', 2, 1000000000);
        INSERT INTO resp_freq VALUES ('other@example.org', 'y@example.net', 2, 1000000000);
        INSERT INTO extra_headers VALUES ('X-Twice', 'one'), ('X-Twice', 'two' || char(10))""")
    return sandbox


def shown(sandbox, address, env=None):
    """The object of show --json."""
    result = sandbox.info("show", "--json", address, env=env)
    assert (result.status, result.stderr) == (0, b""), result
    assert result.stdout.isascii()
    return json.loads(result.stdout)


def test_text_holds_everything(full):
    result = full.info("show", "USER@example.ORG", env=UTF8)
    assert (result.status, result.stdout.decode(), result.stderr) == (0, TEXT, b"")


@pytest.mark.parametrize("columns", [80, 200])
def test_terminal_gets_the_same_as_a_pipe(full, columns):
    assert in_terminal(full, columns, "show", "user@example.org", env=UTF8) == (0, TEXT.encode())


def test_ascii_terminal_gets_escapes(full):
    expected = TEXT.replace("\u4f11", "\\xe4\\xbc\\x91").encode()
    assert in_terminal(full, 80, "show", "user@example.org", env=ASCII) == (0, expected)


def test_json_holds_everything(full):
    file = {"type": "regular file", "size": 14, "owner": "popuser", "group": "popuser", "mode": "0640",
            "mtime": 1000000000}
    link = {"type": "symbolic link", "size": 7, "owner": "root", "group": "root", "mode": "0777", "mtime": 1000000000}
    assert shown(full, "user@example.org") == {
        "mailname": "user@example.org", "owner": "user@example.org", "subject": "On \uefff holiday",
        "content_type": "text/html", "charset": "UTF-8", "key_where": "subj", "key_str": "urgent", "ans_freq": 3,
        "ans_limit": -7, "forward_to": "f@example.net", "reply_to": "r@example.net", "body": FIELDS["body"],
        "attachments": [{"filename": "gone.pdf", "path": DIRECTORY + "/gone.pdf", "problem": "missing"},
                        {"filename": "link", "path": DIRECTORY + "/link"} | link,
                        {"filename": "report.pdf", "path": FILE} | file],
        "counters": [{"sender": "x@example.net", "replies": 2, "since": 1000000000}],
        "extra_headers": [{"name": "X-Twice", "value": "one"}, {"name": "X-Twice", "value": "two\n"}]}


@pytest.mark.parametrize("body", [b"", b"no line feed", b"\xff\0\r\n\x1b[m\n", b"x" * 3_000_000],
                         ids=["empty", "text", "bytes", "large"])
def test_body_comes_byte_for_byte(sandbox, body):
    sandbox.init_db()
    put_row(sandbox, "user@example.org", body=body)
    result = sandbox.info("show", "--body", "user@example.org")
    assert (result.status, result.stdout, result.stderr) == (0, body, b"")


@pytest.mark.parametrize(("where", "shown_as"), [
    ("no", "every message"), ("subj", "subject contains: a"), ("body", "body contains: a"),
    ("x\n", "every message (unknown place x\\x0a)")])
def test_trigger_is_described(sandbox, where, shown_as):
    sandbox.init_db()
    put_row(sandbox, "user@example.org", key_where=where, keystr="a")
    assert f"\nTrigger:        {shown_as}\n" in sandbox.info("show", "user@example.org").stdout.decode()


def test_file_of_unknown_owners_has_their_numbers(full):
    os.chown(full.path(FILE), 4321, 1234)
    assert b", 4321:1234, " in full.info("show", "user@example.org").stdout
    assert [(entry["owner"], entry["group"]) for entry in shown(full, "user@example.org")["attachments"][2:]] == [
        ("4321", "1234")]


def test_directory_that_popuser_cannot_read_is_a_problem_of_each_attachment(full):
    full.path(DIRECTORY).chmod(0)
    assert {entry["problem"] for entry in shown(full, "user@example.org")["attachments"]} == {"Permission denied"}


@pytest.mark.parametrize(("args", "message"), [
    (["x@\x1bexample.org"], "x@\\x1bexample.org has no autoresponder"), ([b"\xff"], "\\xff has no autoresponder"),
    ([], "address is required"), (["a@example.org", "b"], "The following argument was not expected: b"),
    (["a@example.org", "--json", "--body"], "--json excludes --body")])
def test_failure_is_one_line_on_standard_error(full, args, message):
    result = full.info("show", *args)
    assert (result.status, result.stdout, result.stderr.decode()) == (1, b"", f"arspinfo: {message}\n")


def test_mail_name_is_looked_up_as_given_before_it_is_looked_up_in_lower_case(sandbox):
    sandbox.init_db()
    for mail_name in ("Two@example.org", "two@example.org", "Upper@example.org"):
        put_row(sandbox, mail_name)
    for address, found in [("Two@example.org", "Two@example.org"), ("TWO@example.org", "two@example.org"),
                           ("Upper@example.org", "Upper@example.org")]:
        assert shown(sandbox, address)["mailname"] == found


# -- bytes of customers and of the mail user


@pytest.fixture
def hostile(sandbox):
    """A root whose user@example.org has HOSTILE in the body, as names of attachments, as counters and as headers."""
    sandbox.init_db()
    put_row(sandbox, "user@example.org", body=b"".join(HOSTILE))
    run_sql(sandbox, "".join(f"""INSERT INTO attachments VALUES ('user@example.org', {texts(value)});
        INSERT INTO resp_freq VALUES ('user@example.org', {texts(value)}, -1, 9223372036854775807);
        INSERT INTO extra_headers VALUES ({texts(value, value)});""" for value in HOSTILE))
    return sandbox


@pytest.mark.parametrize("env", [ASCII, UTF8])
def test_json_restores_every_byte(hostile, env):
    found = shown(hostile, "user@example.org", env=env)
    assert json_bytes(found["body"]) == b"".join(HOSTILE)
    assert [json_bytes(item["filename"]) for item in found["attachments"]] == sorted(HOSTILE)
    assert [json_bytes(item["sender"]) for item in found["counters"]] == sorted(HOSTILE)
    assert [json_bytes(item["value"]) for item in found["extra_headers"]] == HOSTILE


@pytest.mark.parametrize("env", [ASCII, UTF8])
def test_text_restores_every_byte_and_shows_none_that_drives_a_terminal(hostile, env):
    text = hostile.info("show", "user@example.org", env=env).stdout
    characters = set(text.decode()) - {"\n"}
    assert characters <= set(map(chr, range(0x20, 0x7F))) | (set("\uef80\uef00\uefff") if env is UTF8 else set())
    lines = text.split(b"\n")[:-1]
    headers = lines[lines.index(b"Extra headers:  %d" % len(HOSTILE)) + 1:]
    assert [unescaped(line) for line in headers] == [b"  " + value + b": " + value for value in HOSTILE]
    # No byte of a customer begins a line: all lines but the fields are indented.
    assert len([line for line in lines if not line.startswith(b"  ")]) == 14


HIDDEN = [0x061C, 0x180E, 0x200B, 0x200F, 0x2028, 0x202E, 0x2060, 0x206F, 0xFEFF, 0xFFF9, 0xFFFB, 0xE0000, 0xE007F]
BESIDE_THEM = [0x061B, 0x180D, 0x200A, 0x2010, 0x2027, 0x202F, 0x205F, 0x2070, 0xFFFC]


def test_characters_that_hide_or_reorder_others_are_escaped(sandbox):
    sandbox.init_db()
    put_row(sandbox, "user@example.org", subject="".join(map(chr, HIDDEN + BESIDE_THEM)))
    subject = sandbox.info("show", "user@example.org", env=UTF8).stdout.decode().splitlines()[2]
    escapes = "".join(f"\\x{byte:02x}" for code in HIDDEN for byte in chr(code).encode())
    assert subject == "Subject:        " + escapes + "".join(map(chr, BESIDE_THEM))
