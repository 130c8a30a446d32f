"""UDP over HTTP: both listeners, the tunnels, and a far end that knows the wire and nothing else."""
import random
import signal
import socket
import struct
import threading
import time

import pytest

from lib import conf, socks5
from lib.conf import AGENT, PASSWORD
from lib.daemon import SWEEP_BIN, alive
from lib.net import (admit_fast_open, bytewise, came_in_syn, ended, ip, listeners, nft, port_of, read_exactly,
                     reset, silent)
from lib.udp_tunnel import (OK, RELAY_PORT, TPROXY_PORT, Tunnel, frame, header, transparent, udp)
from lib.wait import DEADLINE, until

CIPHERS = pytest.mark.parametrize("password", [None, PASSWORD], ids=["plain", "enciphered"])
SERVICE, SERVICE6 = ("198.51.100.5", 4000), ("2001:db8::5", 4000)
HERE, HERE6 = "10.77.0.1", "fd77::1"
WAYS = [(origin, v6) for origin in ("transparent", "relay") for v6 in (False, True)]


def http_udp(far, *lines, password=None, tproxy=f":::{TPROXY_PORT}", relay=f":::{RELAY_PORT}"):
    return conf.section(
        "httpUDP", *([f"udp_tproxy_listen = {tproxy}"] if tproxy else []),
        *([f"udp_socks5_listen = {relay}"] if relay else []), conf.to(far),
        *([f"encrypt = {password}"] if password else []), *lines)


class Client:
    """A client and the one service that it talks to, whichever way its datagrams come to the daemon."""

    def __init__(self, net, origin, v6=False):
        self.header = header(*(SERVICE6 if v6 else SERVICE))
        self.transparent = origin == "transparent"
        if self.transparent:
            self.sock = udp(net, HERE6 if v6 else HERE, peer=SERVICE6 if v6 else SERVICE)
        else:
            self.sock = udp(net, "::1" if v6 else "127.0.0.1", peer=("::1" if v6 else "127.0.0.1", RELAY_PORT))

    def send(self, payload):
        self.sock.send(payload if self.transparent else self.header + payload)

    def receive(self):
        got = self.sock.recv(1 << 17)
        if self.transparent:
            return got
        assert got.startswith(self.header)
        return got[len(self.header):]


@pytest.fixture
def far(net):
    return net.listen()


@pytest.fixture(autouse=True)
def _transparent(_namespace):
    transparent()


def accept(net, far, password=None, answer=OK):
    return Tunnel(net.accept(far), password, answer)


def opened(net, far, client, first=b"x", password=None, answer=OK):
    """The tunnel that a client's first datagram opens."""
    client.send(first)
    tunnel = accept(net, far, password, answer)
    assert tunnel.read() == client.header + first
    return tunnel


def pair(net, far, origin="relay", v6=False, **how):
    client = Client(net, origin, v6)
    return client, opened(net, far, client, **how)


def ping(client, tunnel, text=b"ping", back=b"pong"):
    client.send(text)
    assert tunnel.read() == client.header + text
    tunnel.send(client.header + back)
    assert client.receive() == back


# The tunnel's request

TYPE = b"ZeltProxyType: httpUDP\r\n"


def default_request(host):
    return b"CONNECT %s HTTP/1.1\r\nHost: %s\r\n" % (host, host) + AGENT + TYPE + b"\r\n"


@pytest.mark.parametrize("lines, request_", [
    ([], default_request(b"[H]")),
    (["header_host = far.test:8080"], default_request(b"far.test:8080")),
    (["httpMod = h", "header_host = a.b"], b"PUT /far HTTP/1.1\r\nHost: a.b\r\nX: y\r\n\r\n"),
], ids=["default", "host", "httpMod"])
def test_the_request(net, vrox, far, lines, request_):
    mod = conf.http_mod("h", r"set_first = PUT /far [V]\r\n", "del_line = User-Agent",
                        "strrep = ZeltProxyType: httpUDP -> X: y")
    daemon = vrox(http_udp(far, *lines) + mod)
    assert pair(net, far)[1].request == request_
    assert daemon.out == "1\n"


