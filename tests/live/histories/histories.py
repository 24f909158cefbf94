#!/usr/bin/env python3
"""Records short histories of several drivers on a live agent, and checks that each is linearizable.

The drivers write ports with and without conditions, read, take and hold the sync lock, and wait in
its line. They pause; some hang up, or send a request and do not look at its answer. Some agents are
stopped for a while (SIGSTOP), some have a short sync timeout, so that locks expire under their
holders, and some are killed (SIGKILL) and started again on their state directory. A history that no
order of its requests explains is printed with its seed, and the exit status is 1.
"""

import argparse
import multiprocessing
import os
import random
import signal
import sys
import time
from pathlib import Path
from typing import Any, NamedTuple

sys.path.insert(0, str(Path(__file__).resolve().parent))
sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from api.agent import Agent as Process  # noqa: E402
from checker import Call, Checker, History, Verdict  # noqa: E402
from model import Agent as Model  # noqa: E402
from model import Delete, Read, Replace, State, Sync  # noqa: E402
from recorder import Client, Recorder, Watcher  # noqa: E402
from workload import Actor, run_actors  # noqa: E402

# Of 40 histories in a row; the others have neither pauses of the agent nor expiries nor kills.
KINDS = {"stopped": range(0, 6), "expiring": range(6, 12), "killed": range(12, 14)}
EXPIRY = 0.02  # seconds, of the agents with a short sync timeout
LONG = 3600.0


def kind_of(number: int) -> str:
    place = number % 40
    return next((kind for kind, places in KINDS.items() if place in places), "plain")


class Outcome(NamedTuple):
    number: int
    kind: str
    calls: int
    unknown: int
    text: str  # of a history that is not linearizable


class Agents:
    """One process for the histories of each kind."""

    def __init__(self) -> None:
        self.processes: dict[str, Process] = {}

    def get(self, kind: str) -> Process:
        name = kind if kind in ("expiring", "killed") else "plain"
        if name not in self.processes:
            timeout = EXPIRY if name == "expiring" else LONG
            process = Process("--region-sync-timeout", str(timeout))
            if name == "killed":
                process.options += ["--state-dir", str(process.folder / "state")]
            self.processes[name] = process.start()
        return self.processes[name]

    def close(self) -> None:
        for process in self.processes.values():
            process.close()


def stop_for_a_while(process: Process, choices: random.Random) -> None:
    assert process.process is not None
    time.sleep(choices.uniform(0, 0.004))
    process.process.send_signal(signal.SIGSTOP)
    time.sleep(choices.uniform(0.001, 0.015))
    process.process.send_signal(signal.SIGCONT)


def kill(process: Process, history: History, choices: random.Random) -> None:
    time.sleep(choices.uniform(0.001, 0.025))
    process.kill()
    history.crashes.append(time.monotonic())
    process.start()


def record(number: int, seed: str, kind: str, process: Process) -> tuple[History, State, list[str]]:
    """The history, the state before it, and what a watch saw that does not fit."""
    choices = random.Random(seed)
    recorder = Recorder()
    history = History(recorder.calls)
    regions = [f"h{number}a", f"h{number}b"]
    initial = State(revision=process.client.revision())
    owner = Client("owner", process.socket, recorder)
    watcher = Watcher(process.socket)
    watcher.start()
    watcher.has_snapshot.wait(30)
    owner.call(Replace(regions[0], ((f"{regions[0]}-p0", 1),)))
    owner.call(Replace(regions[1], ()))
    pause = {"expiring": choices.choice([0.01, 0.03]), "killed": 0.006}.get(
        kind, choices.choice([0, 0, 0.002]))
    is_driver = kind == "expiring" or choices.random() < 0.5
    clients = [Client(f"c{index}", process.socket, recorder)
               for index in range(choices.choice([3, 4]))]
    actors = [Actor(client, regions, f"{seed}/{client.name}", pause, is_driver)
              for client in clients]

    def meanwhile() -> None:
        if kind == "stopped":
            stop_for_a_while(process, choices)
        elif kind == "killed":
            kill(process, history, choices)

    run_actors(actors, choices.randint(6, 8), meanwhile, lambda: False)
    for client in clients:
        client.settle()
        client.close()
    if kind == "killed":
        owner.close()
    owner.call(Read())
    for region in regions:
        owner.call(Sync(region))
        owner.call(Delete(region))
    watcher.ended(owner.call(Read())[1])
    owner.close()
    return history, initial, watcher.compare(history.calls)


