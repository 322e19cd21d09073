"""The documents of the tree: their commands, options, scripts, paths and links exist."""

import re
import shlex
import subprocess

import pytest
import sources
from sources import REPOSITORY

README = (REPOSITORY / "README.md").read_text()
HACKING = (REPOSITORY / "HACKING.md").read_text()
FOLDERS = "cli|info|store|support|tests|scripts|docs?|completion|cmake|bench|fuzz|packaging"

each_document = pytest.mark.parametrize("path", [*REPOSITORY.glob("*.md"), *REPOSITORY.glob("docs/*.md")],
                                        ids=lambda path: path.name)


@pytest.fixture
def help_page(sandbox):
    return sandbox.run("--help").stdout.decode()


# -- README.md


def test_example_of_the_readme_works(sandbox):
    sandbox.path("/tmp/reply.html").write_text("<p>I am away.</p>\n")
    example = re.search(r"```sh\n(.*?)```", README, re.DOTALL)[1]

    sandbox.info("--help")  # puts the program into the root
    result = sandbox.execute("/bin/sh", "-euc", example, cwd="/tmp")

    assert (result.status, result.stderr) == (0, b"")
    assert re.search(r"^anna@example\.org Out of office .*^note auto-submitted: .*\n\Z",
                     re.sub(" +", " ", result.stdout.decode()), re.DOTALL | re.MULTILINE)
    assert sandbox.rows("SELECT mn, subject, content_type, body FROM autoresponder") == [
        ("anna@example.org", "Out of office", "text/html", "<p>I am away.</p>\n")]


def test_first_screen_of_the_readme_has_both_scripts_and_an_example():
    screen = "\n".join(README.splitlines()[:24])

    assert "scripts/quickstart" in screen
    assert "scripts/test" in screen
    assert "arspctl --set-resp" in screen
    assert "arspinfo list" in screen
    assert "arspinfo check" in screen


def test_tables_of_the_readme_have_every_command_and_option(help_page):
    names = set(re.findall(r"--[a-z-]+", help_page))

    assert set(re.findall(r"^\| `(--[a-z-]+)", README, re.MULTILINE)) == names


def test_required_options_in_the_readme_are_those_of_the_tool(sandbox):
    for command, needed in re.findall(r"^\| `(--[a-z-]+)` \| ([^|]*)\| ", README, re.MULTILINE):
        given = []
        for name in re.findall(r"--[a-z-]+", needed):
            assert sandbox.run(command, *given).stdout == f"Error: Missing option: {name[2:]}\n".encode()
            given += [name, "anna@example.org"]
        assert not sandbox.run(command, *given).stdout.startswith(b"Error: ")


def test_defaults_in_the_readme_are_those_of_the_help_page(help_page):
    defaults = dict(re.findall(r"(--[a-z-]+) arg \(=(.*?)\)(?= )", help_page))

    assert dict(re.findall(r"^\| `(--[a-z-]+) [A-Z]+` \| `(.*?)` \|", README, re.MULTILINE)) == defaults


# -- HACKING.md


def test_table_of_scripts_is_complete():
    scripts = {f"scripts/{path.name}" for path in (REPOSITORY / "scripts").iterdir() if path.is_file()}

    assert set(re.findall(r"^\| `(scripts/[^` ]+)[^|]*\| \S", HACKING, re.MULTILINE)) == scripts


def test_layout_has_every_source():
    layout = re.findall(r"`((?:cli|info|store|support)/[\w.*/-]*)`", HACKING.split("## Layout")[1].split("\n## ")[0])
    listed = {path for pattern in layout for path in REPOSITORY.glob(pattern + "*" * (pattern == "support/"))}

    assert {path for folder in (*sources.FOLDERS, "info") for path in (REPOSITORY / folder).glob("*.cpp")} <= listed


# -- all documents


@each_document
def test_paths_and_links_exist(path):
    text = path.read_text()
    names = re.findall(rf"`((?:{FOLDERS})/[\w./*-]*)`", text)

    assert [name for name in names if not list(REPOSITORY.glob(name.rstrip("/")))] == []
    assert [target for target in re.findall(r"\]\(([^)#:]+)\)", text) if not (path.parent / target).exists()] == []


@each_document
def test_commands_in_documents_have_known_options(help_page, path):
    names = set(re.findall(r"--[a-z-]+", help_page))

    for line in re.findall(r"^(?: {4}|)(?:scripts/sandbox .*)?arspctl (--.*)$", path.read_text(), re.MULTILINE):
        words = shlex.split(line.rstrip("\\"), comments=True)
        assert {word for word in words if word.startswith("--")} <= names, line


@pytest.mark.parametrize("name", ["bench", "mutants", "powercut", "sandbox", "torture"])
def test_script_starts_with_pythons_own_modules_only(name):
    words = ["/usr/bin/python3", "-I", "-S", REPOSITORY / "scripts" / name, "--help"]

    result = subprocess.run(words, capture_output=True, text=True, check=False)

    assert (result.returncode, result.stderr) == (0, "")


def test_changelog_has_an_unreleased_section_and_this_version():
    changelog = (REPOSITORY / "CHANGELOG.md").read_text()
    version = re.search(r"project\(arsp VERSION ([\d.]+)", (REPOSITORY / "CMakeLists.txt").read_text())[1]

    assert "\n## [Unreleased]\n" in changelog
    assert version in changelog


def test_licence_is_the_apache_licence():
    text = (REPOSITORY / "LICENSE").read_text()

    assert "Apache License\n                           Version 2.0, January 2004" in text
    assert text.rstrip().endswith("limitations under the License.")


def test_python_example_has_no_warnings():
    command = ["pyflakes3", REPOSITORY / "docs" / "examples"]
    result = subprocess.run(command, capture_output=True, text=True, check=False)

    assert (result.returncode, result.stdout) == (0, "")
