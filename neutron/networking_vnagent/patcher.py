"""Brings single objects of an agent's region to what the database says.

The database is read when a patch is made, not when something happened. A patch depends on the
region's ETag of before that read, so whoever was faster makes it fail, and it is made anew: of two
server processes the one that read later always wins.
"""
import dataclasses
import typing

from oslo_log import log

from networking_vnagent import backlog
from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import mapping

LOG = log.getLogger(__name__)

# More members than that are read with the whole region.
SINGLE_MEMBERS = 500
# Races lost in a row before the work goes back to the backlog.
ATTEMPTS = 50

WORK_OF = {"port": "ports", "portBinding": "ports", "network": "networks", "segment": "segments"
           } | {name: "devices" for name in mapping.DEVICE_COLLECTIONS}


class LostRaces(agent_client.AgentError):
    """Others changed the region each time."""


class RegionMissing(agent_client.AgentError):
    """The agent does not have the region."""


class LostState(agent_client.AgentError):
    """The agent's revision went back."""


@dataclasses.dataclass
class Applied:
    """What became of some work."""
    left_out: list[str]
    refused: backlog.Work = dataclasses.field(default_factory=backlog.Work)


def number_of(etag: str | None) -> int:
    """The revision that an ETag is; 0 where it is none."""
    text = (etag or "").strip('"')
    return int(text) if text.isdecimal() else 0


class Patcher:
    """The changes of one agent's region by one thread."""

    def __init__(self, agent: config.AgentConfig, client: agent_client.Client) -> None:
        self._agent = agent
        self._client = client
        self.etag: str | None = None
        # The latest revision that the agent has acknowledged or shown.
        self.revision = 0
        # Whether the outcome of this change is unknown. Nothing else is sent before it is known.
        self._pending: agent_client.Change | None = None

    def forget(self) -> None:
        """The agent is another one: what was sent to the one before cannot be applied any more."""
        self._pending = None
        self.etag = None
        self.revision = 0

    def settle(self) -> None:
        """Asks again for the answer of a change whose answer was lost."""
        if self._pending is None:
            return
        try:
            self._sent(self._client.change(self._pending))
        except agent_client.Refused as refused:
            LOG.debug("agent %s: a change of before is refused now: %s", self._agent.name, refused)
            self.etag = None
        self._pending = None

    def send(self, method: str, body: typing.Any, etag: str | None,
             headers: dict[str, str] | None = None, timeout: float | None = None) -> int:
        """One change of the region; its revision. Raises Refused, NoAnswer."""
        conditions = dict(headers or {})
        if etag is not None:
            conditions["If-Match"] = etag
        change = agent_client.Change(method, self._client.place, body, conditions)
        self._pending = change
        try:
            revision = self._client.change(change, timeout)
        except agent_client.NoAnswer:
            raise
        except agent_client.AgentError:
            self._pending = None
            raise
        self._pending = None
        self._sent(revision)
        return revision

    def _sent(self, revision: int) -> None:
        self.revision = max(self.revision, revision)
        self.etag = f'"{revision}"'

    def apply(self, work: backlog.Work, headers: dict[str, str] | None = None) -> Applied:
        """Patches what differs of these objects; returns when the agent has them on its disk.

        Other ports may have to be written for their sake: they are added to `work` before anything
        is sent, so that a caller who tries again does not forget them.
        """
        wanted = backlog.Work()
        wanted.add(work)
        for _ in range(ATTEMPTS):
            etag = self._present_etag()
            rows = database.read_about(wanted.ports, wanted.networks, wanted.segments,
                                       wanted.devices)
            # A network's segments are made and renumbered with it, and go with it where the rack's
            # segment was the last one that the agent serves.
            wanted.segments.update(
                row.id for row in rows.segments if row.network_id in wanted.networks)
            made = mapping.Mapping(rows, self._agent.physical_networks)
            desired = made.document()
            present = self._present(places_of(wanted, with_devices=False))
            beside = self._ports_on_links_of(present, desired)
            if not beside <= wanted.ports:
                wanted.ports |= beside
                continue
            patch = self._patch(wanted, present, desired, rows)
            if not patch:
                return Applied(made.left_out)
            displaced = mapping.displaced_natives(present, desired)
            work.ports |= displaced
            mapping.make_tagged(patch, displaced)
            try:
                self.send("PATCH", patch, etag, headers)
            except agent_client.Refused as refused:
                if refused.status != 412:
                    raise
                self._moved(refused.etag)
                continue
            if not displaced:
                return Applied(made.left_out)
        raise LostRaces(f"agent {self._agent.name}: the region changed {ATTEMPTS} times meanwhile")

    def apply_parts(self, work: backlog.Work, headers: dict[str, str] | None = None) -> Applied:
        """As `apply`; where the agent's rules refuse a patch, all but the objects at fault."""
        try:
            return self.apply(work, headers)
        except agent_client.Refused as refused:
            if refused.status != 422:
                raise
            if len(work) == 1:
                LOG.warning("Agent %s refuses %s: %s", self._agent.name, work.text(), refused)
                return Applied([], work)
        applied = Applied([])
        for half in work.halves():
            try:
                part = self.apply_parts(half, headers)
            finally:
                work.add(half)
            applied.left_out += part.left_out
            applied.refused.add(part.refused)
        return applied

    def _ports_on_links_of(self, *regions: mapping.Document) -> set[str]:
        """The ports that the agent has on the switch interfaces of some bindings.

        A native port that leaves an interface takes the native VLAN with it, also that of another
        port. So who adds or removes one brings those up to date that are there: of one that has
        gone, but not for the agent yet, the removal is in the same patch, where it is first.
        """
        links = {link for region in regions for binding in region.get("portBinding", {}).values()
                 for link in mapping.interfaces_of(binding)}
        return {port for link in sorted(links) for port in self._client.ports_on(*link)}

    def _present_etag(self) -> str:
        if self.etag is None:
            self.etag = self._client.region_etag()
            if self.etag is None:
                raise RegionMissing(f"agent {self._agent.name} has no region {self._agent.region}")
        return self.etag

    def _moved(self, etag: str | None) -> None:
        """The region has another ETag than expected."""
        self.etag = etag
        if etag is None:
            raise RegionMissing(f"agent {self._agent.name} has no region {self._agent.region}")
        if number_of(etag) > self.revision:
            self.revision = number_of(etag)

    def _present(self, places: list[tuple[str, str]]) -> mapping.Document:
        if len(places) <= SINGLE_MEMBERS:
            return self._client.members(places)
        region, _ = self._client.region_document()
        present = mapping.collections_of(region)
        found: mapping.Document = {}
        for collection, name in places:
            if name in present.get(collection, {}):
                found.setdefault(collection, {})[name] = present[collection][name]
        return found

    def _patch(self, work: backlog.Work, present: mapping.Document, desired: mapping.Document,
               rows: mapping.Rows) -> mapping.Document:
        patch = _patch_of(places_of(work, with_devices=False), present, desired)
        devices = work.devices | {row.device_id for row in rows.ports if row.id in work.ports}
        if patch:
            self._add_segments(patch, desired)
            # Without a look whether they are there, which costs more than to name them: a port that
            # left may have been the last of its device.
            for collection, name in _places_of_devices(devices):
                is_there = name in desired.get(collection, {})
                patch.setdefault(collection, {})[name] = {} if is_there else None
        elif work.devices:
            places = _places_of_devices(work.devices)
            patch = _patch_of(places, self._present(places), desired)
        return patch

    @staticmethod
    def _add_segments(patch: mapping.Document, desired: mapping.Document) -> None:
        """Names the segments that the bindings of the patch refer to; those that are there stay."""
        segments = patch.setdefault("segment", {})
        for port in patch.get("portBinding") or {}:
            for name in _segments_of(desired.get("portBinding", {}).get(port) or {}):
                segments.setdefault(name, desired["segment"][name])
            # A binding needs its port, which may have changed at the same time.
            if port in desired.get("port", {}):
                patch.setdefault("port", {}).setdefault(port, desired["port"][port])
        if not segments:
            del patch["segment"]


