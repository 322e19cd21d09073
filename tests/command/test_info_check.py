"""arspinfo check: each finding is made by real means, reported, and gone after the command that it printed."""

import json
import os
import re
import shutil
import signal
import sqlite3
from dataclasses import dataclass
from typing import Callable

import pytest
from harness import INFO_PROGRAM
from harness.attackers import moment, stopped_after
from harness.mailboxes import DIRECTORY, FILE, MAIL_TREE, POPUSER, ROOT, STRANGER, add_attachment_rows
from harness.mailboxes import add_autoresponder, corrupt_page_of, make_directories, put_file, put_link, run_sql
from harness.sandbox import DATABASE

USER = "user@example.org"
PLACE = os.path.dirname(DATABASE)
JOURNAL = DATABASE + "-journal"
SOUND = b"0 errors, 0 warnings, 0 notes\n"


@pytest.fixture
def sound(sandbox):
    """A root with an autoresponder, an attachment and extra headers that the tool has made."""
    sandbox.init_db()
    put_file(sandbox, "/tmp/report.pdf", b"the report", owner=ROOT, mode=0o644)
    for words, stdin in ((("--set-resp", "--mailname", USER, "--real-owner", USER), b"On holiday.\n"),
                         (("--add-attach", "--mailname", USER, "--filename", "report.pdf",
                           "--source", "/tmp/report.pdf"), b""),
                         (("--set-extra-headers",), b'{"Auto-Submitted": "auto-replied", "X-One": "1"}')):
        assert sandbox.run(*words, stdin=stdin).status == 0
    return sandbox


# The meaning of each code in these tests, as a regular expression.
IN_DATABASE = f"cannot read {DATABASE}: "
WITH_FILE = f"has the attachment {DIRECTORY}/"
PLACES = {"owner": r"belongs to (0|1110|4321):\d+ instead of 1110:", "mode": "has mode 0[0-7]{3} instead of "}
MEANINGS = {
    "db-missing": f"cannot open {DATABASE}: No such file or directory",
    "db-unreadable": f"cannot open {DATABASE}: (Permission denied|Not a directory)|"
                     + IN_DATABASE + "unable to open database file",
    "db-schema": f"{DATABASE} has not the tables of arspctl --init-db",
    "db-damaged": "is damaged: ((row 1 missing from|wrong # of entries in) index respfreq|[*]{3} in database main .*)|"
                  + IN_DATABASE + "(database disk image is malformed|file is not a database)",
    "db-wal": f"{DATABASE} uses a write-ahead log, which only a writer can read",
    "db-journal": "was left behind by an interrupted command|is no regular file|"
                  + IN_DATABASE + "an interrupted command left a journal that must be rolled back first",
    "db-type": "is no regular file", "db-dir-type": "is no directory",
    "db-link": "is a symbolic link", "db-dir-link": "is a symbolic link",
    "db-owner": PLACES["owner"] + "31", "db-dir-owner": PLACES["owner"] + "0",
    "db-mode": PLACES["mode"] + "0600", "db-dir-mode": PLACES["mode"] + "0755",
    "mailname-refused": "is no mail name that --set-resp stores",
    "owner-harmful": r"has the owner (`id`|[.]{2})@example[.]org, which --add-attach refuses",
    "owner-refused": "has the owner a b@example.org, which is no address that --set-resp stores",
    "owner-differs": "has the owner other@example.org: --del-attach leaves the files of attachments in "
                     f"{MAIL_TREE}/example.org/other/@attachments",
    "content-type": "has the content type image/png", "trigger-word": "looks for its trigger in head",
    "number": r"has the (daily limit (many|-2147483649)|old limit (|2147483648|-2147483649))",
    "header-injection": "has line feeds or control bytes in (subject: Hi\r\nBcc: a@example.org|reply_to: a\uef00b\n|"
                        "forward_to: \a{100}[.]{3}|charset: \x7f)",
    "counter-orphan": r"has answer counters \(1\) and no autoresponder",
    "attachment-orphan": "has the attachment \na'b\"c[$]d and no autoresponder",
    "header-name": "is no name of a header", "header-twice": "is given more than once",
    "header-value": "has line feeds or control bytes: a\nBcc: b",
    "auto-submitted": "is not among the extra headers: replies can start a loop",
    "attachment-missing": f"has the attachment {MAIL_TREE}/example.org/(user|other)/@attachments/.*: "
                          "(No such file or directory|File name too long)",
    "attachment-type": WITH_FILE + "report.pdf, which is no regular file",
    "attachment-empty": WITH_FILE + "report.pdf, which is empty",
    "attachment-owner": WITH_FILE + "report.pdf, which belongs to user 4321",
    "attachment-unreadable": WITH_FILE + "report.pdf, which the mail user cannot read",
    "file-orphan": "is not the attachment of any mailbox",
    "link": "is a symbolic link that (arspctl does not follow|root does not own)",
    "attachments-mode": "lets other users in: mode 075[05]",
    "attachments-unreadable": "cannot be read by the mail user",
}


