"""What a principal of one region is answered does not depend on what other regions have.

Two agents have the same region for the principal. One of them has another region beside it, and had as
many changes. Whatever the principal asks, with every operation of the interface's description, both
answer the same, byte for byte, but for what differs between any two agents.
"""

import re
import sys
from pathlib import Path
from typing import Any, NamedTuple

from agent import (Agent, Answer, Client, LiveTest, Stream, anonymous, free_port, merged,
                   named_region, tcp_client, token_file)

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from described import find, operations  # noqa: E402

MINE, OTHER, NONE = "Mine", "Secret", "Nowhere"
HIDDEN = ("Secret", "secret", "4001", "Hidden")


class Side(NamedTuple):
    """One of the two agents."""

    agent: Agent
    admin: Client
    driver: Client


def normal(answer: Answer) -> Any:
    """Without what no two agents share: the time, the check values, UUIDs."""
    headers = {name.lower(): value for name, value in answer.headers.items()
               if name.lower() not in ("date", "content-length")}
    text = re.sub(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", "UUID", answer.body.decode())
    text = re.sub(r'"(check|uptime|heldFor|expiresIn)": ?("[^"]*"|[0-9.e-]+)', r'"\1": _', text)
    return answer.status, headers, text


class Strangers(LiveTest):
    cost = 5

    def setUp(self) -> None:
        self.alone, self.beside = self.side(False), self.side(True)

    def side(self, has_other: bool) -> Side:
        agent = Agent()
        port = free_port()
        tokens = token_file(agent.folder, {"driver": f"write:{MINE}"})
        agent.options = ["--listen", f"127.0.0.1:{port}", "--tokens", tokens]
        self.addCleanup(agent.close)
        agent.start()
        side = Side(agent, agent.client, tcp_client(port, "driver"))
        self.ok(side.admin.patch({"region": {MINE: named_region("mine")}, "config": {
            "vlanTypeDriver": 1, "vlanAssignment": {MINE: {"vlan": {"100": True}}}}}))
        for change in self.hidden():
            self.ok(side.admin.patch(change if has_other else {}))
        return side

    @staticmethod
    def hidden() -> list[Any]:
        """Changes that only the other agent has."""
        shared = {"port": {"secret-p3": {}}, "portBinding": {"secret-p3": {
            "portToSwitchInterfaceBinding": {"leaf-1": {"Ethernet7": {
                "host": "secret-remote", "segment": {"0": "seg-hidden"}}}}}},
            "segment": {"seg-hidden": {"segmentationType": "vlan", "segmentationId": 4001}}}
        return [{"region": {OTHER: named_region("secret")}}, {"region": {OTHER: shared}},
                {"config": {"vlanAssignment": {OTHER: {"vlan": {"4001": True}}}}},
                {"region": {OTHER: {"requester": "secret-owner", "requestId": "secret-request"}}},
                {"region": {OTHER: {"syncStatus": "syncInProgress"}}}]

    def ask(self, method: str, path: str, body: Any = None,
            headers: dict[str, str] | None = None) -> Answer:
        """Both answer the same; returns the answer."""
        with self.subTest(f"{method} {path} {body} {headers}"):
            answers = [side.driver.request(method, path, body, headers)
                       for side in (self.alone, self.beside)]
            self.assertEqual(normal(answers[1]), normal(answers[0]))
            asked = f"{path} {body} {headers}"
            for word in HIDDEN:
                if word not in asked:
                    # Without the digits of times.
                    self.assertNotIn(word, str(normal(answers[1])))
        return answers[0]

    def requests(self) -> list[tuple[str, str, Any]]:
        """Each operation, with the principal's own names, those of the other, and of nobody."""
        at = "/v1/cloud?at=/region/"
        hosts = "requestedResources/resourcesForHostname"
        places = ["region", "config", "config/vlanAssignment"]
        outputs = ["regionStatus", "requestedResources", hosts, "networkElement",
                   "requestedResources/resourcesForSwitchport/leaf-1/Ethernet7",
                   f"{hosts}/mine-compute", f"{hosts}/secret-compute", f"{hosts}/nowhere-compute"]
        asked: list[tuple[str, str, Any]] = [
            ("GET", path, None) for path in
            ("/v1", "/v1/cloud", "/v1/output", "/metrics", "/openapi.json", "/v1/inspect",
             "/v1/trace", "/healthz", "/readyz", "/v1/cloud?at=", "/v1/output?wait=1",
             *(f"/v1/cloud/{place}" for place in places),
             *(f"/v1/output/{place}" for place in outputs))]
        asked += [("PUT", "/v1/trace", {"level": 9}), ("PATCH", "/v1/cloud", {"config": {}}),
                  ("PATCH", "/v1/cloud", {"region": None}), ("DELETE", "/v1/cloud/config", None),
                  ("PATCH", "/v1/cloud", {"region": {MINE: {}, OTHER: {}}})]
        for name in (MINE, OTHER, NONE):
            low = name.lower()
            place, sync = f"/v1/cloud/region/{name}", f"/v1/region/{name}/sync"
            asked += [("GET", path, None) for path in (
                place, f"{at}{name}", f"{place}/port", f"{place}/port/{low}-p1",
                f"{place}/portBinding/{low}-p1", f"{place}/syncStatus",
                f"/v1/output/regionStatus/{name}", f"/v1/output?at=/regionStatus/{name}", sync,
                f"/v1/cloud/config/vlanAssignment/{name}",
                f"/v1/inspect/openStackSm/regionConfigSm/{name}")]
            patch = {"network": {"n": {}}}
            for query in ("", "?dry-run=true"):
                asked += [("PATCH", f"{place}{query}", patch), ("PUT", f"{place}{query}", patch),
                          ("PATCH", f"/v1/cloud{query}", {"region": {name: patch}}),
                          ("PATCH", f"{place}/port/{low}-p1{query}", {"vlanType": 3}),
                          ("POST", f"/v1/batch{query}", [{"region": {name: patch}}]),
                          ("DELETE", f"{place}/network/n{query}", None)]
            asked += [("PUT", f"{at}{name}", patch), ("DELETE", f"{at}{name}/network/n", None),
                      ("POST", f"{sync}/lock", {"requester": "d", "requestId": "r"}),
                      ("POST", f"{sync}/start", None), ("POST", f"{sync}/heartbeat", None),
                      ("POST", f"{sync}/complete", None), ("DELETE", f"{sync}/lock", None),
                      ("DELETE", f"{sync}/lock?force=true", None), ("DELETE", place, None)]
        return asked

    def test_no_operation_tells_whether_there_is_another_region(self) -> None:
        hidden = self.beside.admin.get(f"/v1/cloud/region/{OTHER}").body
        known = operations(self.beside.admin.get("/openapi.json").json)
        used = set()
        for method, path, body in self.requests():
            operation = find(known, method, path.partition("?")[0])
            self.assertIsNotNone(operation, f"{method} {path}")
            used.add((operation.path, operation.method))
            if method == "GET":
                answer = self.ask("GET", path)
                self.ask("HEAD", path)
                used.add((operation.path, "head"))
                if answer.etag:
                    self.assertEqual(self.ask("GET", path, headers={
                        "If-None-Match": answer.etag}).status, 304)
                    self.ask("GET", path, headers={"If-Match": '"2"'})
                continue
            for headers in ({"If-Match": '"2"'}, {"If-None-Match": "*"}, {"Sync-Request-Id": "x"},
                            {"Sync-Request-Id": "secret-request"}, {"Sync-Request-Id": "r"},
                            {"Idempotency-Key": f"{method} {path}"[:60]},
                            {"Idempotency-Key": f"{method} {path}"[:60]}, {}):
                self.ask(method, path, body, headers)
        # The streams have a test of their own.
        self.assertEqual(used, {(operation.path, operation.method) for operation in known}
                         - {("/v1/watch", "get"), ("/v1/trace/tail", "get")})
        self.assertEqual(self.beside.admin.get(f"/v1/cloud/region/{OTHER}").body, hidden)
        revisions = [side.admin.revision() for side in (self.alone, self.beside)]
        self.assertEqual(revisions[0], revisions[1])

    def watched(self, side: Side, path: str, has_other: bool) -> tuple[Any, set[int], set[int]]:
        """The document that a watch leads to, the revisions of its patches, and those of the changes
        of the principal's own region meanwhile."""
        stream = side.driver.stream(path)
        self.assertIsInstance(stream, Stream)
        self.addCleanup(stream.close)
        own = set()
        for number, change in enumerate(self.hidden(), 1):
            self.ok(side.admin.patch(change if has_other else {}))
            own.add(self.ok(side.admin.patch({"region": {MINE: {
                "syncInterval": number, "syncStatus": "syncTimedOut" if number % 2 else
                "syncUnknown"}}}))["revision"])
        document: Any = {}
        patches = set()
        while max(patches, default=0) < max(own):
            event = stream.next()
            self.assertIsNotNone(event)
            for word in HIDDEN:
                self.assertNotIn(word, str(event.data))
            if event.name == "patch":
                patches.add(event.revision)
            if event.name != "bookmark":
                document = merged(document, event.data)
        return anonymous(document), patches, own

    def test_no_event_tells_of_another_region(self) -> None:
        for path in ("/v1/watch", "/v1/watch?of=cloud", "/v1/watch?since=1",
                     "/v1/watch?of=cloud&since=1", "/v1/watch?of=cloud&at=/region"):
            with self.subTest(path):
                before = self.beside.admin.revision()
                alone, _, _ = self.watched(self.alone, path, False)
                beside, patches, own = self.watched(self.beside, path, True)
                self.assertEqual(beside, alone)
                # Revisions may share an event; each event has a change of its own region. The first
                # after `since` has also what was changed before.
                ends = sorted(revision for revision in patches if revision > before)
                spans = list(zip([before, *ends], ends))
                for start, end in spans[1:] if "since=1" in path else spans:
                    self.assertTrue(any(start < revision <= end for revision in own), (ends, own))
        for path in (f"/v1/watch?of=cloud&at=/region/{OTHER}", f"/v1/watch?at=/regionStatus/{OTHER}",
                     f"/v1/watch?of=cloud&at=/config/vlanAssignment/{OTHER}"):
            with self.subTest(path):
                for side in (self.alone, self.beside):
                    stream = side.driver.stream(path)
                    self.assertIsInstance(stream, Stream)
                    self.addCleanup(stream.close)
                    self.assertEqual(stream.next().data, {})

    def test_streams_of_others_are_refused(self) -> None:
        for side in (self.alone, self.beside):
            self.refused(side.driver.stream("/v1/trace/tail"), 403, "forbidden")
