"""Who may do what: tokens on loopback, roles, and what a principal of one region sees."""

import subprocess
from typing import Any

from agent import (DEADLINE, Agent, LiveTest, free_port, named_region,
                   program, tcp_client, token_file)

MINE, OTHER = "Mine", "Secret"


class RolesTest(LiveTest):
    """An agent on loopback with a principal for each role; two regions share a switch and a host's
    name. `self.client` is on the Unix socket, an administrator."""

    more_options: tuple[str, ...] = ()

    def setUp(self) -> None:
        agent = Agent()
        port = free_port()
        tokens = token_file(agent.folder, {
            "reader": "read", "driver": f"write:{MINE}", "both": f"write:{MINE},{OTHER}",
            "writer": "write", "boss": "admin"})
        agent.options = ["--listen", f"127.0.0.1:{port}", "--tokens", tokens, *self.more_options]
        self.addCleanup(agent.close)
        self.agent = agent.start()
        self.client = agent.client
        self.reader, self.driver, self.both, self.writer, self.boss, self.nobody = (
            tcp_client(port, name)
            for name in ("reader", "driver", "both", "writer", "boss", None))
        self.stranger = tcp_client(port, "stranger")

    def load_both(self) -> None:
        self.load(**{MINE: named_region("mine"), OTHER: named_region("secret")})
        self.ok(self.client.patch({"config": {"vlanTypeDriver": 0, "vlanAssignment": {
            MINE: {"vlan": {"100": True}}, OTHER: {"vlan": {"4001": True}}}}}))


class Credentials(RolesTest):
    def test_only_two_routes_answer_without(self) -> None:
        for client in (self.nobody, self.stranger):
            for path in ("/healthz", "/readyz"):
                self.assertEqual(client.get(path).status, 200)
            for path in ("/v1", "/v1/cloud", "/v1/output", "/v1/watch", "/v1/inspect", "/metrics",
                         "/v1/trace", "/v1/trace/tail", "/openapi.json", "/v1/region/R/sync"):
                with self.subTest(path):
                    answer = client.get(path)
                    self.refused(answer, 401, "unauthenticated")
                    self.assertIn("Bearer", answer.headers["WWW-Authenticate"])
            self.refused(client.patch({}), 401, "unauthenticated")

    def test_who_it_is_comes_after_the_query_and_before_the_route(self) -> None:
        self.refused(self.nobody.get("/v1/nowhere"), 401)
        self.refused(self.nobody.request("POST", "/v1/cloud", {}), 401)
        self.refused(self.nobody.get("/v1/cloud?at=%zz"), 400)

    def test_credentials_that_cannot_be_read(self) -> None:
        for value in ("Bearer", "Basic dG9rZW4=", "Bearer token-of-", "token-of-boss"):
            with self.subTest(value):
                self.refused(self.nobody.get("/v1", Authorization=value), 401, "unauthenticated")
        self.assertEqual(self.nobody.get("/v1", Authorization="bearer token-of-boss").status, 200)

    def test_each_learns_who_it_is(self) -> None:
        for client, name, role in ((self.reader, "reader", "read"), (self.boss, "boss", "admin"),
                                   (self.driver, "driver", f"write:{MINE}"),
                                   (self.writer, "writer", "write")):
            info = self.ok(client.get("/v1"))
            self.assertEqual((info["principal"], info["role"]), (name, role))

    def test_a_token_is_never_shown(self) -> None:
        self.ok(self.boss.get("/v1"))
        self.refused(self.stranger.get("/v1"), 401)
        self.boss.patch({"region": {"R": {"x": "y"}}})
        self.assertNotIn(b"token-of", self.agent.log.read_bytes())


