"""The commands of vnagent that talk to a live agent, against the real process."""

import json
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent / "server"))

from process import Authority  # noqa: E402
from api.agent import (DEADLINE, Agent, LiveTest, anonymous, free_port, merged, poll, program,
                       region, tcp_client, token_file)  # noqa: I001


class CommandTest(LiveTest):
    def run_command(self, *words: str, status: int = 0, text: str | None = None,
                    agent: Agent | None = None) -> subprocess.CompletedProcess[str]:
        environment = {**os.environ, "VNAGENT_SOCKET": (agent or self.agent).socket}
        result = subprocess.run([program(), *words], input=text, capture_output=True, text=True,
                                timeout=DEADLINE, env=environment, check=False)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        if status in (2, 3, 4, 5) and words[0] != "diff":
            self.assertIn("vnagent: error: ", result.stderr)
        return result

    def out(self, *words: str, **options: Any) -> str:
        return self.run_command(*words, **options).stdout

    def json(self, *words: str, **options: Any) -> Any:
        text = self.out(*words, "--json", **options)
        self.assertEqual(text.count("\n"), 1, text)
        return json.loads(text)


class Showing(CommandTest):
    def setUp(self) -> None:
        super().setUp()
        assignment = {"vlan": {"100": True, "101": True, "102": True}}
        self.ok(self.client.patch({"config": {"vlanAssignment": {"RegionOne": assignment}},
                                   "region": {"RegionOne": region(), "Two": {}}}))

    def rows(self, what: str) -> list[list[str]]:
        """The cells of a table, which are two spaces or more apart."""
        lines = self.out("show", what).splitlines()
        rows = [re.split(r"  +", line.rstrip()) for line in lines]
        self.assertTrue(all(len(row) == len(rows[0]) for row in rows), lines)
        starts = {match.start() for match in re.finditer(r"(?<=  )\S", lines[0])}
        for line in lines[1:]:
            for start in starts:
                self.assertNotEqual(line[start], " ", f"a column of {line} is not aligned")
        return rows[1:]

    def test_tables(self) -> None:
        self.assertEqual(self.rows("regions"), [["RegionOne", "syncUnknown", "-", "2", "2", "2"],
                                                ["Two", "syncUnknown", "-", "0", "0", "0"]])
        self.assertEqual(self.rows("hosts"), [["compute-1", "RegionOne", "1", "100"]])
        self.assertEqual(self.rows("ports"), [["RegionOne", "p1", "0", "compute-1"],
                                              ["RegionOne", "p2", "1", "leaf-1:Ethernet7"]])
        self.assertEqual(self.rows("switchports"),
                         [["leaf-1", "Ethernet7", "100", "100", "bm-host-1", "bm-p2"]])
        self.assertEqual(self.rows("vlans"), [["100", "10001", "1", "1", "2"]])
        self.assertEqual(self.rows("pools")[0], ["RegionOne", "100-102", "101-102", "100"])
        self.ok(self.client.lock("Two", "a", "r1"))
        locks = self.rows("locks")
        self.assertEqual(locks[0][:3], ["RegionOne", "-", "-"])
        self.assertEqual(locks[1][:3], ["Two", "a", "r1"])

    def test_the_same_as_json(self) -> None:
        for what, count in (("regions", 2), ("hosts", 1), ("ports", 2), ("switchports", 1),
                            ("vlans", 1), ("locks", 2), ("pools", 2)):
            with self.subTest(what):
                self.assertEqual(len(self.json("show", what)), count)
        self.assertEqual(self.json("show", "vlans")[0]["hosts"], ["compute-1"])

    def test_an_overview(self) -> None:
        text = self.out("show")
        self.assertIn("revision 1", text)
        self.assertIn("in memory only", text)
        self.assertIn("RegionOne", text)
        self.assertEqual(self.json("show")["revision"], 1)

    def test_places(self) -> None:
        self.assertEqual(json.loads(self.out("get", "cloud")), self.client.cloud())
        self.assertEqual(self.json("get", "output"), self.client.output())
        self.assertEqual(self.json("get", "cloud/region/RegionOne/port/p2"), {"vlanType": 1})
        self.assertEqual(self.json("get", "/region/RegionOne/port/p2/vlanType"), 1)
        self.assertEqual(self.out("get", "cloud/region/RegionOne/port", "--keys"), "p1\np2\n")
        self.run_command("get", "cloud/region/none", status=3)
        self.run_command("get", "nothing", status=2)

    def test_a_shell_completes_names(self) -> None:
        self.assertEqual(self.out("complete", "regions"), "RegionOne\nTwo\n")
        self.assertEqual(self.out("complete", "places", "cl"), "cloud\noutput\n")
        self.assertEqual(self.out("complete", "places", "cloud/region/T"),
                         "cloud/region/RegionOne\ncloud/region/Two\n")
        self.agent.kill()
        self.assertEqual(self.out("complete", "regions"), "")


