"""Trace lines, in the form in which the program's and the model's are compared.

A message travels as its bytes, one character (U+0000 to U+00FF) for each, because a line may end
in a raw byte that is no text.
"""

from __future__ import annotations

import re
from typing import NamedTuple

UUID_TEXT = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"
UUID = re.compile(UUID_TEXT)
LINE = re.compile(r"(?s)0x[0-9a-f]+ \[ (void OpenStack::(.*?)\(.*?\)) \] (.*)")
ADDRESS = re.compile(r"^(Region config sm: )0x[0-9a-f]+$")
UUID_MESSAGE = re.compile(f"^(VLAN assignment UUID: ){UUID_TEXT}$")


class Line(NamedTuple):
    """One trace line, without what differs from run to run."""

    level: int
    signature: str
    message: str

    @property
    def handler(self) -> str:
        """The class and handler, as in "RegionConfigSm::KivSegment::handleCleanup"."""
        return self.signature[len("void OpenStack::"):self.signature.index("(")]

    @property
    def function(self) -> str:
        """The handler's short name."""
        return self.handler.rsplit("::", 1)[1]

    def __str__(self) -> str:
        return f"{self.level} {self.signature} {self.message!r}"


def as_bytes_text(text: str) -> str:
    """A text as its bytes, one character each."""
    return text if text.isascii() else text.encode("utf-8").decode("latin-1")


def message_text(parts: tuple[str | int | float | bytes, ...]) -> str:
    """A message of its parts: names, numbers and raw bytes."""
    return "".join(part.decode("latin-1") if isinstance(part, bytes)
                   else as_bytes_text(part) if isinstance(part, str)
                   else f"{part:g}" if isinstance(part, float)
                   else str(part) for part in parts)


def without_run_values(message: str) -> str:
    """A message with a machine's address and a UUID replaced by what they are."""
    return UUID_MESSAGE.sub(r"\1<uuid>", ADDRESS.sub(r"\1<machine>", message))


def read_line(record: dict[str, object]) -> tuple[Line, list[str]]:
    """A trace record of the program, with what is wrong with its form."""
    text = str(record.get("text"))
    match = LINE.fullmatch(text)
    if not match:
        return Line(int(str(record.get("level"))), "?", text), [f"not a trace line: {text!r}"]
    line = Line(int(str(record["level"])), match[1], without_run_values(match[3]))
    wrong = []
    if record.get("file") != "OpenStackSm":
        wrong.append(f"file is {record.get('file')!r} in {line}")
    if not (isinstance(record.get("line"), int) and int(str(record["line"])) > 0):
        wrong.append(f"line number is {record.get('line')!r} in {line}")
    if record.get("function") != line.function:
        wrong.append(f"function is {record.get('function')!r} in {line}")
    return line, wrong
