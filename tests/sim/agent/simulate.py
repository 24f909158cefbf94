#!/usr/bin/env python3
"""Runs random streams through the agent and compares every step with an independent model.

    simulate.py --binary build/release/bin/vnagent --seeds 1:200 --events 60
    simulate.py --binary build/release/bin/vnagent --replay FILE
    simulate.py --model --seeds 1:200

Each seed is run with the feature toggle on and off. A stream that diverges is reduced and written
to a file; --replay runs such a file. --model runs no program, but checks the model itself against
the invariants of every output. A stream that passes runs a second time with --changes.
"""

from __future__ import annotations

import argparse
import json
import re
import shlex
import sys
from pathlib import Path

import changes
from compare import compare
from generator import Generator
from program import Run, Stream, run_model, run_program
from shrink import Shrinker


def save(stream: Stream, path: Path) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps({"toggle": "on" if stream.toggle_on else "off",
                                "timeout": stream.timeout, "cloud": stream.cloud,
                                "events": stream.events}, indent=1, ensure_ascii=False) + "\n",
                    encoding="utf-8")


def load(path: Path) -> Stream:
    saved = json.loads(path.read_text(encoding="utf-8"))
    return Stream(saved["cloud"], saved["events"], saved["toggle"] == "on", saved["timeout"])


def seeds(text: str) -> range:
    first, _, last = text.partition(":")
    return range(int(first), int(last or first) + 1)


def kind_of(found: list[str]) -> str:
    """What kind of failure it is, whatever step, names and numbers it came with."""
    return re.sub(r"step \d+: |\d+|\W", "", found[0])[:24] if found else ""


class Simulation:
    """Runs streams and counts how they went."""

    def __init__(self, options: argparse.Namespace) -> None:
        self.options = options
        self.passed = self.failed = 0

    def run(self, stream: Stream) -> Run:
        if self.options.model:
            return run_model(stream)
        return run_program(self.options.binary, stream)

    def faults(self, stream: Stream) -> list[str]:
        """What is wrong with a run of the stream."""
        expected = run_model(stream)
        actual = expected if self.options.model else self.run(stream)
        if self.options.model:
            uuids = [status["vlanAssignmentUuid"] for step in expected.steps
                     for status in step.output.get("regionStatus", {}).values()]
            expected.steps[-1].uuids = sorted(set(uuids))
        found = compare(stream, expected, actual)
        if not found and not self.options.model:
            found = changes.faults(self.options.binary, stream, actual)
        return found

    def check(self, name: str, stream: Stream) -> None:
        found = self.faults(stream)
        if not found:
            self.passed += 1
            if self.options.verbose:
                print(f"passed  {name}")
            return
        self.failed += 1
        print(f"FAILED  {name}")
        for text in found[:20]:
            print(f"        {text}")
        if self.options.shrink_seconds > 0:
            self.shrink(name, stream, found)
        sys.stdout.flush()

    def shrink(self, name: str, stream: Stream, found: list[str]) -> None:
        """Find a smaller stream that fails in the same way, write it and print it."""
        shrinker = Shrinker(lambda smaller: kind_of(self.faults(smaller)) == kind_of(found),
                            self.options.shrink_seconds)
        smallest = shrinker.shrink(stream)
        path = self.options.out / f"{name.replace(' ', '-')}.json"
        save(smallest, path)
        print(f"        smallest stream, of {len(smallest.events)} events:")
        print(f"          toggle {'on' if smallest.toggle_on else 'off'}, "
              f"timeout {smallest.timeout:g}")
        print(f"          cloud {json.dumps(smallest.cloud, ensure_ascii=False)}")
        for event in smallest.events:
            print(f"          event {json.dumps(event, ensure_ascii=False)}")
        for text in self.faults(smallest)[:20]:
            print(f"          {text}")
        against = "--model" if self.options.model else f"--binary {self.options.binary}"
        print(f"        replay: {shlex.quote(sys.argv[0])} {against} --replay {path}")

    def main(self) -> int:
        options = self.options
        if options.replay:
            self.check(options.replay.stem, load(options.replay))
        else:
            print(f"seeds {options.seeds.start} to {options.seeds.stop - 1}, "
                  f"{options.events} events each")
            for seed in options.seeds:
                stream = Generator(seed).stream(options.events)
                for toggle in ("on", "off"):
                    if options.toggle in (toggle, "both") and self.failed < options.most_failures:
                        stream.toggle_on = toggle == "on"
                        self.check(f"seed {seed} toggle {toggle}", stream)
        print(f"{self.passed} passed, {self.failed} failed")
        return 0 if self.passed and not self.failed else 1


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--binary", type=Path, help="the agent's program")
    parser.add_argument("--model", action="store_true", help="check the model by itself")
    parser.add_argument("--seeds", type=seeds, default=seeds("1:50"), metavar="FIRST:LAST")
    parser.add_argument("--events", type=int, default=60, help="events in a stream")
    parser.add_argument("--toggle", choices=("on", "off", "both"), default="both")
    parser.add_argument("--replay", type=Path, metavar="FILE", help="a stream that was written")
    parser.add_argument("--out", type=Path, default=Path("simulation-failures"),
                        help="the folder for streams that fail")
    parser.add_argument("--shrink-seconds", type=float, default=30.0,
                        help="how long to shrink a stream that fails; 0 for not at all")
    parser.add_argument("--most-failures", type=int, default=10, metavar="N",
                        help="stop after so many failures")
    parser.add_argument("--verbose", action="store_true", help="print the runs that pass, too")
    options = parser.parse_args()
    if options.model == (options.binary is not None):
        parser.error("either --binary or --model")
    return Simulation(options).main()


if __name__ == "__main__":
    sys.exit(main())
