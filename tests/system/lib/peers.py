"""The program in bench/peers: clients and servers of every service, which check every byte.

Here is the network that it wants around it, and the configuration that goes with it.
"""
import os
import subprocess
from pathlib import Path

from lib import conf, tun, udp_tunnel
from lib.daemon import BIN, DNS_PORT
from lib.net import nft
from lib.wait import until

PEERS_BIN = os.environ.get("VROX_PEERS_BIN") or str(Path(BIN).with_name("peers"))
MARK = 7  # on connections that the firewall is to redirect
PASSWORD = "a fairly long password"
END = "end: "  # the last line begins like this


def by_port(name, port, *lines, keys=()):
    """A rule for connections to `port`, with a module of its own."""
    return (conf.rule(name, "matchMode = firstMatch", f"dst_port = {port}", f"tcpProxy = {name}", *keys)
            + conf.module(name, *lines))


def configuration(sessions=1024, timeouts=True, cache="cache"):
    """Every service, every way out. Without `timeouts` nothing that is stuck is ever swept away."""

    def within(seconds, key="timeout"):
        return [f"{key} = {seconds}"] if timeouts else []

    limit = f"max_sessions = {sessions}"
    return "".join([
        conf.tcp_global(limit, "tcpProxy = direct", *within(20)),
        conf.DIRECT,
        by_port("tunnel", 7002, conf.to(7002), "tunnel_proxy = on"),
        by_port("cipher", 7003, conf.to(7003), "tunnel_proxy = on", f"tunnel_encrypt = {PASSWORD}"),
        conf.rule("connect", "method = CONNECT", "tcpProxy = connect"),  # the client's own
        conf.module("connect", conf.to(7002), "tunnel_proxy = httpOverTunnel"),
        by_port("socks", 7005, conf.to(7005), "socks5_client = me secret"),
        by_port("early", 7006, "destAddr = original_dst", "tcp_option = TFO"),
        by_port("limited", 7007, "destAddr = original_dst", keys=["maxSpeed = 20M"]),
        conf.rule("web", "method = POST", "tcpProxy = web"),
        conf.module("web", "destAddr = original_dst", "httpMod = web"),
        conf.section("httpMod::web", "del_line = X-Drop", "strrep = X-Keep: abc -> X-Keep: abcdef"),
        conf.rule("rest", "dst_port = 0:65535", "tcpProxy = direct"),
        conf.socks5(limit, "socks5_dns = 127.0.0.1:7055", *within(10, "handshake_timeout")),
        conf.section("dns::Global", f"dns_listen = :::{DNS_PORT}", limit, f"cachePath = {cache}", "cacheLimit = 200",
                     *within(10)),
        conf.section("dnsAcl::http", r"reg_domain = \.http\.test$", conf.to(7054), "header_host = lookup.test"),
        conf.section("dnsAcl::tcp", "reg_domain = .", conf.to(7053), "lookup_mode = tcpDNS"),
        conf.section("httpUDP", f"udp_tproxy_listen = :::{udp_tunnel.TPROXY_PORT}",
                     f"udp_socks5_listen = :::{udp_tunnel.RELAY_PORT}", limit, conf.to(7090), f"encrypt = {PASSWORD}",
                     *within(20)),
        tun.section(),
    ])


def prepare_network():
    """Before the daemon starts; its device's routes come after it."""
    nft(f"""table inet soak {{
      chain output {{
        type nat hook output priority -100;
        meta mark {MARK} meta l4proto tcp redirect to :1080
      }}
    }}""")
    udp_tunnel.transparent()


class Peers:
    def __init__(self, directory, *arguments, **options):
        self.path = Path(directory) / "peers.out"
        with open(self.path, "wb") as out, open(Path(directory) / "peers.err", "wb") as err:
            self.process = subprocess.Popen([PEERS_BIN, *map(str, arguments)], stderr=err,
                                            **{"stdin": subprocess.DEVNULL, "stdout": out, **options})

    def close(self):
        self.process.kill()
        self.process.wait()

    @property
    def lines(self):
        return self.path.read_text().splitlines()

    @property
    def complaints(self):
        return self.path.with_name("peers.err").read_text(errors="replace")

    def wait(self, seconds):
        """The summary; fails when anything was lost, stuck or wrong."""
        until(lambda: self.process.poll() is not None, "the peers end", seconds)
        assert self.process.returncode == 0, f"{self.lines[-1:]}\n{self.complaints[:4000]}"
        assert self.lines[-1].startswith(END)
        return self.lines[-1]


def settled(daemon, base, seconds=60):
    """Waits until every descriptor beyond `base` is given back."""
    until(lambda: daemon.fds() <= base, f"no more than {base} descriptors are open", seconds)
