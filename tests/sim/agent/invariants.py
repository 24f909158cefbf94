"""Invariants of the output after any history: a second, independent check of a run.

The model follows events one by one. Here the document alone says what has to be published for it,
and what may be left over from before.
"""

from __future__ import annotations

from collections import Counter, defaultdict
from typing import Any

from document import VLAN, VXLAN, objects
from view import BindingView, CloudView, RegionView, read_cloud

Output = dict[str, Any]
# VLAN id -> who refers to it, and VNI -> who refers to that.
Vlans = dict[int, tuple[set[str], dict[int, set[str]]]]


class PoolHistory:
    """Remembers in which regions two VLAN segments ever had the same VLAN id at one time: there
    the pool may have lost count for good."""

    def __init__(self) -> None:
        self.shared: set[str] = set()

    def see(self, cloud: CloudView) -> None:
        self.shared &= cloud.regions.keys()
        for name, region in cloud.regions.items():
            vlans = [s.number for s in region.segments.values() if s.kind == VLAN]
            if len(set(vlans)) != len(vlans):
                self.shared.add(name)


def check(document: dict[str, Any], output: Output, toggle_on: bool,
          history: PoolHistory) -> list[str]:
    """What the output of a step gets wrong, given the document that is in force after it."""
    cloud = read_cloud(document)
    history.see(cloud)
    found = pools(cloud, output, history)
    found += unreferenced(output)
    found += hosts(cloud, output)
    found += switch_side(cloud, output, toggle_on)
    if toggle_on and output["networkElement"]:
        found.append("network elements with the toggle on")
    if not toggle_on and output["requestedResources"]["resourcesForSwitchport"]:
        found.append("switch-port entries with the toggle off")
    return found


def pools(cloud: CloudView, output: Output, history: PoolHistory) -> list[str]:
    found = []
    if output["regionStatus"].keys() != cloud.regions.keys():
        found.append(f"statuses of {sorted(output['regionStatus'])}, regions are "
                     f"{sorted(cloud.regions)}")
    for name, status in output["regionStatus"].items():
        pool = {key: set(vlans) for key, vlans in status["vlanPool"].items()}
        if name in history.shared or name not in cloud.regions:
            continue
        used = {s.number for s in cloud.regions[name].segments.values() if s.kind == VLAN}
        if pool["allocatedVlan"] != used:
            found.append(f"{name}: allocated {sorted(pool['allocatedVlan'])}, segments use "
                         f"{sorted(used)}")
        if pool["availableVlan"] != pool["assignedVlan"] - pool["allocatedVlan"]:
            found.append(f"{name}: available is not assigned without allocated: {pool}")
    return found


def unreferenced(output: Output) -> list[str]:
    """Entries that nobody refers to. Hosts and network elements may stand empty."""
    found: list[str] = []

    def vlans(holder: dict[str, Any], path: str) -> None:
        for vlan, entry in holder["vlan"].items():
            if not entry["referrer"]:
                found.append(f"{path}/vlan/{vlan} has no referrer")
            found.extend(f"{path}/vlan/{vlan}/mappedVni/{vni} has no referrer"
                         for vni, who in entry["mappedVni"].items() if not who)
        found.extend(f"{path}/domain/{region} has no referrer"
                     for region, who in holder.get("domain", {}).items() if not who)

    resources = output["requestedResources"]
    for name, host in resources["resourcesForHostname"].items():
        vlans(host, f"host {name}")
        if len(host["domain"]) > 1:
            found.append(f"host {name} serves {sorted(host['domain'])}")
    for switch, interfaces in resources["resourcesForSwitchport"].items():
        for interface, port in interfaces.items():
            vlans(port, f"switch port {switch}:{interface}")
            if not port["referrer"]:
                found.append(f"switch port {switch}:{interface} has no referrer")
    for name, element in output["networkElement"].items():
        vlans(element, f"element {name}")
        if len(element["domain"]) > 1:
            found.append(f"element {name} serves {sorted(element['domain'])}")
        for interface, entry in element["physicalInterface"].items():
            vlans(entry, f"interface {name}:{interface}")
            if not entry["configuredElement"] and not entry["vlan"]:
                found.append(f"interface {name}:{interface} is of no use")
    return found


def wanted_vlans(vlans: Vlans, port: str, binding: BindingView, region: RegionView) -> None:
    """Add what one binding asks for: each VLAN, with the VNI of the VXLAN right above it."""
    segments = {level: region.segments[s] for level, s in binding.levels.items()}
    for level, segment in segments.items():
        if segment.kind != VLAN:
            continue
        referrers, vnis = vlans[segment.number]
        referrers.add(port)
        above = segments.get((level - 1) % 256)
        if above and above.kind == VXLAN:
            vnis.setdefault(above.number, set()).add(port)


def optional_vnis(binding: BindingView, region: RegionView) -> set[tuple[int, int]]:
    """VLAN and VNI of the one pair that depends on which came first: levels 255 and 0."""
    segments = {level: region.segments[s] for level, s in binding.levels.items()}
    top, bottom = segments.get(0), segments.get(255)
    if top and bottom and top.kind == VLAN and bottom.kind == VXLAN:
        return {(top.number, bottom.number)}
    return set()


