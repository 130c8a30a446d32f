"""The DNS server: rules, lookups over TCP and by HTTP, the ways out, and the cache."""
import contextlib
import random
import signal
import socket
import stat
import struct
import threading
import time

import pytest

from lib import conf, socks5
from lib.conf import AGENT, PASSWORD, dns_global
from lib.daemon import DNS_PORT, SWEEP_BIN
from lib.dns import A, AAAA, question_of, reply_to
from lib.far_end import FarEnd, PlainEnd
from lib.net import bytewise, family_of, listeners, port_of, read_exactly, read_until, reset, silent
from lib.udp_tunnel import udp
from lib.wait import DEADLINE, until

MX, TXT = 15, 16


def rule(name, *lines):
    return conf.section(f"dnsAcl::{name}", *lines)


def over_tcp(port, *lines, name="all", domain="."):
    return rule(name, f"reg_domain = {domain}", conf.to(port), "lookup_mode = tcpDNS", *lines)


def by_http(port, *lines, name="all", domain="."):
    return rule(name, f"reg_domain = {domain}", conf.to(port), "header_host = lookup.test", *lines)


# Clients


def query_for(name, kind=A, ident=0x1234):
    labels = b"".join(bytes([len(part)]) + part for part in name.encode().split(b".")) + b"\0"
    return struct.pack(">HHHHHH", ident, 0x0100, 1, 0, 0, 0) + labels + struct.pack(">HH", kind, 1)


class Client:
    """A UDP socket connected to the server: an answer from elsewhere is not seen."""

    def __init__(self, net, address="127.0.0.1", port=DNS_PORT):
        self.socket = net.keep(socket.socket(family_of(address), socket.SOCK_DGRAM))
        self.socket.settimeout(DEADLINE)
        self.socket.connect((address, port))
        self.send = self.socket.send

    def receive(self):
        return self.socket.recv(65536)

    def ask(self, query):
        self.send(query)
        return self.receive()

    def is_served(self, name="good.example", address="192.0.2.1"):
        query = query_for(name, ident=random.randrange(65536))
        return self.ask(query) == reply_to(query, [address])


@pytest.fixture
def client(net):
    return Client(net)


# Upstreams


def read_framed(conn):
    return read_exactly(conn, struct.unpack(">H", read_exactly(conn, 2))[0])


def framed(message):
    return struct.pack(">H", len(message)) + message


class TcpNames:
    """A DNS server over TCP: answers with one address, keeps what it is asked, and can be told otherwise."""

    def __init__(self, net, address="192.0.2.1", respond=None):
        self.asked, self.address, self.respond = [], address, respond or self.answer
        self.gate = threading.Event()
        self.port = net.serve(self.handle)

    def answer(self, conn, query):
        conn.sendall(framed(reply_to(query, [self.address])))

    def answer_later(self, conn, query):
        self.gate.wait(DEADLINE)
        self.answer(conn, query)

    def handle(self, conn):
        query = read_framed(conn)
        self.asked.append(query)
        self.respond(conn, query)


class HttpNames:
    """An HTTP lookup server with one response, or one for each name; keeps the request heads."""

    def __init__(self, net, response, size=10**6):
        self.response, self.size, self.heads = response, size, []
        self.port = net.serve(self.handle)

    def handle(self, conn):
        head = read_until(conn, b"\r\n\r\n")
        self.heads.append(head)
        many = isinstance(self.response, dict)
        bytewise(conn, self.response[head.split()[1].split(b"=")[1]] if many else self.response, self.size)


def ok(body, *headers):
    return b"".join([b"HTTP/1.1 200 OK\r\n", *(h + b"\r\n" for h in headers), b"\r\n", body])


def answer_of(query, address="1.2.3.4"):
    kind = question_of(query)[1]
    data = socket.inet_pton(socket.AF_INET, address)
    if kind == AAAA:
        data = bytes(10) + b"\xff\xff" + data
    return (query[:2] + bytes.fromhex("85800001000100000000") + query[12:] + b"\xc0\x0c"
            + struct.pack(">HHIH", kind, 1, 3600, len(data)) + data)


