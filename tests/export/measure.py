#!/usr/bin/env python3
"""Measures what an export costs beyond the database's own time.

A switch with 48 ports gets 4,094 VLANs in one go, then one VLAN of it changes again and again. The
exporter's transactions are recorded, and sent once more to a server with the same database, by a
client that does nothing but wait: that is the database's own time. Prints one line for each
measurement; nothing is judged. Run it while the machine does nothing else.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import shutil
import socket
import statistics
import sys
import tempfile
import threading
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import exporter
from database import Connection, Database, missing
from exporter import Exporter, host, output, port

PORTS, VLANS = 48, 4094
Json = Any
UUID = re.compile("[0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12}")


class Relay:
    """Stands between an exporter and a database, and keeps what both send."""

    def __init__(self, path: Path, target: Path) -> None:
        self.sent, self.received = bytearray(), bytearray()
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        threading.Thread(target=self.accept, args=(target,), daemon=True).start()

    def accept(self, target: Path) -> None:
        client, _ = self.listener.accept()
        server = socket.socket(socket.AF_UNIX)
        server.connect(str(target))
        threading.Thread(target=self.copy, args=(server, client, self.received),
                         daemon=True).start()
        self.copy(client, server, self.sent)

    @staticmethod
    def copy(source: socket.socket, to: socket.socket, kept: bytearray) -> None:
        try:
            while data := source.recv(1 << 20):
                kept += data
                to.sendall(data)
        except OSError:
            pass


def messages(stream: bytes) -> Iterator[tuple[str, Json]]:
    """Each message of a stream, as text and as JSON."""
    decoder, text, at = json.JSONDecoder(), stream.decode(), 0
    while at < len(text):
        message, end = decoder.raw_decode(text, at)
        yield text[at:end], message
        at = end


def made(reply: Json) -> list[str]:
    """The rows that a transaction inserted."""
    return [one["uuid"][1] for one in reply["result"] if one and "uuid" in one]


def replay(relay: Relay, path: Path) -> list[float]:
    """The seconds from each transaction to its reply, of what an exporter sent."""
    replies = {message["id"]: message for _, message in messages(bytes(relay.received))
               if "result" in message}
    connection = Connection(path)
    seconds = []
    renamed: dict[str, str] = {}  # rows have other UUIDs than when they were recorded
    for text, message in messages(bytes(relay.sent)):
        if "method" not in message or message["id"] == "echo":
            continue
        request = UUID.sub(lambda found: renamed.get(found[0], found[0]), text).encode()
        end = re.compile(rb'"id":%d\b.*}$' % message["id"])
        kept = bytearray()
        # The exporter does not send one right after the other either.
        time.sleep(0.05)
        begin = time.perf_counter()
        connection.socket.sendall(request)
        while not end.search(kept[-(1 << 20):]):
            kept += connection.socket.recv(1 << 20)
        if message["method"] == "transact":
            seconds.append(time.perf_counter() - begin)
            reply = next(one for _, one in messages(bytes(kept)) if one["id"] == message["id"])
            assert all(not (one and "error" in one) for one in reply["result"]), reply["result"]
            renamed |= zip(made(replies[message["id"]]), made(reply), strict=True)
    connection.close()
    return seconds


def cpu(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def peak(pid: int) -> float:
    """The largest resident set so far, in MiB."""
    found = re.search(r"VmHWM:\s*(\d+)", Path(f"/proc/{pid}/status").read_text())
    return int(found[1]) / 1024 if found else 0.0


class Measurement:
    """One exporter and one switch; `source` makes a document of VLANs with their VNIs."""

    def __init__(self, folder: Path, source: str, changes: int) -> None:
        self.folder, self.source, self.changes = folder, source, changes
        self.ports = [f"swp{i}" for i in range(PORTS)]
        self.database = Database(folder, "leaf-1", self.ports, "192.0.2.1")
        shutil.copy(self.database.file, folder / "before.db")

    def document(self, vlans: Json) -> Json:
        if self.source == "host":
            return output({"full": host(vlans)})
        return output(ports={"leaf-1": {name: port(vlans) for name in self.ports}})

    def start(self, address: str) -> Exporter:
        places = [{"switch": "leaf-1", "port": name} for name in self.ports]
        return Exporter(self.folder, {"switches": {"leaf-1": {"database": address}},
                                      "hosts": {"full": places}})

    def take(self, process: Exporter, line: Json) -> tuple[float, Json]:
        """Seconds until the switch is synced, and what the exporter's figures grew by."""
        text = json.dumps(line, sort_keys=True, separators=(",", ":")).encode() + b"\n"
        pid = process.process.pid
        before, used = process.status()["switches"]["leaf-1"], cpu(pid)
        begin = time.perf_counter()
        assert process.process.stdin is not None
        process.process.stdin.write(text)
        process.process.stdin.flush()
        process.events += 1
        after = process.wait()["switches"]["leaf-1"]
        seconds = time.perf_counter() - begin
        grown = {name: after[name] - before[name] for name in (
            "transactions", "bytesSent", "bytesReceived", "waitedSeconds", "plannedSeconds")}
        return seconds, grown | {"cpu": cpu(pid) - used}

    def again(self, relay: Relay) -> list[float]:
        """The database's own time for each transaction."""
        copy = Database(self.folder, "copy", [], None, file=self.folder / "before.db")
        try:
            return replay(relay, copy.socket)
        finally:
            copy.kill()

    def run(self) -> None:
        vlans = {vlan: [vlan] for vlan in range(1, VLANS + 1)}
        # Recorded by way of the relay, and measured without it.
        relay = Relay(self.folder / "relay.sock", self.database.socket)
        process = self.start(f"unix:{self.folder / 'relay.sock'}")
        self.all_of_it(process, vlans)
        process.stop()
        own = self.again(relay)
        self.database.kill()
        shutil.copy(self.folder / "before.db", self.database.file)
        self.database.start()
        process = self.start(self.database.address)
        whole, figures, single = self.all_of_it(process, vlans)
        memory = peak(process.process.pid)
        process.stop()
        self.database.kill()
        print(f"{VLANS} VLANs on {PORTS} ports by {self.source}: synced after {whole:.2f} s, the "
              f"database alone {own[0]:.2f} s, beyond it {whole - own[0]:.2f} s; "
              f"{figures['cpu']:.2f} s of CPU; {figures['transactions']} transaction, "
              f"{figures['bytesSent'] / 1e6:.1f} MB sent, "
              f"{figures['bytesReceived'] / 1e6:.1f} MB received; {memory:.0f} MiB at most")
        taken = statistics.median(one["waitedSeconds"] + one["plannedSeconds"] for one in single)
        alone = statistics.median(own[1:])
        print(f"one VLAN of them: {1e3 * taken:.1f} ms from the plan to the reply, the database "
              f"alone {1e3 * alone:.1f} ms, beyond it {1e3 * (taken - alone):.1f} ms; "
              f"{1e3 * sum(one['cpu'] for one in single) / len(single):.1f} ms of CPU with the "
              f"status requests; {single[0]['bytesSent']} bytes sent; medians of {len(single)}")

    def all_of_it(self, process: Exporter, vlans: Json) -> tuple[float, Json, list[Json]]:
        process.send(output())
        process.wait()
        whole, figures = self.take(process, self.document(vlans))
        single = []
        for number in range(self.changes):
            new = VLANS + 1 + number
            old = new - 1 if number else 100
            entry: Json = {"vlan": {"100": {"mappedVni": {str(old): None, str(new): ["p"]}}}}
            ports = {name: entry for name in self.ports}
            change: Json = ({"resourcesForHostname": {"full": entry}} if self.source == "host"
                            else {"resourcesForSwitchport": {"leaf-1": ports}})
            _, one = self.take(process, {"step": number, "ok": True,
                                          "change": {"requestedResources": change}})
            single.append(one)
        return whole, figures, single


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", type=Path, required=True, help="the agent's program")
    parser.add_argument("--changes", type=int, default=20, metavar="N",
                        help="changes of one VLAN [%(default)s]")
    options = parser.parse_args()
    if absent := missing():
        print(f"measure: missing {', '.join(absent)}; run tests/export/install", file=sys.stderr)
        return 1
    exporter.BINARY = options.binary.resolve()
    for source in ("host", "ports"):
        with tempfile.TemporaryDirectory(prefix="export-") as folder:
            Measurement(Path(folder), source, options.changes).run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
