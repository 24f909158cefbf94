"""Runs one stream, through the program or through the model, and hands back its steps alike."""

from __future__ import annotations

import json
import subprocess
import tempfile
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from model import Model
from tracing import UUID, Line, read_line

# A stream that hangs is a fault too; no honest one takes this long.
TIME_LIMIT_SECONDS = 60


@dataclass
class Stream:
    """One run: a first document, the events after it, and the settings they run under."""

    cloud: Any
    events: list[Any]
    toggle_on: bool = True
    timeout: float = 60.0


@dataclass
class Seen:
    """One step of a run."""

    ok: bool
    error: str = ""
    time: float = 0.0
    output: dict[str, Any] = field(default_factory=dict)
    lines: list[Line] = field(default_factory=list)
    # What is wrong whatever the step should have done, such as a trace line out of form.
    wrong: list[str] = field(default_factory=list)
    # The UUIDs that the step's trace lines name.
    uuids: list[str] = field(default_factory=list)
    # Of the model: what the error of a refusal may start with, and where the output may show
    # another number.
    places: list[str] = field(default_factory=list)
    open_questions: dict[str, set[int]] = field(default_factory=dict)
    # Of the program: the output as it was printed.
    text: str = ""


@dataclass
class Run:
    """All steps of a run, and how it ended."""

    steps: list[Seen]
    wrong: list[str] = field(default_factory=list)


def run_model(stream: Stream) -> Run:
    """Run a stream through the model."""
    model = Model(stream.toggle_on, stream.timeout)
    results = [model.load(stream.cloud)]
    results += [model.event(event) for event in stream.events]
    return Run([Seen(step.ok, "" if step.ok else f"{(step.places or ['/'])[0]}: refused",
                     step.time, step.output, step.lines, places=step.places,
                     open_questions=step.open_questions)
                for step in results])


def event_line(event: Any) -> str:
    """An event as a line of the stream; a text stands for itself."""
    return event if isinstance(event, str) else json.dumps(event, ensure_ascii=False)


def prepare(folder: Path, stream: Stream) -> list[str]:
    """Write a stream into a folder. Returns the arguments with which the program runs it; its trace
    goes to trace.jsonl there."""
    cloud, events, trace = (folder / name for name in ("cloud.json", "events.jsonl", "trace.jsonl"))
    cloud.write_text(json.dumps(stream.cloud, ensure_ascii=False), encoding="utf-8")
    events.write_text("".join(event_line(event) + "\n" for event in stream.events),
                      encoding="utf-8")
    return ["run", str(cloud), "--events", str(events),
            "--toggle", "on" if stream.toggle_on else "off",
            "--region-sync-timeout", f"{stream.timeout:g}", "--each", "--keep-going",
            "--format", "json", "--trace", "9", "--trace-file", str(trace)]


def run_program(binary: Path, stream: Stream) -> Run:
    """Run a stream through the program."""
    with tempfile.TemporaryDirectory(prefix="stream-") as folder:
        command = [str(binary), *prepare(Path(folder), stream)]
        try:
            done = subprocess.run(command, capture_output=True, timeout=TIME_LIMIT_SECONDS,
                                  check=False, stdin=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            return Run([], [f"no end within {TIME_LIMIT_SECONDS} s"])
        trace = Path(folder, "trace.jsonl")
        traced = trace.read_bytes() if trace.exists() else b""
    return read_run(done, traced, len(stream.events) + 1)


def read_run(done: subprocess.CompletedProcess[bytes], traced: bytes, expected: int) -> Run:
    """Read what a finished process printed."""
    run = Run([])
    for line in done.stdout.decode("utf-8", "replace").splitlines():
        run.steps.append(read_step(line, len(run.steps), run.wrong))
    for raw in traced.decode("utf-8", "replace").split("\n"):
        if raw:
            read_trace(raw, run)
    refused = any(not step.ok for step in run.steps)
    status = 3 if refused else 0
    complaint = done.stderr.decode("utf-8", "replace")[-2000:]
    if done.returncode != status:
        run.wrong.append(f"exit status {done.returncode}, expected {status}; stderr: {complaint}")
    if refused and not complaint:
        run.wrong.append("nothing on standard error about what was refused")
    if len(run.steps) != expected:
        run.wrong.append(f"{len(run.steps)} steps, expected {expected}")
    return run


OUTPUT_START = ', "output": '


def read_step(line: str, number: int, wrong: list[str]) -> Seen:
    try:
        record = json.loads(line)
    except ValueError:
        wrong.append(f"not JSON on standard output: {line[:200]}")
        return Seen(False)
    if record.get("step") != number:
        wrong.append(f"step {record.get('step')} stands where {number} was expected")
    members = {"step", "ok", "time", "output"} if record.get("ok") else {"step", "ok", "error"}
    if set(record) != members:
        wrong.append(f"step {number} has the members {sorted(record)}")
    seen = Seen(record.get("ok") is True, record.get("error", ""), record.get("time", 0.0),
                record.get("output", {}))
    if seen.ok:
        seen.text = line[line.index(OUTPUT_START) + len(OUTPUT_START):-1]
        seen.wrong += order_faults(record["output"])
    return seen


def order_faults(output: dict[str, Any]) -> list[str]:
    """Object keys print sorted: numbers by value, strings by bytes."""
    found: list[str] = []

    def visit(value: Any, path: str) -> None:
        if not isinstance(value, dict):
            return
        keys = list(value)
        if path.endswith(("/vlan", "/mappedVni")):
            keys_sorted = sorted(keys, key=int)
        elif path.endswith(tuple("/" + name for name in MAPS)) or path == "/networkElement":
            keys_sorted = sorted(keys, key=lambda key: key.encode("utf-8"))
        else:
            keys_sorted = keys
        if keys != keys_sorted:
            found.append(f"the keys of {path} are not sorted: {keys}")
        for key, member in value.items():
            visit(member, f"{path}/{key}")

    visit(output, "")
    return found


# The members of the output document that are keyed by name.
MAPS = ("regionStatus", "resourcesForHostname", "resourcesForSwitchport", "domain",
        "physicalInterface")


def read_trace(raw: str, run: Run) -> None:
    try:
        record = json.loads(raw)
        step = run.steps[record["step"]]
    except (ValueError, KeyError, IndexError, TypeError):
        run.wrong.append(f"a trace record that belongs nowhere: {raw[:200]}")
        return
    if not raw.isascii() or "\x7f" in raw:
        step.wrong.append(f"a byte outside printable ASCII in a trace record: {raw!r}")
    line, wrong = read_line(record)
    step.lines.append(line)
    step.wrong += wrong
    if "<uuid>" in line.message:
        step.uuids += UUID.findall(str(record["text"]))
