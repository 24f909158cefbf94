"""Speaks to one live agent: HTTP and JSON over a Unix socket, TCP or TLS.

A client is used by one thread at a time. It keeps its connection open between requests. Only the
standard library is used, so it does the same in native threads and under eventlet.
"""
import collections.abc
import dataclasses
import http.client
import io
import json
import socket
import ssl
import time
import typing
import urllib.parse
import uuid

# Answers after which the same request may succeed later, without anything having been applied.
LATER = frozenset({408, 429, 502, 503, 504, 507})
# What an agent may answer at most: a region of several 100,000 ports, and anything else.
LONGEST_REGION = 1 << 30
LONGEST_ANSWER = 4 << 20

# What an agent answers with its revision.
DOCUMENTS = ("/v1/cloud", "/v1/output")

Document = dict[str, typing.Any]
Places = collections.abc.Iterable[tuple[str, str]]


class AgentError(Exception):
    """Something went wrong with an agent; the text says what, and what to do."""


class NoAnswer(AgentError):
    """No answer that can be used; whether a change was applied is unknown."""


class TryLater(NoAnswer):
    """The agent says that it cannot do it now."""


class Nonsense(NoAnswer):
    """The answer is not one of a live agent."""


class Refused(AgentError):
    """The agent refused the request; nothing was applied."""

    def __init__(self, status: int, name: str, detail: str, etag: str | None = None,
                 problem: Document | None = None) -> None:
        super().__init__(f"{status} {name}: {detail}")
        self.status = status
        self.name = name
        self.etag = etag
        self.problem = problem or {}


class AnotherInstance(AgentError):
    """The agent at this address does not have the state of the one before."""


@dataclasses.dataclass(frozen=True)
class Answer:
    status: int
    body: Document
    etag: str | None


@dataclasses.dataclass(frozen=True)
class Change:
    """A change with its key: sent again, it is applied once."""
    method: str
    path: str
    body: typing.Any
    headers: dict[str, str]
    key: str = dataclasses.field(default_factory=lambda: str(uuid.uuid4()))


class _DeadlineReader(io.RawIOBase):
    """Reads from a socket until a point in time, however slowly the bytes come."""

    def __init__(self, owner: "_DeadlineSocket") -> None:
        super().__init__()
        self._owner = owner

    def readable(self) -> bool:
        return True

    def readinto(self, buffer: typing.Any) -> int:
        self._owner.limit()
        return self._owner.sock.recv_into(buffer)

    def close(self) -> None:
        if not self.closed:
            self._owner.reader_closed()
        super().close()


class _DeadlineSocket:
    """What http.client needs of a socket, with one deadline for all of a request."""

    def __init__(self, sock: socket.socket) -> None:
        self.sock = sock
        self.deadline = 0.0
        self._readers = 0
        self._is_closing = False

    def limit(self) -> None:
        left = self.deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError("the answer took too long")
        self.sock.settimeout(left)

    def sendall(self, data: typing.Any) -> None:
        self.limit()
        self.sock.sendall(data)

    def makefile(self, mode: str) -> io.BufferedReader:
        self._readers += 1
        return io.BufferedReader(_DeadlineReader(self), 65536)

    def reader_closed(self) -> None:
        self._readers -= 1
        if self._is_closing and self._readers == 0:
            self.sock.close()

    def close(self) -> None:
        """As of a socket: it stays open for an answer that is being read."""
        self._is_closing = True
        if self._readers == 0:
            self.sock.close()


