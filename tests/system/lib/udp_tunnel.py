"""Both ends of UDP over HTTP, written from the wire alone: clients, and the far end of their tunnels.

In a tunnel a datagram is a 16-bit length in the host's byte order and that many bytes: a SOCKS5 UDP
request header and the payload.
"""
import socket
import struct
import time

from lib import far_end, socks5
from lib.net import family_of, ip, nft, read_until, silent
from lib.wait import DEADLINE, QUIET

TPROXY_PORT, RELAY_PORT = 1090, 1091  # free in every test's own network
OK = b"HTTP/1.1 200 OK\r\nX: y\r\n\r\n"
FOREIGN, FOREIGN6 = "198.51.100.", "2001:db8::"  # what transparent() redirects begins like this
MAX_FRAMED = 0xFFFF
_SO_RCVBUFFORCE = 33


def header(address, port):
    """The SOCKS5 UDP request header for an address or a name."""
    return b"\0\0\0" + socks5.request(address, port)[3:]


def frame(datagram):
    return struct.pack("=H", len(datagram)) + datagram


def frames(datagrams):
    return b"".join(map(frame, datagrams))


class Tunnel:
    """One tunnel at its far end; its request has been read, and is answered unless `answer` is None."""

    def __init__(self, conn, password=None, answer=OK):
        self.conn, self._password = conn, password and password.encode()
        got = read_until(conn, b"\r\n\r\n")
        end = got.index(b"\r\n\r\n") + 4
        self.request, self._raw, self._plain = got[:end], bytearray(got[end:]), bytearray()
        self._decode = self._encode = None
        if not password:
            self._decode = self._encode = bytes
        if answer is not None:
            self.send_raw(answer)

    def _learn_key(self):
        """The clock tells the key that both ends begin with; where it has just moved, the first header does."""
        now = int(time.time())
        for key in {far_end.starting_key(now - ago): None for ago in (0, 1, 5, 30)}:
            start = far_end.decoder(self._password, key)(self._raw[:6])
            if start[2:5] == b"\0\0\0" and start[5] in (1, 3, 4):
                self._decode = far_end.decoder(self._password, key)
                self._encode = far_end.encoder(self._password, key)
                return
        raise AssertionError(f"no key fits: {bytes(self._raw[:20])!r}")

    def _take(self):
        if self._decode is None and len(self._raw) >= 6:
            self._learn_key()
        if self._decode is not None:
            self._plain += self._decode(self._raw)
            self._raw.clear()

    def _whole(self):
        self._take()
        if len(self._plain) < 2:
            return None
        length = struct.unpack_from("=H", self._plain)[0]
        return length if len(self._plain) >= 2 + length else None

    def read(self):
        """The next datagram, with its header."""
        while (length := self._whole()) is None:
            piece = self.conn.recv(1 << 18)
            assert piece, f"the tunnel ended; of a frame there are {bytes(self._plain[:80])!r}"
            self._raw += piece
        datagram = bytes(self._plain[2:2 + length])
        del self._plain[:2 + length]
        return datagram

    def silent(self, seconds=QUIET):
        """True when no further byte comes for a while, and none is left."""
        self._take()
        return not self._plain and not self._raw and silent(self.conn, seconds)

    def encode(self, data):
        return self._encode(data)

    def send_raw(self, data):
        self.conn.sendall(data)

    def send(self, *datagrams):
        self.conn.sendall(self.encode(frames(datagrams)))


def udp(net, address="127.0.0.1", port=0, peer=None):
    """A client's socket; with `peer` it takes datagrams from there alone."""
    sock = net.keep(socket.socket(family_of(address), socket.SOCK_DGRAM))
    sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 8 << 20)
    sock.settimeout(DEADLINE)
    sock.bind((address, port))
    if peer:
        sock.connect(peer)
    return sock


def transparent():
    """Has this machine's datagrams to foreign addresses routed back and handed to the daemon."""
    nft(f"""table inet divert {{
      chain output {{
        type route hook output priority mangle;
        meta l4proto udp ip daddr {FOREIGN}0/24 meta mark set 1
        meta l4proto udp ip6 daddr {FOREIGN6}/32 meta mark set 1
      }}
      chain prerouting {{
        type filter hook prerouting priority mangle;
        meta l4proto udp meta mark 1 tproxy to :{TPROXY_PORT}
      }}
    }}""")
    for family, foreign, source in (("-4", FOREIGN + "0/24", "10.77.0.1"), ("-6", FOREIGN6 + "/32", "fd77::1")):
        ip("rule add fwmark 1 lookup 100", "route add local default dev lo table 100",
           f"route add {foreign} dev lo src {source}", family=family)
