"""The command: options, the order of the cells, what is printed."""
import argparse
import os
import sys
import time

from vroxbench import cell, machine, prepare, report
from vroxbench.scenarios import COMPARED, GROWING, SCENARIOS
from vroxbench.store import Store

GROUPS = {"all": (*COMPARED, *GROWING), "growth": GROWING}


def describe_scenarios():
    lines = [f"  {s.name:9} {s.about}" for s in SCENARIOS.values()]
    return "scenarios:\n" + "\n".join(lines) + f"""
  growth    {', '.join(GROWING)}
  all       every one of them; without any: {', '.join(COMPARED)}

environment:
  VROX_BIN      the vrox program; without it the release build of this checkout
  TUN_PEER_BIN  a program that leads a TUN device's connections to a SOCKS5 proxy (hev-socks5-tunnel);
                without it that contender is left out
"""


def parse_arguments():
    parser = argparse.ArgumentParser(prog="bench/run", description="Benchmarks of vrox beside other programs.",
                                     epilog=describe_scenarios(), formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenario", nargs="*", metavar="scenario")
    parser.add_argument("--rounds", type=int, default=5, help="of every contender, in turn (default 5; 0: only print what the file has)")
    parser.add_argument("--seconds", type=float, default=1, help="for one load (default 1)")
    parser.add_argument("--only", type=lambda s: s.split(","), default=[],
                        help="contenders whose names begin like these, joined by commas")
    parser.add_argument("--json", metavar="FILE", help="raw numbers; an existing file is gone on with (default: a new "
                        "file in build/bench, with --results bench/results/DATE.json)")
    parser.add_argument("--limit", type=float, default=float("inf"), metavar="SECONDS",
                        help="begin no measurement after that; the same command goes on later (status 75: not done yet)")
    parser.add_argument("--results", action="store_true", help="write bench/RESULTS.md and its plot from what the file has")
    parser.add_argument("--no-install", action="store_true", help="take the machine as it is")
    options = parser.parse_args()
    for name in options.scenario:
        if name not in SCENARIOS and name not in GROUPS:
            parser.error(f"no such scenario: {name}")
    return options


def chosen_scenarios(names):
    wanted = [s for name in names or COMPARED for s in GROUPS.get(name, (name,))]
    return [SCENARIOS[name] for name in dict.fromkeys(wanted)]


def chosen_contenders(scenario, only):
    return [c for c in scenario.contenders if not only or any(c.name.startswith(o) for o in only)]


def default_file(results):
    if results:
        return report.FOLDER / time.strftime("%F.json")
    return prepare.ROOT / "build" / "bench" / time.strftime("results-%F-%H%M%S.json")


def cells_to_measure(scenarios, options, skipped):
    """Round by round, every contender in turn: what drifts on the machine meets all of them alike."""
    for number in range(1, options.rounds + 1):
        for scenario in scenarios:
            for contender in chosen_contenders(scenario, options.only):
                if contender.name not in skipped:
                    yield number, scenario, contender


def measure(scenarios, options, store, skipped, load, vrox):
    """False when the time limit came first."""
    program = str(prepare.ROOT / "bench" / "run")
    begun = time.monotonic()
    for number, scenario, contender in cells_to_measure(scenarios, options, skipped):
        if store.has(scenario.name, contender.name, number):
            continue
        if time.monotonic() - begun > options.limit:
            return False
        if sys.stderr.isatty():
            print(f"\r\33[Kround {number}: {scenario.name}, {contender.name}", end="", file=sys.stderr)
        result = cell.run_isolated(program, str(load), str(vrox), scenario.name, contender.name, options.seconds)
        if result["error"]:
            print(f"round {number}: {scenario.name}, {contender.name}: {result['error']}", file=sys.stderr)
        store.add(scenario.name, contender.name, number, result)
    return True


def gather(scenarios, options, store):
    """Measures what the file does not have yet; False when the time limit came first."""
    if os.geteuid() != 0:
        sys.exit("bench: run as root: every measurement has network and process namespaces of its own")
    if not options.no_install:
        prepare.install()
    skipped = {c.name: why for s in scenarios for c in chosen_contenders(s, options.only) if (why := c.missing())}
    for name, why in skipped.items():
        print(f"left out: {name}: {why}")
    vrox, load = prepare.build_vrox(), prepare.build_load()
    store.begin({"machine": machine.describe(), "vrox": machine.identify(vrox), "scale": options.seconds,
                 "skipped": skipped})
    return measure(scenarios, options, store, skipped, load, vrox)


def main():
    options = parse_arguments()
    scenarios = chosen_scenarios(options.scenario)
    store = Store(options.json or default_file(options.results))
    complete = gather(scenarios, options, store) if options.rounds else True
    for scenario in scenarios:
        print(f"\n== {scenario.name}: {scenario.about} ({store.rounds(scenario.name)} rounds)\n")
        print(report.scenario_text(scenario.name, store))
    print(f"\nraw numbers: {store.path}")
    if options.results and store.cells:
        print(f"written: {report.write(store)}")
    if not complete:
        print("not complete: the same command goes on")
        return os.EX_TEMPFAIL
    return 0