def hint(error: Exception) -> str:
    """What an operator can do about an error of the connection, after its text."""
    text = str(error) or type(error).__name__
    if isinstance(error, ssl.SSLCertVerificationError):
        text = error.verify_message
        if error.verify_code == 9:
            return (f"{text}: compare the clocks of this host and of the agent, or wait until the "
                    "certificate's first day")
        if error.verify_code == 10:
            return f"{text}: renew the agent's certificate"
        return f"{text}: ca_file must hold the authority that signed the agent's certificate"
    if isinstance(error, ssl.SSLError):
        return f"{text}: does the agent speak TLS there, and accept this client's certificate?"
    if isinstance(error, TimeoutError):
        return ("no whole answer in time: the agent is stopped or overloaded, or the network is "
                "slow; request_timeout says how long to wait")
    if isinstance(error, (ConnectionRefusedError, FileNotFoundError)):
        return f"{text}: is `vnagent serve` running, and is the url the right one?"
    if isinstance(error, PermissionError):
        return f"{text}: neutron-server must be in the group that owns the agent's socket"
    if isinstance(error, socket.gaierror):
        return f"{text}: the host of the url is not known here"
    return text


def quote(part: str) -> str:
    return urllib.parse.quote(part, safe="")


def pointer(*names: str) -> str:
    """The JSON Pointer of a place."""
    return "".join("/" + name.replace("~", "~0").replace("/", "~1") for name in names)


