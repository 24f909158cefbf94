"""The agents under the driver: `vnagent serve` on a Unix socket, and a client of it."""

from __future__ import annotations

import http.client
import json
import shutil
import socket
from pathlib import Path
from typing import Any

from .processes import Failed, Program, eventually
from .wire import Wire

Json = dict[str, Any]


class SocketConnection(http.client.HTTPConnection):
    """HTTP on a Unix socket."""

    def __init__(self, path: Path, timeout: float) -> None:
        super().__init__("localhost", timeout=timeout)
        self.path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self.path))


class Agent:
    """One agent with its state directory; it serves one region, which has its name."""

    def __init__(self, name: str, binary: Path, directory: Path, logs: Path) -> None:
        self.name = name
        self.socket = directory / f"{name}.sock"
        self.state = directory / f"{name}.state"
        self.program = Program(f"agent {name}", [
            binary, "serve", "--socket", self.socket, "--state-dir", self.state,
        ], logs / f"agent-{name}.log")
        # What the driver speaks to; the test itself asks the agent.
        self.wire = Wire(directory / f"{name}.wire.sock", self.socket)
        self.vlans: list[int] = []
        self.losses = 0

    def start(self) -> None:
        self.state.mkdir(exist_ok=True)
        self.program.start()
        eventually(f"agent {self.name} is ready", self._ready, 30)
        self.assign(self.vlans)

    def _ready(self) -> bool:
        if not self.program.running():
            raise Failed(f"agent {self.name} ended:\n{self.program.tail()}")
        try:
            return self.request("GET", "/readyz")[0] == 200
        except OSError:
            return False

    def request(self, method: str, path: str, body: Json | None = None,
                timeout: float = 30) -> tuple[int, Any]:
        """The status and the body, parsed where it is JSON."""
        connection = SocketConnection(self.socket, timeout)
        try:
            media = "application/merge-patch+json" if method == "PATCH" else "application/json"
            connection.request(method, path, None if body is None else json.dumps(body),
                               {"Content-Type": media})
            answer = connection.getresponse()
            text = answer.read().decode()
            kind = answer.getheader("Content-Type", "")
            return answer.status, json.loads(text) if "json" in kind and text else text
        finally:
            connection.close()

    def get(self, path: str) -> Any:
        status, body = self.request("GET", path)
        if status != 200:
            raise Failed(f"agent {self.name}: GET {path}: {status} {body}")
        return body

    def has_port(self, host: str, port: str) -> bool | None:
        """Whether its output has the port on a compute host; None where it does not answer."""
        place = f"/v1/output/requestedResources/resourcesForHostname/{host}/domain"
        try:
            status, domain = self.request("GET", place, timeout=5)
        except (OSError, http.client.HTTPException):
            return None
        if status not in (200, 404):
            return None
        return status == 200 and port in domain.get(self.name, [])

    def assign(self, vlans: list[int]) -> None:
        """Assigns these VLANs and no others to its region, as the administrator of the switches
        does."""
        gone = set(self.vlans) - set(vlans)
        self.vlans = vlans
        status, body = self.request("PATCH", "/v1/cloud/config/vlanAssignment", {
            self.name: {"vlan": {str(vlan): True for vlan in vlans}
                        | {str(vlan): None for vlan in gone}}})
        if status != 200:
            raise Failed(f"agent {self.name}: the VLANs were not assigned: {status} {body}")

    def lose_state(self) -> None:
        """Kills it and starts it without anything that it knew."""
        self.losses += 1
        self.program.kill()
        shutil.rmtree(self.state, ignore_errors=True)
        self.start()

    def stop(self) -> None:
        self.wire.stop()
        self.program.stop()
