"""Bulk data whose every byte is checked, without keeping it."""
import time
import zlib

from lib.wait import DEADLINE

# A prime length: a lost or doubled buffer of any usual size shows in the sum.
_BLOCK = bytes((i * 131 + (i >> 8) * 17) & 0xFF | 1 for i in range(1000003))
# The first byte is no letter, so that the stream is never taken for HTTP.
assert not _BLOCK[:1].isalpha()


class Sum:
    """Length and checksum of a stream so far."""

    def __init__(self):
        self.count, self.crc = 0, 0

    def add(self, piece):
        self.count += len(piece)
        self.crc = zlib.crc32(piece, self.crc)

    def __eq__(self, other):
        return (self.count, self.crc) == (other.count, other.crc)

    def __repr__(self):
        return f"{self.count} bytes, crc {self.crc:08x}"


def expected(total):
    result = Sum()
    while result.count < total:
        result.add(_BLOCK[: total - result.count])
    return result


def send(conn, total):
    """Sends `total` bytes of the pattern; the stream's end is left to the caller."""
    conn.settimeout(3 * DEADLINE)
    block = memoryview(_BLOCK)
    while total > 0:
        conn.sendall(block[:total])
        total -= min(total, len(block))


def receive(conn, total, pause=0.0, piece=1 << 18):
    """Reads `total` bytes (fewer when the stream ends); `pause` seconds after each read make a slow reader."""
    conn.settimeout(3 * DEADLINE)
    result, buffer = Sum(), bytearray(piece)
    view = memoryview(buffer)
    while result.count < total:
        count = conn.recv_into(view[: min(piece, total - result.count)])
        if not count:
            break
        result.add(view[:count])
        if pause:
            time.sleep(pause)
    return result


def both_ways(net, a, b, total):
    """`total` bytes each way over one connection at the same time."""
    results = {}

    def read(conn):
        results[conn] = receive(conn, total)

    threads = [net.spawn(work, *args) for conn in (a, b) for work, *args in ((send, conn, total), (read, conn))]
    for thread in threads:
        thread.join(3 * DEADLINE)
    assert list(results.values()) == [expected(total)] * 2
