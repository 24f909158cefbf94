"""What random operations meet too seldom, in a fixed order.

Each scenario has a baremetal node of its own and leaves everything running; what it leads to is
compared with the database as after a round.
"""

from __future__ import annotations

import os
import random
import signal
import time
import uuid
from collections.abc import Callable

from .api import Api, Json
from .processes import Failed, eventually
from .topology import Node
from .wire import Mode
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


def two_ports_on_one_link(world: World, node: Node) -> None:
    """The second port of a node comes before the first one goes: it stays native."""
    api = Api([server.port for server in world.servers], random.Random(0))
    first, second = (bind_node(api, node, make_network(api, name), name)
                     for name in ("first", "second"))
    eventually("both ports are on the node's link",
               lambda: set(referrers(world, node)) == {first, second}, 60)
    api.delete(f"/ports/{first}")
    eventually("the second port is alone on the node's link",
               lambda: referrers(world, node) == [second], 60)


def wires_that_are_bad(world: World, node: Node) -> None:
    """While each of the faults of a connection lasts, a port is bound and another one goes: they
    are on the switch, and gone, once the wire is fine."""
    api = Api([server.port for server in world.servers], random.Random(0))
    agent = world.agents[world.topology.agent_of_rack()[node.rack]]
    network = make_network(api, "wires")
    before: str | None = None
    for mode in Mode:
        agent.wire.mode = mode
        try:
            port = bind_node(api, node, network, "wires")
            if before is not None:
                api.delete(f"/ports/{before}")
            # Long enough for several attempts.
            time.sleep(2)
        finally:
            agent.wire.mode = Mode.FINE
        eventually(f"only the new port is on its link after '{mode.value}'",
                   lambda: referrers(world, node) == [port], 60)
        before = port


def publishers_that_are_killed(world: World, node: Node) -> None:
    """What changes while no server has a publisher waits for the next one."""
    api = Api([server.port for server in world.servers], random.Random(0))
    network = make_network(api, "publishers")
    killed = publishers(world)
    if len(killed) != len(world.servers):
        raise Failed(f"{len(killed)} processes publish for {len(world.servers)} servers")
    for pid in killed:
        os.kill(pid, signal.SIGKILL)
    port = bind_node(api, node, network, "publishers")
    eventually("the port is on its link", lambda: referrers(world, node) == [port], 60)
    eventually("each server has another publisher",
               lambda: len(publishers(world) - killed) == len(world.servers), 60)


def publishers(world: World) -> set[int]:
    """The processes that publish."""
    return {pid for server in world.servers for pid in server.workers("vnagent publisher")}


def vlan_of_a_new_port(world: World, api: Api, host: str) -> int:
    """The VLAN that a port of a new network gets on a host; both are deleted again."""
    network = make_network(api, "assigned")
    port = api.post("/ports", {"port": {
        "network_id": network, "device_owner": "compute:nova", "device_id": str(uuid.uuid4()),
        "binding:host_id": host}})["port"]["id"]
    rows = world.database.snapshot({"vlan": (
        "SELECT segmentation_id FROM networksegments JOIN ml2_port_binding_levels"
        " ON networksegments.id = segment_id"
        f" WHERE port_id = '{port}' AND network_type = 'vlan'")})["vlan"]
    api.delete(f"/ports/{port}")
    api.delete(f"/networks/{network}")
    if len(rows) != 1:
        raise Failed(f"a port on {host} has {len(rows)} VLANs")
    return int(rows[0]["segmentation_id"])


def vlans_that_are_not_assigned_any_more(world: World, node: Node) -> None:
    """Once the driver has heard that an agent's VLANs are fewer, none of the others is given to a
    new network; what is in use stays."""
    api = Api([server.port for server in world.servers], random.Random(0))
    rack = next(rack for rack in world.topology.racks if rack.name == node.rack)
    agent = world.agents[rack.agent]
    before = agent.vlans
    few = before[-10:]
    agent.assign(few)
    eventually("the driver has heard of the VLANs",
               lambda: vlan_of_a_new_port(world, api, rack.hosts[0]) in few, 90, 0.5)
    for _ in range(4):
        vlan = vlan_of_a_new_port(world, api, rack.hosts[0])
        if vlan not in few:
            raise Failed(f"VLAN {vlan} was given to a network, and {few} are assigned")
    agent.assign(before)


SCENARIOS: list[Callable[[World, Node], None]] = [
    hand_over_past_a_paused_server, two_ports_on_one_link, wires_that_are_bad,
    publishers_that_are_killed, vlans_that_are_not_assigned_any_more]
