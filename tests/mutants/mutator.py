"""Small changes to a C++ source, each of which a test should detect.

It relies on clang-format: a simple statement has lines of its own, and blanks surround a binary operator.
"""

import random
import re
from collections import Counter
from dataclasses import dataclass

# What is never changed, except for the texts of string and character literals.
MASKED = re.compile(r"""
    (?P<raw>R"(?P<end>\w*)\((?P<text>.*?)\)(?P=end)") | (?P<string>"(?:\\.|[^"\\\n])*") | (?P<char>'(?:\\.|[^'\\\n])') |
    //[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:\\\n|[^\n])* | \bstatic_assert\b[^;]*; | ^[^\n;]*\s=\s(?:delete|default); |
    __attribute__\(\(.*?\)\)\)?
""", re.DOTALL | re.MULTILINE | re.VERBOSE)
COMMENT = re.compile(r"\s*(?://.*|/\*.*?(?:\*/|$))")
CONVERSION = re.compile(r"%[-+ #0-9.*]*[hlzjt]*[a-zA-Z%]|\\(?:[0-7]+|x[0-9a-fA-F]+|.)")

BINARY = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"],
    "|": ["&"], "&": ["|"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}
UNARY = {"++": ["--"], "--": ["++"], "!": [""]}
OPERATOR = re.compile(r"(?<=\s)(?P<binary>[=!<>+\-|&]=|&&|\|\||[<>+\-*/%|&])(?=\s)|(?P<unary>\+\+|--|!(?!=))")

# A constant becomes one with another meaning in the same place.
NAMES = {
    "true": "false", "false": "true",
    "LOG_ERR": "LOG_WARNING", "LOG_CRIT": "LOG_ERR", "LOG_WARNING": "LOG_ERR", "LOG_MAIL": "LOG_DAEMON",
    "LOG_USER": "LOG_MAIL", "LOG_INFO": "LOG_NOTICE", "LOG_PERROR": "LOG_PID", "LOG_PID": "LOG_NDELAY",
    "EINTR": "EAGAIN", "EAGAIN": "EINTR", "ENOENT": "EACCES", "EEXIST": "ENOENT", "EISDIR": "ENOENT",
    "ENOTDIR": "ENOENT", "ELOOP": "EACCES", "ENAMETOOLONG": "ENOENT", "EBADF": "EINVAL", "EINVAL": "EBADF",
    "SQLITE_OK": "SQLITE_ERROR", "SQLITE_DONE": "SQLITE_ROW", "SQLITE_ROW": "SQLITE_DONE",
    "SQLITE_BUSY": "SQLITE_LOCKED", "O_RDONLY": "O_RDWR", "O_WRONLY": "O_RDWR", "O_RDWR": "O_WRONLY",
    "SIG_IGN": "SIG_DFL", "SIGPIPE": "SIGHUP", "SIGXFSZ": "SIGXCPU", "SIGALRM": "SIGUSR1",
    "STDIN_FILENO": "STDOUT_FILENO", "STDOUT_FILENO": "STDERR_FILENO", "STDERR_FILENO": "STDOUT_FILENO",
    "SIG_UNBLOCK": "SIG_BLOCK", "F_GETFD": "F_GETFL", "COMMITTED": "GIVEN_UP", "GIVEN_UP": "COMMITTED",
    "S_ISDIR": "S_ISREG", "S_ISREG": "S_ISDIR", "S_ISLNK": "S_ISREG",
}
CONSTANT = re.compile(r"(?P<number>\b(?:0[xX][0-9a-fA-F]+|\d[\d']*)(?P<suffix>[uUlLzZ]*)(?![\w.']))|"
                      r"(?P<flag>\b(?:O|AT|LOG|S|RESOLVE|MSG|SA)_[A-Z_]+\b(?=\s*\|(?!\|))|"
                      r"(?<=[^|]\|\s)(?:O|AT|LOG|S|RESOLVE|MSG|SA)_[A-Z_]+\b)|(?P<name>\b[A-Za-z_]\w*)")

