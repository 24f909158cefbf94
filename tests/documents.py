#!/usr/bin/env python3
"""Compares the pages with the program: what they quote is what a reader will see.

In README.md, CONTRIBUTING.md and the pages of docs/, a block between a mark and "<!-- end -->" is

    <!-- output of: make run -->      the output of examples/run
    <!-- output of: COMMAND -->       "$ COMMAND" and its output, run in a shell at the project's
                                      root with the built programs in the PATH
    <!-- code of: FILE -->            that file

UUIDs are not compared. With --write the pages are updated.
"""

import argparse
import os
import re
import subprocess
import sys
from pathlib import Path

BLOCK = re.compile(r"<!-- (output|code) of: (.+?) -->\n```(\w*)\n(.*?)```\n<!-- end -->", re.S)
MARK = re.compile(r"^<!-- (output|code) of: ", re.M)
UUID = re.compile(r"\b[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\b")


def content(root: Path, vnagent: Path, kind: str, what: str) -> str:
    """What a block must contain."""
    if kind == "code":
        return (root / what).read_text(encoding="utf-8")
    if what == "make run":
        return output(root, [root / "examples" / "run", vnagent], {})
    programs = {"PATH": f"{vnagent.parent}{os.pathsep}{os.environ['PATH']}"}
    return f"$ {what}\n" + output(root, ["bash", "-c", f"set -o pipefail; {what}"], programs)


def output(root: Path, command: list[str | Path], environment: dict[str, str]) -> str:
    done = subprocess.run(command, cwd=root, env=os.environ | environment, capture_output=True,
                          text=True)
    if done.returncode != 0:
        raise SystemExit(f"{command}: exit status {done.returncode}\n{done.stderr}")
    return done.stdout


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path)
    parser.add_argument("vnagent", type=Path)
    parser.add_argument("--write", action="store_true", help="update the pages")
    options = parser.parse_args()
    root, vnagent = options.root.resolve(), options.vnagent.resolve()
    stale = []
    pages = [root / "README.md", root / "CONTRIBUTING.md", *sorted((root / "docs").rglob("*.md"))]
    for page in pages:
        text = page.read_text(encoding="utf-8")
        name = page.relative_to(root)

        def renew(block: re.Match[str]) -> str:
            kind, what, language, old = block.groups()
            new = content(root, vnagent, kind, what)
            if UUID.sub("UUID", new) == UUID.sub("UUID", old):
                return block.group(0)
            stale.append(f"{name}: stale: {kind} of {what}")
            return f"<!-- {kind} of: {what} -->\n```{language}\n{new}```\n<!-- end -->"

        renewed, blocks = BLOCK.subn(renew, text)
        if blocks != len(MARK.findall(text)):
            print(f"{name}: {len(MARK.findall(text))} marks, {blocks} blocks")
            return 1
        if options.write and renewed != text:
            page.write_text(renewed, encoding="utf-8")
    if stale and not options.write:
        print(*stale, "run tests/documents.py . VNAGENT --write", sep="\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
