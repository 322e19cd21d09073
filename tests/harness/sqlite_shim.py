"""The tool's calls to SQLite in their order, and states in which SQLite refuses one of them."""

from . import preload

LOG = "/.sqlite_calls"


def environment(sandbox, fault=None):
    """The environment of runs in `sandbox` whose calls are recorded; preload/sqlite.cpp describes `fault`."""
    faults = {} if fault is None else {"SQLITE_SHIM_FAULT": fault}
    return preload.environment(sandbox, SQLITE_SHIM_LOG=LOG, **faults)


def calls(sandbox):
    """The calls since the last time, such as "step = 101"."""
    log = sandbox.path(LOG)
    lines = log.read_text().splitlines() if log.exists() else []
    log.unlink(missing_ok=True)
    return lines
