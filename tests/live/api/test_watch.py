"""Watching: snapshots, patches, resuming, places, bookmarks, slow readers."""

import threading
from typing import Any

from agent import EMPTY_OUTPUT, Answer, LiveTest, Stream, region


class Watching(LiveTest):
    def test_a_snapshot_then_patches(self) -> None:
        watch = self.follow()
        first = watch.next()
        self.assertEqual((first.name, first.revision, first.data), ("snapshot", 0, EMPTY_OUTPUT))
        self.load()
        event = watch.next()
        self.assertEqual((event.name, event.revision), ("patch", 1))
        self.assertEqual(watch.document, self.client.output())
        self.assertEqual(event.id, f"1-{self.client.get('/v1').json['check']}")

    def test_the_cloud_may_be_watched_too(self) -> None:
        watch = self.follow("/v1/watch?of=cloud")
        self.assertEqual(watch.next().data, {})
        for patch in ({"region": {"R": region()}}, {"region": {"R": {"syncHeartbeat": 5}}},
                      {"region": {"R": {"portBinding": {"p1": None}}}},
                      {"config": {"regionSyncTimeout": 9}}, {"region": None}):
            revision = self.ok(self.client.patch(patch))["revision"]
            watch.until(revision)
            self.assertEqual(watch.document, self.client.cloud())
        self.assertEqual([event.revision for event in watch.events], [0, 1, 2, 3, 4, 5])

    def test_all_that_a_revision_changed_is_in_one_event(self) -> None:
        watch = self.follow()
        watch.next()
        for number in range(5):
            self.load(**{f"R{n}": {"network": {f"n{number}": {}}} for n in range(3)})
        self.client.patch({"region": {"R0": None, "R1": {"syncStatus": "syncInProgress"}}})
        watch.until(6)
        self.assertEqual(len({event.revision for event in watch.events}), len(watch.events))
        self.assertEqual(watch.document, self.client.output())

    def test_watchers_get_the_same(self) -> None:
        watches = [self.follow() for _ in range(5)]
        for watch in watches:
            watch.next()
        for number in range(1, 6):
            self.ok(self.client.patch({"region": {f"R{number}": {}}}))
            for watch in watches:
                watch.until(number)
        for watch in watches[1:]:
            self.assertEqual(watch.events, watches[0].events)

    def test_only_what_changes_is_an_event(self) -> None:
        self.load()
        watch = self.follow()
        watch.next()
        # Takes a revision, and changes nothing in the output.
        self.client.patch({"region": {"RegionOne": {"network": {"net-2": {}}}}})
        self.client.patch({"region": {"Two": {}}})
        while watch.next().name == "bookmark":
            pass
        self.assertEqual(watch.revision, 3)
        self.assertEqual(list(watch.events[-1].data), ["regionStatus"])
        self.assertEqual(list(watch.events[-1].data["regionStatus"]), ["Two"])

    def test_queries_that_cannot_be_read(self) -> None:
        for query in ("of=both", "of=output&of=cloud", "since=x", "since=-1", "since=1-xyz",
                      "at=region", "at=/a~2", "since=1&since=2", "from=1", "at=/%ff", "since="):
            with self.subTest(query):
                answer = self.client.stream(f"/v1/watch?{query}")
                self.assertIsInstance(answer, Answer)
                self.refused(answer, 400, "bad-request")

    def test_a_watch_ends_when_the_server_stops(self) -> None:
        watch = self.follow()
        watch.next()
        self.assertEqual(self.agent.terminate(), 0)
        while (event := watch.stream.next()) is not None:
            self.assertEqual(event.name, "bookmark")


