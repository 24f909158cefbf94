"""Binds ports to the VLANs of racks: which rack a port is in, and which segments it gets."""
import collections.abc
import typing

from neutron_lib import constants
from neutron_lib import exceptions
from neutron_lib.api.definitions import portbindings
from neutron_lib.db import api as db_api
from neutron_lib.plugins.ml2 import api
from oslo_log import log

from networking_vnagent import agents as listed_agents
from networking_vnagent import config
from networking_vnagent import mapping
from networking_vnagent import segments as dynamic_segments
from networking_vnagent import type_driver

LOG = log.getLogger(__name__)

Segment = dict[str, typing.Any]

# Segments whose physical network is remembered.
REMEMBERED = 100_000
# Dynamic segments that are remembered as a whole.
REMEMBERED_DYNAMIC = 10_000


class Binder:
    """Binds the ports of the racks of some agents."""

    def __init__(self, agents: collections.abc.Sequence[config.AgentConfig],
                 segments: dynamic_segments.Segments, is_active_at_once: bool) -> None:
        self._agents = agents
        self._segments = segments
        # Whether a baremetal port becomes ACTIVE without waiting for anybody.
        self._is_active_at_once = is_active_at_once
        # The physical networks of segments that ports were bound to, which never change; and the
        # dynamic ones of these segments.
        self._racks: dict[str, str | None] = {}
        self._dynamic: dict[str, Segment] = {}

    def bind(self, context: api.PortContext) -> None:
        """One level of one attempt to bind a port. Makes no binding where it is not ours."""
        port = context.current
        is_baremetal = port.get(portbindings.VNIC_TYPE) == portbindings.VNIC_BAREMETAL
        candidates: list[Segment] = context.segments_to_bind or []
        self._remember(candidates)
        if not is_baremetal and not _tops(candidates):
            # The VLAN of a virtual machine is bound by the driver of its host, below this one.
            return
        # All that most bindings read, in one transaction.
        with db_api.CONTEXT_READER.using(context._plugin_context):
            if is_baremetal:
                rack = self._rack_of_links(context)
                racks = [rack] if rack else []
            else:
                racks = self.racks_of_host(context)
            vlans = [s for s in candidates if s[api.NETWORK_TYPE] == constants.TYPE_VLAN
                     and s[api.PHYSICAL_NETWORK] in racks]
            present = {}
            if racks and not vlans and _tops(candidates):
                present = dynamic_segments.present(
                    context._plugin_context, context.network.current["id"], racks)
        if racks:
            self._bind_in(context, racks, vlans, present, is_baremetal)
        else:
            LOG.debug("Port %s is not bound here: no agent serves a physical network of host %s",
                      port["id"], context.host)

    def racks_of_levels(self, context: api.PortContext) -> set[str]:
        """The physical networks that a port has a level in."""
        levels = {level.segment_id for level in context._binding_levels}
        if not levels <= self._racks.keys():
            self._remember(level[api.BOUND_SEGMENT] for level in context.binding_levels or ())
        racks = {self._racks.get(segment) for segment in levels}
        return {rack for rack in racks if rack is not None}

    def complete(self, context: api.PortContext) -> None:
        """Lets Neutron find the dynamic segments of a port's levels in what it has of the network.
        It would ask the database for each of them, each time with five statements."""
        for level in context._binding_levels:
            if segment := self._dynamic.get(level.segment_id):
                _add(context.network, segment)

    def _remember(self, segments: collections.abc.Iterable[Segment | None]) -> None:
        if len(self._racks) > REMEMBERED:
            self._racks.clear()
        for segment in segments:
            if segment is not None:
                self._racks[segment[api.ID]] = segment[api.PHYSICAL_NETWORK]

    def _bind_in(self, context: api.PortContext, racks: list[str], vlans: list[Segment],
                 present: dict[str, Segment], is_baremetal: bool) -> None:
        tops = _tops(context.segments_to_bind or [])
        if tops:
            # A segment that an operator gave the network in this rack is the rack's VLAN.
            bottom = vlans[0] if vlans else self._allocate(context, racks, present)
            if bottom is not None:
                self._remember([bottom])
                context.continue_binding(tops[0][api.ID], [bottom])
        elif vlans and is_baremetal:
            status = constants.PORT_STATUS_ACTIVE if self._is_active_at_once else None
            context.set_binding(
                vlans[0][api.ID], portbindings.VIF_TYPE_OTHER,
                {portbindings.VIF_DETAILS_CONNECTIVITY: portbindings.CONNECTIVITY_L2,
                 portbindings.CAP_PORT_FILTER: False}, status)

    def _allocate(self, context: api.PortContext, racks: list[str],
                  present: dict[str, Segment]) -> Segment | None:
        for rack in racks:
            try:
                segment = self._segments.allocate(context, rack, present.get(rack))
            except exceptions.NoNetworkAvailable:
                LOG.error("Port %s cannot be bound on host %s: %s", context.current["id"],
                          context.host, _without_vlan(rack))
                continue
            if segment is not None:
                if len(self._dynamic) > REMEMBERED_DYNAMIC:
                    self._dynamic.clear()
                self._dynamic[segment[api.ID]] = segment
                _add(context.network, segment)
                return segment
        return None

    # Racks.

    def racks_of_host(self, context: api.PortContext) -> list[str]:
        """The physical networks of a host that agents serve, the one to use first."""
        host = context.host
        if not host:
            return []
        for agent in self._agents:
            if named := config.matching(agent.hosts, host):
                return [named]
        racks: list[str] = []
        for configurations in listed_agents.configurations_on(context._plugin_context, host):
            for option in ("bridge_mappings", "device_mappings", "interface_mappings"):
                mappings = configurations.get(option)
                for network in mappings if isinstance(mappings, dict) else ():
                    if network not in racks and any(a.serves(network) for a in self._agents):
                        racks.append(network)
        return racks

    def _rack_of_links(self, context: api.PortContext) -> str | None:
        """The physical network of the switches that a baremetal port is plugged into."""
        port = context.current
        links, faults = mapping.links_of(port.get(portbindings.PROFILE) or {})
        for fault in faults:
            LOG.warning("Port %s: %s", port["id"], fault)
        racks: set[str] = set()
        for link in links:
            rack = self._rack_of_switch(link.switch)
            if rack is None:
                LOG.warning("Port %s cannot be bound: no agent of the file has switch %s among its "
                            "switches", port["id"], link.switch)
                return None
            racks.add(rack)
        if len(racks) > 1:
            LOG.warning("Port %s cannot be bound: its links are in several racks: %s", port["id"],
                        ", ".join(sorted(racks)))
            return None
        if not links:
            LOG.debug("Port %s has no local_link_information that can be used", port["id"])
        return racks.pop() if racks else None

    def _rack_of_switch(self, switch: str) -> str | None:
        for agent in self._agents:
            if network := config.matching(agent.switches, switch):
                return network
        for agent in self._agents:
            # An agent of one rack, without a list of its switches.
            if not agent.switches and len(agent.physical_networks) == 1:
                if len(self._agents) == 1:
                    return agent.physical_networks[0]
        return None


def _without_vlan(rack: str) -> str:
    """Why a rack has no VLAN for a network."""
    if silent := type_driver.silent_agents(rack):
        return (f"agent(s) {', '.join(silent)} have not said yet which VLANs are assigned in "
                f"{rack}. See whether they are alive in the list of agents, and bind it again.")
    return f"no VLAN is free in {rack}. Give it more VLANs, or free some."


def _add(network: api.NetworkContext, segment: Segment) -> None:
    """Adds a segment to those of a network. The list of before stays: it is what drivers are
    offered at the upper level."""
    if all(known[api.ID] != segment[api.ID] for known in network.network_segments):
        network._segments = [*network.network_segments, segment]


def _tops(candidates: list[Segment]) -> list[Segment]:
    """The segments below which a rack's VLAN is bound."""
    return [s for s in candidates if s[api.NETWORK_TYPE] == constants.TYPE_VXLAN]
