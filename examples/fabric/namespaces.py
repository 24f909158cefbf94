"""Network namespaces: making them, running in them, and removing what a name prefix marks.

Needs root. Everything that a fabric starts runs in a namespace of its own, so removing the
namespaces finds all of its processes, also those whose parent was killed.
"""

import contextlib
import ctypes
import os
import shutil
import signal
import subprocess
import time
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path
from typing import Any

DEADLINE = 30.0  # seconds after which a wait has failed
NAMED = Path("/run/netns")
CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)
PROGRAMS = ("ip", "nsenter", "patch", "ovsdb-tool", "ovsdb-server", "ovs-vswitchd", "ovs-vsctl",
            "ovs-ofctl", "vtep-ctl")
EMULATOR = Path("/usr/share/openvswitch/scripts/ovs-vtep")


class Failure(Exception):
    """Something outside did not do what it must; the text is for people."""


def run(*command: str | Path, env: dict[str, str] | None = None, check: bool = True) -> str:
    """Runs a short command and returns what it printed. Raises Failure with its messages."""
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=DEADLINE, env=env, check=False)
    if check and done.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))}: {done.stderr.strip() or done.returncode}")
    return done.stdout


def poll(condition: Callable[[], Any], what: str, deadline: float = DEADLINE) -> Any:
    """Calls until the result is true, and returns it. Raises Failure after the deadline."""
    end = time.monotonic() + deadline
    while not (result := condition()):
        if time.monotonic() > end:
            raise Failure(f"not within {deadline:g} s: {what}")
        time.sleep(0.02)
    return result


def missing() -> str:
    """Why no fabric can be built here; empty where it can."""
    if os.geteuid() != 0:
        return "needs root"
    for program in PROGRAMS:
        if shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") is None:
            return f"no program {program}"
    if not EMULATOR.exists():
        return f"no {EMULATOR}: the package openvswitch-vtep is missing"
    if subprocess.run(["/usr/bin/python3", "-c", "import ovs"], stderr=subprocess.DEVNULL,
                      check=False).returncode != 0:
        return "no module ovs: the package python3-openvswitch is missing"
    for what in (["true"], ["ip", "link", "add", "try0", "type", "veth", "peer", "name", "try1"],
                 ["ip", "link", "add", "try0", "type", "bridge"],
                 ["ip", "tuntap", "add", "dev", "try0", "mode", "tap"]):
        if subprocess.run(["unshare", "--net", *what], stderr=subprocess.DEVNULL,
                          check=False).returncode != 0:
            return f"`unshare --net {' '.join(what)}` is not possible"
    return ""


@contextlib.contextmanager
def inside(namespace: str) -> Iterator[None]:
    """The calling thread is in the namespace. Sockets that it opens there stay there."""
    with (open("/proc/thread-self/ns/net", encoding="ascii") as before,
          open(NAMED / namespace, encoding="ascii") as there):
        enter(there.fileno())
        try:
            yield
        finally:
            enter(before.fileno())


def enter(descriptor: int) -> None:
    if LIBC.setns(descriptor, CLONE_NEWNET) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def make(namespace: str) -> None:
    run("ip", "netns", "add", namespace)
    with inside(namespace):
        # No frames but those of the fabric: no router solicitations, no listener reports.
        for which in ("all", "default"):
            setting = Path(f"/proc/sys/net/ipv6/conf/{which}/disable_ipv6")
            if setting.exists():
                setting.write_text("1", encoding="ascii")
    ip(namespace, "link", "set", "lo", "up")


def ip(namespace: str, *words: str) -> str:
    """Runs `ip` in the namespace. `ip -n` would remount the root, which is not always possible."""
    return run("nsenter", f"--net={NAMED / namespace}", "ip", *words)


def cable(one: tuple[str, str], other: tuple[str, str]) -> None:
    """A veth pair between (namespace, interface) and (namespace, interface), both up."""
    run("ip", "link", "add", one[1], "netns", one[0], "type", "veth",
        "peer", "name", other[1], "netns", other[0])
    for namespace, interface in (one, other):
        ip(namespace, "link", "set", interface, "up")


def start(namespace: str, command: Sequence[str | Path], log: Path,
          env: dict[str, str] | None = None) -> subprocess.Popen[bytes]:
    """Starts a program in the namespace; the process id is that of the program."""
    with open(log, "ab") as output:
        return subprocess.Popen(["nsenter", f"--net={NAMED / namespace}", *map(str, command)],
                                stdin=subprocess.DEVNULL, stdout=output, stderr=output, env=env,
                                start_new_session=True)


def named(prefix: str) -> list[str]:
    """The namespaces whose name is the prefix, a dash and more."""
    if not NAMED.is_dir():
        return []
    return sorted(entry.name for entry in NAMED.iterdir() if entry.name.startswith(prefix + "-"))


def remove(namespaces: Sequence[str]) -> None:
    """Ends every process in the namespaces and removes them with all of their interfaces."""

    def processes() -> list[int]:
        text = "".join(run("ip", "netns", "pids", name, check=False) for name in namespaces)
        return [int(word) for word in text.split() if int(word) != os.getpid()]

    def ended() -> bool:
        found = processes()
        for process in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        return not found

    poll(ended, "the processes of the fabric have ended")
    for name in namespaces:
        run("ip", "netns", "del", name, check=False)
