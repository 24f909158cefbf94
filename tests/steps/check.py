#!/usr/bin/env python3
"""Checks that no change costs more in a larger cloud.

`operations` makes each kind of change on clouds of two sizes, which differ in one number: of ports,
hosts, networks, regions or pending notifications. Valgrind's callgrind counts the instructions,
which are the same on a busy machine and an idle one. The median of each kind is compared, since now
and then a table is enlarged, a cost that is amortised. A kind whose median grows by more than the
tolerance is printed; the exit status is 1 when there is one.
"""

import argparse
import re
import statistics
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple


class Shape(NamedTuple):
    """A cloud, in the order of the arguments of `operations`."""
    ports: int = 500
    hosts: int = 25
    networks: int = 25
    regions: int = 1
    waiting: int = 0
    toggle: str = "on"


# What grows, sixteenfold each time, so that tables that double have the same load. Ports and
# networks are on two hosts, so that the entries of a host grow nearly as much; more hosts or
# networks need ports that use them, so there are many ports in both sizes.
GROWTH = {
    "ports": (Shape(hosts=2, networks=2), Shape(ports=8000, hosts=2, networks=2)),
    "ports, with network elements": (Shape(hosts=2, networks=2, toggle="off"),
                                     Shape(ports=8000, hosts=2, networks=2, toggle="off")),
    "hosts": (Shape(ports=8000, hosts=500), Shape(ports=8000, hosts=8000)),
    "hosts, with network elements": (Shape(ports=8000, hosts=500, toggle="off"),
                                     Shape(ports=8000, hosts=8000, toggle="off")),
    "networks": (Shape(ports=8000, hosts=2, networks=125),
                 Shape(ports=8000, hosts=2, networks=2000)),
    "regions": (Shape(regions=125), Shape(regions=2000)),
    "waiting notifications": (Shape(waiting=313), Shape(waiting=5008)),
}

# The same for patches to a session: all of a cloud grows. A host has 20 ports in both sizes, as the
# sets of the output are printed whole where they change.
GROWTH_OF_PATCHES = {
    "of everything": (Shape(hosts=25, networks=25, regions=5),
                      Shape(ports=8000, hosts=400, networks=400, regions=80)),
}

# How much more a change may take in the larger cloud, as a factor and a number of instructions: for
# longer keys, and for binary searches and hash chains.
FACTOR = 1.15
CONSTANT = 200

DUMP = re.compile(r"^desc: Trigger: Client Request: (.*)\n(?:.*\n)*?summary: (\d+)$", re.M)


def count(valgrind: str, binary: Path, shape: Shape) -> dict[str, float]:
    """The median of the instructions of each kind of change."""
    with tempfile.TemporaryDirectory() as folder:
        dumps = Path(folder) / "dumps"
        run = subprocess.run(
            [valgrind, "--tool=callgrind", "--instr-atstart=no", "--combine-dumps=yes",
             f"--callgrind-out-file={dumps}", binary, *map(str, shape)],
            capture_output=True, text=True, check=False)
        if run.returncode != 0:
            sys.exit(f"{binary.name} {shape}: exit status {run.returncode}\n{run.stderr}")
        counted: dict[str, list[float]] = {}
        for name, steps in DUMP.findall(dumps.read_text(encoding="utf-8")):
            name, _, times = name.partition("/")  # of so many alike, where a number follows
            counted.setdefault(name, []).append(int(steps) / int(times or 1))
    return {name: statistics.median(steps) for name, steps in counted.items()}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("binary", type=Path, help="the program `operations`, or `patches`")
    parser.add_argument("--patches", action="store_true", help="it is `patches`")
    parser.add_argument("--valgrind", default="valgrind", help="the program to count with")
    parser.add_argument("--verbose", action="store_true", help="print what was counted, too")
    arguments = parser.parse_args()

    growth = GROWTH_OF_PATCHES if arguments.patches else GROWTH
    shapes = list(dict.fromkeys(shape for pair in growth.values() for shape in pair))
    with ThreadPoolExecutor(max_workers=2) as pool:
        counts = dict(zip(shapes, pool.map(
            lambda shape: count(arguments.valgrind, arguments.binary.resolve(), shape), shapes)))

    compared = 0
    faults = []
    for what, (small, large) in growth.items():
        if not counts[small] or counts[small].keys() != counts[large].keys():
            sys.exit(f"{what}: not the same changes were counted in both sizes")
        for name, before in counts[small].items():
            after = counts[large][name]
            compared += 1
            line = f"{name}: {before:.0f} steps, and {after:.0f} with more {what}"
            if arguments.verbose:
                print(line)
            if after > FACTOR * before + CONSTANT:
                faults.append(line)
    for fault in faults:
        print(f"grows: {fault}")
    print(f"{compared} changes compared, {len(faults)} grow")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