def test_requests_that_cannot_be_made(run_vrox, vrox, far):
    text = http_udp(far, "httpMod = h", "http_header = nonsense") + conf.http_mod("h", "del_line = X")
    assert run_vrox(conf=text) == (1, "1\n", "httpUDP request creation failed\n")
    daemon = vrox(conf.tcp_global() + conf.section("httpUDP", f"udp_socks5_listen = :::{RELAY_PORT}"))
    assert daemon.out == ""  # no destination, no service


def test_the_request_follows_captured_headers(net, vrox, far):
    origin = net.listen()
    mod = conf.http_mod("h", "save_line = X-Token -> 0", r"strrep = \r\n\r\n -> \r\nX: use_value(X-Token)\r\n\r\n")
    vrox(http_udp(far, "httpMod = h") + mod + conf.later(origin, up=["httpMod = h"]))
    assert b"\r\nX: use_value(X-Token)\r\n" in pair(net, far)[1].request
    for token in b"one", b"two":
        net.connect().sendall(b"GET / HTTP/1.1\r\nHost: a\r\nX-Token: %s\r\n\r\n" % token)
        assert b"\r\nX: %s\r\n" % token in net.accept(origin).recv(4096)
        assert b"\r\nX: %s\r\n" % token in pair(net, far)[1].request


# Both listeners

SIZES = [0, 1, 63, 64, 1472, 4083, 4084, 9000, 65497 - 10, 65497]


@CIPHERS
def test_datagrams_both_ways(net, vrox, far, password):
    """Every kind of client has a tunnel of its own, through which datagrams of every size go."""
    vrox(http_udp(far, password=password))
    pairs = []
    for origin, v6 in WAYS:
        client = Client(net, origin, v6)
        client.send(b"first")
        client.send(b"")
        tunnel = accept(net, far, password, answer=None)
        assert tunnel.read() == client.header + b"first"  # the proxy's answer is not waited for
        assert tunnel.read() == client.header
        tunnel.send_raw(OK + tunnel.encode(frame(client.header + b"with the answer")))
        assert client.receive() == b"with the answer"
        pairs.append((client, tunnel))
    for size in SIZES:
        for client, tunnel in pairs:
            data = random.randbytes(min(size, 65507 - len(client.header)))
            ping(client, tunnel, data, data[::-1])
    assert net.idle(far, 0.05)


def test_replies_come_from_the_address_that_they_name(net, vrox, far):
    vrox(http_udp(far))
    for source, services in ((HERE, [("198.51.100.%d" % i, 1000 + j) for i in range(1, 9) for j in range(3)]),
                             (HERE6, [("2001:db8::%x" % i, 1000 + i) for i in range(1, 9)])):
        client = udp(net, source)
        client.sendto(b"x", services[0])
        tunnel = accept(net, far)
        assert tunnel.read() == header(*services[0]) + b"x"
        for service in services:  # all through one tunnel, also where the client has not been
            tunnel.send(header(*service) + b"from %r" % (service,))
            data, sender = client.recvfrom(100)
            assert (data, sender[:2]) == (b"from %r" % (service,), service)
        for service in services:
            client.sendto(b"to %r" % (service,), service)
            assert tunnel.read() == header(*service) + b"to %r" % (service,)  # not to the reply's socket
    # An IPv4-mapped address is an IPv4 one; the other family is none that a client could hear from.
    client, tunnel = pair(net, far, "transparent")
    mapped = b"\0\0\0\4" + bytes(10) + b"\xff\xff" + client.header[4:]
    tunnel.send(header("2001:db8::1", 1) + b"lost", mapped + b"mapped")
    assert client.receive() == b"mapped"


def test_firewalls_that_look_for_sockets_first(net, vrox, far):
    """A common shortcut in front of the tproxy rule; a reply's socket must not be found by it."""
    nft("insert rule inet divert prerouting meta l4proto udp socket transparent 1 socket wildcard 0 "
        "meta mark set 1 accept")
    vrox(http_udp(far))
    for v6 in False, True:
        client, tunnel = pair(net, far, "transparent", v6)
        for _ in range(3):
            ping(client, tunnel)


