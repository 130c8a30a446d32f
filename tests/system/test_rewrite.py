"""httpMod: requests as a scripted origin receives them, byte for byte."""
import socket
from collections import namedtuple

import pytest

from lib import conf, socks5
from lib.daemon import SANITIZED, TCP_PORT
from lib.net import ended, exchange, read_all, read_exactly

DESTINATION = ("10.0.0.1", 80)
GET = b"GET /p?q HTTP/1.1\r\nHost: a.b\r\nX-A: 1\r\nx-a: 2\r\nX-AB: 3\r\n\r\n"


Case = namedtuple("Case", "directives request expected to key", defaults=(DESTINATION, "httpMod"))


def line(first, rest=b"Host: a.b\r\n\r\n"):
    return first + b"\r\n" + rest


def head(first, host=b"a.b", version=b"HTTP/1.1"):
    return first + b" " + version + b"\r\nHost: " + host + b"\r\n\r\n"


def shows(text):
    """A directive that puts `text` into the head, where its expansion can be read."""
    return [f'set_first = "{text}|\\r\\n"']


CASES = {
    # del_line
    "del_line takes any case and consecutive lines, not longer names": Case(
        ["del_line = X-a"], GET, b"GET /p?q HTTP/1.1\r\nHost: a.b\r\nX-AB: 3\r\n\r\n"),
    # strrep
    "strrep works on the whole head, and only there": Case(
        ["strrep = 1 -> one"], b"GET /11 HTTP/1.1\r\nX: 1\r\n\r\n11", b"GET /oneone HTTP/one.one\r\nX: one\r\n\r\n11"),
    # regrep
    "regrep ignores case and keeps the groups": Case(
        [r"regrep = x-(A): ([0-9]) -> \2=\1"], GET, GET.replace(b"X-A: 1", b"1=A").replace(b"x-a: 2", b"2=a")),
    "regrep: the first group that did not match ends the groups": Case(
        [r"regrep = /(z)?(p) -> /<\1\2>"], GET, GET.replace(b"/p", b"/<\\1\\2>")),
    "regrep with placeholders in the pattern": Case(
        [r"regrep = ^([M]) [U] -> \1 [H]"], b"GET /p HTTP/1.1\r\nHost: a.b\r\n\r\n",
        b"GET a.b HTTP/1.1\r\nHost: a.b\r\n\r\n"),
    # set_first
    "set_first brings its own line end": Case(
        [r"set_first = [M] [U] [V]\r\nX-New: 1\r\n"], head(b"GET http://a.b/c?d"),
        b"GET /c?d HTTP/1.1\r\nX-New: 1\r\nHost: a.b\r\n\r\n"),
    # Order of the file
    "directives follow the file": Case(
        ["strrep = one -> two", "strrep = two -> three", "del_line = three", "strrep = three -> four"],
        b"GET /one HTTP/1.1\r\none: 1\r\nHost: a\r\n\r\n", b"GET /four HTTP/1.1\r\nHost: a\r\n\r\n"),
    "placeholders are those of the request as it came": Case(
        [r"set_first = POST /other HTTP/1.0\r\n", "strrep = X-A: 1 -> X: [M] [U] [V]"], GET,
        GET.replace(b"GET /p?q HTTP/1.1", b"POST /other HTTP/1.0").replace(b"X-A: 1", b"X: GET /p?q HTTP/1.1")),
    # Placeholders
    "every placeholder": Case(
        shows("[M],[U],[url],[V],[H],[H_P],[x]"), head(b"GET http://a.b/c?d"),
        line(b"GET,/c?d,http://a.b/c?d,HTTP/1.1,a.b,a.b,[x]|")),
    # Host and port
    "no Host: the IPv4 destination": Case(
        shows("[H],[H_P]"), b"GET / HTTP/1.1\r\n\r\n", b"10.0.0.1:80,10.0.0.1:80|\r\n\r\n"),
    "no Host: an IPv6 destination loses its first digit": Case(
        shows("[H],[H_P]"), b"GET / HTTP/1.1\r\n\r\n", b"[001:db8::1]:443,[001:db8::1]:443|\r\n\r\n", to=("2001:db8::1", 443)),
    "a Host with another port keeps it": Case(
        shows("[H],[H_P]"), head(b"GET /", host=b"a.b:81"), line(b"a.b:81,a.b:81:80|", b"Host: a.b:81\r\n\r\n")),
    "not on the listening port": Case(
        shows("[H_P]"), head(b"GET /", host=b"a.b:81"), line(b"a.b:81|", b"Host: a.b:81\r\n\r\n"), to=("10.0.0.1", TCP_PORT)),
    # CONNECT has a module of its own
    "CONNECT: its target is the host, its path is /": Case(
        shows("[M],[U],[url],[H],[H_P]"), head(b"CONNECT h.test:443", host=b"other"),
        line(b"CONNECT,/,h.test:443,h.test:443,h.test:443:80|", b"Host: other\r\n\r\n"), key="tunnelHttpMod"),
    "CONNECT leaves the ordinary module alone": Case(
        ["strrep = CONNECT -> no"], head(b"CONNECT h:443"), head(b"CONNECT h:443")),
    "an ordinary request leaves the tunnel's module alone": Case(
        ["strrep = GET -> no"], head(b"GET /"), head(b"GET /"), key="tunnelHttpMod"),
    # Requests behind one another
    "without the switch only the first of several requests": Case(
        ["strrep = x -> y"], head(b"GET /x") * 2, head(b"GET /y") + head(b"GET /x")),
    "modify_all_request": Case(
        ["modify_all_request = ON", shows("[M] [url] [H]")[0]], head(b"GET /1") + head(b"HEAD /2", host=b"c") + head(b"PUT /3"),
        line(b"GET /1 a.b|") + line(b"HEAD /2 c|", b"Host: c\r\n\r\n") + line(b"PUT /3 a.b|")),
    # Not HTTP
    "other bytes pass": Case(["strrep = x -> y", r"regrep = . -> z"], b"\x01x get /x HTTP/1.1\r\n\r\n\x00x", b"\x01x get /x HTTP/1.1\r\n\r\n\x00x"),
    # Request lines that make no sense
    "no blank ends the client's side": Case(["strrep = x -> y"], b"GETx\r\n\r\n", None),
}


