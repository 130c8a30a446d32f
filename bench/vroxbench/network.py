"""The network of a cell: settings, firewall, routes, the far server's own namespace."""
import os
import re
import subprocess
import time
from pathlib import Path

from vroxbench.names import CLIENT_UID, FAR, HERE, PROXY_PORT, SERVER_PORT, TUN_DEVICE

# Loopback loses nothing, so plain congestion control is right: one that paces would measure timers.
SETTINGS = {"tcp_congestion_control": "reno", "ip_local_port_range": "10000 65000", "tcp_tw_reuse": "1",
            "conf/all/rp_filter": "0", "conf/default/rp_filter": "0"}
LISTENING, BOUND = "0A", "07"  # states in /proc/net/tcp and /proc/net/udp


def sh(*commands):
    out = ""
    for command in commands:
        done = subprocess.run(command, shell=True, capture_output=True, text=True)
        if done.returncode:
            raise RuntimeError(f"{command}: {done.stderr.strip()}")
        out += done.stdout
    return out


def tune(inside=""):
    """Here, or with the prefix of a command in another network namespace."""
    writes = "; ".join(f"echo '{value}' > /proc/sys/net/ipv4/{key}" for key, value in SETTINGS.items())
    sh(f'{inside} sh -ec "{writes}"')


def redirect_clients():
    sh(f"iptables -t nat -A OUTPUT -p tcp --dport {SERVER_PORT} -m owner --uid-owner {CLIENT_UID} "
       f"-j REDIRECT --to-ports {PROXY_PORT}")


def tun_is_up():
    found = subprocess.run(["ip", "-4", "addr", "show", "dev", TUN_DEVICE, "up"], capture_output=True, text=True)
    return "inet " in found.stdout


def route_clients_into_tun():
    sh(f"ip route add default dev {TUN_DEVICE} table 100",
       f"ip rule add pref 10 uidrange {CLIENT_UID}-{CLIENT_UID} lookup 100")


def connect_far(pid):
    """A pair of virtual cards between here and the network namespace of a process."""
    inside = f"nsenter -t {pid} -n"
    sh("ip link add va type veth peer name vb", f"ip link set vb netns {pid}", f"ip addr add {HERE}/24 dev va",
       "ip link set va up", f"{inside} ip link set lo up", f"{inside} ip addr add {FAR}/24 dev vb",
       f"{inside} ip link set vb up")
    tune(inside)


def has_own_network(pid):
    return os.readlink(f"/proc/{pid}/ns/net") != os.readlink("/proc/self/ns/net")


def listening(port, protocol="tcp"):
    state = LISTENING if protocol == "tcp" else BOUND
    wanted = re.compile(rf"^\s*\d+: \S+:{port:04X} \S+ {state} ", re.M)
    return any(wanted.search(Path("/proc/net", name).read_text()) for name in (protocol, protocol + "6"))


def wait_for(ready, process=None, seconds=5):
    """Until ready() or until the process has ended, which is a failure that its log explains."""
    end = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > end or (process and process.poll() is not None):
            logs = " ".join(path.read_text(errors="replace")[-300:] for path in Path(".").glob("*.log"))
            raise RuntimeError(f"did not start: {' '.join(logs.split())}")
        time.sleep(0.01)

