"""The TUN device: set-up, flows of the kernel's own TCP through it, and raw packets."""
import re
import signal
import socket
import struct
import subprocess
import time

import pytest

from lib import bulk, conf, tun, udp_tunnel
from lib.daemon import SANITIZED, SWEEP_BIN, TCP_PORT, UID
from lib.dns import A, dnsmasq
from lib.net import ended, exchange, ip, listeners, port_of, read_exactly, silent
from lib.wait import DEADLINE, QUIET, until

MIB = 1 << 20
BOTH = pytest.mark.parametrize("address", [tun.V4, tun.V6])


@pytest.fixture
def served(vrox):
    def start(*tun_lines, options=(), **how):
        daemon = vrox(tun.configuration(*tun_lines, **how), *options)
        tun.open_routes()
        return daemon

    return start


def joined(net, origin):
    client = tun.connect(net, *origin.getsockname()[:2])
    return client, net.accept(origin)


# ---- the device -------------------------------------------------------------------


@pytest.mark.parametrize(
    "lines, expected",
    [
        (["tun_device = tun3"], ["mtu 65535", "inet 10.5.5.5/32", "inet6 fd00::5/64"]),
        (["mtu = 1400", "tun_addr = 10.9.9.9", "tun_addr6 = fd09::9", "tun_device = tun3 /dev/net/tun"],
         ["mtu 1400", "inet 10.9.9.9/32", "inet6 fd09::9/64"]),
        (["tun_addr = nonsense", "tun_device = tun3"], ["inet6 fd00::5/64"]),
        # What stands behind the device comes too late.
        (["tun_device = tun3", "mtu = 1400", "tun_addr = 10.9.9.9"], ["mtu 65535", "inet 10.5.5.5/32"]),
    ],
)
def test_set_up(vrox, lines, expected):
    vrox(conf.tcp_global() + conf.section("Tun", *lines))
    text = subprocess.run(["ip", "addr", "show", "dev", "tun3"], capture_output=True, text=True, check=True).stdout
    assert re.search(r"<[^>]*\bUP\b", text), text
    assert all(part in text for part in expected), text
    assert ("inet " in text) == any(part.startswith("inet ") for part in expected)


@pytest.mark.parametrize(
    "lines, line, condition",
    [
        (["tun_device = tun3 /nowhere/tun"], 62, "-1 != tunFd"),
        (["tun_device = tun3 /dev/null"], 68, "-1 != (ioctl(tunFd, TUNSETIFF, &ifr))"),
        (["mtu = 10", "tun_device = tun3"], 74, "-1 != (ioctl(sockFd, SIOCSIFMTU, &ifr))"),
        (["tun_addr6 = ff02::1", "tun_device = tun3"], 92, "-1 != (ioctl(sock6Fd, SIOCSIFADDR, &ifr6))"),
        (["unix_path = taken", "tun_device = tun3"], 116, "-1 != (bind(unixSock, (struct sockaddr *)&sun, sizeof(sun)))"),
        (["unix_path = " + "p" * 200, "tun_device = tun3"], 116,
         "-1 != (bind(unixSock, (struct sockaddr *)&sun, sizeof(sun)))"),
    ],
)
def test_set_up_failures_abort(tmp_path, lines, line, condition):
    from lib import daemon

    (tmp_path / "taken").touch()
    (tmp_path / "conf").write_text(conf.section("Tun", *lines))
    done = subprocess.run(daemon.command("-d", "-c", tmp_path / "conf"), cwd=tmp_path, capture_output=True,
                          text=True, timeout=DEADLINE, env=daemon.ENV)
    assert done.returncode == -signal.SIGABRT
    assert done.stderr.startswith(f"Assertion failed in src/event on line {line}: {condition}\n"), done.stderr
    assert len(done.stderr.splitlines()) == 2, "and the system's error text"


# ---- flows --------------------------------------------------------------------------


@BOTH
def test_flows_reach_their_destination(net, served, address):
    origin = net.listen(address)
    served()
    client, upstream = joined(net, origin)
    exchange(client, upstream)
    exchange(upstream, client)
    upstream.close()
    assert ended(client), "an idle client sees the end at once"
    client, upstream = joined(net, origin)
    upstream.sendall(b"220 ready\r\n")
    assert read_exactly(client, 11) == b"220 ready\r\n", "the server may speak first"
    client.close()
    assert ended(upstream)


@BOTH
@pytest.mark.parametrize("mtu", [1500, 65535])
@pytest.mark.parametrize("size", [pytest.param(64 * MIB, id="64M"), pytest.param(1024 * MIB, id="1G", marks=pytest.mark.slow)])
def test_bulk(net, served, address, mtu, size):
    """Down and up, every byte, and both at the same time."""
    if SANITIZED:
        size //= 8
    origin = net.listen(address)
    served(f"mtu = {mtu}")
    want = bulk.expected(size)
    client, upstream = joined(net, origin)
    for source, sink in (upstream, client), (client, upstream):
        net.spawn(bulk.send, source, size)
        assert bulk.receive(sink, size) == want
    bulk.both_ways(net, client, upstream, size)


