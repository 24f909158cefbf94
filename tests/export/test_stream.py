"""Random streams of the simulation, with the databases compared after each event; and a full switch."""

import random
import sys
import unittest
from pathlib import Path
from typing import Any

from exporter import ExportTest, host, output

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "sim" / "agent"))
from generator import NAMES, Generator  # noqa: E402  the simulation's
from program import run_model  # noqa: E402

SEEDS = range(1, 13)
EVENTS = 40


class StreamTest(ExportTest):
    """Names, hosts and ports as the simulation has them, on three switches."""

    def setUp(self) -> None:
        self.seed = 0
        switches: set[str] = set()
        interfaces: set[str] = set()
        hosts: set[str] = set()
        for names in NAMES.values():
            switches.update(names["switch"])
            interfaces.update(names["interface"])
            hosts.update(names["host"])
        self.switches = {name: sorted(interfaces) for name in sorted(switches)[:4]}
        self.renamed = {}
        dice = random.Random(1)
        self.hosts = {}
        for name in sorted(hosts):
            places = dice.sample(sorted(self.switches), dice.choice([0, 1, 1, 2]))
            self.hosts[name] = [{"switch": one, "port": dice.choice(self.switches[one])}
                                for one in places]
        super().setUp()

    def test_the_databases_are_the_output_after_each_event(self) -> None:
        exporter = self.exporter()
        for seed in SEEDS:
            stream = Generator(seed).stream(EVENTS)
            stream.toggle_on = seed % 2 == 0
            before: Any = None
            for number, step in enumerate(run_model(stream).steps):
                if not step.ok or step.output == before:
                    continue
                before = step.output
                with self.subTest(seed=seed, step=number):
                    self.export(exporter, step.output)


class FullSwitchTest(ExportTest):
    switches = {"leaf-1": [f"swp{i}" for i in range(48)], "leaf-2": ["swp0"]}
    hosts = {"full": [{"switch": "leaf-1", "port": f"swp{i}"} for i in range(48)],
             "single": [{"switch": "leaf-1", "port": "swp0"}],
             "other": [{"switch": "leaf-2", "port": "swp0"}]}
    renamed: dict[str, Any] = {}

    def test_a_change_on_a_full_switch_costs_what_it_costs_on_an_empty_one(self) -> None:
        exporter = self.exporter()
        vlans = {vlan: [vlan] for vlan in range(1, 4095)}
        changed = {**vlans, 100: [5000]}

        def cost(document: Any) -> tuple[int, int]:
            before = exporter.status()["switches"]["leaf-1"]
            exporter.send(document)
            after = exporter.wait()["switches"]["leaf-1"]
            return (after["transactions"] - before["transactions"],
                    after["bytesSent"] - before["bytesSent"])

        self.export(exporter, output({"full": host({100: [100]})}))
        few = cost(output({"full": host({100: [5000]})}))
        self.assertEqual(1, cost(output({"full": host(vlans)}))[0])
        self.expect(output({"full": host(vlans)}))
        self.assertEqual(few, cost(output({"full": host(changed)})))
        self.expect(output({"full": host(changed)}))
        self.assertEqual(1, cost(output())[0])
        self.expect(output())


if __name__ == "__main__":
    unittest.main()
