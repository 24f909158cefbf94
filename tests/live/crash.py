#!/usr/bin/env python3
"""Kills the live agent at random moments while drivers write and a watch looks on.

After each start: what was acknowledged is there, no change is there in half, a request that is sent
again with its key is applied once, and the watch that resumes has neither a gap nor a repetition. The
times of the kills follow from --seed; what is in flight at that time does not.
"""

import argparse
import http.client
import os
import random
import sys
import threading
import time
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent / "api"))
from agent import Agent, Answer, Client, Stream, merged  # noqa: E402

DRIVERS = 4
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
        self.pending = False  # whether the answer to the next one was lost

    def name(self, number: int) -> str:
        return f"{self.region}.{number}"

    def change(self) -> None:
        members: dict[str, Any] = {self.name(self.next): {}}
        if self.next >= self.KEPT:
            members[self.name(self.next - self.KEPT)] = None
        answer = self.client.patch({"region": {self.region: {"port": members, "network": members}}},
                                   headers={"Idempotency-Key": f"{self.region}-{self.next}"})
        if answer.status == 503:  # it is stopping, or restoring
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
                self.change()
            except LOST:
                self.pending = True
                return

    def compare(self, cloud: Any) -> None:
        """What was acknowledged is there; the change that is pending may be, as a whole."""
        region = cloud.get("region", {}).get(self.region, {})
        ports, networks = region.get("port", {}), region.get("network", {})
        check(ports == networks, f"half a change: {ports} and {networks}")
        numbers = sorted(int(name.split(".")[1]) for name in ports)
        last = max(numbers, default=-1)
        check(last in (self.acknowledged, self.next if self.pending else self.acknowledged),
              f"{self.region}: change {self.acknowledged} was acknowledged, {last} is there")
        first = max(0, last - self.KEPT + 1)
        check(numbers == list(range(first, last + 1)), f"ports {sorted(ports)}")


class Follower:
    """A watch of the cloud that resumes where it was."""

    def __init__(self, client: Client) -> None:
        self.client = client
        self.document: Any = None
        self.id: str | None = None
        self.revision = -1

    def run(self) -> None:
        try:
            headers = {"Last-Event-ID": self.id} if self.id else {}
            stream = self.client.stream("/v1/watch?of=cloud", headers)
            if isinstance(stream, Answer):
                raise Failure(f"the watch cannot resume at {self.id}: {stream.status} {stream.body!r}")
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


def cycle(agent: Agent, drivers: list[Driver], follower: Follower, choices: random.Random) -> None:
    agent.start()
    cloud = agent.client.cloud()
    for driver in drivers:
        driver.compare(cloud)
    stop = threading.Event()
    threads = [Thread(follower.run)] + [Thread(driver.run, stop) for driver in drivers]
    time.sleep(choices.uniform(0.01, 0.3))
    agent.kill()
    stop.set()
    for thread in threads:
        thread.end()


def finish(agent: Agent, drivers: list[Driver], follower: Follower) -> None:
    """The watch catches up, and no two changes have the same revision."""
    agent.start()
    info = agent.client.get("/v1").json
    thread = Thread(follower.run)
    end = time.monotonic() + 20
    while follower.revision < info["revision"] and thread.is_alive() and time.monotonic() < end:
        time.sleep(0.01)
    agent.terminate()
    thread.end()
    check(follower.revision == info["revision"], f"the watch is at {follower.id}, not at {info}")
    agent.start()
    check(follower.document == agent.client.cloud(), "the watch has another document")
    check(follower.id == f"{info['revision']}-{info['check']}", f"{follower.id} is not that of {info}")
    revisions = [revision for driver in drivers for revision in driver.revisions]
    check(len(set(revisions)) == len(revisions), "two changes have the same revision")
    agent.terminate()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binary", required=True, help="the program to test")
    parser.add_argument("--cycles", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    os.environ["VNAGENT"] = os.path.abspath(arguments.binary)
    choices = random.Random(arguments.seed)
    agent = Agent()
    agent.options += ["--state-dir", str(agent.folder / "state")]
    drivers = [Driver(agent.client, f"region-{number}") for number in range(DRIVERS)]
    follower = Follower(agent.client)
    number = 0
    try:
        for number in range(arguments.cycles):
            cycle(agent, drivers, follower, choices)
            if sys.stderr.isatty():
                print(f"\r{number + 1} of {arguments.cycles}", end="", file=sys.stderr)
        finish(agent, drivers, follower)
    except Failure as failure:
        print(f"cycle {number + 1} of seed {arguments.seed}: {failure}", file=sys.stderr)
        print(agent.log.read_text(errors="replace")[-4000:], file=sys.stderr)
        return 1
    finally:
        agent.close()
    changes = sum(len(driver.revisions) for driver in drivers)
    print(f"{arguments.cycles} crashes, {changes} changes acknowledged, none lost")
    return 0


if __name__ == "__main__":
    sys.exit(main())
