"""--del-attach: the row goes first and is committed, only then the file is removed."""

import pytest
from harness import Result
from harness.faults import first_call_fails, places_on
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, autoresponder_rows,
                               corrupt_page_of, error_texts, make_directories, put_file, run_sql)
from harness.sandbox import DATABASE

MAIL_TREE = "/var/qmail/mailnames"
DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments"
DONE = Result(0, b"", b"", [])
ROW = ("user@example.org", "report.pdf")


def options(filename="report.pdf", mailname="user@example.org"):
    return "--del-attach", "--mailname", mailname, "--filename", filename


def without(tree, name):
    return {path: entry for path, entry in tree.items() if path != name}


def prepare(sandbox):
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", "report.pdf", "other.pdf")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, DIRECTORY + "/report.pdf", b"the report")
    put_file(sandbox, DIRECTORY + "/other.pdf", b"something else", mode=0o640)
    return sandbox


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and its attachments report.pdf and other.pdf."""
    return prepare(sandbox)


@pytest.fixture
def twin(make_sandbox):
    """Another one just like that."""
    return prepare(make_sandbox())


# -- row and file


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_row_and_file_are_gone_and_nothing_else(mailbox, umask):
    add_attachment_rows(mailbox, "sales@example.com", "report.pdf")
    make_directories(mailbox, "/var/qmail/mailnames/example.com/sales/@attachments", mode=0o755)
    put_file(mailbox, "/var/qmail/mailnames/example.com/sales/@attachments/report.pdf", b"another", owner=(1, 2))
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options(), umask=umask) == DONE

    assert mailbox.tree(MAIL_TREE) == without(before, "example.org/user/@attachments/report.pdf")
    assert attachment_rows(mailbox) == [("sales@example.com", "report.pdf"), ("user@example.org", "other.pdf")]
    assert autoresponder_rows(mailbox) == [("user@example.org", "user@example.org")]


def test_what_add_attach_made_del_attach_removes(sandbox):
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report")
    assert sandbox.run("--add-attach", "--mailname", "user@example.org", "--filename", "/tmp/x/report.pdf",
                       "--source", "/tmp/source") == DONE
    assert attachment_rows(sandbox) == [ROW]

    assert sandbox.run(*options()) == DONE

    assert attachment_rows(sandbox) == []
    assert sandbox.tree(DIRECTORY) == {".": ("dir", 0o700, 1110, 31, None)}


def test_a_missing_file_is_no_failure(mailbox):
    mailbox.path(DIRECTORY + "/report.pdf").unlink()

    assert mailbox.run(*options()) == DONE

    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf")]


def test_a_missing_row_is_no_failure_and_the_file_goes(mailbox):
    run_sql(mailbox, "DELETE FROM attachments")

    assert mailbox.run(*options()) == DONE

    assert sorted(mailbox.tree(DIRECTORY)) == [".", "other.pdf"]


def test_neither_row_nor_file_is_no_failure(mailbox):
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options("never-there.pdf")) == DONE

    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


@pytest.mark.parametrize("filename", ["report.pdf", "sub/x", ""])
def test_a_missing_directory_is_no_failure(sandbox, filename):
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    add_attachment_rows(sandbox, "user@example.org", filename)

    assert sandbox.run(*options(filename)) == DONE

    assert attachment_rows(sandbox) == []
    assert sandbox.tree(MAIL_TREE) == {".": ("dir", 0o755, 0, 0, None)}


def test_the_file_is_looked_for_with_the_mail_name_not_with_its_owner(mailbox):
    add_autoresponder(mailbox, "sales@example.org", "user@example.org")
    add_attachment_rows(mailbox, "sales@example.org", "report.pdf")
    make_directories(mailbox, "/var/qmail/mailnames/example.org/sales/@attachments")
    put_file(mailbox, "/var/qmail/mailnames/example.org/sales/@attachments/report.pdf", b"the mail name's own")
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options(mailname="sales@example.org")) == DONE

    assert mailbox.tree(MAIL_TREE) == without(before, "example.org/sales/@attachments/report.pdf")
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


def test_the_copy_that_add_attach_gave_to_the_owner_stays(sandbox):
    sandbox.init_db()
    add_autoresponder(sandbox, "sales@example.com", "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report")
    assert sandbox.run("--add-attach", "--mailname", "sales@example.com", "--filename", "report.pdf",
                       "--source", "/tmp/source") == DONE
    before = sandbox.tree(MAIL_TREE)

    assert sandbox.run(*options(mailname="sales@example.com")) == DONE

    assert attachment_rows(sandbox) == []
    assert sandbox.tree(MAIL_TREE) == before
    assert "example.org/user/@attachments/report.pdf" in before


def test_a_row_without_an_owner_will_do(mailbox):
    run_sql(mailbox, "DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
                     "INSERT INTO autoresponder VALUES ('user@example.org', NULL)")

    assert mailbox.run(*options()) == DONE

    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf")]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "other.pdf"]


def test_the_mail_user_need_not_exist(mailbox):
    mailbox.popuser_exists(False)

    assert mailbox.run(*options()) == DONE


# -- the name as it was given


@pytest.mark.parametrize("name", ["two words.pdf", " ", "größe-名.pdf", "line\nfeed.pdf", "$(echo x)`echo`;*.pdf", '"',
                                  "-f", ".hidden", "x" * 255])
def test_any_name_is_taken_as_it_is(mailbox, name):
    add_attachment_rows(mailbox, "user@example.org", name)
    put_file(mailbox, f"{DIRECTORY}/{name}")

    assert mailbox.run(*options(name)) == DONE

    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "other.pdf", "report.pdf"]


@pytest.mark.parametrize(("name", "path"), [
    ("sub/x", "/var/qmail/mailnames/example.org/user/@attachments/sub/x"),
    ("sub//x", "/var/qmail/mailnames/example.org/user/@attachments/sub/x"),
    ("./x", "/var/qmail/mailnames/example.org/user/@attachments/x"),
    ("/x", "/var/qmail/mailnames/example.org/user/@attachments/x"),
    ("../x", "/var/qmail/mailnames/example.org/user/x"),
    ("../../../../../../tmp/x", "/tmp/x"),
])
def test_a_name_with_slashes_is_no_base_name(mailbox, name, path):
    make_directories(mailbox, DIRECTORY + "/sub")
    put_file(mailbox, path, b"below or above")
    add_attachment_rows(mailbox, "user@example.org", name, "x")
    before = mailbox.tree(MAIL_TREE)

    assert mailbox.run(*options(name)) == DONE

    assert not mailbox.path(path).exists()
    assert mailbox.tree(MAIL_TREE) == without(before, path.removeprefix("/var/qmail/mailnames/"))
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW, ("user@example.org", "x")]


@pytest.mark.parametrize(("name", "text"), [
    ("", "Is a directory"),
    ("/", "Is a directory"),
    (".", "Is a directory"),
    ("..", "Is a directory"),
    ("sub", "Is a directory"),
    ("sub/", "Is a directory"),
    ("report.pdf/", "Not a directory"),
    ("report.pdf/x", "Not a directory"),
    ("x" * 256, "File name too long"),
])
def test_what_cannot_be_unlinked_is_told_and_the_row_is_gone(mailbox, name, text):
    make_directories(mailbox, DIRECTORY + "/sub")
    add_attachment_rows(mailbox, "user@example.org", name)
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options(name))

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        f"Unable to delete attachment /var/qmail/mailnames/example.org/user/@attachments/{name}: {text}"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


def test_a_name_that_ends_in_a_slash_and_is_not_there_is_no_failure(mailbox):
    assert mailbox.run(*options("never-there/")) == DONE


# -- the order of things


def test_the_row_is_committed_and_the_database_closed_before_the_file_is_unlinked(mailbox, needs_tracing):
    result, calls = mailbox.trace(*options(), calls="openat,close,unlink,unlinkat")

    assert result == DONE
    commit, close = places_on(calls, DATABASE + "-journal")[-1], places_on(calls, DATABASE)[-1]
    unlink = next(place for place, call in enumerate(calls) if call.name == "unlinkat")
    assert (calls[commit].name, calls[close].name, calls[unlink].strings) == ("unlink", "close", ["report.pdf"])
    assert commit < close < unlink


@pytest.mark.parametrize(("error", "text"), [("EACCES", "Permission denied"), ("EROFS", "Read-only file system")])
def test_a_failed_unlink_leaves_the_row_deleted(mailbox, needs_tracing, error, text):
    result, _ = mailbox.trace(*options(), inject=[f"unlinkat:error={error}"])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        f"Unable to delete attachment /var/qmail/mailnames/example.org/user/@attachments/report.pdf: {text}"]
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf")]
    assert sorted(mailbox.tree(DIRECTORY)) == [".", "other.pdf", "report.pdf"]


# -- the database


def test_a_mail_name_without_an_autoresponder_touches_nothing(mailbox):
    run_sql(mailbox, "DELETE FROM autoresponder")
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["No autoresponder found for mailname (user@example.org)"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


def test_a_database_that_cannot_be_opened_keeps_the_file(mailbox):
    mailbox.path(DATABASE).unlink()
    mailbox.path(DATABASE).mkdir()
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: unable to open database file"]
    assert mailbox.tree(MAIL_TREE) == before


def test_a_missing_database_is_noticed_by_the_owner_look_up(mailbox):
    mailbox.path(DATABASE).unlink()
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'SELECT real_owner FROM autoresponder WHERE mn=?': "
        "no such table: autoresponder"]
    assert mailbox.tree(MAIL_TREE) == before


def test_a_damaged_database_is_told_twice_by_the_owner_look_up(mailbox):
    before = mailbox.tree(MAIL_TREE)
    corrupt_page_of(mailbox, "mn")

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to read data from database: database disk image is malformed",
                                   "Error selecting autoresponder for mailname (user@example.org)"]
    assert mailbox.tree(MAIL_TREE) == before


@pytest.mark.parametrize("action", ["ABORT", "FAIL", "ROLLBACK"])
def test_a_row_that_may_not_be_deleted_keeps_the_file(mailbox, action):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON attachments "
                     f"BEGIN SELECT RAISE({action}, 'attachments stay'); END")
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to delete autoresponder attachment (user@example.org:report.pdf): attachments stay"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


def test_what_a_trigger_did_before_it_failed_is_discarded(mailbox):
    run_sql(mailbox, "CREATE TRIGGER refuse BEFORE DELETE ON attachments "
                     "BEGIN DELETE FROM autoresponder; SELECT RAISE(FAIL, 'attachments stay'); END")

    assert mailbox.run(*options()).status == 1

    assert autoresponder_rows(mailbox) == [("user@example.org", "user@example.org")]


def test_a_missing_attachments_table_keeps_the_file(mailbox):
    run_sql(mailbox, "DROP TABLE attachments")
    before = mailbox.tree(MAIL_TREE)

    result = mailbox.run(*options())

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == [
        "Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=? AND filename=?': "
        "no such table: attachments"]
    assert mailbox.tree(MAIL_TREE) == before


def test_a_deletion_that_cannot_be_written_keeps_row_and_file(mailbox, twin, needs_tracing):
    before = mailbox.tree(MAIL_TREE)
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE + "-journal", "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert result.status == 1
    assert error_texts(result) == [
        "Unable to delete autoresponder attachment (user@example.org:report.pdf): disk I/O error"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]


def test_a_deletion_that_cannot_be_committed_keeps_row_and_file(mailbox, twin, needs_tracing):
    before = mailbox.tree(MAIL_TREE)
    fault = first_call_fails(twin, options(), "pwrite64", DATABASE, "EIO")

    result, _ = mailbox.trace(*options(), inject=[fault])

    assert (result.status, result.stdout) == (1, b"")
    assert error_texts(result) == ["Unable to end sqlite transaction: disk I/O error"]
    assert mailbox.tree(MAIL_TREE) == before
    assert attachment_rows(mailbox) == [("user@example.org", "other.pdf"), ROW]
