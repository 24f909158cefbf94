"""Finds the places of the code that can be changed, and plants many changes at once.

Each change, a mutant, is planted so that it has an effect only when it is selected (mutant.inc);
one build then serves all of them. Looks at the bodies of functions, with libclang:

    flip      a comparison, the condition of an `if`, `while`, `for` or `?:`, an operand of && and ||
    edge      < to <=, > to >=, and back
    drop      a statement that is an expression; `return;`, `continue;`, `break;`
    swap      two such statements that stand next to each other
    constant  a number, text, character, truth value or enumerator, to another

What the compiler evaluates, such as the constexpr tables, is not changed.
"""

import re
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind as Kind

JUMPS = {Kind.RETURN_STMT, Kind.CONTINUE_STMT, Kind.BREAK_STMT}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.FUNCTION_TEMPLATE, Kind.CONVERSION_FUNCTION}
FLIPPED_EDGE = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISON = re.compile(r"^\s*(==|!=|<=|>=|<|>)\s*$")
LOGICAL = re.compile(r"^\s*(&&|\|\|)\s*$")
# A raw text, a text, a character, a comment, a bracket or semicolon. Not the mark in 1'000.
TOKEN = re.compile(r"""R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | "(?:[^"\\\n]|\\.)*"
                       | (?<![0-9a-fA-F])'(?:[^'\\\n]|\\.)+' | //[^\n]* | /\*.*?\*/ | [()\[\]{};]""",
                   re.S | re.X)


@dataclass(eq=False)
class Mutant:
    file: str
    line: int
    function: str
    operator: str
    text: str  # what is changed, on one line
    number: int = 0
    twin: int = 0  # counts those of which all the above but the line is equal

    def key(self) -> str:
        """Names the mutant, also after lines have moved."""
        twin = f" #{self.twin}" if self.twin else ""
        return f"{self.file} {self.function} {self.operator}{twin}: {self.text}"


@dataclass
class Edit:
    """A range of a file in which mutants are planted; `render` is given its text, with the inner
    edits applied."""
    begin: int
    end: int
    render: object
    mutants: list[Mutant]
    inner: list["Edit"] = field(default_factory=list)


def one_line(text: str) -> str:
    """A text on one line; of a long one the beginning and the end."""
    text = " ".join(text.split())
    return text if len(text) <= 90 else text[:60] + " ... " + text[-25:]


