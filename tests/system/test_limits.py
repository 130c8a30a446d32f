"""Quotas, speed limits and client limits, in one process and over several."""
import contextlib
import os
import re
import threading
import time
from pathlib import Path

import pytest

from lib import bulk, conf
from lib.daemon import TCP_PORT
from lib.net import ended, exchange, port_of, read_all, read_exactly, reset, silent
from lib.wait import until

RELAY_BUFFER = 20480
KIB = 1024
EITHER_WAY = pytest.mark.parametrize("upload", [True, False], ids=["upload", "download"])


@pytest.fixture
def origin(net):
    return net.listen()


def limited(origin, *keys):
    """Everything goes to one upstream under one rule with the given keys."""
    return conf.fixed(origin, rule_keys=keys)


def directed(pair, upload):
    """(source, sink) of a connection."""
    return pair if upload else pair[::-1]


def early_in_a_second(wanted=0.1):
    """Waits until a second of the monotonic clock, at which allowances begin, is this old."""
    time.sleep((wanted - time.monotonic()) % 1)


# maxData


@pytest.mark.parametrize("last", [1096, 1097, 5000], ids=["reached", "passed", "far passed"])
def test_the_write_that_uses_up_the_quota_is_whole_and_the_next_one_ends(net, vrox, origin, last):
    vrox(limited(origin, "maxData = 4K"))
    other, other_upstream = net.joined(origin)
    client, upstream = net.joined(origin)
    exchange(client, upstream, b"\x01" * 1000, b"\x01" * 2000)
    client.sendall(b"\x01" * last)
    read_exactly(upstream, last)
    assert silent(client), "it ends only with the next write"
    upstream.sendall(b"one more")
    assert ended(client) and ended(upstream)
    other.sendall(b"\x01 the rule's, not the session's")
    assert ended(other_upstream) and ended(other)
    late, late_upstream = net.joined(origin)  # still accepted
    late.sendall(b"\x01 first write")
    assert ended(late_upstream) and ended(late)


def pour(conn):
    with contextlib.suppress(OSError):
        while True:
            conn.sendall(b"\x01" * 65536)


@pytest.mark.parametrize("workers, upload", [(1, False), (4, True)])
def test_max_data_is_one_budget_of_all_workers(net, vrox, origin, workers, upload):
    vrox(limited(origin, "maxData = 3M"), workers=workers)
    pairs, got = [net.joined(origin) for _ in range(12)], []
    for pair in pairs:
        source, sink = directed(pair, upload)
        net.spawn(pour, source)
        net.spawn(lambda sink=sink: got.append(len(read_all(sink))))
    until(lambda: len(got) == len(pairs), "the quota ends every session")
    assert 0 <= sum(got) - 3 * KIB * KIB <= workers * RELAY_BUFFER


# maxSpeed


@EITHER_WAY
def test_max_speed_lets_through_exactly_its_bytes_each_second(net, vrox, origin, upload):
    vrox(limited(origin, "maxSpeed = 1K"))
    source, sink = directed(net.joined(origin), upload)
    early_in_a_second()
    source.sendall(b"\x01" * 2500)
    for part in (1024, 1024, 452):
        read_exactly(sink, part)
        if part == 1024:
            assert silent(sink, 0.4)
    source.sendall(b"\x01" * 572)  # what the third second has left, and not throttled by it
    read_exactly(sink, 572)


def test_both_directions_and_all_sessions_share_the_second(net, vrox, origin):
    vrox(limited(origin, "maxSpeed = 1K"))
    first, (second, second_upstream) = net.joined(origin), net.joined(origin)
    early_in_a_second()
    exchange(*first, b"\x01" * 400, b"\x01" * 400)
    second.sendall(b"\x01" * 300)
    read_exactly(second_upstream, 224)
    assert silent(second_upstream, 0.3)
    read_exactly(second_upstream, 76)


@EITHER_WAY
def test_throttled_bytes_arrive_after_their_source_has_closed(net, vrox, origin, upload):
    vrox(limited(origin, "maxSpeed = 16K"))
    source, sink = directed(net.joined(origin), upload)
    bulk.send(source, 40 * KIB)
    source.close()
    assert bulk.receive(sink, 40 * KIB) == bulk.expected(40 * KIB)
    assert ended(sink)


