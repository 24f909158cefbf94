#!/usr/bin/env python3
"""Runs streams with a restart in them: an agent that starts anew from its documents and its state
must go on as if it had not ended.

    restarts.py --program build/release/bin/restarts [--seeds 1:100] [--events 40] [--cuts 4]

The scenarios are cut after every step, the random streams after some of them, with the toggle on and
off. restarts.cpp has what is compared.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
from pathlib import Path
from typing import Any, Iterator

from generator import Generator
from program import event_line
from simulate import seeds

SCENARIOS = Path(__file__).resolve().parent.parent.parent / "scenario" / "data"


def line_of(name: str, timeout: float, cloud: Any, events: list[Any]) -> str:
    stream = {"name": name, "timeout": timeout, "cloud": json.dumps(cloud, ensure_ascii=False),
              "events": [event_line(event) for event in events]}
    return json.dumps(stream) + "\n"


def scenarios(toggle: str) -> Iterator[str]:
    for path in sorted(SCENARIOS.glob("*.json")):
        scenario = json.loads(path.read_text(encoding="utf-8"))
        if scenario.get("toggle", "both") in (toggle, "both"):
            yield line_of(path.stem, scenario.get("timeout", 60.0), scenario.get("cloud", {}),
                          scenario.get("events", []))


def random_streams(options: argparse.Namespace) -> Iterator[str]:
    for seed in options.seeds:
        stream = Generator(seed).stream(options.events)
        yield line_of(f"seed {seed}", stream.timeout, stream.cloud, stream.events)


def run(program: Path, toggle: str, cuts: int, streams: Iterator[str]) -> bool:
    done = subprocess.run([str(program), "--toggle", toggle, "--cuts", str(cuts)],
                          input="".join(streams).encode("utf-8"), stdout=subprocess.PIPE,
                          check=False)
    sys.stdout.write(done.stdout.decode("utf-8", "replace")[-20000:])
    if done.returncode not in (0, 1):
        print(f"exit status {done.returncode}")
    return done.returncode == 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--program", type=Path, required=True)
    parser.add_argument("--seeds", type=seeds, default=seeds("1:100"))
    parser.add_argument("--events", type=int, default=40)
    parser.add_argument("--cuts", type=int, default=4)
    options = parser.parse_args()
    passed = True
    for toggle in ("on", "off"):
        print(f"toggle {toggle}: scenarios")
        passed &= run(options.program, toggle, 0, scenarios(toggle))
        print(f"toggle {toggle}: seeds {options.seeds.start} to {options.seeds.stop - 1}, "
              f"{options.events} events each, {options.cuts} restarts")
        passed &= run(options.program, toggle, options.cuts, random_streams(options))
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
