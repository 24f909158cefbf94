"""One client, which does one random operation after the other."""

from __future__ import annotations

import random
from collections.abc import Callable
from typing import NamedTuple

from ..api import Api, Refused, Unreachable
from .migrations import MigrationOperations
from .ports import PortOperations
from .routers import RouterOperations
from .shared import Shared


class Choice(NamedTuple):
    """An operation with its weight while ports are few, and then."""

    make: Callable[[], bool]
    first: float
    then: float


class Player(PortOperations, MigrationOperations, RouterOperations):
    """One client. `turn` does one operation and never raises for what a server answers."""

    def __init__(self, shared: Shared, api: Api, rng: random.Random, ports: int) -> None:
        super().__init__(shared, api, rng, ports)
        self.operations = [Choice(*entry) for entry in (
            (self.make_vm, 12, 4), (self.make_and_watch, 3, 3), (self.make_several, 4, 1),
            (self.make_unbound, 3, 1), (self.make_dhcp, 2, 1), (self.make_baremetal, 5, 3),
            (self.replug, 3, 4), (self.bind, 6, 6),
            (self.rebind, 2, 2), (self.wire, 6, 6), (self.unbind, 1, 2),
            (self.fail_to_bind, 1, 1), (self.begin_old_migration, 4, 4),
            (self.begin_new_migration, 5, 5), (self.end_migration, 9, 9),
            (self.abort_migration, 2, 2), (self.make_trunk, 3, 2), (self.change_trunk, 3, 3),
            (self.delete_trunk, 0.5, 1), (self.make_router, 1.5, 1),
            (self.change_router, 4, 3), (self.delete_router, 0.3, 1), (self.delete, 3, 12),
            (self.make_network, 1, 1), (self.delete_network, 0.5, 0.7),
            (self.renumber, 1, 1),
        )]

    def turn(self) -> None:
        """One operation that finds something to do."""
        if self.doubtful:
            self.read_anew()
        while not self.doubtful:
            enough = len(self.ports) >= self.wanted_ports
            operation = self.rng.choices(
                [entry.make for entry in self.operations],
                [entry.then if enough else entry.first for entry in self.operations])[0]
            name = operation.__name__
            try:
                if operation():
                    self.shared.done[name] += 1
                    return
            except Refused as error:
                self.shared.refused[f"{name} {error.status}"] += 1
                if error.status not in (400, 404, 409):
                    self.shared.odd.append(str(error))
                self.doubtful = True
            except Unreachable:
                self.shared.lost[name] += 1
                self.doubtful = True
