"""arspinfo list: one line for each autoresponder, as a person and as a program read it."""

import json
import time

import pytest

from harness import INFO_PROGRAM, Result, preload
from harness.info import ASCII, HOSTILE, UTF8, in_terminal, json_bytes, put_row, unescaped
from harness.mailboxes import add_attachment_rows, run_sql
from harness.sandbox import DATABASE
from harness.waiting import until

EXPECTED = {"mailname": "b@example.org", "owner": "boss@example.org", "subject": "On holiday", "type": "text/html",
            "charset": "UTF-8", "trigger": "subj:urgent", "freq": 3, "limit": -7, "forward": "f@example.net",
            "replyto": "r@example.net", "size": 6, "attachments": 2, "replies": "2/5"}
ALL = ",".join(EXPECTED)
BY_DEFAULT = ["mailname", "subject", "type", "trigger", "freq", "size", "attachments", "replies"]
LONG = "Out of the office until the 24th of December; please write to my colleagues at the front desk instead"


@pytest.fixture
def mailboxes(sandbox):
    """A root with two autoresponders, a@other.org with the defaults and b@example.org with a value in every column."""
    sandbox.init_db()
    put_row(sandbox, "b@example.org", "boss@example.org", subject="On holiday", content_type="text/html",
            key_where="subj", keystr="urgent", ans_freq=3, ans_limit=-7, forward_to="f@example.net",
            reply_to="r@example.net", body="Gr\u00fc\u00df")
    put_row(sandbox, "a@other.org")
    add_attachment_rows(sandbox, "b@example.org", "one.pdf", "two.pdf")
    now = int(time.time())
    run_sql(sandbox, f"""INSERT INTO resp_freq VALUES ('b@example.org', 'x@example.net', 2, {now}),
        ('b@example.org', 'y@example.net', 3, {now - 80000}), ('b@example.org', 'old@example.net', 9, {now - 90000})""")
    return sandbox


def listed(sandbox, *args, env=None):
    """The objects of list --json."""
    result = sandbox.info("list", "--json", *args, env=env)
    assert (result.status, result.stderr) == (0, b""), result
    assert result.stdout.isascii()
    return json.loads(result.stdout)["autoresponders"]


def test_json_holds_every_column_of_every_row_in_order_of_the_mail_name(mailboxes):
    first, second = listed(mailboxes, "--output", ALL)
    assert second == EXPECTED
    assert (first["mailname"], first["trigger"], first["replies"]) == ("a@other.org", "no", "0/0")


@pytest.mark.parametrize(("output", "columns"), [
    ([], BY_DEFAULT), (["--output", "+OWNER,size,Limit"], [*BY_DEFAULT, "owner", "limit"]),
    (["-o", "size,MAILNAME,size"], ["size", "mailname"])])
def test_output_chooses_or_adds_columns(mailboxes, output, columns):
    assert [*listed(mailboxes, *output)[0]] == columns


@pytest.mark.parametrize(("args", "mail_names"), [
    (["--domain", "EXAMPLE.org"], ["b@example.org"]), (["--domain", "example"], []),
    ([], ["a@other.org", "b@example.org"])])
def test_domain_chooses_rows(mailboxes, args, mail_names):
    assert [row["mailname"] for row in listed(mailboxes, *args)] == mail_names


def test_raw_separates_columns_by_one_blank(mailboxes):
    result = mailboxes.info("list", "--raw", "--output", ALL)
    assert result.stdout.decode() == (
        "MAILNAME OWNER SUBJECT TYPE CHARSET TRIGGER FREQ LIMIT FORWARD REPLYTO SIZE ATTACHMENTS REPLIES\n"
        "a@other.org a@other.org Re:\\x20<request_subject> text/plain UTF-8 no 10 1000   0 0 0/0\n"
        "b@example.org boss@example.org On\\x20holiday text/html UTF-8 subj:urgent 3 -7 f@example.net r@example.net "
        "6 2 2/5\n")


@pytest.mark.parametrize("output", [[], ["--raw"]])
def test_noheadings_prints_the_rows_alone(mailboxes, output):
    heading, *rows = mailboxes.info("list", *output).stdout.splitlines(True)
    assert heading.startswith(b"MAILNAME ")
    assert mailboxes.info("list", "--noheadings", *output).stdout.splitlines(True) == rows


