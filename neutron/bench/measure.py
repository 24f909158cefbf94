#!/usr/bin/python3
"""Measures what the driver costs and how soon it takes effect.

- latency: the API's answers to port create, bind and delete, with the driver and without. Two
  sites run at the same time and take turns, request by request, so that the machine's load is the
  same for both. "vlan" is a network that both bind in the same way; "vxlan" one that only the
  driver binds, with a VLAN of the rack below; "two levels" the same where the VLAN is a segment of
  the network and all that is done is to name it.
- effect: from the API's answer to the agent's durable output, at a fixed rate of changes.
- sync: a full sync of many ports into an agent that has lost its state.
- churn: ports that are made, bound, moved and deleted as fast as the server can; the memory of its
  processes meanwhile.
"""

from __future__ import annotations

import argparse
import contextlib
import http.client
import json
import os
import queue
import random
import signal
import statistics
import sys
import tempfile
import threading
import time
import uuid
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import continuing
from vnagent_e2e.agents import Agent, SocketConnection
from vnagent_e2e.api import Api, Refused, Unreachable
from vnagent_e2e.population import clone_ports
from vnagent_e2e.processes import Failed, eventually
from vnagent_e2e.servers import title_of
from vnagent_e2e.topology import standard
from vnagent_e2e.world import World

Json = dict[str, Any]

# Of the churn: ports of a network before it is deleted, and seconds between two looks at memory.
LIVES_OF_NETWORK = 25
SAMPLE_INTERVAL = 60


def percentile(values: list[float], share: float) -> float:
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def in_milliseconds(values: list[float]) -> str:
    return (f"median {1e3 * statistics.median(values):.1f} ms,"
            f" p99 {1e3 * percentile(values, 0.99):.1f} ms")


def load() -> str:
    return f"load {os.getloadavg()[0]:.1f} on {os.cpu_count()} cores"


def timed(call: Any, *arguments: Any) -> tuple[float, Any]:
    begin = time.perf_counter()
    result = call(*arguments)
    return time.perf_counter() - begin, result


def make_network(api: Api, kind: str, rack: str) -> str:
    body: Json = {"name": "bench", "provider:network_type": kind}
    if kind == "vlan":
        body["provider:physical_network"] = rack
    return str(api.post("/networks", {"network": body})["network"]["id"])


def make_network_of_both(api: Api, rack: str) -> str:
    """A VXLAN segment and a VLAN of the rack."""
    return str(api.post("/networks", {"network": {"name": "bench", "segments": [
        {"provider:network_type": "vxlan"},
        {"provider:network_type": "vlan", "provider:physical_network": rack}]}})["network"]["id"])


class Times:
    """Of the calls of one kind of ports: how long each took, and the processor's time that the
    processes that answer calls have used for it, both in seconds."""

    def __init__(self, world: World) -> None:
        self.pids = processes(world, "api worker")
        self.elapsed: dict[str, list[float]] = {"create": [], "bind": [], "delete": []}
        self.used: dict[str, list[float]] = {"create": [], "bind": [], "delete": []}

    def timed(self, step: str, call: Any, *arguments: Any) -> Any:
        used = sum(processor_time(pid) for pid in self.pids)
        seconds, result = timed(call, *arguments)
        self.elapsed[step].append(seconds)
        self.used[step].append(sum(processor_time(pid) for pid in self.pids) - used)
        return result


def processes(world: World, title: str) -> list[int]:
    """Those of the servers with this in their title."""
    return [pid for server in world.servers for pid in server.workers(title)]


def processor_time(pid: int) -> float:
    return int(Path(f"/proc/{pid}/schedstat").read_text().split()[0]) / 1e9


def resident(pid: int) -> int:
    """MiB in memory."""
    return int(Path(f"/proc/{pid}/statm").read_text().split()[1]) * os.sysconf(
        "SC_PAGE_SIZE") >> 20


def proportional(pid: int) -> int:
    """MiB in memory, where a page of several processes counts in parts."""
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1]) >> 10
    return 0


