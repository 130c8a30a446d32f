"""What is measured in a cell, and the tables that it fills.

A measure yields (key, value) pairs; a table's columns name the keys that it shows.
"""
import os
import time
from collections.abc import Callable
from dataclasses import dataclass

from vroxbench import growth, processes
from vroxbench.contenders import FEW_PROCESSES, PROXIES, RESOLVERS, TUNNELS
from vroxbench.layout import Table, high, low, plain

MICRO = 1e6


@dataclass(frozen=True)
class Scenario:
    name: str
    about: str
    contenders: tuple
    measure: Callable
    tables: tuple
    world: str = "near"  # where the server stands: near, far (behind another network), or dns


def bulk(cell):
    for conns in (1, 16):
        for way, upload in (("down", 0), ("up", 1)):
            r = cell.load("bulk", conns=conns, upload=upload, secs=cell.scale)
            gigabytes = r["bytes"] / 1e9
            yield f"{way}{conns}", gigabytes / r["secs"]
            yield f"{way}{conns}_cpu", r["contender_cpu"] / gigabytes
            yield f"{way}{conns}_busy", r["busy"]


def rate(cell):
    r = cell.load("rate", conns=32, secs=cell.scale)
    yield "rate", r["done"] / r["secs"]
    yield "rate_cpu", r["contender_cpu"] / r["done"] * MICRO
    yield "rate_busy", r["busy"]
    yield "rate_idle", r["idle"]


def trips(cell):
    # One connection is measured on one processor: across them the figure is the time that a
    # hypervisor takes to wake an idle one.
    for conns, cpus in ((1, {0}), (64, set(range(os.cpu_count())))):
        processes.pin_everybody(cpus)
        r = cell.load("trips", conns=conns, secs=cell.scale)
        yield f"trip{conns}_p50", r["p50_us"]
        yield f"trip{conns}_p99", r["p99_us"]
        yield f"trip{conns}_cpu", r["contender_cpu"] / r["done"] * MICRO


def idle(cell):
    time.sleep(0.3)
    resident, proportional = processes.memory_kib()
    for conns in (1000, 5000):
        holder = cell.hold_idle(conns)
        time.sleep(0.5)
        now = processes.memory_kib()
        holder.communicate()
        yield f"idle{conns}_rss", (now[0] - resident) / conns
        yield f"idle{conns}_pss", (now[1] - proportional) / conns
        yield f"idle{conns}_all", now[0] / 1024
        time.sleep(0.5)


def dns(cell):
    for names in (100, 2000, 100_000):
        cell.warm_up("dns", names=names, count=names, conns=16, secs=30)
        r = cell.load("dns", names=names, conns=128, secs=2 * cell.scale)
        yield f"dns{names}", r["done"] / r["secs"]
        yield f"dns{names}_cpu", r["contender_cpu"] / r["done"] * MICRO


def tun(cell):
    # Short connections last: they use up the client's ports, until the kernel has only those to give
    # whose old connection the contender may still know.
    for measure in (bulk, trips, rate):
        yield from measure(cell)


def streams_table(conns, of="bulk data"):
    streams = "1 stream" if conns == 1 else f"{conns} streams"
    return Table(f"{of}, {streams}", (
        high(f"down{conns}", "down GB/s"), high(f"up{conns}", "up GB/s"),
        low(f"down{conns}_cpu", "down CPU s/GB"), low(f"up{conns}_cpu", "up CPU s/GB"),
        plain(f"down{conns}_busy", "load busy %")))


def trips_table(conns, of="64 bytes there and back"):
    where = "1 connection, everything on one processor" if conns == 1 else f"{conns} connections"
    return Table(f"{of}, {where}", (
        low(f"trip{conns}_p50", "p50 us"), low(f"trip{conns}_p99", "p99 us"), low(f"trip{conns}_cpu", "CPU us/trip")))


RATE = (high("rate", "connections/s"), low("rate_cpu", "CPU us/connection"), plain("rate_busy", "load busy %"))
BULK_TABLES = (streams_table(1), streams_table(16))
RATE_TABLE = Table("short connections, 32 at a time, 64 bytes each way", RATE)
TRIP_TABLES = (trips_table(1), trips_table(64))
IDLE_TABLES = tuple(
    Table(f"memory of {n:,} idle connections", (
        low(f"idle{n}_rss", "resident KiB for each"), plain(f"idle{n}_pss", "proportional KiB for each"),
        low(f"idle{n}_all", "resident MiB in all"))) for n in (1000, 5000))
DNS_TABLES = tuple(
    Table(f"cached DNS answers, {n:,} names", (high(f"dns{n}", "answers/s"), low(f"dns{n}_cpu", "CPU us/answer")))
    for n in (100, 2000, 100_000))
TUN_TABLES = (streams_table(1, "TUN, bulk data"), streams_table(16, "TUN, bulk data"),
              Table("TUN, short connections", RATE), trips_table(1, "TUN, 64 bytes there and back"),
              trips_table(64, "TUN, 64 bytes there and back"))
WORKERS_TABLE = Table("workers: short connections, 32 at a time",
                      (*RATE, plain("rate_idle", "machine idle %")))

SCENARIOS = {s.name: s for s in (
    Scenario("bulk", "streams without end, down and up, 1 and 16 of them", PROXIES, bulk, BULK_TABLES),
    Scenario("rate", "short connections", PROXIES, rate, (RATE_TABLE,)),
    Scenario("trips", "64 bytes there and back, on 1 and 64 connections", PROXIES, trips, TRIP_TABLES),
    Scenario("idle", "memory of idle connections", FEW_PROCESSES, idle, IDLE_TABLES),
    Scenario("dns", "cached DNS answers", RESOLVERS, dns, DNS_TABLES, "dns"),
    Scenario("tun", "bulk data, short connections and round trips through a TUN device", TUNNELS, tun, TUN_TABLES,
             "far"),
    Scenario("workers", "two processes (-w 2) against one", growth.WORKERS, rate, (WORKERS_TABLE,)),
    *(Scenario(g.name, g.about, g.contenders, g.measure, (g.table,), g.world) for g in growth.GROWTH),
)}
COMPARED = ("bulk", "rate", "trips", "idle", "dns", "tun", "workers")
GROWING = tuple(g.name for g in growth.GROWTH)
