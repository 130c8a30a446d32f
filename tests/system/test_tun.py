"""The TUN device: set-up, flows of the kernel's own TCP through it, and raw packets."""
import random
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from lib import bulk, conf, quick, tun, udp_tunnel
from lib.daemon import SANITIZED, TCP_PORT, UID
from lib.dns import A, dnsmasq
from lib.net import ended, exchange, listeners, read_exactly, reset, silent
from lib.wait import DEADLINE, QUIET, until

MIB = 1 << 20
BOTH = pytest.mark.parametrize("address", [tun.V4, tun.V6])


def port_of(listener):
    return listener.getsockname()[1]


@pytest.fixture
def served(vrox):
    def start(*tun_lines, options=(), **how):
        daemon = vrox(tun.configuration(*tun_lines, **how), *options)
        tun.open_routes()
        return daemon

    return start


def joined(net, origin):
    """(client, upstream) of a new flow through the daemon."""
    client = tun.connect(net, *origin.getsockname()[:2])
    return client, net.accept(origin)


# ---- the device -------------------------------------------------------------------


def interface(name):
    return subprocess.run(["ip", "addr", "show", "dev", name], capture_output=True, text=True, check=True).stdout


@pytest.mark.parametrize(
    "lines, name, expected",
    [
        ((), "tun3", ["mtu 65535", "inet 10.5.5.5/32", "inet6 fd00::5/64"]),
        (("mtu = 1400", "tun_addr = 10.9.9.9", "tun_addr6 = fd09::9"), "tun7 /dev/net/tun",
         ["mtu 1400", "inet 10.9.9.9/32", "inet6 fd09::9/64"]),
        (("tun_addr = nonsense",), "tun3", ["inet6 fd00::5/64"]),
    ],
)
def test_set_up(vrox, lines, name, expected):
    vrox(conf.tcp_global() + tun.section(*lines, name=name))
    text = interface(name.split()[0])
    assert re.search(r"<[^>]*\bUP\b", text), text
    assert all(part in text for part in expected), text
    assert ("inet " in text) == any(part.startswith("inet ") for part in expected)


def test_keys_behind_the_device_come_too_late(vrox):
    vrox(conf.tcp_global() + conf.section("Tun", "tun_device = tun3", "mtu = 1400", "tun_addr = 10.9.9.9"))
    assert "mtu 65535" in interface("tun3") and "inet 10.5.5.5/32" in interface("tun3")


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
    net.spawn(bulk.send, upstream, size)
    assert bulk.receive(client, size) == want
    net.spawn(bulk.send, client, size)
    assert bulk.receive(upstream, size) == want
    net.spawn(bulk.send, client, size)
    net.spawn(bulk.send, upstream, size)
    other = []
    reader = net.spawn(lambda: other.append(bulk.receive(upstream, size)))
    assert bulk.receive(client, size) == want
    reader.join(3 * DEADLINE)
    assert other == [want]


@BOTH
def test_an_upload_waits_for_a_slow_upstream(net, served, address):
    """Larger than all buffers on the way: the client's window closes, and opens again."""
    origin = net.listen(address)
    daemon = served(tcp=("max_sessions = 4",))
    client, upstream = joined(net, origin)
    size = 32 * MIB
    sender = net.spawn(lambda: (bulk.send(client, size), client.shutdown(socket.SHUT_WR)))
    sender.join(1)
    assert sender.is_alive(), "the client waits"
    ticks = daemon.cpu_ticks()
    time.sleep(0.3)
    assert daemon.cpu_ticks() - ticks < 10, "and the daemon does too"
    assert bulk.receive(upstream, size + 1, pause=0.0005) == bulk.expected(size)


def test_a_download_waits_for_a_slow_client(net, served):
    origin = net.listen(tun.V4)
    served()
    client, upstream = joined(net, origin)
    size = 8 * MIB
    net.spawn(lambda: (bulk.send(upstream, size), upstream.close()))
    time.sleep(QUIET)
    assert bulk.receive(client, size + 1, pause=0.0005, piece=16384) == bulk.expected(size)


