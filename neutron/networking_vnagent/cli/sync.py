"""networking-vnagent-sync: compares agents with Neutron's database, or makes them agree.

Exit status: 0 nothing differs, or all was repaired; 2 the command line or a file is wrong; 3
something differs (--mode report); 4 an agent or the database could not be reached, or refused.
"""
import argparse
import json
import sys
import time
import typing

from neutron.common import config as neutron_config
from oslo_config import cfg
from oslo_log import log

from networking_vnagent import client as agent_client
from networking_vnagent import config
from networking_vnagent import sync

DIFFERENT, UNREACHED, WRONG = 3, 4, 2


def parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="networking-vnagent-sync",
        description="Compares the regions of agents with Neutron's database, or makes them agree.",
        epilog="Exit status: 0 nothing differs, or all was repaired; 2 wrong command line or file; "
               "3 something differs; 4 an agent or the database was not reached, or refused.")
    parser.add_argument("agents", nargs="*", metavar="AGENT",
                        help="names of the file of agents; all where none is named")
    parser.add_argument("--mode", choices=("report", "repair"), default="report",
                        help="report (the default) changes nothing")
    parser.add_argument("--config-file", action="append", metavar="FILE",
                        help="Neutron's configuration; may be given several times "
                             "(default: neutron.conf and ml2_conf.ini of /etc/neutron)")
    parser.add_argument("--wait", type=float, default=30, metavar="SECONDS",
                        help="how long to wait for the lock of a region (default: 30)")
    parser.add_argument("--settle", type=float, default=2, metavar="SECONDS",
                        help="what does not differ in the same way that much later was on its way, "
                             "and is not reported (default: 2)")
    parser.add_argument("--json", action="store_true", help="print one object for each agent")
    return parser.parse_args(arguments)


def load(files: list[str] | None) -> list[config.AgentConfig]:
    """Reads Neutron's configuration as the server does. Raises BadAgentsFile and cfg.Error."""
    files = files or ["/etc/neutron/neutron.conf", "/etc/neutron/plugins/ml2/ml2_conf.ini"]
    neutron_config.register_common_config_options()
    log.set_defaults(default_log_levels=cfg.CONF.default_log_levels)
    neutron_config.init([part for file in files for part in ("--config-file", file)])
    config.register()
    options = cfg.CONF[config.GROUP]
    return config.read_agents(options.agents_file, options.request_timeout)


def look(agent: config.AgentConfig, settle: float) -> sync.Report:
    """What differs now, and in the same way a little later."""
    client = agent.client()
    try:
        found = sync.FullSync(agent, client).look()
        if found.differing and settle > 0:
            time.sleep(settle)
            found = sync.FullSync(agent, client).look().lasting(found)
        return found.report()
    finally:
        client.close()


def repair(agent: config.AgentConfig, wait: float, settle: float) -> sync.Report:
    found = look(agent, settle)
    client = agent.client()
    try:
        full_sync = sync.FullSync(agent, client)
        report = full_sync.repair(full_sync.lock(wait))
        report.differing = found.differing
        return report
    finally:
        client.close()


def show(agent: config.AgentConfig, report: sync.Report, as_json: bool) -> None:
    if as_json:
        print(json.dumps({
            "agent": agent.name, "members": report.members, "repaired": report.is_repaired,
            "differing": [{"collection": c, "name": n} for c, n in report.differing],
            "leftOut": report.left_out}))
        return
    print(f"{agent.name}: {report.text()}")
    for line in report.left_out:
        print(f"{agent.name}: {line}")


def main(arguments: list[str] | None = None) -> typing.NoReturn:
    parsed = parse(sys.argv[1:] if arguments is None else arguments)
    sys.exit(run(parsed))


def run(parsed: argparse.Namespace) -> int:
    try:
        agents = load(parsed.config_file)
    except (config.BadAgentsFile, cfg.Error) as error:
        print(f"networking-vnagent-sync: {error}", file=sys.stderr)
        return WRONG
    unknown = set(parsed.agents) - {agent.name for agent in agents}
    if unknown:
        print(f"networking-vnagent-sync: no agent {', '.join(sorted(unknown))} in the file of "
              "agents", file=sys.stderr)
        return WRONG
    status = 0
    for agent in agents:
        if parsed.agents and agent.name not in parsed.agents:
            continue
        try:
            report = (look(agent, parsed.settle) if parsed.mode == "report"
                      else repair(agent, parsed.wait, parsed.settle))
        except sync.LockHeld as held:
            print(f"{agent.name}: the region's lock is held by {held}", file=sys.stderr)
            status = UNREACHED
            continue
        except Exception as error:
            kind = "" if isinstance(error, agent_client.AgentError) else "the database: "
            print(f"{agent.name}: {kind}{error}", file=sys.stderr)
            status = UNREACHED
            continue
        show(agent, report, parsed.json)
        if report.differing and not report.is_repaired:
            status = max(status, DIFFERENT)
    return status


if __name__ == "__main__":
    main()
