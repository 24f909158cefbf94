"""What is between the driver and an agent: a proxy of the agent's socket that can be made bad."""

from __future__ import annotations

import contextlib
import enum
import random
import select
import socket
import threading
from pathlib import Path

CHANGES = (b"PATCH ", b"PUT ", b"POST ", b"DELETE ")
NONSENSE = (
    b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\n<html>",
    b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n[]",
    b"HTTP/1.1 200 OK\r\nContent-Length: 15\r\n\r\n{\"hello\": \"you\"}",
    b"HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 0\r\n\r\n",
    b"SSH-2.0-OpenSSH_9.2\r\n",
    b"\x00\xff\x16\x03\x01" * 20,
)
FULL = b'{"type": "/problems/no-space", "title": "No space", "status": 507, "detail": "disk full"}'
NO_SPACE = (b"HTTP/1.1 507 Insufficient Storage\r\nContent-Type: application/problem+json\r\n"
            b"Connection: close\r\nContent-Length: %d\r\n\r\n" % len(FULL)) + FULL


class Mode(enum.Enum):
    """What happens to requests and answers."""

    FINE = "fine"
    CUT = "the answer breaks off, at any byte, and the agent has done what it was asked"
    NONSENSE = "something else answers"
    SLOW = "the answer comes a few bytes at a time"
    FULL = "the agent's disk is full: no change is taken"


class Wire:
    """Connections from `socket` to the agent's own socket. `mode` may be set by any thread, and
    counts from the next request or answer on."""

    def __init__(self, path: Path, agent: Path) -> None:
        self.socket = path
        self.agent = agent
        self.mode = Mode.FINE
        self._rng = random.Random()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(path))
        self._listener.listen(100)
        self._ending = threading.Event()
        threading.Thread(target=self._accept, name=f"wire {path.name}", daemon=True).start()

    def stop(self) -> None:
        """Ends all connections, each within a second."""
        self._ending.set()
        self._listener.close()

    def _accept(self) -> None:
        while not self._ending.is_set():
            try:
                if select.select([self._listener], [], [], 0.5)[0]:
                    client = self._listener.accept()[0]
                    threading.Thread(target=self._connected, args=(client,), daemon=True).start()
            except (OSError, ValueError):
                return  # Stopped.

    def _connected(self, client: socket.socket) -> None:
        with client, socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as agent, \
                contextlib.suppress(OSError):
            # Where the agent does not run the client's connection just ends.
            agent.connect(str(self.agent))
            while not self._ending.is_set():
                ready = select.select([client, agent], [], [], 0.5)[0]
                if client in ready and not self._request(client, agent):
                    return
                if agent in ready and not self._answer(client, agent):
                    return

    def _request(self, client: socket.socket, agent: socket.socket) -> bool:
        """Hands on a part of a request; False at the end of the connection."""
        data = client.recv(65536)
        if data and self.mode is Mode.NONSENSE:
            client.sendall(self._rng.choice(NONSENSE))
            return False
        if data.startswith(CHANGES) and self.mode is Mode.FULL:
            client.sendall(NO_SPACE)
            return False
        agent.sendall(data)
        return bool(data)

    def _answer(self, client: socket.socket, agent: socket.socket) -> bool:
        data = agent.recv(65536)
        if data and self.mode is Mode.CUT:
            client.sendall(data[:self._rng.randrange(len(data))])
            return False
        if self.mode is Mode.SLOW:
            for start in range(0, len(data), 20):
                client.sendall(data[start:start + 20])
                if self._ending.wait(0.1):
                    return False
        else:
            client.sendall(data)
        return bool(data)
