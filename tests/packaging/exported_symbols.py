#!/usr/bin/env python3
"""Checks that libOpenStackSm.so exports what it should.

Functions and variables that the library defines itself are listed one by one in a recorded file.
What the compiler emits wherever it is used (instances of templates, type information, vtables,
inline variables) differs between compilers and must match patterns. Each fault is printed with its
remedy; the exit status is 1 when there is one. --record writes the file anew.
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

NAMESPACES = r"(?:Kiv|OpenStack|VirtualNetwork)::"

# What may be exported wherever it comes from: type information and code of the public namespaces,
# of the standard library, and of the UUID generator's exceptions, which their headers export.
WEAK = re.compile(
    r"(?:typeinfo (?:name )?for |vtable for |VTT for |construction vtable for |guard variable for "
    r"|(?:non-)?virtual thunk to |TLS (?:init|wrapper) function for )?"
    rf"(?:[\w:<>, *&()]+ )?(?:{NAMESPACES}|std::|__gnu_cxx::|boost::(?:wrapexcept|exception"
    r"|exception_detail|uuids)\b|operator (?:new|delete)|DW\.ref\.)")

# What a sanitizer adds.
SANITIZER = re.compile(r"_*(?:odr_)?(?:asan|tsan|ubsan|sanitizer)[_.]")

# Kinds of nm: weak and unique symbols come from wherever they are used, the others from one source.
# Some compilers make type information of the second kind.
WEAK_KINDS = set("VvWwu")
TYPE_INFORMATION = re.compile(r"(?:typeinfo|vtable|VTT) ")


def exported(library: Path) -> list[tuple[str, str]]:
    """Kind and demangled name of each symbol that the library exports."""
    text = subprocess.run(["nm", "--dynamic", "--demangle", "--defined-only", library],
                          check=True, capture_output=True, text=True).stdout
    return [("V" if TYPE_INFORMATION.match(line[19:]) else line[17], line[19:])
            for line in text.splitlines()]


def faults(symbols: list[tuple[str, str]], recorded: set[str], list_file: Path) -> list[str]:
    """What is exported and should not be, and what should be and is not."""
    found = []
    for kind, name in sorted(set(symbols)):
        if SANITIZER.match(name):
            continue
        if kind in WEAK_KINDS:
            if not WEAK.match(name):
                found.append(f"exported, but of no public namespace: {name}\n    hide it: give its "
                             "declaration [[gnu::visibility(\"hidden\")]], or declare it in a .cpp "
                             "file")
        elif name not in recorded:
            found.append(f"exported, but not recorded: {name}\n    hide it: declare it in a detail/ "
                         "header or in an unnamed namespace; if it is public, run "
                         f"{Path(__file__).name} --record on the release build and commit "
                         f"{list_file.name}")
    strong = {name for kind, name in symbols if kind not in WEAK_KINDS}
    for name in sorted(recorded - strong):
        found.append(f"recorded, but not exported: {name}\n    programs that use it will not start: "
                     "does its header open with namespace [[gnu::visibility(\"default\")]]? If it is "
                     f"gone on purpose, run {Path(__file__).name} --record and commit "
                     f"{list_file.name}")
    return found


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("shared_object", type=Path, help="libOpenStackSm.so")
    parser.add_argument("--list", type=Path, help="the recorded file",
                        default=Path(__file__).with_suffix(".txt"))
    parser.add_argument("--record", action="store_true", help="write it anew")
    options = parser.parse_args()
    symbols = exported(options.shared_object)
    if options.record:
        strong = {n for k, n in symbols if k not in WEAK_KINDS and not SANITIZER.match(n)}
        options.list.write_text("".join(f"{n}\n" for n in sorted(strong)), encoding="utf-8")
        return 0
    recorded = set(options.list.read_text(encoding="utf-8").splitlines())
    found = faults(symbols, recorded, options.list)
    print(*found, sep="\n", end="\n" if found else "")
    print(f"{len(symbols)} symbols, {len(found)} faults")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
