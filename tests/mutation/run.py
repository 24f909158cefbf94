#!/usr/bin/python3
"""Changes the code in one place at a time, and checks that a test notices.

    tests/mutation/run.py [--in FOLDER ...] [--sample N --seed S] [--only REGEX]

FOLDER is OpenStackSm, model, framework or agent; without one, all four. The chosen changes, the
mutants, are planted in a copy of the tree, which is built once. Then the tests of the folder run
for each mutant, with that mutant selected, until one of them fails. A mutant that makes a test
fail, crash or hang is killed; else it has survived.

Prints the survivors and the figures of each folder; writes every mutant with its fate to
results.tsv in the work folder. The exit status is 0 when at least --least percent were killed in
each folder and survivors.md, beside this script, explains each survivor.

Runs under Debian's own Python, which has the binding of libclang.
"""

import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import mutants as finding

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "protocol"))
import check as protocol  # noqa: E402

ROOT = HERE.parent.parent
FOLDERS = ("OpenStackSm", "model", "framework", "agent")
FLAGS = ["-x", "c++", "-std=c++20", f"-I{ROOT}", '-DVNAGENT_VERSION="0"']
# A run that takes this many times as long as one without a mutant counts as hanging.
HANG_FACTOR = 10
HANG_MARGIN = 20.0

Command = list[str | Path]


def say(text: str) -> None:
    print(text, flush=True)


class Program:
    """One of the programs that may kill a mutant: its build targets, and how it is run. WORK stands
    for the work folder, BIN for that of the programs, OUT for one that the run may write to."""

    def __init__(self, name: str, targets: list[str], *command: str) -> None:
        self.name = name
        self.targets = targets
        self.command = command

    def run_from(self, work: Path, out: Path) -> Command:
        places = {"WORK": work, "BIN": work / "build" / "bin", "OUT": out}
        return [re.sub(r"^(WORK|BIN|OUT)\b", lambda found: str(places[found[0]]), part)
                for part in self.command]


def unit_tests(folder: str) -> Program:
    return Program(f"{folder} tests", [f"{folder}_test"], f"BIN/{folder}_test", "--gtest_fail_fast",
                   "--gtest_brief=1")


def corpus(target: str, folder: str) -> Program:
    return Program(f"corpus of {target}", [f"fuzz_{target}"], f"BIN/fuzz_{target}",
                   str(ROOT / "tests" / "fuzz" / "corpus" / folder))


def script(name: str, path: str, *arguments: str) -> Program:
    return Program(name, ["vnagent"], sys.executable, str(ROOT / "tests" / path), "--binary",
                   "BIN/vnagent", *arguments)


SIMULATION = Program("simulation", ["library_simulation"], "BIN/library_simulation",
                     "--events", "16000", "--seed", "1", "--most-failures", "1", "--out", "OUT")
CONFORMANCE = Program("protocol", ["protocol_conformance"], "BIN/protocol_conformance",
                      "WORK/protocol/graph")
# What runs for a mutant of a folder, one after the other until one fails.
PROGRAMS = {
    "OpenStackSm": [unit_tests("OpenStackSm"), SIMULATION],
    "model": [unit_tests("model"), unit_tests("OpenStackSm"), SIMULATION],
    "framework": [unit_tests("framework"), unit_tests("model"), unit_tests("OpenStackSm"),
                  corpus("collections", "collections"), corpus("queue", "queue"), SIMULATION],
    "agent": [unit_tests("agent"), script("scenarios", "scenario/run.py"),
              script("simulation of the agent", "sim/agent/simulate.py", "--seeds", "1:10",
                     "--shrink-seconds", "0", "--most-failures", "1", "--out", "OUT"),
              corpus("document", "document"), corpus("events", "events"),
              corpus("neutron", "neutron"), corpus("values", "values")],
}


