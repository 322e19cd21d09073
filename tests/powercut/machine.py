"""The virtual machine: it boots, runs shell lines from its serial line, and loses its power."""

import os
import re
import select
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from .guest import GuestError, output

QEMU = "/usr/bin/qemu-system-x86_64"
BOOT_SECONDS = {"kvm": 60, "tcg": 300}
RUN_SECONDS = 300
DUMP_MEGABYTES = 32
STATUS = re.compile(rb"^status (\d+)\n", re.MULTILINE)

# For each file system the size of an image in megabytes, near the minimum of its mkfs, and the program that makes it.
MAKE = {
    "ext4": (64, ("/sbin/mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0")),
    "xfs": (320, ("/sbin/mkfs.xfs", "-q", "-f")),
    "btrfs": (128, ("/sbin/mkfs.btrfs", "-q", "-f")),
}


def make_image(path, file_system):
    """Makes an image with an empty file system."""
    make_disk(path, MAKE[file_system][0])
    output(*MAKE[file_system][1], path)


def make_disk(path, megabytes):
    with open(path, "wb") as disk:
        disk.truncate(megabytes << 20)


@dataclass(frozen=True)
class Booted:
    """A booted guest, saved in the file `state`. Machines continue there with other disks of the same sizes, which
    takes a fraction of the time of a boot."""

    words: tuple
    state: Path

    @classmethod
    def save(cls, kernel, archive, accelerator, file_system, directory):
        """Boots a guest with empty disks and saves it, with all files in `directory`."""
        words = (QEMU, "-nodefaults", "-no-user-config", "-no-reboot", "-display", "none", "-serial", "stdio",
                 "-accel", accelerator, "-cpu", "max", "-m", "256", "-kernel", kernel.image, "-initrd", archive,
                 "-append", "console=ttyS0 no_timer_check quiet panic=-1 mitigations=off cryptomgr.notests")
        disks = [directory / "disk", directory / "dump"]
        for disk, megabytes in zip(disks, (MAKE[file_system][0], DUMP_MEGABYTES)):
            make_disk(disk, megabytes)
        state = directory / "state"
        ours, monitor = socket.socketpair()
        with ours, monitor:
            words_with_monitor = (*words, "-chardev", f"socket,id=monitor,fd={monitor.fileno()}", "-mon", "monitor")
            with Machine(words_with_monitor, disks, pass_fds=[monitor.fileno()]) as guest:
                monitor.close()
                guest.wait_for_boot(BOOT_SECONDS[accelerator])
                ours.sendall(f"migrate \"exec:cat >'{state}'\"\ninfo migrate\nquit\n".encode())
                told = b"".join(iter(lambda: ours.recv(65536), b""))
        if b"status: completed" not in told:
            raise GuestError(f"the guest cannot be saved: {told.decode(errors='replace')}")
        return cls(words, state)

    def machine(self, disks):
        """Returns a Machine with these disks."""
        guest = Machine((*self.words, "-incoming", f"exec:cat '{self.state}'"), disks)
        guest.send(" " * 32 + "true")  # the serial line loses what it receives before the state is loaded
        guest.wait_for_boot(RUN_SECONDS)
        return guest


class Machine:
    """A running virtual machine; `disks` are its /dev/vda, /dev/vdb and so on.

    cut() kills qemu: the image keeps what the guest's kernel has written to the disk and loses what was in memory.
    """

    def __init__(self, words, disks, pass_fds=()):
        drives = [word for disk in disks for word in ("-drive", f"file={disk},format=raw,if=virtio,cache=writeback")]
        self._heard = b""
        try:
            self._qemu = subprocess.Popen([*words, *drives], bufsize=0, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                          stderr=subprocess.STDOUT, pass_fds=pass_fds)
        except OSError as error:
            raise GuestError(f"{QEMU}: {error.strerror}") from error

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut()

    def send(self, line):
        """Sends a line of shell; the next status() is that of this line."""
        self._heard = b""
        self._qemu.stdin.write(line.encode() + b"\n")

    def status(self, seconds):
        """Returns the exit status of the line, or None when the guest does not report it within that time."""
        deadline = time.monotonic() + seconds
        while (found := STATUS.search(self._heard)) is None:
            if not select.select([self._qemu.stdout], [], [], max(deadline - time.monotonic(), 0))[0]:
                return None
            heard = os.read(self._qemu.stdout.fileno(), 65536)
            if not heard:
                raise GuestError(f"the machine stopped:\n{self._tail()}")
            self._heard += heard
        return int(found[1])

    def run(self, line):
        """Runs a line of shell, which has to succeed; returns the seconds that it took."""
        begin = time.monotonic()
        self.send(line)
        if (status := self.status(RUN_SECONDS)) != 0:
            raise GuestError(f"{line}: status {status}\n{self._tail()}")
        return time.monotonic() - begin

    def cut(self):
        """Cuts the power; returns whether the guest had reported status 0 for the last line."""
        self._qemu.kill()
        if not self._qemu.stdout.closed:
            self._heard += self._qemu.communicate()[0]
        return b"status 0\n" in self._heard

    def wait_for_boot(self, seconds):
        """Waits for status 0; cuts the power and fails without it."""
        try:
            if self.status(seconds) != 0:
                raise GuestError(f"the guest did not boot:\n{self._tail()}")
        except BaseException:
            self.cut()
            raise

    def _tail(self):
        return self._heard.decode(errors="replace")[-2000:].rstrip()