def test_reply_sockets_are_bounded(net, vrox, far):
    daemon = vrox(http_udp(far))
    client = udp(net, HERE)
    client.sendto(b"x", SERVICE)
    tunnel = accept(net, far)
    tunnel.read()
    before = daemon.fds()
    services = [(SERVICE[0], 2000 + i) for i in range(1500)]
    for start in range(0, len(services), 100):
        some = [*services[start:start + 100], SERVICE]
        tunnel.send(*(header(*service) + b"%d" % service[1] for service in some))
        for service in some:
            assert client.recvfrom(100) == (b"%d" % service[1], service)
    assert daemon.fds() == before + 1024


def test_a_relay_client_is_answered_from_where_it_sent_to(net, vrox, far):
    """And is another client than the one that comes from the same address by the transparent way."""
    vrox(http_udp(far))
    sock = udp(net, HERE)
    sock.sendto(b"1", SERVICE)
    other = accept(net, far)
    assert other.read() == header(*SERVICE) + b"1"
    ip("addr add 10.77.3.4 dev lo")
    tunnel, datagram = None, header("a.name.test", 53) + b"to a name"
    for relay in ("127.0.0.1", HERE, "10.77.3.4"):
        sock.sendto(datagram, (relay, RELAY_PORT))
        tunnel = tunnel or accept(net, far)
        assert tunnel.read() == datagram  # as it is
        tunnel.send(datagram)
        assert sock.recvfrom(100) == (datagram, (relay, RELAY_PORT))
    other.send(header(*SERVICE) + b"one")
    assert sock.recvfrom(100) == (b"one", SERVICE)


# SOCKS5 clients

PORT = struct.pack(">H", RELAY_PORT)
ASSOCIATIONS = [
    ("127.0.0.1", socks5.request("0.0.0.0", 0, 3), b"\5\0\0\1" + bytes([127, 0, 0, 1]) + PORT),
    (HERE, socks5.request("192.0.2.1", 9, 2), b"\5\0\0\1" + bytes([10, 77, 0, 1]) + PORT),  # BIND, too
    # the type is the request's, whatever the address
    ("127.0.0.1", socks5.request("::", 0, 3), b"\5\0\0\4" + bytes([127, 0, 0, 1]) + PORT),
    ("::1", socks5.request("host", 1, 3), b"\5\0\0\3" + bytes(15) + b"\1" + PORT),
    ("::1", socks5.request("::", 0, 3), b""),  # no room for IPv6
]


def test_associations(net, vrox, far):
    vrox(http_udp(far) + conf.socks5())
    client, tunnel = pair(net, far)
    for via, request_, reply in ASSOCIATIONS:
        conn = socks5.greeted(net, via)
        conn.sendall(request_)
        if reply:
            assert read_exactly(conn, len(reply)) == reply
            conn.sendall(b"x")  # nothing is expected here any more
        assert ended(conn)
        ping(client, tunnel)


# The way to the far end


def test_destinations(net, vrox, far):
    """Two that take turns; the datagram's own; and none, which is the less used one while a tunnel is open."""
    second, origin, other_relay = net.listen("::1"), net.listen(HERE), ("127.0.0.1", RELAY_PORT + 1)
    admit_fast_open(far)
    vrox(http_udp(far, conf.to(second, "::1"), "tcp_option = TFO"))
    for i in range(6):
        client, tunnel = pair(net, (far, second)[i % 2])
        ping(client, tunnel)
        assert i != 4 or came_in_syn(tunnel.conn)
    vrox(conf.section("httpUDP", f"udp_socks5_listen = :::{other_relay[1]}", "destAddr = original_dst",
                      "destAddr = deny_network"))
    named, own = header("a.name.test", 1) + b"x", header(HERE, port_of(origin)) + b"x"
    for datagram in named, own:  # a name is no address, and then it is the other one's turn
        udp(net).sendto(datagram, other_relay)
        assert net.idle(origin, 0.05)
    udp(net).sendto(own, other_relay)
    tunnel = accept(net, origin)
    assert tunnel.read() == own
    for _ in range(2):
        udp(net).sendto(own, other_relay)
        assert net.idle(origin, 0.05)
    tunnel.conn.close()


@pytest.mark.parametrize("login, option, send", [
    (None, [], bytewise), (("me", "a word"), ["tcp_option = TFO"], socket.socket.sendall)], ids=["bytewise", "login"])