def check(sandbox):
    """The findings as (severity, code, object): repair; the exit status must agree with them."""
    result = sandbox.info("check", "--json")
    assert (result.stderr, result.records) == (b"", [])
    document = json.loads(result.stdout)
    for entry in document["findings"]:
        assert re.fullmatch(MEANINGS[entry["code"]], entry["meaning"], re.DOTALL), entry
    found = {(entry["severity"], entry["code"], entry["object"]): entry["repair"] for entry in document["findings"]}
    severities = [severity for severity, _, _ in found]
    assert document["summary"] == {name + "s": severities.count(name) for name in ("error", "warning", "note")}
    assert result.status == int(set(severities) - {"note"} != set())
    return found


def repair(sandbox, command):
    result = sandbox.execute("/bin/sh", "-c", command)
    assert result.status == 0, (command, result)


# -- means


def sql(script):
    return lambda sandbox: run_sql(sandbox, script)


def set_column(column, value):
    return sql(f"UPDATE autoresponder SET {column} = {value}")


def add_header(name, value="'1'"):
    return sql(f"INSERT INTO extra_headers VALUES ({name}, {value})")


def both(*means):
    return lambda sandbox: [make(sandbox) for make in means]


def mode(path, bits):
    return lambda sandbox: sandbox.path(path).chmod(bits)


def owner(path, ids):
    return lambda sandbox: os.chown(sandbox.path(path), *ids)


def file(path, content=b"x", **options):
    return lambda sandbox: put_file(sandbox, path, content, **options)


def removed(path):
    return lambda sandbox: sandbox.path(path).unlink()


def link(path, target, ids):
    return lambda sandbox: put_link(sandbox, path, target, ids)


def replaced_by_link(path, ids, target="/var/aside"):
    def make(sandbox):
        sandbox.path(path).rename(sandbox.path(target))
        put_link(sandbox, path, target, ids)

    return make


def fifo(path):
    def make(sandbox):
        sandbox.path(path).unlink(missing_ok=True)
        os.mkfifo(sandbox.path(path))

    return make


def killed_writer(database=DATABASE):
    """Leaves a journal that must be rolled back: the writer had begun to change the database."""

    def make(sandbox):
        child = os.fork()
        if child == 0:
            with sqlite3.connect(sandbox.path(database), isolation_level=None) as writer:
                writer.executescript("PRAGMA cache_size = 1; BEGIN; UPDATE extra_headers SET value = 'lost';"
                                     "INSERT INTO resp_freq WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
                                     "FROM n WHERE i < 9999) SELECT 'lost', i, 1, 1 FROM n;")
                os.kill(os.getpid(), signal.SIGKILL)
        os.waitpid(child, 0)
        assert sandbox.info("list").status == 1

    return make


def unindexed(script):
    """Runs the SQL while the index of resp_freq is out of the schema."""

    def make(sandbox):
        saved = sandbox.rows("SELECT * FROM sqlite_schema WHERE name = 'respfreq'")
        run_sql(sandbox, "PRAGMA writable_schema = ON; DELETE FROM sqlite_schema WHERE name = 'respfreq'")
        run_sql(sandbox, script)
        with sandbox.db() as connection:
            connection.execute("PRAGMA writable_schema = ON")
            connection.executemany("INSERT INTO sqlite_schema VALUES (?, ?, ?, ?, ?)", saved)
        connection.close()

    return make


def other_owner(sandbox):
    make_directories(sandbox, f"{MAIL_TREE}/example.org/other/@attachments")
    put_file(sandbox, f"{MAIL_TREE}/example.org/other/@attachments/report.pdf", b"of the other")
    run_sql(sandbox, "UPDATE autoresponder SET real_owner = 'other@example.org'")
    sandbox.path(FILE).unlink()