STATEMENT = re.compile(r"(?P<indent> {4,})(?P<text>[^\s{}][^;{}]*(?:\{[^{}\n]*\}[^;{}]*)*;)[ \t]*$", re.MULTILINE)
NO_ACTION = re.compile(r"""
    (?:goto|using|struct|class|enum|template|typedef|friend|extern|static|constexpr|const|auto|unsigned|void|bool|char|
       int|long|short|double|operator)\b | \[\[ |
    (?!return\b|throw\b|delete\b)[\w:]+(?:<[^;=()]*>)?(?:\s+|\s*[*&]+\s*(?:const\s+)?)[A-Za-z_]\w*\s*[;={(\[]
""", re.VERBOSE)
JUMP = re.compile(r"(?:return|break|continue|throw)\b")
HEADER = re.compile(r"(?:\} )?(?:if|else|for|while|do|switch|case|default|try|catch)\b|\} while\b")
CONDITION = re.compile(r"\b(?:if|while) \(")

# How often each kind is drawn, whatever the number of its places.
WEIGHTS = {"operator": 4, "constant": 4, "letter": 3, "statement removed": 3, "statements swapped": 2,
           "condition negated": 3, "return removed": 2}


@dataclass(frozen=True)
class Mutant:
    """`before`, which begins at the offset `start` of the source `path`, becomes `after`."""

    path: str
    line: int
    kind: str
    start: int
    before: str
    after: str

    def applied(self, source):
        end = self.start + len(self.before)
        assert source[self.start:end] == self.before
        return source[:self.start] + self.after + source[end:]

    def difference(self, source):
        """The line above, and the lines removed and added with their signs, without indentation and comments."""
        old, new = source.splitlines(), self.applied(source).splitlines()
        above = []
        while old and new and old[0] == new[0]:
            if COMMENT.sub("", old[0]).strip():
                above = old[:1]
            del old[0], new[0]
        while old and new and old[-1] == new[-1]:
            del old[-1], new[-1]
        return "\n".join(f"{sign} {COMMENT.sub('', line).strip()}".rstrip()
                         for sign, lines in ((" ", above), ("-", old), ("+", new)) for line in lines)

    def __str__(self):
        before, after = (re.sub(r"\s+", " ", text) or "nothing" for text in (self.before, self.after))
        return f"{self.path}:{self.line}: {self.kind}: {before} -> {after}"


def places(text):
    """Yields (kind, offset, before, [after, ...]) for each place of the source that can be changed."""
    masked = MASKED.sub(lambda match: re.sub(r"[^\n]", "_" if match.lastgroup else " ", match[0]), text)
    for match in MASKED.finditer(text):
        if match.lastgroup == "string" and (others := with_another_letter(match[0])):
            yield "letter", match.start(), match[0], others
        elif match.lastgroup == "raw":
            yield "letter", match.start("text"), match["text"], with_another_letter(match["text"])
        elif match.lastgroup == "char" and "\\" not in match[0]:
            yield "constant", match.start(), match[0], ["'#'" if match[0] != "'#'" else "'+'"]
    for match in OPERATOR.finditer(masked):
        others = (BINARY if match["binary"] else UNARY)[match[0]]
        yield "operator", match.start(), match[0], others
    for match in CONSTANT.finditer(masked):
        if others := other_constants(match):
            yield "constant", match.start(), match[0], others
    for match in CONDITION.finditer(masked):
        start, end = condition(masked, match.end())
        yield "condition negated", start, text[start:end], [f"!({text[start:end]})"]
    yield from of_statements(text, masked)


