"""Completion in real shells: a line is typed, all completions are inserted into it, and the line is read back."""

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
ANSWER = 9  # the descriptor through which a shell tells its line

BASH = r"""
PS1='$ '
source "$COMPLETION/arspctl.bash"
bind '"\e*": insert-completions'
tell() { printf '%s\0' "$READLINE_LINE" >&9; READLINE_LINE=; READLINE_POINT=0; }
bind -x '"\C-xt": tell'
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
tell() { print -rn -- "$BUFFER"$'\0' >&9; BUFFER= }
zle -N tell
bindkey '^Xt' tell
"""

COMMANDS = ["--init-db", "--set-resp", "--del-resp", "--add-attach", "--del-attach", "--set-extra-headers", "--help"]
SET_RESP = ["--mailname", "--real-owner", "--key-str", "--key-where", "--subj", "--reply-to", "--forward-to",
            "--content-type", "--charset", "--ans-freq", "--ans-limit"]


class Shell:
    """An interactive shell on a terminal of its own."""

    def __init__(self, words, directory, **environment):
        self._terminal, terminal = pty.openpty()
        self._answers, answers = os.pipe()
        self._rest = b""

        def prepare():
            os.dup2(answers, ANSWER)

        self._process = subprocess.Popen(
            words, stdin=terminal, stdout=terminal, stderr=terminal, cwd=directory, start_new_session=True,
            preexec_fn=prepare, close_fds=False,
            env={"PATH": "/usr/bin:/bin", "TERM": "xterm", "COMPLETION": str(COMPLETION), "HOME": str(directory),
                 "LC_ALL": "C.UTF-8", "INPUTRC": "/dev/null", **environment})
        os.close(terminal)
        os.close(answers)

    def complete(self, line):
        """The words of the line after `line` was typed and all completions of its last word were inserted."""
        os.write(self._terminal, f"{line}\x1b*\x18t".encode())
        while b"\0" not in self._rest:
            ready, _, _ = select.select([self._answers, self._terminal], [], [], 30)
            assert ready, f"no answer to {line!r}"
            if self._terminal in ready:
                os.read(self._terminal, 4096)  # echo and prompts
            if self._answers in ready:
                self._rest += os.read(self._answers, 4096)
        answer, self._rest = self._rest.split(b"\0", 1)
        typed = line[:len(line) - len(re.search(r"\S*$", line)[0])]
        assert answer.decode().startswith(typed)
        return answer.decode()[len(typed):].split()

    def end(self):
        os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()
        os.close(self._terminal)
        os.close(self._answers)


@pytest.fixture(scope="module", params=["bash", "zsh"])
def shell(request, tmp_path_factory):
    assert shutil.which(request.param), f"{request.param} is not installed"
    directory = tmp_path_factory.mktemp(request.param)
    for name in ("map.png", "my prices.pdf"):
        (directory / name).touch()
    if request.param == "bash":
        (directory / "setup").write_text(BASH)
        shell = Shell(["/bin/bash", "--noprofile", "--rcfile", "setup", "-i"], directory)
    else:
        (directory / ".zshrc").write_text(ZSH)
        shell = Shell(["/bin/zsh", "-d", "-i"], directory, ZDOTDIR=str(directory))
    shell.name = request.param
    yield shell
    shell.end()


def options(words):
    """Words without the equals sign that zsh offers with a name."""
    return sorted(word.rstrip("=") for word in words)


def test_commands_come_first(shell):
    assert set(options(shell.complete("arspctl --"))) == set(COMMANDS)


def test_a_beginning_is_completed(shell):
    assert options(shell.complete("arspctl --set-")) == ["--set-extra-headers", "--set-resp"]
    assert options(shell.complete("arspctl --init")) == ["--init-db"]


@pytest.mark.parametrize("command, expected", [
    ("--set-resp", SET_RESP),
    ("--del-resp", ["--mailname"]),
    ("--add-attach", ["--mailname", "--filename", "--source"]),
    ("--del-attach", ["--mailname", "--filename"]),
])
def test_after_a_command_come_its_own_options(shell, command, expected):
    assert options(shell.complete(f"arspctl {command} --")) == sorted(expected)


@pytest.mark.parametrize("command", ["--init-db", "--set-extra-headers", "--help"])
def test_nothing_follows_a_command_without_options(shell, command):
    assert shell.complete(f"arspctl {command} --") == ["--"]


def test_an_option_is_offered_once(shell):
    given = "arspctl --add-attach --mailname a@example.org --filename x --"

    assert options(shell.complete(given)) == ["--source"]


def test_a_command_that_stands_last_counts_as_well(shell):
    assert options(shell.complete("arspctl --mailname a@example.org --del-attach --f")) == ["--filename"]


@pytest.mark.parametrize("option, expected", [
    ("--content-type", ["html", "plain", "text/html", "text/plain"]),
    ("--key-where", ["body", "no", "subj"]),
])
def test_values_that_are_known_are_offered(shell, option, expected):
    assert sorted(shell.complete(f"arspctl --set-resp {option} ")) == expected


def test_a_value_is_completed_after_an_equals_sign(shell):
    (word,) = shell.complete("arspctl --set-resp --content-type=text/h")

    assert word == "--content-type=text/html"


def test_source_takes_file_names(shell):
    assert shell.complete("arspctl --add-attach --source ma") == ["map.png"]
    assert shell.complete("arspctl --add-attach --source my") == ["my\\", "prices.pdf"]


@pytest.mark.parametrize("option", ["--mailname", "--subj", "--forward-to", "--ans-freq"])
def test_free_values_are_left_to_the_writer(shell, option):
    assert shell.complete(f"arspctl --set-resp {option} ") == []


def test_the_scripts_know_every_option_of_the_help_page(sandbox):
    names = set(re.findall(r"--[a-z-]+", sandbox.run("--help").stdout.decode()))

    for script in ("arspctl.bash", "_arspctl"):
        assert names <= set(re.findall(r"--[a-z-]+", (COMPLETION / script).read_text()))
