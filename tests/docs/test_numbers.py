"""The limits in the documents are those of the code."""

import re

import pytest
from sources import REPOSITORY

JSON_LEVELS = ("store/extra_headers.cpp", "DEEPEST_JSON")
MAIL_SYNTAX = "support/mail_syntax.cpp"


@pytest.mark.parametrize("constant, document, pattern", [
    (JSON_LEVELS, "doc/arspctl.8", r"more than (\d+) levels"),
    (JSON_LEVELS, "SECURITY.md", r"nesting up to (\d+) levels"),
    ((MAIL_SYNTAX, "LOCAL_PART_MAX"), "doc/arspctl.8", r"1 to (\d+) letters, digits and characters of"),
    ((MAIL_SYNTAX, "DOMAIN_MAX"), "doc/arspctl.8", r"The domain has 1 to (\d+) characters"),
    ((MAIL_SYNTAX, "LABEL_MAX"), "doc/arspctl.8", r"labels of 1 to (\d+) letters"),
], ids=lambda value: value[1] if isinstance(value, tuple) else "")
def test_limit_in_a_document_is_that_of_the_code(constant, document, pattern):
    source, name = constant
    (value,) = re.findall(rf"\bconstexpr [\w:]+ {name} = (\d+);", (REPOSITORY / source).read_text())

    assert re.findall(pattern, (REPOSITORY / document).read_text()) == [value]
