"""Sends to one agent what the database says: a thread of its own, in each server process.

Nothing that happens to an agent ends its thread, holds up another agent's, or makes memory grow: an
agent that does not answer is asked again with growing pauses, and its backlog becomes "the region".
"""
import random
import threading
import time
import typing
import uuid

from oslo_db import exception as db_exc
from oslo_log import log
from sqlalchemy import exc as sql_exc

from networking_vnagent import agents
from networking_vnagent import backlog
from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import patcher
from networking_vnagent import provisioning
from networking_vnagent import sync
from networking_vnagent import type_driver

LOG = log.getLogger(__name__)

FIRST_PAUSE = 0.25
# An agent that was away for longer than so many seconds gets a full sync.
SHORT_ABSENCE = 20
# A patch that is refused so often in a row, although each was made anew, calls for a full sync.
REFUSALS = 3
# Between two attempts to get the lock of a full sync, in seconds.
LOCK_PAUSE = 2


class Settings(typing.NamedTuple):
    """The options of [vnagent] that a publisher needs."""
    max_pause: float
    check_interval: float
    report_interval: float
    full_sync_interval: float
    full_sync_mode: str
    max_backlog: int
    batch_size: int


class Publisher:
    """The worker of one agent. `start` once; `changed` from any thread."""

    def __init__(self, agent: config.AgentConfig, settings: Settings,
                 acknowledgements: provisioning.Acknowledgements,
                 on_status: typing.Callable[[config.AgentConfig, agent_client.Document],
                                            None]) -> None:
        self.agent = agent
        self.backlog = backlog.Backlog(settings.max_backlog)
        self._settings = settings
        self._acknowledgements = acknowledgements
        self._on_status = on_status
        self._status: agent_client.Document = {}
        self._client = agent.client()
        self._patcher = patcher.Patcher(agent, self._client)
        self._stopped = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True,
                                        name=f"vnagent-{agent.name}")
        self._pause = 0.0
        self._is_down = False
        self._down_since = 0.0
        self._refusals = 0
        self._aside = backlog.Work()
        self._needs_lock = False
        self._next_check = 0.0
        # A full sync that began to read later than that, by the database's clock, is enough; None:
        # there is no need of one. "" before the database's clock has been read.
        self._sync_wanted: str | None = ""
        self._sync_reason = "this server starts"
        # Whether what differs then is drift: nobody knows of a reason.
        self._is_drift = True
        # What differed at the first look of a full sync.
        self._suspected: sync.Look | None = None
        self._next_sync = time.monotonic()
        # Why another thread wants a full sync, and when at the earliest.
        self._asked: tuple[str, float] | None = None
        self._said: set[str] = set()

    # From any thread.

    def start(self) -> None:
        self._thread.start()

    def stop(self) -> None:
        self._stopped.set()
        self.backlog.wake()

    def changed(self, work: backlog.Work) -> None:
        self.backlog.add(work)

    def look_anew(self, reason: str, delay: float) -> None:
        """Wants a full sync, `delay` seconds from now where no other server does it before."""
        self._asked = (reason, time.monotonic() + delay)
        self.backlog.wake()

    # The worker's thread.

    def _run(self) -> None:
        while not self._stopped.is_set():
            error = _error_of(self._turn)
            if error is None:
                self._pause = 0.0
                continue
            error = _error_of(self._recover, error)
            if error is not None:
                LOG.error("Agent %s: unexpected; it is tried again", self.agent.name,
                          exc_info=error)
            self._back_off()

    def _recover(self, error: Exception) -> None:
        """What an error means for what is known of the agent; a pause follows."""
        if isinstance(error, patcher.LostRaces):
            LOG.debug("%s", error)
            self._pause = 0.0
        elif isinstance(error, (agent_client.AnotherInstance, patcher.LostState)):
            LOG.warning("Agent %s: %s; a full sync follows", self.agent.name, error)
            self._patcher.forget()
            self._want_sync("the agent does not have its state of before")
        elif isinstance(error, patcher.RegionMissing):
            self._patcher.etag = None
            self._want_sync(str(error))
        elif isinstance(error, agent_client.TryLater):
            self._say("Agent %s takes no changes now; it is tried again with growing pauses. %s",
                      self.agent.name, error)
        elif isinstance(error, agent_client.NoAnswer):
            self._went_down(error)
        elif isinstance(error, agent_client.Refused):
            self._was_refused(error)
        elif isinstance(error, (db_exc.DBError, sql_exc.SQLAlchemyError)):
            self._say("Agent %s is not sent anything while the database does not answer: %s",
                      self.agent.name, str(error).partition("\n")[0])
        else:
            LOG.error("Agent %s: unexpected; it is tried again", self.agent.name, exc_info=error)

    def _turn(self) -> None:
        if (asked := self._asked) is not None:
            self._asked = None
            self._want_sync(*asked)
        if not self._client.is_connected or time.monotonic() >= self._next_check:
            self._check()
        self._patcher.settle()
        if self._is_sync_due():
            self._full_sync()
        elif self.backlog.is_region:
            self._sleep(max(0.01, self._next_sync - time.monotonic()))
        elif work := self.backlog.take(self._settings.batch_size):
            self._publish(work)
        else:
            until = self._next_check
            if self._wants_sync():
                until = min(until, self._next_sync)
            self.backlog.wait(max(0.01, until - time.monotonic()), self._is_awaited)

    def _is_awaited(self) -> bool:
        return self._stopped.is_set() or self._asked is not None

    def _publish(self, work: backlog.Work) -> None:
        expected = self._acknowledgements.expected() & work.ports
        try:
            applied = self._apply(work)
        except BaseException:
            self.backlog.add(work)
            raise
        self._went_well()
        # Such as a segment that is gone while a binding still goes: tried again at the next look.
        self._aside.add(applied.refused)
        self._acknowledgements.acknowledged(self.agent.name, expected - applied.refused.ports)
        self._log_left_out(applied.left_out)

    def _apply(self, work: backlog.Work) -> patcher.Applied:
        if not self._needs_lock:
            try:
                return self._patcher.apply_parts(work)
            except agent_client.Refused as refused:
                if refused.status != 428:
                    raise
                LOG.info("Agent %s takes changes only under the lock", self.agent.name)
                self._needs_lock = True
        request_id = str(uuid.uuid4())
        try:
            sync.take_lock(self._client, request_id, 10)
        except sync.LockHeld as held:
            raise patcher.LostRaces(f"agent {self.agent.name}: locked by {held}") from held
        try:
            return self._patcher.apply_parts(work, {"Sync-Request-Id": request_id})
        finally:
            self._client.sync_call("unlock", request_id)

    # Looking at the agent.

    def _check(self) -> None:
        """Says hello, and what it learned to the list of agents."""
        known = self._patcher.revision
        hello = self._client.hello()
        if hello["revision"] < known:
            raise patcher.LostState(f"its revision is {hello['revision']} and was {known}")
        self._patcher.revision = hello["revision"]
        self._came_up()
        if self._sync_wanted == "":
            self._sync_wanted = database.now()
        self._look_at_list(hello)
        # Not before: what could not be read or written is tried again soon.
        self._next_check = time.monotonic() + self._settings.check_interval
        if len(self._aside):
            work, self._aside = self._aside, backlog.Work()
            self.backlog.add(work)

    def _look_at_list(self, hello: agent_client.Document) -> None:
        listed = agents.read(self.agent.name)
        self._status = self._region_status()
        assigned = self._assigned()
        if listed is None or listed.seconds_since_heartbeat >= self._settings.report_interval:
            agents.report(self.agent.name, self._configurations(hello))
        elif any(listed.configurations.get(name) != value for name, value in assigned.items()):
            # The processes that answer calls learn it from there.
            agents.amend(self.agent.name, assigned)
        self._on_status(self.agent, self._status)
        last = str((listed.configurations if listed else {}).get("full_sync_read_at") or "")
        if last and not self._wants_sync():
            age = _seconds_between(last, database.now())
            # Each process has another moment, so that mostly one of them does it.
            if age > self._settings.full_sync_interval * random.uniform(1, 1.1):
                self._sync_wanted = last
                self._sync_reason, self._is_drift = "it is time for one", True
                self._next_sync = time.monotonic()

    def _region_status(self) -> dict[str, typing.Any]:
        try:
            return self._client.status()
        except agent_client.Refused as refused:
            if refused.status == 404:
                return {}
            raise

    def _assigned(self) -> agents.Configurations:
        """The VLANs that the agent's region has assigned; nothing where it does not say."""
        assigned = type_driver.assigned_in(self._status)
        return {} if assigned is None else {
            "assigned_vlans": type_driver.text_of(assigned),
            "vlan_assignment_uuid": self._status.get("vlanAssignmentUuid")}

    def _configurations(self, hello: agent_client.Document) -> agents.Configurations:
        return self._assigned() | {
            "url": self.agent.url, "region": self.agent.region,
            "physical_networks": list(self.agent.physical_networks),
            "version": hello.get("version"), "instance": hello.get("instance"),
            "revision": hello.get("revision"), "durable": hello.get("durable"),
            "backlog": "region" if self._wants_sync() or self.backlog.is_region
            else len(self.backlog), "reported_by": sync.requester()}

    # Full sync.

    def _want_sync(self, reason: str, earliest: float | None = None) -> None:
        now = time.monotonic()
        if not self._wants_sync():
            self._next_sync = now if earliest is None else earliest
        elif earliest is None:
            self._next_sync = min(self._next_sync, now)
        self._sync_wanted = ""
        self._sync_reason, self._is_drift = reason, False
        self._next_check = 0.0

    def _wants_sync(self) -> bool:
        return self._sync_wanted is not None or self.backlog.is_region

    def _is_sync_due(self) -> bool:
        return self._wants_sync() and time.monotonic() >= self._next_sync

    def _full_sync(self) -> None:
        if self.backlog.is_region and self._sync_wanted is None:
            self._sync_wanted = database.now()
            self._sync_reason, self._is_drift = "more has changed than is remembered", False
        wanted = self._sync_wanted or database.now()
        full_sync = sync.FullSync(self.agent, self._client, self._patcher)
        drift = None
        if self._is_drift or self._settings.full_sync_mode == "report":
            drift = self._drift(full_sync)
            if drift is None:
                return
        if self._settings.full_sync_mode == "report":
            assert drift is not None
            self._reported(drift.report())
            return
        self._repair(full_sync, wanted, drift)

    def _drift(self, full_sync: sync.FullSync) -> sync.Look | None:
        """What differs for a while, and nobody is about to send; None when it is not known yet:
        changes are sent meanwhile."""
        found = full_sync.look().without(self.backlog.waiting())
        if self._suspected is None and found.differing:
            self._suspected = found
            self._next_sync = time.monotonic() + sync.SETTLE
            return None
        if self._suspected is not None:
            found = found.lasting(self._suspected)
        self._suspected = None
        return found

    def _repair(self, full_sync: sync.FullSync, wanted: str, drift: sync.Look | None) -> None:
        expected = self._acknowledgements.expected()
        self._next_sync = time.monotonic() + LOCK_PAUSE * random.uniform(1, 2)
        try:
            timeout = full_sync.lock(0)
        except sync.LockHeld as held:
            LOG.debug("Agent %s: %s is at a full sync", self.agent.name, held)
            return
        listed = agents.read(self.agent.name)
        last = (listed.configurations if listed else {}).get("full_sync_read_at")
        if last and str(last) > wanted and not self.backlog.is_region:
            full_sync.unlock()
            LOG.info("Agent %s: another server has done the full sync", self.agent.name)
            self._sync_wanted = None
            return
        LOG.info("Agent %s: full sync, because %s", self.agent.name, self._sync_reason)
        self.backlog.take_region()
        try:
            report = full_sync.repair(timeout)
        except BaseException:
            self.backlog.become_region()
            raise
        self._sync_wanted = None
        self._is_drift = True
        self._synced(report, drift)
        self._acknowledgements.acknowledged(self.agent.name, expected)

    def _synced(self, report: sync.Report, drift: sync.Look | None) -> None:
        sent = len(report.differing)
        report.differing = sorted(drift.differing) if drift is not None else []
        if report.differing:
            LOG.warning("Agent %s: full sync complete: %s", self.agent.name, report.text())
        else:
            LOG.info("Agent %s: full sync complete: %d of %d members were sent, no drift",
                     self.agent.name, sent, report.members)
        self._log_left_out(report.left_out)
        self._went_well()
        self._learn_assignment()
        hello = self._client.hello()
        agents.report(self.agent.name, self._configurations(hello) | {
            "full_sync_read_at": report.read_at, "full_sync_drift": len(report.differing)})

    def _reported(self, report: sync.Report) -> None:
        LOG.warning("Agent %s: full_sync_mode is report: %s", self.agent.name, report.text())
        # Changes are sent as they happen; the region must be there for them.
        self._client.create_region()
        self.backlog.add(self.backlog.take_region())
        self._sync_wanted = None
        self._is_drift = True
        self._learn_assignment()
        agents.amend(self.agent.name, {"full_sync_read_at": report.read_at,
                                       "full_sync_drift": len(report.differing)})

    def _learn_assignment(self) -> None:
        """The region may be new, and had assigned nothing before. After that ports can be bound,
        and the list of agents may say that the agent is in step."""
        self._status = self._region_status()
        if assigned := self._assigned():
            agents.amend(self.agent.name, assigned)
        self._on_status(self.agent, self._status)

    # Trouble.

    def _sleep(self, seconds: float) -> None:
        self._stopped.wait(seconds)

    def _back_off(self) -> None:
        longest = self._settings.max_pause
        self._pause = min(longest, max(FIRST_PAUSE, 2 * self._pause))
        self._sleep(self._pause * random.uniform(0.5, 1))

    def _went_down(self, error: Exception) -> None:
        self._client.close()
        now = time.monotonic()
        if not self._is_down:
            self._is_down = True
            self._down_since = now
            LOG.warning("Agent %s does not answer; it is tried again with growing pauses. %s",
                        self.agent.name, error)
            return
        LOG.debug("Agent %s: %s", self.agent.name, error)
        if now - self._down_since > SHORT_ABSENCE and not self.backlog.is_region:
            self.backlog.become_region()
            LOG.warning("Agent %s has been away for %d seconds: it gets a full sync when it is "
                        "back. %s", self.agent.name, SHORT_ABSENCE, error)
            agents.amend(self.agent.name, {"backlog": "region"})

    def _came_up(self) -> None:
        if self._is_down:
            self._is_down = False
            LOG.info("Agent %s answers again, after %.0f seconds", self.agent.name,
                     time.monotonic() - self._down_since)

    def _was_refused(self, refused: agent_client.Refused) -> None:
        self._patcher.etag = None
        self._refusals += 1
        if refused.status == 409:
            # Somebody else has the lock now: not a fault of what was sent.
            LOG.info("Agent %s: %s", self.agent.name, refused)
        else:
            self._say("Agent %s refuses what it is sent: %s", self.agent.name, refused)
        if self._refusals >= REFUSALS and refused.status != 409:
            self._refusals = 0
            self._want_sync("a patch is refused again and again")

    def _went_well(self) -> None:
        """Something was sent: the next trouble is a new one."""
        self._refusals = 0
        self._said.clear()

    def _say(self, text: str, *arguments: typing.Any) -> None:
        """Says the same only once until things are well again."""
        line = text % arguments
        if line not in self._said and len(self._said) < 100:
            self._said.add(line)
            LOG.error("%s", line)
        else:
            LOG.debug("%s", line)

    def _log_left_out(self, lines: list[str]) -> None:
        for line in lines:
            LOG.info("Agent %s: %s", self.agent.name, line)


def _error_of(call: typing.Callable[..., None], *arguments: typing.Any) -> Exception | None:
    """What a call raised, outside of its handling: a log line names it only where it says so."""
    try:
        call(*arguments)
    except Exception as error:
        return error
    return None


def _seconds_between(first: str, second: str) -> float:
    parse = "%Y-%m-%d %H:%M:%S"
    try:
        return time.mktime(time.strptime(second[:19], parse)) - time.mktime(
            time.strptime(first[:19], parse))
    except ValueError:
        return float("inf")
