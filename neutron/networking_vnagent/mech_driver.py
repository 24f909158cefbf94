"""The ML2 mechanism driver `vnagent`.

Binds ports hierarchically: the network's VXLAN segment, and below it a VLAN of the host's rack.
What changes is noticed where it is written, and only handed on here: another process of the server
sends it. No call of Neutron waits for an agent.
"""
import collections.abc
import typing

from neutron import wsgi
from neutron.plugins.ml2.common import constants as ml2_constants
from neutron_lib import constants
from neutron_lib import worker
from neutron_lib.api.definitions import portbindings
from neutron_lib.api.definitions import provider_net
from neutron_lib.callbacks import events
from neutron_lib.callbacks import registry
from neutron_lib.callbacks import resources
from neutron_lib.plugins.ml2 import api
from oslo_config import cfg
from oslo_log import log

from networking_vnagent import binding
from networking_vnagent import changes
from networking_vnagent import config
from networking_vnagent import mapping
from networking_vnagent import process
from networking_vnagent import provisioning
from networking_vnagent import retries
from networking_vnagent import segments
from networking_vnagent import trunk
from networking_vnagent import worker as publisher_worker

LOG = log.getLogger(__name__)


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
        self._has_publisher = not process.uses_sqlite()
        changes.subscribe(self._process.changed, are_unbound_noted=not all(
            agent.physical_networks for agent in self._agents))
        registry.subscribe(self._spawning, resources.PROCESS, events.BEFORE_SPAWN)
        registry.subscribe(self._started, resources.PROCESS, events.AFTER_INIT)
        registry.subscribe(self._spawned, resources.PROCESS, events.AFTER_SPAWN)
        self._trunks = trunk.register()
        LOG.info("%d agent(s) of %s: %s", len(self._agents), options.agents_file,
                 ", ".join(agent.name for agent in self._agents))

    # Processes.

    def get_workers(self) -> collections.abc.Sequence[worker.BaseWorker]:
        """The process that publishes, beside those that answer calls."""
        if not self._has_publisher:
            return ()
        return (publisher_worker.PublisherWorker(self._process.start),)

    def _spawning(self, resource: str, event: str, trigger: typing.Any,
                  payload: object = None) -> None:
        """In neutron-server, which starts the processes of drivers after that."""
        if self._has_publisher:
            self._process.hand_over()

    def _started(self, resource: str, event: str, trigger: typing.Any,
                 payload: object = None) -> None:
        """In each process of the server, after it was forked."""
        owner = getattr(trigger, "__self__", None)
        if isinstance(owner, publisher_worker.PublisherWorker):
            return
        is_api = isinstance(owner, wsgi.WorkerService)
        if self._has_publisher and is_api:
            # Of neutron-server, too: it is forked before the announcement.
            self._process.hand_over()
        if self._has_publisher or is_api:
            self._process.begin()

    def _spawned(self, resource: str, event: str, trigger: typing.Any,
                 payload: object = None) -> None:
        """In neutron-server, when all other processes run: it may be the one that answers."""
        if not self._has_publisher and cfg.CONF.api_workers == 0:
            self._process.begin()

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

    @retries.retry_db_errors
    def bind_port(self, context: api.PortContext) -> None:
        # Outside any transaction. Neutron takes what is raised for a failed binding: what would
        # succeed a moment later must not be.
        self._binder.bind(context)

    # Has it taken effect?

    def create_port_precommit(self, context: api.PortContext) -> None:
        self._expect(context)

    def update_port_precommit(self, context: api.PortContext) -> None:
        self._binder.complete(context)
        self._expect(context)

    def _expect(self, context: api.PortContext) -> None:
        """Inside the transaction that binds a port: keeps it from ACTIVE."""
        if self._timeout <= 0 or not self._becomes_bound(context):
            return
        racks = self._binder.racks_of_levels(context)
        concerned = {agent.name for agent in self._agents
                     if any(agent.serves(rack) for rack in racks)}
        if concerned:
            port = context.current["id"]
            session = context._plugin_context.session
            provisioning.add_block(session, port)
            changes.of_transaction(session).waiting[port] = concerned

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
