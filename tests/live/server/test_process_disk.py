"""A state directory on a disk that is full: a small one of its own, in memory."""

import contextlib
import os
import subprocess
from pathlib import Path

from process import refusal  # noqa: F401, I001  (it sets the path)
from api.agent import Agent, LiveTest, poll, region


def with_small_disk(folder: Path) -> list[str]:
    """A command that runs another one with a small disk at the folder, that only it sees."""
    names = [] if os.geteuid() == 0 else ["--map-root-user"]
    return ["unshare", "--mount", *names, "sh", "-c",
            'mount -t tmpfs -o size=3M tmpfs "$0" && exec "$@"', str(folder)]


class FullDisk(LiveTest):
    def setUp(self) -> None:
        self.agent = Agent()
        self.addCleanup(self.agent.close)
        self.disk = self.agent.folder / "disk"
        self.disk.mkdir()
        self.agent.prefix = with_small_disk(self.disk)
        tried = subprocess.run([*self.agent.prefix, "true"], capture_output=True, text=True,
                               check=False)
        if tried.returncode != 0:
            self.skipTest(f"a disk cannot be mounted here: {tried.stderr.strip()}")
        self.agent.options = ["--state-dir", str(self.disk / "state")]
        self.agent.start()
        self.client = self.agent.client

    def fill(self) -> Path:
        """Takes all the space that is left. The file is seen through the agent's process alone."""
        filler = Path(f"/proc/{self.agent.process.pid}/root{self.disk}/filler")
        with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while True:
                file.write(b"x" * 4096)
        return filler

    def test_writes_are_refused_and_go_on_when_there_is_space(self) -> None:
        self.load(R=region())
        watch = self.follow("/v1/watch?of=cloud")
        watch.next()
        for turn in range(3):
            filler = self.fill()
            acknowledged = self.client.revision()
            number = 0
            # What the files have already may still take some.
            while (answer := self.client.patch({"region": {"R": {"network": {
                    f"{turn}-{number}": {}}}}})).status == 200:
                acknowledged = answer.json["revision"]
                number += 1
            self.refused(answer, 507, "no-space")
            self.assertEqual(self.client.get("/readyz").status, 503)
            with self.unchanged():
                self.refused(self.client.lock("R", "a", "r"), 507, "no-space")
                self.refused(self.client.request("DELETE", "/v1/cloud/region/R"), 507, "no-space")
            self.assertEqual(self.client.revision(), acknowledged)
            self.assertNotIn(f"{turn}-{number}", self.client.cloud()["region"]["R"]["network"])
            filler.unlink()
            poll(lambda: self.client.get("/readyz").status == 200, "there is space again")
            revision = self.load(**{f"New{turn}": {}})
            self.assertEqual(revision, acknowledged + 1)
            watch.until(revision)
            self.assertEqual(watch.document, self.client.cloud())
