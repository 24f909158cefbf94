"""Neutron's servers: their configuration, start, death and end."""

from __future__ import annotations

import os
import random
import shutil
from collections.abc import Sequence
from pathlib import Path

from .agents import Agent
from .api import Api, Refused, Unreachable
from .processes import Failed, Program, children, eventually, free_port
from .topology import Topology

HERE = Path(__file__).resolve().parent
# Where Python finds the driver and the filter of the played agents.
TESTS = HERE.parent
DRIVER = HERE.parents[2]

OPTIONS = """\
[DEFAULT]
auth_strategy = noauth
core_plugin = ml2
service_plugins = router,trunk,segments
transport_url = fake://
bind_host = 127.0.0.1
bind_port = {port}
api_workers = 2
rpc_workers = 1
rpc_state_report_workers = 0
api_paste_config = {directory}/api-paste.ini
state_path = {directory}
notify_nova_on_port_status_changes = False
notify_nova_on_port_data_changes = False
dhcp_agent_notification = False
agent_down_time = 75
host = {name}
debug = {debug}

[database]
connection = {database}
max_retries = -1
connection_recycle_time = 60
max_pool_size = 10
max_overflow = 20

[oslo_concurrency]
lock_path = {directory}/lock

[quotas]
default_quota = -1
quota_network = -1
quota_subnet = -1
quota_port = -1
quota_router = -1
quota_floatingip = -1
quota_security_group = -1
quota_security_group_rule = -1
quota_trunk = -1

[ml2]
extension_drivers = port_security
type_drivers = {types}
tenant_network_types = {default_type}
mechanism_drivers = {drivers}

[ml2_type_vxlan]
vni_ranges = 10000:19999

[ml2_type_vlan]
network_vlan_ranges = {vlan_ranges}
"""


def options_of_driver(topology: Topology, agents: Sequence[Agent], directory: Path) -> str:
    """The part of the configuration that is the driver's own, with pauses and intervals as short as
    a test needs them; writes the file that names the agents."""
    lines = []
    for agent in agents:
        racks = [rack for rack in topology.racks if rack.agent == agent.name]
        switches = [f"{switch}:{rack.name}" for rack in racks for switch in rack.switches]
        lines += [f"[agent:{agent.name}]", f"url = unix://{agent.wire.socket}",
                  f"region = {agent.name}",
                  "physical_networks = " + ",".join(rack.name for rack in racks),
                  "switches = " + ",".join(switches), ""]
    agents_file = directory / "agents.ini"
    agents_file.write_text("\n".join(lines))
    return f"""
[vnagent]
agents_file = {agents_file}
request_timeout = 5
max_pause = 2
check_interval = 3
report_interval = 5
full_sync_interval = 600
provisioning_timeout = 20
segment_linger = 8
"""


class Server:
    """One neutron-server with two API workers, and the file that configures it. `without` names the
    mechanism drivers of one that has not the driver."""

    def __init__(self, name: str, directory: Path, logs: Path, database: str, topology: Topology,
                 agents: Sequence[Agent], with_driver: bool = True, debug: bool = False,
                 vlan_type: str = "vnagent_vlan", without: str = "openvswitch") -> None:
        self.name = name
        self.port = free_port()
        self.directory = directory / name
        self.directory.mkdir()
        self.config = self.directory / "neutron.conf"
        ranges = ",".join(f"{rack.name}:{topology.first_vlan}:{topology.last_vlan}"
                          for rack in topology.racks)
        text = OPTIONS.format(
            port=self.port, directory=self.directory, name=name, database=database, debug=debug,
            types=f"vxlan,{vlan_type}" if with_driver else "vxlan,vlan",
            default_type="vxlan" if with_driver else "vlan",
            drivers="vnagent,openvswitch" if with_driver else without, vlan_ranges=ranges)
        if with_driver:
            text += options_of_driver(topology, agents, self.directory)
        self.config.write_text(text)
        paste = Path("/usr/share/neutron-common/api-paste.ini").read_text()
        played = paste.replace("catch_errors osprofiler extensions",
                               "catch_errors osprofiler played extensions")
        if played == paste:
            raise Failed("the pipeline of Neutron's API is not as expected")
        (self.directory / "api-paste.ini").write_text(
            played + "\n[filter:played]\n"
            "paste.filter_factory = vnagent_e2e.played:filter_factory\n")
        path = ":".join([*filter(None, [os.environ.get("PYTHONPATH")]), str(TESTS), str(DRIVER)])
        self.program = Program(name, ["neutron-server", "--config-file", self.config],
                               logs / f"{name}.log",
                               {"PYTHONPATH": path, "PYTHONDONTWRITEBYTECODE": "1"})

    def start(self) -> None:
        """Starts it; `wait` says when it answers."""
        self.program.start()

    def wait(self, seconds: float = 90) -> None:
        api = Api([self.port], random.Random(0), timeout=10)

        def answers() -> bool:
            if not self.program.running():
                raise Failed(f"{self.name} ended:\n{self.program.tail(30)}")
            try:
                api.get("/networks?fields=id&limit=1")
            except (Unreachable, Refused):
                return False
            return True

        eventually(f"{self.name} answers", answers, seconds)

    def workers(self, title: str = "") -> list[int]:
        """The process ids of its workers, of those with this in their title; the parent starts a
        new one where one dies."""
        return [pid for pid in children(self.program.pid) if title in title_of(pid)]

    def memory(self) -> int:
        """The largest resident set among its processes, in MiB."""
        largest = 0
        for pid in [self.program.pid, *self.workers()]:
            try:
                pages = int(Path(f"/proc/{pid}/statm").read_text().split()[1])
            except OSError:
                continue
            largest = max(largest, pages * os.sysconf("SC_PAGE_SIZE") >> 20)
        return largest

    def stop(self) -> None:
        self.program.stop(15)
        shutil.rmtree(self.directory / "lock", ignore_errors=True)


def title_of(pid: int) -> str:
    """What a process calls itself; empty where there is none."""
    try:
        return Path(f"/proc/{pid}/cmdline").read_text(errors="replace")
    except OSError:
        return ""
