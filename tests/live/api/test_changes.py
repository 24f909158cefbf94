"""Changing the cloud: merge patches, replaced regions, deletions, batches, dry runs."""

from typing import Any

from agent import SCALARS, LiveTest, anonymous, difference, merged, region


class Patching(LiveTest):
    def test_each_applied_patch_takes_one_revision(self) -> None:
        for revision in (1, 2, 3):
            answer = self.client.patch({"region": {"R": {}}})
            self.assertEqual(self.ok(answer), {"revision": revision})
        self.assertEqual(self.client.revision(), 3)

    def test_a_patch_at_a_place_creates_what_leads_to_it(self) -> None:
        self.ok(self.client.patch({"segmentationType": "vlan", "segmentationId": 7},
                                  "/v1/cloud/region/R/segment/s"))
        self.ok(self.client.patch(12, "/v1/cloud/region/R/syncInterval"))
        self.ok(self.client.patch({}, "/v1/cloud?at=/region/Two"))
        self.ok(self.client.patch(True, "/v1/cloud/config/vlanAssignment/R/vlan/7"))
        self.assertEqual(self.client.cloud(), {
            "config": {"vlanAssignment": {"R": {"vlan": {"7": True}}}},
            "region": {"R": {"segment": {"s": {"segmentationType": "vlan", "segmentationId": 7}},
                             "syncInterval": 12}, "Two": {}}})

    def test_null_at_a_place_takes_it_out(self) -> None:
        self.load()
        self.ok(self.client.patch(None, "/v1/cloud/region/RegionOne/network/net-1"))
        self.assertNotIn("network", self.client.cloud()["region"]["RegionOne"])
        self.ok(self.client.patch(None, "/v1/cloud/region/RegionOne"))
        self.assertNotIn("RegionOne", self.client.cloud().get("region", {}))

    def test_removing_what_is_not_there_is_no_fault(self) -> None:
        self.assertEqual(self.ok(self.client.patch({"region": {"none": None}})), {"revision": 1})
        self.assertEqual(self.ok(self.client.patch({"region": {"R": {"port": {"p": None}}}})),
                         {"revision": 2})
        self.assertEqual(self.client.cloud(), {"region": {"R": {}}})

    def test_merging(self) -> None:
        # The cases of RFC 7396, appendix A, as far as a cloud document can say them: before, patch,
        # after. Each before stands for itself, so the region is taken out first.
        vlan = {"segmentationType": "vlan", "segmentationId": 5}
        cases: list[tuple[Any, Any, Any]] = [
            ({"syncInterval": 1}, {"syncInterval": 2}, {"syncInterval": 2}),
            ({"syncInterval": 1}, {"syncHeartbeat": 2}, {"syncInterval": 1, "syncHeartbeat": 2}),
            ({"syncInterval": 1}, {"syncInterval": None}, {}),
            ({"syncInterval": 1, "syncHeartbeat": 2}, {"syncInterval": None}, {"syncHeartbeat": 2}),
            ({"segment": {"s": vlan}}, {"segment": {"s": {"segmentationId": 6}, "t": None}},
             {"segment": {"s": {**vlan, "segmentationId": 6}}}),
            ({"port": {"p": {"vlanType": 1}}}, {"port": {"p": {"vlanType": None}}},
             {"port": {"p": {}}}),
            ({"port": {"p": {"vlanType": 1}}}, {"port": {"p": {}}},
             {"port": {"p": {"vlanType": 1}}}),
            ({"port": {"p": {}, "q": {}}}, {"port": {"p": None}}, {"port": {"q": {}}}),
            ({"port": {"p": {}}}, {"port": None}, {}),
            ({}, {"segment": {"s": None}, "port": {"p": {"vlanType": None}}}, {"port": {"p": {}}}),
            ({}, {"segment": {"s": {**vlan}}}, {"segment": {"s": vlan}}),
        ]
        for number, (before, patch, after) in enumerate(cases):
            with self.subTest(patch=patch):
                name = f"R{number}"
                for each in (before, patch):
                    text = {"region": {name: each}}
                    self.ok(self.client.patch(
                        {"region": {name: {**each, "port": {f"{name}-{p}": v for p, v in
                                                            each["port"].items()}}}}
                        if each.get("port") else text))
                expected = dict(after)
                if "port" in after:
                    expected["port"] = {f"{name}-{p}": v for p, v in after["port"].items()}
                self.assertEqual(self.ok(self.client.get(f"/v1/cloud/region/{name}")), expected)

    def test_what_is_no_object_replaces_and_is_refused_by_the_rules(self) -> None:
        self.load()
        with self.unchanged():
            for patch in (["c"], "bar", 1, True, {"region": ["a"]}, {"region": "x"},
                          {"region": {"RegionOne": []}}, {"region": {"RegionOne": {"port": 1}}}):
                with self.subTest(patch=patch):
                    self.refused(self.client.patch(patch), 422, "rule-broken")

    def test_a_refusal_names_the_place_and_the_rule(self) -> None:
        self.load()
        patches = {
            "/region/RegionOne/portBinding/p9":
                {"portBinding": {"p9": {"portToHostBinding": {"h": {}}}}},
            "/region/RegionOne/segment/s": {"segment": {"s": {"segmentationType": "vlan"}}},
            "/region/RegionOne/port/p1/vlanType": {"port": {"p1": {"vlanType": 256}}},
            "/region/RegionOne/color": {"color": "red"},
            "/region/RegionOne/syncInterval": {"syncInterval": "x"},
            "/region/RegionOne/port/a~1~0b/x": {"port": {"a/~b": {"x": 1}}},
        }
        with self.unchanged():
            for pointer, patch in patches.items():
                with self.subTest(pointer):
                    problem = self.refused(self.client.patch({"region": {"RegionOne": patch}}),
                                           422, "rule-broken")
                    self.assertEqual(problem["pointer"], pointer)
                    self.assertTrue(problem["rule"])
                    self.assertIsInstance(problem["faults"], list)
                    self.assertTrue(problem["faults"])
                    self.assertIn(pointer, str(problem["faults"][0]))

    def test_all_faults_are_named(self) -> None:
        problem = self.refused(self.client.patch(
            {"region": {"R": {"x": 1, "port": {"p": {"vlanType": -1}}}}}), 422)
        for pointer in ("/region/R/x", "/region/R/port/p/vlanType"):
            self.assertIn(pointer, str(problem["faults"]))

    def test_a_place_at_fault_is_named_in_the_document(self) -> None:
        problem = self.refused(self.client.patch({"vlanType": "x"}, "/v1/cloud/region/R/port/p"),
                               422)
        self.assertEqual(problem["pointer"], "/region/R/port/p/vlanType")
        self.assertEqual(self.client.cloud(), {})

    def test_names_are_checked(self) -> None:
        for name in ("", "a\u0007", "x" * 256, "é" * 128):
            with self.subTest(name):
                self.refused(self.client.patch({"region": {name: {}}}), 422, "rule-broken")
        self.ok(self.client.patch({"region": {"x" * 255: {}}}))

    def test_a_patch_is_applied_whole_or_not(self) -> None:
        with self.unchanged():
            self.refused(self.client.patch(
                {"region": {"A": {}, "B": {"port": {"p": {"vlanType": 999}}}}}), 422)

    def test_the_output_follows(self) -> None:
        self.load()
        output = self.client.output()
        self.assertEqual(output["requestedResources"]["resourcesForHostname"], {
            "compute-1": {"domain": {"RegionOne": ["p1"]},
                          "vlan": {"100": {"referrer": ["p1"], "mappedVni": {"10001": ["p1"]}}}}})
        self.assertEqual(output["requestedResources"]["resourcesForSwitchport"], {
            "leaf-1": {"Ethernet7": {"vlan": {"100": {"referrer": ["p2"], "mappedVni": {}}},
                                     "nativeVlan": 100, "remoteHost": ["bm-host-1"],
                                     "referrer": ["bm-p2"]}}})
        self.ok(self.client.request("DELETE", "/v1/cloud/region/RegionOne"))
        after = self.client.output()
        self.assertEqual(after["regionStatus"], {})
        # A host stays, and needs nothing any more.
        self.assertEqual(after["requestedResources"], {
            "resourcesForHostname": {"compute-1": {"domain": {}, "vlan": {}}},
            "resourcesForSwitchport": {}})


