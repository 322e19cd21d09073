"""Fixtures of the command tests."""

import inspect
import shutil
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from harness import Sandbox, mailboxes, tracing  # noqa: E402
from harness.private_root import choose_mode, is_sanitized, loads_library  # noqa: E402
from harness.sandbox import program_under_test, sanitized  # noqa: E402
from torture.scene import Scene  # noqa: E402

SKIPPED = 77  # ctest shows such a test as skipped


def pytest_addoption(parser):
    parser.addoption("--sandbox-mode", choices=("namespace", "chroot"), help="the mode of the private roots")
    parser.addoption("--databases", type=int, default=20, help="random databases that are exported and restored")


def pytest_configure(config):
    config.addinivalue_line("markers", "tracing: traces system calls; given to every test that asks for needs_tracing")
    config.addinivalue_line("markers", "shared: replaces functions of a library that only some builds load; given to "
                                       "every test that names sqlite_shim")
    config.addinivalue_line("markers", "unsanitized: takes memory away, which AddressSanitizer does not survive, or "
                                       "counts calls, of which it makes its own")


def pytest_collection_modifyitems(config, items):
    for item in items:
        if "needs_tracing" in item.fixturenames:
            item.add_marker("tracing")
        if "sqlite_shim" in inspect.getsource(item.function):
            item.add_marker("shared")
    # A preloaded library cannot replace functions that are linked into the program.
    unfit = set() if loads_library(str(program_under_test()), "libsqlite3") else {"shared"}
    if sanitized():
        unfit.add("unsanitized")
    left_out = [item for item in items if unfit & {marker.name for marker in item.iter_markers()}]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


def pytest_sessionfinish(session, exitstatus):
    """Exits with SKIPPED if all tests were skipped; pytest itself exits with 0 then."""
    outcomes = session.config.pluginmanager.get_plugin("terminalreporter").stats
    if exitstatus == pytest.ExitCode.OK and outcomes.get("skipped") and not outcomes.get("passed"):
        session.exitstatus = SKIPPED
    elif exitstatus == pytest.ExitCode.NO_TESTS_COLLECTED and outcomes.get("deselected"):
        session.exitstatus = pytest.ExitCode.OK  # a file whose tests all trace: they run as part of another test


@pytest.fixture(scope="session")
def needs_tracing():
    """Skips the test, with the reason, on a machine that forbids tracing."""
    reason = tracing.why_not()
    if reason is not None:
        pytest.skip(reason)


@pytest.fixture(scope="session")
def sandbox_mode(pytestconfig):
    """The mode of the private roots: "namespace" wherever the machine allows it, otherwise "chroot"."""
    return choose_mode(pytestconfig.getoption("--sandbox-mode"))


@pytest.fixture(scope="session")
def sandbox_directory():
    """The directory of this session's private roots."""
    directory = tempfile.mkdtemp(prefix="arsp")
    yield Path(directory)
    shutil.rmtree(directory)


@pytest.fixture
def make_sandbox(request, sandbox_mode, sandbox_directory):
    """Makes further private roots: make_sandbox(mode=..., program=..., parent=...), the last one a directory."""
    made = []

    def make(mode=sandbox_mode, program=None, parent=None):
        program = program or program_under_test()
        if mode == "chroot" and is_sanitized(str(program)):
            pytest.skip("AddressSanitizer needs /proc, which a chroot does not have")
        sandbox = Sandbox(tempfile.mkdtemp(prefix="arsp", dir=parent or sandbox_directory), program, mode,
                          pool=None if parent else sandbox_directory / "pool",  # hard links need one file system
                          tracing_declared="needs_tracing" in request.fixturenames)
        made.append(sandbox)
        return sandbox

    yield make
    for sandbox in made:
        sandbox.remove()


@pytest.fixture
def sandbox(make_sandbox):
    """A fresh private root with the tool in it."""
    return make_sandbox()


@pytest.fixture
def mailbox(sandbox):
    """A root with the autoresponder of user@example.org and the file /tmp/source; the mail tree is empty."""
    mailboxes.add_mailbox(sandbox)
    return sandbox


@pytest.fixture
def mailbox_with_attachment(mailbox):
    """The root `mailbox` with the attachment report.pdf of user@example.org and the extra header X-Old: yes."""
    mailboxes.add_attachment(mailbox)
    return mailbox


@pytest.fixture
def scene(request, sandbox):
    """The scene of the command that the test is parametrized with."""
    made = Scene(sandbox, request.getfixturevalue("command"))
    made.begin()
    yield made
    made.close()
