"""The full sync of one agent's region: the whole of it becomes what the database says.

The region's lock is held meanwhile, with heartbeats. Nothing that is right is touched: the agent
applies only what differs. A write of before, that an agent or the network still has somewhere, can
do no harm after a sync: the sync's first step changes the region's ETag, on which writes depend.
"""
import dataclasses
import os
import socket
import threading
import typing
import uuid

from oslo_log import log

from networking_vnagent import backlog
from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import mapping
from networking_vnagent import patcher

LOG = log.getLogger(__name__)

# How often the whole region is sent when others change it at the same time; then only what differs.
PUT_ATTEMPTS = 4
# Seconds after which what differs in the same way is not just on its way.
SETTLE = 3
# Members in one patch of these.
PART = 100
# So many differing members are named in the log.
NAMED = 20
MARKER_COLLECTION = "serviceEndPoint"


class LockHeld(Exception):
    """Another server is at a full sync of the region."""


@dataclasses.dataclass
class Report:
    """What a full sync found."""
    read_at: str
    differing: list[tuple[str, str]]
    members: int
    is_repaired: bool
    left_out: list[str] = dataclasses.field(default_factory=list)

    def text(self) -> str:
        if not self.differing:
            return f"nothing differs among {self.members} members"
        named = ", ".join(f"{collection} {name}" for collection, name in self.differing[:NAMED])
        more = len(self.differing) - NAMED
        done = "repaired" if self.is_repaired else "not repaired"
        return (f"{len(self.differing)} of {self.members} members differed, {done}: {named}"
                + (f", and {more} more" if more > 0 else ""))


@dataclasses.dataclass
class Look:
    """What differs at one moment: of each member, what the agent has and what it should have."""
    read_at: str
    differing: dict[tuple[str, str], tuple[typing.Any, typing.Any]]
    members: int
    left_out: list[str]

    def without(self, work: backlog.Work) -> "Look":
        """The same without what is to be sent anyway."""
        known = set(patcher.places_of(work))
        if work.networks:
            # A network's segments are made and renumbered with it.
            known |= {place for place in self.differing if place[0] == "segment"}
        return dataclasses.replace(self, differing={
            place: values for place, values in self.differing.items() if place not in known})

    def lasting(self, before: "Look") -> "Look":
        """The same with what differed in the same way before, and so is not just on its way."""
        return dataclasses.replace(self, differing={
            place: values for place, values in self.differing.items()
            if before.differing.get(place) == values})

    def report(self) -> Report:
        return Report(self.read_at, sorted(self.differing), self.members, False, self.left_out)


def requester() -> str:
    return f"{socket.gethostname()}:{os.getpid()}"


def take_lock(client: agent_client.Client, request_id: str, wait: float) -> agent_client.Document:
    """Takes the lock of the agent's region, which is made where there is none, and returns the
    region's status. A lock that nobody is going to free is taken over. Raises LockHeld. One thread
    of a process at a time, for each agent."""
    body = {"requester": requester(), "requestId": request_id, "wait": wait}
    timeout = client.timeout + wait
    try:
        return client.sync_call("lock", request_id, body, timeout)
    except agent_client.Refused as refused:
        if refused.status == 404:
            client.create_region()
        elif refused.status != 409:
            raise
        elif not _free_left_over(client, refused.problem.get("holder") or {}):
            raise _held(refused) from refused
    try:
        return client.sync_call("lock", request_id, body, timeout)
    except agent_client.Refused as refused:
        if refused.status != 409:
            raise
        raise _held(refused) from refused


def _held(refused: agent_client.Refused) -> LockHeld:
    holder = refused.problem.get("holder") or {}
    return LockHeld(str(holder.get("owner", "")))


def _free_left_over(client: agent_client.Client, holder: agent_client.Document) -> bool:
    """Frees a lock whose holder is gone; returns whether it is worth another try.

    The agent frees the lock of a sync that falls silent. One under which no sync was started has no
    timer: it stays where the answer to the request for it, or to its release, was lost, or where
    its process was killed in between. A process that asks for the lock holds none that it knows of,
    and others hold it without a sync only while they send a change.
    """
    request_id = holder.get("requestId")
    if not request_id:
        return True
    status = client.sync_status()
    if status.get("requestId") != request_id:
        return True
    if status.get("expiresIn") is not None:
        return False
    held_for = float(status.get("heldFor") or 0)
    if holder.get("owner") != requester() and held_for <= float(status.get("timeout") or 60):
        return False
    LOG.warning("The lock of %s is taken over: %s has held it for %.0f seconds without a sync",
                client.region, holder.get("owner"), held_for)
    try:
        client.sync_call("unlock", request_id)
    except agent_client.Refused as refused:
        if refused.status != 409:
            raise
    return True