def test_through_a_socks5_proxy(net, vrox, far, login, option, send):
    proxy = net.listen()
    admit_fast_open(proxy)
    way = f"socks5_set_dst = 127.0.0.1:{port_of(proxy)}" + (" me a word" if login else "")
    vrox(http_udp(far, way, *option, password=PASSWORD))
    client = Client(net, "transparent")
    client.send(b"x")
    client.send(b"y")
    conn = net.accept(proxy)
    socks5.serve(conn, ("127.0.0.1", port_of(far)), login, send=send)
    send(conn, socks5.CONNECTED)
    tunnel = Tunnel(conn, PASSWORD)
    assert [tunnel.read(), tunnel.read()] == [client.header + b"x", client.header + b"y"]
    ping(client, tunnel)


# Streams of frames


def test_order_and_boundaries(net, vrox, far):
    """Numbered datagrams of many sizes, both ways at once: none twice, none out of its place."""
    vrox(http_udp(far, password=PASSWORD))
    client, tunnel = pair(net, far, "transparent", password=PASSWORD)
    count, rng = 4000, random.Random(3)
    sizes = [rng.choice([4, 20, 64, 500, 1400, 3000]) for _ in range(count)]
    datagrams = [struct.pack("=I", i) + bytes([i & 0xFF]) * (size - 4) for i, size in enumerate(sizes)]
    # No more at a time than any socket keeps: a slow reader loses nothing.
    room_up, room_down = threading.Semaphore(32), threading.Semaphore(32)

    def upload():
        for datagram in datagrams:
            room_up.acquire(timeout=DEADLINE)
            client.send(datagram)

    def download():
        for datagram in datagrams:
            room_down.acquire(timeout=DEADLINE)
            tunnel.send(client.header + datagram)

    def read():
        for datagram in datagrams:
            assert client.receive() == datagram
            room_down.release()

    threads = [net.spawn(work) for work in (upload, download, read)]
    for datagram in datagrams:
        assert tunnel.read() == client.header + datagram
        room_up.release()
    for thread in threads:
        thread.join(3 * DEADLINE)
        assert not thread.is_alive()


@pytest.mark.parametrize("origin", ["transparent", "relay"])
def test_slots(net, vrox, far, origin):
    """All in use: who has one goes on; a new client waits, and is served when one is free."""
    daemon = vrox(http_udp(far, "max_sessions = 2"))
    pairs = [pair(net, far, way) for way in ("relay", "transparent")]
    late = [Client(net, origin), Client(net, origin)]
    for i in range(3):
        for j, client in enumerate(late):
            client.send(b"late %d %d" % (j, i))
    assert net.idle(far)
    with daemon.at_rest():
        for client, tunnel in pairs:
            ping(client, tunnel)
        assert net.idle(far)
    for j, client in enumerate(late):  # a place for one, then for the other
        pairs[j][1].conn.close()
        new = accept(net, far)
        assert [new.read() for _ in range(3)] == [client.header + b"late %d %d" % (j, i) for i in range(3)]
        ping(client, new)
        assert net.idle(far, 0.1)


# Far ends in trouble


def test_datagrams_before_the_far_end_is_there(net, vrox):
    """They wait while it connects, 64 KiB ones too, and go out in their order."""
    far = net.listen(backlog=0)
    vrox(http_udp(far))
    # Takes the only place in the backlog, so that the daemon's SYN is not answered at first.
    filler = net.connect(port=port_of(far))
    client = Client(net, "relay")
    sizes = [10, 65000, 60000, 1, 65000, 20000]
    for size in sizes:
        client.send(bytes([size & 0xFF]) * size)
        time.sleep(0.01)
    assert net.accept(far).getpeername() == filler.getsockname()
    tunnel = accept(net, far)
    for size in sizes:
        assert tunnel.read() == client.header + bytes([size & 0xFF]) * size


def test_far_ends_that_go(net, vrox, far):
    """The next datagram opens a new tunnel, and the few slots are used again."""
    daemon = vrox(http_udp(far, "max_sessions = 2"))
    client, bystander = Client(net, "transparent"), Client(net, "transparent")
    calm = opened(net, far, bystander)
    ping(bystander, calm)
    before = daemon.fds()
    for i in range(20):
        tunnel = opened(net, far, client, b"%d" % i, answer=OK if i % 3 else None)
        (reset if i % 2 else socket.socket.close)(tunnel.conn)
        until(lambda: daemon.fds() == before, "the tunnel is closed")
        ping(bystander, calm)
    port = port_of(far)
    far.close()
    for _ in range(20):
        client.send(b"lost")
        ping(bystander, calm)
    ping(client, opened(net, net.listen(port=port), client))


