"""bench/RESULTS.md: what was measured, where and with what, and the picture beside it."""
from dataclasses import dataclass

from vroxbench import plot, prepare, tables
from vroxbench.scenarios import COMPARED, GROWING, SCENARIOS

RESULTS = prepare.ROOT / "bench" / "RESULTS.md"
FOLDER = prepare.ROOT / "bench" / "results"


@dataclass(frozen=True)
class Headline:
    scenario: str
    key: str
    title: str
    better: str


HEADLINES = tuple(Headline(*h) for h in (
    ("bulk", "down1", "1 stream down, GB/s", "high"),
    ("bulk", "up1", "1 stream up, GB/s", "high"),
    ("bulk", "down16", "16 streams down, GB/s", "high"),
    ("bulk", "up16", "16 streams up, GB/s", "high"),
    ("bulk", "down1_cpu", "1 stream down, CPU s/GB", "low"),
    ("bulk", "up16_cpu", "16 streams up, CPU s/GB", "low"),
    ("rate", "rate", "short connections/s", "high"),
    ("rate", "rate_cpu", "CPU us per short connection", "low"),
    ("trips", "trip1_p50", "round trip, 1 connection, p50 us", "low"),
    ("trips", "trip1_p99", "round trip, 1 connection, p99 us", "low"),
    ("trips", "trip64_p50", "round trip, 64 connections, p50 us", "low"),
    ("trips", "trip64_p99", "round trip, 64 connections, p99 us", "low"),
    ("idle", "idle5000_rss", "KiB per idle connection, 5,000", "low"),
    ("idle", "idle5000_all", "MiB in all with 5,000 idle connections", "low"),
    ("dns", "dns100", "cached DNS answers/s, 100 names", "high"),
    ("dns", "dns100_cpu", "CPU us per cached answer, 100 names", "low"),
    ("dns", "dns100000_cpu", "CPU us per cached answer, 100,000 names", "low"),
    ("tun", "down1", "TUN, 1 stream down, GB/s", "high"),
    ("tun", "up1", "TUN, 1 stream up, GB/s", "high"),
    ("tun", "down1_cpu", "TUN, 1 stream down, CPU s/GB", "low"),
    ("tun", "up1_cpu", "TUN, 1 stream up, CPU s/GB", "low"),
))

LEGEND = """A figure is the median of its rounds, [the least - the most], and the ratio to the same load without a
proxy ("direct"). Bold: the best contender. CPU counts the contender's processes alone, user and system
time; it moves least with what else the machine does. "load busy" is the busier end of the load in % of
one processor: near 100 the load is what limits the row, as it is for direct."""


def scenario_text(name, store):
    """All tables of one scenario; empty when it was not measured."""
    scenario = SCENARIOS[name]
    values, errors = store.figures(name)
    parts = []
    for table in scenario.tables:
        text = tables.render(table, scenario, values, mark_best=name not in GROWING)
        if text:
            parts.append(f"**{table.title}**\n\n{text}")
    parts += [f"{contender} failed: {error}" for contender, error in errors.items()]
    return "\n\n".join(parts)


def _machine_text(store):
    m, vrox = store.head["machine"], store.head["vrox"]
    versions = ", ".join(f"{package} {version}" for package, version in m["versions"].items() if version)
    rounds = {name: store.rounds(name) for name in (*COMPARED, *GROWING)}
    counted = ", ".join(f"{name} {count}" for name, count in rounds.items() if count)
    skipped = "; ".join(f"{name}: {why}" for name, why in store.head["skipped"].items()) or "nothing"
    return "\n".join((
        f"- {store.head['date']}, vrox {vrox['commit']} (sha256 {vrox['sha256'][:12]}), {m['compiler']}",
        f"- {m['processors']} processors ({m['processor']}), {m['memory_gib']} GiB, {m['system']}, Linux {m['kernel']}",
        f"- {versions}",
        f"- interleaved rounds: {counted}",
        f"- left out: {skipped}",
    ))


def write(store):
    FOLDER.mkdir(exist_ok=True)
    picture = FOLDER / f"{store.head['date']}.svg"
    drawn = plot.draw(picture, HEADLINES, store)
    parts = ["# Results", "Written by `bench/run --results`; README.md tells how it is measured.", _machine_text(store),
             "## At a glance", tables.overview(HEADLINES, SCENARIOS, store)]
    if drawn:
        parts.append(f"![the headline figures](results/{picture.name})")
    parts += ["## Beside others", LEGEND]
    for name in COMPARED:
        if text := scenario_text(name, store):
            parts += [f"### {name}: {SCENARIOS[name].about}", text]
    parts += ["## Growth", "The cost of one event at several sizes of the tables that it meets."]
    for name in GROWING:
        if text := scenario_text(name, store):
            parts += [f"### {name}: {SCENARIOS[name].about}", text]
    RESULTS.write_text("\n\n".join(parts) + "\n")
    return RESULTS
