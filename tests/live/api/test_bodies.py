"""Bodies and media types that are refused, the form of problems, and the order of the checks."""

from typing import Any

from agent import MERGE, LiveTest, region


class Bodies(LiveTest):
    BAD = {
        "nothing": b"",
        "a word": b"region",
        "cut short": b'{"region": {',
        "garbage after it": b"{} {}",
        "a trailing comma": b'{"region": {},}',
        "not a number": b'{"region": NaN}',
        "a comment": b"{} // x",
        "a member twice": b'{"region": {}, "region": {}}',
        "a member twice below": b'{"region": {"R": {"port": {"p": {}, "p": {}}}}}',
        "a member twice, escaped": b'{"region": {}, "\\u0072egion": {}}',
        "a lone surrogate": b'{"region": {"\\ud800": {}}}',
        "a lone low surrogate": b'{"region": {"R": {"requester": "\\udc00"}}}',
        "a byte order mark": b"\xef\xbb\xbf{}",
        "no UTF-8": b'{"region": {"\xff": {}}}',
        "an overlong form": b'{"region": {"\xc0\xaf": {}}}',
        "UTF-16": '{"region": {}}'.encode("utf-16"),
        "a number beyond double": b'{"region": {"R": {"syncInterval": 1e400}}}',
        "65 objects": b'{"a":' * 64 + b"{}" + b"}" * 64,
        "65 arrays": b"[" * 65 + b"]" * 65,
        "100,000 arrays": b"[" * 100000,
        "a control character": b'{"region": {"R": {"requester": "\n"}}}',
        "a leading zero": b'{"region": {"R": {"syncInterval": 01}}}',
        "quotes of one stroke": b"{'region': {}}",
    }

    def test_bodies_that_are_not_taken(self) -> None:
        with self.unchanged():
            for what, body in self.BAD.items():
                with self.subTest(what):
                    answer = self.client.request("PATCH", "/v1/cloud", body)
                    self.refused(answer, 400, "not-json")

    def test_every_route_with_a_body_refuses_them(self) -> None:
        self.load()
        with self.unchanged():
            for method, path in (("PUT", "/v1/cloud/region/R"), ("POST", "/v1/batch"),
                                 ("POST", "/v1/region/RegionOne/sync/lock"), ("PUT", "/v1/trace")):
                for what in ("a member twice", "cut short", "a byte order mark", "65 arrays"):
                    with self.subTest(f"{method} {path}: {what}"):
                        self.refused(self.client.request(method, path, self.BAD[what]),
                                     400, "not-json")

    def test_bodies_that_are_json_and_break_a_rule(self) -> None:
        with self.unchanged():
            for body in (b'{"a":' * 63 + b"{}" + b"}" * 63, b"[" * 64 + b"]" * 64,
                         b'{"config": {"vlanTypeDriver": 1e2}}', b'{"config": {"vlanTypeDriver": 1.0}}',
                         b'{"region": {"a\\u0007": {}}}', b"[]", b"7"):
                with self.subTest(body[:40]):
                    self.refused(self.client.request("PATCH", "/v1/cloud", body),
                                 422, "rule-broken")

    def test_bodies_that_look_odd_and_are_fine(self) -> None:
        for body in (b" \r\n\t{ } \n", b'{"region": {"\\ud83d\\ude00": {}}}',
                     '{"region": {"\u2028": {}}}'.encode(), b'{"\\u0072egion": {"R": {}}}'):
            with self.subTest(body):
                self.ok(self.client.request("PATCH", "/v1/cloud", body))
        self.assertEqual(set(self.client.cloud()["region"]), {"\U0001f600", "\u2028", "R"})

    def test_media_types(self) -> None:
        self.load()
        with self.unchanged():
            for method, path, media in (
                    ("PATCH", "/v1/cloud", "application/json"), ("PATCH", "/v1/cloud", "text/plain"),
                    ("PATCH", "/v1/cloud", "application/json-patch+json"),
                    ("PATCH", "/v1/cloud", ""),
                    ("PUT", "/v1/cloud/region/R", MERGE), ("POST", "/v1/batch", MERGE),
                    ("PUT", "/v1/trace", "text/plain"),
                    ("POST", "/v1/region/RegionOne/sync/lock", "application/x-www-form-urlencoded")):
                with self.subTest(f"{method} {path} {media}"):
                    answer = self.client.request(method, path, {}, {"Content-Type": media})
                    self.refused(answer, 415, "unsupported-media-type")
            self.refused(self.client.request("PATCH", "/v1/cloud", b"{}", {"Content-Type": None}),
                         415, "unsupported-media-type")
        for media in (f"{MERGE}; charset=utf-8", "Application/Merge-Patch+JSON",
                      f'{MERGE};charset="UTF-8"'):
            with self.subTest(media):
                self.ok(self.client.patch({}, headers={"Content-Type": media}))

    def test_calls_without_a_body_need_no_media_type(self) -> None:
        self.load()
        self.ok(self.client.lock("RegionOne", "a", "r"))
        self.ok(self.client.step("RegionOne", "start", "r"))
        self.ok(self.client.request("POST", "/v1/region/RegionOne/sync/heartbeat", {},
                                    {"Sync-Request-Id": "r"}))


