"""Publishers against a real agent that is killed, paused and changed by others."""
import contextlib
import threading
import time
import unittest
from unittest import mock

from oslo_db import exception as db_exc

from networking_vnagent import agents
from networking_vnagent import backlog
from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import mapping
from networking_vnagent import patcher
from networking_vnagent import provisioning
from networking_vnagent import publisher
from networking_vnagent import sync

from . import base
from . import test_client

TOP = mapping.SegmentRow("top", "net", "vxlan", None, 10001, False)
RACK = mapping.SegmentRow("rack", "net", "vlan", "physnet1", 100, True)


class World:
    """The database: ports, each bound on a host or not at all."""

    def __init__(self):
        self.hosts = {}
        self.reads = 0
        self.at_read = None
        self.time = 0
        self.listed = {}

    def rows(self, ports=None):
        self.reads += 1
        hosts = dict(self.hosts)
        if self.at_read is not None:
            self.at_read()
        return mapping.Rows(
            ports=[mapping.PortRow(p, "net", "", "") for p in hosts
                   if ports is None or p in ports],
            bindings=[mapping.BindingRow(p, h, "ovs", "normal", "", "ACTIVE")
                      for p, h in hosts.items() if h],
            levels=[mapping.LevelRow(p, h, level, s) for p, h in hosts.items() if h
                    for level, s in enumerate(("top", "rack"))],
            segments=[TOP, RACK], networks=["net"])

    def now(self):
        self.time += 1
        return f"2026-01-01 00:{self.time // 60:02}:{self.time % 60:02}"

    def patches(self):
        def report(name, changed):
            self.listed[name] = self.listed.get(name, {}) | changed

        def read(name):
            return agents.Known(self.listed[name], 0) if name in self.listed else None
        return [mock.patch.object(database, "read_everything", self.rows),
                mock.patch.object(database, "read_about", lambda ports=(), *_: self.rows(ports)),
                mock.patch.object(database, "now", self.now),
                mock.patch.object(agents, "report", report),
                mock.patch.object(agents, "amend", report),
                mock.patch.object(agents, "read", read)]


class PublishingTestCase(base.AgentTestCase):
    def setUp(self):
        super().setUp()
        self.world = World()
        for patch in [*self.world.patches(), mock.patch.object(sync, "SETTLE", 0.05)]:
            patch.start()
            self.addCleanup(patch.stop)
        self.config = config.AgentConfig("one", self.agent.url, base.REGION, request_timeout=5)
        self.acknowledgements = provisioning.Acknowledgements(60)

    def publisher(self, **changed):
        one = publisher.Publisher(self.config, base.settings(**changed), self.acknowledgements,
                                  lambda *_: None)
        self.addCleanup(self.end, one)
        return one

    def end(self, one):
        """Waits for its thread, which could take part in the next test."""
        one.stop()
        if one._thread.is_alive():
            one._thread.join(30)
        self.assertFalse(one._thread.is_alive())

    def bind(self, port, host):
        self.world.hosts[port] = host

    def wait(self, holds, what="it"):
        end = time.monotonic() + 60
        while not holds():
            self.assertLess(time.monotonic(), end, what + " did not happen")
            time.sleep(0.02)

    def bound(self):
        return {port: set(made["portToHostBinding"])
                for port, made in self.agent.region().get("portBinding", {}).items()}


