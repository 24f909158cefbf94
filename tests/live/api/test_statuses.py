"""Every status that the description of the interface names, for every operation that names it.

The runner of these tests compares all answers with the description; what the other tests ask for by
themselves is not asked for here again, unless it costs nothing.
"""

import contextlib
import http.client
import resource
import socket
from collections.abc import Iterator
from typing import Any, NamedTuple

from agent import (DEADLINE, JSON, MERGE, Agent, LiveTest, Stream, UnixConnection, free_port, noted,
                   poll, region, tcp_client, token_file)

EVENTS = ("/v1/watch", "/v1/trace/tail")
PROBES = ("/healthz", "/readyz")


class Request(NamedTuple):
    method: str
    path: str
    body: Any = None

    @property
    def target(self) -> str:
        return self.path

    @property
    def is_probe(self) -> bool:
        return self.path in PROBES


PATCH = {"network": {"n": {}}}
CHANGES = [
    Request("PATCH", "/v1/cloud", {"region": {"R": PATCH}}),
    Request("PUT", "/v1/cloud?at=/region/R", PATCH),
    Request("DELETE", "/v1/cloud?at=/region/R"),
    Request("PATCH", "/v1/cloud/region/R", PATCH),
    Request("DELETE", "/v1/cloud/region/R"),
    Request("PUT", "/v1/cloud/region/R", PATCH),
]
BATCH = Request("POST", "/v1/batch", [{"region": {"R": PATCH}}])
TAKE = Request("POST", "/v1/region/R/sync/lock", {"requester": "a", "requestId": "r1"})
HELD = [Request("DELETE", "/v1/region/R/sync/lock"), Request("POST", "/v1/region/R/sync/start"),
        Request("POST", "/v1/region/R/sync/heartbeat"),
        Request("POST", "/v1/region/R/sync/complete")]
PLACES = ["/v1/cloud", "/v1/cloud/region/R", "/v1/output", "/v1/output/regionStatus/R"]
OTHERS = ["/v1", "/v1/region/R/sync", "/v1/inspect", "/v1/inspect/openStackSm", "/v1/trace",
          "/metrics", "/openapi.json", *PROBES]
READS = [Request(method, path) for path in PLACES + OTHERS for method in ("GET", "HEAD")]
STREAMS = [Request("GET", path) for path in EVENTS]
TRACE = Request("PUT", "/v1/trace", {"level": 0})
ALL = [*READS, *STREAMS, *CHANGES, BATCH, TAKE, *HELD, TRACE]


class StatusTest(LiveTest):
    def setUp(self) -> None:
        super().setUp()
        self.load(R=region())

    def expect(self, status: int, request: Request, headers: dict[str, Any] | None = None,
               client: Any = None, body: Any = None, query: str = "") -> None:
        joint = "&" if query and "?" in request.path else "?" if query else ""
        path = f"{request.path}{joint}{query}"
        with self.subTest(f"{status} {request.method} {path}"):
            answer = (client or self.client).request(
                request.method, path, request.body if body is None else body, headers)
            self.assertEqual(answer.status, status, answer.body)


