"""Hostile input, and what is left of it: memory, descriptors and threads are back at a baseline."""

import contextlib
import http.client
import os
import random
import threading
from collections.abc import Callable
from pathlib import Path

from process import descriptors, threads  # noqa: I001  (it sets the path)
from api.agent import MERGE, LiveTest, UnixConnection, poll, program, region

# AddressSanitizer keeps what is freed for a while, and gives less back to the system.
IS_SANITIZED = b"__asan_init" in Path(program()).read_bytes()
if IS_SANITIZED:
    os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"

# What storms may leave behind, in bytes, beyond what the first of them left: the allocator keeps
# pages, and not always the same.
ALLOWANCE = (64 if IS_SANITIZED else 8) << 20

HEAD = b"Host: x\r\n"
PATCH = b"PATCH /v1/cloud HTTP/1.1\r\nHost: x\r\nContent-Type: application/merge-patch+json\r\n"


def resident(pid: int) -> int:
    pages = int(Path(f"/proc/{pid}/statm").read_text().split()[1])
    return pages * 4096


class StormTest(LiveTest):
    def setUp(self) -> None:
        super().setUp()
        self.load(R=region())

    def exchange(self, parts: list[bytes], wait: bool = True) -> bytes:
        """Sends the parts one by one, and returns what comes back until the agent closes."""
        connection = UnixConnection(self.agent.socket)
        connection.connect()
        received = b""
        with contextlib.closing(connection), contextlib.suppress(OSError):
            for part in parts:
                connection.sock.sendall(part)
            while wait and (data := connection.sock.recv(65536)):
                received += data
        return received

    def weather(self, storm: Callable[[], None], times: int = 4) -> None:
        """A storm leaves nothing behind, however often it comes."""
        pid = self.agent.process.pid
        open_before, tasks = descriptors(pid), threads(pid)
        state = self.client.revision(), self.client.cloud(), self.client.output()
        storm()
        self.calm(pid, open_before, tasks)
        before = resident(pid)
        for _ in range(times):
            storm()
        self.calm(pid, open_before, tasks)
        poll(lambda: resident(pid) <= before + ALLOWANCE,
             f"memory is back at {before} bytes, and {ALLOWANCE} more")
        self.assertEqual((self.client.revision(), self.client.cloud(), self.client.output()), state)

    def calm(self, pid: int, open_before: int, tasks: int) -> None:
        poll(lambda: descriptors(pid) <= open_before, "all descriptors are closed")
        poll(lambda: threads(pid) <= tasks, "all threads have ended")
        self.assertEqual(self.client.get("/healthz").status, 200)


