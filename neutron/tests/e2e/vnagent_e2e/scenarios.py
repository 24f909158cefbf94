"""What random operations meet too seldom, in a fixed order.

Each scenario has a baremetal node of its own and leaves everything running; what it leads to is
compared with the database as after a round.
"""

from __future__ import annotations

import random
import uuid
from collections.abc import Callable

from .api import Api, Json
from .processes import eventually
from .topology import Node
from .world import World


def bind_node(api: Api, node: Node, network: str, name: str) -> str:
    """A port of the network on the node's links; its id."""
    made: Json = api.post("/ports", {"port": {
        "name": name, "network_id": network, "device_owner": "baremetal:none",
        "device_id": str(uuid.uuid4()), "binding:vnic_type": "baremetal",
        "binding:host_id": node.name, "binding:profile": node.profile()}})["port"]
    return str(made["id"])


def make_network(api: Api, name: str) -> str:
    return str(api.post("/networks", {"network": {
        "name": name, "provider:network_type": "vxlan"}})["network"]["id"])


def referrers(world: World, node: Node) -> list[str]:
    """The ports on the node's first link, as its agent has them."""
    switch, interface = node.links[0]
    agent = world.agents[world.topology.agent_of_rack()[node.rack]]
    switches = agent.get("/v1/output")["requestedResources"]["resourcesForSwitchport"]
    found = switches.get(switch, {}).get(interface, {}).get("referrer", [])
    return [referrer.removeprefix("bm-") for referrer in found]


def hand_over_past_a_paused_server(world: World, node: Node) -> None:
    """The server that knows of the old port's deletion is paused before it can tell the agent, and
    goes on after the other server has put the new port on the same link."""
    first, second = (Api([server.port], random.Random(0)) for server in world.servers[:2])
    agent = world.agents[world.topology.agent_of_rack()[node.rack]]
    before = bind_node(second, node, make_network(second, "before"), "before")
    eventually("the node's first port is on its link",
               lambda: referrers(world, node) == [before], 60)
    after_network = make_network(second, "after")
    agent.program.stop()
    first.delete(f"/ports/{before}")
    world.servers[0].program.pause()
    agent.start()
    after = bind_node(second, node, after_network, "after")
    eventually("the node's second port is on its link",
               lambda: after in referrers(world, node), 60)
    world.servers[0].program.resume()
    eventually("the node's first port is not on its link any more",
               lambda: referrers(world, node) == [after], 60)


SCENARIOS: list[Callable[[World, Node], None]] = [hand_over_past_a_paused_server]
