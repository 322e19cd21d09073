"""All commands at once on 10,000 mailboxes. `scripts/torture load` does so for ten minutes, and prints a table."""

from torture import load

SECONDS = 20


def test_runs_of_all_commands_at_once_end_and_lose_nothing(make_sandbox):
    report, _ = load.torture(make_sandbox(parent=load.memory_directory()), SECONDS)

    assert report.problems == []
