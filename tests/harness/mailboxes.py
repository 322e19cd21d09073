"""Mailboxes whose replies carry attachments: what a test puts into the database and into the mail tree beforehand."""

import contextlib
import errno
import os
import syslog

from .waiting import until


def run_sql(sandbox, script):
    """Changes the database behind the tool's back."""
    with contextlib.closing(sandbox.db()) as connection:
        connection.executescript(script)


def add_autoresponder(sandbox, mailname, real_owner=None):
    """Gives `mailname` an autoresponder; its owner is itself when no other is named."""
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
    """Overwrites the root page of the table or index `name`: whoever reads it finds the database malformed."""
    ((page,),) = sandbox.rows("SELECT rootpage FROM sqlite_master WHERE name = ?", name)
    with open(sandbox.path("/var/lib/quarn/mail/autoresponder/responder.db"), "r+b") as file:
        file.seek((page - 1) * 4096)
        file.write(b"\xff" * 4096)


def make_directories(sandbox, path, owner=None, mode=0o700):
    """Makes the missing directories of `path` inside; they belong to the mail system's user unless told otherwise."""
    place = sandbox.directory
    for name in path.strip("/").split("/"):
        place = place / name
        if not os.path.lexists(place):
            place.mkdir()
            place.chmod(mode)
            os.chown(place, *(owner or sandbox.popuser))


def put_file(sandbox, path, content=b"", owner=None, mode=0o600):
    """Writes a file inside, of the mail system's user unless told otherwise."""
    file = sandbox.path(path)
    file.write_bytes(content)
    file.chmod(mode)
    os.chown(file, *(owner or sandbox.popuser))


def put_link(sandbox, path, target, owner):
    """Makes a symbolic link inside; `target` is a path as the tool sees it."""
    os.symlink(target, sandbox.path(path))
    os.chown(sandbox.path(path), *owner, follow_symlinks=False)


@contextlib.contextmanager
def copying_from_pipe(sandbox, path, content=b"", **run):
    """A run of --add-attach with the options `run` whose source is the pipe `path`, which is made. The block begins when
    the copy has: then the run has looked up, and not written. It is given the run; at its end the copy gets `content`
    and the end of it."""
    os.mkfifo(sandbox.path(path), 0o644)
    running = sandbox.start("--add-attach", "--source", path, *(f"--{name}={value}" for name, value in run.items()))
    opened = []

    def cp_reads():
        assert running.running(), "it ended before its copy began"
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
    """The texts of the records of a run, all of which have to be errors of the mail facility."""
    assert {record.priority for record in result.records} <= {syslog.LOG_MAIL | syslog.LOG_ERR}
    return [record.text for record in result.records]