class Roles(RolesTest):
    def test_readers_read_everything_and_change_nothing(self) -> None:
        self.load_both()
        for path in ("/v1/cloud", "/v1/output"):
            self.assertEqual(self.reader.get(path).json, self.client.get(path).json)
        with self.unchanged():
            for method, path, body in (
                    ("PATCH", "/v1/cloud", {}), ("PATCH", "/v1/cloud?dry-run=true", {}),
                    ("PUT", f"/v1/cloud/region/{MINE}", {}),
                    ("DELETE", f"/v1/cloud/region/{MINE}", None), ("POST", "/v1/batch", [{}]),
                    ("POST", f"/v1/region/{MINE}/sync/lock", {"requester": "a", "requestId": "r"}),
                    ("POST", f"/v1/region/{MINE}/sync/start", None),
                    ("DELETE", f"/v1/region/{MINE}/sync/lock?force=true", None),
                    ("PUT", "/v1/trace", {"level": 3})):
                with self.subTest(f"{method} {path}"):
                    self.refused(self.reader.request(method, path, body,
                                                     {"Sync-Request-Id": "r"}), 403, "forbidden")

    def test_writers_change_everything_but_what_administrators_do(self) -> None:
        self.load_both()
        self.ok(self.writer.patch({"region": {OTHER: {"network": {"n": {}}}}}))
        self.ok(self.writer.patch({"config": {"vlanTypeDriver": 2}}))
        self.ok(self.writer.lock(OTHER, "a", "r1"))
        with self.unchanged():
            self.refused(self.writer.unlock(OTHER, None, "?force=true"), 403, "forbidden")
            self.refused(self.writer.request("PUT", "/v1/trace", {"level": 3}), 403, "forbidden")
        self.ok(self.boss.unlock(OTHER, None, "?force=true"))
        self.ok(self.boss.request("PUT", "/v1/trace", {"level": 0}))

    def test_keys_of_two_principals_are_two_keys(self) -> None:
        key = {"Idempotency-Key": "k"}
        self.ok(self.writer.patch({"region": {"A": {}}}, headers=key))
        self.ok(self.boss.patch({"region": {"B": {}}}, headers=key))
        self.assertEqual(self.client.revision(), 2)


