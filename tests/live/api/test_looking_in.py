"""Trace level and trace lines, inspection, health, metrics, the interface's description."""

import json
import subprocess
import tempfile

from agent import LiveTest, Stream, program, region


class Traces(LiveTest):
    def test_the_level_is_set_and_read(self) -> None:
        for level in (3, 9, 0):
            self.ok(self.client.request("PUT", "/v1/trace", {"level": level}))
            self.assertEqual(self.ok(self.client.get("/v1/trace")), {"level": level})
        for body in ({"level": 10}, {"level": -1}, {"level": "3"}, {"level": 1.5}, {}, [],
                     {"level": 3, "color": 1}):
            with self.subTest(body=body):
                answer = self.client.request("PUT", "/v1/trace", body)
                self.assertIn(answer.status, (400, 422))
                self.refused(answer, answer.status)
        self.assertEqual(self.ok(self.client.get("/v1/trace")), {"level": 0})

    def test_lines_are_streamed(self) -> None:
        self.ok(self.client.request("PUT", "/v1/trace", {"level": 9}))
        stream = self.client.stream("/v1/trace/tail")
        self.assertIsInstance(stream, Stream)
        self.addCleanup(stream.close)
        self.load()
        event = stream.next()
        self.assertIsNotNone(event)
        self.assertTrue(event.data)
        self.assertEqual(self.client.revision(), 1)


class Inspection(LiveTest):
    def test_it_shows_what_the_program_shows_offline(self) -> None:
        cloud = {"region": {"RegionOne": region(), "a/b": {}}}
        self.ok(self.client.patch(cloud))
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            json.dump(cloud, file)
            file.flush()
            for path, pointer in (
                    ("", "/openStackSm"), ("/openStackSm", "/openStackSm"),
                    ("/openStackSm/regionConfigSm/RegionOne/portBindingSm/p1",
                     "/openStackSm/regionConfigSm/RegionOne/portBindingSm/p1"),
                    ("/openStackSm/regionConfigSm/a%2Fb", "/openStackSm/regionConfigSm/a~1b")):
                with self.subTest(path):
                    offline = subprocess.run([program(), "run", file.name, "--inspect", pointer],
                                             capture_output=True, check=True)
                    self.assertEqual(self.ok(self.client.get(f"/v1/inspect{path}")),
                                     json.loads(offline.stdout))

    def test_a_path_that_leads_nowhere(self) -> None:
        for path in ("/none", "/openStackSm/none", "/openStackSm/regionConfigSm/none"):
            self.refused(self.client.get(f"/v1/inspect{path}"), 404, "not-found")


class Health(LiveTest):
    def test_the_agent_is_healthy_and_ready(self) -> None:
        for path in ("/healthz", "/readyz"):
            self.assertEqual(self.client.get(path).status, 200)

    def test_metrics(self) -> None:
        self.load()
        answer = self.client.get("/metrics")
        self.assertEqual((answer.status, answer.media), (200, "text/plain"))
        text = answer.body.decode()
        self.assertRegex(text, r"(?m)^# TYPE \w+ (counter|gauge|histogram)$")
        self.assertRegex(text, r"(?m)^\w*revision\w*(\{.*\})? 1(\.0)?$")

    def test_the_interface_describes_itself(self) -> None:
        description = self.ok(self.client.get("/openapi.json"))
        self.assertTrue(description["openapi"].startswith("3."))
        methods = {path: set(item) for path, item in description["paths"].items()}
        for path, expected in (("/v1", {"get"}), ("/v1/cloud", {"get", "patch"}),
                               ("/v1/output", {"get"}), ("/v1/batch", {"post"}),
                               ("/v1/watch", {"get"}), ("/v1/trace", {"get", "put"}),
                               ("/healthz", {"get"}), ("/readyz", {"get"}), ("/metrics", {"get"}),
                               ("/openapi.json", {"get"})):
            self.assertIn(path, methods)
            self.assertLessEqual(expected, methods[path])


class Stopping(LiveTest):
    def test_what_was_accepted_is_answered(self) -> None:
        self.load()
        self.assertEqual(self.agent.terminate(), 0)
        self.assertFalse((self.agent.folder / "agent.sock").exists())
