"""A rack's switch: an Open vSwitch with the userspace datapath, and the emulator that programs it
from its `hardware_vtep` database.

In a namespace of its own. The bridge `underlay` has the address of the tunnels; the bridge with
the switch's name has the ports. Its two databases have a server each: the switch forwards on while
that of `hardware_vtep` is away. Every process can be killed and started again by itself.
"""

import contextlib
import json
import os
import socket
import subprocess
from pathlib import Path

import namespaces
from namespaces import DEADLINE, EMULATOR, Failure, poll, run

HERE = Path(__file__).resolve().parent
SCHEMAS = Path("/usr/share/openvswitch")
UNDERLAY = "underlay"
# The processes: the server of hardware_vtep, that of Open_vSwitch, the datapath, the emulator.
DATABASE, SETTINGS, DATAPATH, EMULATION = "database", "settings", "datapath", "emulator"


class Switch:
    """One switch; `up` brings it up, and the fabric's removal of the namespace ends it."""

    def __init__(self, namespace: str, name: str, tunnel_ip: str, folder: Path) -> None:
        # The emulator adds to the name, and the kernel takes 15 bytes for an interface.
        if len(name) > 4:
            raise Failure(f"a switch's name has at most 4 characters: {name}")
        self.namespace, self.name, self.tunnel_ip, self.folder = namespace, name, tunnel_ip, folder
        self.processes: dict[str, subprocess.Popen[bytes]] = {}
        folder.mkdir(parents=True)
        self.environment = dict(
            os.environ, PATH=os.environ.get("PATH", "") + ":/usr/sbin:/sbin:/usr/bin:/bin",
            OVS_RUNDIR=str(folder), OVS_LOGDIR=str(folder), OVS_DBDIR=str(folder),
            OVS_SYSCONFDIR=str(folder), VTEP_DB=f"unix:{folder / 'vtep.sock'}")

    @property
    def database(self) -> str:
        """Where the exporter reaches the switch's database."""
        return self.environment["VTEP_DB"]

    # What a person would type on the switch.

    def vsctl(self, *arguments: str) -> str:
        return run("ovs-vsctl", "--timeout=20", *arguments, env=self.environment)

    def vtep_ctl(self, *arguments: str) -> str:
        return run("vtep-ctl", "--timeout=20", f"--db={self.database}", *arguments,
                   env=self.environment)

    def ofctl(self, *arguments: str) -> str:
        return run("ovs-ofctl", *arguments, env=self.environment)

    def appctl(self, method: str, *parameters: str) -> str:
        """A command of the datapath's process, as of `ovs-appctl`, without a process for it."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(DEADLINE)
            connection.connect(str(self.folder / f"{DATAPATH}.ctl"))
            connection.sendall(json.dumps({"id": 0, "method": method,
                                           "params": parameters}).encode())
            text = b""
            while part := connection.recv(65536):
                text += part
                with contextlib.suppress(ValueError):
                    answer = json.loads(text)
                    if answer["error"]:
                        raise Failure(f"{self.name}: {method}: {answer['error']}")
                    return str(answer["result"])
        raise Failure(f"{self.name}: {method}: no answer")

    def hardware(self) -> str:
        """The hardware address of its end of the tunnels."""
        link = json.loads(namespaces.ip(self.namespace, "-json", "link", "show", UNDERLAY))
        return str(link[0]["address"])

    # Its processes.

    def start(self, process: str) -> None:
        """Starts one, and waits until it can be used; the emulator needs longer for its work."""
        folder = self.folder
        sockets = {DATABASE: folder / "vtep.sock", SETTINGS: folder / "db.sock"}
        file = {DATABASE: folder / "vtep.db", SETTINGS: folder / "switch.db"}
        command: list[str | Path]
        if process in sockets:
            command = ["ovsdb-server", f"--remote=punix:{sockets[process]}", "-vconsole:warn",
                       f"--unixctl={folder / process}.ctl", file[process]]
        elif process == DATAPATH:
            command = ["ovs-vswitchd", f"unix:{sockets[SETTINGS]}", "--disable-system",
                       f"--unixctl={folder / process}.ctl", "-vconsole:warn"]
        else:
            command = ["/usr/bin/python3", folder / "ovs-vtep", "-vconsole:warn",
                       f"--log-file={folder / 'emulator.log'}", self.name]
        log = folder / f"{process}.out"
        self.processes[process] = namespaces.start(self.namespace, command, log, self.environment)
        if process in sockets:
            probe = ["ovsdb-client", "list-dbs", f"unix:{sockets[process]}"]
            poll(lambda: subprocess.run(probe, capture_output=True, check=False).returncode == 0,
                 f"the {process} of {self.name} answers (see {log})")

    def kill(self, process: str) -> None:
        """As a crash would: without a chance to clean up."""
        victim = self.processes.pop(process)
        victim.kill()
        victim.wait()

    # From nothing to a switch without bindings.

    def up(self, ports: list[str]) -> None:
        """The interface `uplink` and those of the ports must be in the namespace already."""
        for schema, file in (("vswitch", "switch.db"), ("vtep", "vtep.db")):
            run("ovsdb-tool", "create", self.folder / file, SCHEMAS / f"{schema}.ovsschema")
        self.start(DATABASE)
        self.start(SETTINGS)
        self.vsctl("--no-wait", "init")
        self.start(DATAPATH)
        # Only the emulator's rules forward: without any, frames are dropped.
        self.vsctl("add-br", UNDERLAY, "--", "set", "Bridge", UNDERLAY, "datapath_type=netdev",
                   "--", "add-port", UNDERLAY, "uplink",
                   "--", "add-br", self.name, "--", "set", "Bridge", self.name,
                   "datapath_type=netdev", "fail_mode=secure",
                   *(word for port in ports for word in ("--", "add-port", self.name, port)))
        namespaces.ip(self.namespace, "addr", "add", f"{self.tunnel_ip}/24", "dev", UNDERLAY)
        namespaces.ip(self.namespace, "link", "set", UNDERLAY, "up")
        self.vtep_ctl("add-ps", self.name, "--", "set", "Physical_Switch", self.name,
                      f"tunnel_ips={self.tunnel_ip}",
                      *(word for port in ports for word in ("--", "add-port", self.name, port)))
        patch_emulator(self.folder / "ovs-vtep")
        self.start(EMULATION)


def patch_emulator(copy: Path) -> None:
    """Makes a copy of the emulator with the changes of ovs-vtep.patch; README.md says why."""
    run("patch", "--quiet", f"--output={copy}", EMULATOR, HERE / "ovs-vtep.patch")
