"""Quotas, speed limits and client limits, in one process and over several."""
import contextlib
import re
import selectors
import subprocess
import time

import pytest

from lib import bulk, conf
from lib.daemon import TCP_PORT
from lib.net import ended, exchange, first_readable, port_of, read_all, read_exactly, reset, silent
from lib.wait import DEADLINE, until

RELAY_BUFFER = 20480
KIB = 1024


def limited(origin, *keys):
    """Everything goes to one upstream under one rule with the given keys."""
    return conf.fixed(origin, rule_keys=keys)


def directed(pair, upload):
    return pair if upload else pair[::-1]


# maxData


@pytest.mark.parametrize("last", [1096, 5000], ids=["reached", "passed"])
def test_the_write_that_uses_up_the_quota_is_whole_and_the_next_one_ends(net, vrox, origin, last):
    vrox(limited(origin, "maxData = 4K"))
    other, client = net.joined(origin), net.joined(origin)
    exchange(*client, b"\x01" * 1000, b"\x01" * 2000)
    client[0].sendall(b"\x01" * last)
    read_exactly(client[1], last)
    assert silent(client[0]), "it ends only with the next write"
    late = net.joined(origin)  # still accepted
    for source, sink in client[::-1], other, late:  # the quota is the rule's, not the session's
        source.sendall(b"\x01 one more")
        assert ended(sink) and ended(source)


def pour(conn):
    with contextlib.suppress(OSError):
        while True:
            conn.sendall(b"\x01" * 65536)


@pytest.mark.parametrize("workers, upload", [(1, False), (4, True)])
def test_max_data_is_one_budget_of_all_workers(net, vrox, origin, workers, upload):
    daemon = vrox(limited(origin, "maxData = 3M"), workers=workers)
    pairs, got = [net.joined(origin) for _ in range(12)], []
    for pair in pairs:
        source, sink = directed(pair, upload)
        net.spawn(pour, source)
        net.spawn(lambda sink=sink: got.append(len(read_all(sink))))
    until(lambda: len(got) == len(pairs), "the quota ends every session")
    assert 0 <= sum(got) - 3 * KIB * KIB <= workers * RELAY_BUFFER
    assert daemon.err == ""  # another worker's quicker accept is no failure


# maxSpeed


def read_limited(sinks, speed, begun, enough):
    """Reads until enough({sink: bytes}); at no time more than the seconds that have begun since then allow."""
    got = dict.fromkeys(sinks, 0)
    with selectors.DefaultSelector() as ready:
        for sink in sinks:
            ready.register(sink, selectors.EVENT_READ)
        while not enough(got):
            assert time.monotonic() - begun < 3 * DEADLINE, f"it stands still, or nearly: {got.values()}"
            for key, _ in ready.select(1):
                got[key.fileobj] += len(key.fileobj.recv(1 << 16))
            seconds = int(time.monotonic()) - int(begun) + 1
            assert sum(got.values()) <= 1.05 * speed * seconds
    assert sum(got.values()) >= 0.5 * speed * (seconds - 2)


def test_both_directions_and_all_sessions_share_the_second(net, vrox, origin):
    vrox(limited(origin, "maxSpeed = 1K"))
    ends = [*net.joined(origin), *net.joined(origin)]
    begun = time.monotonic()
    for end in ends:
        end.sendall(b"\x01" * 1000)
    read_limited(ends, KIB, begun, lambda got: set(got.values()) == {1000})


@pytest.mark.parametrize("upload", [True, False], ids=["upload", "download"])
def test_throttled_bytes_arrive_after_their_source_has_closed(net, vrox, origin, upload):
    vrox(limited(origin, "maxSpeed = 16K"))
    source, sink = directed(net.joined(origin), upload)
    bulk.send(source, 40 * KIB)
    source.close()
    assert bulk.receive(sink, 40 * KIB) == bulk.expected(40 * KIB)
    assert ended(sink)


def spread(daemon, net, origin, count):
    """Connections until each worker serves `count` or more: [(client, upstream, its process)]."""
    pairs, pid_of = [], {}

    def enough():
        pairs.append(net.joined(origin))
        shown = subprocess.check_output(["ss", "-Htnp", f"sport = :{TCP_PORT}"], text=True)
        pid_of.update((int(port), int(pid)) for port, pid in re.findall(r":(\d+) +users:.*?pid=(\d+)", shown))
        return all(list(pid_of.values()).count(pid) >= count for pid in daemon.pids)

    until(enough, "load spreads over all workers")
    return [(client, upstream, pid_of[port_of(client)]) for client, upstream in pairs]


def test_max_speed_is_one_allowance_of_all_workers(net, vrox, origin):
    daemon = vrox(limited(origin, "maxSpeed = 100k"), workers=4)
    served = spread(daemon, net, origin, 2)
    begun = time.monotonic()
    for _, upstream, _ in served:
        net.spawn(pour, upstream)

    def each_is_resumed(got):
        return all(sum(got[client] for client, _, mine in served if mine == pid) for pid in daemon.pids)

    read_limited([client for client, *_ in served], 100 * KIB, begun,
                 lambda got: time.monotonic() - begun > 4 and each_is_resumed(got))


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
    for host in (11, 12, 13):
        exchange(*net.joined(origin, source=f"127.0.0.{host}"), b"\x01" * 4000, b"\x01" * 96)
    net.joined(origin, b"\x01" * 4000, source="127.0.0.15")  # no rule's: tcp::Global's
    net.joined(origin, source="127.0.0.11")  # by now all that was read before has been counted, too
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
            return first_readable(client, origin) is origin

    until(admitted, "the client is let in again")


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
