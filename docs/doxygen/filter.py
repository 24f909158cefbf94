#!/usr/bin/env python3
"""Doxygen's input filter: lets it read the comments of this code base, which are plain ones.

    filter.py HEADER        prints the header as Doxygen is to see it

A comment right above a declaration becomes the declaration's documentation, a remark behind one as
well, and the comment that opens the file becomes the file's. What the code base says once is said
for each declaration that it stands for:

- the comment of an attribute's getter stands for its mutators, and that of one overload for the
  others, up to the next comment or empty line;
- a one-line heading in a class ("Lookup", "Constructor arguments") opens a group of members, up to
  the next empty line;
- the comment that opens the file is that of its first class too, where that has none;
- what is alike in every class (a NotifieeConst, its notifications, kTypeName, the overrides of a
  reactor, the arguments, factory and constructor of a machine, deleted copies) is described here,
  by its shape.

Lines keep their numbers, so that warnings point into the header. Indented lines in a comment are
code, or a list where they begin with "- ".
"""

import re
import sys
from pathlib import Path

ACCESS = re.compile(r"^\s*(public|protected|private):$")
HEADING = re.compile(r"^([A-Z][a-z]+( [a-z]+){0,2})(; [^.]*)?$")
CLASS = re.compile(r"^(template\b.*> )?(class|struct) ([\w:<>, ]+?)( final)?( :.*)?$", re.S)
NOTIFICATION = re.compile(r"virtual void on(\w+?)(kivImmediate)?\((.*)\)")
OVERRIDE = re.compile(r"(\w+)\([^)]*\)( const)? (override|final)\b")
CONSTANTS = re.compile(r"^ *static constexpr \w+ (\w+ = \w+, )+\w+ = \w+;$")
FORWARDS = re.compile(r"machine\(\)->(\w+)\(")

# Names that mean the same in every class, as in the standard library.
CONVENTIONAL = {
    "begin": "An iterator at the first member.",
    "end": "Where every iteration ends.",
    "size": "How many there are.",
    "empty": "Whether there is none.",
    "contains": "Whether there is a member with this key.",
    "hash": "The hash of its value.",
    "iterator": "The iterator over its members.",
    "const_iterator": "The iterator over its members, for readers.",
    "element_type": "What it points to.",
    "value_type": "What the iterator stands at.",
    "difference_type": "A distance; part of what makes it an iterator.",
    "operator*": "What it points to. REQUIRES: not null, not at the end.",
    "operator->": "What it points to. REQUIRES: not null, not at the end.",
    "operator++": "Goes on to the next.",
    "operator==": "Whether the two are equal.",
    "operator<": "Whether the first comes before the second.",
    "operator<<": "Prints it.",
    "operator bool": "Whether it points to anything.",
    "operator new": "Memory from kivMemAlloc().",
    "operator delete": "Gives the memory back.",
    "operator+": "The text of the first followed by that of the second.",
    "doCleanup": "Withdraws what was published for its member.",
    "handleCleanup": "Withdraws what was published for its member.",
    "genericIf": "The description of its class for tools; null where there is none.",
    "reflection": "The description of the class for tools.",
    "typeName": "The name of the type.",
    "kForm": "How tools take the value.",
    "text": "The value as text.",
    "parse": "The value that a text stands for.",
    "kAttributes": "The table of its attributes.",
    "Key": "The class of the keys.",
    "Value": "The class of the members.",
    "Entity": "The class of the entity that it stands for.",
    "Machine": "The class of its machine.",
    "Notifier": "The class of the entity that it observes.",
    "Notifiee": "The class of observer that it is.",
    "kTeardownRunsCleanup": "Whether its end runs the cleanup of its own reactors.",
    "operator=": "Lets go of what it holds and takes what the other holds.",
}


def escape(text: str) -> str:
    """Text as Doxygen reads it literally; what stands in backticks stays as it is."""
    parts = text.split("`")
    parts[::2] = [re.sub(r"([\\@<>#&])", r"\\\1", part) for part in parts[::2]]
    return "`".join(parts)


def formatted(comment: list[str]) -> list[str]:
    """The lines of a comment, its indented parts as code blocks or lists. As many lines."""
    lines: list[str] = []
    kind = ""
    for line in comment:
        indented = line.startswith("  ")
        if not indented:
            if kind == "code" and line:
                kind = ""
                lines[-1] += " @endcode"
            elif line:
                kind = ""
        elif not kind:
            kind = "list" if line.lstrip().startswith("- ") else "code"
            if kind == "code":
                lines.append(("@code{.cpp} " if lines else "") + line)
                continue
        lines.append(line if kind == "code" else escape(line))
    if kind == "code":
        lines[-1] += " @endcode"
    return lines


