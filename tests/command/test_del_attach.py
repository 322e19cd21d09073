"""--del-attach: the row is deleted and committed before the file is removed."""

import pytest
from harness import DONE
from harness.mailboxes import (ADD, DEL, DIRECTORY, DOMAIN, FILE, MAIL_TREE, MAILNAME, add_attachment_rows,
                               add_autoresponder, attachment_rows, autoresponder_rows, make_directories, put_file,
                               run_sql)
from harness.outcomes import outcome
from harness.sandbox import DATABASE
from harness.tracing import on_files

ROW = ("user@example.org", "report.pdf")
OTHER_ROW = ("user@example.org", "other.pdf")


def delete(filename):
    return "--del-attach", *MAILNAME, "--filename", filename


def without(tree, name):
    return {path: entry for path, entry in tree.items() if path != name}


@pytest.fixture
def box(mailbox_with_attachment):
    """The mailbox with the attachments report.pdf and other.pdf."""
    add_attachment_rows(mailbox_with_attachment, "user@example.org", "other.pdf")
    put_file(mailbox_with_attachment, DIRECTORY + "/other.pdf", mode=0o640)
    return mailbox_with_attachment


# -- row and file


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_row_and_file_are_deleted_and_nothing_else(box, umask):
    add_attachment_rows(box, "sales@example.com", "report.pdf")
    make_directories(box, "/var/qmail/mailnames/example.com/sales/@attachments", mode=0o755)
    put_file(box, "/var/qmail/mailnames/example.com/sales/@attachments/report.pdf", b"another", owner=(1, 2))
    before = box.tree(MAIL_TREE)

    assert box.run(*DEL, umask=umask) == DONE

    assert box.tree(MAIL_TREE) == without(before, "example.org/user/@attachments/report.pdf")
    assert attachment_rows(box) == [("sales@example.com", "report.pdf"), OTHER_ROW]
    assert autoresponder_rows(box) == [("user@example.org", "user@example.org")]


def test_attachment_of_add_attach_is_deleted(mailbox):
    assert mailbox.run(*ADD) == DONE
    assert attachment_rows(mailbox) == [ROW]

    assert mailbox.run(*DEL) == DONE

    assert attachment_rows(mailbox) == []
    assert mailbox.tree(DIRECTORY) == {".": ("dir", 0o700, 1110, 31, None)}


@pytest.mark.parametrize(("row", "file"), [(True, False), (False, True), (False, False)])
def test_missing_row_or_file_is_no_failure(box, row, file):
    if not row:
        run_sql(box, "DELETE FROM attachments WHERE filename = 'report.pdf'")
    if not file:
        box.path(FILE).unlink()

    assert box.run(*DEL) == DONE

    assert attachment_rows(box) == [OTHER_ROW]
    assert sorted(box.tree(DIRECTORY)) == [".", "other.pdf"]


@pytest.mark.parametrize("filename", ["report.pdf", "sub/x", ""])
def test_missing_directory_is_no_failure(mailbox, filename):
    add_attachment_rows(mailbox, "user@example.org", filename)

    assert mailbox.run(*delete(filename)) == DONE

    assert attachment_rows(mailbox) == []
    assert mailbox.tree(MAIL_TREE) == {".": ("dir", 0o755, 0, 0, None)}


def test_file_is_in_the_directory_of_the_mail_name_and_not_of_its_owner(box):
    add_autoresponder(box, "sales@example.org", "user@example.org")
    add_attachment_rows(box, "sales@example.org", "report.pdf")
    make_directories(box, DOMAIN + "/sales/@attachments")
    put_file(box, DOMAIN + "/sales/@attachments/report.pdf")
    before = box.tree(MAIL_TREE)

    assert box.run("--del-attach", "--mailname", "sales@example.org", "--filename", "report.pdf") == DONE

    assert box.tree(MAIL_TREE) == without(before, "example.org/sales/@attachments/report.pdf")
    assert attachment_rows(box) == [OTHER_ROW, ROW]


