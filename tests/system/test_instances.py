"""Running instances: told to end by name (-k), replaced (-r), drained (SIGUSR1)."""
import os
import random
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest

from lib import conf, socks5
from lib.daemon import BIN, ENV, SANITIZED, SOCKS_PORT, SWEEP_BIN, TCP_PORT, TSAN, alive, check_reports, command, run
from lib.net import ended, exchange, listeners, read_exactly
from lib.wait import DEADLINE, until

NAME = "vrox"
OPENED = {("::", TCP_PORT), ("::", SOCKS_PORT)}


def config(origin, *global_keys):
    return conf.fixed(origin, *global_keys, extra=conf.socks5())


@pytest.fixture
def named(tmp_path):
    """The program under another name, in a directory of its own."""

    def make(name=NAME, binary=BIN):
        path = tmp_path / f"bin{len(list(tmp_path.iterdir()))}" / name
        path.parent.mkdir()
        path.symlink_to(os.path.realpath(binary))
        return path

    return make


def reaped(process):
    """Has a process's end noticed at once, as a shell would."""
    threading.Thread(target=process.wait, daemon=True).start()
    return process


def sleeper(net, path, ignoring=()):
    path.parent.mkdir(exist_ok=True)
    shutil.copy("/bin/sleep", path)

    def ignore():
        for number in ignoring:
            signal.signal(number, signal.SIG_IGN)

    process = net.program(path, "60", preexec_fn=ignore)
    until(lambda: open(f"/proc/{process.pid}/comm").read() == path.name[:15] + "\n", "it runs")
    return process


# -k


@pytest.mark.parametrize("by_name, workers", [(True, 1), (False, 3)])
def test_kill_finds_the_others_by_their_name(net, vrox, named, origin, by_name, workers):
    path = named()
    others = [sleeper(net, path.parent / name) for name in ("vrox2", "vro", "Vrox", "xvrox")]
    env = {"PATH": f"{path.parent}:{os.environ['PATH']}"}
    daemon = vrox(config(origin), workers=workers, binary=NAME if by_name else path, env=env)
    assert run(path.parent, "-k", binary=path if by_name else NAME, env=env) == (0, "", "")
    assert daemon.wait() == 0 and set(daemon.ended.values()) <= {0, None}
    assert not listeners() & OPENED
    assert all(map(alive, (process.pid for process in others)))


def test_a_name_longer_than_the_kernel_keeps_never_matches(vrox, named, origin):
    path = named("vrox_of_sixteen_")
    daemon = vrox(config(origin), binary=path)
    assert run(path.parent, "-k", binary=path) == (0, "", "")
    assert alive(daemon.pid)


@pytest.mark.parametrize("ignoring, end", [([signal.SIGTERM], signal.SIGKILL), ([], signal.SIGTERM)],
                         ids=["forced", "obedient"])
def test_kill_waits_as_long_as_needed(net, named, ignoring, end):
    path = named()
    process = reaped(sleeper(net, path.parent / "s" / NAME, ignoring))
    begun = time.monotonic()
    assert run(path.parent, "-k", binary=path) == (0, "", "")
    assert not ignoring or time.monotonic() - begun >= 0.5
    until(lambda: process.returncode == -end, "it is reaped")


def test_kill_acts_while_the_options_are_read(vrox, named, origin, tmp_path):
    path = named()
    daemon = vrox(config(origin), binary=path)
    assert run(tmp_path, "-r", "-x", binary=path)[0] == 1  # -r has acted by the time of the wrong option
    assert daemon.wait() == 0
    daemon = vrox(config(origin), binary=path)
    assert run(tmp_path, "-x", "-k", binary=path)[0] == 1
    assert alive(daemon.pid)
    assert run(tmp_path, "-c", "/nowhere", "-k", "-x", binary=path) == (0, "", "")
    assert daemon.wait() == 0


def test_restart_waits_for_the_address(net, vrox, origin):
    """The previous instance may be slow to let go of it; without a restart nobody waits."""
    holder = net.listen("::", TCP_PORT)
    net.spawn(lambda: (time.sleep(0.5), holder.close()))
    daemon = vrox(config(origin), "-r")
    assert daemon.err == ""


# SIGUSR1


