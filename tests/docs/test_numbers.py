"""Limits that the documents give are those of the code."""

import re

import pytest
from sources import REPOSITORY

JSON_LEVELS = ("store/extra_headers.cpp", "DEEPEST_JSON")
LOCAL_PART = ("support/mail_syntax.cpp", "LOCAL_PART_MAX")
DOMAIN = ("support/mail_syntax.cpp", "DOMAIN_MAX")
LABEL = ("support/mail_syntax.cpp", "LABEL_MAX")

PLACES = [
    (JSON_LEVELS, "doc/arspctl.8", r"more than (\d+) levels"),
    (JSON_LEVELS, "SECURITY.md", r"nesting up to (\d+) levels"),
    (LOCAL_PART, "doc/arspctl.8", r"1 to (\d+) letters, digits and characters of"),
    (DOMAIN, "doc/arspctl.8", r"The domain has 1 to (\d+) characters"),
    (LABEL, "doc/arspctl.8", r"labels of 1 to (\d+) letters"),
]


@pytest.mark.parametrize("constant, document, pattern", PLACES,
                         ids=[f"{name}-{document}" for (_, name), document, _ in PLACES])
def test_limit_in_a_document_is_that_of_the_code(constant, document, pattern):
    source, name = constant
    (value,) = re.findall(rf"\bconstexpr [\w:]+ {name} = (\d+);", (REPOSITORY / source).read_text())

    assert re.findall(pattern, (REPOSITORY / document).read_text()) == [value]
