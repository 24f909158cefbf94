"""vnagent load, against the real process."""

import signal
import socket
import subprocess
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent / "server"))

from process import Authority  # noqa: E402
from api.agent import (DEADLINE, Agent, LiveTest, free_port, poll, program,
                       token_file)  # noqa: I001
from test_client import CommandTest

SMALL = ("--ports", "60", "--hosts", "8", "--seconds", "1")


class Loading(CommandTest):
    def regions(self) -> set[str]:
        return set(self.client.cloud().get("region", {}))

    def test_rates_and_latencies(self) -> None:
        result = self.json("load", *SMALL, "--regions", "3", "--drivers", "2", "--connections", "4",
                           "--rate", "0", "--watchers", "12", "--readers", "2", "--read-rate", "0")
        self.assertEqual(result["mismatches"], [])
        self.assertEqual(result["refused"], {})
        for what in ("change", "read", "event"):
            with self.subTest(what):
                figures = result[what]
                self.assertGreater(figures["count"], 0)
                self.assertGreater(figures["rate"], 0)
                self.assertLessEqual(figures["p50"], figures["p99"])
                self.assertLessEqual(figures["p99"], figures["p99.9"])
                self.assertLessEqual(figures["p99.9"], figures["max"])
        # A region is made, locked, started, replaced, kept by a heartbeat, completed.
        self.assertEqual(result["syncCall"]["count"], 3 * 6)
        # Each watcher's at the end, at least.
        self.assertGreaterEqual(result["comparisons"], 12)
        self.assertEqual(self.regions(), set())

    def test_a_table_for_people(self) -> None:
        text = self.out("load", *SMALL)
        self.assertRegex(text, r"(?m)^change +\d+ +\d+\.\d +\d+\.\d{3} ")
        self.assertRegex(text, r"agent's: \d+, of which 0 differed")

    def test_changes_come_at_the_rate(self) -> None:
        result = self.json("load", *SMALL, "--rate", "50", "--connections", "3")
        # What is due in the time, but for what is on its way at its end.
        self.assertGreater(result["change"]["count"], 0)
        self.assertLessEqual(result["change"]["count"], 53)

    def test_each_watcher_may_follow_a_whole_document(self) -> None:
        for document in ("output", "cloud"):
            with self.subTest(document):
                result = self.json("load", *SMALL, "--watch", document, "--watchers", "5")
                self.assertEqual(result["mismatches"], [])
                self.assertGreater(result["lastEvent"]["count"], 0)

    def test_a_driver_syncs_again(self) -> None:
        result = self.json("load", *SMALL, "--sync-interval", "0.2", "--rate", "0")
        self.assertGreater(result["syncCall"]["count"], 6)
        self.assertEqual((result["mismatches"], result["refused"]), ([], {}))

    def test_regions_that_exist_are_left_alone(self) -> None:
        self.ok(self.client.patch({"region": {"load-region-1": {"port": {"p": {}}}, "Two": {}}}))
        result = self.run_command("load", *SMALL, status=3)
        self.assertIn("load-region-1", result.stderr)
        self.assertIn("p", self.client.cloud()["region"]["load-region-1"]["port"])
        self.out("load", *SMALL, "--prefix", "other-")
        self.assertEqual(self.regions(), {"load-region-1", "Two"})
        self.out("load", *SMALL, "--overwrite")
        self.assertEqual(self.regions(), {"Two"})

    def test_regions_can_be_kept(self) -> None:
        self.out("load", *SMALL, "--keep")
        region = self.client.cloud()["region"]["load-region-1"]
        self.assertEqual(len(region["port"]), 60)
        # Each port is bound once: its moves left nothing behind.
        for binding in region["portBinding"].values():
            places = [host for kind in binding.values() for host in kind]
            self.assertEqual(len(places), 1, binding)
        self.assertEqual(self.client.sync("load-region-1")["syncStatus"], "syncComplete")

    def test_an_interrupt_removes_the_regions(self) -> None:
        command = [program(), "load", "--socket", self.agent.socket, *SMALL[:4], "--seconds", "600",
                   "--json"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
            poll(lambda: self.regions() != set(), "the regions")
            process.send_signal(signal.SIGINT)
            text, _ = process.communicate(timeout=DEADLINE)
        self.assertEqual(process.returncode, 0)
        self.assertIn('"interrupted":true', text)
        self.assertEqual(self.regions(), set())

    def test_what_cannot_be(self) -> None:
        self.assertIn("--hosts", self.run_command("load", "--regions", "4", "--hosts", "4",
                                                  status=2).stderr)
        self.assertIn("--ports", self.run_command("load", "--regions", "4", "--ports", "3",
                                                  "--hosts", "8", status=2).stderr)
        self.assertIn("--drivers", self.run_command("load", "--drivers", "2", status=2).stderr)
        self.run_command("load", "--rate", "fast", status=2)
        self.run_command("load", "--ports", "0", status=2)
        self.run_command("load", "--socket", "/nowhere/at/all", status=4)


class Refused(LiveTest):
    """An agent that takes fewer watchers than are asked for."""

    options = ("--max-connections", "12")

    def test_too_many_watchers(self) -> None:
        result = subprocess.run([program(), "load", "--socket", self.agent.socket, *SMALL,
                                 "--watchers", "40"], capture_output=True, text=True,
                                timeout=DEADLINE, check=False)
        self.assertEqual(result.returncode, 3, result.stderr)
        self.assertIn("at most 12", result.stderr)


class AlteringProxy:
    """Stands between a client and the agent, and puts other names into the events of watches."""

    def __init__(self, agent: Agent) -> None:
        self.agent = agent
        self.socket = str(agent.folder / "proxy")
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.socket)
        self.listener.listen(64)
        self.ends: list[socket.socket] = []
        self.altered = 0
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self) -> None:
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            upstream = socket.socket(socket.AF_UNIX)
            upstream.connect(self.agent.socket)
            self.ends += [client, upstream]
            threading.Thread(target=self.forward, args=(client, upstream), daemon=True).start()

    def forward(self, client: socket.socket, upstream: socket.socket) -> None:
        try:
            request = client.recv(65536)
            upstream.sendall(request)
            watches = request.startswith(b"GET /v1/watch")
            threading.Thread(target=self.copy, args=(upstream, client, watches),
                             daemon=True).start()
            self.copy(client, upstream, False)
        except OSError:
            pass

    def copy(self, source: socket.socket, target: socket.socket, alters: bool) -> None:
        try:
            while data := source.recv(65536):
                if alters and b"referrer" in data:
                    self.altered += 1
                    data = data.replace(b"referrer", b"REFERRER")
                target.sendall(data)
        except OSError:
            pass
        finally:
            try:
                target.shutdown(socket.SHUT_WR)
            except OSError:
                pass

    def close(self) -> None:
        self.listener.shutdown(socket.SHUT_RDWR)
        for end in [self.listener, *self.ends]:
            end.close()


