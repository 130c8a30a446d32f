"""The n-th call fails, for each kind of call and n = 1, 2, 3 ...: while one service after the other is used,
and while the daemon starts. tests/fault/inject.cc makes it so.

  FAULT_SECONDS  how long to look while serving (default 30); 0: until every case has been tried
"""
import errno as e
import os
import random
import re
import signal
import subprocess
import time
from collections import Counter

import pytest

from lib import faults, peers, tun
from lib.daemon import ENV, SANITIZED, _serves, alive, command
from lib.faults import SHORT
from lib.net import sysctl
from lib.wait import DEADLINE, until

SECONDS = float(os.environ.get("FAULT_SECONDS", "30"))

EXHAUSTED = [e.EMFILE, e.ENFILE, e.ENOMEM]
WAITS = [e.EAGAIN, e.EINTR]
SERVING = {
    "socket": [*EXHAUSTED, e.ENOBUFS],
    "connect": [e.ENETUNREACH, e.EADDRNOTAVAIL, e.ECONNREFUSED, e.EINTR],
    "accept": [*EXHAUSTED, e.ECONNABORTED, *WAITS],
    "epoll_add": [e.ENOMEM, e.ENOSPC],
    "epoll_wait": [e.EINTR],
    "memory": [e.ENOMEM],
    "recv": [*WAITS, e.ECONNRESET, e.ETIMEDOUT, SHORT],
    "recvmmsg": [*WAITS, e.ECONNREFUSED, e.ENOMEM, SHORT],
    "send": [*WAITS, e.ECONNRESET, e.EPIPE, e.ENOBUFS, SHORT],
    "sendmmsg": [*WAITS, e.EPERM, e.ENOBUFS, SHORT],
    "splice": [*WAITS, e.ECONNRESET, e.EPIPE, e.EINVAL, SHORT],
    "pipe": EXHAUSTED,
    "socket_option": [e.ENOMEM],
    "socket_name": [e.ENOBUFS],
    "bind": [e.EADDRINUSE],
    "fcntl": [e.EPERM],
}
# A packet that is lost on the device may leave its flow waiting.
DEVICE = {"read": [*WAITS, e.EIO, e.ENOMEM], "write": [*WAITS, e.EIO, e.ENOBUFS]}
STARTING = {
    **{kind: [e.ENOMEM] for kind in ("memory", "socket_option", "socket_name", "mmap", "fcntl", "epoll_add")},
    "socket": EXHAUSTED, "eventfd": [e.EMFILE], "timer": [e.EMFILE], "epoll_create": [e.EMFILE], "open": [e.EMFILE], "bind": [e.EADDRINUSE],
    "listen": [e.EADDRINUSE], "connect": [e.ENETUNREACH],
}
COMPLAINT = re.compile(r"^(\w+\(\): |error line: |configuration|out of memory$|.* request .*failed$)", re.M)
FLOWS = ["tun 7001", "tun6 7003", "tun 7080"]
DATAGRAMS = ["dns tcp", "dns http", "dns again", "dns device", "udp relay", "udp transparent", "udp device"]
SERVICES = ["redirect 7001", "redirect6 7002", "socks 7003", "socks6 7004", "socks_name 7005", "redirect 7006",
            "socks 7007", "redirect 7080", *FLOWS, *DATAGRAMS]


