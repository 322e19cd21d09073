"""The system calls of a command at which a run can be disturbed, found by tracing one run."""

import re
from collections import Counter
from dataclasses import dataclass

from harness import tracing
from harness.private_root import PROGRAM

LOG = "/.torture-trace"
FIRST_OWN_CALL = "poll"  # of the tool; the calls before it are the dynamic loader's

CHANGING = {"pwrite64", "fsync", "fdatasync", "unlink", "unlinkat", "ftruncate", "mkdir", "mkdirat", "chown", "fchown",
            "fchownat", "chmod", "fchmod", "fchmodat", "rename", "copy_file_range"}
PROCESSES = {"clone", "clone3", "vfork", "wait4", "exit_group"}
READING = {"openat", "pread64", "getdents64", "fcntl"}


@dataclass(frozen=True)
class Point:
    """The `when`-th call `name` of the tool, or of the copy that it starts (`child`), on the file `what`."""

    name: str
    when: int
    child: bool
    what: str
    changing: bool
    alone: bool  # no other process of the run makes that many of these calls
    path: str | None  # only calls with this path are counted

    def __str__(self):
        return f"{'copy: ' if self.child else ''}{self.name} {self.when} ({self.what})"


def points_of(scene):
    """All points of the scene's command, in the order of its run."""
    scene.begin()
    _, calls = scene.sandbox.trace(*scene.command.args, stdin=scene.command.stdin)
    tool = calls[0].pid
    last = Counter((call.pid, call.name) for call in calls)
    of_tool = Counter((call.name, (*call.strings, None)[0]) for call in calls if call.pid == tool)
    found, counts, started = [], Counter(), False
    for call, path in tracing.with_paths(calls):
        child = call.pid != tool
        started = started or (call.name == FIRST_OWN_CALL and not child)
        counts.update([(call.pid, call.name), (call.pid, call.name, (*call.strings, None)[0])])
        when = counts[call.pid, call.name]
        locking = call.name == "fcntl" and "F_SETLK" in call.args_text
        changing = child or locking or call.name in CHANGING | PROCESSES or "O_CREAT" in call.args_text
        target = None
        if not child:
            wanted = started and (changing or call.name in READING)
        # Of the copy: its start and its work on the file, not its loader. strace counts anew in every process, and the
        # tool's own count must not reach the number.
        elif call.name == "execve" or (call.name == "openat" and "O_CREAT" in call.args_text):
            target = call.strings[0]
            when = counts[call.pid, call.name, target]
            wanted = when > of_tool[call.name, target]
        else:
            wanted = call.name in ("vfork", "copy_file_range") and when > last[tool, call.name]
        if wanted:
            alone = all(count < when for (pid, name), count in last.items() if name == call.name and pid != call.pid)
            found.append(Point(call.name, when, child, _what(call, path, locking), changing, alone, target))
    return found


def _what(call, path, locking):
    if locking:
        fields = dict(re.findall(r"(l_\w+)=(\w+)", call.args_text))
        return f"{fields['l_type']} {int(fields['l_start']) % 16}+{fields['l_len']}"
    return "-" if call.name in PROCESSES else path.rpartition("/")[2] or path


def one_of_a_kind(points):
    """The first and the last point of each kind: the same call on the same file."""
    kinds = {}
    for point in points:
        kinds.setdefault((point.name, point.what, point.child), []).append(point)
    chosen = {point for kind in kinds.values() for point in (kind[0], kind[-1])}
    return [point for point in points if point in chosen]


def start_disturbed(scene, point, disturbance):
    """Starts the command under strace, which does `disturbance` at the point; returns the Running."""
    words = tracing.strace_arguments(LOG, point.name, [f"{point.name}:{disturbance}"],
                                     [point.path] if point.path else ())
    if not point.child and not point.alone:
        words.remove("-f")
    return scene.sandbox.start_command("/usr/bin/strace", [*words, PROGRAM, *scene.command.args],
                                       stdin=scene.command.stdin, traced=True)


def trace_log(scene):
    """Returns strace's log and removes it."""
    path = scene.sandbox.path(LOG)
    text = path.read_bytes() if path.exists() else b""
    path.unlink(missing_ok=True)
    return text
