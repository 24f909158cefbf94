"""The calls of the sync protocol, the line of those who wait, timers, and fenced writes."""

import socket
import threading
import time
from typing import Any

from agent import Answer, Client, LiveTest, poll, region


class Waiter(threading.Thread):
    """A request for the lock that may wait, on a thread of its own."""

    def __init__(self, client: Client, name: str, requester: str, request: str,
                 wait: float = 30) -> None:
        super().__init__(daemon=True)
        self.answer: Answer | None = None
        self.arguments = client, name, requester, request, wait
        self.start()

    def run(self) -> None:
        client, *arguments = self.arguments
        self.answer = client.lock(*arguments)

    def result(self) -> Answer:
        self.join(20)
        assert self.answer is not None, "no answer"
        return self.answer


class SyncTest(LiveTest):
    def setUp(self) -> None:
        super().setUp()
        self.load(R={}, S={})

    def wait(self, requester: str, request: str, wait: float = 30) -> Waiter:
        """Starts to wait, and returns when it is in line."""
        before = self.client.sync("R")["waiting"]
        waiter = Waiter(self.client, "R", requester, request, wait)
        poll(lambda: self.client.sync("R")["waiting"] > before or waiter.answer,
             f"{request} waits")
        return waiter

    def held(self, answer: Answer, holder: tuple[str, str] | None) -> None:
        problem = self.refused(answer, 409, "lock-held")
        expected = {"owner": holder[0], "requestId": holder[1]} if holder else None
        self.assertEqual(problem["holder"], expected)

    def granted(self, answer: Answer, requester: str, request: str) -> Any:
        status = self.ok(answer)
        self.assertEqual((status["owner"], status["requestId"]), (requester, request))
        return status


