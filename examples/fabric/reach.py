"""Which endpoint reaches which, found by sending frames."""

import time
from collections.abc import Collection

from frames import Endpoint, Recorder
from namespaces import Failure
from tenants import Pairs

HOLD = 1.0  # seconds for which what must not arrive is waited for


class Probes:
    """Rounds of frames from a set of endpoints, and all pairs that were ever seen."""

    def __init__(self, recorder: Recorder, endpoints: Collection[Endpoint]) -> None:
        self.recorder, self.endpoints = recorder, endpoints
        self.flows: dict[int, Endpoint] = {}

    def send(self) -> dict[int, Endpoint]:
        """One frame to everybody from each endpoint; the flows of this round."""
        sent = {}
        for endpoint in self.endpoints:
            flow = self.recorder.flow()
            self.flows[flow] = sent[flow] = endpoint
            self.recorder.send(endpoint, flow)
        return sent

    def seen(self, flows: dict[int, Endpoint] | None = None) -> Pairs:
        """Which pairs were seen, of these flows or of all."""
        return {(source, arrival.at) for flow, source in (flows or self.flows).items()
                for arrival in self.recorder.of(flow)}

    def wait(self, flows: dict[int, Endpoint], pairs: Pairs, seconds: float) -> Pairs:
        """What was seen of the flows when these pairs were, or when the time is over."""
        end = time.monotonic() + seconds
        while not (seen := self.seen(flows)) >= pairs and time.monotonic() < end:
            time.sleep(0.01)
        return seen


def settle(probes: Probes, pairs: Pairs, deadline: float) -> float:
    """Sends rounds until exactly these pairs are seen, for a second.

    The pairs that must be seen are the barrier: only when their frames got through the second
    begins, so what is silent then is kept from arriving and not late. A frame that is lost, or that
    arrives where it must not, ends the second, and it all begins again. Returns the time of the
    first round that was as it should be. Raises Failure with what is missing and what is too much,
    and ValueError where there is no pair to be a barrier.
    """
    if not pairs:
        raise ValueError("silence alone shows nothing: something must arrive")
    end = time.monotonic() + deadline
    while True:
        sent = time.monotonic()
        seen = probes.wait(probes.send(), pairs, 0.5)
        if seen == pairs and (seen := held(probes, pairs)) == pairs:
            return sent
        if time.monotonic() > end:
            raise Failure(f"not within {deadline:g} s: {difference(seen, pairs)}")
        time.sleep(0.05)


def held(probes: Probes, pairs: Pairs) -> Pairs:
    """Sends for a second: the pairs that got every frame, and others that got any."""
    end = time.monotonic() + HOLD
    rounds = []
    while time.monotonic() < end:
        rounds.append(probes.send())
        time.sleep(0.05)
    every, wrong = set(pairs), set[tuple[Endpoint, Endpoint]]()
    for flows in rounds:
        seen = probes.wait(flows, pairs, 0.5)
        every &= seen
        wrong |= seen - pairs
    return every | wrong


def difference(seen: Pairs, wanted: Pairs) -> str:
    lines = [f"missing: {one} -> {other}" for one, other in sorted(wanted - seen, key=str)]
    lines += [f"must not be: {one} -> {other}" for one, other in sorted(seen - wanted, key=str)]
    return "; ".join(lines)
