"""A running `vnagent export hardware-vtep`, fed line by line, and what its switches should be."""

from __future__ import annotations

import http.client
import json
import os
import signal
import socket
import subprocess
import tempfile
import unittest
from pathlib import Path
from typing import Any

import expected
from database import Database, wait_for

Json = Any
BINARY = Path(os.environ.get("VNAGENT", "vnagent"))


def host(vlans: Json) -> Json:
    """An entry of resourcesForHostname; vlans: VLAN -> VNIs."""
    return {"domain": {"R": ["p"]}, "vlan": vlan_entries(vlans)}


def port(vlans: Json, native: int = 0) -> Json:
    """An entry of resourcesForSwitchport."""
    return {"vlan": vlan_entries(vlans), "nativeVlan": native, "remoteHost": [], "referrer": []}


def vlan_entries(vlans: Json) -> Json:
    return {str(vlan): {"referrer": ["p"], "mappedVni": {str(vni): ["p"] for vni in vnis}}
            for vlan, vnis in vlans.items()}


def output(hosts: Json | None = None, ports: Json | None = None,
           elements: Json | None = None) -> Json:
    return {"regionStatus": {},
            "requestedResources": {"resourcesForHostname": hosts or {},
                                   "resourcesForSwitchport": ports or {}},
            "networkElement": elements or {}}


class Exporter:
    """One exporter process."""

    def __init__(self, folder: Path, the_map: Json, *options: str, name: str = "exporter",
                 source: list[str] | None = None, control: Path | None = None) -> None:
        self.control = control or folder / f"{name}.sock"
        self.log = folder / f"{name}.log"
        (folder / "map.json").write_text(json.dumps(the_map), encoding="utf-8")
        self.command = [str(BINARY), "export", "hardware-vtep", "--map", str(folder / "map.json"),
                        "--control", str(self.control),
                        *(source if source is not None else ["--outputs", "-"]), *options]
        self.events = 0
        self.process: subprocess.Popen[bytes]
        self.start()

    def start(self) -> None:
        self.events = 0
        with self.log.open("ab") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, stderr=log)

    def send(self, line: Json) -> None:
        assert self.process.stdin is not None
        self.process.stdin.write(json.dumps(line).encode() + b"\n")
        self.process.stdin.flush()
        self.events += 1

    def kill(self) -> None:
        self.process.kill()
        self.close()

    def stop(self) -> int:
        self.process.send_signal(signal.SIGTERM)
        return self.close()

    def close(self) -> int:
        status = self.process.wait(60)
        for stream in (self.process.stdin, self.process.stdout):
            if stream:
                try:
                    stream.close()
                except BrokenPipeError:
                    pass
        return status

    def get(self, target: str) -> str:
        connection = http.client.HTTPConnection("localhost", timeout=60)
        connection.sock = socket.socket(socket.AF_UNIX)
        connection.sock.settimeout(60)
        connection.sock.connect(str(self.control))
        try:
            connection.request("GET", target)
            return connection.getresponse().read().decode()
        finally:
            connection.close()

    def status(self) -> Json:
        if self.process.poll() is not None:
            raise AssertionError(f"the exporter has ended: {self.log.read_text()}")
        try:
            return json.loads(self.get("/status"))
        except (OSError, http.client.HTTPException):
            return {}

    def problems(self) -> set[tuple[str, str]]:
        return {(one["kind"], one["place"]) for one in self.status().get("problems", [])}

    def wait(self, *without: str) -> Json:
        """Waits until all events are taken and every switch but those named is synced."""
        def check() -> Json:
            status = self.status()
            done = status.get("events", -1) >= self.events and all(
                one["synced"] for name, one in status["switches"].items() if name not in without)
            return status if done else None
        return wait_for("the switches are synced", check)

    def wait_until_gone(self, kind: str) -> None:
        """Waits until there is no problem of the kind."""
        wait_for(f"no {kind}", lambda: all(one != kind for one, _ in self.problems()))


class ExportTest(unittest.TestCase):
    """Three switches with databases of their own; the first two are named in the map with hosts."""

    switches: dict[str, list[str]] = {
        "leaf-1": ["swp1", "swp2", "swp3"],
        "leaf-2": ["swp1", "swp2"],
        "leaf-3": ["swp1", "nine"],
    }
    hosts: Json = {
        "compute-1": [{"switch": "leaf-1", "port": "swp1"}],
        "compute-2": [{"switch": "leaf-2", "port": "swp1"}],
        "bonded": [{"switch": "leaf-1", "port": "swp2"}, {"switch": "leaf-2", "port": "swp2"}],
        "nowhere": [],
    }
    renamed: Json = {"leaf-3": {"Ethernet9": "nine"}}

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory(prefix="export-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.addresses = {name: f"192.0.2.{i + 1}" for i, name in enumerate(self.switches)}
        self.databases: dict[str, Database] = {}
        for i, (name, ports) in enumerate(self.switches.items()):
            database = Database(self.folder, f"db{i}", ports, self.addresses[name], switch=name)
            self.databases[name] = database
            self.addCleanup(database.kill)
        self.map: Json = {"switches": {name: {"database": database.address}
                                       for name, database in self.databases.items()},
                          "hosts": self.hosts}
        for name, ports in self.renamed.items():
            self.map["switches"][name]["ports"] = ports

    def exporter(self, *options: str, name: str = "exporter", source: list[str] | None = None,
                 control: Path | None = None) -> Exporter:
        exporter = Exporter(self.folder, self.map, *options, name=name, source=source,
                            control=control)
        self.addCleanup(exporter.kill)
        return exporter

    def expect(self, document: Json, ports: dict[str, set[str]] | None = None,
               only: set[str] | None = None) -> None:
        """Each database is what the document asks for."""
        have = ports or {name: set(ports) for name, ports in self.switches.items()}
        wanted = expected.databases(document, self.map, self.addresses, have)
        for name, database in self.databases.items():
            if only is None or name in only:
                self.assertEqual([], expected.differences(wanted[name], database.view()), name)

    def export(self, exporter: Exporter, document: Json) -> Json:
        """Sends a document, and checks the databases once it is exported."""
        exporter.send(document)
        status = exporter.wait()
        self.expect(document)
        return status
