"""Keeps a port from ACTIVE until the agents concerned have acknowledged it, for a limited time.

The block is in Neutron's database, so that it counts for all servers. The process that bound the
port removes it; where that process is gone, another one does.
"""
import collections.abc
import dataclasses
import threading
import time
import typing

from neutron.db import models_v2
from neutron.db import provisioning_blocks
from neutron.db.models import provisioning_block as block_models
from neutron.plugins.ml2 import models as ml2_models
from neutron_lib import constants
from neutron_lib import context as neutron_context
from neutron_lib.callbacks import resources
from neutron_lib.db import api as db_api
from oslo_log import log
import sqlalchemy as sa

from networking_vnagent import mapping
from networking_vnagent import retries

LOG = log.getLogger(__name__)

ENTITY = "VNAGENT"


@dataclasses.dataclass
class _Waiting:
    agents: set[str]
    since: float
    is_late: bool = False


class Acknowledgements:
    """The ports of this process that wait, and for which agents. Any thread may call."""

    def __init__(self, timeout: float) -> None:
        self.timeout = timeout
        self._waiting: dict[str, _Waiting] = {}
        self._done: dict[str, _Waiting] = {}
        self._changed = threading.Condition()

    def expect(self, port: str, agents: collections.abc.Iterable[str]) -> None:
        with self._changed:
            self._done.pop(port, None)
            self._waiting[port] = _Waiting(set(agents), time.monotonic())
            self._changed.notify_all()

    def expected(self) -> set[str]:
        with self._changed:
            return set(self._waiting)

    def acknowledged(self, agent: str, ports: collections.abc.Iterable[str]) -> None:
        """The agent has these ports as the database says, on its disk."""
        with self._changed:
            for port in ports:
                waiting = self._waiting.get(port)
                if waiting is None:
                    continue
                waiting.agents.discard(agent)
                if not waiting.agents:
                    self._done[port] = self._waiting.pop(port)
                    self._changed.notify_all()

    def take(self, wait: float) -> dict[str, set[str]]:
        """The ports whose wait is over, with the agents that are late; waits for some."""
        with self._changed:
            self._changed.wait_for(lambda: bool(self._done), wait)
            end = time.monotonic() - self.timeout
            for port, waiting in list(self._waiting.items()):
                if waiting.since <= end:
                    self._done[port] = self._waiting.pop(port)
            taken, self._done = self._done, {}
        return {port: waiting.agents for port, waiting in taken.items()}


def add_block(session: typing.Any, port: str) -> None:
    """Inside the transaction that binds the port, which the session has read.

    The same as Neutron's own function in two statements, since each call of the API waits for them.
    """
    row = session.get(models_v2.Port, port)
    if row is None:
        return
    blocks = block_models.ProvisioningBlock
    key = {"standard_attr_id": row.standard_attr_id, "entity": ENTITY}
    if session.query(blocks.entity).filter_by(**key).first() is None:
        session.execute(sa.insert(blocks).values(**key))


def remove_block(port: str) -> None:
    """The port may become ACTIVE as far as the agents are concerned."""
    context = neutron_context.get_admin_context()
    if _is_bound(context, port):
        provisioning_blocks.provisioning_complete(context, port, resources.PORT, ENTITY)
    else:
        # Unbound again meanwhile, or gone: no reason to make anything of it.
        provisioning_blocks.remove_provisioning_component(context, port, resources.PORT, ENTITY)


@retries.retry_db_errors
def _is_bound(context: neutron_context.Context, port: str) -> bool:
    with db_api.CONTEXT_READER.using(context):
        row = context.session.query(ml2_models.PortBinding.vif_type).filter_by(
            port_id=port, status=constants.ACTIVE).first()
    return row is not None and row.vif_type not in mapping.UNBOUND


@retries.retry_db_errors
def blocked_ports() -> set[str]:
    """The ports that wait for agents, of all processes."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        rows = context.session.query(models_v2.Port.id).join(
            block_models.ProvisioningBlock,
            block_models.ProvisioningBlock.standard_attr_id == models_v2.Port.standard_attr_id
        ).filter(block_models.ProvisioningBlock.entity == ENTITY).all()
    return {row.id for row in rows}


def finish(taken: dict[str, set[str]], timeout: float) -> dict[str, set[str]]:
    """Removes the blocks of ports; those for which the database was not there, for another try."""
    left = {}
    for port, late in taken.items():
        if late:
            LOG.warning("Port %s goes on without agent(s) %s, which did not acknowledge it within "
                        "%g seconds: see whether they are alive in the list of agents. They are "
                        "sent the port as soon as they answer.", port, ", ".join(sorted(late)),
                        timeout)
        try:
            remove_block(port)
        except Exception as error:
            LOG.warning("Port %s stays blocked until the database answers: %s", port, error)
            left[port] = set[str]()
    return left
