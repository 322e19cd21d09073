"""The system of the virtual machine: Debian's kernel, unpacked but not installed, and a private root with busybox."""

import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from harness.private_root import INFO_PROGRAM, PrivateRoot

PACKAGES = ("btrfs-progs", "busybox-static", "e2fsprogs", "kmod", "qemu-system-x86", "xfsprogs")
KERNEL_PACKAGE = "linux-image-cloud-amd64"
MODULES = ("virtio_pci", "virtio_blk")  # and that of the file system

INIT = """#!/bin/busybox sh
export PATH=/usr/sbin:/applets
/bin/busybox mount -t proc none /proc
/bin/busybox mount -t devtmpfs none /dev
/bin/busybox --install -s /applets
exec </dev/ttyS0 >/dev/ttyS0 2>&1
stty -echo -onlcr
for module in /modules/*; do insmod "$module"; done
echo "status $?"
while read -r line; do
    eval "$line"
    echo "status $?"
done
"""


class GuestError(Exception):
    """The reason why no guest boots, or why it failed, in words for the user."""


def output(*words, cwd=None):
    """Runs a program, which has to succeed; returns its standard output."""
    try:
        done = subprocess.run(words, cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    except OSError as error:
        raise GuestError(f"{words[0]}: {error.strerror}") from error
    if done.returncode != 0:
        raise GuestError(f"{' '.join(map(str, words))} failed:\n{done.stdout}{done.stderr}".rstrip())
    return done.stdout


class Kernel:
    """The kernel's files below `directory`. The package is downloaded and unpacked once."""

    def __init__(self, directory):
        self._files = directory / "kernel"
        if not self._files.exists():
            self._unpack(directory)
        self._version = next((self._files / "lib" / "modules").iterdir()).name
        self.image = self._files / "boot" / f"vmlinuz-{self._version}"

    def modules(self, names):
        """The files of the modules and of those they need, in loading order; built-in modules have none."""
        lines = [line.split() for name in names for line in output(
            "/sbin/modprobe", "-d", self._files, "-S", self._version, "--show-depends", name).splitlines()]
        return list(dict.fromkeys(line[1] for line in lines if line[0] == "insmod"))

    def _unpack(self, directory):
        output("apt-get", "-qq", "update")
        depends = re.search(r"Depends: (linux-image-\S+)", output("apt-cache", "depends", KERNEL_PACKAGE))
        if depends is None:
            raise GuestError(f"{KERNEL_PACKAGE} depends on no kernel")
        with tempfile.TemporaryDirectory(dir=directory) as scratch:
            files = Path(scratch, "files")
            output("apt-get", "-qq", "download", depends[1], cwd=scratch)
            output("dpkg-deb", "-x", *Path(scratch).glob("*.deb"), files)
            output("/sbin/depmod", "-b", files, depends[1].removeprefix("linux-image-"))
            files.rename(self._files)


def make_archive(archive, kernel, file_system, programs, inputs):
    """Writes the archive that the kernel unpacks as its root: the arspctl and the arspinfo in `programs`, what they
    need, and `inputs` in /in."""
    with tempfile.TemporaryDirectory() as scratch:
        program, info_program = programs
        root = PrivateRoot(f"{scratch}/root", program, "chroot")
        root.prepare()
        root.add_program(info_program, INFO_PROGRAM)
        root.add_program("/bin/busybox")
        for name in ("applets", "in", "modules"):
            Path(root.directory, name).mkdir()
        for number, module in enumerate(kernel.modules((*MODULES, file_system))):
            shutil.copy(module, f"{root.directory}/modules/{number:02}")
        for name, content in inputs.items():
            Path(root.directory, "in", name).write_bytes(content)
        Path(root.directory, "init").write_text(INIT, encoding="ascii")
        Path(root.directory, "init").chmod(0o755)
        output("/bin/sh", "-c", 'find . | /bin/busybox cpio -o -H newc >"$1"', "sh", archive, cwd=root.directory)
