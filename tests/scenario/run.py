#!/usr/bin/env python3
"""Runs the scenarios in a folder, one JSON file each, and checks every step.

    run.py --binary build/release/bin/vnagent [FOLDER]
    run.py --model [FOLDER]

Each runs a second time with --changes. With --model the same scenarios run with the model of
tests/sim/agent instead, which checks the model and the scenarios against each other. README.md
beside this file has the format of a scenario.
"""

from __future__ import annotations

import argparse
import json
import sys
from collections import Counter
from pathlib import Path
from typing import Any, Callable

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "sim" / "agent"))

import changes  # noqa: E402
from program import Run, Seen, Stream, run_model, run_program  # noqa: E402
from tracing import Line  # noqa: E402

ABSENT = "<absent>"
MEMBERS = {"name", "about", "toggle", "timeout", "cloud", "events", "expect"}
EXPECTATIONS = {"step", "toggle", "ok", "error", "at", "uuid", "trace", "no_trace"}


def look_up(document: Any, pointer: str) -> Any:
    """The value at a JSON Pointer; ABSENT without one."""
    for part in pointer.split("/")[1:]:
        part = part.replace("~1", "/").replace("~0", "~")
        if isinstance(document, dict) and part in document:
            document = document[part]
        elif isinstance(document, list) and part.isdigit() and int(part) < len(document):
            document = document[int(part)]
        else:
            return ABSENT
    return document


def check_outcome(entry: dict[str, Any], seen: Seen) -> list[str]:
    """Applied or refused, and the place that the error names."""
    if not entry.get("ok", True):
        if seen.ok:
            return ["applied, expected a refusal"]
        start = entry.get("error", "")
        errors = [place + ": refused" for place in seen.places] or [seen.error]
        if not any(error.startswith(start) for error in errors):
            return [f"the error is {seen.error!r}, expected {start!r} at its start"]
        return []
    return [] if seen.ok else [f"refused: {seen.error}"]


def check_output(entry: dict[str, Any], seen: Seen, before: dict[str, Any]) -> list[str]:
    """The step's output document, and the UUIDs in it compared with the step before."""
    found = []
    for pointer, expected in entry.get("at", {}).items():
        value = look_up(seen.output, pointer)
        if json.dumps(value, sort_keys=True) != json.dumps(expected, sort_keys=True):
            found.append(f"{pointer} is {json.dumps(value)}, expected {json.dumps(expected)}")
    for region, expected in entry.get("uuid", {}).items():
        place = f"/regionStatus/{region}/vlanAssignmentUuid"
        old, new = look_up(before, place), look_up(seen.output, place)
        holds = {"new": new not in (ABSENT, "", old), "same": new == old and new != ABSENT,
                 "": new == ""}[expected]
        if not holds:
            found.append(f"{place} was {old!r} and is {new!r}, expected {expected or 'none'}")
    return found


def check_trace(entry: dict[str, Any], lines: list[Line]) -> list[str]:
    """The lines that must be there, with their number where given, and those that must not."""
    found = []
    times = Counter((line.level, line.handler, line.message) for line in lines)
    for level, handler, message, *count in entry.get("trace", []):
        wanted = (level, handler, message)
        if times[wanted] != count[0] if count else not times[wanted]:
            near = sorted({line.message for line in lines if line.handler == handler})
            found.append(f"{times[wanted]} times {[level, handler, message]}, expected "
                         f"{count[0] if count else 'some'}; of that handler: {near}")
    for level, handler, part in entry.get("no_trace", []):
        for line in lines:
            if (line.level, line.handler) == (level, handler) and part in line.message:
                found.append(f"there is {line}")
    return found


def check_run(scenario: dict[str, Any], toggle: str, run: Run) -> list[str]:
    """Everything that one run of a scenario got wrong."""
    found = list(run.wrong)
    refusals = {entry["step"] for entry in scenario["expect"] if not entry.get("ok", True)}
    for number, seen in enumerate(run.steps):
        found += [f"step {number}: {text}" for text in seen.wrong]
        if not seen.ok and number not in refusals:
            found.append(f"step {number}: refused: {seen.error}")
    for entry in scenario["expect"]:
        unknown = entry.keys() - EXPECTATIONS
        if unknown:
            found.append(f"an expectation of an unknown kind: {sorted(unknown)}")
        if entry.get("toggle", toggle) != toggle:
            continue
        number = entry["step"]
        if number >= len(run.steps):
            found.append(f"there is no step {number}")
            continue
        before = next((run.steps[n].output for n in range(number - 1, -1, -1) if run.steps[n].ok),
                      {})
        seen = run.steps[number]
        texts = check_outcome(entry, seen)
        texts += check_output(entry, seen, before) + check_trace(entry, seen.lines)
        found += [f"step {number}: {text}" for text in texts]
    return found


def toggles_of(scenario: dict[str, Any]) -> tuple[str, ...]:
    """The answers of the toggle under which a scenario runs."""
    return ("on", "off") if scenario["toggle"] == "both" else (scenario["toggle"],)


def stream_of(scenario: dict[str, Any], toggle: str) -> Stream:
    """What goes in."""
    return Stream(scenario["cloud"], scenario["events"], toggle == "on",
                  scenario.get("timeout", 60))


def check_scenario(scenario: dict[str, Any], run: Callable[[Stream], Run],
                   check_changes: Callable[[Stream, Run], list[str]]) -> list[str]:
    """Run a scenario under each toggle that it names."""
    unknown = scenario.keys() - MEMBERS
    found = [f"a member of an unknown kind: {sorted(unknown)}"] if unknown else []
    for toggle in toggles_of(scenario):
        stream = stream_of(scenario, toggle)
        seen = run(stream)
        texts = check_run(scenario, toggle, seen) or check_changes(stream, seen)
        found += [f"toggle {toggle}, {text}" for text in texts]
    return found


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", nargs="?", type=Path, default=Path(__file__).parent / "data")
    parser.add_argument("--binary", type=Path, help="the agent's program")
    parser.add_argument("--model", action="store_true", help="check the model instead")
    parser.add_argument("--only", default="", help="only scenarios whose file name contains this")
    options = parser.parse_args()
    if options.model == (options.binary is not None):
        parser.error("either --binary or --model")

    def run(stream: Stream) -> Run:
        return run_model(stream) if options.model else run_program(options.binary, stream)

    def check_changes(stream: Stream, seen: Run) -> list[str]:
        return [] if options.model else changes.faults(options.binary, stream, seen)

    passed = failed = 0
    for path in sorted(options.folder.glob("*.json")):
        if options.only not in path.name:
            continue
        scenario = json.loads(path.read_text(encoding="utf-8"))
        found = check_scenario(scenario, run, check_changes)
        print(f"{'FAILED' if found else 'passed'}  {scenario['name']}: {scenario['about']}")
        for text in found:
            print(f"        {text}")
        passed, failed = passed + (not found), failed + bool(found)
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
