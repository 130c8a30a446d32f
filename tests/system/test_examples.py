"""examples/: each is started as its first lines say, and does what they promise, with the peers it names."""
import re
import subprocess
from pathlib import Path

import pytest

from lib import far_end, socks5
from lib.daemon import BIN
from lib.dns import A, Names, answer_over_tcp
from lib.net import ended, exchange, listeners, read_all, read_exactly, read_until
from lib.udp_tunnel import Tunnel, header, udp
from lib.wait import until
from lib.world import World, privileged, resolve

EXAMPLES = Path(__file__).parents[2] / "examples"
SITE, PASSWORD = "198.51.100.7", b"correct horse"
COMMAND = re.compile(r"^(?:// *| *// *)(?:setpriv .*)?(vrox(?:-redirect)?) (.*)$", re.M)


def _names(conn):
    answer_over_tcp(conn, {"www.example.com": "192.0.2.99"})


@pytest.fixture
def world(net):
    """The servers that every example relies on: names and a web site."""
    world = net.keep(World())
    with world:
        net.serve(_names, "192.0.2.53", 53)
        Names(net, {("www.example.com", A): [SITE]}, "192.0.2.53")
        world.site = net.listen(SITE, 80)
    return world


@pytest.fixture
def example(vrox, tmp_path):
    """Runs the commands of an example's head."""

    def start(name):
        text = (EXAMPLES / f"{name}.conf").read_text()
        if name == "quickstart":
            vrox(text)
            return
        # Of two ways to run it the later one is shown here; it does all that the first one does.
        commands = dict(COMMAND.findall(text.split("{")[0]))
        options = [word for word in commands["vrox"].split() if word not in ("-c", f"{name}.conf")]
        vrox(text, *options, binary=privileged(tmp_path) if "setpriv" in text else BIN)
        if "vrox-redirect" in commands:
            subprocess.run([EXAMPLES.parent / "tools/vrox-redirect", *commands["vrox-redirect"].split()], check=True)

    return start


def through_socks(net, name="www.example.com", port=80, **options):
    return socks5.connect(net, name, port, proxy_port=1080, **options)


def opens(net, client, listener):
    """Sends something, so that the rules can decide, and exchanges more with whom it reaches."""
    client.sendall(b"\x01")
    server = net.accept(listener)
    assert read_exactly(server, 1) == b"\x01"
    exchange(client, server)
    return server


# ---- what each one is for ---------------------------------------------------------


def quickstart(net, world):
    Names(net, {("www.example.com", A): [SITE]}, "127.0.0.53")
    opens(net, through_socks(net), world.site)


def transparent(net, world):
    client = net.connect(SITE, 80)
    client.sendall(b"GET / HTTP/1.1\r\nHost: www.example.com\r\n\r\n")
    assert read_until(net.accept(world.site), b"\r\n\r\n").startswith(b"GET / ")
    for port, first in (23, b"\x01"), (80, b"GET / HTTP/1.1\r\nHost: x.ads.example.net\r\n\r\n"):
        client = net.connect(SITE, port)
        client.sendall(first)
        assert ended(client)
    assert resolve() == "192.0.2.99"


def http_proxy(net, world):
    with world:
        proxy = net.listen("192.0.2.1", 3128)
    client = through_socks(net)
    client.sendall(b"GET /a HTTP/1.1\r\nHost: www.example.com\r\nX-Secret: 1\r\nUser-Agent: me\r\nReferer: https://here/b\r\n\r\n")
    assert read_until(net.accept(proxy), b"\r\n\r\n") == (
        b"GET http://www.example.com/a HTTP/1.1\r\nHost: www.example.com\r\nUser-Agent: vrox, me\r\n"
        b"Referer: https://elsewhere/\r\n\r\n")
    client = through_socks(net, port=443)
    client.sendall(b"\x16 TLS")
    server = net.accept(proxy)
    assert read_until(server, b"\r\n\r\n").startswith(b"CONNECT 198.51.100.7:443 HTTP/1.1\r\n")
    server.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    assert read_exactly(server, 5) == b"\x16 TLS"


