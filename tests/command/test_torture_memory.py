"""Allocations that fail. `scripts/torture memory` lets every single one of them fail, and prints a table."""

import pytest
from torture import memory
from torture.scene import COMMANDS


@pytest.mark.unsanitized
@pytest.mark.parametrize("command", COMMANDS)
def test_run_without_memory_ends_with_a_true_status(sandbox, command):
    report = memory.torture(sandbox, command, bounded=True)

    print(report.table())
    assert report.problems == []
    assert report.total("tried") >= 60