class PatchingWithoutToggle(LiveTest):
    options = ("--toggle", "off")

    def test_switch_interfaces_are_published_as_network_elements(self) -> None:
        self.load()
        output = self.client.output()
        self.assertEqual(output["requestedResources"]["resourcesForSwitchport"], {})
        self.assertEqual(set(output["networkElement"]), {"leaf-1", "bm-host-1"})


class Replacing(LiveTest):
    path = "/v1/cloud/region/RegionOne"

    def put(self, body: Any, path: str = path, **headers: str) -> Any:
        return self.client.request("PUT", path, body,
                                   {k.replace("_", "-"): v for k, v in headers.items()})

    def test_a_new_region_is_created(self) -> None:
        self.assertEqual(self.ok(self.put(region()), 201), {"revision": 1, "changed": 7})
        self.assertEqual(self.client.cloud(), {"region": {"RegionOne": region()}})
        self.assertEqual(self.ok(self.put({}, "/v1/cloud?at=/region/R~12"), 201),
                         {"revision": 2, "changed": 0})
        self.assertEqual(self.client.cloud()["region"]["R/2"], {})

    def test_what_get_prints_changes_nothing(self) -> None:
        self.load()
        self.client.patch({"region": {"RegionOne": {
            "syncInterval": 3, "syncHeartbeat": 4, "requester": "a", "requestId": "b",
            "syncStatus": "syncInProgress"}}})
        with self.unchanged():
            answer = self.put(self.client.get(self.path).json)
            self.assertEqual(self.ok(answer), {"revision": 2, "changed": 0})

    def test_only_the_difference_is_applied_and_counted(self) -> None:
        self.load()
        body = region()
        body["segment"]["seg-new"] = {"segmentationType": "vlan", "segmentationId": 101}
        del body["network"]
        body["port"]["p2"] = {}
        del body["portBinding"]["p1"]["portToHostBinding"]["compute-1"]["segment"]["0"]
        body["portBinding"]["p1"]["portToHostBinding"]["compute-2"] = {}
        # A segment, a network, a port and a port binding.
        self.assertEqual(self.ok(self.put(body)), {"revision": 2, "changed": 4})
        self.assertEqual(self.ok(self.client.get(self.path)), body)
        self.assertEqual(self.client.get(f"{self.path}/segment/seg-top").etag, '"1"')
        self.assertEqual(self.client.get(f"{self.path}/port/p2").etag, '"2"')

    def test_scalars_stay_where_the_body_does_not_name_them(self) -> None:
        scalars = {"syncInterval": 3, "syncHeartbeat": 4, "requester": "a", "requestId": "b",
                   "syncStatus": "syncInProgress"}
        self.assertEqual(set(scalars), set(SCALARS))
        self.load(RegionOne=region(**scalars))
        status = self.client.output()["regionStatus"]["RegionOne"]
        self.assertEqual(self.ok(self.put({})), {"revision": 2, "changed": 7})
        self.assertEqual(self.ok(self.client.get(self.path)), scalars)
        after = self.client.output()["regionStatus"]["RegionOne"]
        self.assertEqual(after["owner"], status["owner"])
        self.assertEqual(after["syncStatus"], "syncInProgress")

    def test_scalars_that_the_body_names_are_written(self) -> None:
        self.load()
        self.assertEqual(self.ok(self.put(region(syncInterval=9))), {"revision": 2, "changed": 0})
        self.assertEqual(self.client.get(self.path).json["syncInterval"], 9)

    def test_a_null_member_is_refused(self) -> None:
        self.load()
        with self.unchanged():
            for body in ({"port": None}, {"syncInterval": None}, {"port": {"p1": None}},
                         {"segment": {"s": {"segmentationType": None, "segmentationId": 1}}}):
                with self.subTest(body=body):
                    self.refused(self.put(body), 422, "rule-broken")

    def test_a_region_that_breaks_a_rule_is_refused(self) -> None:
        self.load()
        body = region()
        del body["port"]["p1"]
        with self.unchanged():
            problem = self.refused(self.put(body), 422, "rule-broken")
            self.assertEqual(problem["pointer"], "/region/RegionOne/portBinding/p1")
            self.refused(self.put([]), 422, "rule-broken")
            self.refused(self.put({}, "/v1/cloud?at=/region/"), 422, "rule-broken")

    def test_other_regions_stay(self) -> None:
        self.load(RegionOne={}, Two={"port": {"q": {}}})
        self.ok(self.put({"port": {"p": {}}}))
        self.assertEqual(self.client.cloud(),
                         {"region": {"RegionOne": {"port": {"p": {}}}, "Two": {"port": {"q": {}}}}})


