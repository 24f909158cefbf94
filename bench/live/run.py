#!/usr/bin/env python3
"""Measures the live agent beside its peers, and prints a table with a row for each target.

Peers are etcd by its JSON gateway, ovsdb-server, and a server of the same HTTP library that answers
with a constant. All are started here, on loopback and in a folder of their own, and stopped again.
What is compared runs by turns in the same run, and a figure is the median of its rounds. Exits
with 0 also where a target is not met, with 1 where a figure is missing.
"""

import argparse
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import asdict, dataclass
from pathlib import Path
from statistics import median
from typing import Any

HERE = Path(__file__).resolve().parent
START_SECONDS = 30.0
# More than the watchers and connections of any row.
CONNECTIONS = 2048
LARGE = 100_000
ANSWER_BYTES = 20  # of the agent's answer to a change, which the bare server's has too


class Failure(Exception):
    """A figure could not be measured."""


@dataclass
class Row:
    """A target, and what was measured for it."""

    name: str
    what: str
    unit: str
    figure: float
    peer: float
    against: str  # what the peer is
    bar: float
    at_least: bool  # the ratio's bar is the least that meets it, else the most

    @property
    def ratio(self) -> float:
        return self.figure / self.peer if self.peer else float("inf")

    @property
    def met(self) -> bool:
        return self.ratio >= self.bar if self.at_least else self.ratio <= self.bar


@dataclass
class Options:
    vnagent: Path
    programs: Path  # live_client and bare_server
    folder: Path  # on the disk that is measured
    quick: bool

    @property
    def rounds(self) -> int:
        return 3 if self.quick else 5

    @property
    def seconds(self) -> float:
        return 1.0 if self.quick else 3.0

    def client(self, *words: object) -> Any:
        """What the measuring client prints."""
        command = [str(self.programs / "live_client"), *map(str, words)]
        result = subprocess.run(command, capture_output=True, text=True, check=False, timeout=400)
        if result.returncode != 0:
            raise Failure(result.stderr.strip().splitlines()[-1] if result.stderr else "no result")
        return json.loads(result.stdout)

    def document(self) -> Path:
        """The large cloud as a document."""
        path = self.folder / "cloud.json"
        if not path.exists():
            command = [self.programs / "live_client", "cloud", *cloud(LARGE)]
            with path.open("w", encoding="utf-8") as file:
                subprocess.run(list(map(str, command)), stdout=file, check=True)
        return path


def cloud(ports: int) -> list[object]:
    """The options of a cloud of so many ports."""
    return ["--ports", ports, "--hosts", ports // 40]


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


class UnixConnection(http.client.HTTPConnection):
    """HTTP over a Unix socket."""

    def __init__(self, path: Path) -> None:
        super().__init__("localhost", timeout=5)
        self.path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self.path))


def answers(connection: http.client.HTTPConnection, target: str) -> bool:
    """Whether a server answers with 200."""
    try:
        connection.request("GET", target)
        return connection.getresponse().status == 200
    except OSError:
        return False
    finally:
        connection.close()


def await_start(process: subprocess.Popen[bytes], is_ready: Callable[[], bool],
                log: Path) -> None:
    end = time.monotonic() + START_SECONDS
    while not is_ready():
        if process.poll() is not None or time.monotonic() > end:
            last = log.read_text(encoding="utf-8", errors="replace").splitlines()[-3:]
            raise Failure(f"{Path(str(process.args[0])).name} does not start: "  # type: ignore
                          + " ".join(last))
        time.sleep(0.002)


@contextmanager
def server(command: list[object], log: Path,
           is_ready: Callable[[], bool]) -> Iterator[subprocess.Popen[bytes]]:
    """A process that serves until the block ends."""
    with log.open("ab") as output:
        process = subprocess.Popen(list(map(str, command)), stdout=output, stderr=output,
                                   stdin=subprocess.DEVNULL, start_new_session=True)
    try:
        await_start(process, is_ready, log)
        yield process
    finally:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(15)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@contextmanager
