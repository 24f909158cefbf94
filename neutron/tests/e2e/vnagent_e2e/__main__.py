"""The test itself: rounds of random operations and faults, each followed by a comparison."""

from __future__ import annotations

import argparse
import json
import random
import signal
import sys
import threading
import time
from pathlib import Path

from .api import Refused, Unreachable
from .expected import (QUERIES, differences, expected, in_use, unused_dynamic_segments,
                       vlans_not_assigned)
from .faults import Faults, check_everything_runs
from .operations import Network, Player, Shared
from .population import clone_ports
from .processes import Failed
from .scenarios import SCENARIOS
from .topology import standard
from .world import World

# How long all must be the same before it counts as quiet, and how long that may take.
STILL_SECONDS = 2.0
QUIET_SECONDS = 90.0
# A round with fewer says nothing: something stood still.
FEWEST_OPERATIONS = 10


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="neutron/tests/e2e/run",
        description="Runs Neutron with the driver under random operations and faults, and compares "
                    "after each round what the agents are asked for with the database's rows.")
    parser.add_argument("--binary", type=Path, required=True, help="the program vnagent")
    parser.add_argument("--seed", type=int, default=None,
                        help="of the operations and faults; default: a random one, printed")
    parser.add_argument("--round", type=float, default=60, metavar="SECONDS",
                        help="operations and faults go on for this long (default: %(default)s)")
    parser.add_argument("--rounds", type=int, default=1, help="how many (default: %(default)s)")
    parser.add_argument("--minutes", type=float, default=None,
                        help="begins new rounds for this long; overrides --rounds")
    parser.add_argument("--players", type=int, default=6,
                        help="clients at the same time (default: %(default)s)")
    parser.add_argument("--ports", type=int, default=300,
                        help="about how many ports there are at a time (default: %(default)s)")
    parser.add_argument("--fault-pause", type=float, default=4, metavar="SECONDS",
                        help="between two faults, on average; 0: no faults (default: %(default)s)")
    parser.add_argument("--servers", type=int, default=2, help="(default: %(default)s)")
    parser.add_argument("--without-driver", action="store_true",
                        help="the operations alone, with the upstream driver; compares nothing")
    parser.add_argument("--vlan-type", choices=["vnagent_vlan", "vlan"], default="vnagent_vlan",
                        help="the type driver of VLANs (default: %(default)s)")
    parser.add_argument("--debug", action="store_true", help="the servers log at level debug")
    parser.add_argument("--keep", action="store_true", help="keep the logs when all went well")
    return parser.parse_args()