class Bench:
    """A daemon under faults, and the descriptors that it held before the first one."""

    def __init__(self, directory, net, vrox, **settings):
        sysctl("net.core.somaxconn", 4096)
        peers.prepare_network()
        self.page = faults.Page(directory / "page")
        # So few slots that lost ones are soon missed.
        self.daemon = vrox(peers.configuration(sessions=40, **settings), env=self.page.env)
        tun.open_routes()
        self.step = faults.Stepper(net, directory, stream_ms=15000, datagram_ms=500 if SANITIZED else 200)
        self.count = Counter()
        for service in SERVICES * 2:
            self.resumes(service, "before any fault")
        time.sleep(0.2)
        self.base = self.daemon.fds()

    def cases(self, table, services):
        # Want of memory for the device's records is an assertion, intended.
        cases = [(service, kind, error) for service in services for kind, errors in table.items() for error in errors
                 if not (kind == "memory" and service in FLOWS)]
        random.shuffle(cases)
        return cases

    def resumes(self, service, what):
        until(lambda: self.step(service) == "ok", f"{service}: {what}, and it does not resume")

    def nth(self, service, kind, error, nth, ends):
        """One fault; False when there are fewer than `nth` such calls."""
        what = f"{service}: {faults.name(error)} of {kind} {nth}"
        self.page.arm(kind, error, nth)
        result = self.step(service)
        if not self.page.disarm():
            return False
        self.count[kind] += 1
        assert alive(self.daemon.pid), f"{what}\n{self.daemon.err}"
        assert result in ends, f"{what}: {result}"
        self.resumes(service, what)
        return True


def test_while_serving(net, vrox, tmp_path):
    bench = Bench(tmp_path, net, vrox, timeouts=False)
    begun, done = time.monotonic(), 0
    for service, kind, error in (cases := bench.cases(SERVING, SERVICES)):
        nth = 1
        while bench.nth(service, kind, error, nth, ("ok", "lost")):
            until(lambda: bench.daemon.fds() <= bench.base,
                  f"{service}: {faults.name(error)} of {kind} {nth}: more than {bench.base} descriptors")
            nth += 1
        done += 1
        if 0 < SECONDS < time.monotonic() - begun:
            break
    assert bench.count
    print(f"{bench.count.total()} faults, {done} of {len(cases)} cases, {time.monotonic() - begun:.0f} s: {bench.count}")


def test_on_the_device(net, vrox, tmp_path):
    bench = Bench(tmp_path, net, vrox)
    services = [*FLOWS[:1], "dns device", "udp device"]
    for service, kind, error in bench.cases(DEVICE, services)[: 6 if SECONDS else None]:
        bench.step.patience(500)
        for nth in (1, 2, 3, 5, 8, 13):
            if not bench.nth(service, kind, error, nth, ("ok", "lost", "stuck")):
                break
    assert bench.count
    print(f"{bench.count.total()} faults: {bench.count}")


def outcome(directory, page):
    """How a start ended: an exit status, or None when the daemon serves."""
    pid_path = directory / "start.pid"
    pid_path.unlink(missing_ok=True)
    with open(directory / "start.err", "wb") as err:
        process = subprocess.Popen(command("-c", directory / "start.conf", "-d", "-p", pid_path), env={**ENV, **page.env},
                                   cwd=directory, stdout=subprocess.DEVNULL, stderr=err)
    until(lambda: process.poll() is not None or pid_path.exists() and _serves(process.pid), "it starts or gives up")
    status = process.poll()
    if status is None:
        process.send_signal(signal.SIGTERM)
        assert process.wait(DEADLINE) == 0
    return status, (directory / "start.err").read_text()


@pytest.mark.parametrize("kind", STARTING)
def test_while_starting(net, tmp_path, kind):
    """It says which call failed and exits with status 1, or goes on without what it can do without."""
    peers.prepare_network()
    page = faults.Page(tmp_path / "page")
    (tmp_path / "start.conf").write_text(peers.configuration(sessions=40))
    page.arm(kind, STARTING[kind][0], 1 << 30)
    assert outcome(tmp_path, page)[0] is None
    numbers = range(1, page.calls(kind) + 1)
    if kind == "mmap" and SANITIZED:
        pytest.skip("a sanitizer must have mmap() for itself: the injector leaves it alone")
    assert numbers, f"no {kind} that could fail"
    for error in STARTING[kind]:
        for nth in numbers:
            page.arm(kind, error, nth)
            status, text = outcome(tmp_path, page)
            what = f"{faults.name(error)} of {kind} {nth}: status {status}, {text!r}"
            if status is None:
                continue
            if "Assertion failed in src/event" in text:
                assert status in (-signal.SIGABRT, 0), what  # 0 once the handlers are there
                continue
            assert status == 1 and COMPLAINT.search(text), what
