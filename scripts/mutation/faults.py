"""The small faults that can be injected into a file, in two groups."""

import difflib
import hashlib
import re

from cpp import CLOSING, LEAVING, LOG_MACRO, Source

USUAL, BEYOND = "usual", "beyond"

COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
CALCULATIONS = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "+=": "-=", "-=": "+=",
                "&": "|", "|": "&", "++": "--", "--": "++", "true": "false", "false": "true"}
LEVELS = {"Error": "Warning", "Warning": "Notice", "Notice": "Debug", "Debug": "Trace", "Trace": "Debug"}
NARROWER = {
    "std::size_t": "std::uint16_t",
    "std::uint64_t": "std::uint32_t",
    "std::int64_t": "std::int32_t",
    "std::uint32_t": "std::uint16_t",
    "std::uint16_t": "std::uint8_t",
    "std::streamsize": "std::int16_t",
    "Poco::Clock::ClockDiff": "std::int32_t",
    "Poco::Clock::ClockVal": "std::int32_t",
    "unsigned long": "std::uint16_t",
    "unsigned int": "std::uint16_t",
    "unsigned short": "std::uint8_t",
    "unsigned": "std::uint16_t",
    "long": "std::int16_t",
    "int": "std::int8_t",
}
WIDE = "|".join(re.escape(name) for name in sorted(NARROWER, key=len, reverse=True))
CAST = re.compile(rf"static_cast<({WIDE})>")
VARIABLE = re.compile(rf"(?:const )?({WIDE}) \w+ = (.*);", re.DOTALL)
RESULT = re.compile(rf"^(?:[\w\[\]]+ )*({WIDE}) [\w:~]+\(.*\)(?: const)?(?: noexcept)?(?: override)?\s*$", re.DOTALL)
NARROWED_EXCEPTIONS = {
    "...": ["const Poco::Exception&", "const std::exception&"],
    "std::exception": ["std::runtime_error"],
    "Poco::Exception": ["Poco::RuntimeException", "Poco::IOException"],
    "Poco::InvalidArgumentException": ["Poco::NotImplementedException"],
    "std::system_error": ["std::ios_base::failure"],
    "std::bad_alloc": ["std::bad_array_new_length"],
}
LOCK = re.compile(r"^(?:const )?[\w:<>]*(?:Lock|lock_guard|unique_lock|scoped_lock|ScopedLock)\b[\w:<>]* (\w+)[({]")
DECLARATION = re.compile(r"^(?:(?:const|static|constexpr|volatile|thread_local|auto|mutable|typename) |[\w:]+(?:<[^;=()]*>)?(?: const)?[&*]* (?:\[|\w+(?:\s*[;=({\[]|$)))")
ASSIGNMENT = re.compile(r"([\w.>\[\]*-]+) = ")
SETTER = re.compile(r"([\w.>-]+(?:\.|->)set\w+)\(")
SMALLEST_MEASURE = 7  # 15 % of smaller numbers are less than 1
FIFTEEN_PERCENT = (1.15, 0.85)


class Fault:
    """A set of edits of a file. Each is a tuple (begin, end, text) that replaces the characters from begin to end."""

    def __init__(self, source, group, kind, edits):
        self.path, self.group, self.kind = source.path, group, kind
        self.edits = sorted(edits)
        self.line = source.text.count("\n", 0, self.edits[0][0]) + 1
        self._text = source.text

    def planted(self):
        text = self._text
        for begin, end, replacement in reversed(self.edits):
            text = text[:begin] + replacement + text[end:]
        return text

    def diff(self):
        """Returns the lines that differ, marked like those of `diff -u`; for swapped statements, all their lines."""
        before, after = self._text.splitlines(), self.planted().splitlines()
        if self.kind == "order":
            last = self._text.count("\n", 0, self.edits[-1][1])
            behind = len(before) - last - 1
            return ["-" + line for line in before[self.line - 1 : last + 1]] + [
                "+" + line for line in after[self.line - 1 : len(after) - behind]]
        lines = difflib.unified_diff(before, after, lineterm="", n=0)
        return [line for line in lines if not line.startswith(("---", "+++", "@@"))]

    def key(self):
        """Returns a key that depends only on the lines that differ, not on their position."""
        return (self.path, *("".join(line.split()) for line in self.diff()))

    def identifier(self):
        """Returns an identifier that is valid as long as the file does not change."""
        where = f"{self.path}:{self.edits}:{hashlib.sha1(self._text.encode()).hexdigest()}"
        return hashlib.sha1(where.encode()).hexdigest()[:12]

    def lot(self, seed):
        """Returns the sort key of the fault, which does not depend on other faults."""
        return hashlib.sha1(f"{seed}:{self.key()}:{self.line}".encode()).hexdigest()


