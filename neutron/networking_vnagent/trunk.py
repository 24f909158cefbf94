"""Trunks of baremetal ports: the subports are plugged in where the parent is.

Below an L2 agent the agent asks for its subports to be bound. A baremetal node has no agent, so the
parent's host and links are copied to the subports here, and taken away again with the trunk.
"""
import typing

from neutron.db import segments_db
from neutron.plugins.ml2 import db as ml2_db
from neutron.services.trunk.drivers import base
from neutron_lib import constants
from neutron_lib import context as neutron_context
from neutron_lib import exceptions
from neutron_lib.api.definitions import portbindings
from neutron_lib.callbacks import events
from neutron_lib.callbacks import registry
from neutron_lib.callbacks import resources
from neutron_lib.plugins import directory
from neutron_lib.plugins.ml2 import api
from neutron_lib.services.trunk import constants as trunk_constants
from oslo_config import cfg
from oslo_log import log

from networking_vnagent import mapping

LOG = log.getLogger(__name__)

NAME = "vnagent"
LINKS = "local_link_information"

Port = dict[str, typing.Any]
Payload = typing.Any


class VnagentTrunkDriver(base.DriverBase):
    """For parents that this mechanism driver has bound itself."""

    @property
    def is_loaded(self) -> bool:
        return NAME in cfg.CONF.ml2.mechanism_drivers

    @registry.receives(resources.TRUNK_PLUGIN, [events.AFTER_INIT])
    def register(self, resource: str, event: str, trigger: typing.Any,
                 payload: Payload = None) -> None:
        super().register(resource, event, trigger, payload=payload)
        registry.subscribe(self._trunk_created, resources.TRUNK, events.AFTER_CREATE)
        registry.subscribe(self._trunk_deleted, resources.TRUNK, events.AFTER_DELETE)
        registry.subscribe(self._subports_added, resources.SUBPORTS, events.AFTER_CREATE)
        registry.subscribe(self._subports_removed, resources.SUBPORTS, events.AFTER_DELETE)
        registry.subscribe(self._port_updated, resources.PORT, events.AFTER_UPDATE)

    # Neutron's events, each after its transaction.

    def _trunk_created(self, resource: str, event: str, trigger: typing.Any,
                       payload: Payload) -> None:
        trunk = payload.states[0]
        self._plug(trunk.id, trunk.port_id, trunk.sub_ports)

    def _trunk_deleted(self, resource: str, event: str, trigger: typing.Any,
                       payload: Payload) -> None:
        self._unplug([subport.port_id for subport in payload.states[0].sub_ports])

    def _subports_added(self, resource: str, event: str, trigger: typing.Any,
                        payload: Payload) -> None:
        trunk = payload.states[1]
        self._plug(trunk.id, trunk.port_id, payload.metadata["subports"])

    def _subports_removed(self, resource: str, event: str, trigger: typing.Any,
                          payload: Payload) -> None:
        self._unplug([subport.port_id for subport in payload.metadata["subports"]])

    def _port_updated(self, resource: str, event: str, trigger: typing.Any,
                      payload: Payload) -> None:
        port = payload.latest_state
        details = port.get("trunk_details")
        if not details or not details["sub_ports"]:
            return
        before = payload.states[0]
        seen = (portbindings.VIF_TYPE, portbindings.HOST_ID, portbindings.PROFILE)
        if all(before.get(name) == port.get(name) for name in seen):
            return
        if _is_plugged(port):
            trunk = directory.get_plugin("trunk").get_trunk(
                neutron_context.get_admin_context(), details["trunk_id"])
            self._copy(port, trunk["id"], [
                (subport["port_id"], subport["segmentation_id"])
                for subport in trunk["sub_ports"]])
        elif _is_plugged(before) and not port.get(portbindings.HOST_ID):
            self._unplug([subport["port_id"] for subport in details["sub_ports"]], is_left=False)

    # What they cause.

    def _plug(self, trunk: str, parent: str, subports: typing.Iterable[typing.Any]) -> None:
        context = neutron_context.get_admin_context()
        try:
            port = directory.get_plugin().get_port(context, parent)
        except exceptions.PortNotFound:
            return
        if _is_plugged(port):
            self._copy(port, trunk, [(s.port_id, s.segmentation_id) for s in subports])

    def _copy(self, parent: Port, trunk: str, subports: list[tuple[str, int]]) -> None:
        """Binds the subports where the parent is; the trunk's status says how it went."""
        status = trunk_constants.TRUNK_ACTIVE_STATUS
        for port, tag in subports:
            bound = _update(port, {
                portbindings.HOST_ID: parent[portbindings.HOST_ID],
                portbindings.VNIC_TYPE: portbindings.VNIC_BAREMETAL,
                portbindings.PROFILE: {LINKS: parent[portbindings.PROFILE][LINKS]},
                "device_owner": trunk_constants.TRUNK_SUBPORT_OWNER})
            if bound is None or bound[portbindings.VIF_TYPE] in mapping.UNBOUND:
                LOG.error("Subport %s of trunk %s could not be bound where its parent is", port,
                          trunk)
                status = trunk_constants.TRUNK_DEGRADED_STATUS
            else:
                _compare_tag(bound, tag)
        context = neutron_context.get_admin_context()
        try:
            directory.get_plugin("trunk").update_trunk(context, trunk,
                                                       {"trunk": {"status": status}})
        except exceptions.NotFound:
            LOG.debug("Trunk %s is gone", trunk)

    @staticmethod
    def _unplug(subports: list[str], is_left: bool = True) -> None:
        """Unbinds the subports; those that left their trunk are ordinary ports again."""
        context = neutron_context.get_admin_context()
        for port in directory.get_plugin().get_ports(context, filters={"id": subports}):
            if port[portbindings.VNIC_TYPE] != portbindings.VNIC_BAREMETAL:
                continue
            attributes: Port = {portbindings.HOST_ID: "", portbindings.PROFILE: {}}
            if is_left:
                attributes |= {"device_owner": "",
                               portbindings.VNIC_TYPE: portbindings.VNIC_NORMAL}
            _update(port["id"], attributes)


