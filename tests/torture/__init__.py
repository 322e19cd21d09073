"""Every call of the tool that can fail has failed once: by a kill, by an error, for want of memory.

    from torture import errors, kill, memory

Each has torture(sandbox, name, bounded), which tries one command of scene.COMMANDS in a fresh private root and answers
a report.Report. scripts/torture runs them in full; tests/command/test_torture_*.py run a selection.
"""
