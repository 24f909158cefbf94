"""Neutron's API on one end, frames on the other: neutron-server with the driver, the live agent,
the exporter and three switches. What must arrive follows from the calls of the API and from the
segments that it lists, not from what the agent says."""

from __future__ import annotations

import contextlib
import importlib.util
import json
import re
import sqlite3
import subprocess
import tempfile
import unittest
import uuid
from collections.abc import Callable
from importlib.machinery import SourceFileLoader
from pathlib import Path
from typing import Any

from fabric_test import DEADLINE, SWITCHES, FabricTest, database_of
from frames import Endpoint
from namespaces import Failure, poll
from reach import Probes, settle

PYTHON = "/usr/bin/python3"  # the one that Neutron is installed for
QUICKSTART = Path(__file__).resolve().parents[2] / "neutron" / "quickstart"
VLANS = (100, 200, 300)
STARTING = 240.0  # seconds in which neutron-server answers
Json = Any


def load_quickstart() -> Any:
    """What `make run-neutron` runs: how the server is configured, started and called."""
    loader = SourceFileLoader("quickstart", str(QUICKSTART))
    spec = importlib.util.spec_from_loader("quickstart", loader)
    assert spec is not None
    module = importlib.util.module_from_spec(spec)
    loader.exec_module(module)
    return module


def missing() -> str:
    """Why there is no Neutron here; empty where there is."""
    if not Path("/usr/bin/neutron-server").exists():
        return "no /usr/bin/neutron-server: the package python3-neutron is missing"
    if subprocess.run([PYTHON, "-c", "import neutron"], stderr=subprocess.DEVNULL,
                      check=False).returncode != 0:
        return f"{PYTHON} has no module neutron"
    return ""


