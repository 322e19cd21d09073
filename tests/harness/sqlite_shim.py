"""SQLite brought to refuse the one call that a test is about, and the tool's calls to it in their order."""

import subprocess
from pathlib import Path

from .private_root import script
from .sandbox import program_under_test

INSIDE = "/.sqlite_shim.so"
LOG = "/.sqlite_calls"


def environment(sandbox, fault=None):
    """The environment for a run in `sandbox` whose calls are noted; `fault` as sqlite_shim.cpp tells."""
    sandbox.path(INSIDE).write_bytes(_built(sandbox.directory.parent).read_bytes())
    sanitizer = [library for library in script.shared_libraries(str(program_under_test())) if "/libasan." in library]
    variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LD_PRELOAD": ":".join([*sanitizer, INSIDE]),
                 "SQLITE_SHIM_LOG": LOG}
    if fault is not None:
        variables["SQLITE_SHIM_FAULT"] = fault
    return variables


def calls(sandbox):
    """The calls of the tool to SQLite so far, such as "step = 101"; they count once."""
    log = sandbox.path(LOG)
    lines = log.read_text().splitlines() if log.exists() else []
    log.unlink(missing_ok=True)
    return lines


def _built(directory):
    library = directory / "sqlite_shim.so"
    if not library.exists():
        source = Path(__file__).with_name("sqlite_shim.cpp")
        subprocess.run(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-O1", "-D_GNU_SOURCE", "-shared", "-fPIC",
                        source, "-o", library], check=True)
    return library
