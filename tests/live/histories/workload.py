"""What the clients of one history do, from a seed."""

import random
import threading
import time
from collections.abc import Callable
from typing import Any

from model import (Answer, Delete, Guard, Holder, Lock, Read, Replace, Sync, WriteBoth, WritePort)
from recorder import Client, Lost

PORTS = 2


class Actor:
    """One client. It remembers tags that it has seen and the lock that it was given. Both may be
    out of date by the time it uses them: that is what conditions and fencing are for."""

    def __init__(self, client: Client, regions: list[str], seed: str, pause: float,
                 is_driver: bool) -> None:
        self.client = client
        self.regions = regions
        self.choices = random.Random(seed)
        self.pause = pause  # seconds, between two calls at most
        self.is_driver = is_driver  # whether it is after the lock most of the time
        self.tags: dict[tuple[str, str | None], int] = {}
        self.revision = 0
        self.held: tuple[str, str] | None = None  # region, request id
        self.has_started = False  # a sync
        self.used = 0  # request ids
        self.again: WritePort | None = None  # was cut, and is sent again with its key
        self.failure: BaseException | None = None

    def run(self, count: int, is_over: Callable[[], bool]) -> None:
        try:
            for _ in range(count):
                if self.pause > 0:
                    time.sleep(self.choices.uniform(0, self.pause))
                try:
                    self.act(is_over)
                except Lost:
                    if is_over():
                        return
        except BaseException as failure:  # noqa: B902  (the thread's owner raises it)
            self.failure = failure

    def act(self, is_over: Callable[[], bool]) -> None:
        if self.again is not None:
            what: Any = self.again
            self.again = None
        else:
            what = self.next()
        dice = self.choices.random()
        if isinstance(what, Lock) and what.wait > 0 and dice < 0.15:
            self.client.hang_up(what, self.choices.uniform(0, what.wait))
            return
        guard = getattr(what, "guard", Guard())
        if guard.key and dice < 0.5:
            self.again = what
            self.client.forget(what)
            return
        try:
            self.learn(what, self.client.call(what, is_over))
        except Lost:
            if guard.key:
                self.again = what
            raise
        finally:
            self.client.settle()

    # What to do next.

    def next(self) -> Any:
        region = self.regions[0] if self.choices.random() < 0.8 else self.regions[1]
        if self.is_driver:
            return self.hold(self.regions[0]) if self.choices.random() < 0.8 \
                else self.choice(self.sync, self.read, self.write)(region)
        return self.choice(self.write, self.write, self.read, self.read, self.hold, self.replace,
                           self.delete, self.both, self.sync)(region)

    def choice(self, *makers: Callable[[str], Any]) -> Callable[[str], Any]:
        return self.choices.choice(makers)

    def port(self, region: str) -> str:
        return f"{region}-p{self.choices.randrange(PORTS)}"

    def guard(self, region: str, port: str | None) -> Guard:
        dice = self.choices.random()
        fence = self.fence(region)
        if dice < 0.4 and (region, port) in self.tags:
            return Guard(if_match=self.tags[region, port], fence=fence)
        if dice < 0.5 and port is not None:
            return Guard(if_absent=True, fence=fence)
        return Guard(fence=fence)

    def fence(self, region: str) -> str | None:
        if self.held is not None and self.held[0] == region:
            return self.held[1]
        return None

    def write(self, region: str) -> WritePort:
        port = self.port(region)
        vlan = self.choices.randint(1, 4)
        if self.choices.random() < 0.15:
            self.used += 1
            key = f"{self.client.name}-{region}-{self.used}"
            return WritePort(region, port, vlan, Guard(key=key))
        return WritePort(region, port, vlan, self.guard(region, port),
                         self.choices.random() < 0.03)

    def replace(self, region: str) -> Replace:
        ports = [f"{region}-p{number}" for number in range(PORTS) if self.choices.random() < 0.6]
        return Replace(region, tuple((port, self.choices.randint(1, 4)) for port in ports),
                       self.guard(region, None))

    def delete(self, region: str) -> Delete:
        if self.choices.random() < 0.2:
            return Delete(region, None, self.guard(region, None))
        port = self.port(region)
        return Delete(region, port, self.guard(region, port))

    def both(self, _: str) -> WriteBoth:
        ports = tuple((region, self.port(region), self.choices.randint(1, 4))
                      for region in self.regions)
        is_guarded = self.revision and self.choices.random() < 0.5
        return WriteBoth(ports, Guard(if_match=self.revision if is_guarded else None))

    def read(self, region: str) -> Read:
        dice = self.choices.random()
        if dice < 0.3:
            return Read()
        return Read(region) if dice < 0.6 else Read(region, self.port(region))

    def sync(self, region: str) -> Sync:
        return Sync(region)

    def lock(self, region: str) -> Lock:
        if self.held is not None:
            region, request = self.held
        else:
            self.used += 1
            request = f"{self.client.name}-{self.used}"
        wait = self.choices.choice([0, 0.005, 0.02, 0.05])
        return Lock(region, self.client.name, request, wait)

    def hold(self, region: str) -> Any:
        """The next step of a sync: lock, start, heartbeats and writes, complete."""
        if self.held is None:
            return self.lock(region)
        region, request = self.held
        dice = self.choices.random()
        if dice < 0.05:
            return Holder(region, "release", None, force=True)
        if dice < 0.1:
            return self.lock(region)
        if dice < 0.35:
            return WritePort(region, self.port(region), self.choices.randint(1, 4),
                             Guard(fence=request))
        steps = ["heartbeat", "complete", "complete", "release"] if self.has_started else \
            ["start", "start", "start", "heartbeat", "complete", "release"]
        return Holder(region, self.choices.choice(steps), request)

    # What answers say.

    def learn(self, what: Any, answer: Answer) -> None:
        if isinstance(what, Read) and answer[0] == 200:
            self.revision = answer[1]
            self.tags[what.region or "", what.port] = answer[2]
        elif isinstance(what, (WritePort, Replace)) and answer[0] in (200, 201):
            if not getattr(what, "is_dry", False):
                self.tags[what.region, getattr(what, "port", None)] = answer[1]
        elif isinstance(what, Lock):
            self.held = (what.region, what.request) if answer[0] == 200 else None
            self.has_started = False
        elif isinstance(what, Holder):
            self.has_started |= what.what == "start" and answer[0] == 200
            has_ended = answer[0] != 200 or what.what in ("complete", "release")
            # At times it does not notice that it has lost the lock.
            if has_ended and answer != (409, "not-in-progress") and self.choices.random() < 0.7:
                self.held = None


def run_actors(actors: list[Actor], count: int, meanwhile: Callable[[], None],
               is_over: Callable[[], bool]) -> None:
    threads = [threading.Thread(target=actor.run, args=(count, is_over), daemon=True)
               for actor in actors]
    for thread in threads:
        thread.start()
    meanwhile()
    for thread in threads:
        thread.join(60)
        if thread.is_alive():
            raise AssertionError("a client hangs")
    for actor in actors:
        if actor.failure is not None:
            raise actor.failure
