"""What can be changed in a source file: each constant, comparison, operator, offset, order of two
calls, call, string and table row, one at a time."""

import collections
import dataclasses
import itertools
import random
import re

import clang.cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TokenKind, TypeKind

# What the build defines for a source; nothing that it stands for is changed.
DEFINED = ['-DBONJOUR_VERSION=""', '-DBONJOUR_BUILD_TIME=""', '-DBONJOUR_STATUS_FILE=""']
_OPERATORS = {
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "%": ["/"],
    "<<": [">>"],
    ">>": ["<<"],
    "&": ["|"],
    "|": ["&"],
    "^": ["|"],
    "&&": ["||"],
    "||": ["&&"],
    "+=": ["-="],
    "-=": ["+="],
    "|=": ["&="],
    "&=": ["|="],
}
_COMPARISONS = {
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "==": ["!="],
    "!=": ["=="],
}
_UNARY = {"!": "", "~": "", "-": "", "++": "--", "--": "++"}
_INTEGRAL = {
    TypeKind.BOOL,
    TypeKind.CHAR_S,
    TypeKind.CHAR_U,
    TypeKind.SCHAR,
    TypeKind.UCHAR,
    TypeKind.SHORT,
    TypeKind.USHORT,
    TypeKind.INT,
    TypeKind.UINT,
    TypeKind.LONG,
    TypeKind.ULONG,
    TypeKind.LONGLONG,
    TypeKind.ULONGLONG,
}
_ACTIONS = (Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR)
_INTEGER = re.compile(rb"(0[xX])?([0-9a-fA-F]+)([uUlL]*)")
# A string's characters: an escape or a conversion of printf counts as one.
_CHARACTER = re.compile(r"\\x[0-9a-fA-F]+|\\[0-7]{1,3}|\\.|%[-+ #0-9.*]*[a-zA-Z%]|.")


@dataclasses.dataclass(frozen=True, order=True)
class Mutant:
    """The bytes from `start` to `end` of the file `path` become `replacement`."""

    path: str
    start: int
    end: int
    replacement: str
    kind: str
    line: int
    original: str  # the lines it is in, as they are, on one line
    mutated: str  # and as they become
    occurrence: int  # how many like it come before it in the file

    @property
    def id(self):
        """Stays the same when other lines change."""
        return f"{self.path} {self.occurrence}: {self.original} -> {self.mutated}"

    @property
    def change(self):
        return self.path, self.original, self.mutated

    def __str__(self):
        return f"{self.path}:{self.line}: {self.original}  ->  {self.mutated}"

    def apply(self, source):
        return source[: self.start] + self.replacement.encode() + source[self.end :]


def _one_line(source):
    return " ".join(source.decode().split())


