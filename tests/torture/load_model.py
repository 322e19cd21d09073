"""The mailboxes of the load, and what its runs may leave of them."""

import json
import re
import zlib
from collections import defaultdict
from dataclasses import dataclass, replace

from harness.mailboxes import MAIL_TREE, POPUSER

PATIENCE = 60  # seconds; a deadlock would last for ever
WORKERS, SPACING = 64, 500  # every 500th mailbox belongs to the same worker; most belong to none
MAILBOXES = [f"box{number:05}@d{number % 10}.example.org" for number in range(10_000)]
OWN = [MAILBOXES[number::SPACING] for number in range(WORKERS)]  # changed by one worker
SHARED = MAILBOXES[WORKERS::2000]  # changed by all, never deleted
PASSING = MAILBOXES[WORKERS + 1::2000]  # changed and deleted by all, without attachments
UNTOUCHED = [mailbox for number, mailbox in enumerate(MAILBOXES)
             if number % SPACING >= WORKERS and mailbox not in (*SHARED, *PASSING)]
KEPT = set(UNTOUCHED[::10])  # those with an attachment
SENDER = "sender@example.net"  # of all mails

# Of a check beside running commands: rows and files are not read at one moment, and a copy begins with an empty file.
FINDINGS_MEANWHILE = {"attachment-empty", "attachment-missing", "auto-submitted", "file-orphan", "header-twice"}

NO_DIRECTORY = re.compile("Unable to remove autoresponder attachments: .*No such file or directory.*")
# Of a run beside --init-db, which uses the removed file, no file, or the new one without its tables or its owner. A run
# on the removed file takes the journal of the new one for its own, and may roll it back into the removed file.
BESIDE_INIT_DB = re.compile(
    ".*: (no such table: .*|attempt to write a readonly database|unable to open database file|disk I/O error"
    "|database disk image is malformed|not an error)"
    "|Error (removing attachments|selecting autoresponder) for mailname .*|No autoresponder found for mailname .*")


def contents(mark):
    """The body of a reply, or the content of a file, that has this mark."""
    line = f"{mark}\n".encode()
    return line * (100 + zlib.crc32(line) % 150)  # a page of the database, or some


def kept_row(mailbox):
    """The row of table autoresponder that a mailbox has at the start."""
    return mailbox, "", "no", "kept", "", "", "text/plain", "UTF-8", contents("kept").decode(), 10, 1000, mailbox


def attachment_path(mailbox, name):
    local_part, _, domain = mailbox.partition("@")
    return f"{MAIL_TREE}/{domain}/{local_part}/@attachments/{name}"


@dataclass(frozen=True, slots=True)
class Event:
    """One run of a worker; `value` is the mark of what it stores, or the name and version of an attachment."""

    begin: float
    end: float
    command: str
    worker: int
    mailbox: str | None
    value: object
    status: int | None
    texts: tuple


@dataclass(frozen=True)
class Window:
    """The time of a reset: until `end` a run may still use the removed file, until `filled` mailboxes are missing."""

    begin: float
    end: float
    filled: float


@dataclass(frozen=True)
class Box:
    """A mailbox, or the part of a shared one that belongs to one worker: its reply, its attachments, their files."""

    reply: str | None
    names: frozenset = frozenset()
    files: frozenset = frozenset()  # of (name, version)

    def after(self, event):
        """The exit status of an undisturbed run, and what it leaves."""
        if event.command == "set-resp":
            return 0, replace(self, reply=event.value)
        if event.command == "del-resp":
            return 0, Box(None)
        if self.reply is None:
            return 1, self
        name, version = event.value
        others = frozenset(file for file in self.files if file[0] != name)
        if event.command == "add-attach":
            return 0, replace(self, names=self.names | {name}, files=others | {(name, version)})
        return 0, replace(self, names=self.names - {name}, files=others)


def after_reset(possible):
    """What --init-db leaves of a mailbox."""
    return {Box(None, files=box.files) for box in possible}


def after_run(possible, event):
    """What a run may leave, of what it may have found; nothing if its exit status is wrong."""
    return {left for status, left in (box.after(event) for box in possible) if status == event.status}


def after_run_beside_reset(possible, event):
    """As above. The run may have changed the new database or the removed one, and files in both cases."""
    left = set(possible)
    for box in possible:
        files = replace(box, reply="any").after(event)[1].files
        left |= {replace(rows, files=found) for rows in (box, box.after(event)[1]) for found in (box.files, files)}
    return left