class Deleting(LiveTest):
    def delete(self, place: str) -> Any:
        return self.client.request("DELETE", f"/v1/cloud{place}")

    def test_a_member_goes(self) -> None:
        self.load()
        self.assertEqual(self.ok(self.delete("/region/RegionOne/portBinding/p1")), {"revision": 2})
        self.assertEqual(self.ok(self.delete("/region/RegionOne/port/p1")), {"revision": 3})
        self.refused(self.delete("/region/RegionOne/port/p1"), 404, "not-found")
        self.assertEqual(self.ok(self.delete("?at=/region/RegionOne/network")), {"revision": 4})
        self.assertEqual(self.ok(self.delete("/region/RegionOne")), {"revision": 5})
        self.assertEqual(self.client.cloud(), {})

    def test_a_scalar_gets_its_default(self) -> None:
        self.load(R={"syncInterval": 5})
        self.ok(self.delete("/region/R/syncInterval"))
        self.assertEqual(self.client.cloud(), {"region": {"R": {}}})
        self.refused(self.delete("/region/R/syncInterval"), 404, "not-found")

    def test_what_others_need_stays(self) -> None:
        self.load()
        with self.unchanged():
            problem = self.refused(self.delete("/region/RegionOne/port/p1"), 422, "rule-broken")
            self.assertIn("/region/RegionOne/portBinding/p1", str(problem["faults"]))
            self.refused(self.delete("/region/RegionOne/segment/seg-top"), 422, "rule-broken")

    def test_what_is_not_there(self) -> None:
        with self.unchanged():
            for place in ("/region/R", "/region/R/port/p", "/config", "?at=/region/"):
                self.refused(self.delete(place), 404, "not-found")


