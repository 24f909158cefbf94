#!/usr/bin/env python3
"""Holds the tables of docs/cloud-document.md to the program: they are made from the schema that
`vnagent schema cloud` prints. With --write the page is brought up to date.

    tests/schema/page.py --binary PROGRAM ROOT [--write]
"""

import argparse
import json
import re
import subprocess
import sys
from pathlib import Path

TABLES = re.compile(r"(<!-- tables of: vnagent schema cloud -->\n).*(<!-- end of tables -->\n)", re.S)


def number(value: float) -> str:
    return f"{value:,.0f}"


def span(schema: dict) -> str:
    """The range of a number, in words."""
    words = []
    if "minimum" in schema and "maximum" in schema:
        return f" {number(schema['minimum'])} to {number(schema['maximum'])}"
    if "minimum" in schema:
        words.append(f"{number(schema['minimum'])} or more")
    if "exclusiveMinimum" in schema:
        words.append(f"more than {number(schema['exclusiveMinimum'])}")
    if "maximum" in schema:
        words.append(f"at most {number(schema['maximum'])}")
    return f", {', '.join(words)}" if words else ""


def types(schema: dict) -> list[str]:
    given = schema.get("type", [])
    return [name for name in ([given] if isinstance(given, str) else given) if name != "null"]


def kind_of(definition: str) -> str:
    return f"[{definition.replace('-', ' ')}](#{definition.lower()})"


def form(schema: dict) -> str:
    """What a value may be, in words."""
    if "enum" in schema:
        return ", ".join(f"`{json.dumps(word)}`" for word in schema["enum"] if word is not None)
    if "anyOf" in schema:
        parts = [form(part) for part in schema["anyOf"] if part != {"type": "null"}]
        return " or ".join(part for part in parts if part)
    if "$ref" in schema:
        return kind_of(schema["$ref"].rpartition("/")[2])
    name = types(schema)[0]
    if name == "boolean":
        return "`true` or `false`"
    if name == "string":
        if "maxLength" not in schema:
            return "a string"
        return "a [name](#names)" if "minLength" in schema else "a [name](#names), or empty"
    if name == "object":
        return collection(schema)
    return {"integer": "an integer", "number": "a number"}[name] + span(schema)


def collection(schema: dict) -> str:
    patterns = schema["patternProperties"]
    numbered = next((key for key in patterns if key.startswith("^(?:")), None)
    if numbered:
        keys = "VLAN id" if "4094" in numbered or "409" in numbered else "level, 0 to 255"
        return f"by {keys}: {form(patterns[numbered])}"
    return f"by name: {form(schema['additionalProperties'])}"


def table(name: str, schema: dict) -> str:
    required = schema.get("required", [])
    lines = [f"### {name[0].upper()}{name[1:].replace('-', ' ')}", ""]
    if not schema["properties"]:
        return "\n".join(lines + ["No members: `{}`. Only its key counts.", ""])
    lines += ["| member | may be | absent is | what it is |", "|---|---|---|---|"]
    for member, of in schema["properties"].items():
        absent = "refused" if member in required else \
            f"`{json.dumps(of['default'])}`" if "default" in of else \
            "empty" if "object" in types(of) else "not set"
        lines.append(f"| `{member}` | {form(of)} | {absent} | {of['description']} |")
    if "$comment" in schema:
        lines += ["", schema["$comment"]]
    choice = schema
    while "if" in choice:
        (by, when), = choice["if"]["properties"].items()
        (member, of), = choice["then"]["properties"].items()
        lines += ["", f"Where `{by}` is {' or '.join(f'`{json.dumps(v)}`' for v in when['enum'])}, "
                      f"`{member}` is{span(of)}."]
        choice = choice.get("else", {})
    return "\n".join(lines + [""])


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("root", type=Path)
    parser.add_argument("--binary", required=True)
    parser.add_argument("--write", action="store_true", help="bring the page up to date")
    options = parser.parse_args()
    printed = subprocess.run([options.binary, "schema", "cloud"], capture_output=True, text=True,
                             check=True)
    definitions = json.loads(printed.stdout)["$defs"]
    tables = "\n".join(table(name, schema) for name, schema in definitions.items())
    page = options.root / "docs" / "cloud-document.md"
    text = page.read_text(encoding="utf-8")
    renewed, found = TABLES.subn(lambda match: f"{match[1]}\n{tables}\n{match[2]}", text)
    if found != 1:
        print(f"{page}: no tables, or more than one place for them")
        return 1
    if renewed == text:
        return 0
    if not options.write:
        print(f"{page}: stale; run tests/schema/page.py --binary VNAGENT . --write")
        return 1
    page.write_text(renewed, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
