"""A TUN device of the daemon's, with the kernel's TCP as its client.

The test's addresses are local. A socket that is bound to the device reaches them
through it all the same, and the daemon's own connections go past it.
"""
import array
import itertools
import os
import socket

from lib import conf
from lib.net import family_of, ip, sysctl
from lib.wait import DEADLINE, until

DEVICE = "tun3"
V4, V6 = "10.77.0.5", "fd77::5"


def section(*lines, name=DEVICE):
    return conf.section("Tun", *lines, f"tun_device = {name}")


def configuration(*tun_lines, tcp=(), extra=""):
    """Every flow goes where it wants to, chosen when it is opened."""
    return (conf.tcp_global("tcpProxy = direct", *tcp) + conf.at_connect() + conf.DIRECT
            + section(*tun_lines) + extra)


def open_routes(name=DEVICE):
    """Lets the kernel send through the device, and take packets from its own addresses there."""
    sysctl(f"net.ipv4.conf.{name}.accept_local", 1)
    sysctl(f"net.ipv4.conf.{name}.rp_filter", 0)
    sysctl("net.ipv4.conf.all.rp_filter", 0)
    ip(f"route add default dev {name}")
    ip(f"route add default dev {name}", family="-6")


_ports = itertools.cycle(range(2000, 9000))


def bound(sock, address):
    try:
        sock.bind(address)
    except OSError:
        return False
    return True


def new_socket(net, address, kind=socket.SOCK_STREAM, name=DEVICE):
    sock = net.keep(socket.socket(family_of(address), kind))
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, name.encode())
    sock.settimeout(DEADLINE)
    # Not a port that the kernel would choose: it gives one again as soon as its last connection is over,
    # or goes elsewhere. To the daemon that is the same flow, and the SYN of a known flow is ignored.
    until(lambda: bound(sock, ("::" if ":" in address else "0.0.0.0", next(_ports))), "a port is free")
    return sock


def connect(net, address, port):
    sock = new_socket(net, address)
    sock.connect((address, port))
    return sock


def hand_over(path, *descriptors):
    """Sends a message with the descriptors to whoever listens on `path`; returns the connection."""
    until(lambda: os.path.exists(path), "somebody listens")
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    until(lambda: peer.connect_ex(str(path)) == 0, "it accepts")
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
    peer.sendmsg([b"\0"], rights)
    return peer