class PatcherTest(PublishingTestCase):
    def setUp(self):
        super().setUp()
        self.client = self.agent.client()
        self.addCleanup(self.client.close)
        self.client.create_region()
        self.client.hello()
        self.patcher = patcher.Patcher(self.config, self.client)

    def test_what_the_database_says_when_it_is_sent_counts(self):
        self.bind("p", "h1")
        work = backlog.Work(ports={"p"})
        self.bind("p", "h2")
        self.patcher.apply(work)
        self.assertEqual({"p": {"h2"}}, self.bound())

    def test_who_lost_the_race_reads_again(self):
        other = patcher.Patcher(self.config, self.agent.client())
        self.bind("p", "h1")

        def somebody_is_faster():
            self.world.at_read = None
            self.bind("p", "h2")
            other.apply(backlog.Work(ports={"p"}))
        self.world.at_read = somebody_is_faster
        self.patcher.apply(backlog.Work(ports={"p"}))
        self.assertEqual({"p": {"h2"}}, self.bound())
        # The slower one, the faster one, and the slower one again.
        self.assertEqual(3, self.world.reads)

    def test_nothing_is_sent_where_nothing_differs(self):
        self.bind("p", "h1")
        self.patcher.apply(backlog.Work(ports={"p"}))
        before = self.agent.revision()
        self.patcher.apply(backlog.Work(ports={"p"}))
        self.assertEqual(before, self.agent.revision())

    def test_a_lost_answer_is_asked_for_again_and_applied_once(self):
        self.bind("p", "h1")
        real = self.client.request

        def loses(method, *arguments, **named):
            answer = real(method, *arguments, **named)
            if method == "PATCH" and "dry-run" not in arguments[0]:
                raise agent_client.NoAnswer("lost")
            return answer
        with mock.patch.object(self.client, "request", loses):
            with self.assertRaises(agent_client.NoAnswer):
                self.patcher.apply(backlog.Work(ports={"p"}))
        revision = self.agent.revision()
        self.patcher.settle()
        self.assertEqual(revision, self.agent.revision())
        self.assertEqual(f'"{revision}"', self.patcher.etag)

    def test_nothing_else_is_done_before_the_outcome_is_known(self):
        self.bind("p", "h1")
        with mock.patch.object(self.client, "change", side_effect=agent_client.NoAnswer("lost")):
            with self.assertRaises(agent_client.NoAnswer):
                self.patcher.apply(backlog.Work(ports={"p"}))
            with self.assertRaises(agent_client.NoAnswer):
                self.patcher.settle()
        self.bind("p", None)
        self.patcher.settle()
        self.assertEqual({"p": {"h1"}}, self.bound())
        self.patcher.apply(backlog.Work(ports={"p"}))
        self.assertEqual({}, self.bound())

    def test_an_object_at_fault_does_not_hold_up_the_others(self):
        client = self.agent.client()
        client.change(agent_client.Change("PUT", "/v1/cloud/region/Other", {
            "port": {"q": {}}, "portBinding": {"q": {"portToHostBinding": {"theirs": {}}}}}, {}))
        client.close()
        self.bind("a", "h1")
        self.bind("b", "theirs")
        self.bind("c", "h1")
        with self.assertLogs("networking_vnagent.patcher", "WARNING") as logged:
            applied = self.patcher.apply_parts(backlog.Work(ports={"a", "b", "c"}))
        self.assertEqual({"a", "c"}, set(self.bound()))
        self.assertEqual({"b"}, applied.refused.ports)
        self.assertIn("port b", logged.output[0])

    def test_members_of_others_stay_when_a_collection_loses_some(self):
        self.bind("a", "h1")
        self.bind("b", "h1")
        self.patcher.apply(backlog.Work(ports={"a", "b"}))
        del self.world.hosts["a"]
        self.patcher.apply(backlog.Work(ports={"a"}))
        self.assertEqual({"b"}, set(self.bound()))


