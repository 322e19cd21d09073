"""The command tests' tools: the real binary in a private root, observed from outside.

    from harness import INFO_PROGRAM, Call, Record, Result

The fixtures (`sandbox`, `mailbox`, `needs_tracing`) are in tests/command/conftest.py.
"""

from .log_records import Record
from .private_root import INFO_PROGRAM
from .sandbox import DELETED_CWD, DONE, Result, Running, Sandbox
from .tracing import Call

__all__ = ["DELETED_CWD", "DONE", "INFO_PROGRAM", "Call", "Record", "Result", "Running", "Sandbox"]