def mailbox_as_link(ids):
    """The mailbox's directory is moved away and linked."""
    return replaced_by_link(os.path.dirname(DIRECTORY), ids, f"{MAIL_TREE}/moved")


@dataclass
class Case:
    make: Callable
    severity: str
    code: str
    object: str = USER
    others: tuple = ()  # further findings of the same means
    left: tuple = ()  # what the repair leaves behind, to be repaired in its turn


LINKED = replaced_by_link(DATABASE, ROOT, PLACE + "/linked")
COUNTER = f"INSERT INTO resp_freq VALUES ('{USER}', 'a@example.org', 1, 1)"
EMPTY = (("note", "auto-submitted"), ("note", "file-orphan"))  # of a new database beside an old mail tree
CASES = [
    Case(removed(DATABASE), "error", "db-missing", DATABASE, left=EMPTY),
    Case(both(owner(DATABASE, ROOT), mode(DATABASE, 0o600)), "error", "db-unreadable", DATABASE,
         others=[("error", "db-owner")]),
    Case(both(owner(DATABASE, ROOT), file(JOURNAL)), "error", "db-unreadable", DATABASE,
         others=[("error", "db-owner"), ("error", "db-journal")]),
    Case(mode(DATABASE, 0), "error", "db-unreadable", DATABASE, others=[("error", "db-mode")]),
    Case(both(owner(PLACE, ROOT), mode(PLACE, 0o700)), "error", "db-unreadable", DATABASE,
         others=[("error", "db-dir-mode"), ("error", "db-dir-owner")]),
    Case(sql("DROP TABLE resp_freq"), "error", "db-schema", DATABASE, left=EMPTY),
    Case(lambda sandbox: corrupt_page_of(sandbox, "autoresponder"), "error", "db-damaged", DATABASE, left=EMPTY),
    Case(both(sql("INSERT INTO resp_freq VALUES ('none@example.org', 'a@example.org', 1, 1)"),
              lambda sandbox: corrupt_page_of(sandbox, "autoresponder")), "error", "db-damaged", DATABASE, left=EMPTY),
    Case(both(sql("INSERT INTO extra_headers VALUES ('no name', 'a')"),
              lambda sandbox: corrupt_page_of(sandbox, "respfreq")), "error", "db-damaged", DATABASE, left=EMPTY),
    Case(file(DATABASE, b"no database" * 100), "error", "db-damaged", DATABASE, left=EMPTY),
    Case(unindexed(COUNTER), "error", "db-damaged", DATABASE),
    Case(both(sql(COUNTER), unindexed("DELETE FROM resp_freq")), "error", "db-damaged", DATABASE),
    Case(sql("PRAGMA journal_mode = WAL"), "error", "db-wal", DATABASE),
    Case(killed_writer(), "error", "db-journal", JOURNAL),
    Case(both(LINKED, killed_writer(PLACE + "/linked")), "error", "db-journal", DATABASE,
         others=[("warning", "db-link")]),
    Case(both(killed_writer(), LINKED), "error", "db-journal", JOURNAL, others=[("warning", "db-link")]),
    Case(both(killed_writer(), removed(DATABASE)), "error", "db-journal", JOURNAL, others=[("error", "db-missing")],
         left=EMPTY),
    Case(file(JOURNAL), "error", "db-journal", JOURNAL),
    Case(file(JOURNAL, owner=ROOT), "error", "db-journal", JOURNAL),
    Case(fifo(JOURNAL), "error", "db-journal", JOURNAL),
    Case(fifo(DATABASE), "error", "db-type", DATABASE, left=EMPTY),
    Case(replaced_by_link(DATABASE, POPUSER), "error", "db-link", DATABASE, others=[("error", "db-unreadable")],
         left=EMPTY),
    Case(LINKED, "warning", "db-link", DATABASE),
    Case(owner(DATABASE, (POPUSER[0], 0)), "error", "db-owner", DATABASE),
    Case(mode(DATABASE, 0o644), "error", "db-mode", DATABASE),
    Case(replaced_by_link(PLACE, ROOT), "warning", "db-dir-link", PLACE),
    Case(both(replaced_by_link(PLACE, ROOT), removed("/var/aside/responder.db"),
              lambda sandbox: sandbox.path("/var/aside").rmdir()), "warning", "db-dir-link", PLACE,
         others=[("error", "db-missing")], left=EMPTY),
    Case(both(lambda sandbox: sandbox.path(PLACE).rename(sandbox.path("/var/aside")), file(PLACE)),
         "error", "db-dir-type", PLACE, others=[("error", "db-unreadable")], left=EMPTY),
    Case(owner(PLACE, (0, 0)), "error", "db-dir-owner", PLACE),
    Case(mode(PLACE, 0o777), "error", "db-dir-mode", PLACE),
    Case(sql("INSERT INTO autoresponder (mn, real_owner) VALUES ('No Address', 'b@example.org')"),
         "error", "mailname-refused", "No Address"),
    Case(sql("INSERT INTO autoresponder (mn, real_owner) VALUES ('Upper@example.org', 'b@example.org')"),
         "error", "mailname-refused", "Upper@example.org"),
    Case(sql(f"INSERT INTO autoresponder (mn, real_owner) VALUES (replace(printf('%{10**6}d', 1), ' ', 'x'), '')"),
         "error", "mailname-refused", "x" * (10**6 - 1) + "1"),
    Case(set_column("real_owner", "'`id`@example.org'"), "error", "owner-harmful"),
    Case(set_column("real_owner", "'..@example.org'"), "error", "owner-harmful"),
    Case(set_column("real_owner", "'a b@example.org'"), "error", "owner-refused"),
    Case(other_owner, "note", "owner-differs", left=[("note", "file-orphan")]),
    Case(both(set_column("real_owner", "'other@example.org'"), sql("DELETE FROM attachments")), "note", "owner-differs",
         others=[("note", "file-orphan")]),
    Case(both(set_column("real_owner", "'other@example.org'"), sql("UPDATE attachments SET filename = '../x'")),
         "note", "owner-differs", others=[("note", "file-orphan"), ("error", "attachment-missing")]),
    Case(set_column("content_type", "'image/png'"), "warning", "content-type"),
    Case(set_column("key_where", "'head'"), "warning", "trigger-word"),
    Case(set_column("ans_freq", "'many'"), "warning", "number"),
    Case(set_column("ans_limit", str(2**31)), "warning", "number"),
    Case(set_column("ans_limit", str(-2**31 - 1)), "warning", "number"),
    Case(set_column("ans_limit", "NULL"), "warning", "number"),
    Case(set_column("subject", "'Hi' || char(13, 10) || 'Bcc: a@example.org'"), "error", "header-injection"),
    Case(set_column("reply_to", "'a' || char(0) || 'b' || char(10)"), "error", "header-injection"),
    Case(set_column("forward_to", f"replace(printf('%{10**6}d', 1), ' ', char(7))"), "error", "header-injection"),
    Case(set_column("charset", "char(127)"), "error", "header-injection"),
    Case(sql("INSERT INTO resp_freq VALUES ('it''s gone@example.org', 'a@example.org', 1, 1)"),
         "note", "counter-orphan", "it's gone@example.org"),
    Case(sql("INSERT INTO attachments VALUES ('gone@example.org', char(10) || 'a''b\"c$d')"),
         "warning", "attachment-orphan", "gone@example.org"),
    Case(add_header("'X Two'"), "error", "header-name", "X Two"),
    Case(add_header("'x-one'"), "warning", "header-twice", "x-one"),
    Case(add_header("'X-Two'", "'a' || char(10) || 'Bcc: b'"), "error", "header-value", "X-Two"),
    Case(sql("DELETE FROM extra_headers WHERE name = 'Auto-Submitted'"), "note", "auto-submitted", "Auto-Submitted"),
    Case(removed(FILE), "error", "attachment-missing"),
    Case(sql(f"INSERT INTO attachments VALUES ('{USER}', '../x')"), "error", "attachment-missing"),
    Case(sql(f"INSERT INTO attachments VALUES ('{USER}', '-x' || char(9, 200) || '''$')"),
         "error", "attachment-missing"),
    Case(sql(f"INSERT INTO attachments VALUES ('{USER}', '{'x' * 256}')"), "error", "attachment-missing"),
    Case(both(removed(FILE), lambda sandbox: make_directories(sandbox, FILE)), "error", "attachment-type",
         left=[("note", "file-orphan")]),
    Case(file(FILE, b""), "warning", "attachment-empty"),
    Case(both(owner(FILE, STRANGER), mode(FILE, 0o644)), "warning", "attachment-owner"),
    Case(mode(FILE, 0), "error", "attachment-unreadable"),
    Case(both(owner(FILE, ROOT), mode(FILE, 0o600)), "error", "attachment-unreadable"),
    Case(file(DIRECTORY + "/a b$c"), "note", "file-orphan", DIRECTORY + "/a b$c"),
    Case(link(DIRECTORY + "/link", "/tmp/report.pdf", ROOT), "note", "file-orphan", DIRECTORY + "/link"),
    Case(both(lambda sandbox: make_directories(sandbox, f"{MAIL_TREE}/example.net/gone/@attachments"),
              file(f"{MAIL_TREE}/example.net/gone/@attachments/x")),
         "note", "file-orphan", f"{MAIL_TREE}/example.net/gone/@attachments/x"),
    Case(both(removed(FILE), link(FILE, "/tmp/report.pdf", POPUSER)), "error", "link", FILE,
         left=[("error", "attachment-missing")]),
    Case(mailbox_as_link(POPUSER), "error", "link", os.path.dirname(DIRECTORY), left=[("error", "attachment-missing")]),
    Case(replaced_by_link(MAIL_TREE + "/example.org", STRANGER), "error", "link", MAIL_TREE + "/example.org",
         left=[("error", "attachment-missing")]),
    Case(mode(DIRECTORY, 0o750), "warning", "attachments-mode", DIRECTORY),
    Case(both(owner(DIRECTORY, ROOT), mode(DIRECTORY, 0o755)), "warning", "attachments-mode", DIRECTORY),
    Case(mode(DIRECTORY, 0), "error", "attachments-unreadable", DIRECTORY),
    Case(both(owner(DIRECTORY, ROOT), mode(DIRECTORY, 0o700)), "error", "attachments-unreadable", DIRECTORY,
         left=[("error", "attachment-missing")]),
    Case(both(owner(MAIL_TREE + "/example.org", ROOT), mode(MAIL_TREE + "/example.org", 0o700)),
         "error", "attachments-unreadable", MAIL_TREE + "/example.org"),
]