def in_one_line(comment: list[str]) -> str:
    """The prose of a comment as one line, for a declaration that shares it."""
    return escape(" ".join(line for line in comment if not line.startswith("  ")))


def words(name: str) -> str:
    """An attribute's name from that of its notifications: "SyncStatus" -> "syncStatus"."""
    return name[0].lower() + name[1:]


def name_of(declaration: str) -> str:
    """The name that a declaration declares; empty where it is none of the simple forms."""
    declaration = re.sub(r"^template ?<[^<>]*(<[^<>]*>[^<>]*)*> ", "", declaration)
    if found := re.match(r"[^(]*?(\w+) = ", declaration):
        return found.group(1)
    if found := re.search(r"(\boperator\W{1,2}|\boperator \w+|~?\b\w+)\s*\(", declaration):
        return found.group(1)
    found = re.search(r"(\w+)(\[\])?( =.*|\{.*|;)", declaration)
    return found.group(1) if found else ""


def stem(name: str) -> str:
    """The attribute that a getter or mutator belongs to."""
    return re.sub(r"(Is|Del|DelAll)$", "", name)


def shared(declaration: str, first: str, comment: list[str]) -> str:
    """The documentation that a declaration has from the comment of `first` above it; else empty."""
    name, attribute = name_of(declaration), name_of(first)
    if declaration.endswith("= delete;"):
        return ""
    if name == "fwkKey":
        return f"The key: {attribute}()."
    if name == attribute or (declaration.startswith("using") and first.startswith("using")):
        return in_one_line(comment)
    passed_on = ("hasNotificationActiveIs", "kivDoZombieReactors", "machineDel", "synchronise")
    if name in passed_on and attribute == "machineIs":
        return in_one_line(comment)
    if name == f"kiv_handle{attribute[:1].upper()}{attribute[1:]}":
        return f"Runs the cleanup of one member of {attribute}()."
    if name == f"{attribute}Notify":
        return f"What a change of {attribute}() calls; does nothing."
    if stem(name) == stem(attribute):
        verb = "Takes out of" if name.endswith("Del") else \
            "Empties" if name.endswith("DelAll") else "Writes"
        text = in_one_line(comment)
        return f"{verb} {attribute}(): {text[0].lower()}{text[1:]}"
    return ""


def constructor_argument(declaration: str) -> str:
    """What a field of a machine's `Arguments` is, by its type."""
    name = name_of(declaration)
    if "ReactorSlot<" in declaration:
        return f"The reactor on the {name}; none for a null one, which is not observed."
    if "ValidPtr<" in declaration:
        return f"The {name}; held, never null."
    if "Ptr<" in declaration:
        return f"The {name}; held, null for none."
    return f"The {name}."


def described(declaration: str, scope: str, text: str, group: str = "") -> str:
    """What a declaration without a comment is, by its shape; empty where its author must say."""
    if declaration.endswith("= delete;"):
        return "Not copied."
    if re.match(r"class NotifieeConst\b", declaration):
        return "Its notifications, for an observer to override; each does nothing by itself."
    if notification := NOTIFICATION.match(declaration):
        name, immediate, key = notification.groups()
        attribute = f"`{words(name)}`"
        if immediate:
            return f"{attribute} has changed: called at once, inside the mutator."
        if key:
            return f"The member of {attribute} with this key came, changed or went; from the loop."
        if f"on{name}kivImmediate" in text:
            return f"{attribute} has changed; from the loop, once for all changes that wait."
        return f"{attribute} was written; from the loop."
    if re.match(r"static constexpr std::string_view \w+TypeName", declaration):
        return "The name of the class, as tools report it."
    if re.match(r"(virtual )?~", declaration):
        return "Lets go of what it holds."
    if override := OVERRIDE.search(declaration):
        if override.group(1) == "fwkType":
            return "The record of the object's class."
        if override.group(1).startswith("on"):
            forwards = FORWARDS.findall(declaration)
            handlers = ", then ".join(f"{name}()" for name in forwards)
            return f"Runs the machine's {handlers}." if forwards else "Nothing to do, or as above."
    if "std::hash" in declaration or scope.startswith("std::hash"):
        return "The object's own hash, for the standard library's containers."
    if declaration.endswith("= KivBinding;"):
        return "The reactor that observes the binding."
    if re.search(r"struct ValueTraits<", declaration):
        return "How tools write and read a value of this type."
    if re.match(r"using \w+(::\w+)+;", declaration):
        return "As in the base."
    if conventional := CONVENTIONAL.get(name_of(declaration)):
        return conventional
    if re.match(rf"(constexpr )?{re.escape(scope)}\((std::nullptr_t)?\)", declaration):
        return "An empty one."
    if collection := re.match(r"using \w+Map = Kiv::(?:ChildMap|ReactorMap)<(\w+),", declaration):
        return f"The collection of {collection.group(1)} objects."
    if scope == "Arguments":
        return constructor_argument(declaration)
    if re.match(rf"static constexpr auto& {re.escape(scope)}Is = ", declaration):
        return "The factory function, as a member of the class that it makes."
    if re.match(rf"{re.escape(scope)}\(Arguments&& \w+, Kiv::Start \w+\)", declaration):
        return "Takes the arguments over and becomes the machine of their reactors; with " \
            "Kiv::Start::byConstructor it runs handleInitialized() and throws what that throws."
    if group == "Constructor arguments":
        name = name_of(declaration)
        if name == "fwkKey":
            return "The key in the owner's collection."
        if name.endswith("Is"):
            return f"Makes the machine observe this {name[:-2]}; null for none."
        if name.endswith("Del"):
            return f"Makes the machine observe no {name[:-3]}."
        return f"The {name} that the machine has, from its construction unless changed since."
    if re.match(rf"explicit {re.escape(scope)}\([^,]*\)", declaration) and "fwkKey" in text:
        return "A new one with this key; its attributes are empty."
    return ""


