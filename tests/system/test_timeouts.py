"""Sweeps of idle sessions, with a program that sweeps each second."""
import contextlib
import socket
import time

import pytest

from lib import bulk, conf, socks5
from lib.daemon import SWEEP_BIN, TCP_PORT
from lib.net import ended, exchange, port_of, read_exactly, silent, sysctl


@pytest.fixture
def start(vrox):
    return lambda text: vrox(text, binary=SWEEP_BIN)


def assert_swept(conn, limit):
    """`limit` sweeps count it up, the next one ends it; the first may come at once."""
    begun = time.monotonic()
    assert ended(conn)
    assert time.monotonic() - begun >= limit - 0.5


@pytest.mark.parametrize("rule_keys, inherited, limit", [(["timeout = 3"], [], 3), ([], ["timeout = 1"], 1)])
def test_idle_session(net, start, origin, rule_keys, inherited, limit):
    start(conf.fixed(origin, *inherited, rule_keys=rule_keys))
    client, upstream = net.joined(origin)
    assert_swept(client, limit)
    assert ended(upstream)


def test_session_without_a_rule_has_the_global_limit(net, start):
    start(conf.tcp_global("timeout = 1", "tcpProxy = direct") + conf.DIRECT + conf.rule("get", "method = GET"))
    silent_one, beginning = net.connect(), net.connect()
    beginning.sendall(b"GET / HTTP/1.1\r\n")  # gathered, and not complete
    assert_swept(silent_one, 1)
    assert_swept(beginning, 0)


def test_no_limit(net, start, origin):
    rules = "".join(conf.rule(f"r{host}", "matchMode = firstMatch", f"src_ip = 127.0.0.{host}", *keys)
                    for host, keys in ((11, ["timeout = 5", "timeout = 0"]), (12, ["timeout = -1"]), (13, [])))
    swept = conf.rule("swept", "matchMode = firstMatch", "dst_port = 1", "timeout = 1")  # switches the sweep on
    start(conf.later(origin) + rules + swept + conf.socks5("handshake_timeout = 5", "handshake_timeout = 0"))
    handshake = socks5.greeted(net)
    pairs = [net.joined(origin, source=f"127.0.0.{host}") for host in (11, 12, 13)]
    time.sleep(3.3)
    for pair in pairs:
        exchange(*pair)
    handshake.sendall(socks5.request("127.0.0.1", 9))
    assert read_exactly(handshake, 10) == socks5.CONNECTED


def test_activity_in_either_direction_keeps_it(net, start, origin):
    start(conf.fixed(origin, rule_keys=["timeout = 3"]))
    pairs = [net.joined(origin), net.joined(origin)[::-1]]
    for _ in range(11):
        for source, sink in pairs:
            source.sendall(b"\x01")
            assert read_exactly(sink, 1) == b"\x01"
        time.sleep(0.4)
    assert_swept(pairs[0][0], 3)
    assert ended(pairs[1][0])


def test_slow_reader_is_not_idle(net, start, origin):
    sysctl("net.ipv4.tcp_wmem", "4096 8192 8192")
    sysctl("net.ipv4.tcp_rmem", "4096 800000 4000000")
    start(conf.fixed(origin, rule_keys=["timeout = 2"]))
    client = net.keep(socket.socket())
    client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    client.connect(("127.0.0.1", TCP_PORT))
    upstream = net.accept(origin)
    total = 240000  # waits in the program's receive buffer: no event tells of it again
    net.spawn(bulk.send, upstream, total)
    begun = time.monotonic()
    assert bulk.receive(client, total, pause=0.02, piece=1000) == bulk.expected(total)
    assert time.monotonic() - begun > 4


def test_throttled_sessions_are_idle_unless_they_move(net, start, origin):
    stuck = conf.rule("stuck", "matchMode = firstMatch", "src_ip = 127.0.0.9", "tcpProxy = up", "timeout = 2",
                      "maxSpeed = 0K")
    start(stuck + conf.fixed(origin, rule_keys=["timeout = 2", "maxSpeed = 30K"]))
    client, upstream = net.joined(origin)
    never, other_upstream = net.joined(origin, source="127.0.0.9")
    never.sendall(b"\x01 never")
    total = 120 * 1024
    bulk.send(upstream, total)
    assert_swept(never, 2)
    assert ended(other_upstream)
    assert bulk.receive(client, total) == bulk.expected(total)


@pytest.mark.parametrize("gone", ["client", "upstream"])
def test_half_closed_session(net, start, origin, gone):
    """What is left of a session, with bytes pending for a peer that takes none, is counted no more."""
    start(conf.fixed(origin, "max_sessions = 1", rule_keys=["timeout = 1", "limit_client_ip = 1 1"]))
    client, upstream = net.joined(origin)
    source = client if gone == "client" else upstream
    source.settimeout(0.5)
    with contextlib.suppress(TimeoutError):
        while True:
            source.sendall(b"\x01" * 65536)
    source.close()
    exchange(*net.joined(origin))  # the only slot and the only place for a client are free again


# The SOCKS5 server's


def socks(*keys):
    return conf.tcp_global("tcpProxy = direct") + conf.at_connect() + conf.DIRECT + conf.socks5(*keys)


@pytest.mark.parametrize("more, limit", [(b"", 2), (b"\x05\x01\x00", 0)], ids=["greeting", "part of a request"])
def test_unfinished_handshake(net, start, more, limit):
    start(socks("handshake_timeout = 2"))
    client = socks5.greeted(net)
    client.sendall(more)
    assert_swept(client, limit)


def test_each_step_of_a_handshake_begins_anew(net, start):
    start(socks("handshake_timeout = 4", "user_pass = me pass"))
    client = socks5.greeted(net, greeting=b"\x05\x01\x02", answer=socks5.PASSWORD)
    time.sleep(2.5)
    client.sendall(socks5.credentials("me", "pass"))
    assert read_exactly(client, 2) == socks5.AUTH_OK
    assert_swept(client, 4)


def test_name_that_nobody_resolves(net, start, origin):
    """And a finished handshake, which is not swept."""
    resolver = net.keep(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
    resolver.bind(("127.0.0.1", 0))
    start(socks("handshake_timeout = 1", f"socks5_dns = 127.0.0.1:{port_of(resolver)}"))
    finished = socks5.connect(net, "127.0.0.1", port_of(origin))
    upstream = net.accept(origin)
    assert_swept(socks5.connect(net, "nobody.test", 80), 1)
    assert silent(finished, 2)
    exchange(finished, upstream)
