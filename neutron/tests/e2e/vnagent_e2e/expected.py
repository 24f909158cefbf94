"""What each agent must be asked to provide, worked out from the rows of Neutron's database alone.

This is the test's own reading of what the rows mean. It uses nothing of the driver and nothing of
Neutron but its tables:

- A port is bound on a host when `ml2_port_binding_levels` has rows for the two. A virtual machine
  that is being migrated has rows for two hosts, and a distributed router's port for many; all of
  these hosts need the VLAN.
- A port whose active binding is not bound, or failed, is bound nowhere.
- The segments of a binding are its levels, level 0 first. A VLAN is trunked to the host, and mapped
  to the VNI of the VXLAN segment right above it, if there is one.
- A baremetal port is bound on the switch ports that its binding profile names, through its active
  binding only. Its VLANs are native there, unless it is a trunk's subport: those are tagged.
- The physical network of a binding's VLAN segments is a rack, and a rack belongs to one agent.
"""

from __future__ import annotations

import json
from collections import defaultdict
from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field
from typing import Any

Row = dict[str, Any]
Json = dict[str, Any]

DISTRIBUTED = "network:router_interface_distributed"

QUERIES = {
    "levels": "SELECT port_id, host, level, segment_id FROM ml2_port_binding_levels",
    "segments": "SELECT id, network_id, network_type, physical_network, segmentation_id, is_dynamic"
                " FROM networksegments",
    "bindings": "SELECT port_id, host, vnic_type, profile, vif_type, status"
                " FROM ml2_port_bindings",
    "ports": "SELECT id, device_owner FROM ports",
    "blocks": "SELECT ports.id, entity FROM provisioningblocks JOIN ports"
              " ON ports.standard_attr_id = provisioningblocks.standard_attr_id",
}


@dataclass
class Vlan:
    """Who refers to a VLAN, and through which VNIs."""

    referrer: set[str] = field(default_factory=set)
    vnis: dict[int, set[str]] = field(default_factory=lambda: defaultdict(set))

    def printed(self) -> Json:
        return {"referrer": sorted(self.referrer),
                "mappedVni": {str(vni): sorted(ports) for vni, ports in self.vnis.items()}}


@dataclass
class Place:
    """Where ports are bound, with their VLANs."""

    ports: set[str] = field(default_factory=set)
    vlans: dict[int, Vlan] = field(default_factory=lambda: defaultdict(Vlan))

    def bind(self, port: str, vlans: list[tuple[int, int | None]]) -> None:
        self.ports.add(port)
        for vlan, vni in vlans:
            self.vlans[vlan].referrer.add(port)
            if vni is not None:
                self.vlans[vlan].vnis[vni].add(port)


@dataclass
class Host(Place):
    """A compute host."""

    def printed(self, region: str) -> Json:
        return {"domain": {region: sorted(self.ports)},
                "vlan": {str(vlan): entry.printed() for vlan, entry in self.vlans.items()}}


@dataclass
class SwitchPort(Place):
    """A port of a switch with a baremetal node on it."""

    hosts: set[str] = field(default_factory=set)
    native: set[int] = field(default_factory=set)

    def bind_node(self, port: str, vlans: list[tuple[int, int | None]], host: str,
                  is_native: bool) -> None:
        self.bind(port, vlans)
        self.hosts.add(host)
        if is_native:
            self.native.update(vlan for vlan, _ in vlans)

    def printed(self) -> Json:
        return {"referrer": sorted("bm-" + port for port in self.ports),
                "remoteHost": sorted(self.hosts),
                "nativeVlan": min(self.native, default=0),
                "vlan": {str(vlan): entry.printed() for vlan, entry in self.vlans.items()}}


@dataclass
class Expected:
    """One agent's part."""

    hosts: dict[str, Host] = field(default_factory=lambda: defaultdict(Host))
    switch_ports: dict[tuple[str, str], SwitchPort] = field(
        default_factory=lambda: defaultdict(SwitchPort))

    def printed(self, region: str) -> Json:
        """In the form of the member `requestedResources` of the agent's output document."""
        switches: Json = {}
        for (switch, interface), entry in self.switch_ports.items():
            switches.setdefault(switch, {})[interface] = entry.printed()
        return {"resourcesForHostname": {name: host.printed(region)
                                         for name, host in self.hosts.items()},
                "resourcesForSwitchport": switches}


