#!/usr/bin/env python3
"""Holds `vnagent schema` to the program, in both directions.

cloud: documents are made, and each is changed in one place. What the schema takes `vnagent check`
takes, and the other way round. Left out are documents that break only a rule that joins places, and
what JSON Schema cannot say: how a number is written, how many bytes a name has, repeated keys.

output: what `vnagent run` prints for the scenarios is taken; the same with one member removed, added
or of another type is not.

    tests/schema/check.py --binary PROGRAM [--seed N] [--documents N]
"""

import argparse
import copy
import json
import random
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import jsonschema

SCENARIOS = Path(__file__).resolve().parent.parent / "scenario" / "data"

# Rules that join places.
JOINING = re.compile(
    r"no port |no segment |has host bindings |is in the host bindings |behind the switch "
    r"interfaces |is in region |is at level | has VLAN ")

VALUES = [None, True, False, 0, 1, -1, 1.5, -0.5, 255, 256, 4094, 4095, 16777215, 16777216,
          2147483647, 2147483648, 4294967295, 4294967296, 1000000000, 1000000000.5, "", "x", "seg",
          "a" * 255, "a" * 256, "a\u0001", "a\u007f", "a\n", "vlan", "vxlan", "gre", "syncComplete",
          "syncUnknown", "synced", [], [1], {}, {"x": 1}, {"x": None}, {"x": {}}, {"": {}},
          {"host": "h"}, {"segment": {"0": "seg"}}, {"segmentationType": 0, "segmentationId": 1},
          {"vlan": {"7": True}}]
KEYS = ["", "0", "00", "-1", "1", "7\n", "255", "256", "4094", "4095", "9999", "x", "x\u007f", "y" * 255,
        "y" * 256, "\u00e4" * 127, "a/b~c", "host", "segment", "vlan", "port", "vlanType", "network"]

BASE = {
    "config": {
        "vlanTypeDriver": 1, "enabled": True, "defaultVlanTypeDriver": 0, "defaultGracePeriod": 0.5,
        "gracePeriod": 3, "defaultRegionSyncTimeout": 60, "regionSyncTimeout": 30.5,
        "defaultAgentMode": "m", "agentMode": "", "authRole": "r", "mandatoryRegion": {"R": {}},
        "credentials": {"c": {}}, "keystoneAuthUrl": {"http://x/": {}},
        "serviceAclTypeVrfMap": {"in": "vrf"},
        "vlanAssignment": {"R": {"vlan": {"1": True, "4094": False}}, "S": {}}},
    "region": {"S": {}, "R": {
        "requester": "a", "requestId": "", "syncInterval": -2.5, "syncHeartbeat": 7,
        "syncStatus": "syncInProgress", "serviceEndPoint": {"s": {}}, "tenant": {"t": {}},
        "network": {"n": {}, "m": {}}, "vmInstance": {"v": {}}, "dhcpInstance": {"d": {}},
        "baremetalInstance": {"b": {}}, "routerInstance": {},
        "segment": {"seg": {"segmentationType": "vlan", "segmentationId": 4094},
                    "vx": {"segmentationType": 1, "segmentationId": 16777215},
                    "other": {"segmentationType": 9, "segmentationId": 0}},
        "port": {"p": {}, "q": {"vlanType": 1}, "r": {"vlanType": 255}},
        "portBinding": {
            "p": {"portToHostBinding": {"h": {"segment": {"0": "vx", "1": "seg"}}, "i": {}}},
            "q": {"portToSwitchInterfaceBinding": {
                "leaf": {"e": {"host": "bm", "segment": {"255": "seg"}}, "": {"host": "bm"}},
                "": {"f": {"host": "bm"}}}},
            "r": {}}}}}


def places(value, above=()):
    """Every place of a document: the keys that lead to it."""
    yield above
    if isinstance(value, dict):
        for key in value:
            yield from places(value[key], above + (key,))


def changed(document, draw: random.Random):
    """The document with one value replaced, one member renamed, removed or added."""
    document = copy.deepcopy(document)
    place = draw.choice(list(places(document)))
    if not place:
        kind = draw.choice(["add", "replace"])
        if kind == "replace":
            return draw.choice(VALUES)
        document[draw.choice(KEYS)] = draw.choice(VALUES)
        return document
    around = document
    for key in place[:-1]:
        around = around[key]
    kind = draw.choice(["replace", "replace", "rename", "remove", "add"])
    if kind == "replace":
        around[place[-1]] = draw.choice(VALUES)
    elif kind == "rename":
        around[draw.choice(KEYS)] = around.pop(place[-1])
    elif kind == "remove":
        del around[place[-1]]
    else:
        around[draw.choice(KEYS)] = draw.choice(VALUES)
    return document


