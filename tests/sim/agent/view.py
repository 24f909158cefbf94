"""A valid cloud document, read into plain records: what a patch is compared on.

Two documents that mean the same (a segmentation type as a word or a number, an absent collection
or an empty one) read into equal records.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

from document import COUNTED, VLAN, VXLAN, objects, segmentation_type

# ("host", name) or ("switch", switch identifier, interface name).
BindingKey = tuple[str, ...]


@dataclass(frozen=True)
class Segment:
    """A network segment; never changed, only replaced by another one."""

    id: str
    kind: int
    number: int

    @property
    def is_vlan(self) -> bool:
        return self.kind == VLAN

    @property
    def is_vxlan(self) -> bool:
        return self.kind == VXLAN

    @property
    def kind_text(self) -> str:
        """The segmentation type as traces print it."""
        return {VLAN: "vlan", VXLAN: "vxlan"}.get(self.kind, str(self.kind))


@dataclass
class BindingView:
    """A port's binding to one host, or to one switch interface with a host behind it."""

    host: str
    levels: dict[int, str]


@dataclass
class RegionView:
    """One region of a document."""

    segments: dict[str, Segment] = field(default_factory=dict)
    ports: dict[str, int] = field(default_factory=dict)
    bindings: dict[str, dict[BindingKey, BindingView]] = field(default_factory=dict)
    counts: dict[str, int] = field(default_factory=dict)


@dataclass
class CloudView:
    """A whole document, but for the regions' scalars."""

    config: dict[str, Any]
    assignments: dict[str, dict[int, bool]]
    regions: dict[str, RegionView]


def read_cloud(doc: dict[str, Any]) -> CloudView:
    """Read a document that keeps every rule."""
    config = objects(doc.get("config"))
    assignments = {
        region: {int(vlan): value for vlan, value in objects(entry.get("vlan")).items()}
        for region, entry in objects(config.get("vlanAssignment")).items()
    }
    regions = {name: read_region(region) for name, region in objects(doc.get("region")).items()}
    return CloudView(config, assignments, regions)


def read_region(region: dict[str, Any]) -> RegionView:
    view = RegionView()
    for segment_id, segment in objects(region.get("segment")).items():
        kind = segmentation_type(segment["segmentationType"])
        assert kind is not None
        view.segments[segment_id] = Segment(segment_id, kind, segment["segmentationId"])
    for port_id, port in objects(region.get("port")).items():
        view.ports[port_id] = port.get("vlanType", 0)
    for port_id, binding in objects(region.get("portBinding")).items():
        bindings: dict[BindingKey, BindingView] = {}
        for host, bound in objects(binding.get("portToHostBinding")).items():
            bindings["host", host] = BindingView(host, read_levels(bound))
        for switch, interfaces in objects(binding.get("portToSwitchInterfaceBinding")).items():
            for interface, bound in interfaces.items():
                bindings["switch", switch, interface] = BindingView(bound["host"],
                                                                    read_levels(bound))
        view.bindings[port_id] = bindings
    view.counts = {name: len(objects(region.get(name))) for name in COUNTED}
    return view


def read_levels(binding: dict[str, Any]) -> dict[int, str]:
    return {int(level): segment_id for level, segment_id in objects(binding.get("segment")).items()}