@pytest.mark.parametrize(("args", "message"), [
    (["--output", "SIZE,COLOUR"], "unknown column: COLOUR"), (["--output", ","], "unknown column: "),
    (["--json", "--raw"], "--json excludes --raw"), (["x\x1b"], "The following argument was not expected: x\\x1b")])
def test_wrong_option_is_one_line_on_standard_error(mailboxes, args, message):
    result = mailboxes.info("list", *args)
    assert (result.status, result.stdout, result.stderr.decode()) == (1, b"", f"arspinfo: {message}\n")


@pytest.mark.parametrize(("args", "expected"), [([], b""), (["--raw"], b""), (["--json"], {"autoresponders": []})])
def test_empty_database_has_no_lines(sandbox, args, expected):
    sandbox.init_db()
    result = sandbox.info("list", *args)
    assert (result.status, json.loads(result.stdout) if result.stdout else b"") == (0, expected)


# -- bytes of customers


@pytest.fixture
def hostile(sandbox):
    """A root whose subjects are HOSTILE, in the order of the mail names."""
    sandbox.init_db()
    for number, value in enumerate(HOSTILE):
        put_row(sandbox, f"{number:02}@example.org", subject=value)
    return sandbox


@pytest.mark.parametrize("env", [ASCII, UTF8])
def test_json_restores_every_byte(hostile, env):
    assert [json_bytes(row["subject"]) for row in listed(hostile, "-o", "subject", env=env)] == HOSTILE


@pytest.mark.parametrize("env", [ASCII, UTF8])
def test_raw_restores_every_byte(hostile, env):
    cells = hostile.info("list", "--raw", "-n", "-o", "subject", env=env).stdout.splitlines()
    assert all(cell.isascii() and b" " not in cell for cell in cells)
    once = [unescaped(cell) for cell in cells]
    assert [unescaped(cell) if b"\\x" in cell else cell for cell in once] == HOSTILE


@pytest.mark.parametrize("env", [ASCII, UTF8])
def test_table_restores_every_byte_and_shows_none_that_drives_a_terminal(hostile, env):
    lines = hostile.info("list", "-n", "-o", "subject,type", env=env).stdout.split(b"\n")[:-1]
    cells = [line.removesuffix(b"text/plain").rstrip(b" ") for line in lines]
    assert [unescaped(cell) for cell in cells] == [value.rstrip(b" ") for value in HOSTILE]
    shown = set(b"".join(lines).decode())
    assert shown <= set(map(chr, range(0x20, 0x7F))) | (set("\uef80\uef00\uefff") if env is UTF8 else set())


# -- as a person sees it


@pytest.fixture
def holiday(sandbox):
    """A root with a long subject and one of wide characters."""
    sandbox.init_db()
    put_row(sandbox, "long@example.org", subject=LONG, body="x" * 12345)
    put_row(sandbox, "wide@example.org", subject="\u4f11\u6687\u3067\u3059", key_where="body", keystr="\u00e9t\u00e9")
    return sandbox


NARROW = """\
MAILNAME         SUBJECT       TYPE       TRIGGER FREQ  SIZE ATTACHMENTS REPLIES
long@example.org Out of the of text/plain no        10 12345           0 0/0
wide@example.org \u4f11\u6687\u3067\u3059      text/plain body:\u00e9t   10     0           0 0/0
"""
WIDE = f"""\
MAILNAME         SUBJECT{' ' * 94} TYPE       TRIGGER  FREQ  SIZE ATTACHMENTS REPLIES
long@example.org {LONG} text/plain no         10 12345           0 0/0
wide@example.org \u4f11\u6687\u3067\u3059{' ' * 93} text/plain body:\u00e9t\u00e9   10     0           0 0/0
"""


@pytest.mark.parametrize(("columns", "expected"), [(80, NARROW), (200, WIDE)], ids=["80", "200"])
def test_table_fits_the_terminal(holiday, columns, expected):
    assert in_terminal(holiday, columns, "list", env=UTF8) == (0, expected.encode())


