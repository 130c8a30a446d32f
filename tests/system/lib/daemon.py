"""The program under test: starting it, looking at it from outside, ending it."""
import contextlib
import os
import re
import signal
import subprocess
import time
from pathlib import Path

from lib.wait import DEADLINE, until

BIN = os.environ["VROX_BIN"]
# The program whose sweeps and drain checks come each second instead of each minute.
SWEEP_BIN = os.environ.get("VROX_SWEEP_BIN") or str(Path(BIN).with_name("vrox_sweep"))
UID = 64001  # the daemon's effective user where its own traffic must be told apart
SANITIZED = re.search(rb"__([at]san)_init", Path(BIN).read_bytes())
TSAN = SANITIZED and SANITIZED[1] == b"tsan"
TCP_PORT, SOCKS_PORT, DNS_PORT = 1080, 1081, 1053  # free in every test's own network

_REPORT = re.compile(
    r"ERROR: AddressSanitizer|runtime error:|WARNING: ThreadSanitizer|LeakSanitizer|Assertion failed"
    r"|terminate called|buffer overflow detected|stack smashing|FATAL:"
)
ENV = {
    **{k: v for k, v in os.environ.items() if not k.startswith("VROX_INIT")},
    # Signals belong to the program: it ends with status 0 even after SIGSEGV.
    "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=0:handle_segv=0:handle_sigill=0:handle_abort=0",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    # By design the exit handler saves files in signal context and exits beside running threads.
    "TSAN_OPTIONS": "halt_on_error=0:report_signal_unsafe=0:report_thread_leaks=0:atexit_sleep_ms=50"
    ":handle_segv=0:handle_sigill=0:handle_abort=0",
}
# Random mappings may land where ThreadSanitizer keeps its shadow.
_PREFIX = ["setarch", "-R"] if TSAN else []


def check_reports(text):
    assert not _REPORT.search(text), f"the program reported a fault:\n{text}"


def command(*options, binary=BIN):
    return [*_PREFIX, binary, *map(str, options)]


def run(directory, *options, conf=None, env=None, binary=BIN):
    """Runs the program to its own end: (exit status, standard output, standard error)."""
    if conf is not None:
        path = Path(directory) / "refused.conf"
        path.write_bytes(conf if isinstance(conf, bytes) else conf.encode())
        options = ("-c", path, "-d", *options)
    done = subprocess.run(
        command(*options, binary=binary), env={**ENV, **(env or {})}, cwd=directory, capture_output=True,
        stdin=subprocess.DEVNULL, timeout=3 * DEADLINE,
    )
    out, err = done.stdout.decode(), done.stderr.decode()
    check_reports(err)
    return done.returncode, out, err


def status_of(pid, key):
    """One line of /proc/PID/status; None when the process is gone."""
    try:
        for line in Path(f"/proc/{pid}/status").read_text().splitlines():
            if line.startswith(key + ":"):
                return line.split(":", 1)[1].strip()
    except (FileNotFoundError, ProcessLookupError):
        pass
    return None


def alive(pid):
    state = status_of(pid, "State")
    return state is not None and state[0] not in "ZX"


def _serves(pid):
    """True when the service threads run: only then the main thread lets signals through to its handlers."""
    term = 1 << (signal.SIGTERM - 1)
    caught, blocked, threads = (status_of(pid, key) for key in ("SigCgt", "SigBlk", "Threads"))
    return threads and int(caught, 16) & term and not int(blocked, 16) & term and int(threads) > 1