class Header:
    """One pass over a header: finds its declarations and gives each its documentation."""

    def __init__(self, name: str, text: str) -> None:
        self.name = name
        self.text = text
        self.lines = text.split("\n")
        self.out = list(self.lines)
        self.scopes: list[tuple[str, str]] = [("file", "")]
        self.comment: list[str] = []      # the comment that is being read
        self.comment_at = 0               # its first line
        self.commented = False            # whether the declaration has one of its own
        # The comments since the last empty line that the next declarations may share, the last
        # first, each with the declaration that it stands above.
        self.shared: list[tuple[str, list[str]]] = []
        self.file_comment: list[str] = []
        self.group: list[str] = [""]     # the heading of the group that is open in each scope
        self.declaration = ""
        self.started: int | None = None   # the line on which the declaration began
        self.parens = 0

    # Writing

    def prefix(self, line: int, text: str) -> None:
        """Puts a comment before what stands on a line."""
        source = self.out[line]
        indent = len(source) - len(source.lstrip())
        self.out[line] = f"{source[:indent]}{text} {source[indent:]}"

    def close_group(self, line: int) -> None:
        if self.group[-1]:
            self.prefix(line, "/**@}*/")
            self.group[-1] = ""

    def write_comment(self, at: int, comment: list[str], opening: str = "") -> None:
        """Turns the lines of a `//` comment into one of Doxygen's."""
        for offset, line in enumerate(formatted(comment)):
            indent = self.lines[at + offset][:len(self.lines[at + offset]) -
                                             len(self.lines[at + offset].lstrip())]
            line = line.replace("see above", f"see {self.name}")
            self.out[at + offset] = f"{indent}/// {opening if offset == 0 else ''}{line}".rstrip()

    # Reading

    def in_declarations(self) -> bool:
        return self.scopes[-1][0] in ("file", "namespace", "class")

    def begins(self, line: int) -> None:
        """A declaration begins on this line: takes the comment above it."""
        self.started = line
        if self.scopes[-1][0] == "class" and self.comment and HEADING.match(self.comment[0]):
            heading = self.comment.pop(0).split(";")[0]
            self.close_group(self.comment_at)
            indent = len(self.lines[line]) - len(self.lines[line].lstrip())
            before = "/**@}*/ " if "/**@}*/" in self.out[self.comment_at] else ""
            self.out[self.comment_at] = f"{' ' * indent}{before}/** @name {heading} */ /**@{{*/"
            self.group[-1] = heading
            self.comment_at += 1
        if self.comment:
            self.write_comment(self.comment_at, self.comment)
            self.commented = True
        else:
            self.commented = False

    def ends(self) -> None:
        """The declaration is complete: describes it where it has no comment of its own."""
        declaration = " ".join(self.declaration.split())
        if self.commented:
            self.shared.insert(0, (declaration, self.comment))
            self.comment = []
        elif self.started is not None:
            texts = (shared(declaration, first, comment) for first, comment in self.shared)
            text = next(filter(None, texts), "") or described(
                declaration, self.scopes[-1][1], self.text, self.group[-1])
            if text:
                self.prefix(self.started, f"/** {text} */")
        if self.started is not None and CONSTANTS.match(self.lines[self.started]):
            self.separate(self.started)
        self.declaration = ""
        self.started = None

    def separate(self, line: int) -> None:
        """Constants that are declared together: each for itself, with the comment of all."""
        start, _, constants = self.lines[line].partition("constexpr ")
        kind, _, constants = constants.partition(" ")
        comment = in_one_line(self.shared[0][1]) if self.shared else ""
        self.out[line] = " ".join(f"/** {comment} */ {start.strip()} constexpr {kind} {c};"
                                  for c in constants.rstrip(";").split(", "))

    def opens(self) -> None:
        """A brace opens at the place of declarations: what kind of scope is it?"""
        declaration = " ".join(self.declaration.split())
        if declaration.startswith("namespace"):
            kind, name = "namespace", declaration
        elif re.match(r"enum\b", declaration):
            kind, name = "enum", declaration
        elif found := CLASS.match(declaration):
            kind, name = "class", found.group(3)
        else:
            self.scopes.append(("body", ""))
            return
        first = kind == "class" and self.scopes[-1][0] != "class" and self.file_comment
        if first and not self.commented and not described(declaration, "", self.text):
            has_example = any(text.startswith("  ") for text in self.file_comment)
            more = f" See {self.name}." if has_example else ""
            self.prefix(self.started or 0, f"/** {in_one_line(self.file_comment)}{more} */")
        elif not self.commented:
            self.shared = []
            self.ends()
        if first:
            self.file_comment = []
        self.comment = []
        self.declaration = ""
        self.started = None
        self.shared = []
        self.scopes.append((kind, name))
        self.group.append("")

    def closes(self, line: int, rest: str) -> None:
        kind, _ = self.scopes.pop()
        if kind == "body":
            if self.in_declarations() and self.parens == 0:
                following = rest.lstrip() or self.next_text(line)
                if not following.startswith((";", ",", "{", ")", ":")):
                    self.ends()
            return
        self.close_group(line)
        self.group.pop()
        self.shared = []
        if kind != "namespace":
            self.started = -1  # up to the semicolon

    def next_text(self, line: int) -> str:
        for following in self.lines[line + 1:]:
            if following.strip():
                return following.strip()
        return ""

    def run(self) -> str:
        head = 0
        while head < len(self.lines) and self.lines[head].startswith("//"):
            head += 1
        self.file_comment = [line[3:] for line in self.lines[:head]]
        if head:
            self.write_comment(0, self.file_comment, "@file ")
            self.out[0] = self.out[0].replace("@file ", "@file\n/// ")
        directive = False
        for number in range(head, len(self.lines)):
            line = self.lines[number]
            stripped = line.strip()
            if directive or stripped.startswith("#"):
                directive = line.endswith("\\")
                if stripped.startswith("#define") and self.comment:
                    self.write_comment(self.comment_at, self.comment)
                self.comment = []
                continue
            if self.in_declarations() and self.started is None:
                if not stripped:
                    self.close_group(number)
                    self.comment, self.shared = [], []
                    continue
                if stripped.startswith("//"):
                    if not self.comment:
                        self.comment_at = number
                    self.comment.append(stripped[2:].removeprefix(" "))
                    continue
                if ACCESS.match(line):
                    self.close_group(number)
                    self.comment, self.shared = [], []
                    continue
            self.code(number, line)
        return "\n".join(self.out)

    def code(self, number: int, line: str) -> None:
        """A line of code, character by character."""
        at = 0
        while at < len(line):
            character = line[at]
            if line.startswith("//", at):
                if self.in_declarations() or self.scopes[-1][0] == "enum":
                    self.remark(number, line, at)
                return
            if line.startswith("/*", at):
                at = line.index("*/", at) + 2
                continue
            if character == '"' or (character == "'" and not line[at - 1].isalnum()):
                end = at + 1
                while line[end] != character:
                    end += 2 if line[end] == "\\" else 1
                self.declaration += line[at:end + 1]
                at = end + 1
                continue
            if not self.in_declarations():
                if character == "{":
                    self.scopes.append(("body", ""))
                elif character == "}":
                    self.closes(number, line[at + 1:])
                elif self.scopes[-1][0] == "body" and self.declaration:
                    self.declaration += character
                at += 1
                continue
            if self.started is None and not character.isspace() and character not in "};":
                if not line[at:].startswith("namespace"):
                    self.begins(number)
                else:
                    self.started = number
            if character in "(":
                self.parens += 1
            elif character == ")":
                self.parens -= 1
            if character == ";" and self.parens == 0:
                if self.started == -1:
                    self.declaration, self.started = "", None
                else:
                    self.declaration += character
                    self.ends()
            elif character == "{":
                self.opens()
            elif character == "}":
                self.closes(number, line[at + 1:])
            else:
                self.declaration += character
            at += 1
        if self.declaration:
            self.declaration += " "

    def remark(self, number: int, line: str, at: int) -> None:
        """A remark behind a declaration."""
        text = line[at + 2:].strip()
        code = line[:at].strip()
        if code and not code.endswith("{") and not code.startswith("}"):
            self.out[number] = self.out[number].replace(line[at:], f"///< {escape(text)}")


def main() -> int:
    path = Path(sys.argv[1])
    print(Header(path.name, path.read_text(encoding="utf-8")).run(), end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
