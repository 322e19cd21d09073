"""An error of the system at every call. `scripts/torture errors` tries all errors at all calls, and prints a table."""

import pytest
from harness.mailboxes import error_texts
from torture import errors
from torture.points import points_of, start_disturbed
from torture.scene import COMMANDS, Scene, thinning


@pytest.mark.parametrize("command", COMMANDS)
def test_status_after_an_error_matches_the_database(sandbox, needs_tracing, command):
    report = errors.torture(sandbox, command, bounded=True, thin=thinning())

    print(report.table())
    assert report.problems == []
    assert report.total("tried") >= 30 // thinning()


@pytest.mark.parametrize("command", [name for name in COMMANDS if name != "init-db, for the first time"])
def test_unlock_error_after_the_commit_fails_a_run_whose_rows_are_written(sandbox, needs_tracing, command):
    scene = Scene(sandbox, command)
    last = [point for point in points_of(scene) if point.what == "F_UNLCK 0+2"][-1]

    scene.begin()
    result = start_disturbed(scene, last, f"error=EIO:when={last.when}").wait()

    step = "re-create autoresponders database" if command == "init-db" else "end sqlite transaction"
    assert (result.status, error_texts(result)) == (1, [f"Unable to {step}: disk I/O error"])
    assert scene.rows() == scene.command.after
    assert bool(scene.leftover_files()) == (command == "del-attach")
    scene.close()
