"""The virtual machine: it boots, runs shell lines from its serial line, and loses its power."""

import os
import re
import select
import subprocess
import time

from .guest import GuestError, output

QEMU = "/usr/bin/qemu-system-x86_64"
BOOT_SECONDS = {"kvm": 60, "tcg": 300}
RUN_SECONDS = 300
STATUS = re.compile(rb"^status (\d+)\n", re.MULTILINE)

# For each file system the size of an image in megabytes, near the minimum of its mkfs, and the program that makes it.
MAKE = {
    "ext4": (64, ("/sbin/mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0")),
    "xfs": (320, ("/sbin/mkfs.xfs", "-q", "-f")),
    "btrfs": (128, ("/sbin/mkfs.btrfs", "-q", "-f")),
}


def make_image(path, file_system):
    """Makes an image with an empty file system."""
    megabytes, words = MAKE[file_system]
    with open(path, "wb") as image:
        image.truncate(megabytes << 20)
    output(*words, path)


class Machine:
    """A running virtual machine; `disks` are its /dev/vda, /dev/vdb and so on.

    cut() kills qemu: the image keeps what the guest's kernel has written to the disk and loses what was in memory.
    """

    def __init__(self, kernel, archive, accelerator, disks=()):
        drives = [word for disk in disks for word in ("-drive", f"file={disk},format=raw,if=virtio,cache=writeback")]
        self._words = [QEMU, "-nodefaults", "-no-user-config", "-no-reboot", "-display", "none", "-serial", "stdio",
                       "-accel", accelerator, "-cpu", "max", "-m", "256", "-kernel", kernel.image, "-initrd", archive,
                       "-append", "console=ttyS0 no_timer_check quiet panic=-1 mitigations=off "
                       "cryptomgr.notests", *drives]
        self._boot_seconds = BOOT_SECONDS[accelerator]
        self._boot()

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

    def restart(self):
        """Cuts the power and boots again."""
        self.cut()
        self._boot()

    def _boot(self):
        self._heard = b""
        try:
            self._qemu = subprocess.Popen(self._words, bufsize=0, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                          stderr=subprocess.STDOUT)
        except OSError as error:
            raise GuestError(f"{QEMU}: {error.strerror}") from error
        try:
            if self.status(self._boot_seconds) != 0:
                raise GuestError(f"the guest did not boot:\n{self._tail()}")
        except BaseException:
            self.cut()
            raise

    def _tail(self):
        return self._heard.decode(errors="replace")[-2000:].rstrip()
