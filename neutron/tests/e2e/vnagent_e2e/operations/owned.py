"""What a player owns: its ports, trunks, routers and nodes, as it last knew them."""

from __future__ import annotations

import random
import time
import uuid
from typing import Any

from ..api import Api, Json, Refused, Unreachable
from ..topology import Node
from .shared import Network, Port, Router, Shared, Trunk

# After so many seconds a request without an answer has been done, or never will be.
NEVER_MADE = 180.0


class Owned:
    """The objects of one player, and how it chooses and finds them."""

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

    def put_host(self, port: Port, host: str) -> None:
        self.api.put(f"/ports/{port.id}", {"port": {"binding:host_id": host}})
        port.host = host
