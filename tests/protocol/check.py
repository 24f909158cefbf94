#!/usr/bin/env python3
"""Checks the model of the sync protocol, and compares the region machine with it.

Four parts, with their files in a folder (--work):

1. the properties: spin searches every state of each model for a violation, and must find none;
2. the limits: what is not guaranteed, with a variant of the model for each, in which spin must find
   a violation;
3. the defects: one planted in the model at a time, which must violate the property that is named;
4. the conformance: the region machine takes every transition of the model (--conformance, the
   program that replays them).

Prints a line for each, and the steps that lead to a violation; the exit status is 1 when a part has
another result.
"""

import argparse
import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
SWITCH = "switch.pml"
ANY = "any_drivers.pml"
GOOD = "good_drivers.pml"
GOES_ON = "SyncsGoOnCompleting"
# Deeper than any search goes; a search that is cut short counts as failed.
DEPTH = 2000000
# An expected violation is searched within these depths first.
BOUNDS = (10, 20, 40)
# How many of the five notifications may be pending in the graph that the machine replays: with
# three, it would have four times as many transitions. The properties are searched with all five.
PENDING_IN_GRAPH = 2


@dataclass(frozen=True)
class Limit:
    """What does not hold, and is not guaranteed."""
    about: str
    model: str
    define: str
    breaks: str


LIMITS = [
    Limit("a driver that dies between grant and start leaves a lock that no timer frees",
          ANY, "EVERY_LOCK_IS_WATCHED", "EveryLockIsWatched"),
    Limit("if nobody clears such a lock, no driver that follows the protocol syncs again",
          GOOD, "NOBODY_CLEARS", GOES_ON),
    Limit("a driver that is alive but silent for the timeout can sync at the same time as another",
          GOOD, "SLOW_DRIVERS", "NeverTwoSyncs"),
]


@dataclass(frozen=True)
class Defect:
    """A change of switch.pml, and the property that it breaks in a model."""
    model: str
    breaks: str
    old: str
    new: str


GRANT = "requestId != NONE && granted == NONE && (owner == NOBODY || owner == requester) ->"
START = "     status = IN_PROGRESS;\n     handleHeartbeat()"
TIMEOUT = "inline handleTime() {\n  owner = NOBODY;\n  granted = NONE;\n"
DEFECTS = [
    Defect(ANY, "NeverTwoHolders", GRANT, "requestId != NONE ->"),
    Defect(ANY, "AGrantNamesItsRequest", "granted = requestId\n", "granted = 1\n"),
    Defect(ANY, "AFreeLockNamesNobody", "timerIs(0);\n     owner = NOBODY;\n", "timerIs(0);\n"),
    Defect(ANY, "TheOldStatusIsTheOneBefore",
           "oldStatus = status;\n  status = TIMED_OUT", "status = TIMED_OUT;\n  oldStatus = status"),
    Defect(ANY, "NoCompletionWithoutAStart",
           "announced == COMPLETE && status == IN_PROGRESS ->", "announced == COMPLETE ->"),
    Defect(ANY, "ACompletionFreesTheLock",
           "timerIs(0);\n     owner = NOBODY;\n     granted = NONE", "timerIs(0)"),
    Defect(ANY, "ASilentHolderLosesTheLock", TIMEOUT, "inline handleTime() {\n"),
    Defect(ANY, "ARunningSyncIsWatched", START, "     status = IN_PROGRESS"),
    Defect(GOOD, "ACompletionIsNeverRefused", "announced == IN_PROGRESS ->\n     oldStatus",
           "announced == IN_PROGRESS && status == COMPLETE -> skip\n"
           "  :: announced == IN_PROGRESS && status != COMPLETE ->\n     oldStatus"),
    Defect(GOOD, "NeverTwoSyncs", START, START + ";\n     granted = NONE;\n     owner = NOBODY"),
    Defect(GOOD, GOES_ON, "left == 1 -> left = 0; notify(ON_TIME)", "left == 1 -> left = 0"),
]


class Wrong(Exception):
    """Something is not as it must be."""


def run(command: list[str], cwd: Path, **how: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, cwd=cwd, text=True, check=True, **how)


def make_search(work: Path, model: str, defines: list[str], flags: list[str]) -> Path:
    """Builds the program that searches a model in the folder, where the models lie."""
    work.mkdir(parents=True, exist_ok=True)
    for name in (SWITCH, ANY, GOOD):
        if not (work / name).exists():
            (work / name).write_text((HERE / name).read_text("utf-8"), "utf-8")
    # With -o2, also what is written and only printed is part of a state.
    run(["spin", "-o2", *(f"-D{d}" for d in defines), "-a", model], work,
        stdout=subprocess.DEVNULL)
    run(["cc", "-w", "-O1", *flags, "-o", "pan", "pan.c"], work)
    return work / "pan"


def ran(pan: Path, *options: str) -> str:
    return run([str(pan), *options], pan.parent, stdout=subprocess.PIPE,
               stderr=subprocess.STDOUT).stdout