def with_another_letter(literal):
    """The string literal with each letter or digit changed that is part of no conversion or escape.

    Another case is not enough, since SQL ignores it.
    """
    taken = {position for match in CONVERSION.finditer(literal) for position in range(*match.span())}
    return [literal[:position] + ("b" if letter in "aA" else "a") + literal[position + 1:]
            for position, letter in enumerate(literal) if position not in taken and re.match(r"[\w/ @.-]", letter)]


def other_constants(match):
    """The replacements of a match of CONSTANT."""
    if match["name"]:
        return [NAMES[match[0]]] if match[0] in NAMES else []
    if match["flag"]:
        nothing = [] if match[0] == "O_RDONLY" else ["0"]  # which it is
        return [*nothing, *([NAMES[match[0]]] if match[0] in NAMES else [])]
    digits = match[0].removesuffix(match["suffix"]).replace("'", "")
    if re.fullmatch(r"0[0-7]+", digits):
        return [f"0{int(digits, 8) ^ bit:o}" for bit in (0o001, 0o020, 0o200)]
    value = int(digits, 0)
    return [f"{other}{match['suffix']}" for other in (value - 1, value + 1) if other >= 0]


def condition(masked, start):
    """The (start, end) of the condition in the brackets opened before `start`, without an initialiser."""
    depth, end = 1, start
    while depth:
        if masked[end] == ";":
            start = end + 2
        depth += {"(": 1, ")": -1}.get(masked[end], 0)
        end += 1
    return start, end - 1


def statements(masked):
    """Yields a match of STATEMENT for each simple statement."""
    end = 0
    for line in re.finditer(r"^ {4}", masked, re.MULTILINE):
        match = STATEMENT.match(masked, line.start()) if line.start() >= end else None
        if match and match["text"].count("(") == match["text"].count(")") and not HEADER.match(match["text"]):
            end = match.end()
            yield match


def of_statements(text, masked):
    previous = None
    for match in statements(masked):
        begin, end = match.span("text")
        returns = match["text"].startswith("return")
        if not NO_ACTION.match(match["text"]) and (not returns or in_branch(masked, match)):
            yield "return removed" if returns else "statement removed", begin, text[begin:end], ["{}"]
        if previous is not None and previous["indent"] == match["indent"] and not JUMP.match(match["text"]) \
                and masked[previous.end():match.start()] == "\n" and order_matters(previous["text"], match["text"]):
            first, between = text[slice(*previous.span("text"))], text[previous.end("text"):begin]
            yield "statements swapped", previous.start("text"), first + between + text[begin:end], [
                text[begin:end] + between + first]
        previous = match


def in_branch(masked, statement):
    """Whether the statement is part of a branch or loop: the last return of a function stays."""
    above = [line for line in masked[:statement.start()].splitlines()
             if line.strip() and len(line) - len(line.lstrip()) < len(statement["indent"])]
    return bool(above and HEADER.match(above[-1].strip()))


def order_matters(one, other):
    """Whether two statements, at least one of them an action, compile in either order and may depend on it."""
    if (NO_ACTION.match(one) and NO_ACTION.match(other)) or one.startswith("constexpr"):
        return False
    used = [any(name == "errno" or re.search(rf"\b{name}\b", another)
                for name in re.findall(r"(\w+)[\])]*\s*[-+*/|&]?=(?!=)", text))
            for text, another in ((one, other), (other, one))]
    if used[0] and NO_ACTION.match(one):
        return False
    return any(used) or ("(" in one and "(" in other)


def drawn(sources, seed):
    """One mutant for each place of the sources, {path: text}, in an order and with changes that the seed decides."""
    found = [(path, *place) for path, text in sorted(sources.items()) for place in places(text)]
    frequency = Counter(kind for _, kind, *_ in found)
    chance = random.Random(seed)
    found.sort(key=lambda place: chance.random() ** (frequency[place[1]] / WEIGHTS[place[1]]), reverse=True)
    return [Mutant(path, sources[path].count("\n", 0, start) + 1, kind, start, before, chance.choice(others))
            for path, kind, start, before, others in found]