def failure_of(query):
    return query[:2] + bytes.fromhex("81820001000000000000") + query[12:]


# Listening and classifying


@pytest.mark.parametrize("listen, asked", [
    ("0.0.0.0", ["127.0.0.1", "127.9.8.7", "10.77.3.4"]), ("::", ["127.0.0.1", "10.77.3.4", "::1", "fd77::3:4"])])
def test_answers_come_from_the_address_that_was_asked(net, vrox, listen, asked):
    names = TcpNames(net)
    vrox(dns_global("cachePath = cache", listen=f"{listen}:{DNS_PORT}") + over_tcp(names.port))
    for number, address in enumerate(asked):
        client = Client(net, address)  # connected: only hears this address
        assert client.is_served(f"www{number}.example") and client.is_served(f"www{number}.example")
    assert len(names.asked) == len(asked)  # the others were served from the cache
    everyone = udp(net, "10.77.0.1")
    everyone.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    everyone.sendto(query_for("www0.example"), ("10.77.255.255", DNS_PORT))
    assert everyone.recvfrom(512)[1] == ("10.77.0.1", DNS_PORT)


def test_first_rule_with_a_matching_condition_wins(net, vrox, client):
    upstreams = {name: TcpNames(net, f"192.0.2.{i}") for i, name in enumerate(["mail", "lan", "six", "rest"])}
    conditions = {
        "mail": ["query_type = mx", "query_type = TXT"], "lan": [r"reg_domain = \.lan$", "reg_domain = ^router$"],
        "six": ["query_type = AAAA", r"reg_domain = ^v6\."], "rest": ["query_type = A"]}
    never = rule("never", conf.to(upstreams["rest"].port), "lookup_mode = tcpDNS")  # no condition: takes nothing
    vrox(dns_global() + never + "".join(rule(name, *conditions[name], conf.to(names.port), "lookup_mode = TCPdns")
                                        for name, names in upstreams.items()))
    for name, kind, expected in [
            ("www.example", 2, None), ("lan", 33, None), ("www.example", MX, "mail"), ("pc.lan", TXT, "mail"),
            ("pc.lan", A, "lan"), ("PC.LAN", AAAA, "lan"), ("router", A, "lan"), ("router.example", A, "rest"),
            ("www.example", AAAA, "six"), ("v6.example", A, "six"), ("xv6.example", A, "rest")]:
        query = query_for(name, kind, random.randrange(65536))
        client.send(query)
        if expected:
            assert client.receive()[:2] == query[:2]
            assert upstreams[expected].asked.pop() == query, (name, kind)
    assert silent(client.socket) and not any(names.asked for names in upstreams.values())


# DNS over TCP


def garbled(conn, query):
    kind = question_of(query)[0].removeprefix("bad.")
    good = framed(reply_to(query, ["192.0.2.1"]))
    if kind == "resets":
        return reset(conn)
    return conn.sendall({
        "foreign": framed(reply_to(query_for("other.example"), ["192.0.2.66"])),
        "bare": framed(query[:2] + bytes.fromhex("81800000000000000000")), "closes": b"", "cut": good[:-1],
        "empty": b"\0\0", "twice": good + good, "ident": good[:2] + b"\xff\xff" + good[4:], "byte": framed(b"\x12"),
    }[kind])


def test_upstreams_that_misbehave(net, vrox, client):
    """Each costs its own query at most, and never the slot; a foreign answer is not remembered."""
    good, bad = TcpNames(net), TcpNames(net, respond=garbled)
    daemon = vrox(dns_global("max_sessions = 1", "cachePath = cache") + over_tcp(bad.port, name="bad", domain="^bad")
                  + over_tcp(good.port))
    idle = daemon.fds()
    for kind, replies, lookups in [("closes", 0, 3), ("resets", 0, 3), ("cut", 0, 3), ("empty", 0, 3), ("byte", 1, 3),
                                   ("foreign", 1, 3), ("bare", 1, 3), ("twice", 1, 1), ("ident", 1, 1)]:
        for i in range(3):
            client.send(query_for("bad." + kind))
            if replies:
                client.receive()
            assert client.is_served(f"good.{kind}{i}")
        assert len(bad.asked) == lookups, kind
        bad.asked.clear()
    until(lambda: daemon.fds() == idle, "every connection is closed")
    assert daemon.err == ""


