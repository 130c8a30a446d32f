"""A network of the test's own, and the peers that live in it.

Everything is on the loopback device: 10.77.0.0/16 and fd77::/16 are local, and
`redirect` sends connections to them to the daemon as a firewall would.
"""
import contextlib
import ctypes
import os
import select
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

from lib.daemon import TCP_PORT, UID
from lib.wait import DEADLINE, QUIET

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000


def family_of(address):
    return socket.AF_INET6 if ":" in address else socket.AF_INET


def new_namespace():
    if _libc.unshare(_CLONE_NEWNET):
        raise OSError(ctypes.get_errno(), "unshare")
    ip("link set lo up", "addr add 10.77.0.1/16 dev lo", "addr add fd77::1/64 dev lo nodad",
       "route add local fd77::/16 dev lo")
    sysctl("net.ipv4.tcp_fastopen", 3)
    sysctl("net.ipv6.ip_nonlocal_bind", 1)  # fd77::/16 is local, but only fd77::1 is an address
    sysctl("net.ipv4.ip_local_port_range", "10000 65000")
    # How much fits on the way is the same everywhere.
    sysctl("net.ipv4.tcp_rmem", "4096 131072 6291456")
    sysctl("net.ipv4.tcp_wmem", "4096 16384 4194304")


def ip(*commands, family="", keep=()):
    """Commands of ip(8), which may name kept descriptors."""
    argv = ["ip", *family.split(), "-batch", "-"]
    subprocess.run(argv, input="\n".join(commands), text=True, check=True, pass_fds=keep)


def nft(ruleset):
    subprocess.run(["nft", "-f", "-"], input=ruleset, text=True, check=True)


def sysctl(name, value):
    Path("/proc/sys", name.replace(".", "/")).write_text(str(value))


def listeners(proto="tcp"):
    """The listening TCP (or bound UDP) sockets here, as {(address, port)}."""
    found = set()
    for name, family in ((proto, socket.AF_INET), (proto + "6", socket.AF_INET6)):
        for line in Path("/proc/net", name).read_text().splitlines()[1:]:
            local, state = line.split()[1], line.split()[3]
            if state != ("0A" if proto == "tcp" else "07"):
                continue
            address, port = local.split(":")
            words = struct.unpack(f">{len(address) // 8}I", bytes.fromhex(address))
            raw = b"".join(struct.pack("=I", word) for word in words)
            found.add((socket.inet_ntop(family, raw), int(port, 16)))
    return found


def port_of(sock):
    return sock.getsockname()[1]


def read_exactly(conn, count):
    data = bytearray()
    while len(data) < count:
        piece = conn.recv(min(1 << 18, count - len(data)))
        assert piece, f"the stream ended after {len(data)} of {count} bytes: {bytes(data[:80])!r}"
        data += piece
    return bytes(data)


def read_all(conn):
    """Everything up to the end of the stream; a reset counts as the end."""
    data = bytearray()
    with contextlib.suppress(ConnectionResetError):
        while piece := conn.recv(1 << 18):
            data += piece
    return bytes(data)


def read_until(conn, mark):
    data = b""
    while mark not in data:
        piece = conn.recv(1 << 16)
        assert piece, f"the stream ended before {mark!r}: {data!r}"
        data += piece
    return data


def silent(conn, seconds=QUIET):
    """True when nothing arrives and the stream stays open for a while."""
    conn.settimeout(seconds)
    try:
        return conn.recv(1, socket.MSG_PEEK) is None
    except TimeoutError:
        return True
    finally:
        conn.settimeout(DEADLINE)


def first_readable(*socks):
    """The first of them that has bytes, an end, or a connection to accept."""
    ready = select.select(socks, [], [], DEADLINE)[0]
    assert ready, "nothing comes anywhere"
    return ready[0]


def ended(conn):
    """True when the peer's stream ends (or is reset) with nothing more to read."""
    try:
        return conn.recv(1) == b""
    except ConnectionResetError:
        return True


def reset(conn):
    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conn.close()


def bytewise(conn, data, size=1):
    """Pieces of this size, each a segment of its own, seen by the daemon one after the other more often than not."""
    conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for at in range(0, len(data), size):
        conn.sendall(data[at:at + size])
        time.sleep(0.0005)


