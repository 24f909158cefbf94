"""Each kind of output, as it appears in the databases."""

import re
import unittest
import urllib.request

from exporter import ExportTest, host, output, port


class MappingTest(ExportTest):
    def test_a_vni_spans_switches_and_each_floods_to_the_others(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [10001]}),
                                      "compute-2": host({200: [10001], 300: [10002]})}))
        self.export(exporter, output({"compute-1": host({100: [10001]}),
                                      "compute-2": host({300: [10002]})}))

    def test_a_vlan_without_vni_has_no_tunnel_key_and_stays_on_its_switch(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: []}), "compute-2": host({100: []})}))
        view = self.databases["leaf-1"].view()
        self.assertEqual({"vlan100"}, set(view["switches"]))
        self.assertEqual({}, view["flood"])

    def test_a_native_vlan_is_bound_as_0_and_not_tagged_too(self) -> None:
        exporter = self.exporter()
        ports = {"leaf-1": {"swp3": port({100: [10001], 101: []}, native=100)}}
        self.export(exporter, output(ports=ports))
        self.assertEqual({"swp3": {0: "vni10001", 101: "vlan101"}},
                         self.databases["leaf-1"].view()["bindings"])
        # Another VLAN is native, then none.
        ports["leaf-1"]["swp3"]["nativeVlan"] = 101
        self.export(exporter, output(ports=ports))
        ports["leaf-1"]["swp3"]["nativeVlan"] = 0
        self.export(exporter, output(ports=ports))

    def test_the_interfaces_of_network_elements_are_ports(self) -> None:
        exporter = self.exporter()
        element = {"hostname": "", "referrer": [], "domain": {}, "vlan": {},
                   "physicalInterface": {"Ethernet9": {
                       "vlan": port({100: [10001]})["vlan"], "nativeVlan": 100,
                       "configuredElement": ["bm"]}}}
        bare = {"hostname": "bm", "referrer": [], "domain": {}, "vlan": {},
                "physicalInterface": {}}
        self.export(exporter, output(elements={"leaf-3": element, "bm": bare}))
        self.assertEqual({"nine": {0: "vni10001"}},
                         self.databases["leaf-3"].view()["bindings"])
        self.assertEqual(set(), exporter.problems())

    def test_a_bond_has_its_vlans_on_each_of_its_ports(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"bonded": host({100: [10001]})}))
        for name in ("leaf-1", "leaf-2"):
            self.assertEqual({"swp2": {100: "vni10001"}}, self.databases[name].view()["bindings"])

    def test_a_bond_changes_with_its_host_and_beside_others(self) -> None:
        exporter = self.exporter()
        bond, one = host({100: [1], 101: []}), host({100: [1]})
        leaf = {"leaf-1": {"swp2": port({7: [2]}, native=7)}}
        for document in (output({"bonded": bond}),
                         output({"bonded": bond, "compute-1": one}),
                         # A VLAN of its own on one of the links.
                         output({"bonded": bond, "compute-1": one}, leaf),
                         output({"bonded": host({100: [2]})}, leaf),
                         output({"bonded": host({100: [2], 7: [2]}), "compute-2": one}, leaf),
                         output(ports=leaf)):
            self.export(exporter, document)

    def test_both_links_of_a_bond_may_be_on_one_switch(self) -> None:
        self.map["hosts"] = {**self.hosts, "bonded": [{"switch": "leaf-1", "port": "swp2"},
                                                      {"switch": "leaf-1", "port": "swp3"}]}
        exporter = self.exporter()
        self.export(exporter, output({"bonded": host({100: [1]}), "compute-2": host({5: [1]})}))
        self.assertEqual({"swp2": {100: "vni1"}, "swp3": {100: "vni1"}},
                         self.databases["leaf-1"].view()["bindings"])
        self.export(exporter, output({"compute-2": host({5: [1]})}))

    def test_vlans_differ_from_port_to_port_of_one_vni(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [10001]})},
                                     {"leaf-1": {"swp2": port({7: [10001], 100: [10002]})}}))

    def test_a_patch_moves_a_vlan_to_another_vni_and_back(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [1], 101: []}),
                                      "compute-2": host({100: [1]})}))
        for vnis in ([2], [], [16777215], [1]):
            self.export(exporter, output({"compute-1": host({100: vnis, 101: []}),
                                          "compute-2": host({100: [1]})}))

    def test_patches_on_the_output_give_what_the_document_gives(self) -> None:
        exporter = self.exporter()
        document = output({"compute-1": host({100: [1], 101: []})},
                          {"leaf-2": {"swp2": port({5: [1]}, native=5)}})
        self.export(exporter, document)
        steps = [
            ({"requestedResources": {"resourcesForHostname": {"compute-1": {"vlan": {
                "100": {"referrer": ["q"], "mappedVni": {"1": None, "2": ["q"]}}}}}}},
             output({"compute-1": host({100: [2], 101: []})},
                    {"leaf-2": {"swp2": port({5: [1]}, native=5)}})),
            ({"requestedResources": {"resourcesForSwitchport": {"leaf-2": {"swp2": {
                "nativeVlan": 0, "vlan": {"6": port({6: [2]})["vlan"]["6"]}}}}}},
             output({"compute-1": host({100: [2], 101: []})},
                    {"leaf-2": {"swp2": port({5: [1], 6: [2]})}})),
            ({"requestedResources": {"resourcesForSwitchport": {"leaf-2": None},
                                     "resourcesForHostname": {"compute-1": {"vlan": {
                                         "101": None}}}}},
             output({"compute-1": host({100: [2]})})),
        ]
        for number, (patch, after) in enumerate(steps):
            exporter.send({"step": number, "ok": True, "change": patch})
            exporter.wait()
            self.expect(after)

    def test_everything_is_withdrawn(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({1: [1], 2: []}),
                                      "bonded": host({1: [1]})}))
        self.export(exporter, output())
        for database in self.databases.values():
            self.assertEqual([], database.rows("Logical_Switch"))
            self.assertEqual([], database.rows("Physical_Locator"))


