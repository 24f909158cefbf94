"""Patches and events that have to be refused, each for one thing that is wrong."""

from __future__ import annotations

import random
from typing import Any

from document import objects

Doc = dict[str, Any]

BROKEN_EVENTS: list[Any] = [
    {}, {"advance": -1}, {"advance": -0.25}, {"advance": 1000000000.5}, {"advance": "1"},
    {"advance": None}, {"advance": True}, {"advance": {}}, {"regionSyncTimeout": 0},
    {"regionSyncTimeout": -5}, {"regionSyncTimeout": 1000000001}, {"regionSyncTimeout": "60"},
    {"regionSyncTimeout": None}, {"patch": {}, "advance": 1}, {"patches": {}}, {"Patch": {}},
    {"advance": 1, "regionSyncTimeout": 5}, [], [{"advance": 1}], 5, None, True,
    {"patch": 5}, {"patch": None}, {"patch": []}, {"patch": "x"},
    '{"advance": 1, "advance": 1}', '{"patch": {"region": {}, "region": {}}}',
    '{"patch": {"region": {"R1": {}, "R1": {}}}}',
]

LONG = "x" * 256
BAD_NAMES = ["", LONG, "a\nb", "\x00", "tab\there", "\x7f", "é" * 128]


def broken_patch(dice: random.Random, doc: Doc) -> Doc:
    """A patch that breaks one rule of the document as it stands."""
    if dice.random() < 0.5 or not doc.get("region"):
        return dice.choice([broken_config, broken_region])(dice)
    name = dice.choice(list(doc["region"]))
    maker = dice.choice([broken_region_member, broken_binding, broken_between_regions])
    return {"region": maker(dice, doc, name)}


def broken_config(dice: random.Random) -> Doc:
    return {"config": dice.choice([
        {"vlanTypeDriver": dice.choice([-1, 2147483648, 1.5, 1.0, 1e3, "1", True, {}])},
        {"regionSyncTimeout": dice.choice([0, -1, "60", 1000000001, True])},
        {"defaultRegionSyncTimeout": dice.choice([0, -0.5, {}, 2e9])},
        {"vlanAssignment": {dice.choice(BAD_NAMES): {}}},
        {"vlanAssignment": {"R1": dice.choice([5, [], "x", True])}},
        {"vlanAssignment": {"R1": {"vlans": {}}}},
        {"vlanAssignment": {"R1": {"vlan": {dice.choice(
            ["0", "4095", "-1", "+1", "01", "1.0", "x", "", " 1", "1 ", "65536", "٣"]): True}}}},
        {"vlanAssignment": {"R1": {"vlan": {"10": dice.choice([1, 0, "true", {}, []])}}}},
        {"vlanAssignment": {"R1": {"vlan": [10]}}},
        {"vlanAssignment": []}, {"unknownAttribute": 1}, {"region": {}}, 5, "x", []])}


def broken_region(dice: random.Random) -> Doc:
    return dice.choice([
        {"region": {dice.choice(BAD_NAMES): {}}}, {"region": 5}, {"region": []},
        {"region": {"R1": 5}}, {"region": {"R1": []}}, {"region": {"R1": "x"}},
        {"regions": {}}, {"": {}}, {"Region": {}}])


def broken_region_member(dice: random.Random, doc: Doc, name: str) -> Doc:
    segment = dice.choice([
        {"segmentationType": "vlan"}, {"segmentationId": 10}, {},
        {"segmentationType": "vlan", "segmentationId": dice.choice([0, 4095, -1, 10.0, "10"])},
        {"segmentationType": "vxlan", "segmentationId": dice.choice([0, 16777216, -1])},
        {"segmentationType": 0, "segmentationId": 4095},
        {"segmentationType": 2, "segmentationId": 4294967296},
        {"segmentationType": dice.choice(["vlam", "", "VLAN", 256, -1, 1.0, True]),
         "segmentationId": 5},
        {"segmentationType": "vlan", "segmentationId": 5, "mtu": 1500}, 5, []])
    return {name: dice.choice([
        {"segment": {"new": segment}}, {"segment": {dice.choice(BAD_NAMES): {
            "segmentationType": "vlan", "segmentationId": 77}}},
        {"segment": []}, {"port": {"new": {"vlanType": dice.choice([-1, 256, 1.0, "1", True])}}},
        {"port": {"new": {"vlan": 1}}}, {"port": {dice.choice(BAD_NAMES): {}}}, {"port": 5},
        {"port": {"new": 5}}, {"portBinding": {"nobody": {}}}, {"portBinding": []},
        {"syncStatus": dice.choice(["syncDone", 1, "", True, {}])},
        {"requester": dice.choice([5, {}, "a\nb", LONG])},
        {"requestId": dice.choice([5, True, "\x1f", LONG])},
        {"network": 5}, {"network": {"n": 5}}, {"vmInstance": []},
        {"tenant": {dice.choice(BAD_NAMES): {}}}, {"unknownMember": {}}, {"name": "x"}])}