class RestrictedReading(RolesTest):
    """The principal "driver" has one of two regions."""

    def setUp(self) -> None:
        super().setUp()
        self.load_both()
        # A host and a switch interface that both regions need.
        for name, mark in ((MINE, "mine"), (OTHER, "secret")):
            self.ok(self.client.patch({"region": {name: {
                "port": {f"{mark}-p3": {}},
                "portBinding": {f"{mark}-p3": {"portToSwitchInterfaceBinding": {"leaf-1": {
                    "Shared": {"host": f"{mark}-remote", "segment": {"0": "seg-rack"}}}}}}}}}))

    def test_the_cloud_has_its_region_alone(self) -> None:
        cloud = self.client.cloud()
        self.assertEqual(self.driver.cloud(), {
            "config": {"vlanAssignment": {MINE: cloud["config"]["vlanAssignment"][MINE]}},
            "region": {MINE: cloud["region"][MINE]}})
        self.assertEqual(self.both.cloud(), cloud)

    def test_the_output_has_its_part_alone(self) -> None:
        output, seen = self.client.output(), self.driver.output()
        resources = output["requestedResources"]
        self.assertEqual(seen["regionStatus"], {MINE: output["regionStatus"][MINE]})
        self.assertEqual(seen["requestedResources"]["resourcesForHostname"],
                         {"mine-compute": resources["resourcesForHostname"]["mine-compute"]})
        ports = seen["requestedResources"]["resourcesForSwitchport"]["leaf-1"]
        self.assertEqual(ports["Shared"], {
            "vlan": {"100": {"referrer": ["mine-p3"], "mappedVni": {}}},
            "nativeVlan": resources["resourcesForSwitchport"]["leaf-1"]["Shared"]["nativeVlan"],
            "remoteHost": ["mine-remote"], "referrer": ["bm-mine-p3"]})
        self.assertNotIn("secret", str(seen))

    def test_no_route_shows_anything_of_another_region(self) -> None:
        at = f"?at=/region/{OTHER}"
        paths = ["/v1", "/v1/cloud", "/v1/output", "/v1/cloud/region", "/v1/cloud/config",
                 "/v1/output/regionStatus", "/v1/output/requestedResources", "/openapi.json",
                 f"/v1/cloud/region/{OTHER}", f"/v1/cloud{at}", f"/v1/cloud/region/{OTHER}/port",
                 f"/v1/output/regionStatus/{OTHER}", f"/v1/region/{OTHER}/sync",
                 f"/v1/cloud/config/vlanAssignment/{OTHER}",
                 "/v1/output/requestedResources/resourcesForHostname/secret-compute",
                 "/v1/inspect", f"/v1/inspect/openStackSm/regionConfigSm/{OTHER}", "/metrics",
                 "/v1/trace", "/v1/trace/tail", "/healthz", "/readyz"]
        for path in paths:
            for method in ("GET", "HEAD"):
                with self.subTest(f"{method} {path}"):
                    answer = self.driver.request(method, path)
                    text = answer.body.replace(OTHER.encode(), b"") if OTHER in path else answer.body
                    self.assertNotIn(b"secret", text)
                    # Not the digits of a time, a check value or a UUID.
                    self.assertNotRegex(text, rb"(?<![0-9a-f.-])4001(?![0-9a-f.-])")
                    self.assertNotIn(OTHER.encode(), text)

    def test_reading_what_is_not_its_own(self) -> None:
        for path in (f"/v1/cloud/region/{OTHER}", "/v1/cloud/region/none",
                     f"/v1/cloud/config/vlanAssignment/{OTHER}",
                     f"/v1/output/regionStatus/{OTHER}", "/v1/output/regionStatus/none",
                     "/v1/output/requestedResources/resourcesForHostname/secret-compute"):
            with self.subTest(path):
                self.refused(self.driver.get(path), 404, "not-found")
        statuses = {self.driver.get(f"/v1/region/{name}/sync").status for name in (OTHER, "none")}
        self.assertEqual(len(statuses), 1)
        self.assertLessEqual(statuses, {403, 404})
        for path in ("/metrics", "/v1/inspect", "/v1/trace", "/v1/trace/tail"):
            with self.subTest(path):
                self.refused(self.driver.get(path), 403, "forbidden")
        self.refused(self.driver.request("PUT", "/v1/trace", {"level": 9}), 403, "forbidden")

    def test_a_watch_shows_its_part_alone(self) -> None:
        for of, whole in (("output", self.driver.output), ("cloud", self.driver.cloud)):
            with self.subTest(of):
                watch = self.follow(f"/v1/watch?of={of}", self.driver)
                self.assertEqual(watch.next().data, whole())
                self.ok(self.client.patch({"region": {OTHER: {
                    "port": {"secret-p3": {}}, "portBinding": {"secret-p3": None}}}}))
                self.ok(self.client.patch({"region": {OTHER: {"portBinding": {"secret-p3": {
                    "portToSwitchInterfaceBinding": {"leaf-1": {"Shared": {
                        "host": "secret-remote", "segment": {"0": "seg-rack"}}}}}}}}}))
                revision = self.ok(self.client.patch({"region": {MINE: {
                    "syncHeartbeat": 1 if of == "output" else 2,
                    "syncStatus": "syncInProgress" if of == "output" else "syncUnknown"}}}))[
                        "revision"]
                watch.until(revision)
                self.assertEqual(watch.document, whole())
                self.assertNotIn("secret", str(watch.events))
                self.assertNotIn(OTHER, str(watch.events))
                self.assertEqual([e.revision for e in watch.events if e.name == "patch"],
                                 [revision])

    def test_a_watch_of_another_region(self) -> None:
        watch = self.follow(f"/v1/watch?of=cloud&at=/region/{OTHER}&at=/region/{MINE}/syncInterval",
                            self.driver)
        self.assertEqual(watch.next().data, {})
        self.ok(self.client.patch({"region": {OTHER: {"syncInterval": 77}}}))
        revision = self.ok(self.client.patch({"region": {MINE: {"syncInterval": 5}}}))["revision"]
        watch.until(revision)
        self.assertEqual(watch.document, {"region": {MINE: {"syncInterval": 5}}})


