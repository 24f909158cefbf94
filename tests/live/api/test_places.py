"""Reading: places, ETags, methods, what a path and a query may say."""

import json

from agent import EMPTY_OUTPUT, JSON, LiveTest, merged, region


class Reading(LiveTest):
    def test_an_empty_cloud_has_revision_0(self) -> None:
        for path, document in (("/v1/cloud", {}), ("/v1/output", EMPTY_OUTPUT)):
            answer = self.client.get(path)
            self.assertEqual(self.ok(answer), document)
            self.assertEqual(answer.etag, '"0"')
            self.assertEqual(answer.headers["Vnagent-Revision"], "0")

    def test_the_agent_says_who_it_is(self) -> None:
        info = self.ok(self.client.get("/v1"))
        self.assertEqual(info["name"], "vnagent")
        self.assertEqual(info["api"], 1)
        self.assertEqual(info["revision"], 0)
        self.assertRegex(info["instance"], r"^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$")
        self.assertRegex(info["check"], r"^[0-9a-f]{16}$")
        self.assertIs(info["durable"], False)
        self.assertIs(info["requireLock"], False)
        self.assertEqual(info["role"], "admin")
        self.assertIsInstance(info["principal"], str)
        self.assertIsInstance(info["version"], str)
        self.assertGreaterEqual(info["uptime"], 0)
        self.assertIn("toggle", info)
        self.load()
        after = self.ok(self.client.get("/v1"))
        self.assertEqual(after["revision"], 1)
        self.assertNotEqual(after["check"], info["check"])
        self.assertEqual(after["instance"], info["instance"])

    def test_a_document_prints_what_is_not_default(self) -> None:
        self.load()
        expected = {"region": {"RegionOne": region()}}
        answer = self.client.get("/v1/cloud")
        self.assertEqual(self.ok(answer), expected)
        self.assertEqual(answer.etag, '"1"')
        self.assertEqual(answer.headers["Vnagent-Revision"], "1")

    def test_attributes_without_effect_print_as_given(self) -> None:
        self.client.patch({"config": {"regionSyncTimeout": 5}})
        self.assertEqual(self.client.cloud(), {"config": {"regionSyncTimeout": 5}})

    def test_every_object_and_scalar_is_a_place(self) -> None:
        self.load()
        top = {"segmentationType": "vxlan", "segmentationId": 10001}
        places = {
            "region/RegionOne": region(),
            "region/RegionOne/segment": region()["segment"],
            "region/RegionOne/segment/seg-top": top,
            "region/RegionOne/segment/seg-top/segmentationId": 10001,
            "region/RegionOne/segment/seg-top/segmentationType": "vxlan",
            "region/RegionOne/port/p1": {},
            "region/RegionOne/network/net-1": {},
            "region/RegionOne/portBinding/p1/portToHostBinding/compute-1/segment/0": "seg-top",
            "region/%52egionOne/port/p2/vlanType": 1,
        }
        for place, value in places.items():
            with self.subTest(place):
                self.assertEqual(self.ok(self.client.get(f"/v1/cloud/{place}")), value)
        vlan = self.ok(self.client.get(
            "/v1/output/requestedResources/resourcesForHostname/compute-1/vlan/100"))
        self.assertEqual(vlan, {"referrer": ["p1"], "mappedVni": {"10001": ["p1"]}})
        self.assertEqual(self.ok(self.client.get("/v1/output/regionStatus/RegionOne/syncStatus")),
                         "syncUnknown")

    def test_what_is_not_printed_does_not_exist(self) -> None:
        self.load()
        for path in ("cloud/region/Nowhere", "cloud/region/RegionOne/segment/none",
                     "cloud/region/RegionOne/port/p1/vlanType",
                     "cloud/region/RegionOne/syncInterval", "cloud/region/RegionOne/tenant",
                     "cloud/config", "cloud/nothing", "output/regionStatus/Nowhere",
                     "output/requestedResources/resourcesForHostname/compute-1/domain/RegionOne/0"):
            with self.subTest(path):
                self.refused(self.client.get(f"/v1/{path}"), 404, "not-found")

    def test_slashes_in_names_are_encoded(self) -> None:
        binding = {"Ethernet1/1": {"host": "h"}}
        self.ok(self.client.patch({"region": {"R/1 é": {
            "port": {"p": {}},
            "portBinding": {"p": {"portToSwitchInterfaceBinding": {"leaf": binding}}}}}}))
        at = "/v1/cloud/region/R%2F1%20%C3%A9/portBinding/p/portToSwitchInterfaceBinding/leaf"
        self.assertEqual(self.ok(self.client.get(at)), binding)
        self.assertEqual(self.ok(self.client.get(f"{at}/Ethernet1%2f1")), {"host": "h"})
        self.assertEqual(self.ok(self.client.get(f"{at}/Ethernet1%2F1/host")), "h")
        self.refused(self.client.get(f"{at}/Ethernet1/1"), 404)

    def test_a_pointer_names_what_a_path_cannot(self) -> None:
        binding = {"": {"host": "h"}, "a~b": {"host": "i"}}
        self.ok(self.client.patch({"region": {"R 1": {
            "port": {"p": {}},
            "portBinding": {"p": {"portToSwitchInterfaceBinding": {"le/af": binding}}}}}}))
        at = "/v1/cloud?at=/region/R+1/portBinding/p/portToSwitchInterfaceBinding/le~1af"
        self.assertEqual(self.ok(self.client.get(at)), binding)
        self.assertEqual(self.ok(self.client.get(at + "/")), {"host": "h"})
        self.assertEqual(self.ok(self.client.get(at + "//host")), "h")
        self.assertEqual(self.ok(self.client.get(at + "/a~0b/host")), "i")
        self.assertEqual(self.ok(self.client.get(at.replace("/", "%2F")
                                                 .replace("%2Fv1%2Fcloud", "/v1/cloud"))), binding)
        self.assertEqual(self.ok(self.client.get("/v1/cloud?at=")), self.client.cloud())
        self.refused(self.client.get("/v1/cloud?at=/region/none"), 404)

    def test_a_plus_is_itself_in_a_path(self) -> None:
        self.ok(self.client.patch({"region": {"a+b": {}, "a b": {"syncInterval": 1}}}))
        self.assertEqual(self.ok(self.client.get("/v1/cloud/region/a+b")), {})
        self.assertEqual(self.ok(self.client.get("/v1/cloud?at=/region/a+b")), {"syncInterval": 1})
        self.assertEqual(self.ok(self.client.get("/v1/cloud?at=/region/a%2Bb")), {})

    def test_dots_are_names(self) -> None:
        self.ok(self.client.patch({"region": {"..": {"syncInterval": 2}, ".": {}}}))
        self.assertEqual(self.ok(self.client.get("/v1/cloud/region/..")), {"syncInterval": 2})
        self.assertEqual(self.ok(self.client.get("/v1/cloud/region/%2E%2e/syncInterval")), 2)
        self.assertEqual(self.ok(self.client.get("/v1/cloud/region/.")), {})
        self.assertEqual(self.ok(self.client.get("/v1/cloud?at=/region/..")), {"syncInterval": 2})
        self.refused(self.client.get("/v1/cloud/region/../.."), 404)
        self.refused(self.client.get("/v1/x/../cloud"), 404)

    def test_an_empty_segment_is_not_found(self) -> None:
        self.load()
        for path in ("/v1/cloud/", "/v1/cloud//region", "/v1/cloud/region/",
                     "/v1/cloud/region//segment", "/v1/output/", "/v1/", "//v1"):
            with self.subTest(path):
                self.refused(self.client.get(path), 404, "not-found")

    def test_paths_and_queries_that_cannot_be_read(self) -> None:
        self.load()
        for path in ("/v1/cloud/region/%", "/v1/cloud/region/%4", "/v1/cloud/region/%GG",
                     "/v1/cloud/region/%ff", "/v1/cloud/region/%C0%80",
                     "/v1/cloud/region/%ED%A0%80",
                     "/v1/cloud?at=/region/%ff", "/v1/cloud?at=/region/%zz",
                     "/v1/cloud?at=region", "/v1/cloud?at=/a~2", "/v1/cloud?at=/a~",
                     "/v1/cloud?at=/region&at=/config",
                     "/v1/cloud/region/RegionOne?at=/region/RegionOne",
                     "/v1/cloud?depth=1", "/v1/cloud?dry-run=true", "/v1?x", "/v1/cloud?wait=1",
                     "/v1/output?wait=-1", "/v1/output?wait=x", "/v1/output?wait=",
                     "/v1/output?wait=1&timeout=301", "/v1/output?wait=1&timeout=-1",
                     "/v1/output?wait=1&timeout=x", "/v1/output?wait=1&wait=1",
                     "/v1/region/RegionOne/sync?x=1"):
            with self.subTest(path):
                self.refused(self.client.get(path), 400, "bad-request")

    def test_a_misspelt_dry_run_does_not_write(self) -> None:
        with self.unchanged():
            for query in ("dry_run=true", "dryrun=true", "dry-run=yes", "dry-run=true&dry-run=true",
                          "Dry-Run=true"):
                with self.subTest(query):
                    self.refused(self.client.patch({"region": {"R": {}}}, f"/v1/cloud?{query}"),
                                 400, "bad-request")

    def test_reading_under_a_condition(self) -> None:
        self.load()
        for condition in ('"1"', 'W/"1"', '"0", "1"', "*"):
            with self.subTest(condition):
                answer = self.client.get("/v1/cloud", If_None_Match=condition)
                self.assertEqual((answer.status, answer.body), (304, b""))
                self.assertEqual(answer.etag, '"1"')
        for condition in ('"0"', '"11"', '"0", "2"'):
            with self.subTest(condition):
                self.ok(self.client.get("/v1/cloud", If_None_Match=condition))
        answer = self.client.get("/v1/output", If_None_Match='"1"')
        self.assertEqual(answer.status, 304)
        place = "/v1/cloud/region/RegionOne/segment/seg-top"
        self.ok(self.client.patch({"region": {"RegionOne": {"port": {"p9": {}}}}}))
        self.assertEqual(self.client.get(place, If_None_Match='"1"').status, 304)
        self.ok(self.client.get("/v1/cloud", If_None_Match='"1"'))

    def test_head_is_get_without_the_body(self) -> None:
        self.load()
        for path in ("/v1", "/v1/cloud", "/v1/cloud/region/RegionOne", "/v1/output", "/v1/trace",
                     "/v1/region/RegionOne/sync", "/v1/inspect", "/healthz", "/readyz", "/metrics",
                     "/openapi.json"):
            with self.subTest(path):
                head, get = self.client.request("HEAD", path), self.client.get(path)
                self.assertEqual((head.status, head.body), (200, b""))
                self.assertEqual(head.media, get.media)
                self.assertEqual(head.etag, get.etag)
        self.assertEqual(self.client.request("HEAD", "/v1/cloud/region/none").status, 404)
        answer = self.client.request("HEAD", "/v1/cloud", headers={"If-None-Match": '"1"'})
        self.assertEqual(answer.status, 304)

    def test_a_method_that_is_not_there_names_those_that_are(self) -> None:
        self.load()
        for method, path, allowed in (
                ("POST", "/v1/cloud", "GET HEAD PATCH"), ("PATCH", "/v1/output", "GET HEAD"),
                ("PUT", "/v1/output", "GET HEAD"), ("DELETE", "/v1/output/regionStatus", "GET HEAD"),
                ("POST", "/v1", "GET HEAD"), ("POST", "/v1/watch", "GET"),
                ("HEAD", "/v1/watch", "GET"), ("HEAD", "/v1/trace/tail", "GET"),
                ("GET", "/v1/batch", "POST"), ("PUT", "/v1/batch", "POST"),
                ("POST", "/v1/cloud/region/RegionOne", "GET HEAD PATCH PUT DELETE"),
                ("PUT", "/v1/cloud/region/RegionOne/port/p1", "GET HEAD PATCH DELETE"),
                ("PUT", "/v1/cloud", "GET HEAD PATCH"),
                ("POST", "/v1/region/RegionOne/sync", "GET HEAD"),
                ("GET", "/v1/region/RegionOne/sync/lock", "POST DELETE"),
                ("GET", "/v1/region/RegionOne/sync/start", "POST"),
                ("DELETE", "/v1/region/RegionOne/sync/heartbeat", "POST"),
                ("PUT", "/v1/region/RegionOne/sync/complete", "POST"),
                ("DELETE", "/v1/trace", "GET HEAD PUT"), ("POST", "/v1/inspect", "GET HEAD"),
                ("POST", "/healthz", "GET HEAD"), ("PUT", "/readyz", "GET HEAD"),
                ("POST", "/metrics", "GET HEAD"), ("PATCH", "/openapi.json", "GET HEAD"),
                ("FROB", "/v1/cloud/region", "GET HEAD")):
            with self.subTest(f"{method} {path}"):
                answer = self.client.request(method, path)
                self.assertEqual(answer.status, 405)
                allow = {word.strip() for word in answer.headers["Allow"].split(",")}
                self.assertLessEqual(set(allowed.split()), allow)
                self.assertNotIn(method, allow)
                if method != "HEAD":
                    self.refused(answer, 405, "method-not-allowed")

    def test_routes_that_are_not_there(self) -> None:
        for path in ("/", "/v2", "/v1/clouds", "/v1/region", "/v1/region/R/sync/stop",
                     "/v1/region/R", "/v1/sync", "/v1/watch/cloud", "/v1/batch/1", "/v1/trace/head",
                     "/healthz/x", "/V1/cloud"):
            for method in ("GET", "DELETE"):
                with self.subTest(f"{method} {path}"):
                    self.refused(self.client.request(method, path), 404, "not-found")

    def test_what_the_client_accepts(self) -> None:
        for accepted in ("*/*", "application/json", "application/*;q=0.5", "text/html, */*;q=0.1"):
            self.ok(self.client.get("/v1/cloud", Accept=accepted))
        self.refused(self.client.get("/v1/cloud", Accept="text/html"), 406, "not-acceptable")

    def test_a_query_and_a_place_of_the_output_agree(self) -> None:
        self.load()
        output = self.client.output()
        for name, part in output.items():
            self.assertEqual(self.ok(self.client.get(f"/v1/output/{name}")), part)
            self.assertEqual(self.ok(self.client.get(f"/v1/output?at=/{name}")), part)
        self.assertEqual(merged({}, output), output)


