"""Attacks that succeeded against other programs of this kind; docs/security-tests.md lists them with all their tests.
Here are the tests that belong to no single command."""

import os
import random
from pathlib import Path

import pytest
from harness import DONE
from harness.mailboxes import (ADD, ADD_NEW, DEL, DEL_RESP, DIRECTORY, FILE, MAIL_TREE, MAILNAME, POPUSER, ROOT,
                               SET_EXTRA_HEADERS, SET_RESP, copying_from_pipe, make_directories, put_file, run_sql)
from harness.outcomes import not_moved, outcome, owner_and_mode
from harness.private_root import PROGRAM
from harness.sandbox import DATABASE, needs_native_program
from torture.scene import COMMANDS, TREES, thinning

PLACE = os.path.dirname(DATABASE)
PRECIOUS = ("file", 0o640, 0, 42, b"precious")

each_command = pytest.mark.parametrize("command", COMMANDS)
each_opening_command = pytest.mark.parametrize("args", [SET_RESP, ADD_NEW, DEL, SET_EXTRA_HEADERS, DEL_RESP],
                                               ids=lambda args: args[0])


def run(sandbox, args, **options):
    return sandbox.run(*args, stdin=b'{"X-New": "yes"}', **options)


def put_precious(sandbox):
    make_directories(sandbox, "/srv", owner=ROOT, mode=0o755)
    put_file(sandbox, "/srv/precious", PRECIOUS[4], owner=PRECIOUS[2:4], mode=PRECIOUS[1])


# -- what the caller passes on: environment, working directory, descriptors, signals


@pytest.mark.parametrize("words", [[], ["arspctl"]], ids=len)
def test_environment_is_no_command_line(sandbox, words):
    result = sandbox.start_command(PROGRAM, words, env={"--init-db": "", "--no-such-option": "", "-x": ""}).wait()

    assert (result.status, result.stdout[:19], result.stderr) == (1, b"\nAllowed commands:\n", b"")


@each_command
def test_no_file_is_opened_in_the_working_directory(scene, command, needs_tracing):
    make_directories(scene.sandbox, "/srv/here", owner=ROOT, mode=0o755)
    for name in ("DB_CONFIG", ".sqliterc", "kel.conf", "responder.db", "responder.db-journal", "passwd", "cp"):
        put_file(scene.sandbox, "/srv/here/" + name, b"planted", owner=ROOT, mode=0o755)
    before = scene.sandbox.tree("/srv")

    result, calls = scene.sandbox.trace(*scene.command.args, stdin=scene.command.stdin, calls="%file", cwd="/srv/here")

    opened = [call for call in calls if call.name in ("open", "openat", "openat2", "creat", "execve", "execveat")]
    assert len(opened) > 5
    assert [call for call in opened if "AT_FDCWD" in call.args_text or call.name != "openat"
            if not call.strings[0].startswith("/")] == []
    assert (result, scene.rows()) == (DONE, scene.command.after)
    assert scene.sandbox.tree("/srv") == before


@each_command
def test_signals_that_end_a_run_keep_their_action(scene, command, needs_tracing):
    _, calls = scene.sandbox.trace(*scene.command.args, stdin=scene.command.stdin, calls="rt_sigaction")

    changed = {call.args_text.split(", ")[0] for call in calls
               if call.pid == calls[0].pid and call.args_text.split(", ")[1].startswith("{")}
    assert {"SIGPIPE", "SIGXFSZ"} <= changed
    while_it_copies = {"SIGINT", "SIGQUIT"} if command == "add-attach" else set()
    assert changed & {"SIGTERM", "SIGHUP", "SIGINT", "SIGQUIT", "SIGALRM", "SIGUSR1", "SIGUSR2"} == while_it_copies


# -- the programs that a run starts


@each_command
def test_only_add_attach_starts_programs(scene, command, needs_tracing):
    result, calls = scene.sandbox.trace(*scene.command.args, stdin=scene.command.stdin, calls="/exec,/fork,/clone")

    copying = command == "add-attach"
    assert result == DONE
    assert [call.strings[0] for call in calls if "exec" in call.name] == [PROGRAM, *["/bin/sh", "/bin/cp"] * copying]
    assert ({call.pid for call in calls} == {calls[0].pid}) != copying


HARM = "echo >/tmp/harm"


