#!/usr/bin/env python3
"""Prints the results of the benchmarks as tables, the last of them with a row for each target.

A row's figures are medians over the repetitions of one run. Where both sides of a ratio ran in the
same group, they were interleaved. Exits with 0 also where a target is not met, with 1 where a figure
is missing; with --partial, rows whose figures were not asked for are left out.
"""

import argparse
import json
import re
import sys
from collections import defaultdict
from pathlib import Path
from statistics import median

SHAPES = ("spread", "packed")
SIZES = (1000, 10000, 100000, 1000000)
TARGET_SIZES = SIZES[1:]
# What Google Benchmark appends to a name.
SUFFIX = re.compile(r"/(iterations|repeats|min_time|min_warmup_time|manual_time|real_time).*$")


class Missing(Exception):
    """A figure that the results do not have."""


class Results:
    """Medians over the repetitions, by the benchmark's name and what was measured."""

    def __init__(self, document: dict) -> None:
        samples: dict[tuple[str, str], list[float]] = defaultdict(list)
        for run in document["benchmarks"]:
            if run["run_type"] != "iteration":
                continue
            name = SUFFIX.sub("", run["run_name"])
            for what, value in run.items():
                if isinstance(value, (int, float)):
                    samples[name, what].append(value)
        self.medians = {key: median(values) for key, values in samples.items()}
        self.counts = {key: len(values) for key, values in samples.items()}

    def get(self, name: str, what: str = "real_time") -> float:
        """The median; nanoseconds for times."""
        if (name, what) not in self.medians:
            raise Missing(f"{name} ({what})")
        return self.medians[name, what]

    def ratio(self, name: str, other: str, what: str = "real_time") -> float:
        """How many times `other` it is."""
        return self.get(name, what) / self.get(other, what)


class Table:
    """Lines of cells, printed with columns as wide as they need to be."""

    def __init__(self, title: str, *head: str) -> None:
        self.title = title
        self.lines: list[tuple[str, ...]] = [head]

    def add(self, *cells: str) -> None:
        self.lines.append(cells)

    def print(self) -> None:
        if len(self.lines) < 2:
            return
        widths = [max(len(cell) for cell in column) for column in zip(*self.lines)]
        print(f"\n{self.title}\n")
        for line in self.lines:
            first, *rest = (cell.ljust(width) if i == 0 else cell.rjust(width)
                            for i, (cell, width) in enumerate(zip(line, widths)))
            print("  " + "  ".join([first, *rest]).rstrip())


def number(value: float) -> str:
    """Three significant digits, in plain notation."""
    digits = 0 if value >= 100 else 1 if value >= 10 else 2 if value >= 1 else 3
    return f"{value:,.{digits}f}"


def cell(results: Results, name: str, what: str) -> str:
    try:
        return number(results.get(name, what))
    except Missing:
        return "-"


def print_binding(results: Results) -> None:
    """Nanoseconds of binding and of unbinding a port, each side beside the yardstick."""
    for family, text in (("bind", "while nearly all are bound, in random order"),
                         ("bind-all", "all of them, in random order"),
                         ("bind-hosts", "all of them, host by host")):
        table = Table(f"Binding and unbinding a port, {text} (ns; ratio to intern)",
                      "data", "side", "bind", "unbind", "both", "ratio")
        for shape in SHAPES:
            for ports in SIZES:
                data = f"{family}/{shape}/{ports}"
                for side in ("machines", "machines-whole", "intern", "ids", "std"):
                    name = f"{data}/{side}"
                    if (name, "real_time") not in results.medians:
                        continue
                    try:
                        ratio = number(results.ratio(name, f"{data}/intern"))
                    except Missing:
                        ratio = "-"
                    table.add(f"{shape} {ports:,}", side, cell(results, name, "bind"),
                              cell(results, name, "unbind"), cell(results, name, "real_time"),
                              ratio)
        table.print()


def print_memory(results: Results) -> None:
    """Bytes a port."""
    table = Table("Memory (bytes a port)", "data", "intern", "ids", "std", "outputs alone",
                  "machines: all", "inputs", "machines", "outputs")
    for shape in SHAPES:
        for ports in SIZES:
            data = f"memory/{shape}/{ports}"
            cells = [cell(results, f"{data}/{side}", "total")
                     for side in ("intern", "ids", "std", "outputs", "machines")]
            cells += [cell(results, f"{data}/machines", what)
                      for what in ("inputs", "machines", "outputs")]
            if any(c != "-" for c in cells):
                table.add(f"{shape} {ports:,}", *cells)
    table.print()


def targets(results: Results, quick: bool):
    """For each target: its name, a function that gives its figure, the bar."""
    for shape in SHAPES:
        for ports in TARGET_SIZES:
            data = f"bind/{shape}/{ports}"
            for what, text in (("real_time", "bind + unbind"), ("bind", "bind"),
                               ("unbind", "unbind")):
                yield (f"1 {text}, {shape} {ports:,}: machines / intern",
                       lambda d=data, w=what: results.ratio(f"{d}/machines", f"{d}/intern", w),
                       3.0 if what == "real_time" else None)
    for shape in SHAPES:
        for ports in TARGET_SIZES:
            if quick and ports > 100000:
                continue
            data = f"memory/{shape}/{ports}"
            yield (f"2 memory of everything, {shape} {ports:,}: machines / intern",
                   lambda d=data: results.ratio(f"{d}/machines", f"{d}/intern", "total"), 3.0)
            yield (f"2 memory of the outputs, {shape} {ports:,}: outputs / intern",
                   lambda d=data: results.ratio(f"{d}/outputs", f"{d}/intern", "total"), 1.0)
    for shape in SHAPES:
        def growth(side: str, s: str = shape) -> float:
            return results.get(f"bind/{s}/1000000/{side}", "bind") / results.get(
                f"bind/{s}/10000/{side}", "bind")
        yield (f"3 growth of bind from 10,000 to 1,000,000, {shape}: machines / intern",
               lambda g=growth: g("machines") / g("intern"), 1.3)


def print_targets(results: Results, quick: bool, partial: bool) -> int:
    """The last table; returns how many figures are missing."""
    table = Table("Targets (ratios within this run)", "target", "ratio", "bar", "met")
    missing = 0
    for name, figure, bar in targets(results, quick):
        try:
            value = figure()
        except Missing as lacking:
            if not partial:
                print(f"missing for \"{name}\": {lacking}", file=sys.stderr)
                missing += 1
            continue
        if bar is None:
            table.add(name, f"{value:.2f}", "", "")
        else:
            table.add(name, f"{value:.2f}", f"{bar:.2f}", "met" if value <= bar else "NOT MET")
    table.print()
    return missing


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results", type=Path, help="Google Benchmark's JSON")
    parser.add_argument("--quick", action="store_true", help="the results of a quick run")
    parser.add_argument("--partial", action="store_true", help="the results of a filtered run")
    arguments = parser.parse_args()
    results = Results(json.loads(arguments.results.read_text(encoding="utf-8")))
    print_binding(results)
    print_memory(results)
    missing = print_targets(results, arguments.quick, arguments.partial)
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
