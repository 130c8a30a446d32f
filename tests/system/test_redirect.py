"""tools/vrox-redirect: what it takes goes through the daemon, what it spares does not, and nothing stays behind."""
import subprocess
from pathlib import Path

import pytest

from lib import conf, tun
from lib.daemon import DNS_PORT, TCP_PORT, UID
from lib.dns import answer_over_tcp
from lib.net import exchange, ip, sysctl
from lib.udp_tunnel import TPROXY_PORT, Tunnel, header, udp
from lib.wait import until
from lib.world import World, privileged, resolve

TOOL = Path(__file__).parents[2] / "tools/vrox-redirect"
ALL = ("-t", TCP_PORT, "-d", DNS_PORT, "-U", TPROXY_PORT, "-u", UID)
SITE, SITE6, NEAR = "198.51.100.7", "2001:db8:2::7", "192.168.7.7"


def tool(*arguments, status=0):
    done = subprocess.run(["sh", TOOL, *map(str, arguments)], capture_output=True, text=True)
    assert done.returncode == status, done
    return done.stdout


def state():
    """Everything that the tool could have changed, as the kernel tells it."""
    commands = ["nft -s list ruleset", *(f"ip -{f} {what}" for f in "46" for what in ("rule", "route show table all"))]
    return {c: subprocess.run(c.split(), capture_output=True, text=True, check=True).stdout for c in commands}


@pytest.fixture
def world(net):
    return net.keep(World())


@pytest.fixture
def serve(net, vrox, world, tmp_path):
    """The daemon, which sends each connection to port 80 to a place of its own; returns that place."""
    with world:
        moved, far = net.listen("198.51.100.80", 8080), net.listen("198.51.100.9", 9000)
        net.serve(lambda conn: answer_over_tcp(conn, {"www.example.com": "192.0.2.99"}), "192.0.2.53", 53)
    vrox(conf.tcp_global("tcpProxy = direct") + conf.DIRECT + conf.at_connect("tcpProxy = direct").replace("0:65535", "81")
         + conf.rule("web", "matchMode = firstMatch", "dst_port = 80", "tcpProxy = moved")
         + conf.module("moved", conf.to(8080, "198.51.100.80")) + tun.section()
         + conf.section("dns::Global", f"dns_listen = :::{DNS_PORT}")
         + conf.section("dnsAcl", "reg_domain = .", conf.to(53, "192.0.2.53"), "lookup_mode = tcpDNS")
         + conf.section("httpUDP", f"udp_tproxy_listen = :::{TPROXY_PORT}", conf.to(9000, "198.51.100.9")),
         "-u", UID, binary=privileged(tmp_path))
    until(lambda: "linkdown" not in str(state()) and "local fd00::5" in str(state()), "all devices and addresses are there")
    return moved, far


def reaches(net, listener, address, port=80):
    client = net.connect(address, port)
    server = net.accept(listener)
    exchange(client, server)
    return client, server


@pytest.mark.parametrize("backend", ["nft", "iptables"])
def test_sockets(net, world, serve, backend):
    moved, far = serve
    with world:
        near, direct = net.listen(NEAR, 80), net.listen(SITE, 80)
    subprocess.run(["iptables", "-A", "OUTPUT", "-p", "tcp", "--dport", "9", "-j", "ACCEPT"], check=True)
    before = state()
    tool("up", *ALL, "-i", "wan", "-b", backend)
    once = state()
    assert once != before
    tool("up", *ALL, "-i", "wan", "-b", backend)
    assert state() == once and str(TCP_PORT) in tool("status")

    def taken(address):
        reaches(net, moved, address)
        client = udp(net, "::" if ":" in address else "0.0.0.0", peer=(address, 5000))  # takes replies from there alone
        client.send(b"ping")
        tunnel = Tunnel(net.accept(far))
        assert tunnel.read() == header(address, 5000) + b"ping"
        tunnel.send(header(address, 5000) + b"pong")
        assert client.recv(9) == b"pong"

    taken(SITE)
    taken(SITE6)
    assert resolve() == resolve(server="192.168.7.53") == "192.0.2.99"
    reaches(net, near, NEAR)
    with world:  # which is also a client, for whom this machine is the router
        ip("route add 198.18.0.0/24 via 203.0.113.2", "route add 2001:db8:9::/64 via 2001:db8:1::2")
        taken("198.18.0.7")
        taken("2001:db8:9::7")
        assert resolve(server="198.18.0.7") == "192.0.2.99"
    tool("down")
    assert state() == before
    reaches(net, direct, SITE)
    tool("down")
    tool("status", status=3)
    assert state() == before


def test_device(net, world, serve):
    moved, _ = serve
    with world:
        near, direct = net.listen(NEAR, 80), net.listen(SITE, 81)
    before = state()
    for _ in range(2):
        tool("up", "-T", tun.DEVICE, "-u", UID, "-s", "198.51.100.8")
    for address in (SITE, SITE6):
        client, _ = reaches(net, moved, address)
        assert client.getsockname()[0] in ("10.5.5.5", "fd00::5")
    reaches(net, near, NEAR)
    reaches(net, direct, SITE, 81)  # passed on to where it was going, which the daemon's own routes lead to
    assert resolve() == "192.0.2.99"
    tool("down")
    assert state() == before
    sysctl("net.ipv4.conf.all.rp_filter", 1)  # would drop what the daemon is answered
    tool("up", "-T", tun.DEVICE, "-u", UID, status=1)
    assert state() == before
    sysctl("net.ipv4.conf.wan.rp_filter", 2)
    tool("up", "-T", tun.DEVICE, "-u", UID)
    reaches(net, direct, SITE, 81)
    tool("down")


@pytest.mark.parametrize("arguments, status", [
    (("up",), 2), (("up", "-t", 1080), 1), (("up", "-t", 0, "-u", 1), 1), (("up", "-t", 1080, "-u", 0), 1),
    (("up", "-t", "080", "-u", 1), 1), (("up", "-t", 1080, "-u", "00"), 1),
    (("up", "-t", 1080, "-u", "nobody-here"), 1),
    (("up", "-T", "tun9", "-u", 1), 1), (("down", "-t"), 2),
    (("up", "-t", 1080, "-u", 1, "-s", "not-a-net"), 1),  # refused by nft itself
])
def test_refusals_change_nothing(arguments, status):
    before = state()
    tool(*arguments, status=status)
    assert state() == before