class Enumerations:
    """The order of the values in all enumerations that headers declare."""

    DECLARED = re.compile(r"\benum(?:\s+(?:class|struct))?\s+(\w+)[^{};()]*\{([^}]*)\}")

    def __init__(self, texts):
        self._next = {}
        for text in texts:
            text = re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.DOTALL)
            for name, body in self.DECLARED.findall(text):
                values = [part.split("=")[0].strip() for part in body.split(",") if part.strip()]
                for value, following in zip(values, values[1:] + values[:1]):
                    self._next.setdefault(value, []).append(({name, name.split("_t")[0].removesuffix("_t")}, following))

    def after(self, scope, value):
        candidates = self._next.get(value, [])
        fitting = [following for names, following in candidates if scope in names]
        if len(fitting) != 1 and len(candidates) == 1:
            fitting = [candidates[0][1]]
        if len(candidates) > 1 and not fitting:
            fitting = [following for names, following in candidates if any(name.startswith(scope) for name in names)]
        return fitting[0] if len(fitting) == 1 and fitting[0] != value else None


def faults_in(path, text, enumerations):
    """Returns all faults that can be injected into the file, without those that produce the same text."""
    planter = _Planter(Source(path, text), enumerations)
    seen, result = set(), []
    for fault in planter.usual() + planter.beyond():
        planted = fault.planted()
        if planted == text or planted in seen:
            continue
        seen.add(planted)
        result.append(fault)
    return result


