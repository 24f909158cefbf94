#!/usr/bin/env python3
"""Finds words in code and pages that only this project uses, where the field has a name.

Looks at sources, scripts and pages, at names as well as prose. Each fault is printed as one line:
the place, the word, what to say instead. The exit status is 1 when there is a fault. A word with
another meaning, such as the floor of a number, needs a synonym too.
"""

import argparse
import re
import sys
from pathlib import Path

SUFFIXES = {".h", ".cpp", ".inc", ".py", ".md", ".cmake", ".txt", ".sh", ".dot", ".dox", ".pml"}
SKIPPED = {"build", ".git", "__pycache__", "corpus"}

# What not to say, as a regular expression, and what to say.
INSTEAD = [
    (r"stand-?ins?\b", "passive reactor"),
    (r"out[ -]of[ -]line|outOfLine|OutOfLine", "stale"),
    (r"in line with|inLine\b|InLine\b|bring \w+ in line|brought in line", "synced, synchronise"),
    (r"\bcrowds?\b", "displacement, or what there are many of"),
    (r"\bat hand\b", "free list, available"),
    (r"\b(is|are|was|were|be|been) told\b", "notified"),
    (r"\btells? (its|the|every|each|all|no) (notifiees?|watchers?|observers?)", "notifies"),
    (r"(?<!:)\bfloors?\b(?!\()", "layer"),
    (r"\bcounts of (a|the) training", "profile-guided optimisation, profile"),
    (r"\bhangs? on\b", "depends on"),
    (r"\b(the|a) way of (an?|one|the) (event|change)", "path"),
    (r"\bcomes? and goes?\b", "added and removed"),
    (r"\bdeaf\b", "inactive, unsubscribed"),
]
WORDS = [(re.compile(pattern, re.I if pattern.islower() else 0), better)
         for pattern, better in INSTEAD]


def faults_of(path: Path, name: str) -> list[str]:
    faults = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        for word, better in WORDS:
            if found := word.search(line):
                faults.append(f"{name}:{number}: \"{found[0]}\"; say: {better}")
    return faults


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path, help="the project's root folder")
    root = parser.parse_args().root.resolve()
    faults = []
    for path in sorted(root.rglob("*")):
        relative = path.relative_to(root)
        if path.is_file() and path.suffix in SUFFIXES and not SKIPPED & set(relative.parts) \
                and path != Path(__file__).resolve():
            faults += faults_of(path, relative.as_posix())
    print(*faults, sep="\n", end="\n" if faults else "")
    print("the words are common ones" if not faults else f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
