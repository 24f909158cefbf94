"""A random stream of changes, faster than the switches follow, with kills in between."""

import os
import random
import unittest

from fabric_test import SWITCHES, FabricTest
from switch import DATABASE

CHANGES = 30
VNIS = range(1030, 1036)
VLANS = (100, 200, 300)


class Stream(FabricTest):
    def test_after_a_stream_of_changes_and_kills_all_is_as_the_cloud_says(self) -> None:
        seed = int(os.environ.get("FABRIC_SEED", random.randrange(1 << 32)))
        print(f"FABRIC_SEED={seed}", flush=True)
        self.random = random.Random(seed)
        for name in ("red", "blue"):
            self.three_racks(name, *self.numbers(name))
        victim = self.fabric.switches["tor2"]
        for number in range(CHANGES):
            self.change(number)
            if number == CHANGES // 3:
                self.exporter.kill()
                self.exporter.start()
            if number == CHANGES // 2:
                victim.kill(DATABASE)
            if number == CHANGES * 2 // 3:
                victim.start(DATABASE)
                self.agent.kill()
                self.agent.start()
        # Whatever it came to, there is a pair to be a barrier in each rack.
        for n in (1, 2, 3):
            self.tenants.bind(f"last-{n}", "red", f"host-{n}")
        self.expect()
        self.in_step()

    def numbers(self, name: str) -> tuple[int, tuple[int, int, int]]:
        """A VNI, and VLANs that the other network does not have in the same rack."""
        others = [network for network in self.tenants.networks.values() if network.name != name]
        vnis = [vni for vni in VNIS if vni not in {network.vni for network in others}]
        first, second, third = (
            self.random.choice([vlan for vlan in VLANS
                                if vlan not in {network.vlans[switch] for network in others}])
            for switch in SWITCHES)
        return self.random.choice(vnis), (first, second, third)

    def change(self, number: int) -> None:
        """Binds, unbinds, or gives a network other numbers."""
        name = self.random.choice(("red", "blue"))
        kind = self.random.choice(("bind", "bind", "unbind", "renumber"))
        if kind == "unbind" and self.tenants.ports:
            self.tenants.unbind(self.random.choice(sorted(self.tenants.ports)))
        elif kind == "renumber":
            self.three_racks(name, *self.numbers(name))
        else:
            self.bind(number, name)

    def bind(self, number: int, name: str) -> None:
        rack = self.random.choice((1, 2, 3))
        if self.random.random() < 0.5:
            self.tenants.bind(f"vm-{number}", name, f"host-{rack}")
            return
        # A bare server is in one network, natively or not, until it is unbound.
        free = {1, 2, 3} - {int(port[-1]) for port in self.tenants.ports if "bare" in port}
        if rack in free:
            self.tenants.bind(f"bare-{rack}", name, f"metal-{rack}",
                              native=self.random.random() < 0.5)


if __name__ == "__main__":
    unittest.main()
