"""As many sessions as there are descriptors for, one connection after the other, and more than have a place."""
import contextlib
import socket
import subprocess

import pytest

from lib import conf, peers
from lib.daemon import SANITIZED, TCP_PORT
from lib.net import exchange, sysctl
from lib.wait import until


@contextlib.contextmanager
def under_load(vrox, directory, *arguments, sessions):
    """The daemon with the peers before it; what they took of descriptors and memory comes back."""
    sysctl("net.core.somaxconn", 4096)
    sysctl("net.ipv4.tcp_tw_reuse", 1)  # one destination has only so many ports
    peers.prepare_network()
    daemon = vrox(peers.configuration(sessions=sessions))
    base, memory = daemon.fds(), daemon.rss_kib()
    run = peers.Peers(directory, *arguments, stdin=subprocess.PIPE)
    with contextlib.closing(run):
        yield daemon, run
        run.process.stdin.close()
        run.wait(120)
    peers.settled(daemon, base + 2)  # one pipe is kept
    assert SANITIZED or daemon.rss_kib() < memory + 8192


@pytest.mark.slow
def test_nine_thousand_at_once(net, vrox, tmp_path):
    count = 9000
    with under_load(vrox, tmp_path, "hold", count, sessions=count) as (daemon, run):
        until(lambda: run.lines == ["open"], "every session has reached its far end", 120)
        assert daemon.fds() >= 2 * count, "each has its two sockets"


@pytest.mark.slow
def test_one_after_the_other(net, vrox, tmp_path):
    """Far more than there are slots. A million of them: bench/peers, churn 1000000 64."""
    with under_load(vrox, tmp_path, "churn", 50_000, 64, sessions=128):
        pass


def test_a_flood_beyond_the_table_leaves_open_sessions_moving(net, vrox):
    origin, slots = net.listen(), 32
    daemon = vrox(conf.fixed(origin, f"max_sessions = {slots}"))
    pairs = [net.joined(origin) for _ in range(slots)]
    flood = [net.keep(socket.socket()) for _ in range(1000)]
    for sock in flood:
        sock.setblocking(False)
        sock.connect_ex(("127.0.0.1", TCP_PORT))
    for turn in range(20):
        for client, upstream in pairs:
            exchange(client, upstream, b"\x01" * (turn + 1), b"\x01" * 1000)
    with daemon.at_rest():
        assert net.idle(origin), "nobody has a place before one is free"
    for client, upstream in pairs:
        client.close()
        upstream.close()
    # In the place of each that ended there is one of the flood.
    for _ in range(slots):
        net.accept(origin)
    assert net.idle(origin)
