"""Starts `vnagent serve` for a test and talks to it, with Python's standard library alone.

The program is named by the environment variable VNAGENT. Nothing here sleeps to synchronise: what is
waited for is polled, with a deadline.
"""

import atexit
import contextlib
import hashlib
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any, NamedTuple
from urllib.parse import quote

DEADLINE = 20.0  # seconds after which a wait has failed
MERGE = "application/merge-patch+json"
JSON = "application/json"
PROBLEM = "application/problem+json"
SCALARS = ("requester", "requestId", "syncInterval", "syncHeartbeat", "syncStatus")

EMPTY_OUTPUT = {
    "regionStatus": {},
    "requestedResources": {"resourcesForHostname": {}, "resourcesForSwitchport": {}},
    "networkElement": {},
}


def program() -> str:
    return os.environ["VNAGENT"]


ANSWERS: set[tuple[str, str, int, str]] = set()  # method, path, status, media type


def noted(method: str, path: str, response: http.client.HTTPResponse) -> None:
    """Keeps what was answered, for the comparison with the description of the interface."""
    media = (response.headers["Content-Type"] or "").split(";")[0].strip()
    ANSWERS.add((method, path.partition("?")[0], response.status, media))


def _write_answers(folder: str) -> None:
    Path(folder, f"{os.getpid()}.json").write_text(json.dumps(sorted(ANSWERS)))


if "LIVE_ANSWERS" in os.environ:
    atexit.register(_write_answers, os.environ["LIVE_ANSWERS"])


class Answer(NamedTuple):
    status: int
    headers: http.client.HTTPMessage
    body: bytes

    @property
    def json(self) -> Any:
        return json.loads(self.body)

    @property
    def etag(self) -> str | None:
        return self.headers["ETag"]

    @property
    def media(self) -> str:
        return (self.headers["Content-Type"] or "").split(";")[0].strip()


class Event(NamedTuple):
    id: str
    name: str
    data: Any

    @property
    def revision(self) -> int:
        return int(self.id.split("-")[0])


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path: str, timeout: float = DEADLINE) -> None:
        super().__init__("localhost", timeout=timeout)
        self.path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


class Stream:
    """A body of Server-Sent Events."""

    def __init__(self, connection: http.client.HTTPConnection,
                 response: http.client.HTTPResponse) -> None:
        self.connection = connection
        self.response = response

    def next(self) -> Event | None:
        """The next event; None at the end of the stream. Fails after the deadline."""
        fields: dict[str, str] = {}
        while True:
            line = self.response.readline()
            if not line:
                return None
            text = line.decode().rstrip("\r\n")
            if not text and "data" in fields:
                return Event(fields.get("id", ""), fields.get("event", "message"),
                             json.loads(fields["data"]))
            if not text:
                fields.clear()
            elif not text.startswith(":"):
                name, _, value = text.partition(":")
                value = value.removeprefix(" ")
                fields[name] = fields[name] + "\n" + value if name in fields else value

    def close(self) -> None:
        self.response.close()
        self.connection.close()


class Client:
    """Sends requests to one address, as one principal, each over a connection of its own."""

    def __init__(self, connect: Callable[[], http.client.HTTPConnection],
                 headers: dict[str, str] | None = None) -> None:
        self.connect = connect
        self.headers = headers or {}

    def request(self, method: str, path: str, body: Any = None,
                headers: dict[str, str] | None = None) -> Answer:
        """`body` is sent as JSON, unless it is bytes. Its media type is that of the method."""
        connection = self.connect()
        try:
            self.send(connection, method, path, body, headers)
            response = connection.getresponse()
            noted(method, path, response)
            return Answer(response.status, response.headers, response.read())
        finally:
            connection.close()

    def send(self, connection: http.client.HTTPConnection, method: str, path: str,
             body: Any = None, headers: dict[str, str] | None = None) -> None:
        sent = dict(self.headers)
        if body is not None:
            sent["Content-Type"] = MERGE if method == "PATCH" else JSON
            if not isinstance(body, bytes):
                body = json.dumps(body).encode()
        sent.update(headers or {})
        connection.request(method, path, body, {k: v for k, v in sent.items() if v is not None})

    def get(self, path: str, **headers: str) -> Answer:
        return self.request("GET", path, headers={k.replace("_", "-"): v
                                                  for k, v in headers.items()})

    def patch(self, patch: Any, path: str = "/v1/cloud",
              headers: dict[str, str] | None = None) -> Answer:
        # A body of null is a patch, too.
        return self.request("PATCH", path, json.dumps(patch).encode(), headers)

    def cloud(self) -> Any:
        return self.get("/v1/cloud").json

    def output(self) -> Any:
        return self.get("/v1/output").json

    def revision(self) -> int:
        return self.get("/v1").json["revision"]

    def stream(self, path: str, headers: dict[str, str] | None = None) -> Stream | Answer:
        """The events of a path, or the answer where it is refused."""
        connection = self.connect()
        connection.request("GET", path, headers={**self.headers, **(headers or {})})
        response = connection.getresponse()
        noted("GET", path, response)
        if response.status != 200:
            answer = Answer(response.status, response.headers, response.read())
            connection.close()
            return answer
        return Stream(connection, response)

    def raw(self, data: bytes) -> bytes:
        """Sends bytes, and returns all that comes until the server closes."""
        connection = self.connect()
        connection.connect()
        with contextlib.closing(connection):
            connection.sock.sendall(data)
            received = b""
            while part := connection.sock.recv(65536):
                received += part
            return received

    # The calls of the sync protocol.

    def sync(self, region: str) -> Any:
        return self.get(f"/v1/region/{quote(region, safe='')}/sync").json

    def lock(self, region: str, requester: str, request: str, wait: float | None = None) -> Answer:
        body = {"requester": requester, "requestId": request}
        if wait is not None:
            body["wait"] = wait
        return self.request("POST", f"/v1/region/{quote(region, safe='')}/sync/lock", body)

    def step(self, region: str, what: str, request: str | None) -> Answer:
        """start, heartbeat or complete."""
        return self.request("POST", f"/v1/region/{quote(region, safe='')}/sync/{what}",
                            headers={"Sync-Request-Id": request} if request else {})

    def unlock(self, region: str, request: str | None, query: str = "") -> Answer:
        return self.request("DELETE", f"/v1/region/{quote(region, safe='')}/sync/lock{query}",
                            headers={"Sync-Request-Id": request} if request else {})


