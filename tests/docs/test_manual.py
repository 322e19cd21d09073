"""The manual pages: they are well-formed and complete, and their examples work."""

import contextlib
import re
import subprocess
from pathlib import Path

import manual
import pytest
import sources
from harness import DONE

ANNA = ("--mailname", "anna@example.org", "--real-owner", "anna@example.org")
ATTACHMENTS = "/var/qmail/mailnames/example.org/anna/@attachments"
OUT_OF_MEMORY = "Error: std::bad_alloc"

# The errors of the option library, as the page names them, and arguments that cause them.
LIBRARY_ERRORS = {
    "Error: unrecognised option 'name'": ["--colour"],
    "Error: option 'name' is ambiguous and matches names": ["--set"],
    "Error: option 'name' cannot be specified more than once": ["--subj", "a", "--subj", "b"],
    "Error: the argument ('value') for option 'name' is invalid": ["--ans-freq", "1x"],
    "Error: the argument for option 'name' is invalid": ["--ans-freq", ""],
    "Error: the required argument for option 'name' is missing": ["--subj", "-h"],
    "Error: the argument for option 'name' should follow immediately after the equal sign": ["--subj="],
    "Error: option 'name' does not take any arguments": ["--init-db=1"],
}

each_page = pytest.mark.parametrize("path", [manual.ARSPCTL, manual.KEL_CONF], ids=lambda path: path.name)


@pytest.fixture(scope="module")
def page():
    return manual.rendered(manual.ARSPCTL)


@pytest.fixture
def database(sandbox):
    sandbox.init_db()
    return sandbox


@pytest.fixture
def autoresponder(database):
    """A database with the autoresponder of anna@example.org."""
    assert database.run("--set-resp", *ANNA) == DONE
    return database


def options_of_help_page(sandbox):
    """{name: default or None} of the help page."""
    text = sandbox.run("--help").stdout.decode()
    return {match[1]: match[2] for match in re.finditer(r"--([a-z-]+)(?: arg)?(?: \(=(.*?)\)(?= ))?", text)}


# -- form


