"""The type driver `vnagent_vlan`."""
from networking_vnagent import config


def learn_assignment(agent: config.AgentConfig, status: dict[str, object]) -> None:
    """Takes over what an agent's region has assigned."""
