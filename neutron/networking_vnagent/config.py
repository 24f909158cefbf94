"""The options of the driver, and the file that names the agents."""
import dataclasses
import fnmatch

from oslo_config import cfg

from networking_vnagent import client

GROUP = "vnagent"

OPTIONS = [
    cfg.StrOpt("agents_file", default="/etc/neutron/vnagent_agents.ini",
               help="The file that names the agents: a section [agent:NAME] for each."),
    cfg.FloatOpt("request_timeout", default=10, min=0.1,
                 help="Seconds for one request to an agent, all in all."),
    cfg.FloatOpt("max_pause", default=30, min=0.1,
                 help="The longest pause, in seconds, between two attempts to reach an agent that "
                      "does not answer. Pauses grow from a quarter of a second."),
    cfg.FloatOpt("check_interval", default=10, min=0.1,
                 help="Seconds between two looks at an agent that has nothing to be sent."),
    cfg.FloatOpt("report_interval", default=30, min=1,
                 help="Seconds between two heartbeats of an agent in the list of agents. Keep it "
                      "below half of agent_down_time."),
    cfg.FloatOpt("full_sync_interval", default=600, min=1,
                 help="Seconds from one full sync of an agent to the next."),
    cfg.StrOpt("full_sync_mode", default="repair", choices=["repair", "report"],
               help="repair: a full sync makes the agent's region what the database says. report: "
                    "it counts and logs what differs and changes nothing."),
    cfg.IntOpt("max_backlog", default=5000, min=1,
               help="How many changed objects a server remembers for one agent. Beyond, "
                    "and when the agent has been away for long, it sends the whole region."),
    cfg.IntOpt("batch_size", default=200, min=1,
               help="How many changed objects are sent in one patch at most."),
    cfg.FloatOpt("gather_time", default=0.05, min=0, max=10,
                 help="Seconds from a change to the moment when it is sent: what changes meanwhile "
                      "is sent with it."),
    cfg.FloatOpt("provisioning_timeout", default=60, min=0,
                 help="Seconds that a port waits at most, before it becomes ACTIVE, for the agents "
                      "concerned to acknowledge it. 0: ports do not wait."),
    cfg.FloatOpt("segment_linger", default=60, min=1,
                 help="Seconds without a user after which a dynamic VLAN segment is given back. "
                      "Must be longer than any binding of a port takes."),
    cfg.BoolOpt("release_segments", default=True,
                help="Give back dynamic VLAN segments that nobody uses."),
]

AGENT_OPTIONS = [
    cfg.StrOpt("url", required=True,
               help="unix:///PATH, https://HOST:PORT, or http://HOST:PORT on loopback."),
    cfg.StrOpt("region", default="RegionOne", help="The region of the agent that is kept."),
    cfg.ListOpt("physical_networks", default=[],
                help="The physical networks (racks) that the agent serves. It is sent what is "
                     "bound in them. Empty: everything."),
    cfg.DictOpt("hosts", default={},
                help="HOST:PHYSICAL_NETWORK,... The rack of hosts; HOST may be a shell pattern. "
                     "Other hosts are looked up in the bridge_mappings of their agents."),
    cfg.DictOpt("switches", default={},
                help="SWITCH:PHYSICAL_NETWORK,... The rack of switches, by the switch_info or "
                     "switch_id of a port's local_link_information; SWITCH may be a pattern."),
    cfg.StrOpt("token_file", help="A file with the token to send; not readable by others."),
    cfg.StrOpt("ca_file", help="The authority that signed the agent's certificate."),
    cfg.StrOpt("cert_file", help="The certificate to show to the agent."),
    cfg.StrOpt("key_file", help="The key of cert_file."),
    cfg.FloatOpt("request_timeout", help="In the place of the option of [vnagent]."),
]


class BadAgentsFile(Exception):
    """The file of agents cannot be used; the text names the place."""


@dataclasses.dataclass(frozen=True)
class AgentConfig:
    """One agent of the file."""
    name: str
    url: str
    region: str = "RegionOne"
    physical_networks: tuple[str, ...] = ()
    hosts: dict[str, str] = dataclasses.field(default_factory=dict)
    switches: dict[str, str] = dataclasses.field(default_factory=dict)
    token_file: str | None = None
    ca_file: str | None = None
    cert_file: str | None = None
    key_file: str | None = None
    request_timeout: float = 10

    def client(self) -> client.Client:
        return client.Client(self.url, self.region, timeout=self.request_timeout,
                             token_file=self.token_file, ca_file=self.ca_file,
                             cert_file=self.cert_file, key_file=self.key_file)

    def serves(self, physical_network: str | None) -> bool:
        """True when what is bound in this physical network is sent to the agent."""
        return not self.physical_networks or physical_network in self.physical_networks


def register(conf: cfg.ConfigOpts = cfg.CONF) -> None:
    conf.register_opts(OPTIONS, GROUP)


def list_opts() -> list[tuple[str, list[cfg.Opt]]]:
    """For oslo-config-generator."""
    return [(GROUP, OPTIONS)]


def read_agents(path: str, request_timeout: float = 10) -> list[AgentConfig]:
    """The agents that a file names, in the order of their names. Raises BadAgentsFile."""
    conf = cfg.ConfigOpts()
    try:
        conf([], project="networking-vnagent", default_config_files=[path])
        sections = conf.list_all_sections()
    except cfg.Error as error:
        raise BadAgentsFile(f"{path}: {error}") from error
    agents = []
    for section in sections:
        kind, _, name = section.partition(":")
        if kind != "agent" or not name:
            raise BadAgentsFile(f"{path}: [{section}]: a section of this file is [agent:NAME]")
        conf.register_opts(AGENT_OPTIONS, section)
        agents.append(_read_agent(path, section, name, conf[section], request_timeout))
    if not agents:
        raise BadAgentsFile(f"{path}: names no agent; a section [agent:NAME] with a url names one")
    seen: dict[tuple[str, str], str] = {}
    for agent in agents:
        other = seen.setdefault((agent.url, agent.region), agent.name)
        if other != agent.name:
            raise BadAgentsFile(f"{path}: agents {other} and {agent.name} are the same region of "
                                "the same agent")
    return agents


def _read_agent(path: str, section: str, name: str, group: cfg.ConfigOpts.GroupAttr,
                request_timeout: float) -> AgentConfig:
    try:
        agent = AgentConfig(
            name=name, url=group.url or "", region=group.region,
            physical_networks=tuple(group.physical_networks), hosts=dict(group.hosts),
            switches=dict(group.switches), token_file=group.token_file, ca_file=group.ca_file,
            cert_file=group.cert_file, key_file=group.key_file,
            request_timeout=group.request_timeout or request_timeout)
        agent.client()
    except (cfg.Error, ValueError) as error:
        raise BadAgentsFile(f"{path}: [{section}]: {error}") from error
    for option in ("hosts", "switches"):
        for who, network in getattr(agent, option).items():
            if not agent.serves(network):
                raise BadAgentsFile(f"{path}: [{section}]: {option}: {who} is in {network}, which "
                                    "is not among the physical_networks")
    return agent


def matching(patterns: dict[str, str], name: str) -> str | None:
    """The value of the name itself, else of the first pattern that matches it."""
    if name in patterns:
        return patterns[name]
    for pattern, value in patterns.items():
        if fnmatch.fnmatchcase(name, pattern):
            return value
    return None
