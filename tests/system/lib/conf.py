"""Configuration texts that many tests start from."""
from lib.daemon import DNS_PORT, SOCKS_PORT, TCP_PORT
from lib.net import port_of


def section(header, *lines):
    return header + " {\n" + "".join(f"    {line};\n" for line in lines) + "}\n"


def tcp_global(*lines, listen=f":::{TCP_PORT}"):
    return section("tcp::Global", f"tcp_listen = {listen}", *lines)


def module(name, *lines):
    return section(f"tcpProxy::{name}", *lines)


def rule(name, *lines):
    return section(f"tcpAcl::{name}", *lines)


def at_connect(*lines, name="all"):
    """A rule that takes every connection when it is accepted."""
    return rule(name, "matchMode = firstMatch", "dst_port = 0:65535", *lines)


def socks5(*lines, listen=f":::{SOCKS_PORT}"):
    return section("socks5", f"socks5_listen = {listen}", *lines)


def dns_global(*lines, listen=f":::{DNS_PORT}"):
    return section("dns::Global", f"dns_listen = {listen}", *lines)


def http_mod(name, *lines):
    return section(f"httpMod::{name}", *lines)


def to(port, address="127.0.0.1"):
    """A destination: a port, or a listening socket's."""
    return f"destAddr = {address}:{port if isinstance(port, int) else port_of(port)}"


def later(listener, *global_lines, up=(), extra=""):
    """Everything goes to `listener` by a module `up`, chosen with a connection's first bytes."""
    return tcp_global("tcpProxy = up", *global_lines) + module("up", to(listener), *up) + extra


def fixed(listener, *global_lines, rule_keys=(), up=(), extra=""):
    """Likewise, chosen by a rule `all` when a connection is accepted."""
    return later(listener, *global_lines, up=up, extra=at_connect(*rule_keys) + extra)


AGENT = b"User-Agent: Pelorin Linux Network, (%>w<%)\r\n"
PASSWORD = "a fairly long password"
DIRECT = module("direct", "destAddr = original_dst")
