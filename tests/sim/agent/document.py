"""The cloud document: merging a patch into it, and the rules that a whole document keeps.

Nothing here knows what the machines do with a document. `merge` is the JSON merge patch of
RFC 7396; `faults` lists what is wrong with a document, each fault with the places that an error
about it may name.
"""

from __future__ import annotations

import json
from dataclasses import dataclass
from typing import Any, Callable, Iterator

Json = Any

MAX_SECONDS = 1_000_000_000
SYNC_STATUS = ("syncUnknown", "syncInProgress", "syncTimedOut", "syncComplete")
SEGMENTATION_WORDS = {"vlan": 0, "vxlan": 1}
VLAN, VXLAN = 0, 1

# The collections of a region of which only the size matters.
COUNTED = ("network", "vmInstance", "dhcpInstance", "baremetalInstance", "routerInstance",
           "tenant", "serviceEndPoint")

# A region's scalars in the order in which a patch writes them, each with its default.
REGION_SCALARS = (("requester", ""), ("requestId", ""), ("syncInterval", 0), ("syncHeartbeat", 0),
                  ("syncStatus", "syncUnknown"))

# The agent configuration's attributes; those not checked further are stored and do nothing.
CONFIG_STORED = ("enabled", "mandatoryRegion", "credentials", "defaultVlanTypeDriver",
                 "defaultGracePeriod", "gracePeriod", "defaultAgentMode", "agentMode",
                 "keystoneAuthUrl", "serviceAclTypeVrfMap", "authRole")


@dataclass(frozen=True)
class Fault:
    """One broken rule. An error about it starts with any one of `places`."""

    places: tuple[str, ...]
    rule: str


class RepeatedMember(ValueError):
    """A JSON object that has one member twice."""


def parse(text: str) -> Json:
    """Read JSON, refusing an object that repeats a member."""

    def no_repeats(pairs: list[tuple[str, Json]]) -> dict[str, Json]:
        result = dict(pairs)
        if len(result) != len(pairs):
            raise RepeatedMember("a member is repeated")
        return result

    return json.loads(text, object_pairs_hook=no_repeats)


def merge(target: Json, patch: Json) -> Json:
    """RFC 7396, without touching `target`."""
    if not isinstance(patch, dict):
        return patch
    result = dict(target) if isinstance(target, dict) else {}
    for key, value in patch.items():
        if value is None:
            result.pop(key, None)
        else:
            result[key] = merge(result.get(key), value)
    return result


def pointer(*parts: str) -> str:
    """A JSON Pointer to the member that `parts` lead to."""
    return "".join("/" + part.replace("~", "~0").replace("/", "~1") for part in parts)


def is_integer(value: Json, low: int, high: int) -> bool:
    """Whether it was written as an integer (a fraction or an exponent is none) within bounds."""
    return type(value) is int and low <= value <= high


def is_seconds(value: Json) -> bool:
    """Whether it is a length of time that a timeout may have."""
    return type(value) in (int, float) and 0 < value <= MAX_SECONDS


def is_name(value: Json, empty: bool = False) -> bool:
    """Whether it may name something: bounded, and without control characters."""
    if not isinstance(value, str):
        return False
    if any(ord(c) < 0x20 or ord(c) == 0x7F for c in value):
        return False
    try:
        size = len(value.encode("utf-8"))
    except UnicodeEncodeError:
        return False
    return size <= 255 and (empty or size > 0)


def is_key_number(text: str, low: int, high: int) -> bool:
    """Whether a member's name is a plain decimal within bounds."""
    return text.isascii() and text.isdigit() and str(int(text)) == text and low <= int(text) <= high


def segmentation_type(value: Json) -> int | None:
    """The number of a segmentation type as a document writes it, None where it is none."""
    if isinstance(value, str):
        return SEGMENTATION_WORDS.get(value)
    return value if is_integer(value, 0, 255) else None


def faults(doc: Json) -> list[Fault]:
    """Everything that is wrong with a whole document."""
    return Checker().check(doc)


