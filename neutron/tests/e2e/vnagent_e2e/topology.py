"""The cloud that the test plays: racks, compute hosts, baremetal nodes and who serves them."""

from __future__ import annotations

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Rack:
    """A rack is a physical network: VLANs mean something within it only."""

    name: str
    agent: str
    hosts: tuple[str, ...]
    switches: tuple[str, ...]


@dataclass(frozen=True)
class Node:
    """A baremetal server with its links, each a switch and a port of it."""

    name: str
    rack: str
    links: tuple[tuple[str, str], ...]

    def profile(self) -> dict[str, object]:
        """The binding profile that the baremetal service writes."""
        return {"local_link_information": [
            {"switch_info": switch, "switch_id": "52:54:00:00:00:01", "port_id": port}
            for switch, port in self.links]}


@dataclass
class Topology:
    """`agents` are the names of the agents; each serves one region of the same name."""

    racks: list[Rack]
    nodes: list[Node]
    first_vlan: int = 100
    last_vlan: int = 179
    agents: list[str] = field(init=False)

    def __post_init__(self) -> None:
        self.agents = sorted({rack.agent for rack in self.racks})

    def hosts(self) -> list[tuple[str, str]]:
        """(host, rack) of every compute host."""
        return [(host, rack.name) for rack in self.racks for host in rack.hosts]

    def rack_of_switch(self) -> dict[str, str]:
        return {switch: rack.name for rack in self.racks for switch in rack.switches}

    def agent_of_rack(self) -> dict[str, str]:
        return {rack.name: rack.agent for rack in self.racks}


def standard(racks: int = 4, hosts: int = 5, nodes: int = 6) -> Topology:
    """Racks of equal size, the first half of them served by agent `a`, the rest by `b`. Every third
    node has one link, the others a bond of two over both switches of the rack."""
    made = []
    servers = []
    for number in range(1, racks + 1):
        switches = (f"leaf-{number}a", f"leaf-{number}b")
        made.append(Rack(f"rack{number}", "a" if 2 * number <= racks else "b",
                         tuple(f"compute-{number}-{host}" for host in range(1, hosts + 1)),
                         switches))
        for node in range(1, nodes + 1):
            used = switches[:1] if node % 3 == 0 else switches
            servers.append(Node(f"node-{number}-{node}", f"rack{number}",
                                tuple((switch, f"Ethernet{node}") for switch in used)))
    return Topology(made, servers)
