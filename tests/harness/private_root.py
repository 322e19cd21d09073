"""Private roots: directory trees that a process takes for "/", with arspctl at /usr/sbin/arspctl.

The tool's paths are compile-time constants, and it runs as root. In a private root it finds files of its own behind
those paths, and it can write nothing outside. There are two modes:

  namespace  a mount namespace with the tree as "/"; the host's programs are visible, read-only, and so is /proc
  chroot     for machines that refuse mount namespaces: the tree holds copies of the few programs that are needed
"""

import ctypes
import functools
import os
import shutil
import stat
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
PROGRAM = "/usr/sbin/arspctl"
INFO_PROGRAM = "/usr/sbin/arspinfo"
POPUSER_UID, POPUSER_GID = 1110, 31
MARKER = ".private-root"  # an existing directory without it is not a private root and stays untouched

# In a chroot: the tool itself starts sh and cp; repairs of arspinfo use setpriv and what follows it, tests the others.
CHROOT_PROGRAMS = ("/bin/sh", "/bin/cp", "/usr/bin/strace", "/usr/bin/sqlite3", "/usr/bin/setpriv", "/usr/bin/env",
                   "/usr/bin/xargs", "/bin/chmod", "/bin/chown", "/bin/mkdir", "/bin/mv", "/bin/rm")
DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9)}

# The directory into which the programs of the preset "coverage" write their counts; set by scripts/coverage.
PROFILES = os.environ.get("ARSP_PROFILES")

CLONE_NEWNS = 0x00020000
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_MOVE, MS_REC, MS_PRIVATE = 0x1, 0x20, 0x1000, 0x2000, 0x4000, 0x40000
MS_KEPT = 0xC0F  # nosuid, nodev, noexec and the access-time bits: a remount has to repeat them

libc = ctypes.CDLL(None, use_errno=True)


class SandboxError(Exception):
    """Why a private root cannot be made or entered, in words for the user."""


def checked(result, what):
    """Raises OSError if the C call `what` returned -1."""
    if result == -1:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")


def mount(source, target, flags):
    result = libc.mount(os.fsencode(source), os.fsencode(target), None, ctypes.c_ulong(flags), None)
    checked(result, f"mount on {target}")


def bind_read_only(source, target):
    mount(source, target, MS_BIND | MS_REC)
    kept = os.statvfs(target).f_flag & MS_KEPT
    mount("none", target, MS_REMOUNT | MS_BIND | MS_RDONLY | kept)


def unshare_mounts():
    checked(libc.unshare(CLONE_NEWNS), "unshare")
    mount("none", "/", MS_REC | MS_PRIVATE)


def in_thread(work):
    """Returns what `work` returns. The thread may change its namespace and root without changing this process."""
    with ThreadPoolExecutor(1) as thread:
        return thread.submit(work).result()


@functools.cache
def namespaces_allowed():
    """Whether this process may make a mount namespace and mount in it. Root in a container often may not."""

    def attempt():
        unshare_mounts()
        bind_read_only("/usr", "/usr")

    try:
        in_thread(attempt)
    except OSError:
        return False
    return True


def choose_mode(wanted=None):
    """Returns the mode: `wanted` if given, otherwise "namespace" wherever the machine allows it."""
    if os.geteuid() != 0:
        raise SandboxError("a private root can only be made by root")
    if wanted != "chroot" and namespaces_allowed():
        return "namespace"
    if wanted == "namespace":
        raise SandboxError("this machine refuses mount namespaces")
    return "chroot"


@functools.cache
def shared_libraries(path):
    """The shared libraries and the loader that the program `path` needs; none for a static one."""
    listing = subprocess.run(["/usr/bin/ldd", path], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                             check=False)
    words = [word for line in listing.stdout.splitlines() for word in line.split()]
    return [word for word in words if word.startswith("/") and not word.endswith(":")]


def loads_library(path, name):
    """Whether the program `path` loads the shared library `name`."""
    return any(f"/{name}." in library for library in shared_libraries(path))


@functools.cache
def is_sanitized(path):
    """Whether the program `path` is built with AddressSanitizer, be it shared (g++) or linked in (clang++)."""
    try:
        return b"__asan_init" in Path(path).read_bytes()
    except FileNotFoundError:
        return False