class Checker:
    """Collects the faults of one document."""

    def __init__(self) -> None:
        self.found: list[Fault] = []

    def bad(self, rule: str, *places: str) -> None:
        self.found.append(Fault(places, rule))

    def members(self, value: Json, *path: str) -> Iterator[tuple[str, Json]]:
        """The members of what must be an object."""
        if isinstance(value, dict):
            yield from value.items()
        else:
            self.bad("not an object", pointer(*path))

    def known(self, value: Json, names: tuple[str, ...], *path: str) -> dict[str, Json]:
        """The members of an object that may only have `names`."""
        result = {}
        for key, member in self.members(value, *path):
            if key in names:
                result[key] = member
            else:
                self.bad("unknown member", pointer(*path, key))
        return result

    def named(self, value: Json, *path: str, empty: bool = False) -> Iterator[tuple[str, Json]]:
        """The members of an object whose keys are names."""
        for key, member in self.members(value, *path):
            if is_name(key, empty):
                yield key, member
            else:
                self.bad("not a name", pointer(*path, key))

    def expect(self, holds: bool, rule: str, *path: str) -> bool:
        if not holds:
            self.bad(rule, pointer(*path))
        return holds

    def check(self, doc: Json) -> list[Fault]:
        top = self.known(doc, ("config", "region"))
        if "config" in top:
            self.check_config(top["config"])
        regions = {}
        for name, region in self.named(top.get("region", {}), "region"):
            self.check_region(region, name)
            if isinstance(region, dict):
                regions[name] = region
        self.check_between_regions(regions)
        return self.found

    def check_config(self, config: Json) -> None:
        path = ("config",)
        checks: dict[str, Callable[[Json], bool]] = {
            "vlanTypeDriver": lambda v: is_integer(v, 0, 2147483647),
            "regionSyncTimeout": is_seconds,
            "defaultRegionSyncTimeout": is_seconds,
        }
        members = self.known(config, (*checks, "vlanAssignment", *CONFIG_STORED), *path)
        for name, holds in checks.items():
            if name in members:
                self.expect(holds(members[name]), "out of bounds", *path, name)
        path = ("config", "vlanAssignment")
        for region, assignment in self.named(members.get("vlanAssignment", {}), *path):
            entries = self.known(assignment, ("vlan",), *path, region).get("vlan", {})
            for vlan, value in self.members(entries, *path, region, "vlan"):
                place = (*path, region, "vlan", vlan)
                self.expect(is_key_number(vlan, 1, 4094), "not a VLAN id", *place)
                self.expect(isinstance(value, bool), "not true or false", *place)

    def check_region(self, region: Json, name: str) -> None:
        path = ("region", name)
        scalars = tuple(scalar for scalar, _ in REGION_SCALARS)
        members = self.known(region, ("segment", "port", "portBinding", *COUNTED, *scalars), *path)
        for collection in COUNTED:
            for _, item in self.named(members.get(collection, {}), *path, collection):
                self.expect(isinstance(item, dict), "not an object", *path, collection)
        for scalar in ("requester", "requestId"):
            self.expect(is_name(members.get(scalar, ""), empty=True), "not a text", *path, scalar)
        for scalar in ("syncInterval", "syncHeartbeat"):
            self.expect(is_integer(members.get(scalar, 0), 0, 2**63), "not a number",
                        *path, scalar)
        status = members.get("syncStatus", "syncUnknown")
        self.expect(isinstance(status, str) and status in SYNC_STATUS, "no status",
                    *path, "syncStatus")

        for segment_id, segment in self.named(members.get("segment", {}), *path, "segment"):
            self.check_segment(segment, *path, "segment", segment_id)
        for port_id, port in self.named(members.get("port", {}), *path, "port"):
            attributes = self.known(port, ("vlanType",), *path, "port", port_id)
            self.expect(is_integer(attributes.get("vlanType", 0), 0, 255), "out of bounds",
                        *path, "port", port_id, "vlanType")
        for port_id, binding in self.named(members.get("portBinding", {}), *path, "portBinding"):
            self.check_port_binding(binding, members, name, port_id)

    def check_segment(self, segment: Json, *path: str) -> None:
        members = self.known(segment, ("segmentationType", "segmentationId"), *path)
        if len(members) < 2:
            if isinstance(segment, dict):
                self.bad("type and id are required", pointer(*path))
            return
        kind = segmentation_type(members["segmentationType"])
        if not self.expect(kind is not None, "no type", *path, "segmentationType"):
            return
        low, high = {VLAN: (1, 4094), VXLAN: (1, 16777215)}.get(kind, (0, 2**32 - 1))
        if not is_integer(members["segmentationId"], low, high):
            # Which of the two is wrong is a matter of taste.
            self.bad("out of bounds", pointer(*path))

    def check_port_binding(self, binding: Json, region: Json, name: str, port_id: str) -> None:
        path = ("region", name, "portBinding", port_id)
        members = self.known(binding, ("portToHostBinding", "portToSwitchInterfaceBinding"), *path)
        ports = region.get("port", {})
        if not (isinstance(ports, dict) and port_id in ports):
            self.bad("no such port", pointer(*path), pointer("region", name, "port", port_id))
        hosts = members.get("portToHostBinding", {})
        switches = members.get("portToSwitchInterfaceBinding", {})
        bound = 0
        for host, host_binding in self.named(hosts, *path, "portToHostBinding"):
            place = (*path, "portToHostBinding", host)
            attributes = self.known(host_binding, ("segment",), *place)
            self.check_levels(attributes.get("segment", {}), region, name, *place)
            bound |= 1
        place = (*path, "portToSwitchInterfaceBinding")
        for switch, interfaces in self.named(switches, *place, empty=True):
            for interface, bind in self.named(interfaces, *place, switch, empty=True):
                inner = (*place, switch, interface)
                attributes = self.known(bind, ("host", "segment"), *inner)
                if not is_name(attributes.get("host")):
                    self.bad("no host", pointer(*inner), pointer(*inner, "host"))
                self.check_levels(attributes.get("segment", {}), region, name, *inner)
                bound |= 2
        self.expect(bound != 3, "bound to hosts and to switch interfaces", *path)

    def check_levels(self, levels: Json, region: Json, name: str, *path: str) -> None:
        segments = region.get("segment", {})
        segments = segments if isinstance(segments, dict) else {}
        seen: dict[str, str] = {}
        vlans: dict[int, str] = {}
        for level, segment_id in self.members(levels, *path, "segment"):
            place = pointer(*path, "segment", level)
            if not is_key_number(level, 0, 255):
                self.bad("no level", place)
            if not isinstance(segment_id, str):
                self.bad("no segment id", place)
                continue
            if segment_id not in segments:
                self.bad("no such segment", place, pointer("region", name, "segment", segment_id))
                continue
            if segment_id in seen:
                self.bad("one segment at two levels", place, seen[segment_id], pointer(*path))
            seen[segment_id] = place
            segment = segments[segment_id]
            if not isinstance(segment, dict):
                continue
            if segmentation_type(segment.get("segmentationType")) == VLAN:
                vlan = segment.get("segmentationId")
                if type(vlan) is int and vlan in vlans:
                    self.bad("one VLAN at two levels", place, vlans[vlan], pointer(*path),
                             pointer("region", name, "segment"))
                if type(vlan) is int:
                    vlans[vlan] = place

    def check_between_regions(self, regions: dict[str, Json]) -> None:
        """What may stand in one region only: a port's id, and a host of either kind."""
        owner: dict[tuple[str, str], tuple[str, str]] = {}

        def claim(kind: str, item: str, region: str, place: str) -> None:
            first = owner.setdefault((kind, item), (region, place))
            if first[0] != region:
                self.bad(f"{kind} in two regions", place, first[1])

        for name, region in regions.items():
            for port_id in objects(region.get("port")):
                claim("port", port_id, name, pointer("region", name, "port", port_id))
            for port_id, binding in objects(region.get("portBinding")).items():
                path = ("region", name, "portBinding", port_id)
                members = objects(binding)
                for host in objects(members.get("portToHostBinding")):
                    claim("host", host, name, pointer(*path, "portToHostBinding", host))
                switches = objects(members.get("portToSwitchInterfaceBinding"))
                for switch, interfaces in switches.items():
                    for interface, bind in objects(interfaces).items():
                        host = objects(bind).get("host")
                        if isinstance(host, str):
                            claim("remote host", host, name,
                                  pointer(*path, "portToSwitchInterfaceBinding", switch, interface))


def objects(value: Json) -> dict[str, Json]:
    """An object's members, none where it is no object (which another check reports)."""
    return value if isinstance(value, dict) else {}
