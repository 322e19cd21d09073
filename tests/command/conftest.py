"""Fixtures of the command tests."""

import inspect
import shutil
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from harness import Sandbox, mailboxes, tracing  # noqa: E402
from harness.private_root import script  # noqa: E402
from harness.sandbox import program_under_test  # noqa: E402

SKIPPED = 77  # the exit status that ctest takes for "skipped"


def pytest_addoption(parser):
    parser.addoption("--sandbox-mode", choices=("namespace", "chroot"), help="the way into the private roots")


def pytest_configure(config):
    config.addinivalue_line("markers", "tracing: traces system calls; given to every test that asks for needs_tracing")
    config.addinivalue_line("markers", "shared: puts something else in the place of a function of a library that only "
                                       "some builds load; given to every test that names sqlite_shim")


def pytest_collection_modifyitems(config, items):
    for item in items:
        if "needs_tracing" in item.fixturenames:
            item.add_marker("tracing")
        if "sqlite_shim" in inspect.getsource(item.function):
            item.add_marker("shared")
    if not script.loads_library(str(program_under_test()), "libsqlite3"):
        # The preset asan runs these: nothing can be put in the place of what is linked into the program.
        config.hook.pytest_deselected(items=[item for item in items if item.get_closest_marker("shared")])
        items[:] = [item for item in items if not item.get_closest_marker("shared")]


def pytest_sessionfinish(session, exitstatus):
    """Tells ctest about a session whose tests were all left out, which the exit status of pytest calls a success."""
    outcomes = session.config.pluginmanager.get_plugin("terminalreporter").stats
    if exitstatus == pytest.ExitCode.OK and outcomes.get("skipped") and not outcomes.get("passed"):
        session.exitstatus = SKIPPED
    elif exitstatus == pytest.ExitCode.NO_TESTS_COLLECTED and outcomes.get("deselected"):
        session.exitstatus = pytest.ExitCode.OK  # a file whose tests all trace: they run under another name


@pytest.fixture(scope="session")
def needs_tracing():
    """Leaves the test out, with the reason, on a machine that forbids tracing."""
    reason = tracing.why_not()
    if reason is not None:
        pytest.skip(reason)


@pytest.fixture(scope="session")
def sandbox_mode(pytestconfig):
    """The way into the private roots: "namespace" wherever the machine allows it, otherwise "chroot"."""
    return script.choose_mode(pytestconfig.getoption("--sandbox-mode"))


@pytest.fixture(scope="session")
def sandbox_directory():
    """Where the private roots of this session are."""
    directory = tempfile.mkdtemp(prefix="arsp")
    yield Path(directory)
    shutil.rmtree(directory)


@pytest.fixture
def make_sandbox(request, sandbox_mode, sandbox_directory):
    """Makes further private roots: make_sandbox(mode=..., program=...)."""
    made = []

    def make(mode=sandbox_mode, program=None):
        sandbox = Sandbox(tempfile.mkdtemp(dir=sandbox_directory), program or program_under_test(), mode,
                          pool=sandbox_directory / "pool", tracing_declared="needs_tracing" in request.fixturenames)
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
