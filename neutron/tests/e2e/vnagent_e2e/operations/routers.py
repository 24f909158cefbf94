"""Routers, distributed and not, with their interfaces."""

from __future__ import annotations

from .owned import Owned
from .shared import Router


class RouterOperations(Owned):
    """Routers that are made, changed and deleted."""

    def make_router(self) -> bool:
        made = self.api.post("/routers", {"router": {
            "name": self.name, "distributed": self.rng.random() < 0.6}})["router"]
        self.routers[made["id"]] = Router(made["id"], made["distributed"])
        return True

    def change_router(self) -> bool:
        """One interface more, one less, or one more host that it is bound on."""
        if not self.routers:
            return False
        router = self.rng.choice(list(self.routers.values()))
        choice = self.rng.random()
        if not router.ports or choice < 0.35:
            network = self.shared.network(self.rng)
            if network is None or not network.subnet or network.subnet in router.ports.values():
                return False
            # Another address than the gateway's, so that several routers fit.
            port = self.api.post("/ports", {"port": {
                "network_id": network.id, "fixed_ips": [{"subnet_id": network.subnet}]}})["port"]
            self.api.put(f"/routers/{router.id}/add_router_interface", {"port_id": port["id"]})
            router.ports[port["id"]] = network.subnet
        elif choice < 0.85:
            port_id = self.rng.choice(list(router.ports))
            host, _ = self.rng.choice(self.hosts)
            if router.distributed:
                self.api.played("bind_distributed", port=port_id, host=host, router=router.id)
            else:
                self.api.put(f"/ports/{port_id}", {"port": {"binding:host_id": host}})
            if self.rng.random() < 0.5:
                self.api.played("wire", host=host, device=port_id)
        else:
            port_id = self.rng.choice(list(router.ports))
            self.api.put(f"/routers/{router.id}/remove_router_interface", {"port_id": port_id})
            router.ports.pop(port_id)
        return True

    def delete_router(self) -> bool:
        if not self.routers:
            return False
        router = self.rng.choice(list(self.routers.values()))
        for port in list(router.ports):
            self.api.put(f"/routers/{router.id}/remove_router_interface", {"port_id": port})
            router.ports.pop(port)
        self.api.delete(f"/routers/{router.id}")
        self.routers.pop(router.id)
        return True
