"""What the tests share: a real agent, and a Neutron plugin in this process with the driver."""
import os
import signal
import subprocess
import tempfile
import time
import unittest
import unittest.mock

from neutron.conf.plugins.ml2.drivers import driver_type
from neutron.tests.unit.plugins.ml2 import test_plugin
from oslo_config import cfg

from networking_vnagent import changes
from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import process
from networking_vnagent import provisioning
from networking_vnagent import publisher

REGION = "RegionOne"


def program() -> str:
    """The agent's program: VNAGENT says where it is."""
    path = os.environ.get("VNAGENT")
    if not path:
        raise AssertionError("VNAGENT must name the agent's program, as in `make neutron-check`")
    return path


class Agent:
    """A live agent with its state in a directory of its own."""

    def __init__(self, *options: str) -> None:
        self._directory = tempfile.TemporaryDirectory(prefix="vnagent-unit-")
        self.socket = os.path.join(self._directory.name, "agent.sock")
        self._options = options
        self.start()

    @property
    def url(self) -> str:
        return "unix://" + self.socket

    def start(self, state: str = "state") -> None:
        directory = os.path.join(self._directory.name, state)
        self._process = subprocess.Popen(
            [program(), "serve", "--socket", self.socket, "--state-dir", directory,
             *self._options], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        end = time.monotonic() + 30
        while True:
            try:
                client = self.client()
                client.hello()
                client.close()
                return
            except agent_client.AgentError:
                if time.monotonic() > end or self._process.poll() is not None:
                    raise
                time.sleep(0.02)

    def kill(self) -> None:
        self._process.send_signal(signal.SIGKILL)
        self._process.wait()

    def pause(self) -> None:
        self._process.send_signal(signal.SIGSTOP)

    def resume(self) -> None:
        self._process.send_signal(signal.SIGCONT)

    def stop(self) -> None:
        self.kill()
        self._directory.cleanup()

    def client(self, timeout: float = 10) -> agent_client.Client:
        return agent_client.Client(self.url, REGION, timeout=timeout)

    def region(self) -> dict:
        """The region's collections."""
        client = self.client()
        try:
            return {name: members for name, members in client.region_document()[0].items()
                    if isinstance(members, dict)}
        finally:
            client.close()

    def revision(self) -> int:
        client = self.client()
        try:
            return client.hello()["revision"]
        finally:
            client.close()

    def patch(self, patch: dict) -> None:
        client = self.client()
        client.change(agent_client.Change("PATCH", client.place, patch, {}))
        client.close()


def settings(**changed) -> publisher.Settings:
    values = {"max_pause": 0.2, "check_interval": 0.05, "report_interval": 30,
              "full_sync_interval": 3600, "full_sync_mode": "repair", "max_backlog": 1000,
              "batch_size": 100} | changed
    return publisher.Settings(**values)


class AgentTestCase(unittest.TestCase):
    """A test with a real agent."""

    def setUp(self) -> None:
        super().setUp()
        self.agent = Agent()
        self.addCleanup(self.agent.stop)


class PluginTestCase(test_plugin.Ml2PluginV2TestCase):
    """Neutron's plugin with the driver, on a database in memory, and a real agent.

    No thread runs: `publish` does in this one what a publisher does in its own.
    """

    _mechanism_drivers = ["vnagent", "openvswitch"]
    physical_networks = "physnet1"
    type_drivers = ["vxlan", "vlan"]
    agent_options: tuple[str, ...] = ()
    provisioning_timeout = 60

    def setUp(self) -> None:
        self.agent = Agent(*self.agent_options)
        self.addCleanup(self.agent.stop)
        directory = tempfile.TemporaryDirectory(prefix="vnagent-unit-")
        self.addCleanup(directory.cleanup)
        path = os.path.join(directory.name, "agents.ini")
        with open(path, "w", encoding="utf-8") as file:
            file.write(self.agents_file())
        config.register()
        driver_type.register_ml2_drivers_vxlan_opts()
        cfg.CONF.set_override("agents_file", path, "vnagent")
        cfg.CONF.set_override("provisioning_timeout", self.provisioning_timeout, "vnagent")
        cfg.CONF.set_override("type_drivers", self.type_drivers, "ml2")
        cfg.CONF.set_override("tenant_network_types", ["vxlan"], "ml2")
        cfg.CONF.set_override("vni_ranges", ["10000:10099"], "ml2_type_vxlan")
        started = unittest.mock.patch.object(process.ServerProcess, "start")
        started.start()
        self.addCleanup(started.stop)
        super().setUp()
        self.mechanism = self.driver.mechanism_manager.mech_drivers["vnagent"].obj
        self.server = self.mechanism._process
        self.addCleanup(changes.unsubscribe, self.server.changed)
        # As after its start.
        self.server._pid = os.getpid()
        self.publisher = self.publisher_of(self.mechanism._agents[0])
        self.server._publishers = [self.publisher]
        self.receive()

    def agents_file(self) -> str:
        return (f"[agent:one]\nurl = {self.agent.url}\nregion = {REGION}\n"
                f"physical_networks = {self.physical_networks}\n"
                "switches = leaf-*:physnet1\n")

    def publisher_of(self, agent: config.AgentConfig, **changed) -> publisher.Publisher:
        return publisher.Publisher(agent, settings(**changed), self.server.acknowledgements,
                                   lambda *_: None)

    def receive(self) -> None:
        """Gives what has changed to the publishers."""
        self.server.distribute()

    def publish(self, one: publisher.Publisher | None = None) -> None:
        """Sends what has changed, and lets ports go on that were acknowledged."""
        self.receive()
        one = one or self.publisher
        while one._wants_sync():
            one._next_sync = 0.0
            one._turn()
        while len(one.backlog):
            one._turn()
        provisioning.finish(self.server.acknowledgements.take(0), 60)