def is_documented(event):
    """Whether the messages of an undisturbed run are those of its exit status."""
    if event.command == "del-resp" and event.status == 0:
        return all(NO_DIRECTORY.fullmatch(text) for text in event.texts)
    if event.command.endswith("-attach") and event.status == 1:
        return event.texts == (f"No autoresponder found for mailname ({event.mailbox})",)
    return event.status == 0 and event.texts == ()


class Judge:
    """Compares what the programs reported with the final database and files; counts and problems go to `report`."""

    def __init__(self, report, sandbox, resets):
        self._report, self._sandbox, self._resets = report, sandbox, resets
        self._windows = []
        self._replies = {}
        self._names, self._files = defaultdict(set), defaultdict(set)  # of a part (mailbox, worker)

    def judge(self, events, observations, mails):
        times = [(event.begin, event.end) for event in events] + [entry[:2] for entry in (*observations, *mails)]
        self._windows = [Window(begin, max([made, *(end for first, end in times if first < made)]), filled)
                         for begin, made, filled in self._resets]
        events.sort(key=lambda event: event.begin)
        for event in sorted(events, key=lambda event: event.command):
            self._judge_run(event)
        for begin, end, what, status, problem in observations:
            beside = self._is_beside_reset(begin, end, "filled")
            self._count(("arspinfo", what), status, beside)
            if problem is not None and not beside:
                self._report.problem(f"arspinfo {what}", problem)
        self._read_final_state()
        self._judge_replies(events)
        self._judge_boxes(events)
        self._judge_headers(events)
        self._judge_mails(mails)
        self._judge_database()

    def _count(self, row, status, beside):
        self._report.count(row, "tried", f"status {status}", *["beside --init-db"] * beside)

    def _problem(self, where, what):
        self._report.problem(where, what)

    def _is_beside_reset(self, begin, end, until="end"):
        return any(begin < getattr(window, until) and end > window.begin for window in self._windows)

    def _judge_run(self, event):
        beside = self._is_beside_reset(event.begin, event.end)
        self._count(("arspctl", event.command), event.status, beside)
        excused = beside and event.status in (0, 1) and all(
            BESIDE_INIT_DB.fullmatch(text) or NO_DIRECTORY.fullmatch(text) for text in event.texts)
        if not excused and not is_documented(event):
            self._problem(f"{event.command} of {event.mailbox}", f"{event.status}, {event.texts}")

    def _possible(self, start, events, shared):
        """What the runs of a worker may have left of a mailbox. The reply of a shared one is not considered."""
        possible, passed = {start}, 0
        for event in [*events, None]:
            begun = len([window for window in self._windows if event is None or window.begin < event.end])
            if begun > passed:
                possible, passed = after_reset(possible), begun
            if shared:
                possible = {replace(box, reply=reply) for box in possible for reply in (None, "any")}
            if event is None:
                return possible
            if self._is_beside_reset(event.begin, event.end):
                possible = after_run_beside_reset(possible, event)
            else:
                found, possible = possible, after_run(possible, event)
                if not possible:
                    self._problem(f"{event.command} of {event.mailbox}", f"status {event.status} on {found}")
                    return found
        return possible

    def _judge_boxes(self, events):
        """Compares rows and files of each worker in each mailbox with what its runs may have left."""
        runs = defaultdict(list)
        for event in events:
            if event.mailbox is not None:
                runs[event.mailbox, str(event.worker)].append(event)
        expected = {(mailbox, "kept"): {Box("kept", frozenset({"kept"}), frozenset({("kept", 0)}))
                                        if mailbox in KEPT else Box("kept")} for mailbox in UNTOUCHED}
        for worker, own in enumerate(OWN):
            for mailbox in (*own, *SHARED, *PASSING):
                part = (mailbox, str(worker))
                expected[part] = self._possible(Box("kept"), runs[part], shared=mailbox not in own)
        for part in {*expected, *self._names, *self._files}:
            mailbox = part[0]
            reply = "any" if mailbox in SHARED or mailbox in PASSING else self._replies.get(mailbox)
            found = Box(reply, frozenset(self._names[part]), frozenset(self._files[part]))
            if found not in expected.get(part, ()):
                self._problem("final state", f"{part} is {found}, not one of {expected.get(part)}")
        if unknown := self._replies.keys() - set(MAILBOXES):
            self._problem("final state", f"autoresponders of {unknown}")

    def _read_final_state(self):
        """Reads rows and files; a reply is its subject, if the body belongs to it."""
        for mailbox, subject, body in self._sandbox.rows("SELECT mn, subject, body FROM autoresponder"):
            self._replies[mailbox] = subject if body.encode() == contents(subject) else f"{subject}: {body[:20]}"
        for mailbox, name in self._sandbox.rows("SELECT mn, filename FROM attachments"):
            self._names[mailbox, name.partition(".")[0]].add(name)
        versions = {("file", 0o644, *POPUSER, contents(version)): version for version in (0, 1)}
        for path, entry in self._sandbox.tree(MAIL_TREE).items():
            if entry[0] != "dir":
                domain, local_part, _, name = path.split("/")
                part = (f"{local_part}@{domain}", name.partition(".")[0])
                self._files[part].add((name, versions.get(entry, str(entry)[:200])))

    def _judge_replies(self, events):
        for mailbox in (*SHARED, *PASSING):
            runs = [event for event in events if event.mailbox == mailbox and not event.command.endswith("-attach")]
            self._judge_last(mailbox, {self._replies.get(mailbox)}, runs)

    def _judge_headers(self, events):
        """Runs that empty the list before either fills it leave their lists one after the other, each as a whole."""
        rows = self._sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid")
        if [name for name, _ in rows] != ["X-By", "X-Also-By"] * (len(rows) // 2) or (
                [value for _, value in rows[::2]] != [value for _, value in rows[1::2]]):
            self._problem("extra headers", f"no whole lists: {rows}")
        self._judge_last("extra headers", {value for _, value in rows} or {None},
                         [event for event in events if event.command == "set-extra-headers"])

    def _judge_last(self, where, found, runs):
        """What is left is that of a run after which no other began. A run beside --init-db may have had no effect, or
        one that it reports as a failure."""
        sure, beside = [], []
        for run in runs:
            if self._is_beside_reset(run.begin, run.end):
                beside.append(run)
            elif run.status == 0:
                sure.append(run)
        last_begin = max(entry.begin for entry in (*sure, *self._windows))
        values = {run.value for run in (*sure, *beside) if run.end >= last_begin}
        if self._windows[-1].end >= last_begin:
            values.add(None)
        if not found <= values:
            self._problem(where, f"{found} is not of a last run: {values}")

    def _judge_mails(self, mails):
        """Every reply is counted once."""
        counted = defaultdict(lambda: [0, 0])  # since the last reset: at least, at most
        changing = {*SHARED, *PASSING, *(mailbox for own in OWN for mailbox in own)}
        last = self._windows[-1]
        for begin, end, mailbox, outcome, request in mails:
            beside = self._is_beside_reset(begin, end, "filled")
            self._count(("mail side", request), 0 if isinstance(outcome, bool) else 1, beside)
            if request == "count" and outcome is not False:
                counted[mailbox][0] += begin > last.end
                counted[mailbox][1] += end > last.begin
            if outcome is not True and not beside and (outcome or mailbox not in changing):
                self._problem("mail side", f"{mailbox}: {outcome or 'no reply'}")
        numbers = dict(self._sandbox.rows("SELECT mn, num FROM resp_freq WHERE email = ?", SENDER))
        for mailbox in UNTOUCHED:
            least, most = counted[mailbox]
            if not least <= numbers.get(mailbox, 0) <= most:
                self._problem("counters", f"{mailbox}: {numbers.get(mailbox, 0)}, not {least} to {most}")

    def _judge_database(self):
        integrity = self._sandbox.rows("PRAGMA integrity_check")
        if integrity != [("ok",)]:
            self._problem("database", f"integrity_check: {integrity}")
        orphans = {attachment_path(mailbox, name) for (mailbox, owner), files in self._files.items()
                   for name, _ in files if name not in self._names[mailbox, owner]}
        found = json.loads(self._sandbox.info("check", "--json").stdout)["findings"]
        others = {finding["code"] for finding in found} - {"auto-submitted", "file-orphan", "header-twice"}
        reported = {finding["object"] for finding in found if finding["code"] == "file-orphan"}
        if others or reported != orphans:
            self._problem("arspinfo check in the end", f"{others}, {reported ^ orphans}")
