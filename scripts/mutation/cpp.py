"""Parses C++ as far as fault injection requires: tokens, brackets, blocks and their statements.

Relies on the project's formatting: binary operators have spaces on both sides, template brackets have none.
"""

import re

TOKEN = re.compile(
    r"""
      (?P<comment>//[^\n]*|/\*.*?\*/)
    | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
    | (?P<string>(?:u8|[uUL])?(?:R"(?P<mark>[^()\\\s]*)\(.*?\)(?P=mark)"|"(?:[^"\\\n]|\\.)*"))
    | (?P<char>(?:u8|[uUL])?'(?:[^'\\\n]|\\.)+')
    | (?P<number>\.?\d(?:'?[\w.])*)
    | (?P<name>[A-Za-z_]\w*)
    | (?P<sign><<=|>>=|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

CLOSING = {"(": ")", "[": "]", "{": "}"}
# Tokens that end an operand of a comparison, besides the enclosing bracket.
OPERAND_ENDS = {"&&", "||", "?", ":", ";", ",", "=", "!", "return", "<", ">", "<=", ">=", "==", "!=", "}"}
LEAVING = {"return", "throw", "continue", "break"}
LOG_MACRO = "SD_LOG"


class Token:
    """A token of the code; comments and directives are not tokens."""

    def __init__(self, kind, text, begin):
        self.kind, self.text, self.begin, self.end = kind, text, begin, begin + len(text)


class Statement:
    """The tokens `first` to `last`. The kind is "simple", which ends with a semicolon, "guard", an if without else
    that leaves the block, "label", or "compound"."""

    def __init__(self, kind, first, last):
        self.kind, self.first, self.last = kind, first, last


class Source:
    """A parsed file. Methods refer to tokens by index."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = []
        for match in TOKEN.finditer(text):
            kind = next(name for name in ("comment", "directive", "string", "char", "number", "name", "sign")
                        if match.group(name) is not None)
            if kind not in ("comment", "directive"):
                self.tokens.append(Token(kind, match.group(), match.start()))
        self.partner = self._match_brackets()
        self.braces = self._classify_braces()
        self.neighbours = []  # lists of consecutive statements
        for brace, kind in self.braces.items():
            if kind == "block":
                self.neighbours.append(self._parse_block(brace))
        self._skipped = self._find_skipped()

    def word(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def words(self, first, last):
        return [token.text for token in self.tokens[first : last + 1]]

    def span(self, first, last):
        return self.text[self.tokens[first].begin : self.tokens[last].end]

    def simple_statements(self):
        return [one for some in self.neighbours for one in some if one.kind == "simple"]

    def is_log_line(self, statement):
        return self.word(statement.first) == LOG_MACRO

    def is_skipped(self, index):
        """Whether the token gets no fault, because it is part of a log line or not executable code."""
        return index in self._skipped

    def is_binary(self, index):
        """Whether the sign is a binary operator rather than part of a type."""
        token = self.tokens[index]
        return self.text[token.begin - 1].isspace() and self.text[token.end].isspace()

    def operand_before(self, index):
        """Returns the first token of the operand before a comparison."""
        while index > 0 and not self._ends_operand(index - 1) and self.word(index - 1) not in CLOSING:
            index = self.partner.get(index - 1, index - 1)
        return index

    def operand_after(self, index):
        """Returns the last token of the operand after a comparison."""
        while not self._ends_operand(index + 1) and self.word(index + 1) not in CLOSING.values():
            index = self.partner.get(index + 1, index + 1)
        return index

    def _ends_operand(self, index):
        word = self.word(index)
        return word in OPERAND_ENDS and (word not in ("<", ">") or self.is_binary(index))

    def semicolon(self, index):
        """Returns the semicolon of the statement that contains the token."""
        while self.word(index) != ";":
            if self.partner.get(index, index) < index or index >= len(self.tokens):
                line = self.text.count("\n", 0, self.tokens[index - 1].end) + 1
                raise ValueError(f"{self.path}:{line}: a statement without an end")
            index = self.partner.get(index, index) + 1
        return index

    def header(self, brace):
        """Returns the first token of the code before a brace that belongs to it."""
        index = brace
        while index > 0 and self.word(index - 1) not in (";", "{", "}", "(", "["):
            index = self.partner[index - 1] if self.word(index - 1) in (")", "]") else index - 1
        return index

    def _match_brackets(self):
        partner, waiting = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in CLOSING:
                waiting.append(index)
            elif token.text in CLOSING.values():
                start = waiting.pop()
                partner[start], partner[index] = index, start
        return partner

    def _classify_braces(self):
        kinds, around = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text == "{":
                kinds[index] = self._brace_kind(index, kinds[around[-1]] if around else "namespace")
                around.append(index)
            elif token.kind == "sign" and token.text == "}":
                around.pop()
        return kinds

    def _brace_kind(self, brace, around):
        """Returns "namespace", "type", "enum", "block" or "value"."""
        before = self.word(brace - 1)
        first = self.header(brace)
        top = []  # the header without the contents of its brackets
        index = first
        while index < brace:
            top.append(self.word(index))
            index = self.partner[index] + 1 if self.word(index) in ("(", "[") else index + 1
        if around in ("namespace", "type", "block") and "(" not in top and "=" not in top and "return" not in top:
            if "namespace" in top:
                return "namespace"
            if "enum" in top:
                return "enum"
            if {"class", "struct", "union"} & set(top):
                return "type"
        if before == "]":
            opening = self.partner[brace - 1]
            return "value" if self.tokens[opening - 1].kind == "name" or self.word(opening - 1) == "]" else "block"
        if before in (")", "else", "do", "try", "const", "override", "noexcept", "mutable"):
            return "block"
        if ("(", "->") in zip(top, top[1:]) and "return" not in top:
            return "block"
        if before == ":" and {"case", "default"} & set(top):
            return "block"
        if before in (";", "{", "}"):
            return "value" if around in ("value", "enum") else "block"
        return "value"

    def _parse_block(self, brace):
        statements, index = [], brace + 1
        while index < self.partner[brace]:
            statement = self._parse_statement(index)
            statements.append(statement)
            index = statement.last + 1
        return statements

    def _parse_statement(self, first):
        word = self.word(first)
        if word == "{":
            return Statement("compound", first, self.partner[first])
        if word in ("case", "default"):
            last = first
            while self.word(last) != ":":
                last += 1
            return Statement("label", first, last)
        if word in ("if", "for", "while", "switch"):
            return self._parse_controlled(first)
        if word == "do":
            body = self._parse_body(first + 1)
            return Statement("compound", first, self.semicolon(body.last + 1))
        if word == "try":
            last = self.partner[first + 1]
            while self.word(last + 1) == "catch":
                last = self.partner[self.partner[last + 2] + 1]
            return Statement("compound", first, last)
        return Statement("simple", first, self.semicolon(first))

    def _parse_controlled(self, first):
        bracket = first + 1
        while self.word(bracket) != "(":
            bracket += 1
        body = self._parse_body(self.partner[bracket] + 1)
        kind = "compound"
        if self.word(first) == "if" and LEAVING & set(self.words(body.first, body.last)):
            kind = "guard"
        last = body.last
        if self.word(first) == "if" and self.word(last + 1) == "else":
            kind, last = "compound", self._parse_body(last + 2).last
        return Statement(kind, first, last)

    def _parse_body(self, first):
        body = self._parse_statement(first)
        if body.kind == "simple":
            self.neighbours.append([body])
        return body

    def _find_skipped(self):
        skipped = set()
        for statement in self.simple_statements():
            if self.is_log_line(statement):
                skipped.update(range(statement.first, statement.last + 1))
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "using", "operator"):
                last = index + 1 if token.text == "operator" else self.semicolon(index)
                skipped.update(range(index, last + 1))
            elif token.text == "template" and self.word(index + 1) == "<":
                depth, last = 1, index + 1
                while depth > 0:
                    last += 1
                    depth += {"<": 1, ">": -1, ">>": -2}.get(self.word(last), 0)
                skipped.update(range(index, last + 1))
        return skipped
