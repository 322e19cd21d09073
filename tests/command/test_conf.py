"""kel.conf: the root of the attachment directories, as the file defines it."""

import resource

import pytest
from harness import DONE
from harness.mailboxes import (ADD, DEL_RESP, MAIL_TREE, MAILNAME, add_attachment_rows, attachment_rows, error_texts,
                               make_directories, put_file)

CONF = "/etc/kel/kel.conf"
BELOW = "/example.org/user/@attachments"
LONG_ROOT = "/srv" + "/a-directory-with-quite-a-long-name" * 60


@pytest.fixture
def mailbox(mailbox):
    """The shared mailbox with a kel.conf that names /srv/mail."""
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")
    return mailbox


def roots(sandbox):
    """The directories, as the tool sees them, below which report.pdf is attached."""
    return [("/" + str(path.relative_to(sandbox.directory))).removesuffix(BELOW + "/report.pdf") or "/"
            for path in sandbox.directory.rglob("report.pdf")]


def assert_logged_root(result, root):
    assert result.status == 0
    assert error_texts(result) == [f"Unable to remove autoresponder attachments: cannot open directory {root}{BELOW}: "
                                   "No such file or directory"]


def test_missing_file_leaves_the_default(mailbox):
    mailbox.path(CONF).unlink()

    assert mailbox.run(*ADD) == DONE

    assert roots(mailbox) == [MAIL_TREE]


@pytest.mark.parametrize("content, root", [
    # the end of the value
    ("QUARN_MAILNAMES_D /srv/mail\n", "/srv/mail"),
    ("QUARN_MAILNAMES_D\t/srv/mail #the root\n", "/srv/mail"),
    ("QUARN_MAILNAMES_D /srv/mail#the root\n", "/srv/mail"),
    ("QUARN_MAILNAMES_D /srv/mail\t# the root\n", "/srv/mail"),
    ("QUARN_MAILNAMES_D /srv/mail", "/srv/mail"),
    ("QUARN_MAILNAMES_D /srv/mail ", "/srv/mail"),
    ("QUARN_MAILNAMES_D /srv/mail  \n", "/srv/mail  "),
    ("QUARN_MAILNAMES_D /srv/mail \n", "/srv/mail \n"),
    ("QUARN_MAILNAMES_D /srv/mail\r\n", "/srv/mail\r\n"),
    ("QUARN_MAILNAMES_D /srv/mail    \n", "/srv/mail    "),
    ("QUARN_MAILNAMES_D /srv/mail   \n", "/srv/mail   \n"),
    ("QUARN_MAILNAMES_D /srv/mail  # the root\n", "/srv/mail  "),
    ("QUARN_MAILNAMES_D /srv/mail   # the root\n", "/srv/mail  "),
    ("QUARN_MAILNAMES_D /srv/two  words\n", "/srv/two  words"),
    ("QUARN_MAILNAMES_D /\n", "/"),
    ("QUARN_MAILNAMES_D /#the root\n", "/"),
    ("QUARN_MAILNAMES_D /", "/"),
    # before the value
    ("QUARN_MAILNAMES_D \t \v\f /srv/mail\n", "/srv/mail"),
    ("QUARN_MAILNAMES_D = /srv/mail\n", "/tmp/= /srv/mail"),
    (" \t\v\f\rQUARN_MAILNAMES_D /srv/mail\n", "/srv/mail"),
    ("\n \n# QUARN_MAILNAMES_D /srv/wrong\n \t# QUARN_MAILNAMES_D /srv/wrong\nQUARN_MAILNAMES_D /srv/mail\n",
     "/srv/mail"),
    # several definitions
    ("QUARN_MAILNAMES_D /srv/first\nQUARN_MAILNAMES_D /srv/second\n", "/srv/second"),
    ("QUARN_MAILNAMES_D /srv/mail\nQUARN_MAILNAMES_D=/srv/wrong\nQUARN_MAILNAMES_D\n", "/srv/mail"),
    ("QUARN_MAILNAMES /srv/a\nQUARN_MAILNAMES_D /srv/mail\nQUARN_MAILNAMES_DD /srv/b\nquarn_mailnames_d /srv/c\n",
     "/srv/mail"),
    ("=\nA\nB=1\n$ 1\nQUARN_MAILNAMES_D /srv/mail\n\xff 1\n", "/srv/mail"),
    pytest.param("".join(f"NAME_{number} {number}\n" for number in range(100)) + "QUARN_MAILNAMES_D /srv/mail\nA b\n",
                 "/srv/mail", id="a hundred other names"),
    # any length
    pytest.param("A " + "x" * 1_000_000 + "\nQUARN_MAILNAMES_D" + " " * 1_000_000 + "/srv/mail #" + "x" * 1_000_000,
                 "/srv/mail", id="lines of a million characters"),
    pytest.param(f"QUARN_MAILNAMES_D {LONG_ROOT}\n", LONG_ROOT, id="a long value"),
])
def test_value_in_the_file_is_the_root(mailbox, content, root):
    mailbox.conf(content.encode("latin-1"))

    assert mailbox.run(*ADD, cwd="/tmp") == DONE

    assert roots(mailbox) == [root]