def test_uploads_at_once(net, served):
    """Their packets come by turns, with longer and shorter headers, and none is taken for another's.

    Each stream begins with some other bytes, so that no two have the same at the same place.
    """
    v4, v6 = (net.listen(address) for address in (tun.V4, tun.V6))
    served()
    size = (4 if SANITIZED else 16) * MIB
    pairs = [joined(net, origin) for origin in [v4] * 10 + [v6] * 2]
    got = []

    def send(client, lead):
        client.sendall(bytes(lead))
        bulk.send(client, size)

    def receive(upstream, lead):
        got.append((read_exactly(upstream, lead) == bytes(lead), bulk.receive(upstream, size)))

    threads = [net.spawn(work, conn, 1 + 37 * i)
               for i, pair in enumerate(pairs) for work, conn in zip((send, receive), pair)]
    for thread in threads:
        thread.join()
    assert got == [(True, bulk.expected(size))] * len(pairs)


@BOTH
@pytest.mark.parametrize("upload", [True, False], ids=["upload", "download"])
def test_a_slow_reader_holds_back_the_sender(net, served, address, upload):
    """Larger than all buffers on the way: the window closes, and opens again."""
    origin = net.listen(address)
    daemon = served()
    pair = joined(net, origin)
    source, sink = pair if upload else pair[::-1]
    size = 32 * MIB
    sender = net.spawn(lambda: (bulk.send(source, size), source.shutdown(socket.SHUT_WR)))
    sender.join(1)
    assert sender.is_alive()
    with daemon.at_rest():
        time.sleep(QUIET)
    assert bulk.receive(sink, size + 1, pause=0.0005) == bulk.expected(size)


def test_a_client_that_sends_and_shuts_down(net, served):
    """The FIN comes with the last data, where it does not count, and is repeated."""
    origin = net.listen(tun.V4)
    served()
    for size in (1, 100, 65535, 300000):
        client, upstream = joined(net, origin)
        bulk.send(client, size)
        client.shutdown(socket.SHUT_WR)
        assert bulk.receive(upstream, size + 1) == bulk.expected(size)
        assert ended(client), "a half-close ends the exchange"


@BOTH
def test_full_table_closes_new_flows_at_once(net, served, address):
    origin = net.listen(address)
    served(tcp=("max_sessions = 2",))
    first, second = joined(net, origin), joined(net, origin)
    refused = tun.connect(net, address, port_of(origin))
    assert refused.recv(1) == b"", "the handshake is completed, and the end follows"
    exchange(*first)
    second[0].close()
    assert ended(second[1])
    exchange(*joined(net, origin))


def test_many_curls_at_once(net, served, tmp_path):
    body = bytes(range(256)) * 512
    port = net.serve(lambda conn: (conn.recv(65536), conn.sendall(b"HTTP/1.0 200 OK\r\n\r\n" + body)), tun.V4)
    served(tcp=("max_sessions = 300",))
    subprocess.run(["curl", "-sS", "-m", "60", "-Z", "--parallel-immediate", "--parallel-max", "200", "--interface",
                    tun.DEVICE, "-o", tmp_path / "got#1", f"http://{tun.V4}:{port}/[1-200]"], check=True)
    got = list(tmp_path.glob("got*"))
    assert len(got) == 200 and all(path.read_bytes() == body for path in got)


def test_rules_and_quotas_apply(net, vrox):
    here, there, limited = net.listen(tun.V4), net.listen("127.0.0.1"), net.listen("10.77.0.6")

    def rule(name, host, *lines):
        return conf.rule(name, "matchMode = firstMatch", f"dst_ip = 10.77.0.{host}/32", *lines)

    vrox(conf.tcp_global("tcpProxy = direct") + conf.DIRECT + conf.module("fixed", conf.to(there))
         + conf.module("deny", "destAddr = deny_network") + rule("denied", 7, "tcpProxy = deny")
         + rule("quota", 6, "maxData = 4K", "tcpProxy = direct")
         + rule("few", 9, "limit_client_ip = 1 1", "tcpProxy = fixed") + tun.section())
    tun.open_routes()
    assert ended(tun.connect(net, "10.77.0.7", 80))
    one = tun.connect(net, "10.77.0.9", 80)
    kept = net.accept(there)
    assert ended(tun.connect(net, "10.77.0.9", 80)), "one session for a client's address"
    exchange(one, kept)
    client, upstream = joined(net, limited)
    client.sendall(b"\x01" * 5000)  # the write that uses the quota up
    read_exactly(upstream, 5000)
    client.sendall(b"more")
    assert ended(upstream) and ended(client)
    # Undecided until the first bytes: the global rule takes it then.
    client = tun.connect(net, *here.getsockname())
    client.sendall(b"\x01 any")
    assert read_exactly(net.accept(here), 5) == b"\x01 any"


