"""Ports: of virtual machines, DHCP and baremetal nodes, bound and unbound."""

from __future__ import annotations

import time
import uuid

from ..api import Refused, Unreachable
from .networks import NetworkOperations
from .trunks import TrunkOperations

# A host that has no agent: binding there fails.
NOWHERE = "compute-without-agent"
# In seconds; less than the driver's time limit for the acknowledgement of a port.
SOON = 15.0


class PortOperations(NetworkOperations, TrunkOperations):
    """Ports that are made, bound, wired, unbound and deleted."""

    def make_vm(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return self.make_network()
        made = self.api.post("/ports", {"port": self.vm_body(network, host)})["port"]
        port = self.add(made, "vm")
        if self.rng.random() < 0.6:
            self.api.played("wire", host=port.host, device=port.id)
        return True

    def make_and_watch(self) -> bool:
        """A port that becomes ACTIVE soon is on the switch by then. (One that becomes ACTIVE late
        may have been let go because of the time limit.)"""
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        losses = self.shared.state_losses()
        begin = time.monotonic()
        made = self.api.post("/ports", {"port": self.vm_body(network, host)})["port"]
        port = self.add(made, "vm")
        self.api.played("wire", host=host, device=port.id)
        while time.monotonic() - begin < SOON:
            found = self.api.get(f"/ports/{port.id}?fields=status")["port"]["status"]
            if found == "ACTIVE" and time.monotonic() - begin < SOON:
                agent = self.shared.topology.agent_of_rack()[rack]
                has = self.shared.has_port(agent, host, port.id)
                if has is False and losses == self.shared.state_losses():
                    self.shared.too_early.append(
                        f"port {port.id} on {host} is ACTIVE, and agent {agent} does not have it")
                if has is not None:
                    self.shared.done["seen in effect when ACTIVE"] += 1
                return True
            time.sleep(0.2)
        return True

    def make_several(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        bodies = [self.vm_body(network, host) for _ in range(self.rng.randrange(2, 7))]
        for made in self.api.post("/ports", {"ports": bodies})["ports"]:
            self.add(made, "vm")
        return True

    def make_unbound(self) -> bool:
        network = self.shared.network(self.rng)
        if network is None:
            return False
        self.add(self.api.post("/ports", {"port": self.vm_body(network)})["port"], "vm")
        return True

    def make_dhcp(self) -> bool:
        host, rack = self.rng.choice(self.hosts)
        network = self.shared.network(self.rng, rack)
        if network is None:
            return False
        body = self.body(network, device_owner="network:dhcp", device_id=f"dhcp-{host}",
                         **{"binding:host_id": host})
        self.add(self.api.post("/ports", {"port": body})["port"], "dhcp")
        return True

    def make_baremetal(self) -> bool:
        node = self.shared.take_node(self.rng)
        if node is None:
            return False
        network = self.shared.network(self.rng, node.rack)
        if network is None:
            self.shared.give_node(node)
            return False
        binding = {"binding:vnic_type": "baremetal", "binding:host_id": node.name,
                   "binding:profile": node.profile()}
        body = self.body(network, device_owner="baremetal:none", device_id=str(uuid.uuid4()))
        at_once = self.rng.random() < 0.5
        if at_once:
            body.update(binding)
        try:
            made = self.api.post("/ports", {"port": body})["port"]
        except Refused:
            self.shared.give_node(node)
            raise
        except Unreachable:
            self.lost_nodes.append((node, time.monotonic()))
            raise
        port = self.add(made, "baremetal")
        self.nodes[port.id] = node
        if not at_once:
            self.api.put(f"/ports/{port.id}", {"port": binding})
        port.host = node.name
        return True

    def replug(self) -> bool:
        """Another network for a node, as when it is handed over: a port of the new network takes
        the place of the one before on the same links, at once."""
        in_trunks = {trunk.parent for trunk in self.trunks.values()}
        fitting = [port for port in self.nodes if port not in in_trunks]
        if not fitting:
            return False
        before = self.ports[self.rng.choice(fitting)]
        node = self.nodes[before.id]
        network = self.shared.network(self.rng, node.rack)
        if network is None:
            return False
        made = self.api.post("/ports", {"port": self.body(
            network, device_owner="baremetal:none", device_id=str(uuid.uuid4()))})["port"]
        after = self.add(made, "baremetal")
        self.api.delete(f"/ports/{before.id}")
        self.nodes[after.id] = self.nodes.pop(before.id)
        self.forget(before.id)
        self.api.put(f"/ports/{after.id}", {"port": {
            "binding:vnic_type": "baremetal", "binding:host_id": node.name,
            "binding:profile": node.profile()}})
        after.host = node.name
        return True

    def bind(self) -> bool:
        port = self.some("vm", bound=False)
        if port is None:
            return False
        self.put_host(port, self.host_for(port))
        return True

    def rebind(self) -> bool:
        """A change of the profile unbinds the port and binds it again on the same host."""
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        self.api.put(f"/ports/{port.id}", {"port": {
            "binding:profile": {"turn": self.rng.randrange(1 << 30)}}})
        return True

    def wire(self) -> bool:
        port = self.some("vm", "dhcp", "subport", bound=True)
        if port is None:
            return False
        self.api.played("unwire" if self.rng.random() < 0.2 else "wire", host=port.host,
                        device=port.id)
        return True

    def unbind(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        self.put_host(port, "")
        return True

    def fail_to_bind(self) -> bool:
        """A host without an agent; a later operation binds the port elsewhere, or deletes it."""
        port = self.some("vm", migrating=False)
        if port is None:
            return False
        self.put_host(port, NOWHERE)
        port.host = ""
        return True

    def delete(self) -> bool:
        """Also in the middle of a migration, and a trunk's parent with its trunk."""
        port = self.some("vm", "dhcp", "baremetal", "subport", "loose")
        if port is None:
            return False
        parents = {trunk.parent: trunk for trunk in self.trunks.values()}
        subports = {subport: trunk for trunk in self.trunks.values() for subport in trunk.subports}
        if port.id in subports:
            self.remove_subports(subports[port.id], [port.id])
            if port.id not in self.ports:
                return True
        elif port.id in parents:
            self.drop_trunk(parents[port.id])
        self.api.delete(f"/ports/{port.id}")
        self.forget(port.id)
        return True
