"""The ML2 mechanism driver `vnagent`.

Binds ports hierarchically: the network's VXLAN segment, and below it a VLAN of the host's rack.
What changes is only noted here; the publishers send it. No call of Neutron waits for an agent.
"""
import typing

from neutron import wsgi
from neutron.plugins.ml2.common import constants as ml2_constants
from neutron_lib import constants
from neutron_lib.api.definitions import portbindings
from neutron_lib.api.definitions import provider_net
from neutron_lib.callbacks import events
from neutron_lib.callbacks import registry
from neutron_lib.callbacks import resources
from neutron_lib.plugins.ml2 import api
from oslo_config import cfg
from oslo_log import log

from networking_vnagent import backlog
from networking_vnagent import binding
from networking_vnagent import changes
from networking_vnagent import config
from networking_vnagent import mapping
from networking_vnagent import process
from networking_vnagent import provisioning
from networking_vnagent import segments
from networking_vnagent import trunk

LOG = log.getLogger(__name__)

# What of a port is described to agents, besides its bindings' levels.
DESCRIBED = ("device_id", "device_owner", portbindings.HOST_ID, portbindings.VIF_TYPE,
             portbindings.VNIC_TYPE, portbindings.PROFILE)

Port = dict[str, typing.Any]


class VnagentMechanismDriver(api.MechanismDriver):
    """Keeps live agents up to date."""

    def initialize(self) -> None:
        """Reads the options and the file of agents; no agent is needed for it."""
        config.register()
        options = cfg.CONF[config.GROUP]
        self._agents = config.read_agents(options.agents_file, options.request_timeout)
        self._timeout = options.provisioning_timeout
        self._segments = segments.Segments(options.segment_linger)
        self._binder = binding.Binder(self._agents, self._segments, self._timeout == 0)
        self._process = process.ServerProcess(self._agents, options, self._segments)
        # The agents concerned by the ports that are being bound just now.
        self._concerned: dict[str, set[str]] = {}
        changes.subscribe(self._process.changed)
        registry.subscribe(self._started, resources.PROCESS, events.AFTER_INIT)
        self._trunks = trunk.register()
        LOG.info("%d agent(s) of %s: %s", len(self._agents), options.agents_file,
                 ", ".join(agent.name for agent in self._agents))

    def _started(self, resource: str, event: str, trigger: typing.Any,
                 payload: object = None) -> None:
        """In each process of the server, after it was forked."""
        worker = getattr(trigger, "__self__", None)
        self._process.answers_api = isinstance(worker, wsgi.WorkerService)
        # SQLite has one writer: there, only the process that answers the API takes part.
        if not str(cfg.CONF.database.connection or "").startswith("sqlite"):
            self._process.start()

    # What the driver can do.

    @property
    def connectivity(self) -> str:
        return typing.cast(str, portbindings.CONNECTIVITY_L2)

    @staticmethod
    def provider_network_attribute_updates_supported() -> list[str]:
        return [provider_net.SEGMENTATION_ID]

    @staticmethod
    def get_supported_vif_types() -> list[str]:
        return [portbindings.VIF_TYPE_OTHER]

    # Binding.

    def bind_port(self, context: api.PortContext) -> None:
        self._binder.bind(context)

    # Networks: their segments are noticed where they are written.

    def create_network_postcommit(self, context: api.NetworkContext) -> None:
        self._network_changed(context)

    def update_network_postcommit(self, context: api.NetworkContext) -> None:
        self._network_changed(context)

    def delete_network_postcommit(self, context: api.NetworkContext) -> None:
        self._network_changed(context)

    def _network_changed(self, context: api.NetworkContext) -> None:
        self._process.changed(backlog.Work(
            networks={context.current["id"]},
            segments={segment[api.ID] for segment in context.network_segments or ()}))

    # Ports.

    def create_port_precommit(self, context: api.PortContext) -> None:
        self._expect(context)

    def update_port_precommit(self, context: api.PortContext) -> None:
        self._expect(context)

    def create_port_postcommit(self, context: api.PortContext) -> None:
        self._port_changed(context)

    def update_port_postcommit(self, context: api.PortContext) -> None:
        self._port_changed(context)

    def delete_port_postcommit(self, context: api.PortContext) -> None:
        self._concerned.pop(context.current["id"], None)
        self._process.changed(_work_of(context.current))

    def _port_changed(self, context: api.PortContext) -> None:
        port = context.current
        concerned = self._concerned.pop(port["id"], None)
        if concerned:
            self._process.acknowledgements.expect(port["id"], concerned)
        original = context.original
        if not concerned and original and all(
                original.get(name) == port.get(name) for name in DESCRIBED):
            # As most updates: bindings and levels are noticed where they are written.
            return
        work = _work_of(port)
        if original is None and port.get(portbindings.VIF_TYPE) in mapping.UNBOUND:
            self._process.added_unbound(work)
            return
        if original:
            work.add(_work_of(original))
        self._process.changed(work)

    # Has it taken effect?

    def _expect(self, context: api.PortContext) -> None:
        """Inside the transaction that binds a port: keeps it from ACTIVE."""
        if self._timeout <= 0 or not self._becomes_bound(context):
            return
        racks = {level[api.BOUND_SEGMENT][api.PHYSICAL_NETWORK]
                 for level in context.binding_levels or () if level[api.BOUND_SEGMENT]}
        concerned = {agent.name for agent in self._agents
                     if any(rack and agent.serves(rack) for rack in racks)}
        if concerned:
            provisioning.add_block(context._plugin_context, context.current["id"])
            self._concerned[context.current["id"]] = concerned

    @staticmethod
    def _becomes_bound(context: api.PortContext) -> bool:
        port, original = context.current, context.original
        if port["device_owner"] in ml2_constants.NO_PBLOCKS_TYPES:
            return False
        if port["status"] == constants.PORT_STATUS_ACTIVE:
            return False
        if port.get(portbindings.VIF_TYPE) in mapping.UNBOUND or not context.host:
            return False
        return not original or original.get(portbindings.VIF_TYPE) in mapping.UNBOUND


def _work_of(port: Port) -> backlog.Work:
    work = backlog.Work(ports={port["id"]})
    if port.get("device_id"):
        work.devices.add(port["device_id"])
    return work