def _segments_of(binding: mapping.Document) -> set[str]:
    levels = [host.get("segment", {}) for host in binding.get("portToHostBinding", {}).values()]
    for interfaces in binding.get("portToSwitchInterfaceBinding", {}).values():
        levels += [interface.get("segment", {}) for interface in interfaces.values()]
    return {name for level in levels for name in level.values()}


def places_of(work: backlog.Work, with_devices: bool = True) -> list[tuple[str, str]]:
    """The members that the work is about, in an order that does not depend on it."""
    places = [("segment", name) for name in work.segments]
    places += [("network", name) for name in work.networks]
    places += [(collection, name) for name in work.ports for collection in ("port", "portBinding")]
    if with_devices:
        places += _places_of_devices(work.devices)
    return sorted(set(places))


def _places_of_devices(devices: typing.Iterable[str]) -> list[tuple[str, str]]:
    return [(collection, name) for name in sorted(devices)
            for collection in mapping.DEVICE_COLLECTIONS if not mapping.fault_of_name(name)]


def _patch_of(places: list[tuple[str, str]], present: mapping.Document,
              desired: mapping.Document) -> mapping.Document:
    """What makes these members, which are the present ones, the desired ones."""
    before: mapping.Document = {}
    after: mapping.Document = {}
    for collection, name in places:
        for side, source in ((before, present), (after, desired)):
            if name in source.get(collection, {}):
                side.setdefault(collection, {})[name] = source[collection][name]
    patch = mapping.difference(before, after)
    # A collection that becomes empty here may have other members: null its members, not it.
    for collection, members in before.items():
        if patch.get(collection, {}) is None:
            patch[collection] = {name: None for name in members}
    return patch


def work_of(places: list[tuple[str, str]]) -> backlog.Work:
    """The work that brings some members of a region up to date."""
    work = backlog.Work()
    for collection, name in places:
        if collection in WORK_OF:
            getattr(work, WORK_OF[collection]).add(name)
    return work
