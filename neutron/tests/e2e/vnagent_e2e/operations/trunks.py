"""Trunks with their subports, below virtual machines and baremetal nodes."""

from __future__ import annotations

from .owned import Owned
from .shared import Port, Trunk


class TrunkOperations(Owned):
    """Trunks that are made, changed and deleted."""

    def make_trunk(self) -> bool:
        busy = {trunk.parent for trunk in self.trunks.values()}
        fitting = [port for port in self.ports.values()
                   if port.kind in ("vm", "baremetal") and port.id not in busy]
        # A virtual machine's parent must not be bound yet, Neutron says; a baremetal one may.
        fitting = [port for port in fitting if port.kind == "baremetal" or not port.host]
        if not fitting:
            return False
        parent = self.rng.choice(fitting)
        body = {"port_id": parent.id, "name": self.name}
        made = self.api.post("/trunks", {"trunk": body})["trunk"]
        trunk = self.trunks[made["id"]] = Trunk(made["id"], parent.id, self.nodes.get(parent.id))
        if not parent.host and parent.kind == "vm" and self.rng.random() < 0.7:
            self.put_host(parent, self.host_for(parent))
        self.add_subports(trunk)
        return True

    def add_subports(self, trunk: Trunk) -> None:
        parent = self.ports[trunk.parent]
        rack = trunk.node.rack if trunk.node else self.rack_of_host.get(parent.host)
        taken = {self.ports[port].network for port in trunk.subports if port in self.ports}
        taken.add(parent.network)
        for _ in range(self.rng.randrange(1, 4)):
            network = self.shared.network(self.rng, rack)
            if network is None or network.id in taken:
                continue
            taken.add(network.id)
            made = self.api.post("/ports", {"port": self.body(network)})["port"]
            port = self.add(made, "loose")
            tag = 1 + len(taken) + self.rng.randrange(10) * 100
            self.api.put(f"/trunks/{trunk.id}/add_subports", {"sub_ports": [
                {"port_id": port.id, "segmentation_type": "vlan", "segmentation_id": tag}]})
            port.kind = "subport"
            trunk.subports.append(port.id)
            if trunk.node is not None:
                # The parent's host and links are copied by the operator's tool.
                self.api.put(f"/ports/{port.id}", {"port": {
                    "binding:vnic_type": "baremetal", "binding:host_id": trunk.node.name,
                    "binding:profile": trunk.node.profile()}})
                port.host = trunk.node.name
            elif parent.host:
                self.api.played("bind_subports", trunk=trunk.id, ports=[port.id])
                port.host = parent.host

    def change_trunk(self) -> bool:
        if not self.trunks:
            return False
        trunk = self.rng.choice(list(self.trunks.values()))
        if trunk.subports and self.rng.random() < 0.5:
            count = self.rng.randrange(1, len(trunk.subports) + 1)
            self.remove_subports(trunk, self.rng.sample(trunk.subports, count))
        elif trunk.parent in self.ports:
            self.add_subports(trunk)
        return True

    def remove_subports(self, trunk: Trunk, subports: list[str]) -> None:
        self.api.put(f"/trunks/{trunk.id}/remove_subports",
                     {"sub_ports": [{"port_id": port} for port in subports]})
        for port in subports:
            trunk.subports.remove(port)
            # Most tools delete the port; without it a bound port stays.
            if self.rng.random() < 0.8 or trunk.node is not None:
                self.api.delete(f"/ports/{port}")
                self.forget(port)
            elif port in self.ports:
                self.ports[port].kind = "loose"

    def drop_trunk(self, trunk: Trunk) -> None:
        if trunk.node is not None and trunk.subports:
            self.remove_subports(trunk, list(trunk.subports))
        if trunk.node is None and trunk.parent in self.ports and self.ports[trunk.parent].host:
            self.put_host(self.ports[trunk.parent], "")  # Else the trunk is in use.
            self.ports[trunk.parent].target = ""
        self.api.delete(f"/trunks/{trunk.id}")
        for port in trunk.subports:
            if port in self.ports:
                self.ports[port].kind = "loose"
        self.trunks.pop(trunk.id, None)

    def delete_trunk(self) -> bool:
        if not self.trunks:
            return False
        self.drop_trunk(self.rng.choice(list(self.trunks.values())))
        return True

    def move_subports(self, parent: Port) -> None:
        """The L2 agent of the new host asks for the subports."""
        for trunk in self.trunks.values():
            if trunk.parent == parent.id and trunk.subports:
                self.api.played("bind_subports", trunk=trunk.id, ports=trunk.subports)
                for subport in trunk.subports:
                    self.ports[subport].host = parent.host
