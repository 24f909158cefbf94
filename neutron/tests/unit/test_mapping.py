"""From rows to the document."""
import json
import pathlib
import subprocess
import unittest

from networking_vnagent import mapping
from networking_vnagent.mapping import BindingRow, LevelRow, PortRow, Rows, SegmentRow

from . import base

TOP = SegmentRow("top", "net", "vxlan", None, 10001, False)
RACK_1 = SegmentRow("rack-1", "net", "vlan", "physnet1", 100, True)
RACK_2 = SegmentRow("rack-2", "net", "vlan", "physnet2", 100, True)
LINKS = json.dumps({"local_link_information": [
    {"switch_info": "leaf-1", "switch_id": "aa", "port_id": "Ethernet1"},
    {"switch_id": "leaf-2", "port_id": "Ethernet1"}]})


def bound(port="p", host="h1", vnic="normal", profile="", status="ACTIVE", vif="ovs"):
    return BindingRow(port, host, vif, vnic, profile, status)


def levels(host, *segments, port="p"):
    return [LevelRow(port, host, level, segment) for level, segment in enumerate(segments)]


def rows(binding=(), level=(), owner="compute:nova", device="vm"):
    return Rows(ports=[PortRow("p", "net", owner, device)], bindings=list(binding),
                levels=list(level), segments=[TOP, RACK_1, RACK_2], networks=["net"])


class MappingTest(unittest.TestCase):
    def document(self, of, networks=()):
        self.mapping = mapping.Mapping(of, networks)
        return self.mapping.document()

    def test_a_bound_port_has_the_levels_of_its_host(self):
        found = self.document(rows([bound()], levels("h1", "top", "rack-1")))
        self.assertEqual({"p": {"portToHostBinding": {
            "h1": {"segment": {"0": "top", "1": "rack-1"}}}}}, found["portBinding"])
        self.assertEqual({"vm": {}}, found["vmInstance"])
        self.assertEqual({"segmentationType": "vlan", "segmentationId": 100},
                         found["segment"]["rack-1"])

    def test_both_hosts_of_a_migration_are_bound(self):
        found = self.document(rows(
            [bound(), bound(host="h2", status="INACTIVE")],
            levels("h1", "top", "rack-1") + levels("h2", "top", "rack-2")))
        self.assertEqual({"h1", "h2"}, set(found["portBinding"]["p"]["portToHostBinding"]))

    def test_a_failed_binding_is_none(self):
        found = self.document(rows([bound(vif="binding_failed")], levels("h2", "top", "rack-2")))
        self.assertNotIn("portBinding", found)
        self.assertEqual({"p": {}}, found["port"])

    def test_the_links_of_baremetal_are_switch_interfaces_with_a_native_vlan(self):
        found = self.document(rows([bound(vnic="baremetal", profile=LINKS, vif="other")],
                                   levels("h1", "top", "rack-1")))
        made = {"host": "h1", "segment": {"0": "top", "1": "rack-1"}}
        self.assertEqual({"portToSwitchInterfaceBinding": {
            "leaf-1": {"Ethernet1": made}, "leaf-2": {"Ethernet1": made}}},
            found["portBinding"]["p"])
        self.assertEqual({"p": {"vlanType": 1}}, found["port"])
        self.assertEqual({"vm": {}}, found["baremetalInstance"])

    def test_a_baremetal_subport_is_tagged(self):
        found = self.document(rows([bound(vnic="baremetal", profile=LINKS, vif="other")],
                                   levels("h1", "top", "rack-1"), owner="trunk:subport"))
        self.assertEqual({"p": {}}, found["port"])

    def test_a_distributed_port_is_bound_on_each_host_with_levels(self):
        found = self.document(rows([bound(host="", vif="unbound")],
                                   levels("h1", "top", "rack-1") + levels("h2", "top", "rack-2"),
                                   owner=mapping.DISTRIBUTED, device="router"))
        self.assertEqual({"h1", "h2"}, set(found["portBinding"]["p"]["portToHostBinding"]))
        self.assertEqual({"router": {}}, found["routerInstance"])

    def test_without_rows_the_networks_own_segment_is_the_level(self):
        found = self.document(rows([bound()]))
        self.assertEqual({"h1": {"segment": {"0": "top"}}},
                         found["portBinding"]["p"]["portToHostBinding"])

    def test_an_agent_of_a_rack_has_what_is_bound_there(self):
        both = rows([bound(), bound(host="h2", status="INACTIVE")],
                    levels("h1", "top", "rack-1") + levels("h2", "top", "rack-2"))
        found = self.document(both, {"physnet2"})
        self.assertEqual({"h2"}, set(found["portBinding"]["p"]["portToHostBinding"]))
        elsewhere = self.document(both, {"physnet3"})
        self.assertEqual({}, elsewhere)

    def test_what_breaks_a_rule_is_left_out_with_a_line(self):
        found = self.document(rows([bound()], levels("h1", "top", "rack-1", "rack-2", "gone")))
        self.assertEqual({"0": "top", "1": "rack-1"},
                         found["portBinding"]["p"]["portToHostBinding"]["h1"]["segment"])
        self.assertEqual(2, len(self.mapping.left_out))
        self.assertIn("VLAN 100 is at another level too", self.mapping.left_out[0])

    def test_names_that_the_document_cannot_have_are_left_out(self):
        found = self.document(rows([bound(host="h" * 256)], device="a\x01"))
        self.assertNotIn("portBinding", found)
        self.assertNotIn("vmInstance", found)
        self.assertEqual(2, len(self.mapping.left_out))