def folder_of(options: Options, name: str) -> Iterator[Path]:
    """A new folder on the disk that is measured; short, for a socket's path has little room."""
    path = Path(tempfile.mkdtemp(prefix=name + "-", dir=options.folder))
    try:
        yield path
    finally:
        shutil.rmtree(path, ignore_errors=True)


def agent_command(options: Options, folder: Path, durable: bool, *more: object) -> list[object]:
    command: list[object] = [options.vnagent, "serve", "--socket", folder / "s",
                             "--max-connections", CONNECTIONS, *more]
    return command + (["--state-dir", folder / "state"] if durable else [])


@contextmanager
def agent_in(options: Options, folder: Path, durable: bool,
             *more: object) -> Iterator[subprocess.Popen[bytes]]:
    with server(agent_command(options, folder, durable, *more), folder / "log",
                lambda: answers(UnixConnection(folder / "s"), "/readyz")) as process:
        yield process


@contextmanager
def agent(options: Options, durable: bool, *more: object) -> Iterator[Path]:
    """The agent; gives its socket."""
    with folder_of(options, "agent") as folder, agent_in(options, folder, durable, *more):
        yield folder / "s"


@contextmanager
def bare(options: Options) -> Iterator[Path]:
    with folder_of(options, "bare") as folder:
        path = folder / "s"
        command = [options.programs / "bare_server", path, ANSWER_BYTES]
        with server(command, folder / "log", lambda: answers(UnixConnection(path), "/")):
            yield path


@contextmanager
def etcd(options: Options) -> Iterator[str]:
    """etcd alone; gives its URL."""
    with folder_of(options, "etcd") as folder:
        port = free_port()
        url = f"http://127.0.0.1:{port}"
        peer = f"http://127.0.0.1:{free_port()}"
        command = ["etcd", "--name", "bench", "--data-dir", folder / "data",
                   "--listen-client-urls", url, "--advertise-client-urls", url,
                   "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
                   "--initial-cluster", f"bench={peer}", "--logger", "zap",
                   "--log-level", "error"]
        with server(command, folder / "log",
                    lambda: answers(http.client.HTTPConnection("127.0.0.1", port, timeout=5),
                                    "/health")):
            yield url


@contextmanager
def ovsdb(options: Options) -> Iterator[Path]:
    with folder_of(options, "ovsdb") as folder:
        subprocess.run(["ovsdb-tool", "create", folder / "db", HERE / "bench.ovsschema"],
                       check=True, capture_output=True)
        path = folder / "s"
        command = ["ovsdb-server", f"--remote=punix:{path}", f"--unixctl={folder / 'control'}",
                   "-vconsole:warn", folder / "db"]
        with server(command, folder / "log", path.exists):
            yield path


def middle(rounds: list[Any], *keys: str) -> float:
    """The median of a figure over its rounds."""
    values = []
    for one in rounds:
        for key in keys:
            one = one[key]
        values.append(float(one))
    return median(values)


# The measurements. Each gives rows, and what else is worth a line.


def measure_memory(options: Options, ports: int, bar: float) -> list[Row]:
    with agent(options, False) as ours, bare(options) as limit:
        result = options.client("changes", "--agent", ours, "--bare", limit, "--connections", 16,
                                "--seconds", options.seconds, "--rounds", options.rounds,
                                *cloud(ports))
    return [Row(f"memory/{ports}", f"changes in memory, 16 connections, {ports:,} ports",
                "a second", middle(result["agent"], "rate"), middle(result["bare"], "rate"),
                "bare server", bar, True)]


def measure_durable(options: Options) -> list[Row]:
    with agent(options, True) as ours, etcd(options) as url, ovsdb(options) as path:
        result = options.client("changes", "--agent", ours, "--etcd", url, "--ovsdb", path,
                                "--connections", 64, "--seconds", options.seconds,
                                "--rounds", options.rounds, *cloud(10_000))
    rate = middle(result["agent"], "rate")
    return [Row("durable/etcd", "durable changes, 64 connections", "a second", rate,
                middle(result["etcd"], "rate"), "etcd", 3, True),
            Row("durable/ovsdb", "the same", "a second", rate,
                middle(result["ovsdb"], "rate"), "ovsdb-server", 1, True)]