class Storms(StormTest):
    cost = 10

    def test_half_requests(self) -> None:
        whole = PATCH + b"Content-Length: 14\r\n\r\n{\"region\": {}}"

        def storm() -> None:
            for end in range(0, len(whole) - 1, 3):
                self.exchange([whole[:end]], wait=False)
        self.weather(storm)

    def test_requests_that_are_deep_or_huge(self) -> None:
        bodies = [b"[" * 200_000, b'{"a":' * 100_000, b'{"region": {"' + b"x" * 300_000,
                  b"[" + b"1," * 200_000 + b"1]", b'"' + b"\\u0041" * 50_000 + b'"', b"9" * 300_000,
                  b'{"region": {"R": {"port": {' + b",".join(
                      b'"n%d": 7' % number for number in range(20_000)) + b"}}}}"]

        def storm() -> None:
            for body in bodies:
                answer = self.client.request("PATCH", "/v1/cloud", body)
                self.assertIn(answer.status, (400, 422), body[:30])
        self.weather(storm)

    def test_lines_that_do_not_end(self) -> None:
        starts = [b"", b"GET ", b"GET /v1 HTTP/1.1\r\nX: ", b"GET /v1 HTTP/1.1\r\n" + HEAD,
                  PATCH + b"Transfer-Encoding: chunked\r\n\r\n",
                  PATCH + b"Transfer-Encoding: chunked\r\n\r\n5;x=",
                  PATCH + b"Transfer-Encoding: chunked\r\n\r\n0\r\nX: "]

        def storm() -> None:
            for start in starts:
                received = self.exchange([start] + [b"y" * 8192] * 12)
                self.assertIn(received[:12], (b"HTTP/1.1 431", b"HTTP/1.1 400", b""), start)
        self.weather(storm)

    def test_what_is_no_http(self) -> None:
        choices = random.Random(11)
        frames = [b"\x16\x03\x01\x02\x00\x01\x00", b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
                  b"\0" * 100, b"GET /v1\r\n\r\n", b"GET  /v1  HTTP/1.1\r\n\r\n", b"\r\n" * 5000]
        frames += [choices.randbytes(choices.randint(1, 3000)) for _ in range(40)]

        def storm() -> None:
            for frame in frames:
                self.exchange([frame, b"\r\n\r\n"], wait=False)
        self.weather(storm)

    def test_watchers_that_come_and_go(self) -> None:
        def storm() -> None:
            streams = [self.client.stream(f"/v1/watch?of={of}&at=/region/R")
                       for of in ("cloud", "output") for _ in range(40)]
            for stream in streams[::2]:
                stream.next()
            for stream in streams:
                stream.close()
        self.weather(storm)

    def test_requests_that_nobody_waits_for(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        body = b'{"requester": "b", "requestId": "c", "wait": 60}'
        lock = (b"POST /v1/region/R/sync/lock HTTP/1.1\r\nHost: x\r\n"
                b"Content-Type: application/json\r\nContent-Length: %d\r\n\r\n" % len(body)) + body
        wait = b"GET /v1/output?wait=99999&timeout=60 HTTP/1.1\r\nHost: x\r\n\r\n"
        dry = (b"PATCH /v1/cloud?dry-run=true HTTP/1.1\r\nHost: x\r\nContent-Type: %s\r\n"
               b"Content-Length: 2\r\n\r\n{}" % MERGE.encode())

        def storm() -> None:
            for request in (lock, wait, lock, wait, dry) * 20:
                self.exchange([request], wait=False)
            poll(lambda: self.client.sync("R")["waiting"] == 0, "nobody waits")
        self.weather(storm)

    def test_long_pipelines(self) -> None:
        one = b"GET /v1/cloud HTTP/1.1\r\nHost: x\r\n\r\n"
        last = b"GET /v1/cloud HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"

        def storm() -> None:
            received: list[bytes] = []
            connection = UnixConnection(self.agent.socket)
            connection.connect()

            def read() -> None:
                while data := connection.sock.recv(65536):
                    received.append(data)
            reader = threading.Thread(target=read)
            reader.start()
            connection.sock.sendall(one * 1500 + last)
            reader.join(30)
            self.assertFalse(reader.is_alive())
            connection.close()
            self.assertEqual(b"".join(received).count(b"HTTP/1.1 200 OK"), 1501)
        self.weather(storm, times=2)

    def test_pipelines_that_nobody_reads(self) -> None:
        one = b"GET /v1/cloud HTTP/1.1\r\nHost: x\r\n\r\n"

        def storm() -> None:
            for _ in range(10):
                connection = UnixConnection(self.agent.socket, 0.2)
                connection.connect()
                with contextlib.suppress(TimeoutError):
                    connection.sock.sendall(one * 20_000)
                connection.close()
        self.weather(storm, times=2)


class Splits(StormTest):
    """However a request is cut into packets, its answer is the same."""

    BODY = b'{"region": {"R": {"network": {"caf\xc3\xa9": {}}}}}'

    def answers(self, received: bytes) -> list[tuple[bytes, bytes]]:
        """Status line and body of each."""
        found = []
        while received:
            head, _, rest = received.partition(b"\r\n\r\n")
            length = int(next(line for line in head.lower().split(b"\r\n")
                              if line.startswith(b"content-length:")).partition(b":")[2])
            found.append((head.partition(b"\r\n")[0], rest[:length]))
            received = rest[length:]
        return found

    def test_at_every_byte(self) -> None:
        chunks = b"".join(b"%x\r\n%s\r\n" % (len(part), part)
                          for part in (self.BODY[:7], self.BODY[7:33], self.BODY[33:]))
        dry = PATCH.replace(b"/v1/cloud", b"/v1/cloud?dry-run=true")
        requests = [
            dry + b"Content-Length: %d\r\n\r\n" % len(self.BODY) + self.BODY,
            dry + b"Transfer-Encoding: chunked\r\n\r\n" + chunks + b"0\r\n\r\n",
            b"GET /v1/cloud/region/R/port?at= HTTP/1.1\r\nHost: x\r\n\r\n",
        ]
        last = b"GET /v1/region/R/sync HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
        whole = b"".join(requests) + last
        expected = self.answers(self.exchange([whole]))
        self.assertEqual([line.split()[1] for line, _ in expected],
                         [b"200", b"200", b"400", b"200"])

        def storm() -> None:
            for cut in range(1, len(whole), 7):
                self.assertEqual(self.answers(self.exchange([whole[:cut], whole[cut:]])), expected)
            single = [whole[number:number + 1] for number in range(len(whole))]
            self.assertEqual(self.answers(self.exchange(single)), expected)
        self.weather(storm, times=1)


class Headers(StormTest):
    def test_every_header_twice(self) -> None:
        """One that is there twice is refused where two readers could take different ones."""
        single = {"Content-Type": MERGE, "Idempotency-Key": "k", "Sync-Request-Id": "r",
                  "Last-Event-ID": "1", "Authorization": "Bearer x", "Host": "x",
                  "Content-Length": "2", "Transfer-Encoding": "chunked"}
        lists = {"If-Match": '"1"', "If-None-Match": '"77"', "Accept": "*/*", "Connection": "close",
                 "X-Other": "y", "User-Agent": "a", "Cookie": "c=d", "Accept-Encoding": "gzip",
                 "Cache-Control": "no-cache", "Origin": "http://x"}
        with self.unchanged():
            for name, value in {**single, **lists}.items():
                for other in (value, value[:-1] + "8" + value[-1]):
                    with self.subTest(f"{name}: {value}, {other}"):
                        head = b"PATCH /v1/cloud?dry-run=true HTTP/1.1\r\n"
                        given = {"Host": "x", "Content-Type": MERGE, "Content-Length": "2",
                                 "Connection": "close"}
                        if name == "Transfer-Encoding":
                            del given["Content-Length"]
                        given.pop(name, None)
                        lines = "".join(f"{n}: {v}\r\n" for n, v in given.items())
                        lines += f"{name}: {value}\r\n{name}: {other}\r\n\r\n"
                        received = self.exchange([head + lines.encode() + b"{}"])
                        status = int(received.split()[1])
                        if name in single:
                            self.assertEqual(status, 400, received)
                        else:
                            self.assertEqual(status, 200, received)


class Stops(StormTest):
    def test_under_load_what_is_accepted_is_answered(self) -> None:
        agent = self.stateful()
        acknowledged: list[list[int]] = [[] for _ in range(6)]
        wrong: list[object] = []
        begun = threading.Barrier(7)

        def write(number: int) -> None:
            connection = agent.client.connect()
            count = 0
            with contextlib.closing(connection):
                while True:
                    try:
                        agent.client.send(connection, "PATCH", f"/v1/cloud/region/R{number}",
                                          {"network": {str(count): {}}})
                        response = connection.getresponse()
                        body = response.read()
                    except (OSError, http.client.HTTPException):
                        break
                    if response.status != 200:
                        if response.status != 503:
                            wrong.append((response.status, body))
                        break
                    acknowledged[number].append(count)
                    count += 1
                    if count == 20:
                        begun.wait(20)
        writers = [threading.Thread(target=write, args=(number,)) for number in range(6)]
        for writer in writers:
            writer.start()
        begun.wait(20)
        self.assertEqual(agent.terminate(), 0)
        for writer in writers:
            writer.join(20)
        self.assertEqual(wrong, [])
        agent.start()
        regions = agent.client.cloud()["region"]
        for number, counts in enumerate(acknowledged):
            there = {int(name) for name in regions[f"R{number}"]["network"]}
            # A request of which nothing is known is at most one more.
            self.assertLessEqual(set(counts), there)
            self.assertLessEqual(len(there), len(counts) + 1)


class LargeBodies(StormTest):
    """The limit of each body alone would let them take 160 MiB."""

    options = ("--max-body", "4194304", "--max-bodies", "8388608")

    def test_many_large_bodies_at_once(self) -> None:
        size = 4 << 20
        pid = self.agent.process.pid
        before = resident(pid)
        connections = [UnixConnection(self.agent.socket) for _ in range(40)]
        with contextlib.ExitStack() as stack:
            for connection in connections:
                stack.callback(connection.close)
                connection.connect()
                with contextlib.suppress(OSError):
                    connection.sock.sendall(PATCH + b"Content-Length: %d\r\n\r\n" % size)
                    connection.sock.sendall(b" " * (size - 1))
            poll(lambda: self.refused_bodies() >= 38, "all but two are refused")
            self.assertLess(resident(pid), before + (48 << 20) + ALLOWANCE)
            # Small ones get through.
            self.ok(self.client.patch({}))
        poll(lambda: self.client.request("PATCH", "/v1/cloud", b" " * (size - 2) + b"{}").status
             == 200, "there is room for a large body again")

    def refused_bodies(self) -> int:
        page = self.client.get("/metrics").body.decode()
        return sum(int(line.split()[-1]) for line in page.splitlines()
                   if line.startswith("vnagent_http_requests_total{") and 'status="503"' in line)
