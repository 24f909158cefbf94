"""What `fabric run` shows: a table that fills as ports are bound, and a live migration."""

import sys
import time
from pathlib import Path

from control import Agent, Exporter
from frames import Endpoint, Recorder, Stream
from namespaces import Failure, poll
from racks import Fabric, Rack
from reach import Probes, settle
from tenants import Pairs, Tenants

GUEST = bytes.fromhex("02faee000001")  # the hardware address of the machine that migrates
DEADLINE = 90.0

OPENING = """\
{count} racks, each with a switch, a host of virtual machines and a bare server:

      host-1  metal-1      host-2  metal-2
        |eth1   |eth2        |eth1   |eth2
      +-+-------+-+        +-+-------+-+
      |   tor1    |        |   tor2    |        ...   Open vSwitch and its hardware_vtep database
      +-----+-----+        +-----+-----+
            |  192.0.2.1         |  192.0.2.2
      ------+---- VXLAN ---------+-------------

Two tenants. The VLANs of a network differ from rack to rack, and the same VLAN is the other
tenant's in the next rack; only the VNI is the same everywhere:

{networks}
Ports are bound one by one through the agent's API. A row is a sender, a column a receiver:
`x` a frame arrived, `.` none did, though it was sent.
"""


class Table:
    """Who reached whom, drawn again in place on a terminal as it fills."""

    def __init__(self, tenants: Tenants) -> None:
        self.tenants = tenants
        self.rows: dict[Endpoint, str] = {}
        self.seen: Pairs = set()
        self.silent = False  # whether a pair without a mark is known not to arrive
        self.drawn = 0
        self.text = ""

    def add(self, port: str) -> None:
        bound = self.tenants.ports[port]
        end = self.tenants.endpoint(port)
        tag = "untagged" if end.vlan is None else f"VLAN {end.vlan}"
        self.rows[end] = f"{bound.network:6} {end.server:8} {tag:9}"

    def lines(self) -> list[str]:
        numbers = range(1, len(self.rows) + 1)
        lines = [" " * 31 + "".join(f"{number:3}" for number in numbers)]
        for number, (source, label) in enumerate(self.rows.items(), 1):
            cells = ["  " + (" " if source == end else
                             "x" if (source, end) in self.seen else
                             "." if self.silent else " ") for end in self.rows]
            lines.append(f"{number:4}  {label:25}" + "".join(cells))
        return lines

    def draw(self, final: bool = False) -> None:
        """On a terminal whenever it changed; elsewhere only the final one."""
        lines = self.lines()
        if not sys.stdout.isatty():
            if final:
                print(*lines, sep="\n", flush=True)
            return
        text = "\n".join(lines)
        if text != self.text:
            if self.drawn:
                print(f"\x1b[{self.drawn}A\x1b[J", end="")
            print(text, flush=True)
            self.text, self.drawn = text, len(lines)
        if final:
            self.drawn, self.text = 0, ""


def fill(table: Table, probes: Probes, wanted: Pairs, deadline: float = DEADLINE) -> float:
    """Draws what arrives until these pairs do; the seconds that it took."""
    begin = time.monotonic()
    while not wanted <= table.seen:
        seen = probes.wait(probes.send(), wanted, 0.05)
        table.seen |= seen
        table.draw()
        if time.monotonic() > begin + deadline:
            raise Failure(f"no frame within {deadline:g} s from "
                          + ", ".join(f"{a} to {b}" for a, b in sorted(wanted - seen, key=str)))
    return time.monotonic() - begin


def networks(count: int) -> dict[str, tuple[int, dict[str, int]]]:
    switches = [f"tor{n}" for n in range(1, count + 1)]
    return {"red": (10001, dict(zip(switches, (100, 200, 300), strict=False))),
            "blue": (10002, dict(zip(switches, (200, 300, 100), strict=False)))}


def bind_all(tenants: Tenants, recorder: Recorder, count: int) -> None:
    """Binds the ports of both tenants, one by one, while the table fills."""
    table = Table(tenants)
    for name, (vni, vlans) in networks(count).items():
        tenants.network(name, vni, vlans)
    for rack in range(1, count + 1):
        for network, server, native in (("red", f"host-{rack}", False),
                                        ("blue", f"host-{rack}", False),
                                        (("red", "blue")[rack % 2], f"metal-{rack}", True)):
            port = f"{network}-{server}"
            begin = time.monotonic()
            tenants.bind(port, network, server, native=native)
            table.add(port)
            probes = Probes(recorder, list(table.rows))
            end = tenants.endpoint(port)
            fill(table, probes, {pair for pair in tenants.pairs() if end in pair})
            if not sys.stdout.isatty():
                print(f"{time.monotonic() - begin:6.1f} s  {table.rows[end].strip()}: "
                      f"reaches {sum(1 for one, _ in tenants.pairs() if one == end)} others",
                      flush=True)
    # Whoever has no mark gets nothing for a second, while every x gets its frames.
    settle(Probes(recorder, list(table.rows)), tenants.pairs(), DEADLINE)
    table.silent = True
    table.draw(final=True)


