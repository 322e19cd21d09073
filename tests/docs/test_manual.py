"""The manual pages: that they are well-formed, that they tell all of it, and that their examples work."""

import re
import subprocess

import manual
import pytest
import sources

DATABASE = "/var/lib/quarn/mail/autoresponder/responder.db"
ANNA = ("--mailname", "anna@example.org", "--real-owner", "anna@example.org")
ATTACHMENTS = "/var/qmail/mailnames/example.org/anna/@attachments"

# Messages that are put together from more than one literal.
COMPOSED = {
    "Error: ": "Error: Missing option: %s",
    "Missing option: ": "Error: Missing option: %s",
    " - incorrect email address format": "Error: %s - incorrect email address format",
    " - incorrect format of local part of email address": "Error: %s - incorrect format of local part of email address",
    " - incorrect format of domain part of email address":
        "Error: %s - incorrect format of domain part of email address",
    "Unable to begin sqlite transaction": "Unable to begin sqlite transaction: %s",
    "Unable to end sqlite transaction": "Unable to end sqlite transaction: %s",
    "Unable to remove autoresponder attachments: %s": "Unable to remove autoresponder attachments: %s %s: %s",
    "Unable to add autoresponder data": "Unable to add autoresponder data (%s): %s",
    "Unable to add autoresponder attachment": "Unable to add autoresponder attachment (%s): %s",
}
# Texts that stand inside a message; the page quotes them in an explanation.
PARTS = {"cannot open directory", "cannot read directory", "cannot leave directory", "cannot remove", "nested too deeply", "general DB errror",
         "\nSystem error %d: %s"}

# What the option library says: the head in the page, a command line, and what it prints.
LIBRARY_ERRORS = {
    "Error: unrecognised option 'name'": (["--colour"], b"Error: unrecognised option '--colour'\n"),
    "Error: option 'name' is ambiguous and matches names":
        (["--set"], b"Error: option '--set' is ambiguous and matches '--set-extra-headers', and '--set-resp'\n"),
    "Error: option 'name' cannot be specified more than once":
        (["--subj", "a", "--subj", "b"], b"Error: option '--subj' cannot be specified more than once\n"),
    "Error: the argument ('value') for option 'name' is invalid":
        (["--ans-freq", "1x"], b"Error: the argument ('1x') for option '--ans-freq' is invalid\n"),
    "Error: the argument for option 'name' is invalid":
        (["--ans-freq", ""], b"Error: the argument for option '--ans-freq' is invalid\n"),
    "Error: the required argument for option 'name' is missing":
        (["--subj", "-h"], b"Error: the required argument for option '--subj' is missing\n"),
    "Error: the argument for option 'name' should follow immediately after the equal sign":
        (["--subj="], b"Error: the argument for option '--subj' should follow immediately after the equal sign\n"),
    "Error: option 'name' does not take any arguments":
        (["--init-db=1"], b"Error: option '--init-db' does not take any arguments\n"),
}
OUT_OF_MEMORY = "Error: std::bad_alloc"


@pytest.fixture(scope="module")
def page():
    return manual.rendered(manual.ARSPCTL)


def options_of_help_page(sandbox):
    """{name: default or None} of the help page."""
    text = sandbox.run("--help").stdout.decode()
    return {match[1]: match[2] for match in re.finditer(r"--([a-z-]+)(?: arg)?(?: \(=(.*?)\)(?= ))?", text)}


# -- form


