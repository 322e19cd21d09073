"""--set-resp reads standard input whole before it opens the database; after a read error it changes nothing."""

import contextlib
import ctypes
import mmap
import os
import resource
import subprocess
import tty

import pytest
from harness import DONE
from harness.mailboxes import run_sql
from harness.sandbox import DATABASE
from harness.waiting import has_open, until_it_sleeps

DIRECTORY = "/var/lib/quarn/mail/autoresponder"
SET_RESP = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org")
MIB = 1024 * 1024


@pytest.fixture
def database(sandbox):
    """The sandbox with one row in its database."""
    sandbox.init_db()
    run_sql(sandbox, "INSERT INTO autoresponder (mn, real_owner, body) "
                     "VALUES ('a@example.org', 'a@example.org', 'former')")
    return sandbox


@pytest.fixture
def descriptors():
    """A function that returns the given descriptors; they are closed at the end of the test."""
    kept = []

    def keep(*numbers):
        kept.extend(numbers)
        return numbers[0] if len(numbers) == 1 else numbers

    yield keep
    for number in kept:
        with contextlib.suppress(OSError):
            os.close(number)


def bodies(sandbox):
    return [body for body, in sandbox.rows("SELECT CAST(body AS BLOB) FROM autoresponder")]


def assert_failed(result, text):
    records = [(record.priority, record.text) for record in result.records]
    assert (result.status, result.stdout, records) == (1, b"", [(19, text)])