def tunnel(net, world):
    with world:
        far = net.listen("198.51.100.1", 80)
    client = through_socks(net, port=443)
    client.sendall(b"\x16 TLS")
    server = net.accept(far)
    request = read_until(server, b"\r\n\r\n")
    assert request.startswith(b"POST /upload HTTP/1.1\r\nHost: cdn.example.net\r\nX-Trace: ") and b"198.51" not in request
    host, key = far_end.read_host(re.search(rb"X-Trace: (\S+)", request)[1], PASSWORD)
    assert host == b"198.51.100.7:443"
    server.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
    assert far_end.decoder(PASSWORD, key)(read_exactly(server, 5)) == b"\x16 TLS"


def socks5_upstream(net, world):
    with world:
        for n in (2, 3):
            net.program("microsocks", "-i", f"192.0.2.{n}", "-p", 1080, "-u", "user", "-P", "secret", stderr=subprocess.DEVNULL)
        until(lambda: {("192.0.2.2", 1080), ("192.0.2.3", 1080)} <= listeners(), "the proxies listen")
        near = net.listen("192.168.7.7", 80)
    for listener, address in ((world.site, SITE), (near, "192.168.7.7")):
        server = opens(net, through_socks(net, address, login=("me", "mine")), listener)
        assert (server.getpeername()[0] == "203.0.113.2") == (listener is near)


def dns(net, world):
    def lookup(conn):
        assert read_until(conn, b"\r\n\r\n").startswith(b"GET /d?dn=www.example.org HTTP/1.1\r\nHost: 192.0.2.80\r\n")
        conn.sendall(b"HTTP/1.1 200 OK\r\n\r\n192.0.2.98")

    with world:
        net.serve(lookup, "192.0.2.80", 80)
        net.serve(_names, "192.0.2.54", 53)
    assert resolve("www.example.org", "127.0.0.1", 1153) == "192.0.2.98"
    assert resolve("www.example.net", "127.0.0.1", 1153) == ""  # an answer without an address


def udp_tunnel(net, world):
    with world:
        far = net.listen("198.51.100.1", 80)
    udp(net).sendto(header(SITE, 5000) + b"one", ("127.0.0.1", 1191))
    end = Tunnel(net.accept(far), PASSWORD.decode())
    assert b"\r\nZeltProxyType: httpUDP\r\n" in end.request and b"Host: cdn.example.net\r\n" in end.request
    assert end.read() == header(SITE, 5000) + b"one"
    _datagrams(net, far, PASSWORD.decode())


def _datagrams(net, far, password=None):
    """What is sent to the site goes through a tunnel, and comes back as from there."""
    client = udp(net, "0.0.0.0", peer=(SITE, 5000))
    client.send(b"two")
    end = Tunnel(net.accept(far), password)
    assert end.read() == header(SITE, 5000) + b"two"
    end.send(header(SITE, 5000) + b"three")
    assert client.recv(9) == b"three"


def tun_device(net, world):
    with world:
        far = net.listen("198.51.100.1", 80)
    client = net.connect(SITE, 80)
    assert client.getsockname()[0] == "10.5.5.5"
    opens(net, client, world.site)
    assert resolve() == "192.0.2.99"
    _datagrams(net, far)


def limits(net, world):
    with world:
        metered, other = net.listen("198.51.100.200", 80), net.listen("192.0.2.7", 80)
    client = through_socks(net, "198.51.100.200")
    net.spawn(net.accept(metered).sendall, bytes(3 << 20))
    assert 1 << 20 <= len(read_all(client)) < 2 << 20
    guests = [through_socks(net, "192.0.2.7", source="10.77.8.1") for _ in range(3)]
    for guest in guests[:2]:
        opens(net, guest, other)
    assert ended(guests[2])


CASES = {"quickstart": quickstart, "transparent": transparent, "http-proxy": http_proxy, "tunnel": tunnel,
         "socks5-upstream": socks5_upstream, "dns": dns, "udp-tunnel": udp_tunnel, "tun": tun_device, "limits": limits}


def test_every_example_is_exercised():
    assert {path.stem for path in EXAMPLES.glob("*.conf")} == set(CASES)


@pytest.mark.parametrize("name", CASES)
def test_example(net, world, example, name):
    example(name)
    CASES[name](net, world)
