#!/usr/bin/python3
"""Tests of what the test itself works out from the rows, on rows written by hand."""

from __future__ import annotations

import json
import unittest
from typing import Any

from vnagent_e2e.expected import (differences, expected, in_use, unused_dynamic_segments,
                                  vlans_not_assigned)

Row = dict[str, Any]
RACKS = {"rack1": "a", "rack2": "a", "rack3": "b"}


def segment(name: str, kind: str, number: int, rack: str | None = None,
            dynamic: bool = False) -> Row:
    return {"id": name, "network_id": "net", "network_type": kind, "physical_network": rack,
            "segmentation_id": number, "is_dynamic": int(dynamic)}


TOP = segment("top", "vxlan", 10001)
RACK1 = segment("in-rack1", "vlan", 100, "rack1", True)
RACK2 = segment("in-rack2", "vlan", 101, "rack2", True)
RACK3 = segment("in-rack3", "vlan", 100, "rack3", True)
VLAN_ONLY = segment("vlan-only", "vlan", 7, "rack1")


class Rows:
    """The tables, filled binding by binding."""

    def __init__(self) -> None:
        self.tables: dict[str, list[Row]] = {
            "levels": [], "segments": [TOP, RACK1, RACK2, RACK3, VLAN_ONLY], "bindings": [],
            "ports": []}

    def port(self, name: str, device_owner: str = "compute:nova") -> Rows:
        self.tables["ports"].append({"id": name, "device_owner": device_owner})
        return self

    def bound(self, port: str, host: str, *levels: Row, vnic_type: str = "normal",
              links: list[Row] | None = None, status: str = "ACTIVE") -> Rows:
        profile = {} if links is None else {"local_link_information": links}
        self.tables["bindings"].append({
            "port_id": port, "host": host, "vnic_type": vnic_type, "profile": json.dumps(profile),
            "vif_type": "ovs" if levels else "unbound", "status": status})
        return self.levels(port, host, *levels)

    def levels(self, port: str, host: str, *levels: Row) -> Rows:
        # The database promises no order.
        for number, level in reversed(list(enumerate(levels))):
            self.tables["levels"].append({"port_id": port, "host": host, "level": number,
                                          "segment_id": level["id"]})
        return self

    def of(self, agent: str) -> Any:
        return expected(self.tables, RACKS)[agent].printed(agent)

    def host(self, agent: str, host: str) -> Any:
        return self.of(agent)["resourcesForHostname"][host]


EMPTY: Row = {"resourcesForHostname": {}, "resourcesForSwitchport": {}}


