"""Networks, which all players use."""

from __future__ import annotations

from ..api import Json
from .owned import Owned
from .shared import Network


class NetworkOperations(Owned):
    """Networks that are made, deleted and renumbered."""

    def make_network(self) -> bool:
        if len(self.shared.networks) > 40:
            return False
        kind = self.rng.choices(["vxlan", "vlan", "racks"], [6, 2, 1])[0]
        body: Json = {"name": self.name}
        rack = ""
        racks = [entry.name for entry in self.shared.topology.racks]
        if kind == "vlan":
            rack = self.rng.choice(racks)
            body.update({"provider:network_type": "vlan", "provider:physical_network": rack})
        elif kind == "racks":
            body["segments"] = [{"provider:network_type": "vlan",
                                 "provider:physical_network": name} for name in racks]
        made = self.api.post("/networks", {"network": body})["network"]
        network = Network(made["id"], kind, rack)
        subnet = self.api.post("/subnets", {"subnet": {
            "network_id": network.id, "ip_version": 4, "cidr": self.shared.subnet_address(),
            "enable_dhcp": False}})["subnet"]
        network.subnet = subnet["id"]
        with self.shared.lock:
            self.shared.networks[network.id] = network
        return True

    def delete_network(self) -> bool:
        with self.shared.lock:
            idle = [key for key, network in self.shared.networks.items() if network.users == 0]
            if not idle or len(self.shared.networks) < 8:
                return False
            key = self.rng.choice(idle)
            del self.shared.networks[key]
        self.api.delete(f"/networks/{key}")
        return True

    def renumber(self) -> bool:
        """Another VLAN for a network that is VLAN only, with ports on it."""
        with self.shared.lock:
            fitting = [network for network in self.shared.networks.values()
                       if network.kind == "vlan"]
        if not fitting:
            return False
        topology = self.shared.topology
        self.api.put(f"/networks/{self.rng.choice(fitting).id}", {"network": {
            "provider:segmentation_id":
                self.rng.randrange(topology.first_vlan, topology.last_vlan + 1)}})
        return True