def differing_vlans(path: str, wanted: Vlans, published: dict[str, Any],
                    optional: set[tuple[int, int]]) -> list[str]:
    def plain(vlan: int, vnis: dict[int, set[str]]) -> dict[int, list[str]]:
        return {vni: sorted(who) for vni, who in vnis.items()
                if (vlan, vni) not in optional and who}

    expected = {vlan: (sorted(who), plain(vlan, vnis)) for vlan, (who, vnis) in wanted.items()}
    actual = {int(vlan): (entry["referrer"],
                          plain(int(vlan), {int(v): set(w) for v, w in
                                            entry["mappedVni"].items()}))
              for vlan, entry in published.items()}
    return [] if expected == actual else [f"{path}: VLANs {actual}, the cloud asks for {expected}"]


def empty_vlans() -> Vlans:
    return defaultdict(lambda: (set(), {}))


def hosts(cloud: CloudView, output: Output) -> list[str]:
    vlans: dict[str, Vlans] = defaultdict(empty_vlans)
    optional: dict[str, set[tuple[int, int]]] = defaultdict(set)
    domains: dict[str, dict[str, list[str]]] = defaultdict(lambda: defaultdict(list))
    for name, region in cloud.regions.items():
        for port, bindings in sorted(region.bindings.items()):
            for key, binding in bindings.items():
                if key[0] == "host":
                    wanted_vlans(vlans[key[1]], port, binding, region)
                    optional[key[1]] |= optional_vnis(binding, region)
                    domains[key[1]][name].append(port)
    published = output["requestedResources"]["resourcesForHostname"]
    found = [f"host {host} is not published" for host in domains if host not in published]
    for host, entry in published.items():
        found += differing_vlans(f"host {host}", vlans[host], entry["vlan"], optional[host])
        if entry["domain"] != domains[host]:
            found.append(f"host {host}: domains {entry['domain']}, the cloud asks for "
                         f"{dict(domains[host])}")
    return found


def switch_side(cloud: CloudView, output: Output, toggle_on: bool) -> list[str]:
    """Switch ports, or the interfaces of network elements."""
    vlans: dict[tuple[str, str], Vlans] = defaultdict(empty_vlans)
    optional: dict[tuple[str, str], set[tuple[int, int]]] = defaultdict(set)
    referrers: dict[tuple[str, str], set[str]] = defaultdict(set)
    remote: dict[tuple[str, str], set[str]] = defaultdict(set)
    native: dict[tuple[str, str], set[int]] = defaultdict(lambda: {0})
    elements: dict[str, set[str]] = defaultdict(set)
    for region in cloud.regions.values():
        for port, bindings in region.bindings.items():
            for key, binding in bindings.items():
                if key[0] != "switch":
                    continue
                where = (key[1], key[2])
                referrers[where].add("bm-" + port)
                remote[where].add(binding.host)
                elements[key[1]].add("bm-" + port)
                elements[binding.host].add("bm-" + port)
                if all(where):
                    wanted_vlans(vlans[where], port, binding, region)
                    optional[where] |= optional_vnis(binding, region)
                    if region.ports[port] == 1:
                        native[where] |= {region.segments[s].number
                                          for s in binding.levels.values()
                                          if region.segments[s].kind == VLAN}
    published = published_interfaces(output, toggle_on)
    found = [f"{where} is not published" for where in referrers if where not in published]
    for where, entry in published.items():
        found += differing_vlans(f"{where}", vlans[where], entry["vlan"], optional[where])
        if entry["nativeVlan"] not in native[where]:
            found.append(f"{where}: native VLAN {entry['nativeVlan']}, it may be "
                         f"{sorted(native[where])}")
        hosts_there = set(entry["remoteHost" if toggle_on else "configuredElement"])
        if not remote[where] <= hosts_there:
            found.append(f"{where}: hosts {sorted(hosts_there)}, the cloud has "
                         f"{sorted(remote[where])}")
        if toggle_on and set(entry["referrer"]) != referrers[where]:
            found.append(f"{where}: referrers {entry['referrer']}, the cloud has "
                         f"{sorted(referrers[where])}")
    if not toggle_on:
        for name, element in output["networkElement"].items():
            if set(element["referrer"]) != elements[name]:
                found.append(f"element {name}: referrers {element['referrer']}, the cloud has "
                             f"{sorted(elements[name])}")
    return found


def published_interfaces(output: Output, toggle_on: bool) -> dict[tuple[str, str], dict[str, Any]]:
    if toggle_on:
        ports = output["requestedResources"]["resourcesForSwitchport"]
        return {(s, i): entry for s, interfaces in ports.items()
                for i, entry in interfaces.items()}
    return {(name, i): entry for name, element in output["networkElement"].items()
            for i, entry in element["physicalInterface"].items()}


def uuid_faults(uuids: list[str], outputs: list[Output]) -> list[str]:
    """Every rewrite of a pool has a UUID of its own, and a status shows one that was written."""
    repeated = [text for text, times in Counter(uuids).items() if times > 1]
    found = [f"the UUID {text} was written more than once" for text in repeated]
    written = set(uuids)
    for number, output in enumerate(outputs):
        for name, status in objects(output.get("regionStatus")).items():
            text = status["vlanAssignmentUuid"]
            if text and text not in written:
                found.append(f"output {number}, {name}: the UUID {text} is in no trace line")
    return found