def test_ways_that_lead_nowhere(net, vrox, client):
    closed, good = net.listen(), TcpNames(net)
    port = port_of(closed)
    closed.close()
    mute, refusing = (tunnel_server(net, None, status=status) for status in (b"", b"HTTP/1.1 403 No\r\n\r\n"))
    ways = {"refused": [conf.to(port)], "nowhere": [conf.to(53, "2001:db8::1")], "deny": ["destAddr = deny_network"],
            "mute": [conf.to(mute), "tunnel_proxy = on"], "refusing": [conf.to(refusing), "tunnel_proxy = on"],
            "empty": []}
    daemon = vrox(dns_global("max_sessions = 1") + over_tcp(good.port, name="good", domain="^good")
                  + "".join(rule(name, f"reg_domain = ^{name}", "lookup_mode = tcpDNS", *way)
                            for name, way in ways.items()))
    for name in [*ways] * 2:
        client.send(query_for(name))
        assert client.is_served("good." + name)
    assert daemon.err == ""


def test_destinations_take_turns(net, vrox, client):
    """And nothing is kept without `cachePath`."""
    upstreams = [TcpNames(net, f"192.0.2.{i}") for i in range(3)]
    vrox(dns_global() + over_tcp(upstreams[0].port, *(conf.to(u.port) for u in upstreams[1:])))
    for turn in range(7):
        assert client.is_served("www.example", f"192.0.2.{turn % 3}")


def test_full_table_stops_listening_until_a_query_ends(net, vrox, client):
    names = TcpNames(net)
    names.respond = names.answer_later
    daemon = vrox(dns_global("max_sessions = 2") + over_tcp(names.port))
    queries = [query_for(f"n{i}.example", ident=i) for i in range(5)]
    for query in queries:
        client.send(query)
    until(lambda: len(names.asked) == 2, "two queries are looked up")
    with daemon.at_rest():
        assert silent(client.socket) and len(names.asked) == 2
    names.gate.set()
    assert sorted(client.receive() for _ in queries) == sorted(reply_to(q, ["192.0.2.1"]) for q in queries)


# HTTP lookups


LOOKUP = b"GET /d?dn=www.example HTTP/1.1\r\nHost: lookup.test\r\nConnection: Close\r\n" + AGENT + b"\r\n"


def test_http_lookup_serves_addresses_only(net, vrox, client):
    names = HttpNames(net, ok(b"1.2.3.4"))
    vrox(dns_global("max_sessions = 1") + by_http(names.port))
    for kind in MX, TXT, 255, 65:
        client.send(query_for("www.example", kind))
    client.send(query_for("www.exa mple"))  # would end the request's target
    client.send(query_for("x HTTP/1.1\r\nX: y"))
    for name, kind in ("www.example", A), ("www.example", AAAA), ("x" * 63 + "." + "y" * 63, AAAA):
        query = query_for(name, kind, 0xBEEF)
        assert client.ask(query) == answer_of(query)
        assert names.heads.pop() == LOOKUP.replace(b"www.example", name.encode())
        assert not names.heads


ADDRESS, FAILURE, SILENCE = "address", "failure", "silence"
HTTP_ANSWERS = [
    (ok(b"ip=1.2.3.4;60\r\n5.6.7.8\n"), ADDRESS),
    (ok(b"1.2.3.4", b"Content-Length: 7"), ADDRESS),
    (ok(b"1.2.3.4\n" + b"x" * 5000), ADDRESS),
    (ok(b"", b"Content-Length: 0"), FAILURE),
    (ok(b"no such name\n1.2.3.4\n"), FAILURE),
    (ok(b""), SILENCE),
    (b"HTTP/1.1 200 OK\r\nX: y\r\n", SILENCE),
    (b"", SILENCE),
    (ok(b"1.2.3.4\n", b"X: " + b"x" * 2048), SILENCE),  # no room for such a head
]