class ComputePorts(unittest.TestCase):
    def test_an_unbound_port_asks_for_nothing(self) -> None:
        self.assertEqual(Rows().port("p").bound("p", "").of("a"), EMPTY)

    def test_a_failed_binding_asks_for_nothing(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1")
        rows.tables["bindings"][0]["vif_type"] = "binding_failed"
        self.assertEqual(rows.of("a"), EMPTY)

    def test_the_vlan_of_the_rack_is_mapped_to_the_networks_vni(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1", TOP, RACK1)
        self.assertEqual(rows.of("a"), {
            "resourcesForHostname": {"compute-1": {
                "domain": {"a": ["p"]},
                "vlan": {"100": {"referrer": ["p"], "mappedVni": {"10001": ["p"]}}}}},
            "resourcesForSwitchport": {}})
        self.assertEqual(rows.of("b"), EMPTY)

    def test_a_network_of_vlan_only_has_no_vni(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1", VLAN_ONLY)
        self.assertEqual(rows.host("a", "compute-1")["vlan"],
                         {"7": {"referrer": ["p"], "mappedVni": {}}})

    def test_ports_of_one_network_on_one_host_share_the_vlan(self) -> None:
        rows = Rows().port("p").port("q")
        rows.bound("p", "compute-1", TOP, RACK1).bound("q", "compute-1", TOP, RACK1)
        self.assertEqual(rows.host("a", "compute-1"), {
            "domain": {"a": ["p", "q"]},
            "vlan": {"100": {"referrer": ["p", "q"], "mappedVni": {"10001": ["p", "q"]}}}})

    def test_a_port_that_migrates_is_on_both_hosts_and_may_be_at_both_agents(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1", TOP, RACK1)
        rows.bound("p", "compute-3", TOP, RACK3, status="INACTIVE")
        self.assertEqual(list(rows.of("a")["resourcesForHostname"]), ["compute-1"])
        self.assertEqual(list(rows.of("b")["resourcesForHostname"]), ["compute-3"])

    def test_a_migration_away_from_where_the_port_is_not_bound_asks_for_nothing_yet(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1")
        rows.bound("p", "compute-3", TOP, RACK3, status="INACTIVE")
        self.assertEqual(rows.of("b"), EMPTY)

    def test_a_distributed_routers_port_is_on_every_host_with_levels(self) -> None:
        rows = Rows().port("r", "network:router_interface_distributed").bound("r", "")
        rows.levels("r", "compute-1", TOP, RACK1).levels("r", "compute-2", TOP, RACK2)
        self.assertEqual(sorted(rows.of("a")["resourcesForHostname"]), ["compute-1", "compute-2"])
        self.assertEqual(list(rows.host("a", "compute-2")["vlan"]), ["101"])


class BaremetalPorts(unittest.TestCase):
    LINK1 = {"switch_info": "leaf-1", "switch_id": "00:00", "port_id": "Ethernet1"}
    LINK2 = {"switch_info": "leaf-2", "switch_id": "00:01", "port_id": "Ethernet1"}

    def test_every_link_of_a_bond_has_the_vlan_as_native(self) -> None:
        rows = Rows().port("p", "baremetal:none")
        rows.bound("p", "node", TOP, RACK1, vnic_type="baremetal", links=[self.LINK1, self.LINK2])
        link = {"referrer": ["bm-p"], "remoteHost": ["node"], "nativeVlan": 100,
                "vlan": {"100": {"referrer": ["p"], "mappedVni": {"10001": ["p"]}}}}
        self.assertEqual(rows.of("a"), {
            "resourcesForHostname": {},
            "resourcesForSwitchport": {"leaf-1": {"Ethernet1": link},
                                       "leaf-2": {"Ethernet1": link}}})

    def test_a_subport_is_tagged_beside_its_parents_native_vlan(self) -> None:
        rows = Rows().port("p", "baremetal:none").port("s", "trunk:subport")
        rows.bound("p", "node", TOP, RACK1, vnic_type="baremetal", links=[self.LINK1])
        rows.bound("s", "node", VLAN_ONLY, vnic_type="baremetal", links=[self.LINK1])
        port = rows.of("a")["resourcesForSwitchport"]["leaf-1"]["Ethernet1"]
        self.assertEqual(port["nativeVlan"], 100)
        self.assertEqual(port["referrer"], ["bm-p", "bm-s"])
        self.assertEqual(sorted(port["vlan"]), ["100", "7"])

    def test_a_switch_without_a_name_is_known_by_its_id(self) -> None:
        rows = Rows().port("p").bound("p", "node", VLAN_ONLY, vnic_type="baremetal",
                                      links=[{"switch_id": "00:00", "port_id": "1"}])
        self.assertEqual(list(rows.of("a")["resourcesForSwitchport"]), ["00:00"])

    def test_without_links_and_on_another_host_there_is_nothing(self) -> None:
        rows = Rows().port("p").bound("p", "node", VLAN_ONLY, vnic_type="baremetal", links=[])
        rows.port("q").bound("q", "node", VLAN_ONLY, vnic_type="baremetal", links=[self.LINK1],
                             status="INACTIVE")
        self.assertEqual(rows.of("a"), EMPTY)


class Segments(unittest.TestCase):
    def test_a_dynamic_segment_is_used_while_a_binding_has_it(self) -> None:
        rows = Rows().port("p").bound("p", "compute-1", TOP, RACK1)
        unused = unused_dynamic_segments(rows.tables)
        self.assertEqual([row["id"] for row in unused], ["in-rack2", "in-rack3"])

    def test_dynamic_vlans_are_of_those_assigned_to_the_rack(self) -> None:
        assigned = {"rack1": {100}, "rack2": {100}, "rack3": {100}}
        wrong = vlans_not_assigned(Rows().tables, assigned)
        self.assertEqual([row["id"] for row in wrong], ["in-rack2"])


class InUse(unittest.TestCase):
    def test_a_host_without_ports_and_vlans_is_left_out(self) -> None:
        used = {"domain": {"a": ["p"]}, "vlan": {}}
        found = {"resourcesForHostname": {"h": {"domain": {}, "vlan": {}}, "i": used},
                 "resourcesForSwitchport": {}}
        self.assertEqual(in_use(found), {"resourcesForHostname": {"i": used},
                                         "resourcesForSwitchport": {}})


class Differences(unittest.TestCase):
    def test_equal_documents_have_none(self) -> None:
        self.assertEqual(differences({"a": {"b": [1]}}, {"a": {"b": [1]}}), [])

    def test_each_line_names_the_place(self) -> None:
        lines = differences({"a": {"b": 1}, "c": 1}, {"a": {"b": 2}, "d": 1})
        self.assertEqual(lines, ["/a/b: 2, should be 1", "/c: missing, should be 1",
                                 "/d: should not be there: 1"])

    def test_there_are_no_more_than_the_limit(self) -> None:
        self.assertEqual(len(differences({str(n): n for n in range(9)}, {}, limit=4)), 4)


if __name__ == "__main__":
    unittest.main()
