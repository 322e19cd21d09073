"""arspinfo export: what it writes, that restore.sh puts it back, and what a hostile mail tree cannot make it do."""

import contextlib
import os
import random
import resource
import shutil
import signal
from collections import Counter

import pytest

from harness import INFO_PROGRAM, Result
from harness.attackers import moment, stopped_after
from harness.info import ASCII, in_terminal, put_row, texts
from harness.mailboxes import (DIRECTORY, FILE, MAIL_TREE, ROOT, STRANGER, add_attachment_rows, make_directories,
                               put_file, put_link, run_sql)

OUT = "/tmp/out"
MEMORY = "/dev/shm"
DATABASE_DIRECTORY = "/var/lib/quarn/mail/autoresponder"
COLUMNS = {"autoresponder": ("mn", "real_owner", "keystr", "key_where", "subject", "reply_to", "forward_to",
                             "content_type", "charset", "body", "ans_freq", "ans_limit"),
           "attachments": ("mn", "filename"), "extra_headers": ("name", "value"), "resp_freq": ("mn", "email", "num")}


def export(sandbox, *args, **options):
    """Exports to OUT in a locale of ASCII; the status must be 0 or 1."""
    options.setdefault("env", {"PATH": "/usr/sbin:/usr/bin", **ASCII})
    result = sandbox.info("export", OUT, *args, **options)
    assert result.status in (0, 1), result
    return result


def restore(sandbox, **options):
    """Removes the database and the mail tree and runs restore.sh."""
    shutil.rmtree(sandbox.path(DATABASE_DIRECTORY))
    shutil.rmtree(sandbox.path(MAIL_TREE))
    sandbox.path(MAIL_TREE).mkdir()
    sandbox.execute("/usr/bin/dirname", "/")  # provides it
    return sandbox.execute("/bin/sh", OUT + "/restore.sh", **options)


def rows(sandbox, table):
    """All rows of the table in the order of their insertion: the type of each value and its bytes in hexadecimal."""
    values = ",".join(f"typeof({name}) || ' ' || hex({name})" for name in COLUMNS[table])
    return sandbox.rows(f"SELECT {values} FROM {table} ORDER BY rowid")


def files(sandbox):
    """{path below the mail tree: content} of all files."""
    return {os.fsencode(path): content for path, (kind, _, uid, gid, content) in sandbox.tree(MAIL_TREE).items()
            if kind == "file" and (uid, gid) == sandbox.popuser}


# -- the round trip


WORDS = [b"", b"x", b"-n", b"--help", b"=", b"'", b"''\"$(id)`id`\\", b"two\nlines\r\n", b"\x1b[31m\x7f", b"\xff\xfe",
         "\u4f11\u6687 \u00e9".encode(), b"%s %n", b"*", b"~", b"#!", b"a" * 5000, b"\t \t", b"@file", b"\xc3"]
LOCAL_PARTS = ["a", "o'neil", "x&y", "-n", "_+-", "l" * 240]
FILE_NAMES = [b"report.pdf", b"-f", b"a b'c", b"two\nlines", b"\xff", b"*", b"&;|<>()#~", "\u00e9".encode(), b"x" * 250]
TEXT_COLUMNS = ("keystr", "key_where", "subject", "reply_to", "forward_to", "charset")
ARGUMENT_MAX = 131008  # bytes of a text that fits into an argument together with the name of any option
BLOB = bytearray(b"blob")  # sqlite3 stores a bytearray as a BLOB, put_row() bytes as a TEXT

