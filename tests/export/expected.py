"""What the databases of switches have to be, from an output document and a map: an independent model
of the export, which computes the whole anew."""

from __future__ import annotations

from typing import Any

Json = Any
OWNER = {"managed-by": "vnagent"}


def claims(output: Json, the_map: Json) -> list[tuple[str, str, Json, int]]:
    """Who asks for VLANs at which port: switch, port, VLANs, native VLAN."""
    found: list[tuple[str, str, Json, int]] = []
    requested = output.get("requestedResources", {})
    for host, one in requested.get("resourcesForHostname", {}).items():
        for place in the_map.get("hosts", {}).get(host, []):
            found.append((place["switch"], place["port"], one["vlan"], 0))
    for switch, ports in requested.get("resourcesForSwitchport", {}).items():
        for port, one in ports.items():
            found.append((switch, port, one["vlan"], one["nativeVlan"]))
    for switch, element in output.get("networkElement", {}).items():
        for port, one in element["physicalInterface"].items():
            found.append((switch, port, one["vlan"], one["nativeVlan"]))
    result = []
    for switch, port, vlans, native in found:
        if switch in the_map["switches"]:
            names = the_map["switches"][switch].get("ports", {})
            result.append((switch, names.get(port, port), vlans, native))
    return result


def bindings(output: Json, the_map: Json) -> dict[str, dict[str, dict[int, str]]]:
    """Switch -> port -> VLAN (0 for untagged) -> name of the Logical_Switch."""
    vnis: dict[tuple[str, str], dict[int, set[int]]] = {}
    natives: dict[tuple[str, str], set[int]] = {}
    for switch, port, vlans, native in claims(output, the_map):
        at = vnis.setdefault((switch, port), {})
        for vlan, one in vlans.items():
            at.setdefault(int(vlan), set()).update(int(vni) for vni in one["mappedVni"])
        if native:
            natives.setdefault((switch, port), set()).add(native)
    result: dict[str, dict[str, dict[int, str]]] = {name: {} for name in the_map["switches"]}
    for (switch, port), vlans in vnis.items():
        native = natives.get((switch, port), set())
        bound = {}
        for vlan, one in vlans.items():
            if len(one) > 1:
                continue
            tag = 0 if native == {vlan} else vlan
            bound[tag] = f"vni{min(one)}" if one else f"vlan{vlan}"
        if bound:
            result[switch][port] = bound
    return result


def databases(output: Json, the_map: Json, addresses: dict[str, str],
              ports: dict[str, set[str]]) -> dict[str, Json]:
    """The view of each switch's database. `ports` are those that each switch has."""
    wanted = bindings(output, the_map)
    used = {switch: {name for bound in at.values() for name in bound.values()}
            for switch, at in wanted.items()}
    result = {}
    for switch in the_map["switches"]:
        flood = {}
        for name in used[switch]:
            others = sorted({addresses[other] for other in used
                             if other != switch and name in used[other]
                             and addresses[other] != addresses[switch]})
            if name.startswith("vni") and others:
                flood[(name, "unknown-dst")] = others
        result[switch] = {
            "switches": {name: (int(name[3:]) if name.startswith("vni") else None, "source_node",
                                OWNER) for name in used[switch]},
            "bindings": {port: bound for port, bound in wanted[switch].items()
                         if port in ports[switch]},
            "flood": flood,
            "locators": sorted({address for one in flood.values() for address in one}),
        }
    return result


def differences(expected: Json, actual: Json, place: str = "") -> list[str]:
    """What differs between two views, one line each."""
    if isinstance(expected, dict) and isinstance(actual, dict):
        found = []
        for key in sorted(expected.keys() | actual.keys(), key=str):
            found += differences(expected.get(key), actual.get(key), f"{place}/{key}")
        return found
    return [] if expected == actual else [f"{place}: expected {expected}, found {actual}"]