class File:
    """The mutants of one source file."""

    def __init__(self, path: Path, name: str) -> None:
        self.name = name
        # libclang counts bytes, so each byte is one character here.
        self.source = path.read_bytes().decode("latin-1")
        self.edits: list[Edit] = []
        self.places: set[tuple[int, int, str]] = set()
        self.chosen: set[int] = set()  # what planted() plants

    # Places

    def text(self, begin: int, end: int) -> str:
        return self.source[begin:end]

    def mutant(self, begin: int, end: int, function: str, operator: str) -> Mutant:
        line = self.source.count("\n", 0, begin) + 1
        return Mutant(self.name, line, function, operator, one_line(self.text(begin, end)))

    def add(self, begin: int, end: int, function: str, operator: str, render: object) -> None:
        """Plants one mutant; `render(number, inner)` gives the new text of the extent."""
        if (begin, end, operator) in self.places:
            return
        self.places.add((begin, end, operator))
        mutant = self.mutant(begin, end, function, operator)
        self.edits.append(Edit(begin, end, lambda inner: render(mutant.number, inner), [mutant]))

    def flip(self, begin: int, end: int, function: str) -> None:
        self.add(begin, end, function, "flip",
                 lambda n, inner: f"(mutation::on({n}) != static_cast<bool>({inner}))")

    def closing(self, opening: int) -> int:
        """Where the bracket closes that opens at an offset."""
        pairs = {"(": ")", "[": "]", "{": "}"}
        depth: list[str] = []
        for at, char in self.brackets(opening, len(self.source)):
            if char in pairs:
                depth.append(pairs[char])
            elif depth and char == depth[-1]:
                depth.pop()
                if not depth:
                    return at
        raise ValueError(f"{self.name}: nothing closes what opens at {opening}")

    def brackets(self, begin: int, end: int) -> Iterator[tuple[int, str]]:
        """The brackets and semicolons of a range, without those in texts and comments."""
        for found in TOKEN.finditer(self.source, begin, end):
            if found[0] in "()[]{};":
                yield found.start(), found[0]

    def condition(self, keyword: int, function: str, declared: str | None) -> None:
        """Flips the condition in the brackets after a keyword; `declared` is what it declares."""
        opening = self.source.index("(", keyword)
        if "constexpr" in self.text(keyword, opening):
            return
        closing = self.closing(opening)
        parts = [opening + 1]
        depth = 0
        for at, char in self.brackets(opening + 1, closing):
            depth += {"(": 1, "{": 1, "[": 1, ")": -1, "}": -1, "]": -1}.get(char, 0)
            if char == ";" and depth == 0:
                parts.append(at + 1)
        is_for = self.text(keyword, opening).strip() == "for"
        if is_for and len(parts) < 3:
            return  # over a range
        if is_for:
            self.flip(parts[1], parts[2] - 1, function)
        elif declared is not None and len(parts) == 1:
            self.add(parts[0], closing, function, "flip",
                     lambda n, inner:
                     f"{inner}; mutation::on({n}) != static_cast<bool>({declared})")
        else:
            self.flip(parts[-1], closing, function)

    def statements(self, runs: list[list[tuple[int, int]]], function: str) -> None:
        """Drops each statement, and swaps neighbours; a run is of statements side by side."""
        for run in runs:
            for begin, end in run:
                self.add(begin, end, function, "drop",
                         lambda n, inner: f"{{ if (!mutation::on({n})) {{ {inner} }} }}")
            if len(run) > 1:
                self.swaps(run, function)

    def swaps(self, run: list[tuple[int, int]], function: str) -> None:
        begin, end = run[0][0], run[-1][1]
        mutants = []
        for (first, _), (_, last) in zip(run, run[1:]):
            mutants.append(self.mutant(first, last, function, "swap"))

        def render(inner: str) -> str:
            text = ""
            for at, mutant in enumerate(mutants):
                if mutant.number not in self.chosen:
                    continue
                order = list(run)
                order[at], order[at + 1] = order[at + 1], order[at]
                swapped = " ".join(self.text(*extent) for extent in order)
                text += f"if (mutation::on({mutant.number})) {{ {swapped} }} else "
            return f"{{ {text}{{ {inner} }} }}"

        self.edits.append(Edit(begin, end, render, mutants))

    # Planting

    def planted(self, chosen: set[int]) -> bytes:
        """The source with the mutants of these numbers in it."""
        self.chosen = chosen
        root = Edit(0, len(self.source), lambda inner: inner, [])
        open_edits = [root]
        for edit in self.edits:
            edit.inner = []
        edits = [e for e in self.edits if any(m.number in chosen for m in e.mutants)]
        # Of two edits of one range the later found lies inside.
        for edit in sorted(edits, key=lambda e: (e.begin, -e.end)):
            while edit.begin >= open_edits[-1].end:
                open_edits.pop()
            if edit.end > open_edits[-1].end:
                raise ValueError(
                    f"{self.name}: ranges that cross: {self.text(edit.begin, edit.end)}")
            open_edits[-1].inner.append(edit)
            open_edits.append(edit)
        return self.render(root).encode("latin-1")

    def render(self, edit: Edit) -> str:
        text = ""
        at = edit.begin
        for inner in edit.inner:
            text += self.text(at, inner.begin) + self.render(inner)
            at = inner.end
        return edit.render(text + self.text(at, edit.end))


