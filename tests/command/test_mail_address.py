"""Mail addresses on the command line: what is taken, how it is stored, and how the rest is refused."""

import pytest
from harness import Result

NO_ADDRESS = " - incorrect email address format"
BAD_LOCAL_PART = " - incorrect format of local part of email address"
BAD_DOMAIN = " - incorrect format of domain part of email address"


def refused(message):
    text = message if isinstance(message, bytes) else message.encode()
    return Result(1, b"Error: " + text + b"\n", b"", [])


def stored_addresses(sandbox, mailname, real_owner):
    sandbox.init_db()
    result = sandbox.run("--set-resp", "--mailname", mailname, "--real-owner", real_owner)
    assert result == Result(0, b"", b"", [])
    return sandbox.rows("SELECT mn, real_owner FROM autoresponder")


LABELS_OF_255 = ".".join(["a" * 63, "b" * 63, "c" * 63, "d" * 63])
assert len(LABELS_OF_255) == 255


@pytest.mark.parametrize(
    "address",
    [
        "first.last+tag@example.org",
        "o'brien@example.org",
        "a&b_c-d@example.org",
        "-@example.org",
        "7@example.org",
        "user@localhost",
        "user@192.0.2.1",
        "user@example.org-",
        "user@ex-am--ple.org",
        "user@xn--bcher-kva.example",
        "l" * 245 + "@example.org",
        "user@" + "d" * 63 + ".org",
        "user@" + LABELS_OF_255,
    ],
)
def test_an_address_is_stored_as_given(sandbox, address):
    assert stored_addresses(sandbox, address, address) == [(address, address)]


def test_addresses_are_stored_in_lower_case(sandbox):
    addresses = stored_addresses(sandbox, "User@Example.ORG", "O'Brien+Tag@EXAMPLE.org")

    assert addresses == [("user@example.org", "o'brien+tag@example.org")]


@pytest.mark.parametrize("option", ["--mailname", "--real-owner"])
@pytest.mark.parametrize(
    ("address", "message"),
    [
        ("", NO_ADDRESS),
        ("userexample.org", "userexample.org" + NO_ADDRESS),
        ("a@b@c", "a@b@c" + NO_ADDRESS),
        ("a@@b", "a@@b" + NO_ADDRESS),
        ("@@", "@@" + NO_ADDRESS),
        ("@", BAD_LOCAL_PART),
        ("@example.org", BAD_LOCAL_PART),
        ("user@", BAD_DOMAIN),
    ],
)
def test_an_address_has_two_pieces(sandbox, option, address, message):
    assert sandbox.run(option, address) == refused(message)


@pytest.mark.parametrize(
    "local_part",
    [
        ".user",
        "user.",
        ".",
        "us..er",
        "user name",
        " user",
        "us%er",
        "us=er",
        "us/er",
        "us!er",
        "us#er",
        '"user"',
        "us\ner",
        "m\u00fcller",
        "l" * 246,
    ],
)
def test_a_bad_local_part_is_named(sandbox, local_part):
    assert sandbox.run("--mailname", local_part + "@example.org") == refused(local_part + BAD_LOCAL_PART)


def test_a_local_part_in_no_encoding_is_named_byte_for_byte(sandbox):
    result = sandbox.run("--mailname", b"m\xfcller@example.org")

    assert result == refused(b"m\xfcller" + BAD_LOCAL_PART.encode())


@pytest.mark.parametrize(
    "domain",
    [
        "-example.org",
        "ex-.org",
        "example..org",
        ".example.org",
        "example.org.",
        ".",
        "-",
        "example.-org",
        "exa_mple.org",
        "exa mple.org",
        "example.org ",
        "[192.0.2.1]",
        "b\u00fccher.example",
        "d" * 64 + ".org",
        "d" * 64,
        "a." + LABELS_OF_255[1:],
    ],
)
def test_a_bad_domain_is_named(sandbox, domain):
    assert sandbox.run("--mailname", "user@" + domain) == refused(domain + BAD_DOMAIN)


def test_the_local_part_is_checked_before_the_domain(sandbox):
    assert sandbox.run("--mailname", ".user@-example.org") == refused(".user" + BAD_LOCAL_PART)


def test_a_refusal_shows_the_address_as_it_was_typed(sandbox):
    assert sandbox.run("--mailname", "User.@Example.ORG") == refused("User." + BAD_LOCAL_PART)
    assert sandbox.run("--mailname", "User@Example.ORG.") == refused("Example.ORG." + BAD_DOMAIN)
    assert sandbox.run("--mailname", "User.Example.ORG") == refused("User.Example.ORG" + NO_ADDRESS)


def test_the_first_bad_address_on_the_command_line_is_reported(sandbox):
    result = sandbox.run("--real-owner", "owner", "--mailname", "name")

    assert result == refused("owner" + NO_ADDRESS)


def test_a_bad_address_is_refused_before_a_missing_option(sandbox):
    assert sandbox.run("--set-resp", "--mailname", "userexample.org") == refused("userexample.org" + NO_ADDRESS)


def test_a_bad_address_is_refused_before_the_database_is_touched(sandbox):
    result = sandbox.run("--init-db", "--mailname", "userexample.org")

    assert result == refused("userexample.org" + NO_ADDRESS)
    assert list(sandbox.path("/var/lib/quarn").iterdir()) == []


def test_an_option_name_after_mailname_is_taken_for_its_value(sandbox):
    assert sandbox.run("--mailname", "--no-such-option") == refused("--no-such-option" + NO_ADDRESS)


@pytest.mark.parametrize("option", ["--mailname", "--real-owner"])
def test_an_address_given_twice_is_refused(sandbox, option):
    result = sandbox.run(option, "user@example.org", option, "user@example.org")

    assert result == refused(f"option '{option}' cannot be specified more than once")


def test_an_address_given_twice_is_refused_whatever_the_second_one_is(sandbox):
    result = sandbox.run("--mailname", "user@example.org", "--mailname", "x")

    assert result == refused("option '--mailname' cannot be specified more than once")


@pytest.mark.parametrize("option", ["--mailname", "--real-owner"])
def test_an_address_option_needs_a_value(sandbox, option):
    assert sandbox.run(option) == refused(f"the required argument for option '{option}' is missing")


@pytest.mark.parametrize("text", ["not an address", "A@B@C", "User@Example.ORG", "", "@"])
def test_reply_to_and_forward_to_take_any_text(sandbox, text):
    sandbox.init_db()

    result = sandbox.run("--set-resp", "--mailname", "user@example.org", "--real-owner", "user@example.org",
                         "--reply-to", text, "--forward-to", text)

    assert result == Result(0, b"", b"", [])
    assert sandbox.rows("SELECT reply_to, forward_to FROM autoresponder") == [(text, text)]
