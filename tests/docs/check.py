#!/usr/bin/env python3
"""Checks the pages: link targets and named files exist, and the drawing is made from its source.

In all *.md of the project: a relative link names a file or folder of it, and an anchor one of the
headings of that page; a path in backticks that looks like a source or document (`agent/main.cpp`)
is a file, seen from the project's root or from the page. Each fault is printed as one line: the
place, the rule, the remedy. The exit status is 1 when there is a fault.
"""

import argparse
import hashlib
import re
import sys
from pathlib import Path

SKIPPED = {"build", ".git", "__pycache__"}
FENCED = re.compile(r"^(```|~~~).*?^\1", re.S | re.M)
CODE = re.compile(r"`[^`\n]+`")
LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)(?: \"[^\"]*\")?\)")
HEADING = re.compile(r"^#{1,6} +(.+?) *#*$", re.M)
NAMED = re.compile(r"`((?:[\w.-]+/)+[\w-]+(?:\.\w+)*\.(?:h|cpp|py|md|json|jsonl|dot|svg))`")
ABROAD = re.compile(r"^[a-z][a-z0-9+.-]*:", re.I)


def pages(root: Path) -> list[Path]:
    return sorted(page for page in root.rglob("*.md")
                  if not SKIPPED & set(page.relative_to(root).parts))


def blank(found: re.Match[str]) -> str:
    """As many empty lines."""
    return "\n" * found.group(0).count("\n")


def anchors(page: Path) -> set[str]:
    """The anchors of a page's headings, as code hosts make them."""
    seen: dict[str, int] = {}
    names = set()
    for heading in HEADING.findall(FENCED.sub(blank, page.read_text(encoding="utf-8"))):
        text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading)
        name = re.sub(r"[^\w\- ]", "", text.lower()).replace(" ", "-")
        names.add(name if name not in seen else f"{name}-{seen[name]}")
        seen[name] = seen.get(name, 0) + 1
    return names


def link_fault(root: Path, page: Path, link: str) -> str | None:
    """The fault of a link; None without one."""
    if ABROAD.match(link):
        return None
    path, _, anchor = link.partition("#")
    target = (page.parent / path).resolve() if path else page
    if not target.is_relative_to(root) or not target.exists():
        return f"links to {link}, which does not exist; name a file of the project"
    if anchor and (target.suffix != ".md" or anchor not in anchors(target)):
        return f"links to {link}, which is no heading there; name one of its headings"
    return None


def page_faults(root: Path, page: Path) -> list[str]:
    text = FENCED.sub(blank, page.read_text(encoding="utf-8"))
    name = page.relative_to(root)
    faults = []
    for number, line in enumerate(text.splitlines(), 1):
        for link in LINK.findall(CODE.sub("", line)):
            if fault := link_fault(root, page, link):
                faults.append(f"{name}:{number}: {fault}")
        for path in NAMED.findall(line):
            if not (root / path).exists() and not (page.parent / path).exists() \
                    and not path.startswith("build/"):
                faults.append(f"{name}:{number}: names {path}, which does not exist; "
                              "correct the path")
    return faults


def drawing_faults(root: Path) -> list[str]:
    """Drawings that were made from another source than the one beside them."""
    faults = []
    for source in sorted((root / "docs").rglob("*.dot")):
        drawing = source.with_suffix(".svg")
        digest = hashlib.sha256(source.read_bytes()).hexdigest()
        if not drawing.exists() or f"source sha256: {digest}" not in drawing.read_text("utf-8"):
            faults.append(f"{drawing.relative_to(root)}: was not made from {source.name}; "
                          "run docs/draw")
    return faults


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path, help="the project's root folder")
    root = parser.parse_args().root.resolve()
    faults = [fault for page in pages(root) for fault in page_faults(root, page)]
    faults += drawing_faults(root)
    print(*faults, sep="\n", end="\n" if faults else "")
    print("the pages are consistent" if not faults else f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
