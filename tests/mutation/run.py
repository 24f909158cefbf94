#!/usr/bin/python3
"""Changes the machines' code in one place at a time, and looks whether a test sees it.

    tests/mutation/run.py [--sample N --seed S] [--only REGEX] [--work build/mutation]

All changes are planted in a copy of the tree, which is built once; each mutant is then a run of the
machines' tests, stopped at the first that fails, with the mutant selected. What survives them meets
the simulation of the library. Killed is what makes a program fail, crash or hang.

Prints what survived, and the figures; writes every mutant with its fate to results.tsv in the work
folder. The exit status is 0 when at least --least percent were killed and survivors.md, beside this
script, explains each survivor.

Runs under Debian's own Python, which has its binding of libclang.
"""

import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

import mutants as finding

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "protocol"))
import check as protocol  # noqa: E402

ROOT = HERE.parent.parent
FOLDER = "OpenStackSm"
TESTS = "OpenStackSm_test"
SIMULATION = "library_simulation"
CONFORMANCE = "protocol_conformance"
# A run that takes this much longer than one without a mutant hangs.
PATIENCE = 20
SIMULATED = ["--events", "16000", "--seed", "1", "--most-failures", "1"]


def say(text: str) -> None:
    print(text, flush=True)


def changed_copy(work: Path, files: list[finding.File]) -> Path:
    """The tree with all mutants in it; what is the same as last time keeps its time."""
    source = work / "source"
    for old in sorted(source.rglob("*"), reverse=True):
        if not (ROOT / old.relative_to(source)).exists():
            shutil.rmtree(old) if old.is_dir() else old.unlink()
    planted = {file.name: file.planted() for file in files}
    skipped = shutil.ignore_patterns("build", ".git", FOLDER, "__pycache__")
    # The folder of the tests has the same name, and is not skipped.
    shutil.copytree(ROOT, source, dirs_exist_ok=True,
                    ignore=lambda at, names: skipped(at, names) if Path(at) == ROOT else set())
    for path in sorted((ROOT / FOLDER).rglob("*")):
        if path.is_dir():
            continue
        name = str(path.relative_to(ROOT))
        text = planted.get(name, path.read_text("utf-8"))
        copy = source / name
        copy.parent.mkdir(parents=True, exist_ok=True)
        if not copy.exists() or copy.read_text("utf-8") != text:
            copy.write_text(text, "utf-8")
    return source


def build(work: Path, source: Path) -> Path:
    """Builds the programs. Mutants make conditions constant and returns unreachable: no warnings."""
    folder = work / "build"
    flags = f"-std=c++20 -O0 -w -include {source}/tests/mutation/mutant.inc"
    subprocess.run(["cmake", "-S", source, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
                    f"-DCMAKE_CXX_FLAGS={flags}", "-DOPENSTACKSM_AGENT=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", folder, "--parallel", str(os.cpu_count()),
                    "--target", TESTS, SIMULATION, CONFORMANCE],
                   check=True)
    return folder / "bin"


def run(command: list[str | Path], mutant: int, cwd: Path, limit: float | None) -> str:
    """"": the program was content; else how it showed that it was not."""
    environment = {**os.environ, "MUTANT": str(mutant)}
    # A session of its own, so that what the program started ends with it.
    program = subprocess.Popen(command, env=environment, cwd=cwd, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        status = program.wait(limit)
    except subprocess.TimeoutExpired:
        os.killpg(program.pid, 9)
        program.wait()
        return "hang"
    return "" if status == 0 else "crash" if status < 0 else "failure"


class Judge:
    """Runs the programs for one mutant after the other."""

    def __init__(self, binaries: Path, cwd: Path, with_protocol: bool) -> None:
        self.cwd = cwd
        self.programs: dict[str, list[str | Path]] = {
            "tests": [binaries / TESTS, "--gtest_fail_fast", "--gtest_brief=1"],
            "simulation": [binaries / SIMULATION, *SIMULATED, "--out", cwd / "failures"],
        }
        if with_protocol:
            self.programs = {"protocol": [binaries / CONFORMANCE,
                                          protocol.print_graph(cwd / "protocol")]}
        self.limits: dict[str, float] = {}
        for name, command in self.programs.items():
            begin = time.monotonic()
            if how := run(command, 0, cwd, None):
                raise SystemExit(f"without a mutant, the {name} end with a {how}")
            self.limits[name] = PATIENCE * (time.monotonic() - begin) + 10
            say(f"without a mutant the {name} pass, in {time.monotonic() - begin:.1f} s")

    def fate(self, mutant: int) -> str:
        for name, command in self.programs.items():
            if how := run(command, mutant, self.cwd, self.limits[name]):
                return f"killed by {name}: {how}"
        return "survived"


def explained() -> set[str]:
    """The survivors of which survivors.md says why they live."""
    text = (HERE / "survivors.md").read_text("utf-8")
    return set(re.findall(r"^- `(.+)`", text, re.M))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=int, default=0, help="so many mutants; 0 for all")
    parser.add_argument("--seed", type=int, default=1, help="which, of a sample")
    parser.add_argument("--only", default="", help="mutants of which the name matches this")
    parser.add_argument("--protocol", action="store_true",
                        help="run the conformance program of tests/protocol, and nothing else")
    parser.add_argument("--least", type=float, default=90.0, help="percent to be killed")
    parser.add_argument("--work", type=Path, default=ROOT / "build" / "mutation")
    arguments = parser.parse_args()
    work = arguments.work.resolve()

    files, all_mutants = finding.find(ROOT, FOLDER, ["-x", "c++", "-std=c++20", f"-I{ROOT}"])
    chosen = [m for m in all_mutants if re.search(arguments.only, m.key())]
    if 0 < arguments.sample < len(chosen):
        chosen = sorted(random.Random(arguments.seed).sample(chosen, arguments.sample),
                        key=lambda m: m.number)
    say(f"{len(all_mutants)} mutants in {len(files)} files, of which {len(chosen)} are tried")
    judge = Judge(build(work, changed_copy(work, files)), work, arguments.protocol)

    fates: dict[str, list[finding.Mutant]] = {}
    with (work / "results.tsv").open("w", encoding="utf-8") as results:
        for count, mutant in enumerate(chosen, 1):
            fate = judge.fate(mutant.number)
            fates.setdefault(fate, []).append(mutant)
            results.write(f"{fate}\t{mutant.number}\t{mutant.file}:{mutant.line}\t"
                          f"{mutant.key()}\n")
            results.flush()
            if fate == "survived":
                say(f"survived: line {mutant.line}: {mutant.key()}")
            if count % 100 == 0:
                say(f"{count} of {len(chosen)}")

    survivors = fates.pop("survived", [])
    killed = sum(len(group) for group in fates.values())
    for fate in sorted(fates):
        say(f"{len(fates[fate]):6} {fate}")
    say(f"{len(survivors):6} survived")
    share = 100.0 * killed / max(1, len(chosen))
    say(f"killed: {killed} of {len(chosen)}, {share:.1f} %")
    unexplained = [m for m in survivors if m.key() not in explained()]
    for mutant in unexplained:
        say(f"not in survivors.md: {mutant.key()}")
    return 0 if share >= arguments.least and not unexplained else 1


if __name__ == "__main__":
    sys.exit(main())