def measure_single(options: Options) -> list[Row]:
    with agent(options, True) as ours, etcd(options) as url:
        result = options.client("changes", "--agent", ours, "--etcd", url, "--connections", 1,
                                "--seconds", options.seconds, "--rounds", options.rounds,
                                *cloud(10_000))
    return [Row("single", "one durable change at a time, p50", "us",
                middle(result["agent"], "p50"), middle(result["etcd"], "p50"), "etcd", 1.2,
                False)]


def measure_event(options: Options) -> list[Row]:
    with agent(options, True) as ours:
        result = options.client("watch", "--agent", ours, "--connections", 16, "--rate", 1000,
                                "--watchers", 1, "--seconds", 2 * options.seconds,
                                "--rounds", options.rounds, *cloud(10_000))["agent"]
    return [Row(f"event/{which}", f"from a change to a watcher's event, 1,000 a second, {which}",
                "us", middle(result, "event", which), middle(result, "change", which),
                "its answer", 2, False) for which in ("p50", "p99")]


def measure_watchers(options: Options) -> list[Row]:
    with agent(options, True) as ours, etcd(options) as url:
        result = options.client("watch", "--agent", ours, "--etcd", url, "--connections", 4,
                                "--rate", 10, "--watchers", 1000,
                                "--seconds", 4 * options.seconds, "--rounds", options.rounds,
                                *cloud(10_000))
    return [Row("watchers", "last of 1,000 watchers' events, 10 changes a second, p99", "us",
                middle(result["agent"], "last", "p99"), middle(result["etcd"], "last", "p99"),
                "etcd", 0.5, False)]


def status_kilobytes(process: int, member: str) -> int:
    status = Path(f"/proc/{process}/status").read_text(encoding="ascii")
    found = re.search(rf"^{member}:\s+(\d+) kB", status, re.M)
    if found is None:
        raise Failure(f"there is no {member}")
    return int(found[1])


def run_document(options: Options) -> tuple[float, float]:
    """Seconds and peak in MB of `vnagent run` of the large cloud."""
    begin = time.monotonic()
    with open(os.devnull, "wb") as nothing:
        process = subprocess.Popen([options.vnagent, "run", options.document(), "--format",
                                    "json"], stdout=nothing)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failure("vnagent run fails")
    return time.monotonic() - begin, usage.ru_maxrss / 1024


def measure_large(options: Options) -> list[Row]:
    """What restarts, and what it takes: a large cloud with many changes, killed while it runs."""
    rounds = options.rounds
    restarts, runs, peaks, resident = [], [], [], []
    with folder_of(options, "large") as folder:
        with agent_in(options, folder, True) as process:
            options.client("changes", "--agent", folder / "s", "--connections", 16, "--seconds",
                           options.seconds, *cloud(LARGE))
            time.sleep(2)  # what is written behind, as a snapshot
            resident.append(status_kilobytes(process.pid, "VmRSS") / 1024)
            process.kill()
            process.wait()
        for _ in range(rounds):
            begin = time.monotonic()
            with agent_in(options, folder, True) as process:
                restarts.append(time.monotonic() - begin)
                time.sleep(1)
                resident.append(status_kilobytes(process.pid, "VmRSS") / 1024)
                process.kill()
                process.wait()
            seconds, peak = run_document(options)
            runs.append(seconds)
            peaks.append(peak)
    return [Row("restart", f"from a kill to ready, {LARGE:,} ports", "s", median(restarts),
                median(runs), "vnagent run", 1.5, False),
            Row("resident", f"memory, idle, with journal, {LARGE:,} ports", "MB", max(resident),
                median(peaks), "peak of run", 0.9, False)]


def measure_expiry(options: Options) -> list[Row]:
    timeout = 3 if options.quick else 5
    late, early = [], 0
    for _ in range(1 if options.quick else 3):
        with agent(options, True, "--region-sync-timeout", timeout) as ours:
            result = options.client("expiry", "--agent", ours, "--regions", 1000, "--timeout",
                                    timeout, "--rate", 1000, *cloud(10_000))
        late.append(result["late"]["p99"] / 1000)
        early += result["early"]
    return [Row("expiry/early", "1,000 regions in sync under load: time-outs before their time",
                "", early, 1, "none", 0, False),
            Row("expiry/late", "and how late, p99", "ms", median(late), 10, "10 ms", 1, False)]


