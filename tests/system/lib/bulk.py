"""Bulk data whose every byte is checked, without keeping it."""
import time
import zlib

from lib.wait import DEADLINE

# A prime length: a lost or doubled buffer of any usual size shows in the sum.
_BLOCK = bytes((i * 131 + (i >> 8) * 17) & 0xFF | 1 for i in range(1000003))
# The first byte is no letter, so that the stream is never taken for HTTP.
assert not _BLOCK[:1].isalpha()


def expected(total):
    """(length, checksum) of as much of the pattern."""
    count = crc = 0
    while count < total:
        piece = _BLOCK[: total - count]
        count, crc = count + len(piece), zlib.crc32(piece, crc)
    return count, crc


def send(conn, total):
    """Sends `total` bytes of the pattern; the stream's end is left to the caller."""
    conn.settimeout(3 * DEADLINE)
    block = memoryview(_BLOCK)
    while total > 0:
        conn.sendall(block[:total])
        total -= min(total, len(block))


def receive(conn, total, pause=0.0, piece=1 << 18):
    """Reads `total` bytes, fewer when the stream ends: (length, checksum). With `pause` seconds after each read."""
    conn.settimeout(3 * DEADLINE)
    count = crc = 0
    view = memoryview(bytearray(piece))
    while count < total:
        size = conn.recv_into(view[: min(piece, total - count)])
        if not size:
            break
        count, crc = count + size, zlib.crc32(view[:size], crc)
        if pause:
            time.sleep(pause)
    return count, crc


def both_ways(net, a, b, total):
    """`total` bytes each way over one connection at the same time."""
    results = {}

    def read(conn):
        results[conn] = receive(conn, total)

    threads = [net.spawn(work, *args) for conn in (a, b) for work, *args in ((send, conn, total), (read, conn))]
    for thread in threads:
        thread.join(3 * DEADLINE)
    assert list(results.values()) == [expected(total)] * 2
