"""From rows of Neutron's database to the document of a region. No database, no agent: values only.

The same state gives the same document as `vnagent import-neutron` makes of what the API prints.
What cannot be mapped is left out with a line that says so; nothing is guessed.
"""
import collections
import dataclasses
import json
import typing

Document = dict[str, typing.Any]

VLAN, VXLAN, OTHER = "vlan", "vxlan", 2
NATIVE = 1  # The vlanType of a port whose VLAN is native.
UNBOUND = frozenset({"unbound", "binding_failed"})
DISTRIBUTED = "network:router_interface_distributed"
SUBPORT = "trunk:subport"
BAREMETAL = "baremetal"
DEVICE_COLLECTIONS = ("vmInstance", "baremetalInstance", "dhcpInstance", "routerInstance")
COLLECTIONS = ("segment", "port", "portBinding", "network", *DEVICE_COLLECTIONS)


class PortRow(typing.NamedTuple):
    id: str
    network_id: str
    device_owner: str
    device_id: str


class BindingRow(typing.NamedTuple):
    """Of ml2_port_bindings; the inactive one of a live migration is among them."""
    port_id: str
    host: str
    vif_type: str
    vnic_type: str
    profile: str
    status: str


class LevelRow(typing.NamedTuple):
    port_id: str
    host: str
    level: int
    segment_id: str | None


class SegmentRow(typing.NamedTuple):
    id: str
    network_id: str
    network_type: str
    physical_network: str | None
    segmentation_id: int | None
    is_dynamic: bool


@dataclasses.dataclass
class Rows:
    """What was read in one transaction: whole tables, or the rows about some objects."""
    ports: list[PortRow] = dataclasses.field(default_factory=list)
    bindings: list[BindingRow] = dataclasses.field(default_factory=list)
    levels: list[LevelRow] = dataclasses.field(default_factory=list)
    segments: list[SegmentRow] = dataclasses.field(default_factory=list)
    networks: list[str] = dataclasses.field(default_factory=list)


@dataclasses.dataclass(frozen=True)
class Link:
    """One entry of local_link_information."""
    switch: str
    interface: str


def fault_of_name(name: str) -> str:
    """Why a name cannot be one of the document; empty when it can."""
    if not name:
        return "an empty name"
    if len(name.encode("utf-8", "surrogatepass")) > 255:
        return "a name of more than 255 bytes"
    if any(ord(c) < 0x20 or ord(c) == 0x7f or 0xd800 <= ord(c) < 0xe000 for c in name):
        return "a name with a control character"
    return ""


def profile_of(text: str) -> Document:
    """A binding's profile, which the database has as text."""
    try:
        profile = json.loads(text) if text else {}
    except ValueError:
        return {}
    return profile if isinstance(profile, dict) else {}


def links_of(profile: Document) -> tuple[list[Link], list[str]]:
    """The links of a profile that can be used, and a line for each that cannot."""
    links: list[Link] = []
    faults: list[str] = []
    entries = profile.get("local_link_information")
    if not entries:
        return links, faults
    if not isinstance(entries, list):
        return links, ["local_link_information is not a list"]
    for entry in entries:
        if not isinstance(entry, dict):
            faults.append("a link is not an object")
            continue
        switch = _text(entry.get("switch_info")) or _text(entry.get("switch_id"))
        interface = _text(entry.get("port_id"))
        if not switch:
            faults.append("a link names no switch")
        elif not interface:
            faults.append("a link names no port_id")
        elif fault := fault_of_name(switch) or fault_of_name(interface):
            faults.append(f"a link has {fault}")
        elif Link(switch, interface) in links:
            faults.append(f"the port has another link to {switch} {interface}")
        else:
            links.append(Link(switch, interface))
    return links, faults


def _text(value: typing.Any) -> str:
    return value if isinstance(value, str) else ""


def has_links(profile: Document) -> bool:
    return bool(profile.get("local_link_information"))


def segment_document(row: SegmentRow) -> tuple[Document | None, str]:
    """A segment of the document, or None and why it is left out."""
    kind: str | int = row.network_type if row.network_type in (VLAN, VXLAN) else OTHER
    number = row.segmentation_id
    if number is None and kind == OTHER:
        number = 0
    low, high = {VLAN: (1, 4094), VXLAN: (1, 16777215)}.get(str(kind), (0, 4294967295))
    if number is None or not low <= number <= high:
        return None, (f"segment {row.id} left out: {number} is not an id of a {row.network_type} "
                      f"segment ({low} to {high})")
    return {"segmentationType": kind, "segmentationId": number}, ""