def test_pipe_gets_whole_cells_whatever_the_width_of_a_terminal(holiday):
    assert holiday.info("list", env=UTF8 | {"COLUMNS": "80"}).stdout.decode() == WIDE


def test_ascii_terminal_gets_escapes(holiday):
    status, text = in_terminal(holiday, 200, "list", "-o", "subject", "-n", "--domain", "example.org", env=ASCII)
    assert (status, text.splitlines()[1]) == (0, b"\\xe4\\xbc\\x91\\xe6\\x9a\\x87\\xe3\\x81\\xa7\\xe3\\x81\\x99")


@pytest.mark.unsanitized
def test_lack_of_memory_for_the_table_is_an_error(mailboxes):
    result = mailboxes.info("list", env=preload.environment(mailboxes, ALLOCATION_FAILS="@libsmartcols"))
    assert (result.status, result.stdout, result.stderr) == (1, b"", b"arspinfo: std::bad_alloc\n")


@pytest.mark.shared
@pytest.mark.unsanitized
def test_list_is_whole_or_an_error_when_any_allocation_fails(mailboxes):
    report = mailboxes.path("/.report")
    whole = mailboxes.info("list", "--json", env=preload.environment(mailboxes, ALLOCATION_REPORT="/.report"))
    last = int(report.read_text().split()[0])
    failures = [Result(1, b"", f"arspinfo: {message}\n".encode(), []) for message in (
        "no user popuser: Cannot allocate memory", f"cannot read {DATABASE}: out of memory", "std::bad_alloc")]
    # The first ones look up the user, where the C library itself may crash, and open the database. The last ones read
    # it and make the table.
    for number in [*range(300, 500), *range(last - 250, last + 1)]:
        result = mailboxes.info("list", "--json", env=preload.environment(
            mailboxes, ALLOCATION_FAILS=str(number), ALLOCATION_REPORT="/.report"))
        assert result in [whole, *failures] or report.read_text().endswith(" in getpwnam\n"), number


# -- many rows


@pytest.fixture
def many(sandbox):
    """A root with 2,500 autoresponders."""
    sandbox.init_db()
    run_sql(sandbox, """WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 2499)
        INSERT INTO autoresponder (mn, real_owner, subject)
        SELECT printf('%04d@example.org', i), 'a@example.org', 'Away' FROM n""")
    return sandbox


@pytest.mark.parametrize("number", [2500, 2048])
def test_raw_prints_the_heading_once_and_every_row_once(many, number):
    run_sql(many, f"DELETE FROM autoresponder WHERE mn >= '{number}'")
    rows = "".join(f"{i:04}@example.org Away\n" for i in range(number))
    assert many.info("list", "--raw", "-o", "mailname,subject").stdout.decode() == "MAILNAME SUBJECT\n" + rows


def test_table_and_json_hold_every_row_in_one_piece(many):
    names = [f"{i:04}@example.org" for i in range(2500)]
    assert [row["mailname"] for row in listed(many)] == names
    assert many.info("list", "-o", "mailname").stdout.decode().split("\n") == ["MAILNAME", *names, ""]


@pytest.mark.shared
@pytest.mark.unsanitized
@pytest.mark.parametrize("args", [(), ("--json",)])
def test_output_of_more_than_one_buffer_is_whole_or_an_error_when_any_allocation_for_it_fails(many, args):
    run_sql(many, "DELETE FROM autoresponder WHERE mn >= '0200'")
    whole = many.info("list", *args, env=preload.environment(many, ALLOCATION_REPORT="/.report"))
    last = int(many.path("/.report").read_text().split()[0])
    for number in range(last - 30, last + 1):
        result = many.info("list", *args, env=preload.environment(many, ALLOCATION_FAILS=str(number)))
        assert result in [whole, Result(1, b"", b"arspinfo: std::bad_alloc\n", [])], number


def test_reader_that_stops_does_not_hold_up_a_command(many):
    running = many.start("list", program=INFO_PROGRAM)
    wait_channel = f"/proc/{running.pid}/wchan"
    until(lambda: "pipe" in open(wait_channel).read(), "the pipe is full")
    assert many.run("--del-resp", "--mailname", "0000@example.org", timeout=5).status == 0
    assert running.running()
    assert b"0000@example.org" in running.wait().stdout
