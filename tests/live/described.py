"""Compares what a live agent answered with the description that it gives of its interface."""

import json
import re
from pathlib import Path
from typing import Any, NamedTuple

METHODS = ("get", "head", "put", "post", "patch", "delete")


class Operation(NamedTuple):
    path: str
    method: str
    responses: dict[int, set[str]]  # media types by status


def operations(description: dict[str, Any]) -> list[Operation]:
    return [Operation(path, method, {
                int(status): set(response.get("content", {}))
                for status, response in item[method]["responses"].items()})
            for path, item in description["paths"].items() for method in METHODS if method in item]


def pattern(path: str) -> re.Pattern[str]:
    """`{name}` is one segment of a path; a place or a path in the machines may be several."""
    parts = re.split(r"\{(\w+)\}", path)
    text = "".join(re.escape(part) if number % 2 == 0 else "[^/]+" if part == "name" else ".+"
                   for number, part in enumerate(parts))
    return re.compile(text)


def find(known: list[Operation], method: str, path: str) -> Operation | None:
    """The operation of a request; of several, the one that says most of its path itself."""
    fitting = [operation for operation in known if operation.method == method.lower()
               and pattern(operation.path).fullmatch(path)]
    return max(fitting, default=None, key=lambda operation: len(
        re.sub(r"\{\w+\}", "", operation.path)))


def differences(description: dict[str, Any], folder: Path) -> list[str]:
    """What was answered and is not described, and what is described and was never answered. The
    folder has the answers of each process of the tests."""
    known = operations(description)
    seen: set[tuple[str, str, int]] = set()
    wrong: set[str] = set()
    for file in folder.glob("*.json"):
        for method, path, status, media in json.loads(file.read_text()):
            operation = find(known, method, path)
            if operation is None:
                # There is no such operation: the answer says so, or does not get that far.
                if status not in (400, 401, 404, 405):
                    wrong.add(f"not described: {method} {path}: {status}")
                continue
            seen.add((operation.path, operation.method, status))
            if status not in operation.responses:
                wrong.add(f"not described: {method} {operation.path}: {status} (as {path})")
            elif operation.responses[status] and media not in operation.responses[status]:
                wrong.add(f"described with another media type: {method} {operation.path}: "
                          f"{status} {media}")
    for operation in known:
        for status in operation.responses:
            if (operation.path, operation.method, status) not in seen:
                wrong.add(f"described, and never seen: {operation.method.upper()} "
                          f"{operation.path}: {status}")
    if len(seen) == 0:
        wrong.add("no answers were kept")
    return sorted(wrong)
