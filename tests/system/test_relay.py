"""The transparent TCP proxy: redirected connections, choice of upstream, relaying."""
import re
import resource
import socket
import subprocess

import pytest

from lib import bulk, conf, socks5
from lib.daemon import SANITIZED, TCP_PORT, UID
from lib.net import (admit_fast_open, came_in_syn, ended, exchange, first_readable, port_of, read_all, read_exactly,
                     reset, silent, sysctl)
from lib.wait import until

MIB = 1 << 20
AT_CONNECT = conf.tcp_global("tcpProxy = direct") + conf.at_connect() + conf.DIRECT


@pytest.mark.parametrize("address", ["10.77.3.4", "fd77::3:4"])
@pytest.mark.parametrize("own_family", [False, True])
def test_redirected_connections_reach_their_original_destination(net, vrox, address, own_family):
    origin = net.listen(address)
    listen = ("::1" if ":" in address else "127.0.0.1") if own_family else "::"
    vrox(conf.tcp_global("tcpProxy = direct", listen=f"{listen}:{TCP_PORT}") + conf.DIRECT, "-u", UID)
    net.redirect()
    client, upstream = net.joined(origin, b"\x01 no rule names it", address=address, port=port_of(origin))
    assert client.getpeername()[:2] == (address, port_of(origin))
    exchange(client, upstream)
    assert net.idle(origin, 0.05)  # neither the daemon's own connection nor another came back


def test_a_connection_to_the_listener_itself_is_refused(net, vrox):
    daemon = vrox(AT_CONNECT)
    assert ended(net.connect())  # not redirected: its destination is the daemon
    until(lambda: daemon.fds() < 30, "no descriptors are left")


def test_refusals_end_the_connection(net, vrox, origin):
    """Nothing to go to, by rule or by fault: the client sees the end and the slot is free again."""
    closed = net.listen()
    modules = {"deny": ["destAddr = deny_network"], "empty": [], "dead": [conf.to(closed)], "good": [conf.to(origin)]}
    text = conf.tcp_global("max_sessions = 1") + conf.socks5()
    for port, (name, lines) in enumerate(modules.items(), 2001):
        text += conf.rule(name, "matchMode = firstMatch", f"dst_port = {port}", f"tcpProxy = {name}")
        text += conf.module(name, *lines)
    vrox(text + conf.rule("none", "matchMode = firstMatch", "dst_port = 2000"))
    closed.close()
    for port in [2000, 2001, 2002, 2003, 2004] * 2:
        client = socks5.connect(net, "192.0.2.1", port)
        if port == 2004:
            upstream = net.accept(origin)
            exchange(client, upstream)
            client.close()
            assert ended(upstream)
        else:
            assert ended(client), port


def test_least_used_module_and_destination(net, vrox):
    """Two modules, one of them with two destinations: taken in turn, then whatever was given back."""
    listeners = [net.listen() for _ in range(3)]
    a, b, c = map(conf.to, listeners)
    vrox(conf.tcp_global() + conf.at_connect("tcpProxy = one", "tcpProxy = two")
         + conf.module("one", a, b) + conf.module("two", c))
    pairs = []

    def open_one():
        client, chosen = net.connect(), first_readable(*listeners)
        pairs.append((client, net.accept(chosen)))
        return "abc"[listeners.index(chosen)]

    assert [open_one() for _ in range(4)] == ["a", "c", "b", "c"]
    for given_back, taken in ((1, "c"), (2, "b")):
        client, upstream = pairs[given_back]
        client.close()
        assert ended(upstream)
        assert open_one() == taken