def names(findings):
    return {(severity, code) for severity, code, _ in findings}


@pytest.mark.parametrize("case", CASES, ids=[f"{number}-{case.code}" for number, case in enumerate(CASES)])
def test_finding_is_reported_until_its_repair_has_run(sound, case):
    assert check(sound) == {}
    case.make(sound)
    found = check(sound)
    finding = (case.severity, case.code, case.object)
    assert finding in found and names(found) == {finding[:2], *case.others}
    repair(sound, found[finding])
    assert finding not in check(sound)
    while left := check(sound):  # worst first; each repair takes at least one away
        assert names(left) <= {*case.others, *case.left}
        repair(sound, next(iter(left.values())))
        assert len(check(sound)) < len(left) + len(case.left)


IN_MAILBOX = [case for case in CASES if DIRECTORY in case.object or case.object == USER and "attach" in case.code]


@pytest.mark.parametrize("case", IN_MAILBOX, ids=lambda case: case.code)
def test_repair_harms_nothing_where_the_mail_user_exchanges_a_directory(sound, case):
    case.make(sound)
    commands = check(sound).values()
    domain, victim = MAIL_TREE + "/example.org", "/var/victim"
    shutil.copytree(sound.path(domain), sound.path(victim), symlinks=True)  # of root
    sound.path(domain).rename(sound.path("/var/own"))
    put_link(sound, domain, victim, POPUSER)
    before = sound.tree(victim)
    for command in commands:
        sound.execute("/bin/sh", "-c", command)  # it may fail
    assert sound.tree(victim) == before


