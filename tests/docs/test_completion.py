"""Completion in real shells: the test types a line, inserts all completions and reads the line back."""

import os
import pty
import re
import select
import shutil
import signal
import subprocess

import pytest
from sources import REPOSITORY

COMPLETION = REPOSITORY / "completion"
RESULT = 9  # the descriptor to which a shell writes its line

BASH = r"""
PS1='$ '
source "$COMPLETION/arspctl.bash"
source "$COMPLETION/arspinfo.bash"
bind '"\e*": insert-completions'
send() { printf '%s\0' "$READLINE_LINE" >&9; READLINE_LINE=; READLINE_POINT=0; }
bind -x '"\C-xt": send'
"""
ZSH = r"""
PS1='$ '
fpath=("$COMPLETION" $fpath)
autoload -U compinit
compinit -D -u
zstyle ':completion:*' completer _all_matches _complete
zstyle ':completion:*' insert true
zstyle ':completion:*' accept-exact true
bindkey '\e*' complete-word
send() { print -rn -- "$BUFFER"$'\0' >&9; BUFFER= }
zle -N send
bindkey '^Xt' send
"""

COMMANDS = ["--init-db", "--set-resp", "--del-resp", "--add-attach", "--del-attach", "--set-extra-headers", "--help"]
SET_RESP = ["--mailname", "--real-owner", "--key-str", "--key-where", "--subj", "--reply-to", "--forward-to",
            "--content-type", "--charset", "--ans-freq", "--ans-limit"]


class Shell:
    """An interactive shell on a terminal of its own."""

    def __init__(self, words, directory, **environment):
        self._terminal, terminal = pty.openpty()
        self._results, results = os.pipe()
        self._rest = b""
        self.directory = directory

        self._process = subprocess.Popen(
            words, stdin=terminal, stdout=terminal, stderr=terminal, cwd=directory, start_new_session=True,
            preexec_fn=lambda: os.dup2(results, RESULT), close_fds=False,
            env={"PATH": "/usr/bin:/bin", "TERM": "xterm", "COMPLETION": str(COMPLETION), "HOME": str(directory),
                 "LC_ALL": "C.UTF-8", "INPUTRC": "/dev/null", **environment})
        os.close(terminal)
        os.close(results)

    def complete(self, line):
        """Types `line`, inserts all completions of its last word and returns them."""
        typed = re.match(r"(.*\s)?", line)[0]
        completed = self.completed_line(line)
        assert completed.startswith(typed)
        return completed[len(typed):].split()

    def completed_line(self, line):
        """Types `line`, inserts all completions of its last word and returns the line."""
        os.write(self._terminal, f"{line}\x1b*\x18t".encode())
        while b"\0" not in self._rest:
            ready, _, _ = select.select([self._results, self._terminal], [], [], 30)
            assert ready, f"no result for {line!r}"
            if self._terminal in ready:
                os.read(self._terminal, 4096)  # echo and prompts
            if self._results in ready:
                self._rest += os.read(self._results, 4096)
        completed, self._rest = self._rest.split(b"\0", 1)
        return completed.decode()

    def end(self):
        os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()
        os.close(self._terminal)
        os.close(self._results)


@pytest.fixture(scope="module", params=["bash", "zsh"])
def shell(request, tmp_path_factory):
    assert shutil.which(request.param), f"{request.param} is not installed"
    directory = tmp_path_factory.mktemp(request.param)
    for name in ("map.png", "my prices.pdf"):
        (directory / name).touch()
    (directory / "spool").mkdir()
    if request.param == "bash":
        (directory / "setup").write_text(BASH)
        shell = Shell(["/bin/bash", "--noprofile", "--rcfile", "setup", "-i"], directory)
    else:
        (directory / ".zshrc").write_text(ZSH)
        shell = Shell(["/bin/zsh", "-d", "-i"], directory, ZDOTDIR=str(directory))
    shell.name = request.param
    yield shell
    shell.end()


HOSTILE_NAMES = ["$(>x)", "`>x`", ";>x", "|>x", "a\n$(>x)\n`>x`\n>x", "'$(>x)'\"$(>x)", "-$(>x)", "${x[$(>x)]}", "*"]


