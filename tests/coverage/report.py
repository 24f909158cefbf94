#!/usr/bin/env python3
"""Runs the tests of framework, model and machines in a coverage build, and reports which branches
they took.

    tests/coverage/report.py build/coverage

A table by file, with the outcomes that no test had, goes to standard output and branches.txt, the
sources line by line to html/, both in the build folder. The exit status is 1 when
fewer than --least percent of a file's branches were taken.

A branch is an outcome of a condition in the source: true and false of each part of an `if`, a loop,
a `?:`, && and ||. Clang counts them in the source, so that nothing need be left out that a compiler
adds, such as the ways by which an exception leaves a call. Of a template all instances count
together; an inline function or template that no test makes the compiler emit does not count.
"""

import argparse
import json
import os
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
FOLDERS = ("framework", "model", "OpenStackSm")
COV = "llvm-cov-14"
PROFDATA = "llvm-profdata-14"


def run_tests(build: Path, raw: Path) -> list[Path]:
    """Runs the programs; each of their parts, also one stopped by an assertion, adds to its file."""
    raw.mkdir(exist_ok=True)
    for old in raw.glob("*.profraw"):
        old.unlink()
    programs = [build / "bin" / f"{folder}_test" for folder in FOLDERS]
    environment = {**os.environ, "LLVM_PROFILE_FILE": str(raw / "%m.profraw")}
    for program in programs:
        subprocess.run([program, "--gtest_brief=1"], env=environment, check=True)
    return programs


def llvm_cov(*arguments: object) -> str:
    """Runs llvm-cov; of its warnings one is left out, about inline functions that one of the
    programs has without using them."""
    done = subprocess.run([COV, *map(str, arguments)], check=False, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    for line in done.stderr.splitlines():
        if "functions have mismatched data" not in line:
            print(line, file=sys.stderr)
    done.check_returncode()
    return done.stdout


def outcomes(exported: str) -> dict[str, dict[tuple[int, int], list[bool]]]:
    """By file and place: whether a condition was true, and whether it was false.

    A file can come under two names, and a condition once for each instance of its template. What
    the compiler decides, an `if constexpr`, is no branch.
    """
    files: dict[str, dict[tuple[int, int], list[bool]]] = {}
    for file in json.loads(exported)["data"][0]["files"]:
        name = os.path.relpath(file["filename"], ROOT)
        source = (ROOT / name).read_text("utf-8").splitlines()
        for line, column, _, _, true, false, *_ in file["branches"]:
            if "if constexpr" in source[line - 1][:column]:
                continue
            taken = files.setdefault(name, {}).setdefault((line, column), [False, False])
            taken[0] |= true > 0
            taken[1] |= false > 0
    return files


def missed(places: dict[tuple[int, int], list[bool]]) -> list[str]:
    """The outcomes that no test had, as "line:column is never false"."""
    return [f"{line}:{column} is never {word}"
            for (line, column), taken in sorted(places.items())
            for word, had in zip(("true", "false"), taken) if not had]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=Path, help="the folder of the coverage build")
    parser.add_argument("--least", type=float, default=95.0, help="percent of each file's branches")
    arguments = parser.parse_args()
    build = arguments.build.resolve()

    programs = run_tests(build, build / "raw")
    profile = build / "tests.profdata"
    subprocess.run([PROFDATA, "merge", "--sparse", *(build / "raw").glob("*.profraw"),
                    "-o", profile], check=True)
    looked_at = [build / "lib" / "libOpenStackSm.so",
                 *(f"--object={program}" for program in programs), f"--instr-profile={profile}",
                 r"--ignore-filename-regex=(^|/)(tests|usr)/"]
    llvm_cov("show", *looked_at, "--format=html", f"--output-dir={build / 'html'}",
             "--show-branches=count")
    files = outcomes(llvm_cov("export", *looked_at, "--skip-functions", "--skip-expansions"))

    lines = [f"{'file':48} {'branches':>8} {'taken':>7}  missed"]
    total = not_taken = 0
    low = []
    for name, places in sorted(files.items()):
        without = missed(places)
        total += 2 * len(places)
        not_taken += len(without)
        share = 100.0 * (1 - len(without) / (2 * len(places)))
        lines.append(f"{name:48} {2 * len(places):8} {share:5.1f} %  {', '.join(without)}")
        if share < arguments.least:
            low.append(name)
    share = 100.0 * (1 - not_taken / max(1, total))
    lines.append(f"{'total':48} {total:8} {share:5.1f} %  {not_taken}")
    if low:
        lines.append(f"below {arguments.least} % by themselves: {', '.join(low)}")
    table = "\n".join(lines)
    (build / "branches.txt").write_text(table + "\n", "utf-8")
    print(table)
    if total == 0:
        print("no file with a branch was found")
    if low or total == 0:
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
