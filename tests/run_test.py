#!/usr/bin/env python3
"""The test driver of tests/run.py, given lines as ctest prints them."""

import contextlib
import io
import unittest

from run import Report, Suite, output_of

LINES = """\
Test project /project/build/release
      Start  1: framework/Ptr.Counts
      Start  2: framework/Keys/0  # GetParam() = 3
 1/5 Test  #1: framework/Ptr.Counts ..............   Passed    0.01 sec
      Start  3: agent/Values.Print
 2/5 Test  #2: framework/Keys/0  # GetParam() = 3    Passed    0.02 sec
 3/5 Test  #3: agent/Values.Print ................***Failed    0.50 sec
values_test.cpp:12: Failure
  1 vs. 2

      Start  4: agent/Values.Crash
 4/5 Test  #4: agent/Values.Crash ................Subprocess aborted***Exception:   0.10 sec
the last words
      Start  5: scenario
 5/5 Test  #5: scenario ..........................***Timeout 100.00 sec

40% tests passed, 3 tests failed out of 5

Total Test time (real) = 101.00 sec

The following tests FAILED:
\t  3 - agent/Values.Print (Failed)
""".splitlines()


class DriverTest(unittest.TestCase):
    def setUp(self) -> None:
        self.report = Report({"framework": Suite(2), "agent": Suite(2), "scenario": Suite(1)})
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            for line in LINES:
                self.report.read(line)
        self.printed = printed.getvalue().splitlines()

    def test_each_suite_has_one_line(self) -> None:
        self.assertEqual([line.split()[:5] for line in self.printed],
                         [["framework", "2", "tests", "passed", "0.0"],
                          ["agent", "2", "tests", "2", "FAILED"],
                          ["scenario", "1", "test", "1", "FAILED"]])

    def test_output_stays_with_the_test_that_failed(self) -> None:
        failures = self.report.failures
        self.assertEqual(list(failures),
                         ["agent/Values.Print", "agent/Values.Crash", "scenario"])
        self.assertIn("values_test.cpp:12: Failure", failures["agent/Values.Print"])
        self.assertNotIn("the last words", failures["agent/Values.Print"])
        self.assertIn("the last words", failures["agent/Values.Crash"])

    def test_a_skipped_test_does_not_look_passed(self) -> None:
        report = Report({"fabric": Suite(1)})
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            report.read("1/1 Test #1: fabric ...........................***Skipped   0.05 sec")
        self.assertEqual(printed.getvalue().split()[:5], ["fabric", "1", "test", "1", "SKIPPED"])
        self.assertEqual(report.skipped, ["fabric"])
        self.assertEqual(report.failures, {})

    def test_why_a_test_was_skipped_is_in_the_log_of_ctest(self) -> None:
        log = """\
1/2 Testing: fabric
1/2 Test: fabric
Command: "python3" "run.py"
Directory: /build
"fabric" start time: Nov 22 17:00 UTC
Output:
----------------------------------------------------------
skipped: needs root
<end of output>
Test time =   0.05 sec
"""
        self.assertEqual(output_of("fabric", log), "skipped: needs root")
        self.assertIn("log", output_of("other", log))

    def test_closing_line_is_that_of_ctest(self) -> None:
        self.assertEqual(self.report.closing, "40% tests passed, 3 tests failed out of 5")


if __name__ == "__main__":
    unittest.main()
