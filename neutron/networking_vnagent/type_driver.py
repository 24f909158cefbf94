"""The type driver `vnagent_vlan`: VLANs that the agents' regions have assigned, and no others.

It takes the place of Neutron's own driver of VLANs. What an agent has assigned
(`vlanPool.assignedVlan`) is what can be allocated in the physical networks that it serves; where
two agents serve the same one, a VLAN must be assigned by both. Other physical networks have the
ranges of `network_vlan_ranges`. What has been learned is kept in the list of agents, so that a
server that starts while an agent is away knows it too. A VLAN that is in use stays when its
assignment goes, with a warning, and is not allocated again once it is free.
"""
import collections.abc
import threading
import time
import typing

from neutron.db.models import agent as agent_models
from neutron.db.models.plugins.ml2 import vlanallocation
from neutron.plugins.ml2.drivers import type_vlan
from neutron_lib import constants
from neutron_lib import context as neutron_context
from neutron_lib import exceptions
from neutron_lib.db import api as db_api
from neutron_lib.plugins.ml2 import api
from oslo_config import cfg
from oslo_log import log
from oslo_serialization import jsonutils
import sqlalchemy as sa

from networking_vnagent import agents as listed_agents
from networking_vnagent import config
from networking_vnagent import retries

LOG = log.getLogger(__name__)

# Seconds between two comparisons of the table with what is assigned, when nothing has changed.
COMPARE_INTERVAL = 60
# VLANs that turn out to be assigned no longer while one is allocated.
ATTEMPTS = 20

Vlans = frozenset[int]
Ranges = list[tuple[int, int]]

_allocation = vlanallocation.VlanAllocation
_driver: "VnagentVlanTypeDriver | None" = None


def ranges_of(vlans: collections.abc.Iterable[int]) -> Ranges:
    """The same VLANs as ranges, first to last."""
    ranges: Ranges = []
    for vlan in sorted(vlans):
        if ranges and ranges[-1][1] == vlan - 1:
            ranges[-1] = (ranges[-1][0], vlan)
        else:
            ranges.append((vlan, vlan))
    return ranges


def text_of(vlans: collections.abc.Iterable[int]) -> str:
    return ",".join(str(a) if a == b else f"{a}-{b}" for a, b in ranges_of(vlans))


def vlans_of(text: str) -> Vlans:
    """The reverse of text_of. Raises ValueError."""
    found: set[int] = set()
    for part in filter(None, text.split(",")):
        first, _, last = part.partition("-")
        found.update(range(int(first), int(last or first) + 1))
    return frozenset(found)


def assigned_in(status: collections.abc.Mapping[str, typing.Any]) -> Vlans | None:
    """The VLANs that a region's status has assigned; None where it does not say."""
    pool = status.get("vlanPool")
    vlans = pool.get("assignedVlan") if isinstance(pool, dict) else None
    if not isinstance(vlans, list):
        return None
    return frozenset(v for v in vlans if isinstance(v, int) and 1 <= v <= 4094)


def learn_assignment(agent: config.AgentConfig,
                     status: collections.abc.Mapping[str, typing.Any]) -> None:
    """Takes over what an agent's region has assigned, where this type driver is in use."""
    vlans = assigned_in(status)
    if _driver is not None and vlans is not None:
        _driver.learn(agent.name, vlans)


def silent_agents(network: str) -> list[str]:
    """The agents that assign VLANs in a physical network and have never said which; none where this
    type driver is not in use."""
    return _driver.silent_agents(network) if _driver is not None else []