class _Planter:
    def __init__(self, source, enumerations):
        self.source, self.enumerations = source, enumerations
        self.faults = []

    def usual(self):
        self.group, self.faults = USUAL, []
        self._each_token(self._usual_token)
        self._negate_conditions()
        self._delete_statements()
        self._change_levels()
        return self.faults

    def beyond(self):
        self.group, self.faults = BEYOND, []
        self._each_token(self._beyond_token)
        self._narrow()
        self._swap_neighbours()
        self._unlock_early()
        self._narrow_exceptions()
        self._remove_minima()
        return self.faults

    def _add(self, kind, *edits):
        self.faults.append(Fault(self.source, self.group, kind, edits))

    def _replace(self, kind, index, replacement):
        token = self.source.tokens[index]
        self._add(kind, (token.begin, token.end, replacement))

    def _begin(self, index):
        return self.source.tokens[index].begin

    def _end(self, index):
        return self.source.tokens[index].end

    def _each_token(self, visit):
        for index, token in enumerate(self.source.tokens):
            if not self.source.is_skipped(index):
                visit(index, token)

    # Faults of the group "usual".

    def _usual_token(self, index, token):
        if token.kind == "number":
            self._change_constant(index, token.text)
        elif token.text in COMPARISONS and self.source.is_binary(index):
            self._replace("comparison", index, COMPARISONS[token.text])
        elif token.text in ("true", "false", "++", "--"):
            self._replace("constant" if token.kind == "name" else "calculation", index, CALCULATIONS[token.text])
        elif token.text in CALCULATIONS and self.source.is_binary(index):
            kind = "condition" if token.text in ("&&", "||") else "calculation"
            self._replace(kind, index, CALCULATIONS[token.text])
        elif token.text == "!" and self.source.word(index - 1) != "operator":
            self._replace("condition", index, "")

    def _change_constant(self, index, text):
        value = _integer(text)
        if value is None:
            return
        self._replace("constant", index, _like(text, value + 1))
        if value > 1:
            self._replace("constant", index, _like(text, value - 1))

    def _negate_conditions(self):
        source = self.source
        for index, token in enumerate(source.tokens):
            if token.text == "if" and source.word(index + 1) == "(" and not source.is_skipped(index):
                first, last = index + 2, source.partner[index + 1] - 1
                semicolons = [i for i in range(first, last) if source.word(i) == ";"]
                first = semicolons[-1] + 1 if semicolons else first
                if "=" not in source.words(first, last):
                    self._add("condition", (self._begin(first), self._end(last), f"!({source.span(first, last)})"))

    def _delete_statements(self):
        for statement in self.source.simple_statements():
            word = self.source.word(statement.first)
            text = self.source.span(statement.first, statement.last)
            if word in LEAVING and word != "throw" and text not in ("return;", "continue;", "break;"):
                continue
            if word in ("using", "static_assert") or (word not in LEAVING and _is_declaration(text)):
                continue
            self._add("statement", (self._begin(statement.first), self._end(statement.last), ";"))

    def _change_levels(self):
        for index, token in enumerate(self.source.tokens):
            level = self.source.word(index + 2)
            if token.text == LOG_MACRO and level in LEVELS:
                self._replace("level", index + 2, LEVELS[level])

    # Faults of the group "beyond".

    def _beyond_token(self, index, token):
        if token.kind == "number":
            self._measure(index, token.text)
        elif token.text in ("<", "<=", ">", ">=") and self.source.is_binary(index):
            self._remove_bound(index, token.text)
        elif token.text in ("==", "!=") and self.source.is_binary(index):
            self._widen(index, token.text)

    def _measure(self, index, text):
        value = _integer(text)
        if value is None:
            if re.fullmatch(r"\d+\.\d+", text) and float(text) > 0:
                for factor in FIFTEEN_PERCENT:
                    self._replace("15 %", index, repr(float(text) * factor))
        elif value >= SMALLEST_MEASURE:
            for factor in FIFTEEN_PERCENT:
                self._replace("15 %", index, _like(text, round(value * factor)))

    def _remove_bound(self, index, sign):
        source = self.source
        first, last = source.operand_before(index), source.operand_after(index)
        before, after = source.word(first - 1), source.word(last + 1)
        if before == ";" and after == ";":
            return  # a counting loop: every test notices that it does not end
        if "0" in (source.span(first, index - 1), source.span(index + 1, last)):
            return
        self._add("bound", (self._begin(first), self._end(last), "true" if sign in ("<", "<=") else "false"))

    def _widen(self, index, sign):
        source = self.source
        first, last = source.operand_before(index), source.operand_after(index)
        for begin, end, other in ((index + 1, last, source.span(first, index - 1)),
                                  (first, index - 1, source.span(index + 1, last))):
            words = source.words(begin, end)
            if len(words) < 3 or words[-2] != "::" or any(word in CLOSING for word in words):
                continue
            following = self.enumerations.after(words[-3], words[-1])
            if not following:
                continue
            value = "".join(words[:-1]) + following
            joint = "||" if sign == "==" else "&&"
            whole = source.span(first, last)
            self._add("state", (self._begin(first), self._end(last), f"({whole} {joint} {other} {sign} {value})"))

    def _narrow(self):
        source = self.source
        for match in CAST.finditer(source.text):
            if self._is_code(match.start()):
                self._add("width", (match.start(1), match.end(1), NARROWER[match.group(1)]))
        for statement in source.simple_statements():
            begin, end = self._begin(statement.first), self._end(statement.last)
            match = VARIABLE.fullmatch(source.text[begin:end])
            if match:
                self._cut(begin + match.start(2), begin + match.end(2), NARROWER[match.group(1)])
        for brace, kind in source.braces.items():
            if kind == "block":
                self._narrow_results(brace)

    def _cut(self, begin, end, narrower):
        value = self.source.text[begin:end]
        if _integer(value) is None:
            self._add("width", (begin, end, f"static_cast<{narrower}>({value})"))

    def _narrow_results(self, brace):
        source = self.source
        head = source.span(source.header(brace), brace - 1) if source.header(brace) < brace else ""
        match = RESULT.match(head)
        if not match or "return" in head:
            return
        for index in range(brace, source.partner[brace]):
            if source.word(index) == "return" and source.word(index + 1) not in (";", "{"):
                last = source.semicolon(index) - 1
                self._cut(self._begin(index + 1), self._end(last), NARROWER[match.group(1)])

    def _swap_neighbours(self):
        source = self.source
        for neighbours in source.neighbours:
            for one, other in zip(neighbours, neighbours[1:]):
                if not (self._is_movable(one) and self._is_movable(other)):
                    continue
                first, second = source.span(one.first, one.last), source.span(other.first, other.last)
                if first != second and self._shows_order(one, other):
                    self._add("order", (self._begin(one.first), self._end(one.last), second),
                              (self._begin(other.first), self._end(other.last), first))

    def _is_movable(self, statement):
        source = self.source
        if statement.kind == "guard":
            return source.word(statement.first + 1) == "("
        if statement.kind != "simple" or source.is_log_line(statement) or source.word(statement.first) in LEAVING:
            return False
        return not _is_declaration(source.span(statement.first, statement.last))

    def _shows_order(self, one, other):
        """Whether swapping the statements can matter: for two guards, two calls, or statements that share a name."""
        if one.kind == "guard" and other.kind == "guard":
            return self._body(one) != self._body(other)
        spans = [self.source.span(statement.first, statement.last) for statement in (one, other)]
        for form in (ASSIGNMENT, SETTER):
            matches = [form.match(span) for span in spans]
            if all(matches) and not any(match.group(1) in span for match, span in zip(matches, reversed(spans))):
                return False  # they set different variables, and neither reads the other's
        words = [self.source.words(statement.first, statement.last) for statement in (one, other)]
        if all("(" in some for some in words):
            return True
        names = [{word for word in some if re.match(r"[A-Za-z_]", word)} for some in words]
        return bool(names[0] & names[1] - {"std", "Poco", "static_cast", "this"})

    def _body(self, guard):
        return self.source.words(self.source.partner[guard.first + 1] + 1, guard.last)

    def _unlock_early(self):
        """Puts the lock into a block that ends early: at once, or after some of the following statements."""
        source = self.source
        for neighbours in source.neighbours:
            for position, statement in enumerate(neighbours):
                text = source.span(statement.first, statement.last)
                match = LOCK.match(text) if statement.kind == "simple" else None
                if not match or position + 1 == len(neighbours):
                    continue
                held = neighbours[position + 1 :]
                rest = source.words(held[0].first, source.partner.get(held[-1].last, held[-1].last))
                if match.group(1) in rest:
                    continue
                movable = 0
                while movable < len(held) - 1 and not self._declares(held[movable]):
                    movable += 1
                for count in sorted({0, movable // 2, movable}):
                    last = held[count - 1].last if count else statement.last
                    self._add("lock", (self._begin(statement.first), self._begin(statement.first), "{ "),
                              (self._end(last), self._end(last), " }"))

    def _declares(self, statement):
        return statement.kind == "simple" and _is_declaration(self.source.span(statement.first, statement.last))

    def _narrow_exceptions(self):
        source = self.source
        for index, token in enumerate(source.tokens):
            if token.text != "catch":
                continue
            first, last = index + 2, source.partner[index + 1] - 1
            caught = source.span(first, last)
            for whole, narrower in NARROWED_EXCEPTIONS.items():
                if whole == "..." and caught == "...":
                    replacements = narrower
                else:
                    found = re.fullmatch(rf"const {re.escape(whole)}&(?: \w+)?", caught)
                    replacements = [caught.replace(whole, one) for one in narrower] if found else []
                for replacement in replacements:
                    self._add("exception", (self._begin(first), self._end(last), replacement))

    def _remove_minima(self):
        source = self.source
        for index, token in enumerate(source.tokens):
            if token.text != "min" or source.word(index - 1) != "::" or source.is_skipped(index):
                continue
            opening = index + 1
            while source.word(opening) not in ("(", ";"):
                opening += 1
            if source.word(opening) != "(":
                continue
            closing = source.partner[opening]
            if source.word(opening + 1) == "{":
                opening, closing_list = opening + 1, source.partner[opening + 1]
            else:
                closing_list = closing
            for first, last in self._arguments(opening, closing_list):
                self._add("bound", (self._begin(index - 2), self._end(closing), f"({source.span(first, last)})"))

    def _arguments(self, opening, closing):
        result, first, index = [], opening + 1, opening + 1
        while index < closing:
            if self.source.word(index) == ",":
                result.append((first, index - 1))
                first = index + 1
            index = self.source.partner.get(index, index) + 1
        if len(result) > 0:
            result.append((first, closing - 1))
        return result

    def _is_code(self, position):
        return any(token.begin <= position < token.end and not self.source.is_skipped(index)
                   for index, token in enumerate(self.source.tokens))


def _is_declaration(text):
    return bool(DECLARATION.match(text)) and not text.startswith(("delete ", "co_"))


def _integer(text):
    digits = re.fullmatch(r"(0[xX][\da-fA-F']+|\d[\d']*)[uUlLzZ]*", text)
    return int(digits.group(1).replace("'", ""), 0 if digits.group(1)[:2] in ("0x", "0X") else 10) if digits else None


def _like(text, value):
    suffix = re.search(r"[uUlLzZ]*$", text).group()
    return (hex(value) if text[:2] in ("0x", "0X") else str(value)) + suffix
