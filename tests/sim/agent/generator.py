"""Random clouds and streams of changes, from a seed.

A patch is made by editing a copy of the document and taking the difference, so nearly all are
valid; some members are named although they do not change, and some patches break a rule on
purpose. Pools of names are small, so that ports share hosts, VLANs, VNIs and switch ports.
"""

from __future__ import annotations

import random
from typing import Any, Callable

from breakers import BROKEN_EVENTS, broken_patch
from document import COUNTED, faults, merge, objects
from program import Stream

Doc = dict[str, Any]

# Plain names, and names that need escaping in a JSON Pointer, in JSON or in a trace.
NAMES = {
    "plain": {"region": ["R1", "R2", "R3"], "host": ["h1", "h2", "h3", "h4"],
              "switch": ["leaf-1", "leaf-2", "h1"], "interface": ["e1", "e2"]},
    "odd": {"region": ["Région", 'a"b', "c/d~e"], "host": ["ホスト", "h 2", "h\\3", "{}"],
            "switch": ["", "sw:1", "h 2"], "interface": ["", "e/1", "日本"]},
}
VLANS = [1, 10, 10, 11, 12, 13, 4094]
VNIS = [1, 5000, 5000, 5001, 16777215]
FIRST_LEVELS = [0] * 12 + [1, 8, 9, 10, 11, 12, 254, 255]
SINGLE_LEVELS = [0, 0, 1, 1, 2, 2, 3, 9, 10, 11, 12, 127, 254, 255]
SHAPES = [*[["x", "v"]] * 6, *[["v"]] * 4, ["x"], ["v", "x"], ["x", "v", "v"], ["v", "v"],
          ["x", "x", "v"], ["o", "v"], ["x", "o"], ["x", "v", "x"], ["v", "x", "v"], []]


def copy(value: Any) -> Any:
    """A deep copy of a JSON value."""
    return {key: copy(item) for key, item in value.items()} if isinstance(value, dict) else value


def difference(before: Doc, after: Doc) -> Doc:
    """The smallest merge patch that leads from one document to the other."""
    patch: Doc = {key: None for key in before if key not in after}
    for key, value in after.items():
        old = before.get(key)
        if isinstance(value, dict) and isinstance(old, dict):
            inner = difference(old, value)
            if inner:
                patch[key] = inner
        elif key not in before or type(old) is not type(value) or old != value:
            patch[key] = copy(value)
    return patch