ROW_DEFECTS = [
    ("its mail name is refused", {"mn": ["Upper{}@example.org", "no-at{}", "a b{}@example.org", "{}@-a.org", "{}@"]}),
    ("its owner {} is refused", {"real_owner": ["Upper@example.org", "", "a/b@example.org", "a\n@example.org"]}),
    ("a text is NULL or of another type", {"subject": [None, BLOB], "keystr": [None, BLOB], "body": [None, BLOB]}),
    ("its content type {} is refused", {"content_type": ["text/rtf", "", "TEXT/PLAIN", "html\n"]}),
    ("a number is not one of 32 bits", {"ans_freq": [None, 2**31, "many", 1.5], "ans_limit": [-2**31 - 1, BLOB]}),
    ("a text holds a NUL byte", {name: [b"a\0b"] for name in TEXT_COLUMNS}),
    ("a text is too long for an argument", {name: [b"a" * 131072] for name in TEXT_COLUMNS}),
]
NAME_REFUSED = "--add-attach cannot take its name"
FILE_DEFECTS = [(b"", NAME_REFUSED), (b".", NAME_REFUSED), (b"..", NAME_REFUSED), (b"a/b", NAME_REFUSED),
                (b'a"b', NAME_REFUSED), (b"$a", NAME_REFUSED), (b"`a`", NAME_REFUSED), (b"a\\b", NAME_REFUSED),
                (b"a\0b", NAME_REFUSED), (BLOB, "its name is no text"), (b"x" * 256, "File name too long"),
                (b"missing", "No such file or directory"), (b"directory", "it is not a regular file"),
                (b"fifo", "it is not a regular file"), (b"link", "it is not a regular file")]


class RandomDatabase:
    """A random database with its mail tree, put into a sandbox; `kept` and `lost` say what an export has to do with it.

    kept   {table: {the identifying values of a row}}, with the paths of the "files"
    lost   the lines of NOT-RESTORED
    """

    def __init__(self, sandbox, seed):
        self._random = random.Random(seed)
        self._sandbox = sandbox
        self._number = 0
        self.kept = {"autoresponder": set(), "attachments": set(), "headers": [], "files": {}}
        self.lost = []
        for _ in range(self._random.randint(0, 6)):
            self._add_mailbox()
        if self._chance(0.3):
            add_attachment_rows(sandbox, "orphan@example.org", "file")
            self._lose("orphan@example.org: attachment file: no autoresponder")
        for _ in range(self._random.randint(0, 4)):
            self._add_header()

    def _chance(self, probability):
        return self._random.random() < probability

    def _pick(self, values):
        return self._random.choice(values)

    def _text(self):
        return b"".join(self._pick(WORDS) for _ in range(self._random.randint(0, 3)))

    def _lose(self, line):
        escaped = line.encode(errors="surrogateescape") if isinstance(line, str) else line
        escaped = escaped.replace(b"\\x", b"\\x5cx")
        self.lost.append("".join(chr(byte) if 0x20 <= byte < 0x7F else f"\\x{byte:02x}" for byte in escaped))

    def _add_mailbox(self):
        self._number += 1
        mn = f"{self._pick(LOCAL_PARTS)}{self._number}@{self._pick(['example.org', 'mail.example.net', 'localhost'])}"
        row = {"mn": mn, "real_owner": self._pick([mn, mn, "boss@example.org"]), "body": self._text() + b"\0\n",
               "content_type": self._pick(["text/plain", "text/html"]), "ans_freq": self._random.randint(-9, 9),
               "ans_limit": self._pick([0, 2**31 - 1, -2**31]), **{name: self._text() for name in TEXT_COLUMNS}}
        reason = None
        if self._chance(0.25):
            reason, columns = self._pick(ROW_DEFECTS)
            name = self._pick([*columns])
            row[name] = self._pick(columns[name])
            if name == "mn":
                row[name] = row[name].format(self._number)
            reason = reason.format(row[name])
        put_row(self._sandbox, **row)
        run_sql(self._sandbox, f"INSERT INTO resp_freq VALUES ({texts(row['mn'].encode())}, 'x@example.org', 1, 1)")
        if reason is None:
            self.kept["autoresponder"].add(row["mn"].encode().hex())
        else:
            self._lose(f"{row['mn']}: {reason}")
        for _ in range(self._random.randint(0, 3)):
            self._add_attachment(row["mn"], row["real_owner"], reason is not None)

    def _add_attachment(self, mn, owner, lost_with_mailbox):
        self._number += 1
        name, reason = b"%d" % self._number + self._pick(FILE_NAMES), None
        if self._chance(0.3):
            name, reason = self._pick(FILE_DEFECTS)
        with contextlib.closing(self._sandbox.db()) as connection:
            mark = "?" if isinstance(name, bytearray) else "CAST(? AS TEXT)"
            if not connection.execute(f"INSERT OR IGNORE INTO attachments VALUES (?, {mark})", (mn, name)).rowcount:
                return
        if lost_with_mailbox and not isinstance(name, bytearray):
            reason = "its mailbox is not restored"
        if reason is None:
            self.kept["attachments"].add((mn.encode().hex(), name.hex()))
        else:
            self._lose(mn.encode() + b": attachment " + name + b": " + reason.encode())
        if not lost_with_mailbox:
            self._make_file(owner, name, kept=reason is None)

    def _make_file(self, owner, name, kept):
        local, _, domain = owner.partition("@")
        directory = f"{MAIL_TREE}/{domain}/{local}/@attachments"
        make_directories(self._sandbox, directory)
        path = os.fsencode(self._sandbox.path(directory)) + b"/" + bytes(name)
        if os.path.lexists(path.partition(b"\0")[0]):
            return
        if kept:
            content = self._random.randbytes(self._random.randint(0, 5000))
            put_file(self._sandbox, os.fsdecode(path)[len(str(self._sandbox.directory)):], content)
            self.kept["files"][os.fsencode(f"{domain}/{local}/@attachments/") + name] = content
        elif name == b"directory":
            os.mkdir(path)
        elif name == b"fifo":
            os.mkfifo(path)
        elif name == b"link":
            os.symlink("/etc/passwd", path)

    def _add_header(self):
        name = self._pick([b"X-Twice", b"x.y", b"", b"a\nb"])
        value = self._pick([b"yes", b"", b'"\\\t', "\u4f11\uef80".encode()])
        if self._chance(0.25):
            bad = self._pick([b"X-\xff", b"X-\0", BLOB])
            name, value = self._pick([(bad, value), (name, bad)])
        with contextlib.closing(self._sandbox.db()) as connection:
            marks = ["?" if isinstance(text, bytearray) else "CAST(? AS TEXT)" for text in (name, value)]
            connection.execute(f"INSERT INTO extra_headers VALUES ({','.join(marks)})", (name, value))
        if {bytes(name), bytes(value)} & {b"X-\xff", b"X-\0", bytes(BLOB)}:
            self._lose(b"extra header " + name + b": its name or value is no UTF-8 text")
        else:
            self.kept["headers"].append((f"text {name.hex().upper()}", f"text {value.hex().upper()}"))


