"""Ways through upstream proxies: CONNECT tunnels, the cipher, SOCKS5, and both in one."""
import random
import socket
import subprocess

import pytest

from lib import bulk, conf, socks5
from lib.conf import AGENT, PASSWORD
from lib.daemon import SANITIZED, TCP_PORT, UID
from lib.far_end import FarEnd, PlainEnd
from lib.net import (admit_fast_open, bytewise, came_in_syn, ended, exchange, listeners, read_all, read_exactly,
                     read_until, reset, silent)
from lib.wait import until

ANSWER = (b"HTTP/1.1 200 Connection established\r\nServer: Pelorin Linux Network, (%>w<%)\r\n"
          b"Connection: keep-alive\r\n\r\n")
OK = b"HTTP/1.0 200 OK\r\nX: y\r\n\r\n"
ENCRYPT = f"tunnel_encrypt = {PASSWORD}"
ON, OVER = "tunnel_proxy = on", "tunnel_proxy = httpOverTunnel"
DST, DST6 = ("10.0.0.1", 80), ("2001:db8::7", 8443)
RAW = b"\x01\x02 no HTTP\r\n\r\n"
CONNECT = b"CONNECT h.test:443 HTTP/1.1\r\nHost: other:1\r\n\r\n"
send_all = socket.socket.sendall


def through(proxy, *lines, early=False, extra="", global_keys=()):
    """Everything goes to `proxy`, chosen with the first request or (early) when a connection is accepted."""
    return (conf.fixed if early else conf.later)(proxy, *global_keys, up=lines, extra=conf.socks5() + extra)


def get(*hosts):
    return b"GET /x HTTP/1.1\r\n" + b"".join(b"Host: " + host + b"\r\n" for host in hosts) + b"\r\n"


def asked(net, proxy, first, dst=DST):
    """A client that has said `first`, and the proxy's end of what comes of it."""
    client = socks5.connect(net, *dst)
    client.sendall(first)
    return client, net.accept(proxy)


def both_ways(client, far):
    client.sendall(b"\x01 there")
    assert far.read(7) == b"\x01 there"
    far.send(b"\x01 and back")
    assert read_exactly(client, 10) == b"\x01 and back"


# CONNECT tunnels

TUNNELLED = {
    # The connection's own destination, whatever the request says
    "ON": [
        (DST, get(b"a.b"), b"10.0.0.1:80", get(b"a.b")),
        (DST6, RAW, b"[2001:db8::7]:8443", RAW),
        (DST, CONNECT, b"10.0.0.1:80", CONNECT),  # no concern of ours: it travels inside
    ],
    # What the request is for
    "HTTPovertunnel": [
        (DST6, get(b"a.b"), b"a.b:8443", get(b"a.b")),
        (DST, get(b"a.b:8080") + b"body", b"a.b:8080", get(b"a.b:8080") + b"body"),
        (DST, get(b"[fd00::1]"), b"[fd00::1]:80", get(b"[fd00::1]")),
        (DST, get(b"[fd00::1]:81", b"c"), b"[fd00::1]:81", get(b"[fd00::1]:81", b"c")),
        (DST6, RAW, b"[2001:db8::7]:8443", RAW),
        # A CONNECT is answered here and not sent
        (DST, CONNECT, b"h.test:443", b""),
        (DST, CONNECT.replace(b":443", b""), b"h.test", b""),
        (DST, CONNECT + b"\x16\x03\x01 behind it", b"h.test:443", b"\x16\x03\x01 behind it"),
        (DST, CONNECT + get(b"a.b"), b"h.test:443", get(b"a.b")),
    ],
}


@pytest.mark.parametrize("end, encrypt", [(PlainEnd, []), (FarEnd, [ENCRYPT])], ids=["plain", "enciphered"])
@pytest.mark.parametrize("kind", TUNNELLED)
def test_tunnels(net, vrox, end, encrypt, kind):
    proxy = net.listen()
    admit_fast_open(proxy)
    vrox(through(proxy, "tunnel_proxy = " + kind, "tcp_option = TFO", *encrypt))
    for dst, first, host, tunnelled in TUNNELLED[kind]:
        client, conn = asked(net, proxy, first, dst)
        far = end(conn)
        assert far.host == host
        assert far.request == b"CONNECT %s HTTP/1.1\r\nHost: %s\r\n%s\r\n" % (far.name, far.name, AGENT)
        if kind != "ON" and first.startswith(CONNECT[:7]):  # at once, before the proxy has said anything
            assert read_exactly(client, len(ANSWER)) == ANSWER
        assert silent(far.conn, 0.02)  # nothing goes ahead of the proxy's answer
        far.conn.sendall(OK)
        assert far.read(len(tunnelled)) == tunnelled
        both_ways(client, far)
        client.close()
        assert read_all(far.conn) == b""
    assert came_in_syn(conn)
    if kind != "ON":  # a request without a host has nowhere to go
        client = socks5.connect(net, *DST)
        client.sendall(get())
        assert ended(client) and net.idle(proxy, 0.05)


