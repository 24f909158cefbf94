#!/usr/bin/env python3
"""Runs the tests of the export against the real ovsdb-server.

They need ovsdb-server and the schema, which tests/export/install gets, and no rights. Without them
the exit status is 77, with --required it is 1.
"""

import argparse
import os
import sys
import unittest
from pathlib import Path

from database import missing

HERE = Path(__file__).resolve().parent
SKIPPED = 77


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", type=Path, required=True, help="the agent's program")
    parser.add_argument("--required", action="store_true",
                        default=os.environ.get("VNAGENT_REQUIRE_OVSDB", "") not in ("", "0"),
                        help="fail where the packages are missing [$VNAGENT_REQUIRE_OVSDB]")
    parser.add_argument("-k", dest="patterns", action="append", metavar="PATTERN",
                        help="only tests whose name has this in it; may be given again")
    options = parser.parse_args()
    if absent := missing():
        print(f"{'FAILED' if options.required else 'skipped'}: missing {', '.join(absent)}; "
              "run tests/export/install")
        return 1 if options.required else SKIPPED
    os.environ["VNAGENT"] = str(options.binary.resolve())
    loader = unittest.TestLoader()
    if options.patterns:
        loader.testNamePatterns = [f"*{pattern}*" for pattern in options.patterns]
    suite = loader.discover(str(HERE), top_level_dir=str(HERE))
    if loader.errors:
        sys.exit("\n".join(loader.errors))
    result = unittest.TextTestRunner(verbosity=2 if options.patterns else 1).run(suite)
    return 0 if result.wasSuccessful() and result.testsRun else 1


if __name__ == "__main__":
    sys.exit(main())
