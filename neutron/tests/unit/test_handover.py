"""What one process hands to another, and which agents it is for."""
import os
import tempfile
import unittest
from unittest import mock

from networking_vnagent import backlog
from networking_vnagent import config
from networking_vnagent import database
from networking_vnagent import handover
from networking_vnagent import routing


def change(*ports, **more):
    return handover.Change(backlog.Work(ports=set(ports)), **more)


class HandoverTest(unittest.TestCase):
    def setUp(self):
        super().setUp()
        self.pipe = handover.Handover()
        self.addCleanup(self.pipe.close)

    def received(self):
        joined = handover.Change()
        received = self.pipe.receive()
        for part in received.changes:
            joined.add(part)
        return joined, received.lost

    def test_what_a_child_sends_is_received_as_it_was(self):
        sent = handover.Change(
            backlog.Work(ports={"p"}, networks={"n"}, segments={"s"}, devices={"d \u00e4\n"}),
            {"s1", "s2"}, {"rack"}, False, {"p": {"one", "two"}})
        child = os.fork()
        if child == 0:
            self.pipe.send(sent)
            os._exit(0)
        os.waitpid(child, 0)
        self.assertTrue(self.pipe.wait(0))
        self.assertEqual((sent, ""), self.received())
        self.assertFalse(self.pipe.wait(0))

    def test_much_is_sent_in_messages_that_do_not_mix(self):
        ports = {f"port-{number:032}" for number in range(1000)}
        sent = change(*ports, waiting={port: {"one"} for port in ports}, is_for_all=True)
        self.pipe.send(sent)
        joined, lost = self.received()
        self.assertEqual((sent, ""), (joined, lost))

    def test_a_full_pipe_does_not_wait_and_is_a_loss(self):
        ports = [f"{number:036}" for number in range(50)]
        for _ in range(1000):
            self.pipe.send(change(*ports))
        _, lost = self.received()
        self.assertIn("more has changed", lost)
        self.pipe.send(change("p"))
        self.assertEqual((change("p"), ""), self.received())

    def test_a_pipe_with_a_name_joins_processes_of_different_servers(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "changes")
            self.assertFalse(handover.is_read(path))
            os.mkfifo(path)
            self.assertFalse(handover.is_read(path))
            self.pipe.close()
            self.pipe = handover.Handover(path)
            self.assertTrue(handover.is_read(path))
            other = handover.Handover(path)
            self.addCleanup(other.close)
            other.send(change("p"))
            self.assertEqual((change("p"), ""), self.received())
            # What was lost while the pipe was full is said with the next change.
            ports = [f"{number:036}" for number in range(50)]
            for _ in range(1000):
                other.send(change(*ports))
            self.received()
            other.send(change("p"))
            self.assertEqual((change("p"), "a process of this server was started"),
                             self.received())

    def test_what_is_too_long_for_a_message_is_a_loss(self):
        self.pipe.send(handover.Change(backlog.Work(devices={"d" * handover.LONGEST})))
        self.assertIn("more has changed", self.received()[1])

    def test_the_rest_of_a_message_that_another_reader_began_is_a_loss(self):
        self.pipe.send(change("p"))
        self.pipe._reader.read(10)
        self.pipe.send(change("q"))
        joined, lost = self.received()
        self.assertEqual({"q"}, joined.work.ports)
        self.assertIn("was cut", lost)

    def test_a_process_that_begins_is_a_loss(self):
        self.pipe.restarted()
        self.assertIn("was started", self.received()[1])


class RoutingTest(unittest.TestCase):
    """Agents of one rack each, and one of everything."""

    def setUp(self):
        super().setUp()
        self.router = routing.Router([
            config.AgentConfig("one", "unix:///1", physical_networks=("rack1",)),
            config.AgentConfig("two", "unix:///2", physical_networks=("rack2",)),
            config.AgentConfig("all", "unix:///3")])
        self.places = database.Places(set(), {}, False)
        self.racks = {"s1": "rack1", "s2": "rack2", "top": None}
        for name, answer in (("places_of", lambda *_: self.places), ("racks_of", self.racks_of)):
            patch = mock.patch.object(database, name, answer)
            patch.start()
            self.addCleanup(patch.stop)

    def racks_of(self, segments):
        return {name: self.racks[name] for name in segments if name in self.racks}

    def test_where_it_is_and_where_it_was(self):
        self.places = database.Places({"top", "s1"}, {}, False)
        self.assertEqual(["one", "all"], self.router.concerned(change("p")))
        self.assertEqual(["one", "two", "all"],
                         self.router.concerned(change("p", segments={"s2"})))

    def test_what_is_bound_nowhere_concerns_an_agent_of_everything_only(self):
        self.assertEqual(["all"], self.router.concerned(change("p")))

    def test_a_segment_that_is_gone_is_remembered(self):
        self.router.concerned(change("p", segments={"s1"}))
        self.racks.clear()
        self.assertEqual(["one", "all"], self.router.concerned(change("p", segments={"s1"})))

    def test_a_segment_that_is_gone_and_was_never_seen_concerns_everybody(self):
        self.assertEqual(["one", "two", "all"],
                         self.router.concerned(change("p", segments={"gone"})))

    def test_a_port_that_is_bound_without_a_level_concerns_everybody(self):
        self.places = database.Places(set(), {}, True)
        self.assertEqual(["one", "two", "all"], self.router.concerned(change("p")))

    def test_a_network_concerns_the_racks_of_its_segments(self):
        self.places = database.Places(set(), {"top": None, "s2": "rack2"}, False)
        network = handover.Change(backlog.Work(networks={"n"}), racks={"rack3"})
        self.assertEqual(["two", "all"], self.router.concerned(network))