def origin_modules(origin, cases):
    """Each case has a client address, a rule, a module and a list of directives of its own."""
    text = conf.tcp_global() + conf.socks5()
    for i, case in enumerate(cases):
        text += conf.http_mod(f"h{i}", *case.directives)
        text += conf.module(f"m{i}", conf.to(origin), f"{case.key} = h{i}")
        text += conf.rule(f"r{i}", f"src_ip = 127.0.7.{i + 1}", f"tcpProxy = m{i}")
    return text


def modifying(origin, *directives):
    return conf.later(origin, "max_sessions = 2", up=["httpMod = h"]) + conf.http_mod("h", *directives)


def received(net, origin, client, pieces):
    """What the origin gets of the pieces; None when the client is cut off before anything arrives."""
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for piece in pieces:
        client.sendall(piece)
    client.shutdown(socket.SHUT_WR)
    upstream = net.accept(origin)
    got = read_all(upstream)
    upstream.close()
    assert ended(client)
    client.close()
    return got or None


def bytewise(data):
    """Single bytes, behind a first piece that names a method: less is not taken for HTTP."""
    return [data[:7]] + [data[i:i + 1] for i in range(7, len(data))]


@pytest.mark.parametrize("cut", [lambda data: [data], bytewise], ids=["whole", "bytewise"])
def test_requests_as_the_origin_sees_them(net, vrox, cut):
    origin = net.listen()
    cases = list(CASES.values())
    vrox(origin_modules(origin, cases))
    wrong = {}
    for i, (why, case) in enumerate(CASES.items()):
        if cut is bytewise and case.request.count(b" HTTP/1.1") > 1:
            continue  # what stands behind a request is looked at as it comes
        client = socks5.connect(net, *case.to, source=f"127.0.7.{i + 1}")
        got = received(net, origin, client, cut(case.request))
        if got != case.expected:
            wrong[why] = (got, case.expected)
    assert not wrong


def test_requests_and_bodies_of_one_connection(net, vrox):
    origin = net.listen()
    vrox(modifying(origin, "strrep = x -> yy"))
    client = net.connect()
    client.sendall(head(b"POST /x"))
    upstream = net.accept(origin)
    assert read_exactly(upstream, len(head(b"POST /yy"))) == head(b"POST /yy")
    for sent, seen in [(b"x=1", b"x=1"), (b"\x16\x03\x01x", b"\x16\x03\x01x"), (head(b"GET /x"), head(b"GET /yy")),
                       (b"xGET /x", b"xGET /x")]:
        client.sendall(sent)
        assert read_exactly(upstream, len(seen)) == seen
    exchange(client, upstream, b"\x01x", b"HTTP/1.1 200 x\r\n\r\nx")  # replies are nobody's business


@pytest.mark.parametrize(
    "directive, pattern",
    [("strrep = MARK-x -> a-longer-one", b"a-longer-one"), (r"regrep = mark-(.) -> \1\1\1\1-longer", b"xxxx-longer"),
     ("del_line = X-Mark", None)])
def test_a_large_head_with_many_matches(net, vrox, directive, pattern):
    origin = net.listen()
    daemon = vrox(modifying(origin, directive))
    lines = [b"X-Mark: %049d MARK" % i for i in range(1000)]
    plain = b"GET / HTTP/1.1\r\nHost: a\r\n" + b"".join(text + b"-\r\n" for text in lines) + b"\r\n"
    request = plain.replace(b"MARK-", b"MARK-x")
    assert 64 << 10 <= len(request) < 68 << 10
    expected = b"GET / HTTP/1.1\r\nHost: a\r\n\r\n" if pattern is None else plain.replace(b"MARK-", pattern)
    rounds = 1 if SANITIZED else 40
    before = daemon.cpu_ticks()
    client = net.connect()
    for i in range(rounds):
        client.sendall(request)
        upstream = upstream if i else net.accept(origin)
        assert read_exactly(upstream, len(expected)) == expected
    # Far above what one pass for each takes, far below a pass for each match.
    assert SANITIZED or daemon.cpu_ticks() - before < 40


def test_requests_that_fail_end_alone(net, vrox):
    """Malformed ones, and those that would be a gigabyte if nobody minded; their slots come back."""
    origin = net.listen()
    daemon = vrox(modifying(origin, "strrep = a -> [url][url]", r"regrep = (a) -> \1[url]"))
    other, upstream = net.joined(origin, head(b"GET /b", host=b"h"))
    for bad in (b"GET\r\n\r\n", head(b"GET /" + b"a" * 30_000, host=b"h")) * 3:
        assert received(net, origin, net.connect(), [bad]) is None
    exchange(other, upstream)
    assert daemon.err == ""
    assert SANITIZED or daemon.rss_kib() < 200_000