def links_of(profile: str) -> list[tuple[str, str]]:
    """(switch, interface) of each link that a binding profile names."""
    links = json.loads(profile or "{}").get("local_link_information") or []
    return [(link.get("switch_info") or link["switch_id"], link["port_id"]) for link in links]


def chain(levels: Iterable[Row], segments: Mapping[str, Row]) -> list[Row]:
    """The segments of a binding, level 0 first."""
    ordered = sorted(levels, key=lambda row: int(row["level"]))
    return [segments[row["segment_id"]] for row in ordered]


def vlans_of(segments: list[Row]) -> list[tuple[int, int | None]]:
    """The VLANs of a binding, each with the VNI right above it."""
    found: list[tuple[int, int | None]] = []
    above: Row | None = None
    for segment in segments:
        if segment["network_type"] == "vlan":
            vni = above["segmentation_id"] if above and above["network_type"] == "vxlan" else None
            found.append((segment["segmentation_id"], vni))
        above = segment
    return found


def expected(rows: Mapping[str, list[Row]],
             agent_of_rack: Mapping[str, str]) -> dict[str, Expected]:
    """What each agent must be asked for."""
    result = {agent: Expected() for agent in set(agent_of_rack.values())}
    segments = {row["id"]: row for row in rows["segments"]}
    owner = {row["id"]: row["device_owner"] for row in rows["ports"]}
    binding = {(row["port_id"], row["host"]): row for row in rows["bindings"]}
    not_bound = {row["port_id"] for row in rows["bindings"] if row["status"] == "ACTIVE"
                 and row["vif_type"] in ("unbound", "binding_failed")}
    levels: dict[tuple[str, str], list[Row]] = defaultdict(list)
    for row in rows["levels"]:
        if row["port_id"] in not_bound and owner[row["port_id"]] != DISTRIBUTED:
            continue
        levels[row["port_id"], row["host"]].append(row)
    for (port, host), of_binding in levels.items():
        bound = chain(of_binding, segments)
        racks = {segment["physical_network"] for segment in bound
                 if segment["network_type"] == "vlan"}
        for agent in {agent_of_rack[rack] for rack in racks if rack in agent_of_rack}:
            own = binding.get((port, host))
            if own is None or own["vnic_type"] != "baremetal":
                result[agent].hosts[host].bind(port, vlans_of(bound))
            elif own["status"] == "ACTIVE":
                for link in links_of(own["profile"]):
                    result[agent].switch_ports[link].bind_node(
                        port, vlans_of(bound), host, owner[port] != "trunk:subport")
    return result


def in_use(resources: Json) -> Json:
    """An agent's `requestedResources` without the hosts that nothing refers to any more: an agent
    goes on naming a host that it has seen."""
    hosts = {name: host for name, host in resources["resourcesForHostname"].items()
             if host["domain"] or host["vlan"]}
    return {**resources, "resourcesForHostname": hosts}


def unused_dynamic_segments(rows: Mapping[str, list[Row]]) -> list[Row]:
    """The dynamic segments that no binding has."""
    used = {row["segment_id"] for row in rows["levels"]}
    return [row for row in rows["segments"] if row["is_dynamic"] and row["id"] not in used]


def vlans_not_assigned(rows: Mapping[str, list[Row]],
                       assigned: Mapping[str, set[int]]) -> list[Row]:
    """The dynamic VLANs that are not among those assigned to their rack."""
    return [row for row in rows["segments"]
            if row["is_dynamic"] and row["network_type"] == "vlan"
            and row["segmentation_id"] not in assigned.get(row["physical_network"], set())]


def differences(wanted: Any, found: Any, place: str = "", limit: int = 20) -> list[str]:
    """One line for each place where the two documents differ, at most `limit`."""
    if isinstance(wanted, dict) and isinstance(found, dict):
        lines: list[str] = []
        for key in sorted(wanted.keys() | found.keys()):
            below = f"{place}/{key}"
            if key not in found:
                lines.append(f"{below}: missing, should be {json.dumps(wanted[key])[:200]}")
            elif key not in wanted:
                lines.append(f"{below}: should not be there: {json.dumps(found[key])[:200]}")
            else:
                lines += differences(wanted[key], found[key], below, limit)
            if len(lines) >= limit:
                return lines[:limit]
        return lines
    if wanted != found:
        return [f"{place}: {json.dumps(found)[:200]}, should be {json.dumps(wanted)[:200]}"]
    return []
