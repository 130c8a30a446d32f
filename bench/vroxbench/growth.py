"""Does the cost of an event grow with the tables? Each scenario is one event at several sizes, and what
stands for a contender is a size. Likewise the work of two processes against one.
"""
from collections.abc import Callable
from dataclasses import dataclass

from vroxbench import vroxconf
from vroxbench.contenders import STRAIGHT, vrox
from vroxbench.layout import Table, high, low
from vroxbench.names import NEAR_SERVER

MICRO = 1e6


@dataclass(frozen=True)
class Growth:
    name: str
    about: str
    contenders: tuple
    measure: Callable
    table: Table
    world: str = "near"


def cost(result):
    yield "cpu", result["contender_cpu"] / result["done"] * MICRO
    yield "user", result["contender_user"] / result["done"] * MICRO
    yield "rate", result["done"] / result["secs"]


def connections(cell):
    return cost(cell.load("rate", conns=32, secs=cell.scale))


def packets(cell):
    return cost(cell.load("trips", conns=64, secs=cell.scale))


def datagrams(cell):
    return cost(cell.load("udp", conns=cell.contender.given["clients"], secs=cell.scale))


def answers(cell):
    return cost(cell.load("dns", names=cell.contender.given["names"], conns=128, secs=cell.scale))


def beside_idle(measure):
    """The same beside connections that are open and rest."""
    def run(cell):
        conns = cell.contender.given["idle"]
        holder = cell.hold_idle(conns) if conns else None
        yield from measure(cell)
        if holder:
            holder.communicate()
    return run


def sized(sizes, unit, way, conf, upstream="", **given):
    """One vrox for each size; conf(size) is its configuration, `given` maps names to functions of the size."""
    return tuple(vrox(f"{size:,} {unit}", way, conf(size), upstream=upstream, **{k: f(size) for k, f in given.items()})
                 for size in sizes)


def table(title, event, per_second):
    return Table(f"growth: {title}", (low("cpu", f"CPU us/{event}"), low("user", "about so much in vrox itself"), high("rate", per_second)))


SLOTS = 11_000     # of which the busy ones are taken behind the idle ones
MANY_IDLE = 9_900  # two descriptors each, and some machines allow 20,000

GROWTH = (
    Growth("slots", "short connections beside idle sessions",
           sized((0, 100, MANY_IDLE), "idle sessions", "forward",
                 lambda _: vroxconf.proxy(vroxconf.to(NEAR_SERVER), sessions=SLOTS), idle=int),
           beside_idle(connections), table("session slots", "connection", "connections/s")),
    Growth("rules", "short connections, rules by address before the one that matches",
           sized((1, 10, 100, 1000), "rules at connect", "forward", vroxconf.rules_at_connect),
           connections, table("rules by address", "connection", "connections/s")),
    Growth("patterns", "short connections, regular expressions before the rule that matches",
           sized((1, 10, 100, 1000), "rules on request", "forward", vroxconf.rules_on_request),
           connections, table("rules with a regular expression each", "connection", "connections/s")),
    Growth("modules", "short connections over a ring of modules",
           sized((1, 10, 100), "modules", "forward", vroxconf.ring_of_modules),
           connections, table("modules of one rule", "connection", "connections/s")),
    Growth("flows", "round trips through a TUN device beside idle flows",
           sized((0, 100, 10_000), "idle flows", "tun",
                 lambda _: vroxconf.tun(vroxconf.ORIGINAL, sessions=SLOTS), idle=int),
           beside_idle(packets), table("TUN flows", "round trip", "round trips/s"), "far"),
    Growth("clients", "UDP datagrams over HTTP tunnels, there and back",
           sized((10, 100, 1000), "UDP clients", "udp", lambda n: vroxconf.udp_relay(n + 10), clients=int),
           datagrams, table("UDP clients", "datagram there and back", "datagrams/s")),
    Growth("records", "cached DNS answers",
           sized((10, 100, 1000, 10_000, 100_000), "records", "dns", lambda _: vroxconf.dns(), names=int),
           answers, table("records in the DNS cache", "answer", "answers/s"), "dns"),
)

HEAVY = 3000  # regular expressions for each connection: the proxy is what is busy, not the load
WORKERS = (
    STRAIGHT,
    *(vrox(f"vrox -w {n}", "forward", vroxconf.proxy(vroxconf.to(NEAR_SERVER)), "-w", str(n)) for n in (1, 2)),
    *(vrox(f"vrox -w {n}, {HEAVY:,} patterns", "forward", vroxconf.rules_on_request(HEAVY), "-w", str(n))
      for n in (1, 2)),
)