class PrivateRoot:
    """A directory tree that processes take for "/".

    directory  where it is
    program    the arspctl inside
    mode       "namespace" or "chroot"
    pool       a directory on the same file system. Programs are copied there once and linked into every root that
               shares it. They are never linked to files of the host: root inside could write through such a link.
    """

    def __init__(self, directory, program, mode, pool=None):
        self.directory = os.path.realpath(directory)
        self.program = os.path.realpath(program) if program else None
        self.mode = mode
        self._pool = pool
        self._namespace = None

    def prepare(self):
        """Makes what is missing. An existing private root keeps its contents, its users included."""
        umask = os.umask(0o022)
        try:
            self._make_tree()
            for name, number in DEVICES.items():
                self._make_device(name, number)
            if self.mode == "chroot":
                for path in filter(os.path.exists, CHROOT_PROGRAMS):
                    self.add_program(path)
            if self.program and os.path.exists(self.program):
                self.add_program(self.program, PROGRAM)
            if self.mode == "namespace":
                self._namespace = in_thread(self._make_namespace)
        finally:
            os.umask(umask)

    def set_popuser(self, present):
        """Writes the user database, with or without the mail user."""
        passwd = "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n"
        group = "root:x:0:\nnogroup:x:65534:\n"
        if present:
            passwd += f"popuser:x:{POPUSER_UID}:{POPUSER_GID}:mail:/var/qmail/mailnames:/bin/false\n"
            group += f"popuser:x:{POPUSER_GID}:\n"
        self._write("etc/passwd", passwd.encode())
        self._write("etc/group", group.encode())

    def add_program(self, path, inside=None):
        """Copies the host's program `path` to the same path inside or to `inside`; in a chroot its libraries, too."""
        if not self._copy(path, inside or path) or self.mode != "chroot":
            return
        for library in shared_libraries(path):
            self._copy(library, library)
        with open(path, "rb") as program:
            first = program.readline(256)
        if first.startswith(b"#!"):
            self.add_program(os.fsdecode(first[2:].split()[0]))

    def provide(self, path):
        """Makes the host's program `path` available inside, unless the namespace shows it anyway."""
        real = os.path.realpath(path)
        if self.mode == "chroot" or not any(real.startswith(shown + "/") for shown in _shown_directories()):
            self.add_program(path)

    def enter(self):
        """Moves the calling process, a forked one, into the root for good."""
        if self.mode == "chroot":
            os.chroot(self.directory)
        else:
            checked(libc.setns(self._namespace, CLONE_NEWNS), "setns")
        os.chdir("/")

    def remove(self):
        """Removes the tree with everything in it."""
        if self._namespace is not None:
            os.close(self._namespace)
        shutil.rmtree(self.directory)

    # -- pieces

    def _outside(self, path):
        return os.path.join(self.directory, path.lstrip("/"))

    def _make_tree(self):
        if os.path.exists(self._outside(MARKER)):
            return
        os.makedirs(self.directory, exist_ok=True)
        if os.listdir(self.directory):
            raise SandboxError(f"{self.directory} is not empty and is not a private root")
        os.chmod(self.directory, 0o755)
        self._write(MARKER, b"")
        for path in ("dev", "etc/kel", "proc", "root", "run", "tmp", "usr/sbin", "var/lib/quarn", "var/qmail/mailnames",
                     "var/tmp"):
            os.makedirs(self._outside(path))
        for name in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
            if os.path.islink("/" + name):
                os.makedirs(self._outside("usr/" + name), exist_ok=True)
                os.symlink("usr/" + name, self._outside(name))  # relative: seen from the host, it stays in the root
        for path, mode in (("root", 0o700), ("tmp", 0o1777), ("var/tmp", 0o1777)):
            os.chmod(self._outside(path), mode)
        self._write("etc/nsswitch.conf", b"passwd: files\ngroup: files\n")
        if os.path.exists("/etc/ld.so.cache"):
            shutil.copyfile("/etc/ld.so.cache", self._outside("etc/ld.so.cache"))
        self.set_popuser(True)

    def _make_namespace(self):
        unshare_mounts()
        mount(self.directory, self.directory, MS_BIND)  # only a mount point can become the root
        for path in [*_shown_directories(), "/proc"]:
            os.makedirs(self._outside(path), exist_ok=True)
            bind_read_only(path, self._outside(path))
        if PROFILES:
            os.makedirs(self._outside(PROFILES), exist_ok=True)
            mount(PROFILES, self._outside(PROFILES), MS_BIND)
        os.chdir(self.directory)
        mount(".", "/", MS_MOVE)  # unlike pivot_root this also works where "/" is the kernel's first file system
        os.chroot(".")
        return os.open("/proc/thread-self/ns/mnt", os.O_RDONLY)

    def _write(self, path, content):
        with open(self._outside(path), "wb") as file:
            file.write(content)

    def _make_device(self, name, number):
        path = self._outside("dev/" + name)
        if os.path.exists(path):
            return
        try:
            os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(*number))
            os.close(os.open(path, os.O_RDWR))
        except OSError:
            # No CAP_MKNOD, or a file system mounted nodev: a plain file replaces any device but "full".
            if os.path.lexists(path):
                os.unlink(path)
            content = {"zero": bytes(65536), "random": os.urandom(65536), "urandom": os.urandom(65536)}
            self._write("dev/" + name, content.get(name, b""))
        os.chmod(path, 0o666)

    def _copy(self, source, target):
        """Copies a file of the host unless the same state of it is there already; returns whether it had to."""
        inside = self._outside(target)
        if os.path.commonpath((os.path.realpath(os.path.dirname(inside)), self.directory)) != self.directory:
            raise SandboxError(f"{target} leads out of {self.directory}")
        if _is_copy(inside, source):
            return False
        if self._pool is None:
            _make_room(inside)
            shutil.copy2(source, inside)
            return True
        pooled = os.path.join(self._pool, source.lstrip("/"))
        if not _is_copy(pooled, source):
            _make_room(pooled)
            shutil.copy2(source, pooled)
        _make_room(inside)
        os.link(pooled, inside)
        return True


def _shown_directories():
    """The host's directories that a namespace shows. /usr/sbin is not among them: it holds the tool."""
    return [entry.path for entry in os.scandir("/usr") if entry.name != "sbin" and entry.is_dir(follow_symlinks=False)]


def _is_copy(path, source):
    if not os.path.exists(path):
        return False
    one, other = os.stat(path), os.stat(source)
    return one.st_size == other.st_size and one.st_mtime_ns == other.st_mtime_ns


def _make_room(path):
    os.makedirs(os.path.dirname(path), mode=0o755, exist_ok=True)
    if os.path.lexists(path):
        os.unlink(path)
