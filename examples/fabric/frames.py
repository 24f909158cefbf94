"""Frames: sends them from the servers' interfaces, and records where each of them arrives.

A server is an interface in a namespace, and a packet socket on it in this process: sender and
receiver share one clock, and a server that tags needs no VLAN device. The frames have an EtherType
for experiments, so that no network stack answers them.
"""

import os
import selectors
import socket
import struct
import threading
import time
from collections import defaultdict
from dataclasses import dataclass, field
from typing import NamedTuple

import namespaces

ETHERTYPE = 0x88B5  # IEEE 802: local experiments
TAGGED = 0x8100
ALL_PROTOCOLS = 0x0003
SOL_PACKET, PACKET_AUXDATA = 263, 8
AUXDATA = struct.Struct("=IIIHHHH")
TAG_IS_VALID = 1 << 4
PAYLOAD = struct.Struct("!8sIIQ")  # the mark of the recorder, flow, sequence number, time sent
SHORTEST = 60
BROADCAST = b"\xff" * 6


class Endpoint(NamedTuple):
    """A server and the tag that it sends with; no tag where that is None."""
    server: str
    vlan: int | None

    def __str__(self) -> str:
        return f"{self.server}/{'untagged' if self.vlan is None else self.vlan}"


class Arrival(NamedTuple):
    at: Endpoint
    sequence: int
    sent: float  # seconds of the monotonic clock
    received: float


def address(text: str) -> bytes:
    return bytes.fromhex(text.replace(":", ""))