@pytest.mark.parametrize("env", [
    {"PATH": "/tmp/evil"}, {"PATH": ":."}, {"ENV": "/tmp/evil/cp"}, {"BASH_ENV": "/tmp/evil/cp"},
    {"SHELLOPTS": "xtrace", "PS4": f"$({HARM})"},
    {f"BASH_FUNC_{name}%%": f"() {{ {HARM}; }}" for name in ("cp", "/bin/cp")},
], ids=lambda env: next(iter(env)))
def test_environment_makes_the_copy_run_nothing_else(mailbox, env):
    make_directories(mailbox, "/tmp/evil", owner=ROOT, mode=0o755)
    for name in ("sh", "cp"):
        put_file(mailbox, "/tmp/evil/" + name, f"#!/bin/sh\n{HARM}\n".encode(), owner=ROOT, mode=0o755)

    assert mailbox.run(*ADD, env={"PATH": "/usr/bin:/bin", **env}, cwd="/tmp/evil") == DONE

    assert not mailbox.path("/tmp/harm").exists()
    assert mailbox.path(FILE).read_bytes() == b"the report"


def test_copy_inherits_only_the_standard_streams(mailbox):
    def children(pid):
        return Path(f"/proc/{pid}/task/{pid}/children").read_text().split()

    needs_native_program("its descriptors are the emulator's")
    with copying_from_pipe(mailbox, "/tmp/pipe", mailname="user@example.org", filename="report.pdf") as running:
        (shell,) = children(running.pid)
        (copy,) = children(shell)
        inherited = [sorted(int(link.name) for link in Path(f"/proc/{pid}/fd").iterdir()
                            if os.path.basename(os.readlink(link)) not in ("pipe", "report.pdf"))
                     for pid in (shell, copy)]  # without what cp opens

    assert running.wait() == DONE
    assert inherited == [[0, 1, 2]] * 2


# -- what is shown


def test_message_is_one_record_with_the_bytes_of_the_argument(mailbox):
    source = "/tmp/none\n<0>kernel: \x1b[2J%n%s\r\nOct 10 00:00:00 host su: root\n"

    result = mailbox.run("--add-attach", *MAILNAME, "--filename", "report.pdf", "--source", source)

    assert outcome(result) == not_moved("Child status 1", source)
    assert result.stderr.endswith(f": Unable to move attachment {source} to {FILE}: Child status 1\n".encode())


# -- a database that the mail user made

DAMAGED_COPIES = 200 // thinning()


def damage(content, chance):
    """The content of a database with bytes changed, pages exchanged, or its end cut off."""
    damaged = bytearray(content)
    pages = len(content) // 4096
    kind = chance.choice(("cells", "byte", "header", "page", "end"))
    if kind == "end":
        return damaged[:chance.randrange(len(damaged))]
    for _ in range(chance.choice((1, 1, 2, 8, 64))):
        page, other = chance.randrange(pages) * 4096, chance.randrange(pages) * 4096
        if kind == "cells":  # in the header of the page
            damaged[(page or 100) + chance.randrange(40)] = chance.choice((0, 1, 127, 128, 255, chance.randrange(256)))
        elif kind == "byte":
            damaged[page + chance.randrange(4096)] = chance.randrange(256)
        elif kind == "header":  # of the file
            damaged[chance.randrange(16, 100)] = chance.randrange(256)
        else:
            damaged[page:page + 4096] = content[other:other + 4096]
    return damaged


@pytest.mark.parametrize("command", [name for name in COMMANDS if not name.startswith("init-db")])
def test_damaged_database_ends_each_command_with_success_or_a_record(scene, command):
    content = scene.sandbox.path(DATABASE).read_bytes()
    chance = random.Random(command)
    statuses = set()
    for number in range(DAMAGED_COPIES):
        put_file(scene.sandbox, DATABASE, damage(content, chance))
        for suffix in ("-journal", "-wal", "-shm"):
            scene.sandbox.path(DATABASE + suffix).unlink(missing_ok=True)

        result = scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, timeout=20)

        assert result.status == 0 or (result.status == 1 and result.records), (number, result)
        statuses.add(result.status)

    assert statuses == {0, 1}


@pytest.mark.parametrize(("args", "event"), [
    (SET_RESP, "INSERT ON autoresponder"), (DEL_RESP, "DELETE ON autoresponder"), (ADD_NEW, "INSERT ON attachments"),
    (DEL, "DELETE ON attachments"), (SET_EXTRA_HEADERS, "DELETE ON extra_headers")], ids=lambda value: value[0])
