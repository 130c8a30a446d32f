"""Every test runs in a network of its own and leaves no process behind."""
import contextlib
import os
import resource
import signal

import pytest

from lib import daemon
from lib.net import Net, new_namespace, other_processes
from lib.wait import until

# Thousands of connections at once have both their ends in here.
_hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (_hard, _hard))


def _clear():
    """Kills and reaps all that still runs in this process namespace."""
    for pid in other_processes():
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG) != (0, 0):
            pass
    return not other_processes()


def _too_long(_number, _frame):
    raise TimeoutError("the test takes too long")


@pytest.fixture(autouse=True)
def _namespace(request):
    assert os.getpid() == 1, "start the tests with tests/system/run"
    new_namespace()
    # Every wait has its own deadline; this one is for a test that keeps getting just a little.
    signal.signal(signal.SIGALRM, _too_long)
    signal.alarm(900 if request.node.get_closest_marker("slow") else 180)
    yield
    signal.alarm(0)
    left = other_processes()
    if left:
        until(_clear, "left-over processes end")
    assert not left, f"left behind: {left}"


@pytest.fixture
def net(_namespace):
    peers = Net()
    yield peers
    peers.close()


@pytest.fixture
def origin(net):
    return net.listen()


@pytest.fixture
def vrox(tmp_path, net):  # `net` first: the daemon ends before its peers do
    """Starts daemons: vrox(configuration, *options, ...)."""
    started = []

    def start(conf, *options, **settings):
        instance = daemon.Daemon(tmp_path / f"vrox{len(started)}", conf, *options, **settings)
        started.append(instance)
        return instance

    yield start
    try:
        for instance in started:
            instance.stop()
    finally:
        for instance in started:
            instance.kill()


@pytest.fixture
def run_vrox(tmp_path):
    """Runs the program to its end: run_vrox(*options, conf=...) -> (status, out, err)."""

    def start(*options, **settings):
        return daemon.run(tmp_path, *options, **settings)

    return start