class FullSyncTest(PublishingTestCase):
    def sync(self):
        client = self.agent.client()
        self.addCleanup(client.close)
        return sync.FullSync(self.config, client)

    def run_one(self):
        one = self.sync()
        return one.repair(one.lock(0))

    def test_an_empty_agent_gets_the_region(self):
        self.bind("p", "h1")
        report = self.run_one()
        self.assertEqual(5, len(report.differing))
        self.assertEqual({"p": {"h1"}}, self.bound())
        self.assertNotIn("serviceEndPoint", self.agent.region())

    def test_what_differs_is_counted_and_repaired(self):
        self.bind("p", "h1")
        self.run_one()
        self.agent.patch({"network": {"stranger": {}}, "port": {"p": {"vlanType": 1}}})
        report = self.run_one()
        self.assertEqual([("network", "stranger"), ("port", "p")], report.differing)
        self.assertIn("network stranger", report.text())
        self.assertEqual([], self.run_one().differing)

    def test_a_report_changes_nothing(self):
        self.bind("p", "h1")
        self.run_one()
        self.agent.patch({"network": {"stranger": {}}})
        before = self.agent.revision()
        self.assertEqual([("network", "stranger")], list(self.sync().look().differing))
        self.assertEqual(before, self.agent.revision())

    def of_another_server(self):
        return mock.patch.object(sync, "requester", return_value="another:1")

    def test_one_server_at_a_time(self):
        self.bind("p", "h1")
        first = self.sync()
        with self.of_another_server():
            first.lock(0)
        with self.assertRaises(sync.LockHeld) as held:
            self.sync().lock(0)
        self.assertEqual("another:1", str(held.exception))
        first.unlock()
        self.run_one()

    def test_a_lock_whose_answer_was_lost_is_taken_over_by_the_same_process(self):
        self.bind("p", "h1")
        real = agent_client.Client.sync_call

        def lose_answer(client, call, *arguments):
            real(client, call, *arguments)
            raise agent_client.NoAnswer("cut off")

        with mock.patch.object(agent_client.Client, "sync_call", lose_answer):
            # The region is made by the first request, which is refused.
            self.assertRaises(agent_client.NoAnswer, self.sync().lock, 0)
        with self.assertLogs("networking_vnagent.sync", "WARNING") as logged:
            self.run_one()
        self.assertIn("taken over", logged.output[0])
        self.assertEqual({"p": {"h1"}}, self.bound())

    def test_a_lock_that_a_dead_server_left_is_taken_over_after_the_time_out(self):
        self.bind("p", "h1")
        with self.of_another_server():
            self.sync().lock(0)
        real = agent_client.Client.sync_status

        def status(after):
            return mock.patch.object(
                agent_client.Client, "sync_status",
                lambda client: (found := real(client)) | {"heldFor": found["timeout"] + after})

        with status(-1):
            self.assertRaises(sync.LockHeld, self.sync().lock, 0)
        with status(1):
            self.run_one()
        self.assertEqual({"p": {"h1"}}, self.bound())

    def test_the_lock_of_a_sync_under_way_is_left_to_the_agent(self):
        self.bind("p", "h1")
        first = self.sync()
        first.lock(0)
        first._client.sync_call("start", first._request_id)
        self.assertRaises(sync.LockHeld, self.sync().lock, 0)
        first.unlock()
        self.run_one()

    def test_a_write_of_before_can_do_no_harm_afterwards(self):
        self.bind("p", "h1")
        self.run_one()
        client = self.agent.client()
        self.addCleanup(client.close)
        stale = client.region_etag()
        self.run_one()
        with self.assertRaises(agent_client.Refused) as raised:
            client.change(agent_client.Change("PATCH", client.place, {"port": {"q": {}}},
                                              {"If-Match": stale}))
        self.assertEqual(412, raised.exception.status)

    def test_a_region_that_others_change_all_the_time_is_repaired_too(self):
        self.bind("p", "h1")
        busy = self.agent.client()
        self.addCleanup(busy.close)
        count = 0

        def change():
            nonlocal count
            count += 1
            if count <= sync.PUT_ATTEMPTS + 1:
                busy.change(agent_client.Change("PATCH", busy.place, {
                    "tenant": {f"t{count}": {}}}, {}))
        self.world.at_read = change
        self.run_one()
        self.assertEqual({"p": {"h1"}}, self.bound())