@pytest.mark.parametrize("path", [manual.ARSPCTL, manual.KEL_CONF], ids=lambda path: path.name)
def test_mandoc_has_nothing_to_say(path):
    result = subprocess.run(["mandoc", "-T", "lint", path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            text=True, check=False)

    # which manuals are installed is a matter of the machine
    assert [line for line in result.stdout.splitlines() if "referenced manual not found" not in line] == []


@pytest.mark.parametrize("path", [manual.ARSPCTL, manual.KEL_CONF], ids=lambda path: path.name)
def test_references_to_own_pages_lead_somewhere(path):
    own = {"arspctl 8", "kel.conf 5"}
    foreign = {"cp 1", "env 1", "sqlite3 1", "timeout 1", "syslog 3"}

    assert set(re.findall(r"^\.Xr ([^ \n]+ [^ \n]+)", path.read_text(), re.MULTILINE)) <= own | foreign


# -- options


def test_every_option_has_an_item_and_no_other(sandbox):
    heads = re.findall(r"^\.It Fl (.*)$", manual.ARSPCTL.read_text(), re.MULTILINE)
    names = {re.match(r"-([a-z-]+)", head)[1] for head in heads}

    assert names == set(options_of_help_page(sandbox))


def test_every_default_is_told(sandbox, page):
    explained = {head.split()[0].rstrip(","): text for head, text in manual.items(manual.section(page, "DESCRIPTION"))}

    for name, default in options_of_help_page(sandbox).items():
        told = re.search(r"Default: (?:`(.*?)'|(\S+?))[,.](?: |$)", explained["--" + name])
        value = told and (told[1] or told[2])
        assert value == default or default is None and value == "empty", name  # the help page shows no empty ones


def test_required_options_are_those_of_the_page_in_its_order(sandbox, page):
    for head, text in manual.items(manual.section(page, "DESCRIPTION")):
        required = re.search(r"Required options: (.*?)\.", text)
        if required is None:
            continue
        names = [] if required[1] == "none" else required[1].split(", ")
        given = []
        for name in names:
            result = sandbox.run(head, *given)
            assert (result.status, result.stdout) == (1, f"Error: Missing option: {name[2:]}\n".encode())
            given += [name, "anna@example.org"]
        assert not sandbox.run(head, *given).stdout.startswith(b"Error: ")


# -- diagnostics


def test_every_message_of_the_code_has_its_place(page):
    diagnostics = manual.section(page, "DIAGNOSTICS")
    heads = [head for head, _ in manual.items(diagnostics)]
    quoted = re.findall(r'"(.*?)"', diagnostics)

    missing = []
    for literal, file in sources.messages().items():
        pattern = sources.as_pattern(COMPOSED.get(literal, literal))
        if not any(pattern.fullmatch(text.strip(" :")) for text in (quoted if literal in PARTS else heads)):
            missing.append(f"{file}: {literal!r}")

    assert missing == []


def test_every_item_of_the_page_is_a_message_of_the_code(page):
    patterns = [sources.as_pattern(COMPOSED.get(literal, literal)) for literal in sources.messages()]

    for head, _ in manual.items(manual.section(page, "DIAGNOSTICS")):
        known = head in LIBRARY_ERRORS or head == OUT_OF_MEMORY or any(pattern.fullmatch(head) for pattern in patterns)
        prose = head.endswith(".") and not head.startswith("Directory rename") or "printed on standard error" in head
        assert known or prose, head


@pytest.mark.parametrize("head", LIBRARY_ERRORS)
def test_the_errors_of_the_option_library_are_told(sandbox, page, head):
    arguments, printed = LIBRARY_ERRORS[head]

    result = sandbox.run(*arguments)

    assert (result.status, result.stdout) == (1, printed)
    assert head in [item for item, _ in manual.items(manual.section(page, "DIAGNOSTICS"))]


# -- examples of arspctl(8)


def provide(sandbox, *programs):
    """Has programs of the host inside, also where the root is a chroot."""
    for program in programs:
        assert sandbox.execute(program, "--version").status == 0


def run_example(sandbox, intro, **options):
    """Runs an example of the page in /tmp."""
    return sandbox.execute("/bin/sh", "-euc", manual.examples(manual.ARSPCTL)[intro], cwd="/tmp", **options)


def succeeded(result):
    return (result.status, result.stdout, result.stderr, result.records) == (0, b"", b"", [])


def example(intro):
    """Marks the test of the example that this sentence introduces."""

    def mark(test):
        TESTED_EXAMPLES.add(intro)
        test.intro = intro
        return test

    return mark


TESTED_EXAMPLES = set()


def prepare_autoresponder(sandbox):
    sandbox.init_db()
    assert succeeded(sandbox.run("--set-resp", *ANNA))


@example("An HTML vacation answer")
def test_example_vacation(sandbox):
    sandbox.init_db()
    sandbox.path("/tmp/vacation.html").write_text("<p>Über alle Berge</p>\n")

    assert succeeded(run_example(sandbox, test_example_vacation.intro))

    assert sandbox.rows("SELECT mn, real_owner, subject, content_type, ans_freq, body FROM autoresponder") == [
        ("anna@example.org", "anna@example.org", "Out of office", "text/html", 1, "<p>Über alle Berge</p>\n")]


@example("Two attachments for it")
def test_example_attachments(sandbox):
    prepare_autoresponder(sandbox)
    sandbox.path("/srv/files").mkdir(parents=True)
    sandbox.path("/srv/files/prices-2026.pdf").write_bytes(b"prices")
    sandbox.path("/srv/files/map.png").write_bytes(b"map")

    assert succeeded(run_example(sandbox, test_example_attachments.intro))

    assert sandbox.rows("SELECT mn, filename FROM attachments ORDER BY filename") == [
        ("anna@example.org", "map.png"), ("anna@example.org", "prices.pdf")]
    files = sandbox.tree(ATTACHMENTS)
    assert files["map.png"] == ("file", 0o644, *sandbox.popuser, b"map")
    assert files["prices.pdf"] == ("file", 0o644, *sandbox.popuser, b"prices")


@example("Header lines that keep other autoresponders from answering")
def test_example_headers(sandbox):
    sandbox.init_db()

    assert succeeded(run_example(sandbox, test_example_headers.intro))

    assert sandbox.rows("SELECT name, value FROM extra_headers ORDER BY rowid") == [
        ("Auto-Submitted", "auto-replied"), ("Precedence", "bulk")]


@pytest.mark.parametrize("document, stored", [
    ('{"X-New": "yes"}', [("X-New", "yes")]),
    ('{"X-New": "yes"', [("X-Old", "yes")]),
    ('["X-New"]', [("X-Old", "yes")]),
    ("", [("X-Old", "yes")]),
])
@example("Replacing that list only by a document that is valid")
def test_example_valid_headers_only(sandbox, document, stored):
    sandbox.init_db()
    sandbox.run("--set-extra-headers", stdin=b'{"X-Old": "yes"}')
    sandbox.path("/tmp/headers.json").write_text(document)

    provide(sandbox, "/usr/bin/sqlite3")
    result = run_example(sandbox, test_example_valid_headers_only.intro)

    assert sandbox.rows("SELECT name, value FROM extra_headers") == stored
    assert (b"not a JSON object" in result.stderr) == (stored[0][0] == "X-Old")


@example("Waiting no longer than 30 seconds for a locked database")
def test_example_timeout(sandbox):
    prepare_autoresponder(sandbox)
    provide(sandbox, "/usr/bin/timeout")
    sandbox.path(ATTACHMENTS).mkdir(parents=True)

    assert succeeded(run_example(sandbox, test_example_timeout.intro))

    assert sandbox.rows("SELECT * FROM autoresponder") == []


def test_example_timeout_tells_that_the_time_was_up(sandbox):
    prepare_autoresponder(sandbox)
    provide(sandbox, "/usr/bin/timeout")
    text = manual.examples(manual.ARSPCTL)[test_example_timeout.intro].replace("30", "0.2")
    connection = sandbox.db()
    connection.execute("BEGIN EXCLUSIVE")

    assert sandbox.execute("/bin/sh", "-c", text).status == 124

    connection.close()


@example("Migrating 10")
def test_example_migration(sandbox):
    sandbox.init_db()
    names = [f"box{number}@example.org" for number in range(20)]
    sandbox.path("/tmp/mailboxes.txt").write_text("".join(f"{name} owner-of-{name}\n" for name in names))
    sandbox.path("/tmp/bodies").mkdir()
    for name in names:
        sandbox.path(f"/tmp/bodies/{name}").write_text(f"This is {name}.\n")
    sandbox.path(f"/tmp/bodies/{names[7]}").unlink()

    result = run_example(sandbox, test_example_migration.intro)

    assert result.status == 0
    assert sandbox.rows("SELECT mn, real_owner, body FROM autoresponder ORDER BY rowid") == [
        (name, f"owner-of-{name}", f"This is {name}.\n") for name in names if name != names[7]]
    assert sandbox.path("/tmp/failed.txt").read_text() == names[7] + "\n"


@example("A backup while others write")
def test_example_backup(sandbox):
    prepare_autoresponder(sandbox)
    provide(sandbox, "/usr/bin/sqlite3")

    assert succeeded(run_example(sandbox, test_example_backup.intro))

    copy = sandbox.path("/tmp/responder-backup.db")
    assert copy.stat().st_mode & 0o777 == 0o600
    dump = sandbox.execute("/usr/bin/sqlite3", "/tmp/responder-backup.db", "SELECT mn FROM autoresponder")
    assert dump.stdout == b"anna@example.org\n"


def test_every_example_of_the_page_is_tested():
    assert set(manual.examples(manual.ARSPCTL)) == TESTED_EXAMPLES


# -- kel.conf(5)


def mailnames_root(sandbox):
    """The value of QUARN_MAILNAMES_D as a run of the tool takes it, from the path in its record."""
    (record,) = sandbox.run("--del-resp", "--mailname", "nobody@example.org").records
    return re.fullmatch(r"Unable to remove autoresponder attachments: cannot open directory (.*)"
                        r"/example\.org/nobody/@attachments: No such file or directory", record.text, re.DOTALL)[1]


def conf_rows():
    rows = re.findall(r"^\.It Li \\\(dq(.*)\\\(dq Ta Li \\\(dq(.*)\\\(dq$", manual.KEL_CONF.read_text(), re.MULTILINE)
    return [tuple(manual.unescape(text) for text in row) for row in rows]


def decoded(text):
    return text.replace(r"\n", "\n").replace(r"\t", "\t").replace(r"\r", "\r")


@pytest.mark.parametrize("line, value", conf_rows())
def test_white_space_after_a_value_is_kept_as_told(sandbox, line, value):
    sandbox.init_db()
    sandbox.conf(decoded(line))

    assert mailnames_root(sandbox) == decoded(value)


def test_the_white_space_rule_has_its_examples():
    assert len(conf_rows()) == 9


def test_the_example_file_does_what_is_told(sandbox):
    sandbox.init_db()
    sandbox.conf(manual.examples(manual.KEL_CONF)["Mailboxes on a file system of their own"])

    assert mailnames_root(sandbox) == "/srv/mailnames"


def test_the_search_for_kept_white_space_finds_it(sandbox):
    bad = ["A /x ", "A /x  ", "A /x\t", "A /x  # y", " A x  #", "A /x\r", "A_1 /x y\t \t# z"]
    good = ["A /x", "A /x # y", "A /x y", "", "# a  ", "  # A  #", "A /x# y  ", "A /x # y  # z"]
    sandbox.conf("\n".join(bad + good) + "\n")
    provide(sandbox, "/usr/bin/grep")

    text = manual.examples(manual.KEL_CONF)["Finding values that keep white space at their end"]
    result = sandbox.execute("/bin/sh", "-c", text)

    assert result.stdout.decode().split("\n")[:-1] == [f"{number}:{line}" for number, line in enumerate(bad, 1)]


def test_every_example_of_the_file_page_is_tested():
    assert set(manual.examples(manual.KEL_CONF)) == {
        "Mailboxes on a file system of their own", "Finding values that keep white space at their end"}


def test_every_variable_is_listed_with_its_default():
    values = sources.literals(sources.REPOSITORY / "support" / "conf_vars.cpp")
    names, defaults = values[1:len(values) // 2 - 1], values[len(values) // 2 + 1:-1]

    rows = re.findall(r"^\.It Va (\S+) Ta (\S+)$", manual.KEL_CONF.read_text(), re.MULTILINE)
    assert rows == list(zip(names, defaults))
