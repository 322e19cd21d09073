"""Runs of all commands at once on 10,000 mailboxes, beside the mail side and arspinfo: every run ends, fails only as
documented, and has its effect, which load_model.py checks."""

import contextlib
import json
import multiprocessing
import os
import random
import re
import shutil
import sqlite3
import subprocess
import time
from pathlib import Path

from harness.mail_side import MailSide
from harness.mailboxes import make_directories, put_file
from harness.private_root import INFO_PROGRAM, PROGRAM
from harness.sandbox import DEFAULT_ENVIRONMENT
from harness.waiting import until

from .load_model import (FINDINGS_MEANWHILE, KEPT, MAILBOXES, OWN, PASSING, PATIENCE, SHARED, UNTOUCHED, Event, Judge,
                         attachment_path, contents, kept_row)
from .report import Report

WORKERS = len(OWN)
REQUESTS = ("read", "count")  # of two mail sides
MAILS = 100  # a second, of each
LONGEST_READ = 250  # milliseconds, on a machine without other work
TMPFS, ROOM = "/dev/shm", 512 << 20
INIT_DB_EVERY = 45  # seconds
CHUNK = 250
EXPORT = Path("/tmp/export")
# Another run has made the file, or has deleted the journal, which it takes for that of the removed file.
INIT_DB_FAILURE = re.compile(r"Unable to change .*: File exists \(17\)|Unable to re-create .*: disk I/O error")
FORK = multiprocessing.get_context("fork")


def empty_report():
    return Report("Load", ("program", "command"), ("tried", "status 0", "status 1", "beside --init-db"))


def memory_directory():
    """The directory of a tmpfs that has room for a private root and runs programs; None without one."""
    with contextlib.suppress(OSError):
        state = os.statvfs(TMPFS)
        if os.path.ismount(TMPFS) and not state.f_flag & os.ST_NOEXEC and state.f_bavail * state.f_frsize > ROOM:
            return TMPFS
    return None


def torture(sandbox, seconds):
    """Works for `seconds`; returns the report, and the milliseconds that each of the mail side's reads and counts took,
    in rising order."""
    report = empty_report()
    furnish(sandbox)
    end = time.monotonic() + seconds
    with contextlib.ExitStack() as processes:
        workers = [started(processes, Worker(sandbox, number, end).work) for number in range(WORKERS)]
        watchers = [started(processes, lambda what=what: watch(sandbox, what, end)) for what in WATCHED]
        mail_sides = {request: MailSide(sandbox) for request in REQUESTS}
        for request, side in mail_sides.items():
            side.begin(request, MAILBOXES, MAILS)
        resets = reset_now_and_then(sandbox, seconds, end)
        events = [event for worker in workers for event in worker()]
        observations = [observation for watcher in watchers for observation in watcher()]
        mails = [(*mail, request) for request, side in mail_sides.items() for mail in served(side)]
    Judge(report, sandbox, resets).judge(events, observations, mails)
    return report, {request: sorted(1000 * (end - begin) for begin, end, *_, sent in mails if sent == request)
                    for request in REQUESTS}


def served(mail_side):
    """Ends the mail side; returns its transactions."""
    mail_side.begin("sql", "SELECT 1")
    mails = mail_side.result()
    mail_side.leave()
    return mails


def started(processes, work):
    """Starts `work` in a process, which `processes` ends; returns a function that waits and returns its result."""
    receiver, sender = FORK.Pipe(duplex=False)
    process = FORK.Process(target=lambda: sender.send(work()), daemon=True)
    process.start()
    sender.close()
    processes.callback(process.join)
    return receiver.recv


# -- the database


def furnish(sandbox):
    """Makes the database with all mailboxes, and the files that nobody changes."""
    sandbox.init_db()
    sandbox.info("--help")  # puts the program into the root
    for version in (0, 1):
        put_file(sandbox, f"/tmp/source{version}", contents(version), mode=0o644)
    for mailbox in KEPT:
        directory = attachment_path(mailbox, "")
        make_directories(sandbox, directory)
        put_file(sandbox, directory + "kept", contents(0), mode=0o644)
    fill(sandbox, MAILBOXES)


def fill(sandbox, mailboxes):
    """Stores the autoresponders of the mailboxes, and the attachments that they keep, a few at a time: until a
    transaction ends, all runs wait."""
    for first in range(0, len(mailboxes), CHUNK):
        chunk = mailboxes[first:first + CHUNK]
        until(lambda: is_stored(sandbox, chunk), "mailboxes are stored", timeout=PATIENCE)


def is_stored(sandbox, mailboxes):
    """Stores the mailboxes; returns whether no other run prevented it, by its lock or, if it still uses the file that
    --init-db removed, by deleting a journal that it takes for its own."""
    with contextlib.suppress(sqlite3.OperationalError), contextlib.closing(sandbox.db()) as connection:
        connection.execute("PRAGMA busy_timeout = 0")
        connection.execute("BEGIN IMMEDIATE")
        connection.executemany(f"REPLACE INTO autoresponder VALUES ({', '.join('?' * 12)})", map(kept_row, mailboxes))
        connection.executemany("REPLACE INTO attachments VALUES (?, 'kept')",
                               [(mailbox,) for mailbox in mailboxes if mailbox in KEPT])
        connection.execute(f"PRAGMA busy_timeout = {PATIENCE * 1000}")  # for readers
        connection.execute("COMMIT")
        return True
    return False


