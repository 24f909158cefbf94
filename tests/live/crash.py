#!/usr/bin/env python3
"""Kills the live agent at random moments while drivers write and a watch looks on.

After each start: what was acknowledged is there, what was refused is not, no change is there in
half, a request that is sent again with its key is applied once, and the watch that resumes has
neither a gap nor a repetition.

Every other process has a disk that fails now and then (faulty_agent.cpp). While it fails, changes
are refused with 507 or 503, and what can be read is what is durable; when the faults end, changes
are taken again. A process that cannot open its journal for such a fault ends, and the next one goes
on.

The times of the kills and the seeds of the faults follow from --seed; what is in flight does not.
"""

import argparse
import http.client
import os
import random
import signal
import sys
import threading
import time
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent / "api"))
from agent import Agent, Answer, Client, Stream, merged, poll  # noqa: E402

DRIVERS = 4
PROBLEM = "application/problem+json"
LOST = (OSError, http.client.HTTPException)


class Failure(Exception):
    pass


def check(condition: bool, text: str) -> None:
    if not condition:
        raise Failure(text)


class Driver:
    """Adds a port and a network of the same name with each change, and takes old ones out."""

    KEPT = 20

    def __init__(self, client: Client, region: str) -> None:
        self.client = client
        self.region = region
        self.next = 0
        self.revisions: list[int] = []  # of the changes that were acknowledged
        self.acknowledged = -1  # the last of them
        self.pending = False  # whether an answer to the next one was lost
        self.mayRefuse = False  # the disk may fail
        self.refused = 0

    def name(self, number: int) -> str:
        return f"{self.region}.{number}"

    def change(self, stop: threading.Event) -> None:
        members: dict[str, Any] = {self.name(self.next): {}}
        if self.next >= self.KEPT:
            members[self.name(self.next - self.KEPT)] = None
        answer = self.client.patch({"region": {self.region: {"port": members, "network": members}}},
                                   headers={"Idempotency-Key": f"{self.region}-{self.next}"})
        if answer.status == 507 or (answer.status == 503 and self.mayRefuse):
            check(self.mayRefuse, f"change {self.next} is refused: {answer.body!r}")
            check(answer.media == PROBLEM, f"a refusal is no problem document: {answer.media}")
            self.refused += 1
            stop.wait(0.01)
            return
        check(answer.status == 200, f"change {self.next}: {answer.status} {answer.body!r}")
        revision = answer.json["revision"]
        check(not self.revisions or revision > self.revisions[-1],
              f"change {self.next} has revision {revision}, after {self.revisions[-1:]}")
        self.revisions.append(revision)
        self.acknowledged = self.next
        self.next += 1
        self.pending = False

    def run(self, stop: threading.Event) -> None:
        while not stop.is_set():
            try:
                self.change(stop)
            except LOST:
                self.pending = True
                return

    def last(self, cloud: Any) -> int:
        """The last change that is there; all of each is."""
        region = cloud.get("region", {}).get(self.region, {})
        ports, networks = region.get("port", {}), region.get("network", {})
        check(ports == networks, f"half a change: {ports} and {networks}")
        numbers = sorted(int(name.split(".")[1]) for name in ports)
        last = max(numbers, default=-1)
        first = max(0, last - self.KEPT + 1)
        check(numbers == list(range(first, last + 1)), f"ports {sorted(ports)}")
        return last

    def compare(self, cloud: Any) -> None:
        """What was acknowledged is there; the change that is pending may be, as a whole."""
        last = self.last(cloud)
        check(last in (self.acknowledged, self.next if self.pending else self.acknowledged),
              f"{self.region}: change {self.acknowledged} was acknowledged, {last} is there")


class Follower:
    """A watch of the cloud that resumes where it was."""

    def __init__(self, client: Client) -> None:
        self.client = client
        self.document: Any = None
        self.id: str | None = None
        self.revision = -1

    def run(self, stop: threading.Event) -> None:
        """Until the connection is lost; one that the agent ends is resumed."""
        while not stop.is_set():
            try:
                headers = {"Last-Event-ID": self.id} if self.id else {}
                stream = self.client.stream("/v1/watch?of=cloud", headers)
                if isinstance(stream, Answer):
                    if stream.status == 503 and stop.is_set():
                        return
                    raise Failure(f"the watch cannot resume at {self.id}: {stream.status} "
                                  f"{stream.body!r}")
                self.follow(stream)
            except LOST:
                return

    def follow(self, stream: Stream) -> None:
        while event := stream.next():
            if event.name == "snapshot":
                check(self.document is None, "a second snapshot")
                self.document = event.data
            elif event.name == "patch":
                check(event.revision > self.revision, f"{event.id} after {self.id}")
                self.document = merged(self.document, event.data)
            self.id, self.revision = event.id, event.revision


class Thread(threading.Thread):
    """Keeps the failure of what it runs."""

    def __init__(self, run: Any, *arguments: Any) -> None:
        super().__init__(daemon=True)
        self.work, self.arguments = run, arguments
        self.failure: Exception | None = None
        self.start()

    def run(self) -> None:
        try:
            self.work(*self.arguments)
        except Failure as failure:
            self.failure = failure

    def end(self) -> None:
        self.join(30)
        check(not self.is_alive(), "a client hangs")
        if self.failure:
            raise self.failure