class Neutron(FabricTest):
    """Each rack is a physical network: its host of virtual machines is a compute host with an L2
    agent, its bare server is known by its switch port."""

    log: Path | None = None
    said = "it was not started"

    def setUp(self) -> None:
        if why := missing():
            self.skipTest(why)
        self.quickstart = load_quickstart()
        self.agent.patch({
            "config": {"vlanAssignment": {self.quickstart.REGION: {
                "vlan": {str(vlan): True for vlan in VLANS}}}},
            "region": {self.quickstart.REGION: {}}})
        folder = tempfile.TemporaryDirectory(prefix="fabric-neutron-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.log = self.folder / "neutron-server.log"
        self.addCleanup(self.remember)
        self.start(stack)
        self.networks: dict[str, str] = {}
        self.ports: dict[str, tuple[str, str]] = {}  # id -> network, server

    def start(self, stack: contextlib.ExitStack) -> None:
        """A server on SQLite, with the driver for the agent of the fabric."""
        subprocess.run([QUICKSTART.parent / "develop"], check=True)
        subprocess.run([PYTHON, "-B", "-c",
                        "import importlib.machinery, pathlib, sys\n"
                        "load = importlib.machinery.SourceFileLoader('quickstart', sys.argv[1])\n"
                        "load.load_module().make_database(pathlib.Path(sys.argv[2]))",
                        QUICKSTART, self.folder], check=True, stderr=subprocess.DEVNULL)
        with sqlite3.connect(self.folder / "neutron.sqlite") as database:
            database.row_factory = sqlite3.Row
            row = dict(database.execute("SELECT * FROM agents").fetchone())
            for number, switch in enumerate(SWITCHES, 1):
                row |= {"id": str(uuid.uuid4()), "host": f"host-{number}", "configurations":
                        json.dumps({"bridge_mappings": {switch: f"br-{switch}"}})}
                database.execute(f"INSERT INTO agents ({', '.join(row)}) "
                                 f"VALUES ({', '.join('?' * len(row))})", list(row.values()))
        (self.folder / "vnagent_agents.ini").write_text(
            f"[agent:racks]\nurl = unix://{self.agent.socket}\n"
            f"region = {self.quickstart.REGION}\nphysical_networks = {','.join(SWITCHES)}\n"
            f"switches = {','.join(f'{switch}:{switch}' for switch in SWITCHES)}\n")
        port = self.quickstart.free_port()
        (self.folder / "neutron.conf").write_text(
            self.quickstart.NEUTRON.format(folder=self.folder, port=port))
        self.quickstart.start(["/usr/bin/neutron-server", "--config-file",
                               str(self.folder / "neutron.conf")], self.log, stack)
        self.api = self.quickstart.Api(port)
        poll(self.api.answers, "neutron-server answers", STARTING)
        # Before that there are no VLANs to bind to.
        poll(self.api.is_agent_known, "the agent is in step, in Neutron's list of agents", DEADLINE)

    def explain(self) -> None:
        self.remember()
        print(f"--- neutron-server\n{self.said}")
        super().explain()

    def remember(self) -> None:
        """Keeps what the server said of trouble, and last: its folder may go before a failure is
        explained."""
        if self.log is None or not self.log.exists():
            return
        lines = self.log.read_text(errors="replace").splitlines()
        trouble = [line for line in lines if re.search(r" (WARNING|ERROR|CRITICAL) \S+ \[", line)]
        self.said = "\n".join(line[:500] for line in [*trouble[-100:], "...", *lines[-40:]])

    # What the tests do, with Neutron's API.

    def call(self, method: str, path: str, body: Json = None,
             undo: Callable[[], None] | None = None) -> Json:
        """Again while another writer has SQLite; `undo` takes back what is there of a call that
        failed."""
        def done() -> list[Json]:
            try:
                return [self.api.call(method, path, body)]
            except self.quickstart.Failed as failure:
                if ": 50" not in str(failure):
                    raise
            if undo is not None:
                undo()
            return []
        return poll(done, f"Neutron takes {method} {path}", DEADLINE)[0]

    def network(self, name: str) -> None:
        made = self.call("POST", "networks", {"network": {"name": name, "project_id": "demo"}})
        self.networks[name] = made["network"]["id"]

    def bind(self, network: str, server: str) -> str:
        """A port of the network at a server; its id."""
        device = str(uuid.uuid4())
        body: Json = {"project_id": "demo", "network_id": self.networks[network],
                      "device_id": device, "binding:host_id": server}
        if server.startswith("host"):
            body["device_owner"] = "compute:nova"
        else:
            switch, interface = self.fabric.place_of(server)
            body |= {"device_owner": "baremetal:none", "binding:vnic_type": "baremetal",
                     "binding:profile": {"local_link_information": [
                         {"switch_info": switch.name, "port_id": interface}]}}

        def undo() -> None:
            for port in self.call("GET", f"ports?device_id={device}")["ports"]:
                self.call("DELETE", f"ports/{port['id']}")
        port = self.call("POST", "ports", {"port": body}, undo)["port"]
        self.assertNotEqual(port["binding:vif_type"], "binding_failed", port)
        self.ports[port["id"]] = (network, server)
        return str(port["id"])

    def move(self, port: str, server: str) -> None:
        self.call("PUT", f"ports/{port}", {"port": {"binding:host_id": server}})
        self.ports[port] = (self.ports[port][0], server)

    def unbind(self, port: str) -> None:
        self.call("DELETE", f"ports/{port}")
        del self.ports[port]

    # What must follow.

    def endpoints(self) -> dict[str, set[Endpoint]]:
        """By network: hosts with the tag of their rack's segment, bare servers without a tag."""
        segments = self.call("GET", "segments")["segments"]
        vlans = {(one["network_id"], one["physical_network"]): one["segmentation_id"]
                 for one in segments if one["network_type"] == "vlan"}
        found: dict[str, set[Endpoint]] = {name: set() for name in self.networks}
        for network, server in self.ports.values():
            tag = None
            if server.startswith("host"):
                switch, _ = self.fabric.place_of(server)
                tag = vlans[(self.networks[network], switch.name)]
            found[network].add(Endpoint(server, tag))
        return found

    def arrives_as_asked(self) -> None:
        """Frames of every server, with each tag, arrive where Neutron says and nowhere else."""
        pairs = {(one, other) for ends in self.endpoints().values()
                 for one in ends for other in ends if one != other}
        probes = Probes(self.fabric.recorder,
                        [Endpoint(server, tag) for server in self.fabric.recorder.sockets
                         for tag in (None, *VLANS)])
        settle(probes, pairs, 2 * DEADLINE)

    def test_what_neutron_is_asked_for_is_where_frames_go(self) -> None:
        for name in ("red", "blue"):
            self.network(name)
        self.bind("red", "host-1")
        machine = self.bind("red", "host-2")
        self.bind("blue", "host-1")
        self.bind("blue", "metal-2")
        self.arrives_as_asked()
        # A bare server in the third rack; then the machine moves there.
        metal = self.bind("red", "metal-3")
        self.arrives_as_asked()
        self.move(machine, "host-3")
        self.arrives_as_asked()
        # A port of one network becomes one of the other at the same place.
        self.unbind(metal)
        self.bind("blue", "metal-3")
        self.arrives_as_asked()
        for port in list(self.ports):
            self.unbind(port)
        for network in self.networks.values():
            self.call("DELETE", f"networks/{network}")

        def empty() -> bool:
            return all(not found.logical_switches and not any(found.bindings.values())
                       for found in map(database_of, self.fabric.switches.values()))
        with contextlib.suppress(Failure):
            poll(empty, "the databases are empty again", DEADLINE)
        self.assertTrue(empty(), [database_of(one) for one in self.fabric.switches.values()])


if __name__ == "__main__":
    unittest.main()
