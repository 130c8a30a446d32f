"""The far end of an enciphered tunnel: what a remote tunnel server does, written from the formulas alone.

A byte is enciphered under a running key k that moves by the step byte with every
byte; the host of a tunnel request is enciphered too, carries the key with which
both directions begin behind it, and is sent in base64.
"""
import base64
import functools
import time

from lib.conf import PASSWORD
from lib.net import read_exactly, read_until


def derive_key(password):
    """(xor byte, step byte) of a password; a step byte of 0 means that nothing is enciphered."""
    n, v = len(password), 0
    for i, ch in enumerate(password):
        v = ((i | ch) + v - n if ch & 1 else (i & ch) | (n * v)) & 0xFF
    return v, (n * v if n >= 6 and v else n * 16) & 0xFF


def starting_key(now):
    """The key of both directions of a connection that begins at `now` seconds."""
    t = now & 0xFFFFFFFF
    high = (t >> 3) & 0xF0
    low = ((t >> 14) & 7) | ((t >> 12) & 7)
    return ((high | low) + ((t >> 7) & (t >> 8) & 15)) & 0xFF


def _encode_byte(b, k, a, c):
    t = ((b - c) & 0xFF) ^ k
    n = k & 7
    r = (t << n | t >> (8 - n)) & 0xFF
    return ((r + k) & 0xFF) ^ a


def _decode_byte(e, k, a, c):
    t = ((e ^ a) - k) & 0xFF
    n = k & 7
    r = (t >> n | t << (8 - n)) & 0xFF
    return ((r ^ k) + c) & 0xFF


@functools.cache
def _table(byte, k, a, c):
    return bytes(byte(b, k, a, c) for b in range(256))


class Stream:
    """One direction of one connection; pieces may be of any length."""

    def __init__(self, password, key, byte):
        self.a, self.c = derive_key(password)
        self.key, self._byte = key, byte

    def __call__(self, piece):
        piece = bytes(piece)
        # The key comes round after 256 bytes at the latest: every 256th byte has the same one.
        result = bytearray(len(piece))
        for i in range(min(256, len(piece))):
            table = _table(self._byte, (self.key + i * self.c) & 0xFF, self.a, self.c)
            result[i::256] = piece[i::256].translate(table)
        self.key = (self.key + len(piece) * self.c) & 0xFF
        return bytes(result)


def encoder(password, key):
    return Stream(password, key, _encode_byte)


def decoder(password, key):
    return Stream(password, key, _decode_byte)


def read_host(text, password):
    """(host, starting key) of the base64 form."""
    raw = base64.b64decode(text, validate=True)
    return decoder(password, raw[-1])(raw[:-1]), raw[-1]


class PlainEnd:
    """The far end's side of a tunnel, behind its request."""

    def __init__(self, conn):
        self.conn = conn
        self.request = read_until(conn, b"\r\n\r\n")
        assert self.request.index(b"\r\n\r\n") + 4 == len(self.request), "nothing stands behind it"
        self.name = self.host = self.request.split(b" ")[1]
        self.encode = self.decode = bytes

    def read(self, count):
        return self.decode(read_exactly(self.conn, count))

    def send(self, data):
        self.conn.sendall(self.encode(data))


class FarEnd(PlainEnd):
    """Likewise of an enciphered one."""

    def __init__(self, conn, password=PASSWORD):
        super().__init__(conn)
        password = password.encode()
        self.host, key = read_host(self.name, password)
        assert key in {starting_key(int(time.time()) - ago) for ago in range(30)}
        self.decode, self.encode = decoder(password, key), encoder(password, key)
        # As a connection, for bulk data.
        self.settimeout, self.sendall = conn.settimeout, self.send

    def recv_into(self, view):
        count = self.conn.recv_into(view)
        view[:count] = self.decode(bytes(view[:count]))
        return count
