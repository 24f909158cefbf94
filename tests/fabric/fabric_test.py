"""What the tests with frames share: a fabric of three racks, the agent and the exporter.

The program is named by the environment variable VNAGENT. A class of tests has one fabric; each test
begins with an empty cloud, so what the test before left is taken down while the first change of the
next is made. Nothing here sleeps to synchronise, and no duration is asserted.
"""

import os
import sys
import unittest
from collections.abc import Collection
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "examples" / "fabric"))

from control import Agent, Exporter  # noqa: E402
from frames import Endpoint, Stream  # noqa: E402
from namespaces import Failure, poll  # noqa: E402
from racks import Fabric, Rack  # noqa: E402
from reach import Probes, difference, settle  # noqa: E402
from tenants import Members, Pairs, Tenants  # noqa: E402

DEADLINE = 60.0  # the emulator looks once a second, and takes seconds for what it finds
SWITCHES = ("tor1", "tor2", "tor3")
TAGS = (None, 100, 200, 300)


class FabricTest(unittest.TestCase):
    """Each rack has a host of virtual machines, host-N, and a bare server, metal-N."""

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
                                {f"host-{n}": [f"host-{n}"] for n in (1, 2, 3)}).start()

    def setUp(self) -> None:
        self.tenants = Tenants(self.fabric, self.agent)
        self.tenants.clear()
        self.before: Members | None = None
        self.addCleanup(self.explain)

    def explain(self) -> None:
        """After a failure: what the programs said."""
        outcome = self._outcome  # type: ignore[attr-defined]
        if outcome.success:
            return
        for program in (self.agent, self.exporter):
            print(f"--- {program.name}\n{program.messages()[-3000:]}", file=sys.stderr)
        for switch in self.fabric.switches.values():
            for file in ("emulator.log", "emulator.out"):
                text = (switch.folder / file).read_text(errors="replace")
                print(f"--- {switch.name} {file}\n{text[-2000:]}", file=sys.stderr)
            print(f"--- {switch.name}\n{switch.vtep_ctl('show')}", file=sys.stderr)

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

    def in_step(self) -> None:
        """Waits until the exporter, asked to compare, finds no difference."""
        def compared() -> bool:
            status, self.report = self.exporter.ask("--report")
            return status == 0
        self.report = ""
        try:
            poll(compared, "the exporter finds no difference", DEADLINE)
        except Failure as failure:
            self.fail(f"{failure}\n{self.report}")

    def three_racks(self, name: str, vni: int, vlans: tuple[int, int, int]) -> None:
        self.tenants.network(name, vni, dict(zip(SWITCHES, vlans, strict=True)))
