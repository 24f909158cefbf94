"""A hardware_vtep database of the real ovsdb-server, and a connection to look into it and change it.

The server needs no rights: it is started on a Unix socket in a temporary folder.
"""

from __future__ import annotations

import json
import os
import shutil
import signal
import socket
import subprocess
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

Json = Any
PACKAGED = Path("usr/share/openvswitch/vtep.ovsschema")
# Of the installed package, or where tests/export/install has put it.
SCHEMAS = (Path("/") / PACKAGED,
           Path(__file__).resolve().parents[2] / "build" / "openvswitch-vtep" / PACKAGED)
SCHEMA = next((path for path in SCHEMAS if path.exists()), SCHEMAS[0])
PROGRAMS = ("ovsdb-server", "ovsdb-tool", "openssl")
PATIENCE_SECONDS = 60.0


def program(name: str) -> str:
    """The path of a program; those of the server are not on every PATH."""
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") or ""


def missing() -> list[str]:
    """What the tests need and this system does not have."""
    wanted = [name for name in PROGRAMS if not program(name)]
    return wanted + ([] if SCHEMA.exists() else [str(SCHEMA)])


def wait_for(what: str, check: Callable[[], Any], patience: float = PATIENCE_SECONDS) -> Any:
    """What `check` returns as soon as it is true."""
    end = time.monotonic() + patience
    while True:
        if found := check():
            return found
        if time.monotonic() > end:
            raise AssertionError(f"not within {patience:g} s: {what}")
        time.sleep(0.01)


class Connection:
    """A JSON-RPC connection, one request at a time."""

    def __init__(self, path: Path) -> None:
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE_SECONDS)
        self.socket.connect(str(path))
        self.rest = ""
        self.decoder = json.JSONDecoder()
        self.last = 0

    def close(self) -> None:
        self.socket.close()

    def call(self, method: str, *params: Json) -> Json:
        self.last += 1
        request = {"method": method, "params": list(params), "id": self.last}
        self.socket.sendall(json.dumps(request).encode())
        while True:
            message = self.receive()
            if message.get("id") == self.last and "result" in message:
                if message["error"]:
                    raise AssertionError(f"{method}: {message['error']}")
                return message["result"]

    def receive(self) -> Json:
        parts = [self.rest]
        while True:
            text = "".join(parts).lstrip()
            if text.endswith("}"):
                try:
                    message, end = self.decoder.raw_decode(text)
                    self.rest = text[end:]
                    return message
                except json.JSONDecodeError:
                    pass
            parts = [text, self.socket.recv(1 << 20).decode()]
            if not parts[1]:
                raise ConnectionError("the server closed the connection")

    def transact(self, *operations: Json) -> Json:
        result = self.call("transact", "hardware_vtep", *operations)
        for one in result:
            if one and one.get("error"):
                raise AssertionError(f"transact: {one}")
        return result


