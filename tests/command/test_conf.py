"""kel.conf: under which root the attachments are, seen from outside."""

import resource

import pytest
from harness import Result
from harness.faults import fault_at, places_on
from harness.mailboxes import (add_attachment_rows, add_autoresponder, attachment_rows, error_texts, make_directories,
                               put_file)
from harness.private_root import script
from harness.sandbox import program_under_test

CONF = "/etc/kel/kel.conf"
DEFAULT = "/var/qmail/mailnames"
DONE = Result(0, b"", b"", [])
SANITIZED = script.is_sanitized(str(program_under_test()))


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder user@example.org and the file /tmp/source."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=(0, 0), mode=0o644)
    return sandbox


def add_attachment(sandbox, **options):
    return sandbox.run("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf",
                       "--source", "/tmp/source", **options)


def roots(sandbox):
    """The directories, as the tool sees them, under which report.pdf has been put."""
    below = "/example.org/user/@attachments/report.pdf"
    found = []
    for top in ("/var/qmail", "/srv", "/"):
        paths = sandbox.path(top).glob("*" + below) if sandbox.path(top).exists() else ()
        found += ["/" + str(path.relative_to(sandbox.directory)).removesuffix(below) for path in paths]
    if sandbox.path("/example.org").exists():
        found.append("/")
    return found


def test_without_a_file_the_default_holds(mailbox):
    assert add_attachment(mailbox) == DONE

    assert roots(mailbox) == [DEFAULT]


@pytest.mark.parametrize(("content", "root"), [
    # what ends the value
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
    # what may stand in front
    ("QUARN_MAILNAMES_D \t \v\f /srv/mail\n", "/srv/mail"),
    (" \t\v\f\rQUARN_MAILNAMES_D /srv/mail\n", "/srv/mail"),
    ("\n \n# QUARN_MAILNAMES_D /srv/wrong\n \t# QUARN_MAILNAMES_D /srv/wrong\nQUARN_MAILNAMES_D /srv/mail\n", "/srv/mail"),
    # several definitions
    ("QUARN_MAILNAMES_D /srv/first\nQUARN_MAILNAMES_D /srv/second\n", "/srv/second"),
    ("QUARN_MAILNAMES_D /srv/mail\nQUARN_MAILNAMES_D=/srv/wrong\nQUARN_MAILNAMES_D\n", "/srv/mail"),
    ("QUARN_MAILNAMES /srv/a\nQUARN_MAILNAMES_D /srv/mail\nQUARN_MAILNAMES_DD /srv/b\nquarn_mailnames_d /srv/c\n",
     "/srv/mail"),
    ("=\nA\nB=1\n$ 1\nQUARN_MAILNAMES_D /srv/mail\n\xff 1\n", "/srv/mail"),
    pytest.param("".join(f"NAME_{number} {number}\n" for number in range(100)) + "QUARN_MAILNAMES_D /srv/mail\nA b\n",
                 "/srv/mail", id="a hundred other names"),
    # lines of any length
    pytest.param("A " + "x" * 1_000_000 + "\nQUARN_MAILNAMES_D" + " " * 1_000_000 + "/srv/mail #" + "x" * 1_000_000,
                 "/srv/mail", id="lines of a million characters"),
])
def test_the_files_value_is_the_root(mailbox, content, root):
    mailbox.conf(content.encode("latin-1"))

    assert add_attachment(mailbox) == DONE

    assert roots(mailbox) == [root]


@pytest.mark.parametrize("content", [
    "",
    "\n",
    "QUARN_MAILNAMES_D=/srv/mail\n",
    "QUARN_MAILNAMES_D= /srv/mail\n",
    "QUARN_MAILNAMES_D: /srv/mail\n",
    "QUARN_MAILNAMES_D#/srv/mail\n",
    "QUARN_MAILNAMES_D",
    "QUARN_MAILNAMES_D\n",
    "QUARN_MAILNAMES_D   \t \n",
    "QUARN_MAILNAMES_D   # /srv/mail\n",
    "QUARN_MAILNAMES_D #\n",
    "#QUARN_MAILNAMES_D /srv/mail\n",
    "-QUARN_MAILNAMES_D /srv/mail\n",
    '"QUARN_MAILNAMES_D" /srv/mail\n',
    "quarn_mailnames_d /srv/mail\n",
    "PRODUCT_ROOT_D /srv/mail\n",
])
def test_a_line_that_defines_nothing_is_skipped_in_silence(mailbox, content):
    mailbox.conf(content)

    assert add_attachment(mailbox, env={"QUARN_LOG_LEVEL": "7"}) == DONE

    assert roots(mailbox) == [DEFAULT]