@pytest.mark.parametrize("line", ["arspctl --add-attach --source hostile/", "arspinfo export hostile/"])
def test_completion_runs_nothing_of_a_file_name(shell, line):
    for name in HOSTILE_NAMES:
        (shell.directory / "hostile" / f"{name}.d").mkdir(parents=True, exist_ok=True)
        (shell.directory / "hostile" / name).touch()

    completed = shell.completed_line(line)

    assert completed.count(">x") >= len(HOSTILE_NAMES) - 1  # the last has none
    assert not (shell.directory / "x").exists()


COLUMNS = ["MAILNAME", "OWNER", "SUBJECT", "TYPE", "CHARSET", "TRIGGER", "FREQ", "LIMIT", "FORWARD", "REPLYTO", "SIZE",
           "ATTACHMENTS", "REPLIES"]


@pytest.mark.parametrize("line, expected", [
    # commands
    ("--", COMMANDS),
    ("--set-", ["--set-extra-headers", "--set-resp"]),
    ("--init", ["--init-db"]),
    # the options of a command, each once
    ("--set-resp --", SET_RESP),
    ("--del-resp --", ["--mailname"]),
    ("--add-attach --", ["--mailname", "--filename", "--source"]),
    ("--del-attach --", ["--mailname", "--filename"]),
    *((f"{command} --", ["--"]) for command in ("--init-db", "--set-extra-headers", "--help")),
    ("--add-attach --mailname a@example.org --filename x --", ["--source"]),
    ("--mailname a@example.org --del-attach --f", ["--filename"]),
    # values
    ("--set-resp --content-type ", ["html", "plain", "text/html", "text/plain"]),
    ("--set-resp --content-type=text/h", ["--content-type=text/html"]),
    ("--set-resp --key-where ", ["body", "no", "subj"]),
    ("--add-attach --source ma", ["map.png"]),
    ("--add-attach --source my", ["my\\", "prices.pdf"]),
    *((f"--set-resp {option} ", []) for option in ("--mailname", "--subj", "--forward-to", "--ans-freq")),
])
def test_words_are_completed(shell, line, expected):
    words = shell.complete(f"arspctl {line}")

    assert sorted(word.rstrip("=") for word in words) == sorted(expected)  # zsh adds an equals sign to a name


@pytest.mark.parametrize("line, expected", [
    ("", ["check", "export", "list", "show"]),
    ("ch", ["check"]),
    ("--", ["--help"]),
    ("list --", ["--domain", "--help", "--json", "--noheadings", "--output", "--raw"]),
    ("list --json --no", ["--noheadings"]),
    ("list --output ", COLUMNS),
    ("list --output A", ["ATTACHMENTS"]),
    ("list --domain ", []),
    ("show --", ["--body", "--help", "--json"]),
    ("check --", ["--help", "--json"]),
    ("export --", ["--domain", "--help"]),
    ("export sp", ["spool"]),
])
def test_words_of_arspinfo_are_completed(shell, line, expected):
    words = shell.complete(f"arspinfo {line}")

    assert sorted(word.rstrip("=/") for word in words) == sorted(expected)


def test_scripts_contain_every_option_and_column_of_arspinfo(sandbox):
    pages = "".join(sandbox.info(command, "--help").stdout.decode() for command in ("list", "show", "check", "export"))
    words = set(re.findall(r"--[a-z]+", pages)) | set(re.findall(r"^[* ] ([A-Z]+) ", pages, re.MULTILINE))

    assert words >= {"--help", *COLUMNS}
    for script in ("arspinfo.bash", "_arspinfo"):
        assert words <= set(re.findall(r"--[a-z]+|\b[A-Z]+\b", (COMPLETION / script).read_text()))


def test_scripts_contain_every_option_of_the_help_page(sandbox):
    names = set(re.findall(r"--[a-z-]+", sandbox.run("--help").stdout.decode()))

    for script in ("arspctl.bash", "_arspctl"):
        assert names <= set(re.findall(r"--[a-z-]+", (COMPLETION / script).read_text()))
