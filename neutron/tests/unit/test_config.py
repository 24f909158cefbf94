"""The file that names the agents, and the command line tool."""
import contextlib
import io
import os
import tempfile
import unittest
from unittest import mock

from networking_vnagent import config
from networking_vnagent import sync
from networking_vnagent.cli import sync as tool


class AgentsFileTest(unittest.TestCase):
    def read(self, text):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "agents.ini")
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
            return config.read_agents(path)

    def fails(self, text):
        with self.assertRaises(config.BadAgentsFile) as raised:
            self.read(text)
        return str(raised.exception)

    def test_agents_come_in_the_order_of_their_names(self):
        agents = self.read("[agent:b]\nurl = unix:///b\nphysical_networks = r1, r2\n"
                           "hosts = h*:r1\n[agent:a]\nurl = https://a:1\nrequest_timeout = 3\n")
        self.assertEqual(["a", "b"], [agent.name for agent in agents])
        other, first = agents
        self.assertEqual(("r1", "r2"), first.physical_networks)
        self.assertTrue(first.serves("r2"))
        self.assertFalse(first.serves("r3"))
        self.assertTrue(other.serves("r3"))
        self.assertEqual(3, other.request_timeout)

    def test_each_fault_names_its_place(self):
        for text, named in (
                ("", "names no agent"),
                ("[agents]\nurl = unix:///a\n", "[agents]"),
                ("[agent:a]\n", "[agent:a]"),
                ("[agent:a]\nurl = nowhere\n", "nowhere"),
                ("[agent:a]\nurl = unix:///a\n[agent:b]\nurl = unix:///a\n", "a and b"),
                ("[agent:a]\nurl = unix:///a\nrequest_timeout = soon\n", "[agent:a]"),
                ("[agent:a]\nurl = unix:///a\nphysical_networks = r1\nswitches = s:r2\n", "r2")):
            self.assertIn(named, self.fails(text))

    def test_a_file_that_is_not_there_is_named(self):
        with self.assertRaises(config.BadAgentsFile) as raised:
            config.read_agents("/nowhere/agents.ini")
        self.assertIn("/nowhere/agents.ini", str(raised.exception))

    def test_a_name_counts_before_a_pattern(self):
        patterns = {"h*": "r1", "h7": "r2"}
        self.assertEqual(["r1", "r2", None],
                         [config.matching(patterns, name) for name in ("h1", "h7", "x")])


class ToolTest(unittest.TestCase):
    AGENTS = [config.AgentConfig("a", "unix:///a"), config.AgentConfig("b", "unix:///b")]

    def run_tool(self, *arguments, reports=()):
        with mock.patch.object(tool, "load", return_value=self.AGENTS), \
                mock.patch.object(tool, "look", side_effect=list(reports)), \
                mock.patch.object(tool, "repair", side_effect=list(reports)), \
                contextlib.redirect_stdout(io.StringIO()) as out, \
                contextlib.redirect_stderr(io.StringIO()) as err:
            status = tool.run(tool.parse(list(arguments)))
        return status, out.getvalue(), err.getvalue()

    def test_it_says_what_differs_and_its_status_is_3(self):
        status, out, _ = self.run_tool(reports=[
            sync.Report("t", [("port", "p")], 7, False), sync.Report("t", [], 7, False)])
        self.assertEqual(3, status)
        self.assertIn("a: 1 of 7 members differed, not repaired: port p", out)
        self.assertIn("b: nothing differs among 7 members", out)

    def test_what_was_repaired_is_no_failure(self):
        status, out, _ = self.run_tool("a", "--mode", "repair", reports=[
            sync.Report("t", [("port", "p")], 7, True)])
        self.assertEqual(0, status)
        self.assertIn("repaired", out)

    def test_an_agent_that_is_locked_or_away_does_not_hold_up_the_others(self):
        status, out, err = self.run_tool("--mode", "repair", reports=[
            sync.LockHeld("them"), sync.Report("t", [], 7, True)])
        self.assertEqual(4, status)
        self.assertIn("held by them", err)
        self.assertIn("b: nothing differs", out)

    def test_an_unknown_agent_is_a_wrong_command_line(self):
        self.assertEqual(2, self.run_tool("c")[0])