class Mapping:
    """Makes the document of the rows for an agent that serves some physical networks, or all."""

    def __init__(self, rows: Rows, physical_networks: typing.Collection[str] = ()) -> None:
        self._rows = rows
        self._served = frozenset(physical_networks)
        self.left_out: list[str] = []
        self._segments = {row.id: row for row in rows.segments}
        self._by_network: dict[str, list[SegmentRow]] = collections.defaultdict(list)
        for row in rows.segments:
            self._by_network[row.network_id].append(row)
        self._levels: dict[str, dict[str, list[LevelRow]]] = collections.defaultdict(dict)
        for level in rows.levels:
            if level.segment_id is not None:
                self._levels[level.port_id].setdefault(level.host, []).append(level)
        self._bindings: dict[str, list[BindingRow]] = collections.defaultdict(list)
        for binding in rows.bindings:
            self._bindings[binding.port_id].append(binding)
        self._region: Document = {name: {} for name in COLLECTIONS}

    def document(self) -> Document:
        """The region: its collections without the empty ones."""
        for row in self._rows.segments:
            if self._serves_network(row.network_id):
                made, why = segment_document(row)
                if made is None:
                    self.left_out.append(why)
                else:
                    self._region["segment"][row.id] = made
        for network in self._rows.networks:
            if self._serves_network(network):
                self._region["network"][network] = {}
        for port in self._rows.ports:
            self._add_port(port)
        return {name: members for name, members in self._region.items() if members}

    def _serves_network(self, network: str) -> bool:
        return not self._served or any(
            row.physical_network in self._served for row in self._by_network.get(network, ()))

    def _leave_out(self, port: PortRow, why: str) -> None:
        self.left_out.append(f"port {port.id}: {why}")

    def _add_port(self, port: PortRow) -> None:
        active = self._active(port)
        is_baremetal = active is not None and active.vnic_type == BAREMETAL
        binding = self._binding(port, active)
        if binding is None and self._served:
            return
        is_native = is_baremetal and port.device_owner != SUBPORT
        self._region["port"][port.id] = {"vlanType": NATIVE} if is_native else {}
        if binding is not None:
            self._region["portBinding"][port.id] = binding
        self._add_device(port, is_baremetal)

    def _active(self, port: PortRow) -> BindingRow | None:
        for row in self._bindings.get(port.id, ()):
            if row.status == "ACTIVE":
                return row
        return None

    def _binding(self, port: PortRow, active: BindingRow | None) -> Document | None:
        """The port's binding; None where it is not bound, or nowhere that is served."""
        if active is None:
            return None
        is_distributed = port.device_owner == DISTRIBUTED
        own = "" if is_distributed else active.host
        if not is_distributed and active.vif_type in UNBOUND:
            return None
        with_levels = sorted(self._levels.get(port.id, ()))
        if active.vnic_type == BAREMETAL and not is_distributed:
            profile = profile_of(active.profile)
            if has_links(profile):
                return self._switch_bindings(port, active, profile)
            with_levels = []
        hosts = ([own] if own else []) + [host for host in with_levels if host != own]
        if not own and not is_distributed:
            self._leave_out(port, f"it is bound ({active.vif_type}), but on no host")
            return None
        bound: Document = {}
        for host in hosts:
            if fault := fault_of_name(host):
                self._leave_out(port, f"a binding is left out: its host has {fault}")
                continue
            levels = self._levels_of(port, host)
            if self._is_served(levels):
                bound[host] = {"segment": levels} if levels else {}
        return {"portToHostBinding": bound} if bound else None

    def _switch_bindings(self, port: PortRow, active: BindingRow,
                         profile: Document) -> Document | None:
        links, faults = links_of(profile)
        for fault in faults:
            self._leave_out(port, fault)
        if fault := fault_of_name(active.host):
            self._leave_out(port, f"its host has {fault}")
            return None
        levels = self._levels_of(port, active.host)
        if not self._is_served(levels):
            return None
        made: Document = {"host": active.host}
        if levels:
            made["segment"] = levels
        bound: Document = {}
        for link in links:
            bound.setdefault(link.switch, {})[link.interface] = made
        # A port all of whose links are left out is bound, but to nothing that is known.
        return {"portToSwitchInterfaceBinding": bound} if bound else {}

    def _is_served(self, levels: dict[str, str]) -> bool:
        return not self._served or any(
            self._segments[segment].physical_network in self._served
            for segment in levels.values())

    def _levels_of(self, port: PortRow, host: str) -> dict[str, str]:
        rows = self._levels.get(port.id, {}).get(host)
        if rows is None:
            own = [s for s in self._by_network.get(port.network_id, ()) if not s.is_dynamic]
            rows = [LevelRow(port.id, host, 0, own[0].id)] if len(own) == 1 else []
        levels: dict[str, str] = {}
        vlans: set[int] = set()
        for row in sorted(rows, key=lambda row: row.level):
            if row.segment_id is None:
                continue
            segment = self._segments.get(row.segment_id)
            made = segment_document(segment)[0] if segment is not None else None
            if segment is None or made is None:
                why = f"there is no segment {row.segment_id}"
            elif row.segment_id in levels.values():
                why = "its segment is at another level too"
            elif made["segmentationType"] == VLAN and made["segmentationId"] in vlans:
                why = f"VLAN {made['segmentationId']} is at another level too"
            elif not 0 <= row.level <= 255:
                why = "there is no such level"
            else:
                levels[str(row.level)] = row.segment_id
                if made["segmentationType"] == VLAN:
                    vlans.add(made["segmentationId"])
                continue
            self._leave_out(port, f"level {row.level} on host {host} is left out: {why}")
        return levels

    def _add_device(self, port: PortRow, is_baremetal: bool) -> None:
        if port.device_owner.startswith("compute:"):
            collection = "baremetalInstance" if is_baremetal else "vmInstance"
        elif port.device_owner == "network:dhcp":
            collection = "dhcpInstance"
        elif port.device_owner.startswith("network:router_"):
            collection = "routerInstance"
        else:
            return
        if not port.device_id:
            return
        if fault := fault_of_name(port.device_id):
            self._leave_out(port, f"its device is left out: {fault}")
        else:
            self._region[collection][port.device_id] = {}


