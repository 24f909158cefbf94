"""The example driver against the real server: it syncs, follows its files, and outlives restarts."""

import json
import subprocess
import sys
from pathlib import Path
from typing import Any
from urllib.parse import quote

from api.agent import DEADLINE, Agent, LiveTest, poll, region

DRIVER = Path(__file__).resolve().parents[2] / "examples/driver/driver.py"


class Driving(LiveTest):
    cost = 10

    def setUp(self) -> None:
        self.agent = self.stateful()
        self.client = self.agent.client
        self.files = self.agent.folder / "files"
        self.write(region())

    def write(self, document: dict[str, Any]) -> None:
        """Makes the files say this region: each by a rename, and what a file needs before it."""
        wanted = {}
        for collection in ("segment", "port", "network", "portBinding"):
            for name, member in document.get(collection, {}).items():
                wanted[self.files / collection / f"{quote(name, safe='')}.json"] = member
        for file in set(self.files.glob("*/*.json")) - set(wanted):
            file.unlink()
        for file, member in wanted.items():
            file.parent.mkdir(parents=True, exist_ok=True)
            file.with_suffix(".new").write_text(json.dumps(member))
            file.with_suffix(".new").rename(file)

    def drive(self, *options: str, agent: Agent | None = None) -> subprocess.Popen[str]:
        driver = subprocess.Popen(
            [sys.executable, str(DRIVER), "R", str(self.files), "--socket",
             (agent or self.agent).socket, *options], stderr=subprocess.PIPE, text=True)
        self.addCleanup(driver.communicate)
        self.addCleanup(driver.kill)
        return driver

    def ends(self, driver: subprocess.Popen[str], status: int) -> str:
        self.assertEqual(driver.wait(DEADLINE), status)
        return driver.stderr.read()

    def in_step(self, document: dict[str, Any]) -> None:
        def members() -> dict[str, Any]:
            answer = self.client.get("/v1/cloud/region/R")
            return {key: value for key, value in answer.json.items() if answer.status == 200
                    and not key.startswith(("sync", "request"))}

        poll(lambda: members() == document, "the region is as the files say")

    def test_it_syncs_once(self) -> None:
        self.ends(self.drive("--once"), 0)
        self.in_step(region())
        status = self.client.sync("R")
        self.assertEqual((status["syncStatus"], status["oldSyncStatus"], status["owner"]),
                         ("syncComplete", "syncInProgress", ""))
        # Again, on a region that is there: nothing of it changes.
        tag = self.client.get("/v1/cloud/region/R").etag
        self.ends(self.drive("--once"), 0)
        self.assertEqual(self.client.get("/v1/cloud/region/R").etag, tag)

    def test_it_follows_its_files_with_small_patches(self) -> None:
        driver = self.drive()
        self.in_step(region())
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncComplete", "the sync")
        document = region()
        document["port"]["a/b"] = {"vlanType": 1}
        del document["portBinding"]["p2"]
        document["segment"]["seg-top"]["segmentationId"] = 10002
        tag = self.client.get("/v1/cloud/region/R/portBinding/p1").etag
        self.write(document)
        self.in_step(document)
        self.assertEqual(self.client.get("/v1/cloud/region/R/portBinding/p1").etag, tag)
        self.assertEqual(self.client.cloud()["region"]["R"]["syncStatus"], "syncComplete")
        self.assertIsNone(driver.poll())

    def test_it_puts_back_what_others_change(self) -> None:
        self.drive()
        self.in_step(region())
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncComplete", "the sync")
        self.ok(self.client.patch({"region": {"R": {"network": {"other": {}, "net-1": None}}}}))
        self.in_step(region())
        self.ok(self.client.request("DELETE", "/v1/cloud/region/R"))
        self.in_step(region())

    def test_it_outlives_a_restart(self) -> None:
        driver = self.drive()
        self.in_step(region())
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncComplete", "the sync")
        self.agent.kill()
        document = region(network={"net-2": {}, "net-3": {}})
        self.write(document)
        self.assertIsNone(driver.poll())
        self.agent.start()
        self.in_step(document)
        self.ok(self.client.patch({"region": {"R": {"network": None}}}))
        self.in_step(document)
        self.assertIsNone(driver.poll())

    def test_it_starts_over_where_the_agent_forgot_everything(self) -> None:
        agent = self.start()
        self.client = agent.client
        driver = self.drive(agent=agent)
        self.in_step(region())
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncComplete", "the sync")
        agent.kill()
        agent.start()
        self.in_step(region())
        poll(lambda: self.client.sync("R")["syncStatus"] == "syncComplete", "the sync")
        self.assertIsNone(driver.poll())

    def test_it_waits_for_the_lock(self) -> None:
        self.load(R={})
        self.ok(self.client.lock("R", "somebody", "r1"))
        driver = self.drive("--once")
        poll(lambda: self.client.sync("R")["waiting"] == 1, "it waits")
        self.assertEqual(self.client.cloud()["region"]["R"].keys(), {"requester", "requestId"})
        self.ok(self.client.unlock("R", "r1"))
        self.ends(driver, 0)
        self.in_step(region())

    def test_it_gives_up_where_the_lock_is_never_free(self) -> None:
        # Five more attempts, a second apart.
        self.load(R={})
        self.ok(self.client.lock("R", "somebody", "r1"))
        self.assertIn("409", self.ends(self.drive("--patience", "0.1"), 5))
        self.assertEqual(self.client.sync("R")["owner"], "somebody")

    def test_it_gives_up_where_nobody_answers(self) -> None:
        self.agent.kill()
        self.assertIn("gave up", self.ends(self.drive("--patience", "0.5"), 4))

    def test_it_says_what_is_refused(self) -> None:
        document = region()
        del document["port"]["p1"]
        self.write(document)
        self.assertIn("p1", self.ends(self.drive(), 3))
        self.assertNotIn("port", self.client.cloud().get("region", {}).get("R", {}))