class _Heart:
    """Heartbeats on a connection of their own while a sync is under way."""

    def __init__(self, agent: config.AgentConfig, request_id: str, timeout: float) -> None:
        self._client = agent.client()
        self._request_id = request_id
        self._interval = max(0.2, timeout / 3)
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._beat, daemon=True)

    def __enter__(self) -> "_Heart":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._over.set()
        # A heartbeat after the completion would start the timer again.
        self._thread.join()
        self._client.close()

    def _beat(self) -> None:
        while not self._over.wait(self._interval):
            try:
                self._client.sync_call("heartbeat", self._request_id)
            except agent_client.Refused as refused:
                LOG.info("heartbeat of a full sync: %s", refused)
                return
            except agent_client.AgentError as error:
                LOG.debug("heartbeat of a full sync: %s", error)


class FullSync:
    """One full sync; a new object for each."""

    def __init__(self, agent: config.AgentConfig, client: agent_client.Client,
                 changes: patcher.Patcher | None = None) -> None:
        self._agent = agent
        self._client = client
        self._patcher = changes or patcher.Patcher(agent, client)
        self._request_id = str(uuid.uuid4())

    def look(self) -> Look:
        """Compares and changes nothing. What is on its way just now counts as different."""
        try:
            present, _ = self._client.region_document()
        except agent_client.Refused as refused:
            if refused.status != 404:
                raise
            present = {}
        read_at = database.now()
        desired, left_out = self._desired()
        found = mapping.collections_of(present)
        differing = {
            (collection, name): (found.get(collection, {}).get(name),
                                 desired.get(collection, {}).get(name))
            for collection, name in mapping.members_that_differ(found, desired)}
        return Look(read_at, differing, _count(desired), left_out)

    def lock(self, wait: float) -> float:
        """Takes the region's lock; the sync's timeout in seconds. Raises LockHeld."""
        status = take_lock(self._client, self._request_id, wait)
        return float(status.get("timeout") or 60)

    def unlock(self) -> None:
        """Frees the lock, if it is still held."""
        try:
            self._client.sync_call("unlock", self._request_id)
        except agent_client.AgentError as error:
            LOG.debug("agent %s: the lock was not freed: %s", self._agent.name, error)

    def repair(self, timeout: float) -> Report:
        """Holding the lock: makes the region what the database says, and frees the lock. What
        differed was drift, or on its way: who must know looks before, twice."""
        is_complete = False
        try:
            self._client.sync_call("start", self._request_id)
            with _Heart(self._agent, self._request_id, timeout):
                report = self._put()
            self._client.sync_call("complete", self._request_id)
            is_complete = True
            return report
        finally:
            if not is_complete:
                self.unlock()

    def _desired(self) -> tuple[mapping.Document, list[str]]:
        made = mapping.Mapping(database.read_everything(), self._agent.physical_networks)
        return made.document(), made.left_out

    def _change(self, method: str, body: mapping.Document, etag: str | None) -> int:
        headers = {"Sync-Request-Id": self._request_id}
        return self._patcher.send(method, body, etag, headers, max(self._client.timeout, 120))

    def _put(self) -> Report:
        marker = "sync-" + self._request_id
        self._change("PATCH", {MARKER_COLLECTION: {marker: {}}}, None)
        for attempt in range(PUT_ATTEMPTS):
            region, etag = self._client.region_document()
            read_at = database.now()
            desired, left_out = self._desired()
            present = mapping.collections_of(region)
            differing = mapping.members_that_differ(present, desired)
            if attempt == 0:
                first = [place for place in differing if place[0] != MARKER_COLLECTION]
            displaced = mapping.displaced_natives(present, desired)
            mapping.make_tagged(desired, displaced)
            try:
                self._change("PUT", desired, etag)
            except agent_client.Refused as refused:
                if refused.status not in (412, 422):
                    raise
                LOG.debug("agent %s: attempt %d of the full sync: %s", self._agent.name,
                          attempt + 1, refused)
                continue
            self._patch([("port", name) for name in sorted(displaced)])
            return Report(read_at, first, _count(desired), True, left_out)
        # Others change the region all the time, or something in it breaks a rule of the agent: what
        # differed is brought up to date a part at a time.
        self._patch(differing)
        return Report(read_at, first, _count(desired), True, left_out)

    def _patch(self, differing: list[tuple[str, str]]) -> None:
        headers = {"Sync-Request-Id": self._request_id}
        strangers: mapping.Document = {}
        known = []
        for collection, name in differing:
            if collection in patcher.WORK_OF:
                known.append((collection, name))
            else:
                strangers.setdefault(collection, {})[name] = None
        for start in range(0, len(known), PART):
            self._patcher.apply_parts(patcher.work_of(known[start:start + PART]), headers)
        if strangers:
            self._change("PATCH", strangers, None)


def _count(region: mapping.Document) -> int:
    return sum(len(members) for members in region.values())