def test_an_equals_sign_may_be_a_value(mailbox):
    mailbox.conf("QUARN_MAILNAMES_D = /srv/mail\n")

    assert add_attachment(mailbox, cwd="/tmp") == DONE

    assert mailbox.path("/tmp/= /srv/mail/example.org/user/@attachments/report.pdf").read_bytes() == b"the report"
    assert roots(mailbox) == []


def test_a_long_value_is_read_whole(mailbox):
    root = "/srv" + "/a-directory-with-quite-a-long-name" * 60
    mailbox.conf(f"QUARN_MAILNAMES_D {root}\n")

    assert add_attachment(mailbox) == DONE

    assert mailbox.path(root + "/example.org/user/@attachments/report.pdf").read_bytes() == b"the report"


def test_a_directory_which_can_be_opened_but_not_read_leaves_the_default_in_silence(mailbox):
    mailbox.path(CONF).mkdir()

    assert add_attachment(mailbox) == DONE

    assert roots(mailbox) == [DEFAULT]


def test_a_file_that_cannot_be_opened_leaves_the_default_in_silence(mailbox, needs_tracing):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

    result, calls = mailbox.trace("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf",
                                  "--source", "/tmp/source", inject=["openat:error=EIO"], paths=[CONF])

    assert result == DONE
    assert any(call.injected for call in calls)
    assert roots(mailbox) == [DEFAULT]


def test_a_file_that_can_only_be_read_in_part_leaves_the_default_in_silence(mailbox, needs_tracing):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n" + "A b\n" * 5000)
    command = ("--del-resp", "--mailname", "user@example.org")
    _, calls = mailbox.trace(*command, calls="openat,close,read")
    second_read = [place for place in places_on(calls, CONF) if calls[place].name == "read"][1]

    # the file is read anew when its value is needed, so no later read succeeds either
    result, _ = mailbox.trace(*command, inject=[fault_at(calls, second_read, "EIO") + "+"])

    assert result.status == 0
    assert error_texts(result) == ["Unable to remove autoresponder attachments: cannot open directory "
                                   "/var/qmail/mailnames/example.org/user/@attachments: No such file or directory"]


if not SANITIZED:  # such a program takes more room for addresses than any limit leaves

    def test_a_file_with_a_line_larger_than_memory_leaves_the_default_in_silence(mailbox):
        mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")
        with open(mailbox.path(CONF), "ab") as conf:
            conf.truncate(1 << 30)

        result = mailbox.run("--del-resp", "--mailname", "user@example.org", rlimits={resource.RLIMIT_AS: 64 << 20})

        assert result.status == 0
        assert error_texts(result) == ["Unable to remove autoresponder attachments: cannot open directory "
                                       "/var/qmail/mailnames/example.org/user/@attachments: No such file or directory"]


def test_a_file_that_cannot_be_opened_at_first_is_read_when_the_value_is_needed(mailbox, needs_tracing):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

    result, _ = mailbox.trace("--add-attach", "--mailname", "user@example.org", "--filename", "report.pdf",
                              "--source", "/tmp/source", inject=["openat:error=EMFILE:when=1"], paths=[CONF])

    assert result == DONE
    assert roots(mailbox) == ["/srv/mail"]


def test_the_file_is_read_once(mailbox, needs_tracing):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

    _, calls = mailbox.trace("--del-resp", "--mailname", "user@example.org", calls="openat", paths=[CONF])

    assert len(calls) == 1


@pytest.mark.parametrize("command", ["--del-resp", "--del-attach"])
def test_files_are_removed_under_that_root_as_well(mailbox, command):
    for root in ("/srv/mail", "/var/qmail/mailnames"):
        make_directories(mailbox, root + "/example.org/user/@attachments")
        put_file(mailbox, root + "/example.org/user/@attachments/report.pdf", b"content")
    add_attachment_rows(mailbox, "user@example.org", "report.pdf")
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail\n")

    assert mailbox.run(command, "--mailname", "user@example.org", "--filename", "report.pdf") == DONE

    assert roots(mailbox) == [DEFAULT]
    assert attachment_rows(mailbox) == []


def test_messages_tell_the_root(mailbox):
    mailbox.conf("QUARN_MAILNAMES_D /srv/mail  \n")

    result = mailbox.run("--del-resp", "--mailname", "user@example.org")

    assert result.status == 0
    assert error_texts(result) == ["Unable to remove autoresponder attachments: cannot open directory "
                                   "/srv/mail  /example.org/user/@attachments: No such file or directory"]