class DifferenceTest(unittest.TestCase):
    def test_applied_to_the_one_it_makes_the_other(self):
        before = {"a": {"x": {}, "y": {"z": 1}}, "b": {"c": {}}, "d": {"e": 1}}
        after = {"a": {"x": {"n": 2}, "w": {}}, "d": {"e": 1}, "f": {}}
        self.assertEqual({"a": {"x": {"n": 2}, "y": None, "w": {}}, "b": None, "f": {}},
                         mapping.difference(before, after))

    def test_of_the_same_is_empty(self):
        self.assertEqual({}, mapping.difference({"a": {"b": {}}}, {"a": {"b": {}}}))

    def test_members_that_differ_are_named_once(self):
        self.assertEqual([("a", "x"), ("b", "y")], mapping.members_that_differ(
            {"a": {"x": {"n": 1}, "z": {}}, "b": {"y": {}}}, {"a": {"x": {"n": 2}, "z": {}}}))


class SameAsImportTest(unittest.TestCase):
    """The state of a real server is the same document by the driver and by `import-neutron`."""

    DATA = pathlib.Path(__file__).resolve().parents[3] / "examples" / "neutron"

    def rows_of(self, folder):
        def read(name):
            return json.loads((folder / name).read_text())
        ports = read("ports.json")["ports"]
        own = {(tuple(s.get(key) for key in (
            "network_id", "network_type", "physical_network", "segmentation_id")))
            for s in self.provider_segments(read("networks.json")["networks"])}
        return Rows(
            ports=[PortRow(p["id"], p["network_id"], p["device_owner"], p["device_id"])
                   for p in ports],
            bindings=[BindingRow(p["id"], p["binding:host_id"], p["binding:vif_type"],
                                 p["binding:vnic_type"], json.dumps(p["binding:profile"]),
                                 "ACTIVE") for p in ports],
            levels=[LevelRow(r["port_id"], r["host"], r["level"], r["segment_id"])
                    for r in read("db_binding_levels.json")],
            segments=[SegmentRow(s["id"], s["network_id"], s["network_type"],
                                 s["physical_network"], s["segmentation_id"],
                                 (s["network_id"], s["network_type"], s["physical_network"],
                                  s["segmentation_id"]) not in own)
                      for s in read("segments.json")["segments"]],
            networks=[n["id"] for n in read("networks.json")["networks"]])

    @staticmethod
    def provider_segments(networks):
        for network in networks:
            for segment in network.get("segments") or [network]:
                yield {key: segment.get("provider:" + key) for key in (
                    "network_type", "physical_network", "segmentation_id")
                } | {"network_id": network["id"]}

    def test_both_make_the_same_of_a_servers_state(self):
        folders = [path.parent for path in sorted(self.DATA.glob("*/db_binding_levels.json"))]
        self.assertTrue(folders)
        for folder in folders:
            imported = subprocess.run(
                [base.program(), "import-neutron", "--region", "R", str(folder)], check=True,
                capture_output=True).stdout
            region = json.loads(imported)["region"]["R"]
            self.assertEqual(region, mapping.Mapping(self.rows_of(folder)).document())
