"""Sends the calls of the model to a live agent, and records when, and what was answered."""

import contextlib
import dataclasses
import http.client
import json
import math
import select
import socket
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from api.agent import Answer as HttpAnswer  # noqa: E402
from api.agent import Client as HttpClient  # noqa: E402
from api.agent import JSON, MERGE, Event, Stream, UnixConnection, merged  # noqa: E402
from checker import Call  # noqa: E402
from model import (Answer, Delete, Guard, Holder, Lock, Read, Replace, Sync,  # noqa: E402
                   WriteBoth, WritePort)

LOST = (OSError, http.client.HTTPException)
PATIENCE = 30.0  # seconds without an answer after which the agent is taken to hang


class Lost(Exception):
    """The connection was cut, so that the outcome of the call is not known."""


def _headers(guard: Guard) -> dict[str, str]:
    headers = {}
    if guard.if_match is not None:
        headers["If-Match"] = f'"{guard.if_match}"'
    if guard.if_absent:
        headers["If-None-Match"] = "*"
    if guard.fence is not None:
        headers["Sync-Request-Id"] = guard.fence
    if guard.key is not None:
        headers["Idempotency-Key"] = guard.key
    return headers


def _port(vlan: int) -> Any:
    return {"vlanType": vlan}


def request_of(what: Any) -> tuple[str, str, Any, dict[str, str]]:
    """The method, the path, the body and the headers of a call."""
    if isinstance(what, WritePort):
        query = "?dry-run=true" if what.is_dry else ""
        return ("PATCH", f"/v1/cloud/region/{what.region}/port/{what.port}{query}",
                _port(what.vlan), _headers(what.guard))
    if isinstance(what, WriteBoth):
        regions: dict[str, Any] = {}
        for name, port, vlan in what.ports:
            regions.setdefault(name, {"port": {}})["port"][port] = _port(vlan)
        return "PATCH", "/v1/cloud", {"region": regions}, _headers(what.guard)
    if isinstance(what, Replace):
        return ("PUT", f"/v1/cloud/region/{what.region}",
                {"port": {name: _port(vlan) for name, vlan in what.ports}}, _headers(what.guard))
    if isinstance(what, Delete):
        place = f"/port/{what.port}" if what.port else ""
        return "DELETE", f"/v1/cloud/region/{what.region}{place}", None, _headers(what.guard)
    if isinstance(what, Read):
        place = f"/region/{what.region}" if what.region else ""
        place += f"/port/{what.port}" if what.port else ""
        return "GET", f"/v1/cloud{place}", None, {}
    if isinstance(what, Sync):
        return "GET", f"/v1/region/{what.region}/sync", None, {}
    if isinstance(what, Lock):
        return ("POST", f"/v1/region/{what.region}/sync/lock",
                {"requester": what.requester, "requestId": what.request, "wait": what.wait}, {})
    assert isinstance(what, Holder)
    headers = {} if what.request is None else {"Sync-Request-Id": what.request}
    if what.what == "release":
        force = "?force=true" if what.force else ""
        return "DELETE", f"/v1/region/{what.region}/sync/lock{force}", None, headers
    return "POST", f"/v1/region/{what.region}/sync/{what.what}", None, headers


def _ports(region: Any) -> tuple[tuple[str, int], ...]:
    return tuple(sorted((name, port["vlanType"]) for name, port in region.get("port", {}).items()))


def _document(region: Any) -> Answer:
    return (_ports(region), region.get("requester", ""), region.get("requestId", ""),
            region.get("syncHeartbeat", 0), region.get("syncStatus", "syncUnknown"))


def _status(body: Any) -> Answer:
    return (200, body["syncStatus"], body["oldSyncStatus"], body["owner"], body["requestId"],
            body["heldFor"] is not None, body["expiresIn"] is not None)


def _tag(headers: http.client.HTTPMessage) -> int | None:
    return int(headers["ETag"].strip('"')) if headers["ETag"] else None


