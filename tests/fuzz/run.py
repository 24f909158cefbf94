#!/usr/bin/env python3
"""Runs the fuzz targets, each for a time, one after the other or some side by side.

A target starts from the inputs that the tree keeps for it (corpus/) and those that earlier runs
found worth keeping (BUILD/corpus/). What it finds is left in BUILD/findings/, named TARGET-KIND-HASH.
Prints a table in the end; the exit status is 1 when a target stopped, 2 when one could not run.
"""

import argparse
import concurrent.futures
import re
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent

# Target -> (the folder of its corpus, the longest input in bytes).
TARGETS = {
    "document": ("document", 4096),
    "events": ("events", 4096),
    "events_off": ("events", 4096),
    "neutron": ("neutron", 8192),
    "ovsdb": ("ovsdb", 4096),
    "requests": ("requests", 4096),
    "values": ("values", 1024),
    "collections": ("collections", 1024),
    "queue": ("queue", 512),
}
MEMORY_MB = 2048        # more is a finding
INPUT_SECONDS = 10      # an input that takes longer is a finding
STARTING_SECONDS = 120  # a target that does not end so long after its time is stopped


def command(target: str, build: Path, seconds: int) -> list[str]:
    """How a target is called."""
    corpus, longest = TARGETS[target]
    kept = build / "corpus" / target
    findings = build / "findings"
    kept.mkdir(parents=True, exist_ok=True)
    findings.mkdir(parents=True, exist_ok=True)
    return [str(build / "bin" / f"fuzz_{target}"), str(kept), str(HERE / "corpus" / corpus),
            f"-max_total_time={seconds}", f"-max_len={longest}", f"-rss_limit_mb={MEMORY_MB}",
            f"-timeout={INPUT_SECONDS}", f"-artifact_prefix={findings}/{target}-",
            f"-dict={HERE / 'json.dict'}", "-print_final_stats=1"]


def run(target: str, build: Path, seconds: int) -> tuple[int, int, str]:
    """Runs a target; its exit status, how many inputs it ran, and what it said."""
    done = subprocess.run(command(target, build, seconds), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", timeout=seconds + STARTING_SECONDS, check=False)
    inputs = re.search(r"number_of_executed_units: (\d+)", done.stdout)
    return done.returncode, int(inputs[1]) if inputs else 0, done.stdout


def report(target: str, options: argparse.Namespace) -> int:
    """Runs a target and prints its row, after all that it said if it stopped; 1 if it did."""
    begin = time.monotonic()
    status, inputs, said = run(target, options.build.resolve(), options.seconds)
    content = status == 0 and inputs > 0
    if not content:
        print(said[-12000:], file=sys.stderr)
    print(f"{target:12} {inputs:>12} inputs {time.monotonic() - begin:8.0f} s  "
          f"{'nothing found' if content else 'STOPPED'}", flush=True)
    return 0 if content else 1


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=Path, help="the build folder of the preset `fuzz`")
    parser.add_argument("--seconds", type=int, default=60, help="for each target")
    parser.add_argument("--target", choices=TARGETS, help="this one alone")
    parser.add_argument("--jobs", type=int, default=1, help="so many at a time")
    options = parser.parse_args()
    if options.jobs < 1:
        parser.error("--jobs: at least 1")
    targets = [options.target] if options.target else list(TARGETS)
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        runs = [pool.submit(report, target, options) for target in targets]
        worst = max(run.result() for run in runs)
    if worst:
        print(f"what was found is in {options.build}/findings", file=sys.stderr)
    return worst


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, subprocess.TimeoutExpired) as error:
        print(error, file=sys.stderr)
        sys.exit(2)