class PublisherTest(PublishingTestCase):
    def changed(self, one, *ports):
        one.changed(backlog.Work(ports=set(ports)))

    def test_it_begins_with_a_full_sync_and_goes_on_with_changes(self):
        self.bind("p", "h1")
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.assertEqual({"p": {"h1"}}, self.bound())
        self.bind("q", "h2")
        self.acknowledgements.expect("q", {"one"})
        self.changed(one, "q")
        self.assertEqual({"q": set()}, self.acknowledgements.take(60))
        self.assertEqual({"p": {"h1"}, "q": {"h2"}}, self.bound())

    def sync_now(self, one):
        while one._wants_sync():
            one._next_sync = 0.0
            one._turn()

    def periodic(self, one, meanwhile=lambda: None):
        """A full sync because it is time for one; how many members it names as drift."""
        one._sync_wanted, one._is_drift, one._next_sync = database.now(), True, 0.0
        one._turn()
        meanwhile()
        self.sync_now(one)
        return self.world.listed["one"]["full_sync_drift"]

    def started(self):
        one = self.publisher()
        self.sync_now(one)
        return one

    def test_what_others_changed_is_drift(self):
        one = self.started()
        self.agent.patch({"network": {"stranger": {}}})
        with self.assertLogs("networking_vnagent.publisher", "WARNING") as logged:
            self.assertEqual(1, self.periodic(one))
        self.assertIn("1 of 3 members differed, repaired: network stranger", logged.output[0])
        self.assertNotIn("stranger", self.agent.region()["network"])

    def test_what_is_to_be_sent_is_no_drift(self):
        one = self.started()
        self.bind("p", "h1")
        self.changed(one, "p")
        self.assertEqual(0, self.periodic(one))
        self.assertEqual({"p": {"h1"}}, self.bound())

    def test_what_another_server_sends_in_time_is_no_drift(self):
        one, other = self.started(), self.started()
        self.bind("p", "h1")
        self.changed(other, "p")
        self.assertEqual(0, self.periodic(one, other._turn))
        self.assertEqual({"p": {"h1"}}, self.bound())

    def test_what_changes_between_two_looks_is_no_drift(self):
        one = self.started()
        self.bind("p", "h1")
        self.assertEqual(1, self.periodic(one, lambda: self.bind("p", "h2")))
        self.assertEqual({"p": {"h2"}}, self.bound())

    def test_what_an_agent_lacks_that_lost_its_state_is_no_drift(self):
        self.bind("p", "h1")
        one = self.started()
        self.agent.kill()
        self.agent.start("another-state")
        one._patcher.forget()
        one._client.instance = None
        one._want_sync("the agent does not have its state of before")
        with self.assertNoLogs("networking_vnagent.publisher", "WARNING"):
            self.sync_now(one)
        self.assertEqual({"p": {"h1"}}, self.bound())
        self.assertEqual(0, self.world.listed["one"]["full_sync_drift"])

    def test_an_agent_that_was_killed_is_up_to_date_again(self):
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.agent.kill()
        self.bind("p", "h1")
        self.changed(one, "p")
        self.agent.start()
        self.wait(lambda: self.bound() == {"p": {"h1"}})

    def test_an_agent_that_lost_its_state_gets_the_region(self):
        self.bind("p", "h1")
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.agent.kill()
        self.agent.start("another-state")
        self.wait(lambda: one._sync_wanted is None and self.bound() == {"p": {"h1"}}
                  if self.region_exists() else False)

    def region_exists(self):
        client = self.agent.client()
        try:
            return client.region_etag() is not None
        finally:
            client.close()

    def test_an_agent_that_stood_still_is_up_to_date_again(self):
        self.config = config.AgentConfig("one", self.agent.url, base.REGION, request_timeout=0.3)
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.agent.pause()
        self.bind("p", "h1")
        self.changed(one, "p")
        self.wait(lambda: one._is_down)
        self.bind("p", "h2")
        self.changed(one, "p")
        self.agent.resume()
        self.wait(lambda: self.bound() == {"p": {"h2"}})

    def test_two_processes_agree_whoever_is_faster(self):
        publishers = [self.publisher(), self.publisher()]
        for one in publishers:
            one.start()
        for number in range(60):
            port = f"p{number % 7}"
            self.bind(port, f"h{number % 5}" if number % 3 else None)
            self.changed(publishers[number % 2], port)
        wanted = {port: {host} for port, host in self.world.hosts.items() if host}
        self.wait(lambda: not any(len(one.backlog) for one in publishers)
                  and self.region_exists() and self.bound() == wanted)

    def test_a_database_that_is_away_ends_nothing(self):
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))

        def away(*_, **__):
            raise db_exc.DBConnectionError()
        with mock.patch.object(database, "read_about", away):
            self.bind("p", "h1")
            self.changed(one, "p")
            self.wait(lambda: bool(one._said))
        self.wait(lambda: self.bound() == {"p": {"h1"}})

    def test_what_is_assigned_is_known_when_the_first_full_sync_is_complete(self):
        """Also where the region is made by it."""
        for mode in ("repair", "report"):
            self.agent.kill()
            self.agent.start(state=mode)
            self.world.listed.clear()
            one, heard = self.publisher(check_interval=3600, full_sync_mode=mode), []
            one._on_status = lambda _, status, heard=heard: heard.append(
                ("vlanPool" in status, "full_sync_read_at" in self.world.listed["one"]))
            one._turn()
            self.sync_now(one)
            self.assertEqual([(False, False), (True, False)], heard)
            self.assertEqual("", self.world.listed["one"]["assigned_vlans"])
            one._client.close()

    def test_a_look_that_the_database_interrupts_is_repeated_at_once(self):
        """What the agent has assigned must be known before anything else."""
        one = self.publisher(check_interval=3600)
        real, failures = agents.report, [db_exc.DBDeadlock()]

        def at_first(*arguments):
            if failures:
                raise failures.pop()
            real(*arguments)
        with mock.patch.object(agents, "report", at_first), \
                mock.patch.object(one, "_on_status") as heard:
            one.start()
            self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.assertEqual([], failures)
        heard.assert_called()

    def test_a_report_says_what_differs_and_changes_are_sent_all_the_same(self):
        self.bind("p", "h1")
        one = self.publisher(full_sync_mode="report")
        with self.assertLogs("networking_vnagent.publisher", "WARNING") as logged:
            self.sync_now(one)
        self.assertIn("members differed, not repaired", logged.output[0])
        self.assertEqual({}, self.agent.region())
        self.bind("q", "h1")
        self.changed(one, "q")
        one._turn()
        self.assertEqual({"q": {"h1"}}, self.bound())

    def test_a_role_that_does_not_suffice_is_said_once(self):
        self.agent.kill()
        self.agent._options = ("--socket-role", "read")
        self.agent.start()
        with self.assertLogs("networking_vnagent.publisher", "ERROR") as logged:
            one = self.publisher()
            one.start()
            self.wait(lambda: bool(one._said))
            pauses = one._pause
            self.wait(lambda: one._pause > pauses or one._pause >= 0.2)
        self.assertEqual(1, len(logged.output))
        self.assertIn("the role that the agent gives", logged.output[0])

    def test_an_agent_that_takes_changes_under_the_lock_only_gets_them(self):
        self.agent.kill()
        self.agent._options = ("--require-lock", "--socket-role", "write")
        self.agent.start()
        one = self.publisher()
        one.start()
        self.wait(lambda: "full_sync_read_at" in self.world.listed.get("one", {}))
        self.bind("p", "h1")
        self.changed(one, "p")
        self.wait(lambda: self.bound() == {"p": {"h1"}})


