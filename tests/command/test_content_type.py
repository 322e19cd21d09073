"""--content-type, --ans-freq and --ans-limit: accepted values and their stored form, and the refusal of all others."""

import pytest
from harness import DONE, Result

SET_RESP = ["--set-resp", "--mailname", "user@example.org", "--real-owner", "user@example.org"]
NUMBERS = {"25": 25, "0": 0, "-5": -5, "+7": 7, "007": 7, "2147483647": 2147483647, "-2147483648": -2147483648}
NOT_TYPES = ["Plain", "TEXT/PLAIN", "Text/Plain", "HTML", "TEXT/HTML", "text/xml", "text/", "text", "/html", "htm",
             "htmls", " html", "text/html ", "text/plain\n", "text/plain; charset=UTF-8"]
NOT_NUMBERS = ["abc", "1x", "x1", " 5", "5 ", "1.5", "1e3", "0x10", "-", "--5", "2147483648", "-2147483649", "9" * 20]


@pytest.mark.parametrize("options, column, stored", [
    ([], "content_type", "text/plain"),
    (["--content-type", "text/plain"], "content_type", "text/plain"),
    (["--content-type", "plain"], "content_type", "text/plain"),
    (["--content-type", "text/html"], "content_type", "text/html"),
    (["--content-type", "html"], "content_type", "text/html"),
    ([], "ans_freq", 10),
    ([], "ans_limit", 1000),
    (["--ans-freq", "-5"], "ans_freq", -5),
    *(([f"--ans-freq={number}"], "ans_freq", value) for number, value in NUMBERS.items()),
    *(([f"--ans-limit={number}"], "ans_limit", value) for number, value in NUMBERS.items()),
], ids=str)
def test_accepted_value_or_default_is_stored(sandbox, options, column, stored):
    sandbox.init_db()

    assert sandbox.run(*SET_RESP, *options) == DONE

    assert sandbox.rows(f"SELECT {column} FROM autoresponder") == [(stored,)]


@pytest.mark.parametrize("arguments, message", [
    *((["--content-type", value], f"the argument ('{value}') for option '--content-type' is invalid")
      for value in NOT_TYPES),
    *(([option, value], f"the argument ('{value}') for option '{option}' is invalid")
      for option in ("--ans-freq", "--ans-limit") for value in NOT_NUMBERS),
    (["--content-type", ""], "the argument for option '--content-type' is invalid"),
    (["--ans-freq", ""], "the argument for option '--ans-freq' is invalid"),
    (["--content-type", "html", "--content-type", "html"],
     "option '--content-type' cannot be specified more than once"),
    (["--content-type", "html", "--content-type", "text/xml"],
     "option '--content-type' cannot be specified more than once"),
    # before the check for required options
    (["--ans-freq", "abc", "--set-resp"], "the argument ('abc') for option '--ans-freq' is invalid"),
], ids=str)
def test_other_values_are_refused(sandbox, arguments, message):
    assert sandbox.run(*arguments) == Result(1, f"Error: {message}\n".encode(), b"", [])
