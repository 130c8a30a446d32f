"""The SOCKS5 server, with curl and with bytes that no good client sends."""
import socket
import subprocess

import pytest

from lib import conf, socks5
from lib.daemon import DNS_PORT, SOCKS_PORT
from lib.dns import A, Names, question_of, reply_to
from lib.net import ended, exchange, port_of, read_exactly, read_until, silent
from lib.socks5 import AUTH_OK, CONNECTED, NO_AUTH, PASSWORD, credentials, request
from lib.wait import until

DIRECT = conf.tcp_global("tcpProxy = direct") + conf.DIRECT
LOGIN = ("me", "a word")


def serving(*lines, **how):
    return DIRECT + conf.socks5(f"socks5_dns = 127.0.0.1:{DNS_PORT}", *lines, **how)


@pytest.mark.parametrize("login", [None, LOGIN], ids=["open", "login"])
def test_curl(net, vrox, login):
    def answer(connection):
        head = read_until(connection, b"\r\n\r\n")
        body = head.split(b"\r\n")[0]
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body))
        connection.recv(1)

    long_name = "l" * 60 + ".test"
    Names(net, {(name, A): ["127.0.0.7"] for name in ("web.test", long_name)}, "127.0.0.1", DNS_PORT)
    keys, listen = ([f"user_pass = {' '.join(login)}"], "127.0.0.1") if login else ([], "::")
    vrox(serving(*keys, listen=f"{listen}:{SOCKS_PORT}"))

    def curl(option, host, address, user):
        url = f"http://{host}:{net.serve(answer, address)}/page"
        who = ["--proxy-user", ":".join(user)] if user else []
        return subprocess.run(["curl", "-s", "--max-time", "15", option, f"127.0.0.1:{SOCKS_PORT}", *who, url],
                              capture_output=True, text=True, check=False)

    for option, host, address in [("--socks5", "127.0.0.7", "127.0.0.7"), ("--socks5", "[fd77::7]", "fd77::7"),
                                  ("--socks5-hostname", "web.test", "127.0.0.7"),
                                  ("--socks5-hostname", long_name, "127.0.0.7")]:
        assert curl(option, host, address, login).stdout == "GET /page HTTP/1.1", host
    if login:
        assert curl("--socks5", "127.0.0.7", "127.0.0.7", ("me", "wrong")).returncode == 97


@pytest.mark.parametrize("login, greetings", [
    (False, [(b"\x05\x01\x02", NO_AUTH),  # the methods offered are not examined
             (b"\x05\x08" + bytes(range(8)), NO_AUTH),  # all of it is consumed
             (b"\x04\x01\x00", NO_AUTH), (b"\x05\x00", None)]),
    (True, [(b"\x05\x01\x00", PASSWORD), (b"\x05\x02\x00\x02", PASSWORD), (b"\x05\x01", None)])])
def test_greetings(net, vrox, login, greetings):
    origin = net.listen()
    vrox(serving(*([f"user_pass = {' '.join(LOGIN)}"] if login else [])))
    for greeting, answer in greetings:
        if answer is None:
            client = net.connect(port=SOCKS_PORT)
            client.sendall(greeting)
            assert ended(client)
            continue
        client = socks5.greeted(net, greeting=greeting, answer=answer)
        if login:
            client.sendall(credentials(*LOGIN))
            assert read_exactly(client, 2) == AUTH_OK
        client.sendall(request("127.0.0.1", port_of(origin)))
        assert read_exactly(client, 10) == CONNECTED
        client.sendall(b"\x01 first")
        assert read_exactly(net.accept(origin), 7) == b"\x01 first"


def test_wrong_credentials_are_closed_silently(net, vrox):
    vrox(serving(f"user_pass = {' '.join(LOGIN)}"))
    good = credentials(*LOGIN)
    for wrong in (credentials("me", "wrong"), credentials("you", "a word"), good + b"x", good[:-1],
                  good[:4], b"\x05" + good[1:]):  # one read must hold them
        client = socks5.greeted(net, answer=PASSWORD)
        client.sendall(wrong)
        assert ended(client)


def test_names(net, vrox):
    """The success reply comes before the look-up; only an answer to the question itself counts."""
    resolver = net.keep(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
    resolver.bind(("127.0.0.1", DNS_PORT))
    resolver.settimeout(20)
    origin = net.listen()
    daemon = vrox(serving())
    descriptors = daemon.fds()
    waiting = socks5.connect(net, "web.test", port_of(origin))
    query, peer = resolver.recvfrom(512)
    assert question_of(query) == ("web.test", A)
    other = query.replace(b"\3web", b"\3wob")
    resolver.sendto(reply_to(other, ["127.0.0.66"]), peer)
    client = socks5.connect(net, "127.0.0.1", port_of(origin))  # others need not wait
    client.sendall(b"\x01")
    exchange(client, net.accept(origin), b"", b"")
    assert silent(waiting)
    resolver.sendto(reply_to(query, ["127.0.0.1"]), peer)
    waiting.sendall(b"\x01")
    exchange(waiting, net.accept(origin), b"", b"x")
    lost = socks5.connect(net, "nowhere.test", 80)
    query, peer = resolver.recvfrom(512)
    resolver.sendto(reply_to(query, []), peer)
    assert ended(lost)
    for conn in client, waiting:
        conn.close()
    until(lambda: daemon.fds() == descriptors, "every descriptor is closed")


def test_without_a_listener_its_command_is_refused(net, vrox):
    vrox(conf.dns_global() + conf.socks5())
    for command in 1, 3:
        client = socks5.greeted(net)
        client.sendall(request("127.0.0.1", 80, command))
        assert ended(client)


def test_full_handshake_table(net, vrox):
    origin = net.listen()
    vrox(serving("max_sessions = 1"))
    first, second = socks5.greeted(net), net.connect(port=SOCKS_PORT)
    second.sendall(b"\x05\x01\x00")
    assert silent(second)
    first.sendall(request("127.0.0.1", port_of(origin)))  # handed over: its slot is free
    assert read_exactly(first, 10) == CONNECTED
    assert read_exactly(second, 2) == NO_AUTH
