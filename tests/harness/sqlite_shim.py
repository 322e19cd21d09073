"""SQLite brought to refuse the one call that a test is about, and the tool's calls to it in their order."""

from pathlib import Path

from . import preload

LOG = "/.sqlite_calls"


def environment(sandbox, fault=None):
    """The environment for a run in `sandbox` whose calls are noted; `fault` as sqlite_shim.cpp tells."""
    code = Path(__file__).with_name("sqlite_shim.cpp").read_text()
    fault_variable = {} if fault is None else {"SQLITE_SHIM_FAULT": fault}
    return preload.environment(sandbox, code, SQLITE_SHIM_LOG=LOG, **fault_variable)


def calls(sandbox):
    """The calls of the tool to SQLite so far, such as "step = 101"; they count once."""
    log = sandbox.path(LOG)
    lines = log.read_text().splitlines() if log.exists() else []
    log.unlink(missing_ok=True)
    return lines