class WaitingForARevision(LiveTest):
    def test_a_revision_that_is_there(self) -> None:
        self.load()
        for wait in (0, 1):
            answer = self.client.get(f"/v1/output?wait={wait}")
            self.assertEqual(self.ok(answer), self.client.output())
            self.assertEqual(answer.headers["Vnagent-Revision"], "1")

    def test_a_revision_that_comes(self) -> None:
        connection = self.client.connect()
        self.addCleanup(connection.close)
        connection.request("GET", "/v1/output?wait=2&timeout=30")
        self.load()
        self.load(Two={})
        response = connection.getresponse()
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["Vnagent-Revision"], "2")
        self.assertEqual(response.headers["Content-Type"].split(";")[0], JSON)
        self.assertIn(b'"Two"', response.read())

    def test_a_revision_that_does_not_come(self) -> None:
        self.refused(self.client.get("/v1/output?wait=1&timeout=0"), 504, "not-yet")
        self.refused(self.client.get("/v1/output?wait=1&timeout=0.2"), 504, "not-yet")


class Connections(LiveTest):
    def test_a_connection_serves_many_requests(self) -> None:
        connection = self.client.connect()
        self.addCleanup(connection.close)
        for number in range(1, 20):
            self.client.send(connection, "PATCH", "/v1/cloud", {"region": {f"R{number}": {}}})
            response = connection.getresponse()
            self.assertEqual(response.status, 200)
            self.assertIn(str(number).encode(), response.read())
            socket = connection.sock
            self.assertIsNotNone(socket, "the server closed the connection")

    def test_requests_in_a_pipeline_are_answered_in_order(self) -> None:
        head = b"Host: x\r\n"
        received = self.client.raw(
            b"GET /v1/cloud HTTP/1.1\r\n" + head + b"\r\n"
            b"PATCH /v1/cloud/region/R HTTP/1.1\r\n" + head +
            b"Content-Type: application/merge-patch+json\r\nContent-Length: 2\r\n\r\n{}"
            b"GET /v1/nowhere HTTP/1.1\r\n" + head + b"\r\n"
            b"GET /v1/cloud HTTP/1.1\r\n" + head + b"Connection: close\r\n\r\n")
        self.assertEqual([part[:3] for part in received.split(b"HTTP/1.1 ")[1:]],
                         [b"200", b"200", b"404", b"200"])
        self.assertEqual(json.loads(received[received.rindex(b"\r\n\r\n"):]), {"region": {"R": {}}})

    def test_framing_that_two_readers_could_read_differently(self) -> None:
        start = b"PATCH /v1/cloud HTTP/1.1\r\nHost: x\r\nContent-Type: application/merge-patch+json\r\n"
        with self.unchanged():
            for headers in (b"Content-Length: 2\r\nTransfer-Encoding: chunked\r\n",
                            b"Content-Length: 2\r\nContent-Length: 3\r\n",
                            b"Transfer-Encoding: gzip\r\n",
                            b"Transfer-Encoding: gzip, chunked\r\n",
                            b"Content-Length: -2\r\n", b"Content-Length: 2x\r\n"):
                with self.subTest(headers):
                    received = self.client.raw(start + headers + b"\r\n{}\r\n0\r\n\r\n")
                    self.assertTrue(received.startswith(b"HTTP/1.1 400 "), received)
                    self.assertEqual(received.count(b"HTTP/1.1 "), 1)

    def test_a_body_may_be_chunked(self) -> None:
        received = self.client.raw(
            b"PATCH /v1/cloud HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
            b"Content-Type: application/merge-patch+json\r\nTransfer-Encoding: chunked\r\n\r\n"
            b"b\r\n{\"region\":{\r\n9\r\n\"R\": {}}}\r\n0\r\n\r\n")
        self.assertTrue(received.startswith(b"HTTP/1.1 200 "), received)
        self.assertEqual(self.client.cloud(), {"region": {"R": {}}})

    def test_a_header_that_is_too_large(self) -> None:
        answer = self.client.get("/v1/cloud", X_Padding="x" * 20000)
        self.refused(answer, 431, "header-too-large")


class Limits(LiveTest):
    options = ("--max-body", "1000")

    def test_a_body_that_is_too_large(self) -> None:
        with self.unchanged():
            self.refused(self.client.patch({"region": {"x" * 1000: {}}}), 413, "too-large")
        self.ok(self.client.patch({"region": {"x" * 200: {}}}))

    def test_a_chunked_body_that_is_too_large(self) -> None:
        received = self.client.raw(
            b"PATCH /v1/cloud HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
            b"Content-Type: application/merge-patch+json\r\nTransfer-Encoding: chunked\r\n\r\n"
            b"7d0\r\n" + b" " * 2000 + b"\r\n0\r\n\r\n")
        self.assertTrue(received.startswith(b"HTTP/1.1 413 "), received)
