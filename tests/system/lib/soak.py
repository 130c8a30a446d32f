"""A soak: a daemon, its peers, and whether what it holds stays flat."""
import random
import sys
import tempfile
import time

from lib import peers, tun
from lib.daemon import SANITIZED, SWEEP_BIN, Daemon
from lib.net import new_namespace, sysctl

STEP = 10.0
# What a heap may still grow by, once it is warm, without anything being lost.
SLACK_KIB, SLACK_PART = 3072, 0.05
SPARE_FDS = 8 + 64  # pipes that are kept empty, reply sockets


def _grown(memory):
    """How far the last third's smallest value is above the first third's largest, warm-up left out."""
    warm = memory[len(memory) // 4:]
    third = max(1, len(warm) // 3)
    first, last = max(warm[:third]), min(warm[-third:])
    return max(0, last - first - SLACK_KIB - int(first * SLACK_PART))


def run(directory, seconds, seed, workers, tell=print):
    """Raises when something is wrong; returns the summary. The network is the caller's."""
    peers.prepare_network()
    daemon = Daemon(directory, peers.configuration(), binary=SWEEP_BIN)
    try:
        tun.open_routes()
        base, memory, begun = daemon.fds(), [], time.monotonic()
        soak = peers.Peers(directory, "soak", seconds, seed, workers)
        tell(f"seed {seed}, {workers} workers, {base} descriptors to begin with")
        while soak.process.poll() is None:
            time.sleep(min(STEP, max(1.0, seconds / 10)))
            if soak.process.poll() is not None:
                break
            memory.append(daemon.rss_kib())
            state = f"{daemon.fds()} descriptors, {memory[-1]} KiB; {''.join(soak.lines[-1:])}"
            tell(f"{time.monotonic() - begun:6.0f} s: {state}")
        summary = soak.wait(1)
        peers.settled(daemon, base + SPARE_FDS)
        # AddressSanitizer keeps what was freed; it looks for what is lost itself.
        assert SANITIZED or not _grown(memory), f"memory grows: {memory} KiB"
        daemon.stop()
        return summary
    finally:
        daemon.kill()


def main(arguments):
    seconds = int(arguments[0]) if arguments else 60
    seed = int(arguments[1]) if len(arguments) > 1 else random.randrange(1 << 32)
    workers = int(arguments[2]) if len(arguments) > 2 else 60
    new_namespace()
    sysctl("net.core.somaxconn", 4096)
    with tempfile.TemporaryDirectory() as directory:
        try:
            print(run(directory, seconds, seed, workers, lambda line: print(line, flush=True)))
        except AssertionError as failure:
            print(f"FAILED: {failure}")
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