def test_tunnel_requests_are_rewritten(net, vrox):
    """The template when the file is read, and the captured values with each request."""
    proxy = net.listen()
    mod = conf.http_mod(
        "t", r"strrep = CONNECT [H] HTTP/1.1 -> CONNECT [H] HTTP/1.0\r\nX-Host: [H_P]\r\nX-Tok: use_value(X-Tok)",
        "del_line = User-Agent", "save_line = X-Tok -> 0", "strrep = one -> two", "strrep = a.b -> c.d")
    vrox(through(proxy, OVER, "tunnelHttpMod = t", "httpMod = t", ENCRYPT, extra=mod))
    for request, token in (get(b"a.b"), b"use_value(X-Tok)"), (get(b"a.b\r\nX-Tok: one"), b"one"), (CONNECT, b"one"):
        far = FarEnd(asked(net, proxy, request)[1])
        assert far.request == b"CONNECT %s HTTP/1.0\r\nX-Host: %s\r\nX-Tok: %s\r\nHost: %s\r\n\r\n" % (
            far.name, far.name, token, far.name)
        assert far.host == (b"h.test:443" if request is CONNECT else b"c.d:80")


def test_enciphered_streams_in_any_pieces(net, vrox):
    """Also a CONNECT that comes byte by byte, and much at once both ways."""
    proxy, password = net.listen(), "with blanks; and \xfc"
    vrox(through(proxy, OVER, f"tunnel_encrypt = {password}"))
    client = net.connect()
    client.sendall(CONNECT[:8])
    bytewise(client, CONNECT[8:] + b"\x16first bytes")
    far = FarEnd(net.accept(proxy), password)
    assert far.host == b"h.test:443"
    assert read_exactly(client, len(ANSWER)) == ANSWER
    bytewise(far.conn, OK)
    assert far.read(12) == b"\x16first bytes"
    pick = random.Random(password)
    for _ in range(40):
        data = b"\x01" + pick.randbytes(pick.choice([0, 1, 2, 255, 256, 257, 5000, 20479, 20480, 40000]))
        if pick.random() < 0.5:
            client.sendall(data)
            assert far.read(len(data)) == data
        else:
            far.send(data)
            assert read_exactly(client, len(data)) == data
    client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 16)  # so that writes come short
    bulk.both_ways(net, client, far, 12 << 20)


def test_an_endless_head(net, vrox):
    """It ends that session before long, and nobody else notices."""
    proxy = net.listen()
    daemon = vrox(through(proxy, ON, ENCRYPT))
    other, conn = asked(net, proxy, RAW)
    calm = FarEnd(conn)
    calm.conn.sendall(OK)
    assert calm.read(len(RAW)) == RAW
    before = daemon.rss_kib()
    client, conn = asked(net, proxy, RAW)
    FarEnd(conn).conn.sendall(b"HTTP/1.1 200 OK\r\n")
    with pytest.raises(OSError):
        while True:
            conn.sendall((b"X-Nonsense: " + b"n" * 50 + b"\r\n") * 256)
            both_ways(other, calm)
    assert ended(client)
    assert SANITIZED or daemon.rss_kib() < before + 2048


def test_a_proxy_that_says_nothing(net, vrox):
    proxy = net.listen()
    daemon = vrox(through(proxy, ON))
    client, conn = asked(net, proxy, RAW)
    read_until(conn, b"\r\n\r\n")
    with daemon.at_rest():
        assert silent(client) and silent(conn, 0.1)
    client.close()
    # What the client said still waits for the proxy; with its answer it goes out, and that is the end.
    conn.sendall(OK)
    assert read_all(conn) == RAW


# SOCKS5 proxies

LOGIN = "socks5_client = user pass word"
REPLY, REPLY6 = socks5.CONNECTED, b"\x05\x00\x00\x04" + bytes(range(18))


ASKED = {"login": ("user", "pass word")}
DIALOGUES = [
    ("socks5_client = ON", {}, DST6, REPLY6),
    (LOGIN, ASKED, DST, REPLY),
    (LOGIN, {**ASKED, "method": socks5.NO_AUTH}, DST, REPLY6),  # asked for nothing: nothing is said
    # What proxies say is not examined: a refusal shows as the connection's end.
    (LOGIN, {**ASKED, "granted": b"\x01\x01"}, DST6, b"\x05\x01\x00\x01" + bytes(6)),
]


