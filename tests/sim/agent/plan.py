"""What a patch does, in order: the four phases of operations between two documents.

An operation is a tuple of its name (a method of `model.Model`) and its arguments. The activity
loop runs after each phase, so what stands in one phase is seen together.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Iterable

from document import REGION_SCALARS, objects
from view import BindingKey, BindingView, CloudView, RegionView

Operation = tuple[Any, ...]


@dataclass
class Cut:
    """What of the bindings is taken out in the first phase, and comes back in the third."""

    # Port bindings that go whole, by (region, port).
    port_bindings: set[tuple[str, str]] = field(default_factory=set)
    # Host and switch-interface bindings that go whole, of port bindings that stay.
    bindings: set[tuple[str, str, BindingKey]] = field(default_factory=set)
    # Single levels that go, of bindings that stay.
    levels: set[tuple[str, str, BindingKey, int]] = field(default_factory=set)


def plan(before: CloudView, after: CloudView, patch: dict[str, Any], toggle_on: bool,
         timeouts: tuple[float, float]) -> list[list[Operation]]:
    """The phases of a patch that leads from `before` to `after`.

    `timeouts` are the region sync timeouts that the two documents call for.
    """
    cut = find_cut(before, after, toggle_on)
    return [removals(before, after, cut),
            configuration(before, after, patch, timeouts),
            additions(before, after, cut),
            region_scalars(after, patch)]


def find_cut(before: CloudView, after: CloudView, toggle_on: bool) -> Cut:
    """Decide what has to be taken out, so that nothing is changed under a machine that would
    not notice."""
    cut = Cut()
    for name, old in before.regions.items():
        new = after.regions.get(name)
        if new is None:
            continue
        segments = {s for s, segment in old.segments.items()
                    if s in new.segments and new.segments[s] != segment}
        ports = {p for p, kind in old.ports.items() if p in new.ports and new.ports[p] != kind}
        for port, bindings in old.bindings.items():
            uses = {segment for b in bindings.values() for segment in b.levels.values()}
            if port not in new.bindings or port in ports or uses & segments:
                cut.port_bindings.add((name, port))
            else:
                cut_port_binding(cut, (name, port), old, new, toggle_on)
    return cut


def cut_port_binding(cut: Cut, where: tuple[str, str], old: RegionView, new: RegionView,
                     toggle_on: bool) -> None:
    """The part of `find_cut` for one port binding that the documents both have."""
    name, port = where
    was, becomes = old.bindings[port], new.bindings[port]
    going = {key for key, binding in was.items()
             if key not in becomes or goes_whole(binding, becomes[key], old)}
    staying = {key for key in was if key in becomes and key[0] == "switch"}
    if not toggle_on and any(key[0] == "switch" and staying - {key} for key in going):
        cut.port_bindings.add(where)
        return
    cut.bindings |= {(name, port, key) for key in going}
    for key in was.keys() - going:
        cut.levels |= {(name, port, key, level) for level, segment in was[key].levels.items()
                       if becomes[key].levels.get(level) != segment}


def goes_whole(was: BindingView, becomes: BindingView, region: RegionView) -> bool:
    """Whether a binding that both documents have is taken out and put back."""
    if was.host != becomes.host:
        return True
    for level, segment in was.levels.items():
        below = (level + 1) % 256
        if (region.segments[segment].is_vxlan and becomes.levels.get(level) != segment
                and below in was.levels and region.segments[was.levels[below]].is_vlan
                and becomes.levels.get(below) == was.levels[below]):
            return True
    return False


def removals(before: CloudView, after: CloudView, cut: Cut) -> list[Operation]:
    def level_order(item: tuple[str, str, BindingKey, int]) -> tuple[Any, ...]:
        name, port, key, level = item
        region = before.regions[name]
        segment = region.segments[region.bindings[port][key].levels[level]]
        return name, port, key, not segment.is_vlan, level

    operations: list[Operation] = []
    operations += [("level_gone", *item) for item in sorted(cut.levels, key=level_order)]
    operations += [("binding_gone", *item) for item in sorted(cut.bindings)]
    operations += [("port_binding_gone", *item) for item in sorted(cut.port_bindings)]
    common = sorted(before.regions.keys() & after.regions.keys())
    for collection, operation in (("segments", "segment_gone"), ("ports", "port_gone")):
        for name in common:
            old, new = (getattr(cloud.regions[name], collection) for cloud in (before, after))
            operations += [(operation, name, item) for item in sorted(old)
                           if new.get(item) != old[item]]
    for name in sorted(before.regions.keys() - after.regions.keys()):
        region = before.regions[name]
        operations += [("port_binding_gone", name, port) for port in sorted(region.bindings)]
        operations += [("segment_gone", name, segment) for segment in sorted(region.segments)]
        operations += [("port_gone", name, port) for port in sorted(region.ports)]
        operations += [("region_gone", name)]
    for name in sorted(before.assignments.keys() & after.assignments.keys()):
        gone = before.assignments[name].keys() - after.assignments[name].keys()
        operations += [("vlan_entry_gone", name, vlan) for vlan in sorted(gone)]
    operations += [("assignment_gone", name)
                   for name in sorted(before.assignments.keys() - after.assignments.keys())]
    return operations


def configuration(before: CloudView, after: CloudView, patch: dict[str, Any],
                  timeouts: tuple[float, float]) -> list[Operation]:
    operations: list[Operation] = []
    old, new = (cloud.config.get("vlanTypeDriver", 0) for cloud in (before, after))
    if "vlanTypeDriver" in objects(patch.get("config")) or old != new:
        operations.append(("driver_written", new))
    if timeouts[0] != timeouts[1]:
        operations.append(("timeout_given", timeouts[1]))
    for name in sorted(after.assignments):
        entries = after.assignments[name]
        if name not in before.assignments:
            operations.append(("assignment_added", name, entries))
            continue
        was = before.assignments[name]
        operations += [("vlan_entry_set", name, vlan, entries[vlan])
                       for vlan in sorted(entries) if was.get(vlan) != entries[vlan]]
    return operations


def additions(before: CloudView, after: CloudView, cut: Cut) -> list[Operation]:
    operations: list[Operation] = []
    nothing = RegionView()
    pairs = [(name, before.regions.get(name, nothing), after.regions[name])
             for name in sorted(after.regions)]
    operations += [("region_added", name) for name, _, _ in pairs if name not in before.regions]
    operations += [("counts_set", name, new.counts) for name, _, new in pairs]
    for name, old, new in pairs:
        operations += [("segment_added", name, new.segments[item]) for item in sorted(new.segments)
                       if old.segments.get(item) != new.segments[item]]
    for name, old, new in pairs:
        operations += [("port_added", name, item, new.ports[item]) for item in sorted(new.ports)
                       if old.ports.get(item) != new.ports[item]]
    for name, old, new in pairs:
        for port in sorted(new.bindings):
            kept = {} if (name, port) in cut.port_bindings else old.bindings.get(port)
            if kept is None or (name, port) in cut.port_bindings:
                operations.append(("port_binding_added", name, port))
            operations += binding_additions((name, port), kept or {}, new.bindings[port], cut)
    return operations


def binding_additions(where: tuple[str, str], was: dict[BindingKey, BindingView],
                      becomes: dict[BindingKey, BindingView], cut: Cut) -> Iterable[Operation]:
    """The host and switch-interface bindings of one port binding, with their levels."""
    for key in sorted(becomes):
        binding = becomes[key]
        kept: dict[int, str] = {}
        if key in was and (*where, key) not in cut.bindings:
            kept = was[key].levels
        else:
            yield "binding_added", *where, key, binding.host
        for level in sorted(binding.levels):
            if kept.get(level) != binding.levels[level]:
                yield "level_added", *where, key, level, binding.levels[level]


def region_scalars(after: CloudView, patch: dict[str, Any]) -> list[Operation]:
    operations: list[Operation] = []
    regions = objects(patch.get("region"))
    for name in sorted(regions):
        named = objects(regions[name])
        if name in after.regions:
            operations += [("region_scalar_written", name, scalar,
                            default if named[scalar] is None else named[scalar])
                           for scalar, default in REGION_SCALARS if scalar in named]
    return operations