def migrate(tenants: Tenants, recorder: Recorder, count: int) -> None:
    """A machine moves from rack to rack while frames flow to it and from it; its network is at the
    first rack and at the last before, and has to be where the machine arrives."""
    tenants.network("green", 10003, {f"tor{n}": 100 * (n + 3) for n in range(1, count + 1)})
    tenants.bind("machine", "green", "host-1")
    tenants.bind("peer", "green", f"metal-{count}")
    here, peer = tenants.endpoint("machine"), tenants.endpoint("peer")
    target = "host-2"
    sending = Stream(recorder, here, 100, hardware=GUEST)
    receiving = Stream(recorder, peer, 100, destination=GUEST)
    through = Probes(recorder, [here, peer])
    settle(through, {(here, peer), (peer, here)}, DEADLINE)
    sending.start()
    receiving.start()

    def flows(stream: Stream, at: Endpoint) -> None:
        now = stream.sent
        poll(lambda: any(number > now for number in stream.numbers(at)),
             f"frames arrive at {at}", DEADLINE)

    def step(text: str) -> None:
        print(f"  {text:62} lost: {sending.lost_so_far(peer):3} from it, "
              f"{receiving.lost_so_far(here, there):3} to it", flush=True)

    there = here
    flows(sending, peer)
    flows(receiving, here)
    step(f"it runs at {here}; frames flow between it and {peer}")
    tenants.bind("machine", "green", "host-1", target)
    there = tenants.endpoint("machine", target)
    flows(receiving, there)
    step(f"bound to both; frames for it arrive at {there}, too")
    sending.source = there
    flows(sending, peer)
    step(f"it runs at {there} now")
    tenants.bind("machine", "green", target)

    def gone() -> bool:
        now = receiving.sent
        poll(lambda: any(number >= now for number in receiving.numbers(there)), "a frame arrives",
             DEADLINE)
        return not any(number >= now for number in receiving.numbers(here))

    poll(gone, f"no frame for it arrives at {here}", DEADLINE)
    step(f"bound there alone; nothing arrives at {here} any more")
    sending.stop(peer)
    receiving.stop(there)
    for stream, way, lost in ((sending, "from", sending.lost(peer)),
                              (receiving, "to", receiving.lost(here, there))):
        print(f"  Of {stream.sent} frames {way} the machine, {lost} were lost.")


def run(binary: Path, count: int, keep: bool) -> None:
    """Builds `count` racks, shows what there is to show, and removes them; raises Failure."""
    servers = {n: {"eth1": f"host-{n}", "eth2": f"metal-{n}"} for n in range(1, count + 1)}
    lines = [f"  {name:6} VNI {vni}   " + ", ".join(f"VLAN {vlan} at {switch}"
                                                    for switch, vlan in vlans.items())
             for name, (vni, vlans) in networks(count).items()]
    print(OPENING.format(count={2: "Two", 3: "Three"}[count], networks="\n".join(lines) + "\n"),
          flush=True)
    with Fabric([Rack(f"tor{n}", ports) for n, ports in servers.items()]) as fabric:
        agent = Agent(fabric, binary).start()
        exporter = Exporter(fabric, binary, agent,
                            {f"host-{n}": [f"host-{n}"] for n in servers}).start()
        try:
            tenants = Tenants(fabric, agent)
            tenants.clear()
            bind_all(tenants, fabric.recorder, count)
            print("\nA live migration, with a hundred frames a second in both directions:\n")
            migrate(tenants, fabric.recorder, count)
            if keep:
                wait(fabric, agent, exporter)
        except Failure as failure:
            exporter.must_run()
            raise Failure(f"{failure}\n{exporter.messages()}") from failure


def wait(fabric: Fabric, agent: Agent, exporter: Exporter) -> None:
    switch = fabric.switches["tor1"]
    print(f"""
All of it stands until Ctrl-C. To look around, in another terminal:

  {agent.vnagent} show --socket {agent.socket}
  {agent.vnagent} export hardware-vtep --status --control {exporter.control}
  vtep-ctl --db={switch.database} show
  OVS_RUNDIR={switch.folder} ovs-ofctl dump-flows {switch.name}
  ip netns exec {fabric.name}-host-1 ip link
""", flush=True)
    while True:
        time.sleep(1)
        exporter.must_run()