def test_interrupted_command_is_rolled_back_by_the_repair(sound):
    rows = sound.rows("SELECT * FROM extra_headers")
    killed_writer()(sound)
    (command,) = check(sound).values()
    repair(sound, command)
    assert sound.rows("SELECT * FROM extra_headers") == rows


def test_interrupted_command_is_rolled_back_before_the_database_takes_the_place_of_its_link(sound):
    rows = sound.rows("SELECT * FROM extra_headers")
    both(LINKED, killed_writer(PLACE + "/linked"))(sound)
    repair(sound, check(sound)["warning", "db-link", DATABASE])
    assert sound.rows("SELECT * FROM extra_headers") == rows
    assert check(sound) == {}


def test_rows_and_files_of_a_sound_root_survive_the_repairs_around_them(sound):
    rows = [sound.rows(f"SELECT * FROM {table}") for table in ("autoresponder", "attachments", "extra_headers")]
    tree = sound.tree(MAIL_TREE)
    add_autoresponder(sound, "No Address")
    put_file(sound, DIRECTORY + "/orphan")
    run_sql(sound, "INSERT INTO extra_headers VALUES ('x-one', '2'), ('X Two', '3')")
    for command in check(sound).values():
        repair(sound, command)
    assert [sound.rows(f"SELECT * FROM {table}") for table in ("autoresponder", "attachments", "extra_headers")] == rows
    assert sound.tree(MAIL_TREE) == tree