class Daemon:
    """One running instance (with -w: all of its processes)."""

    def __init__(self, directory, conf, *options, detach=False, workers=1, env=None, binary=BIN):
        self.directory = Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.workers, self.ended, self.dismissed = workers, {}, set()
        conf_path, self.pid_path = self.directory / "vrox.conf", self.directory / "vrox.pid"
        conf_path.write_bytes(conf if isinstance(conf, bytes) else conf.encode())
        argv = ["-c", conf_path, *options]
        if "-p" not in options:
            argv += ["-p", self.pid_path]
        else:
            self.pid_path = Path(options[len(options) - 1 - options[::-1].index("-p") + 1])
        if not detach:
            argv.append("-d")
        if workers > 1:
            argv += ["-w", workers]
        # A process that changed its user may not be looked into, not even by its own leak checker.
        unchecked = {"ASAN_OPTIONS": ENV["ASAN_OPTIONS"].replace("leaks=1", "leaks=0")} if "-u" in options else {}
        with open(self.directory / "out", "wb") as out, open(self.directory / "err", "wb") as err:
            self.first = subprocess.Popen(
                command(*argv, binary=binary), env={**ENV, **unchecked, **(env or {})}, cwd=self.directory,
                stdin=subprocess.DEVNULL, stdout=out, stderr=err,
            )
        self.pids = []
        if detach:
            assert self.first.wait(DEADLINE) == 0, self.err
        until(self._serving, "the daemon serves")
        time.sleep(float(os.environ.get("VROX_SETTLE", 0)))  # an emulator's own threads and handlers look like it

    def _serving(self):
        assert self.first.poll() in (None, 0), f"exit {self.first.returncode}\n{self.out}\n{self.err}"
        if not self.pid_path.exists():
            return False
        self.pids = [int(pid) for pid in self.pid_path.read_text().split()]
        return len(self.pids) == self.workers and all(map(_serves, self.pids))

    @property
    def pid(self):
        return self.pids[0]

    @property
    def out(self):
        return (self.directory / "out").read_text()

    @property
    def err(self):
        return (self.directory / "err").read_text(errors="replace")

    def signal(self, number, pid=None):
        os.kill(pid or self.pid, number)

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def rss_kib(self):
        return int(status_of(self.pid, "VmRSS").split()[0])

    def cpu_ticks(self):
        """Processor time used so far, in clock ticks of 10 ms."""
        return sum(map(int, Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()[11:13]))

    @contextlib.contextmanager
    def at_rest(self):
        """What happens meanwhile costs next to no processor time."""
        before = self.cpu_ticks()
        yield
        assert self.cpu_ticks() - before < 10, "it spins while it waits"

    def wait(self, seconds=DEADLINE):
        """Waits for the end of every process and returns the first one's exit status."""

        def gone():
            for pid in self.pids:
                if pid not in self.ended:
                    try:
                        # A worker becomes our child only when the one before it has ended.
                        if os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):
                            self.ended[pid] = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
                    except ChildProcessError:
                        if status_of(pid, "State") is None:
                            self.ended[pid] = None  # the one before it has seen how
            return len(self.ended) == len(self.pids)

        until(gone, "the daemon ends", seconds)
        self.first.returncode = self.ended.get(self.first.pid, self.first.returncode)
        return self.ended.get(self.first.pid, self.ended[self.pid])

    def end_one(self, pid):
        self.dismissed.add(pid)
        os.kill(pid, signal.SIGTERM)
        until(lambda: not alive(pid), "one worker ends")

    def stop(self):
        """Ends what still runs; a fault reported or an unclean end fails the test."""
        for pid in self.pids:
            if pid not in self.ended and pid not in self.dismissed:
                assert alive(pid), f"the daemon ended by itself\n{self.out}\n{self.err}"
                os.kill(pid, signal.SIGTERM)
        self.wait()
        check_reports(self.err)
        unclean = {pid: status for pid, status in self.ended.items() if status and pid not in self.dismissed}
        assert not unclean, f"exit status {unclean}\n{self.err}"

    def kill(self):
        """Ends it without a chance to save or to complain."""
        for pid in {*self.pids, self.first.pid}:
            if alive(pid):
                self.dismissed.add(pid)
                os.kill(pid, signal.SIGKILL)
