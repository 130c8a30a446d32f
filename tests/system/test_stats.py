"""The statistics file: what is read from it, and when and by whom it is written."""
import os
import signal
import stat
import time

import pytest

from lib import conf
from lib.daemon import alive, status_of
from lib.net import exchange
from lib.wait import until

M = 1 << 20
NAMES = ["web", "web2", "first", "other"]

RULES = (conf.rule("web", "dst_port = 1") + conf.rule("first", "matchMode = firstMatch", "dst_port = 1")
         + conf.rule("web2", "dst_port = 1") + conf.rule("other", "matchMode = firstMatch", "dst_port = 1"))


def config(save="0 stats", rules=RULES, global_keys=("maxData = 1M",)):
    return conf.tcp_global("tcpProxy = direct", f"maxData_savePath = {save}", *global_keys) + conf.DIRECT + rules


def lines(*changed, **values):
    """The file that this configuration writes, with these values in place of 1 MiB."""
    values.update(zip(["global"], changed))
    return "".join(f"{name}: {values.get(name, M)}\n" for name in ["global", *NAMES])


@pytest.fixture
def stats(tmp_path):
    """The file where the test's first daemon runs, to be written before it starts."""
    (tmp_path / "vrox0").mkdir()
    return tmp_path / "vrox0/stats"


LOADED = {
    "any order, some of them": (b"other: 7\nglobal: 8\n", lines(8, other=7)),
    "the first name that is a prefix takes the line": (b"web2: 6\n", lines(web=6)),
    "request-time names come first": (b"web-or-first: 9\nfirstborn: 3\n", lines(web=9, first=3)),
    "no colon, a word behind the name": (b"global-of-old 13\nweb 12\n", lines(13, web=12)),
    "the number is the second word": (b"other = 14\nfirst:15\n", lines()),
    "blanks, tabs, no last line feed": (b"web: 3\r\nother: \t 17", lines(web=3, other=17)),
    "case and the line's start matter": (b"Global: 1\nWEB: 2\n web: 1\n\tglobal: 2\n", lines()),
    "unknown names, no number": (b"nobody: 1\n\n: 2\nweb:\nother: x\nfirst: \n", lines()),
    "what follows a number is ignored": (b"web: 5G\nother: 6.7\nfirst: 0x10\n", lines(web=5, other=6, first=0)),
    "beyond the largest number, a sign": (
        b"web: 99999999999999999999\nother: -1\n", lines(web=2**64 - 1, other=2**64 - 1)),
    "zero bytes": (b"\0\nweb: 4\0 5\n\0web: 6\nother: 1\n", lines(web=4, other=1)),
    "a line longer than any": (b"web" + b"x" * 200000 + b" 21\nother: 4\n", lines(web=21, other=4)),
}


def test_loaded_counts(vrox, stats):
    for why, (text, written) in LOADED.items():
        stats.write_bytes(text)
        daemon = vrox(config(f"600 {stats}"))
        daemon.stop()
        assert stats.read_text() == written, why
        assert daemon.err == "", why
    # Without a counter of its own, the global line is looked for among the rules; `plain` has no quota.
    stats.write_text("global: 5\nplain: 6\n")
    rules = (conf.rule("plain", "dst_port = 1")
             + conf.rule("glob", "matchMode = firstMatch", "dst_port = 1", "maxData = 1M"))
    vrox(config(f"600 {stats}", rules, global_keys=())).stop()
    assert stats.read_text() == "glob: 5\n"


def test_missing_file_is_created_at_start(vrox):
    daemon = vrox(config("600 stats"))
    stats = daemon.directory / "stats"
    assert daemon.err == "fopen(): No such file or directory\n"
    assert stats.read_text() == "" and stat.S_IMODE(stats.stat().st_mode) == 0o666
    daemon.stop()
    assert stats.read_text() == lines()
    daemon = vrox(config("1 /nowhere/stats"))
    assert daemon.err == "fopen(): No such file or directory\n" * 2
    time.sleep(1.2)  # it goes on without


@pytest.mark.parametrize("workers", [1, 2])
def test_foreground_saves_periodically(net, vrox, workers):
    origin = net.listen()
    daemon = vrox(conf.fixed(origin, "maxData_savePath = 1 stats", rule_keys=["maxData = 10K"]), workers=workers)
    stats = daemon.directory / "stats"
    until(lambda: stats.read_text() == "all: 10240\n", "the first period ends")
    exchange(*net.joined(origin), b"\x01" * 1000, b"\x01" * 200)
    until(lambda: stats.read_text() == "all: 9040\n", "the next period ends")
    stats.unlink()
    until(lambda: stats.exists() and stats.read_text() == "all: 9040\n", "and the next")


def test_daemon_saves_only_when_it_ends(vrox):
    daemon = vrox(config("1 stats"), detach=True)
    stats = daemon.directory / "stats"
    stats.unlink()
    time.sleep(1.2)
    assert not stats.exists()
    daemon.stop()
    assert stats.read_text() == lines()


@pytest.mark.parametrize("name", ["SIGTERM", "SIGHUP", "SIGINT", "SIGABRT", "SIGILL", "SIGSEGV", "SIGUSR1"])
def test_saved_at_exit(vrox, stats, name):
    stats.write_text("web: 77\n")
    for interval, written in (600, lines(web=77)), (0, lines()):  # 0: not loaded
        daemon = vrox(config(f"{interval} {stats}"))
        daemon.signal(getattr(signal, name))
        assert daemon.wait() == 0
        assert stats.read_text() == written


def test_only_the_last_worker_saves(vrox):
    daemon = vrox(config("0 stats"), workers=3)
    behind = {int(status_of(pid, "PPid")): pid for pid in daemon.pids}
    daemon.pids = [daemon.first.pid, behind[daemon.first.pid], behind[behind[daemon.first.pid]]]
    stats = daemon.directory / "stats"
    for pid in daemon.pids[:2]:
        daemon.end_one(pid)
        assert not stats.exists()
    daemon.stop()
    assert stats.read_text() == lines()


def test_signals_while_saving(vrox):
    """Whatever comes while the file is being written, it is written to its end, and once."""
    names = [f"r{i:04}x" for i in range(600)]
    text = config("1 stats", "".join(conf.rule(name, "dst_port = 1") for name in names))
    whole = "".join(f"{name}: {M}\n" for name in ["global", *names])
    burst = [signal.SIGTERM, signal.SIGABRT, signal.SIGHUP, signal.SIGUSR1, signal.SIGABRT, signal.SIGINT,
             signal.SIGILL, signal.SIGSEGV, signal.SIGTERM]
    for round_ in range(6):
        daemon = vrox(text)
        stats = daemon.directory / "stats"
        if round_ % 2:  # beside the periodic save
            stats.write_text("")
            until(lambda path=stats: path.stat().st_size, "it saves")
        for number in burst:
            if alive(daemon.pid):
                os.kill(daemon.pid, number)
            time.sleep(0.0003 * round_)
        assert daemon.wait() == 0
        assert stats.read_text() == whole
