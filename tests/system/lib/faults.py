"""The other side of tests/fault/inject.cc: a daemon whose n-th call of one kind fails."""
import errno
import mmap
import os
import struct
import subprocess
from pathlib import Path

from lib import peers
from lib.daemon import BIN, ENV, SANITIZED

INJECT = os.environ.get("VROX_INJECT") or str(Path(BIN).with_name("libinject.so"))

KINDS = ["", "socket", "connect", "accept", "epoll_add", "epoll_wait", "memory", "recv", "recvmmsg", "send", "sendmmsg",
         "splice", "pipe", "read", "write", "open", "socket_option", "socket_name", "bind", "listen", "mmap", "eventfd",
         "timer", "epoll_create", "fcntl", "poll"]
SHORT = 0  # in place of an error number
_HEAD = "=IiiI"


def _runtime(name):
    """The sanitizer's library that the program itself is linked to."""
    for line in subprocess.run(["ldd", BIN], capture_output=True, text=True, check=True).stdout.splitlines():
        if line.strip().startswith(name):
            return line.split("=>")[1].split()[0]
    raise AssertionError(f"no {name}")


class Page:
    """What is to fail, in memory that the daemon shares."""

    def __init__(self, path):
        self.path = path
        path.write_bytes(bytes(4096))
        with open(path, "r+b") as file:
            self._page = mmap.mmap(file.fileno(), 4096)

    @property
    def env(self):
        # A sanitizer's runtime follows: what gets through here goes on to it.
        runtime = [f"lib{SANITIZED[1].decode()}.so"] if SANITIZED else []
        return {"LD_PRELOAD": " ".join([INJECT, *map(_runtime, runtime)]), "FAULT_PAGE": str(self.path),
                "ASAN_OPTIONS": ENV["ASAN_OPTIONS"] + ":verify_asan_link_order=0:allocator_may_return_null=1"}

    def arm(self, kind, error, nth):
        struct.pack_into("=iiI", self._page, 4, error, nth, 0)
        struct.pack_into("=I", self._page, 0, KINDS.index(kind))

    def disarm(self):
        """True when the fault has happened."""
        struct.pack_into("=I", self._page, 0, 0)
        return struct.unpack_from(_HEAD, self._page)[3] != 0

    def calls(self, kind):
        return struct.unpack_from("=I", self._page, struct.calcsize(_HEAD) + 4 * KINDS.index(kind))[0]


class Stepper:
    """The peers, one exchange at a time."""

    def __init__(self, net, directory, stream_ms, datagram_ms):
        self._process = net.keep(peers.Peers(directory, "step", stream_ms, datagram_ms, stdin=subprocess.PIPE,
                                             stdout=subprocess.PIPE)).process

    def _say(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def __call__(self, service):
        self._say(service)
        return self._process.stdout.readline().decode().strip()

    def patience(self, milliseconds):
        """From now on, how long a stream may stand still."""
        self._say(f"patience {milliseconds}")
        self._process.stdout.readline()


def name(error):
    return errno.errorcode.get(error, "short")
