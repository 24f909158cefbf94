#!/usr/bin/env python3
"""Runs the tests of a preset through ctest, and prints one line for each suite.

    tests/run.py [--preset release] [--only REGEX]

A suite is what the names of its tests have before the first "/"; a test without one is a suite by
itself. A suite's line appears when the last of its tests has ended. Then come why tests were
skipped, the output of each test that failed and the names of these tests, and last ctest's own
closing line. The exit status is that of ctest.
"""

import argparse
import json
import re
import subprocess
import sys
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
START = re.compile(r"^\s*Start\s+\d+: ")
RESULT = re.compile(r"^\s*\d+/\d+ Test\s+#\d+: (?P<name>.+?) \.*\s*"
                    r"(?P<outcome>Passed|[^.]*\*\*\*.*?)\s+(?P<seconds>[\d.]+) sec")
CLOSING = re.compile(r"^\d+% tests passed, \d+ tests? failed out of \d+")


def suite_of(test: str) -> str:
    return test.split("/", 1)[0]


@dataclass
class Suite:
    tests: int
    ended: int = 0
    failed: int = 0
    skipped: int = 0
    seconds: float = 0.0

    def line(self, name: str) -> str:
        outcome = "passed"
        if self.failed or self.skipped:
            outcome = f"{self.failed} FAILED" if self.failed else f"{self.skipped} SKIPPED"
        count = f"{self.tests} test" + ("s" if self.tests != 1 else "")
        return f"{name:28}{count:>12}  {outcome:12}{self.seconds:8.1f} s"


@dataclass
class Report:
    """What ctest's output says, line by line."""
    suites: dict[str, Suite]
    # The lines of ctest for each test that failed: its result, then its output.
    failures: dict[str, list[str]] = field(default_factory=dict)
    skipped: list[str] = field(default_factory=list)
    closing: str = ""
    current: str | None = None

    def read(self, line: str) -> None:
        if found := RESULT.match(line):
            self.ended(found["name"], found["outcome"], float(found["seconds"]), line)
        elif CLOSING.match(line):
            self.closing = line
            self.current = None
        elif START.match(line):
            self.current = None
        elif self.current is not None:
            self.failures[self.current].append(line)

    def ended(self, name: str, outcome: str, seconds: float, line: str) -> None:
        suite = self.suites.setdefault(suite_of(name), Suite(1))
        suite.ended += 1
        suite.seconds += seconds
        self.current = None
        if outcome.startswith("***Skipped"):
            suite.skipped += 1
            self.skipped.append(name)
        elif outcome != "Passed":
            suite.failed += 1
            self.failures[name] = [line]
            self.current = name
        if suite.ended == suite.tests:
            print(suite.line(suite_of(name)), flush=True)


def output_of(test: str, log: str) -> str:
    """What a test printed, from the log that ctest keeps; it prints that of failed ones alone."""
    found = re.search(rf"^\d+/\d+ Test: {re.escape(test)}\n.*?^Output:\n-+\n(.*?)\n?"
                      "<end of output>", log, re.M | re.S)
    return found[1].strip() if found else "its output is in ctest's log"


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--preset", default="release", help="a test preset of CMakePresets.json")
    parser.add_argument("--only", default="", metavar="REGEX", help="the tests of matching name")
    arguments = parser.parse_args()
    command = ["ctest", "--preset", arguments.preset]
    if arguments.only:
        command += ["--tests-regex", arguments.only]

    listing = subprocess.run([*command, "--show-only=json-v1"], cwd=ROOT, capture_output=True,
                             text=True)
    if listing.returncode != 0:
        print(listing.stdout + listing.stderr, file=sys.stderr)
        return listing.returncode
    counts = Counter(suite_of(test["name"]) for test in json.loads(listing.stdout)["tests"])
    report = Report({name: Suite(count) for name, count in counts.items()})

    ctest = subprocess.Popen([*command, "--output-on-failure"], cwd=ROOT, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, errors="replace")
    assert ctest.stdout is not None
    for line in ctest.stdout:
        report.read(line.rstrip("\n"))
    status = ctest.wait()

    for name, suite in report.suites.items():
        if suite.ended != suite.tests:
            print(f"{name}: {suite.tests - suite.ended} of {suite.tests} tests did not run")
    for name in report.skipped:
        log = ROOT / "build" / arguments.preset / "Testing" / "Temporary" / "LastTest.log"
        text = log.read_text(errors="replace") if log.exists() else ""
        print(f"\n{name}: {output_of(name, text)}")
    for name, lines in report.failures.items():
        print(f"\n--- {name}", "\n".join(lines).rstrip(), sep="\n")
    if report.failures:
        print("\nFailed:", *report.failures, sep="\n  ")
        print()
    print(report.closing or f"ctest ended with exit status {status} and no result")
    return status or (0 if report.closing else 1)


if __name__ == "__main__":
    sys.exit(main())