class Generator:
    """Makes one stream from one seed."""

    def __init__(self, seed: int) -> None:
        self.random = random.Random(seed)
        self.names = NAMES["odd" if self.random.random() < 0.2 else "plain"]
        self.regions = self.names["region"][:self.random.choice([1, 2, 2, 3])]
        self.timeout = self.random.choice([60.0, 60.0, 30.0, 0.5, 12.25])
        self.doc: Doc = {}
        # Edits that come next, a patch each, between others.
        self.next_edits: list[Callable[[Doc], None]] = []
        # Members that the next patch names whether or not they change.
        self.named: list[tuple[str, ...]] = []
        self.actions = self.weighted_actions()
        self.builders = [self.add_region, self.set_vlan, self.count, *[self.add_segment] * 5,
                         *[self.add_port] * 4, *[self.bind_host] * 3, *[self.bind_switch] * 3,
                         *[self.add_level] * 2]

    def stream(self, events: int) -> Stream:
        """A first document and so many events; the last two take everything away."""
        cloud = self.first_document() if self.random.random() < 0.8 else {}
        self.doc = cloud
        made = [self.event() for _ in range(max(0, events - 2))]
        unbound = {name: {"portBinding": None} for name in objects(self.doc.get("region"))}
        made += [{"patch": {"region": unbound}}, {"patch": {"region": None, "config": None}}]
        return Stream(cloud, made, timeout=self.timeout)

    def first_document(self) -> Doc:
        doc: Doc = {}
        for _ in range(self.random.randint(10, 100)):
            changed = copy(doc)
            self.random.choice(self.builders)(changed)
            if not faults(changed):
                doc = changed
        return doc

    def event(self) -> Any:
        dice = self.random.random()
        if dice < 0.12:
            return {"advance": self.advance()}
        if dice < 0.14:
            return {"regionSyncTimeout": self.random.choice([0.5, 5, 30, 60, 12.25])}
        if dice < 0.15:
            return copy(self.random.choice(BROKEN_EVENTS))
        if dice < 0.22:
            return {"patch": broken_patch(self.random, copy(self.doc))}
        return {"patch": self.patch()}

    def advance(self) -> float:
        timeout = self.timeout
        return self.random.choice([0, 0.25, 0.5, 1, 7, timeout - 0.25, timeout, timeout + 0.25,
                                   timeout / 2, 1000])

    def patch(self) -> Doc:
        """A patch made of one to five edits, with some noise."""
        if self.next_edits and self.random.random() < 0.5:
            after = copy(self.doc)
            self.next_edits.pop(0)(after)
            return self.patch_to(after)
        for attempt in range(8):
            after = copy(self.doc)
            self.named = []
            for _ in range(self.random.choice([1, 1, 1, 2, 2, 3, 5])):
                self.edit(after)
            if not faults(after) or attempt == 7 or self.random.random() < 0.1:
                break
        patch = difference(self.doc, after)
        for path in self.named:
            self.name(patch, after, path)
        while self.random.random() < 0.2:
            self.noise(patch, after)
        return self.applied(patch)

    def patch_to(self, after: Doc) -> Doc:
        """The patch that leads to a document, whether or not that keeps the rules."""
        return self.applied(difference(self.doc, after))

    def applied(self, patch: Doc) -> Doc:
        """A patch, which changes the document unless it breaks a rule."""
        merged = merge(self.doc, patch)
        if not faults(merged):
            self.doc = merged
        return patch

    # Noise: what a patch names without need.

    def name(self, patch: Doc, after: Doc, path: tuple[str, ...]) -> None:
        """Name a member with the value it has afterwards, null where it has none."""
        value: Any = after
        for part in path:
            value = value.get(part) if isinstance(value, dict) else None
        holder = after
        for part in path[:-1]:
            if not isinstance(holder.get(part), dict):
                return
            holder = holder[part]
            inner = patch.setdefault(part, {})
            if not isinstance(inner, dict):
                return
            patch = inner
        patch[path[-1]] = copy(value)

    def noise(self, patch: Doc, after: Doc) -> None:
        path = [self.random.choice(["region", "region", "region", "config"])]
        value = after.get(path[0])
        while isinstance(value, dict) and value and self.random.random() < 0.8:
            path.append(self.random.choice(list(value)))
            value = value[path[-1]]
        if path[0] == "region" and len(path) in (3, 5) and isinstance(value, dict):
            path += self.random.choice([[], ["ghost"]])  # In place of a key: nothing to take out.
        if path[0] in after:
            self.name(patch, after, tuple(path))

    # Edits.

    def weighted_actions(self) -> list[Callable[[Doc], None]]:
        """What an edit may be; a seed leans towards one kind of change or another."""
        lean = self.random.choice(["hosts", "switches", "both", "both", "sync", "pool"])
        hosts = 6 if lean in ("hosts", "both") else 1
        switches = 6 if lean in ("switches", "both") else 1
        sync, pool = (8 if lean == kind else 1 for kind in ("sync", "pool"))
        weights: list[tuple[Callable[[Doc], None], int]] = [
            (self.add_region, 3), (self.drop_region, 1), (self.add_segment, 10),
            (self.drop_segment, 2), (self.replace_segment, 2), (self.add_port, 8),
            (self.drop_port, 1), (self.change_vlan_type, 1), (self.bind_port, 4),
            (self.bind_host, 2 * hosts), (self.bind_switch, 2 * switches), (self.unbind_one, 3),
            (self.drop_port_binding, 2), (self.rename_host, hosts), (self.move_host, hosts),
            (self.change_remote_host, switches),
            (self.add_level, 6), (self.drop_level, 4), (self.change_level, 3),
            (self.swap_levels, 1), (self.disturb_vxlan, 3), (self.switch_kind, 1),
            (self.move_region, 1),
            (self.set_vlan, 3 * pool), (self.add_assignment, 2 * pool),
            (self.drop_assignment, pool), (self.set_driver, pool), (self.set_timeout, 1),
            (self.write_lock, 3 * sync), (self.write_status, 3 * sync),
            (self.write_heartbeat, 2 * sync), (self.count, 1), (self.clear_at_depth, 1)]
        return [action for action, weight in weights for _ in range(weight)]

    def edit(self, doc: Doc) -> None:
        """One edit. A cloud that has become small is mostly built up again."""
        bound = sum(len(objects(r.get("portBinding"))) for r in objects(doc.get("region")).values())
        small = bound < 3 and self.random.random() < 0.6
        self.random.choice(self.builders if small else self.actions)(doc)

    def some_region(self, doc: Doc) -> tuple[str, Doc]:
        """A region of the document; a new one where there is none."""
        regions = doc.setdefault("region", {})
        if not regions:
            regions[self.random.choice(self.regions)] = {}
        name = self.random.choice(list(regions))
        return name, regions[name]

    def some_port_binding(self, doc: Doc) -> tuple[Doc, str]:
        """A region and a port of it that has a port binding, often one made for it."""
        _, region = self.some_region(doc)
        if not region.get("port"):
            self.add_port_to(doc, region)
        if not region.get("port"):
            return region, ""
        bindings = region.setdefault("portBinding", {})
        if not bindings or self.random.random() < 0.6:
            bindings.setdefault(self.random.choice(list(region["port"])), {})
        return region, self.random.choice(list(bindings))

    def some_binding(self, doc: Doc) -> tuple[Doc, Doc, list[str]] | None:
        """A region, and in it the collection and key of a host or switch-interface binding."""
        found = []
        for region in objects(doc.get("region")).values():
            for binding in objects(region.get("portBinding")).values():
                hosts = objects(binding.get("portToHostBinding"))
                found += [(region, hosts, [host]) for host in hosts]
                switches = objects(binding.get("portToSwitchInterfaceBinding"))
                found += [(region, switches[s], [s, i]) for s in switches for i in switches[s]]
        return self.random.choice(found) if found else None

    def add_region(self, doc: Doc) -> None:
        doc.setdefault("region", {}).setdefault(self.random.choice(self.regions), {})

    def drop_region(self, doc: Doc) -> None:
        if doc.get("region"):
            del doc["region"][self.random.choice(list(doc["region"]))]

    def new_segment(self, kind: str) -> Doc:
        if kind == "v":
            return {"segmentationType": self.random.choice(["vlan", "vlan", 0]),
                    "segmentationId": self.random.choice(VLANS)}
        if kind == "x":
            return {"segmentationType": self.random.choice(["vxlan", "vxlan", 1]),
                    "segmentationId": self.random.choice(VNIS)}
        return {"segmentationType": self.random.choice([2, 3, 255]),
                "segmentationId": self.random.choice([0, 10, 4294967295])}

    def add_segment(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        kind = self.random.choice("vvvvxxxo")
        key = f"{kind}{self.random.randint(1, 5)}"
        region.setdefault("segment", {}).setdefault(key, self.new_segment(kind))

    def drop_segment(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("segment"):
            segment = self.random.choice(list(region["segment"]))
            del region["segment"][segment]
            for levels in self.all_levels(region):
                for level in [n for n, s in levels.items() if s == segment]:
                    del levels[level]

    def all_levels(self, region: Doc) -> list[Doc]:
        found = []
        for binding in objects(region.get("portBinding")).values():
            bound = list(objects(binding.get("portToHostBinding")).values())
            for interfaces in objects(binding.get("portToSwitchInterfaceBinding")).values():
                bound += interfaces.values()
            found += [item["segment"] for item in bound if "segment" in item]
        return found

    def replace_segment(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("segment"):
            key = self.random.choice(list(region["segment"]))
            kind = self.random.choice([key[0], key[0], "v", "x", "o"])
            region["segment"][key] = self.new_segment(kind)

    def add_port(self, doc: Doc) -> None:
        self.add_port_to(doc, self.some_region(doc)[1])

    def add_port_to(self, doc: Doc, region: Doc) -> None:
        """A new port, of an id that no region has."""
        taken = {p for other in doc["region"].values() for p in objects(other.get("port"))}
        free = [p for p in (f"p{n}" for n in range(1, 9)) if p not in taken]
        if free:
            port = self.random.choice([{}, {}, {"vlanType": 1}, {"vlanType": 1}, {"vlanType": 0},
                                       {"vlanType": 2}])
            region.setdefault("port", {})[self.random.choice(free)] = copy(port)

    def drop_port(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("port"):
            port = self.random.choice(list(region["port"]))
            del region["port"][port]
            objects(region.get("portBinding")).pop(port, None)

    def change_vlan_type(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("port"):
            port = region["port"][self.random.choice(list(region["port"]))]
            port["vlanType"] = self.random.choice([0, 1, 1, 255])

    def bind_port(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("port"):
            port = self.random.choice(list(region["port"]))
            region.setdefault("portBinding", {}).setdefault(port, {})

    def levels(self, region: Doc) -> Doc:
        """Levels for a new binding, mostly one segment right below the other."""
        first = self.random.choice(FIRST_LEVELS)
        levels: Doc = {}
        free = list(objects(region.get("segment")))
        for offset, kind in enumerate(self.random.choice(SHAPES)):
            fitting = [s for s in free if s[0] == kind] or free
            if not fitting:
                break
            segment = self.random.choice(fitting)
            free.remove(segment)
            levels[str((first + offset) % 256)] = segment
        return levels

    def a_host(self, doc: Doc, region: Doc, kind: str) -> str:
        """A host that no other region has, as far as there is one."""
        taken = set()
        for other in doc["region"].values():
            if other is not region:
                taken |= hosts_of(other, kind)
        free = [host for host in self.names["host"] if host not in taken]
        return self.random.choice(free or self.names["host"])

    def bind_host(self, doc: Doc) -> None:
        region, port = self.some_port_binding(doc)
        if not port:
            return
        binding = region["portBinding"][port]
        if any(objects(binding.get("portToSwitchInterfaceBinding")).values()):
            return
        hosts = binding.setdefault("portToHostBinding", {})
        hosts[self.a_host(doc, region, "host")] = {"segment": self.levels(region)}

    def bind_switch(self, doc: Doc) -> None:
        region, port = self.some_port_binding(doc)
        if not port:
            return
        binding = region["portBinding"][port]
        if binding.get("portToHostBinding"):
            return
        interfaces = binding.setdefault("portToSwitchInterfaceBinding", {}).setdefault(
            self.random.choice(self.names["switch"]), {})
        interfaces[self.random.choice(self.names["interface"])] = {
            "host": self.a_host(doc, region, "switch"), "segment": self.levels(region)}

    def unbind_one(self, doc: Doc) -> None:
        found = self.some_binding(doc)
        if found:
            del found[1][found[2][-1]]

    def move_host(self, doc: Doc) -> None:
        """Take a host from all ports of its region, and bind two ports of another region to it.
        Later one of the two is unbound, and then the first region binds to the host: to be
        refused."""
        regions = objects(doc.get("region"))
        hosts = sorted((name, host) for name, region in regions.items()
                       for host in hosts_of(region, "host"))
        if not hosts or len(regions) < 2:
            return
        left, host = self.random.choice(hosts)
        right = self.random.choice([name for name in regions if name != left])
        region = regions[right]
        for _ in range(2):
            if len(objects(region.get("port"))) < 3:
                self.add_port_to(doc, region)
        bindings = region.setdefault("portBinding", {})
        ports = [port for port in objects(region.get("port")) if not objects(
            bindings.get(port)).get("portToSwitchInterfaceBinding")]
        if len(ports) < 2:
            return
        for binding in objects(regions[left].get("portBinding")).values():
            objects(binding.get("portToHostBinding")).pop(host, None)
        two = self.random.sample(ports, 2)
        for port in two:
            bound = bindings.setdefault(port, {}).setdefault("portToHostBinding", {})
            bound[host] = {"segment": self.levels(region)}

        def unbind_one(doc: Doc) -> None:
            binding = objects(objects(doc.get("region")).get(right)).get("portBinding")
            objects(objects(objects(binding).get(two[0])).get("portToHostBinding")).pop(host, None)

        def bind_again(doc: Doc) -> None:
            region = objects(doc.get("region")).get(left)
            for port in objects(region.get("port")) if region else {}:
                binding = region.setdefault("portBinding", {}).setdefault(port, {})
                if not binding.get("portToSwitchInterfaceBinding"):
                    binding.setdefault("portToHostBinding", {})[host] = {"segment": {}}
                    return

        self.next_edits = [unbind_one, bind_again]

    def drop_port_binding(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        if region.get("portBinding"):
            del region["portBinding"][self.random.choice(list(region["portBinding"]))]

    def rename_host(self, doc: Doc) -> None:
        """Migrate: a host binding moves to another host, mostly with the same levels."""
        found = self.some_binding(doc)
        if found and len(found[2]) == 1:
            region, hosts, (host,) = found
            other = self.a_host(doc, region, "host")
            hosts[other] = hosts.pop(host)

    def change_remote_host(self, doc: Doc) -> None:
        found = self.some_binding(doc)
        if found and len(found[2]) == 2:
            region, interfaces, (_, interface) = found
            interfaces[interface]["host"] = self.a_host(doc, region, "switch")

    def add_level(self, doc: Doc) -> None:
        found = self.some_binding(doc)
        if not found:
            return
        region, holder, path = found
        levels = holder[path[-1]].setdefault("segment", {})
        free = [s for s in objects(region.get("segment")) if s not in levels.values()]
        near = [(int(level) + step) % 256 for level in levels for step in (1, 1, -1)]
        if free:
            level = self.random.choice(near * 2 + SINGLE_LEVELS)
            levels[str(level)] = self.random.choice(free)

    def some_levels(self, doc: Doc) -> tuple[Doc, Doc] | None:
        found = self.some_binding(doc)
        levels = objects(found[1][found[2][-1]].get("segment")) if found else {}
        return (found[0], levels) if found and levels else None

    def drop_level(self, doc: Doc) -> None:
        found = self.some_levels(doc)
        if found:
            del found[1][self.random.choice(list(found[1]))]

    def change_level(self, doc: Doc) -> None:
        found = self.some_levels(doc)
        if found:
            region, levels = found
            free = [s for s in objects(region.get("segment")) if s not in levels.values()]
            if free:
                levels[self.random.choice(list(levels))] = self.random.choice(free)

    def disturb_vxlan(self, doc: Doc) -> None:
        """Take away or change a VXLAN level, if there is one above another level."""
        found = self.some_levels(doc)
        if found:
            region, levels = found
            above = [n for n in levels if levels[n][0] == "x" and str((int(n) + 1) % 256) in levels]
            free = [s for s in objects(region.get("segment")) if s not in levels.values()]
            if above:
                level = self.random.choice(above)
                del levels[level]
                if free and self.random.random() < 0.5:
                    levels[level] = self.random.choice(free)

    def swap_levels(self, doc: Doc) -> None:
        found = self.some_levels(doc)
        if found and len(found[1]) > 1:
            first, second = self.random.sample(list(found[1]), 2)
            found[1][first], found[1][second] = found[1][second], found[1][first]

    def switch_kind(self, doc: Doc) -> None:
        """Move a port from hosts to a switch interface, or back."""
        region, port = self.some_port_binding(doc)
        if port:
            binding = region["portBinding"][port]
            had_hosts = bool(binding.get("portToHostBinding"))
            binding.clear()
            (self.bind_switch if had_hosts else self.bind_host)(doc)

    def move_region(self, doc: Doc) -> None:
        """Move a port, bound to the same host, from one region to another."""
        name, region = self.some_region(doc)
        others = [other for other in doc["region"] if other != name]
        if not others or not region.get("port"):
            return
        target = doc["region"][self.random.choice(others)]
        port = self.random.choice(list(region["port"]))
        target.setdefault("port", {})[port] = region["port"].pop(port)
        binding = objects(region.get("portBinding")).pop(port, None)
        if binding is not None:
            target.setdefault("portBinding", {})[port] = binding
            for levels in self.all_levels({"portBinding": {port: binding}}):
                for level in [n for n, s in levels.items() if s not in target.get("segment", {})]:
                    del levels[level]

    # Edits of the configuration and of a region's scalars.

    def assignment(self, doc: Doc, region: str) -> Doc:
        assignments = doc.setdefault("config", {}).setdefault("vlanAssignment", {})
        return assignments.setdefault(region, {}).setdefault("vlan", {})

    def set_vlan(self, doc: Doc) -> None:
        entries = self.assignment(doc, self.random.choice(self.regions))
        vlan = str(self.random.choice(VLANS))
        if vlan in entries and self.random.random() < 0.4:
            del entries[vlan]
        else:
            entries[vlan] = self.random.random() < 0.8

    def add_assignment(self, doc: Doc) -> None:
        entries = self.assignment(doc, self.random.choice(self.regions))
        for vlan in self.random.sample([1, 10, 11, 12, 13, 14, 4094], self.random.randint(0, 5)):
            entries[str(vlan)] = self.random.random() < 0.9

    def drop_assignment(self, doc: Doc) -> None:
        assignments = objects(objects(doc.get("config")).get("vlanAssignment"))
        if assignments:
            del assignments[self.random.choice(list(assignments))]

    def set_driver(self, doc: Doc) -> None:
        config = doc.setdefault("config", {})
        driver = self.random.choice([None, 0, 0, 0, 1, 1, 2, 2147483647])
        config.pop("vlanTypeDriver", None)
        if driver is not None:
            config["vlanTypeDriver"] = driver
        self.named.append(("config", "vlanTypeDriver"))

    def set_timeout(self, doc: Doc) -> None:
        config = doc.setdefault("config", {})
        name = self.random.choice(["regionSyncTimeout", "defaultRegionSyncTimeout"])
        config.pop(name, None)
        if self.random.random() < 0.6:
            config[name] = self.random.choice([0.25, 10, 30.5, 60, 45])

    def write(self, doc: Doc, region: str, scalar: str, value: Any) -> None:
        """Write a scalar; None takes it out, which writes its default."""
        holder = doc["region"][region]
        holder.pop(scalar, None)
        if value is not None:
            holder[scalar] = value
        self.named.append(("region", region, scalar))

    def write_lock(self, doc: Doc) -> None:
        name, _ = self.some_region(doc)
        requester = self.random.choice(["a", "a", "b", "b", "", None, "é"])
        request_id = self.random.choice(["1", "2", "3", "", "", None])
        which = self.random.random()
        if which < 0.8:
            self.write(doc, name, "requester", requester)
        if which > 0.1:
            self.write(doc, name, "requestId", request_id)

    def write_status(self, doc: Doc) -> None:
        name, _ = self.some_region(doc)
        self.write(doc, name, "syncStatus", self.random.choice(
            ["syncInProgress", "syncInProgress", "syncComplete", "syncComplete", "syncTimedOut",
             "syncUnknown", None]))

    def write_heartbeat(self, doc: Doc) -> None:
        name, _ = self.some_region(doc)
        self.write(doc, name, "syncHeartbeat", self.random.choice([1, 2, 2, 7, None]))
        if self.random.random() < 0.2:
            self.write(doc, name, "syncInterval", self.random.choice([30, 60, None]))

    def count(self, doc: Doc) -> None:
        _, region = self.some_region(doc)
        members = region.setdefault(self.random.choice(COUNTED), {})
        key = f"n{self.random.randint(1, 4)}"
        if members.pop(key, None) is None:
            members[key] = {}

    def clear_at_depth(self, doc: Doc) -> None:
        """Take a member out at any depth, whatever stands in it."""
        holder = doc
        while holder:
            key = self.random.choice(list(holder))
            inner = holder[key]
            if not isinstance(inner, dict) or not inner or self.random.random() < 0.15:
                del holder[key]
                return
            holder = inner


def hosts_of(region: Doc, kind: str) -> set[str]:
    """The hosts that a region has: bound ("host"), or behind switch interfaces ("switch")."""
    found = set()
    for binding in objects(region.get("portBinding")).values():
        if kind == "host":
            found |= set(objects(binding.get("portToHostBinding")))
        else:
            for interfaces in objects(binding.get("portToSwitchInterfaceBinding")).values():
                found |= {bound.get("host") for bound in interfaces.values()}
    return found
