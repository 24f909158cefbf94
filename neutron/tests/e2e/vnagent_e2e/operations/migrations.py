"""Live migrations, of both kinds."""

from __future__ import annotations

from .trunks import TrunkOperations


class MigrationOperations(TrunkOperations):
    """Migrations that begin, end and are aborted, each in a turn of its own."""

    def begin_old_migration(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        target = self.host_for(port)
        self.api.put(f"/ports/{port.id}", {"port": {
            "binding:profile": {"migrating_to": target}}})
        port.target, port.old_way = target, True
        if self.rng.random() < 0.5:
            self.api.played("wire", host=target, device=port.id)
        return True

    def begin_new_migration(self) -> bool:
        port = self.some("vm", bound=True, migrating=False)
        if port is None:
            return False
        target = self.host_for(port)
        self.api.post(f"/ports/{port.id}/bindings", {"binding": {"host": target}})
        port.target, port.old_way = target, False
        return True

    def end_migration(self) -> bool:
        port = self.some("vm", migrating=True)
        if port is None:
            return False
        source, target, port.target = port.host, port.target, ""
        if port.old_way:
            self.api.put(f"/ports/{port.id}", {"port": {
                "binding:host_id": target, "binding:profile": {}}})
        else:
            self.api.put(f"/ports/{port.id}/bindings/{target}/activate")
        port.host = target
        if self.rng.random() < 0.7:
            self.api.played("wire", host=target, device=port.id)
        if not port.old_way and source and source != target and self.rng.random() < 0.9:
            self.api.delete(f"/ports/{port.id}/bindings/{source}")
        self.move_subports(port)
        return True

    def abort_migration(self) -> bool:
        port = self.some("vm", migrating=True)
        if port is None:
            return False
        target, port.target = port.target, ""
        if port.old_way:
            self.api.put(f"/ports/{port.id}", {"port": {"binding:profile": {}}})
        else:
            self.api.delete(f"/ports/{port.id}/bindings/{target}")
        return True
