"""What the tests with frames share: a fabric of three racks, the agent and the exporter.

The program is named by the environment variable VNAGENT. A class of tests has one fabric; each test
begins with an empty cloud, so what the test before left is taken down while the first change of the
next is made. Nothing here sleeps to synchronise, and no duration is asserted.
"""

import contextlib
import json
import os
import re
import sys
import unittest
from collections.abc import Collection
from pathlib import Path
from typing import NamedTuple

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "examples" / "fabric"))

from control import Agent, Exporter  # noqa: E402
from frames import Endpoint, Stream  # noqa: E402
from namespaces import Failure, poll  # noqa: E402
from racks import Fabric, Rack  # noqa: E402
from reach import Probes, difference, settle  # noqa: E402
from switch import Switch  # noqa: E402
from tenants import Members, Pairs, Tenants  # noqa: E402

DEADLINE = 60.0  # the emulator looks once a second, and takes seconds for what it finds
SWITCHES = ("tor1", "tor2", "tor3")
TAGS = (None, 100, 200, 300)


class Database(NamedTuple):
    """What counts of a switch's database."""
    bindings: dict[str, dict[int, str]]  # port -> VLAN, 0 for untagged frames -> Logical_Switch
    logical_switches: dict[str, tuple[int | None, set[str]]]  # tunnel key, where unknown-dst sends


def database_of(switch: Switch) -> Database:
    """Read with the tools of the switch."""
    found = Database({}, {})
    for port in switch.vtep_ctl("list-ports", switch.name).split():
        lines = switch.vtep_ctl("list-bindings", switch.name, port).splitlines()
        found.bindings[port] = {int(vlan): name for vlan, name in map(str.split, lines)}
    table = json.loads(switch.vtep_ctl("--format=json", "--columns=name,tunnel_key", "list",
                                       "Logical_Switch"))
    for name, key in table["data"]:
        locators = re.findall(r"unknown-dst -> vxlan_over_ipv4/(\S+)",
                              switch.vtep_ctl("list-remote-macs", name))
        found.logical_switches[name] = (key if isinstance(key, int) else None, set(locators))
    return found


class FabricTest(unittest.TestCase):
    """Each rack has a host of virtual machines, host-N, and a bare server, metal-N.

    `bonds` are more hosts, and the servers that are their links; `options` are for the exporter.
    """

    bonds: dict[str, list[str]] = {}
    options: tuple[str, ...] = ()
    fabric: Fabric
    agent: Agent
    exporter: Exporter

    @classmethod
    def setUpClass(cls) -> None:
        vnagent = os.environ["VNAGENT"]
        cls.fabric = Fabric([Rack(switch, {"eth1": f"host-{n}", "eth2": f"metal-{n}"})
                             for n, switch in enumerate(SWITCHES, 1)])
        cls.addClassCleanup(cls.fabric.down)
        cls.agent = Agent(cls.fabric, vnagent).start()
        cls.exporter = Exporter(cls.fabric, vnagent, cls.agent,
                                {f"host-{n}": [f"host-{n}"] for n in (1, 2, 3)}
                                | cls.bonds).start(*cls.options)

    def setUp(self) -> None:
        self.tenants = Tenants(self.fabric, self.agent)
        self.tenants.clear()
        self.before: Members | None = None

    def explain(self) -> None:
        """What the programs said; run.py asks for it after a failure."""
        for program in (self.agent, self.exporter):
            print(f"--- {program.name}\n{program.messages()[-3000:]}")
        for switch in self.fabric.switches.values():
            for file in ("emulator.log", "emulator.out"):
                with contextlib.suppress(FileNotFoundError):  # it has said nothing yet
                    text = (switch.folder / file).read_text(errors="replace")
                    print(f"--- {switch.name} {file}\n{text[-2000:]}")
            with contextlib.suppress(Failure):  # its database may be the one that was killed
                print(f"--- {switch.name}\n{switch.vtep_ctl('show')}")

    # What the cloud asks for, and what the frames do.

    def expect(self, tags: Collection[int | None] = TAGS) -> Pairs:
        """Waits until frames arrive exactly where the cloud says, from every server with each tag.

        While it changes, too, a frame arrives only in the network that its endpoint is in: before
        or afterwards.
        """
        members = self.tenants.members()
        pairs = self.tenants.pairs(members)
        probes = Probes(self.fabric.recorder,
                        [Endpoint(server, tag) for server in self.fabric.recorder.sockets
                         for tag in tags])
        settle(probes, pairs, DEADLINE)
        if self.before is not None:
            both = {name: ends | self.before.get(name, set()) for name, ends in members.items()}
            self.assertEqual(difference(probes.seen() - self.tenants.pairs(both), set()), "")
        self.before = members
        return pairs

    def stream(self, source: Endpoint, **options: object) -> Stream:
        """A hundred frames a second from here on."""
        stream = Stream(self.fabric.recorder, source, per_second=100, **options)  # type: ignore
        stream.start()
        self.addCleanup(stream.stop)
        return stream

    def arrives(self, stream: Stream, at: Endpoint) -> None:
        """Waits until a frame of the stream that is sent from now on arrives."""
        now = stream.sent
        poll(lambda: any(number > now for number in stream.numbers(at)),
             f"a frame of the stream from {stream.source} arrives at {at}", DEADLINE)

    def emulators_are_done(self) -> None:
        """Waits until each switch has a bridge for each Logical_Switch, and none besides."""
        def done() -> bool:
            return all(
                sum(bridge.startswith(f"{name}_vtep_ls") for bridge in switch.vsctl(
                    "list-br").split()) == len(self.asked_of(name).logical_switches)
                for name, switch in self.fabric.switches.items())
        poll(done, "the emulators have built what is asked for, and nothing else", DEADLINE)

    def in_step(self) -> None:
        """Waits until the databases have exactly what the cloud asks for, and the exporter agrees.

        What they must have is made from the calls of the test, not from the agent's output.
        """
        wanted = {name: self.asked_of(name) for name in self.fabric.switches}
        found: dict[str, Database] = {}

        def same() -> bool:
            found.update({name: database_of(switch)
                          for name, switch in self.fabric.switches.items()})
            return found == wanted

        def compared() -> bool:
            status, self.report = self.exporter.report()
            return status == 0

        try:
            poll(same, "the databases are as the cloud asks", DEADLINE)
            poll(compared, "the exporter finds no difference", DEADLINE)
        except Failure as failure:
            self.assertEqual(found, wanted, failure)
            self.fail(f"{failure}\n{self.report}")

    def asked_of(self, switch: str) -> Database:
        """What a switch's database must have."""
        asked = Database({port: {} for port in ("eth1", "eth2")}, {})
        for name, ends in self.tenants.members().items():
            network = self.tenants.networks[name]
            here = {end for end in ends if self.tenants.switch_of(end) == switch}
            vlan = network.vlans[switch]
            logical = f"vni{network.vni}" if network.vni else f"vlan{vlan}"
            for end in here:
                port = self.fabric.place_of(end.server)[1]
                asked.bindings[port][end.vlan or 0] = logical
            if here:
                others = {self.tenants.switch_of(end) for end in ends} - {switch}
                asked.logical_switches[logical] = (network.vni, {
                    self.fabric.switches[other].tunnel_ip for other in others if network.vni})
        return asked

    def three_racks(self, name: str, vni: int, vlans: tuple[int, int, int]) -> None:
        self.tenants.network(name, vni, dict(zip(SWITCHES, vlans, strict=True)))
