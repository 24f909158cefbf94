"""What the machines have published, as plain dictionaries, and the output document made of it."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

from document import SYNC_STATUS, pointer


@dataclass
class References:
    """A VLAN on a host or a switch port: who needs it, and who needs which VNI on it."""

    referrer: set[str] = field(default_factory=set)
    vnis: dict[int, set[str]] = field(default_factory=dict)

    def document(self) -> dict[str, Any]:
        return {"referrer": sorted(self.referrer),
                "mappedVni": {str(vni): sorted(who) for vni, who in self.vnis.items()}}


@dataclass
class Carrier:
    """What VLANs can be put on: a host, a switch port, or a physical interface."""

    vlans: dict[int, References] = field(default_factory=dict)
    native: int = 0
    # What the native VLAN may be as well: one for each port that set it in the same round, where
    # the ports of a round have no order.
    natives: dict[str, int] = field(default_factory=dict)
    round: int = 0

    def set_native(self, vlan: int, port: str, round_number: int) -> None:
        """The port's VLAN becomes native. Of one round (0 is none) any port may have been last."""
        if not round_number or round_number != self.round:
            self.natives = {}
        self.round = round_number
        self.natives[port] = self.native = vlan

    def clear_native(self) -> None:
        self.native, self.natives, self.round = 0, {}, 0

    def vlan(self, vlan: int) -> References:
        """The VLAN's entry, created on first use."""
        return self.vlans.setdefault(vlan, References())

    def vlan_document(self) -> dict[str, Any]:
        return {str(vlan): entry.document() for vlan, entry in self.vlans.items()}


@dataclass
class Host(Carrier):
    domains: dict[str, set[str]] = field(default_factory=dict)

    def document(self) -> dict[str, Any]:
        return {"domain": {region: sorted(who) for region, who in self.domains.items()},
                "vlan": self.vlan_document()}


@dataclass
class SwitchPort(Carrier):
    remote_hosts: set[str] = field(default_factory=set)
    referrer: set[str] = field(default_factory=set)

    def document(self) -> dict[str, Any]:
        return {"vlan": self.vlan_document(), "nativeVlan": self.native,
                "remoteHost": sorted(self.remote_hosts), "referrer": sorted(self.referrer)}


@dataclass
class Interface(Carrier):
    configured: set[str] = field(default_factory=set)

    def document(self) -> dict[str, Any]:
        return {"vlan": self.vlan_document(), "nativeVlan": self.native,
                "configuredElement": sorted(self.configured)}


@dataclass
class Element:
    """A network element: a switch, a host, or one that is both by name."""

    hostname: str = ""
    referrer: set[str] = field(default_factory=set)
    domains: dict[str, set[str]] = field(default_factory=dict)
    interfaces: dict[str, Interface] = field(default_factory=dict)

    def document(self) -> dict[str, Any]:
        return {"hostname": self.hostname, "referrer": sorted(self.referrer),
                "domain": {region: sorted(who) for region, who in self.domains.items()},
                "vlan": {}, "physicalInterface":
                {name: interface.document() for name, interface in self.interfaces.items()}}


@dataclass
class Status:
    """A region's status, with its VLAN pool."""

    sync: int = 0
    old_sync: int = 0
    owner: str = ""
    request_id: str = ""
    uuid: str = ""
    assigned: set[int] = field(default_factory=set)
    available: set[int] = field(default_factory=set)
    allocated: set[int] = field(default_factory=set)

    def document(self) -> dict[str, Any]:
        return {"syncStatus": SYNC_STATUS[self.sync], "oldSyncStatus": SYNC_STATUS[self.old_sync],
                "owner": self.owner, "requestId": self.request_id,
                "vlanAssignmentUuid": self.uuid,
                "vlanPool": {"assignedVlan": sorted(self.assigned),
                             "availableVlan": sorted(self.available),
                             "allocatedVlan": sorted(self.allocated)}}


@dataclass
class Published:
    """Everything that is handed to the switch."""

    statuses: dict[str, Status] = field(default_factory=dict)
    hosts: dict[str, Host] = field(default_factory=dict)
    switch_ports: dict[tuple[str, str], SwitchPort] = field(default_factory=dict)
    elements: dict[str, Element] = field(default_factory=dict)

    def open_questions(self) -> dict[str, set[int]]:
        """Where the output document may have another native VLAN than the one it shows."""
        found: dict[str, set[int]] = {}
        for (switch, interface), port in self.switch_ports.items():
            if len(port.natives) > 1:
                place = pointer("requestedResources", "resourcesForSwitchport", switch, interface)
                found[place + "/nativeVlan"] = set(port.natives.values())
        for name, element in self.elements.items():
            for interface, entry in element.interfaces.items():
                if len(entry.natives) > 1:
                    place = pointer("networkElement", name, "physicalInterface", interface)
                    found[place + "/nativeVlan"] = set(entry.natives.values())
        return found

    def document(self) -> dict[str, Any]:
        """The output document."""
        ports: dict[str, dict[str, Any]] = {}
        for (switch, interface), entry in self.switch_ports.items():
            ports.setdefault(switch, {})[interface] = entry.document()
        return {
            "regionStatus": {name: status.document() for name, status in self.statuses.items()},
            "requestedResources": {
                "resourcesForHostname": {n: host.document() for n, host in self.hosts.items()},
                "resourcesForSwitchport": ports},
            "networkElement": {name: e.document() for name, e in self.elements.items()},
        }
