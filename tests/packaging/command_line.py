#!/usr/bin/env python3
"""Compares the man page and the shell completions with the program's own help.

The commands and options that `vnagent --help` and `vnagent COMMAND --help` name must be those of
the man page and of the completions for bash, zsh and fish, command by command. Each fault is printed;
the exit status is 1 when there is one.
"""

import re
import subprocess
import sys
from pathlib import Path

OPTION = re.compile(r"--[a-z][a-z-]+")
Commands = dict[str, set[str]]  # command ("" for none) -> its options


def of_program(program: str) -> Commands:
    """The commands and options in the program's help."""
    def help_of(*command: str) -> str:
        return subprocess.run([program, *command, "--help"], check=True, capture_output=True,
                              text=True).stdout

    def options(text: str) -> set[str]:
        part = text.split("\nOptions:\n")[1].split("\n\n")[0]
        return {m.group(1) for m in re.finditer(r"^  (?:-\w,)?(--[a-z-]+)", part, re.M)}

    top = help_of()
    names = re.findall(r"^  (\S+)", top.split("\nSubcommands:\n")[1].split("\n\n")[0], re.M)
    return {"": options(top)} | {name: options(help_of(name)) for name in names}


def of_manual(text: str) -> Commands:
    """The .Ss sections of COMMANDS; that of all commands counts for each."""
    sections = re.split(r"^\.Ss ", text.split("\n.Sh COMMANDS\n")[1].split("\n.Sh ")[0],
                        flags=re.M)[1:]
    found: Commands = {}
    for section in sections:
        title, body = section.split("\n", 1)
        items = re.findall(r"^\.It (.*Fl .*)$", body.replace("\\-", "-"), re.M)
        found[title] = {f"-{name}" for item in items for name in re.findall(r"Fl (-[a-z-]+)", item)}
    found[""] = found.pop("Options of every command")
    del found["Events"]
    return {name: opts | ({"--help"} if name else set()) for name, opts in found.items()}


def of_bash(text: str) -> Commands:
    found = {m[1].strip("*"): set(OPTION.findall(m[2]))
             for m in re.finditer(r"^ {4}(\S+)\) words='(.*)' ;;$", text, re.M)}
    offered = re.search(r"^ {4}\*\) words='(.*)' ;;$", text, re.M)[1]
    if {w for w in offered.split() if not w.startswith("-")} != set(found) - {""}:
        found["the commands offered"] = set(offered.split())
    return found


def of_zsh(text: str) -> Commands:
    def options(part: str) -> set[str]:
        return set(re.findall(r"(?:^ *'|,|\))(--[a-z-]+)", part, re.M))

    top, cases = text.split("case $words[1] in")
    found = {"": options(top)}
    for match in re.finditer(r"^ {8}(\S+)\)\n(.*?);;", cases, re.M | re.S):
        found[match[1]] = options(match[2])
    offered = set(re.findall(r"^ {8}'([\w-]+):", top, re.M))
    if offered != set(found) - {""}:
        found["the commands offered"] = offered
    return found


def of_fish(text: str) -> Commands:
    names = re.search(r"^set -l commands (.*)$", text, re.M)[1].split()
    found: Commands = {name: set() for name in ["", *names]}
    for line in text.splitlines():
        for option in re.findall(r" -l ([a-z-]+)", line if line.startswith("complete") else ""):
            command = re.search(r'"__fish_seen_subcommand_from ([\w-]+)"', line)
            everywhere = " -n " not in line
            for name in found if everywhere else [command[1] if command else ""]:
                found[name].add(f"--{option}")
    return found


def main() -> int:
    program, manual, *completions = sys.argv[1:]
    expected = of_program(program)
    readers = {".bash": of_bash, "": of_zsh, ".fish": of_fish}
    written = {manual: of_manual(Path(manual).read_text(encoding="utf-8"))}
    for file in completions:
        written[file] = readers[Path(file).suffix](Path(file).read_text(encoding="utf-8"))
    count = 0
    for file, commands in written.items():
        for command in sorted(expected.keys() | commands.keys()):
            program_has, file_has = expected.get(command, set()), commands.get(command, set())
            place = f"{Path(file).name}: vnagent {command}".rstrip()
            for option in sorted(program_has - file_has):
                print(f"{place}: {option} is missing; describe it")
            for option in sorted(file_has - program_has):
                print(f"{place}: {option} is not the program's; take it out")
            count += len(program_has ^ file_has)
            if (command in expected) != (command in commands):
                print(f"{place}: is {'missing' if command in expected else 'no command'}")
                count += 1
    print(f"{sum(map(len, expected.values()))} options in {len(written)} files, {count} faults")
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
