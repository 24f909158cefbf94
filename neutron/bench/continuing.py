"""A mechanism driver for comparison: binds with two levels, and does nothing else.

It continues each binding of a VXLAN segment with the first VLAN segment that the network has. What
a bind costs with it is what Neutron itself takes for a second level.
"""
from pathlib import Path
from typing import Any

from neutron_lib.plugins.ml2 import api

NAME = "vnagent_bench_continuing"


class ContinuingMechanismDriver(api.MechanismDriver):
    def initialize(self) -> None:
        pass

    def bind_port(self, context: Any) -> None:
        by_type: dict[str, Any] = {}
        for segment in context.segments_to_bind:
            by_type.setdefault(segment[api.NETWORK_TYPE], segment)
        if "vxlan" in by_type and "vlan" in by_type:
            context.continue_binding(by_type["vxlan"][api.ID], [by_type["vlan"]])


def install(folder: Path) -> str:
    """Makes the driver known to servers that have this in their PYTHONPATH, which is returned."""
    metadata = folder / f"{NAME}-0.dist-info"
    metadata.mkdir()
    (metadata / "METADATA").write_text(f"Metadata-Version: 2.1\nName: {NAME}\nVersion: 0\n")
    (metadata / "entry_points.txt").write_text(
        "[neutron.ml2.mechanism_drivers]\n"
        f"{NAME} = {Path(__file__).stem}:ContinuingMechanismDriver\n")
    return f"{folder}:{Path(__file__).resolve().parent}"