class Changing(CommandTest):
    def file(self, value: Any) -> str:
        path = self.agent.folder / "input.json"
        path.write_text(json.dumps(value))
        return str(path)

    def test_patches(self) -> None:
        self.assertEqual(self.out("patch", text='{"region": {"R": {}}}'), "revision 1\n")
        self.assertEqual(self.json("patch", self.file({"p": {}}), "--at", "/region/R/port"),
                         {"revision": 2})
        self.assertEqual(self.client.cloud(), {"region": {"R": {"port": {"p": {}}}}})
        self.run_command("patch", "--if-match", "1", text="{}", status=5)
        self.out("patch", "--if-match", "2", text="{}")
        for _ in range(2):
            self.assertEqual(self.out("patch", "--key", "k", text="{}"), "revision 4\n")

    def test_what_is_refused_is_explained(self) -> None:
        result = self.run_command("patch", text='{"region": {"R": {"color": 1}}}', status=3)
        self.assertIn("/region/R/color", result.stderr)
        self.run_command("patch", text="{", status=3)
        self.run_command("patch", "/nowhere/file", status=4)
        self.run_command("patch", "--at", "output/regionStatus", text="{}", status=2)

    def test_dry_runs(self) -> None:
        with self.unchanged():
            text = self.out("patch", "--dry-run", text='{"region": {"R": {}}}')
            self.assertIn("+ /regionStatus/R", text)
            answer = self.json("patch", "--dry-run", text='{"region": {"R": {}}}')
            self.assertIn("R", answer["output"]["regionStatus"])
            self.assertIn("+ /region/R", self.out("apply", "--dry-run",
                                                  self.file({"region": {"R": {}}})))

    def test_a_region_is_replaced(self) -> None:
        self.assertEqual(self.out("replace", "R/1", self.file(region())),
                         "revision 1, 7 changed\n")
        self.assertEqual(self.json("replace", "R/1", self.file({})),
                         {"revision": 2, "changed": 7})
        self.assertEqual(self.client.cloud(), {"region": {"R/1": {}}})

    def test_a_document_is_applied(self) -> None:
        wanted = {"region": {"R": region(tenant={})}}
        self.load(R={"port": {"old": {}}, "syncInterval": 5}, Other={})
        self.assertIn("- /region/R/port/old", self.out("diff", self.file(wanted), status=5))
        patch = self.json("diff", self.file(wanted), status=5)
        self.assertEqual(patch["region"]["R"]["port"]["old"], None)
        with self.unchanged():
            self.json("apply", "--dry-run", self.file(wanted))
        self.assertEqual(self.json("apply", self.file(wanted)), {"revision": 2})
        self.assertEqual(self.client.cloud(),
                         {"region": {"R": region(syncInterval=5), "Other": {}}})
        self.assertEqual(self.out("diff", self.file(wanted)), "no changes\n")
        self.assertEqual(self.out("apply", self.file(wanted)), "no changes\n")
        self.assertEqual(self.client.revision(), 2)

    def test_long_values_are_shortened_for_people(self) -> None:
        wanted = {"region": {"é" * 100: region(network={"ü" * 100: {}, "ö" * 99: {}})}}
        lines = self.out("apply", self.file(wanted)).splitlines()
        self.assertEqual(lines[-1], "revision 1")
        self.assertTrue(lines[0].endswith("…"))
        self.assertEqual(self.client.cloud(), wanted)

    def test_files_that_are_no_documents(self) -> None:
        for value in ([], {"region": 1}):
            self.run_command("apply", self.file(value), status=4)
        self.run_command("apply", "/nowhere/file", status=4)


