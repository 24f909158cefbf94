"""ETags and the conditions of changes."""

import threading
from typing import Any

from agent import Answer, LiveTest, region


class ETags(LiveTest):
    def tags(self, *places: str) -> list[str | None]:
        return [self.client.get(f"/v1/cloud{place}").etag for place in places]

    def test_that_of_the_document_is_its_revision(self) -> None:
        self.load()
        self.client.patch({})
        self.client.patch({"region": {"RegionOne": {"syncHeartbeat": 1}}})
        self.assertEqual(self.tags(""), ['"3"'])
        self.client.patch({"region": {"Two": {}}})
        self.assertEqual(self.tags(""), ['"4"'])
        self.assertEqual(self.client.get("/v1/output").etag, '"4"')
        self.assertEqual(self.client.get("/v1/output/regionStatus").etag, '"4"')

    def test_that_of_a_region_and_a_collection_is_the_last_change_below(self) -> None:
        one = "/region/RegionOne"
        self.load(RegionOne=region(), Two={})
        self.client.patch({"region": {"RegionOne": {"port": {"p3": {}}}}})
        self.assertEqual(self.tags(one, f"{one}/port", f"{one}/segment", "/region/Two"),
                         ['"2"', '"2"', '"1"', '"1"'])
        self.client.patch({"region": {"RegionOne": {"segment": {"seg-top": {
            "segmentationId": 10002}}}}})
        self.assertEqual(self.tags(one, f"{one}/port", f"{one}/segment", f"{one}/portBinding"),
                         ['"3"', '"2"', '"3"', '"1"'])
        self.client.patch({"region": {"RegionOne": {"port": {"p3": None}}}})
        self.assertEqual(self.tags(one, f"{one}/port", f"{one}/segment"), ['"4"', '"4"', '"3"'])

    def test_writes_of_the_sync_scalars_do_not_count_for_the_region(self) -> None:
        self.load()
        self.ok(self.client.lock("RegionOne", "a", "r"))
        self.ok(self.client.step("RegionOne", "start", "r"))
        self.ok(self.client.step("RegionOne", "heartbeat", "r"))
        self.client.patch({"region": {"RegionOne": {"syncInterval": 8}}})
        self.assertEqual(self.tags("/region/RegionOne", "/region/RegionOne/port"), ['"1"', '"1"'])
        self.assertEqual(self.tags("", "/region", "/region/RegionOne/syncInterval"),
                         ['"5"', '"5"', '"5"'])

    def test_that_of_a_member_is_its_own_last_change(self) -> None:
        one = "/region/RegionOne"
        binding = f"{one}/portBinding/p1"
        level = f"{binding}/portToHostBinding/compute-1/segment/1"
        self.load()
        self.client.patch({"region": {"RegionOne": {"port": {"p1": {"vlanType": 2}}}}})
        self.assertEqual(self.tags(f"{one}/port/p1", f"{one}/port/p1/vlanType", f"{one}/port/p2"),
                         ['"2"', '"2"', '"1"'])
        # What a member refers to is not a part of it.
        self.client.patch({"region": {"RegionOne": {"segment": {"seg-rack": {
            "segmentationId": 101}}}}})
        self.assertEqual(self.tags(f"{one}/segment/seg-rack", binding, level),
                         ['"3"', '"1"', '"1"'])
        self.client.patch({"region": {"RegionOne": {"portBinding": {"p1": {"portToHostBinding": {
            "compute-2": {}}}}}}})
        self.assertEqual(self.tags(binding, level, f"{one}/portBinding/p2", f"{one}/network/net-1"),
                         ['"4"', '"4"', '"1"', '"1"'])
        self.client.patch({"region": {"RegionOne": {"network": {"net-2": {}}}}})
        self.assertEqual(self.tags(f"{one}/network/net-1", f"{one}/network/net-2",
                                   f"{one}/network"), ['"1"', '"5"', '"5"'])

    def test_a_patch_without_effect_leaves_the_tag(self) -> None:
        self.load()
        self.client.patch({"region": {"RegionOne": region()}})
        places = ("/region/RegionOne", "/region/RegionOne/segment/seg-top",
                  "/region/RegionOne/portBinding/p1", "/region/RegionOne/port")
        self.assertEqual(self.tags(*places), ['"1"'] * 4)
        self.client.patch({"region": {"RegionOne": {"port": {"p1": {"vlanType": 0}}}}})
        self.assertEqual(self.tags(*places), ['"1"'] * 4)

    def test_what_is_made_anew_has_a_new_tag(self) -> None:
        self.load()
        self.client.patch({"region": {"RegionOne": {"network": None}}})
        self.client.patch({"region": {"RegionOne": {"network": {"net-1": {}}}}})
        self.assertEqual(self.tags("/region/RegionOne/network/net-1"), ['"3"'])
        self.client.request("DELETE", "/v1/cloud/region/RegionOne")
        self.load()
        self.assertEqual(self.tags("/region/RegionOne", "/region/RegionOne/port/p1"),
                         ['"5"', '"5"'])

    def test_every_other_place_has_that_of_the_document(self) -> None:
        self.load(RegionOne=region(requester="a"), Two={})
        self.client.patch({"config": {"vlanAssignment": {"Two": {"vlan": {"5": True}}}}})
        self.client.patch({"region": {"Two": {"network": {"n": {}}}}})
        self.assertEqual(self.tags("/config", "/config/vlanAssignment/Two", "/region",
                                   "/region/RegionOne/requester"), ['"3"'] * 4)


