"""What the exporter owns, what it leaves alone, and what it says about it."""

import json
import subprocess
import unittest

from database import Connection, wait_for
from exporter import BINARY, ExportTest, host, output, port

LOCK = "vnagent_hardware_vtep"


def foreign_switch(name: str, key: int | None = None) -> dict:
    row = {"name": name, "other_config": ["map", [["managed-by", "somebody"]]]}
    if key:
        row["tunnel_key"] = key
    return {"op": "insert", "table": "Logical_Switch", "uuid-name": "foreign", "row": row}


def bind(port: str, vlan: int) -> dict:
    return {"op": "mutate", "table": "Physical_Port", "where": [["name", "==", port]],
            "mutations": [["vlan_bindings", "insert",
                           ["map", [[vlan, ["named-uuid", "foreign"]]]]]]}


class ForeignRowTest(ExportTest):
    def test_foreign_rows_and_bindings_stay(self) -> None:
        database = self.databases["leaf-1"]
        database.transact(foreign_switch("theirs", 77), bind("swp1", 300))
        exporter = self.exporter()
        for document in (output({"compute-1": host({100: [1]})}), output()):
            exporter.send(document)
            exporter.wait()
            view = database.view()
            self.assertEqual("theirs", view["bindings"]["swp1"][300])
            self.assertIn("theirs", view["switches"])
        self.assertEqual(set(), exporter.problems())

    def test_a_foreign_binding_in_the_way_is_reported_until_it_is_gone(self) -> None:
        database = self.databases["leaf-1"]
        database.transact(foreign_switch("theirs"), bind("swp1", 100))
        exporter = self.exporter()
        document = output({"compute-1": host({100: [1], 101: [2]})})
        exporter.send(document)
        exporter.wait()
        self.assertEqual({("foreign-binding", "leaf-1/swp1/100")}, exporter.problems())
        self.assertEqual({100: "theirs", 101: "vni2"}, database.view()["bindings"]["swp1"])
        database.transact({"op": "mutate", "table": "Physical_Port",
                           "where": [["name", "==", "swp1"]],
                           "mutations": [["vlan_bindings", "delete", ["set", [100]]]]},
                          {"op": "delete", "table": "Logical_Switch",
                           "where": [["name", "==", "theirs"]]})
        exporter.wait_until_gone("foreign-binding")
        exporter.wait()
        self.expect(document)

    def test_a_foreign_logical_switch_of_the_same_name_or_key_is_reported(self) -> None:
        for name, key in (("vni1", None), ("theirs", 1)):
            with self.subTest(name=name):
                database = self.databases["leaf-1"]
                database.transact(foreign_switch(name, key))
                exporter = self.exporter(name=f"exporter-{name}")
                document = output({"compute-1": host({100: [1], 101: [2]})})
                exporter.send(document)
                exporter.wait()
                self.assertEqual({("foreign-row", "leaf-1/vni1")}, exporter.problems())
                self.assertEqual({101: "vni2"}, database.view()["bindings"]["swp1"])
                database.transact({"op": "delete", "table": "Logical_Switch",
                                   "where": [["name", "==", name]]})
                exporter.wait_until_gone("foreign-row")
                exporter.wait()
                self.expect(document)
                exporter.send(output())
                exporter.wait()
                exporter.kill()

    def test_a_logical_switch_stays_while_others_refer_to_it(self) -> None:
        database = self.databases["leaf-1"]
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [1]})}))
        uuid = database.rows("Logical_Switch")[0]["_uuid"]
        database.transact(
            {"op": "insert", "table": "Physical_Locator", "uuid-name": "l",
             "row": {"encapsulation_type": "vxlan_over_ipv4", "dst_ip": "198.51.100.9"}},
            {"op": "insert", "table": "Ucast_Macs_Remote",
             "row": {"MAC": "02:00:00:00:00:01", "logical_switch": uuid,
                     "locator": ["named-uuid", "l"]}})
        exporter.send(output())
        exporter.wait()
        self.assertEqual({("foreign-row", "leaf-1/vni1")}, exporter.problems())
        database.transact({"op": "delete", "table": "Ucast_Macs_Remote", "where": []})
        exporter.wait_until_gone("foreign-row")
        exporter.wait()
        self.expect(output())

    def test_what_the_switch_learnt_goes_with_the_logical_switch(self) -> None:
        database = self.databases["leaf-1"]
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [1]})}))
        uuid = database.rows("Logical_Switch")[0]["_uuid"]
        database.transact(
            {"op": "insert", "table": "Physical_Locator", "uuid-name": "l",
             "row": {"encapsulation_type": "vxlan_over_ipv4", "dst_ip": "192.0.2.1"}},
            {"op": "insert", "table": "Physical_Locator_Set", "uuid-name": "s",
             "row": {"locators": ["named-uuid", "l"]}},
            {"op": "insert", "table": "Ucast_Macs_Local",
             "row": {"MAC": "02:00:00:00:00:01", "logical_switch": uuid,
                     "locator": ["named-uuid", "l"]}},
            {"op": "insert", "table": "Mcast_Macs_Local",
             "row": {"MAC": "unknown-dst", "logical_switch": uuid,
                     "locator_set": ["named-uuid", "s"]}})
        self.export(exporter, output())