class EveryOperation(StatusTest):
    options = ("--max-body", "4096")

    def test_works(self) -> None:
        self.ok(self.client.request(*TAKE))
        for request in READS:
            self.expect(200, request)
        for what in ("start", "heartbeat", "complete"):
            self.expect(200, Request("POST", f"/v1/region/R/sync/{what}"), {"Sync-Request-Id": "r1"})
        self.ok(self.client.request(*TAKE))
        self.expect(200, HELD[0], {"Sync-Request-Id": "r1"})
        self.expect(200, BATCH)
        self.expect(200, TRACE)
        for request in CHANGES:
            status = 201 if request.method == "PUT" and not self.client.cloud().get("region") else 200
            self.expect(status, request)
            if request.method == "DELETE":
                self.load(R=region())
        for request in CHANGES:
            if request.method == "PUT":
                self.ok(self.client.request("DELETE", "/v1/cloud/region/R"))
                self.expect(201, request)
        for path in EVENTS:
            stream = self.client.stream(path)
            self.assertIsInstance(stream, Stream)
            stream.close()

    def test_refuses_a_query_that_it_does_not_know(self) -> None:
        for request in ALL:
            self.expect(400, request, query="color=red")

    def test_refuses_what_the_client_does_not_accept(self) -> None:
        for request in ALL:
            if not request.is_probe:
                self.expect(406, request, {"Accept": "image/png"})

    def test_refuses_a_body_that_is_too_large(self) -> None:
        for request in ALL:
            self.expect(413, request, {"Content-Type": JSON}, body=b" " * 4097)

    def test_refuses_a_header_that_is_too_large(self) -> None:
        for request in ALL:
            self.expect(431, request, {"X-Padding": "x" * 20000})

    def test_refuses_other_media_types(self) -> None:
        for request in (*CHANGES, BATCH, TAKE, *HELD, TRACE):
            if request.method != "DELETE" or "sync" in request.path:
                self.expect(415, request, {"Content-Type": "text/plain"}, body=b"x")

    def test_refuses_a_key_of_another_request(self) -> None:
        self.ok(self.client.patch({}, headers={"Idempotency-Key": "k"}))
        for request in (*CHANGES, BATCH, TAKE, *HELD):
            self.expect(422, request, {"Idempotency-Key": "k", "Sync-Request-Id": "r1"})

    def test_conditions(self) -> None:
        for path in PLACES:
            for method in ("GET", "HEAD"):
                etag = self.client.get(path).etag
                self.expect(304, Request(method, path), {"If-None-Match": etag})
                self.expect(412, Request(method, path), {"If-Match": '"99"'})
        for request in CHANGES:
            self.expect(412, request, {"If-Match": '"99"'})

    def test_places_that_are_not_there(self) -> None:
        for method in ("GET", "HEAD"):
            for path in ("/v1/cloud?at=/none", "/v1/cloud/none", "/v1/output?at=/none",
                         "/v1/output/none", "/v1/region/none/sync", "/v1/inspect/none"):
                self.expect(404, Request(method, path))
        self.expect(404, Request("DELETE", "/v1/cloud?at=/region/none"))
        self.expect(404, Request("DELETE", "/v1/cloud/region/none"))
        self.expect(404, Request("PATCH", "/v1/cloud//none", {}))
        for request in (TAKE, *HELD):
            self.expect(404, request._replace(path=request.path.replace("/R/", "/none/")),
                        {"Sync-Request-Id": "r1"})
        self.expect(405, Request("PUT", "/v1/cloud", {}))
        self.expect(405, Request("DELETE", "/v1/cloud"))

    def test_revisions_that_do_not_come(self) -> None:
        for path in ("/v1/output", "/v1/output/regionStatus"):
            for method in ("GET", "HEAD"):
                self.expect(504, Request(method, path), query="wait=999&timeout=0")

    def test_locks(self) -> None:
        for request in HELD:
            self.expect(428, request)
        self.ok(self.client.request(*TAKE))
        for request in (*CHANGES, *HELD):
            self.expect(409, request, {"Sync-Request-Id": "r2"})
        self.expect(409, TAKE, body={"requester": "b", "requestId": "r2"})

    def test_a_revision_that_is_no_longer_kept(self) -> None:
        # 10,000 are, and a few more until they are dropped together.
        patches: list[Any] = [{}] * 800
        while (last := self.client.revision()) < 30_000:
            self.ok(self.client.request("POST", "/v1/batch", patches))
            answer = self.client.stream(f"/v1/watch?since={last - 9_000}") if last > 9_000 else None
            if answer is not None:
                self.assertIsInstance(answer, Stream)
                answer.close()
            answer = self.client.stream("/v1/watch?since=1")
            if not isinstance(answer, Stream):
                self.refused(answer, 410, "gone")
                self.assertGreater(self.client.revision(), 10_000)
                return
            answer.close()
        self.fail(f"revision 1 is kept at revision {last}")


class Rules(LiveTest):
    options = ("--require-lock",)

    def setUp(self) -> None:
        agent = Agent("--require-lock")
        port = free_port()
        tokens = token_file(agent.folder, {"reader": "read", "driver": "write:S", "writer": "write"})
        agent.options += ["--listen", f"127.0.0.1:{port}", "--tokens", tokens]
        self.addCleanup(agent.close)
        self.agent = agent.start()
        self.client = agent.client
        self.load(R=region())
        self.reader, self.driver, self.writer, self.nobody = (
            tcp_client(port, name) for name in ("reader", "driver", "writer", None))

    expect = StatusTest.expect

    def test_who_is_not_known(self) -> None:
        for request in ALL:
            self.expect(200 if request.is_probe else 401, request, client=self.nobody)

    def test_what_a_principal_may_not_do(self) -> None:
        for request in (*CHANGES, BATCH, TAKE, *HELD, TRACE):
            self.expect(403, request, client=self.reader)
        for request in (*READS, *STREAMS):
            if request.path.startswith(("/v1/inspect", "/v1/trace", "/metrics")):
                self.expect(403, request, client=self.driver)

    def test_changes_without_the_lock(self) -> None:
        for request in CHANGES:
            self.expect(428, request, client=self.writer)