class Differing(CommandTest):
    def test_documents_that_differ_are_an_error(self) -> None:
        proxy = AlteringProxy(self.agent)
        self.addCleanup(proxy.close)
        result = self.run_command("load", *SMALL, "--socket", proxy.socket, "--watch", "output",
                                  "--watchers", "2", status=5)
        self.assertGreater(proxy.altered, 0)
        self.assertIn("a watcher's document is not what the agent says of", result.stderr)
        self.assertIn("REFERRER", result.stderr)
        self.assertRegex(result.stdout, r"of which [1-9]\d* differed")
        # It has tidied up none the less.
        self.assertEqual(self.client.cloud().get("region", {}), {})


class OverTcp(CommandTest):
    def listening(self, *options: str) -> tuple[str, list[str], Agent]:
        """An agent on TCP: its port, and the options that name the token."""
        agent = Agent()
        self.addCleanup(agent.close)
        port = str(free_port())
        tokens = token_file(agent.folder, {"boss": "write", "eye": "read"})
        agent.options = ["--listen", f"127.0.0.1:{port}", "--tokens", tokens, *options]
        for name in ("boss", "eye"):
            (agent.folder / name).write_text(f"token-of-{name}\n")
        agent.start()
        return port, ["--token-file", str(agent.folder / "boss")], agent

    def test_a_url_and_a_token(self) -> None:
        port, token, agent = self.listening()
        url = ("--url", f"http://127.0.0.1:{port}")
        result = self.json("load", *SMALL, *url, *token, "--watchers", "3")
        self.assertEqual((result["mismatches"], result["refused"]), ([], {}))
        self.assertGreater(result["change"]["count"], 0)
        self.assertGreaterEqual(result["comparisons"], 3)
        self.assertEqual(agent.client.cloud().get("region", {}), {})
        # Without a token, with one that may only read, and where nobody listens.
        self.run_command("load", *SMALL, *url, status=3)
        self.run_command("load", *SMALL, *url, "--token-file", str(agent.folder / "eye"), status=3)
        self.run_command("load", *SMALL, "--url", f"http://127.0.0.1:{free_port()}", *token,
                         status=4)

    def test_tls(self) -> None:
        authority = Authority(self.agent.folder)
        certificate, key = authority.sign("server")
        port, token, agent = self.listening("--tls-cert", certificate, "--tls-key", key)
        url = ("--url", f"https://127.0.0.1:{port}")
        result = self.json("load", *SMALL, *url, *token, "--ca", str(authority.certificate),
                           "--watchers", "3")
        self.assertEqual((result["mismatches"], result["refused"]), ([], {}))
        self.assertGreaterEqual(result["comparisons"], 3)
        self.assertEqual(agent.client.cloud().get("region", {}), {})
        # An authority that is not known, and no TLS at all.
        self.run_command("load", *SMALL, *url, *token, status=4)
        self.run_command("load", *SMALL, "--url", f"http://127.0.0.1:{port}", *token, status=4)