class Resuming(LiveTest):
    def setUp(self) -> None:
        super().setUp()
        self.documents: list[Any] = [self.client.output()]
        self.ids = [f"0-{self.client.get('/v1').json['check']}"]
        for number in range(1, 6):
            self.ok(self.client.patch({"region": {f"R{number}": region() if number == 1 else {},
                                                  f"R{number - 2}": None}}))
            self.documents.append(self.client.output())
            self.ids.append(f"{number}-{self.client.get('/v1').json['check']}")

    def resumed(self, start: int, path: str, headers: dict[str, str] | None = None) -> None:
        watch = self.follow(path, headers=headers, document=self.documents[start], revision=start)
        watch.until(5)
        self.assertEqual(watch.document, self.documents[5])
        self.assertNotIn("snapshot", [event.name for event in watch.events])
        self.assertEqual(watch.events[-1].id, self.ids[5])

    def test_patches_since_a_revision(self) -> None:
        for start in range(5):
            with self.subTest(start):
                self.resumed(start, f"/v1/watch?since={start}")
                self.resumed(start, f"/v1/watch?since={self.ids[start]}")
                self.resumed(start, "/v1/watch", {"Last-Event-ID": self.ids[start]})
                self.resumed(start, "/v1/watch", {"Last-Event-ID": str(start)})

    def test_the_header_counts_where_both_are_given(self) -> None:
        self.resumed(3, f"/v1/watch?since={self.ids[1]}", {"Last-Event-ID": self.ids[3]})

    def test_from_the_present_one_only_what_is_new_comes(self) -> None:
        watch = self.follow(f"/v1/watch?since={self.ids[5]}", document=self.documents[5],
                            revision=5)
        self.ok(self.client.patch({"region": {"New": {}}}))
        watch.until(6)
        self.assertEqual(list(watch.events[-1].data["regionStatus"]), ["New"])
        self.assertEqual(watch.document, self.client.output())

    def test_the_cloud_is_resumed_too(self) -> None:
        start = self.client.cloud()
        self.ok(self.client.patch({"region": {"R5": {"port": {"z": {}}}}}))
        self.ok(self.client.patch({"region": {"R4": None}}))
        watch = self.follow("/v1/watch?of=cloud&since=5", document=start, revision=5).until(7)
        self.assertEqual(watch.document, self.client.cloud())

    def test_another_history(self) -> None:
        for since in ("3-0123456789abcdef", f"4-{self.ids[3].split('-')[1]}"):
            self.refused(self.client.stream(f"/v1/watch?since={since}"), 410, "gone")

    def test_a_revision_of_the_future(self) -> None:
        for since in ("6", "999999-0123456789abcdef"):
            answer = self.client.stream(f"/v1/watch?since={since}")
            self.refused(answer, 503, "behind")
            self.assertGreaterEqual(int(answer.headers["Retry-After"]), 0)


class Places(LiveTest):
    def test_several_places_at_their_full_paths(self) -> None:
        self.load(R1=region(), R2={})
        watch = self.follow("/v1/watch?at=/regionStatus/R1/syncStatus&at=/requestedResources/"
                            "resourcesForHostname/compute-1&at=/regionStatus/none")
        output = self.client.output()
        resources = output["requestedResources"]["resourcesForHostname"]
        self.assertEqual(watch.next().data, {
            "regionStatus": {"R1": {"syncStatus": "syncUnknown"}},
            "requestedResources": {"resourcesForHostname": {"compute-1": resources["compute-1"]}}})
        self.client.patch({"region": {"R2": {"syncStatus": "syncInProgress"}}})
        self.client.patch({"region": {"R1": {"syncStatus": "syncInProgress"}}})
        while watch.next().name == "bookmark":
            pass
        self.assertEqual(watch.events[-1].data,
                         {"regionStatus": {"R1": {"syncStatus": "syncInProgress"}}})
        self.client.patch({"region": {"none": {}}})
        self.client.patch({"region": {"R1": None}})
        watch.until(5)
        output = self.client.output()
        self.assertEqual(watch.document, {
            "regionStatus": {"none": output["regionStatus"]["none"]},
            "requestedResources": {"resourcesForHostname": output["requestedResources"][
                "resourcesForHostname"]}})

    def test_a_place_that_does_not_exist_yet(self) -> None:
        watch = self.follow("/v1/watch?of=cloud&at=/region/R%2f1/port/p&at=/region/x~1y")
        self.assertEqual(watch.next().data, {})
        self.client.patch({"region": {"R": {}, "x/y": {"syncInterval": 3}}})
        watch.until(1)
        self.assertEqual(watch.document, {"region": {"x/y": {"syncInterval": 3}}})
        self.client.patch({"region": {"x/y": {"syncInterval": 4}}})
        watch.until(2)
        self.client.patch({"region": {"x/y": None}})
        watch.until(3)
        self.assertEqual(watch.document, {})

    def test_places_in_each_other(self) -> None:
        self.load(R=region())
        watch = self.follow("/v1/watch?of=cloud&at=/region/R&at=/region/R/port/p1")
        self.assertEqual(watch.next().data, {"region": {"R": region()}})

    def test_places_are_resumed(self) -> None:
        self.load(R=region())
        watch = self.follow("/v1/watch?of=cloud&at=/region/R/network")
        document = watch.next().data
        self.client.patch({"region": {"R": {"network": {"n2": {}}, "port": {"p9": {}}}}})
        self.client.patch({"region": {"R": {"network": {"net-1": None}}}})
        again = self.follow("/v1/watch?of=cloud&at=/region/R/network&since=1", document=document,
                            revision=1).until(3)
        self.assertEqual(again.document, {"region": {"R": {"network": {"n2": {}}}}})