def directory_in_memory():
    """A directory in which many small commits take little time, if a private root can be there; otherwise None."""
    unfit = os.ST_NOEXEC | os.ST_NODEV
    return MEMORY if os.path.isdir(MEMORY) and not os.statvfs(MEMORY).f_flag & unfit else None


def test_restored_database_equals_the_exported_one(make_sandbox, pytestconfig):
    sandbox = make_sandbox(parent=directory_in_memory())
    for seed in range(pytestconfig.getoption("--databases")):
        for path in (DATABASE_DIRECTORY, MAIL_TREE, OUT):
            shutil.rmtree(sandbox.path(path), ignore_errors=True)
        sandbox.path(MAIL_TREE).mkdir()
        sandbox.init_db()
        made = RandomDatabase(sandbox, seed)
        before = {table: rows(sandbox, table) for table in COLUMNS}
        result = export(sandbox)
        assert result.status == (1 if made.lost else 0), seed
        not_restored = sandbox.path(OUT + "/NOT-RESTORED")
        listed = not_restored.read_text().splitlines() if not_restored.exists() else []
        assert sorted(listed) == sorted(made.lost), seed
        assert result.stderr.decode() == "".join(f"arspinfo: not restored: {line}\n" for line in listed), seed

        result = restore(sandbox)
        assert (result.status, result.stderr) == (0, b""), (seed, result)
        after = {table: rows(sandbox, table) for table in COLUMNS}
        assert sorted(after["autoresponder"]) == sorted(
            row for row in before["autoresponder"] if row[0].split()[1].lower() in made.kept["autoresponder"]), seed
        assert {tuple(value.split()[1].lower() for value in row) for row in after["attachments"]} \
            == made.kept["attachments"], seed
        assert after["extra_headers"] == made.kept["headers"], seed
        assert after["resp_freq"] == [], seed
        assert files(sandbox) == made.kept["files"], seed