def test_trigger_has_no_function_that_loads_code_or_opens_a_file(mailbox_with_attachment, args, event):
    box = mailbox_with_attachment
    for function, text in (
            ("load_extension('/tmp/source')", "unsafe use of load_extension()"),
            ("fts3_tokenizer('simple', x'4141414141414141')", "unsafe use of fts3_tokenizer()"),
            ("readfile('/etc/passwd')", "no such function: readfile"),
            ("writefile('/tmp/harm', 'x')", "no such function: writefile"),
            ("edit('x', 'touch /tmp/harm')", "no such function: edit")):
        run_sql(box, f"DROP TRIGGER IF EXISTS t; CREATE TRIGGER t BEFORE {event} BEGIN SELECT {function}; END")

        status, record = outcome(run(box, args))

        assert (status, record[-len(text):]) == (1, text)
    assert not box.path("/tmp/harm").exists()


@each_opening_command
def test_named_pipe_in_place_of_the_database_is_refused_at_once(mailbox_with_attachment, args):
    mailbox_with_attachment.path(DATABASE).unlink()
    os.mkfifo(mailbox_with_attachment.path(DATABASE))

    assert outcome(run(mailbox_with_attachment, args, timeout=20)) == (
        1, f"Unable to open database {DATABASE}: disk I/O error")


def test_temporary_files_of_sqlite_are_closed_to_others_and_deleted(mailbox, needs_tracing):
    make_directories(mailbox, "/srv/temporary", mode=0o777)
    run_sql(mailbox, "CREATE TRIGGER sort AFTER INSERT ON autoresponder BEGIN UPDATE autoresponder SET subject = "
                     "(SELECT count(*) FROM (WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                     "WHERE i < 30000) SELECT DISTINCT hex(randomblob(50)) FROM n)); END")

    result, calls = mailbox.trace(*SET_RESP, calls="openat", umask=0,
                                  env={"TMPDIR": "/nonexistent", "SQLITE_TMPDIR": "/srv/temporary"})

    assert (result, mailbox.rows("SELECT subject FROM autoresponder")) == (DONE, [("30000",)])
    made = [call.args_text for call in calls if call.strings[0].startswith("/srv/temporary/")]
    assert made != []
    assert [text for text in made if "O_EXCL" not in text or not text.endswith(", 0600")] == []
    assert sorted(mailbox.tree("/srv/temporary")) == ["."]


# -- hard links


@pytest.mark.parametrize("args", [DEL, DEL_RESP], ids=lambda args: args[0])
def test_deletion_of_a_hard_link_removes_its_name_only(mailbox_with_attachment, args):
    box = mailbox_with_attachment
    put_precious(box)
    box.path(FILE).unlink()
    os.link(box.path("/srv/precious"), box.path(FILE))

    assert box.run(*args) == DONE

    assert box.tree(DIRECTORY) == {".": ("dir", 0o700, *POPUSER, None)}
    assert box.tree("/srv/precious") == {".": PRECIOUS}


@pytest.mark.parametrize(("args", "path"), [(ADD, FILE), *((SET_RESP, DATABASE + end) for end in ("-journal", "-wal"))],
                         ids=["attachment", "journal", "wal"])
def test_hard_link_is_given_away(mailbox_with_attachment, args, path):
    """A known risk where the kernel does not protect hard links, described in SECURITY.md."""
    box = mailbox_with_attachment
    put_precious(box)
    if path.endswith("-wal"):
        run_sql(box, "PRAGMA journal_mode = WAL")
    box.path(path).unlink(missing_ok=True)
    os.link(box.path("/srv/precious"), box.path(path))

    assert box.run(*args) == DONE

    assert owner_and_mode(box, "/srv/precious") == (*PRECIOUS[:2], *POPUSER)
    assert (box.path("/srv/precious").read_bytes() == b"the report") == (path == FILE)


# -- modes

OPEN_TO_OTHERS = {  # by design; cp chooses the mode of the copy, whose directory is closed
    "/var/lib/quarn/mail", PLACE, f"{MAIL_TREE}/example.com/owner/@attachments/new.pdf"}


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077], ids=oct)
@each_command
def test_command_leaves_nothing_open_to_others(scene, command, umask):
    def modes():
        return {f"{place}/{name}": entry[1] for place in TREES for name, entry in scene.sandbox.tree(place).items()}

    before = modes()

    scene.sandbox.run(*scene.command.args, stdin=scene.command.stdin, umask=umask)

    changed = dict(modes().items() - before.items())
    assert {name for name, mode in changed.items() if mode & 0o077} <= OPEN_TO_OTHERS
    assert {name for name, mode in changed.items() if mode & 0o022} == set()
    assert sorted(scene.sandbox.tree(PLACE)) == [".", "responder.db"]