def planted_copy(work: Path, files: list[finding.File], chosen: set[int]) -> Path:
    """The tree with the chosen mutants in it; a file that is as it was last time keeps its time."""
    source = work / "source"
    skipped = {"build", ".git", "__pycache__"}
    planted = {file.name: file.planted(chosen) for file in files}
    for old in sorted(source.rglob("*"), reverse=True):
        if not (ROOT / old.relative_to(source)).exists():
            shutil.rmtree(old) if old.is_dir() else old.unlink()
    for folder, folders, names in os.walk(ROOT):
        folders[:] = [name for name in folders if name not in skipped]
        for name in names:
            path = Path(folder) / name
            relative = path.relative_to(ROOT)
            content = planted.get(relative.as_posix())
            if content is None:
                content = path.read_bytes()
            copy = source / relative
            copy.parent.mkdir(parents=True, exist_ok=True)
            if not copy.exists() or copy.read_bytes() != content:
                copy.write_bytes(content)
                shutil.copymode(path, copy)
    return source


def build(folder: Path, source: Path, targets: list[str], jobs: int) -> str:
    """Builds the programs; returns what the compiler printed, empty when all were built. Warnings
    are off: mutants make conditions constant and code unreachable."""
    flags = f"-std=c++20 -O1 -g0 -w -include {source}/tests/mutation/mutant.inc"
    subprocess.run(["cmake", "-S", source, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
                    f"-DCMAKE_CXX_FLAGS={flags}",
                    f"-DOPENSTACKSM_AGENT={'ON' if 'agent_test' in targets else 'OFF'}"],
                   check=True, stdout=subprocess.DEVNULL)
    done = subprocess.run(["cmake", "--build", folder, "--parallel", str(jobs),
                           "--target", *targets, "--", "-k", "0"], capture_output=True, text=True)
    return "" if done.returncode == 0 else done.stdout + done.stderr


def numbers_at_errors(output: str, source: Path) -> set[int]:
    """The mutants on the lines at which the compiler found errors."""
    found: set[int] = set()
    for name, line in set(re.findall(r"^(/[^:\n]+):(\d+):\d+: (?:fatal )?error: ", output, re.M)):
        if Path(name).is_relative_to(source):
            text = Path(name).read_bytes().splitlines()[int(line) - 1]
            found |= {int(number) for number in re.findall(rb"mutation::on\((\d+)\)", text)}
    return found


def build_what_compiles(work: Path, files: list[finding.File], chosen: set[int],
                        targets: list[str], jobs: int) -> set[int]:
    """Plants and builds the chosen mutants, without those that do not compile; returns the rest."""
    while True:
        source = planted_copy(work, files, chosen)
        output = build(work / "build", source, targets, jobs)
        if not output:
            return chosen
        refused = numbers_at_errors(output, source) & chosen
        if not refused:
            raise SystemExit(f"{output[-4000:]}\nthe mutants do not build")
        say(f"{len(refused)} mutants do not compile and are left out")
        chosen = chosen - refused


def run(command: Command, mutant: int, cwd: Path, limit: float | None) -> str:
    """"": the program succeeded; else how it failed."""
    environment = {**os.environ, "MUTANT": str(mutant)}
    # A process group of its own, so that what the program started ends with it.
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
    """Runs the programs of a mutant's folder with that mutant."""

    def __init__(self, work: Path, programs: dict[str, list[Program]]) -> None:
        self.work = work
        self.programs = programs
        self.limits: dict[str, float] = {}
        for program in {p.name: p for group in programs.values() for p in group}.values():
            begin = time.monotonic()
            if how := self.run(program, 0, None):
                raise SystemExit(f"without a mutant, the {program.name} end with a {how}")
            seconds = time.monotonic() - begin
            self.limits[program.name] = HANG_FACTOR * seconds + HANG_MARGIN
            say(f"without a mutant the {program.name} pass, in {seconds:.1f} s")

    def run(self, program: Program, mutant: int, limit: float | None) -> str:
        out = self.work / "runs" / str(mutant)
        out.mkdir(parents=True, exist_ok=True)
        how = run(program.run_from(self.work, out), mutant, out, limit)
        shutil.rmtree(out)
        return how

    def fate(self, mutant: finding.Mutant) -> str:
        for program in self.programs[mutant.file.split("/", 1)[0]]:
            if how := self.run(program, mutant.number, self.limits[program.name]):
                return f"killed by {program.name}: {how}"
        return "survived"


