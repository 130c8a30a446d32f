"""Configurations of vrox. One rule takes every connection as it is accepted, unless said otherwise."""
from vroxbench.names import (CACHE, DNS_PORT, MAX_CONNS, NEAR, NEAR_SERVER, PROXY_PORT, RELAY_PORT,
                             TUN_DEVICE)


def section(header, *lines):
    return header + " {\n" + "".join(f"    {line};\n" for line in lines) + "}\n"


def tcp_global(*lines, port=PROXY_PORT, sessions=MAX_CONNS):
    return section("tcp::Global", f"tcp_listen = {NEAR}:{port}", f"max_sessions = {sessions}", *lines)


def module(*lines, name="out"):
    return section(f"tcpProxy::{name}", *lines)


def rule(*lines, name="all", modules=("out",)):
    return section(f"tcpAcl::{name}", *lines, *(f"tcpProxy = {m}" for m in modules))


EVERY_PORT = "dst_port = 0:65535"
AT_CONNECT = "matchMode = firstMatch"
ORIGINAL = ("destAddr = original_dst",)


def to(server):
    return (f"destAddr = {server}",)


def upstream(server):
    return ("socks5_client = on", *to(server))


def proxy(lines, **options):
    return tcp_global(**options) + module(*lines) + rule(AT_CONNECT, EVERY_PORT)


def socks5():
    server = section("socks5", f"socks5_listen = {NEAR}:{PROXY_PORT}", f"max_sessions = {MAX_CONNS}")
    return proxy(ORIGINAL, port=PROXY_PORT + 1) + server


def tun(lines, **options):
    return proxy(lines, **options) + section("Tun", "mtu = 65535", "tun_addr = 10.5.5.5", f"tun_device = {TUN_DEVICE}")


def dns():
    return section("dns::Global", f"dns_listen = {NEAR}:{DNS_PORT}", f"cachePath = {CACHE}")


# ---- tables of a chosen size ------------------------------------------------------

def rules_at_connect(count):
    """`count` rules, of which the last takes the connection and the others look at its address first."""
    others = "".join(rule(AT_CONNECT, f"dst_ip = 203.0.{i // 250}.{i % 250 + 1}", name=f"r{i}")
                     for i in range(count - 1))
    return tcp_global() + module(*to(NEAR_SERVER)) + others + rule(AT_CONNECT, EVERY_PORT)


def rules_on_request(count):
    """Likewise, with a regular expression each over the first bytes of the connection."""
    others = "".join(rule(f"reg_string = ^host{i}\\.example", name=f"r{i}") for i in range(count - 1))
    return tcp_global() + module(*to(NEAR_SERVER)) + others + rule(EVERY_PORT)


def ring_of_modules(count):
    names = [f"out{i}" for i in range(count)]
    return (tcp_global() + "".join(module(*to(NEAR_SERVER), name=n) for n in names)
            + rule(AT_CONNECT, EVERY_PORT, modules=names))


def udp_relay(clients):
    return section("httpUDP", f"udp_socks5_listen = {NEAR}:{RELAY_PORT}", f"max_sessions = {clients}",
                   f"destAddr = {NEAR_SERVER}")


def write_dns_cache(path, names):
    """A cache file that knows all names: for each the length of the query without its identifier, the
    query, the length of the reply, the reply; lengths are 16 bits, little-endian."""
    with open(path, "wb") as cache:
        for i in range(names):
            host = f"host{i}".encode()
            question = bytes([len(host)]) + host + b"\7example\3net\0\0\1\0\1"
            query = b"\1\0\0\1\0\0\0\0\0\0" + question
            record = bytes.fromhex("c00c0001000100000e100004c0000201")
            reply = b"\0\0\x81\x80\0\1\0\1\0\0\0\0" + question + record
            for message in (query, reply):
                cache.write(len(message).to_bytes(2, "little") + message)