@pytest.mark.parametrize("works", [True, False], ids=["", "refused by the kernel"])
def test_fast_open_towards_the_upstream(net, vrox, origin, works):
    admit_fast_open(origin)
    if not works:
        sysctl("net.ipv4.tcp_fastopen", 0)
    vrox(conf.fixed(origin, up=["tcp_option = TFO"]))
    for _ in range(3):  # the first one fetches the cookie
        client = net.connect()
        assert net.idle(origin, 0.1)  # connecting waits for the client's first bytes
        client.sendall(b"\x01 first")
        upstream = net.accept(origin)
        assert read_exactly(upstream, 7) == b"\x01 first"
        exchange(client, upstream)
    assert came_in_syn(upstream) == works
    client = net.connect()  # says nothing: before long the upstream may speak first
    net.accept(origin).sendall(b"banner")
    assert read_exactly(client, 6) == b"banner"


def test_fast_open_from_clients(net, vrox, origin):
    vrox(conf.fixed(origin, "tcp_option = TFO|TDA"))
    for _ in range(3):
        client = net.keep(socket.socket())
        client.sendto(b"\x01 first", socket.MSG_FASTOPEN, ("127.0.0.1", TCP_PORT))
        assert read_exactly(net.accept(origin), 7) == b"\x01 first"
    assert came_in_syn(client)


@pytest.mark.parametrize("line, low, high", [
    ([], 50, 60), (["keepAlive_s = 500"], 490, 500), (["keepAlive_s = 0"], 0, 0)])
def test_keep_alive_of_client_sockets(net, vrox, origin, line, low, high):
    vrox(conf.fixed(origin, *line))
    exchange(*net.joined(origin))
    shown = subprocess.run(["ss", "-Htno", f"sport = :{TCP_PORT}"], capture_output=True, text=True, check=True).stdout
    timer = re.search(r"ESTAB.*?(?:timer:\(keepalive,(?:(\d+)min)?(?:(\d+)sec)?|$)", shown)
    assert low <= 60 * int(timer[1] or 0) + int(timer[2] or 0) <= high, shown


@pytest.mark.parametrize("value, opened, admitted", [
    ("1 2", [1, 1, 1, 2], [True, True, False, False]),
    ("2 1", [1, 2, 1, 3], [True, True, False, False]),
    ("2 0", [1, 2], [False, False]),
    ("0 0", [1, 1, 2], [True, True, True]),
])
def test_limit_client_ip(net, vrox, origin, value, opened, admitted):
    vrox(conf.fixed(origin, f"limit_client_ip = {value}"))

    def admit(host):
        client = net.connect(source=f"127.0.0.1{host}")
        if first_readable(client, origin) is origin:
            return client, net.accept(origin)
        assert ended(client)
        return None

    pairs = [admit(host) for host in opened]
    assert [pair is not None for pair in pairs] == admitted
    for client, upstream in filter(None, pairs):  # all given back: the same again
        client.close()
        assert ended(upstream)
    assert [admit(host) is not None for host in opened] == admitted


def test_ends_of_one_side_end_the_other(net, vrox, origin):
    """A client that is done sending is done, with nothing pending towards it: deliberate. Every slot comes back."""
    daemon = vrox(conf.later(origin, "max_sessions = 2"))
    client, upstream = net.joined(origin, b"\x01")
    exchange(client, upstream)
    client.sendall(b"\x01 last")
    client.shutdown(socket.SHUT_WR)
    assert read_all(upstream) == b"\x01 last"
    assert ended(client)
    client, upstream = net.joined(origin, b"\x01")
    upstream.sendall(b"last words")
    upstream.shutdown(socket.SHUT_WR)
    assert read_all(client) == b"last words"
    for turn in range(6):
        reset(net.connect())  # before its first byte
        client, upstream = net.joined(origin, b"\x01")
        bulk.send(upstream, 100_000)
        gone, left = (client, upstream) if turn % 2 else (upstream, client)
        reset(gone)
        read_all(left)
    assert daemon.err == ""


EITHER_WAY = pytest.mark.parametrize("upload", [True, False], ids=["upload", "download"])