def test_attachments_of_another_owner_are_copied_to_the_mailbox(sound):
    other_owner(sound)
    (command,) = check(sound).values()
    repair(sound, command)
    assert sound.path(FILE).read_bytes() == b"of the other"
    assert sound.rows("SELECT real_owner FROM autoresponder") == [(USER,)]


def test_a_repair_that_is_too_long_for_one_command_runs_no_attachment(sound):
    other = f"{MAIL_TREE}/example.org/other/@attachments"
    make_directories(sound, other)
    put_file(sound, other + "/first", b"#!/bin/sh\n: >/tmp/owned\n", mode=0o755)
    attachments = [str(number) + "\1" * 90 for number in range(1500)]
    for name in attachments:
        os.link(sound.path(other + "/first"), sound.path(f"{other}/{name}"))
    add_attachment_rows(sound, USER, *attachments)
    set_column("real_owner", "'other@example.org'")(sound)
    result = sound.execute("/bin/sh", stdin=check(sound)["note", "owner-differs", USER].encode())
    assert result.status != 0 and not sound.path("/tmp/owned").exists()


@pytest.mark.parametrize("means", [sql("DROP TABLE resp_freq"), file(DATABASE, b"no database" * 100)])
def test_an_unusable_database_is_kept_beside_the_new_one(sound, means):
    means(sound)
    put_file(sound, DATABASE + ".set-aside", b"an older one")
    content = sound.path(DATABASE).read_bytes()
    repair(sound, next(iter(check(sound).values())))
    assert sound.path(DATABASE + ".set-aside").read_bytes() == content
    assert sound.path(DATABASE + ".set-aside.~1~").read_bytes() == b"an older one"


def test_damage_is_described_in_the_words_of_the_integrity_check(sound):
    corrupt_page_of(sound, "attach")  # reading the rows would only say that the image is malformed
    (finding,) = json.loads(sound.info("check", "--json").stdout)["findings"]
    assert finding["meaning"].startswith("is damaged: *** in database main ***")


@pytest.mark.parametrize(("bits", "code", "names"), [
    (0o755, "attachments-mode", ["", ".copy", ".set-aside"]), (0o700, "attachments-unreadable", ["", ".set-aside"])])
def test_a_replaced_attachment_directory_is_kept_beside_it(sound, bits, code, names):
    both(owner(DIRECTORY, ROOT), mode(DIRECTORY, bits))(sound)
    command = next(command for (_, found, _), command in check(sound).items() if found == code)
    assert command.endswith("".join(f" {DIRECTORY}{name}" for name in names))
    content = sound.tree(DIRECTORY)
    repair(sound, command)
    assert sound.tree(DIRECTORY + ".set-aside") == content
    assert not sound.path(DIRECTORY + ".copy").exists()


@pytest.mark.parametrize("means", [
    mailbox_as_link(ROOT), both(removed(FILE), link(FILE, "/tmp/report.pdf", ROOT)),  # links that arspctl follows
    set_column("(content_type, key_where, ans_freq, ans_limit)", f"('text/html', 'subj', {-2**31}, {2**31 - 1})"),
    set_column("key_where", "'body'"),
    both(sql("DELETE FROM attachments"), lambda sandbox: sandbox.path(MAIL_TREE).rename(sandbox.path("/var/aside"))),
    file(MAIL_TREE + "/file"), file(MAIL_TREE + "/example.org/file")])
def test_what_arspctl_takes_or_ignores_is_no_finding(sound, means):
    means(sound)
    assert check(sound) == {}


def test_header_names_are_printable_ascii_without_a_colon(sound):
    for name in ("''", "'X Y'", "'X:Y'", "char(127)", "char(233)", "'!~'"):
        add_header(name)(sound)
    assert {entry for _, code, entry in check(sound) if code == "header-name"} == {"", "X Y", "X:Y", "\x7f", "\xe9"}


