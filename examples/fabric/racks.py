"""Racks with switches and servers in network namespaces, on an underlay, and their removal.

    plan = [Rack("tor1", {"eth1": "compute-1", "eth2": "metal-1"}), ...]
    with Fabric(plan) as fabric:
        fabric.recorder.send(Endpoint("compute-1", 100), fabric.recorder.flow())

Each fabric has a name of its own, which all of its namespaces begin with, and a folder, so that
several can stand beside each other. What a crashed one left behind is removed by `sweep`.
"""

import contextlib
import os
import shutil
import threading
from collections.abc import Collection
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType

import namespaces
from frames import Recorder
from namespaces import Failure
from switch import UNDERLAY, Switch

FOLDER = Path("/run/vnagent-fabric")
PREFIX = "fab"


@dataclass(frozen=True)
class Rack:
    """The name of a rack's switch, and the server on each of its ports."""
    switch: str
    servers: dict[str, str]


class Neighbours(threading.Thread):
    """Keeps the hardware addresses of the tunnels' ends known to all switches, until `close`.

    Open vSwitch in user space forgets them whenever an interface is added or removed beside, as the
    emulator does for every Logical_Switch, and while frames flow it may not ask for them again for
    minutes: it sees the answer in a rule for what it forwards, and looks no further.
    """

    def __init__(self, switches: Collection[Switch]) -> None:
        super().__init__(daemon=True)
        known = [(switch.tunnel_ip, switch.hardware()) for switch in switches]
        self.entries = [(switch, ip, address) for switch in switches
                        for ip, address in known if ip != switch.tunnel_ip]
        self.ending = threading.Event()
        self.start()

    def run(self) -> None:
        while not self.ending.wait(0.05):
            for switch, ip, address in self.entries:
                # A datapath that is restarted has no entries either; the next round is for it.
                with contextlib.suppress(OSError, Failure):
                    switch.appctl("tnl/neigh/set", UNDERLAY, ip, address)

    def close(self) -> None:
        self.ending.set()
        self.join()


class Fabric:
    """The racks of a plan; up from the constructor's end to `down`."""

    def __init__(self, plan: list[Rack]) -> None:
        self.plan = plan
        self.name = f"{PREFIX}{os.getpid()}-{os.urandom(2).hex()}"
        self.folder = FOLDER / self.name
        self.recorder = Recorder()
        self.switches: dict[str, Switch] = {}
        self.neighbours: Neighbours | None = None
        self.control = f"{self.name}-control"
        self.folder.mkdir(parents=True)
        (self.folder / "owner").write_text(f"{os.getpid()} {started(os.getpid())}\n")
        try:
            self.up()
        except BaseException:
            self.down()
            raise

    def __enter__(self) -> "Fabric":
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.down()

    def up(self) -> None:
        """Cables first, then the switches, each on a thread of its own."""
        namespaces.make(self.control)
        core = f"{self.name}-core"
        namespaces.make(core)
        namespaces.ip(core, "link", "add", "core", "type", "bridge")
        namespaces.ip(core, "link", "set", "core", "up")
        for number, rack in enumerate(self.plan, 1):
            there = f"{self.name}-{rack.switch}"
            namespaces.make(there)
            namespaces.cable((there, "uplink"), (core, rack.switch))
            namespaces.ip(core, "link", "set", rack.switch, "master", "core")
            for port, server in rack.servers.items():
                place = f"{self.name}-{server}"
                namespaces.make(place)
                namespaces.cable((there, port), (place, "nic"))
                self.recorder.add(server, place, "nic")
            self.switches[rack.switch] = Switch(there, rack.switch, f"192.0.2.{number}",
                                                self.folder / rack.switch)
        self.recorder.start()
        with ThreadPoolExecutor() as pool:
            for done in [pool.submit(self.switches[rack.switch].up, list(rack.servers))
                         for rack in self.plan]:
                done.result()
        self.neighbours = Neighbours(self.switches.values())

    def down(self) -> None:
        """Nothing is left behind, also where `up` came only half way."""
        if self.neighbours:
            self.neighbours.close()
        self.recorder.close()
        namespaces.remove(namespaces.named(self.name))
        for switch in self.switches.values():
            for process in switch.processes.values():
                process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)
        with contextlib.suppress(OSError):
            FOLDER.rmdir()

    def place_of(self, server: str) -> tuple[Switch, str]:
        """The switch and the port of a server."""
        return next((self.switches[rack.switch], port) for rack in self.plan
                    for port, name in rack.servers.items() if name == server)


def started(process: int) -> str:
    """When a process started, in the kernel's ticks; empty where there is none."""
    try:
        return Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[19]
    except OSError:
        return ""


def fabrics() -> dict[str, bool]:
    """The fabrics of this machine by name, and whether the process that owns each is alive."""
    found = {}
    for folder in FOLDER.iterdir() if FOLDER.is_dir() else []:
        with contextlib.suppress(OSError, ValueError):
            process, since = (folder / "owner").read_text().split()
            found[folder.name] = started(int(process)) == since
    return dict(sorted(found.items()))


def sweep(*names: str) -> list[str]:
    """Removes these fabrics, or all whose owner has ended; returns what it removed."""
    removed = list(names) or [name for name, alive in fabrics().items() if not alive]
    for name in removed:
        namespaces.remove(namespaces.named(name))
        shutil.rmtree(FOLDER / name, ignore_errors=True)
    with contextlib.suppress(OSError):
        FOLDER.rmdir()
    return removed
