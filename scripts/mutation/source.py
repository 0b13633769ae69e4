"""Takes a C++ file apart: tokens with their places, and what brackets belong together."""

import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<preprocessor>^[ \t]*\#(?:[^\n\\]|\\.)*)
  | (?P<string>"(?:[^"\\\n]|\\.)*"\w*)
  | (?P<char>'(?:[^'\\\n]|\\.)+')
  | (?P<number>0[xX][0-9a-fA-F']+[uUlL]*|\d[\d']*(?:\.\d+)?(?:[eE][+-]?\d+)?\w*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<operator><=>|<<=|>>=|->\*|\.\.\.|::|->|\+\+|--|<<|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])
    """,
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)

CLOSERS = {")": "(", "]": "[", "}": "{"}
OPENERS = set(CLOSERS.values())


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


class Source:
    """One file. Places are offsets into its text; tokens are named by their number."""

    def __init__(self, name, text):
        self.name = name
        self.text = text
        self.lines = text.split("\n")
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start(), match.end())
            for match in TOKEN.finditer(text)
            if match.lastgroup not in ("comment", "preprocessor")
        ]
        self.partner = {}  # opening bracket <-> closing bracket
        self.opener = []  # the innermost bracket around a token, or None
        self._match_brackets()

    def _match_brackets(self):
        open_ones = []
        for i, token in enumerate(self.tokens):
            if token.text in CLOSERS and token.kind == "operator":
                opener = open_ones.pop()
                self.partner[opener] = i
                self.partner[i] = opener
            self.opener.append(open_ones[-1] if open_ones else None)
            if token.text in OPENERS and token.kind == "operator":
                open_ones.append(i)

    def is_at(self, i, *texts):
        return 0 <= i < len(self.tokens) and self.tokens[i].text in texts

    def kind(self, i):
        return self.tokens[i].kind if 0 <= i < len(self.tokens) else None

    def line_of(self, place):
        return self.text.count("\n", 0, place) + 1

    def text_of(self, first, last):
        return self.text[self.tokens[first].start : self.tokens[last].end]

    def blocks(self):
        """Start and end of each block that belongs to a function or a record."""
        found = []
        for i, token in enumerate(self.tokens):
            if token.text != "{" or token.kind != "operator":
                continue
            head = i - 1
            while head >= 0 and not self.is_at(head, ";", "{", "}"):
                head -= 1
            if self.is_at(i - 1, ")", "const") and not self.is_at(head + 1, "namespace", "extern"):
                found.append((token.start, self.tokens[self.partner[i]].end))
        return found

    def is_binary(self, i):
        """The tree is formatted: two operands have blanks between them and their operator."""
        token = self.tokens[i]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def at_depth_of(self, i, first, last):
        """The tokens first..last that stand inside the same bracket as token i."""
        return [k for k in range(first, last + 1) if self.opener[k] == self.opener[i]]

    def expression_around(self, i, stops):
        """First and last token of the expression at token i's depth, which ends at any of stops."""
        around = self.opener[i]
        first = self.partner[i] if self.is_at(i, *CLOSERS) else i
        last = self.partner[i] if self.is_at(i, *OPENERS) else i
        while first > 0 and first - 1 != around and not self.is_at(first - 1, *stops):
            first = self.partner[first - 1] if self.is_at(first - 1, *CLOSERS) else first - 1
        end = self.partner[around] if around is not None else len(self.tokens)
        while last + 1 < end and not self.is_at(last + 1, *stops):
            last = self.partner[last + 1] if self.is_at(last + 1, *OPENERS) else last + 1
        return first, last