@pytest.mark.parametrize("early, send", [(False, bytewise), (True, send_all)], ids=["client first", "server first"])
def test_socks5_proxies(net, vrox, early, send):
    proxy = net.listen()
    admit_fast_open(proxy)
    for line, dialogue, dst, reply in DIALOGUES:
        daemon = vrox(through(proxy, line, "tcp_option = TFO", early=early))
        first = b"" if early else get(b"a.b") + b"behind"
        client, conn = asked(net, proxy, first, dst)
        socks5.serve(conn, dst, send=send, **dialogue)
        send(conn, reply + b"banner")  # together with the first payload
        assert read_exactly(client, 6) == b"banner"
        assert read_exactly(conn, len(first)) == first
        exchange(client, conn)
        client.close()
        assert read_all(conn) == b""
        daemon.stop()
    assert came_in_syn(conn)  # a proxy speaks when spoken to: its handshake need not wait for the client


@pytest.mark.parametrize("line, early, replies", [
    (ON, False, [b"", b"H", b"HTTP/1.1 200 OK\r\n"]), (ON, True, [b"", b"HTTP/1.1 200 OK\r\n\r"]),
    (LOGIN, False, [b"", b"\x05", b"\x05\x00", b"\x05\x02"])], ids=["client first", "server first", "socks5"])
def test_proxies_that_close_in_the_middle(net, vrox, line, early, replies):
    proxy = net.listen()
    vrox(through(proxy, line, early=early, global_keys=["max_sessions = 1"]))
    for reply in replies:
        for end in socket.socket.close, reset:  # the only slot comes back each time
            client, conn = asked(net, proxy, b"" if early else RAW)
            assert conn.recv(1 << 16)
            conn.sendall(reply)
            end(conn)
            assert ended(client)


@pytest.mark.parametrize("kind, early, send", [(ON, True, bytewise), (OVER, False, bytewise)], ids=["on", "over"])
def test_a_tunnel_behind_a_socks5_proxy(net, vrox, kind, early, send):
    """One module for both: the destination is asked of the first, and of the second once that has opened."""
    proxy = net.listen()
    vrox(through(proxy, LOGIN, kind, ENCRYPT, early=early))
    client, conn = asked(net, proxy, b"" if early else CONNECT + b"\x16 hello", DST6)
    socks5.serve(conn, DST6, send=send, **ASKED)
    send(conn, REPLY6)
    far = FarEnd(conn)
    assert far.host == (b"h.test:443" if kind == OVER else b"[2001:db8::7]:8443")
    if kind == OVER:
        assert read_exactly(client, len(ANSWER)) == ANSWER
    send(conn, OK + far.encode(b"banner"))
    assert read_exactly(client, 6) == b"banner"
    assert early or far.read(7) == b"\x16 hello"
    both_ways(client, far)


# Real programs on either side

PROXY = f"http://127.0.0.1:{TCP_PORT}"


@pytest.mark.parametrize("way, kind", [(["-x", PROXY], OVER), (["-p", "-x", PROXY], OVER), ([], ON)],
                         ids=["proxy", "connect", "redirected"])
def test_curl_through_tinyproxy(net, vrox, tmp_path, way, kind):
    """A real HTTP proxy; its own connections are not redirected."""
    body = random.Random(7).randbytes(600_000)

    def answer(conn):
        read_until(conn, b"\r\n\r\n")
        conn.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: %d\r\n\r\n" % len(body) + body)

    (tmp_path / "tinyproxy.conf").write_text("Port 3128\nListen 127.0.0.1\nTimeout 30\nMaxClients 50\n")
    with open(tmp_path / "tinyproxy.conf") as text:
        net.program("tinyproxy", "-d", "-c", f"/dev/fd/{text.fileno()}", user=UID, stdout=subprocess.DEVNULL,
                    pass_fds=[text.fileno()], cwd="/")
    until(lambda: ("127.0.0.1", 3128) in listeners(), "tinyproxy listens")
    vrox(conf.tcp_global("tcpProxy = m") + conf.module("m", conf.to(3128), kind), "-u", UID)
    net.redirect()
    url = f"http://10.77.3.4:{net.serve(answer, '10.77.3.4')}/"
    done = subprocess.run(["curl", "-sS", "--max-time", "20", "--noproxy", "", *way, url], capture_output=True)
    assert done.stdout == body, done.stderr