class Batches(LiveTest):
    def post(self, patches: Any, query: str = "", **headers: str) -> Any:
        return self.client.request("POST", f"/v1/batch{query}", patches,
                                   {k.replace("_", "-"): v for k, v in headers.items()})

    def test_each_element_stands_for_itself(self) -> None:
        results = self.ok(self.post([
            {"region": {"A": {}}}, {"region": {"B": {"x": 1}}}, {"region": {"C": {}}}, 5,
            {"region": {"A": None}}]))
        self.assertEqual(results[0], {"revision": 1})
        self.assertEqual(results[2], {"revision": 2})
        self.assertEqual(results[4], {"revision": 3})
        self.assertEqual(self.problem(results[1], 422, "rule-broken")["pointer"], "/region/B/x")
        self.problem(results[3], 422, "rule-broken")
        self.assertEqual(self.client.cloud(), {"region": {"C": {}}})

    def test_an_empty_batch(self) -> None:
        self.assertEqual(self.ok(self.post([])), [])
        self.assertEqual(self.client.revision(), 0)

    def test_what_is_no_array(self) -> None:
        with self.unchanged():
            for body in ({}, {"region": {}}, "x", 1):
                answer = self.post(body)
                self.assertIn(answer.status, (400, 422))
                self.refused(answer, answer.status)

    def test_conditions_are_refused(self) -> None:
        with self.unchanged():
            self.refused(self.post([{}], If_Match='"0"'), 400, "bad-request")
            self.refused(self.post([{}], If_None_Match="*"), 400, "bad-request")

    def test_the_request_id_counts_for_each_element(self) -> None:
        self.load(A={}, B={})
        self.ok(self.client.lock("A", "a", "r1"))
        revision = self.client.revision()
        results = self.ok(self.post([{"region": {"A": {"port": {"p": {}}}}},
                                     {"region": {"B": {"port": {"q": {}}}}},
                                     {"region": {"C": {}}}], Sync_Request_Id="r1"))
        self.assertEqual(results[0], {"revision": revision + 1})
        self.problem(results[1], 409, "lock-held")
        self.assertEqual(results[2], {"revision": revision + 2})

    def test_a_dry_run_has_results(self) -> None:
        self.load(A={})
        patches = [{"region": {"B": region()}}, {"region": {"A": {"x": 1}}},
                   {"region": {"B": {"segment": None, "portBinding": None}}}]
        before = self.client.output()
        with self.unchanged():
            answer = self.ok(self.post(patches, "?dry-run=true"))
        self.assertEqual(answer["revision"], 1)
        self.assertEqual(answer["results"][0], {"revision": 1})
        self.problem(answer["results"][1], 422, "rule-broken")
        self.assertEqual(answer["results"][2], {"revision": 1})
        self.ok(self.post(patches))
        self.assertEqual(anonymous(merged(before, answer["output"])),
                         anonymous(self.client.output()))


