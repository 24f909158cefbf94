"""The agents in Neutron's list of agents, and what the server processes tell each other there."""
import typing

from neutron.db.models import agent as agent_models
from neutron_lib import context as neutron_context
from neutron_lib.db import api as db_api
from neutron_lib.plugins import directory
from oslo_serialization import jsonutils
from oslo_utils import timeutils

from networking_vnagent import retries

AGENT_TYPE = "vnagent"
BINARY = "vnagent"

Configurations = dict[str, typing.Any]


class Known(typing.NamedTuple):
    """What the list of agents has of one."""
    configurations: Configurations
    seconds_since_heartbeat: float


@retries.retry_db_errors
def read(name: str) -> Known | None:
    """What the list says of an agent; None where it is not in it."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_READER.using(context):
        row = context.session.query(
            agent_models.Agent.configurations, agent_models.Agent.heartbeat_timestamp).filter_by(
                agent_type=AGENT_TYPE, host=name).first()
    if row is None:
        return None
    age = (timeutils.utcnow() - row.heartbeat_timestamp).total_seconds()
    return Known(_parsed(row.configurations), age)


def _parsed(text: str) -> Configurations:
    try:
        configurations = jsonutils.loads(text)
    except ValueError:
        return {}
    return configurations if isinstance(configurations, dict) else {}


def configurations_on(context: neutron_context.Context, host: str) -> list[Configurations]:
    """The configurations of the agents of a host, read within a call of the API."""
    with db_api.CONTEXT_READER.using(context):
        rows = context.session.query(agent_models.Agent.configurations).filter_by(host=host).all()
    return [_parsed(row.configurations) for row in rows]


@retries.retry_db_errors
def report(name: str, changed: Configurations) -> None:
    """A heartbeat: the agent is alive. What is not named among the configurations stays."""
    known = read(name)
    configurations = (known.configurations if known else {}) | changed
    directory.get_plugin().create_or_update_agent(neutron_context.get_admin_context(), {
        "agent_type": AGENT_TYPE, "binary": BINARY, "host": name, "topic": "N/A",
        "configurations": configurations, "start_flag": known is None})


@retries.retry_db_errors
def amend(name: str, changed: Configurations) -> None:
    """Changes configurations without a heartbeat; nothing where the agent is not in the list."""
    context = neutron_context.get_admin_context()
    with db_api.CONTEXT_WRITER.using(context):
        row = context.session.query(agent_models.Agent).filter_by(
            agent_type=AGENT_TYPE, host=name).with_for_update().first()
        if row is not None:
            row.configurations = jsonutils.dumps(_parsed(row.configurations) | changed)
