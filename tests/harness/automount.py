"""Directories that the kernel mounts when a program first enters them (autofs), in the mode "namespace"."""

import contextlib
import os
import subprocess
import sys
from pathlib import Path

from .private_root import namespaces_allowed, unshare_mounts

READY = b"ready\n"


def _daemon(source, target):
    code = Path(__file__).with_name("automount_daemon.py").read_text()
    return ["python3", "-I", "-c", code, source, target]


def possible():
    """Whether this machine has autofs and a mount namespace may use it."""
    if not namespaces_allowed():
        return False
    with subprocess.Popen(_daemon("/tmp", "/tmp"), executable=sys.executable, preexec_fn=unshare_mounts,
                          process_group=0, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as daemon:
        ready = daemon.stdout.readline() == READY
        daemon.kill()
    return ready


@contextlib.contextmanager
def mounted_on_demand(sandbox, source, target):
    """For the duration of the block, the first program that enters the directory `target` inside makes the kernel mount
    `source` there."""
    reader, writer = os.pipe()
    with open(reader, "rb") as output:
        daemon = sandbox.start_command("/usr/bin/python3", _daemon(source, target), stdout=writer)
        os.close(writer)
        assert output.readline() == READY, daemon.wait().stderr
        yield
        daemon.kill()
