"""What is acknowledged outlives a kill of the process."""

import json
import subprocess
from typing import Any

from agent import LiveTest, poll, program, region


class Restarts(LiveTest):
    cost = 5

    def setUp(self) -> None:
        self.agent = self.stateful()
        self.client = self.agent.client

    def restart(self) -> None:
        self.agent.kill()
        self.agent.start()

    def state(self) -> dict[str, Any]:
        """All that a restart must keep, byte by byte."""
        info = self.client.get("/v1").json
        kept = {name: info[name] for name in ("revision", "check", "instance", "durable")}
        for place in ("cloud", "output", "cloud/region", "cloud/region/R", "cloud/region/R/port",
                      "cloud/region/R/port/p1", "cloud/region/R/segment/seg-top",
                      "cloud/region/R/portBinding", "cloud/region/R/network/net-1",
                      "cloud/region/R/syncStatus", "output/regionStatus"):
            answer = self.client.get(f"/v1/{place}")
            kept[place] = answer.status, answer.body, answer.etag
        return kept

    def history(self) -> None:
        """Changes after which the output does not follow from the cloud alone."""
        self.load(R=region(), S={})
        assignment = {"vlan": {"100": True, "101": True}}
        self.ok(self.client.patch({"config": {"vlanAssignment": {"R": assignment,
                                                                 "S": assignment}}}))
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.step("R", "start", "r1"))
        self.ok(self.client.step("R", "complete", "r1"))
        self.ok(self.client.lock("R", "b", "r2"))
        self.ok(self.client.patch({"region": {"R": {"port": {"p3": {"vlanType": 1}},
            "segment": {"seg-2": {"segmentationType": "vlan", "segmentationId": 101}},
            "portBinding": {"p3": {"portToSwitchInterfaceBinding": {"leaf-1": {"Ethernet7": {
                "host": "bm-host-2", "segment": {"0": "seg-2"}}}}}}}}}))
        self.ok(self.client.patch({"region": {"R": {"portBinding": {"p2": None}}}}))
        self.ok(self.client.patch({"region": {"R": {"port": {"p1": {"vlanType": 1}}}}}))
        self.ok(self.client.lock("S", "c", "r3"))

    def test_everything_is_as_it_was(self) -> None:
        self.history()
        before = self.state()
        self.assertIs(before["durable"], True)
        for _ in range(3):
            self.restart()
            self.assertEqual(self.state(), before)
        self.load(T={})
        self.assertEqual(self.client.revision(), before["revision"] + 1)
        after = self.state()
        self.assertEqual(self.agent.terminate(), 0)
        self.agent.start()
        self.assertEqual(self.state(), after)

    def test_after_each_change(self) -> None:
        changes = [
            {"region": {"R": region()}}, {"region": {"R": {"port": {"p1": {"vlanType": 2}}}}},
            {"region": {"R": {"requester": "a", "requestId": "r"}}},
            {"region": {"R": {"syncStatus": "syncInProgress"}}},
            {"region": {"R": {"syncStatus": "syncComplete"}}}, {}, {"region": {"R": None}}]
        for number, patch in enumerate(changes, 1):
            with self.subTest(patch=patch):
                self.assertEqual(self.ok(self.client.patch(patch)), {"revision": number})
                before = self.state()
                self.restart()
                self.assertEqual(self.state(), before)

    def test_an_empty_cloud(self) -> None:
        before = self.state()
        self.restart()
        self.assertEqual(self.state(), before)

    def test_a_watch_goes_on_where_it_was(self) -> None:
        for of, whole in (("output", self.client.output), ("cloud", self.client.cloud)):
            with self.subTest(of):
                self.load(R=region())
                watch = self.follow(f"/v1/watch?of={of}")
                watch.next()
                self.ok(self.client.patch({"region": {"R": {"port": {"q": {}}}, f"X{of}": {}}}))
                watch.until(self.client.revision())
                self.restart()
                again = self.follow(f"/v1/watch?of={of}", headers={"Last-Event-ID":
                                                                  watch.events[-1].id},
                                    document=watch.document, revision=watch.revision)
                revision = self.ok(self.client.patch({"region": {f"Y{of}": {}}}))["revision"]
                again.until(revision)
                self.assertEqual([e.revision for e in again.events if e.name == "patch"],
                                 [revision])
                self.assertEqual(again.document, whole())

    def test_revisions_from_before_can_be_resumed(self) -> None:
        ids, documents = [], []
        for number in range(5):
            self.load(**{f"R{number}": {}})
            ids.append(f"{number + 1}-{self.client.get('/v1').json['check']}")
            documents.append(self.client.output())
        self.restart()
        for number in range(4):
            watch = self.follow(f"/v1/watch?since={ids[number]}", document=documents[number],
                                revision=number + 1).until(5)
            self.assertEqual(watch.document, documents[4])
            self.assertEqual(watch.events[-1].id, ids[4])

    def test_a_long_history_can_be_resumed_from_any_revision(self) -> None:
        # More than an agent with a state directory holds in memory.
        documents = {self.client.revision(): self.client.cloud()}
        for number in range(120):
            names = {f"{number}-{i}-" + "x" * 200: {} for i in range(60)}
            revision = self.ok(self.client.patch(
                {"region": {"Wide": {"network": names | (
                    {f"{number - 1}-{i}-" + "x" * 200: None for i in range(59)}
                    if number > 0 else {})}}}))["revision"]
            documents[revision] = self.client.cloud()
        last = max(documents)
        for restarts in (False, True):
            if restarts:
                self.restart()
            for revision in sorted(documents)[:-1:17]:
                with self.subTest(f"from revision {revision}", after_a_restart=restarts):
                    watch = self.follow(f"/v1/watch?of=cloud&since={revision}",
                                        document=documents[revision], revision=revision)
                    watch.until(last)
                    self.assertEqual(watch.document, documents[last])

    def test_keys_are_remembered(self) -> None:
        key = {"Idempotency-Key": "k"}
        first = self.client.patch({"region": {"R": {}}}, headers=key)
        self.ok(self.client.patch({"region": {"S": {}}}))
        self.restart()
        again = self.client.patch({"region": {"R": {}}}, headers=key)
        self.assertEqual((again.status, again.body), (first.status, first.body))
        self.refused(self.client.patch({}, headers=key), 422, "key-reused")
        self.assertEqual(self.client.revision(), 2)

    def test_locks_are_held_and_fence(self) -> None:
        self.load(R={})
        self.ok(self.client.lock("R", "a", "r1"))
        self.restart()
        self.refused(self.client.lock("R", "b", "r2"), 409, "lock-held")
        self.refused(self.client.patch({"region": {"R": {}}}, headers={"Sync-Request-Id": "r2"}),
                     409, "lock-held")
        self.ok(self.client.patch({"region": {"R": {}}}, headers={"Sync-Request-Id": "r1"}))
        self.ok(self.client.lock("R", "a", "r1"))

    def test_the_recording_ends_in_the_same_output(self) -> None:
        self.history()
        revision, output = self.client.revision(), self.client.output()
        self.restart()
        self.load(T=region(port={}, portBinding={}))
        self.assertEqual(self.agent.terminate(), 0)
        state = str(self.agent.folder / "state")
        recorded = subprocess.run([program(), "run", "--journal", state, "--until", str(revision),
                                   "--format", "json"], capture_output=True, check=True)
        self.assertEqual(json.loads(recorded.stdout), output)


