"""Child processes in groups of their own, free ports, and waiting with a deadline."""

from __future__ import annotations

import os
import signal
import socket
import subprocess
import time
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import TypeVar

T = TypeVar("T")


class Failed(Exception):
    """Something that the test needs did not start, answer or agree in time."""


def free_port() -> int:
    """A TCP port of the loopback interface that nobody listens on now."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def eventually(what: str, probe: Callable[[], T | None], seconds: float, pause: float = 0.1) -> T:
    """The first result of `probe` that is neither None nor False; raises Failed after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        result = probe()
        if result is not None and result is not False:
            return result
        if time.monotonic() > deadline:
            raise Failed(f"{what}: not within {seconds:g} s")
        time.sleep(pause)


def children(pid: int) -> list[int]:
    """The living direct children of a process, oldest first."""
    found = []
    for entry in Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            fields = (entry / "stat").read_text().rpartition(")")[2].split()
        except OSError:
            continue
        if int(fields[1]) == pid and fields[0] != "Z":
            found.append(int(entry.name))
    return sorted(found)


class Program:
    """A program in its own process group, its output in a log file. It can be killed, paused and
    started again; `stop` leaves nothing of it behind. One thread at a time."""

    def __init__(self, name: str, command: Sequence[str | Path], log: Path,
                 environment: Mapping[str, str] | None = None) -> None:
        self.name = name
        self.command = [str(part) for part in command]
        self.log = log
        self.environment = {**os.environ, **(environment or {})}
        self.process: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        with self.log.open("ab") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log, env=self.environment,
                                            start_new_session=True)

    @property
    def pid(self) -> int:
        assert self.process is not None, f"{self.name} was not started"
        return self.process.pid

    def running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    def ended(self) -> int | None:
        """The exit status; None while it runs."""
        return None if self.process is None else self.process.poll()

    def signal_group(self, number: signal.Signals) -> None:
        """Sends the signal to every process of the group; one that is gone is no fault."""
        if self.process is None:
            return
        try:
            os.killpg(self.process.pid, number)
        except ProcessLookupError:
            pass

    def pause(self) -> None:
        self.signal_group(signal.SIGSTOP)

    def resume(self) -> None:
        self.signal_group(signal.SIGCONT)

    def kill(self) -> None:
        """Kills the whole group at once, without a chance to clean up."""
        self.signal_group(signal.SIGKILL)
        if self.process is not None:
            self.process.wait()

    def stop(self, seconds: float = 10) -> None:
        """Asks it to end, and kills what is left of the group after `seconds`."""
        if self.process is None:
            return
        self.resume()
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(seconds)
            except subprocess.TimeoutExpired:
                pass
        self.kill()

    def tail(self, lines: int = 15) -> str:
        """The last lines of its log."""
        if not self.log.exists():
            return ""
        return "\n".join(self.log.read_text(errors="replace").splitlines()[-lines:])