def check(history: History, initial: State, kind: str) -> Verdict[State]:
    model = Model(EXPIRY if kind == "expiring" else LONG)
    return Checker(model, initial).check(history)


def shown(what: Any) -> str:
    """A call without what has its default."""
    fields = [f"{name}={shown(value) if hasattr(value, '_fields') else repr(value)}"
              for name, value in what._asdict().items()
              if value != what._field_defaults.get(name)]
    return f"{type(what).__name__}({', '.join(fields)})"


def described(history: History, initial: State, verdict: Verdict[State]) -> str:
    """The history in full, in order of time, in milliseconds since its start."""
    start = min(call.invoked for call in history.calls)

    def milliseconds(seconds: float) -> str:
        return f"{(seconds - start) * 1000:9.3f}"

    def line(call: Call) -> str:
        mark = ">" if call is verdict.at else " "
        until = milliseconds(call.returned)
        answer = call.answer if call.is_known else \
            "hung up" if call.closed < float("inf") else "outcome not known"
        when = f"{mark} {milliseconds(call.invoked)} {until}"
        return f"{when}  {call.client:5} {shown(call.what)}\n{'':24}{answer}"

    lines = [(call.invoked, line(call)) for call in history.calls]
    lines += [(crash, f"  {milliseconds(crash)} {'':9}  killed") for crash in history.crashes]
    text = [f"from {initial}", *(text for _, text in sorted(lines))]
    if verdict.is_linearizable:
        return "\n".join(text)
    text.append("no order of the requests explains the one with > and what follows; "
                f"{len(verdict.before)} states were possible before its answer:")
    text += [f"  {state}" for state in verdict.before[:10]]
    return "\n".join(text)


def work(arguments: tuple[int, list[int]]) -> list[Outcome]:
    seed, numbers = arguments
    agents, outcomes = Agents(), []
    try:
        for number in numbers:
            kind = kind_of(number)
            history, initial, faults = record(number, f"{seed}/{number}", kind, agents.get(kind))
            verdict = check(history, initial, kind)
            text = "\n".join(faults)
            if faults or not verdict.is_linearizable:
                text += described(history, initial, verdict)
            unknown = sum(not call.is_known for call in history.calls)
            outcomes.append(Outcome(number, kind, len(history.calls), unknown, text))
    finally:
        agents.close()
    return outcomes


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True, help="the program to test")
    parser.add_argument("--histories", type=int, default=100)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--only", type=int, metavar="N", help="only history N of the seed")
    parser.add_argument("--jobs", type=int, default=2)
    arguments = parser.parse_args()
    os.environ["VNAGENT"] = os.path.abspath(arguments.binary)
    numbers = list(range(arguments.histories)) if arguments.only is None else [arguments.only]
    # Parts that are small enough for the processes to end at about the same time, and as large as
    # that allows: an agent is killed and restarted several times.
    size = max(25, len(numbers) // (4 * arguments.jobs))
    parts = [numbers[first:first + size] for first in range(0, len(numbers), size)]
    began, done = time.monotonic(), []
    with multiprocessing.Pool(arguments.jobs) as pool:
        for outcomes in pool.imap_unordered(work, [(arguments.seed, part) for part in parts]):
            done += outcomes
            if sys.stderr.isatty():
                print(f"\r{len(done)} of {len(numbers)}", end="", file=sys.stderr, flush=True)
    failed = [outcome for outcome in done if outcome.text]
    for outcome in failed:
        print(f"history {outcome.number} ({outcome.kind}) of seed {arguments.seed} does "
              f"not fit\n{outcome.text}\n")
    counts = ", ".join(f"{sum(o.kind == kind for o in done)} {kind}"
                       for kind in ("plain", *KINDS))
    print(f"{len(done)} histories ({counts}) of {sum(o.calls for o in done)} requests, "
          f"{sum(o.unknown for o in done)} of them with no outcome, in "
          f"{time.monotonic() - began:.0f} s: {len(failed)} do not fit")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