class Recorder:
    """The packet sockets of all servers, and a thread that reads them.

    Any thread may send and look up; `close` ends the thread and closes the sockets.
    """

    def __init__(self) -> None:
        self.mark = os.urandom(8)
        self.flows = 0
        self.sockets: dict[str, socket.socket] = {}
        self.arrivals: dict[int, list[Arrival]] = defaultdict(list)
        self.lock = threading.Condition()
        self.selector = selectors.DefaultSelector()
        self.ending = False
        self.thread = threading.Thread(target=self.read_all, daemon=True)

    def add(self, server: str, namespace: str, interface: str) -> None:
        """Before `start`."""
        with namespaces.inside(namespace):
            opened = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ALL_PROTOCOLS))
        opened.bind((interface, ALL_PROTOCOLS))
        opened.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        opened.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        opened.setblocking(False)
        self.sockets[server] = opened
        self.selector.register(opened, selectors.EVENT_READ, server)

    def start(self) -> None:
        self.thread.start()

    def close(self) -> None:
        self.ending = True
        if self.thread.is_alive():
            self.thread.join()
        for opened in self.sockets.values():
            opened.close()
        self.selector.close()

    # Sending.

    def flow(self) -> int:
        """A number that no frame had before."""
        with self.lock:
            self.flows += 1
            return self.flows

    def send(self, source: Endpoint, flow: int, sequence: int = 0,
             hardware: bytes | None = None, destination: bytes = BROADCAST) -> None:
        """One frame. `hardware` is its source address, else one that is the endpoint's own."""
        if hardware is None:
            number = list(self.sockets).index(source.server)
            hardware = struct.pack("!BBHH", 2, 0xFA, number, source.vlan or 0)
        tag = b"" if source.vlan is None else struct.pack("!HH", TAGGED, source.vlan)
        payload = PAYLOAD.pack(self.mark, flow, sequence, time.monotonic_ns())
        frame = destination + hardware + tag + struct.pack("!H", ETHERTYPE) + payload
        self.sockets[source.server].send(frame.ljust(SHORTEST, b"\0"))

    # Receiving.

    def read_all(self) -> None:
        while not self.ending:
            for key, _ in self.selector.select(0.1):
                self.read(key.data)

    def read(self, server: str) -> None:
        while True:
            try:
                data, ancillary, _, sender = self.sockets[server].recvmsg(2048, 256)
            except OSError:
                return
            if sender[2] == socket.PACKET_OUTGOING:
                continue
            vlan, start = None, 12
            for level, kind, content in ancillary:
                if (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
                    status, *_, tag, _ = AUXDATA.unpack_from(content)
                    vlan = tag & 0xFFF if status & TAG_IS_VALID else None
            protocol, = struct.unpack_from("!H", data, start)
            if vlan is None and protocol == TAGGED:
                vlan, protocol = (word & 0xFFFF for word in struct.unpack_from("!HH", data, 14))
                vlan, start = vlan & 0xFFF, 16
            if protocol != ETHERTYPE or len(data) < start + 2 + PAYLOAD.size:
                continue
            mark, flow, sequence, sent = PAYLOAD.unpack_from(data, start + 2)
            if mark == self.mark:
                arrival = Arrival(Endpoint(server, vlan), sequence, sent / 1e9, time.monotonic())
                with self.lock:
                    self.arrivals[flow].append(arrival)
                    self.lock.notify_all()

    def of(self, flow: int) -> list[Arrival]:
        """What has arrived of a flow, in order of arrival."""
        with self.lock:
            return list(self.arrivals[flow])

    def wait(self, flow: int, at: Endpoint, seconds: float) -> Arrival | None:
        """The first frame of the flow at an endpoint; None where none arrives in time."""

        def found() -> Arrival | None:
            return next((a for a in self.arrivals[flow] if a.at == at), None)

        with self.lock:
            return self.lock.wait_for(found, seconds)


@dataclass
class Stream:
    """Frames from one endpoint, many a second, until `stop`; a thread of its own sends them.

    `source` may be replaced while it runs: the server behind the address has moved then.
    """
    recorder: Recorder
    source: Endpoint
    per_second: int = 200
    hardware: bytes | None = None
    destination: bytes = BROADCAST
    sent: int = 0
    flow: int = 0
    stopping: threading.Event = field(default_factory=threading.Event)
    thread: threading.Thread | None = None

    def start(self) -> "Stream":
        self.flow = self.recorder.flow()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()
        return self

    def run(self) -> None:
        begin = time.monotonic()
        while not self.recorder.ending:
            due = begin + self.sent / self.per_second
            if self.stopping.wait(max(0, due - time.monotonic())):
                return
            self.recorder.send(self.source, self.flow, self.sent, self.hardware, self.destination)
            self.sent += 1

    def stop(self, *drains: Endpoint) -> "Stream":
        """Ends it; waits until the last frame has arrived at these endpoints, 5 s at most."""
        self.stopping.set()
        if self.thread:
            self.thread.join()
        end = time.monotonic() + 5
        while time.monotonic() < end and any(
                self.sent - 1 not in self.numbers(at) for at in drains):
            time.sleep(0.01)
        return self

    def numbers(self, *at: Endpoint) -> set[int]:
        """The sequence numbers that arrived at one of the endpoints."""
        return {a.sequence for a in self.recorder.of(self.flow) if a.at in at}

    def lost(self, *at: Endpoint, since: int = 0) -> int:
        """How many of the frames from a sequence number on arrived at none of the endpoints."""
        return len(set(range(since, self.sent)) - self.numbers(*at))

    def gaps(self, *at: Endpoint) -> str:
        """Which frames were lost, for people: "of 900: 17, 120 to 245"."""
        numbers = sorted(self.numbers(*at) | {-1, self.sent})
        found = [str(a + 1) if b - a == 2 else f"{a + 1} to {b - 1}"
                 for a, b in zip(numbers, numbers[1:], strict=False) if b - a > 1]
        return f"of {self.sent}: {', '.join(found) or 'none'}"

    def lost_so_far(self, *at: Endpoint) -> int:
        """The same while it runs: of the frames before the last that arrived."""
        numbers = self.numbers(*at)
        return len(set(range(max(numbers, default=0))) - numbers)
