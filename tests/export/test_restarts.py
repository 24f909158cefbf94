"""Either side ends, at any step, and comes back; a switch that is away costs the others nothing."""

import json
import subprocess
import unittest
from pathlib import Path

from database import wait_for
from exporter import BINARY, ExportTest, host, output, port

DOCUMENTS = [
    output({"compute-1": host({100: [1]})}),
    output({"compute-1": host({100: [1], 101: [2]}), "compute-2": host({7: [1]})}),
    output({"compute-1": host({100: [2]}), "compute-2": host({7: [1]})},
           {"leaf-3": {"swp1": port({9: [1], 10: []}, native=9)}}),
    output({"bonded": host({100: [2]})}, {"leaf-3": {"swp1": port({9: [2], 10: []})}}),
    output(),
]


class RestartTest(ExportTest):
    def test_the_exporter_is_killed_at_each_step(self) -> None:
        for document in DOCUMENTS:
            exporter = self.exporter()
            exporter.send(document)  # and killed while it works on it, or before, or after
            exporter.kill()
            again = self.exporter()
            self.export(again, document)
            again.kill()

    def test_each_database_is_killed_at_each_step(self) -> None:
        exporter = self.exporter()
        for document in DOCUMENTS:
            for database in self.databases.values():
                database.kill()
            exporter.send(document)
            for database in self.databases.values():
                database.start()
            exporter.wait()
            self.expect(document)

    def test_a_database_that_lost_everything_is_filled_again(self) -> None:
        exporter = self.exporter()
        self.export(exporter, DOCUMENTS[2])
        database = self.databases["leaf-1"]
        database.kill()
        database.file.unlink()
        empty = type(database)(self.folder, "fresh", self.switches["leaf-1"],
                               self.addresses["leaf-1"], switch="leaf-1")
        empty.kill()
        empty.file.rename(database.file)
        database.start()
        wait_for("the database is filled", lambda: database.rows("Logical_Switch"))
        exporter.wait()
        self.expect(DOCUMENTS[2])

    def test_a_switch_that_is_away_or_slow_delays_no_other(self) -> None:
        exporter = self.exporter()
        self.export(exporter, DOCUMENTS[1])
        for away, back in (("kill", "start"), ("pause", "resume")):
            getattr(self.databases["leaf-2"], away)()
            for document in DOCUMENTS:
                exporter.send(document)
                exporter.wait("leaf-2")
                self.expect(document, only={"leaf-1", "leaf-3"})
            exporter.send(DOCUMENTS[2])
            getattr(self.databases["leaf-2"], back)()
            exporter.wait()
            self.expect(DOCUMENTS[2])

    def test_an_exporter_that_starts_without_a_switch_keeps_its_address_in_the_others(self) -> None:
        exporter = self.exporter()
        self.export(exporter, DOCUMENTS[1])
        exporter.kill()
        self.databases["leaf-2"].kill()
        exporter = self.exporter()
        exporter.send(DOCUMENTS[1])
        exporter.wait("leaf-2")
        self.expect(DOCUMENTS[1], only={"leaf-1"})
        self.databases["leaf-2"].start()
        exporter.wait()
        self.expect(DOCUMENTS[1])


class LiveAgentTest(ExportTest):
    """The exporter follows a live agent."""

    def setUp(self) -> None:
        super().setUp()
        self.socket = self.folder / "agent.sock"
        self.state = self.folder / "state"
        self.agent: subprocess.Popen[bytes] | None = None
        self.addCleanup(self.kill_agent)
        self.start_agent()

    def start_agent(self) -> None:
        with (self.folder / "agent.log").open("ab") as log:
            self.agent = subprocess.Popen([BINARY, "serve", "--socket", self.socket, "--state-dir",
                                           self.state], stdout=log, stderr=log)
        wait_for("the agent is ready", lambda: self.vnagent("get", "cloud").returncode == 0)

    def kill_agent(self) -> None:
        if self.agent:
            self.agent.kill()
            self.agent.wait()
            self.agent = None

    def vnagent(self, *arguments: str, text: str = "") -> "subprocess.CompletedProcess[str]":
        return subprocess.run([BINARY, *arguments, "--socket", self.socket], input=text,
                              capture_output=True, text=True, check=False)

    def patch(self, patch: object) -> None:
        done = self.vnagent("patch", text=json.dumps(patch))
        self.assertEqual(0, done.returncode, done.stderr)

    def output(self) -> tuple[str, dict]:
        revision = json.loads(self.vnagent("wait", "0", "--json").stdout)["revision"]
        return str(revision), json.loads(self.vnagent("get", "output", "--json").stdout)

    def synced(self, exporter: object) -> None:
        revision, document = self.output()
        wait_for("the last revision is exported", lambda: (
            lambda status: status.get("revision") == revision and status["synced"])(
                exporter.status()))
        self.expect(document)

    def cloud(self, bound: str, vlan: int) -> dict:
        return {"region": {"R": {
            "segment": {"top": {"segmentationType": "vxlan", "segmentationId": 5000},
                        f"s{vlan}": {"segmentationType": "vlan", "segmentationId": vlan}},
            "port": {"p": {}},
            "portBinding": {"p": {"portToHostBinding": {
                bound: {"segment": {"0": "top", "1": f"s{vlan}"}}}}}}}}

    def test_changes_are_followed_over_restarts_of_the_agent(self) -> None:
        exporter = self.exporter(source=["--socket", str(self.socket)])
        self.patch(self.cloud("compute-1", 100))
        self.synced(exporter)
        self.patch(self.cloud("compute-2", 200))  # on both now
        self.synced(exporter)
        view = self.databases["leaf-1"].view()
        self.kill_agent()
        wait_for("the loss is noticed",
                 lambda: ("unreachable", "agent") in exporter.problems())
        self.assertEqual(view, self.databases["leaf-1"].view())
        self.start_agent()
        self.patch({"region": {"R": {"portBinding": {"p": {"portToHostBinding": {
            "compute-1": None}}}}}})
        self.synced(exporter)
        self.assertEqual(set(), exporter.problems())
        self.patch({"region": {"R": None}})
        self.synced(exporter)


