#!/usr/bin/env python3
"""Shows the sync of one region, step by step: what was sent, and what the status said afterwards.

    vnagent run CLOUD --events EVENTS --each | docs/sync/show.py EVENTS
"""

import json
import sys
from pathlib import Path


def sent(event: dict) -> str:
    """An event in short: the attributes of the region that it writes."""
    if "patch" not in event:
        return " ".join(f"{name} {value}" for name, value in event.items())
    (name, region), = event["patch"]["region"].items()
    if region is None:
        return f"{name} removed"
    return ", ".join(f'{key} {json.dumps(value)}' for key, value in region.items()) or name


def row(cells: list[str]) -> str:
    return "{:>5}  {:<43} {:<15} {:<15} {:<9} {}".format(*cells).rstrip()


def main() -> int:
    lines = Path(sys.argv[1]).read_text(encoding="utf-8").splitlines()
    events = [json.loads(line) for line in lines if line and not line.startswith("#")]
    print(row(["time", "sent", "syncStatus", "oldSyncStatus", "owner", "requestId"]))
    for step, what in zip(map(json.loads, sys.stdin), ["", *map(sent, events)]):
        status = next(iter(step["output"]["regionStatus"].values()), None)
        shown = ["-"] * 4 if status is None else [
            status["syncStatus"], status["oldSyncStatus"],
            status["owner"] or '""', status["requestId"] or '""']
        print(row([f"{step['time']:g}", what, *shown]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