# -- what is written


SCRIPT = f"""\
#!/bin/sh
# Puts autoresponders, attachments and extra headers back with arspctl. Run it as root. It stops at the first failure
# and may be run again. Autoresponders of the same mail names are replaced. Answer counters are not restored.
set -eu
LC_ALL=C
export LC_ALL
CDPATH='' cd -P -- "$(dirname -- "$0")"
say() {{
  printf '%s\\n' "$1"
}}
if [ ! -e {DATABASE_DIRECTORY}/responder.db ]; then
  say 'a new database'
  arspctl --init-db
fi
say 'other@example.net'
arspctl --set-resp --mailname='other@example.net' --real-owner='other@example.net' --subj='Re: <request_subject>' \
--content-type='text/plain' --charset='UTF-8' --key-where='no' --key-str '' --ans-freq='10' --ans-limit='1000' \
--forward-to '' --reply-to '' <bodies/00000001
say 'user@example.org'
arspctl --set-resp --mailname='user@example.org' --real-owner='user@example.org' --subj='It'\\''s' \
--content-type='text/plain' --charset='UTF-8' --key-where='no' --key-str '' --ans-freq='10' --ans-limit='1000' \
--forward-to '' --reply-to '' <bodies/00000002
say 'user@example.org: report.pdf'
arspctl --add-attach --mailname='user@example.org' --filename='report.pdf' --source='attachments/00000001'
say 'extra headers'
arspctl --set-extra-headers <headers.json
say 'restored: 2 autoresponders, 1 attachments'
"""
WRITTEN = {
    ".": ("dir", 0o700, 0, 0, None), "bodies": ("dir", 0o700, 0, 0, None), "attachments": ("dir", 0o700, 0, 0, None),
    "bodies/00000001": ("file", 0o600, 0, 0, b""), "bodies/00000002": ("file", 0o600, 0, 0, b"Bye"),
    "attachments/00000001": ("file", 0o640, 0, 0, b"the old report"),
    "headers.json": ("file", 0o600, 0, 0, b'{\n  "X-Twice": "one",\n  "X-Twice": "two"\n}\n'),
    "restore.sh": ("file", 0o700, 0, 0, SCRIPT.encode())}


@pytest.fixture
def two(sandbox):
    """A root with two autoresponders, of which user@example.org has a body and an attachment, and two extra headers."""
    sandbox.init_db()
    put_row(sandbox, "user@example.org", subject="It's", body="Bye")
    put_row(sandbox, "other@example.net")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, FILE, b"the old report", mode=0o640)
    run_sql(sandbox, "INSERT INTO extra_headers VALUES ('X-Twice', 'one'), ('X-Twice', 'two')")
    return sandbox


def test_directory_holds_script_bodies_attachments_and_headers(two):
    result = export(two)
    assert (result.status, result.stderr) == (0, b"")
    assert result.stdout == b"2 autoresponders and 1 attachments exported; answer counters are not\n"
    assert two.tree(OUT) == WRITTEN


@pytest.mark.parametrize(("args", "mail_names"), [
    (["USER@example.org"], ["user@example.org"]), (["--domain", "Example.NET"], ["other@example.net"]),
    (["--domain", "example.net", "user@example.org"], ["other@example.net", "user@example.org"]),
    (["--domain", "example"], [])])
def test_chosen_mailboxes_are_exported_without_the_extra_headers(two, args, mail_names):
    add_attachment_rows(two, "orphan@example.com", "file")
    result = export(two, *args)
    assert (result.status, result.stderr) == (0, b"")
    assert result.stdout.endswith(b"answer counters are not, nor are the extra headers\n")
    assert restore(two).status == 0
    assert [row[0] for row in two.rows("SELECT mn FROM autoresponder ORDER BY mn")] == mail_names
    assert not two.path(OUT + "/headers.json").exists()


