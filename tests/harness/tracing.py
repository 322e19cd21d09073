"""The system calls of a run: strace inside the private root lists them and makes them fail."""

import functools
import os
import re
import shutil
import subprocess
import tempfile
from dataclasses import dataclass


@functools.cache
def why_not():
    """Why this machine does not allow tracing; None if it does."""
    if shutil.which("strace") is None:
        return "strace is not installed"
    with tempfile.NamedTemporaryFile() as log:
        probe = subprocess.run(
            ["strace", "-f", "-o", log.name, "-e", "inject=fsync:error=EIO", "sh", "-c", "sync /tmp; exit 7"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        if probe.returncode == 7 and b"(INJECTED)" in log.read():
            return None
    return "this machine forbids tracing: " + (probe.stderr.strip().splitlines() or ["no call was changed"])[0]


@dataclass(frozen=True)
class Call:
    """One system call: the process, its name, its arguments and its result as strace writes them."""

    pid: int
    name: str
    args_text: str
    result: str

    @property
    def value(self):
        """The number that the call returned; None if it did not return (exit, or the process died)."""
        match = re.match(r"-?\d+", self.result)
        if self.result.startswith("0x"):
            return int(self.result.split()[0], 16)
        return int(match[0]) if match else None

    @property
    def error(self):
        """The name of the error, such as ENOENT; None after success."""
        match = re.match(r"-1 (E\w+)", self.result)
        return match[1] if match else None

    @property
    def injected(self):
        """Whether strace made up the result instead of calling the kernel."""
        return "INJECTED" in self.result

    @property
    def strings(self):
        """The quoted arguments, paths for instance, in order and with strace's escapes."""
        return re.findall(r'"((?:[^"\\]|\\.)*)"', self.args_text)


def strace_arguments(log, calls, inject, paths, environment=()):
    """The strace command line up to the traced program; `environment` holds arguments of strace -E."""
    words = ["strace", "-f", "-qq", "-v", "-s", "1000000", "-e", "signal=none", "-o", log]
    for setting in environment:
        words += ["-E", setting]
    if calls:
        words += ["-e", f"trace={calls}"]
    for expression in inject or ():
        words += ["-e", f"inject={expression}"]
    for path in paths:
        words += ["-P", path]
    return words


LINE = re.compile(r"(\d+) +(.*)", re.DOTALL)
RESUMED = re.compile(r"<\.\.\. (\w+) resumed>(.*)", re.DOTALL)
UNFINISHED = " <unfinished ...>"
COMPLETE = re.compile(r"(\w+)\((.*)\)\s+= (.*)", re.DOTALL)


def parse_trace(text):
    """The calls of a strace -f log, in the order of their ends."""
    begun, calls = {}, []
    for line in text.splitlines():
        pid, rest = LINE.fullmatch(line).groups()
        if rest.startswith(("---", "+++")):
            continue
        resumed = RESUMED.fullmatch(rest)
        if resumed:
            rest = begun.pop(pid, resumed[1] + "(") + resumed[2]
        if rest.endswith(UNFINISHED):
            begun[pid] = rest[: -len(UNFINISHED)]
            continue
        complete = COMPLETE.fullmatch(rest)
        if complete is None:
            raise ValueError(f"unknown line in the trace: {line!r}")
        calls.append(Call(int(pid), *complete.groups()))
    return calls


def with_paths(calls):
    """[(call, path), ...]: each call with the path of the file that it is on.

    `calls` includes "openat", and "fcntl" where descriptors are duplicated. A descriptor stands for the path that
    opened it, and a name below a descriptor for both paths joined.
    """
    opened, found = {}, []
    for call in calls:
        first = call.pid, call.args_text.partition(",")[0]
        path = os.path.normpath(os.path.join(opened.get(first, ""), *call.strings[:1]))
        found.append((call, path))
        if call.error is None and (call.name == "openat" or "F_DUPFD" in call.args_text):
            opened[call.pid, str(call.value)] = path
        elif call.name == "close":
            opened.pop(first, None)
    return found


def on_files(calls):
    """The tool's own calls with their paths; see with_paths()."""
    return [(call, path) for call, path in with_paths(calls) if call.pid == calls[0].pid]