class Reader:
    """Reads the cloud while it changes."""

    def __init__(self, client: Client, drivers: list[Driver], mayRefuse: bool) -> None:
        self.client, self.drivers, self.mayRefuse = client, drivers, mayRefuse

    def run(self, stop: threading.Event) -> None:
        while not stop.is_set():
            before = [driver.acknowledged for driver in self.drivers]
            try:
                answer = self.client.get("/v1/cloud")
            except LOST:
                return
            if answer.status == 503 and self.mayRefuse:  # what it was to show was taken back
                continue
            check(answer.status == 200, f"a read: {answer.status} {answer.body!r}")
            for driver, first in zip(self.drivers, before):
                last = driver.last(answer.json)
                check(first <= last <= driver.next,
                      f"{driver.region}: {last} is read, after {first}")
            stop.wait(0.02)


class Programs:
    """Which program the next process runs."""

    def __init__(self, well: Path, faulty: Path | None, choices: random.Random) -> None:
        self.well, self.faulty, self.choices = well, faulty, choices
        self.failedStarts = 0

    def start(self, agent: Agent, isFaulty: bool) -> bool:
        """Returns whether the disk fails."""
        for _ in range(4 if isFaulty else 0):
            os.environ["VNAGENT"] = str(self.faulty)
            os.environ["VNAGENT_DISK_SEED"] = str(self.choices.randrange(1 << 31))
            written = agent.log.stat().st_size if agent.log.exists() else 0
            try:
                agent.start()
                return True
            except AssertionError as fault:
                text = agent.log.read_text(errors="replace")[written:]
                isOver = agent.process is not None and agent.process.poll() == 4
                check(isOver and "disk: fault" in text and "journal repair" not in text,
                      f"the agent does not start: {fault}")
                self.failedStarts += 1
        os.environ["VNAGENT"] = str(self.well)
        agent.start()
        return False


def cycle(agent: Agent, drivers: list[Driver], follower: Follower, programs: Programs,
          isFaulty: bool) -> None:
    choices = programs.choices
    isFaulty = programs.start(agent, isFaulty)
    for driver in drivers:
        driver.mayRefuse = isFaulty
    answer = agent.client.get("/v1/cloud")
    if not (isFaulty and answer.status == 503):
        check(answer.status == 200, f"the first read: {answer.status} {answer.body!r}")
        for driver in drivers:
            driver.compare(answer.json)
    stop = threading.Event()
    reader = Reader(agent.client, drivers, isFaulty)
    clients: list[Follower | Reader | Driver] = [follower, reader, *drivers]
    threads = [Thread(client.run, stop) for client in clients]
    time.sleep(choices.uniform(0.01, 0.5 if isFaulty else 0.3))
    if isFaulty and choices.random() < 0.2:
        recover(agent, drivers)
    agent.kill()
    stop.set()
    for thread in threads:
        thread.end()


def recover(agent: Agent, drivers: list[Driver]) -> None:
    """When the disk works again, so do changes, without help."""
    assert agent.process
    agent.process.send_signal(signal.SIGUSR1)
    before = [driver.acknowledged for driver in drivers]
    poll(lambda: all(driver.acknowledged > last for driver, last in zip(drivers, before)),
         "changes are taken again")


def finish(agent: Agent, drivers: list[Driver], follower: Follower, programs: Programs) -> None:
    """The watch catches up, and no two changes have the same revision."""
    programs.start(agent, False)
    info = agent.client.get("/v1").json
    stop = threading.Event()
    thread = Thread(follower.run, stop)
    end = time.monotonic() + 20
    while follower.revision < info["revision"] and thread.is_alive() and time.monotonic() < end:
        time.sleep(0.01)
    stop.set()
    agent.terminate()
    thread.end()
    check(follower.revision == info["revision"], f"the watch is at {follower.id}, not at {info}")
    agent.start()
    check(follower.document == agent.client.cloud(), "the watch has another document")
    check(follower.id == f"{info['revision']}-{info['check']}",
          f"{follower.id} is not that of {info}")
    revisions = [revision for driver in drivers for revision in driver.revisions]
    check(len(set(revisions)) == len(revisions), "two changes have the same revision")
    agent.terminate()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True, type=Path, help="the program to test")
    parser.add_argument("--faulty", type=Path, metavar="PROGRAM",
                        help="the same on a disk that fails; default: faulty_agent beside it")
    parser.add_argument("--disk", choices=("both", "well", "faulty"), default="both",
                        help="which of the two to run (default: by turns)")
    parser.add_argument("--cycles", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    well = arguments.binary.resolve()
    faulty = (arguments.faulty or well.parent / "faulty_agent").resolve()
    for program in (well, faulty):
        if not program.exists():
            parser.error(f"there is no program {program}")
    choices = random.Random(arguments.seed)
    programs = Programs(well, faulty, choices)
    agent = Agent()
    agent.options += ["--state-dir", str(agent.folder / "state")]
    drivers = [Driver(agent.client, f"region-{number}") for number in range(DRIVERS)]
    follower = Follower(agent.client)
    number = 0
    try:
        for number in range(arguments.cycles):
            isFaulty = arguments.disk == "faulty" or (arguments.disk == "both" and number % 2 == 1)
            cycle(agent, drivers, follower, programs, isFaulty)
            if sys.stderr.isatty():
                print(f"\r{number + 1} of {arguments.cycles}", end="", file=sys.stderr)
        finish(agent, drivers, follower, programs)
    except (Failure, AssertionError) as failure:
        print(f"cycle {number + 1} of seed {arguments.seed}: {failure}", file=sys.stderr)
        print(agent.log.read_text(errors="replace")[-4000:], file=sys.stderr)
        return 1
    finally:
        agent.close()
    changes = sum(len(driver.revisions) for driver in drivers)
    refused = sum(driver.refused for driver in drivers)
    print(f"{arguments.cycles} crashes, {changes} changes acknowledged, none lost; {refused} "
          f"refused while the disk failed, none applied; {programs.failedStarts} starts failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
