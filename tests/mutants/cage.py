#!/usr/bin/python3 -I
"""Runs COMMAND where nothing of the machine can be written: cage.py DIRECTORY COMMAND...

Broken code runs as root, and the private roots of the tests are made to keep sound code in. So everything that is
mounted becomes read-only here, with empty places for scratch files, and only DIRECTORY stays writable. It takes a mount
and a process namespace of its own, that of unshare(1); what the command leaves running ends with it.
"""

import ctypes
import os
import resource
import signal
import stat
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from harness.private_root import script  # noqa: E402

SCRATCH = {"/tmp": "mode=1777,size=4g", "/var/tmp": "mode=1777,size=1g", "/run": "mode=755,size=64m",
           "/dev": "mode=755,size=1m"}
PROGRAM_MEMORY = 16 << 30  # bytes of addresses; a loop that allocates for ever meets it

AT_FDCWD, AT_RECURSIVE = -100, 0x8000
MOUNT_ATTR_RDONLY = 0x1
SYS_MOUNT_SETATTR = 442  # on every architecture; the C library of Debian 12 knows the call only in its headers


class MountAttributes(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in ("set", "clear", "propagation", "userns_fd")]


def set_read_only(path, read_only, flags=0):
    """Makes the mount at `path` read-only or writable, in this namespace alone."""
    attributes = MountAttributes(set=MOUNT_ATTR_RDONLY * read_only, clear=MOUNT_ATTR_RDONLY * (not read_only))
    script.checked(script.libc.syscall(SYS_MOUNT_SETATTR, AT_FDCWD, os.fsencode(path), flags, ctypes.byref(attributes),
                                       ctypes.sizeof(attributes)), f"mount_setattr on {path}")


def mount_new(kind, target, options="", flags=0):
    script.checked(script.libc.mount(kind.encode(), target.encode(), kind.encode(), ctypes.c_ulong(flags),
                                     options.encode()), f"mount on {target}")


def build(directory):
    """Turns what this process sees into the cage."""
    script.mount("none", "/", script.MS_REC | script.MS_PRIVATE)
    kept = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)  # its path may be about to be covered
    set_read_only("/", True, AT_RECURSIVE)
    for place, options in SCRATCH.items():
        mount_new("tmpfs", place, options)
    for name, number in script.DEVICES.items():
        os.mknod(f"/dev/{name}", stat.S_IFCHR | 0o666, os.makedev(*number))
        os.chmod(f"/dev/{name}", 0o666)
    for name, target in {"fd": "fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}.items():
        os.symlink(f"/proc/self/{target}", f"/dev/{name}")
    os.mkdir("/dev/shm")
    mount_new("tmpfs", "/dev/shm", "mode=1777,size=64m")
    os.mkdir("/dev/pts")
    mount_new("devpts", "/dev/pts", "newinstance,ptmxmode=0666,mode=620")
    os.symlink("pts/ptmx", "/dev/ptmx")
    mount_new("proc", "/proc")
    script.bind_read_only("/proc", "/proc")
    os.makedirs(directory, exist_ok=True)
    script.mount(f"/proc/self/fd/{kept}", directory, script.MS_BIND)
    os.close(kept)
    set_read_only(directory, False)
    for place in ("/", "/etc", "/home", "/usr", "/var", "/var/lib"):
        if not os.statvfs(place).f_flag & os.ST_RDONLY:
            raise OSError(f"{place} is still writable")


def default_signals():
    """What whoever started this ignores, as nohup(1) does, would be ignored by the tests' programs as well."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
        signal.signal(number, signal.SIG_DFL)


def main():
    directory = os.path.realpath(sys.argv[1])
    if os.getpid() != 1:
        sys.exit("cage.py: has to be started by unshare --mount --pid --fork --kill-child")
    build(directory)
    os.chdir(directory)
    resource.setrlimit(resource.RLIMIT_AS, (PROGRAM_MEMORY, PROGRAM_MEMORY))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    process = subprocess.Popen(sys.argv[2:], stdin=subprocess.DEVNULL, preexec_fn=default_signals)
    while True:  # as the first process it also inherits what others leave behind
        pid, status = os.wait()
        if pid == process.pid:
            process.returncode = 0
            code = os.waitstatus_to_exitcode(status)
            sys.exit(code if code >= 0 else 128 - code)


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the script that started it decides
    main()