def test_mailbox_whose_name_holds_an_at_sign_is_not_taken_for_another(sound):
    make_directories(sound, MAIL_TREE + "/c/a@b")
    orphan = MAIL_TREE + "/b@c/a/@attachments/x"
    make_directories(sound, os.path.dirname(orphan))
    put_file(sound, orphan)
    assert [*check(sound)] == [("note", "file-orphan", orphan)]


@pytest.mark.parametrize(("means", "code"), [
    (replaced_by_link(MAIL_TREE + "/example.org", STRANGER), "link"),
    (both(owner(MAIL_TREE + "/example.org", ROOT), mode(MAIL_TREE + "/example.org", 0o700)), "attachments-unreadable")],
    ids=["link", "mode"])
def test_place_on_the_path_of_several_mailboxes_is_one_finding(sound, means, code):
    add_autoresponder(sound, "other@example.org")
    means(sound)
    assert [code for _, code, _ in check(sound)] == [code]


@pytest.mark.parametrize(("means", "path"), [
    (file(JOURNAL, b""), JOURNAL), (file(DIRECTORY + "/x"), "x"), (mode(DIRECTORY, 0), DIRECTORY)],
    ids=["journal", "file", "directory"])
def test_what_disappears_during_the_check_is_no_finding(sound, needs_tracing, means, path):
    means(sound)
    assert check(sound)
    when = moment(sound, "newfstatat", f'"{path}".*SYMLINK_NOFOLLOW', "check", program=INFO_PROGRAM)
    result, _ = sound.trace("check", program=INFO_PROGRAM, inject=[f"newfstatat:error=ENOENT:when={when}"])
    assert result.stdout == SOUND


@pytest.mark.parametrize(("content", "codes"), [(b"", []), (b"x", ["db-journal"])])
def test_journal_that_is_replaced_during_the_check_is_a_finding_if_it_is_hot(sound, needs_tracing, content, codes):
    file(JOURNAL, b"")(sound)
    assert check(sound)
    with stopped_after(sound, "newfstatat", JOURNAL, "check", "--json", program=INFO_PROGRAM) as running:
        removed(JOURNAL)(sound)
        file(JOURNAL, content)(sound)
    assert [finding["code"] for finding in json.loads(running.wait().stdout)["findings"]] == codes


def test_a_database_that_is_in_use_has_no_journal_left_behind(sound):
    with sound.db() as writer:
        writer.execute("BEGIN IMMEDIATE")
        writer.execute("DELETE FROM extra_headers WHERE name = 'X-One'")
        assert sound.path(JOURNAL).exists()
        assert check(sound) == {}
        writer.execute("ROLLBACK")
    writer.close()


def test_text_is_one_line_per_finding_worst_first_and_a_summary(sound):
    assert sound.info("check").stdout == SOUND
    run_sql(sound, "UPDATE autoresponder SET subject = 'a' || char(10) || 'error x', key_where = char(27) || '[2J';"
                   "INSERT INTO resp_freq VALUES ('gone@example.org', 'a@example.org', 1, 1)")
    put_file(sound, DIRECTORY + "/a\nb")
    result = sound.info("check", env={"LC_ALL": "C.UTF-8"})
    assert (result.status, result.stderr) == (1, b"")
    lines = [line.partition("; repair: ")[0] for line in result.stdout.decode("ascii").splitlines()]
    assert lines == [
        rf"error header-injection: {USER} has line feeds or control bytes in subject: a\x0aerror x",
        rf"warning trigger-word: {USER} looks for its trigger in \x1b[2J",
        rf"note file-orphan: {DIRECTORY}/a\x0ab is not the attachment of any mailbox",
        "note counter-orphan: gone@example.org has answer counters (1) and no autoresponder",
        "1 error, 1 warning, 2 notes"]


def test_a_check_that_cannot_be_made_ends_with_status_2(sound):
    sound.popuser_exists(False)
    results = [sound.info("check"), sound.info("check", "--unknown")]
    sound.popuser_exists(True)
    with sound.db() as writer:
        writer.execute("BEGIN EXCLUSIVE")
        results.append(sound.info("check"))
    writer.close()
    for result in results:
        assert (result.status, result.stdout, result.stderr.count(b"\n")) == (2, b"", 1), result
        assert result.stderr.startswith(b"arspinfo: ")