def admit_fast_open(listener):
    listener.setsockopt(socket.IPPROTO_TCP, socket.TCP_FASTOPEN, 16)


def came_in_syn(conn):
    """True when this connection's first bytes travelled in the SYN (TCPI_OPT_SYN_DATA)."""
    return bool(conn.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 8)[5] & 32)


def exchange(a, b, text=b"\x01 there", back=b"\x01 and back"):
    """One message each way over a relayed connection."""
    a.sendall(text)
    assert read_exactly(b, len(text)) == text
    b.sendall(back)
    assert read_exactly(a, len(back)) == back


class Net:
    def __init__(self):
        self._stack = contextlib.ExitStack()
        self._failures = []

    def keep(self, closable):
        return self._stack.enter_context(contextlib.closing(closable))

    def listen(self, address="127.0.0.1", port=0, backlog=4096):
        """A listening socket; the kernel chooses the port."""
        sock = self.keep(socket.socket(family_of(address), socket.SOCK_STREAM))
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((address, port))
        sock.listen(backlog)
        sock.settimeout(DEADLINE)
        return sock

    def accept(self, listener):
        conn, _ = listener.accept()
        conn.settimeout(DEADLINE)
        return self.keep(conn)

    def idle(self, listener, seconds=QUIET):
        listener.settimeout(seconds)
        try:
            listener.accept()[0].close()
            return False
        except TimeoutError:
            return True
        finally:
            listener.settimeout(DEADLINE)

    def connect(self, address="127.0.0.1", port=TCP_PORT, source=None):
        sock = self.keep(socket.socket(family_of(address), socket.SOCK_STREAM))
        sock.settimeout(DEADLINE)
        if source:
            sock.bind((source, 0))
        sock.connect((address, port))
        return sock

    def joined(self, listener, first=b"", **how):
        """A new connection through the daemon: the client's end and the upstream's."""
        client = self.connect(**how)
        client.sendall(first)
        upstream = self.accept(listener)
        assert read_exactly(upstream, len(first)) == first
        return client, upstream

    def spawn(self, work, *args):
        """Runs work(*args) beside the test; its failure fails the test."""

        def guarded():
            try:
                work(*args)
            except OSError:
                pass  # the other end went away, which is many a test's purpose
            except BaseException as failure:  # noqa: BLE001, kept for the test's own thread
                self._failures.append(failure)

        thread = threading.Thread(target=guarded, daemon=True)
        thread.start()
        return thread

    def serve(self, handler, address="127.0.0.1", port=0):
        """A server with one thread a connection; returns its port."""
        listener = self.listen(address, port)
        listener.settimeout(None)

        def one(conn):
            with conn:
                conn.settimeout(DEADLINE)
                handler(conn)

        def loop():
            while True:
                conn, _ = listener.accept()
                self.spawn(one, conn)

        self.spawn(loop)
        # close() alone does not wake a thread that waits in accept().
        self._stack.callback(lambda: listener.shutdown(socket.SHUT_RDWR))
        return listener.getsockname()[1]

    def redirect(self, port=TCP_PORT, uid=UID):
        """Redirects every connection to the test's addresses, except the daemon's own."""
        nft(f"""table inet test {{
          chain output {{
            type nat hook output priority -100;
            meta l4proto tcp meta skuid != {uid} ip daddr 10.77.0.0/16 redirect to :{port}
            meta l4proto tcp meta skuid != {uid} ip6 daddr fd77::/16 redirect to :{port}
          }}
        }}""")

    def program(self, *argv, **options):
        """A helper program, ended with the test."""
        process = subprocess.Popen(list(map(str, argv)), stdin=subprocess.DEVNULL, **options)

        def end():
            process.terminate()
            process.wait(DEADLINE)

        self._stack.callback(end)
        return process

    def close(self):
        self._stack.close()
        if self._failures:
            raise self._failures[0]


def other_processes():
    """Every process here besides this one and what is not ours: {pid: name}."""
    found = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit() and int(entry) != os.getpid():
            with contextlib.suppress(OSError):
                found[int(entry)] = Path("/proc", entry, "comm").read_text().strip()
    return found