class RestartedTimers(LiveTest):
    def test_a_timer_has_one_whole_timeout_again(self) -> None:
        self.agent = self.stateful("--region-sync-timeout", "3")
        self.client = self.agent.client
        self.load(R={}, S={})
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.step("R", "start", "r1"))
        poll(lambda: self.client.sync("R")["expiresIn"] < 2, "a second has passed")
        revision = self.client.revision()
        self.agent.kill()
        self.agent.start()
        status = self.client.sync("R")
        self.assertGreater(status["expiresIn"], 2)
        self.assertEqual((status["syncStatus"], status["owner"]), ("syncInProgress", "a"))
        self.assertIsNone(self.client.sync("S")["expiresIn"])
        poll(lambda: self.client.revision() > revision, "the timer expires")
        self.assertEqual(self.client.sync("R")["syncStatus"], "syncTimedOut")
        self.assertEqual(self.client.revision(), revision + 1)

    def setUp(self) -> None:
        pass


class WithoutStateDirectory(LiveTest):
    def test_a_restart_begins_anew_and_the_agent_says_so(self) -> None:
        self.load()
        instance = self.client.get("/v1").json["instance"]
        poll(lambda: "memory" in self.agent.log.read_text().lower(), "it says so")
        self.agent.kill()
        self.agent.start()
        info = self.client.get("/v1").json
        self.assertEqual(info["revision"], 0)
        self.assertNotEqual(info["instance"], instance)