MEASUREMENTS: dict[str, Callable[[Options], list[Row]]] = {
    "memory/10000": lambda options: measure_memory(options, 10_000, 0.5),
    "memory/100000": lambda options: measure_memory(options, LARGE, 0.4),
    "durable/etcd durable/ovsdb": measure_durable,
    "single": measure_single,
    "event/p50 event/p99": measure_event,
    "watchers": measure_watchers,
    "restart resident": measure_large,
    "expiry/early expiry/late": measure_expiry,
}


def number(value: float) -> str:
    digits = 0 if value >= 100 or value == 0 else 1 if value >= 10 else 2 if value >= 1 else 3
    return f"{value:,.{digits}f}"


def print_table(rows: list[Row]) -> None:
    lines = [("target", "", "figure", "", "peer", "", "ratio", "bar", "")]
    for row in rows:
        sign = ">=" if row.at_least else "<="
        lines.append((row.name, row.what, number(row.figure), row.unit, number(row.peer),
                      row.against, f"{row.ratio:.2f}", f"{sign} {row.bar:g}",
                      "met" if row.met else "not met"))
    widths = [max(len(cell) for cell in column) for column in zip(*lines)]
    right = {2, 4, 6, 7}
    for line in lines:
        print("  ".join(cell.rjust(width) if i in right else cell.ljust(width)
                        for i, (cell, width) in enumerate(zip(line, widths))).rstrip())


def missing_programs(options: Options) -> list[str]:
    needed = [options.vnagent, options.programs / "live_client", options.programs / "bare_server"]
    return [str(path) for path in needed if not os.access(path, os.X_OK)] + [
        name for name in ("etcd", "ovsdb-server", "ovsdb-tool") if shutil.which(name) is None]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", type=Path,
                        help="the folder with vnagent, live_client and bare_server")
    parser.add_argument("--results", type=Path, help="where the JSON of the results goes")
    parser.add_argument("--filter", default="", metavar="REGEX",
                        help="only the targets in whose names this is found")
    parser.add_argument("--quick", action="store_true", help="shorter and fewer rounds")
    parser.add_argument("--folder", type=Path,
                        help="on the disk to measure [build/bench]")
    arguments = parser.parse_args()
    os.environ["PATH"] += os.pathsep + "/usr/sbin"
    programs = arguments.programs.resolve()
    base = (arguments.folder or HERE.parent.parent / "build/bench").resolve()
    base.mkdir(parents=True, exist_ok=True)
    failed = False
    rows: list[Row] = []
    with tempfile.TemporaryDirectory(prefix="live-", dir=base) as folder, ExitStack() as stack:
        stack.callback(signal.signal, signal.SIGTERM, signal.signal(
            signal.SIGTERM, lambda *_: sys.exit(1)))
        options = Options(programs / "vnagent", programs, Path(folder), arguments.quick)
        if missing := missing_programs(options):
            sys.exit("missing: " + ", ".join(missing))
        for names, measure in MEASUREMENTS.items():
            if not any(re.search(arguments.filter, name) for name in names.split()):
                continue
            print(f"measuring {names} ...", file=sys.stderr, flush=True)
            try:
                rows += [row for row in measure(options)
                         if re.search(arguments.filter, row.name)]
            except (Failure, subprocess.SubprocessError, OSError, KeyError) as error:
                print(f"{names}: {error}", file=sys.stderr)
                failed = True
    print_table(rows)
    if arguments.results:
        results = [{**asdict(row), "ratio": row.ratio, "met": row.met} for row in rows]
        arguments.results.write_text(json.dumps({"quick": arguments.quick, "rows": results},
                                                indent=1) + "\n", encoding="utf-8")
    return 1 if failed or not rows else 0


if __name__ == "__main__":
    sys.exit(main())
