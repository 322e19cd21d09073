"""An error of the system at every call. `scripts/torture errors` tries all errors at all of them, and prints a table."""

import pytest
from harness.mailboxes import error_texts
from torture import errors
from torture.points import points_of, start_disturbed
from torture.scene import COMMANDS, THIN, Scene


@pytest.mark.parametrize("command", COMMANDS)
def test_the_status_tells_the_truth_about_the_database_after_an_error(sandbox, needs_tracing, command):
    report = errors.torture(sandbox, command, bounded=True, thin=THIN)

    print(report.table())
    assert report.problems == []
    assert report.total("tried") >= 30 // THIN


@pytest.mark.parametrize(("command", "text"), [
    ("init-db", "Unable to re-create autoresponders database: disk I/O error"),
    ("set-resp", "Unable to end sqlite transaction: disk I/O error"),
    ("del-resp", "Unable to end sqlite transaction: disk I/O error"),
    ("add-attach", "Unable to end sqlite transaction: disk I/O error"),
    ("del-attach", "Unable to end sqlite transaction: disk I/O error"),
    ("set-extra-headers", "Unable to end sqlite transaction: disk I/O error"),
])
def test_a_lock_that_cannot_be_let_go_after_the_commit_fails_a_run_whose_rows_are_written(sandbox, needs_tracing, command,
                                                                                          text):
    scene = Scene(sandbox, command)
    last = [point for point in points_of(scene) if point.what == "F_UNLCK 0+2"][-1]

    scene.begin()
    result = start_disturbed(scene, last, f"error=EIO:when={last.when}").wait()

    assert (result.status, error_texts(result)) == (1, [text])
    assert scene.rows() == scene.command.after
    assert bool(scene.leftover_files()) == (command == "del-attach")
    scene.close()
