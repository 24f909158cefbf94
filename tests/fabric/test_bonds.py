"""A host with two links, one in each of two racks; and an exporter that never removes."""

import unittest

from fabric_test import FabricTest
from frames import Endpoint
from tenants import Bound


class Bonds(FabricTest):
    """The links of the host `bond` are the bare servers of two racks."""

    bonds = {"bond": ["metal-1", "metal-2"]}

    def bind(self, port: str, network: str) -> None:
        """To the bond: one VLAN on each of its links."""
        self.tenants.ports[port] = Bound(network, set(self.bonds["bond"]), native=False)
        self.tenants.patch(port={port: {"vlanType": 0}}, portBinding={port: {
            "portToHostBinding": {"bond": {"segment": {"0": network, "1": f"{network}-tor1"}}}}})

    def test_a_bond_is_reached_on_each_of_its_links(self) -> None:
        self.three_racks("red", 1040, (100, 100, 200))
        self.three_racks("blue", 1041, (200, 200, 100))
        for n in (1, 3):
            self.tenants.bind(f"red-{n}", "red", f"host-{n}")
            self.tenants.bind(f"blue-{n}", "blue", f"host-{n}")
        self.bind("bonded", "red")
        pairs = self.expect()
        self.assertIn((Endpoint("host-3", 200), Endpoint("metal-1", 100)), pairs)
        self.assertIn((Endpoint("host-3", 200), Endpoint("metal-2", 100)), pairs)
        self.in_step()
        self.bind("bonded too", "blue")
        self.expect()
        self.in_step()
        self.tenants.unbind("bonded")
        self.expect()
        self.in_step()


class AddOnly(FabricTest):
    options = ("--add-only",)

    def test_what_is_not_asked_for_any_more_goes_on_and_what_is_new_is_added(self) -> None:
        self.three_racks("red", 1042, (100, 200, 300))
        self.three_racks("blue", 1043, (200, 300, 100))
        for n in (1, 2):
            self.tenants.bind(f"red-{n}", "red", f"host-{n}")
            self.tenants.bind(f"blue-{n}", "blue", f"host-{n}")
        self.expect()
        # The agent does not ask for it, and the frames flow as if it did.
        bound = self.tenants.ports["red-2"]
        self.tenants.unbind("red-2")
        self.tenants.ports["red-2"] = bound
        self.tenants.bind("blue-3", "blue", "metal-3", native=True)
        self.expect()


if __name__ == "__main__":
    unittest.main()
