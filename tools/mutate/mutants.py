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
_PAIRS = ("+ -", "* /", "<< >>", "& |", "&& ||", "+= -=", "|= &=", "== !=")
_OPERATORS = {
    "%": ["/"],
    "^": ["|"],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
}
for _one, _other in map(str.split, _PAIRS):
    _OPERATORS |= {_one: [_other], _other: [_one]}
_COMPARISONS = ("<", "<=", ">", ">=", "==", "!=")
_UNARY = {"!": "", "~": "", "-": "", "++": "--", "--": "++"}
_ACTIONS = (Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR)
_INTEGRAL = re.compile(r"const (bool|(un)?signed \w+|char|short|int|(un)?(signed )?long( long)?)")
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
        """What survivors.toml knows it by: its lines, or what it leaves out."""
        return self.path, self.mutated if self.mutated != ";" else f"{self.original}  ->  ;"

    def __str__(self):
        return f"{self.path}:{self.line}: {self.original}  ->  {self.mutated}"

    def apply(self, source):
        return source[: self.start] + self.replacement.encode() + source[self.end :]


def _one_line(source):
    return " ".join(source.decode().split())


def _span(cursor):
    return cursor.extent.start.offset, cursor.extent.end.offset


def _is_within(offset, spans):
    return any(first <= offset < last for first, last in spans)