class CommandTest(ExportTest):
    def run_export(self, *options: str, text: str = "",
                   the_map: str | None = None) -> "subprocess.CompletedProcess[str]":
        path = self.folder / "map.json"
        path.write_text(json.dumps(self.map) if the_map is None else the_map, encoding="utf-8")
        return subprocess.run([BINARY, "export", "hardware-vtep", "--map", path, *options],
                              input=text, capture_output=True, text=True, check=False, timeout=120)

    def test_once_ends_when_all_is_written(self) -> None:
        lines = "".join(json.dumps(document) + "\n" for document in DOCUMENTS[:3])
        done = self.run_export("--once", "--outputs", "-", text=lines)
        self.assertEqual(0, done.returncode, done.stderr)
        self.expect(DOCUMENTS[2])

    def test_one_indented_document_is_a_file_of_outputs(self) -> None:
        file = self.folder / "output.json"
        file.write_text(json.dumps(DOCUMENTS[1], indent=2), encoding="utf-8")
        done = self.run_export("--once", "--outputs", str(file))
        self.assertEqual(0, done.returncode, done.stderr)
        self.expect(DOCUMENTS[1])

    def test_once_without_an_answer_of_a_switch_is_not_done(self) -> None:
        self.databases["leaf-2"].kill()
        done = self.run_export("--once", "--outputs", "-", "--deadline", "1",
                               text=json.dumps(DOCUMENTS[1]))
        self.assertEqual(5, done.returncode)
        self.assertIn("leaf-2", done.stderr)

    def test_a_map_or_a_source_that_cannot_be_used_is_refused(self) -> None:
        for the_map, place in (
                ("{", "map.json"), ("{}", "switches"),
                ('{"switches": {"a": {}}}', "/switches/a"),
                ('{"switches": {"a": {"database": "http:x"}}}', "/switches/a/database"),
                ('{"switches": {"a": {"database": "unix:x"}, "b": {"database": "unix:x"}}}',
                 "/switches/b"),
                ('{"switches": {"a": {"database": "unix:x"}}, "hosts": {"h": [{"switch": "b", '
                 '"port": "c"}]}}', "/hosts/h")):
            with self.subTest(the_map=the_map):
                done = self.run_export("--once", "--outputs", "-", the_map=the_map)
                self.assertEqual(3, done.returncode, done.stderr)
                self.assertIn(place, done.stderr)
        for text in ("[]", "nonsense", '{"networkElement": 1}',
                     json.dumps(output({"compute-1": host({4095: []})}))):
            with self.subTest(text=text):
                done = self.run_export("--once", "--outputs", "-", text=text)
                self.assertEqual(4, done.returncode, done.stderr)

    def test_a_database_that_is_none_is_reported(self) -> None:
        self.map["switches"]["leaf-2"]["database"] = f"unix:{Path('/dev/null')}"
        done = self.run_export("--report", "--outputs", "-", "--deadline", "1",
                               text=json.dumps(DOCUMENTS[0]))
        self.assertEqual(5, done.returncode)
        self.assertIn("leaf-2: not compared", done.stdout)
        self.assertIn("leaf-1: + swp1 VLAN 100: vni1", done.stdout)


if __name__ == "__main__":
    unittest.main()
