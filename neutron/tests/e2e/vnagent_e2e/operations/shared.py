"""What the players have in common, and what they remember of Neutron's objects."""

from __future__ import annotations

import collections
import random
import threading
from collections.abc import Callable
from dataclasses import dataclass, field

from ..topology import Node, Topology


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