def explained() -> set[str]:
    """The survivors of which survivors.md says why no test can see them."""
    text = (HERE / "survivors.md").read_text("utf-8")
    return set(re.findall(r"^- `(.+)`", text, re.M))


def judge_all(judge: Judge, chosen: list[finding.Mutant], jobs: int,
              results: Path) -> dict[finding.Mutant, str]:
    """The fate of each mutant, printed where it survived, and written to a file."""
    fates: dict[finding.Mutant, str] = {}
    with results.open("w", encoding="utf-8") as table, ThreadPoolExecutor(jobs) as pool:
        for count, (mutant, fate) in enumerate(zip(chosen, pool.map(judge.fate, chosen)), 1):
            fates[mutant] = fate
            table.write(f"{fate}\t{mutant.number}\t{mutant.file}:{mutant.line}\t{mutant.key()}\n")
            table.flush()
            if fate == "survived":
                say(f"survived: line {mutant.line}: {mutant.key()}")
            if count % 100 == 0:
                say(f"{count} of {len(chosen)}")
    return fates


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--in", dest="folders", nargs="*", metavar="FOLDER",
                        help="of " + ", ".join(FOLDERS) + "; all without one")
    parser.add_argument("--sample", type=int, default=0, help="how many mutants; 0 for all")
    parser.add_argument("--seed", type=int, default=1, help="which mutants are in the sample")
    parser.add_argument("--only", default="", help="mutants of which the name matches this")
    parser.add_argument("--unit-tests", action="store_true",
                        help="run the unit tests of the folder alone: quicker, but sees less")
    parser.add_argument("--protocol", action="store_true",
                        help="run the conformance program of tests/protocol, and nothing else")
    parser.add_argument("--least", type=float, default=95.0, help="percent to be killed")
    parser.add_argument("--jobs", type=int, default=1, help="how many mutants run side by side")
    parser.add_argument("--work", type=Path, default=ROOT / "build" / "mutation")
    arguments = parser.parse_args()
    folders = arguments.folders or list(FOLDERS)
    if unknown := set(folders) - set(FOLDERS):
        parser.error(f"no folder to mutate: {', '.join(sorted(unknown))}")
    work = arguments.work.resolve()
    work.mkdir(parents=True, exist_ok=True)

    files, found = finding.find(ROOT, folders, FLAGS)
    chosen = [m for m in found if re.search(arguments.only, m.key())]
    if 0 < arguments.sample < len(chosen):
        chosen = sorted(random.Random(arguments.seed).sample(chosen, arguments.sample),
                        key=lambda m: m.number)
    say(f"{len(found)} mutants in {len(files)} files, of which {len(chosen)} are tried")

    programs = {folder: [CONFORMANCE] if arguments.protocol else
                PROGRAMS[folder][:1] if arguments.unit_tests else PROGRAMS[folder]
                for folder in folders}
    targets = sorted({t for group in programs.values() for p in group for t in p.targets})
    built = build_what_compiles(work, files, {m.number for m in chosen}, targets,
                                os.cpu_count() or 1)
    chosen = [m for m in chosen if m.number in built]
    if arguments.protocol:
        protocol.print_graph(work / "protocol")
    fates = judge_all(Judge(work, programs), chosen, arguments.jobs, work / "results.tsv")

    for fate, count in sorted(Counter(fates.values()).items()):
        say(f"{count:6} {fate}")
    good = True
    for folder in folders:
        of_folder = [fate for mutant, fate in fates.items() if mutant.file.startswith(folder + "/")]
        killed = sum(fate != "survived" for fate in of_folder)
        share = 100.0 * killed / max(1, len(of_folder))
        say(f"{folder}: killed {killed} of {len(of_folder)}, {share:.1f} %")
        good = good and (share >= arguments.least or not of_folder)
    reasons = explained()
    for mutant in [m for m, fate in fates.items() if fate == "survived" and m.key() not in reasons]:
        say(f"not in survivors.md: {mutant.key()}")
        good = False
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