class _Reader:
    """Collects the mutants of one file."""

    def __init__(self, root, path):
        self.path = path
        self.source = (root / path).read_bytes()
        self.found = set()
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
        within = list(itertools.chain.from_iterable(each.walk_preorder() for each in self.own))
        self.asserted = [_span(each) for each in within if each.kind == Kind.STATIC_ASSERT]
        # Where an array's size is given. What only makes it larger changes nothing, so there a
        # mutant makes it smaller.
        self.bounds = [bound for each in within for bound in self.array_bounds(each)]

    def array_bounds(self, cursor):
        if cursor.kind in (Kind.VAR_DECL, Kind.FIELD_DECL):
            start, end = _span(cursor)
            name = cursor.location.offset + len(cursor.spelling)
            match = re.match(rb"(\[[^\]{]+\])+", self.source[name:end])
            if cursor.type.kind == TypeKind.CONSTANTARRAY and match:
                yield name, name + match.end()

    def text(self, start, end):
        return self.source[start:end].decode()

    def add(self, start, end, replacement):
        if self.text(start, end) != replacement:
            self.found.add((start, end, replacement))

    def read(self):
        for cursor in self.own:
            self.visit(cursor)
        self.read_tokens()
        like = collections.Counter()
        for start, end, replacement in sorted(self.found):
            first = self.source.rfind(b"\n", 0, start) + 1
            last = self.source.find(b"\n", end)
            changed = self.source[first:start] + replacement.encode() + self.source[end:last]
            lines = (_one_line(self.source[first:last]), _one_line(changed))
            number = self.source.count(b"\n", 0, start) + 1
            yield Mutant(self.path, start, end, replacement, number, *lines, like[lines])
            like[lines] += 1

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
        for token in self.unit.get_tokens(extent=self.unit.cursor.extent):
            start, end = _span(token)
            line = self.source[self.source.rfind(b"\n", 0, start) + 1 : start]
            if line.startswith(b"#") or _is_within(start, self.asserted):
                continue
            if token.spelling in ("true", "false"):
                self.add(start, end, "false" if token.spelling == "true" else "true")
            elif token.kind != TokenKind.LITERAL:
                continue
            elif token.spelling.startswith("'"):
                inside = token.spelling[1:-1]
                changed = "x" if inside.startswith("\\") else chr(ord(inside) + 1)
                self.add(start, end, f"'{changed}'")
            elif token.spelling.startswith('"'):
                self.read_string(start, end)
            else:
                self.read_integer(start, end)

    def read_integer(self, start, end):
        literal = _INTEGER.fullmatch(self.source[start:end])
        prefix, digits, suffix = (group.decode() if group else "" for group in literal.groups())
        value = int(digits, 16 if prefix else 10)
        for changed in (value + 1, value - 1):
            if changed >= 0 and not (changed > value and _is_within(start, self.bounds)):
                number = f"{prefix}{changed:0{len(digits)}X}" if prefix else str(changed)
                self.add(start, end, number + suffix)

    def read_string(self, start, end):
        characters = _CHARACTER.findall(self.text(start, end)[1:-1])
        if not characters:
            self.add(start, end, '"x"')
            return
        self.add(start, end, '"' + "".join(characters[:-1]) + '"')
        plain = [i for i, character in enumerate(characters) if len(character) == 1]
        if plain:
            chosen = random.Random(f"{self.path} {self.text(start, end)}").choice(plain)
            characters[chosen] = "x" if characters[chosen] != "x" else "y"
            self.add(start, end, '"' + "".join(characters) + '"')

    def read_decl_ref_expr(self, cursor):
        """A named number at the place of its use."""
        constant = cursor.referenced
        if (
            constant is not None
            and constant.kind == Kind.VAR_DECL
            and constant.semantic_parent.kind in (Kind.TRANSLATION_UNIT, Kind.NAMESPACE)
            and _INTEGRAL.fullmatch(constant.type.get_canonical().spelling)
            and self.text(*_span(cursor)) == cursor.spelling
        ):
            start, end = _span(cursor)
            sign = "-" if _is_within(start, self.bounds) else "+"
            self.add(start, end, f"({cursor.spelling} {sign} 1)")

    # Operators

    def operator_of(self, cursor):
        """The token between two operands, if there are two: its text, start and end."""
        operands = sorted(cursor.get_children(), key=lambda child: child.extent.start.offset)
        if len(operands) < 2:
            return None, 0, 0
        start, end = operands[0].extent.end.offset, operands[-1].extent.start.offset
        match = re.fullmatch(rb"[\s()]*?([-+*/%<>&|^=!]+)[\s()]*", self.source[start:end])
        if match is None:
            return None, 0, 0
        return match[1].decode(), start + match.start(1), start + match.end(1)

    def read_binary_operator(self, cursor):
        operator, start, end = self.operator_of(cursor)
        for other in _OPERATORS.get(operator, []):
            if operator != "-" or not _is_within(start, self.bounds):
                self.add(start, end, other)

    read_compound_assignment_operator = read_binary_operator

    def read_call_expr(self, cursor):
        if re.fullmatch(r"operator[^\w\[(]+", cursor.spelling):
            self.read_binary_operator(cursor)

    def read_unary_operator(self, cursor):
        start, end = _span(cursor)
        for operator, other in _UNARY.items():
            if self.text(start, end).startswith(operator):
                self.add(start, start + len(operator), other)
                return
            if len(operator) == 2 and self.text(start, end).endswith(operator):
                self.add(end - len(operator), end, other)
                return

    def swap(self, first, second):
        start, first_end = _span(first)
        second_start, end = _span(second)
        if first_end > second_start or first_end == start or end == second_start:
            return
        between = self.text(first_end, second_start)
        self.add(start, end, self.text(second_start, end) + between + self.text(start, first_end))

    def read_conditional_operator(self, cursor):
        self.swap(*list(cursor.get_children())[1:])

    # Conditions and jumps

    def negate(self, condition):
        """Unless a comparison's operator or the `!` before it does that already."""
        start, end = _span(condition)
        if (
            condition.kind.is_expression()
            and not self.text(start, end).startswith("!")
            and self.operator_of(condition)[0] not in _COMPARISONS
        ):
            self.add(start, end, f"!({self.text(start, end)})")

    def read_if_stmt(self, cursor):
        condition, *bodies = cursor.get_children()
        self.negate(condition)
        for body in bodies:
            self.read_single(body)

    read_while_stmt = read_if_stmt

    def read_for_stmt(self, cursor):
        self.read_single(list(cursor.get_children())[-1])

    read_cxx_for_range_stmt = read_for_stmt

    def read_do_stmt(self, cursor):
        self.negate(list(cursor.get_children())[-1])

    def read_continue_stmt(self, cursor):
        self.add(*_span(cursor), "break")

    def read_break_stmt(self, cursor):
        self.add(*_span(cursor), "continue")

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
            self.add(*_span(statement), "")

    def read_compound_stmt(self, cursor):
        statements = list(cursor.get_children())
        for statement in statements:
            self.read_single(statement)
        for first, second in zip(statements, statements[1:]):
            actions = (self.action(first), self.action(second))
            if all(actions) and Kind.CALL_EXPR in actions:
                self.swap(first, second)

    # Tables

    def read_init_list_expr(self, cursor):
        rows = list(cursor.get_children())
        for first, second in zip(rows, rows[1:]):
            self.swap(first, second)
        if len(rows) > 1:
            for row, after in zip(rows, rows[1:]):
                self.add(_span(row)[0], _span(after)[0], "")
            self.add(_span(rows[-2])[1], _span(rows[-1])[1], "")


def mutants_of(root, path):
    """The mutants of `path` below `root`, in the order of the file."""
    return list(_Reader(root, path).read())