def test_neither_an_owner_nor_the_mail_user_is_needed(box):
    run_sql(box, "DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
                 "INSERT INTO autoresponder VALUES ('user@example.org', NULL)")
    box.popuser_exists(False)

    assert box.run(*DEL) == DONE

    assert attachment_rows(box) == [OTHER_ROW]
    assert sorted(box.tree(DIRECTORY)) == [".", "other.pdf"]


# -- the name as given


@pytest.mark.parametrize("name", ["two words.pdf", " ", "größe-名.pdf", "line\nfeed.pdf", "$(echo x)`echo`;*.pdf", '"',
                                  "-f", ".hidden", "x" * 255])
def test_del_attach_never_passes_the_name_to_a_shell(box, name):
    add_attachment_rows(box, "user@example.org", name)
    put_file(box, f"{DIRECTORY}/{name}")

    assert box.run(*delete(name)) == DONE

    assert attachment_rows(box) == [OTHER_ROW, ROW]
    assert sorted(box.tree(DIRECTORY)) == [".", "other.pdf", "report.pdf"]


@pytest.mark.parametrize(("name", "path"), [
    ("sub/x", DIRECTORY + "/sub/x"), ("sub//x", DIRECTORY + "/sub/x"), ("./x", DIRECTORY + "/x"),
    ("/x", DIRECTORY + "/x"), ("../x", DOMAIN + "/user/x"), ("../../../../../../tmp/x", "/tmp/x")])
def test_name_with_slashes_is_no_base_name(box, name, path):
    make_directories(box, DIRECTORY + "/sub")
    put_file(box, path)
    add_attachment_rows(box, "user@example.org", name, "x")
    before = box.tree(MAIL_TREE)

    assert box.run(*delete(name)) == DONE

    assert not box.path(path).exists()
    assert box.tree(MAIL_TREE) == without(before, path.removeprefix("/var/qmail/mailnames/"))
    assert attachment_rows(box) == [OTHER_ROW, ROW, ("user@example.org", "x")]


@pytest.mark.parametrize(("name", "text"), [
    *((name, "Is a directory") for name in ("", "/", ".", "..", "sub", "sub/")),
    ("report.pdf/", "Not a directory"), ("report.pdf/x", "Not a directory"), ("x" * 256, "File name too long")])
def test_file_that_cannot_be_unlinked_is_logged_after_the_row_is_deleted(box, name, text):
    make_directories(box, DIRECTORY + "/sub")
    add_attachment_rows(box, "user@example.org", name)
    before = box.tree(MAIL_TREE)

    assert outcome(box.run(*delete(name))) == (
        1, f"Unable to delete attachment /var/qmail/mailnames/example.org/user/@attachments/{name}: {text}")

    assert box.tree(MAIL_TREE) == before
    assert attachment_rows(box) == [OTHER_ROW, ROW]


def test_missing_name_that_ends_in_a_slash_is_no_failure(box):
    assert box.run(*delete("missing/")) == DONE


# -- the order of steps


def test_row_is_committed_and_the_database_closed_before_the_file_is_unlinked(box, needs_tracing):
    result, calls = box.trace(*DEL, calls="openat,close,unlink,unlinkat")

    assert result == DONE
    last = {path: (place, call.name) for place, (call, path) in enumerate(on_files(calls))}
    assert [last[path][1] for path in (DATABASE + "-journal", DATABASE, FILE)] == ["unlink", "close", "unlinkat"]
    assert last[DATABASE + "-journal"] < last[DATABASE] < last[FILE]


@pytest.mark.parametrize(("error", "text"), [("EACCES", "Permission denied"), ("EROFS", "Read-only file system")])
def test_failed_unlink_leaves_the_row_deleted(box, needs_tracing, error, text):
    result, _ = box.trace(*DEL, inject=[f"unlinkat:error={error}"])

    assert outcome(result) == (
        1, f"Unable to delete attachment /var/qmail/mailnames/example.org/user/@attachments/report.pdf: {text}")
    assert attachment_rows(box) == [OTHER_ROW]
    assert sorted(box.tree(DIRECTORY)) == [".", "other.pdf", "report.pdf"]
