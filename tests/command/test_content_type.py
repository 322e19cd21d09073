"""Content types and numbers on the command line: what is taken, how it is stored, and how the rest is refused."""

import pytest
from harness import Result

SET_RESP = ["--set-resp", "--mailname", "user@example.org", "--real-owner", "user@example.org"]


def refused(message):
    return Result(1, b"Error: " + message.encode() + b"\n", b"", [])


def stored(sandbox, column, *options):
    """What --set-resp with these options leaves in the column of its row."""
    sandbox.init_db()
    assert sandbox.run(*SET_RESP, *options) == Result(0, b"", b"", [])
    [[value]] = sandbox.rows(f"SELECT {column} FROM autoresponder")
    return value


@pytest.mark.parametrize(
    ("typed", "kept"),
    [
        ("text/plain", "text/plain"),
        ("plain", "text/plain"),
        ("text/html", "text/html"),
        ("html", "text/html"),
    ],
)
def test_content_type_is_stored_in_full(sandbox, typed, kept):
    assert stored(sandbox, "content_type", "--content-type", typed) == kept


def test_content_type_is_plain_text_when_none_is_given(sandbox):
    assert stored(sandbox, "content_type") == "text/plain"


@pytest.mark.parametrize(
    "typed",
    [
        "Plain",
        "TEXT/PLAIN",
        "Text/Plain",
        "HTML",
        "TEXT/HTML",
        "text/xml",
        "text/",
        "text",
        "/html",
        "htm",
        "htmls",
        " html",
        "text/html ",
        "text/plain\n",
        "text/plain; charset=UTF-8",
    ],
)
def test_other_content_types_are_refused(sandbox, typed):
    result = sandbox.run("--content-type", typed)

    assert result == refused(f"the argument ('{typed}') for option '--content-type' is invalid")


def test_an_empty_content_type_is_refused(sandbox):
    assert sandbox.run("--content-type", "") == refused("the argument for option '--content-type' is invalid")


@pytest.mark.parametrize("second", ["html", "text/xml"])
def test_a_content_type_given_twice_is_refused(sandbox, second):
    result = sandbox.run("--content-type", "html", "--content-type", second)

    assert result == refused("option '--content-type' cannot be specified more than once")


@pytest.mark.parametrize(("option", "column"), [("--ans-freq", "ans_freq"), ("--ans-limit", "ans_limit")])
@pytest.mark.parametrize(
    ("typed", "kept"),
    [
        ("25", 25),
        ("0", 0),
        ("-5", -5),
        ("+7", 7),
        ("007", 7),
        ("2147483647", 2147483647),
        ("-2147483648", -2147483648),
    ],
)
def test_a_number_is_stored_without_a_range_check(sandbox, option, column, typed, kept):
    assert stored(sandbox, column, f"{option}={typed}") == kept


def test_a_negative_number_may_be_a_word_of_its_own(sandbox):
    assert stored(sandbox, "ans_freq", "--ans-freq", "-5") == -5


def test_numbers_have_defaults(sandbox):
    assert stored(sandbox, "ans_freq || ' ' || ans_limit") == "10 1000"


@pytest.mark.parametrize("option", ["--ans-freq", "--ans-limit"])
@pytest.mark.parametrize(
    "typed",
    ["abc", "1x", "x1", " 5", "5 ", "1.5", "1e3", "0x10", "-", "--5", "2147483648", "-2147483649", "9" * 20],
)
def test_what_is_no_whole_32_bit_number_is_refused(sandbox, option, typed):
    assert sandbox.run(option, typed) == refused(f"the argument ('{typed}') for option '{option}' is invalid")


def test_an_empty_number_is_refused(sandbox):
    assert sandbox.run("--ans-freq", "") == refused("the argument for option '--ans-freq' is invalid")


def test_a_bad_number_is_refused_before_a_missing_option(sandbox):
    result = sandbox.run("--ans-freq", "abc", "--set-resp")

    assert result == refused("the argument ('abc') for option '--ans-freq' is invalid")