class Agent:
    """One process, or several of them after each other, on a socket in a folder of its own."""

    def __init__(self, *options: str) -> None:
        self.folder = Path(tempfile.mkdtemp(prefix="vnagent-"))
        self.socket = str(self.folder / "agent.sock")
        self.options = [str(option) for option in options]
        self.arguments: list[str] | None = None  # in the place of the socket and the options
        self.prefix: list[str] = []  # a command that runs the program
        self.log = self.folder / "log"
        self.process: subprocess.Popen[bytes] | None = None
        self.client = Client(lambda: UnixConnection(self.socket))

    def launch(self) -> None:
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [*self.prefix, program(), "serve",
                 *(self.arguments or ["--socket", self.socket, *self.options])],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def start(self) -> "Agent":
        self.launch()
        poll(self.is_ready, "the agent is ready")
        return self

    def is_ready(self) -> bool:
        if self.process.poll() is not None:
            raise AssertionError(f"the agent ended with {self.process.returncode}:\n"
                                 + self.log.read_text(errors="replace"))
        try:
            return self.client.get("/readyz").status == 200
        except (OSError, http.client.HTTPException):
            return False

    def kill(self) -> None:
        self.process.kill()
        self.process.wait(DEADLINE)

    def terminate(self) -> int:
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(DEADLINE)

    def close(self) -> None:
        if self.process and self.process.poll() is None:
            self.kill()
        shutil.rmtree(self.folder, ignore_errors=True)


def poll(condition: Callable[[], Any], what: str, deadline: float = DEADLINE) -> Any:
    """Calls until the result is true, and returns it. Fails after the deadline."""
    end = time.monotonic() + deadline
    pause = 0.002
    while True:
        if result := condition():
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.05)


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def token_file(folder: Path, principals: dict[str, str]) -> str:
    """Writes a token file: name -> role. The token of NAME is token-of-NAME."""
    path = folder / "tokens"
    path.write_text("".join(
        f"{name} {role} {hashlib.sha256(f'token-of-{name}'.encode()).hexdigest()}\n"
        for name, role in principals.items()))
    path.chmod(0o600)
    return str(path)


def tcp_client(port: int, name: str | None) -> Client:
    return Client(lambda: http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE),
                  {"Authorization": f"Bearer token-of-{name}"} if name else {})


# Documents.

def merged(target: Any, patch: Any) -> Any:
    """The document after a merge patch (RFC 7396)."""
    if not isinstance(patch, dict):
        return patch
    result = dict(target) if isinstance(target, dict) else {}
    for key, value in patch.items():
        if value is None:
            result.pop(key, None)
        else:
            result[key] = merged(result.get(key), value)
    return result


def difference(before: Any, after: Any) -> dict[str, Any]:
    """The merge patch that touches only what differs."""
    patch: dict[str, Any] = {key: None for key in before.keys() - after.keys()}
    for key, value in after.items():
        if key not in before:
            patch[key] = value
        elif isinstance(value, dict) and isinstance(before[key], dict):
            if inner := difference(before[key], value):
                patch[key] = inner
        elif value != before[key]:
            patch[key] = value
    return patch


def anonymous(output: Any) -> Any:
    """An output document, or a patch on one, with the same word for each UUID."""
    if isinstance(output, dict):
        return {key: "uuid" if key == "vlanAssignmentUuid" and value else anonymous(value)
                for key, value in output.items()}
    return output


