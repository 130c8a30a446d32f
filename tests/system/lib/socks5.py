"""A SOCKS5 client that can also be asked for odd bytes."""
import socket
import struct

from lib.daemon import SOCKS_PORT
from lib.net import read_exactly, silent

NO_AUTH, PASSWORD = b"\x05\x00", b"\x05\x02"
AUTH_OK = b"\x01\x00"
CONNECTED = bytes.fromhex("05000001000000000000")


def request(host, port, command=1):
    if ":" in host:
        address = b"\x04" + socket.inet_pton(socket.AF_INET6, host)
    elif host.replace(".", "").isdigit():
        address = b"\x01" + socket.inet_pton(socket.AF_INET, host)
    else:
        address = b"\x03" + bytes([len(host)]) + host.encode()
    return bytes([5, command, 0]) + address + struct.pack(">H", port)


def credentials(user, password):
    return b"\x01" + bytes([len(user)]) + user.encode() + bytes([len(password)]) + password.encode()


def greeted(net, via="127.0.0.1", source=None, greeting=b"\x05\x01\x00", answer=NO_AUTH, proxy_port=SOCKS_PORT):
    """A connection to the proxy behind its greeting."""
    conn = net.connect(via, proxy_port, source=source)
    conn.sendall(greeting)
    assert read_exactly(conn, 2) == answer
    return conn


def connect(net, host, port, via="127.0.0.1", source=None, login=None, proxy_port=SOCKS_PORT):
    """A connection to host:port through the proxy; every reply is checked to the byte."""
    how = {"greeting": b"\x05\x01\x02", "answer": PASSWORD} if login else {}
    conn = greeted(net, via, source, proxy_port=proxy_port, **how)
    if login:
        conn.sendall(credentials(*login))
        assert read_exactly(conn, 2) == AUTH_OK
    conn.sendall(request(host, port))
    assert read_exactly(conn, 10) == CONNECTED
    return conn


def serve(conn, dst, login=None, method=None, granted=AUTH_OK, send=socket.socket.sendall):
    """A proxy's part of the dialogue up to its last reply, every byte of the client checked."""
    method = method or (PASSWORD if login else NO_AUTH)
    steps = [(b"\x05\x02\x00\x02" if login else b"\x05\x01\x00", method)]
    if method == PASSWORD:
        steps.append((credentials(*login), granted))
    for wanted, reply in [*steps, (request(*dst), b"")]:
        assert read_exactly(conn, len(wanted)) == wanted
        assert silent(conn, 0.02)  # the client's bytes wait for the last reply
        send(conn, reply)
