#!/usr/bin/env python3
"""Runs every scenario under valgrind's memcheck: no error, and nothing lost.

    tests/memcheck/check.py RUNS SYSTEM_MEMORY [FOLDER]

Starting valgrind takes longer than most scenarios, so one process, RUNS, runs all scenarios of one
value of the feature toggle, which is fixed for a process; each cloud is destroyed at the end of its
run. The library is the one that was built, but its pool is replaced by the system's allocator
(SYSTEM_MEMORY), since memcheck cannot see objects inside the pool's slabs. The output of the runs
is checked against the scenarios.

First, memcheck must find a use after free and a leak of an object of the library, which are made on
purpose: a check that cannot fail proves nothing.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

TESTS = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / "scenario"), str(TESTS / "sim" / "agent")]

from program import Stream, prepare, read_run  # noqa: E402
from run import check_run, stream_of, toggles_of  # noqa: E402

FOUND = 99  # the exit status of a program in which memcheck found something


class Memcheck:
    """Runs RUNS under valgrind."""

    def __init__(self, runs: Path, memory: Path) -> None:
        self.runs = runs
        self.environment = {**os.environ, "LD_PRELOAD": str(memory)}

    def run(self, log: Path, arguments: list[str], given: str = "") -> int:
        command = ["valgrind", "--quiet", "--leak-check=full", "--show-leak-kinds=definite,indirect",
                   "--errors-for-leak-kinds=definite,indirect", f"--error-exitcode={FOUND}",
                   f"--log-file={log}", self.runs, *arguments]
        done = subprocess.run(command, env=self.environment, check=False, text=True, input=given)
        return done.returncode

    def sees(self, folder: Path, fault: str, words: str) -> bool:
        """Whether it finds what must be found."""
        log = folder / fault
        return self.run(log, [fault]) == FOUND and words in log.read_text("utf-8", "replace")


def told(log: Path) -> str:
    """What valgrind wrote, without the runs that it had nothing to say of."""
    lines = log.read_text("utf-8", "replace").splitlines()
    named = [" run " in line for line in lines] + [True]
    return "\n".join(line for number, line in enumerate(lines)
                     if not (named[number] and named[number + 1]))


def check_all(memcheck: Memcheck, folder: Path, toggle: str,
              scenarios: dict[str, dict[str, Any]]) -> list[str]:
    """Everything that is wrong with the scenarios under one answer of the toggle."""
    lines, streams = [], {}
    for name, scenario in scenarios.items():
        if toggle not in toggles_of(scenario):
            continue
        place = folder / toggle / name
        place.mkdir(parents=True)
        streams[name] = stream_of(scenario, toggle)
        lines.append("\t".join([str(place), *prepare(place, streams[name])]) + "\n")
    log = folder / f"{toggle}.log"
    status = memcheck.run(log, [], "".join(lines))
    found = []
    if status != 0:
        found.append(f"toggle {toggle}: valgrind ended with {status}:\n{told(log)}")
    for name, stream in streams.items():
        found += [f"{name}, toggle {toggle}, {text}"
                  for text in check_one(scenarios[name], toggle, folder / toggle / name, stream)]
    print(f"toggle {toggle}: {len(streams)} scenarios")
    return found


def check_one(scenario: dict[str, Any], toggle: str, place: Path, stream: Stream) -> list[str]:
    if not (place / "status").exists():
        return ["was not run to its end"]
    done = subprocess.CompletedProcess([], int((place / "status").read_text()),
                                       (place / "stdout").read_bytes(),
                                       (place / "stderr").read_bytes())
    traced = (place / "trace.jsonl").read_bytes()
    return check_run(scenario, toggle, read_run(done, traced, len(stream.events) + 1))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("runs", type=Path, help="the program of runs.cpp")
    parser.add_argument("memory", type=Path, help="the library of system_memory.cpp")
    parser.add_argument("folder", nargs="?", type=Path, default=TESTS / "scenario" / "data")
    arguments = parser.parse_args()

    paths = sorted(arguments.folder.glob("*.json"))
    scenarios = {path.stem: json.loads(path.read_text("utf-8")) for path in paths}
    with tempfile.TemporaryDirectory(prefix="memcheck-") as temporary:
        folder = Path(temporary)
        memcheck = Memcheck(arguments.runs, arguments.memory)
        for fault, words in (("misuse", "Invalid read"), ("leak", "definitely lost")):
            if not memcheck.sees(folder, fault, words):
                print(f"a planted {fault} is not seen")
                return 1
        with ThreadPoolExecutor() as workers:
            halves = workers.map(lambda toggle: check_all(memcheck, folder, toggle, scenarios),
                                 ("on", "off"))
            found = [text for half in halves for text in half]
    for text in found:
        print(text)
    return 0 if scenarios and not found else 1


if __name__ == "__main__":
    sys.exit(main())