def test_drain_without_sessions_ends_at_once(vrox, origin):
    daemon = vrox(config(origin) + conf.dns_global(), workers=4)
    for pid in daemon.pids:
        daemon.signal(signal.SIGUSR1, pid)
    assert daemon.wait() == 0  # and not after the period in which it looks for sessions
    assert not listeners() & OPENED


@pytest.mark.parametrize("workers", [1, 4])
def test_drain_accepts_what_waits_and_finishes_its_sessions(net, vrox, origin, workers):
    daemon = vrox(config(origin), workers=workers, binary=SWEEP_BIN)
    open_before = [net.joined(origin) for _ in range(5)]
    for pid in daemon.pids:
        os.kill(pid, signal.SIGSTOP)
    waiting, waiting_socks = ([net.connect(port=port) for _ in range(60)] for port in (TCP_PORT, SOCKS_PORT))
    for client in waiting_socks:
        client.sendall(b"\x05\x01\x00")
    for number in signal.SIGUSR1, signal.SIGCONT:
        for pid in daemon.pids:
            os.kill(pid, number)
    until(lambda: not listeners() & OPENED, "the listeners close")
    time.sleep(1.2)  # over a check that finds open sessions
    for client in waiting_socks:
        assert read_exactly(client, 2) == socks5.NO_AUTH
        client.sendall(socks5.request("127.0.0.1", 9))
        assert read_exactly(client, 10) == socks5.CONNECTED
    upstreams = [net.accept(origin) for _ in range(120)]
    for number, client in enumerate(waiting + waiting_socks):
        client.sendall(b"\x01" + number.to_bytes(2, "big"))
    for upstream in upstreams:
        upstream.sendall(read_exactly(upstream, 3))
    for number, client in enumerate(waiting + waiting_socks):
        assert read_exactly(client, 3) == b"\x01" + number.to_bytes(2, "big")
    for client, upstream in open_before:
        exchange(client, upstream)
        client.close()
    for client in waiting + waiting_socks:
        assert any(map(alive, daemon.pids))
        client.close()
    assert daemon.wait() == 0


def test_drain_waits_for_unfinished_handshakes(net, vrox, origin):
    daemon = vrox(config(origin), binary=SWEEP_BIN)
    client = socks5.greeted(net)
    daemon.signal(signal.SIGUSR1)
    time.sleep(2.2)
    assert alive(daemon.pid)
    client.close()
    assert daemon.wait() == 0


@pytest.mark.skipif(TSAN, reason="ThreadSanitizer runs handlers with every signal blocked")
@pytest.mark.parametrize("name", ["SIGTERM", "SIGABRT"])
def test_drain_can_be_cut_short(net, vrox, origin, name):
    daemon = vrox(config(origin, "maxData = 1M", "maxData_savePath = 0 stats"))
    (client, upstream), other = net.joined(origin), net.joined(origin)
    for _ in range(2):  # once is enough
        daemon.signal(signal.SIGUSR1)
        until(lambda: ("::", TCP_PORT) not in listeners(), "it drains")
    exchange(client, upstream, b"\x01" * 24, b"\x01" * 1000)
    other[0].close()
    assert ended(other[1])  # by now all that was read before has been counted, too
    daemon.signal(getattr(signal, name))
    assert daemon.wait() == 0
    assert (daemon.directory / "stats").read_text() == f"global: {1 << 20}\nall: {(1 << 20) - 1024}\n"
    assert ended(client)


@pytest.mark.slow
def test_drain_looks_again_after_a_minute(net, vrox, origin):
    """The shipped period, which the sweeps share."""
    daemon = vrox(config(origin))
    client, upstream = net.joined(origin)
    begun = time.monotonic()
    daemon.signal(signal.SIGUSR1)
    until(lambda: ("::", TCP_PORT) not in listeners(), "it drains")
    exchange(client, upstream)
    client.close()
    assert daemon.wait(90) == 0
    assert time.monotonic() - begun >= 59.5


# -r


@pytest.mark.parametrize("workers", [1, 3])
def test_restart_leaves_the_old_sessions_to_the_old_instance(net, vrox, named, origin, workers):
    path = named(binary=SWEEP_BIN)
    new_origin = net.listen()
    old = vrox(config(origin), workers=workers, binary=path)
    client, upstream = net.joined(origin)
    new = vrox(config(new_origin), "-r", workers=workers, binary=path)
    exchange(*net.joined(new_origin))
    exchange(client, upstream)
    client.close()
    assert old.wait() == 0
    assert all(map(alive, new.pids))


