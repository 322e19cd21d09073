"""README.md and HACKING.md: what they say about commands, options, scripts, files and messages is so."""

import re
import shlex
import subprocess

import pytest
import sources
from sources import REPOSITORY

README = (REPOSITORY / "README.md").read_text()
HACKING = (REPOSITORY / "HACKING.md").read_text()
DOCUMENTS = [*REPOSITORY.glob("*.md"), *REPOSITORY.glob("docs/*.md")]


# -- README.md


def test_the_example_of_the_readme_works(sandbox):
    sandbox.path("/tmp/reply.html").write_text("<p>I am away.</p>\n")
    example = re.search(r"```sh\n(.*?)```", README, re.DOTALL)[1]

    result = sandbox.execute("/bin/sh", "-euc", example, cwd="/tmp")

    assert (result.status, result.stdout, result.stderr) == (0, b"", b"")
    assert sandbox.rows("SELECT mn, subject, content_type, body FROM autoresponder") == [
        ("anna@example.org", "Out of office", "text/html", "<p>I am away.</p>\n")]


def test_the_first_screen_names_both_scripts_and_an_example():
    screen = "\n".join(README.splitlines()[:24])

    assert "scripts/quickstart" in screen
    assert "scripts/test" in screen
    assert "arspctl --set-resp" in screen


def test_every_command_and_option_is_in_the_tables(sandbox):
    names = set(re.findall(r"--[a-z-]+", sandbox.run("--help").stdout.decode()))

    assert set(re.findall(r"^\| `(--[a-z-]+)", README, re.MULTILINE)) == names


def test_required_options_are_those_of_the_tool(sandbox):
    for command, needed in re.findall(r"^\| `(--[a-z-]+)` \| ([^|]*)\| ", README, re.MULTILINE):
        given = []
        for name in re.findall(r"--[a-z-]+", needed):
            assert sandbox.run(command, *given).stdout == f"Error: Missing option: {name[2:]}\n".encode()
            given += [name, "anna@example.org"]
        assert not sandbox.run(command, *given).stdout.startswith(b"Error: ")


def test_defaults_are_those_of_the_help_page(sandbox):
    shown = dict(re.findall(r"(--[a-z-]+) arg \(=(.*?)\)(?= )", sandbox.run("--help").stdout.decode()))

    told = dict(re.findall(r"^\| `(--[a-z-]+) [A-Z]+` \| `(.*?)` \|", README, re.MULTILINE))

    assert told == shown


# -- HACKING.md


def test_every_script_has_its_line():
    scripts = {f"scripts/{path.name}" for path in (REPOSITORY / "scripts").iterdir() if path.is_file()}

    assert set(re.findall(r"^\| `(scripts/[^` ]+)[^|]*\| \S", HACKING, re.MULTILINE)) == scripts


@pytest.mark.parametrize("path", sorted(set(re.findall(
    r"`((?:cli|store|support|tests|scripts|docs?|completion|cmake|bench|fuzz|packaging)/[\w./*-]*)`", HACKING))))
def test_paths_lead_somewhere(path):
    assert list(REPOSITORY.glob(path.rstrip("/"))), path


def test_every_source_has_a_place_in_the_layout():
    told = re.findall(r"`((?:cli|store|support)/[\w.*/-]*)`", HACKING.split("## Layout")[1].split("\n## ")[0])
    known = {path for pattern in told if not pattern.endswith("/") for path in REPOSITORY.glob(pattern)}
    folders = tuple(str(REPOSITORY / pattern) for pattern in told if pattern == "support/")
    sources_of_product = [path for folder in sources.FOLDERS for path in (REPOSITORY / folder).glob("*.cpp")]

    assert [path for path in sources_of_product if path not in known and not str(path).startswith(folders)] == []


# -- all documents


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_links_lead_somewhere(path):
    for target in re.findall(r"\]\(([^)#:]+)\)", path.read_text()):
        assert (path.parent / target).exists(), target


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_commands_in_documents_use_options_that_exist(sandbox, path):
    names = set(re.findall(r"--[a-z-]+", sandbox.run("--help").stdout.decode()))

    for line in re.findall(r"^(?: {4}|)(?:scripts/sandbox .*)?arspctl (--.*)$", path.read_text(), re.MULTILINE):
        words = shlex.split(line.rstrip("\\"), comments=True)
        assert {word for word in words if word.startswith("--")} <= names, line


def test_the_changelog_has_an_unreleased_section_for_this_version():
    changelog = (REPOSITORY / "CHANGELOG.md").read_text()
    version = re.search(r"project\(arsp VERSION ([\d.]+)", (REPOSITORY / "CMakeLists.txt").read_text())[1]

    assert "\n## [Unreleased]\n" in changelog
    assert version in changelog


def test_the_licence_is_the_apache_licence():
    text = (REPOSITORY / "LICENSE").read_text()

    assert "Apache License\n                           Version 2.0, January 2004" in text
    assert text.rstrip().endswith("limitations under the License.")


def test_the_python_example_is_clean():
    command = ["pyflakes3", REPOSITORY / "docs" / "examples"]
    result = subprocess.run(command, capture_output=True, text=True, check=False)

    assert (result.returncode, result.stdout) == (0, "")