@pytest.mark.parametrize("content", [
    "", "\n", "QUARN_MAILNAMES_D=/srv/mail\n", "QUARN_MAILNAMES_D= /srv/mail\n", "QUARN_MAILNAMES_D: /srv/mail\n",
    "QUARN_MAILNAMES_D#/srv/mail\n", "QUARN_MAILNAMES_D", "QUARN_MAILNAMES_D\n", "QUARN_MAILNAMES_D   \t \n",
    "QUARN_MAILNAMES_D   # /srv/mail\n", "QUARN_MAILNAMES_D #\n", "#QUARN_MAILNAMES_D /srv/mail\n",
    "-QUARN_MAILNAMES_D /srv/mail\n", '"QUARN_MAILNAMES_D" /srv/mail\n', "quarn_mailnames_d /srv/mail\n",
    "PRODUCT_ROOT_D /srv/mail\n"])
def test_line_without_a_definition_is_ignored_silently(mailbox, content):
    mailbox.conf(content)

    assert mailbox.run(*ADD, env={"QUARN_LOG_LEVEL": "7"}) == DONE

    assert roots(mailbox) == [MAIL_TREE]


def test_directory_in_place_of_the_file_leaves_the_default(mailbox):
    mailbox.path(CONF).unlink()
    mailbox.path(CONF).mkdir()  # can be opened, but not read

    assert mailbox.run(*ADD) == DONE

    assert roots(mailbox) == [MAIL_TREE]


@pytest.mark.parametrize("fault, root", [("EIO", MAIL_TREE), ("EMFILE:when=1", "/srv/mail")],
                         ids=["always", "at start-up"])
def test_file_that_cannot_be_opened_is_read_when_its_value_is_needed(mailbox, needs_tracing, fault, root):
    result, calls = mailbox.trace(*ADD, inject=[f"openat:error={fault}"], paths=[CONF])

    assert result == DONE
    assert any(call.injected for call in calls)
    assert roots(mailbox) == [root]


def test_partly_read_file_leaves_the_default(mailbox, needs_tracing):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n" + "A b\n" * 5000)

    # The tool reads the file again when it needs the value, so all later reads fail, too.
    result, _ = mailbox.trace(*DEL_RESP, inject=["read:error=EIO:when=2+"], paths=[CONF])

    assert_logged_root(result, MAIL_TREE)


@pytest.mark.unsanitized
def test_line_larger_than_memory_leaves_the_default(mailbox):
    with open(mailbox.path(CONF), "ab") as conf:
        conf.truncate(1 << 30)

    assert_logged_root(mailbox.run(*DEL_RESP, rlimits={resource.RLIMIT_AS: 64 << 20}), MAIL_TREE)


def test_the_file_is_read_once(mailbox, needs_tracing):
    _, calls = mailbox.trace(*DEL_RESP, calls="openat", paths=[CONF])

    assert len(calls) == 1


@pytest.mark.parametrize("command", ["--del-resp", "--del-attach"])
def test_files_are_removed_below_the_root(mailbox, command):
    for root in ("/srv/mail", MAIL_TREE):
        make_directories(mailbox, root + BELOW)
        put_file(mailbox, f"{root}{BELOW}/report.pdf", b"content")
    add_attachment_rows(mailbox, "user@example.org", "report.pdf")

    assert mailbox.run(command, *MAILNAME, "--filename", "report.pdf") == DONE

    assert roots(mailbox) == [MAIL_TREE]
    assert attachment_rows(mailbox) == []


def test_messages_contain_the_root_with_its_white_space(mailbox):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail  \n")

    assert_logged_root(mailbox.run(*DEL_RESP), "/srv/mail  ")
