"""Running instances: told to end by name (-k), replaced (-r), drained (SIGUSR1)."""
import asyncio
import contextlib
import os
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest

from lib import conf, quick, socks5
from lib.daemon import BIN, ENV, SANITIZED, SOCKS_PORT, TCP_PORT, TSAN, alive, check_reports, command, run
from lib.net import ended, exchange, listeners, port_of, read_exactly
from lib.wait import DEADLINE, until

NAME = "vrox"
OPENED = {("::", TCP_PORT), ("::", SOCKS_PORT)}


@pytest.fixture
def origin(net):
    return net.listen()


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
    """A process of this name that does nothing."""
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
    assert daemon.wait() == 0 and set(daemon.ended.values()) == {0}
    assert not listeners() & OPENED
    assert all(map(alive, (process.pid for process in others)))


def test_a_name_longer_than_the_kernel_keeps_never_matches(vrox, named, origin):
    path = named("vrox_of_sixteen_")
    daemon = vrox(config(origin), binary=path)
    assert run(path.parent, "-k", binary=path) == (0, "", "")
    assert alive(daemon.pid)


@pytest.mark.parametrize("ignoring, end, least, most", [
    ([signal.SIGTERM], signal.SIGKILL, 0.5, 1.5), ([], signal.SIGTERM, 0, 0.45)], ids=["forced", "obedient"])
def test_kill_waits_as_long_as_needed(net, named, ignoring, end, least, most):
    path = named()
    process = reaped(sleeper(net, path.parent / "s" / NAME, ignoring))
    begun = time.monotonic()
    assert run(path.parent, "-k", binary=path) == (0, "", "")
    assert least <= time.monotonic() - begun < most + (2 if SANITIZED else 0)
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
    begun = time.monotonic()
    for pid in daemon.pids:
        daemon.signal(signal.SIGUSR1, pid)
    assert daemon.wait() == 0
    assert time.monotonic() - begun < 5 and not listeners() & OPENED


@quick.needed
@pytest.mark.parametrize("workers", [1, 4])
def test_drain_accepts_what_waits_and_finishes_its_sessions(net, vrox, origin, workers):
    daemon = vrox(config(origin), workers=workers, binary=quick.SWEEP_BIN)
    open_before = [net.joined(origin) for _ in range(5)]
    for pid in daemon.pids:
        os.kill(pid, signal.SIGSTOP)
    waiting = [net.connect() for _ in range(60)]
    waiting_socks = [net.connect(port=SOCKS_PORT) for _ in range(60)]
    for client in waiting_socks:
        client.sendall(b"\x05\x01\x00")
    for pid in daemon.pids:
        os.kill(pid, signal.SIGUSR1)
    for pid in daemon.pids:
        os.kill(pid, signal.SIGCONT)
    until(lambda: not listeners() & OPENED, "the listeners close", 3)
    for port in TCP_PORT, SOCKS_PORT:
        with pytest.raises(ConnectionRefusedError):
            net.connect(port=port)
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


@quick.needed
def test_drain_waits_for_unfinished_handshakes(net, vrox, origin):
    daemon = vrox(config(origin), binary=quick.SWEEP_BIN)
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
    client, upstream = net.joined(origin)
    for _ in range(2):  # once is enough
        daemon.signal(signal.SIGUSR1)
        until(lambda: ("::", TCP_PORT) not in listeners(), "it drains")
    exchange(client, upstream, b"\x01" * 24, b"\x01" * 1000)
    time.sleep(0.1)  # bytes are counted when they are written, and may be read before
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
    assert 59.5 <= time.monotonic() - begun <= 63


# -r