@pytest.mark.parametrize(("size", "status"), [(ARGUMENT_MAX, 0), (ARGUMENT_MAX + 1, 1)])
def test_text_is_exported_if_it_fits_into_an_argument(two, size, status):
    run_sql(two, f"UPDATE autoresponder SET subject = printf('%.*c', {size}, 'x') WHERE mn = 'user@example.org'")
    assert export(two).status == status
    assert restore(two).status == 0
    assert two.rows("SELECT count(*) FROM autoresponder WHERE length(subject) = ?", size) == [(1 - status,)]


@pytest.mark.parametrize("header", ["(x'582d41', 'a')", "('X-A', x'61')"])
def test_extra_header_that_is_no_text_is_left_out(two, header):
    run_sql(two, f"INSERT INTO extra_headers VALUES {header}")
    assert export(two).stderr == b"arspinfo: not restored: extra header X-A: its name or value is no UTF-8 text\n"
    assert two.tree(OUT)["headers.json"] == WRITTEN["headers.json"]


def test_restore_says_what_it_does_and_stops_at_the_first_failure(two):
    export(two)
    two.path(OUT + "/bodies/00000002").unlink()
    result = restore(two)
    assert (result.status, result.stdout) == (2, b"a new database\nother@example.net\nuser@example.org\n")
    assert [row[0] for row in two.rows("SELECT mn FROM autoresponder")] == ["other@example.net"]


@pytest.mark.parametrize(("cwd", "script"), [
    (OUT, "restore.sh"), ("/tmp", "out/restore.sh"), ("/", OUT + "/restore.sh")])
def test_restore_runs_from_any_directory(two, cwd, script):
    export(two)
    two.path("/out").mkdir()
    two.execute("/usr/bin/dirname", "/")  # provides it
    result = two.execute("/bin/sh", script, cwd=cwd, env={"PATH": "/usr/sbin:/usr/bin", "CDPATH": "/"})
    assert (result.status, result.stderr, two.path(FILE).read_bytes()) == (0, b"", b"the old report")


def test_progress_goes_to_a_terminal(sandbox):
    sandbox.init_db()
    run_sql(sandbox, """WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 101)
        INSERT INTO autoresponder (mn, real_owner, subject, keystr, body, reply_to, forward_to)
        SELECT printf('%04d@example.org', i), iif(i < 101, 'a@example.org', ''), '', '', '', '', '' FROM n""")
    assert in_terminal(sandbox, 80, "export", OUT) == (
        1, b"0 of 101 mailboxes\r100 of 101 mailboxes\r"
           b"arspinfo: not restored: 0101@example.org: its owner  is refused\n"
           b"101 of 101 mailboxes\n100 autoresponders and 0 attachments exported; answer counters are not\n")


# -- where it refuses to write


@pytest.mark.parametrize(("make", "message"), [
    (lambda root: (root.path(OUT).mkdir(), root.path(OUT + "/x").mkdir()), "/tmp/out exists and is not empty"),
    (lambda root: (root.path(OUT).mkdir(), os.chown(root.path(OUT), *STRANGER)),
     "/tmp/out can be written by another user"),
    (lambda root: (root.path(OUT).mkdir(), root.path(OUT).chmod(0o770)), "/tmp/out can be written by another user"),
    (lambda root: root.path(OUT).write_bytes(b"x"), "cannot write /tmp/out: Not a directory"),
    (lambda root: (root.path("/new").mkdir(), root.path(OUT).symlink_to("/new")),
     "cannot write /tmp/out: Not a directory"),
    (lambda root: root.path("/tmp").rmdir(), "cannot write /tmp/out: No such file or directory"),
], ids=["not empty", "of another user", "writable", "file", "link", "no parent"])
def test_directory_is_refused_and_left_as_it_is(two, make, message):
    make(two)
    before = two.tree("/tmp"), two.tree("/new")
    result = export(two)
    assert (result.status, result.stdout, result.stderr.decode()) == (1, b"", f"arspinfo: {message}\n")
    assert (two.tree("/tmp"), two.tree("/new")) == before