class DryRuns(LiveTest):
    def check(self, method: str, path: str, body: Any, headers: dict[str, str] | None = None) -> None:
        """The dry run says what the change then makes, and changes nothing itself."""
        before = self.client.output()
        separator = "&" if "?" in path else "?"
        with self.unchanged():
            revision = self.client.revision()
            dry = self.ok(self.client.request(method, f"{path}{separator}dry-run=true", body,
                                              headers))
        self.assertEqual(dry["revision"], revision)
        self.assertIn(self.client.request(method, path, body, headers).status, (200, 201))
        after = self.client.output()
        self.assertEqual(anonymous(dry["output"]), anonymous(difference(before, after)))

    def test_a_dry_run_says_what_comes_out(self) -> None:
        assignment = {"RegionOne": {"vlan": {"100": True, "101": True}}}
        self.check("PATCH", "/v1/cloud", {"config": {"vlanAssignment": assignment},
                                          "region": {"RegionOne": region()}})
        self.check("PATCH", "/v1/cloud/region/RegionOne/segment/seg-rack", {"segmentationId": 200})
        self.check("PATCH", "/v1/cloud?at=/region/RegionOne/syncStatus", "syncInProgress")
        self.check("PUT", "/v1/cloud/region/Two",
                   {"port": {"q": {}}, "portBinding": {"q": {"portToHostBinding": {"h": {}}}}})
        self.check("DELETE", "/v1/cloud/region/RegionOne/portBinding/p2", None)
        self.check("PATCH", "/v1/cloud", {"region": {"RegionOne": None}})
        self.check("PATCH", "/v1/cloud", {"region": {"Two": {}}})

    def test_a_region_that_is_made_anew(self) -> None:
        # Its lock, status and assignment's UUID are new ones, with the same name.
        self.load()
        self.client.patch({"config": {"vlanAssignment": {"RegionOne": {"vlan": {"100": True}}}}})
        self.ok(self.client.lock("RegionOne", "a", "r1"))
        self.check("PATCH", "/v1/cloud", {"region": {"RegionOne": {"requester": "",
                                                                   "requestId": ""}}})
        self.check("DELETE", "/v1/cloud/region/RegionOne", None)
        self.check("PUT", "/v1/cloud/region/RegionOne", region())

    def test_a_dry_run_is_checked_alike(self) -> None:
        self.load()
        self.ok(self.client.lock("RegionOne", "a", "r1"))
        change = {"region": {"RegionOne": {"network": {"n": {}}}}}
        path = "/v1/cloud?dry-run=true"
        with self.unchanged():
            self.refused(self.client.patch({"region": {"R": {"x": 1}}}, path), 422, "rule-broken")
            self.refused(self.client.patch(change, path, {"If-Match": '"77"'}), 412)
            self.refused(self.client.patch(change, path, {"Sync-Request-Id": "r2"}), 409)
            self.refused(self.client.request("DELETE", "/v1/cloud/region/R?dry-run=true"), 404)
            self.refused(self.client.request("PUT", "/v1/cloud/region/R?dry-run=true",
                                             {"port": None}), 422)
            self.ok(self.client.patch(change, path, {"Sync-Request-Id": "r1"}))

    def test_a_dry_run_sends_no_event(self) -> None:
        watch = self.follow()
        watch.next()
        self.ok(self.client.patch({"region": {"R": {}}}, "/v1/cloud?dry-run=true"))
        self.load(Two={})
        event = watch.next()
        self.assertEqual(event.revision, 1)
        self.assertEqual(list(watch.document["regionStatus"]), ["Two"])

    def test_a_dry_run_starts_no_timer(self) -> None:
        self.load(R={})
        self.ok(self.client.patch({"region": {"R": {"syncStatus": "syncInProgress"}}},
                                  "/v1/cloud?dry-run=true"))
        self.assertIsNone(self.client.sync("R")["expiresIn"])


