"""Small changes to a C++ source, each of which a test should see: where one can be made, and which."""

import random
import re
import string
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<space>\s+) |
    (?P<comment>//[^\n]*|/\*.*?\*/) |
    (?P<directive>^[ \t]*\#(?:\\\n|[^\n])*) |
    (?P<string>"(?:\\.|[^"\\])*") |
    (?P<char>'(?:\\.|[^'\\])*') |
    (?P<number>\b\d[\w'.]*) |
    (?P<word>[A-Za-z_]\w*) |
    (?P<sign><<=|>>=|<=>|\.\.\.|->|::|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|>>|.)
""", re.DOTALL | re.MULTILINE | re.VERBOSE)
CONVERSION = re.compile(r"%[-+ #0-9.*]*[hlzjt]*[a-zA-Z%]|\\(?:[0-7]+|x[0-9a-fA-F]+|.)")

SWAPPED_OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"],
    "|": ["&"], "&": ["|"], "++": ["--"], "--": ["++"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}
BINARY_ONLY = {"<", ">", "+", "-", "*", "/", "%", "|", "&", "&&"}  # with a space on each side; else a type or a sign

# A named constant becomes one that means something else in the same place.
OTHER_NAMES = {
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
FLAG = re.compile(r"(?:O|AT|LOG|S|RESOLVE|MSG|SA)_[A-Z_]+$")  # one of those that "|" joins: left out by writing 0

HEADED = {"if", "while", "for", "switch", "catch"}
NO_STATEMENT = {"if", "while", "for", "switch", "do", "else", "try", "catch", "return", "case", "default", "break",
                "continue", "goto", "using", "namespace", "struct", "class", "union", "enum", "template", "typedef",
                "public", "private", "protected", "friend", "extern", "static_assert", "static", "constexpr", "const",
                "auto", "unsigned", "void", "bool", "char", "int", "long", "short", "double", "throw", "operator"}
DECLARATION = re.compile(r"[\w:]+(?:\s*<[^;=()]*>)?(?:\s+|\s*[*&]+\s*(?:const\s+)?)(?!and\b|or\b)[A-Za-z_]\w*\s*[;={(\[]")

# How often each kind is drawn, whatever the number of its places in the sources.
WEIGHTS = {"operator": 4, "constant": 4, "letter": 3, "statement removed": 3, "statements swapped": 2,
           "condition negated": 3, "return removed": 2}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


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
        """The lines that go and those that come, each with a sign in front and without its indentation."""
        old, new = source.splitlines(), self.applied(source).splitlines()
        while old and new and old[0] == new[0]:
            del old[0], new[0]
        while old and new and old[-1] == new[-1]:
            del old[-1], new[-1]
        return "\n".join(line.rstrip() for line in [f"- {line.strip()}" for line in old] + [f"+ {line.strip()}" for line in new])

    def __str__(self):
        shown = [re.sub(r"\s+", " ", text) or "nothing" for text in (self.before, self.after)]
        return f"{self.path}:{self.line}: {self.kind}: {shown[0]} -> {shown[1]}"


class Source:
    """The places of one source in which something can be changed. Not for all of C++: for that of this tree."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = [Token(match.lastgroup, match[0], match.start(), match.end()) for match in TOKEN.finditer(text)]
        self.tokens = [token for token in self.tokens if token.kind not in ("space", "comment", "directive")]
        self._closing = self._brackets()
        self._opening = {close: start for start, close in self._closing.items()}
        self._blocks = self._find_blocks()
        self._left_alone = self._find_left_alone()

    def places(self):
        """Every (kind, offset, before, [after, ...]); the `after` of a letter is found when one is drawn."""
        found = []
        for index, token in enumerate(self.tokens):
            if index not in self._left_alone:
                found += self._of_token(index, token)
        statements = self._statements()
        found += self._of_statements(statements)
        found += self._of_conditions()
        return found

    # -- structure

    def _brackets(self):
        closing, open_ones = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in "([{":
                open_ones.append(index)
            elif token.kind == "sign" and token.text in ")]}" and open_ones:
                closing[open_ones.pop()] = index
        return closing

    def _text(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def _find_blocks(self):
        """The braces that hold statements, as {index of "{": index of "}"}."""
        blocks = {}
        for start, close in self._closing.items():
            if self._text(start) != "{":
                continue
            before = start - 1
            while self._text(before) in ("const", "noexcept", "override", "mutable"):
                before -= 1
            if self._text(before) in ("else", "do", "try"):
                blocks[start] = close
            elif self._text(before) == ")" or (self._text(before) == "]" and self._text(self._opening.get(before, 0)) == "["):
                blocks[start] = close
            elif self._text(before - 1) == "->" and self._text(before - 2) == ")":
                blocks[start] = close  # a lambda that says what it returns
            elif self._text(before) == "}" and self._is_initializer(self._opening.get(before, 0)):
                blocks[start] = close
        return blocks

    def _is_initializer(self, start):
        return self.tokens[start - 1].kind == "word" and self._text(start - 2) in (":", ",")

    def _find_left_alone(self):
        """The tokens of static assertions and attributes."""
        alone = set()
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__") and index + 1 in self._closing:
                alone.update(range(index, self._closing[index + 1] + 1))
        return alone

    def _statements(self):
        """Each block's own simple statements: lists of (first token, index of its ";", whether its block's next)."""
        found = []
        for start, close in self._blocks.items():
            index, own = start + 1, []
            while index < close:
                end = self._simple_end(index, close)
                if end is not None:
                    own.append((index, end))
                    index = end + 1
                    continue
                own.append(None)  # something else stands between
                index = self._skip(index, close, found)
            found.append((start, own))
        return found

    def _simple_end(self, index, close):
        """The index of the ";" of the statement that begins at `index`; None for one with a header of its own."""
        if self._text(index) in HEADED | {"else", "do", "try", "case", "default", "{"}:
            return None
        while index < close:
            if self._text(index) == ";":
                return index
            index = self._closing.get(index, index) + 1
        return None

    def _skip(self, index, close, found):
        """The index after a header, or after a block; a single statement without braces is a block of its own."""
        text = self._text(index)
        if text == "{":
            return self._closing[index] + 1
        if text in ("case", "default"):
            while index < close and self._text(index) != ":":
                index += 1
            return index + 1
        after = index + 1
        if text in HEADED:
            after += self._text(after) == "constexpr"
            after = self._closing.get(after, after) + 1
        if text in HEADED | {"else", "do"} and self._text(after) != "{":
            end = self._simple_end(after, close)
            if end is not None:
                found.append((None, [(after, end)]))
                return end + 1
        return after

    # -- places

    def _of_token(self, index, token):
        before, after = self._text(index - 1), self._text(index + 1)
        if token.kind == "sign" and token.text in SWAPPED_OPERATORS and before != "operator":
            spaced = self.text[token.start - 1:token.start].isspace() and self.text[token.end:token.end + 1].isspace()
            if spaced or token.text not in BINARY_ONLY:
                yield "operator", token.start, token.text, SWAPPED_OPERATORS[token.text]
        elif token.kind == "sign" and token.text == "!":
            yield "operator", token.start, "!", [""]
        elif token.kind == "number":
            yield from self._of_number(token)
        elif token.kind == "char" and re.fullmatch(r"'[^\\]'", token.text):
            yield "constant", token.start, token.text, ["'#'" if token.text != "'#'" else "'+'"]
        elif token.kind == "word":
            if token.text in OTHER_NAMES:
                yield "constant", token.start, token.text, [OTHER_NAMES[token.text]]
            if FLAG.match(token.text) and "|" in (before, after):
                yield "constant", token.start, token.text, ["0"]
        elif token.kind == "string" and letters(token.text):
            yield "letter", token.start, token.text, None

    def _of_number(self, token):
        digits = token.text.rstrip("uUlLzZ").replace("'", "")
        if re.fullmatch(r"0[0-7]+", digits):
            yield "constant", token.start, token.text, [f"0{int(digits, 8) ^ bit:o}" for bit in (0o001, 0o020, 0o200)]
        elif re.fullmatch(r"\d+|0[xX][0-9a-fA-F]+", digits):
            value, suffix = int(digits, 0), token.text[len(token.text.rstrip("uUlLzZ")):]
            values = [value + 1] if value == 0 else [value - 1, value + 1]
            yield "constant", token.start, token.text, [f"{other}{suffix}" for other in values]

    def _span(self, statement):
        first, last = statement
        return self.tokens[first].start, self.tokens[last].end

    def _is_action(self, statement):
        """Whether the statement can be left out: no declaration, and nothing that leaves the block."""
        start, end = self._span(statement)
        first = self._text(statement[0])
        return first != ";" and first not in NO_STATEMENT and not DECLARATION.match(self.text[start:end])

    def _order_matters(self, one, other):
        """Whether the two statements may depend on each other: by what their calls do, or by what one assigns."""
        texts = [self.text[slice(*self._span(statement))] for statement in (one, other)]
        if "constexpr" in (self._text(one[0]), self._text(other[0])):
            return False
        if all("(" in text for text in texts):
            return True
        for text, another in (texts, reversed(texts)):
            for name in re.findall(r"(\w+)[\])]*\s*[-+*/|&]?=(?!=)", text):
                if name == "errno" or re.search(rf"\b{name}\b", another):
                    return True
        return False

    def _of_statements(self, blocks):
        for start, own in blocks:
            for position, statement in enumerate(own):
                if statement is None:
                    continue
                begin, end = self._span(statement)
                before = self.text[begin:end]
                if self._text(statement[0]) == "return":
                    # The last one of a function, or of a lambda, makes it answer.
                    if start is None or position + 1 < len(own) or self._is_headed(start):
                        yield "return removed", begin, before, ["{}"]
                elif self._is_action(statement) or self._text(statement[0]) in ("break", "continue", "throw"):
                    yield "statement removed", begin, before, ["{}" if start is None else ""]
                other = own[position + 1] if position + 1 < len(own) else None
                if other is not None and (self._is_action(statement) or self._is_action(other)):
                    ends = self._text(other[0]) in ("return", "break", "continue", "throw")
                    if not ends and self._order_matters(statement, other):
                        second = self._span(other)
                        texts = self.text[begin:end], self.text[end:second[0]], self.text[second[0]:second[1]]
                        yield "statements swapped", begin, "".join(texts), [texts[2] + texts[1] + texts[0]]

    def _is_headed(self, start):
        """Whether the block belongs to an if or a loop, not to a function."""
        before = start - 1
        if self._text(before) in ("else", "do", "try"):
            return True
        opening = self._opening.get(before, 0)
        return self._text(opening - 1) in HEADED or self._text(opening - 2) in HEADED

    def _of_conditions(self):
        for index, token in enumerate(self.tokens):
            start = index + 1
            if token.kind == "word" and token.text in ("if", "while") and start in self._closing:
                first, last = start + 1, self._closing[start] - 1
                for inner in range(first, last):
                    if self._text(inner) == ";":
                        first = inner + 1  # an initialiser comes before the condition
                begin, end = self.tokens[first].start, self.tokens[last].end
                before = self.text[begin:end]
                yield "condition negated", begin, before, [f"!({before})"]


def letters(literal):
    """The positions of the letters and digits of a string literal that no conversion or escape consists of."""
    taken = {position for match in CONVERSION.finditer(literal) for position in range(*match.span())}
    return [position for position, letter in enumerate(literal)
            if position not in taken and (letter.isascii() and letter.isalnum() or letter in "/ @._-")]


def with_another_letter(literal, chance):
    """The string literal with one letter changed; case alone is not enough, for SQL does not see it."""
    position = chance.choice(letters(literal))
    old = literal[position]
    alphabet = string.ascii_uppercase if old.isupper() else string.ascii_lowercase
    new = chance.choice([letter for letter in alphabet if letter != old])
    return literal[:position] + new + literal[position + 1:]


class Deck:
    """All the places of the sources, {path: text}; draws the mutants, always the same ones for a seed."""

    def __init__(self, sources, seed):
        self._seed = seed
        self._sources = {path: Source(path, text) for path, text in sorted(sources.items())}
        places = {kind: [] for kind in WEIGHTS}
        for path, source in self._sources.items():
            for kind, start, before, after in source.places():
                places[kind].append((path, kind, start, before, after))
        chance = random.Random(f"{seed}")
        for kind in places:
            chance.shuffle(places[kind])
        self._order = []
        while any(places.values()):
            kinds = [kind for kind in WEIGHTS if places[kind]]
            kind = chance.choices(kinds, [WEIGHTS[kind] for kind in kinds])[0]
            self._order.append(places[kind].pop())

    def __len__(self):
        return len(self._order)

    def draw(self, number, attempt=0):
        """The mutant of that number, from 1; a further `attempt` when the one before it did not compile."""
        chance = random.Random(f"{self._seed} {number} {attempt}")
        place = self._order[number - 1] if attempt == 0 else chance.choice(self._order)
        path, kind, start, before, after = place
        other = with_another_letter(before, chance) if after is None else chance.choice(after)
        line = self._sources[path].text.count("\n", 0, start) + 1
        return Mutant(path, line, kind, start, before, other)
