"""What runs in each process of the server: the publishers, and the looks at the database."""
import collections.abc
import os
import random
import threading
import time
import typing

from oslo_db import exception as db_exc
from oslo_log import log
from sqlalchemy import exc as sql_exc

from networking_vnagent import backlog
from networking_vnagent import config
from networking_vnagent import provisioning
from networking_vnagent import publisher
from networking_vnagent import segments as dynamic_segments
from networking_vnagent import type_driver

LOG = log.getLogger(__name__)

# Seconds for which a process that answers the API leaves a full sync to the others.
API_SYNC_DELAY = 5
# A block of a port that was there at two looks so far apart, in seconds, is nobody else's.
ORPHAN_AGE = 5


class ServerProcess:
    """The threads of one process. They start after a fork, or with the first change."""

    def __init__(self, agents: collections.abc.Sequence[config.AgentConfig], options: typing.Any,
                 segments: dynamic_segments.Segments) -> None:
        self._agents = agents
        self._options = options
        self._segments = segments
        self._lock = threading.Lock()
        self._pid = 0
        # Whether this process answers the API: it leaves full syncs to others where it can.
        self.answers_api = False
        self._publishers: list[publisher.Publisher] = []
        self.acknowledgements = provisioning.Acknowledgements(options.provisioning_timeout)

    def start(self) -> None:
        """Starts the threads, unless they run in this process. Any thread may call."""
        if self._pid == os.getpid():
            return
        with self._lock:
            if self._pid == os.getpid():
                return
            settings = publisher.Settings(*(getattr(self._options, name)
                                            for name in publisher.Settings._fields))
            self._publishers = [
                publisher.Publisher(agent, settings, self.acknowledgements,
                                    type_driver.learn_assignment,
                                    API_SYNC_DELAY if self.answers_api else 0)
                for agent in self._agents]
            for one in self._publishers:
                one.start()
            for name, target in (("blocks", self._remove_blocks), ("looks", self._look)):
                threading.Thread(target=target, daemon=True, name=f"vnagent-{name}").start()
            self._pid = os.getpid()

    def changed(self, work: backlog.Work) -> None:
        """Notes a change for all agents: each finds out by itself what of it is its own."""
        self.start()
        for one in self._publishers:
            one.changed(work)

    def added_unbound(self, work: backlog.Work) -> None:
        """Notes what is bound nowhere yet: to agents of some physical networks that is nothing."""
        self.start()
        for one in self._publishers:
            if not one.agent.physical_networks:
                one.changed(work)

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
        for port in adopted:
            self.acknowledgements.expect(port, {agent.name for agent in self._agents})
        if adopted:
            LOG.info("%d port(s) wait for agents since a process that may have ended: looking "
                     "after them", len(adopted))
            self.changed(backlog.Work(ports=adopted))
        return blocked
