"""Command line, processes, pid file, signals: how the program starts and ends."""
import os
import re
import resource
import signal
import subprocess

import pytest

from lib import conf, tun
from lib.daemon import BIN, SANITIZED, UID, status_of
from lib.wait import until

BANNER = "Pelorin Linux Network Client(0.3 beta):\n"
USAGE = BANNER + """\
required_argument:
    -c    vrox.conf path
    -p    pid file path
    -d    disable daemon proc
    -u    effective uid(only support tcp socket)
    -w    worker proc
no_argument:
    -k    kill all vrox proc
    -r    reload configuration file
    -v    display version message
    -h    display this message
Environment variables used:
    VROX_INIT_CONFIG_DNS read_config_query_domain_dnsip default_is_8.8.8.8
"""
SERVING = conf.tcp_global("tcpProxy = direct") + conf.DIRECT


@pytest.mark.parametrize(
    "options, status, out",
    [
        (["-v"], 0, BANNER),
        (["-h"], 0, USAGE),
        ([], 1, USAGE),  # no -c
        (["-c"], 1, USAGE),  # its argument is missing
        (["--help"], 1, USAGE),  # no long options
        (["-v", "-h"], 0, BANNER),  # in the order given
        (["-x", "-v"], 1, USAGE),
        (["-dv"], 0, BANNER),
    ],
)
def test_options_that_end_at_once(run_vrox, options, status, out):
    assert run_vrox(*options)[:2] == (status, out)


def test_pid_files(vrox, run_vrox, tmp_path):
    """Removed as soon as the option is read; the last one is written."""
    first, last = tmp_path / "first", tmp_path / "last"
    first.write_text("1 ")
    last.write_text("2 ")
    daemon = vrox(SERVING, "-p", first, "-p", last)
    assert not first.exists()
    assert last.read_text() == f"{daemon.pid} "
    assert daemon.first.pid == daemon.pid and daemon.err == ""
    assert run_vrox("-p", last, "-v")[0] == 0
    assert not last.exists()
    status, _, err = run_vrox("-p", "/nowhere/vrox.pid", conf=conf.tcp_global(listen=":::2001"))
    assert (status, err) == (1, "fopen(): No such file or directory\n")


def test_daemon_keeps_directory_and_descriptors(vrox):
    daemon = vrox(SERVING, detach=True)
    assert daemon.pid != daemon.first.pid
    assert os.getsid(daemon.pid) == daemon.pid
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == str(daemon.directory)
    assert os.readlink(f"/proc/{daemon.pid}/fd/1") == str(daemon.directory / "out")
    assert os.readlink(f"/proc/{daemon.pid}/fd/2") == str(daemon.directory / "err")


@pytest.mark.parametrize("given, effective", [(UID, UID), ("x7", 0)])
def test_effective_user(vrox, given, effective):
    daemon = vrox(SERVING, "-u", given, "-w", 0)  # no workers: one process
    for key in "Uid", "Gid":
        real, now, *_ = map(int, status_of(daemon.pid, key).split())
        assert (real, now) == (0, effective), key


def test_service_threads_leave_signals_to_the_main_thread(vrox):
    """And broken pipes are ignored."""
    daemon = vrox(SERVING)
    assert int(status_of(daemon.pid, "SigIgn"), 16) & 1 << (signal.SIGPIPE - 1)
    handled = ["SIGHUP", "SIGINT", "SIGILL", "SIGUSR1", "SIGSEGV", "SIGPIPE", "SIGTERM"]
    mask = sum(1 << (getattr(signal, name) - 1) for name in handled)

    def blocked():
        tasks = [t for t in os.listdir(f"/proc/{daemon.pid}/task") if t != str(daemon.pid)]
        masks = [int(status_of(f"{daemon.pid}/task/{t}", "SigBlk"), 16) for t in tasks]
        return masks and all(m & mask == mask for m in masks)

    until(blocked, "every service thread blocks them")


def test_descriptor_limit(vrox):
    """65535, or all there is for someone who may not raise the hard limit."""
    may_raise = int(status_of("self", "CapEff"), 16) & 1 << 24  # CAP_SYS_RESOURCE
    hard = 65535 if may_raise else min(65535, resource.getrlimit(resource.RLIMIT_NOFILE)[1])
    assert resource.prlimit(vrox(SERVING).pid, resource.RLIMIT_NOFILE) == (hard, hard)


@pytest.mark.parametrize(
    "text, out",
    [
        ("", r"11\n"),
        (tun.section(), r"(.*\n)*11\n"),
        # Only TCP, DNS and httpUDP are waited for; what is left ends with the main thread.
        (conf.socks5(), r"11\n"),
        (conf.rule("a", "tcpProxy = m", "tcpProxy = n", "tcpProxy = m", "dst_port = 1")
         + conf.module("m", conf.to(1)) + conf.module("n", conf.to(1), conf.to(2)),
         r"for set: 0x[0-9a-f]+\nfor set: 0x[0-9a-f]+\nset: 0x[0-9a-f]+\n11\n"),
    ],
)
def test_nothing_to_wait_for(run_vrox, text, out):
    status, printed, err = run_vrox(conf=text)
    assert (status, err) == (0, "") and re.fullmatch(out, printed), printed


@pytest.mark.skipif(SANITIZED, reason="sanitizers bring checks of their own")
def test_the_program_is_hardened():
    told = subprocess.check_output(["readelf", "-hldW", "--dyn-syms", BIN], text=True)
    assert re.search(r"Type:\s+DYN", told), "position independent"
    assert "GNU_RELRO" in told and re.search(r"FLAGS_1.*\bNOW\b", told)
    assert re.search(r"GNU_STACK\s.*\bRW\s", told), "no executable stack"
    assert "__stack_chk_fail" in told and re.search(r"__\w+_chk@", told), "checked calls"