def test_empty_directory_is_taken_and_closed_to_others(two):
    two.path(OUT).mkdir(mode=0o755)
    assert export(two).status == 0
    assert two.tree(OUT) == WRITTEN


def test_directory_that_cannot_be_closed_to_others_is_refused(two, needs_tracing):
    two.path(OUT).mkdir(mode=0o755)
    result, _ = two.trace("export", OUT, program=INFO_PROGRAM, calls="fchmod", inject=["fchmod:error=EPERM"])
    assert (result.status, result.stderr) == (1, b"arspinfo: cannot write /tmp/out: Operation not permitted\n")


@pytest.mark.parametrize(("args", "database", "message"), [
    (["user@example.org", "nobody@example.org"], True, "nobody@example.org has no autoresponder"),
    ([], False, f"cannot open {DATABASE_DIRECTORY}/responder.db: No such file or directory")])
def test_nothing_is_made_without_a_database_or_a_mailbox(two, args, database, message):
    if not database:
        shutil.rmtree(two.path(DATABASE_DIRECTORY))
    result = export(two, *args)
    assert (result.status, result.stdout, result.stderr.decode()) == (1, b"", f"arspinfo: {message}\n")
    assert not two.path(OUT).exists()


# -- what a hostile mail tree cannot make it do


def make_sparse(sandbox, size, *offsets):
    """Makes the attachment a file with holes around six bytes at each offset."""
    put_file(sandbox, FILE)
    os.truncate(sandbox.path(FILE), size)
    with open(sandbox.path(FILE), "r+b") as file:
        for offset in offsets:
            file.seek(offset)
            file.write(b"middle")


@pytest.mark.parametrize(("make", "reason"), [
    (lambda root: put_link(root, FILE, "/srv/secret", owner=root.popuser), "it is not a regular file"),
    (lambda root: put_link(root, FILE, "/srv/secret", owner=(0, 0)), "it is not a regular file"),
    (lambda root: os.mkfifo(root.path(FILE), 0o666), "it is not a regular file"),
    (lambda root: root.path(FILE).mkdir(), "it is not a regular file"),
    (lambda root: put_file(root, FILE, b"secret", owner=(0, 0)), "Permission denied"),
    (lambda root: (root.path(DIRECTORY).rmdir(), put_link(root, DIRECTORY, "/srv", owner=root.popuser)),
     "Too many levels of symbolic links"),
    (lambda root: root.path(DIRECTORY).chmod(0), "Permission denied"),
], ids=["link", "link of root", "fifo", "directory", "file of root", "link in the path", "closed directory"])
def test_attachment_that_the_mail_user_cannot_read_is_left_out(two, make, reason):
    make_directories(two, "/srv", owner=ROOT, mode=0o755)
    put_file(two, "/srv/secret", b"secret", owner=(0, 0))
    put_file(two, "/srv/report.pdf", b"secret", owner=(0, 0), mode=0o644)
    two.path(FILE).unlink()
    make(two)
    result = export(two, timeout=10)
    line = f"user@example.org: attachment report.pdf: {reason}\n"
    assert (result.status, result.stderr.decode()) == (1, "arspinfo: not restored: " + line)
    written = two.tree(OUT)
    assert written["NOT-RESTORED"] == ("file", 0o600, 0, 0, line.encode())
    assert b"secret" not in b"".join(entry[4] or b"" for entry in written.values())
    assert restore(two).status == 0


def test_pipe_that_takes_the_place_of_an_attachment_is_not_read(two, needs_tracing):
    when = moment(two, "newfstatat", '"report.pdf"', "export", OUT, program=INFO_PROGRAM)
    shutil.rmtree(two.path(OUT))
    with stopped_after(two, "newfstatat", None, "export", OUT, when=when, program=INFO_PROGRAM) as running:
        two.path(FILE).unlink()
        os.mkfifo(two.path(FILE), 0o666)
    assert running.wait().stderr == (
        b"arspinfo: not restored: user@example.org: attachment report.pdf: it is not a regular file\n")


