#!/usr/bin/env python3
"""Checks that the installed headers are what an embedder needs.

Each compiles by itself with only the installed headers on the include path, and each of detail/ is
included by a public one. Each fault is printed with its remedy; the exit status is
1 when there is one.

    headers.py COMPILER INCLUDE_DIRECTORY
"""

import re
import subprocess
import sys
from pathlib import Path

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def main() -> int:
    compiler, root = sys.argv[1], Path(sys.argv[2])
    headers = {h.relative_to(root).as_posix(): INCLUDE.findall(h.read_text(encoding="utf-8"))
               for h in sorted(root.rglob("*.h"))}
    count = 0

    reached: set[str] = set()
    to_see = [h for h in headers if "/detail/" not in h]
    while to_see:
        header = to_see.pop()
        if header not in reached:
            reached.add(header)
            to_see += headers.get(header, [])
    for header in sorted(headers.keys() - reached):
        print(f"{header}: installed, but no public header includes it; "
              "exclude it in packaging/install.cmake")
        count += 1
    for header in sorted(reached - headers.keys()):
        print(f"{header}: not installed, but a public header includes it; "
              "take it out of what packaging/install.cmake excludes")
        count += 1

    for header in headers:
        result = subprocess.run(
            [compiler, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
             f"-I{root}", "-x", "c++", "-"],
            input=f'#include "{header}"\n', capture_output=True, text=True)
        if result.returncode != 0:
            print(f"{header}: does not compile by itself; include what it uses\n{result.stderr}")
            count += 1
    print(f"{len(headers)} headers, {count} faults")
    return 1 if count or not headers else 0


if __name__ == "__main__":
    sys.exit(main())