def test_http_answers(net, vrox, client):
    """In pieces; each is made into the exact reply, and only addresses are remembered."""
    names = HttpNames(net, {b"n%d" % i: response for i, (response, _) in enumerate(HTTP_ANSWERS)}, 9)
    vrox(dns_global("max_sessions = 1", "cachePath = cache") + by_http(names.port))
    for i, (_, outcome) in enumerate([*HTTP_ANSWERS, *HTTP_ANSWERS[:4]]):
        query = query_for(f"n{i % len(HTTP_ANSWERS)}", ident=i)
        client.send(query)
        if outcome != SILENCE:  # of the silent ones nothing must come before the next answer
            assert client.receive() == (answer_of(query) if outcome == ADDRESS else failure_of(query)), i
    until(lambda: len(names.heads) == len(HTTP_ANSWERS) + 1, "only the failure is looked up again")


def test_http_answer_whose_end_is_not_told(net, vrox, client):
    """No end of the connection, and no length or too great a one: what has come is all there is, but is not stored."""
    server = net.listen()
    vrox(dns_global("cachePath = cache") + by_http(port_of(server)))
    query = query_for("www.example")
    for pieces, silent_first in ([b"HTTP/1.1 200 OK\r\n", b"\r\n1.", b"2.3.", b"4"], False), (
            [ok(b"1.2.3.4", b"Content-Length: 9")], True), ([ok(b"1.2.3.4", b"Content-Length: 8")], False):
        client.send(query)
        conn = net.accept(server)
        read_until(conn, b"\r\n\r\n")
        for piece in pieces:
            conn.sendall(piece)
            time.sleep(0.01)
        if silent_first:
            assert silent(client.socket)  # two more bytes are due
            conn.close()
        assert client.receive() == answer_of(query)


def test_request_templates(net, vrox, client):
    names = HttpNames(net, ok(b"1.2.3.4\n"))
    own, bare = r"[M] [url]&[U] [V]\r\nHost: [H]\r\n\r\n", r"GET /[D]/[D] HTTP/1.0\r\nHost: [H]\r\n\r\n"
    vrox(dns_global() + by_http(names.port, f'http_header = "{own}"', name="own", domain="^own")
         + rule("bare", "reg_domain = ^bare", conf.to(names.port), f'http_header = "{bare}"')
         + by_http(names.port, "httpMod = m")
         + conf.http_mod("m", 'set_first = "GET /x/[D] [V]\\r\\n"', "del_line = Connection",
                         'strrep = "Pelorin" -> "P [H]"'))
    for name, head in {
        "own.example": b"GET /d?dn=own.example&/d?dn=own.example HTTP/1.1\r\nHost: lookup.test\r\n\r\n",
        "bare.example": b"GET /bare.example/bare.example HTTP/1.0\r\nHost: [H]\r\n\r\n",
        "mod.example": b"GET /x/mod.example HTTP/1.1\r\nHost: lookup.test\r\n"
                       + AGENT.replace(b"Pelorin", b"P lookup.test") + b"\r\n",
    }.items():
        query = query_for(name)
        assert client.ask(query) == answer_of(query)
        assert names.heads.pop() == head


def test_templates_that_cannot_be_built(run_vrox):
    text = dns_global() + by_http(80, 'http_header = "nothing"', "httpMod = m") + conf.http_mod("m", "del_line = X")
    status, _, err = run_vrox(conf=text)
    assert (status, err) == (1, "DNS request header creation failed\n")


# The ways out


def tunnel_server(net, inner, status=b"HTTP/1.1 200 OK\r\nX: y\r\n\r\n", ends=None, password=None):
    """An HTTP proxy whose tunnels lead to `inner`; with a password, the far end of an enciphered tunnel."""

    def handle(conn):
        end = FarEnd(conn, password) if password else PlainEnd(conn)
        if ends is not None:
            ends.append(end)
        # Only what begins like HTTP is awaited to the end of its head.
        bytewise(conn, status, 5 if status.startswith(b"HTTP") else 1000)
        if inner:
            inner(end)

    return net.serve(handle)


def framed_inner(end):
    query = end.read(*struct.unpack(">H", end.read(2)))
    bytewise(end.conn, end.encode(framed(reply_to(query, ["192.0.2.7"]))), 9)


