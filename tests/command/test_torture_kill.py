"""SIGKILL at every call that changes a file or a lock. `scripts/torture kill` prints a table."""

import pytest
from torture import kill
from torture.scene import COMMANDS, thinning


@pytest.mark.parametrize("command", COMMANDS)
def test_killed_run_leaves_a_committed_state_and_can_be_repeated(sandbox, needs_tracing, command):
    report = kill.torture(sandbox, command, bounded=True, thin=thinning())

    print(report.table())
    assert report.problems == []
    assert report.total("tried") >= 20 // thinning()