class RestrictedWriting(RolesTest):
    def setUp(self) -> None:
        super().setUp()
        self.load_both()

    def test_its_own_region_is_its_to_change(self) -> None:
        path = f"/v1/cloud/region/{MINE}"
        self.ok(self.driver.patch({"region": {MINE: {"network": {"n": {}}}}}))
        self.ok(self.driver.request("PUT", path, self.driver.get(path).json))
        self.ok(self.driver.request("DELETE", f"{path}/network/n"))
        self.ok(self.driver.lock(MINE, "d", "r1"))
        for what in ("start", "heartbeat", "complete"):
            self.ok(self.driver.step(MINE, what, "r1"))
        self.ok(self.driver.request("DELETE", path))
        self.ok(self.driver.request("PUT", path, {}), 201)
        self.assertIn("secret", str(self.client.cloud()))

    def test_other_regions_are_not(self) -> None:
        changes: list[tuple[str, str, Any]] = [
            ("PATCH", "/v1/cloud", {"region": None}), ("PATCH", "/v1/cloud/region", None),
            ("PATCH", "/v1/cloud", {"config": {"vlanTypeDriver": 1}}),
            ("PATCH", "/v1/cloud", {"config": {}}), ("PATCH", "/v1/cloud", {"config": None}),
            ("PATCH", "/v1/cloud", {"config": {"vlanAssignment": {MINE: None}}}),
            ("PATCH", f"/v1/cloud/config/vlanAssignment/{MINE}", {"vlan": {"7": True}}),
            ("DELETE", f"/v1/cloud/config/vlanAssignment/{MINE}", None)]
        for name in (OTHER, "none"):
            path = f"/v1/cloud/region/{name}"
            changes += [
                ("PATCH", "/v1/cloud", {"region": {name: {}}}),
                ("PATCH", "/v1/cloud", {"region": {name: None}}),
                ("PATCH", "/v1/cloud", {"region": {MINE: {}, name: {"x": 1}}}),
                ("PATCH", path, {}), ("PATCH", f"/v1/cloud?at=/region/{name}", {}),
                ("PATCH", f"{path}/port/p", {}), ("PUT", path, {}),
                ("PUT", f"{path}?dry-run=true", {}), ("DELETE", path, None),
                ("DELETE", f"{path}/port/secret-p1", None),
                ("POST", f"/v1/region/{name}/sync/lock", {"requester": "a", "requestId": "r"}),
                ("POST", f"/v1/region/{name}/sync/start", None),
                ("POST", f"/v1/region/{name}/sync/heartbeat", None),
                ("POST", f"/v1/region/{name}/sync/complete", None),
                ("DELETE", f"/v1/region/{name}/sync/lock", None)]
        with self.unchanged():
            for method, path, body in changes:
                with self.subTest(f"{method} {path} {body}"):
                    # A body of null is a patch.
                    data = b"null" if body is None and method == "PATCH" else body
                    answer = self.driver.request(method, path, data, {"Sync-Request-Id": "r"})
                    self.refused(answer, 403, "forbidden")
                    self.assertNotIn(b"secret", answer.body)
                    if method in ("PATCH", "PUT", "DELETE"):
                        answer = self.driver.request(method, path, data, {"If-Match": '"99"'})
                        self.refused(answer, 403, "forbidden")

    def test_a_batch_changes_its_own_region_alone(self) -> None:
        with self.unchanged():
            answer = self.driver.request("POST", "/v1/batch", [{"region": {OTHER: {}}},
                                                               {"config": {}}])
            if answer.status == 200:
                for result in answer.json:
                    self.problem(result, 403, "forbidden")
            else:
                self.refused(answer, 403, "forbidden")
        self.assertEqual(len(self.ok(self.driver.request(
            "POST", "/v1/batch", [{"region": {MINE: {"network": {"n": {}}}}}]))), 1)

    def test_a_dry_run_shows_its_part_alone(self) -> None:
        answer = self.ok(self.driver.patch({"region": {MINE: None}}, "/v1/cloud?dry-run=true"))
        self.assertEqual(answer["output"]["regionStatus"], {MINE: None})
        self.assertNotIn("secret", str(answer))

    def test_a_fault_names_places_in_its_own_region_alone(self) -> None:
        clashes = [
            {"port": {"secret-p1": {}}},
            {"portBinding": {"mine-p1": {"portToHostBinding": {"secret-compute": {}}}}},
        ]
        with self.unchanged():
            for patch in clashes:
                with self.subTest(patch=patch):
                    problem = self.refused(self.driver.patch({"region": {MINE: patch}}),
                                           422, "rule-broken")
                    self.assertNotIn(OTHER, str(problem))
                    self.assertTrue(problem.get("pointer", f"/region/{MINE}")
                                    .startswith(f"/region/{MINE}"))