class OrderOfChecks(LiveTest):
    """Each request is wrong in two ways; the earlier check answers."""

    def check(self, status: int, method: str, path: str, body: Any = None,
              **headers: str) -> None:
        named = {k.replace("_", "-"): v for k, v in headers.items()}
        with self.subTest(f"{status} {method} {path}"):
            self.refused(self.client.request(method, path, body, named), status)

    def test_the_first_check_that_fails_answers(self) -> None:
        self.load()
        self.ok(self.client.lock("RegionOne", "a", "r1"))
        region_path = "/v1/cloud/region/RegionOne"
        text = {"Content_Type": "text/plain"}
        with self.unchanged():
            # The query before the route.
            self.check(400, "GET", "/v1/nowhere?at=%zz")
            # The route before the method, the method before the media type.
            self.check(404, "POST", "/v1/nowhere", b"x", **text)
            self.check(405, "POST", "/v1/cloud", b"x", **text)
            # The media type before the body.
            self.check(415, "PATCH", "/v1/cloud", b"x", **text)
            # The body before the place, conditions, locks and rules.
            self.check(400, "POST", "/v1/region/none/sync/lock", b"x")
            self.check(400, "POST", "/v1/region/none/sync/lock", {"requester": "a",
                                                                  "requestId": ""})
            self.check(400, "PATCH", region_path, b"x", If_Match='"77"', Sync_Request_Id="r2")
            # The place before conditions.
            self.check(404, "DELETE", "/v1/cloud/region/none", If_Match='"77"')
            self.check(404, "POST", "/v1/region/none/sync/start")
            # Conditions before locks and rules.
            self.check(412, "PATCH", region_path, {"x": 1}, If_Match='"77"')
            self.check(412, "PATCH", region_path, {}, If_Match='"77"', Sync_Request_Id="r2")
            self.check(412, "DELETE", region_path, If_Match='"77"', Sync_Request_Id="r2")
            # Locks before rules.
            self.check(409, "PATCH", region_path, {"x": 1}, Sync_Request_Id="r2")
            self.check(409, "PUT", region_path, {"port": None}, Sync_Request_Id="r2")
            self.check(422, "PATCH", region_path, {"x": 1}, Sync_Request_Id="r1")


class OrderOfChecksWithoutLock(LiveTest):
    options = ("--require-lock", "--socket-role", "write")

    def test_the_lock_comes_after_conditions_and_before_rules(self) -> None:
        self.load()
        path = "/v1/cloud/region/RegionOne"
        self.refused(self.client.patch({"x": 1}, path, {"If-Match": '"77"'}), 412)
        self.refused(self.client.patch({"x": 1}, path), 428, "lock-required")
        self.refused(self.client.request("PUT", path, region(x=1)), 428, "lock-required")
        self.refused(self.client.request("DELETE", "/v1/cloud/region/none"), 404)


class OrderOfChecksOfReaders(LiveTest):
    options = ("--socket-role", "read")

    def test_what_it_may_do_comes_after_the_method_and_before_the_media_type(self) -> None:
        self.refused(self.client.request("POST", "/v1/cloud", {}), 405)
        self.refused(self.client.request("PATCH", "/v1/cloud", b"x", {"Content-Type": "a/b"}), 403)
        self.refused(self.client.request("PATCH", "/v1/cloud", b"x"), 403, "forbidden")
        self.refused(self.client.request("DELETE", "/v1/cloud/region/none"), 403)
        self.refused(self.client.request("PATCH", "/v1/cloud?x=1", b"{}"), 400)
