"""Random operations on Neutron's API, as Nova, Ironic, users and administrators do them.

A `Player` is one client: it owns its ports, trunks and routers, shares the networks and the
baremetal nodes with the other players, and does one random operation after the other. Operations
are left unfinished on purpose: a migration or a trunk of one operation is met by later ones in
whatever state it is, and anything may be deleted at any time. Where a server gives no answer, what
has become of the request is unknown; the player then reads its objects anew and goes on.
"""

from __future__ import annotations

import collections
import random
import threading
import time
import uuid
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, NamedTuple

from .api import Api, Json, Refused, Unreachable
from .topology import Node, Topology

# A host that has no agent: binding there fails.
NOWHERE = "compute-without-agent"
# In seconds; less than the driver's time limit for the acknowledgement of a port.
SOON = 15.0
# After so many seconds a request without an answer has been done, or never will be.
NEVER_MADE = 180.0


@dataclass
class Port:
    """A port as its player last knew it."""

    id: str
    network: str
    kind: str  # "vm", "dhcp", "baremetal", "subport" or "router"
    host: str = ""
    target: str = ""  # Of the migration that is under way.
    old_way: bool = False  # Whether that migration is of the old kind.


@dataclass
class Trunk:
    id: str
    parent: str
    node: Node | None
    subports: list[str] = field(default_factory=list)


@dataclass
class Router:
    id: str
    distributed: bool
    ports: dict[str, str] = field(default_factory=dict)  # port -> subnet


@dataclass
class Network:
    id: str
    kind: str  # "vxlan", "vlan" or "racks"
    rack: str = ""
    subnet: str = ""
    users: int = 0


class Shared:
    """What the players have in common; any thread."""

    def __init__(self, topology: Topology, rng: random.Random,
                 has_port: Callable[[str, str, str], bool | None],
                 state_losses: Callable[[], int]) -> None:
        """`has_port` says whether an agent's output has a port on a host, None where the agent does
        not answer; `state_losses` counts the agents that lost what they had."""
        self.topology = topology
        self.has_port = has_port
        self.state_losses = state_losses
        self.rng = rng
        self.lock = threading.Lock()
        self.networks: dict[str, Network] = {}
        self.free_nodes = list(topology.nodes)
        self.next_subnet = 0
        self.done: collections.Counter[str] = collections.Counter()
        self.refused: collections.Counter[str] = collections.Counter()
        self.lost: collections.Counter[str] = collections.Counter()
        self.odd: list[str] = []
        # Ports that became ACTIVE before the agent concerned had them.
        self.too_early: list[str] = []

    def network(self, rng: random.Random, rack: str | None = None) -> Network | None:
        """A random network that ports of the rack can be bound on."""
        with self.lock:
            fitting = [network for network in self.networks.values()
                       if rack is None or network.kind != "vlan" or network.rack == rack]
            return rng.choice(fitting) if fitting else None

    def take_node(self, rng: random.Random) -> Node | None:
        with self.lock:
            if not self.free_nodes:
                return None
            return self.free_nodes.pop(rng.randrange(len(self.free_nodes)))

    def give_node(self, node: Node) -> None:
        with self.lock:
            self.free_nodes.append(node)

    def subnet_address(self) -> str:
        with self.lock:
            self.next_subnet += 1
            return f"10.{self.next_subnet // 256}.{self.next_subnet % 256}.0/24"


class Choice(NamedTuple):
    """An operation with its weight while ports are few, and then."""

    make: Callable[[], bool]
    first: float
    then: float