def worker_of(daemon, client):
    """The process that serves this connection."""
    port, inode = port_of(client), None
    for line in Path("/proc/net/tcp6").read_text().splitlines()[1:]:
        fields = line.split()
        if fields[1].endswith(f":{TCP_PORT:04X}") and fields[2].endswith(f":{port:04X}"):
            inode = fields[9]
    for pid in daemon.pids:
        for entry in Path(f"/proc/{pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):
                if inode and os.readlink(entry) == f"socket:[{inode}]":
                    return pid
    return None


def spread(daemon, net, origin, count):
    """Connections until each worker serves `count` or more: [(client, upstream, pid)]."""
    served = []

    def enough():
        client, upstream = net.joined(origin)
        served.append((client, upstream, worker_of(daemon, client)))
        return all(sum(pid == mine for *_, mine in served) >= count for pid in daemon.pids)

    until(enough, "load spreads over all workers")
    return served


@pytest.mark.parametrize("workers, speed, value, seconds", [
    (1, 10 << 20, "10", 2), (4, 100 * KIB, "100k", 4), pytest.param(4, 1 << 20, "1M", 10, marks=pytest.mark.slow)])
def test_max_speed_is_one_allowance_of_all_workers(net, vrox, origin, workers, speed, value, seconds):
    daemon = vrox(limited(origin, f"maxSpeed = {value}"), workers=workers)
    served = spread(daemon, net, origin, 2)
    got, lock = dict.fromkeys(daemon.pids, 0), threading.Lock()

    def count(sink, pid):
        while piece := sink.recv(1 << 16):
            with lock:
                got[pid] += len(piece)

    for client, upstream, pid in served:
        net.spawn(pour, upstream)
        net.spawn(count, client, pid)
    early_in_a_second(0.5)
    before = dict(got)
    time.sleep(seconds)
    moved = {pid: got[pid] - before[pid] for pid in got}
    assert abs(sum(moved.values()) - seconds * speed) <= seconds * speed * 0.05
    assert all(moved.values()), "every worker's sessions are resumed"


def test_speed_goes_on_without_the_last_worker(net, vrox, origin):
    daemon = vrox(limited(origin, "maxSpeed = 1K"), workers=2)
    served = spread(daemon, net, origin, 1)
    daemon.end_one(daemon.pids[-1])  # whatever order they wrote their pids in, one of two is the last
    client, upstream = next((c, u) for c, u, pid in served if pid == daemon.pids[0])
    upstream.sendall(b"\x01" * 3000)
    read_exactly(client, 3000)


def test_inherited_counters_are_the_rules_own(net, vrox, origin):
    daemon = vrox(
        conf.later(origin, "maxData_savePath = 0 stats", "maxData = 8K", "maxSpeed = 4K")
        + conf.rule("request", "method! = GET|OTHER", "src_ip = 127.0.0.14")
        + conf.rule("connect", "matchMode = firstMatch", "src_ip = 127.0.0.11")
        + conf.rule("own", "matchMode = firstMatch", "src_ip = 127.0.0.12", "maxData = 16K", "maxSpeed = 8K")
        + conf.section("tcp::Global", "maxData = 1G")  # too late for those above
        + conf.rule("late", "matchMode = firstMatch", "src_ip = 127.0.0.13"))
    pairs = [net.joined(origin, source=f"127.0.0.{host}") for host in (11, 12, 13)]
    early_in_a_second()
    begun = time.monotonic()
    for client, upstream in pairs:  # 12 KiB in all, none of it held up by the others
        exchange(client, upstream, b"\x01" * 4000, b"\x01" * 96)
    net.joined(origin, b"\x01" * 4000, source="127.0.0.15")  # no rule's: tcp::Global's
    assert time.monotonic() - begun < 0.85, "each has a speed of its own"
    time.sleep(0.1)  # bytes are counted when they are written, and may be read before
    daemon.stop()
    assert dict(re.findall(r"(.+): (\d+)\n", (daemon.directory / "stats").read_text())) == {
        "global": str((1 << 30) - 4000), "request": "8192", "connect": "4096", "own": str(16384 - 4096),
        "late": str((1 << 30) - 4096)}


# limit_client_ip


def quota_ends(client, upstream):
    client.sendall(b"\x01" * 3000)
    read_exactly(upstream, 3000)
    client.sendall(b"\x01")


def drains_after_close(client, upstream):
    upstream.sendall(b"\x01" * 2000)
    upstream.close()
    read_exactly(client, 2000)


@pytest.mark.parametrize("way, keys", [
    (lambda client, upstream: client.close(), []), (lambda client, upstream: reset(client), []),
    (lambda client, upstream: upstream.close(), []), (lambda client, upstream: reset(upstream), []),
    (quota_ends, ["maxData = 2K"]), (drains_after_close, ["maxSpeed = 1K"])],
    ids=["client closes", "client resets", "upstream closes", "upstream resets", "quota", "drained"])
def test_client_is_released(net, vrox, origin, way, keys):
    vrox(limited(origin, "limit_client_ip = 1 1", *keys))
    pair = net.joined(origin)
    assert ended(net.connect()), "one at a time"
    assert ended(net.connect(source="127.0.0.2"))
    way(*pair)

    def admitted():
        with contextlib.closing(net.connect()) as client:
            return silent(client, 0.1)

    until(admitted, "the client is let in again")
    assert ended(net.accept(origin))


def test_client_is_released_where_there_is_no_upstream(net, vrox, origin):
    dead = net.listen()
    vrox(conf.later(origin) + conf.module("none", "destAddr = deny_network") + conf.module("dead", conf.to(dead))
         + conf.rule("dead", "matchMode = firstMatch", "src_ip = 127.0.0.9", "tcpProxy = dead", "limit_client_ip = 1 1")
         + conf.at_connect("limit_client_ip = 1 1", "reMatch = denied", "tcpProxy = up")
         + conf.rule("denied", "method = GET", "tcpProxy = none", "limit_client_ip = 1 1"))
    port = port_of(dead)
    dead.close()
    for _ in range(3):
        assert ended(net.connect(source="127.0.0.9"))
        client, upstream = net.joined(origin)
        client.sendall(b"GET / HTTP/1.1\r\nHost: a\r\n\r\n")
        assert ended(client) and ended(upstream)
    exchange(*net.joined(net.listen(port=port), source="127.0.0.9"))


def test_rematch_counts_the_client_under_the_new_rule_only(net, vrox, origin):
    vrox(conf.later(origin) + conf.at_connect("limit_client_ip = 1 1", "reMatch = web")
         + conf.rule("web", "method = GET", "limit_client_ip = 1 1"))
    request = b"GET / HTTP/1.1\r\nHost: a\r\n\r\n"
    client, first_upstream = net.joined(origin)
    client.sendall(request)
    assert ended(first_upstream)
    upstream = net.accept(origin)
    read_exactly(upstream, len(request))
    second, _ = net.joined(origin)  # the old rule has its place back
    second.sendall(request)
    assert ended(second)  # and the new one has none
    exchange(client, upstream)