class Test:
    """The rounds of one run, in one world."""

    def __init__(self, options: argparse.Namespace, world: World, seed: int) -> None:
        self.options = options
        self.world = world
        rng = random.Random(seed)
        self.shared = Shared(
            world.topology, rng, lambda agent, host, port: world.agents[agent].has_port(host, port),
            lambda: sum(agent.losses for agent in world.agents.values()))
        self.api = world.api(random.Random(rng.randrange(1 << 62)))
        self.players = []
        for _ in range(options.players):
            own = random.Random(rng.randrange(1 << 62))
            self.players.append(Player(self.shared, world.api(own), own,
                                       options.ports // options.players))
        self.fault_rng = random.Random(rng.randrange(1 << 62))

    def populate(self) -> None:
        """Two thirds of the ports, with their networks; the players find them by their names."""
        topology = self.world.topology
        templates = []
        for number in range(4):
            made = self.api.post("/networks", {"network": {
                "name": f"net-{number}", "provider:network_type": "vxlan"}})["network"]
            self.shared.networks[made["id"]] = Network(made["id"], "vxlan")
            for rack in topology.racks:
                port = self.api.post("/ports", {"port": {
                    "network_id": made["id"], "device_owner": "compute:nova",
                    "device_id": "template", "binding:host_id": rack.hosts[number],
                    "name": self.players[0].name}})["port"]
                if port["binding:vif_type"] != "ovs":
                    raise Failed(f"a port was not bound: {port}")
                templates.append(port["id"])
        clone_ports(self.world.database, {rack.name: rack.hosts for rack in topology.racks},
                    templates, 2 * self.options.ports // 3, [p.name for p in self.players])
        for agent in self.world.agents.values():
            # The driver has heard nothing of the copies: a full sync brings them.
            agent.lose_state()

    def play_scenarios(self) -> None:
        """Each scenario, followed by the comparison."""
        for scenario in SCENARIOS:
            name = scenario.__name__.replace("_", " ")
            node = self.shared.take_node(self.fault_rng)
            assert node is not None, "no player has begun"
            scenario(self.world, node)
            try:
                print(f"{name}: {self.compare()}", flush=True)
            except Failed as error:
                raise Failed(f"{name}: {error}") from error

    def round(self, number: int) -> None:
        """Operations and faults for a while, then the comparison."""
        begin = time.monotonic()
        ending = threading.Event()
        before = self.shared.done.total()
        faults = Faults(self.world, self.fault_rng, ending, max(self.options.fault_pause, 0.1))
        threads = [threading.Thread(target=self.play, args=(player, ending))
                   for player in self.players]
        if self.options.fault_pause > 0:
            threads.append(threading.Thread(target=faults.run, name="faults"))
        for thread in threads:
            thread.start()
        ending.wait(self.options.round)
        ending.set()
        for thread in threads:
            thread.join()
        if faults.error is not None:
            raise faults.error
        check_everything_runs(self.world)
        played = time.monotonic() - begin
        done = self.shared.done.total() - before
        print(f"round {number}: {done} operations in {played:.0f} s,"
              f" faults: {dict(faults.made) or 'none'}", flush=True)
        if done < FEWEST_OPERATIONS:
            raise Failed(f"only {done} operations succeeded: the round says nothing")
        if not self.options.without_driver:
            print(f"round {number}: {self.compare()}", flush=True)
        memory = max(server.memory() for server in self.world.servers)
        print(f"round {number}: the largest process of a server has {memory} MiB", flush=True)
        if self.shared.too_early:
            raise Failed("\n".join(self.shared.too_early))

    @staticmethod
    def play(player: Player, ending: threading.Event) -> None:
        while not ending.is_set():
            player.turn()
            if player.doubtful:
                ending.wait(0.3)

    def compare(self) -> str:
        """Waits until all is quiet and as it must be; raises Failed with what differs."""
        begin = time.monotonic()
        right_since: float | None = None
        faults: list[str] = []
        while time.monotonic() - begin < QUIET_SECONDS:
            faults, counts = self.faults_now()
            if faults:
                right_since = None
            elif right_since is None:
                right_since = time.monotonic()
            elif time.monotonic() - right_since >= STILL_SECONDS:
                return f"all agree {right_since - begin:.1f} s after the last operation; {counts}"
            time.sleep(0.3)
        raise Failed(f"after {QUIET_SECONDS:g} s of quiet:\n" + "\n".join(faults))

    def faults_now(self) -> tuple[list[str], str]:
        """What is not as it must be at this moment, and what was compared."""
        topology = self.world.topology
        rows = self.world.database.snapshot(QUERIES)
        wanted = expected(rows, topology.agent_of_rack())
        faults: list[str] = []
        counts = [f"{len(rows['ports'])} ports", f"{len(rows['levels'])} levels",
                  f"{len(rows['segments'])} segments"]
        for name, agent in self.world.agents.items():
            found = in_use(agent.get("/v1/output")["requestedResources"])
            faults += differences(wanted[name].printed(name), found, f"agent {name}: ")
            counts.append(f"agent {name}: {len(wanted[name].hosts)} hosts,"
                          f" {len(wanted[name].switch_ports)} switch ports")
        for row in unused_dynamic_segments(rows):
            faults.append(f"dynamic segment that nobody uses: {json.dumps(row)}")
        for row in rows["blocks"]:
            if row["entity"] == "VNAGENT":
                faults.append(f"port {row['id']} still waits for an agent")
        faults += self.faults_of_list()
        agents = self.world.agents
        assigned = {rack: set(agents[agent].vlans)
                    for rack, agent in topology.agent_of_rack().items()}
        for row in vlans_not_assigned(rows, assigned):
            faults.append(f"dynamic segment with a VLAN that is not assigned: {json.dumps(row)}")
        return faults, ", ".join(counts)

    def faults_of_list(self) -> list[str]:
        """What is wrong in Neutron's list of agents."""
        try:
            listed = {entry["host"]: entry for entry in
                      self.api.get("/agents?agent_type=vnagent")["agents"]}
        except (Refused, Unreachable) as error:
            return [str(error)]
        faults = []
        for name in self.world.agents:
            entry = listed.get(name)
            if entry is None:
                faults.append(f"agent {name} is not in the list of agents")
                continue
            backlog = entry["configurations"].get("backlog")
            if not entry["alive"] or backlog != 0:
                faults.append(f"agent {name} in the list of agents: alive {entry['alive']},"
                              f" backlog {backlog}")
        return faults

    def summary(self) -> str:
        shared = self.shared
        return (f"done: {dict(shared.done.most_common())}\n"
                f"refused: {dict(shared.refused.most_common())}\n"
                f"no answer: {dict(shared.lost.most_common())}")


def main() -> int:
    options = arguments()
    for caught in (signal.SIGTERM, signal.SIGHUP):
        # Unwinds the stack, so that everything that was started is stopped.
        signal.signal(caught, lambda got, _: sys.exit(128 + got))
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    print(f"seed {seed}", flush=True)
    begin = time.monotonic()
    try:
        with World(standard(), options.binary.resolve(), options.servers,
                   not options.without_driver, options.debug, options.keep,
                   options.vlan_type) as world:
            print("started: " + ", ".join(f"{what} {seconds:.1f} s"
                                          for what, seconds in world.times.items()), flush=True)
            test = Test(options, world, seed)
            number = 0
            if not options.without_driver:
                test.populate()
                print(f"populated: {test.compare()}", flush=True)
                if options.servers > 1:
                    test.play_scenarios()
            try:
                while (number < options.rounds if options.minutes is None
                       else time.monotonic() - begin < 60 * options.minutes):
                    number += 1
                    test.round(number)
            finally:
                print(test.summary(), flush=True)
                for line in test.shared.odd[:10]:
                    print(f"odd answer: {line}")
    except (Failed, Refused, Unreachable) as error:
        print(f"FAILED (seed {seed}): {error}", file=sys.stderr)
        return 1
    print(f"passed in {time.monotonic() - begin:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
