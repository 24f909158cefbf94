"""Played agents: a filter in the pipeline of the server that calls what an agent's messages call.

`POST /v2.0/played` with `{"call": NAME, "arguments": {...}}` calls the server's own endpoint in the
process that takes the request, with an administrator's context, and answers with what it returned.
There is no message bus in this test; everything behind the endpoints is Neutron's own.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import webob
import webob.dec
from neutron.db import agents_db
from neutron.plugins.ml2 import rpc as ml2_rpc
from neutron.services.trunk.rpc import server as trunk_rpc
from neutron_lib import context as neutron_context
from neutron_lib.plugins import directory
from oslo_log import log as logging
from oslo_utils import timeutils

LOG = logging.getLogger(__name__)


class TrunkEndpoint(trunk_rpc.TrunkSkeleton):
    """The endpoint of the trunks' messages without the connection that it listens on."""

    def __init__(self) -> None:  # pylint: disable=super-init-not-called
        pass


def ml2_endpoint() -> ml2_rpc.RpcCallbacks:
    plugin = directory.get_plugin()
    return ml2_rpc.RpcCallbacks(plugin.notifier, plugin.type_manager)


def report_state(context: Any, agents: list[dict[str, Any]]) -> None:
    """What each agent sends every half a minute."""
    endpoint = agents_db.AgentExtRpcCallback()
    for agent in agents:
        endpoint.report_state(context, agent_state={"agent_state": dict(agent)},
                              time=timeutils.utcnow().isoformat(timespec="microseconds"))


def wire(context: Any, host: str, device: str) -> Any:
    """What the L2 agent does for a plugged port: it asks for the details, then reports it up."""
    endpoint = ml2_endpoint()
    details = endpoint.get_device_details(context, agent_id=f"ovs-agent-{host}", host=host,
                                          device=device)
    if "network_id" in details:
        endpoint.update_device_up(context, agent_id=f"ovs-agent-{host}", host=host, device=device)
    return {"details": "network_id" in details}


def unwire(context: Any, host: str, device: str) -> Any:
    """What the L2 agent does for a port that was unplugged."""
    return ml2_endpoint().update_device_down(context, agent_id=f"ovs-agent-{host}", host=host,
                                             device=device)


def bind_subports(context: Any, trunk: str, ports: list[str]) -> Any:
    """What the L2 agent asks for when it wires the trunk of a virtual machine."""
    bound = TrunkEndpoint().update_subport_bindings(
        context, subports=[{"trunk_id": trunk, "port_id": port} for port in ports])
    return {"bound": [port["id"] for ports in bound.values() for port in ports]}


def bind_distributed(context: Any, port: str, host: str, router: str) -> None:
    """What the L3 agent's synchronisation does for a port of a distributed router on its host."""
    directory.get_plugin().update_distributed_port_binding(
        context, port, {"port": {"binding:host_id": host, "device_id": router}})


CALLS: dict[str, Callable[..., Any]] = {
    "report_state": report_state,
    "wire": wire,
    "unwire": unwire,
    "bind_subports": bind_subports,
    "bind_distributed": bind_distributed,
}


class Filter:
    """The filter; everything that is not for it goes on to the application."""

    def __init__(self, application: Any) -> None:
        self.application = application

    @webob.dec.wsgify
    def __call__(self, request: webob.Request) -> Any:
        if request.path_info != "/played":
            return self.application
        call = CALLS[request.json_body["call"]]
        try:
            result = call(neutron_context.get_admin_context(), **request.json_body["arguments"])
        except Exception as error:  # pylint: disable=broad-except
            LOG.exception("played call %s failed", request.json_body["call"])
            text = f"{type(error).__name__}: {error}"
            return webob.Response(status=500, json_body={"error": text})
        return webob.Response(json_body=result)


def filter_factory(_global: Any, **_local: Any) -> Callable[[Any], Filter]:
    return Filter