class Bookmarks(LiveTest):
    cost = 40

    def test_there_is_one_at_least_every_15_seconds(self) -> None:
        watch = self.follow("/v1/watch?at=/regionStatus/R")
        watch.next()
        self.load(Two={})
        watch.stream.connection.sock.settimeout(16)
        while watch.next().revision < 1:
            pass
        self.assertEqual(watch.events[-1].name, "bookmark")
        # A bookmark can be resumed from.
        again = self.follow(f"/v1/watch?at=/regionStatus/R&since={watch.events[-1].id}",
                            document={}, revision=1)
        self.load(R={})
        again.until(2)
        self.assertEqual(list(again.document["regionStatus"]), ["R"])


class SlowReaders(LiveTest):
    cost = 30

    def test_who_reads_slowly_gets_fewer_and_larger_patches(self) -> None:
        count = 250
        slow = self.follow("/v1/watch?of=cloud")
        slow.next()
        fast = self.follow("/v1/watch?of=cloud")
        received: list[Any] = []
        reader = threading.Thread(target=lambda: received.append(fast.until(count)), daemon=True)
        reader.start()
        for number in range(count):
            ports = {f"{'x' * 60}-{number}-{port}": {} for port in range(150)}
            old = {f"{'x' * 60}-{number - 1}-{port}": None for port in range(150)} if number else {}
            self.ok(self.client.patch({"region": {"R": {"port": {**ports, **old}}}}))
        reader.join(20)
        self.assertTrue(received, "a slow reader held up another")
        slow.until(count)
        self.assertLess(len(slow.events), count)
        self.assertEqual(slow.document, self.client.cloud())
        self.assertEqual(fast.document, slow.document)
        self.assertEqual(slow.events[-1].id, fast.events[-1].id)

    def test_a_merged_patch_is_the_difference_of_the_documents(self) -> None:
        # What is removed and added again between two events loses its members one by one.
        slow = self.follow("/v1/watch?of=cloud")
        slow.next()
        padding = {f"{'y' * 200}{port}": {} for port in range(2000)}
        for number in range(12):
            self.ok(self.client.patch({"region": {"R": {"syncInterval": number + 1, "network": {
                f"n{number}": {}}}}}))
            self.ok(self.client.patch({"region": {"Padding": {"port": padding}}}))
            self.ok(self.client.patch({"region": {"R": None, "Padding": None}}))
        revision = self.ok(self.client.patch({"region": {"R": {"network": {"last": {}}}}}))[
            "revision"]
        slow.until(revision)
        self.assertEqual(slow.document, {"region": {"R": {"network": {"last": {}}}}})

    def test_who_goes_away_is_forgotten(self) -> None:
        streams = [self.client.stream("/v1/watch") for _ in range(50)]
        for stream in streams:
            self.assertIsInstance(stream, Stream)
            stream.close()
        self.load()
        self.assertEqual(self.client.revision(), 1)
