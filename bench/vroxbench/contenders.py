"""Who is compared, and how the load reaches each of them.

A contender's `way` says how the client comes in:

  straight   it connects to the server; nobody is in between
  forward    it connects to the contender, which has one fixed destination
  socks5     it asks the contender for the server by SOCKS5
  connect    it asks the contender for the server by HTTP CONNECT
  redirect   it connects to the server, and the firewall redirects that to the contender
  tun        it connects to the server, and the route leads into the contender's TUN device
  dns        it sends DNS queries to the contender

A program with `upstream` set speaks SOCKS5 to the server, which takes that handshake itself:
no second proxy is in the path.
"""
import os
import shutil
from dataclasses import dataclass, field

from vroxbench import vroxconf
from vroxbench.names import (CONF, DNS_PORT, FAR, FAR_SERVER, LOAD, MAX_CONNS, NEAR, NEAR_SERVER, PROXY_PORT,
                             SERVER_PORT, STUB_PORT, TUN_DEVICE, VROX)


@dataclass(frozen=True)
class Contender:
    name: str
    way: str
    argv: tuple = ()       # VROX stands for the vrox program, LOAD for the load generator
    conf: str = ""
    package: str = ""      # of Debian, that has the program
    upstream: str = ""
    given: dict = field(default_factory=dict)  # what the scenario varies

    @property
    def is_vrox(self):
        return self.argv[:1] == (VROX,)

    @property
    def way_in(self):
        return self.way + (f" + {self.upstream}" if self.upstream else "")

    def missing(self):
        """Why it cannot run here; empty when it can."""
        if not self.argv or self.argv[0] in (VROX, LOAD) or shutil.which(self.argv[0]):
            return ""
        if self.package:
            return f"{self.argv[0]} is not installed (Debian package {self.package})"
        return "no program was named in TUN_PEER_BIN"


HAPROXY = f"""
global
 maxconn {MAX_CONNS}
 maxpipes 1000
defaults
 mode tcp
 timeout connect 5s
 timeout client 1h
 timeout server 1h
listen forward
 bind {NEAR}:{PROXY_PORT}
 server s {NEAR_SERVER}
"""
SPLICE = " option splice-request\n option splice-response\n"
DANTED = f"""
errorlog: stderr
internal: {NEAR} port = {PROXY_PORT}
external: {NEAR}
clientmethod: none
socksmethod: none
user.privileged: root
user.unprivileged: nobody
client pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}
socks pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 protocol: tcp }}
"""
TINYPROXY = f"""
Port {PROXY_PORT}
MaxClients {MAX_CONNS}
LogLevel Critical
"""
REDSOCKS = f"""
base {{ log_info = off; log = stderr; daemon = off; redirector = iptables; redsocks_conn_max = {MAX_CONNS}; }}
redsocks {{ local_ip = {NEAR}; local_port = {PROXY_PORT}; ip = {NEAR}; port = {SERVER_PORT}; type = socks5; }}
"""
UNBOUND = f"""
server:
 interface: {NEAR}@{DNS_PORT}
 do-daemonize: no
 username: ""
 chroot: ""
 use-syslog: no
 pidfile: ""
 module-config: "iterator"
 do-not-query-localhost: no
 msg-cache-size: 64m
 rrset-cache-size: 128m
forward-zone:
 name: "."
 forward-addr: {NEAR}@{STUB_PORT}
"""
DNSMASQ = ("dnsmasq", "-k", "-C", "/dev/null", "-u", "root", "-h", "-R", "-z", "-c", "200000", "-0", "1000", "-a",
           NEAR, "-p", str(DNS_PORT), "-S", f"{NEAR}#{STUB_PORT}")
SIMPLEPROXY = ("simpleproxy", "-L", f"{NEAR}:{PROXY_PORT}", "-R", NEAR_SERVER)
SOCAT = ("socat", f"TCP-LISTEN:{PROXY_PORT},reuseaddr,fork,backlog=1024", f"TCP:{NEAR_SERVER}")
TUN_PEER = f"""
tunnel: {{ name: {TUN_DEVICE}, mtu: %d, ipv4: 198.18.0.1 }}
socks5: {{ port: {SERVER_PORT}, address: {FAR} }}
misc: {{ log-level: error, limit-nofile: 20000 }}
"""
TUN_PEER_PROGRAM = os.environ.get("TUN_PEER_BIN", "")


def vrox(name, way, conf, *options, upstream="", **given):
    return Contender(name, way, (VROX, "-d", "-c", CONF, *options), conf, upstream=upstream, given=given)


STRAIGHT = Contender("direct", "straight")
VROX_FORWARD = vrox("vrox forward", "forward", vroxconf.proxy(vroxconf.to(NEAR_SERVER)))

PROXIES = (
    STRAIGHT,
    Contender("haproxy", "forward", ("haproxy", "-db", "-f", CONF), HAPROXY, "haproxy"),
    Contender("haproxy splice", "forward", ("haproxy", "-db", "-f", CONF), HAPROXY + SPLICE, "haproxy"),
    Contender("simpleproxy", "forward", SIMPLEPROXY, package="simpleproxy"),
    Contender("socat", "forward", SOCAT, package="socat"),
    VROX_FORWARD,
    Contender("microsocks", "socks5", ("microsocks", "-i", NEAR, "-p", str(PROXY_PORT)), package="microsocks"),
    Contender("danted", "socks5", ("danted", "-p", "danted.pid", "-f", CONF), DANTED, "dante-server"),
    vrox("vrox socks5", "socks5", vroxconf.socks5()),
    Contender("tinyproxy", "connect", ("tinyproxy", "-d", "-c", CONF), TINYPROXY, "tinyproxy-bin"),
    Contender("redsocks", "redirect", ("redsocks", "-c", CONF), REDSOCKS, "redsocks", "socks5"),
    vrox("vrox redirect + socks5", "redirect", vroxconf.proxy(vroxconf.upstream(NEAR_SERVER)), upstream="socks5"),
    vrox("vrox redirect", "redirect", vroxconf.proxy(vroxconf.ORIGINAL)),
)
# A process for each connection: thousands of them measure the machine's memory.
FEW_PROCESSES = tuple(c for c in PROXIES if c.name not in ("simpleproxy", "socat"))

RESOLVERS = (
    Contender("direct", "dns", (LOAD, "reflect", str(DNS_PORT))),
    Contender("dnsmasq", "dns", DNSMASQ, package="dnsmasq-base"),
    Contender("unbound", "dns", ("unbound", "-d", "-c", CONF), UNBOUND, "unbound"),
    vrox("vrox dns", "dns", vroxconf.dns()),
)
TUNNELS = (
    STRAIGHT,
    Contender("tun peer, mtu 8500", "tun", (TUN_PEER_PROGRAM, CONF), TUN_PEER % 8500, upstream="socks5"),
    Contender("tun peer, mtu 65535", "tun", (TUN_PEER_PROGRAM, CONF), TUN_PEER % 65535, upstream="socks5"),
    vrox("vrox tun + socks5", "tun", vroxconf.tun(vroxconf.upstream(FAR_SERVER)), upstream="socks5"),
    vrox("vrox tun", "tun", vroxconf.tun(vroxconf.ORIGINAL)),
)

PACKAGES = sorted({c.package for c in PROXIES + RESOLVERS if c.package})