class IdempotencyKeys(LiveTest):
    def test_a_retry_is_answered_as_the_first_was(self) -> None:
        key = {"Idempotency-Key": "k-1"}
        first = self.client.patch({"region": {"R": {}}}, headers=key)
        self.assertEqual(self.ok(first), {"revision": 1})
        self.load(Two={})
        again = self.client.patch({"region": {"R": {}}}, headers=key)
        self.assertEqual((again.status, again.json), (200, {"revision": 1}))
        self.assertEqual(self.client.revision(), 2)

    def test_every_kind_of_change_may_carry_a_key(self) -> None:
        self.load()
        calls: list[tuple[str, str, Any, dict[str, str]]] = [
            ("PUT", "/v1/cloud/region/New", {"port": {"n1": {}}}, {}),
            ("DELETE", "/v1/cloud/region/New", None, {}),
            ("POST", "/v1/batch", [{"region": {"A": {}}}, {"x": 1}], {}),
            ("POST", "/v1/region/RegionOne/sync/lock", {"requester": "a", "requestId": "r"}, {}),
            ("POST", "/v1/region/RegionOne/sync/heartbeat", None, {"Sync-Request-Id": "r"}),
        ]
        for number, (method, path, body, headers) in enumerate(calls):
            with self.subTest(f"{method} {path}"):
                headers = {**headers, "Idempotency-Key": f"key-{number}"}
                first = self.client.request(method, path, body, headers)
                self.assertIn(first.status, (200, 201), first.body)
                revision = self.client.revision()
                again = self.client.request(method, path, body, headers)
                self.assertEqual((again.status, again.body), (first.status, first.body))
                self.assertEqual(self.client.revision(), revision)

    def test_another_body_is_refused(self) -> None:
        key = {"Idempotency-Key": "k"}
        self.ok(self.client.patch({"region": {"R": {}}}, headers=key))
        with self.unchanged():
            self.refused(self.client.patch({"region": {"S": {}}}, headers=key), 422, "key-reused")

    def test_keys_that_cannot_be_read(self) -> None:
        with self.unchanged():
            for key in ("", "x" * 65):
                with self.subTest(key):
                    self.refused(self.client.patch({"region": {"R": {}}},
                                                   headers={"Idempotency-Key": key}),
                                 400, "bad-request")
        self.ok(self.client.patch({"region": {"R": {}}}, headers={"Idempotency-Key": "x" * 64}))

    def test_a_dry_run_does_not_use_up_a_key(self) -> None:
        key = {"Idempotency-Key": "k"}
        self.ok(self.client.patch({"region": {"R": {}}}, "/v1/cloud?dry-run=true", key))
        self.assertEqual(self.ok(self.client.patch({"region": {"R": {}}}, headers=key)),
                         {"revision": 1})
