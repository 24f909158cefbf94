#!/usr/bin/env python3
"""Holds one region of a live agent in step with a directory of JSON files; see README.md."""
import argparse
import http.client
import json
import socket
import sys
import threading
import time
import uuid
from pathlib import Path
from urllib.parse import quote, unquote


class Refused(Exception):
    """Its arguments: the status, 0 where none was received for too long, and why."""


def pauses(patience):
    """Sleeps a little longer each time; ends when all in all it would be too long."""
    pause, end = 0.1, time.monotonic() + patience
    while time.monotonic() + pause < end:
        yield time.sleep(pause)
        pause = min(2 * pause, 5)


def difference(before, after):
    """The merge patch that makes one object of another."""
    patch = {key: None for key in before if key not in after}
    for key, value in after.items():
        both = isinstance(value, dict) and isinstance(before.get(key), dict)
        inner = difference(before[key], value) if both else value
        if key not in before or (inner if both else value != before[key]):
            patch[key] = inner
    return patch


class Driver:
    def __init__(self, options):
        self.options, name = options, quote(options.region, safe="")
        self.place, self.calls = f"/v1/cloud/region/{name}", f"/v1/region/{name}/sync"
        self.woken, self.must_sync, self.done = threading.Event(), True, None

    def send(self, method, path, body, headers):
        connection = http.client.HTTPConnection("localhost")
        connection.sock = socket.socket(socket.AF_UNIX)
        connection.sock.settimeout(60)  # a watch has an event at least every 15 s
        connection.sock.connect(self.options.socket)
        connection.request(method, path, None if body is None else json.dumps(body), headers)
        return connection.getresponse()

    def request(self, method, path, body=None, fine=None, **headers):
        """The answer and its ETag. A change is sent again under the same key, so applied once."""
        sent = {name.replace("_", "-"): value for name, value in headers.items()}
        sent |= {} if method == "GET" else {"Idempotency-Key": str(uuid.uuid4())}
        sent["Content-Type"] = f"application/{'merge-patch+' if method == 'PATCH' else ''}json"
        attempts = pauses(self.options.patience)
        while True:
            try:
                with self.send(method, path, body, sent) as response:
                    answer = json.loads(response.read())
                if response.status < 400 or response.status == fine:
                    return answer, response.headers["ETag"]
                if response.status not in {408, 429, 502, 503, 504, 507}:  # may succeed later
                    raise Refused(response.status, answer["detail"])
                trouble = answer["detail"]
            except (OSError, http.client.HTTPException, ValueError) as error:
                trouble = error
            if next(attempts, "over") == "over":
                raise Refused(0, f"gave up after {self.options.patience:g} s: {trouble}")

    def sync(self, desired):
        """A whole sync under the lock: who loses the lock is refused, and does no harm."""
        self.request("PUT", self.place, {}, fine=412, If_None_Match="*")  # unless it is there
        lock, over = str(uuid.uuid4()), threading.Event()
        status, _ = self.request("POST", f"{self.calls}/lock", {
            "requester": "driver.py", "requestId": lock, "wait": min(self.options.patience, 30)})

        def beat():
            while not over.wait(status["timeout"] / 3):
                self.request("POST", f"{self.calls}/heartbeat", fine=409, Sync_Request_Id=lock)
        self.request("POST", f"{self.calls}/start", Sync_Request_Id=lock)
        (heart := threading.Thread(target=beat, daemon=True)).start()
        try:
            self.request("PUT", self.place, desired, Sync_Request_Id=lock)
        finally:
            over.set()
            heart.join()  # a heartbeat after the completion would start the timer again
        self.request("POST", f"{self.calls}/complete", Sync_Request_Id=lock)

    def step(self):
        """Compares files and region, and sends what differs unless somebody was faster."""
        desired = {}
        for f in Path(self.options.directory).glob("*/*.json"):
            desired.setdefault(f.parent.name, {})[unquote(f.stem)] = json.loads(f.read_text())
        if self.must_sync:
            self.must_sync = False
            self.sync(desired)
        elif desired == self.done and not self.woken.is_set():
            return
        self.woken.clear()
        region, etag = self.request("GET", self.place)
        mine = {k: v for k, v in region.items() if not k.startswith(("sync", "request"))}
        if patch := difference(mine, desired):
            self.request("PATCH", self.place, patch, If_Match=etag)
        self.done = desired

    def watch(self):
        """Wakes the main thread at each change of the region; resumes where it was."""
        last, pointer = "", "/region/" + self.options.region.replace("~", "~0").replace("/", "~1")
        for _ in pauses(float("inf")):
            self.woken.set()
            try:
                response = self.send("GET", f"/v1/watch?of=cloud&at={quote(pointer)}", None,
                                     {"Last-Event-ID": last} if last else {})
                if response.status != 200 and b"/problems/not-ready" not in response.read():
                    last, self.must_sync = "", True  # the agent has another history than ours
                for line in response:
                    last = line[4:].strip().decode() if line.startswith(b"id: ") else last
                    if line.startswith(b"event: patch"):
                        self.woken.set()
            except (OSError, http.client.HTTPException):
                pass


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("region")
    parser.add_argument("directory", help="holds COLLECTION/ID.json, each a member of the region")
    parser.add_argument("--socket", default="/run/vnagent/vnagent.sock")
    parser.add_argument("--patience", type=float, default=60, help="seconds to retry a request")
    parser.add_argument("--once", action="store_true", help="end when the region is in step")
    driver, conflicts = Driver(options := parser.parse_args()), 0
    threading.Thread(target=driver.watch, daemon=True).start()
    while True:
        try:
            driver.step()
            if options.once:
                return 0
            conflicts = 0
        except Refused as refused:
            status, conflicts, driver.must_sync = refused.args[0], conflicts + 1, True
            if conflicts > 5 or status not in {404, 409, 412, 428}:  # lost its lock, for example
                print("driver.py:", *refused.args, file=sys.stderr)
                return 5 if conflicts > 5 else 3 if status else 4
        driver.woken.wait(1)


if __name__ == "__main__":
    sys.exit(main())