@BOTH
def test_parallel_flows_with_ends_of_every_kind(net, served, address):
    """200 at a time: whole transfers, half-closes and resets at random moments."""
    served(tcp=("max_sessions = 400",))
    dice = random.Random(7)
    total = 40000 if SANITIZED else 200000

    def serve(conn):
        kind, size = struct.unpack(">cI", read_exactly(conn, 5))
        if kind == b"D":
            bulk.send(conn, size)
        else:
            got = bulk.receive(conn, size)
            conn.sendall(struct.pack(">II", got.count, got.crc))
            ended(conn)

    port = net.serve(serve, address)
    plans = [(dice.choice("DUDURH"), dice.randrange(1, total), dice.randrange(1, total)) for _ in range(400)]
    gate, done = threading.Semaphore(200), []

    def one(kind, size, cut):
        with gate:
            client = tun.connect(net, address, port)
            if kind in "DRH":
                client.sendall(struct.pack(">cI", b"D", size))
                if kind == "D":
                    assert bulk.receive(client, size + 1) == bulk.expected(size)
                else:
                    bulk.receive(client, min(size, cut))
                    if kind == "H":
                        client.shutdown(socket.SHUT_WR)
                        bulk.receive(client, size)  # may be cut short, and must end
                    else:
                        reset(client)
            else:
                client.sendall(struct.pack(">cI", b"U", size))
                bulk.send(client, size)
                want = bulk.expected(size)
                assert struct.unpack(">II", read_exactly(client, 8)) == (want.count, want.crc)
            client.close()
            done.append(kind)

    threads = [net.spawn(one, *plan) for plan in plans]
    for thread in threads:
        thread.join(3 * DEADLINE)
    assert len(done) == len(plans)
    # No slot is lost: as many flows again as there are slots.
    for _ in range(3):
        client = tun.connect(net, address, port)
        client.sendall(struct.pack(">cI", b"D", 100))
        assert bulk.receive(client, 101) == bulk.expected(100)


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


def test_resets(net, served):
    origin = net.listen(tun.V4)
    daemon = served(tcp=("max_sessions = 2",))
    for _ in range(4):
        client, upstream = joined(net, origin)
        exchange(client, upstream)
        reset(client)
        assert ended(upstream)
    until(lambda: daemon.fds() < 30, "no descriptors are left")


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


def test_curl(net, served, tmp_path):
    body = bytes(range(256)) * 4096

    def serve(conn):
        head = conn.recv(65536)
        if head.startswith(b"PUT"):
            length = int(re.search(rb"Content-Length: (\d+)", head)[1])
            got = head.split(b"\r\n\r\n", 1)[1]
            got += read_exactly(conn, length - len(got))
            conn.sendall(b"HTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\n" + (b"ok" if got == body else b"no"))
        else:
            conn.sendall(b"HTTP/1.0 200 OK\r\n\r\n" + body)  # its end is the body's end

    served()
    (tmp_path / "body").write_bytes(body)
    for address in (tun.V4, tun.V6):
        port = net.serve(serve, address)
        host = f"[{address}]" if ":" in address else address
        command = ["curl", "-sS", "-m", "20", "--interface", tun.DEVICE, f"http://{host}:{port}/"]
        assert subprocess.run(command, capture_output=True, check=True).stdout == body
        put = subprocess.run([*command, "-H", "Expect:", "-T", tmp_path / "body"], capture_output=True, check=True)
        assert put.stdout == b"ok"


def test_many_curls_at_once(net, served, tmp_path):
    body = bytes(range(256)) * 512
    port = net.serve(lambda conn: (conn.recv(65536), conn.sendall(b"HTTP/1.0 200 OK\r\n\r\n" + body)), tun.V4)
    served(tcp=("max_sessions = 300",))
    subprocess.run(["curl", "-sS", "-m", "60", "-Z", "--parallel-immediate", "--parallel-max", "200", "--interface", tun.DEVICE,
                    "-o", tmp_path / "got#1", f"http://{tun.V4}:{port}/[1-200]"], check=True)
    got = list(tmp_path.glob("got*"))
    assert len(got) == 200 and all(path.read_bytes() == body for path in got)


