"""The faults that can be planted in a source, and which of them a seed chooses."""

import random
from collections import defaultdict
from dataclasses import dataclass

from source import KEYWORDS

SWAPPED = {
    "&&": "||", "||": "&&", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
    "+": "-", "-": "+", "+=": "-=", "-=": "+=",
}  # fmt: skip
STEPS = {"++": "--", "--": "++"}
# No early return before these: it is not possible, or the next statement has one that does the same.
NO_EARLY_RETURN = {"auto", "break", "case", "catch", "const", "continue", "default", "else", "return", "try"}


@dataclass(frozen=True)
class Fault:
    path: str
    line: int
    begin: int
    end: int
    text: str  # stands instead of the characters from begin to end
    before: str  # the line as it is, and as it becomes
    after: str

    def planted_in(self, source):
        return source[: self.begin] + self.text + source[self.end :]


def faults_in(source):
    return sorted(
        [*_operators(source), *_words(source), *_conditions(source), *_statements(source)],
        key=lambda fault: (fault.begin, fault.end, fault.text),
    )


def choose(faults, count, seed):
    """Spread by lines: no line has its second fault before every line has one."""
    chance = random.Random(seed)
    by_line = defaultdict(list)
    for fault in faults:
        by_line[fault.path, fault.line].append(fault)
    for left in by_line.values():
        chance.shuffle(left)
        # The last is chosen first: an early return is the coarsest fault of a line.
        left.sort(key=lambda fault: not fault.text.startswith("return"))
    chosen = []
    while by_line and len(chosen) < count:
        lines = list(by_line)
        chance.shuffle(lines)
        for line in lines:
            chosen.append(by_line[line].pop())
            if not by_line[line]:
                del by_line[line]
    return chosen[:count]


def _fault(source, begin, end, text):
    whole = source.text
    first, last = whole.rfind("\n", 0, begin) + 1, whole.find("\n", end)
    before = " ".join(whole[first:last].split())
    after = " ".join((whole[first:begin] + text + whole[end:last]).split())
    return Fault(source.path, source.line_of(begin), begin, end, text, before, after)


def _each(source):
    for index, token in enumerate(source.tokens):
        if index not in source.skipped:
            yield index, token


def _operators(source):
    text, tokens = source.text, source.tokens
    for index, token in _each(source):
        if token.kind != "mark" or not 0 < index < len(tokens) - 1:
            continue
        # Between blanks: no reference, template bracket, sign or pointer stands so.
        between = text[token.begin - 1].isspace() and text[token.end].isspace()
        if token.text in SWAPPED and between:
            joins_text = token.text in "+-" and "string" in (tokens[index - 1].kind, tokens[index + 1].kind)
            if not joins_text:
                yield _fault(source, token.begin, token.end, SWAPPED[token.text])
        elif token.text in STEPS:
            yield _fault(source, token.begin, token.end, STEPS[token.text])
        elif token.text == "!":
            yield _fault(source, token.begin, token.end, "")


def _words(source):
    for index, token in _each(source):
        if token.text in ("true", "false"):
            yield _fault(source, token.begin, token.end, "false" if token.text == "true" else "true")
        elif token.kind == "number" and "." not in token.text and not _is_pure(source, index):
            digits = token.text.rstrip("uUlL")
            value = int(digits.replace("'", ""), 0)
            for other in {value + 1, value - 1 if value > 0 else value + 1}:
                yield _fault(source, token.begin, token.end, str(other) + token.text[len(digits) :])


def _is_pure(source, index):
    """Whether the number is the 0 of a pure virtual function."""
    before = source.word(index - 2)
    return source.word(index - 1) == "=" and (before in (")", "const", "override") or before.startswith("TOLK_"))


def _conditions(source):
    for index, token in _each(source):
        if token.text not in ("if", "while") or source.word(index + 1) != "(":
            continue
        first, last = index + 2, source.partner[index + 1]
        if source.word(first) in ("const", "auto"):
            continue  # a declaration
        begin, end = source.tokens[first].begin, source.tokens[last].begin
        yield _fault(source, begin, end, "!(" + source.text[begin:end] + ")")


def _statements(source):
    for statement in source.statements:
        index = statement.first
        if index in source.skipped:
            continue
        token = source.tokens[index]
        last = _end_of_call(source, index)
        if last is not None:
            yield _fault(source, token.begin, source.tokens[last].end, "{}")
        if statement.in_block and statement.result and token.text not in NO_EARLY_RETURN:
            yield _fault(source, token.begin, token.begin, statement.result + " ")


def _end_of_call(source, index):
    """The semicolon of a statement that is a call: names, dots, arrows and brackets, and a ) at the end."""
    if source.tokens[index].kind != "word" or source.word(index) in KEYWORDS:
        return None
    expects_name = True
    while index < len(source.tokens) - 1:
        token = source.tokens[index]
        if token.text == ";":
            return index if source.word(index - 1) == ")" else None
        if expects_name and token.kind == "word":
            expects_name = False
        elif token.text in ("::", ".", "->"):
            expects_name = True
        elif token.text in ("(", "["):
            index = source.partner[index]
        else:
            return None
        index += 1
    return None