class Locking(SyncTest):
    def test_a_region_says_how_its_sync_stands(self) -> None:
        self.assertEqual(self.ok(self.client.get("/v1/region/R/sync")), {
            "syncStatus": "syncUnknown", "oldSyncStatus": "syncUnknown", "owner": "",
            "requestId": "", "heldFor": None, "expiresIn": None, "waiting": 0, "timeout": 60})
        self.refused(self.client.get("/v1/region/none/sync"), 404, "not-found")

    def test_a_free_lock_is_granted(self) -> None:
        status = self.granted(self.client.lock("R", "driver-a", "r1"), "driver-a", "r1")
        self.assertGreaterEqual(status["heldFor"], 0)
        self.assertEqual(self.client.revision(), 2)
        self.assertEqual(self.client.cloud()["region"]["R"],
                         {"requester": "driver-a", "requestId": "r1"})
        self.assertEqual(self.client.output()["regionStatus"]["R"]["owner"], "driver-a")
        self.assertEqual(self.client.sync("S")["owner"], "")

    def test_the_holder_may_ask_again(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            self.granted(self.client.lock("R", "a", "r1"), "a", "r1")
            self.granted(self.client.lock("R", "a", "r1", 5), "a", "r1")

    def test_others_are_refused_while_it_is_held(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            for requester, request in (("b", "r2"), ("b", "r1"), ("a", "r2")):
                self.held(self.client.lock("R", requester, request), ("a", "r1"))
                self.held(self.client.lock("R", requester, request, 0), ("a", "r1"))

    def test_a_requester_may_have_no_name(self) -> None:
        self.granted(self.client.lock("R", "", "r1"), "", "r1")
        self.held(self.client.lock("R", "b", "r2"), ("", "r1"))

    def test_requests_that_cannot_be_read(self) -> None:
        with self.unchanged():
            for body in ({"requester": "a", "requestId": ""}, {"requester": "a"}, {}, [], "x",
                         {"requester": 1, "requestId": "r"}, {"requester": "a", "requestId": 1},
                         {"requester": "a", "requestId": "r", "wait": -1},
                         {"requester": "a", "requestId": "r", "wait": 301},
                         {"requester": "a", "requestId": "r", "wait": "1"}):
                with self.subTest(body=body):
                    self.refused(self.client.request("POST", "/v1/region/R/sync/lock", body),
                                 400, "bad-request")

    def test_regions_that_are_not_there(self) -> None:
        with self.unchanged():
            self.refused(self.client.lock("none", "a", "r"), 404, "not-found")
            for what in ("start", "heartbeat", "complete"):
                self.refused(self.client.step("none", what, "r"), 404, "not-found")
            self.refused(self.client.unlock("none", "r"), 404, "not-found")
            self.refused(self.client.unlock("none", None, "?force=true"), 404, "not-found")

    def test_a_name_with_a_slash(self) -> None:
        self.load(**{"a/b": {}})
        self.granted(self.client.lock("a/b", "x", "r"), "x", "r")

    def test_a_whole_sync(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        revision = self.client.revision()
        status = self.granted(self.client.step("R", "start", "r1"), "a", "r1")
        self.assertEqual(status["syncStatus"], "syncInProgress")
        self.assertTrue(0 < status["expiresIn"] <= 60, status)
        for beat in (1, 2):
            status = self.granted(self.client.step("R", "heartbeat", "r1"), "a", "r1")
            self.assertEqual(self.client.cloud()["region"]["R"]["syncHeartbeat"], beat)
        status = self.ok(self.client.step("R", "complete", "r1"))
        self.assertEqual((status["syncStatus"], status["oldSyncStatus"], status["owner"],
                          status["expiresIn"], status["heldFor"]),
                         ("syncComplete", "syncInProgress", "", None, None))
        self.assertEqual(self.client.revision(), revision + 4)

    def test_starts_and_heartbeats_write_each_time(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.step("R", "start", "r1"))
        revision = self.client.revision()
        self.ok(self.client.step("R", "start", "r1"))
        self.ok(self.client.step("R", "heartbeat", "r1"))
        self.assertEqual(self.client.revision(), revision + 2)

    def test_a_completion_without_a_start(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            self.refused(self.client.step("R", "complete", "r1"), 409, "not-in-progress")

    def test_the_calls_of_the_holder_need_its_id(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            for what in ("start", "heartbeat", "complete"):
                self.refused(self.client.step("R", what, None), 428, "lock-required")
                self.held(self.client.step("R", what, "r2"), ("a", "r1"))
                self.held(self.client.step("S", what, "r1"), None)
            self.refused(self.client.unlock("R", None), 428, "lock-required")
            self.held(self.client.unlock("R", "r2"), ("a", "r1"))

    def test_the_holder_gives_the_lock_back(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        status = self.ok(self.client.unlock("R", "r1"))
        self.assertEqual((status["owner"], status["requestId"]), ("", ""))
        self.assertEqual(self.client.cloud()["region"]["R"], {})
        self.assertEqual(self.client.revision(), 3)
        with self.unchanged():
            self.held(self.client.unlock("R", "r1"), None)
        self.granted(self.client.lock("R", "b", "r2"), "b", "r2")

    def test_an_administrator_takes_the_lock_by_force(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.assertEqual(self.ok(self.client.unlock("R", None, "?force=true"))["owner"], "")
        self.held(self.client.step("R", "start", "r1"), None)


class Waiting(SyncTest):
    def test_first_come_first_served(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        waiters = [self.wait(f"w{number}", f"r{number}") for number in (1, 2, 3)]
        self.assertEqual(self.client.sync("R")["waiting"], 3)
        self.assertEqual(self.client.sync("S")["waiting"], 0)
        for number, waiter in enumerate(waiters, 1):
            self.assertTrue(all(w.answer is None for w in waiters[number - 1:]))
            self.ok(self.client.unlock("R", f"r{number - 1}"))
            self.granted(waiter.result(), f"w{number}", f"r{number}")
            self.assertEqual(self.client.sync("R")["waiting"], 3 - number)

    def test_the_lock_passes_on_in_the_same_turn(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        waiter = self.wait("b", "r1")
        self.ok(self.client.unlock("R", "r0"))
        # Nobody who asks now can be earlier than the one who waits.
        self.held(self.client.lock("R", "c", "r2"), ("b", "r1"))
        self.granted(waiter.result(), "b", "r1")

    def test_however_the_lock_becomes_free(self) -> None:
        def complete(request: str) -> None:
            self.ok(self.client.step("R", "start", request))
            self.ok(self.client.step("R", "complete", request))

        ways = [complete, lambda request: self.ok(self.client.unlock("R", request)),
                lambda _: self.ok(self.client.unlock("R", None, "?force=true")),
                lambda _: self.ok(self.client.patch({"region": {"R": {"requester": None,
                                                                      "requestId": None}}}))]
        self.ok(self.client.lock("R", "a", "r0"))
        for number, free in enumerate(ways):
            with self.subTest(number):
                waiter = self.wait("b", f"r{number + 1}")
                free(f"r{number}")
                self.granted(waiter.result(), "b", f"r{number + 1}")

    def test_who_waits_long_enough_is_refused(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        start = time.monotonic()
        with self.unchanged():
            self.held(self.client.lock("R", "b", "r1", 0.3), ("a", "r0"))
        self.assertGreaterEqual(time.monotonic() - start, 0.3)
        self.assertEqual(self.client.sync("R")["waiting"], 0)

    def test_who_hangs_up_has_given_up_its_place(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        for half in (False, True):
            with self.subTest(half=half):
                connection = self.client.connect()
                self.client.send(connection, "POST", "/v1/region/R/sync/lock",
                                 {"requester": "gone", "requestId": "g", "wait": 60})
                poll(lambda: self.client.sync("R")["waiting"] == 1, "it waits")
                if half:
                    connection.sock.shutdown(socket.SHUT_WR)
                else:
                    connection.close()
                poll(lambda: self.client.sync("R")["waiting"] == 0, "it has gone")
                connection.close()
        waiter = self.wait("b", "r1")
        self.ok(self.client.unlock("R", "r0"))
        self.granted(waiter.result(), "b", "r1")

    def test_a_retry_beside_the_first_attempt_succeeds_too(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        waiters = [self.wait("b", "r1"), self.wait("b", "r1"), self.wait("c", "r2")]
        self.ok(self.client.unlock("R", "r0"))
        for waiter in waiters[:2]:
            self.granted(waiter.result(), "b", "r1")
        self.assertEqual(self.client.sync("R")["waiting"], 1)
        self.ok(self.client.unlock("R", "r1"))
        self.granted(waiters[2].result(), "c", "r2")

    def test_a_retry_with_its_key_is_answered_as_the_first(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        answers: list[Answer] = []

        def ask() -> None:
            answers.append(self.client.request(
                "POST", "/v1/region/R/sync/lock", {"requester": "b", "requestId": "r1", "wait": 30},
                {"Idempotency-Key": "k"}))
        waiters = [threading.Thread(target=ask) for _ in range(2)]
        for number, waiter in enumerate(waiters, 1):
            waiter.start()
            poll(lambda number=number: self.client.sync("R")["waiting"] == number, "it waits")
        self.ok(self.client.unlock("R", "r0"))
        for waiter in waiters:
            waiter.join(20)
        for answer in answers:
            self.granted(answer, "b", "r1")
        self.ok(self.client.unlock("R", "r1"))
        with self.unchanged():
            ask()
        self.assertEqual(answers[-1].status, 200)
        self.assertIn(answers[-1].body, [answer.body for answer in answers[:2]])
        self.assertEqual(self.client.sync("R")["owner"], "")

    def test_the_region_is_deleted(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        waiter = self.wait("b", "r1")
        self.ok(self.client.request("DELETE", "/v1/cloud/region/R"))
        self.refused(waiter.result(), 404, "not-found")

    def test_the_server_stops(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        waiter = self.wait("b", "r1")
        self.assertEqual(self.agent.terminate(), 0)
        self.refused(waiter.result(), 503, "not-ready")


class Timers(SyncTest):
    options = ("--region-sync-timeout", "0.8")

    def test_a_silent_holder_loses_the_lock(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        watch = self.follow()
        watch.next()
        start = time.monotonic()
        self.ok(self.client.step("R", "start", "r0"))
        self.assertEqual(self.client.sync("R")["timeout"], 0.8)
        waiter = self.wait("b", "r1")
        self.granted(waiter.result(), "b", "r1")
        self.assertGreaterEqual(time.monotonic() - start, 0.8)
        status = self.client.sync("R")
        self.assertEqual((status["syncStatus"], status["oldSyncStatus"], status["expiresIn"]),
                         ("syncTimedOut", "syncInProgress", None))
        # Lock, start, expiry, grant.
        self.assertEqual(self.client.revision(), 5)
        watch.until(5)
        self.assertEqual(watch.document, self.client.output())
        self.held(self.client.step("R", "heartbeat", "r0"), ("b", "r1"))

    def test_heartbeats_keep_the_lock(self) -> None:
        self.ok(self.client.lock("R", "a", "r0"))
        start = time.monotonic()
        self.ok(self.client.step("R", "start", "r0"))
        beats = 0
        while time.monotonic() - start < 1.8:
            self.ok(self.client.step("R", "heartbeat", "r0"))
            beats += 1
        self.assertEqual(self.client.sync("R")["syncStatus"], "syncInProgress")
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncTimedOut", "the expiry")
        self.assertEqual(self.client.revision(), 2 + 1 + beats + 1)

    def test_expiries_take_one_revision_each(self) -> None:
        self.ok(self.client.patch({"region": {"R": {"syncStatus": "syncInProgress"},
                                              "S": {"syncStatus": "syncInProgress"}}}))
        poll(lambda: self.client.revision() == 4, "both have expired, one revision each")
        for name in ("R", "S"):
            self.assertEqual(self.client.sync(name)["syncStatus"], "syncTimedOut")

    def test_the_document_has_a_timeout_of_its_own(self) -> None:
        self.ok(self.client.patch({"config": {"regionSyncTimeout": 100}}))
        self.assertEqual(self.client.sync("R")["timeout"], 100)
        self.ok(self.client.lock("R", "a", "r0"))
        status = self.ok(self.client.step("R", "start", "r0"))
        self.assertTrue(90 < status["expiresIn"] <= 100)


class FencedWrites(SyncTest):
    def write(self, patch: Any, request: str | None) -> Answer:
        return self.client.patch({"region": patch},
                                 headers={"Sync-Request-Id": request} if request else {})

    def test_the_holder_may_write(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.write({"R": {"port": {"p": {}}}}, "r1"))
        self.ok(self.client.request("DELETE", "/v1/cloud/region/R/port/p",
                                    headers={"Sync-Request-Id": "r1"}))
        self.ok(self.client.request("PUT", "/v1/cloud/region/R", region(),
                                    {"Sync-Request-Id": "r1"}))
        # Without the header nobody asks for the lock here.
        self.ok(self.write({"R": {"port": {"p9": {}}}}, None))

    def test_who_lost_the_lock_may_not(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.unlock("R", "r1"))
        with self.unchanged():
            self.held(self.write({"R": {"port": {"p": {}}}}, "r1"), None)
        self.ok(self.client.lock("R", "b", "r2"))
        with self.unchanged():
            self.held(self.write({"R": {"port": {"p": {}}}}, "r1"), ("b", "r2"))
            self.held(self.client.request("PUT", "/v1/cloud/region/R", {},
                                          {"Sync-Request-Id": "r1"}), ("b", "r2"))
            self.held(self.client.request("DELETE", "/v1/cloud/region/R", None,
                                          {"Sync-Request-Id": "r1"}), ("b", "r2"))

    def test_every_region_that_the_patch_names_is_touched(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.lock("S", "b", "r2"))
        with self.unchanged():
            self.held(self.write({"R": {}, "S": {}}, "r1"), ("b", "r2"))
            self.held(self.write({"S": {}}, "r1"), ("b", "r2"))
            self.held(self.write(None, "r1"), ("b", "r2"))
        self.ok(self.write({"R": {}}, "r1"))

    def test_the_same_id_may_hold_several_locks(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.lock("S", "a", "r1"))
        self.ok(self.write({"R": {"port": {"p": {}}}, "S": {"port": {"q": {}}}}, "r1"))
        self.ok(self.write(None, "r1"))

    def test_a_region_that_the_change_creates_needs_no_lock(self) -> None:
        self.ok(self.write({"New": {}}, "r1"))
        self.ok(self.client.request("PUT", "/v1/cloud/region/New2", {},
                                    {"Sync-Request-Id": "r1"}), 201)
        self.held(self.write({"New": {}}, "r1"), None)

    def test_the_configuration_belongs_to_no_region(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        patch = {"config": {"vlanAssignment": {"R": {"vlan": {"5": True}}}}}
        self.ok(self.client.patch(patch, headers={"Sync-Request-Id": "other"}))


class RequiredLocks(SyncTest):
    options = ("--require-lock", "--socket-role", "write")

    def test_a_change_of_a_region_needs_the_lock(self) -> None:
        self.assertIs(self.client.get("/v1").json["requireLock"], True)
        with self.unchanged():
            for method, path, body in (
                    ("PATCH", "/v1/cloud", {"region": {"R": {}}}),
                    ("PATCH", "/v1/cloud", {"region": None}),
                    ("PATCH", "/v1/cloud/region/R/port/p", {}),
                    ("PATCH", "/v1/cloud?dry-run=true", {"region": {"R": {}}}),
                    ("PUT", "/v1/cloud/region/R", {}), ("DELETE", "/v1/cloud/region/R", None)):
                with self.subTest(f"{method} {path}"):
                    self.refused(self.client.request(method, path, body), 428, "lock-required")
        results = self.ok(self.client.request("POST", "/v1/batch", [{"region": {"R": {}}},
                                                                    {"region": {"T": {}}}]))
        self.problem(results[0], 428, "lock-required")
        self.assertEqual(results[1], {"revision": 2})
        self.ok(self.client.patch({"config": {"vlanTypeDriver": 1}}))
        self.ok(self.client.lock("R", "a", "r1"))
        self.ok(self.client.patch({"region": {"R": {"port": {"p": {}}}}},
                                  headers={"Sync-Request-Id": "r1"}))

    def test_only_administrators_use_force(self) -> None:
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            self.refused(self.client.unlock("R", "r1", "?force=true"), 403, "forbidden")


class RequiredLocksOfAdministrators(SyncTest):
    options = ("--require-lock",)

    def test_administrators_write_without(self) -> None:
        self.ok(self.client.patch({"region": {"R": {"port": {"p": {}}}}}))
        self.ok(self.client.lock("R", "a", "r1"))
        with self.unchanged():
            self.held(self.client.patch({"region": {"R": {}}}, headers={"Sync-Request-Id": "r2"}),
                      ("a", "r1"))