def _is_plugged(port: Port) -> bool:
    """True for a baremetal port that is bound to its links."""
    return (port.get(portbindings.VNIC_TYPE) == portbindings.VNIC_BAREMETAL
            and port.get(portbindings.VIF_TYPE) == portbindings.VIF_TYPE_OTHER
            and mapping.has_links(port.get(portbindings.PROFILE) or {}))


def _update(port: str, attributes: Port) -> Port | None:
    """The port after the update; None where that was not possible."""
    context = neutron_context.get_admin_context()
    try:
        updated: Port = directory.get_plugin().update_port(context, port, {"port": attributes})
        return updated
    except exceptions.PortNotFound:
        return None
    except exceptions.NeutronException as error:
        LOG.error("Port %s: %s", port, error)
        return None


def _compare_tag(port: Port, tag: int) -> None:
    """Switches carry the VLAN of the rack: the node must use that as its tag."""
    context = neutron_context.get_admin_context()
    levels = ml2_db.get_binding_level_objs(context, port["id"], port[portbindings.HOST_ID])
    segment = segments_db.get_segment_by_id(context, levels[-1].segment_id) if levels else None
    if segment and segment[api.NETWORK_TYPE] == constants.TYPE_VLAN and (
            segment[api.SEGMENTATION_ID] != tag):
        LOG.warning("Subport %s has the tag %s in its trunk, and VLAN %s on the switch: the node "
                    "must tag with the latter", port["id"], tag, segment[api.SEGMENTATION_ID])


def register() -> VnagentTrunkDriver:
    """Makes the driver, which registers itself; the caller keeps it."""
    return VnagentTrunkDriver(NAME, (portbindings.VIF_TYPE_OTHER,),
                              (trunk_constants.SEGMENTATION_TYPE_VLAN,),
                              can_trunk_bound_port=True)