class Following(CommandTest):
    def test_events_as_json(self) -> None:
        watch = subprocess.Popen([program(), "watch", "--json", "--count", "3", "--of", "cloud",
                                  "--socket", self.agent.socket], stdout=subprocess.PIPE, text=True)
        self.addCleanup(watch.communicate)
        self.addCleanup(watch.kill)
        document = json.loads(watch.stdout.readline())["data"]
        for number in range(2):
            self.load(**{f"R{number}": region(port={}, portBinding={})})
            event = json.loads(watch.stdout.readline())
            self.assertEqual(event["event"], "patch")
            document = merged(document, event["data"])
            self.assertEqual(document, self.client.cloud())
        self.assertEqual(watch.wait(DEADLINE), 0)

    def test_events_for_people(self) -> None:
        self.load(R={})
        text = self.out("watch", "--since", "0", "--count", "1")
        self.assertIn("revision 1\n", text)
        self.assertIn('~ /regionStatus/R/syncStatus  "syncUnknown"\n', text)

    def test_a_watch_outlives_a_restart(self) -> None:
        agent = self.stateful()
        watch = subprocess.Popen([program(), "watch", "--json", "--of", "cloud", "--socket",
                                  agent.socket, "--at", "/region/R", "--at", "/region/S"],
                                 stdout=subprocess.PIPE, text=True)
        self.addCleanup(watch.communicate)
        self.addCleanup(watch.kill)
        self.assertEqual(json.loads(watch.stdout.readline())["event"], "snapshot")
        self.load(agent.client, R={})
        self.assertEqual(json.loads(watch.stdout.readline())["data"], {"region": {"R": {}}})
        agent.kill()
        agent.start()
        self.load(agent.client, S={})
        while (event := json.loads(watch.stdout.readline()))["event"] == "bookmark":
            pass
        self.assertEqual((event["event"], event["data"]), ("patch", {"region": {"S": {}}}))

    def test_waiting_for_a_revision(self) -> None:
        self.load(R={})
        self.assertEqual(self.out("wait", "1"), "revision 1\n")
        self.run_command("wait", "2", "--timeout", "0.2", status=5)
        waiting = subprocess.Popen([program(), "wait", "2", "--json", "--socket",
                                    self.agent.socket], stdout=subprocess.PIPE, text=True)
        self.addCleanup(waiting.kill)
        self.load(S={})
        self.assertEqual(json.loads(waiting.communicate(timeout=DEADLINE)[0]), {"revision": 2})
        self.assertEqual(waiting.returncode, 0)

    def test_the_trace_level(self) -> None:
        self.assertEqual(self.json("trace", "--level", "3"), {"level": 3})
        self.assertEqual(self.out("trace", "--level", "0"), "trace level 0\n")
        self.run_command("trace", "--level", "10", status=2)


class Locking(CommandTest):
    def setUp(self) -> None:
        super().setUp()
        self.load(R={})

    def test_who_holds_it(self) -> None:
        self.assertTrue(self.out("lock", "R").startswith("free, 0 waiting"))
        self.ok(self.client.lock("R", "somebody", "r1"))
        self.assertIn("held by somebody (request r1)", self.out("lock", "R"))
        self.assertEqual(self.json("lock", "R")["owner"], "somebody")
        self.assertTrue(self.out("lock", "R", "--force").startswith("free"))
        self.run_command("lock", "none", status=3)

    def test_a_command_runs_under_the_lock(self) -> None:
        script = ('import os, subprocess, sys; sys.exit(subprocess.run([sys.argv[1], "patch", '
                  '"--at", "/region/R/port/p", "--request-id", os.environ["VNAGENT_REQUEST_ID"]], '
                  'input=b"{}").returncode)')
        self.out("lock", "R", "--requester", "me", "--", sys.executable, "-c", script, program())
        self.assertEqual(self.client.cloud()["region"]["R"], {"port": {"p": {}}})
        self.assertEqual(self.client.sync("R")["syncStatus"], "syncUnknown")
        self.out("lock", "R", "--sync", "--", sys.executable, "-c", script, program())
        status = self.client.sync("R")
        self.assertEqual((status["syncStatus"], status["owner"]), ("syncComplete", ""))

    def test_the_status_is_that_of_the_command(self) -> None:
        result = self.run_command("lock", "R", "--", "sh", "-c", "exit 7", status=7)
        self.assertEqual(result.stderr, "")
        self.run_command("lock", "R", "--", "/nowhere/command", status=2)
        self.assertEqual(self.client.sync("R")["owner"], "")

    def test_a_signal_ends_the_command_and_frees_the_lock(self) -> None:
        started = self.agent.folder / "started"
        holder = subprocess.Popen([program(), "lock", "R", "--socket", self.agent.socket, "--",
                                   "sh", "-c", f"touch {started}; exec sleep 1000"])
        self.addCleanup(holder.kill)
        poll(started.exists, "the command runs")
        self.assertTrue(self.client.sync("R")["owner"])
        holder.terminate()
        self.assertEqual(holder.wait(DEADLINE), 128 + 15)
        self.assertEqual(self.client.sync("R")["owner"], "")

    def test_another_holds_it(self) -> None:
        self.ok(self.client.lock("R", "somebody", "r1"))
        result = self.run_command("lock", "R", "--wait", "0", "--", "true", status=5)
        self.assertIn("somebody", result.stderr)
        waiting = subprocess.Popen([program(), "lock", "R", "--socket", self.agent.socket, "--",
                                    "true"])
        self.addCleanup(waiting.kill)
        poll(lambda: self.client.sync("R")["waiting"] == 1, "it waits")
        self.ok(self.client.unlock("R", "r1"))
        self.assertEqual(waiting.wait(DEADLINE), 0)


