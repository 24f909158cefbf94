"""The life of the process: start, refusal to start, configuration, stop, restart."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import unittest

from process import Authority, descriptors, refusal, threads  # noqa: I001  (it sets the path)
from api.agent import (DEADLINE, Agent, Client, LiveTest, UnixConnection, poll, program, region,
                       token_file)


class ProcessTest(LiveTest):
    def setUp(self) -> None:
        """Each test starts what it needs."""


class Starting(ProcessTest):
    def test_a_second_start_on_the_same_socket_is_refused_with_the_process_id(self) -> None:
        agent = self.start()
        status, text = refusal("--socket", agent.socket)
        self.assertEqual(status, 4)
        self.assertIn(f"process {agent.process.pid}", text)
        self.ok(agent.client.get("/v1"))

    def test_a_second_start_on_the_same_state_is_refused_with_the_process_id(self) -> None:
        agent = self.stateful()
        state = agent.options[agent.options.index("--state-dir") + 1]
        status, text = refusal("--socket", agent.folder / "other.sock", "--state-dir", state)
        self.assertEqual(status, 4)
        self.assertIn(str(agent.process.pid), text)
        self.ok(agent.client.get("/v1"))

    def test_the_socket_of_a_killed_process_is_replaced(self) -> None:
        agent = self.start()
        agent.kill()
        self.assertTrue(os.path.exists(agent.socket))
        agent.start()
        self.ok(agent.client.get("/v1"))

    def test_of_many_starts_at_once_one_serves(self) -> None:
        agent = self.start()
        agent.kill()
        starts = [subprocess.Popen([program(), "serve", "--socket", agent.socket],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL) for _ in range(6)]
        try:
            poll(lambda: sum(start.poll() is None for start in starts) == 1, "one is left")
            self.assertEqual(sorted(s.returncode for s in starts if s.returncode is not None),
                             [4] * 5)
            poll(lambda: self.answers(agent.client), "it serves")
        finally:
            for start in starts:
                if start.poll() is None:
                    start.terminate()
                start.wait(DEADLINE)

    @staticmethod
    def answers(client: Client) -> bool:
        try:
            return client.get("/readyz").status == 200
        except OSError:
            return False

    def test_the_socket_is_for_owner_and_group(self) -> None:
        agent = self.start()
        self.assertEqual(os.stat(agent.socket).st_mode & 0o777, 0o660)

    def test_says_where_everything_is_in_memory_only(self) -> None:
        agent = self.start()
        poll(lambda: "in memory only" in agent.log.read_text(), "it says so")
        self.assertFalse(self.ok(agent.client.get("/v1"))["durable"])

    def test_begins_with_the_cloud_that_it_is_given(self) -> None:
        agent = self.stateful()
        agent.terminate()
        cloud = agent.folder / "cloud.json"
        cloud.write_text('{"region": {"R": {"network": {"n": {}}}}}')
        agent.options += ["--cloud", str(cloud)]
        agent.start()
        self.assertEqual(agent.client.cloud()["region"].keys(), {"R"})
        agent.client.patch({"region": {"S": {}}})
        agent.terminate()
        agent.start()
        self.assertEqual(agent.client.cloud()["region"].keys(), {"R", "S"})

    def test_refuses_a_cloud_that_breaks_a_rule(self) -> None:
        agent = self.start()
        cloud = agent.folder / "cloud.json"
        cloud.write_text('{"region": {"R": {"portBinding": {"p": {}}}}}')
        status, text = refusal("--socket", agent.folder / "s", "--cloud", cloud)
        self.assertEqual(status, 3)
        self.assertIn("/region/R/portBinding/p", text)


class Options(ProcessTest):
    def test_who_may_listen_where(self) -> None:
        agent = self.start()
        socket = ["--socket", str(agent.folder / "s")]
        tokens = ["--tokens", token_file(agent.folder, {"a": "read"})]
        for options, word in ([["--listen", "127.0.0.1:0"], "--tokens"],
                              [["--listen", "0.0.0.0:0", *tokens], "TLS"],
                              [["--listen", "[::]:0", *tokens], "TLS"],
                              [["--listen", "127.0.0.1"], "ADDRESS:PORT"],
                              [["--client-ca", "x"], "--client-ca needs TLS"],
                              [["--socket-role", "write:R"], "read, write, admin"]):
            with self.subTest(options=options):
                status, text = refusal(*socket, *options)
                self.assertEqual(status, 2)
                self.assertIn(word, text)

    def test_a_token_file_that_others_may_read_is_refused(self) -> None:
        agent = self.start()
        tokens = token_file(agent.folder, {"a": "read"})
        os.chmod(tokens, 0o644)
        status, text = refusal("--socket", agent.folder / "s", "--listen", "127.0.0.1:0",
                               "--tokens", tokens)
        self.assertEqual(status, 4)
        self.assertIn("others may read", text)

    def test_the_configuration_file_has_the_same_options(self) -> None:
        agent = self.start()
        config = agent.folder / "vnagent.toml"
        config.write_text('require-lock = true\nsocket-role = "write"\n'
                          f'tokens = "{token_file(agent.folder, {"a": "read"})}"\n'
                          'listen = "127.0.0.1:0"\n')
        agent.terminate()
        agent.options += ["--config", str(config), "--socket-role", "read"]
        agent.start()
        hello = self.ok(agent.client.get("/v1"))
        self.assertTrue(hello["requireLock"])
        self.assertEqual(hello["role"], "read", "the command line counts")

    def test_every_option_may_stand_in_the_configuration_file(self) -> None:
        agent = Agent()
        self.addCleanup(agent.close)
        authority = Authority(agent.folder)
        certificate, key = authority.sign("server")
        cloud = agent.folder / "cloud.json"
        cloud.write_text('{"region": {"FromFile": {}}}')
        values: dict[str, str | int | float | bool] = {
            "socket": agent.socket, "socket-role": "write", "listen": "127.0.0.1:0",
            "tls-cert": certificate, "tls-key": key, "client-ca": str(authority.certificate),
            "tokens": token_file(agent.folder, {"a": "read"}),
            "state-dir": str(agent.folder / "state"), "keep-seconds": 1.5,
            "keep-revisions": 20_000, "require-lock": True, "max-body": 1000,
            "max-bodies": 2000, "max-connections": 7, "region-sync-timeout": 12.5, "toggle": "off",
            "cloud": str(cloud)}
        text = subprocess.run([program(), "serve", "--help"], capture_output=True, text=True,
                              check=True).stdout
        options = set(re.findall(r"(?m)^  (?:-h,)?--([a-z-]+)", text))
        self.assertEqual(options, set(values) | {"help", "config"})
        config = agent.folder / "vnagent.toml"
        config.write_text("".join(f"{name} = {json.dumps(value)}\n"
                                  for name, value in values.items()))
        agent.arguments = ["--config", str(config)]
        agent.start()
        hello = self.ok(agent.client.get("/v1"))
        self.assertEqual((hello["role"], hello["durable"], hello["requireLock"], hello["toggle"]),
                         ("write", True, True, False))
        self.assertEqual(agent.client.cloud(), {"region": {"FromFile": {}}})
        self.assertEqual(agent.client.sync("FromFile")["timeout"], 12.5)
        self.assertIn("listening on https://127.0.0.1:", agent.log.read_text())
        self.refused(agent.client.patch({"region": {"x" * 1000: {}}}), 413, "too-large")
        held = [UnixConnection(agent.socket) for _ in range(7)]
        for connection in held:
            self.addCleanup(connection.close)
            connection.request("GET", "/healthz")
            connection.getresponse().read()
        self.refused(agent.client.get("/v1"), 429, "too-many")

    def test_values_of_the_configuration_are_checked_with_their_line(self) -> None:
        agent = self.start()
        config = agent.folder / "vnagent.toml"
        for line in ('socket-role = "boss"', "max-connections = 0", 'toggle = "maybe"',
                     "keep-revisions = 5", "require-lock = 7", 'listen = "nowhere"',
                     "region-sync-timeout = -1", "socket = []", "max-body = 1979-05-27",
                     "max-body = 1\nmax-body = 2", "max-body ="):
            with self.subTest(line):
                config.write_text(f"# comment\n{line}\n")
                status, text = refusal("--config", config, "--socket", agent.folder / "s")
                self.assertEqual(status, 2, text)
                self.assertRegex(text, r"vnagent\.toml:[23]: ")

    def test_an_unknown_key_of_the_configuration_is_refused_with_its_line(self) -> None:
        agent = self.start()
        config = agent.folder / "vnagent.toml"
        config.write_text('\nsocket = "a"\nsokcet = "b"\n')
        status, text = refusal("--config", config)
        self.assertEqual(status, 2)
        self.assertIn("vnagent.toml:3: there is no option 'sokcet'", text)


class Stopping(ProcessTest):
    def test_what_waits_is_answered_and_the_exit_status_is_zero(self) -> None:
        agent = self.stateful()
        self.load(agent.client, R=region())
        self.ok(agent.client.lock("R", "a", "r1"))
        answers = []
        waits = [threading.Thread(target=lambda i=i: answers.append(
            agent.client.lock("R", "b", f"w{i}", wait=60))) for i in range(5)]
        for wait in waits:
            wait.start()
        poll(lambda: agent.client.sync("R")["waiting"] == 5, "they wait")
        stream = agent.client.stream("/v1/watch")
        self.assertEqual(stream.next().name, "snapshot")
        idle = UnixConnection(agent.socket)
        idle.request("GET", "/v1")
        idle.getresponse().read()
        self.assertEqual(agent.terminate(), 0)
        for wait in waits:
            wait.join(DEADLINE)
        self.assertEqual([answer.status for answer in answers], [503] * 5)
        while stream.next() is not None:
            pass
        stream.close()
        idle.close()
        self.assertFalse(os.path.exists(agent.socket))

    def test_an_interrupt_stops_it_too(self) -> None:
        agent = self.start()
        agent.process.send_signal(signal.SIGINT)
        self.assertEqual(agent.process.wait(DEADLINE), 0)

    def test_what_was_accepted_is_there_after_a_stop(self) -> None:
        agent = self.stateful()
        revisions = [agent.client.patch({"region": {f"R{i}": {}}}) for i in range(20)]
        self.assertEqual({answer.status for answer in revisions}, {200})
        before = agent.client.cloud()
        agent.terminate()
        agent.start()
        self.assertEqual(agent.client.cloud(), before)


class Storms(ProcessTest):
    cost = 5

    def test_descriptors_and_threads_are_back_after_a_storm(self) -> None:
        agent = self.start()
        self.load(agent.client, R=region())
        self.ok(agent.client.lock("R", "a", "r1"))
        pid = agent.process.pid
        agent.client.get("/v1")
        before, tasks = descriptors(pid), threads(pid)
        sent = [b"GET /v1 HTTP/1.1\r\n", b"GET /v1/watch HTTP/1.1\r\nHost: a\r\n\r\n",
                b"POST /v1/region/R/sync/lock HTTP/1.1\r\nHost: a\r\nContent-Type: "
                b"application/json\r\nContent-Length: 48\r\n\r\n"
                b'{"requester": "b", "requestId": "c", "wait": 60}',
                b"PATCH /v1/cloud HTTP/1.1\r\nHost: a\r\nContent-Length: 100\r\n\r\n{", b"\x16\x03"]
        connections = []
        for i in range(200):
            connection = UnixConnection(agent.socket)
            connection.connect()
            connection.sock.sendall(sent[i % len(sent)])
            connections.append(connection)
        poll(lambda: agent.client.sync("R")["waiting"] == 40, "40 wait for the lock")
        self.assertEqual(threads(pid), tasks, "no connection has a thread")
        for connection in connections:
            connection.close()
        poll(lambda: descriptors(pid) <= before, "all descriptors are closed")
        poll(lambda: agent.client.sync("R")["waiting"] == 0, "nobody waits")
        self.assertEqual(threads(pid), tasks)

    def test_more_connections_than_allowed_are_refused(self) -> None:
        agent = self.start("--max-connections", "20")
        held = []
        for _ in range(20):
            connection = UnixConnection(agent.socket)
            connection.request("GET", "/v1")
            self.assertEqual(connection.getresponse().read()[:1], b"{")
            held.append(connection)
        self.refused(agent.client.get("/v1"), 429, "too-many")
        for connection in held:
            connection.close()
        poll(lambda: agent.client.get("/v1").status == 200, "there is room again")


class Saying(ProcessTest):
    def test_the_log_has_what_happened_and_no_body(self) -> None:
        agent = self.start()
        self.load(agent.client, R=region())
        self.refused(agent.client.patch({"region": {"R": {"portBinding": {"secretBinding": {}}}}}),
                     422)
        self.ok(agent.client.lock("R", "a", "r1"))
        self.ok(agent.client.step("R", "start", "r1"))
        agent.terminate()
        log = agent.log.read_text()
        for line in ("applied revision=1 principal=", "refused principal=", "problem=rule-broken",
                     "lock decision=granted region=R", "sync region=R", "stopped"):
            self.assertIn(line, log)
        self.assertNotIn("secretBinding", log)

    def test_the_log_has_priorities_in_the_journal(self) -> None:
        agent = self.start()
        agent.terminate()
        log = agent.folder / "journal"
        with open(log, "wb") as stream:
            status = os.fstat(stream.fileno())
            process = subprocess.Popen(
                [program(), "serve", "--socket", agent.socket], stderr=stream,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                env=os.environ | {"JOURNAL_STREAM": f"{status.st_dev}:{status.st_ino}"})
            poll(lambda: "<6>ready" in log.read_text(), "it is ready")
            process.terminate()
            process.wait(DEADLINE)
        self.assertIn("<4>everything is in memory only", log.read_text())

    def test_metrics_show_what_the_agent_does(self) -> None:
        agent = self.stateful()
        self.load(agent.client, R=region())
        self.ok(agent.client.lock("R", "a", "r1"))
        stream = agent.client.stream("/v1/watch")
        stream.next()
        page = agent.client.get("/metrics")
        self.assertEqual(page.media, "text/plain")
        text = page.body.decode()
        figures = dict(line.rsplit(" ", 1) for line in text.splitlines() if line[:1] != "#")
        self.assertEqual(float(figures["vnagent_revision"]), agent.client.revision())
        self.assertEqual(figures["vnagent_locks_held"], "1")
        self.assertEqual(figures["vnagent_watchers"], "1")
        self.assertGreater(float(figures["vnagent_journal_size_bytes"]), 0)
        self.assertGreater(float(figures["vnagent_commit_seconds_count"]), 0)
        self.assertGreater(float(figures["vnagent_resident_memory_bytes"]), 1e6)
        stream.close()

    @unittest.skipUnless(shutil.which("promtool"), "promtool is missing: package prometheus")
    def test_metrics_keep_to_the_conventions(self) -> None:
        agent = self.stateful()
        self.load(agent.client, R=region(), S={})
        self.ok(agent.client.lock("R", "a", "r1"))
        self.ok(agent.client.step("R", "start", "r1"))
        self.refused(agent.client.lock("R", "b", "r2"), 409)
        self.refused(agent.client.patch({"x": 1}), 422)
        stream = agent.client.stream("/v1/watch")
        stream.next()
        self.ok(agent.client.patch({"region": {"R": None}}))
        stream.next()
        page = agent.client.get("/metrics").body
        stream.close()
        checked = subprocess.run(["promtool", "check", "metrics"], input=page, check=False,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual((checked.returncode, checked.stdout.decode()), (0, ""))

    def test_tells_the_service_manager_that_it_is_ready(self) -> None:
        agent = self.start()
        agent.terminate()
        name = str(agent.folder / "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(name)
            manager.settimeout(DEADLINE)
            process = subprocess.Popen(
                [program(), "serve", "--socket", agent.socket], stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                env=os.environ | {"NOTIFY_SOCKET": name})
            self.addCleanup(process.kill)
            seen = set()
            while not {b"READY=1", b"WATCHDOG=1"} <= seen:
                seen.add(manager.recv(4096))
            process.terminate()
            while b"STOPPING=1" not in seen:
                seen.add(manager.recv(4096))
            self.assertEqual(process.wait(DEADLINE), 0)
