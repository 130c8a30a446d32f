"""A cell: one contender measured once, in namespaces of its own that end with it.

run_isolated() starts it from outside; main() is its first process.
"""
import json
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from vroxbench import network, processes, vroxconf
from vroxbench.names import (CACHE, CLIENT_UID, CONF, COUNTER, DNS_PORT, FAR_SERVER, LOAD, NEAR, NEAR_SERVER,
                             PROXY_PORT, RELAY_PORT, SERVER_PORT, STUB_PORT, VROX)
from vroxbench.network import wait_for

FLAG = "--cell"
TIME_LIMIT = 180  # seconds, for one cell
DESCRIPTORS = 65536  # some need six for a connection
_NAMESPACES = ("unshare", "-n", "-p", "-f", "-m", "--mount-proc", "--kill-child=SIGKILL")


def allow_descriptors(wanted):
    """For whatever is started from here; as many as this machine lets root have."""
    try:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, wanted))
    except ValueError:
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Cell:
    def __init__(self, scenario, contender, vrox, scale):
        self.contender, self.scale, self._vrox = contender, scale, vrox
        self.server = self.program = None
        self.to = self.dst = NEAR_SERVER  # where the client connects, and whom it asks a proxy for
        self._via, self._uid = "none", None
        os.setsid()
        allow_descriptors(DESCRIPTORS)
        network.sh("ip link set lo up")
        network.tune()
        getattr(self, f"_world_{scenario.world}")()
        getattr(self, f"_start_{contender.way}")()

    # ---- what surrounds the contender --------------------------------------------

    def _world_near(self):
        self._start_server([], port=SERVER_PORT)

    def _world_far(self):
        self._start_server(["unshare", "-n"])
        wait_for(lambda: network.has_own_network(self.server.pid), self.server)
        network.connect_far(self.server.pid)
        self.to = self.dst = FAR_SERVER

    def _world_dns(self):
        self._helper([LOAD, "reflect", STUB_PORT], STUB_PORT, "udp")
        vroxconf.write_dns_cache(CACHE, self.contender.given.get("names", 100_000))

    def _start_server(self, prefix, port=None):
        Path(COUNTER).write_bytes(bytes(8))
        os.chmod(COUNTER, 0o666)
        self.server = self._helper([*prefix, LOAD, "server", SERVER_PORT, COUNTER], port)

    # ---- the ways in --------------------------------------------------------------

    def _start_straight(self):
        pass

    def _start_forward(self):
        self._start_program(PROXY_PORT)
        self.to = f"{NEAR}:{PROXY_PORT}"

    def _start_socks5(self):
        self._start_forward()
        self._via = "socks"

    def _start_connect(self):
        self._start_forward()
        self._via = "http"

    def _start_redirect(self):
        self._start_program(PROXY_PORT)
        network.redirect_clients()
        self._uid = CLIENT_UID

    def _start_tun(self):
        self._start_program()
        wait_for(network.tun_is_up, self.program)
        network.route_clients_into_tun()
        self._uid = CLIENT_UID

    def _start_dns(self):
        self._start_program(DNS_PORT, "udp")
        self.to = f"{NEAR}:{DNS_PORT}"

    def _start_udp(self):
        self._start_program(RELAY_PORT, "udp")
        self.to = f"{NEAR}:{RELAY_PORT}"

    def _start_program(self, port=None, protocol="tcp"):
        Path(CONF).write_text(self.contender.conf.lstrip())
        argv = [self._vrox if word == VROX else word for word in self.contender.argv]
        self.program = self._helper(argv, port, protocol, start_new_session=True)

    def _helper(self, argv, port=None, protocol="tcp", **options):
        with open(f"{Path(argv[0]).name}.log", "ab") as log:
            process = subprocess.Popen(list(map(str, argv)), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                       **options)
        if port:
            wait_for(lambda: network.listening(port, protocol), process)
        return process

    # ---- loads --------------------------------------------------------------------

    def start_load(self, mode, **options):
        argv = [LOAD, mode, f"to={self.to}", f"dst={self.dst}", f"via={self._via}"]
        if self.server:
            argv.append(f"counter={COUNTER}")
        return subprocess.Popen(argv + [f"{k}={v}" for k, v in options.items()], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, text=True, user=self._uid)

    def load(self, mode, **options):
        """Runs one load. Its figures, and besides: `contender_cpu`, the seconds that the contender used, and
        `contender_user`, those in its own code; `busy`, of the busier end of the load, in % of a
        processor; `idle`, of the machine, likewise."""
        server = processes.clock_of(self.server.pid) if self.server else 0
        cpu, user = processes.cpu_seconds(), processes.user_seconds()
        idle, begun = processes.idle_seconds(), time.monotonic()
        process = self.start_load(mode, **options)
        out = process.communicate(timeout=TIME_LIMIT)[0]
        took, idle = time.monotonic() - begun, processes.idle_seconds() - idle
        time.sleep(0.05)  # what the contender still has to do for this load
        result = json.loads(out)
        result["contender_cpu"] = processes.cpu_seconds() - cpu
        result["contender_user"] = processes.user_seconds() - user
        server = processes.clock_of(self.server.pid) - server if self.server else 0
        result["busy"] = 100 * max(server, result["cpu"]) / result["secs"]
        result["idle"] = 100 * idle / took
        if not (result["bytes"] or result["done"]) or result["errors"] > result["done"] / 100:
            raise RuntimeError(f"{mode} {options}: {out.strip()}{self._end_of_program()}")
        return result

    def warm_up(self, mode, **options):
        """A load that fills tables; what it measures, and what is lost while they are empty, is nobody's."""
        self.start_load(mode, **options).communicate(timeout=TIME_LIMIT)

    def hold_idle(self, conns):
        """Opens connections that rest until the returned process gets the end of its input."""
        process = self.start_load("idle", conns=conns)
        line = process.stdout.readline()
        if not line or json.loads(line)["done"] < conns:
            raise RuntimeError(f"idle conns={conns}: {line.strip()}{self._end_of_program()}")
        return process

    def _end_of_program(self):
        status = self.program.poll() if self.program else None
        return "" if status is None else f"; the program ended with status {status}"


def main(job):
    """Inside the namespaces: measures, and prints one JSON object."""
    from vroxbench.scenarios import SCENARIOS  # which itself needs this module

    job = json.loads(job)
    scenario = SCENARIOS[job["scenario"]]
    contender = next(c for c in scenario.contenders if c.name == job["contender"])
    values, error = {}, None
    try:
        for key, value in scenario.measure(Cell(scenario, contender, job["vrox"], job["scale"])):
            values[key] = round(value, 6)
    except Exception as failure:  # noqa: BLE001, what was measured before it still counts
        error = f"{type(failure).__name__}: {failure}"
    print(json.dumps({"values": values, "error": error}))


def run_isolated(program, load, vrox, scenario, contender, scale):
    """Measures one contender once: {"values": ..., "error": None or a text}."""
    job = json.dumps({"scenario": scenario, "contender": contender, "vrox": vrox, "scale": scale})
    with tempfile.TemporaryDirectory(prefix="vrox-bench-") as directory:
        os.chmod(directory, 0o755)  # the client runs as another user
        shutil.copy(load, directory)
        process = subprocess.Popen([*_NAMESPACES, sys.executable, program, FLAG, job], cwd=directory,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            out, err = process.communicate(timeout=TIME_LIMIT)
            return json.loads(out.strip().splitlines()[-1])
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            return {"values": {}, "error": f"took over {TIME_LIMIT} s"}
        except (IndexError, ValueError):
            return {"values": {}, "error": err.strip()[-300:] or "no result"}
