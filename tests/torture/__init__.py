"""Disturbs every call of the tool that can fail: by SIGKILL, by an error, by a lack of memory.

    from torture import errors, kill, memory

Each has torture(sandbox, name, bounded), which tries one command of scene.COMMANDS in a fresh private root and returns
a report.Report. scripts/torture tries everything; tests/command/test_torture_*.py try a selection.
"""