class Connecting(CommandTest):
    def test_nobody_answers(self) -> None:
        self.agent.kill()
        for command in (("show",), ("get", "cloud"), ("wait", "1"), ("lock", "R"), ("trace",)):
            with self.subTest(command):
                result = self.run_command(*command, status=4)
                self.assertIn(self.agent.socket, result.stderr)

    def test_an_option_goes_before_the_environment(self) -> None:
        self.run_command("show", "--socket", "/nowhere/socket", status=4)
        self.run_command("show", "--url", "ftp://x", status=2)
        self.run_command("show", "--url", "http://x:1", "--socket", "y", status=2)

    def test_a_token_over_tcp(self) -> None:
        agent = Agent()
        port = free_port()
        agent.options = ["--listen", f"127.0.0.1:{port}",
                         "--tokens", token_file(agent.folder, {"boss": "admin", "eye": "read"})]
        self.addCleanup(agent.close)
        agent.start()
        self.assertEqual(tcp_client(port, "eye").get("/v1").status, 200)
        url = ("--url", f"http://127.0.0.1:{port}")
        for name in ("boss", "eye"):
            (agent.folder / name).write_text(f"token-of-{name}\n")
        self.run_command("show", *url, status=3)
        self.assertEqual(self.json("show", *url, "--token-file", str(agent.folder / "eye"))["role"],
                         "read")
        self.run_command("patch", *url, "--token-file", str(agent.folder / "eye"), text="{}",
                         status=3)
        self.out("patch", *url, "--token-file", str(agent.folder / "boss"), text="{}")

    def test_tls_with_certificates_of_its_own(self) -> None:
        agent = Agent()
        authority = Authority(agent.folder)
        other = Authority(agent.folder, "other")
        certificate, key = authority.sign("server")
        port = free_port()
        agent.options = ["--listen", f"127.0.0.1:{port}", "--tls-cert", certificate, "--tls-key",
                         key, "--tokens", token_file(agent.folder, {"boss": "admin"})]
        self.addCleanup(agent.close)
        agent.start()
        token = agent.folder / "token"
        token.write_text("token-of-boss\n")
        known = ("--url", f"https://127.0.0.1:{port}", "--token-file", str(token))
        trusting = (*known, "--ca", str(authority.certificate))
        self.assertEqual(self.json("show", *trusting)["role"], "admin")
        self.out("patch", *trusting, text='{"region": {"R": {}}}')
        self.assertIn("revision 1", self.out("watch", *trusting, "--count", "1"))
        # Others' certificates, certificates for another host, and no TLS at all.
        self.run_command("show", *known, status=4)
        self.run_command("show", *known, "--ca", str(other.certificate), status=4)
        self.run_command("show", *trusting, "--url", f"https://localhost:{port}", status=2)
        self.run_command("show", "--url", f"https://localhost:{port}", *trusting[2:], status=4)
        self.run_command("show", "--url", f"http://127.0.0.1:{port}", *trusting[2:], status=4)

    def test_the_output_is_that_of_the_agent(self) -> None:
        self.load()
        self.assertEqual(anonymous(self.json("get", "output")), anonymous(self.client.output()))