def memory_before_a_gap(content):
    """A descriptor of this process's memory: reading returns `content`, then fails with EIO where nothing is mapped."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mmap.restype = ctypes.c_void_p
    libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_long]
    libc.munmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
    pages = -(-len(content) // mmap.PAGESIZE) * mmap.PAGESIZE
    start = libc.mmap(None, pages + mmap.PAGESIZE, mmap.PROT_READ | mmap.PROT_WRITE,
                      mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)
    libc.munmap(start + pages, mmap.PAGESIZE)
    ctypes.memmove(start + pages - len(content), content, len(content))
    descriptor = os.open("/proc/self/mem", os.O_RDONLY)
    os.lseek(descriptor, start + pages - len(content), os.SEEK_SET)
    return descriptor


# -- input that cannot be read


UNREADABLE = {
    "closed": (lambda keep: None, "Bad file descriptor"),
    "write-only": (lambda keep: keep(os.open("/dev/null", os.O_WRONLY)), "Bad file descriptor"),
    "directory": (lambda keep: keep(os.open("/", os.O_RDONLY)), "Is a directory"),
    **{f"error after {length} bytes": (lambda keep, length=length: keep(memory_before_a_gap(b"x" * length)),
                                       "Input/output error") for length in (0, 20, 100_000)},
}
each_unreadable = pytest.mark.parametrize(("make", "text"), UNREADABLE.values(), ids=UNREADABLE)


@each_unreadable
def test_unreadable_input_leaves_the_former_row(database, descriptors, make, text):
    result = database.run(*SET_RESP, stdin=make(descriptors))

    assert_failed(result, f"Unable to read standard input: {text}")
    assert bodies(database) == [b"former"]


@each_unreadable
def test_unreadable_input_leaves_the_database_unopened(sandbox, descriptors, make, text):
    sandbox.path(DIRECTORY).mkdir(parents=True)

    result = sandbox.run(*SET_RESP, stdin=make(descriptors))

    assert_failed(result, f"Unable to read standard input: {text}")
    assert set(sandbox.tree(DIRECTORY)) == {"."}  # opening would have made an empty file


def test_error_after_a_part_of_the_body_does_not_end_the_body(database, needs_tracing):
    body = b"x" * 60_000
    _, calls = database.trace("--set-resp", "--mailname", "b@example.org", "--real-owner", "a@example.org",
                              stdin=body, calls="read")
    nth = [call.args_text.partition(",")[0] for call in calls].index("0") + 2

    result, calls = database.trace(*SET_RESP, stdin=body, calls="read,openat", inject=[f"read:error=EIO:when={nth}"])

    assert_failed(result, "Unable to read standard input: Input/output error")
    reads = [(call.value, call.error) for call in calls if call.name == "read" and call.args_text.startswith("0,")]
    assert reads == [(60_000, None), (-1, "EIO")]
    assert DATABASE not in [call.strings[0] for call in calls if call.name == "openat"]
    assert database.rows("SELECT CAST(body AS BLOB) FROM autoresponder WHERE mn = 'a@example.org'") == [(b"former",)]


def test_interrupted_read_is_repeated(database, needs_tracing):
    _, calls = database.trace(*SET_RESP, stdin=b"x", calls="read")
    nth = [call.args_text.partition(",")[0] for call in calls].index("0") + 1

    result, calls = database.trace(*SET_RESP, stdin=b"the whole body", calls="read",
                                   inject=[f"read:error=EINTR:when={nth}"])

    assert [call.error for call in calls if call.args_text.startswith("0,")] == ["EINTR", None, None]
    assert result == DONE
    assert bodies(database) == [b"the whole body"]


# -- input that is too large


@pytest.mark.unsanitized
def test_body_larger_than_memory_ends_in_an_error(database):
    with open("/dev/zero", "rb") as endless:
        result = database.run(*SET_RESP, stdin=endless, rlimits={resource.RLIMIT_AS: 64 * MIB})

    assert (result.status, result.stdout) == (1, b"Error: std::bad_alloc\n")
    assert (result.stderr, result.records) == (b"", [])
    assert bodies(database) == [b"former"]


@pytest.mark.unsanitized
def test_body_is_stored_whole_or_not_at_all_with_little_memory(database, tmp_path):
    body = b"a line of the body, and the next line is another\n" * 200_000
    path = tmp_path / "body"
    path.write_bytes(body)

    statuses = []
    for room in range(12, 64, 4):
        run_sql(database, "UPDATE autoresponder SET body = 'former'")
        with open(path, "rb") as file:
            statuses.append(database.run(*SET_RESP, stdin=file, rlimits={resource.RLIMIT_AS: room * MIB}).status)
        assert bodies(database) == [body if statuses[-1] == 0 else b"former"]

    assert statuses == sorted(statuses, reverse=True)
    assert {0, 1} == set(statuses)


# -- input that is empty or slow


@pytest.mark.parametrize("options", [{"stdin": subprocess.DEVNULL}, {"broken_pipes": [0]}], ids=["empty", "no writer"])
def test_empty_input_is_an_empty_body(database, options):
    assert database.run(*SET_RESP, **options) == DONE

    assert bodies(database) == [b""]


def test_file_is_read_from_its_current_offset(database, tmp_path):
    path = tmp_path / "body"
    path.write_bytes(b"read already, body")
    with open(path, "rb", buffering=0) as file:
        file.read(len(b"read already, "))
        assert database.run(*SET_RESP, stdin=file) == DONE

    assert bodies(database) == [b"body"]


def test_terminal_line_is_read_until_its_end(database, descriptors):
    master, slave = descriptors(*os.openpty())
    tty.setraw(slave)
    attributes = tty.tcgetattr(slave)
    attributes[3] |= tty.ICANON
    tty.tcsetattr(slave, tty.TCSANOW, attributes)
    os.write(master, b"line\n\x04")

    assert database.run(*SET_RESP, stdin=slave) == DONE

    assert bodies(database) == [b"line\n"]


@pytest.mark.parametrize("blocking", [True, False], ids=["blocking", "non-blocking"])
def test_run_waits_for_a_slow_writer_with_the_database_unopened(database, descriptors, blocking):
    reader, writer = descriptors(*os.pipe())
    os.set_blocking(reader, blocking)
    running = database.start(*SET_RESP, stdin=reader)
    pieces = [b"a", b"\n", b"piece \0 of it", b"", b"x" * 5000, b"y" * 65536, b"the end\n"]

    for piece in pieces:
        until_it_sleeps(running)
        assert not has_open(running, "responder.db")
        os.write(writer, piece)
    until_it_sleeps(running)
    with contextlib.closing(database.db()) as other:  # the database is not locked
        other.execute("PRAGMA busy_timeout = 0")
        other.execute("BEGIN EXCLUSIVE")
        other.execute("COMMIT")
    os.close(writer)

    assert running.wait() == DONE
    assert bodies(database) == [b"".join(pieces)]


def test_megabytes_in_small_pieces_arrive_whole(database, descriptors):
    reader, writer = descriptors(*os.pipe())
    running = database.start(*SET_RESP, stdin=reader)
    body = os.urandom(3 * 1024 * 1024 + 7)

    for start in range(0, len(body), 4099):
        os.write(writer, body[start:start + 4099])
    os.close(writer)

    assert running.wait() == DONE
    assert bodies(database) == [body]


def test_body_is_read_before_a_missing_database_is_reported(sandbox, descriptors):
    reader, writer = descriptors(*os.pipe())
    running = sandbox.start(*SET_RESP, stdin=reader)

    until_it_sleeps(running)
    os.close(writer)

    assert_failed(running.wait(), "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                                  "unable to open database file")