@quick.needed
@pytest.mark.parametrize("workers", [1, 3])
def test_restart_leaves_the_old_sessions_to_the_old_instance(net, vrox, named, origin, workers):
    path = named(binary=quick.SWEEP_BIN)
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
    """Real clients, so many a second: each sends, waits for the echo, and some stay for a while."""

    RATE = 200

    def __init__(self, echo_port):
        self.echo_port = echo_port
        self.attempts, self.lost, self.late = {TCP_PORT: [], SOCKS_PORT: []}, [], 0
        self.count = self.bytes = 0
        self._stopping = False
        self._thread = threading.Thread(target=lambda: asyncio.run(self._run()), daemon=True)
        self._thread.start()

    def stop(self):
        self._stopping = True
        self._thread.join(3 * DEADLINE)
        assert not self._thread.is_alive()

    async def _echo(self, reader, writer):
        with contextlib.suppress(ConnectionError):
            while piece := await reader.read(65536):
                writer.write(piece)
                await writer.drain()
        writer.close()

    async def _client(self, number):
        via_socks = number % 2
        port, begun = SOCKS_PORT if via_socks else TCP_PORT, time.monotonic()
        sock = socket.socket()
        sock.setblocking(False)
        try:
            await asyncio.get_running_loop().sock_connect(sock, ("127.0.0.1", port))
        except ConnectionRefusedError:
            self.attempts[port].append((begun, False))
            return
        self.attempts[port].append((begun, True))
        self.count += 1
        stage, spoke_after = "connected", 0
        try:
            if via_socks:  # its client speaks as soon as it is connected
                sock.send(b"\x05\x01\x00")
                spoke_after = time.monotonic() - begun
            reader, writer = await asyncio.open_connection(sock=sock)
            if via_socks:
                assert await reader.readexactly(2) == socks5.NO_AUTH
                stage = "in the handshake"
                writer.write(socks5.request("127.0.0.1", self.echo_port))
                assert await reader.readexactly(10) == socks5.CONNECTED
            for turn in range(3 if number % 5 == 0 else 1):
                stage = f"in exchange {turn}"
                text = b"\x01" + number.to_bytes(4, "big") * 500
                writer.write(text)
                assert await reader.readexactly(len(text)) == text
                self.bytes += len(text)
                if number % 5 == 0:
                    await asyncio.sleep(0.7)
            writer.close()
        except (OSError, asyncio.IncompleteReadError, AssertionError) as failure:
            sock.close()
            if via_socks and stage == "connected" and spoke_after > 0.04:
                self.late += 1  # held up by a busy machine: the kernel had not handed it over yet
                return
            self.lost.append((number, "socks5" if via_socks else "tcp", stage, spoke_after, repr(failure)))

    async def _run(self):
        server = await asyncio.start_server(self._echo, "127.0.0.1", self.echo_port, backlog=1000)
        clients, number = set(), 0
        begun = time.monotonic()
        while not self._stopping:
            clients.add(task := asyncio.create_task(self._client(number)))
            task.add_done_callback(clients.discard)
            number += 1
            await asyncio.sleep(max(0, begun + number / self.RATE - time.monotonic()))
        self.rate = number / (time.monotonic() - begun)
        await asyncio.gather(*clients)
        server.close()


def gaps(attempts):
    """How long each time of refusals lasted: from the first one to the next attempt that was taken."""
    found, since = [], None
    for at, taken in sorted(attempts):
        if not taken:
            since = since or at
        elif since:
            found.append(at - since)
            since = None
    return found if since is None else [*found, float("inf")]


@quick.needed
@pytest.mark.parametrize("workers, restarts", [
    (1, 2), pytest.param(1, 12, marks=pytest.mark.slow), pytest.param(4, 12, marks=pytest.mark.slow)])
def test_restart_under_load(vrox, named, origin, workers, restarts):
    path = named(binary=quick.SWEEP_BIN)
    text, port = config(origin), port_of(origin)
    origin.close()
    instances = [vrox(text, workers=workers, binary=path)]
    load = Load(port)
    until(lambda: load.bytes, "the load is on")
    for _ in range(restarts):
        time.sleep(0.6)
        instances.append(vrox(text, "-r", workers=workers, binary=path))
    time.sleep(0.6)
    load.stop()
    for old in instances[:-1]:
        assert old.wait() == 0
    times = [round(1000 * gap) for attempts in load.attempts.values() for gap in gaps(attempts)]
    print(f"{load.count} connections, {load.rate:.0f} attempts a second, {load.bytes} bytes each way, "
          f"refused for {times} ms, late {load.late}, lost {load.lost}")
    assert not load.lost
    assert load.count > 100
    assert max(times, default=0) <= (2000 if SANITIZED else 300)


# Signals during start-up


@pytest.mark.parametrize("name", [
    "SIGTERM", "SIGUSR1",
    pytest.param("SIGABRT", marks=pytest.mark.skipif(TSAN, reason="ThreadSanitizer handles it amid its own work"))])
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
