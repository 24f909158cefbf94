"""Compares what the program did with what the model expects, step by step."""

from __future__ import annotations

import json
import math
from collections import Counter
from typing import Any

import invariants
from document import merge, objects
from program import Run, Seen, Stream
from tracing import UUID

MISSING = "<absent>"


def uuid_kinds(output: dict[str, Any], before: dict[str, Any]) -> dict[str, str]:
    """Of each region, whether its UUID is new, the same as before, empty or out of form."""
    kinds = {}
    for name, status in objects(output.get("regionStatus")).items():
        text = status.get("vlanAssignmentUuid", MISSING)
        old = objects(objects(before.get("regionStatus")).get(name)).get("vlanAssignmentUuid")
        kinds[name] = ("empty" if text == "" else f"out of form: {text!r}"
                       if not UUID.fullmatch(str(text)) else "same" if text == old else "new")
    return kinds


def without_uuids(output: dict[str, Any]) -> dict[str, Any]:
    """An output document with every UUID left out."""
    statuses = {name: {**status, "vlanAssignmentUuid": "<uuid>"}
                for name, status in objects(output.get("regionStatus")).items()}
    return {**output, "regionStatus": statuses}


def answered(expected: Seen, actual: dict[str, Any]) -> dict[str, Any]:
    """The expected output, with a number that may be another one as the program shows it."""
    output = without_uuids(expected.output)
    for place, choices in expected.open_questions.items():
        path = [part.replace("~1", "/").replace("~0", "~") for part in place.split("/")[1:]]
        shown: Any = actual
        for part in path:
            shown = shown.get(part) if isinstance(shown, dict) else None
        if shown in choices:
            output = merge(output, nested(path, shown))
    return output


def nested(path: list[str], value: Any) -> Any:
    """A value inside of objects, as deep as the path goes."""
    for part in reversed(path):
        value = {part: value}
    return value


def differences(expected: Any, actual: Any, path: str = "") -> list[str]:
    """Where two JSON values differ, as JSON Pointers with both values."""
    if isinstance(expected, dict) and isinstance(actual, dict):
        found = []
        for key in sorted(expected.keys() | actual.keys()):
            place = path + "/" + key.replace("~", "~0").replace("/", "~1")
            found += differences(expected.get(key, MISSING), actual.get(key, MISSING), place)
        return found
    if type(expected) is type(actual) and expected == actual:
        return []
    return [f"{path}: expected {json.dumps(expected)}, got {json.dumps(actual)}"]


def compare_step(expected: Seen, actual: Seen) -> list[str]:
    """How one step of the program differs from the model's."""
    if expected.ok != actual.ok:
        word = "applied" if expected.ok else f"refused at one of {expected.places}"
        got = "applied" if actual.ok else f"refused: {actual.error}"
        return [f"expected {word}, got {got}"]
    found = list(actual.wrong)
    if expected.ok:
        if not math.isclose(expected.time, actual.time, rel_tol=1e-12, abs_tol=1e-9):
            found.append(f"time: expected {expected.time}, got {actual.time}")
        found += differences(answered(expected, actual.output), without_uuids(actual.output))
    elif expected.places and not names_a_place(actual.error, expected.places):
        found.append(f"the error is {actual.error!r}, expected it to start with one of "
                     f"{expected.places}")
    wanted, got = Counter(expected.lines), Counter(actual.lines)
    found += [f"trace line missing {times} times: {line}" for line, times in
              sorted((wanted - got).items())]
    found += [f"trace line too often, {times} times: {line}" for line, times in
              sorted((got - wanted).items())]
    return found


def names_a_place(error: str, places: list[str]) -> bool:
    """Whether an error starts with one of the places, or with one inside of it."""
    return ": " in error and any(error.startswith((place + ":", place + "/")) for place in places)


def compare(stream: Stream, expected: Run, actual: Run) -> list[str]:
    """Everything in which a run differs from the model's, or breaks what must always hold. Only
    the first step that differs is reported, since the later ones follow from it."""
    if actual.wrong:
        return actual.wrong
    before_expected: dict[str, Any] = {}
    before_actual: dict[str, Any] = {}
    document: Any = {}
    history = invariants.PoolHistory()
    for number, (want, got) in enumerate(zip(expected.steps, actual.steps, strict=True)):
        found = compare_step(want, got)
        if want.ok and got.ok:
            event = {"patch": stream.cloud} if number == 0 else stream.events[number - 1]
            if "patch" in event:
                document = merge(document, event["patch"])
            kinds = [uuid_kinds(want.output, before_expected),
                     uuid_kinds(got.output, before_actual)]
            found += differences(*kinds, path="UUID of ")
            if not found:
                found = invariants.check(document, got.output, stream.toggle_on, history)
            before_expected, before_actual = want.output, got.output
        if found:
            return [f"step {number}: {text}" for text in found]
    return invariants.uuid_faults([text for step in actual.steps for text in step.uuids],
                                  [step.output for step in actual.steps])