def http_inner(end):
    assert end.read(len(LOOKUP)) == LOOKUP
    end.send(ok(b"1.2.3.4\n"))


@pytest.mark.parametrize("password, mode, option", [
    (PASSWORD, "tcpDNS", ["tcp_option = TFO"]), (None, "http", ["tcp_option = TFO"]), (PASSWORD, "http", [])])
def test_tunnels(net, vrox, client, password, mode, option):
    ends = []
    port = tunnel_server(net, framed_inner if mode == "tcpDNS" else http_inner, ends=ends, password=password)
    lines = ["tunnel_proxy = on", *([f"tunnel_encrypt = {PASSWORD}"] if password else []), *option]
    vrox(dns_global("cachePath = cache") + (over_tcp if mode == "tcpDNS" else by_http)(
        port, *lines, "header_host = lookup.test"))
    query = query_for("www.example", ident=77)
    expected = reply_to(query, ["192.0.2.7"]) if mode == "tcpDNS" else answer_of(query)
    assert client.ask(query) == expected
    name = ends[0].name
    assert ends[0].request == b"CONNECT %s HTTP/1.1\r\nHost: %s\r\n%s\r\n" % (name, name, AGENT)
    assert ends[0].host == b"lookup.test"
    again = query_for("www.example", ident=78)  # the query was kept as it came, not enciphered
    assert client.ask(again) == again[:2] + expected[2:]
    assert len(ends) == 1


def test_socks5_upstream(net, vrox, client):
    proxy = net.listen()
    way = f"socks5_set_dst = 127.0.0.1:{port_of(proxy)} ann secret", "lookup_mode = tcpDNS"
    vrox(dns_global() + rule("four", "query_type = A", "destAddr = 192.0.2.5:5353", *way)
         + rule("six", "query_type = AAAA", "destAddr = 2001:db8::5:5353", "tcp_option = TFO", *way))
    for kind, address in (A, "192.0.2.5"), (AAAA, "2001:db8::5"):
        query = query_for("www.example", kind)
        client.send(query)
        conn = net.accept(proxy)
        socks5.serve(conn, (address, 5353), ("ann", "secret"))
        conn.sendall(socks5.CONNECTED)
        assert read_framed(conn) == query
        conn.sendall(framed(reply_to(query, [])))
        assert client.receive() == reply_to(query, [])


# The cache


def record(query, reply):
    return struct.pack("=H", len(query) - 2) + query[2:] + struct.pack("=H", len(reply)) + reply


def test_hits_need_no_upstream(net, vrox, client):
    names = TcpNames(net)
    daemon = vrox(dns_global("cachePath = cache", "max_sessions = 1") + over_tcp(names.port))
    idle, first = daemon.fds(), query_for("www.example", ident=1)
    reply = client.ask(first)
    for ident in range(150):
        client.send(query_for("www.example", ident=ident))
    assert [client.receive() for _ in range(150)] == [struct.pack(">H", i) + reply[2:] for i in range(150)]
    for other in query_for("WWW.example"), query_for("www.example", AAAA), first[:2] + b"\0" + first[3:]:
        assert client.ask(other)[:2] == other[:2]  # other bytes are another query
    assert len(names.asked) == 4
    until(lambda: daemon.fds() == idle, "every connection is closed")


def test_which_replies_are_kept(net, vrox, client):
    names = TcpNames(net, respond=lambda conn, query: conn.sendall(
        framed(reply_to(query, ["192.0.2.1"], int(question_of(query)[0], 16)))))
    vrox(dns_global("cachePath = cache") + over_tcp(names.port))
    for flags, lookups in {"8180": 1, "8580": 1, "8183": 3, "8100": 3, "81a0": 3}.items():
        for _ in range(3):
            client.ask(query_for(flags))
        assert len(names.asked) == lookups, flags
        names.asked.clear()


