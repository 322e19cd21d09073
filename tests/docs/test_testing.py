"""docs/testing.md and tests/coverage/exclusions.txt: the excluded lines exist and have reasons."""

import sys

import pytest
from sources import REPOSITORY

sys.path.insert(0, str(REPOSITORY / "tests" / "coverage"))

import check  # noqa: E402


@pytest.mark.parametrize("exclusion", check.exclusions(), ids=lambda exclusion: exclusion[0])
def test_excluded_line_exists_and_has_a_reason(exclusion):
    file, line, reason = exclusion

    assert check.numbers(file, line)
    assert reason
