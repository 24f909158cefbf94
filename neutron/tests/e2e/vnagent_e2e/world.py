"""Everything that runs: the database, the servers and the agents, from start to end."""

from __future__ import annotations

import random
import shutil
import tempfile
import threading
import time
import types
from pathlib import Path
from typing import Any

from .agents import Agent
from .api import Api, Refused, Unreachable
from .database import Database, fast_directory
from .servers import Server
from .topology import Topology


class World:
    """Starts everything on entry, in about ten seconds, and leaves no process and no file behind on
    exit, but for the logs where `keep` says so or something failed."""

    def __init__(self, topology: Topology, binary: Path, servers: int = 2,
                 with_driver: bool = True, debug: bool = False, keep: bool = False,
                 vlan_type: str = "vnagent_vlan", without: str = "openvswitch") -> None:
        self.topology = topology
        self.keep = keep
        self.logs = Path(tempfile.mkdtemp(prefix="vnagent-e2e-logs-"))
        self.directory = Path(tempfile.mkdtemp(
            prefix="vnagent-e2e-", dir=fast_directory(Path(tempfile.gettempdir()))))
        self.agents = {name: Agent(name, binary, self.directory, self.logs)
                       for name in topology.agents}
        self.database = Database(self.directory, self.logs)
        self.servers = [
            Server(f"neutron-{number}", self.directory, self.logs, self.database.url, topology,
                   list(self.agents.values()), with_driver, debug, vlan_type, without)
            for number in range(1, servers + 1)]
        self.times: dict[str, float] = {}
        self._ending = threading.Event()
        self._heart: threading.Thread | None = None

    def __enter__(self) -> World:
        try:
            self._start()
        except BaseException:
            self.keep = True
            self._stop()
            raise
        return self

    def __exit__(self, kind: type[BaseException] | None, _error: BaseException | None,
                 _trace: types.TracebackType | None) -> None:
        self.keep = self.keep or kind is not None
        self._stop()

    def _start(self) -> None:
        begin = time.monotonic()

        def took(what: str) -> None:
            nonlocal begin
            self.times[what] = time.monotonic() - begin
            begin = time.monotonic()

        self.database.create()
        took("database")
        self.database.migrate(self.servers[0].config)
        took("schema")
        for agent in self.agents.values():
            agent.vlans = list(range(self.topology.first_vlan, self.topology.last_vlan + 1))
            agent.start()
        took("agents")
        for server in self.servers:
            server.start()
        for server in self.servers:
            server.wait()
        took("servers")
        self.report_states(self.api(random.Random(0)), start=True)
        self._heart = threading.Thread(target=self._beat, name="heartbeats")
        self._heart.start()

    def _stop(self) -> None:
        self._ending.set()
        if self._heart is not None:
            self._heart.join()
        for server in self.servers:
            server.stop()
        for agent in self.agents.values():
            agent.stop()
        self.database.stop()
        shutil.rmtree(self.directory, ignore_errors=True)
        if self.keep:
            print(f"logs: {self.logs}")
        else:
            shutil.rmtree(self.logs, ignore_errors=True)

    def api(self, rng: random.Random, timeout: float = 60) -> Api:
        """A client for one thread."""
        return Api([server.port for server in self.servers], rng, timeout)

    def report_states(self, api: Api, start: bool = False) -> None:
        """Lets every played agent report that it is alive."""
        states: list[dict[str, Any]] = []
        for rack in self.topology.racks:
            for host in rack.hosts:
                states.append({
                    "agent_type": "Open vSwitch agent", "binary": "neutron-openvswitch-agent",
                    "host": host, "topic": "N/A", "configurations": {
                        "bridge_mappings": {rack.name: f"br-{rack.name}"}, "tunnel_types": [],
                        "datapath_type": "system", "integration_bridge": "br-int"}})
        if start:
            for state in states:
                state["start_flag"] = True
        api.played("report_state", agents=states)

    def _beat(self) -> None:
        api = self.api(random.Random(1), timeout=20)
        while not self._ending.wait(15):
            try:
                self.report_states(api)
            except (Refused, Unreachable):
                continue  # Killed or paused just now; the next report is in time.