class BadEndTest(PublishingTestCase):
    """An agent that cannot be used: one line that says what to do, and growing pauses. It can be
    used again without a restart of anything."""

    def lasts(self, level, text, *answers, timeout=5):
        """Gives a publisher the answers until it has paused six times, then those of an agent."""
        is_good = threading.Event()
        remaining = list(answers)

        def answer(handler):
            if is_good.is_set():
                self.pass_on(handler)
            else:
                (remaining.pop(0) if len(remaining) > 1 else remaining[0])(handler)
        bad = test_client.BadAgent(answer)
        self.addCleanup(bad.stop)
        self.config = config.AgentConfig("one", f"http://127.0.0.1:{bad.port}", base.REGION,
                                         request_timeout=timeout)
        pauses = []

        def sleep(one, seconds):
            pauses.append(one._pause)
            one._stopped.wait(0.001)
        with mock.patch.object(publisher.Publisher, "_sleep", sleep):
            with self.assertLogs("networking_vnagent.publisher", level) as logged:
                one = self.publisher(max_pause=2)
                one.start()
                self.wait(lambda: len(pauses) >= 6, "six pauses")
            self.assertTrue(one._thread.is_alive())
            self.assertEqual(1, len(logged.output), logged.output)
            self.assertIn(text, logged.output[0])
            self.assertEqual([0.25, 0.5, 1, 2, 2], pauses[:5])
            self.bind("p", "h1")
            is_good.set()
            self.wait(lambda: self.exists() and self.bound() == {"p": {"h1"}}, "the port")

    def pass_on(self, handler):
        """Lets the agent answer."""
        with contextlib.closing(self.agent.client()) as client:
            passed = {name: value for name, value in handler.headers.items()
                      if name not in ("Host", "Content-Length", "Accept-Encoding")}
            response, body = client._send(handler.command, handler.path, handler.body or None,
                                          passed, 1 << 20, 10)
        handler.send_response(response.status)
        for name, value in response.getheaders():
            if name.lower() in ("etag", "vnagent-revision", "content-type"):
                handler.send_header(name, value)
        handler.send_header("Content-Length", str(len(body)))
        handler.end_headers()
        handler.wfile.write(body)

    def exists(self):
        client = self.agent.client()
        try:
            return client.region_etag() is not None
        finally:
            client.close()

    def test_another_program(self):
        self.lasts("WARNING", "is that address a live agent's?",
                   test_client.says(200, b"<html>"))

    def test_a_connection_that_is_cut(self):
        self.lasts("WARNING", "does not answer", test_client.cuts_off)

    def test_an_answer_that_drips(self):
        self.lasts("WARNING", "no whole answer in time", test_client.drips, timeout=0.2)

    def test_a_token_that_is_unknown(self):
        self.lasts("ERROR", "check token_file", test_client.says(
            401, {"type": "/problems/unauthenticated", "detail": "unknown token"}))

    def test_a_token_of_another_region(self):
        self.lasts("ERROR", "check token_file", test_client.says(200, test_client.HELLO),
                   test_client.says(403, {"type": "/problems/forbidden", "detail": "no"}))

    def test_a_disk_that_is_full(self):
        self.lasts("ERROR", "make room on the disk", test_client.says(200, test_client.HELLO),
                   test_client.says(507, {"type": "/problems/no-space", "detail": "full"}))


class BacklogTest(unittest.TestCase):
    def test_changes_of_one_object_are_one(self):
        waiting = backlog.Backlog(10)
        waiting.add(backlog.Work(ports={"p"}))
        waiting.add(backlog.Work(ports={"p"}))
        self.assertEqual(1, len(waiting))

    def test_too_much_is_the_region_and_takes_no_more_memory(self):
        waiting = backlog.Backlog(10)
        for number in range(100):
            waiting.add(backlog.Work(ports={str(number)}))
        self.assertTrue(waiting.is_region)
        self.assertEqual(0, len(waiting))

    def test_halves_are_the_whole(self):
        work = backlog.Work(ports={"a", "b"}, segments={"c"})
        first, second = work.halves()
        self.assertEqual(({"a"}, {"b"}, {"c"}), (first.ports, second.ports, second.segments))