class Database:
    """One ovsdb-server with the database of one switch."""

    def __init__(self, folder: Path, name: str, ports: list[str], tunnel_ip: str | None,
                 switch: str | None = None, file: Path | None = None) -> None:
        """A new database with one switch, or a copy of a database's file."""
        self.folder = folder / name
        self.folder.mkdir()
        self.name = name
        self.socket = self.folder / "db.sock"
        self.file = self.folder / "vtep.db"
        if file:
            shutil.copy(file, self.file)
        else:
            subprocess.run([program("ovsdb-tool"), "create", self.file, SCHEMA], check=True)
        self.process: subprocess.Popen[bytes] | None = None
        self.remotes: list[str] = []
        self.start()
        if not file:
            self.make_switch(name if switch is None else switch, ports, tunnel_ip)

    @property
    def address(self) -> str:
        return f"unix:{self.socket}"

    def listen(self, kind: str, *options: str) -> str:
        """Listens on a port of this machine too, by "tcp" or "ssl", also after further starts.

        The address to connect to.
        """
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        self.kill()
        self.remotes = [f"--remote=p{kind}:{port}:127.0.0.1", *options]
        self.start()
        return f"{kind}:127.0.0.1:{port}"

    def start(self) -> None:
        self.process = subprocess.Popen(
            [program("ovsdb-server"), self.file, f"--remote=punix:{self.socket}",
             *self.remotes, "--no-chdir",
             f"--unixctl={self.folder / 'ctl'}", "-vconsole:emer", "-vsyslog:off"],
            cwd=self.folder)
        wait_for(f"the database of {self.name}", self.answers)

    def answers(self) -> bool:
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    def kill(self) -> None:
        if self.process is not None:
            self.process.send_signal(signal.SIGCONT)
            self.process.kill()
            self.process.wait()
            self.process = None
        self.socket.unlink(missing_ok=True)

    def pause(self) -> None:
        assert self.process is not None
        self.process.send_signal(signal.SIGSTOP)

    def resume(self) -> None:
        assert self.process is not None
        self.process.send_signal(signal.SIGCONT)

    def transact(self, *operations: Json) -> Json:
        connection = Connection(self.socket)
        try:
            return connection.transact(*operations)
        finally:
            connection.close()

    def make_switch(self, name: str, ports: list[str], tunnel_ip: str | None) -> None:
        inserts = [{"op": "insert", "table": "Physical_Port", "uuid-name": f"p{i}",
                    "row": {"name": port}} for i, port in enumerate(ports)]
        switch: Json = {"name": name, "ports": ["set", [["named-uuid", f"p{i}"]
                                                       for i in range(len(ports))]]}
        if tunnel_ip:
            switch["tunnel_ips"] = tunnel_ip
        self.transact(*inserts,
                      {"op": "insert", "table": "Physical_Switch", "uuid-name": "s",
                       "row": switch},
                      {"op": "insert", "table": "Global",
                       "row": {"switches": ["set", [["named-uuid", "s"]]]}})

    def rows(self, table: str, *columns: str) -> list[Json]:
        return self.transact({"op": "select", "table": table, "where": [],
                              "columns": ["_uuid", *columns]})[0]["rows"]

    def add_port(self, name: str) -> None:
        switch = self.rows("Physical_Switch")[0]["_uuid"]
        self.transact({"op": "insert", "table": "Physical_Port", "uuid-name": "p",
                       "row": {"name": name}},
                      {"op": "mutate", "table": "Physical_Switch", "where": [["_uuid", "==", switch]],
                       "mutations": [["ports", "insert", ["set", [["named-uuid", "p"]]]]]})

    def view(self) -> Json:
        """What the database asks of the switch, without UUIDs."""
        tables = {"Logical_Switch": ["name", "tunnel_key", "replication_mode", "other_config"],
                  "Physical_Port": ["name", "vlan_bindings"],
                  "Mcast_Macs_Remote": ["MAC", "logical_switch", "locator_set"],
                  "Physical_Locator_Set": ["locators"],
                  "Physical_Locator": ["dst_ip", "encapsulation_type"]}
        results = self.transact(*[{"op": "select", "table": table, "where": [],
                                   "columns": ["_uuid", *columns]}
                                  for table, columns in tables.items()])
        rows = {table: {row["_uuid"][1]: row for row in result["rows"]}
                for table, result in zip(tables, results, strict=True)}
        switches = {uuid: row["name"] for uuid, row in rows["Logical_Switch"].items()}
        bindings: Json = {}
        for row in rows["Physical_Port"].values():
            found = {vlan: switches[target[1]] for vlan, target in row["vlan_bindings"][1]}
            if found:
                bindings[row["name"]] = found
        flood: Json = {}
        for row in rows["Mcast_Macs_Remote"].values():
            locators = elements(rows["Physical_Locator_Set"][row["locator_set"][1]]["locators"])
            addresses = sorted(rows["Physical_Locator"][uuid[1]]["dst_ip"] for uuid in locators)
            key = (switches[row["logical_switch"][1]], row["MAC"])
            assert key not in flood, f"{self.name}: two rows for {key}"
            flood[key] = addresses
        return {"switches": {row["name"]: (optional(row["tunnel_key"]),
                                           optional(row["replication_mode"]),
                                           dict(row["other_config"][1]))
                             for row in rows["Logical_Switch"].values()},
                "bindings": bindings, "flood": flood,
                "locators": sorted(row["dst_ip"] for row in rows["Physical_Locator"].values())}


def elements(value: Json) -> list[Json]:
    """The elements of a set."""
    return value[1] if isinstance(value, list) and value[0] == "set" else [value]


def optional(value: Json) -> Json:
    found = elements(value)
    return found[0] if found else None
