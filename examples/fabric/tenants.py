"""The cloud of a fabric: networks, and servers bound to them through the agent's own interface.

Each network has one VNI, and a VLAN in each rack that may be another one in every rack: the upper
segment of a binding is the VXLAN one, the lower one the VLAN of the rack. Which server reaches
which follows from that, and is computed here from the calls alone, not from what the agent says.
"""

from dataclasses import dataclass, field
from typing import Any

from control import Agent
from frames import Endpoint
from racks import Fabric

REGION = "fabric"
Pairs = set[tuple[Endpoint, Endpoint]]
Members = dict[str, set[Endpoint]]  # by network


@dataclass
class Network:
    name: str
    vni: int | None  # without one, the VLAN of each rack is a network by itself
    vlans: dict[str, int]  # by switch


@dataclass
class Bound:
    network: str
    servers: set[str]
    native: bool


@dataclass
class Tenants:
    """What was asked for so far; every call is one change of the agent's cloud.

    A server whose name begins with `host` is a host of virtual machines: its ports are bound by the
    host's name, and the exporter's map says where it is. Any other is bound by its switch port.
    """
    fabric: Fabric
    agent: Agent
    networks: dict[str, Network] = field(default_factory=dict)
    ports: dict[str, Bound] = field(default_factory=dict)

    def clear(self) -> None:
        self.networks.clear()
        self.ports.clear()
        self.agent.request("PUT", f"/v1/cloud/region/{REGION}", {})

    def patch(self, **members: Any) -> None:
        self.agent.patch({"region": {REGION: members}})

    def network(self, name: str, vni: int | None, vlans: dict[str, int]) -> None:
        """A new network, or new numbers for one that exists."""
        self.change(Network(name, vni, vlans))

    def swap(self, one: str, other: str, switch: str) -> None:
        """Each of two networks gets the VLAN that the other had at a switch, in one change."""
        first, second = (Network(n.name, n.vni, dict(n.vlans))
                         for n in (self.networks[one], self.networks[other]))
        first.vlans[switch], second.vlans[switch] = second.vlans[switch], first.vlans[switch]
        self.change(first, second)

    def change(self, *networks: Network) -> None:
        segments: dict[str, Any] = {}
        for network in networks:
            self.networks[network.name] = network
            if network.vni is not None:
                segments[network.name] = {"segmentationType": "vxlan",
                                          "segmentationId": network.vni}
            for switch, vlan in network.vlans.items():
                segments[f"{network.name}-{switch}"] = {"segmentationType": "vlan",
                                                        "segmentationId": vlan}
        self.patch(segment=segments)

    def bind(self, port: str, network: str, *servers: str, native: bool = False) -> None:
        """Binds a port to servers: one, or two while a virtual machine migrates."""
        new = port not in self.ports
        before = set() if new else self.ports[port].servers
        self.ports[port] = Bound(network, set(servers), native)
        hosts: dict[str, Any] = {server: None for server in before - set(servers)}
        interfaces: dict[str, Any] = {}
        for server in servers:
            switch, interface = self.fabric.place_of(server)
            levels = [name for name in (network, f"{network}-{switch.name}")
                      if name != network or self.networks[network].vni is not None]
            binding = {"segment": {str(level): name for level, name in enumerate(levels)}}
            if server.startswith("host"):
                hosts[server] = binding
            else:
                interfaces[switch.name] = {interface: {"host": server, **binding}}
        self.patch(port={port: {"vlanType": 1 if native else 0}} if new else {},
                   portBinding={port: {"portToHostBinding": hosts} if hosts
                                else {"portToSwitchInterfaceBinding": interfaces}})

    def unbind(self, *ports: str) -> None:
        for port in ports:
            del self.ports[port]
        self.patch(portBinding={port: None for port in ports}, port={port: None for port in ports})

    # What must follow.

    def endpoint(self, port: str, server: str | None = None) -> Endpoint:
        """Where the port's frames enter: at its one server, or at that one of them."""
        bound = self.ports[port]
        server = server or next(iter(bound.servers))
        vlan = self.networks[bound.network].vlans[self.fabric.place_of(server)[0].name]
        return Endpoint(server, None if bound.native else vlan)

    def members(self) -> Members:
        """The endpoints of each network."""
        found: Members = {name: set() for name in self.networks}
        for port, bound in self.ports.items():
            found[bound.network] |= {self.endpoint(port, server) for server in bound.servers}
        return found

    def pairs(self, members: Members | None = None) -> Pairs:
        """Which endpoint reaches which: now, or with these endpoints in each network."""
        return {(one, other) for name, ends in (members or self.members()).items()
                for one in ends for other in ends
                if one != other and (self.networks[name].vni is not None
                                     or self.switch_of(one) == self.switch_of(other))}

    def switch_of(self, endpoint: Endpoint) -> str:
        return self.fabric.place_of(endpoint.server)[0].name
