#!/usr/bin/env python3
"""Runs the tests with frames: three switches in network namespaces, programmed by the exporter.

They need root, network namespaces and the packages openvswitch-switch and openvswitch-vtep. Where
something is missing, one line says what, and the exit status is 77: skipped. One test needs
neutron-server too, and is skipped alone. With --must, or with FABRIC_MUST=1 in the environment,
both are failures. One line is printed for each test, and the output of those that failed; the exit
status is 1 when one failed.
"""

import argparse
import os
import signal
import sys
import time
import unittest
from pathlib import Path
from types import TracebackType

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "examples" / "fabric")]

import namespaces  # noqa: E402
import racks  # noqa: E402
from fabric_test import FabricTest  # noqa: E402

SKIPPED = 77
ErrorInfo = (tuple[type[BaseException], BaseException, TracebackType] | tuple[None, None, None])


class Lines(unittest.TestResult):
    """One line for each test as it ends."""

    def startTest(self, test: unittest.TestCase) -> None:
        super().startTest(test)
        self.began = time.monotonic()

    def line(self, word: str, test: unittest.TestCase, trace: str = "") -> None:
        print(f"{word:6} {time.monotonic() - self.began:6.1f} s  {test.id()}{trace}", flush=True)
        if "\n" in trace and isinstance(test, FabricTest):
            test.explain()

    def addSuccess(self, test: unittest.TestCase) -> None:
        super().addSuccess(test)
        self.line("ok", test)

    def addSkip(self, test: unittest.TestCase, reason: str) -> None:
        super().addSkip(test, reason)
        self.line("skip", test, f": {reason}")

    def addFailure(self, test: unittest.TestCase, err: ErrorInfo) -> None:
        super().addFailure(test, err)
        self.line("FAILED", test, "\n" + self.failures[-1][1])

    def addError(self, test: unittest.TestCase, err: ErrorInfo) -> None:
        super().addError(test, err)
        self.began = getattr(self, "began", time.monotonic())
        self.line("ERROR", test, "\n" + self.errors[-1][1])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True, help="the program to test")
    parser.add_argument("--only", action="append", default=[], metavar="TEXT",
                        help="only tests whose name contains it; may be given several times")
    parser.add_argument("--must", action="store_true",
                        help="fail where the tests cannot run, instead of skipping them")
    arguments = parser.parse_args()
    must = arguments.must or os.environ.get("FABRIC_MUST") == "1"
    if why := namespaces.missing():
        print(f"{'FAILED' if must else 'skipped'}: no frames can be sent here: {why}")
        return 1 if must else SKIPPED
    sys.dont_write_bytecode = True
    os.environ["VNAGENT"] = str(Path(arguments.binary).resolve())
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
    racks.sweep()
    loader = unittest.TestLoader()
    loader.testNamePatterns = [f"*{text}*" for text in arguments.only] or None
    suite = loader.discover(str(HERE), top_level_dir=str(HERE))
    if loader.errors:
        sys.exit("\n".join(map(str, loader.errors)))
    result = Lines()
    suite.run(result)
    print(f"{result.testsRun} tests, {len(result.failures) + len(result.errors)} failed, "
          f"{len(result.skipped)} skipped")
    if must and result.skipped:
        print("FAILED: with --must nothing may be skipped")
        return 1
    return 0 if result.testsRun and result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