def life_of_a_port(api: Api, network: str, host: str, times: Times) -> None:
    """Create, bind, delete."""
    made = times.timed("create", api.post, "/ports", {"port": {
        "network_id": network, "device_owner": "compute:nova", "device_id": str(uuid.uuid4())}})
    port = made["port"]["id"]
    made = times.timed("bind", api.put, f"/ports/{port}", {"port": {"binding:host_id": host}})
    if made["port"]["binding:vif_type"] != "ovs":
        raise Failed(f"the port was not bound: {made}")
    times.timed("delete", api.delete, f"/ports/{port}")


def measure_latency(binary: Path, ports: int) -> None:
    topology = standard()
    rack = topology.racks[0]
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="vnagent-bench-"))
        os.environ["PYTHONPATH"] = ":".join([
            continuing.install(Path(folder)), *filter(None, [os.environ.get("PYTHONPATH")])])
        site = stack.enter_context(World(topology, binary, 1, True))
        plain = stack.enter_context(World(topology, binary, 1, False,
                                          without=f"{continuing.NAME},openvswitch"))
        with_driver, without = (world.api(random.Random(1)) for world in (site, plain))
        cases = {
            "without, vlan": (without, make_network(without, "vlan", rack.name)),
            "without, two levels": (without, make_network_of_both(without, rack.name)),
            "with, vlan": (with_driver, make_network(with_driver, "vlan", rack.name)),
            "with, vxlan": (with_driver, make_network(with_driver, "vxlan", rack.name)),
        }
        times = {case: Times(plain if api is without else site)
                 for case, (api, _) in cases.items()}
        for api, network in cases.values():
            # A port that stays keeps the rack's VLAN from going with the last port.
            api.post("/ports", {"port": {"network_id": network, "device_owner": "compute:nova",
                                         "device_id": "stays", "binding:host_id": rack.hosts[0]}})
            for _ in range(10):
                life_of_a_port(api, network, rack.hosts[0], Times(plain))
        for number in range(ports):
            for case in random.sample(sorted(cases), len(cases)):
                api, network = cases[case]
                life_of_a_port(api, network, rack.hosts[number % len(rack.hosts)], times[case])
        print(f"latency of the API, {ports} ports each, {load()}:")
        for step in ("create", "bind", "delete"):
            base = times["without, vlan"]
            print(f"  {step:7} without, vlan:      {in_milliseconds(base.elapsed[step])}; processor"
                  f" {1e3 * statistics.median(base.used[step]):.1f} ms")
            for case in ("without, two levels", "with, vlan", "with, vxlan"):
                ours = times[case]
                ratio = statistics.median(ours.elapsed[step]) / statistics.median(
                    base.elapsed[step])
                tail = percentile(ours.elapsed[step], 0.99) / percentile(base.elapsed[step], 0.99)
                used = statistics.median(ours.used[step])
                print(f"  {step:7} {case:19} {in_milliseconds(ours.elapsed[step])};"
                      f" {ratio:.2f} and {tail:.2f} times; processor {1e3 * used:.1f} ms,"
                      f" {used / statistics.median(base.used[step]):.2f} times")


def events(agent: Agent) -> Iterator[tuple[float, str]]:
    """What `GET /v1/watch` sends, each line of data with the time at which it came."""
    connection = SocketConnection(agent.socket, 60)
    connection.request("GET", "/v1/watch?of=output&at=/requestedResources")
    answer: http.client.HTTPResponse = connection.getresponse()
    while line := answer.readline():
        if line.startswith(b"data: "):
            yield time.perf_counter(), line[6:].decode()