class Client:
    """One region of one agent.

    `url` is unix:///PATH, http://HOST:PORT or https://HOST:PORT; `timeout` is seconds for a whole
    request. Files are read at each connection, so that a renewed one counts from then on.
    """

    def __init__(self, url: str, region: str, *, timeout: float = 10, token_file: str | None = None,
                 ca_file: str | None = None, cert_file: str | None = None,
                 key_file: str | None = None) -> None:
        self.url = url
        self.region = region
        self.timeout = timeout
        self._parts = urllib.parse.urlsplit(url)
        if self._parts.scheme not in ("unix", "http", "https"):
            raise ValueError(f"{url!r} is no url of an agent: unix:///PATH, http://HOST:PORT or "
                             "https://HOST:PORT")
        self._token_file = token_file
        self._ca_file = ca_file
        self._cert_file = cert_file
        self._key_file = key_file
        self._connection: http.client.HTTPConnection | None = None
        self._socket: _DeadlineSocket | None = None
        self._token: str | None = None
        # Who answered on this connection; None before the first answer to hello().
        self.instance: str | None = None
        self.place = "/v1/cloud/region/" + quote(region)
        self.sync_place = "/v1/region/" + quote(region) + "/sync"

    # Connection.

    def close(self) -> None:
        if self._connection is not None:
            self._connection.close()
        if self._socket is not None:
            # Whatever is being read.
            self._socket.sock.close()
        self._connection = self._socket = None

    @property
    def is_connected(self) -> bool:
        return self._connection is not None

    def _connect(self, deadline: float) -> None:
        left = max(0.1, deadline - time.monotonic())
        if self._parts.scheme == "unix":
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        else:
            sock = None
        try:
            if sock is not None:
                sock.settimeout(left)
                sock.connect(urllib.parse.unquote(self._parts.path))
            else:
                default = 443 if self._parts.scheme == "https" else 80
                sock = socket.create_connection(
                    (self._parts.hostname or "localhost", self._parts.port or default), left)
                sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            if self._parts.scheme == "https":
                context = ssl.create_default_context(cafile=self._ca_file)
                if self._cert_file:
                    context.load_cert_chain(self._cert_file, self._key_file)
                sock = context.wrap_socket(sock, server_hostname=self._parts.hostname)
            if self._token_file:
                with open(self._token_file, encoding="utf-8") as file:
                    self._token = file.read().strip()
        except BaseException:
            if sock is not None:
                sock.close()
            raise
        self._socket = _DeadlineSocket(sock)
        self._connection = http.client.HTTPConnection(self._parts.hostname or "localhost")
        self._connection.sock = typing.cast(socket.socket, self._socket)

    def _send(self, method: str, path: str, data: bytes | None, headers: dict[str, str],
              longest: int, timeout: float) -> tuple[http.client.HTTPResponse, bytes]:
        deadline = time.monotonic() + timeout
        if self._connection is None:
            self._connect(deadline)
        assert self._connection is not None and self._socket is not None
        self._socket.deadline = deadline
        if self._token:
            headers = headers | {"Authorization": "Bearer " + self._token}
        self._connection.request(method, path, data, headers)
        response = self._connection.getresponse()
        chunks, size = [], 0
        while chunk := response.read1(65536):
            size += len(chunk)
            if size > longest:
                raise Nonsense(f"an answer of more than {longest} bytes")
            chunks.append(chunk)
        if response.length:
            raise http.client.IncompleteRead(b"", response.length)
        response.close()
        if response.will_close:
            self.close()
        return response, b"".join(chunks)

    def request(self, method: str, path: str, body: typing.Any = None,
                headers: dict[str, str] | None = None, *, longest: int = LONGEST_ANSWER,
                timeout: float | None = None) -> Answer:
        """One request. Raises Refused for a refusal, NoAnswer where there is none.

        Only safe requests and those with a key are sent again by themselves, when an idle
        connection turns out to be closed.
        """
        sent = dict(headers or {})
        data = None
        if body is not None:
            data = json.dumps(body, separators=(",", ":")).encode()
            kind = "merge-patch+json" if method == "PATCH" else "json"
            sent["Content-Type"] = "application/" + kind
        if self._connection is None and self.instance is not None and path != "/v1":
            # The same agent must be there before anything else is sent to it.
            self.hello()
        is_repeatable = method in ("GET", "HEAD") or "Idempotency-Key" in sent
        was_idle = self._connection is not None
        while True:
            try:
                response, raw = self._send(method, path, data, sent, longest,
                                           timeout or self.timeout)
                break
            except Nonsense:
                self.close()
                raise
            except (OSError, http.client.HTTPException, ValueError) as error:
                self.close()
                is_closed = isinstance(error, (ConnectionError, http.client.BadStatusLine))
                if was_idle and is_repeatable and is_closed:
                    was_idle = False
                    if self.instance is not None and path != "/v1":
                        self.hello()
                    continue
                raise NoAnswer(f"{self.url}: {hint(error)}") from error
        return self._judge(method, path, response, raw)

    def _judge(self, method: str, path: str, response: http.client.HTTPResponse,
               raw: bytes) -> Answer:
        status = response.status
        etag = response.getheader("ETag")
        if status == 304 or method == "HEAD":
            return Answer(status, {}, etag)
        try:
            body = json.loads(raw)
        except ValueError:
            body = None
        if not isinstance(body, dict):
            self.close()
            raise Nonsense(f"{self.url}: {method} {path} was answered {status} with what is no "
                           "JSON object: is that address a live agent's?")
        if 200 <= status < 300:
            if method == "GET" and path.startswith(DOCUMENTS) and not response.getheader(
                    "Vnagent-Revision"):
                self.close()
                raise Nonsense(f"{self.url}: GET {path} was answered without a revision: is that "
                               "address a live agent's?")
            return Answer(status, body, etag)
        name = str(body.get("type", "")).rpartition("/")[2] or str(status)
        detail = str(body.get("detail") or body.get("title") or "no reason given")
        if body.get("pointer"):
            detail = f"{body['pointer']}: {detail}"
        if status in LATER:
            if status == 507:
                detail += ": make room on the disk of the agent"
            raise TryLater(f"{self.url}: {status} {name}: {detail}")
        if not 400 <= status < 600:
            self.close()
            raise Nonsense(f"{self.url}: {method} {path} was answered {status}")
        if status in (401, 403):
            detail += ": check token_file, the certificate and the role that the agent gives them"
        if status >= 500:
            raise TryLater(f"{self.url}: {status} {name}: {detail}")
        raise Refused(status, name, detail, etag, body)

    # What an agent says.

    def hello(self) -> Document:
        """Who is there. Raises AnotherInstance when it is not who was there before."""
        body = self.request("GET", "/v1").body
        if body.get("api") != 1 or not isinstance(body.get("revision"), int):
            raise Nonsense(f"{self.url}: no live agent that speaks version 1: {body!r:.200}")
        instance = str(body.get("instance"))
        before, self.instance = self.instance, instance
        if before is not None and before != instance:
            raise AnotherInstance(f"{self.url}: another agent, or one without the state of before")
        return body

    def region_etag(self) -> str | None:
        """The present ETag of the region; None when there is no such region."""
        try:
            self.request("PATCH", self.place + "?dry-run=true", {}, {"If-Match": '"-"'})
        except Refused as refused:
            if refused.status == 412:
                return refused.etag
            raise
        raise Nonsense(f"{self.url}: a condition that never holds was accepted")

    def region_document(self) -> tuple[Document, str]:
        """The whole region and its ETag. Raises Refused with 404 when it is not there."""
        answer = self.request("GET", self.place, longest=LONGEST_REGION,
                              timeout=max(self.timeout, 120))
        if answer.etag is None:
            raise Nonsense(f"{self.url}: a region without an ETag")
        return answer.body, answer.etag

    def members(self, places: Places) -> Document:
        """Those members of the region that exist, each a (collection, name)."""
        found: Document = {}
        for collection, name in places:
            try:
                body = self.request(
                    "GET", f"/v1/cloud?at={quote(self._pointer(collection, name))}").body
            except Refused as refused:
                if refused.status != 404:
                    raise
                continue
            found.setdefault(collection, {})[name] = body
        return found

    def _pointer(self, *parts: str) -> str:
        return pointer("region", self.region, *parts)

    def ports_on(self, switch: str, interface: str) -> set[str]:
        """The ports whose VLANs the agent's output has on a switch interface."""
        found: set[str] = set()
        # In one place or the other, as the agent's feature toggle is.
        for parts in (("requestedResources", "resourcesForSwitchport", switch, interface),
                      ("networkElement", switch, "physicalInterface", interface)):
            try:
                vlans = self.request("GET", f"/v1/output?at={quote(pointer(*parts))}").body["vlan"]
            except Refused as refused:
                if refused.status != 404:
                    raise
                continue
            for vlan in vlans.values():
                found.update(vlan["referrer"])
        return found

    def status(self) -> Document:
        """The region's part of the output, with its VLAN pool."""
        return self.request("GET", "/v1/output/regionStatus/" + quote(self.region)).body

    # Changes.

    def change(self, change: Change, timeout: float | None = None) -> int:
        """Sends a change; its revision. After NoAnswer, send the same change again."""
        headers = change.headers | {"Idempotency-Key": change.key}
        body = self.request(change.method, change.path, change.body, headers, timeout=timeout).body
        revision = body.get("revision")
        if not isinstance(revision, int):
            raise Nonsense(f"{self.url}: a change was answered {body!r:.200}")
        return revision

    def create_region(self) -> None:
        """Makes an empty region, unless it is there."""
        headers = {"If-None-Match": "*", "Idempotency-Key": str(uuid.uuid4())}
        try:
            self.request("PUT", self.place, {}, headers)
        except Refused as refused:
            if refused.status != 412:
                raise

    def sync_status(self) -> Document:
        """Who holds the region's lock, for how long, and what the agent knows of its sync."""
        return self.request("GET", self.sync_place).body

    def sync_call(self, call: str, request_id: str, body: Document | None = None,
                  timeout: float | None = None) -> Document:
        """One call of the sync protocol: lock, start, heartbeat, complete, unlock."""
        headers = {"Sync-Request-Id": request_id, "Idempotency-Key": str(uuid.uuid4())}
        if call == "unlock":
            return self.request("DELETE", self.sync_place + "/lock", None, headers).body
        if call == "lock":
            del headers["Sync-Request-Id"]
        return self.request("POST", f"{self.sync_place}/{call}", body, headers,
                            timeout=timeout).body