class RefusedStarts(LiveTest):
    def setUp(self) -> None:
        pass

    def refuses(self, agent: Agent, *words: str) -> None:
        self.addCleanup(agent.close)
        result = subprocess.run([program(), "serve", "--socket", agent.socket, *agent.options],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, timeout=DEADLINE, check=False)
        self.assertNotEqual(result.returncode, 0, result.stdout)
        for word in words:
            self.assertIn(word, result.stdout.decode())

    def test_tcp_needs_credentials(self) -> None:
        self.refuses(Agent("--listen", f"127.0.0.1:{free_port()}"))

    def test_tcp_beyond_loopback_needs_tls(self) -> None:
        agent = Agent()
        agent.options = ["--listen", f"0.0.0.0:{free_port()}",
                         "--tokens", token_file(agent.folder, {"a": "admin"})]
        self.refuses(agent)

    def test_a_token_file_that_others_may_read(self) -> None:
        agent = Agent()
        tokens = token_file(agent.folder, {"a": "admin"})
        (agent.folder / "tokens").chmod(0o644)
        agent.options = ["--listen", f"127.0.0.1:{free_port()}", "--tokens", tokens]
        self.refuses(agent)

    def test_a_token_file_that_cannot_be_read(self) -> None:
        for line in ("a admin", "a boss " + "0" * 64, "a admin xyz", "a write: " + "0" * 64):
            with self.subTest(line):
                agent = Agent()
                tokens = token_file(agent.folder, {"b": "read"})
                with open(tokens, "a", encoding="utf-8") as file:
                    file.write(line + "\n")
                agent.options = ["--listen", f"127.0.0.1:{free_port()}", "--tokens", tokens]
                self.refuses(agent)

    def test_a_second_start_names_the_first(self) -> None:
        first = self.start()
        second = Agent("--socket-role", "read")
        second.socket = first.socket
        self.refuses(second, str(first.process.pid))
        self.assertEqual(first.client.get("/readyz").status, 200)

    def test_a_second_start_on_the_same_state_names_the_first(self) -> None:
        first = self.stateful()
        second = Agent("--state-dir", str(first.folder / "state"))
        self.refuses(second, str(first.process.pid))
        self.ok(first.client.patch({"region": {"R": {}}}))


class SocketRoles(LiveTest):
    options = ("--socket-role", "read")

    def test_the_socket_has_the_role_that_was_asked_for(self) -> None:
        self.assertEqual(self.client.get("/v1").json["role"], "read")
        self.refused(self.client.patch({}), 403, "forbidden")

    def test_the_mode_of_the_socket(self) -> None:
        mode = (self.agent.folder / "agent.sock").stat().st_mode
        self.assertEqual(mode & 0o777, 0o660)