class _Reader:
    """Collects the mutants of one file."""

    def __init__(self, root, path):
        self.path = path
        self.source = (root / path).read_bytes()
        self.found = {}
        language = "c++-header" if path.endswith(".h") else "c++"
        self.unit = clang.cindex.Index.create().parse(
            str(root / path), args=["-x", language, "-std=c++17", f"-I{root}", "-w", *DEFINED]
        )
        errors = [note for note in self.unit.diagnostics if note.severity >= note.Error]
        if errors:
            raise RuntimeError(f"{path} can't be read: {errors[0].spelling}")
        self.own = [
            cursor
            for cursor in self.unit.cursor.get_children()
            if cursor.location.file and cursor.location.file.name.endswith("/" + path)
        ]
        self.bounds = list(self.array_bounds())

    def walk(self):
        return itertools.chain.from_iterable(cursor.walk_preorder() for cursor in self.own)

    def text(self, start, end):
        return self.source[start:end].decode()

    @staticmethod
    def span(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def add(self, kind, start, end, replacement):
        if self.text(start, end) == replacement:
            return
        first = self.source.rfind(b"\n", 0, start) + 1
        last = self.source.find(b"\n", end)
        changed = self.source[first:start] + replacement.encode() + self.source[end:last]
        original = _one_line(self.source[first:last])
        mutated = _one_line(changed)
        line = self.source.count(b"\n", 0, start) + 1
        change = (start, end, replacement)
        self.found.setdefault(change, (kind, line, original, mutated))

    def read(self):
        for cursor in self.own:
            self.visit(cursor)
        self.read_tokens()
        like = collections.Counter()
        mutants = []
        for change, place in sorted(self.found.items()):
            mutants.append(Mutant(self.path, *change, *place, like[place[2:]]))
            like[place[2:]] += 1
        return mutants

    def array_bounds(self):
        """Where an array's size is given. What only makes it larger changes nothing, so there a
        mutant makes it smaller."""
        for cursor in self.walk():
            if cursor.kind in (Kind.VAR_DECL, Kind.FIELD_DECL):
                start, end = self.span(cursor)
                name = cursor.location.offset + len(cursor.spelling)
                match = re.match(rb"(\[[^\]{]+\])+", self.source[name:end])
                if cursor.type.kind == TypeKind.CONSTANTARRAY and match:
                    yield name, name + match.end()

    def is_bound(self, start):
        return any(first <= start < last for first, last in self.bounds)

    def visit(self, cursor):
        if cursor.kind == Kind.STATIC_ASSERT:
            return
        reader = getattr(self, f"read_{cursor.kind.name.lower()}", None)
        if reader is not None:
            reader(cursor)
        for child in cursor.get_children():
            self.visit(child)

    # Constants and strings. Tokens, not cursors: those of a macro's arguments are of no use.

    def read_tokens(self):
        asserted = [
            self.span(cursor)
            for cursor in self.walk()
            if cursor.kind == Kind.STATIC_ASSERT
        ]
        for token in self.unit.get_tokens(extent=self.unit.cursor.extent):
            start, end = token.extent.start.offset, token.extent.end.offset
            line = self.source[self.source.rfind(b"\n", 0, start) + 1 : start]
            if line.startswith(b"#") or any(a <= start < b for a, b in asserted):
                continue
            if token.spelling in ("true", "false"):
                self.add("constant", start, end, "false" if token.spelling == "true" else "true")
            elif token.kind != TokenKind.LITERAL:
                continue
            elif token.spelling.startswith("'"):
                self.read_character(start, end)
            elif token.spelling.startswith('"'):
                self.read_string(start, end)
            else:
                self.read_integer(start, end)

    def read_integer(self, start, end):
        literal = _INTEGER.fullmatch(self.source[start:end])
        prefix, digits, suffix = (group.decode() if group else "" for group in literal.groups())
        value = int(digits, 16 if prefix else 10)
        for changed in (value + 1, value - 1):
            if changed >= 0 and not (changed > value and self.is_bound(start)):
                number = f"{prefix}{changed:0{len(digits)}X}" if prefix else str(changed)
                self.add("constant", start, end, number + suffix)

    def read_character(self, start, end):
        inside = self.text(start, end)[1:-1]
        changed = "x" if inside.startswith("\\") else chr(ord(inside) + 1)
        self.add("constant", start, end, f"'{changed}'")

    def read_string(self, start, end):
        characters = _CHARACTER.findall(self.text(start, end)[1:-1])
        if not characters:
            self.add("string", start, end, '"x"')
            return
        self.add("string", start, end, '"' + "".join(characters[:-1]) + '"')
        plain = [i for i, character in enumerate(characters) if len(character) == 1]
        if plain:
            chosen = random.Random(f"{self.path} {self.text(start, end)}").choice(plain)
            characters[chosen] = "x" if characters[chosen] != "x" else "y"
            self.add("string", start, end, '"' + "".join(characters) + '"')

    def read_decl_ref_expr(self, cursor):
        """A named number at the place of its use."""
        constant = cursor.referenced
        if (
            constant is None
            or constant.kind != Kind.VAR_DECL
            or constant.semantic_parent.kind not in (Kind.TRANSLATION_UNIT, Kind.NAMESPACE)
            or not constant.type.is_const_qualified()
            or constant.type.get_canonical().kind not in _INTEGRAL
        ):
            return
        start, end = self.span(cursor)
        if self.text(start, end) == cursor.spelling:
            sign = "-" if self.is_bound(start) else "+"
            self.add("offset", start, end, f"({cursor.spelling} {sign} 1)")

    # Operators

    def operator_between(self, left, right):
        """The token between two operands: its text, start and end."""
        start, end = left.extent.end.offset, right.extent.start.offset
        match = re.fullmatch(rb"[\s()]*?([-+*/%<>&|^=!]+)[\s()]*", self.source[start:end])
        if match is None:
            return None, 0, 0
        return match[1].decode(), start + match.start(1), start + match.end(1)

    def read_binary_operator(self, cursor):
        operands = sorted(cursor.get_children(), key=lambda child: child.extent.start.offset)
        if len(operands) < 2:
            return
        operator, start, end = self.operator_between(operands[0], operands[-1])
        for kind, table in (("operator", _OPERATORS), ("comparison", _COMPARISONS)):
            for other in table.get(operator, []):
                if operator != "-" or not self.is_bound(start):
                    self.add(kind, start, end, other)

    read_compound_assignment_operator = read_binary_operator

    def read_call_expr(self, cursor):
        if re.fullmatch(r"operator[^\w\[(]+", cursor.spelling):
            self.read_binary_operator(cursor)

    def read_unary_operator(self, cursor):
        start, end = self.span(cursor)
        for operator, other in _UNARY.items():
            if self.text(start, end).startswith(operator):
                self.add("operator", start, start + len(operator), other)
                return
            if len(operator) == 2 and self.text(start, end).endswith(operator):
                self.add("operator", end - len(operator), end, other)
                return

    def swap(self, kind, first, second):
        start, first_end = self.span(first)
        second_start, end = self.span(second)
        if first_end > second_start or first_end == start or end == second_start:
            return
        between = self.text(first_end, second_start)
        swapped = self.text(second_start, end) + between + self.text(start, first_end)
        self.add(kind, start, end, swapped)

    def read_conditional_operator(self, cursor):
        _, first, second = cursor.get_children()
        self.swap("operator", first, second)

    # Conditions and jumps

    def negate(self, condition):
        """Unless a comparison's operator or the `!` before it does that already."""
        start, end = self.span(condition)
        if not condition.kind.is_expression() or self.text(start, end).startswith("!"):
            return
        operands = sorted(condition.get_children(), key=lambda child: child.extent.start.offset)
        if len(operands) > 1:
            operator, _, _ = self.operator_between(operands[0], operands[-1])
            if operator in _COMPARISONS:
                return
        self.add("comparison", start, end, f"!({self.text(start, end)})")

    def read_if_stmt(self, cursor):
        children = list(cursor.get_children())
        self.negate(children[0])
        for body in children[1:]:
            self.read_single(body)

    def read_while_stmt(self, cursor):
        condition, body = cursor.get_children()
        self.negate(condition)
        self.read_single(body)

    def read_for_stmt(self, cursor):
        self.read_single(list(cursor.get_children())[-1])

    read_cxx_for_range_stmt = read_for_stmt

    def read_do_stmt(self, cursor):
        self.negate(list(cursor.get_children())[-1])

    def read_continue_stmt(self, cursor):
        self.add("operator", *self.span(cursor), "break")

    def read_break_stmt(self, cursor):
        self.add("operator", *self.span(cursor), "continue")

    # Calls and assignments, and their order

    @staticmethod
    def action(statement):
        """The kind of its expression, if it is a call or an assignment, else None."""
        while statement.kind == Kind.UNEXPOSED_EXPR:
            children = list(statement.get_children())
            if not children:
                return None
            statement = children[0]
        return statement.kind if statement.kind in _ACTIONS else None

    def read_single(self, statement):
        if self.action(statement):
            self.add("call", *self.span(statement), "")

    def read_compound_stmt(self, cursor):
        statements = list(cursor.get_children())
        for statement in statements:
            self.read_single(statement)
        for first, second in zip(statements, statements[1:]):
            actions = (self.action(first), self.action(second))
            if all(actions) and Kind.CALL_EXPR in actions:
                self.swap("order", first, second)

    # Tables

    def read_init_list_expr(self, cursor):
        rows = list(cursor.get_children())
        for first, second in zip(rows, rows[1:]):
            self.swap("row", first, second)
        if len(rows) > 1:
            for row, after in zip(rows, rows[1:]):
                self.add("row", self.span(row)[0], self.span(after)[0], "")
            self.add("row", self.span(rows[-2])[1], self.span(rows[-1])[1], "")


def mutants_of(root, path):
    """The mutants of `path` below `root`, in the order of the file."""
    return _Reader(root, path).read()
