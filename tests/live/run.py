#!/usr/bin/env python3
"""Runs the tests of the live agent against the real process, several classes at a time.

One line is printed for each class of tests, and the output of those that failed. When all have
run, what the agent answered in them is held to the description that it gives of its interface: each
answer is described, and each answer that is described has been seen. The exit status is 1 when a
test failed, or the two differ.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from api.agent import Agent
from described import differences

HERE = Path(__file__).resolve().parent
FOLDERS = [HERE / "api", HERE / "server", HERE / "histories", HERE]


def classes(folder: Path) -> dict[tuple[Path, str], float]:
    """The classes of tests in the test_*.py of a folder, with about how long each takes."""
    loader = unittest.TestLoader()
    suite = loader.discover(str(folder), top_level_dir=str(folder))
    if loader.errors:
        sys.exit("\n".join(loader.errors))
    found: dict[tuple[Path, str], float] = {}
    pending = [suite]
    while pending:
        for test in pending.pop():
            if isinstance(test, unittest.TestSuite):
                pending.append(test)
            else:
                kind = type(test)
                key = folder, f"{kind.__module__}.{kind.__qualname__}"
                found[key] = found.get(key, getattr(kind, "cost", 0)) + 1
    return found


def run(folder: Path, name: str, environment: dict[str, str]) -> tuple[str, bool, str, float]:
    start = time.monotonic()
    result = subprocess.run([sys.executable, "-B", "-m", "unittest", name], cwd=folder,
                            env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, check=False)
    return name, result.returncode == 0, result.stdout, time.monotonic() - start


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True, help="the program to test")
    parser.add_argument("--only", default="", metavar="TEXT",
                        help="only classes whose name contains it")
    parser.add_argument("--jobs", type=int, default=4)
    arguments = parser.parse_args()
    sys.dont_write_bytecode = True
    os.environ["VNAGENT"] = str(Path(arguments.binary).resolve())
    found = {key: cost for folder in FOLDERS for key, cost in classes(folder).items()
             if arguments.only in key[1]}
    wanted = sorted(found, key=lambda key: -found[key])
    answers = tempfile.TemporaryDirectory(prefix="answers-")
    os.environ["LIVE_ANSWERS"] = answers.name
    if not wanted:
        print("no such tests")
        return 1
    with ThreadPoolExecutor(arguments.jobs) as pool:
        runs = [pool.submit(run, folder, name, dict(os.environ)) for folder, name in wanted]
        failed = 0
        for done in runs:
            name, passed, text, seconds = done.result()
            skipped = re.search(r"skipped=(\d+)", text)
            left = f" ({skipped[1]} skipped)" if skipped else ""
            print(f"{'ok    ' if passed else 'FAILED'} {seconds:6.1f} s  {name}{left}", flush=True)
            if not passed:
                failed += 1
                print(text, flush=True)
    print(f"{len(wanted)} classes of tests, {failed} failed")
    wrong = [] if arguments.only else differences(description(), Path(answers.name))
    for line in wrong:
        print(line)
    return 1 if failed or wrong else 0


def description() -> dict[str, Any]:
    del os.environ["LIVE_ANSWERS"]
    agent = Agent()
    try:
        return agent.start().client.get("/openapi.json").json
    finally:
        agent.close()


if __name__ == "__main__":
    sys.exit(main())
