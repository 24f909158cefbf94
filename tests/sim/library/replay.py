#!/usr/bin/env python3
"""Replays streams of the simulation through the agent: each step must have the same result in both.

    library_simulation --events 4000 --write FOLDER --vnagent build/release/bin/vnagent
    replay.py FOLDER

What a stream led to in the library's own process stands in NAME.published: for each event a line
"taken" or "refused", what was published, a line each, and an empty line. NAME.sh runs the agent on
the same stream. Ends with the number of streams and events, and exit status 1 when any differs.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
from pathlib import Path
from typing import Any, Iterator

STATUSES = ["syncUnknown", "syncInProgress", "syncTimedOut", "syncComplete"]


def quoted(name: str) -> str:
    return f'"{name}"'


def vlan_lines(holder: str, vlans: dict[str, Any]) -> Iterator[str]:
    for vlan, entry in vlans.items():
        yield f"{holder} vlan {vlan}"
        yield from (f"{holder} vlan {vlan} referrer {quoted(p)}" for p in entry["referrer"])
        for vni, ports in entry["mappedVni"].items():
            yield f"{holder} vlan {vlan} vni {vni}"
            yield from (f"{holder} vlan {vlan} vni {vni} referrer {quoted(p)}" for p in ports)


def domain_lines(holder: str, domains: dict[str, list[str]]) -> Iterator[str]:
    for region, ports in domains.items():
        yield f"{holder} domain {quoted(region)}"
        yield from (f"{holder} domain {quoted(region)} referrer {quoted(p)}" for p in ports)


def referrer_lines(holder: str, referrers: list[str]) -> Iterator[str]:
    yield from (f"{holder} referrer bm-{quoted(r.removeprefix('bm-'))}" for r in referrers)


def region_lines(regions: dict[str, Any]) -> Iterator[str]:
    for name, status in regions.items():
        holder = f"region {quoted(name)}"
        for kind, vlans in status["vlanPool"].items():
            yield from (f"{holder} {kind.removesuffix('Vlan')} {vlan}" for vlan in vlans)
        yield f"{holder} sync status {STATUSES.index(status['syncStatus'])}"
        yield f"{holder} old sync status {STATUSES.index(status['oldSyncStatus'])}"
        yield f"{holder} owner {quoted(status['owner'])}"
        yield f"{holder} request {quoted(status['requestId'])}"


def switch_port_lines(switches: dict[str, Any]) -> Iterator[str]:
    for switch, interfaces in switches.items():
        for interface, entry in interfaces.items():
            holder = f"switch port {quoted(switch)} {quoted(interface)}"
            yield f"{holder} exists"
            yield from referrer_lines(holder, entry["referrer"])
            yield from (f"{holder} remote host {quoted(h)}" for h in entry["remoteHost"])
            yield from vlan_lines(holder, entry["vlan"])
            yield f"interface {quoted(switch)} {quoted(interface)} native {entry['nativeVlan']}"


def element_lines(elements: dict[str, Any]) -> Iterator[str]:
    for name, element in elements.items():
        holder = f"element {quoted(name)}"
        yield f"{holder} exists"
        yield f"{holder} host name {quoted(element['hostname'])}"
        yield from referrer_lines(holder, element["referrer"])
        yield from domain_lines(holder, element["domain"])
        yield from vlan_lines(holder, element["vlan"])
        for interface, entry in element["physicalInterface"].items():
            inner = f"interface {quoted(name)} {quoted(interface)}"
            yield f"{inner} exists"
            yield from (f"{inner} configured element {quoted(h)}"
                        for h in entry["configuredElement"])
            yield from vlan_lines(inner, entry["vlan"])
            yield f"{inner} native {entry['nativeVlan']}"


def lines_of(output: dict[str, Any]) -> Iterator[str]:
    """An output document, as the simulation writes what is published."""
    yield from region_lines(output["regionStatus"])
    resources = output["requestedResources"]
    for name, host in resources["resourcesForHostname"].items():
        yield f"host {quoted(name)} exists"
        yield from domain_lines(f"host {quoted(name)}", host["domain"])
        yield from vlan_lines(f"host {quoted(name)}", host["vlan"])
    yield from switch_port_lines(resources["resourcesForSwitchport"])
    yield from element_lines(output["networkElement"])


def published(path: Path) -> list[tuple[bool, set[str]]]:
    """For each event, whether it was taken, and what was published then."""
    steps = []
    for block in path.read_text(encoding="utf-8").split("\n\n"):
        if block:
            first, *lines = block.split("\n")
            steps.append((first == "taken", set(lines)))
    return steps


def faults(script: Path) -> tuple[int, list[str]]:
    """How many events a stream has, and where the agent comes to something else."""
    ran = subprocess.run(["sh", script], capture_output=True, text=True, encoding="utf-8",
                         check=False)
    answers = [json.loads(line) for line in ran.stdout.splitlines()][1:]
    expected = published(script.with_suffix(".published"))
    if len(answers) != len(expected):
        return 0, [f"{script.stem}: {len(answers)} steps of {len(expected)}: {ran.stderr[:2000]}"]
    for number, (answer, (taken, lines)) in enumerate(zip(answers, expected), 1):
        if answer["ok"] != taken:
            return number, [f"{script.stem}, event {number}: {'refused' if taken else 'taken'} by "
                            f"the agent only: {answer.get('error', '')}"]
        found = set(lines_of(answer["output"])) if taken else lines
        if found != lines:
            return number, [f"{script.stem}, event {number}:",
                            *(f"  agent only: {line}" for line in sorted(found - lines)),
                            *(f"  library only: {line}" for line in sorted(lines - found))]
    return len(expected), []


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path)
    scripts = sorted(parser.parse_args().folder.glob("*.sh"))
    events, found = 0, []
    for script in scripts:
        count, differences = faults(script)
        events += count
        found += differences
    print(*found, sep="\n", end="\n" if found else "")
    print(f"{len(scripts)} streams, {events} events")
    return 1 if found or not events else 0


if __name__ == "__main__":
    sys.exit(main())
