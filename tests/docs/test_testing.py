"""docs/testing.md and tests/coverage/exclusions.txt: what they name is there."""

import re
import sys

import pytest
from sources import REPOSITORY

sys.path.insert(0, str(REPOSITORY / "tests" / "coverage"))

import check  # noqa: E402

TESTING = (REPOSITORY / "docs" / "testing.md").read_text()


@pytest.mark.parametrize("exclusion", check.exclusions(), ids=lambda exclusion: exclusion[0])
def test_an_excluded_line_stands_in_its_file_and_has_a_reason(exclusion):
    file, line, reason = exclusion

    assert check.places(file, line)
    assert reason


@pytest.mark.parametrize("path", sorted(set(re.findall(r"`((?:docs|tests|scripts)/[\w./-]+)`", TESTING))))
def test_paths_in_the_document_lead_somewhere(path):
    assert (REPOSITORY / path).exists()