class ProblemTest(ExportTest):
    def test_two_vnis_of_a_vlan_are_reported_and_the_rest_goes_on(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [1, 2], 101: [3]})}))
        self.assertEqual({("two-vnis", "leaf-1/swp1/100")}, exporter.problems())
        self.assertIn('vnagent_export_problems{kind="two-vnis"} 1', exporter.get("/metrics"))
        self.export(exporter, output({"compute-1": host({100: [2], 101: [3]})}))
        self.assertEqual(set(), exporter.problems())
        self.assertIn("VLAN 100 of leaf-1/swp1 has the VNIs 1 and 2", exporter.log.read_text())

    def test_hosts_and_switches_without_a_place_are_reported(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"stray": host({100: []}), "idle": host({}),
                                      "nowhere": host({5: []}), "compute-1": host({100: []})},
                                     {"leaf-9": {"swp1": port({100: []})}}))
        self.assertEqual({("host-without-place", "stray"), ("unknown-switch", "leaf-9")},
                         exporter.problems())
        self.export(exporter, output({"stray": host({})}))
        self.assertEqual(set(), exporter.problems())

    def test_a_port_that_the_switch_does_not_have_is_bound_when_it_appears(self) -> None:
        exporter = self.exporter()
        document = output(ports={"leaf-1": {"swp8": port({100: [1], 7: []}, native=7),
                                            "swp1": port({100: [1]})}})
        self.export(exporter, document)
        self.assertEqual({("missing-port", "leaf-1/swp8")}, exporter.problems())
        self.databases["leaf-1"].add_port("swp8")
        have = {name: set(ports) for name, ports in self.switches.items()}
        have["leaf-1"].add("swp8")
        exporter.wait_until_gone("missing-port")
        exporter.wait()
        self.expect(document, have)

    def test_a_native_vlan_that_the_port_does_not_have_is_reported(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output(ports={"leaf-1": {"swp1": port({100: []}, native=7)}}))
        self.assertEqual({("native-without-vlan", "leaf-1/swp1")}, exporter.problems())

    def test_two_natives_of_a_port_are_reported_and_none_is_native(self) -> None:
        exporter = self.exporter()
        ports = {"leaf-1": {"swp1": port({100: [1]}, native=100)}}
        interfaces = {"leaf-1": {"physicalInterface": {"swp1": port({7: []}, native=7)}}}
        exporter.send(output(ports=ports, elements=interfaces))
        exporter.wait()
        self.assertEqual({("two-natives", "leaf-1/swp1")}, exporter.problems())
        self.assertEqual({100: "vni1", 7: "vlan7"},
                         self.databases["leaf-1"].view()["bindings"]["swp1"])
        self.export(exporter, output(ports=ports))
        self.assertEqual(set(), exporter.problems())

    def test_the_metrics_are_served_on_tcp_too(self) -> None:
        exporter = self.exporter("--metrics", "127.0.0.1:0")
        self.export(exporter, output({"compute-1": host({100: [1]})}))
        found = re.search(r"metrics on port (\d+)", exporter.log.read_text())
        assert found
        with urllib.request.urlopen(f"http://127.0.0.1:{found[1]}/metrics", timeout=60) as reply:
            page = reply.read().decode()
        self.assertIn('vnagent_export_synced{switch="leaf-1"} 1\n', page)
        self.assertIn('vnagent_export_logical_switches{switch="leaf-1"} 1\n', page)


if __name__ == "__main__":
    unittest.main()
