"""Mail addresses on the command line: which are accepted, how they are stored, and how the others are refused."""

import os

import pytest
from harness import DONE, Result

NO_ADDRESS = " - incorrect email address format"
BAD_LOCAL_PART = " - incorrect format of local part of email address"
BAD_DOMAIN = " - incorrect format of domain part of email address"
TWICE = "option '{}' cannot be specified more than once"
NO_VALUE = "the required argument for option '{}' is missing"
LABELS_OF_255 = ".".join(["a" * 63, "b" * 63, "c" * 63, "d" * 63])
assert len(LABELS_OF_255) == 255

each_option = pytest.mark.parametrize("option", ["--mailname", "--real-owner"])


def refused(message):
    return Result(1, b"Error: " + os.fsencode(message) + b"\n", b"", [])


@pytest.mark.parametrize(("mailname", "real_owner", "stored"), [
    ("User@Example.ORG", "O'Brien+Tag@EXAMPLE.org", ("user@example.org", "o'brien+tag@example.org")),
    *((address, address, (address, address)) for address in (
        "first.last+tag@example.org", "o'brien@example.org", "a&b_c-d@example.org", "-@example.org", "7@example.org",
        "user@localhost", "user@192.0.2.1", "user@example.org-", "user@ex-am--ple.org", "user@xn--bcher-kva.example",
        "l" * 245 + "@example.org", "user@" + "d" * 63 + ".org", "user@" + LABELS_OF_255)),
])
def test_address_is_stored_in_lower_case(sandbox, mailname, real_owner, stored):
    sandbox.init_db()

    assert sandbox.run("--set-resp", "--mailname", mailname, "--real-owner", real_owner) == DONE

    assert sandbox.rows("SELECT mn, real_owner FROM autoresponder") == [stored]


@each_option
@pytest.mark.parametrize(("address", "message"), [
    *((address, address + NO_ADDRESS) for address in ("", "userexample.org", "a@b@c", "a@@b", "@@")),
    ("@", BAD_LOCAL_PART), ("@example.org", BAD_LOCAL_PART), ("user@", BAD_DOMAIN)])
def test_address_has_two_pieces(sandbox, option, address, message):
    assert sandbox.run(option, address) == refused(message)


@pytest.mark.parametrize("local_part", [
    ".user", "user.", ".", "us..er", "user name", " user", "us%er", "us=er", "us/er", "us!er", "us#er", '"user"',
    "us\ner", "m\u00fcller", os.fsdecode(b"m\xfcller"), "l" * 246])
def test_bad_local_part_is_named(sandbox, local_part):
    assert sandbox.run("--mailname", local_part + "@example.org") == refused(local_part + BAD_LOCAL_PART)


@pytest.mark.parametrize("domain", [
    "-example.org", "ex-.org", "example..org", ".example.org", "example.org.", ".", "-", "example.-org", "exa_mple.org",
    "exa mple.org", "example.org ", "[192.0.2.1]", "b\u00fccher.example", "d" * 64 + ".org", "d" * 64,
    "a." + LABELS_OF_255[1:]])
def test_bad_domain_is_named(sandbox, domain):
    assert sandbox.run("--mailname", "user@" + domain) == refused(domain + BAD_DOMAIN)


@pytest.mark.parametrize(("args", "message"), [
    (("--mailname", ".user@-example.org"), ".user" + BAD_LOCAL_PART),  # checked before the domain
    (("--mailname", "User.@Example.ORG"), "User." + BAD_LOCAL_PART),  # shown as typed
    (("--mailname", "User@Example.ORG."), "Example.ORG." + BAD_DOMAIN),
    (("--mailname", "User.Example.ORG"), "User.Example.ORG" + NO_ADDRESS),
    (("--real-owner", "owner", "--mailname", "name"), "owner" + NO_ADDRESS),  # the first on the command line
    (("--set-resp", "--mailname", "userexample.org"), "userexample.org" + NO_ADDRESS),  # before the missing option
    (("--mailname", "--no-such-option"), "--no-such-option" + NO_ADDRESS),
    (("--mailname", "user@example.org", "--mailname", "x"), TWICE.format("--mailname")),
])
def test_first_error_is_reported(sandbox, args, message):
    assert sandbox.run(*args) == refused(message)


@each_option
def test_address_option_takes_one_value_once(sandbox, option):
    assert sandbox.run(option, "user@example.org", option, "user@example.org") == refused(TWICE.format(option))
    assert sandbox.run(option) == refused(NO_VALUE.format(option))


def test_bad_address_is_refused_before_the_database_is_touched(sandbox):
    assert sandbox.run("--init-db", "--mailname", "userexample.org") == refused("userexample.org" + NO_ADDRESS)

    assert list(sandbox.path("/var/lib/quarn").iterdir()) == []


@pytest.mark.parametrize("text", ["not an address", "A@B@C", "User@Example.ORG", "", "@"])
def test_reply_to_and_forward_to_accept_any_text(sandbox, text):
    sandbox.init_db()

    assert sandbox.run("--set-resp", "--mailname", "user@example.org", "--real-owner", "user@example.org",
                       "--reply-to", text, "--forward-to", text) == DONE

    assert sandbox.rows("SELECT reply_to, forward_to FROM autoresponder") == [(text, text)]
