"""The live agent and the exporter of a fabric: two processes that can be killed and started again.

Both run in the namespace of the fabric that has no cables; they talk over Unix sockets alone.
"""

import http.client
import json
import socket
import subprocess
from pathlib import Path
from typing import Any

import namespaces
from namespaces import DEADLINE, Failure, poll
from racks import Fabric


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path: Path) -> None:
        super().__init__("localhost", timeout=DEADLINE)
        self.path = str(path)

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


class Program:
    """A process of the fabric with its messages in a file."""

    name = ""

    def __init__(self, fabric: Fabric, vnagent: str | Path) -> None:
        self.fabric, self.vnagent = fabric, Path(vnagent).resolve()
        self.folder = fabric.folder / self.name
        self.folder.mkdir()
        self.log = self.folder / "log"
        self.process: subprocess.Popen[bytes] | None = None

    def launch(self, *arguments: str | Path) -> None:
        self.process = namespaces.start(self.fabric.control, [self.vnagent, *arguments], self.log)

    def messages(self) -> str:
        return self.log.read_text(errors="replace") if self.log.exists() else ""

    def must_run(self) -> None:
        """Raises Failure with its messages where the process has ended."""
        if self.process is not None and self.process.poll() is not None:
            raise Failure(f"the {self.name} ended with {self.process.returncode}:\n"
                          + self.messages())

    def kill(self) -> None:
        """As a crash would."""
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None


class Agent(Program):
    """`vnagent serve` with a state directory, and requests to it."""

    name = "agent"

    def __init__(self, fabric: Fabric, vnagent: str | Path) -> None:
        super().__init__(fabric, vnagent)
        self.socket = self.folder / "agent.sock"

    def start(self) -> "Agent":
        self.launch("serve", "--socket", self.socket, "--state-dir", self.folder / "state")
        poll(self.is_ready, "the agent is ready")
        return self

    def is_ready(self) -> bool:
        self.must_run()
        try:
            self.request("GET", "/readyz")
            return True
        except (OSError, http.client.HTTPException, Failure):
            return False

    def request(self, method: str, path: str, body: Any = None) -> Any:
        """The answer. Raises Failure with the agent's words where it refuses."""
        connection = UnixConnection(self.socket)
        try:
            media = "merge-patch+json" if method == "PATCH" else "json"
            connection.request(method, path, None if body is None else json.dumps(body),
                               {"Content-Type": f"application/{media}"})
            answer = connection.getresponse()
            text = answer.read()
            if answer.status >= 400:
                raise Failure(f"{method} {path}: {answer.status} {text.decode(errors='replace')}")
            try:
                return json.loads(text)
            except ValueError:
                return text.decode()
        finally:
            connection.close()

    def patch(self, patch: Any) -> None:
        self.request("PATCH", "/v1/cloud", patch)

    def output(self) -> Any:
        return self.request("GET", "/v1/output")


class Exporter(Program):
    """`vnagent export hardware-vtep`, with a map of the fabric's switches and hosts."""

    name = "exporter"

    def __init__(self, fabric: Fabric, vnagent: str | Path, agent: Agent,
                 hosts: dict[str, list[str]]) -> None:
        """`hosts`: for each host of the cloud, the servers of the fabric that are its cables."""
        super().__init__(fabric, vnagent)
        self.agent = agent
        self.control = self.folder / "control.sock"
        self.map = self.folder / "map.json"
        places = {host: [{"switch": switch.name, "port": port}
                         for switch, port in map(fabric.place_of, servers)]
                  for host, servers in hosts.items()}
        self.map.write_text(json.dumps({
            "switches": {name: {"database": switch.database}
                         for name, switch in fabric.switches.items()},
            "hosts": places}, indent=2))

    def start(self, *options: str) -> "Exporter":
        self.launch("export", "hardware-vtep", "--map", self.map, "--socket", self.agent.socket,
                    "--control", self.control, *options)
        return self

    def report(self) -> tuple[int, str]:
        """The exit status and the output of a comparison, by a process of its own.

        The status is 0 where nothing differs, else 5.
        """
        return self.ask("--report", "--map", self.map, "--socket", self.agent.socket)

    def status(self) -> tuple[int, str]:
        """The exit status of `--status` and what it prints: the state of the process that is up."""
        return self.ask("--status", "--control", self.control)

    def ask(self, *options: str | Path) -> tuple[int, str]:
        done = subprocess.run([self.vnagent, "export", "hardware-vtep", *options],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=DEADLINE + 30, check=False)
        return done.returncode, done.stdout + done.stderr
