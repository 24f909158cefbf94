"""Compares `vnagent run --each --changes` with what `--each` prints for the same stream.

Each change must be the merge patch between two outputs, and no more; and all of them, applied one
after the other, must give the output byte for byte.
"""

from __future__ import annotations

import json
import subprocess
import tempfile
from pathlib import Path
from typing import Any

from document import merge
from program import TIME_LIMIT_SECONDS, Run, Stream, prepare
from tracing import UUID


def difference(before: Any, after: Any) -> dict[str, Any]:
    """The merge patch from one document to the other."""
    patch: dict[str, Any] = {key: None for key in before if key not in after}
    for key, value in after.items():
        if key not in before:
            patch[key] = value
        elif isinstance(value, dict):
            if inner := difference(before[key], value):
                patch[key] = inner
        elif value != before[key]:
            patch[key] = value
    return patch


# How the output document is made: an object of these members, in this order; or by_name(...) and
# by_number(...), an object with keys of that kind; or None, a value.
Shape = dict[str, Any] | tuple[Any, Any] | None


def by_name(shape: Shape) -> Shape:
    return (lambda key: key.encode("utf-8"), shape)


def by_number(shape: Shape) -> Shape:
    return (int, shape)


VLANS = by_number({"referrer": None, "mappedVni": by_number(None)})
OUTPUT: Shape = {
    "regionStatus": by_name({
        "syncStatus": None, "oldSyncStatus": None, "owner": None, "requestId": None,
        "vlanAssignmentUuid": None,
        "vlanPool": {"assignedVlan": None, "availableVlan": None, "allocatedVlan": None}}),
    "requestedResources": {
        "resourcesForHostname": by_name({"domain": by_name(None), "vlan": VLANS}),
        "resourcesForSwitchport": by_name(by_name({
            "vlan": VLANS, "nativeVlan": None, "remoteHost": None, "referrer": None}))},
    "networkElement": by_name({
        "hostname": None, "referrer": None, "domain": by_name(None), "vlan": VLANS,
        "physicalInterface": by_name({
            "vlan": VLANS, "nativeVlan": None, "configuredElement": None})}),
}


def ordered(value: Any, shape: Shape = OUTPUT) -> Any:
    """The same document or patch in the order in which the program prints it."""
    if not isinstance(value, dict):
        return value
    if isinstance(shape, tuple):
        return {key: ordered(value[key], shape[1]) for key in sorted(value, key=shape[0])}
    assert shape is not None
    return {key: ordered(value[key], shape[key]) for key in shape if key in value}


def text_of(document: dict[str, Any]) -> str:
    return json.dumps(document, ensure_ascii=False)


def without_uuids(texts: list[str]) -> list[str]:
    """The texts with each UUID replaced by its number, in the order in which they first occur."""
    numbers: dict[str, str] = {}
    return [UUID.sub(lambda found: numbers.setdefault(found.group(), f"uuid {len(numbers)}"), text)
            for text in texts]


def run_changes(binary: Path, stream: Stream) -> list[str]:
    """What the steps print; the empty text for one that was refused."""
    with tempfile.TemporaryDirectory(prefix="changes-") as folder:
        command = [str(binary), *prepare(Path(folder), stream), "--changes"]
        at = command.index("--trace")
        del command[at:at + 4]
        done = subprocess.run(command, capture_output=True, timeout=TIME_LIMIT_SECONDS,
                              check=False, stdin=subprocess.DEVNULL)
    start = ', "change": '
    lines = done.stdout.decode("utf-8", "replace").splitlines()
    return [line[line.index(start) + len(start):-1] if start in line else "" for line in lines]


def faults(binary: Path, stream: Stream, whole: Run) -> list[str]:
    """How the changes of a stream differ from its outputs."""
    changes = without_uuids(run_changes(binary, stream))
    outputs = without_uuids([step.text for step in whole.steps])
    if len(changes) != len(outputs):
        return [f"{len(changes)} steps with --changes, expected {len(outputs)}"]
    before: dict[str, Any] = {}
    shown: dict[str, Any] = {}
    for number, (change, output) in enumerate(zip(changes, outputs, strict=True)):
        if bool(change) != bool(output):
            return [f"step {number}: applied or refused, but not so with --changes"]
        if not output:
            continue
        after = json.loads(output)
        expected = text_of(ordered(difference(before, after)))
        if change != expected:
            return [f"step {number}: the change is {change}, expected {expected}"]
        shown = ordered(merge(shown, json.loads(change)))
        if text_of(shown) != output:
            return [f"step {number}: the changes give {text_of(shown)}, the output is {output}"]
        before = after
    return []