def measure_effect(binary: Path, changes: int, rate: float, clients: int) -> None:
    topology = standard()
    with World(topology, binary, 2) as world:
        api = world.api(random.Random(2))
        networks = [make_network(api, "vxlan", "") for _ in range(10)]
        seen: dict[str, float] = {}
        answered: dict[str, float] = {}
        waiting: queue.Queue[float | None] = queue.Queue()

        def watch(agent: Agent) -> None:
            try:
                for at, text in events(agent):
                    for port in list(answered_or_sent):
                        if port not in seen and port in text:
                            seen[port] = at
            except (OSError, http.client.HTTPException):
                return  # The agent was stopped.

        def client(own: Api, rng: random.Random) -> None:
            while (due := waiting.get()) is not None:
                time.sleep(max(0.0, due - time.perf_counter()))
                rack = rng.choice(topology.racks)
                port = unbound.get()
                answered_or_sent.add(port)
                try:
                    own.put(f"/ports/{port}", {"port": {"binding:host_id": rng.choice(rack.hosts)}})
                    answered[port] = time.perf_counter()
                except Refused as error:
                    print(f"  refused: {error}")

        answered_or_sent: set[str] = set()
        unbound: queue.Queue[str] = queue.Queue()
        for _ in range(changes // 20 + 1):
            made = api.post("/ports", {"ports": [
                {"network_id": random.choice(networks), "device_owner": "compute:nova",
                 "device_id": str(uuid.uuid4())} for _ in range(20)]})
            for port in made["ports"]:
                unbound.put(port["id"])
        for agent in world.agents.values():
            threading.Thread(target=watch, args=(agent,), daemon=True).start()
        rngs = [random.Random(number) for number in range(clients)]
        threads = [threading.Thread(target=client, args=(world.api(rng), rng)) for rng in rngs]
        begin = time.perf_counter()
        for number in range(changes):
            waiting.put(begin + number / rate)
        for thread in threads:
            waiting.put(None)
            thread.start()
        for thread in threads:
            thread.join()
        took = time.perf_counter() - begin
        eventually("all changes are seen", lambda: answered.keys() <= seen.keys(), 120)
        waits = [max(0.0, seen[port] - answered[port]) for port in answered]
        print(f"effect: {len(waits)} binds at {len(waits) / took:.1f}/s ({rate:g}/s wanted),"
              f" {load()}: from the API's answer to the agent's output {in_milliseconds(waits)},"
              f" longest {1e3 * max(waits):.0f} ms")


def measure_sync(binary: Path, ports: int) -> None:
    topology = standard(racks=2)
    with World(topology, binary, 2) as world:
        api = world.api(random.Random(3))
        rack = topology.racks[0]
        templates = []
        for _ in range(20):
            network = make_network(api, "vxlan", "")
            made = api.post("/ports", {"port": {
                "network_id": network, "device_owner": "compute:nova",
                "device_id": str(uuid.uuid4()), "binding:host_id": rack.hosts[0]}})["port"]
            if made["binding:vif_type"] != "ovs":
                raise Failed(f"the port was not bound: {made}")
            templates.append(made["id"])
        clone_ports(world.database, {rack.name: rack.hosts for rack in topology.racks}, templates,
                    ports - len(templates))
        agent = world.agents[rack.agent]
        begin = time.perf_counter()
        agent.lose_state()

        def has_all() -> bool:
            hosts = agent.get("/v1/output")["requestedResources"]["resourcesForHostname"]
            return sum(len(ports) for host in hosts.values()
                       for ports in host["domain"].values()) == ports

        eventually("the agent has all ports", has_all, 600, 0.5)
        print(f"sync: {ports} ports in {time.perf_counter() - begin:.1f} s from the agent's loss of"
              f" its state, its start included, {load()}")
        listed = [entry for entry in api.get("/agents")["agents"]
                  if entry["agent_type"] == "vnagent" and entry["host"] == agent.name]
        print(f"sync: in the list of agents: {json.dumps(listed[0]['configurations'])}")


class Memory:
    """Of the processes of one server, in MiB: what is resident, and the share of each of that."""

    def __init__(self, world: World, samples: Path | None) -> None:
        self._server = world.servers[0]
        self._begin = time.monotonic()
        self._samples = samples
        if samples is not None:
            samples.write_text("seconds\tlives\tpid\tprocess\trss\tpss\n")

    def sample(self, lives: int) -> None:
        """Prints what is in memory now, and adds a line for each process to the file."""
        seconds = int(time.monotonic() - self._begin)
        texts = []
        for pid in [self._server.program.pid, *self._server.workers()]:
            name = title_of(pid).replace("\0", " ").partition("(")[0].strip()
            name = name.rpartition("neutron-server: ")[2] if ":" in name else "parent"
            rss, pss = resident(pid), proportional(pid)
            texts.append(f"{name} {rss} ({pss})")
            if self._samples is not None:
                with self._samples.open("a", encoding="utf-8") as file:
                    file.write(f"{seconds}\t{lives}\t{pid}\t{name}\t{rss}\t{pss}\n")
        print(f"churn: {seconds} s, {lives} lives of a port: resident (share) MiB:"
              f" {', '.join(texts)}", flush=True)


def measure_churn(binary: Path, minutes: float, clients: int, samples: Path | None) -> None:
    topology = standard()
    with World(topology, binary, 1) as world:
        hosts = [host for host, _ in topology.hosts()]
        end = time.monotonic() + 60 * minutes
        done: list[int] = []
        networks: list[int] = []
        failed: list[str] = []

        def live(api: Api, rng: random.Random, network: str) -> None:
            host, other = rng.sample(hosts, 2)
            port = api.post("/ports", {"port": {
                "network_id": network, "device_owner": "compute:nova",
                "device_id": str(uuid.uuid4()), "binding:host_id": host}})["port"]["id"]
            api.put(f"/ports/{port}", {"port": {"binding:host_id": other}})
            api.delete(f"/ports/{port}")
            done.append(1)

        def client(api: Api, rng: random.Random) -> None:
            """Each of its networks goes after a while, too, with the VLANs of the racks."""
            while time.monotonic() < end:
                try:
                    network = make_network(api, "vxlan", "")
                    networks.append(1)
                    for _ in range(LIVES_OF_NETWORK):
                        if time.monotonic() < end:
                            live(api, rng, network)
                    api.delete(f"/networks/{network}")
                except (Refused, Unreachable) as error:
                    failed.append(str(error))

        rngs = [random.Random(number) for number in range(clients)]
        threads = [threading.Thread(target=client, args=(world.api(rng), rng)) for rng in rngs]
        memory = Memory(world, samples)
        memory.sample(0)
        for thread in threads:
            thread.start()
        while any(thread.is_alive() for thread in threads):
            until = time.monotonic() + SAMPLE_INTERVAL
            for thread in threads:
                thread.join(max(0.0, until - time.monotonic()))
            memory.sample(len(done))
        print(f"churn: {len(done)} lives of a port, each made, bound, moved and deleted, in"
              f" {len(networks)} networks and {minutes:g} minutes, {len(failed)} calls failed,"
              f" {load()}")
        for text in sorted(set(failed))[:10]:
            print(f"  {text}")


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", type=Path, required=True, help="the program vnagent")
    parser.add_argument("--only", choices=["latency", "effect", "sync", "churn"])
    parser.add_argument("--ports", type=int, default=300,
                        help="of each kind, for the latency (default: %(default)s)")
    parser.add_argument("--changes", type=int, default=600,
                        help="for the effect (default: %(default)s)")
    parser.add_argument("--rate", type=float, default=20,
                        help="changes in a second (default: %(default)s)")
    parser.add_argument("--clients", type=int, default=12, help="(default: %(default)s)")
    parser.add_argument("--sync-ports", type=int, default=10000, help="(default: %(default)s)")
    parser.add_argument("--minutes", type=float, default=60,
                        help="of the churn, which runs with --only only (default: %(default)s)")
    parser.add_argument("--samples", type=Path, metavar="FILE",
                        help="where the churn writes the memory of each process, once a minute")
    options = parser.parse_args()
    for caught in (signal.SIGTERM, signal.SIGHUP):
        # Unwinds the stack, so that everything that was started is stopped.
        signal.signal(caught, lambda got, _: sys.exit(128 + got))
    binary = options.binary.resolve()
    try:
        if options.only in (None, "latency"):
            measure_latency(binary, options.ports)
        if options.only in (None, "effect"):
            measure_effect(binary, options.changes, options.rate, options.clients)
        if options.only in (None, "sync"):
            measure_sync(binary, options.sync_ports)
        if options.only == "churn":
            measure_churn(binary, options.minutes, options.clients, options.samples)
    except Failed as error:
        print(f"FAILED: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