def answer_of(what: Any, status: int, headers: http.client.HTTPMessage, data: bytes) -> Answer:
    """The answer in the words of the model."""
    body = json.loads(data)
    if status == 412:
        return status, _tag(headers)
    if status == 409 and body["type"] == "/problems/lock-held":
        holder = body["holder"]
        return status, (holder["owner"], holder["requestId"]) if holder else None
    if status == 409:
        return status, body["type"].rpartition("/")[2]
    if status >= 300:
        return (status,)
    if isinstance(what, Read):
        revision = int(headers["Vnagent-Revision"])
        if what.region is None:
            return status, revision, _tag(headers), tuple(
                sorted((name, _document(region))
                       for name, region in body.get("region", {}).items()))
        if what.port is None:
            return status, revision, _tag(headers), _document(body)
        return status, revision, _tag(headers), body["vlanType"]
    if isinstance(what, Sync):
        return *_status(body), body["waiting"]
    if isinstance(what, Lock) or isinstance(what, Holder) and what.what in ("start", "heartbeat"):
        return _status(body)
    if isinstance(what, Holder):
        return (status,)
    if isinstance(what, Replace):
        return status, body["revision"], body["changed"]
    return status, body["revision"]


class Recorder:
    """Keeps the calls of several clients. May be used by several threads."""

    def __init__(self) -> None:
        self.calls: list[Call] = []
        self.mutex = threading.Lock()
        self.next = 0

    def number(self) -> int:
        with self.mutex:
            self.next += 1
            return self.next

    def add(self, call: Call) -> None:
        with self.mutex:
            self.calls.append(call)


class Client:
    """One connection, and another one after it was cut. Belongs to one thread."""

    def __init__(self, name: str, path: str, recorder: Recorder) -> None:
        self.name = name
        self.path = path
        self.recorder = recorder
        self.connection: http.client.HTTPConnection | None = None
        self.unread: tuple[Call, http.client.HTTPConnection] | None = None

    def connect(self, is_over: Callable[[], bool]) -> None:
        """Connects, also to an agent that is not there yet."""
        while self.connection is None:
            connection = UnixConnection(self.path, PATIENCE)
            try:
                connection.connect()
                self.connection = connection
            except OSError as failure:
                connection.close()
                if is_over():
                    raise Lost from failure
                time.sleep(0.002)

    def call(self, what: Any, is_over: Callable[[], bool] = lambda: False) -> Answer:
        self.connect(is_over)
        assert self.connection is not None
        number, invoked = self.recorder.number(), time.monotonic()
        try:
            self._send(what)
            response = self.connection.getresponse()
            data = response.read()
        except TimeoutError as failure:
            raise AssertionError(f"no answer in {PATIENCE} s: {what}") from failure
        except LOST as failure:
            self.close()
            self.recorder.add(Call(number, self.name, what, invoked, time.monotonic()))
            raise Lost from failure
        answer = answer_of(what, response.status, response.headers, data)
        if answer == (503,):  # being restored, or stopping: nothing was done
            return answer
        self.recorder.add(Call(number, self.name, what, invoked, time.monotonic(), answer))
        return answer

    def forget(self, what: Any) -> None:
        """Sends a call, and does not look at its answer; settle() does."""
        self.settle()
        self.connect(lambda: False)
        assert self.connection is not None
        number, invoked = self.recorder.number(), time.monotonic()
        with contextlib.suppress(*LOST):
            self._send(what)
        self.unread = Call(number, self.name, what, invoked), self.connection
        self.connection = None

    def settle(self) -> None:
        """Waits until the call that was forgotten, if there is one, has ended."""
        if self.unread is None:
            return
        call, connection = self.unread
        self.unread = None
        with contextlib.suppress(*LOST):
            connection.getresponse().read()
        connection.close()
        self.recorder.add(dataclasses.replace(call, returned=time.monotonic()))

    def hang_up(self, what: Lock, after: float) -> None:
        """Waits for a lock a while, then closes its half of the connection."""
        self.connect(lambda: False)
        assert self.connection is not None
        number, invoked, closed = self.recorder.number(), time.monotonic(), math.inf
        answer = None
        with contextlib.suppress(*LOST):
            self._send(what)
            if not select.select([self.connection.sock], [], [], after)[0]:
                closed = time.monotonic()
                self.connection.sock.shutdown(socket.SHUT_WR)
            response = self.connection.getresponse()
            answer = answer_of(what, response.status, response.headers, response.read())
        self.close()
        if answer == (503,):
            return
        self.recorder.add(Call(number, self.name, what, invoked, time.monotonic(), answer, closed))

    def close(self) -> None:
        if self.connection is not None:
            self.connection.close()
            self.connection = None

    def _send(self, what: Any) -> None:
        assert self.connection is not None
        method, path, body, headers = request_of(what)
        data = None
        if body is not None:
            headers["Content-Type"] = MERGE if method == "PATCH" else JSON
            data = json.dumps(body).encode()
        self.connection.request(method, path, data, headers)