def test_attachment_that_becomes_shorter_is_copied_to_its_new_end(two, needs_tracing):
    when = moment(two, "openat", "attachments/00000001", "export", OUT, program=INFO_PROGRAM)
    shutil.rmtree(two.path(OUT))
    with stopped_after(two, "openat", None, "export", OUT, when=when, program=INFO_PROGRAM) as running:
        os.truncate(two.path(FILE), 7)
    assert (running.wait().status, two.path(OUT + "/attachments/00000001").read_bytes()) == (0, b"the old")


HUGE = 1 << 42


@pytest.mark.parametrize("offsets", [[], [0, HUGE // 2], [HUGE - 6]], ids=["hole", "trailing hole", "trailing data"])
def test_holes_of_a_huge_file_take_no_room(two, offsets):
    make_sparse(two, HUGE, *offsets)
    assert export(two, timeout=10).status == 0
    copy = two.path(OUT + "/attachments/00000001")
    assert (copy.stat().st_size, copy.stat().st_blocks < 100) == (HUGE, True)
    with open(copy, "rb") as file:
        for offset in offsets:
            file.seek(offset)
            assert file.read(8).rstrip(b"\0") == b"middle"


def test_mailbox_may_have_more_attachments_than_a_process_open_files(two):
    names = [f"{number:03}" for number in range(150)]
    add_attachment_rows(two, "user@example.org", *names)
    for name in names:
        put_file(two, f"{DIRECTORY}/{name}", name.encode())
    assert export(two, rlimits={resource.RLIMIT_NOFILE: 200}).status == 0
    copies = [entry[-1].decode() for path, entry in two.tree(OUT).items() if path.startswith("attachments/")]
    assert sorted(copies) == [*names, "the old report"]


@pytest.mark.parametrize("arguments", ["SEEK_DATA", "SEEK_HOLE", f"{HUGE // 2}, SEEK_SET"])
def test_attachment_whose_holes_cannot_be_found_is_left_out(two, needs_tracing, arguments):
    make_sparse(two, HUGE, HUGE // 2)
    when = moment(two, "lseek", arguments, "export", OUT, program=INFO_PROGRAM)
    result = export_disturbed(two, "lseek", when, "error=EIO")
    assert (result.status, result.stderr.decode()) == (
        1, "arspinfo: not restored: user@example.org: attachment report.pdf: cannot copy it: Input/output error\n")


@pytest.mark.parametrize(("error", "text"), [("ENOSPC", "No space left on device"), ("EDQUOT", "Disk quota exceeded")])
def test_full_disk_ends_the_export(two, needs_tracing, error, text):
    result = export_disturbed(two, "sendfile", 1, f"error={error}")
    assert (result.status, result.stderr.decode()) == (
        1, f"arspinfo: user@example.org: attachment report.pdf: cannot copy it: {text}\n")
    assert "restore.sh" not in two.tree(OUT)


def test_script_that_cannot_get_its_name_is_no_success(two, needs_tracing):
    assert export_disturbed(two, "renameat", 1, "error=EIO") == Result(
        1, b"", b"arspinfo: cannot write /tmp/out/restore.sh: Input/output error\n", [])


@pytest.mark.parametrize(("call", "arguments"), [("write", '"Bye"'), ("sendfile", "")])
def test_interrupted_copy_is_continued(two, needs_tracing, call, arguments):
    when = moment(two, call, arguments, "export", OUT, program=INFO_PROGRAM)
    assert export_disturbed(two, call, when, "error=EINTR").status == 0
    assert two.tree(OUT) == WRITTEN


@pytest.mark.parametrize("make", [
    lambda root: put_file(root, FILE, b"x" * 100_000), lambda root: make_sparse(root, 100_000, 90_000),
    lambda root: make_sparse(root, 100_000)], ids=["whole", "data after a hole", "hole"])
def test_attachment_that_is_too_large_to_be_copied_is_left_out(two, make):
    make(two)
    result = export(two, rlimits={resource.RLIMIT_FSIZE: 50_000})
    assert (result.status, result.stderr.decode()) == (
        1, "arspinfo: not restored: user@example.org: attachment report.pdf: cannot copy it: File too large\n")
    assert "attachments/00000001" not in two.tree(OUT)
    assert restore(two).status == 0


def test_write_error_leaves_no_script(two):
    run_sql(two, "UPDATE autoresponder SET body = printf('%.*c', 100000, 'x') WHERE mn = 'user@example.org'")
    result = export(two, rlimits={resource.RLIMIT_FSIZE: 50_000})
    assert (result.status, result.stdout, result.stderr.decode()) == (
        1, b"", "arspinfo: cannot write /tmp/out/bodies/00000002: File too large\n")
    assert [name for name in two.tree(OUT) if name.startswith("restore")] == []


# -- runs that are cut off


FIRST_OWN_CALL = "poll"  # the calls before it are the dynamic loader's
NEVER_FAIL = {"brk", "getuid", "geteuid", "getgid", "getegid", "getpid", "exit_group"}


def own_calls(sandbox):
    """(name, how often it was called before and with it) of each call of an export, in the order of the run."""
    _, calls = sandbox.trace("export", OUT, program=INFO_PROGRAM)
    counts, found = Counter(), []
    for call in calls:
        counts[call.name] += 1
        if counts[FIRST_OWN_CALL]:
            found.append((call.name, counts[call.name]))
    return found


def export_disturbed(sandbox, name, when, fault):
    shutil.rmtree(sandbox.path(OUT), ignore_errors=True)
    return sandbox.trace("export", OUT, program=INFO_PROGRAM, calls=name, inject=[f"{name}:{fault}:when={when}"])[0]


@pytest.mark.parametrize(("call", "arguments", "status", "message"), [
    ("setresuid", "-1, 0, -1", 1, b"arspinfo: cannot take root's rights: Operation not permitted\n"),
    ("setresgid", "-1, 0, -1", 1, b"arspinfo: cannot take root's rights: Operation not permitted\n"),
    ("setresuid", "-1, 1110, -1", -signal.SIGABRT, b""), ("setresgid", "-1, 31, -1", -signal.SIGABRT, b"")])
def test_refused_change_of_rights_ends_the_export(two, needs_tracing, call, arguments, status, message):
    when = moment(two, call, arguments, "export", OUT, program=INFO_PROGRAM)
    result = export_disturbed(two, call, when, "error=EPERM")
    assert (result.status, result.stderr) == (status, message)


@pytest.mark.unsanitized
def test_export_killed_at_any_call_has_no_script_or_is_complete(two, needs_tracing):
    complete = 0
    for name, when in own_calls(two):
        export_disturbed(two, name, when, "signal=KILL")
        if two.path(OUT + "/restore.sh").exists():
            complete += 1
            assert two.tree(OUT) == WRITTEN, (name, when)
    assert 2 < complete < 12  # from the rename on


@pytest.mark.unsanitized
@pytest.mark.parametrize("error", ["EIO", "ENOSPC"])
def test_failed_call_is_reported_or_does_no_harm(two, needs_tracing, error):
    for name, when in own_calls(two):
        if name in NEVER_FAIL:
            continue
        result = export_disturbed(two, name, when, f"error={error}")
        written, where = two.tree(OUT), (name, when, result)
        if "NOT-RESTORED" in written and "restore.sh" in written:
            assert (result.status, result.stderr.count(b"not restored: ")) == (1, 1), where
            assert {*written} - {"NOT-RESTORED"} <= {*WRITTEN}, where
            continue
        assert written == WRITTEN if result.status == 0 else "restore.sh" not in written or written == WRITTEN, where
        if result.status == -signal.SIGABRT:  # rather than going on as root
            assert name.startswith("setres"), where
        elif result.status != 0:
            assert (result.status, result.stderr.count(b"\n")) == (1, 1), where
