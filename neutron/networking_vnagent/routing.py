"""Which agents a change concerns: those that serve where the objects are, and where they were."""
import collections.abc

from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import handover

# Segments whose physical network is remembered.
REMEMBERED = 100_000

Agents = collections.abc.Sequence[config.AgentConfig]


class Router:
    """One thread. Reads the database, outside of any transaction."""

    def __init__(self, agents: Agents) -> None:
        self._agents = agents
        # A segment never moves to another physical network.
        self._racks: dict[str, str | None] = {}

    def concerned(self, change: handover.Change) -> list[str]:
        """The names of the agents that must look at a change."""
        everybody = [agent.name for agent in self._agents]
        if change.is_for_all or len(everybody) == 1:
            return everybody
        racks = self._racks_of(change)
        if racks is None:
            return everybody
        return [agent.name for agent in self._agents if not agent.physical_networks
                or racks.intersection(agent.physical_networks)]

    def _racks_of(self, change: handover.Change) -> set[str] | None:
        """The physical networks; None where they are not known."""
        work = change.work
        places = database.places_of(work.ports, work.networks)
        if places.is_anywhere or (work.devices and not work.ports) or (
                work.segments and not work.networks):
            return None
        self._learn(places.racks)
        segments = change.segments | places.segments
        unknown = segments - self._racks.keys()
        if unknown:
            self._learn(database.racks_of(unknown))
        if not segments <= self._racks.keys():
            # Gone, and never seen here.
            return None
        racks = {self._racks[segment] for segment in segments} | set(places.racks.values())
        return change.racks | {rack for rack in racks if rack is not None}

    def _learn(self, racks: collections.abc.Mapping[str, str | None]) -> None:
        if len(self._racks) > REMEMBERED:
            self._racks.clear()
        self._racks.update(racks)
