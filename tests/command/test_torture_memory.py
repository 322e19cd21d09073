"""Allocations that fail. `scripts/torture memory` lets every single one of them fail, and prints a table."""

import pytest
from harness.sandbox import sanitized
from torture import memory
from torture.scene import COMMANDS

if not sanitized():  # such a program has an allocator of its own, which aborts

    @pytest.mark.parametrize("command", COMMANDS)
    def test_a_run_without_memory_ends_with_a_status_that_tells_the_truth(sandbox, command):
        report = memory.torture(sandbox, command, bounded=True)

        print(report.table())
        assert report.problems == []
        assert report.total("tried") >= 60


TOLD_BY_LIBRARY = """signal 6 at allocation 7
/.preload.so(+0x130b)[0x7f98448c430b]
/lib/x86_64-linux-gnu/libc.so.6(+0x3c050)[0x7f9844632050]
"""
ABORT = """/lib/x86_64-linux-gnu/libc.so.6(+0x8aeec)[0x7f9844680eec]
/lib/x86_64-linux-gnu/libc.so.6(gsignal+0x12)[0x7f9844631fb2]
/lib/x86_64-linux-gnu/libc.so.6(abort+0xd3)[0x7f984461c472]
"""
OURS = """/usr/sbin/arspctl(+0x9e21)[0x557cc6edfe21]
/lib/x86_64-linux-gnu/libc.so.6(__libc_start_main+0x85)[0x7f984461d305]
"""
LIBRARYS = """/lib/x86_64-linux-gnu/libc.so.6(getpwnam_r+0x74)[0x7fb6b0058264]
/usr/sbin/arspctl(+0x25d7e)[0x558e35ce4d7e]
"""


@pytest.mark.parametrize(("frames", "of_library"), [
    (OURS, False), (ABORT + OURS, False), (LIBRARYS, True), (ABORT + LIBRARYS, True), ("", False),
])
def test_a_death_counts_as_the_c_librarys_only_where_that_is_what_died(frames, of_library):
    assert memory.died_in_c_library(TOLD_BY_LIBRARY + frames) == of_library