def steps_to_failure(work: Path, model: str, defines: list[str]) -> list[str]:
    """What the model prints on the way to what the search found."""
    output = run(["spin", *(f"-D{d}" for d in defines), "-T", "-B", "-t", model], work,
                 stdout=subprocess.PIPE).stdout
    return [line for line in output.splitlines() if line.startswith(("STEP", "BROKEN"))]


def search(work: Path, model: str, defines: list[str], liveness: bool,
           short: bool = False) -> tuple[str, list[str]]:
    """What a search says at its end, and the steps to what it found; the last names the property.

    With `short` it looks near the beginning first, so that the steps to a fault are few.
    """
    output = ""
    if short and not liveness:
        pan = make_search(work, model, defines, ["-DSAFETY", "-DNOCLAIM", "-DREACH"])
        for bound in BOUNDS:
            output = ran(pan, f"-m{bound}")
            if "errors: 1" in output:
                break
    if "errors: 1" not in output:
        flags = ["-DNFAIR=3"] if liveness else ["-DSAFETY", "-DNOCLAIM"]
        pan = make_search(work, model, defines, flags)
        output = ran(pan, f"-m{DEPTH}", *(["-a", "-f"] if liveness else []))
    if "errors: 0" in output and "search depth too small" not in output:
        states = re.search(r"(\d+) states, stored", output)
        moves = re.search(r"(\d+) transitions", output)
        return f"{states.group(1)} states, {moves.group(1)} transitions", []
    if "errors: 1" not in output:
        raise Wrong(f"{model}: the search did not come to its end:\n{output}")
    steps = steps_to_failure(work, model, defines)
    if "acceptance cycle" in output:
        steps.append(f"BROKEN {GOES_ON}")
    elif not steps or not steps[-1].startswith("BROKEN"):
        raise Wrong(f"{model}: spin found a fault that is no property:\n{output}")
    return "", steps


def must_hold(work: Path) -> None:
    for model, liveness in ((ANY, False), (GOOD, False), (GOOD, True)):
        what = f"{model}, {GOES_ON}" if liveness else model
        output, steps = search(work / "properties", model, [], liveness)
        if steps:
            if not liveness:
                steps = search(work / "properties", model, [], liveness, short=True)[1]
            raise Wrong("\n".join(steps) + f"\n{what}: a property is broken, by the steps above")
        print(f"holds    {what}: {output}", flush=True)


def must_break(work: Path, model: str, defines: list[str], property: str, what: str) -> None:
    output, steps = search(work, model, defines, property == GOES_ON, short=True)
    if not steps:
        raise Wrong(f"{what}: {property} must be broken, and holds in {output}")
    if steps[-1] != f"BROKEN {property}":
        raise Wrong(f"{what}: {property} must be broken, and what was found is {steps[-1]}, after\n"
                    + "\n".join(steps))
    print(f"broken   {property}, {what}", flush=True)


def plant(work: Path, defect: Defect) -> None:
    """Puts a model with the defect into the folder."""
    work.mkdir(parents=True, exist_ok=True)
    text = (HERE / SWITCH).read_text("utf-8")
    if text.count(defect.old) != 1:
        raise Wrong(f"{SWITCH} has {text.count(defect.old)} places like this, not one:\n"
                    f"{defect.old}")
    (work / SWITCH).write_text(text.replace(defect.old, defect.new), "utf-8")


def print_graph(work: Path) -> Path:
    """Every transition of the model in which drivers do what they like, in a file."""
    flags = ["-DSAFETY", "-DNOREDUCE", "-DPRINTF"]
    pan = make_search(work, ANY, ["GRAPH", f"PENDING={PENDING_IN_GRAPH}"], flags)
    graph = work / "graph"
    with graph.open("w", encoding="ascii") as out:
        run([str(pan), f"-m{DEPTH}"], work, stdout=out)
    output = graph.read_text("ascii")
    if "search depth too small" in output or "errors: 0" not in output:
        raise Wrong("the search for the graph did not come to its end")
    return graph


def conform(work: Path, program: str) -> None:
    """Has the machine take every transition of the model."""
    graph = print_graph(work)
    done = subprocess.run([program, str(graph)], text=True, stdout=subprocess.PIPE, check=False)
    graph.unlink()
    if done.returncode != 0:
        raise Wrong(f"{done.stdout}the machine does not do what the model says")
    print(f"conforms {done.stdout}", end="")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--work", type=Path, required=True, help="a folder for what is made")
    parser.add_argument("--conformance", required=True, help="the program that replays the model")
    arguments = parser.parse_args()
    work = arguments.work.resolve()
    subprocess.run(["rm", "-rf", str(work)], check=True)
    try:
        must_hold(work)
        for number, limit in enumerate(LIMITS):
            must_break(work / f"limit-{number}", limit.model, [limit.define], limit.breaks,
                       limit.about)
        for number, defect in enumerate(DEFECTS):
            plant(work / f"defect-{number}", defect)
            must_break(work / f"defect-{number}", defect.model, [], defect.breaks,
                       f"defect {number + 1} planted in {SWITCH}")
        conform(work / "conformance", arguments.conformance)
    except Wrong as wrong:
        print(wrong)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