def test_a_device_that_goes_away(net, served):
    """Sockets are served on, and the daemon does not spin."""
    origin = net.listen(tun.V4)
    daemon = served()
    client, upstream = joined(net, origin)
    exchange(client, upstream)
    ip(f"link set {tun.DEVICE} down", f"link set {tun.DEVICE} up")
    ip(f"link delete {tun.DEVICE}")
    with daemon.at_rest():
        time.sleep(0.5)
    upstream.sendall(b"to nobody")
    assert ended(net.connect()), "refused: it would meet itself"


def test_workers_leave_the_device_to_the_last(net, vrox):
    origin = net.listen(tun.V4)
    vrox(tun.configuration(), workers=3)
    tun.open_routes()
    for _ in range(8):
        client, upstream = joined(net, origin)
        exchange(client, upstream)
        client.close()


# ---- datagrams ------------------------------------------------------------------------


def udp_client(net, address, port):
    client = tun.new_socket(net, address, socket.SOCK_DGRAM)
    client.connect((address, port))  # takes answers from there alone
    return client


DNS = (conf.section("dns::Global", "dns_listen = :::1053")
       + conf.section("dnsAcl::all", "reg_domain = .", conf.to(5353), "lookup_mode = tcpDNS"))


def test_dns_through_the_device(net, vrox):
    dnsmasq(net, 5353, "--address=/name.test/192.0.2.9", "--address=/name.test/2001:db8::9")
    vrox(tun.configuration(extra=DNS))
    tun.open_routes()
    for address in ("198.51.100.53", "2001:db8::53"):
        for kind, answer in (("A", "192.0.2.9"), ("AAAA", "2001:db8::9")):
            dig = ["dig", f"@{address}", "+short", "+tries=1", "+timeout=10", "+nocookie", "name.test", kind]
            assert subprocess.run(dig, capture_output=True, text=True).stdout == answer + "\n"
        client = udp_client(net, address, 53)
        client.send(b"short")
        client.send(bytes(513))
        assert silent(client), "neither can be a query"
    other = udp_client(net, tun.V4, 5353)
    other.send(bytes(40))
    assert silent(other), "nobody carries other datagrams here"


def test_datagrams_go_through_a_tunnel(net, vrox):
    far = net.listen()
    vrox(tun.configuration(extra=conf.section("httpUDP", conf.to(far))))
    tun.open_routes()
    for address in ("198.51.100.7", "2001:db8::7"):
        client = udp_client(net, address, 4000)
        for payload in (b"first", b"", b"x" * 1400, b"y" * 60000):
            client.send(payload)
            if payload == b"first":
                tunnel = udp_tunnel.Tunnel(net.accept(far))
            datagram = tunnel.read()
            assert datagram == udp_tunnel.header(address, 4000) + payload
            tunnel.send(datagram)
            assert client.recv(1 << 16) == payload, "from where it was sent to"


def test_a_graceful_stop(net, vrox):
    """It finishes what clients have not taken, and takes nothing new from the device meanwhile."""
    origin, far = net.listen(tun.V4), net.listen()
    dnsmasq(net, 5353, "--address=/name.test/192.0.2.9")
    tunnels = conf.section("httpUDP", "udp_socks5_listen = :::1091", conf.to(far))
    daemon = vrox(tun.configuration(extra=DNS + tunnels), "-u", UID, binary=SWEEP_BIN)
    tun.open_routes()
    other_flow = joined(net, origin)
    client = tun.new_socket(net, tun.V4)
    client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    client.connect(origin.getsockname())
    upstream = net.accept(origin)
    size = 190000
    bulk.send(upstream, size)
    upstream.close()
    time.sleep(QUIET)
    daemon.signal(signal.SIGUSR1)
    until(lambda: ("::", TCP_PORT) not in listeners(), "the listener is closed")
    time.sleep(2)  # it looks for open sessions a few times
    query, other = udp_client(net, "198.51.100.53", 53), udp_client(net, "198.51.100.7", 4000)
    query.send(struct.pack(">HHHHHH", 7, 0x100, 1, 0, 0, 0) + b"\4name\4test\0" + struct.pack(">HH", A, 1))
    other.send(b"new")
    assert silent(query) and net.idle(far)
    assert ended(tun.connect(net, *origin.getsockname()))
    exchange(*other_flow)
    other_flow[0].close()
    assert bulk.receive(client, size + 1) == bulk.expected(size)
    client.close()
    assert daemon.wait() == 0


def test_a_message_without_a_descriptor_means_no_device(net, vrox, tmp_path):
    path = tmp_path / "hand_over"
    net.spawn(lambda: net.keep(tun.hand_over(path)))
    vrox(tun.configuration(f"unix_path = {path}"))
    assert "tun3" not in subprocess.run(["ip", "link"], capture_output=True, text=True, check=True).stdout