NONSENSE = {
    "length 0": struct.pack("=H", 0) + b"\0",
    "below any header": struct.pack("=H", 9) + b"\0\0\0\1" + bytes(5),
    "IPv6 header cut": struct.pack("=H", 21) + b"\0\0\0\4" + bytes(17),
    "behind a good one": frame(header(*SERVICE) + b"good") + struct.pack("=H", 3) + b"\0\0\0",
}


@pytest.mark.parametrize("origin", ["transparent", "relay"])
def test_nonsense_ends_the_tunnel(net, vrox, far, origin):
    vrox(http_udp(far))
    client, (bystander, calm) = Client(net, origin), pair(net, far, origin)
    for name, bytes_ in NONSENSE.items():
        tunnel = opened(net, far, client)
        ping(client, tunnel)
        tunnel.send_raw(bytes_)
        if "good" in name:
            assert client.receive() == b"good"
        assert ended(tunnel.conn), name
        ping(bystander, calm)
    tunnel = opened(net, far, client)
    tunnel.send_raw(struct.pack("=H", 5000) + client.header)  # a length beyond what comes: it waits
    assert silent(client.sock)
    ping(bystander, calm)
    tunnel.send_raw(bytes(4990))
    assert client.receive() == bytes(4990)


# Time and the end


def test_idle_tunnels(net, vrox, far):
    vrox(http_udp(far, "timeout = 2"), binary=SWEEP_BIN)
    begun = time.monotonic()
    (idle, tunnel), (busy, kept) = pair(net, far), pair(net, far)
    while tunnel.silent(0.2):
        ping(busy, kept)
    assert time.monotonic() - begun >= 1.5
    ping(busy, kept)
    opened(net, far, idle, b"again")


def test_tunnels_without_a_limit_and_with_nothing_moving(net, vrox, far):
    """A client that goes on sending does not keep a tunnel whose far end takes nothing."""
    far.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 14)
    vrox(http_udp(far, "timeout = 1"), binary=SWEEP_BIN)
    patient, other_relay = net.listen(), RELAY_PORT + 1
    vrox(http_udp(patient, "timeout = 0", tproxy=None, relay=f":::{other_relay}"), binary=SWEEP_BIN)
    udp(net).sendto(header(*SERVICE) + b"x", ("127.0.0.1", other_relay))
    kept = accept(net, patient)
    kept.read()
    client = Client(net, "relay")
    client.send(b"x")
    accept(net, far)

    def again():
        for _ in range(50):
            client.send(bytes(1400))
        return not net.idle(far, 0.02)

    until(again, "a new tunnel")
    assert kept.silent(2)


def test_graceful_stop(net, vrox, far):
    """The listeners close at once; open tunnels go on, and SOCKS5 clients are still answered."""
    daemon = vrox(http_udp(far, "timeout = 0"), binary=SWEEP_BIN)
    pairs = [pair(net, far, *way) for way in WAYS]
    daemon.signal(signal.SIGUSR1)
    until(lambda: not {port for _, port in listeners("udp")} & {RELAY_PORT, TPROXY_PORT}, "the listeners are closed")
    # A new instance takes over the addresses, though the old one still answers from them.
    vrox(http_udp(far))
    for _ in range(2):
        for client, tunnel in pairs:
            tunnel.send(client.header + b"still")
            assert client.receive() == b"still"
        ping(*pair(net, far))
    assert alive(daemon.pid)
    for _, tunnel in pairs:
        tunnel.conn.close()
    assert daemon.wait() == 0


def test_workers(net, vrox, far):
    daemon = vrox(http_udp(far), workers=3)
    until(lambda: daemon.out == "1\n" * 3, "every process has its service")
    for origin in ("relay", "transparent") * 10:  # whoever takes the first datagram has the tunnel
        client, tunnel = pair(net, far, origin)
        tunnel.send(client.header + b"back")
        assert client.receive() == b"back"
    daemon.end_one(daemon.pids[0])