class RepairTest(ExportTest):
    document = output({"compute-1": host({100: [1], 101: []}), "compute-2": host({5: [1]})})

    def damage(self) -> None:
        """Whatever somebody may do to rows that the exporter owns."""
        one, two = self.databases["leaf-1"], self.databases["leaf-2"]
        uuid = {row["name"]: row["_uuid"] for row in one.rows("Logical_Switch", "name")}
        one.transact(
            {"op": "update", "table": "Logical_Switch", "where": [["name", "==", "vni1"]],
             "row": {"tunnel_key": 9, "replication_mode": "service_node"}},
            {"op": "mutate", "table": "Physical_Port", "where": [["name", "==", "swp1"]],
             "mutations": [["vlan_bindings", "delete", ["set", [100, 101]]],
                           ["vlan_bindings", "insert", ["map", [[101, uuid["vni1"]],
                                                                [102, uuid["vni1"]]]]]]})
        two.transact({"op": "delete", "table": "Mcast_Macs_Remote", "where": []})

    def test_a_change_by_somebody_else_is_repaired(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        self.damage()

        def repaired() -> bool:
            try:
                self.expect(self.document)
                return True
            except AssertionError:
                return False
        wait_for("the databases are repaired", repaired)

    def test_a_report_names_differences_and_writes_nothing(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        exporter.stop()
        status, text = self.report()
        self.assertEqual((0, ""), (status, "".join(line for line in text.splitlines()
                                                   if not line.endswith(": no difference"))))
        self.damage()
        before = [database.view() for database in self.databases.values()]
        status, text = self.report()
        self.assertEqual(5, status)
        self.assertIn("leaf-1: ~ Logical_Switch vni1", text)
        self.assertIn("leaf-1: + swp1 VLAN 100: vni1", text)
        self.assertIn("leaf-1: - swp1 VLAN 101: vni1", text)
        self.assertIn("leaf-1: - swp1 VLAN 102: vni1", text)
        self.assertIn("leaf-2: + unknown-dst of vni1: 192.0.2.1", text)
        self.assertEqual(before, [database.view() for database in self.databases.values()])

    def test_a_report_as_json_has_the_differences_of_each_switch(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        exporter.stop()
        status, text = self.report("--json")
        self.assertEqual(0, status)
        self.assertEqual({name: [] for name in self.databases}, self.differences(text))
        self.damage()
        _, lines = self.report()
        status, text = self.report("--json")
        self.assertEqual(5, status)
        self.assertEqual([line for line in lines.splitlines()
                          if not line.endswith(": no difference")],
                         [f"{name}: {line}" for name, found in self.differences(text).items()
                          for line in found])
        self.assertEqual("report", json.loads(text)["mode"])

    @staticmethod
    def differences(text: str) -> dict[str, list[str]]:
        return {name: one["differences"] for name, one in json.loads(text)["switches"].items()}

    def report(self, *options: str) -> tuple[int, str]:
        exporter = self.exporter("--report", "--deadline", "60", *options, name="report")
        exporter.send(self.document)
        text, _ = exporter.process.communicate(timeout=60)
        return exporter.process.returncode, text.decode()

    def test_a_report_is_made_beside_the_exporter(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        beside = self.exporter("--report", "--deadline", "60", name="beside",
                               control=exporter.control)
        beside.send(self.document)
        beside.process.communicate(timeout=60)
        self.assertEqual((0, ""), (beside.process.returncode, beside.log.read_text()))
        self.assertTrue(exporter.status()["synced"])

    def test_a_control_socket_that_is_in_use_is_an_error(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        second = self.exporter(name="second", control=exporter.control)
        self.assertEqual(4, second.process.wait(60))
        self.assertEqual(f"vnagent: error: {exporter.control}: another exporter listens there\n",
                         second.log.read_text())
        self.assertTrue(exporter.status()["synced"])

    def test_add_only_adds_and_never_removes(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        exporter.stop()
        adding = self.exporter("--add-only", name="adding")
        adding.send(output({"compute-1": host({102: [1], 101: [2]})}))
        adding.wait()
        view = self.databases["leaf-1"].view()
        self.assertEqual({100: "vni1", 101: "vlan101", 102: "vni1"}, view["bindings"]["swp1"])
        self.assertEqual({"vni1", "vni2", "vlan101"}, set(view["switches"]))
        self.assertEqual({("vni1", "unknown-dst"): ["192.0.2.2"]}, view["flood"])

    def test_add_only_leaves_a_binding_where_it_leads(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        exporter.stop()
        adding = self.exporter("--add-only", name="adding")
        # VLAN 100 is to lead elsewhere, and a third switch is to be flooded to.
        moved = output({"compute-1": host({100: [3]}), "bonded": host({7: [1]}),
                        "compute-2": host({5: [1]})},
                       {"leaf-3": {"swp1": port({9: [1]})}})
        for _ in range(2):
            adding.send(moved)
            status = adding.wait()
            self.assertEqual({100: "vni1", 101: "vlan101"},
                             self.databases["leaf-1"].view()["bindings"]["swp1"])
            self.assertEqual({("vni1", "unknown-dst"): ["192.0.2.2", "192.0.2.3"]},
                             self.databases["leaf-1"].view()["flood"])
        # The second time there is nothing left to add, and it does not try for ever either.
        again = adding.wait()
        self.assertEqual(status["switches"]["leaf-1"]["transactions"],
                         again["switches"]["leaf-1"]["transactions"])
        adding.stop()
        # Repairing removes what was left.
        repairing = self.exporter(name="repairing")
        self.export(repairing, moved)

    def test_a_second_start_writes_nothing(self) -> None:
        exporter = self.exporter()
        self.export(exporter, self.document)
        exporter.stop()
        again = self.exporter(name="again")
        status = self.export(again, self.document)
        self.assertEqual([0, 0, 0], [one["transactions"] for one in status["switches"].values()])


class LockTest(ExportTest):
    def test_a_second_exporter_waits_for_the_first(self) -> None:
        first = self.exporter(name="first")
        document = output({"compute-1": host({100: [1]})})
        self.export(first, document)
        second = self.exporter(name="second")
        second.send(output())
        wait_for("the second is locked out",
                 lambda: {("locked", name) for name in self.switches} <= second.problems())
        self.expect(document)
        for exporter, status, locked in ((first, 0, "yes"), (second, 5, "no")):
            done = subprocess.run([BINARY, "export", "hardware-vtep", "--status", "--control",
                                   exporter.control],
                                  stdout=subprocess.PIPE, text=True, check=False)
            self.assertEqual(status, done.returncode)
            first_line, header, *lines = done.stdout.splitlines()
            self.assertRegex(first_line, "^mode repair, revision ")
            self.assertEqual(["switch", "connected", "locked", "synced"], header.split()[:4])
            self.assertEqual([[name, "yes", locked, locked] for name in self.switches],
                             [line.split()[:4] for line in lines[:3]])
            self.assertEqual(0 if status == 0 else 3,
                             sum(line.endswith("(locked)") for line in lines[3:]))
        first.kill()
        second.wait()
        self.expect(output())
        self.assertEqual(set(), second.problems())

    def test_who_lost_the_lock_writes_no_more(self) -> None:
        exporter = self.exporter()
        self.export(exporter, output({"compute-1": host({100: [1]})}))
        thief = Connection(self.databases["leaf-1"].socket)
        self.addCleanup(thief.close)
        thief.call("steal", LOCK)
        wait_for("the loss is noticed", lambda: ("locked", "leaf-1") in exporter.problems())
        before = self.databases["leaf-1"].view()
        after = output({"compute-1": host({101: [1]}), "compute-2": host({5: [2]})})
        exporter.send(after)
        exporter.wait("leaf-1")
        self.assertEqual(before, self.databases["leaf-1"].view())
        self.expect(after, only={"leaf-2", "leaf-3"})
        thief.call("unlock", LOCK)
        exporter.wait()
        self.expect(after)


if __name__ == "__main__":
    unittest.main()