@EITHER_WAY
def test_an_end_in_the_last_segment_of_a_conversation(net, vrox, origin, upload):
    """Small messages that come one at a time are no longer asked whether they were the last."""
    vrox(conf.fixed(origin))
    client, upstream = net.joined(origin)
    for _ in range(20):
        exchange(client, upstream)
    source, sink = (client, upstream) if upload else (upstream, client)
    source.setsockopt(socket.IPPROTO_TCP, socket.TCP_CORK, 1)  # the end goes with the bytes
    source.sendall(b"\x01 last")
    source.shutdown(socket.SHUT_WR)
    assert read_all(sink) == b"\x01 last"
    assert ended(source)


def transfer(net, origin, upload, total):
    """Starts `total` bytes one way over a new connection: the thread that sends them, and where they arrive."""
    client, upstream = net.joined(origin)
    source, sink = (client, upstream) if upload else (upstream, client)
    return net.spawn(lambda: (bulk.send(source, total), source.shutdown(socket.SHUT_WR))), sink


@EITHER_WAY
@pytest.mark.parametrize("total", [40 * MIB, pytest.param(1 << 30, marks=pytest.mark.slow)])
def test_big_transfers_arrive_whole(net, vrox, origin, upload, total):
    daemon = vrox(conf.fixed(origin))
    for size in 16 * MIB, total:
        before = daemon.rss_kib()
        _, sink = transfer(net, origin, upload, size)
        assert bulk.receive(sink, size + 1) == bulk.expected(size)
    assert SANITIZED or daemon.rss_kib() < before + 1024


def test_both_directions_at_once(net, vrox, origin):
    vrox(conf.fixed(origin))
    bulk.both_ways(net, *net.joined(origin), 8 * MIB)


@EITHER_WAY
def test_a_stalled_reader_holds_back_the_sender(net, vrox, origin, upload):
    """What waits inside the daemon is bounded, and all of it arrives once the reader goes on, if slowly."""
    daemon = vrox(conf.fixed(origin))
    other = net.joined(origin)
    exchange(*other)
    before = daemon.rss_kib()
    sender, sink = transfer(net, origin, upload, 32 * MIB)
    sender.join(1)
    assert sender.is_alive()
    assert SANITIZED or daemon.rss_kib() < before + 1024
    exchange(*other)  # nobody else is held back
    assert bulk.receive(sink, 33 * MIB, pause=0.001, piece=1 << 15) == bulk.expected(32 * MIB)


def test_connections_leave_nothing_behind(net, vrox, origin):
    """Many at once, each with a message of its own, so that mixed up sessions show."""
    daemon = vrox(conf.fixed(origin))
    descriptors, memory = daemon.fds(), []
    for _ in range(6):
        clients = [net.connect() for _ in range(200)]
        for i, client in enumerate(clients):
            client.sendall(b"\x01%06d" % i)
        for _ in clients:
            with net.accept(origin) as upstream:
                upstream.sendall(read_exactly(upstream, 7)[::-1])
        for i, client in enumerate(clients):
            assert read_all(client) == (b"\x01%06d" % i)[::-1]
            client.close()
        until(lambda: daemon.fds() == descriptors, "every descriptor is closed")
        memory.append(daemon.rss_kib())
    assert SANITIZED or memory[-1] <= memory[1] + 256
    assert daemon.err == ""


def test_out_of_descriptors(net, vrox, origin):
    """The listener waits instead of spinning, and comes back."""
    daemon = vrox(conf.fixed(origin))
    soft, hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (daemon.fds() + 5, hard))
    pairs = [net.joined(origin) for _ in range(2)]
    waiting = [net.connect() for _ in range(3)]
    assert all(silent(client, 0.1) or ended(client) for client in waiting)
    for client, upstream in pairs:
        exchange(client, upstream)
        client.close()
        upstream.close()
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (soft, hard))
    net.connect().sendall(b"\x01 again")
    seen = b""
    while seen != b"\x01 again":  # those that waited come first
        upstream = net.accept(origin)
        seen = upstream.recv(8) if not silent(upstream, 0.1) else b""
    assert daemon.err.count("\n") < 50
