"""What runs in the process that publishes: publishers, and the looks at the database.

neutron-server has a process of its own for it; the processes that answer calls hand over to it what
they change. Where another web server answers the calls, its processes hand over to those of
neutron-rpc-server on the same host, through a pipe with a name: another web server runs Neutron's
threads only while it answers a call. With SQLite the process that answers calls publishes itself.
"""
import collections.abc
import os
import random
import threading
import time
import typing

from oslo_config import cfg
from oslo_db import exception as db_exc
from oslo_log import log
from sqlalchemy import exc as sql_exc

from networking_vnagent import backlog
from networking_vnagent import config
from networking_vnagent import handover
from networking_vnagent import provisioning
from networking_vnagent import publisher
from networking_vnagent import routing
from networking_vnagent import segments as dynamic_segments
from networking_vnagent import type_driver

LOG = log.getLogger(__name__)

# A block of a port that was there at two looks so far apart, in seconds, is nobody else's.
ORPHAN_AGE = 5
# The pipe with a name, in Neutron's state_path.
PIPE = "vnagent-changes"
# Seconds for which a full sync is left to other servers, when a process was started.
RESTART_DELAY = 5


def uses_sqlite() -> bool:
    """Whether the database takes one writer: there, the process that answers calls publishes."""
    return str(cfg.CONF.database.connection or "").startswith("sqlite")


class ServerProcess:
    """One process of the server. Any thread may call."""

    def __init__(self, agents: collections.abc.Sequence[config.AgentConfig], options: typing.Any,
                 segments: dynamic_segments.Segments) -> None:
        self._agents = agents
        self._options = options
        self._segments = segments
        self._lock = threading.Lock()
        self._pid = 0
        self._hands_over = False
        # Whether this is a process of another web server that has nobody to hand over to.
        self._is_alone = False
        self._path = os.path.join(cfg.CONF.state_path, PIPE)
        self._handover = handover.Handover()
        self._router = routing.Router(agents)
        self._publishers: list[publisher.Publisher] = []
        self.acknowledgements = provisioning.Acknowledgements(options.provisioning_timeout)

    # The processes that answer calls.

    def hand_over(self) -> None:
        """From now on, what this process and its children change is for the one that publishes."""
        self._hands_over = True

    def begin(self) -> None:
        """After a fork, in a process that answers calls."""
        if self._hands_over:
            self._handover.restarted()
        else:
            self._publish_itself(None if uses_sqlite() else self._path)

    def changed(self, change: handover.Change) -> None:
        """Hands a change on; it does not wait for anything."""
        if not self._hands_over and (self._pid != os.getpid() or self._is_alone):
            self._find_publisher()
        self._handover.send(change)

    def _find_publisher(self) -> None:
        """In a process of another web server, which no event has announced."""
        if not uses_sqlite():
            if handover.is_read(self._path):
                self._handover = handover.Handover(self._path)
                self._hands_over, self._is_alone = True, False
                # As when a process of neutron-server begins.
                self._handover.restarted()
                return
            if not self._is_alone:
                self._is_alone = True
                LOG.warning("No neutron-rpc-server on this host has opened %s: this process sends "
                            "what it changes only while it answers calls, and what it deletes may "
                            "wait for the next full sync. Start neutron-rpc-server.", self._path)
        self._publish_itself()

    def _publish_itself(self, path: str | None = None) -> None:
        if self._pid == os.getpid():
            return
        with self._lock:
            if self._pid != os.getpid():
                # That of before is shared with the other processes.
                self._handover = self._opened(path)
        self.start()

    @staticmethod
    def _opened(path: str | None) -> handover.Handover:
        try:
            return handover.Handover(path)
        except OSError as error:
            LOG.warning("Other processes cannot hand over what they change, since %s cannot be "
                        "opened: %s. See to it where another web server answers the calls.", path,
                        error)
            return handover.Handover()

    # The process that publishes.

    def start(self) -> None:
        """Starts the threads, unless they run in this process."""
        with self._lock:
            if self._pid == os.getpid():
                return
            settings = publisher.Settings(*(getattr(self._options, name)
                                            for name in publisher.Settings._fields))
            self._publishers = [
                publisher.Publisher(agent, settings, self.acknowledgements,
                                    type_driver.learn_assignment) for agent in self._agents]
            for one in self._publishers:
                one.start()
            for name, target in (("changes", self._distribute), ("blocks", self._remove_blocks),
                                 ("looks", self._look)):
                threading.Thread(target=target, daemon=True, name=f"vnagent-{name}").start()
            self._pid = os.getpid()

    # What was handed over.

    def _distribute(self) -> None:
        while True:
            try:
                if self._handover.wait(1):
                    # Several changes of one object follow each other: a bind is two, and more.
                    time.sleep(self._options.gather_time)
                self.distribute()
            except Exception:
                LOG.exception("Unexpected; it is tried again")
                time.sleep(1)

    def distribute(self) -> None:
        """Gives what waits to the publishers that are concerned."""
        received = self._handover.receive()
        if received.lost:
            LOG.info("All agents are looked at anew: %s", received.lost)
            for one in self._publishers:
                one.look_anew(received.lost, RESTART_DELAY)
        change = handover.Change()
        for part in received.changes:
            change.add(part)
        if change:
            self._give(change)

    def _give(self, change: handover.Change) -> None:
        for port, names in change.waiting.items():
            self.acknowledgements.expect(port, names)
        try:
            concerned = set(self._router.concerned(change))
        except (db_exc.DBError, sql_exc.SQLAlchemyError) as error:
            LOG.debug("All agents look at a change: %s", error)
            concerned = {agent.name for agent in self._agents}
        concerned.update(*change.waiting.values())
        for one in self._publishers:
            if one.agent.name in concerned:
                one.changed(change.work)

    # Ports that wait for agents.

    def _remove_blocks(self) -> None:
        left: dict[str, set[str]] = {}
        while True:
            try:
                taken = self.acknowledgements.take(0.5)
                left = provisioning.finish(left | taken, self.acknowledgements.timeout)
            except Exception:
                LOG.exception("Unexpected; it is tried again")
            if left:
                time.sleep(1)

    # Looks at the database.

    def _look(self) -> None:
        since: dict[str, float] = {}
        while True:
            pause = max(0.2, min(self._options.check_interval, self._options.segment_linger / 3))
            time.sleep(pause * random.uniform(0.8, 1.2))
            try:
                if self._options.release_segments:
                    self._segments.give_back_unused()
                if self.acknowledgements.timeout > 0:
                    since = self._adopt_blocks(since)
            except (db_exc.DBError, sql_exc.SQLAlchemyError) as error:
                LOG.warning("The database does not answer; it is asked again: %s",
                            str(error).partition("\n")[0])
            except Exception:
                LOG.exception("Unexpected; it is tried again")

    def _adopt_blocks(self, since: dict[str, float]) -> dict[str, float]:
        """Waits for ports that a process blocked which is gone."""
        now = time.monotonic()
        blocked = {port: since.get(port, now) for port in
                   provisioning.blocked_ports() - self.acknowledgements.expected()}
        adopted = {port for port, first in blocked.items() if now - first >= ORPHAN_AGE}
        names = {agent.name for agent in self._agents}
        for port in adopted:
            self.acknowledgements.expect(port, names)
        if adopted:
            LOG.info("%d port(s) wait for agents since a process that may have ended: looking "
                     "after them", len(adopted))
            for one in self._publishers:
                one.changed(backlog.Work(ports=adopted))
        return blocked
