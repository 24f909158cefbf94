#!/usr/bin/env python3
"""Checks the architecture of the tree: who may include whom, and what no file may contain.

A file includes only from its own layer or a lower one, and never in a cycle. Headers in a layer's
detail/ folder are private: only that layer includes them. No two headers define a type of one name.
Each fault is printed as one line: the place, the rule, the remedy. The last line is the number of
faults; with any, the exit status is 1.
"""

import argparse
import re
import sys
from pathlib import Path

# Folder -> the folders that its files may include from, besides itself.
FRAMEWORK = ["framework"]
MODEL = FRAMEWORK + ["model/VirtualNetwork"]
LIBRARY = MODEL + ["model/OpenStack", "OpenStackSm"]
LAYERS = {
    "framework": [],
    "model/VirtualNetwork": FRAMEWORK,
    "model/OpenStack": MODEL,
    "OpenStackSm": MODEL + ["model/OpenStack"],
    "agent/json": [],
    "agent/document": MODEL + ["model/OpenStack", "agent/json"],
    "agent/plan": ["agent/document"],
    "agent/cloud": LIBRARY + ["agent/json", "agent/document", "agent/plan"],
    "agent/session": FRAMEWORK + ["agent/json", "agent/document", "agent/plan", "agent/cloud"],
    "agent/output": LIBRARY + ["agent/json", "agent/document", "agent/cloud", "agent/session"],
    "agent/import": ["agent/json", "agent/document"],
    "agent/live": LIBRARY + ["agent/json", "agent/document", "agent/plan", "agent/cloud",
                             "agent/session", "agent/output"],
    "agent/journal": ["agent/live"],
    "agent/server": FRAMEWORK + ["agent/json", "agent/live", "agent/journal"],
    "agent/client": ["agent/json", "agent/output"],
    "agent/load": ["agent/json", "agent/client"],
    "agent/ovsdb": ["agent/json"],
    "agent/export": ["agent/json", "agent/client", "agent/ovsdb"],
    "agent/cli": ["agent/client", "agent/export", "agent/load", "agent/server", "agent/journal",
                  "agent/live", "agent/json", "agent/document", "agent/session", "agent/output",
                  "agent/import"],
    "agent": ["agent/cli"],
    "bench": LIBRARY,
    "bench/live": ["agent/client", "agent/load"],
}
SOURCES = ("*.h", "*.cpp")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
NAMESPACE = re.compile(r"^namespace ([\w:]+)", re.M)
TYPE = re.compile(r"^(?:class|struct|union|enum(?: class)?) (?:\[\[.*?\]\] )?(\w+)(?![\w:<])[^;]*$",
                  re.M)
LEFTOVER = re.compile(r"\b(TODO|FIXME|XXX|HACK)\b")
LONGEST_LINE = 100


def layer_of(path: str) -> str | None:
    """The layer of a path: the longest folder of LAYERS that contains it."""
    folders = [f for f in LAYERS if path.startswith(f + "/")]
    return max(folders, key=len, default=None)


def private_to(path: str) -> str | None:
    """The layer that a header is private to; None for a public header."""
    return layer_of(path) if "/detail/" in path else None


def include_faults(path: str, text: str) -> list[str]:
    """Includes of a higher layer, of a layer beside it, or of another layer's private headers."""
    layer = layer_of(path)
    if layer is None:
        return []
    faults = []
    for included in INCLUDE.findall(text):
        target = layer_of(included)
        if target is None:
            faults.append(f"{path}: includes \"{included}\", which is in no layer; "
                          "name the header from the project's root")
        elif target != layer and target not in LAYERS[layer]:
            faults.append(f"{path}: {layer} may not include from {target} (\"{included}\"); "
                          "move what is shared to a lower layer")
        elif private_to(included) not in (None, layer):
            faults.append(f"{path}: \"{included}\" is private to {target}; "
                          "use a public header of that layer")
    return faults


def cycle_faults(includes: dict[str, list[str]]) -> list[str]:
    """Headers that include each other in a cycle."""
    faults: list[str] = []
    state: dict[str, int] = {}

    def visit(path: str, chain: list[str]) -> None:
        state[path] = 1
        for target in includes.get(path, []):
            if state.get(target) == 1:
                cycle = " -> ".join(chain[chain.index(target):] + [target])
                faults.append(f"{path}: includes in a cycle: {cycle}; break it")
            elif target in includes and target not in state:
                visit(target, chain + [target])
        state[path] = 2

    for path in sorted(includes):
        if path not in state:
            visit(path, [path])
    return faults


def text_faults(path: str, text: str) -> list[str]:
    """Leftover marks, long lines, headers without a guard or an opening comment."""
    faults = []
    for number, line in enumerate(text.splitlines(), 1):
        if LEFTOVER.search(line):
            faults.append(f"{path}:{number}: a leftover mark; do it or drop it")
        if len(line) > LONGEST_LINE:
            faults.append(f"{path}:{number}: {len(line)} columns; {LONGEST_LINE} at most")
    if path.endswith(".h"):
        if "#pragma once" not in text:
            faults.append(f"{path}: no #pragma once; add it")
        if not text.startswith("//"):
            faults.append(f"{path}: has no opening comment; say what it is for")
    return faults


def types_of(text: str) -> list[str]:
    """The types that a header defines outside any other, with their namespace."""
    namespace = NAMESPACE.search(text)
    prefix = namespace[1] + "::" if namespace else ""
    return [prefix + name for name in TYPE.findall(text)]


def name_faults(types: dict[str, list[str]]) -> list[str]:
    """Types that several headers define. In one program the linker keeps one of each of their
    inline functions, for objects of both."""
    return [f"{paths[-1]}: {name} is defined in {paths[0]} too; rename one of them"
            for name, paths in sorted(types.items()) if len(paths) > 1]


def dead_faults(includes: dict[str, list[str]]) -> list[str]:
    """Headers that nothing includes."""
    used = {target for targets in includes.values() for target in targets}
    return [f"{path}: no file includes it; delete it"
            for path in sorted(includes) if path.endswith(".h") and path not in used]


def check(root: Path) -> list[str]:
    """All faults of the tree."""
    faults: list[str] = []
    includes: dict[str, list[str]] = {}
    types: dict[str, list[str]] = {}
    for folder in ("framework", "model", "OpenStackSm", "agent", "bench", "tests", "examples"):
        for pattern in SOURCES:
            for file in sorted((root / folder).rglob(pattern)):
                path = file.relative_to(root).as_posix()
                text = file.read_text(encoding="utf-8")
                includes[path] = INCLUDE.findall(text)
                # The simulations are programs of their own.
                if path.endswith(".h") and not path.startswith("tests/sim/"):
                    for name in set(types_of(text)):
                        types.setdefault(name, []).append(path)
                faults += include_faults(path, text) + text_faults(path, text)
    return faults + name_faults(types) + cycle_faults(includes) + dead_faults(includes)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path, help="the project's root folder")
    faults = check(parser.parse_args().root)
    print(*faults, sep="\n", end="\n" if faults else "")
    print("the tree follows its architecture" if not faults else f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
