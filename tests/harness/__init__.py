"""What the command tests stand on: the real binary in a private root, watched from outside.

    from harness import Call, Record, Result, needs_tracing

The fixtures (`sandbox`, `mailbox`, `needs_tracing`) are in tests/command/conftest.py.
"""

from .log_records import Record
from .sandbox import DELETED_CWD, DONE, Result, Running, Sandbox
from .tracing import Call, needs_tracing

__all__ = ["DELETED_CWD", "DONE", "Call", "Record", "Result", "Running", "Sandbox", "needs_tracing"]
