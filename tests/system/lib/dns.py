"""A scripted name server over UDP, and dnsmasq for whoever wants a real one."""
import socket
import struct

from lib.net import listeners, read_exactly
from lib.wait import until

A, AAAA = 1, 28


def question_of(query):
    """(name, type) of a query's one question."""
    labels, at = [], 12
    while query[at]:
        labels.append(query[at + 1:at + 1 + query[at]].decode())
        at += 1 + query[at]
    return ".".join(labels), struct.unpack_from(">H", query, at + 1)[0]


def reply_to(query, addresses, flags=0x8180):
    """A reply that repeats the question and answers with `addresses`, in their order."""
    message = query[:2] + struct.pack(">HHHHH", flags, 1, len(addresses), 0, 0) + query[12:]
    for address in addresses:
        family, kind = (socket.AF_INET6, AAAA) if ":" in address else (socket.AF_INET, A)
        data = socket.inet_pton(family, address)
        message += struct.pack(">HHHIH", 0xC00C, kind, 1, 60, len(data)) + data
    return message


def answer_over_tcp(conn, table):
    """Answers one framed query from {name: address}; every other name has no address."""
    query = read_exactly(conn, int.from_bytes(read_exactly(conn, 2), "big"))
    name, kind = question_of(query)
    reply = reply_to(query, [table[name]] if name in table and kind == A else [])
    conn.sendall(len(reply).to_bytes(2, "big") + reply)


class Names:
    """Answers from a table {(name, type): addresses}; a name that maps to None is met with silence."""

    def __init__(self, net, table, address="127.0.0.53", port=53):
        self.table, self.asked = table, []
        self.socket = net.keep(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.socket.bind((address, port))
        self.socket.settimeout(0.1)  # looks up now and then whether the test is over
        net.spawn(self._loop)

    def _loop(self):
        while self.socket.fileno() >= 0:
            try:
                query, peer = self.socket.recvfrom(512)
            except TimeoutError:
                continue
            key = question_of(query)
            self.asked.append(key)
            addresses = self.table.get(key, [])
            if addresses is not None:
                self.socket.sendto(reply_to(query, addresses), peer)


def dnsmasq(net, port, *options):
    """A real name server; options as --address=/name/1.2.3.4."""
    net.program("dnsmasq", "--keep-in-foreground", "--no-resolv", "--no-hosts", "--user=root", "--conf-file=/dev/null",
                "--pid-file=", "--bind-interfaces", "--listen-address=127.0.0.1", f"--port={port}", *options)
    until(lambda: ("127.0.0.1", port) in listeners("udp"), "dnsmasq listens")