def schema_of(binary: str, which: str):
    printed = subprocess.run([binary, "schema", which], capture_output=True, text=True, check=True)
    schema = json.loads(printed.stdout)
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


def faults_of(binary: str, document, folder: Path) -> list[str]:
    """What `vnagent check` says of a document."""
    file = folder / "cloud.json"
    file.write_text(json.dumps(document), encoding="utf-8")
    done = subprocess.run([binary, "check", str(file)], capture_output=True, text=True)
    if done.returncode not in (0, 3):
        raise SystemExit(f"vnagent check: exit status {done.returncode}: {done.stderr}")
    faults = done.stderr.splitlines()
    if (done.returncode == 0) != (not faults):
        raise SystemExit(f"vnagent check: exit status {done.returncode} and {faults}")
    return faults


def check_cloud(binary: str, draw: random.Random, documents: int) -> list[str]:
    validator = schema_of(binary, "cloud")
    wrong, taken, refused = [], 0, 0
    with tempfile.TemporaryDirectory() as folder:
        for number in range(documents):
            document = BASE
            for _ in range(0 if number == 0 else draw.choice([1, 1, 1, 2])):
                if isinstance(document, dict):
                    document = changed(document, draw)
            faults = faults_of(binary, document, Path(folder))
            if faults and all(JOINING.search(fault) for fault in faults):
                continue
            error = jsonschema.exceptions.best_match(validator.iter_errors(document))
            taken += not faults
            refused += bool(faults)
            if bool(faults) == (error is not None):
                continue
            said = f"check: {faults[0]}" if faults else \
                f"schema: /{'/'.join(map(str, error.absolute_path))}: {error.message}"
            wrong.append(f"cloud: only one of schema and check takes {json.dumps(document)}; {said}")
    if min(taken, refused) < documents // 10:
        wrong.append(f"cloud: {taken} documents taken, {refused} refused: too few of one kind")
    return wrong


def outputs(binary: str) -> list:
    """The outputs of every step of the scenarios, each way of the toggle."""
    result = []
    with tempfile.TemporaryDirectory() as folder:
        cloud = Path(folder) / "cloud.json"
        for file in sorted(SCENARIOS.glob("*.json")):
            scenario = json.loads(file.read_text(encoding="utf-8"))
            cloud.write_text(json.dumps(scenario["cloud"]), encoding="utf-8")
            events = "".join(json.dumps(event) + "\n" for event in scenario["events"])
            for toggle in ("on", "off"):
                done = subprocess.run([binary, "run", str(cloud), "--each", "--keep-going",
                                       "--events", "-", "--toggle", toggle],
                                      input=events, capture_output=True, text=True)
                lines = [json.loads(line) for line in done.stdout.splitlines()]
                result += [line["output"] for line in lines if "output" in line]
    return result


def members(value, above=()):
    """The places of all objects and of all values that are none, of an output document."""
    yield above
    if isinstance(value, dict):
        for key in value:
            yield from members(value[key], above + (key,))


def check_output(binary: str, draw: random.Random) -> list[str]:
    validator = schema_of(binary, "output")
    wrong = []
    documents = outputs(binary)
    if len(documents) < 100:
        wrong.append(f"output: only {len(documents)} documents came out of the scenarios")
    for document in documents:
        for error in validator.iter_errors(document):
            wrong.append(f"output: /{'/'.join(map(str, error.absolute_path))}: {error.message}")
    largest = sorted(documents, key=lambda document: -len(json.dumps(document)))[:20]
    for document in largest:
        place = draw.choice([at for at in members(document) if at])
        copied = copy.deepcopy(document)
        around = copied
        for key in place[:-1]:
            around = around[key]
        around[place[-1]] = 7.5
        if validator.is_valid(copied):
            wrong.append(f"output: takes 7.5 at /{'/'.join(place)}")
    for name in ("regionStatus", "requestedResources", "networkElement"):
        less = {key: value for key, value in documents[0].items() if key != name}
        if validator.is_valid(less):
            wrong.append(f"output: takes a document without {name}")
    if validator.is_valid(documents[0] | {"x": {}}):
        wrong.append("output: takes a document with a member more")
    return wrong


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--documents", type=int, default=1500)
    options = parser.parse_args()
    print(f"seed {options.seed}, {options.documents} documents")
    draw = random.Random(options.seed)
    wrong = check_cloud(options.binary, draw, options.documents)
    wrong += check_output(options.binary, draw)
    print(*wrong[:20], sep="\n", end="\n" if wrong else "")
    print(f"{len(wrong)} faults" if wrong else "the schemas and the program agree")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