def difference(before: Document, after: Document) -> Document:
    """The merge patch that makes one object of another; empty when they are equal."""
    patch: Document = {key: None for key in before if key not in after}
    for key, value in after.items():
        if key not in before:
            patch[key] = value
        elif isinstance(value, dict) and isinstance(before[key], dict):
            if inner := difference(before[key], value):
                patch[key] = inner
        elif value != before[key]:
            patch[key] = value
    return patch


def interfaces_of(binding: Document) -> dict[tuple[str, str], Document]:
    """The (switch, interface) of each link of a port binding, with what is bound there."""
    return {(switch, interface): bound
            for switch, interfaces in binding.get("portToSwitchInterfaceBinding", {}).items()
            for interface, bound in interfaces.items()}


def _natives(region: Document) -> dict[tuple[str, str], dict[str, Document]]:
    """The native ports of each switch interface, with what is bound there."""
    found: dict[tuple[str, str], dict[str, Document]] = {}
    for name, binding in region.get("portBinding", {}).items():
        if region.get("port", {}).get(name, {}).get("vlanType") == NATIVE:
            for link, bound in interfaces_of(binding).items():
                found.setdefault(link, {})[name] = bound
    return found


def displaced_natives(before: Document, after: Document) -> set[str]:
    """The native ports that stay on a switch interface that another native port leaves: the agent
    takes the native VLAN of the interface away with that one, so they must be written anew."""
    displaced: set[str] = set()
    natives = _natives(after)
    for link, ports in _natives(before).items():
        staying = {name for name, bound in ports.items()
                   if natives.get(link, {}).get(name) == bound}
        if staying != ports.keys():
            displaced |= staying
    return displaced


def make_tagged(region: Document, ports: typing.Iterable[str]) -> None:
    """Lets ports of a region, or of a patch of it, be tagged: the first step to write a native one
    anew, which leaves something that differs for whoever goes on if this process does not."""
    for name in ports:
        region.setdefault("port", {})[name] = {"vlanType": 0}


def collections_of(region: Document) -> Document:
    """A region without its scalars."""
    return {name: members for name, members in region.items() if isinstance(members, dict)}


def members_that_differ(before: Document, after: Document) -> list[tuple[str, str]]:
    """The (collection, name) of each member that is not the same in both."""
    places = []
    for collection in sorted(set(before) | set(after)):
        old, new = before.get(collection, {}), after.get(collection, {})
        for name in sorted(set(old) | set(new)):
            if old.get(name) != new.get(name) or (name in old) != (name in new):
                places.append((collection, name))
    return places