def region(**members: Any) -> dict[str, Any]:
    """A region with two segments, a port on a host, and a port behind a switch interface."""
    return {
        "segment": {"seg-top": {"segmentationType": "vxlan", "segmentationId": 10001},
                    "seg-rack": {"segmentationType": "vlan", "segmentationId": 100}},
        "port": {"p1": {}, "p2": {"vlanType": 1}},
        "portBinding": {
            "p1": {"portToHostBinding": {
                "compute-1": {"segment": {"0": "seg-top", "1": "seg-rack"}}}},
            "p2": {"portToSwitchInterfaceBinding": {
                "leaf-1": {"Ethernet7": {"host": "bm-host-1", "segment": {"0": "seg-rack"}}}}}},
        "network": {"net-1": {}},
        **members,
    }


def named_region(mark: str) -> dict[str, Any]:
    """The same with a mark in each name, so that several regions can stand beside each other."""
    return json.loads(json.dumps(region()).replace("p1", f"{mark}-p1").replace("p2", f"{mark}-p2")
                      .replace("compute-1", f"{mark}-compute").replace("bm-host-1", f"{mark}-bm"))


class Follower:
    """Keeps a document up to date from a watch, and checks what each event must keep."""

    def __init__(self, stream: Stream, document: Any = None, revision: int = -1) -> None:
        self.stream = stream
        self.document = document
        self.revision = revision
        self.events: list[Event] = []

    def next(self) -> Event:
        event = self.stream.next()
        assert event is not None, "the stream ended"
        number, _, check = event.id.partition("-")
        assert number.isdigit() and len(check) == 16, f"the id {event.id}"
        self.events.append(event)
        if event.name == "snapshot":
            assert self.document is None, "a second snapshot"
            self.document = event.data
        elif event.name == "patch":
            assert event.revision > self.revision, f"{event.id} after {self.revision}"
            after = merged(self.document, event.data)
            assert event.data == difference(self.document, after), \
                f"{event.id} touches more than what differs: {event.data}"
            assert event.data, f"{event.id} is empty"
            self.document = after
        else:
            assert event.name == "bookmark", f"an event {event.name}"
            assert isinstance(event.data, dict)
            assert event.revision >= self.revision
        self.revision = event.revision
        return event

    def until(self, revision: int) -> "Follower":
        while self.revision < revision:
            self.next()
        return self


class LiveTest(unittest.TestCase):
    """Each test has a process of its own, started with `options`."""

    options: tuple[str, ...] = ()
    maxDiff = None

    def setUp(self) -> None:
        self.agent = self.start(*self.options)
        self.client = self.agent.client

    def start(self, *options: str) -> Agent:
        agent = Agent(*options)
        self.addCleanup(agent.close)
        return agent.start()

    def stateful(self, *options: str) -> Agent:
        """An agent with a state directory, in its folder."""
        agent = Agent()
        agent.options = ["--state-dir", str(agent.folder / "state"), *options]
        self.addCleanup(agent.close)
        return agent.start()

    def load(self, client: Client | None = None, **regions: Any) -> int:
        """Loads regions (RegionOne alone without any); returns the revision."""
        return self.ok((client or self.client).patch(
            {"region": regions or {"RegionOne": region()}}))["revision"]

    def ok(self, answer: Answer, status: int = 200) -> Any:
        self.assertEqual(answer.status, status, answer.body)
        self.assertEqual(answer.media, JSON)
        return answer.json

    def refused(self, answer: Answer, status: int, name: str | None = None) -> Any:
        """Checks that it is a problem document; returns it."""
        self.assertEqual(answer.status, status, answer.body)
        self.assertEqual(answer.media, PROBLEM)
        return self.problem(answer.json, status, name)

    def problem(self, problem: Any, status: int, name: str | None = None) -> Any:
        self.assertEqual(problem["status"], status, problem)
        if name:
            self.assertEqual(problem["type"], f"/problems/{name}", problem)
        self.assertRegex(problem["type"], r"^/problems/[a-z-]+$")
        for member in ("title", "detail"):
            self.assertIsInstance(problem[member], str)
            self.assertTrue(problem[member])
        return problem

    def follow(self, path: str = "/v1/watch", client: Client | None = None,
               headers: dict[str, str] | None = None, **known: Any) -> Follower:
        stream = (client or self.client).stream(path, headers)
        self.assertIsInstance(stream, Stream, stream)
        self.assertEqual(stream.response.headers["Content-Type"].split(";")[0],
                         "text/event-stream")
        self.addCleanup(stream.close)
        return Follower(stream, **known)

    @contextlib.contextmanager
    def unchanged(self, client: Client | None = None) -> Iterator[None]:
        """Checks that what happens inside leaves documents and revision as they are."""
        client = client or self.client

        def state() -> Any:
            return client.revision(), client.cloud(), client.output()

        before = state()
        yield
        self.assertEqual(state(), before)
