"""Fixtures of the document tests: the private roots of the command tests."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from command.conftest import make_sandbox, needs_tracing, sandbox, sandbox_directory  # noqa: E402
from harness.private_root import choose_mode  # noqa: E402

__all__ = ["make_sandbox", "needs_tracing", "sandbox", "sandbox_directory", "sandbox_mode"]


@pytest.fixture(scope="session")
def sandbox_mode():
    """How this machine enters private roots."""
    return choose_mode()
