"""A C++ source as tokens, with the statements that its functions consist of.

It knows the style of this project (.clang-format), not all of C++: a fault that is planted in the wrong
place does not build, and does not count.
"""

import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?P<directive>^[ \t]*\#(?:\\\n|[^\n])*)
      | (?P<string>"(?:\\.|[^"\\])*")
      | (?P<char>'(?:\\.|[^'\\])*')
      | (?P<number>\d[\w']*(?:\.\w*)?)
      | (?P<word>[A-Za-z_]\w*)
      | (?P<mark>->|::|<<=|>>=|<<|>>|&&|\|\||[-+*/%&|^=!<>]=|\+\+|--|[^\s\w])""",
    re.S | re.M | re.X,
)
CLOSING = {"(": ")", "[": "]", "{": "}"}
CONTROL = {"if", "while", "for", "switch"}
# No call to drop begins with one of these.
KEYWORDS = CONTROL | {
    "auto", "break", "case", "catch", "class", "const", "constexpr", "continue", "default", "delete", "do",
    "else", "enum", "explicit", "friend", "namespace", "new", "return", "static", "struct", "template",
    "throw", "try", "typedef", "union", "using", "virtual", "void",
}  # fmt: skip
# A brace after one of these holds statements.
BEFORE_CODE = {")", "]", "else", "do", "try", "const", "override", "noexcept", "mutable", ":", ";", "{", "}"}
# Checks of the compiler and of debug builds.
WITHOUT_CODE = {"assert", "static_assert", "enter_loop", "enter_worker", "check_loop_thread"}


@dataclass
class Token:
    kind: str
    text: str
    begin: int

    @property
    def end(self):
        return self.begin + len(self.text)


@dataclass
class Statement:
    first: int  # index of its first token
    in_block: bool  # not the body of an `if` without braces
    result: str  # what an early return returns here: "return;" or "return {};"


class Source:
    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start())
            for match in TOKEN.finditer(text)
            if match.lastgroup not in ("comment", "directive")
        ]
        self.partner = self._pair_brackets()
        self.skipped = self._skipped()
        self.statements = self._statements()

    def line_of(self, offset):
        return self.text.count("\n", 0, offset) + 1

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def _pair_brackets(self):
        partner, open_ = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "mark":
                continue
            if token.text in CLOSING:
                open_.append(index)
            elif token.text in CLOSING.values() and open_:
                partner[index] = open_.pop()
                partner[partner[index]] = index
        return partner

    def _skipped(self):
        """Tokens of assertions, annotations, pause points, attributes and template parameters."""
        skipped = set()
        for index, token in enumerate(self.tokens):
            opened = index + 1
            is_macro = token.text in WITHOUT_CODE or token.text.startswith("TOLK_")
            if token.text == "[" and self.word(index + 1) == "[":
                opened = index
            elif token.text == "template":
                while self.word(opened) != ">" and opened < len(self.tokens):
                    opened += 1
                skipped.update(range(index, opened))
                continue
            elif not (is_macro and self.word(opened) == "("):
                continue
            skipped.update(range(index, self.partner.get(opened, opened) + 1))
        return skipped

    def _statements(self):
        found, scopes = [], []  # scopes: (kind, result of an early return)
        kind, result, starts, in_block = "outside", "", False, False
        for index, token in enumerate(self.tokens):
            if starts and kind == "code" and token.text not in "{};":
                found.append(Statement(index, in_block, result))
            starts = False
            if token.text in CLOSING:
                scopes.append((kind, result))
                kind, result = self._scope(index, kind, result)
                starts, in_block = token.text == "{", True
            elif token.kind == "mark" and token.text in CLOSING.values() and scopes:
                kind, result = scopes.pop()
                is_head = token.text == ")" and self.word(self.partner[index] - 1) in CONTROL
                starts, in_block = token.text == "}" or is_head, not is_head
            elif token.text == ";":
                starts, in_block = True, True
            elif token.text == "else" or (token.text == ":" and self._ends_label(index)):
                starts, in_block = True, False
        return found

    def _ends_label(self, index):
        head = self._head(index)
        return self.word(head) in ("case", "default")

    def _head(self, index):
        """The first token of what `index` ends: the one after the last ; { or } before it."""
        while index > 0 and self.word(index - 1) not in (";", "{", "}"):
            index = self.partner[index - 1] if self.word(index - 1) in (")", "]") else index - 1
        return index

    def _scope(self, index, kind, result):
        if self.word(index) != "{":
            return "group", result
        before, head = self.word(index - 1), self._head(index)
        words = [token.text for token in self.tokens[head:index]]
        if "namespace" in words or words[:1] == ["extern"]:
            return "outside", ""
        if before != ")" and {"class", "struct", "union", "enum"} & set(words) and kind != "code":
            return "class", ""
        if before in BEFORE_CODE or before.startswith("TOLK_"):
            return "code", self._result_of(index, kind, result)
        return "values", result

    def _result_of(self, index, kind, outer):
        """What a return behind this `{` looks like: the function's, or that of a lambda."""
        last = index - 1
        while last > 0 and self.tokens[last].kind == "word":
            last -= 1
        if "]" in (self.word(last), self.word(self.partner.get(last, 0) - 1)):
            return "return;"  # a lambda; one with a result does not build
        return outer if kind == "code" else self._result_of_function(index)

    def _result_of_function(self, index):
        words = []
        for token in self.tokens[self._head(index) : index]:
            if token.text == "(":
                break
            if token.text not in ("inline", "explicit", "constexpr", "static"):
                words.append(token.text)
        is_constructor = len(words) == 1 or (len(words) > 2 and words[1] == "::" and words[0] == words[-1])
        return "return;" if "void" in words or "~" in words or is_constructor else "return {};"