class Player:
    """One client. `turn` does one operation and never raises for what a server answers."""

    def __init__(self, shared: Shared, api: Api, rng: random.Random, ports: int) -> None:
        self.shared = shared
        self.api = api
        self.rng = rng
        self.wanted_ports = ports
        self.ports: dict[str, Port] = {}
        self.trunks: dict[str, Trunk] = {}
        self.routers: dict[str, Router] = {}
        self.nodes: dict[str, Node] = {}  # Of baremetal ports, by port.
        # Nodes taken for a port of which it is not known whether it was made, and since when.
        self.lost_nodes: list[tuple[Node, float]] = []
        self.name = f"player-{rng.randrange(1 << 32):08x}"
        self.doubtful = True  # Whether what there is must be read anew first.
        self.hosts = shared.topology.hosts()
        self.rack_of_host = dict(self.hosts)
        self.operations = [Choice(*entry) for entry in (
            (self.make_vm, 12, 4), (self.make_and_watch, 3, 3), (self.make_several, 4, 1),
            (self.make_unbound, 3, 1), (self.make_dhcp, 2, 1), (self.make_baremetal, 5, 3),
            (self.replug, 3, 4), (self.bind, 6, 6),
            (self.rebind, 2, 2), (self.wire, 6, 6), (self.unbind, 1, 2),
            (self.fail_to_bind, 1, 1), (self.begin_old_migration, 4, 4),
            (self.begin_new_migration, 5, 5), (self.end_migration, 9, 9),
            (self.abort_migration, 2, 2), (self.make_trunk, 3, 2), (self.change_trunk, 3, 3),
            (self.delete_trunk, 0.5, 1), (self.make_router, 1.5, 1),
            (self.change_router, 4, 3), (self.delete_router, 0.3, 1), (self.delete, 3, 12),
            (self.make_network, 1, 1), (self.delete_network, 0.5, 0.7),
            (self.renumber, 1, 1),
        )]

    # -- Turns

    def turn(self) -> None:
        """One operation that finds something to do."""
        if self.doubtful:
            self.read_anew()
        while not self.doubtful:
            enough = len(self.ports) >= self.wanted_ports
            operation = self.rng.choices(
                [entry.make for entry in self.operations],
                [entry.then if enough else entry.first for entry in self.operations])[0]
            name = operation.__name__
            try:
                if operation():
                    self.shared.done[name] += 1
                    return
            except Refused as error:
                self.shared.refused[f"{name} {error.status}"] += 1
                if error.status not in (400, 404, 409):
                    self.shared.odd.append(str(error))
                self.doubtful = True
            except Unreachable:
                self.shared.lost[name] += 1
                self.doubtful = True

    def read_anew(self) -> None:
        """Takes what the server has for what there is. What the player does not know any more but
        owns (a request whose answer was lost) is found by its name."""
        try:
            mine = {port["id"]: port
                    for port in self.api.get(f"/ports?name={self.name}")["ports"]}
            trunks = {trunk["id"]: trunk
                      for trunk in self.api.get(f"/trunks?name={self.name}")["trunks"]}
            routers = {router["id"]: router
                       for router in self.api.get(f"/routers?name={self.name}")["routers"]}
            interfaces = self.api.get("/ports?device_owner=network:router_interface&"
                                      "device_owner=network:router_interface_distributed")["ports"]
        except (Refused, Unreachable):
            return
        nodes = {node.name: node for node in self.shared.topology.nodes}
        for gone in self.ports.keys() - mine.keys():
            if self.ports[gone].kind != "router":
                self.forget(gone)
        self.trunks = {
            key: Trunk(key, trunk["port_id"], self.nodes.get(trunk["port_id"]),
                       [subport["port_id"] for subport in trunk["sub_ports"]])
            for key, trunk in trunks.items()}
        in_trunks = {port for trunk in self.trunks.values() for port in trunk.subports}
        for key, found in mine.items():
            port = self.ports.get(key)
            if port is None:
                kind = ("subport" if key in in_trunks else
                        "baremetal" if found["binding:vnic_type"] == "baremetal" else
                        "dhcp" if found["device_owner"] == "network:dhcp" else "vm")
                port = self.ports[key] = Port(key, found["network_id"], kind)
                self.used(found["network_id"], 1)
            port.host = found["binding:host_id"]
            if port.kind == "subport" and key not in in_trunks:
                port.kind = "loose"
        for key, port in self.ports.items():
            if port.kind == "baremetal" and key not in self.nodes and port.host in nodes:
                # Only the player that took the node can have bound a port to it.
                self.nodes[key] = nodes[port.host]
        self.find_nodes()
        self.routers = {key: Router(key, router["distributed"]) for key, router in routers.items()}
        for found in interfaces:
            if found["device_id"] in self.routers:
                self.routers[found["device_id"]].ports[found["id"]] = (
                    found["fixed_ips"][0]["subnet_id"] if found["fixed_ips"] else "")
        self.doubtful = False

    def find_nodes(self) -> None:
        """Gives back the nodes whose port was never made, once no request can be under way."""
        bound = {node.name for node in self.nodes.values()}
        waiting = []
        for node, since in self.lost_nodes:
            if node.name not in bound and time.monotonic() - since < NEVER_MADE:
                waiting.append((node, since))
            elif node.name not in bound:
                self.shared.give_node(node)
        self.lost_nodes = waiting

    def used(self, network: str, change: int) -> None:
        with self.shared.lock:
            if network in self.shared.networks:
                self.shared.networks[network].users += change

    def forget(self, port: str) -> None:
        """The port is gone."""
        entry = self.ports.pop(port, None)
        if entry is not None:
            self.used(entry.network, -1)
        node = self.nodes.pop(port, None)
        if node is not None:
            self.shared.give_node(node)

    def some(self, *kinds: str, migrating: bool | None = None,
             bound: bool | None = None) -> Port | None:
        fitting = [port for port in self.ports.values() if port.kind in kinds
                   and (migrating is None or bool(port.target) == migrating)
                   and (bound is None or bool(port.host) == bound)]
        return self.rng.choice(fitting) if fitting else None

    def host_for(self, port: Port) -> str:
        """A host that the port can be bound on, other than its own."""
        with self.shared.lock:
            network = self.shared.networks.get(port.network)
        return self.rng.choice([
            host for host, rack in self.hosts if host != port.host
            and (network is None or network.kind != "vlan" or rack == network.rack)])

    # -- Ports

    def body(self, network: Network, **more: Any) -> Json:
        return {"network_id": network.id, "name": self.name, **more}

    def vm_body(self, network: Network, host: str = "") -> Json:
        body = self.body(network, device_owner="compute:nova", device_id=str(uuid.uuid4()))
        if host:
            body["binding:host_id"] = host
        return body

    def add(self, made: Json, kind: str) -> Port:
        port = Port(made["id"], made["network_id"], kind, made["binding:host_id"])
        self.ports[port.id] = port
        self.used(port.network, 1)
        return port

    def make_vm(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return self.make_network()
        made = self.api.post("/ports", {"port": self.vm_body(network, host)})["port"]
        port = self.add(made, "vm")
        if self.rng.random() < 0.6:
            self.api.played("wire", host=port.host, device=port.id)
        return True

    def make_and_watch(self) -> bool:
        """A port that becomes ACTIVE soon is on the switch by then. (One that becomes ACTIVE late
        may have been let go because of the time limit.)"""
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        losses = self.shared.state_losses()
        begin = time.monotonic()
        made = self.api.post("/ports", {"port": self.vm_body(network, host)})["port"]
        port = self.add(made, "vm")
        self.api.played("wire", host=host, device=port.id)
        while time.monotonic() - begin < SOON:
            found = self.api.get(f"/ports/{port.id}?fields=status")["port"]["status"]
            if found == "ACTIVE" and time.monotonic() - begin < SOON:
                agent = self.shared.topology.agent_of_rack()[rack]
                has = self.shared.has_port(agent, host, port.id)
                if has is False and losses == self.shared.state_losses():
                    self.shared.too_early.append(
                        f"port {port.id} on {host} is ACTIVE, and agent {agent} does not have it")
                if has is not None:
                    self.shared.done["seen in effect when ACTIVE"] += 1
                return True
            time.sleep(0.2)
        return True

    def make_several(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        bodies = [self.vm_body(network, host) for _ in range(self.rng.randrange(2, 7))]
        for made in self.api.post("/ports", {"ports": bodies})["ports"]:
            self.add(made, "vm")
        return True

    def make_unbound(self) -> bool:
        network = self.shared.network(self.rng)
        if network is None:
            return False
        self.add(self.api.post("/ports", {"port": self.vm_body(network)})["port"], "vm")
        return True

    def make_dhcp(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        body = self.body(network, device_owner="network:dhcp", device_id=f"dhcp-{host}",
                         **{"binding:host_id": host})
        self.add(self.api.post("/ports", {"port": body})["port"], "dhcp")
        return True

    def make_baremetal(self) -> bool:
        node = self.shared.take_node(self.rng)
        if node is None:
            return False
        network = self.shared.network(self.rng, node.rack)
        if network is None:
            self.shared.give_node(node)
            return False
        binding = {"binding:vnic_type": "baremetal", "binding:host_id": node.name,
                   "binding:profile": node.profile()}
        body = self.body(network, device_owner="baremetal:none", device_id=str(uuid.uuid4()))
        at_once = self.rng.random() < 0.5
        if at_once:
            body.update(binding)
        try:
            made = self.api.post("/ports", {"port": body})["port"]
        except Refused:
            self.shared.give_node(node)
            raise
        except Unreachable:
            self.lost_nodes.append((node, time.monotonic()))
            raise
        port = self.add(made, "baremetal")
        self.nodes[port.id] = node
        if not at_once:
            self.api.put(f"/ports/{port.id}", {"port": binding})
        port.host = node.name
        return True

    def replug(self) -> bool:
        """Another network for a node, as when it is handed over: a port of the new network takes
        the place of the one before on the same links, at once."""
        in_trunks = {trunk.parent for trunk in self.trunks.values()}
        fitting = [port for port in self.nodes if port not in in_trunks]
        if not fitting:
            return False
        before = self.ports[self.rng.choice(fitting)]
        node = self.nodes[before.id]
        network = self.shared.network(self.rng, node.rack)
        if network is None:
            return False
        made = self.api.post("/ports", {"port": self.body(
            network, device_owner="baremetal:none", device_id=str(uuid.uuid4()))})["port"]
        after = self.add(made, "baremetal")
        self.api.delete(f"/ports/{before.id}")
        self.nodes[after.id] = self.nodes.pop(before.id)
        self.forget(before.id)
        self.api.put(f"/ports/{after.id}", {"port": {
            "binding:vnic_type": "baremetal", "binding:host_id": node.name,
            "binding:profile": node.profile()}})
        after.host = node.name
        return True

    def bind(self) -> bool:
        port = self.some("vm", bound=False)
        if port is None:
            return False
        self.put_host(port, self.host_for(port))
        return True

    def rebind(self) -> bool:
        """A change of the profile unbinds the port and binds it again on the same host."""
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        self.api.put(f"/ports/{port.id}", {"port": {
            "binding:profile": {"turn": self.rng.randrange(1 << 30)}}})
        return True

    def put_host(self, port: Port, host: str) -> None:
        self.api.put(f"/ports/{port.id}", {"port": {"binding:host_id": host}})
        port.host = host

    def wire(self) -> bool:
        port = self.some("vm", "dhcp", "subport", bound=True)
        if port is None:
            return False
        self.api.played("unwire" if self.rng.random() < 0.2 else "wire", host=port.host,
                        device=port.id)
        return True

    def unbind(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        self.put_host(port, "")
        return True

    def fail_to_bind(self) -> bool:
        """A host without an agent; a later operation binds the port elsewhere, or deletes it."""
        port = self.some("vm", migrating=False)
        if port is None:
            return False
        self.put_host(port, NOWHERE)
        port.host = ""
        return True

    def delete(self) -> bool:
        """Also in the middle of a migration, and a trunk's parent with its trunk."""
        port = self.some("vm", "dhcp", "baremetal", "subport", "loose")
        if port is None:
            return False
        parents = {trunk.parent: trunk for trunk in self.trunks.values()}
        subports = {subport: trunk for trunk in self.trunks.values() for subport in trunk.subports}
        if port.id in subports:
            self.remove_subports(subports[port.id], [port.id])
            if port.id not in self.ports:
                return True
        elif port.id in parents:
            self.drop_trunk(parents[port.id])
        self.api.delete(f"/ports/{port.id}")
        self.forget(port.id)
        return True

    # -- Live migration

    def begin_old_migration(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        target = self.host_for(port)
        self.api.put(f"/ports/{port.id}", {"port": {
            "binding:profile": {"migrating_to": target}}})
        port.target, port.old_way = target, True
        if self.rng.random() < 0.5:
            self.api.played("wire", host=target, device=port.id)
        return True

    def begin_new_migration(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        target = self.host_for(port)
        self.api.post(f"/ports/{port.id}/bindings", {"binding": {"host": target}})
        port.target, port.old_way = target, False
        return True

    def end_migration(self) -> bool:
        port = self.some("vm", migrating=True)
        if port is None:
            return False
        source, target, port.target = port.host, port.target, ""
        if port.old_way:
            self.api.put(f"/ports/{port.id}", {"port": {
                "binding:host_id": target, "binding:profile": {}}})
        else:
            self.api.put(f"/ports/{port.id}/bindings/{target}/activate")
        port.host = target
        if self.rng.random() < 0.7:
            self.api.played("wire", host=target, device=port.id)
        if not port.old_way and source and source != target and self.rng.random() < 0.9:
            self.api.delete(f"/ports/{port.id}/bindings/{source}")
        self.move_subports(port)
        return True

    def abort_migration(self) -> bool:
        port = self.some("vm", migrating=True)
        if port is None:
            return False
        target, port.target = port.target, ""
        if port.old_way:
            self.api.put(f"/ports/{port.id}", {"port": {"binding:profile": {}}})
        else:
            self.api.delete(f"/ports/{port.id}/bindings/{target}")
        return True

    def move_subports(self, parent: Port) -> None:
        """The L2 agent of the new host asks for the subports."""
        for trunk in self.trunks.values():
            if trunk.parent == parent.id and trunk.subports:
                self.api.played("bind_subports", trunk=trunk.id, ports=trunk.subports)
                for subport in trunk.subports:
                    self.ports[subport].host = parent.host

    # -- Trunks

    def make_trunk(self) -> bool:
        busy = {trunk.parent for trunk in self.trunks.values()}
        fitting = [port for port in self.ports.values()
                   if port.kind in ("vm", "baremetal") and port.id not in busy]
        # A virtual machine's parent must not be bound yet, Neutron says; a baremetal one may.
        fitting = [port for port in fitting if port.kind == "baremetal" or not port.host]
        if not fitting:
            return False
        parent = self.rng.choice(fitting)
        body = {"port_id": parent.id, "name": self.name}
        made = self.api.post("/trunks", {"trunk": body})["trunk"]
        trunk = self.trunks[made["id"]] = Trunk(made["id"], parent.id, self.nodes.get(parent.id))
        if not parent.host and parent.kind == "vm" and self.rng.random() < 0.7:
            self.put_host(parent, self.host_for(parent))
        self.add_subports(trunk)
        return True

    def add_subports(self, trunk: Trunk) -> None:
        parent = self.ports[trunk.parent]
        rack = trunk.node.rack if trunk.node else self.rack_of_host.get(parent.host)
        taken = {self.ports[port].network for port in trunk.subports if port in self.ports}
        taken.add(parent.network)
        for _ in range(self.rng.randrange(1, 4)):
            network = self.shared.network(self.rng, rack)
            if network is None or network.id in taken:
                continue
            taken.add(network.id)
            made = self.api.post("/ports", {"port": self.body(network)})["port"]
            port = self.add(made, "loose")
            tag = 1 + len(taken) + self.rng.randrange(10) * 100
            self.api.put(f"/trunks/{trunk.id}/add_subports", {"sub_ports": [
                {"port_id": port.id, "segmentation_type": "vlan", "segmentation_id": tag}]})
            port.kind = "subport"
            trunk.subports.append(port.id)
            if trunk.node is not None:
                # The parent's host and links are copied by the operator's tool.
                self.api.put(f"/ports/{port.id}", {"port": {
                    "binding:vnic_type": "baremetal", "binding:host_id": trunk.node.name,
                    "binding:profile": trunk.node.profile()}})
                port.host = trunk.node.name
            elif parent.host:
                self.api.played("bind_subports", trunk=trunk.id, ports=[port.id])
                port.host = parent.host

    def change_trunk(self) -> bool:
        if not self.trunks:
            return False
        trunk = self.rng.choice(list(self.trunks.values()))
        if trunk.subports and self.rng.random() < 0.5:
            count = self.rng.randrange(1, len(trunk.subports) + 1)
            self.remove_subports(trunk, self.rng.sample(trunk.subports, count))
        elif trunk.parent in self.ports:
            self.add_subports(trunk)
        return True

    def remove_subports(self, trunk: Trunk, subports: list[str]) -> None:
        self.api.put(f"/trunks/{trunk.id}/remove_subports",
                     {"sub_ports": [{"port_id": port} for port in subports]})
        for port in subports:
            trunk.subports.remove(port)
            # Most tools delete the port; without it a bound port stays.
            if self.rng.random() < 0.8 or trunk.node is not None:
                self.api.delete(f"/ports/{port}")
                self.forget(port)
            elif port in self.ports:
                self.ports[port].kind = "loose"

    def drop_trunk(self, trunk: Trunk) -> None:
        if trunk.node is not None and trunk.subports:
            self.remove_subports(trunk, list(trunk.subports))
        if trunk.node is None and trunk.parent in self.ports and self.ports[trunk.parent].host:
            self.put_host(self.ports[trunk.parent], "")  # Else the trunk is in use.
            self.ports[trunk.parent].target = ""
        self.api.delete(f"/trunks/{trunk.id}")
        for port in trunk.subports:
            if port in self.ports:
                self.ports[port].kind = "loose"
        self.trunks.pop(trunk.id, None)

    def delete_trunk(self) -> bool:
        if not self.trunks:
            return False
        self.drop_trunk(self.rng.choice(list(self.trunks.values())))
        return True

    # -- Routers

    def make_router(self) -> bool:
        made = self.api.post("/routers", {"router": {
            "name": self.name, "distributed": self.rng.random() < 0.6}})["router"]
        self.routers[made["id"]] = Router(made["id"], made["distributed"])
        return True

    def change_router(self) -> bool:
        """One interface more, one less, or one more host that it is bound on."""
        if not self.routers:
            return False
        router = self.rng.choice(list(self.routers.values()))
        choice = self.rng.random()
        if not router.ports or choice < 0.35:
            network = self.shared.network(self.rng)
            if network is None or not network.subnet or network.subnet in router.ports.values():
                return False
            # Another address than the gateway's, so that several routers fit.
            port = self.api.post("/ports", {"port": {
                "network_id": network.id, "fixed_ips": [{"subnet_id": network.subnet}]}})["port"]
            self.api.put(f"/routers/{router.id}/add_router_interface", {"port_id": port["id"]})
            router.ports[port["id"]] = network.subnet
        elif choice < 0.85:
            port_id = self.rng.choice(list(router.ports))
            host, _ = self.rng.choice(self.hosts)
            if router.distributed:
                self.api.played("bind_distributed", port=port_id, host=host, router=router.id)
            else:
                self.api.put(f"/ports/{port_id}", {"port": {"binding:host_id": host}})
            if self.rng.random() < 0.5:
                self.api.played("wire", host=host, device=port_id)
        else:
            port_id = self.rng.choice(list(router.ports))
            self.api.put(f"/routers/{router.id}/remove_router_interface", {"port_id": port_id})
            router.ports.pop(port_id)
        return True

    def delete_router(self) -> bool:
        if not self.routers:
            return False
        router = self.rng.choice(list(self.routers.values()))
        for port in list(router.ports):
            self.api.put(f"/routers/{router.id}/remove_router_interface", {"port_id": port})
            router.ports.pop(port)
        self.api.delete(f"/routers/{router.id}")
        self.routers.pop(router.id)
        return True

    # -- Networks

    def make_network(self) -> bool:
        if len(self.shared.networks) > 40:
            return False
        kind = self.rng.choices(["vxlan", "vlan", "racks"], [6, 2, 1])[0]
        body: Json = {"name": self.name}
        rack = ""
        racks = [entry.name for entry in self.shared.topology.racks]
        if kind == "vlan":
            rack = self.rng.choice(racks)
            body.update({"provider:network_type": "vlan", "provider:physical_network": rack})
        elif kind == "racks":
            body["segments"] = [{"provider:network_type": "vlan",
                                 "provider:physical_network": name} for name in racks]
        made = self.api.post("/networks", {"network": body})["network"]
        network = Network(made["id"], kind, rack)
        subnet = self.api.post("/subnets", {"subnet": {
            "network_id": network.id, "ip_version": 4, "cidr": self.shared.subnet_address(),
            "enable_dhcp": False}})["subnet"]
        network.subnet = subnet["id"]
        with self.shared.lock:
            self.shared.networks[network.id] = network
        return True

    def delete_network(self) -> bool:
        with self.shared.lock:
            idle = [key for key, network in self.shared.networks.items() if network.users == 0]
            if not idle or len(self.shared.networks) < 8:
                return False
            key = self.rng.choice(idle)
            del self.shared.networks[key]
        self.api.delete(f"/networks/{key}")
        return True

    def renumber(self) -> bool:
        """Another VLAN for a network that is VLAN only, with ports on it."""
        with self.shared.lock:
            fitting = [network for network in self.shared.networks.values()
                       if network.kind == "vlan"]
        if not fitting:
            return False
        topology = self.shared.topology
        self.api.put(f"/networks/{self.rng.choice(fitting).id}", {"network": {
            "provider:segmentation_id":
                self.rng.randrange(topology.first_vlan, topology.last_vlan + 1)}})
        return True

    # -- The end

    def clear(self) -> None:
        """Deletes everything that the player owns; raises what the server answers."""
        self.doubtful = True
        self.read_anew()
        for trunk in list(self.trunks.values()):
            self.drop_trunk(trunk)
        for router in list(self.routers.values()):
            for port in list(router.ports):
                self.api.put(f"/routers/{router.id}/remove_router_interface", {"port_id": port})
            self.api.delete(f"/routers/{router.id}")
        self.routers.clear()
        for key in list(self.ports):
            self.api.delete(f"/ports/{key}")
            self.forget(key)
