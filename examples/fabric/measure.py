"""How long a change of the agent's cloud takes to the switch's database, and to the first frame."""

import json
import statistics
import subprocess
import threading
import time
from functools import partial
from pathlib import Path

from control import Agent, Exporter
from frames import Endpoint
from namespaces import Failure, poll
from racks import Fabric, Rack
from reach import Probes, settle
from switch import Switch
from tenants import Tenants

DEADLINE = 60.0


class Bindings:
    """The VLANs that a switch's database binds, with the time at which each was first seen."""

    def __init__(self, switch: Switch) -> None:
        self.seen: dict[int, float] = {}
        self.process = subprocess.Popen(
            ["ovsdb-client", "--format=json", "monitor", switch.database, "hardware_vtep",
             "Physical_Port", "vlan_bindings"], stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            now = time.monotonic()
            for row in json.loads(line)["data"]:
                if row[1] in ("initial", "new", "insert"):
                    for vlan, _ in row[2][1]:
                        self.seen.setdefault(vlan, now)

    def close(self) -> None:
        self.process.kill()
        self.process.wait()


def run(binary: Path, changes: int) -> None:
    """Binds ports in a second network of two racks one by one, and prints both times of each."""
    plan = [Rack("tor1", {"eth1": "metal-1"}), Rack("tor2", {"eth1": "metal-2"})]
    with Fabric(plan) as fabric:
        agent = Agent(fabric, binary).start()
        exporter = Exporter(fabric, binary, agent, {}).start()
        tenants = Tenants(fabric, agent)
        tenants.clear()
        bindings = Bindings(fabric.switches["tor2"])
        database, frame = [], []
        try:
            for number in range(changes):
                vlan = 100 + number
                tenants.network("red", 10001 + number, {"tor1": vlan, "tor2": vlan})
                tenants.bind("near", "red", "metal-1")
                ends = [Endpoint("metal-1", vlan), Endpoint("metal-2", vlan)]
                poll(lambda: exporter.report()[0] == 0, "the first port is in its database",
                     DEADLINE)
                begin = time.monotonic()
                tenants.bind("far", "red", "metal-2")
                poll(partial(bindings.seen.__contains__, vlan), "the binding is in the database",
                     DEADLINE)
                probes = Probes(fabric.recorder, ends[:1])
                wanted = {(ends[0], ends[1])}
                while not probes.wait(probes.send(), wanted, 0.02) >= wanted:
                    if time.monotonic() > begin + DEADLINE:
                        raise Failure(f"no frame within {DEADLINE:g} s:\n{exporter.messages()}")
                arrived = min(arrival.received for flow in probes.flows
                              for arrival in fabric.recorder.of(flow))
                database.append((bindings.seen[vlan] - begin) * 1000)
                frame.append(arrived - begin)
                print(f"change {number + 1:3}: database after {database[-1]:7.1f} ms, "
                      f"first frame after {frame[-1]:5.2f} s", flush=True)
                settle(Probes(fabric.recorder, ends), tenants.pairs(), DEADLINE)
                tenants.unbind("near", "far")
        finally:
            bindings.close()
        print(f"median    : database after {statistics.median(database):7.1f} ms, "
              f"first frame after {statistics.median(frame):5.2f} s")
