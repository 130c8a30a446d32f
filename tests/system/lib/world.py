"""The rest of the world, behind the default route of the test's own network.

Out there every address of the documentation networks exists, and a private network too.
"""
import os
import subprocess

from lib.daemon import BIN
from lib.net import _CLONE_NEWNET, _libc, ip, new_namespace, sysctl

FOREIGN = ("192.0.2.0/24", "198.51.100.0/24", "192.168.7.0/24", "2001:db8:2::/64")


class World:
    """`with world:` makes sockets and starts programs out there; they may be used from anywhere."""

    def __init__(self):
        sysctl("net.ipv6.conf.default.addr_gen_mode", 1)  # no addresses that come some time after the device
        self._home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        new_namespace()
        self._there = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        ip(f"link add router type veth peer name wan netns /proc/self/fd/{self._home}", "link set router up",
            "addr add 203.0.113.1/24 dev router", "addr add 2001:db8:1::1/64 dev router nodad",
            *(f"route add local {net} dev lo" for net in FOREIGN), keep=[self._home])
        self._enter(self._home)
        ip("link set wan up", "addr add 203.0.113.2/24 dev wan", "addr add 2001:db8:1::2/64 dev wan nodad",
            "route add default via 203.0.113.1", "route add default via 2001:db8:1::1")

    @staticmethod
    def _enter(namespace):
        assert _libc.setns(namespace, _CLONE_NEWNET) == 0

    def __enter__(self):
        self._enter(self._there)

    def __exit__(self, *_):
        self._enter(self._home)

    def close(self):
        os.close(self._there)
        os.close(self._home)


def privileged(directory):
    """The program that keeps its privileges when it changes its user: replies from foreign addresses need one."""
    path = directory / "vrox"
    path.write_text(f'#!/bin/sh\nexec setpriv --securebits +no_setuid_fixup "{BIN}" "$@"\n')
    path.chmod(0o755)
    return path


def resolve(name="www.example.com", server="192.0.2.1", port=53):
    command = ["dig", "+short", "+noedns", "+tries=1", "+time=10", "-p", str(port), f"@{server}", name, "A"]
    return subprocess.run(command, capture_output=True, text=True).stdout.strip()
