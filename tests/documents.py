#!/usr/bin/env python3
"""Holds the README to the program: what it shows is what a reader will see.

A block between "<!-- output of: make run -->" and "<!-- end -->" is the output of examples/run (UUIDs
aside); one after "<!-- code of: FILE -->" is that file. With --write the README is brought up to date.
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

BLOCK = re.compile(r"<!-- (output|code) of: (.+?) -->\n```(\w*)\n(.*?)```\n<!-- end -->", re.S)
UUID = re.compile(r"\b[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\b")


def content(root: Path, vnagent: Path, kind: str, what: str) -> str:
    """What a block must hold."""
    if kind == "code":
        return (root / what).read_text(encoding="utf-8")
    done = subprocess.run([root / "examples" / "run", vnagent], check=True, capture_output=True,
                          text=True)
    return done.stdout


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path)
    parser.add_argument("vnagent", type=Path)
    parser.add_argument("--write", action="store_true", help="bring the README up to date")
    options = parser.parse_args()
    readme = options.root / "README.md"
    text = readme.read_text(encoding="utf-8")
    stale = []

    def renew(block: re.Match[str]) -> str:
        kind, what, language, old = block.groups()
        new = content(options.root, options.vnagent, kind, what)
        if UUID.sub("UUID", new) == UUID.sub("UUID", old):
            return block.group(0)
        stale.append(what)
        return f"<!-- {kind} of: {what} -->\n```{language}\n{new}```\n<!-- end -->"

    renewed, blocks = BLOCK.subn(renew, text)
    if options.write:
        readme.write_text(renewed, encoding="utf-8")
    elif stale or blocks != 2:
        print(f"README.md: {blocks} blocks, stale: {stale}; run tests/documents.py . VNAGENT --write")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