class Conditions(LiveTest):
    one = "/v1/cloud/region/RegionOne"

    def change(self, method: str, path: str, body: Any = None, **headers: str) -> Answer:
        return self.client.request(method, path, body,
                                   {k.replace("_", "-"): v for k, v in headers.items()})

    def test_a_change_of_what_was_read(self) -> None:
        self.load()
        self.ok(self.change("PATCH", f"{self.one}/port/p1", {"vlanType": 1}, If_Match='"1"'))
        self.ok(self.change("PATCH", f"{self.one}/port/p2", {"vlanType": 0}, If_Match='"0", "1"'))
        self.ok(self.change("PATCH", "/v1/cloud", {"region": {"Two": {}}}, If_Match='"3"'))
        self.ok(self.change("PUT", self.one, region(), If_Match='"3"'))
        self.ok(self.change("PUT", self.one, {}, If_Match="*"))
        self.ok(self.change("DELETE", self.one, If_Match='"6"'))

    def test_a_change_of_what_has_changed_meanwhile(self) -> None:
        self.load()
        self.client.patch({"region": {"RegionOne": {"port": {"p1": {"vlanType": 2}}}}})
        with self.unchanged():
            for method, place, body, tag in (
                    ("PATCH", self.one, {}, '"2"'), ("PUT", self.one, {}, '"2"'),
                    ("DELETE", self.one, None, '"2"'), ("PATCH", "/v1/cloud", {}, '"2"'),
                    ("PATCH", f"{self.one}/port", {}, '"2"'),
                    ("PATCH", f"{self.one}/port/p1", {}, '"2"'),
                    ("DELETE", f"{self.one}/port/p1/vlanType", None, '"2"')):
                with self.subTest(f"{method} {place}"):
                    answer = self.change(method, place, body, If_Match='"1"')
                    self.refused(answer, 412, "precondition-failed")
                    self.assertEqual(answer.etag, tag)
            answer = self.change("DELETE", f"{self.one}/port/p2", If_Match='"2"')
            self.refused(answer, 412, "precondition-failed")
            self.assertEqual(answer.etag, '"1"')

    def test_weak_tags_never_match(self) -> None:
        self.load()
        with self.unchanged():
            answer = self.change("PATCH", self.one, {}, If_Match='W/"1"')
            self.refused(answer, 412, "precondition-failed")
            self.assertEqual(answer.etag, '"1"')

    def test_what_is_not_there_matches_nothing(self) -> None:
        with self.unchanged():
            for tag in ('"0"', "*"):
                for method in ("PATCH", "PUT"):
                    answer = self.change(method, self.one, {}, If_Match=tag)
                    self.refused(answer, 412, "precondition-failed")
                    self.assertIsNone(answer.etag)
                self.refused(self.change("DELETE", self.one, If_Match=tag), 404, "not-found")

    def test_creating_only_what_is_not_there(self) -> None:
        self.ok(self.change("PUT", self.one, region(), If_None_Match="*"), 201)
        self.ok(self.change("PATCH", f"{self.one}/port/p3", {}, If_None_Match="*"))
        with self.unchanged():
            for method, path, tag in (("PUT", self.one, '"2"'), ("PATCH", self.one, '"2"'),
                                      ("PATCH", f"{self.one}/port/p3", '"2"'),
                                      ("PATCH", f"{self.one}/port/p1", '"1"'),
                                      ("DELETE", f"{self.one}/network", '"1"'),
                                      ("PATCH", "/v1/cloud", '"2"')):
                with self.subTest(f"{method} {path}"):
                    body = None if method == "DELETE" else {}
                    answer = self.change(method, path, body, If_None_Match="*")
                    self.refused(answer, 412, "precondition-failed")
                    self.assertEqual(answer.etag, tag)

    def test_conditions_that_cannot_be_read(self) -> None:
        self.load()
        with self.unchanged():
            for condition in ("1", '"1', "W/1", '"1" x', ""):
                with self.subTest(condition):
                    answer = self.change("PATCH", self.one, {}, If_Match=condition)
                    self.assertIn(answer.status, (400, 412))
                    self.refused(answer, answer.status)

    def test_of_several_changes_under_one_condition_one_is_applied(self) -> None:
        self.load()
        answers: list[int] = []

        def change(number: int) -> None:
            answers.append(self.change("PATCH", f"{self.one}/network", {f"n{number}": {}},
                                       If_Match='"1"').status)

        threads = [threading.Thread(target=change, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(sorted(answers), [200] + [412] * 7)
        self.assertEqual(self.client.revision(), 2)
