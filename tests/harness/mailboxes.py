"""The mailbox of the tests, user@example.org, and what a test puts into the database and the mail tree beforehand.

The fixtures `mailbox` and `mailbox_with_attachment` are in tests/command/conftest.py.
"""

import contextlib
import errno
import os
import syslog

from .waiting import until

MAIL_TREE = "/var/qmail/mailnames"
DOMAIN = MAIL_TREE + "/example.org"
MAILBOX = DOMAIN + "/user"
DIRECTORY = MAILBOX + "/@attachments"
FILE = DIRECTORY + "/report.pdf"
ROOT, POPUSER, STRANGER = (0, 0), (1110, 31), (4321, 0)  # (uid, gid); the stranger shares only root's group
LOOP = "Too many levels of symbolic links"

MAILNAME = ("--mailname", "user@example.org")
SET_RESP = ("--set-resp", *MAILNAME, "--real-owner", "new@example.org")
DEL_RESP = ("--del-resp", *MAILNAME)
ADD = ("--add-attach", *MAILNAME, "--filename", "report.pdf", "--source", "/tmp/source")
ADD_NEW = ("--add-attach", *MAILNAME, "--filename", "new.pdf", "--source", "/tmp/source")
DEL = ("--del-attach", *MAILNAME, "--filename", "report.pdf")
SET_EXTRA_HEADERS = ("--set-extra-headers",)


def add_mailbox(sandbox):
    """Initializes the database with the autoresponder of user@example.org and writes the file /tmp/source."""
    sandbox.init_db()
    add_autoresponder(sandbox, "user@example.org")
    put_file(sandbox, "/tmp/source", b"the report", owner=ROOT, mode=0o644)


def add_attachment(sandbox):
    """Adds the attachment report.pdf, a row with a file, to the mailbox, and the extra header X-Old."""
    add_attachment_rows(sandbox, "user@example.org", "report.pdf")
    make_directories(sandbox, DIRECTORY)
    put_file(sandbox, FILE, b"the old report")
    run_sql(sandbox, "INSERT INTO extra_headers VALUES ('X-Old', 'yes')")


def run_sql(sandbox, script):
    """Runs an SQL script on the database."""
    with contextlib.closing(sandbox.db()) as connection:
        connection.executescript(script)


def add_autoresponder(sandbox, mailname, real_owner=None):
    """Adds an autoresponder for `mailname`, which is its own owner by default."""
    with contextlib.closing(sandbox.db()) as connection:
        connection.execute("INSERT INTO autoresponder (mn, real_owner) VALUES (?, ?)",
                           (mailname, mailname if real_owner is None else real_owner))


def add_attachment_rows(sandbox, mailname, *names):
    """Registers attachments without any file."""
    with contextlib.closing(sandbox.db()) as connection:
        connection.executemany("INSERT INTO attachments VALUES (?, ?)", [(mailname, name) for name in names])


def attachment_rows(sandbox):
    """All rows of the table attachments, sorted."""
    return sandbox.rows("SELECT mn, filename FROM attachments ORDER BY mn, filename")


def autoresponder_rows(sandbox):
    """(mail name, owner) of every autoresponder, sorted."""
    return sandbox.rows("SELECT mn, real_owner FROM autoresponder ORDER BY mn")


def corrupt_page_of(sandbox, name):
    """Overwrites the root page of the table or index `name`; reading it then fails with a malformed database."""
    ((page,),) = sandbox.rows("SELECT rootpage FROM sqlite_master WHERE name = ?", name)
    with open(sandbox.path("/var/lib/quarn/mail/autoresponder/responder.db"), "r+b") as file:
        file.seek((page - 1) * 4096)
        file.write(b"\xff" * 4096)


def make_directories(sandbox, path, owner=None, mode=0o700):
    """Makes the missing directories of `path` inside; they belong to the mail user by default."""
    place = sandbox.directory
    for name in path.strip("/").split("/"):
        place = place / name
        if not os.path.lexists(place):
            place.mkdir()
            place.chmod(mode)
            os.chown(place, *(owner or sandbox.popuser))


def put_file(sandbox, path, content=b"", owner=None, mode=0o600):
    """Writes a file inside; it belongs to the mail user by default."""
    file = sandbox.path(path)
    file.write_bytes(content)
    file.chmod(mode)
    os.chown(file, *(owner or sandbox.popuser))


def put_link(sandbox, path, target, owner):
    """Makes a symbolic link inside; `target` is a path as the tool sees it."""
    os.symlink(target, sandbox.path(path))
    os.chown(sandbox.path(path), *owner, follow_symlinks=False)


def put_chain(sandbox, link, count, target):
    """Makes `link` lead to `target` through `count` links of root's, itself included; the others are in /srv."""
    links = [link, *(f"/srv/{link.rpartition('/')[2]}{number}" for number in range(1, count))]
    for path, text in zip(links, [*links[1:], target]):
        put_link(sandbox, path, text, ROOT)


@contextlib.contextmanager
def copying_from_pipe(sandbox, path, content=b"", **run):
    """A run of --add-attach with the options `run` whose source is a new pipe `path`. The block begins when the copy
    has begun: the run has looked up, and not written. It receives the run; at its end the pipe receives `content`."""
    os.mkfifo(sandbox.path(path), 0o644)
    running = sandbox.start("--add-attach", "--source", path, *(f"--{name}={value}" for name, value in run.items()))
    opened = []

    def cp_reads():
        assert running.running(), "the run has ended before its copy began"
        try:
            opened.append(os.open(sandbox.path(path), os.O_WRONLY | os.O_NONBLOCK))
        except OSError as error:
            assert error.errno == errno.ENXIO, error
        return opened

    until(cp_reads, "the copy begins")
    with open(opened[0], "wb") as pipe, contextlib.suppress(BrokenPipeError):
        yield running
        pipe.write(content)
        pipe.flush()


def error_texts(result):
    """The texts of the records of a run; all must be errors of the mail facility."""
    assert {record.priority for record in result.records} <= {syslog.LOG_MAIL | syslog.LOG_ERR}
    return [record.text for record in result.records]