def reset_now_and_then(sandbox, seconds, end):
    """Runs --init-db and restores the mailboxes that no worker changes. Returns the times of the begin of each reset,
    of the end of --init-db, and of the end of the reset."""
    resets = []
    count = max(1, int(seconds // INIT_DB_EVERY))
    for number in range(count):
        time.sleep(max(0, end - seconds * (1 - (number + 0.4) / count) - time.monotonic()))
        begin = time.monotonic()
        while (result := sandbox.run("--init-db")).status != 0:
            texts = [record.text for record in result.records]
            assert result.status == 1 and texts and all(map(INIT_DB_FAILURE.fullmatch, texts)), result
        made = time.monotonic()
        fill(sandbox, UNTOUCHED)
        resets.append((begin, made, time.monotonic()))
    return resets


# -- the workers


class Worker:
    """Makes one run after the other on its own mailboxes and on those that it shares."""

    def __init__(self, sandbox, number, end):
        self._sandbox, self._number, self._end = sandbox, number, end
        self._chance = random.Random(number)
        self._events = []

    def work(self):
        """Returns the Events of all runs."""
        self._sandbox.enter()
        chance = self._chance
        while time.monotonic() < self._end:
            mailbox = chance.choice(chance.choice((OWN[self._number], OWN[self._number], SHARED, PASSING)))
            commands = [self._set_resp] * 3
            if mailbox not in SHARED:
                commands.append(self._del_resp)
            if mailbox not in PASSING:
                commands += [self._add_attach, self._add_attach, self._del_attach]
            chance.choice([*commands, self._set_extra_headers])(mailbox)
        return self._events

    def _set_resp(self, mailbox):
        token = self._token()
        self._run("set-resp", mailbox, token, "--mailname", mailbox, "--real-owner", mailbox, "--subj", token,
                  stdin=contents(token))

    def _del_resp(self, mailbox):
        self._run("del-resp", mailbox, None, "--mailname", mailbox)

    def _add_attach(self, mailbox):
        name, version = self._name(), self._chance.randrange(2)
        self._run("add-attach", mailbox, (name, version), "--mailname", mailbox, "--filename", name, "--source",
                  f"/tmp/source{version}")

    def _del_attach(self, mailbox):
        name = self._name()
        self._run("del-attach", mailbox, (name, None), "--mailname", mailbox, "--filename", name)

    def _set_extra_headers(self, _):
        token = self._token()
        headers = {"X-By": token, "X-Also-By": token}
        self._run("set-extra-headers", None, token, stdin=json.dumps(headers).encode())

    def _token(self):
        return f"{self._number}.{len(self._events)}"

    def _name(self):
        return f"{self._number}.{self._chance.choice('abc')}"

    def _run(self, command, mailbox, value, *options, stdin=b""):
        begin = time.monotonic()
        status, stdout, stderr = run(PROGRAM, f"--{command}", *options, stdin=stdin)
        texts = tuple(line.partition(": ")[2] for line in stderr.splitlines())  # without "arspctl"
        self._events.append(Event(begin, time.monotonic(), command, self._number, mailbox, value, status,
                                  (*texts, *stdout.splitlines())))


def run(program, *options, stdin=b""):
    """Runs a program; returns its exit status, None if it does not end, and its two outputs."""
    try:
        done = subprocess.run([program, *options], input=stdin, capture_output=True, env=DEFAULT_ENVIRONMENT,
                              timeout=PATIENCE, check=False)
    except subprocess.TimeoutExpired:
        return None, "", ""
    return done.returncode, done.stdout.decode(), done.stderr.decode()


# -- arspinfo


def watch(sandbox, what, end):
    """Runs one command of arspinfo again and again; returns (begin, end, command, status, problem) of each run."""
    sandbox.enter()
    observations = []
    while time.monotonic() < end:
        begin = time.monotonic()
        status, stdout, stderr = run(INFO_PROGRAM, what, *WATCHED[what][0])
        observations.append((begin, time.monotonic(), what, status, WATCHED[what][1](status, stdout, stderr)))
    return observations


def problem_of_list(status, stdout, stderr):
    missing = set(UNTOUCHED) - set(stdout.splitlines())
    return f"{status}, {len(missing)} mailboxes missing, {stderr}" if status or missing or stderr else None


def problem_of_check(status, stdout, stderr):
    codes = {finding["code"] for finding in json.loads(stdout or '{"findings": []}')["findings"]}
    wrong = codes - FINDINGS_MEANWHILE
    return f"{status}, {wrong}, {stderr}" if status not in (0, 1) or wrong or stderr else None


def problem_of_export(status, _, stderr):
    """An attachment may be deleted between its row and its file."""
    complete = os.path.exists(EXPORT / "restore.sh") and len(os.listdir(EXPORT / "bodies")) >= len(UNTOUCHED)
    shutil.rmtree(EXPORT, ignore_errors=True)
    excused = all(line.startswith("arspinfo: not restored: ") and " attachment " in line
                  for line in stderr.splitlines())
    return None if complete and excused and status == int(bool(stderr)) else f"{status}, {complete}, {stderr[:500]}"


WATCHED = {
    "list": (("--raw", "--noheadings", "--output", "MAILNAME"), problem_of_list),
    "check": (("--json",), problem_of_check),
    "export": ((str(EXPORT),), problem_of_export),
}