@each_page
def test_mandoc_finds_no_fault(path):
    result = subprocess.run(["mandoc", "-T", "lint", path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                            text=True, check=False)

    # The installed manuals differ from machine to machine.
    assert [line for line in result.stdout.splitlines() if "referenced manual not found" not in line] == []


@each_page
def test_references_name_known_pages(path):
    own = {"arspctl 8", "kel.conf 5"}
    foreign = {"cp 1", "env 1", "sqlite3 1", "timeout 1", "syslog 3"}

    assert set(re.findall(r"^\.Xr ([^ \n]+ [^ \n]+)", path.read_text(), re.MULTILINE)) <= own | foreign


@each_page
def test_every_example_is_tested(path):
    tests = Path(__file__).read_text()

    assert [intro for intro in manual.examples(path) if f'"{intro}"' not in tests] == []


# -- options


def test_items_are_the_options_of_the_help_page(sandbox):
    heads = re.findall(r"^\.It Fl -([a-z-]+)", manual.ARSPCTL.read_text(), re.MULTILINE)

    assert set(heads) == set(options_of_help_page(sandbox))


def test_defaults_are_those_of_the_help_page(sandbox, page):
    explained = {head.split()[0].rstrip(","): text for head, text in manual.items(manual.section(page, "DESCRIPTION"))}

    for name, default in options_of_help_page(sandbox).items():
        found = re.search(r"Default: (?:`(.*?)'|(\S+?))[,.](?: |$)", explained["--" + name])
        value = found and (found[1] or found[2])
        assert value == default or default is None and value == "empty", name  # the help page omits empty ones


def test_required_options_are_those_of_the_page_in_its_order(sandbox, page):
    for head, text in manual.items(manual.section(page, "DESCRIPTION")):
        required = re.search(r"Required options: (.*?)\.", text)
        if required is None:
            continue
        given = []
        for name in re.findall("--[a-z-]+", required[1]):
            result = sandbox.run(head, *given)
            assert (result.status, result.stdout) == (1, f"Error: Missing option: {name[2:]}\n".encode())
            given += [name, "anna@example.org"]
        assert not sandbox.run(head, *given).stdout.startswith(b"Error: ")


# -- diagnostics


def test_every_message_of_the_code_is_in_the_page(page):
    diagnostics = manual.section(page, "DIAGNOSTICS")
    heads = [head for head, _ in manual.items(diagnostics)]
    quoted = re.findall(r'"(.*?)"', diagnostics)

    missing = []
    for literal, file in sources.messages().items():
        pattern = sources.as_pattern(sources.COMPOSED.get(literal, literal))
        if not any(pattern.fullmatch(text.strip(" :")) for text in (quoted if literal in sources.PARTS else heads)):
            missing.append(f"{file}: {literal!r}")

    assert missing == []


def test_every_item_of_the_page_is_a_message_of_the_code(page):
    patterns = [sources.as_pattern(sources.COMPOSED.get(literal, literal)) for literal in sources.messages()]

    for head, _ in manual.items(manual.section(page, "DIAGNOSTICS")):
        known = head in LIBRARY_ERRORS or head == OUT_OF_MEMORY or any(pattern.fullmatch(head) for pattern in patterns)
        prose = head.endswith(".") and not head.startswith("Directory rename") or "printed on standard error" in head
        assert known or prose, head


@pytest.mark.parametrize("head", LIBRARY_ERRORS)
def test_errors_of_the_option_library_are_in_the_page(sandbox, page, head):
    result = sandbox.run(*LIBRARY_ERRORS[head])

    text = result.stdout.decode().replace("'1x'", "'value'")
    text = re.sub(r"'--[a-z-]+', and '--[a-z-]+'", "names", text)
    assert (result.status, re.sub("'--[a-z-]+'", "'name'", text)) == (1, head + "\n")
    assert head in [item for item, _ in manual.items(manual.section(page, "DIAGNOSTICS"))]


# -- examples of arspctl(8)


def run_example(sandbox, intro, *programs, page=manual.ARSPCTL, seconds="30"):
    """Runs an example of the page in /tmp, with further programs of the host in the root and another timeout."""
    for program in programs:
        assert sandbox.execute(program, "--version").status == 0
    text = manual.examples(page)[intro].replace("30", seconds)
    return sandbox.execute("/bin/sh", "-euc", text, cwd="/tmp")


def test_example_vacation(database):
    database.path("/tmp/vacation.html").write_text("<p>Über alle Berge</p>\n")

    assert run_example(database, "An HTML vacation answer") == DONE

    assert database.rows("SELECT mn, real_owner, subject, content_type, ans_freq, body FROM autoresponder") == [
        ("anna@example.org", "anna@example.org", "Out of office", "text/html", 1, "<p>Über alle Berge</p>\n")]


def test_example_attachments(autoresponder):
    autoresponder.path("/srv/files").mkdir(parents=True)
    autoresponder.path("/srv/files/prices-2026.pdf").write_bytes(b"prices")
    autoresponder.path("/srv/files/map.png").write_bytes(b"map")

    assert run_example(autoresponder, "Two attachments for it") == DONE

    assert autoresponder.rows("SELECT mn, filename FROM attachments ORDER BY filename") == [
        ("anna@example.org", "map.png"), ("anna@example.org", "prices.pdf")]
    files = autoresponder.tree(ATTACHMENTS)
    assert files["map.png"] == ("file", 0o644, *autoresponder.popuser, b"map")
    assert files["prices.pdf"] == ("file", 0o644, *autoresponder.popuser, b"prices")


def test_example_headers(database):
    assert run_example(database, "Header lines that keep other autoresponders from answering") == DONE

    assert database.rows("SELECT name, value FROM extra_headers ORDER BY rowid") == [
        ("Auto-Submitted", "auto-replied"), ("Precedence", "bulk")]


@pytest.mark.parametrize("document, stored", [
    ('{"X-New": "yes"}', "X-New"), ('{"X-New": "yes"', "X-Old"), ('["X-New"]', "X-Old"), ("", "X-Old")])
def test_example_valid_headers_only(database, document, stored):
    database.run("--set-extra-headers", stdin=b'{"X-Old": "yes"}')
    database.path("/tmp/headers.json").write_text(document)

    result = run_example(database, "Replacing that list only by a document that is valid", "/usr/bin/sqlite3")

    assert database.rows("SELECT name, value FROM extra_headers") == [(stored, "yes")]
    assert (b"not a JSON object" in result.stderr) == (stored == "X-Old")


def test_example_timeout(autoresponder):
    intro = "Waiting no longer than 30 seconds for a locked database"
    autoresponder.path(ATTACHMENTS).mkdir(parents=True)
    with contextlib.closing(autoresponder.db()) as connection:
        connection.execute("BEGIN EXCLUSIVE")
        assert run_example(autoresponder, intro, "/usr/bin/timeout", seconds="0.2").status == 124

    assert run_example(autoresponder, intro) == DONE

    assert autoresponder.rows("SELECT * FROM autoresponder") == []


def test_example_migration(database):
    names = [f"box{number}@example.org" for number in range(20)]
    database.path("/tmp/mailboxes.txt").write_text("".join(f"{name} owner-of-{name}\n" for name in names))
    database.path("/tmp/bodies").mkdir()
    for name in names:
        database.path(f"/tmp/bodies/{name}").write_text(f"This is {name}.\n")
    missing = names.pop(7)
    database.path(f"/tmp/bodies/{missing}").unlink()

    assert run_example(database, "Migrating 10").status == 0

    assert database.rows("SELECT mn, real_owner, body FROM autoresponder ORDER BY rowid") == [
        (name, f"owner-of-{name}", f"This is {name}.\n") for name in names]
    assert database.path("/tmp/failed.txt").read_text() == missing + "\n"


def test_example_backup(autoresponder):
    assert run_example(autoresponder, "A backup while others write", "/usr/bin/sqlite3") == DONE

    copy = autoresponder.path("/tmp/responder-backup.db")
    assert copy.stat().st_mode & 0o777 == 0o600
    dump = autoresponder.execute("/usr/bin/sqlite3", "/tmp/responder-backup.db", "SELECT mn FROM autoresponder")
    assert dump.stdout == b"anna@example.org\n"


# -- kel.conf(5)


def mailnames_root(sandbox, conf):
    """The value of QUARN_MAILNAMES_D that the tool reads from the text `conf`, from the path in a record."""
    sandbox.conf(conf)
    (record,) = sandbox.run("--del-resp", "--mailname", "nobody@example.org").records
    return re.fullmatch(r"Unable to remove autoresponder attachments: cannot open directory (.*)"
                        r"/example\.org/nobody/@attachments: No such file or directory", record.text, re.DOTALL)[1]


def conf_rows():
    rows = re.findall(r"^\.It Li \\\(dq(.*)\\\(dq Ta Li \\\(dq(.*)\\\(dq$", manual.KEL_CONF.read_text(), re.MULTILINE)
    assert len(rows) == 9
    controls = {r"\n": "\n", r"\t": "\t", r"\r": "\r"}
    return [tuple(re.sub(r"\\[ntr]", lambda match: controls[match[0]], manual.unescape(text)) for text in row)
            for row in rows]


@pytest.mark.parametrize("line, value", conf_rows())
def test_white_space_after_a_value_is_kept_as_in_the_page(database, line, value):
    assert mailnames_root(database, line) == value


def test_example_file_sets_the_root(database):
    conf = manual.examples(manual.KEL_CONF)["Mailboxes on a file system of their own"]

    assert mailnames_root(database, conf) == "/srv/mailnames"


def test_example_search_finds_kept_white_space(sandbox):
    bad = ["A /x ", "A /x  ", "A /x\t", "A /x  # y", " A x  #", "A /x\r", "A_1 /x y\t \t# z"]
    good = ["A /x", "A /x # y", "A /x y", "", "# a  ", "  # A  #", "A /x# y  ", "A /x # y  # z"]
    sandbox.conf("\n".join(bad + good) + "\n")

    result = run_example(sandbox, "Finding values that keep white space at their end", "/usr/bin/grep",
                         page=manual.KEL_CONF)

    assert result.stdout.decode().split("\n")[:-1] == [f"{number}:{line}" for number, line in enumerate(bad, 1)]


def test_every_variable_is_listed_with_its_default():
    values = sources.literals(sources.REPOSITORY / "support" / "conf_vars.cpp")
    names, defaults = values[1:len(values) // 2 - 1], values[len(values) // 2 + 1:-1]

    rows = re.findall(r"^\.It Va (\S+) Ta (\S+)$", manual.KEL_CONF.read_text(), re.MULTILINE)
    assert rows == list(zip(names, defaults))