class Finder:
    """Walks what libclang makes of a file, and of the headers under the same folder."""

    def __init__(self, root: Path, folder: str, flags: list[str]) -> None:
        self.root = root.resolve()
        self.folder = self.root / folder
        self.flags = flags
        self.files: dict[str, File] = {}
        self.macros: dict[str, list[tuple[int, int]]] = {}

    def parse(self, path: Path) -> None:
        unit = cindex.Index.create().parse(
            str(path), self.flags, options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise ValueError(f"{path}: {errors[0]}")
        done = set(self.files)
        for cursor in unit.cursor.get_children():
            where = cursor.location.file
            if where is None or not Path(where.name).is_relative_to(self.folder):
                continue
            name = str(Path(where.name).relative_to(self.root))
            if name in done:
                continue
            if name not in self.files:
                self.files[name] = File(Path(where.name), name)
                self.macros[name] = []
            if cursor.kind == Kind.MACRO_INSTANTIATION:
                where = cursor.extent
                self.macros[name].append((where.start.offset, where.end.offset))
            elif not cursor.kind.is_preprocessing():
                self.walk(self.files[name], cursor, "")

    def walk(self, file: File, cursor: cindex.Cursor, function: str) -> None:
        """Looks at a cursor and what is in it; `function` is empty outside of bodies."""
        if cursor.kind in (Kind.VAR_DECL, Kind.FIELD_DECL) and self.is_constant(file, cursor):
            return
        if cursor.kind in FUNCTIONS:
            owner = cursor.semantic_parent.spelling
            name = f"{owner}::{cursor.spelling}" if owner else cursor.spelling
            for child in cursor.get_children():
                if child.kind == Kind.COMPOUND_STMT:
                    self.walk(file, child, re.sub(r"<.*>", "", name))
            return
        if function:
            if self.in_macro(file, cursor):
                return
            self.look(file, cursor, function)
        for child in cursor.get_children():
            if child.kind not in (Kind.TYPE_REF, Kind.TEMPLATE_REF):
                self.walk(file, child, function)

    def is_constant(self, file: File, cursor: cindex.Cursor) -> bool:
        begin, end = span(cursor)
        return "constexpr" in file.text(begin, end).split("=")[0]

    def in_macro(self, file: File, cursor: cindex.Cursor) -> bool:
        begin = span(cursor)[0]
        return any(first <= begin < last for first, last in self.macros[file.name])

    def look(self, file: File, cursor: cindex.Cursor, function: str) -> None:
        begin, end = span(cursor)
        children = list(cursor.get_children())
        if cursor.kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.FOR_STMT):
            file.condition(begin, function, self.declared(children))
            for child in children[-1:] if cursor.kind == Kind.FOR_STMT else children[1:]:
                self.run_of_one(file, child, function)
        elif cursor.kind == Kind.CXX_FOR_RANGE_STMT:
            self.run_of_one(file, children[-1], function)
        elif cursor.kind == Kind.COMPOUND_STMT:
            file.statements(self.runs(file, children), function)
        elif cursor.kind == Kind.CONDITIONAL_OPERATOR:
            file.flip(*span(children[0]), function)
        elif cursor.kind == Kind.BINARY_OPERATOR and len(children) == 2:
            self.operator(file, begin, end, span(children[0]), span(children[1]), function)
        elif cursor.kind in (Kind.INTEGER_LITERAL, Kind.STRING_LITERAL, Kind.CHARACTER_LITERAL,
                             Kind.CXX_BOOL_LITERAL_EXPR, Kind.DECL_REF_EXPR):
            self.constant(file, cursor, begin, end, function)

    @staticmethod
    def declared(children: list[cindex.Cursor]) -> str | None:
        """The variable that a condition declares."""
        for child in children[:2]:
            if child.kind == Kind.VAR_DECL:
                return child.spelling
            if child.kind == Kind.DECL_STMT:
                return next(iter(child.get_children())).spelling
        return None

    def operator(self, file: File, begin: int, end: int, left: tuple[int, int],
                 right: tuple[int, int], function: str) -> None:
        between = file.text(left[1], right[0])
        if LOGICAL.match(between):
            file.flip(*left, function)
            file.flip(*right, function)
        elif compares := COMPARISON.match(between):
            file.flip(begin, end, function)
            edge = FLIPPED_EDGE.get(compares.group(1))
            if edge:
                other = f"({file.text(*left)}) {edge} ({file.text(*right)})"
                file.add(begin, end, function, "edge",
                         lambda n, inner: f"(mutation::on({n}) ? ({other}) : ({inner}))")

    def constant(self, file: File, cursor: cindex.Cursor, begin: int, end: int,
                 function: str) -> None:
        text = file.text(begin, end)
        if cursor.kind == Kind.INTEGER_LITERAL and text.isdigit():
            other = str(int(text) + 1)
        elif cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR:
            other = "false" if text == "true" else "true"
        elif cursor.kind == Kind.STRING_LITERAL:
            other = '"mutant"'
        elif cursor.kind == Kind.CHARACTER_LITERAL:
            other = "'~'"
        elif cursor.referenced is not None and \
                cursor.referenced.kind == Kind.ENUM_CONSTANT_DECL:
            values = [c.spelling for c in cursor.referenced.semantic_parent.get_children()]
            value = values[(values.index(cursor.spelling) + 1) % len(values)]
            other = text[:len(text) - len(cursor.spelling)] + value
        elif text.endswith("::kNever"):
            other = "0.0"
        else:
            return
        file.add(begin, end, function, "constant",
                 lambda n, inner: f"(mutation::on({n}) ? {other} : {inner})")

    def extent(self, file: File, cursor: cindex.Cursor) -> tuple[int, int] | None:
        """A statement that can be dropped, with its semicolon."""
        begin, end = span(cursor)
        for first, last in self.macros[file.name]:
            if first <= begin < last:
                return first, file.source.index(";", last) + 1
        if cursor.kind in JUMPS:
            if cursor.kind == Kind.RETURN_STMT and list(cursor.get_children()):
                return None
        elif not cursor.kind.is_expression():
            return None
        return begin, file.source.index(";", end) + 1

    def run_of_one(self, file: File, cursor: cindex.Cursor, function: str) -> None:
        """A statement that is the body of another, without braces."""
        if cursor.kind.is_expression() and file.source[span(cursor)[1]] != ";":
            return  # the condition
        if extent := self.extent(file, cursor):
            file.statements([[extent]], function)

    def runs(self, file: File, statements: list[cindex.Cursor]) -> list[list[tuple[int, int]]]:
        runs: list[list[tuple[int, int]]] = [[]]
        for statement in statements:
            extent = self.extent(file, statement)
            if extent is None:
                runs.append([])
            elif statement.kind in JUMPS:
                runs += [[extent], []]
            else:
                runs[-1].append(extent)
        return [run for run in runs if run]


def span(cursor: cindex.Cursor) -> tuple[int, int]:
    return cursor.extent.start.offset, cursor.extent.end.offset


def find(root: Path, folders: list[str], flags: list[str]) -> tuple[list[File], list[Mutant]]:
    """All mutants of some folders, numbered from 1 in the order of folders, files and lines."""
    files: list[File] = []
    for folder in folders:
        finder = Finder(root, folder, flags)
        for path in sorted((root / folder).rglob("*.cpp")):
            finder.parse(path)
        files += [finder.files[name] for name in sorted(finder.files)]
    mutants = [mutant for file in files for edit in sorted(file.edits, key=lambda e: e.begin)
               for mutant in edit.mutants]
    twins: dict[str, int] = {}
    for number, mutant in enumerate(mutants, 1):
        mutant.number = number
        key = mutant.key()
        mutant.twin = twins.get(key, 0)
        twins[key] = mutant.twin + 1
    return files, mutants