def test_rules_and_quotas_apply(net, vrox):
    here, there, limited = net.listen(tun.V4), net.listen("127.0.0.1"), net.listen("10.77.0.6")
    vrox(
        conf.tcp_global("tcpProxy = direct")
        + conf.rule("denied", "matchMode = firstMatch", "dst_ip = 10.77.0.7/32", "tcpProxy = deny")
        + conf.rule("moved", "matchMode = firstMatch", "dst_ip = 10.77.0.8/32", "tcpProxy = fixed")
        + conf.rule("quota", "matchMode = firstMatch", "dst_ip = 10.77.0.6/32", "maxData = 4K", "tcpProxy = direct")
        + conf.rule("few", "matchMode = firstMatch", "dst_ip = 10.77.0.9/32", "limit_client_ip = 1 1", "tcpProxy = fixed")
        + conf.DIRECT + conf.module("fixed", conf.to(port_of(there))) + conf.module("deny", "destAddr = deny_network")
        + tun.section()
    )
    tun.open_routes()
    assert ended(tun.connect(net, "10.77.0.7", 80))
    client = tun.connect(net, "10.77.0.8", 80)
    exchange(client, net.accept(there))
    one = tun.connect(net, "10.77.0.9", 80)
    kept = net.accept(there)
    two = tun.connect(net, "10.77.0.9", 80)
    assert ended(two), "one session for a client's address"
    exchange(one, kept)
    client = tun.connect(net, "10.77.0.6", port_of(limited))
    upstream = net.accept(limited)
    client.sendall(b"\x01" * 5000)  # the write that uses the quota up
    read_exactly(upstream, 5000)
    client.sendall(b"more")
    assert ended(upstream) and ended(client)
    # Undecided until the first bytes: the global rule takes it then.
    client = tun.connect(net, *here.getsockname())
    client.sendall(b"\x01 any")
    assert read_exactly(net.accept(here), 5) == b"\x01 any"


def test_speed_limit(net, served):
    origin = net.listen(tun.V4)
    served(tcp=("maxSpeed = 200K",))
    client, upstream = joined(net, origin)
    begin = time.monotonic()
    net.spawn(bulk.send, upstream, 600000)
    assert bulk.receive(client, 600000) == bulk.expected(600000)
    assert time.monotonic() - begin > 0.9
    net.spawn(bulk.send, client, 400000)
    assert bulk.receive(upstream, 400000) == bulk.expected(400000)


def test_a_device_that_goes_away(net, served):
    """Sockets are served on, and the daemon does not spin."""
    origin = net.listen(tun.V4)
    daemon = served()
    client, upstream = joined(net, origin)
    exchange(client, upstream)
    tun.ip(f"link set {tun.DEVICE} down", f"link set {tun.DEVICE} up")
    tun.ip(f"link delete {tun.DEVICE}")
    ticks = daemon.cpu_ticks()
    time.sleep(0.5)
    assert daemon.cpu_ticks() - ticks < 10
    upstream.sendall(b"to nobody")
    through_socket = net.connect()
    assert ended(through_socket), "refused: it would meet itself"


def test_ends_with_open_flows(net, served):
    origin = net.listen(tun.V4)
    daemon = served(options=("-u", UID))
    client, upstream = joined(net, origin)
    exchange(client, upstream)
    daemon.signal(signal.SIGTERM)
    assert daemon.wait() == 0


def test_a_graceful_stop_refuses_new_flows(net, served):
    origin = net.listen(tun.V4)
    daemon = served(options=("-u", UID))
    client, upstream = joined(net, origin)
    daemon.signal(signal.SIGUSR1)
    until(lambda: ("::", TCP_PORT) not in listeners(), "the listener is closed")
    until(lambda: ended(tun.connect(net, *origin.getsockname())), "a new flow is refused")
    exchange(client, upstream)
    daemon.kill()  # it looks for open sessions once a minute


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
    vrox(tun.configuration(extra=conf.section("httpUDP", conf.to(port_of(far)))))
    tun.open_routes()
    for address in ("198.51.100.7", "2001:db8::7"):
        client = udp_client(net, address, 4000)
        for payload in (b"first", b"", b"x" * 1400, b"y" * 60000):
            client.send(payload)
            if payload == b"first":
                tunnel = udp_tunnel.Tunnel(net.accept(far))
            datagram = tunnel.read()
            assert udp_tunnel.parse(datagram) == (address, 4000, payload)
            tunnel.send(datagram)
            assert client.recv(1 << 16) == payload, "from where it was sent to"


@quick.needed
def test_a_graceful_stop_finishes_what_clients_have_not_taken(net, vrox):
    """And takes nothing new from the device meanwhile."""
    origin, far = net.listen(tun.V4), net.listen()
    dnsmasq(net, 5353, "--address=/name.test/192.0.2.9")
    tunnels = conf.section("httpUDP", "udp_socks5_listen = :::1091", conf.to(port_of(far)))
    daemon = vrox(tun.configuration(extra=DNS + tunnels), "-u", UID, binary=quick.SWEEP_BIN)
    tun.open_routes()
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
    assert silent(query)
    far.settimeout(QUIET)
    with pytest.raises(TimeoutError):
        far.accept()
    assert bulk.receive(client, size + 1) == bulk.expected(size)
    client.close()
    assert daemon.wait() == 0


