"""Frames of a network arrive at all of its ports and nowhere else, and follow each change."""

import unittest

from fabric_test import SWITCHES, FabricTest
from frames import Endpoint

GUEST = bytes.fromhex("02faee000001")


class Networks(FabricTest):
    """What is bound, and how."""

    def test_a_network_has_another_vlan_in_each_rack(self) -> None:
        # The same VLANs mean the other network in another rack.
        self.three_racks("red", 1001, (100, 200, 300))
        self.three_racks("blue", 1002, (200, 300, 100))
        for n in (1, 2, 3):
            self.tenants.bind(f"red-{n}", "red", f"host-{n}")
            self.tenants.bind(f"blue-{n}", "blue", f"host-{n}")
        pairs = self.expect()
        self.assertEqual(len(pairs), 12)
        self.in_step()

    def test_native_and_tagged_on_one_port(self) -> None:
        self.three_racks("red", 1003, (100, 100, 100))
        self.three_racks("blue", 1004, (200, 200, 300))
        for n in (1, 2):
            self.tenants.bind(f"native-{n}", "red", f"metal-{n}", native=True)
            self.tenants.bind(f"tagged-{n}", "blue", f"metal-{n}")
        self.tenants.bind("tagged-3", "red", "host-3")
        self.tenants.bind("native-3", "blue", "metal-3", native=True)
        self.expect()
        self.in_step()
        # The native VLAN becomes a tagged one, and the other way round.
        self.tenants.unbind("native-1", "tagged-1")
        self.tenants.bind("tagged-1", "red", "metal-1")
        self.tenants.bind("native-1", "blue", "metal-1", native=True)
        self.expect()
        self.in_step()

    def test_a_vlan_without_vni_stays_in_its_rack(self) -> None:
        self.tenants.network("local", None, dict.fromkeys(SWITCHES, 100))
        for n in (1, 2, 3):
            self.tenants.bind(f"host-{n}", "local", f"host-{n}")
            self.tenants.bind(f"metal-{n}", "local", f"metal-{n}", native=n == 1)
        pairs = self.expect()
        self.assertEqual(len(pairs), 6)
        self.in_step()


class Changes(FabricTest):
    """One network changes, another one is beside it on the same ports."""

    def setUp(self) -> None:
        super().setUp()
        self.three_racks("other", 1010, (300, 300, 300))
        self.three_racks("red", 1011, (100, 100, 200))
        for n in (1, 2, 3):
            self.tenants.bind(f"other-{n}", "other", f"host-{n}")
            self.tenants.bind(f"red-{n}", "red", f"host-{n}")
        self.tenants.bind("metal", "red", "metal-2", native=True)
        self.expect()

    def test_the_vlan_of_one_rack_changes(self) -> None:
        self.three_racks("red", 1011, (200, 100, 200))
        self.expect()
        self.in_step()

    def test_the_vni_changes(self) -> None:
        self.three_racks("red", 1012, (100, 100, 200))
        self.expect()
        self.in_step()

    def test_two_networks_swap_their_vlans(self) -> None:
        self.tenants.swap("red", "other", "tor2")
        self.expect()
        self.in_step()

    def test_what_is_unbound_is_silent(self) -> None:
        self.tenants.unbind("red-1")
        self.expect()
        self.tenants.unbind("metal")
        self.expect()
        self.tenants.unbind("red-2", "red-3", "other-1")
        self.expect()
        self.tenants.unbind("other-2", "other-3")
        self.in_step()
        self.tenants.bind("other-1", "other", "metal-1")
        self.tenants.bind("other-2", "other", "metal-2")
        self.tenants.bind("other-3", "other", "metal-3")
        self.expect()

    def test_a_virtual_machine_migrates_while_it_sends_and_receives(self) -> None:
        # Its address is its own, so it moves from server to server with it.
        watcher = self.tenants.endpoint("red-3")
        self.tenants.bind("guest", "red", "host-1")
        before = self.tenants.endpoint("guest", "host-1")
        sending = self.stream(before, hardware=GUEST)
        receiving = self.stream(watcher, destination=GUEST)
        self.arrives(sending, watcher)
        self.arrives(receiving, before)
        # The other host is in the rack that the network is not at without the guest.
        self.tenants.unbind("red-2", "metal")
        self.expect()
        self.tenants.bind("guest", "red", "host-1", "host-2")
        self.expect()
        after = self.tenants.endpoint("guest", "host-2")
        self.arrives(receiving, after)
        self.assertEqual(before in {a.at for a in self.fabric.recorder.of(receiving.flow)}, True)
        sending.source = after  # the machine runs on the other host from here
        self.arrives(sending, watcher)
        self.tenants.bind("guest", "red", "host-2")
        self.expect()
        self.arrives(sending, watcher)
        self.arrives(receiving, after)
        sending.stop(watcher)
        receiving.stop(after)
        print(f"migration: of {sending.sent} frames from the machine {sending.lost(watcher)} were "
              f"lost, of {receiving.sent} frames to it {receiving.lost(before, after)}")
        self.assertNotIn(Endpoint("host-1", 300),
                         {a.at for a in self.fabric.recorder.of(receiving.flow)})
        self.in_step()


if __name__ == "__main__":
    unittest.main()