def broken_binding(dice: random.Random, doc: Doc, name: str) -> Doc:
    """A port that is there, bound in a way that it may not be."""
    segments = {"vl": ("vlan", 71), "vl2": ("vlan", 71), "vl3": ("vlan", 72), "vx": ("vxlan", 73)}
    region: Doc = {"segment": {key: {"segmentationType": kind, "segmentationId": number}
                               for key, (kind, number) in segments.items()},
                   "port": {"new": {}}}
    switch = {"host": "behind-new", "segment": {"0": "vl"}}
    levels = dice.choice([
        {"0": "nowhere"}, {"256": "vl"}, {"-1": "vl"}, {"00": "vl"}, {"1.0": "vl"}, {"": "vl"},
        {"0": 5}, {"0": {}}, {"0": "vl", "1": "vl"}, {"0": "vl", "5": "vl2"}, [], "vl",
        {"0": "vx", "1": "vl", "255": "vx"}, {"0": "vl", "1": "vl3", "2": "vl"}])
    binding = dice.choice([
        {"portToHostBinding": {"new-host": {"segment": levels}}},
        {"portToSwitchInterfaceBinding": {"s": {"i": {"host": "new-host", "segment": levels}}}},
        {"portToHostBinding": {"new-host": {}},
         "portToSwitchInterfaceBinding": {"s": {"i": switch}}},
        {"portToHostBinding": {dice.choice(BAD_NAMES): {}}}, {"portToHostBinding": []},
        {"portToHostBinding": {"new-host": {"host": "new-host"}}},
        {"portToHostBinding": {"new-host": 5}},
        {"portToSwitchInterfaceBinding": {"s": {"i": {"segment": {"0": "vl"}}}}},
        {"portToSwitchInterfaceBinding": {"s": {"i": {}}}},
        {"portToSwitchInterfaceBinding": {"s": {"i": {"host": dice.choice([5, *BAD_NAMES])}}}},
        {"portToSwitchInterfaceBinding": {"s": {"i": {**switch, "port": "new"}}}},
        {"portToSwitchInterfaceBinding": {"s": 5}}, {"portToSwitchInterfaceBinding": 5},
        {"portToSwitchInterfaceBinding": {dice.choice([LONG, "a\nb"]): {"i": switch}}},
        {"portToSwitchInterfaceBinding": {"s": {dice.choice([LONG, "\x7f"]): switch}}},
        {"port": "new"}, 5, []])
    region["portBinding"] = {"new": binding}
    return {name: region}


def broken_between_regions(dice: random.Random, doc: Doc, name: str) -> Doc:
    """A port's id or a host in two regions, or a segment or port that goes while it is used."""
    region = doc["region"][name]
    other = dice.choice(["other-region", *doc["region"]])
    used = [segment for binding in objects(region.get("portBinding")).values()
            for host in objects(binding.get("portToHostBinding")).values()
            for segment in objects(host.get("segment")).values()]
    bound = list(objects(region.get("portBinding")))
    choices: list[Doc] = [
        {name: {"port": {"new": {}}}, other + "2": {"port": {"new": {}}}},
        {name: {"port": {"n1": {}}, "portBinding": {"n1": {"portToHostBinding": {"nh": {}}}}},
         other + "2": {"port": {"n2": {}},
                       "portBinding": {"n2": {"portToHostBinding": {"nh": {}}}}}},
        {name: {"port": {"n1": {}}, "portBinding": {"n1": {"portToSwitchInterfaceBinding": {
            "s": {"i": {"host": "nh"}}}}}},
         other + "2": {"port": {"n2": {}}, "portBinding": {"n2": {"portToSwitchInterfaceBinding": {
             "s": {"j": {"host": "nh"}}}}}}}]
    if used:
        choices.append({name: {"segment": {dice.choice(used): None}}})
    if bound:
        choices.append({name: {"port": {dice.choice(bound): None}}})
        choices.append({other + "2": {"port": {dice.choice(bound): {}}}})
    return dice.choice(choices)