@pytest.mark.parametrize("name", ["SIGTERM", "SIGUSR1", "SIGSEGV"])
def test_cache_file(net, vrox, client, name):
    """Created with mode 0666, written at every end newest first, read at the next start."""
    names = TcpNames(net)
    daemon = vrox(dns_global("cachePath = cache") + over_tcp(names.port))
    path = daemon.directory / "cache"
    assert path.read_bytes() == b"" and stat.S_IMODE(path.stat().st_mode) == 0o666
    queries = [query_for(f"n{i}.example", ident=i + 1) for i in range(3)]
    replies = [client.ask(query) for query in queries]
    client.ask(query_for("n1.example", ident=99))  # the stored reply takes its identifier
    replies[1] = struct.pack(">H", 99) + replies[1][2:]
    daemon.signal(getattr(signal, name))
    assert daemon.wait() == 0
    assert path.read_bytes() == b"".join(record(q, r) for q, r in reversed(list(zip(queries, replies))))

    vrox(dns_global(f"cachePath = {path}") + over_tcp(names.port))
    for query, reply in zip(queries, replies):
        assert client.ask(query) == query[:2] + reply[2:]
    assert len(names.asked) == 3


@pytest.mark.parametrize("signals, between", [
    ("SIGTERM", 0), ("SIGTERM", 0.6), ("SIGUSR1", 0.6),
    ("SIGTERM SIGABRT", 0.05)])  # the second one to the DNS thread, whose word the main thread needs
def test_cache_of_workers(net, vrox, client, signals, between):
    """Each worker writes what it got, one after the other into one file; also when the first no longer waits."""
    names = TcpNames(net)
    daemon = vrox(dns_global("cachePath = cache") + over_tcp(names.port), workers=2)
    queries = {query_for(f"n{i}.example") for i in range(30)}
    for query in queries:
        client.ask(query)
    for pid in sorted(daemon.pids):  # the first one, which has the other behind it, before that
        for name in signals.split():
            with contextlib.suppress(ProcessLookupError):
                daemon.signal(getattr(signal, name), pid)
            time.sleep(between)
    assert daemon.wait() == 0
    path, asked = daemon.directory / "cache", len(names.asked)
    assert path.stat().st_size == sum(len(record(q, reply_to(q, ["192.0.2.1"]))) for q in names.asked)
    vrox(dns_global(f"cachePath = {path}") + over_tcp(names.port))
    for query in queries:
        client.ask(query)
    assert len(names.asked) == asked


# The end


@pytest.mark.parametrize("slots, count", [(1, 3), (9, 1)])
def test_graceful_stop_answers_what_is_open_or_waits_for_a_slot(net, vrox, slots, count):
    names = TcpNames(net)
    names.respond = names.answer_later
    daemon = vrox(dns_global(f"max_sessions = {slots}") + over_tcp(names.port), binary=SWEEP_BIN)
    queries = {query_for(f"n{i}.example"): Client(net) for i in range(count)}
    for query, client in queries.items():
        client.send(query)
    until(lambda: names.asked, "the first one is looked up")
    daemon.signal(signal.SIGUSR1)
    if slots > count:  # nobody waits: the port is for the next instance
        until(lambda: ("::", DNS_PORT) not in listeners("udp"), "the listener is closed")
    names.gate.set()
    for query, client in queries.items():
        assert client.receive() == reply_to(query, ["192.0.2.1"])
    assert daemon.wait() == 0
    assert len(names.asked) == count


def test_idle_queries_are_swept(net, vrox, client):
    """Two sweeps count a query up, the next one ends it; with 0 it is kept for ever."""
    closed, names, patient = threading.Event(), TcpNames(net), net.listen()
    names.respond = lambda conn, query: (conn.recv(1), closed.set())
    vrox(dns_global("timeout = 0", listen=f"127.0.0.1:{DNS_PORT + 1}") + over_tcp(port_of(patient)),
         binary=SWEEP_BIN)
    Client(net, port=DNS_PORT + 1).send(query_for("www.example"))
    kept = net.accept(patient)
    read_framed(kept)
    vrox(dns_global("max_sessions = 1", "timeout = 2") + over_tcp(names.port), binary=SWEEP_BIN)
    begun = time.monotonic()
    client.send(query_for("stalls.example"))
    assert closed.wait(DEADLINE) and time.monotonic() - begun >= 1.5
    names.respond = names.answer
    assert client.is_served()
    assert silent(kept)