class Watcher(threading.Thread):
    """Follows the cloud document while a history is recorded, over restarts too. Each document that
    it had belongs to a revision."""

    def __init__(self, path: str) -> None:
        super().__init__(daemon=True)
        self.path = path
        self.documents: dict[int, Answer] = {}
        self.last = ""  # the id of the last event
        self.faults: list[str] = []
        self.document: Any = None
        self.is_over = threading.Event()
        self.stream: Stream | None = None
        self.has_snapshot = threading.Event()

    def run(self) -> None:
        while not self.is_over.is_set():
            with contextlib.suppress(*LOST):
                self.follow()
            time.sleep(0.002)

    def follow(self) -> None:
        headers = {"Last-Event-ID": self.last} if self.last else {}
        answer = HttpClient(lambda: UnixConnection(self.path, PATIENCE)).stream(
            "/v1/watch?of=cloud", headers)
        if isinstance(answer, HttpAnswer):
            if answer.status != 503:
                self.faults.append(f"{self.last} cannot be resumed from: {answer.status}")
            return
        self.stream = answer
        with contextlib.closing(answer):
            while not self.is_over.is_set() and (event := answer.next()) is not None:
                self.take(event)

    def take(self, event: Event) -> None:
        before = max(self.documents, default=-1)
        if (event.name == "snapshot") != (self.document is None):
            self.faults.append(f"a {event.name} at {event.id}, after {self.last}")
        if event.name == "patch" and event.revision <= before:
            self.faults.append(f"{event.id} after {self.last}")
        if event.name != "bookmark":
            self.document = merged(self.document, event.data)
            self.documents[event.revision] = tuple(
                sorted((name, _document(region))
                       for name, region in self.document.get("region", {}).items()))
        self.last = event.id
        self.has_snapshot.set()

    def ended(self, revision: int) -> None:
        """Waits until it has seen the revision, and ends it."""
        limit = time.monotonic() + PATIENCE
        while max(self.documents, default=-1) < revision and time.monotonic() < limit:
            time.sleep(0.001)
        self.is_over.set()
        if self.stream is not None and self.stream.connection.sock is not None:
            with contextlib.suppress(OSError):
                self.stream.connection.sock.shutdown(socket.SHUT_RDWR)
        self.join(PATIENCE)

    def compare(self, calls: list[Call]) -> list[str]:
        """What is wrong: reads of the whole document that had another one at the same revision."""
        for call in calls:
            if not isinstance(call.what, Read) or call.what.region or not call.is_known:
                continue
            revision, document = call.answer[1], call.answer[3]
            if self.documents.get(revision, document) != document:
                self.faults.append(f"revision {revision} was {document} for {call.client}, and "
                                   f"{self.documents[revision]} for the watch")
        return self.faults