class Load:
    """Clients on several threads, one after the other: each sends and waits for the echo, some for a while."""

    def __init__(self, net):
        self.over, self.served, self.late = threading.Event(), 0, 0
        self.port, self._net, self._threads = net.serve(self._echo), net, []

    @staticmethod
    def _echo(conn):
        while piece := conn.recv(65536):
            conn.sendall(piece)

    def start(self):
        self._threads = [self._net.spawn(self._clients, number) for number in range(8)]

    def stop(self):
        self.over.set()
        for thread in self._threads:
            thread.join(3 * DEADLINE)

    def _clients(self, number):
        while not self.over.wait(0.02):
            with socket.socket() as conn:
                conn.settimeout(DEADLINE)
                self._one(conn, via_socks=number % 2, turns=3 if number % 4 > 1 else 1)

    def _one(self, conn, via_socks, turns):
        begun = 0

        def connected():
            nonlocal begun
            begun = time.monotonic()
            return conn.connect_ex(("127.0.0.1", SOCKS_PORT if via_socks else TCP_PORT)) == 0

        until(connected, "somebody listens", 5)
        stage, late = "connected", False
        try:
            if via_socks:  # its client speaks as soon as it is connected
                conn.send(b"\x05\x01\x00")
                # Held up by a busy machine: the kernel does not hand over a connection that is silent.
                late = time.monotonic() - begun > 0.04
                assert read_exactly(conn, 2) == socks5.NO_AUTH
                stage, late = "in the handshake", False
                conn.sendall(socks5.request("127.0.0.1", self.port))
                assert read_exactly(conn, 10) == socks5.CONNECTED
            for turn in range(turns):
                stage = f"in exchange {turn}"
                time.sleep(0.7 * (turn > 0))
                text = b"\x01" + random.randbytes(2000)
                conn.sendall(text)
                assert read_exactly(conn, len(text)) == text
                self.served += 1
        except (OSError, AssertionError) as failure:
            assert late, f"lost {stage}, {'socks5' if via_socks else 'tcp'}: {failure!r}"
            self.late += 1


@pytest.mark.parametrize("workers, restarts", [
    (1, 2), pytest.param(1, 12, marks=pytest.mark.slow), pytest.param(4, 12, marks=pytest.mark.slow)])
def test_restart_under_load(net, vrox, named, workers, restarts):
    path, load = named(binary=SWEEP_BIN), Load(net)
    text = conf.fixed(load.port, extra=conf.socks5())
    instances = [vrox(text, workers=workers, binary=path)]
    load.start()
    for _ in range(restarts + 1):
        before = load.served
        until(lambda: load.served > before + 50, "the load is on")
        if len(instances) <= restarts:
            instances.append(vrox(text, "-r", workers=workers, binary=path))
    load.stop()
    for old in instances[:-1]:
        assert old.wait() == 0
    print(f"{load.served} exchanges, late {load.late}")


# Signals during start-up


@pytest.mark.parametrize("name", [
    "SIGTERM", "SIGUSR1",
    pytest.param("SIGABRT", marks=pytest.mark.skipif(SANITIZED, reason="a sanitizer may hold a lock that its end needs"))])
def test_signals_at_any_moment_of_start_up(net, tmp_path, name):
    """It ends, by default or as it does when it serves, and never hangs half started."""
    (tmp_path / "conf").write_text(conf.tcp_global("tcpProxy = direct") + conf.DIRECT + conf.socks5())
    number = getattr(signal, name)
    endings = set()
    for delay in range(10 if SANITIZED else 24):
        with open(tmp_path / "err", "wb") as err:
            process = subprocess.Popen(command("-c", "conf", "-d"), cwd=tmp_path, env=ENV, stderr=err)
        if delay % 2:
            until(lambda: ("::", TCP_PORT) in listeners(), "it is amid its start")
            time.sleep(delay * 0.00005)
        else:
            time.sleep(delay * (0.005 if SANITIZED else 0.0003))
        process.send_signal(number)
        endings.add(process.wait(DEADLINE))
        check_reports((tmp_path / "err").read_text(errors="replace"))
    assert endings <= {0, -number}
