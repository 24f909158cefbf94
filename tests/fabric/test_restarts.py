"""Processes are killed and started again while frames flow: what did not change goes on.

The emulator takes its switch down when it starts: frames through that switch are lost until it has
read the database. A real switch need not do so, and the other switches do not either.
"""

import unittest

from fabric_test import FabricTest
from frames import Endpoint
from switch import DATABASE, EMULATION


class Restarts(FabricTest):
    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(self.revive)
        self.three_racks("steady", 1020, (100, 200, 300))
        self.three_racks("red", 1021, (200, 300, 100))
        for n in (1, 2, 3):
            self.tenants.bind(f"steady-{n}", "steady", f"host-{n}")
            self.tenants.bind(f"native-{n}", "steady", f"metal-{n}", native=True)
        self.tenants.bind("red-2", "red", "host-2")
        self.tenants.bind("red-3", "red", "host-3")
        self.expect()
        # What the test before left is removed; Open vSwitch loses frames while it removes a bridge.
        self.emulators_are_done()
        self.expect()
        self.streams = {n: self.stream(self.tenants.endpoint(f"steady-{n}")) for n in (1, 2, 3)}

    def revive(self) -> None:
        """After a test that failed half way: what it had killed."""
        if self.agent.process is None:
            self.agent.start()
        if self.exporter.process is None:
            self.exporter.start()
        for switch in self.fabric.switches.values():
            for process in {DATABASE, EMULATION} - set(switch.processes):
                switch.start(process)

    def at(self, *racks: int) -> list[Endpoint]:
        return [self.tenants.endpoint(f"{kind}-{n}") for n in racks
                for kind in ("steady", "native")]

    def nothing_lost(self, *racks: int) -> None:
        """Between these racks, of all frames since the streams began."""
        for n in racks:
            others = [end for end in self.at(*racks) if end != self.tenants.endpoint(f"steady-{n}")]
            self.streams[n].stop(*others)
            for end in others:
                self.assertEqual(self.streams[n].lost(end), 0,
                                 f"frames of {self.streams[n].source} lost at {end}, "
                                 + self.streams[n].gaps(end))

    def mark(self) -> dict[int, int]:
        return {n: stream.sent for n, stream in self.streams.items()}

    def flows_on(self) -> None:
        """Frames sent from now on arrive between all racks."""
        for n, stream in self.streams.items():
            for end in self.at(*{1, 2, 3} - {n}):
                self.arrives(stream, end)

    def test_the_exporter_is_killed(self) -> None:
        self.exporter.kill()
        self.flows_on()
        self.exporter.start()
        self.in_step()
        self.flows_on()
        self.nothing_lost(1, 2, 3)

    def test_the_cloud_changes_while_there_is_no_exporter(self) -> None:
        self.exporter.kill()
        self.tenants.bind("red-1", "red", "host-1")
        self.tenants.unbind("red-3")
        self.flows_on()
        self.exporter.start()
        self.expect()
        self.flows_on()
        self.in_step()

    def test_the_agent_is_killed(self) -> None:
        self.agent.kill()
        self.flows_on()
        self.agent.start()
        self.in_step()
        self.flows_on()
        self.nothing_lost(1, 2, 3)
        # The exporter follows the agent that came back.
        self.tenants.bind("red-1", "red", "host-1")
        self.expect()
        self.in_step()

    def test_the_database_of_a_switch_is_killed(self) -> None:
        switch = self.fabric.switches["tor1"]
        switch.kill(DATABASE)
        self.flows_on()
        # The other switches go on being programmed. The frames of tor1 stay as they are.
        self.tenants.unbind("red-3")
        self.tenants.bind("red-3", "red", "metal-3")
        self.expect()
        self.tenants.bind("red-1", "red", "host-1")
        switch.start(DATABASE)
        self.expect()
        self.flows_on()
        self.in_step()

    def test_the_database_of_a_switch_is_restarted_and_nothing_changed(self) -> None:
        switch = self.fabric.switches["tor1"]
        switch.kill(DATABASE)
        self.flows_on()
        switch.start(DATABASE)
        self.in_step()
        self.flows_on()
        self.nothing_lost(1, 2, 3)

    def test_the_exporter_starts_while_a_database_is_away(self) -> None:
        # It cannot know the tunnel address of tor1 then; the others go on sending there.
        switch = self.fabric.switches["tor1"]
        self.exporter.kill()
        switch.kill(DATABASE)
        self.exporter.start()
        self.tenants.unbind("red-3")
        self.tenants.bind("red-3", "red", "metal-3")
        self.expect()
        self.flows_on()
        switch.start(DATABASE)
        self.in_step()
        self.expect()

    def test_the_emulator_of_a_switch_is_killed(self) -> None:
        switch = self.fabric.switches["tor1"]
        switch.kill(EMULATION)
        self.flows_on()
        self.tenants.bind("red-1", "red", "host-1")
        self.in_step()  # the database is as it should be, nobody acts on it
        switch.start(EMULATION)
        self.expect()
        self.flows_on()
        self.nothing_lost(2, 3)


if __name__ == "__main__":
    unittest.main()