# ---- raw packets through a descriptor that was handed over -----------------------------


def checksum(data):
    data += b"\0" * (len(data) % 2)
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def packet(flags, seq=0, ack=0, payload=b"", port=40000, to=(tun.V4, 7000), window=65535):
    source, target = socket.inet_aton("10.5.5.1"), socket.inet_aton(to[0])
    segment = struct.pack(">HHIIBBHHH", port, to[1], seq & 0xFFFFFFFF, ack, 0x50, flags, window, 0, 0) + payload
    return struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(segment), 0, 0, 64, 6, 0, source, target) + segment


def parse(data):
    seq, ack = struct.unpack_from(">II", data, 24)
    return data[33], seq, ack, data[20 + (data[32] >> 4) * 4:]


@pytest.fixture
def wire(net, vrox, tmp_path):
    """Our end of the descriptor that the daemon takes for a device: one message is one packet."""
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    path = tmp_path / "hand_over"
    helper = net.spawn(lambda: net.keep(tun.hand_over(path, theirs.fileno())))
    vrox(tun.configuration(f"unix_path = {path}", tcp=("max_sessions = 64",)))
    helper.join(DEADLINE)
    theirs.close()
    ours.settimeout(DEADLINE)
    yield ours
    ours.close()


def test_a_descriptor_that_was_handed_over(net, wire):
    origin = net.listen(tun.V4, 7000)
    wire.send(packet(0x02, seq=100))
    syn_ack = wire.recv(65535)
    assert parse(syn_ack)[:3] == (0x12, 0, 101)
    assert syn_ack[40:44] == struct.pack(">BBH", 2, 4, 65491)
    assert checksum(syn_ack[:20]) == 0
    assert checksum(syn_ack[12:20] + struct.pack(">HH", 6, len(syn_ack) - 20) + syn_ack[20:]) == 0
    wire.send(packet(0x10, 101, 1))
    wire.send(packet(0x18, 101, 1, b"\x01hello"))
    assert parse(wire.recv(65535))[:3] == (0x10, 1, 107)
    upstream = net.accept(origin)
    assert read_exactly(upstream, 6) == b"\x01hello"
    upstream.sendall(b"back")
    assert parse(wire.recv(65535)) == (0x18, 1, 107, b"back")
    upstream.close()
    wire.send(packet(0x10, 107, 5))
    assert parse(wire.recv(65535))[:3] == (0x11, 5, 107)
    wire.send(packet(0x11, 107, 6))
    assert parse(wire.recv(65535))[:3] == (0x10, 6, 108)


def test_any_bytes_leave_other_flows_alone(net, wire):
    origin = net.listen(tun.V4, 7000)
    wire.send(packet(0x02, seq=100))
    wire.recv(65535)
    wire.send(packet(0x10, 101, 1))
    upstream = net.accept(origin)
    dice = random.Random(3)
    good = packet(0x18, 5, 6, b"payload", port=41000)
    seq = 101

    def drain():
        wire.setblocking(False)
        try:
            while wire.recv(65535):
                pass
        except BlockingIOError:
            pass
        wire.settimeout(DEADLINE)

    for round_ in range(300):
        junk = bytearray(good)
        for _ in range(dice.randrange(1, 6)):
            junk[dice.randrange(len(junk))] = dice.randrange(256)
        junk[12:16] = bytes([10, 9, 9, dice.randrange(256)])  # of other clients
        wire.send(bytes(junk[: dice.randrange(1, len(junk) + 1)]))
        wire.send(dice.randbytes(dice.randrange(1, 200)))
        wire.send(packet(0x02, seq=dice.randrange(1 << 32), port=50000 + round_))
        if round_ % 50 == 0:
            wire.send(packet(0x18, seq, 1, b"\x01" * 10))
            seq += 10
            assert read_exactly(upstream, 10) == b"\x01" * 10
        drain()


def test_a_message_without_a_descriptor_means_no_device(net, vrox, tmp_path):
    path = tmp_path / "hand_over"
    net.spawn(lambda: net.keep(tun.hand_over(path)))
    vrox(tun.configuration(f"unix_path = {path}"))
    assert "tun3" not in subprocess.run(["ip", "link"], capture_output=True, text=True, check=True).stdout