class VnagentVlanTypeDriver(type_vlan.VlanTypeDriver):
    """VLANs by assignment. Its entry point is `vnagent_vlan`, its network type `vlan`."""

    network_vlan_ranges: dict[str, Ranges]

    def __init__(self) -> None:
        global _driver
        config.register()
        options = cfg.CONF[config.GROUP]
        self._agents = config.read_agents(options.agents_file, options.request_timeout)
        self._assigned: dict[str, Vlans] = {}
        # What agents have said in this process, with which the table was compared.
        self._learned: dict[str, Vlans] = {}
        self._compared: dict[str, float] = {}
        self._warned: dict[str, Vlans] = {}
        self._learning = threading.Lock()
        super().__init__()
        _driver = self

    # What is assigned.

    def _networks_of(self, agent: config.AgentConfig) -> set[str]:
        """The physical networks whose VLANs an agent assigns."""
        if agent.physical_networks:
            return set(agent.physical_networks)
        return (set(self.network_vlan_ranges) | set(agent.hosts.values())
                | set(agent.switches.values()))

    def _assigned_by_network(self) -> dict[str, Vlans]:
        assigned: dict[str, Vlans] = {}
        for agent in self._agents:
            vlans = self._assigned.get(agent.name, frozenset())
            for network in self._networks_of(agent):
                assigned[network] = assigned.get(network, vlans) & vlans
        return assigned

    def silent_agents(self, network: str) -> list[str]:
        """The agents of a physical network of which it is not known what they have assigned."""
        return [agent.name for agent in self._agents
                if agent.name not in self._assigned and network in self._networks_of(agent)]

    def get_network_segment_ranges(self) -> dict[str, Ranges]:
        """By physical network: what may be allocated."""
        ranges: dict[str, Ranges] = dict(self.network_vlan_ranges)
        for network, vlans in self._assigned_by_network().items():
            ranges[network] = ranges_of(vlans)
        return ranges

    def learn(self, agent: str, vlans: Vlans) -> None:
        """What an agent says now; from the thread that speaks to it, outside any transaction."""
        with self._learning:
            before = self._learned.get(agent)
            self._learned[agent] = self._assigned[agent] = vlans
            now = time.monotonic()
            if before == vlans and now < self._compared.get(agent, 0):
                return
            # Until the table agrees.
            self._compared.pop(agent, None)
            if before != vlans:
                LOG.info("Agent %s has assigned the VLANs %s", agent, text_of(vlans) or "none")
            for one in self._agents:
                if one.name == agent:
                    assigned = self._assigned_by_network()
                    for network in self._networks_of(one):
                        self._compare(network, assigned[network])
            self._compared[agent] = now + COMPARE_INTERVAL

    def initialize(self) -> None:
        """The ranges of the options, and what is known of before about the agents."""
        self._read_list(neutron_context.get_admin_context())
        self._sync_vlan_allocations()
        LOG.info("VLANs that may be allocated: %s", {
            network: ",".join(f"{a}-{b}" for a, b in ranges)
            for network, ranges in self.get_network_segment_ranges().items()})

    def initialize_network_segment_range_support(self) -> None:
        """Ranges choose among the VLANs that are assigned; the default ones leave the choice."""
        self._delete_expired_default_network_segment_ranges()
        self._populate_new_default_network_segment_ranges()

    def _populate_new_default_network_segment_ranges(self) -> None:
        configured = self.network_vlan_ranges
        self.network_vlan_ranges = configured | {
            network: [(constants.MIN_VLAN_TAG, constants.MAX_VLAN_TAG)]
            for agent in self._agents for network in self._networks_of(agent)}
        try:
            super()._populate_new_default_network_segment_ranges()
        finally:
            self.network_vlan_ranges = configured

    def update_network_segment_range_allocations(self) -> None:
        """The table has what is assigned, whatever the ranges are."""

    def _sync_vlan_allocations(self) -> None:
        assigned = self._assigned_by_network()
        known = {agent.name for agent in self._agents} & set(self._assigned)
        waiting = {network for agent in self._agents if agent.name not in known
                   for network in self._networks_of(agent)}
        for network, ranges in self.get_network_segment_ranges().items():
            # Where nothing is known yet the table stays as it is.
            if network not in waiting:
                vlans = assigned.get(network)
                if vlans is None:
                    vlans = frozenset(v for a, b in ranges for v in range(a, b + 1))
                self._compare(network, vlans)

    @retries.retry_db_errors
    def _compare(self, network: str, vlans: Vlans) -> None:
        """Makes the free VLANs of the table those that may be allocated."""
        context = neutron_context.get_admin_context()
        with db_api.CONTEXT_WRITER.using(context):
            query = context.session.query(_allocation).filter_by(physical_network=network)
            present = {row.vlan_id: row.allocated for row in query.with_entities(
                _allocation.vlan_id, _allocation.allocated)}
            gone = sorted(vlan for vlan in present if vlan not in vlans)
            if gone:
                # Only those that nobody has taken meanwhile.
                query.filter(_allocation.vlan_id.in_(gone),
                             _allocation.allocated == sa.false()).delete(
                                 synchronize_session=False)
            context.session.bulk_insert_mappings(_allocation, [
                {"physical_network": network, "vlan_id": vlan, "allocated": False}
                for vlan in sorted(vlans - set(present))])
        in_use = frozenset(vlan for vlan in gone if present[vlan])
        if in_use and self._warned.get(network) != in_use:
            LOG.warning("VLANs %s in %s are in use and not assigned any more: they stay until "
                        "nobody uses them. Assign them again, or move what uses them.",
                        text_of(in_use), network)
        self._warned[network] = in_use

    # Allocation.

    def validate_provider_segment(self, segment: dict[str, typing.Any]) -> None:
        super().validate_provider_segment(segment)
        network, vlan = segment.get(api.PHYSICAL_NETWORK), segment.get(api.SEGMENTATION_ID)
        if vlan is None:
            return
        self._read_list(neutron_context.get_admin_context())
        if not self._may_be_used(network, vlan):
            raise exceptions.InvalidInput(
                error_message=f"VLAN {vlan} is not assigned in physical network {network}")

    def allocate_partially_specified_segment(self, context: typing.Any,
                                             **filters: typing.Any) -> typing.Any:
        """A free VLAN; one that has just lost its assignment is taken out instead."""
        self._read_list(context)
        for _ in range(ATTEMPTS):
            found = super().allocate_partially_specified_segment(context, **filters)
            if found is None or self._is_allowed(found.physical_network, found.vlan_id):
                return found
            with db_api.CONTEXT_WRITER.using(context):
                context.session.query(_allocation).filter_by(
                    physical_network=found.physical_network, vlan_id=found.vlan_id).delete(
                        synchronize_session=False)
        return None

    def allocate_fully_specified_segment(self, context: typing.Any,
                                         **raw_segment: typing.Any) -> typing.Any:
        """A certain VLAN; None, as for one that is taken, where it is not assigned."""
        network = raw_segment.get("physical_network")
        vlan = raw_segment.get("vlan_id")
        self._read_list(context)
        if not self._may_be_used(network, vlan):
            LOG.warning("VLAN %s in %s is not assigned, and cannot be used", vlan, network)
            return None
        return super().allocate_fully_specified_segment(context, **raw_segment)

    def _read_list(self, context: typing.Any) -> None:
        """Takes over what the process that speaks to the agents has learned."""
        self._assigned |= _known_assignments(context)

    def _may_be_used(self, network: typing.Any, vlan: typing.Any) -> bool:
        return network not in self._assigned_by_network() or self._is_allowed(network, vlan)

    def _is_allowed(self, network: typing.Any, vlan: typing.Any) -> bool:
        return any(first <= vlan <= last
                   for first, last in self.get_network_segment_ranges().get(network, ()))


def _known_assignments(context: typing.Any) -> dict[str, Vlans]:
    """What the list of agents says of each agent's assignment; in the transaction of the context
    where there is one."""
    with db_api.CONTEXT_READER.using(context):
        rows = context.session.query(
            agent_models.Agent.host, agent_models.Agent.configurations).filter_by(
                agent_type=listed_agents.AGENT_TYPE).all()
    known = {}
    for host, text in rows:
        try:
            configurations = jsonutils.loads(text)
            known[host] = vlans_of(configurations["assigned_vlans"])
        except (ValueError, KeyError, TypeError, AttributeError):
            LOG.debug("Agent %s has not said which VLANs are assigned", host)
    return known