class Full(LiveTest):
    """The disk is full: the size that files may have is limited, which needs no rights."""

    def setUp(self) -> None:
        self.agent = self.stateful()
        self.client = self.agent.client
        self.load(R=region())
        self.ok(self.client.request(*TAKE))

    @contextlib.contextmanager
    def full(self) -> Iterator[None]:
        pid = self.agent.process.pid
        before = resource.prlimit(pid, resource.RLIMIT_FSIZE, (0, resource.RLIM_INFINITY))
        try:
            yield
        finally:
            resource.prlimit(pid, resource.RLIMIT_FSIZE, before)

    expect = StatusTest.expect

    def test_changes_are_refused_and_reads_go_on_until_there_is_space(self) -> None:
        before = self.client.revision(), self.client.cloud(), self.client.output()
        with self.full():
            for request in (*CHANGES, BATCH):
                self.expect(507, request)
            for request in HELD:
                self.expect(507, request, {"Sync-Request-Id": "r1"})
            self.expect(507, TAKE, body={"requester": "b", "requestId": "r2", "wait": 5})
            for request in READS:
                if request.path != "/readyz":
                    self.expect(200, request)
            for method in ("GET", "HEAD"):
                self.expect(503, Request(method, "/readyz"))
            self.assertEqual((self.client.revision(), self.client.cloud(), self.client.output()),
                             before)
            self.assertIsNone(self.agent.process.poll())
        poll(lambda: self.client.get("/readyz").status == 200, "there is space again")
        self.ok(self.client.patch({"region": {"R": {"network": {"late": {}}}}}))
        revision, cloud = self.client.revision(), self.client.cloud()
        self.agent.kill()
        self.agent.start()
        self.assertEqual((self.client.revision(), self.client.cloud()), (revision, cloud))


class TooMany(LiveTest):
    options = ("--max-connections", "3")

    def test_more_connections_than_allowed(self) -> None:
        held = [UnixConnection(self.agent.socket) for _ in range(3)]
        for connection in held:
            connection.request("GET", "/healthz")
            self.assertEqual(connection.getresponse().read(), b"ok\n")
            self.addCleanup(connection.close)
        for request in ALL:
            with self.subTest(f"{request.method} {request.path}"):
                answer = self.client.request(*request)
                self.assertEqual(answer.status, 429)


class Unfinished(LiveTest):
    """Requests of which the body is announced, and does not come."""

    def begin(self, request: Request) -> UnixConnection:
        """Sends the header. The agent has read it, and waits for the body."""
        connection = UnixConnection(self.agent.socket, 45)
        connection.connect()
        self.addCleanup(connection.close)
        media = MERGE if request.method == "PATCH" else JSON
        connection.sock.sendall(
            f"{request.method} {request.path} HTTP/1.1\r\nHost: x\r\nContent-Type: {media}\r\n"
            "Content-Length: 2\r\nExpect: 100-continue\r\n\r\n".encode())
        if not request.is_probe:
            received = connection.sock.recv(100)
            self.assertTrue(received.startswith(b"HTTP/1.1 100 "), received)
        return connection

    def finish(self, request: Request, connection: UnixConnection) -> int:
        response = http.client.HTTPResponse(connection.sock, method=request.method)
        response.begin()
        noted(request.method, request.path, response)
        response.read()
        self.assertEqual(connection.sock.recv(1), b"", "it stays open")
        return response.status


class Slow(Unfinished):
    cost = 100

    def test_requests_that_take_too_long(self) -> None:
        # A probe is not told to go on; those that are come after it.
        begun = [(request, self.begin(request))
                 for request in sorted(ALL, key=lambda request: not request.is_probe)]
        header = UnixConnection(self.agent.socket, 45)
        header.connect()
        self.addCleanup(header.close)
        header.sock.sendall(b"GET /v1 HTTP/1.1\r\nHost:")
        for request, connection in begun:
            with self.subTest(f"{request.method} {request.path}"):
                self.assertEqual(self.finish(request, connection), 408)
        self.assertTrue(header.sock.recv(1000).startswith(b"HTTP/1.1 408 "))
        self.assertEqual(self.client.revision(), 0)


class Stopped(Unfinished):
    def test_requests_that_are_not_complete(self) -> None:
        # A probe is not told to go on; those that are come after it.
        begun = [(request, self.begin(request))
                 for request in sorted(ALL, key=lambda request: not request.is_probe)]
        with contextlib.suppress(TimeoutError):
            self.agent.process.terminate()
            for request, connection in begun:
                with self.subTest(f"{request.method} {request.path}"):
                    self.assertEqual(self.finish(request, connection), 503)
        self.assertEqual(self.agent.process.wait(DEADLINE), 0)
