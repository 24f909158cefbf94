"""A client of Neutron's API, and of the agents played in the server."""

from __future__ import annotations

import http.client
import json
import random
from typing import Any

Json = dict[str, Any]


class Refused(Exception):
    """An answer other than success."""

    def __init__(self, status: int, what: str, detail: str) -> None:
        super().__init__(f"{status} {what}: {detail[:300]}")
        self.status = status


class Unreachable(Exception):
    """No answer: whether the request has been done is not known."""


class Api:
    """Sends each request to one of the servers, chosen at random. Use one object for each thread;
    a connection is kept for each server."""

    def __init__(self, ports: list[int], rng: random.Random, timeout: float = 60) -> None:
        self.ports = ports
        self.rng = rng
        self.timeout = timeout
        self.connections: dict[int, http.client.HTTPConnection] = {}

    def request(self, method: str, path: str, body: Json | None = None,
                port: int | None = None) -> Json:
        """The answer's body, {} for none; raises Refused or Unreachable."""
        if port is None:
            port = self.rng.choice(self.ports)
        connection = self.connections.pop(port, None)
        if connection is None:
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=self.timeout)
        what = f"{method} {path}"
        try:
            connection.request(method, "/v2.0" + path,
                               None if body is None else json.dumps(body),
                               {"Content-Type": "application/json"})
            answer = connection.getresponse()
            text = answer.read().decode()
        except (OSError, http.client.HTTPException) as error:
            connection.close()
            raise Unreachable(f"{what}: {type(error).__name__}: {error}") from error
        self.connections[port] = connection
        if answer.status >= 300:
            raise Refused(answer.status, what, text)
        parsed: Json | None = json.loads(text) if text else None
        return parsed or {}

    def get(self, path: str) -> Json:
        return self.request("GET", path)

    def post(self, path: str, body: Json) -> Json:
        return self.request("POST", path, body)

    def put(self, path: str, body: Json | None = None) -> Json:
        return self.request("PUT", path, body)

    def delete(self, path: str) -> None:
        self.request("DELETE", path)

    def played(self, call: str, **arguments: Any) -> Json:
        """Lets the server do what it does for an agent's message."""
        return self.post("/played", {"call": call, "arguments": arguments})
