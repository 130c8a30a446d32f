"""tcpAcl rules: which rule governs a connection, at connection time and at its first request."""
import ssl

import pytest

from lib import conf, socks5
from lib.net import ended, read_exactly, silent

GET = b"GET /path/a?q=1 HTTP/1.1\r\nHost: www.example.test\r\nX-Kind:\t  Blue one\r\n\r\n"
PROXY_GET = b"GET http://other.test/deep/b HTTP/1.1\r\nhost: other.test\r\n\r\n"
POST = b"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\nabc"
BARE = b"GETX\r\n\r\n"  # counts as GET, has no blank
RAW = b"\x01\x02 no HTTP at all\r\n"


def client_hello(name):
    """The first record of a real TLS client."""
    context, sent = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT), ssl.MemoryBIO()
    context.set_alpn_protocols(["http/1.1"])  # a dot that belongs to no server name
    client = context.wrap_bio(ssl.MemoryBIO(), sent, server_hostname=name)
    with pytest.raises(ssl.SSLWantReadError):
        client.do_handshake()
    hello = sent.read()
    # A dot among its random bytes might be taken for a name's.
    return hello if hello.count(b".") == name.count(".") + 1 else client_hello(name)


HELLO = client_hello("www.example.test")
V4, V6 = ("10.9.8.7", 443), ("fd00:1::8", 443)


class Labels:
    """Upstreams that answer whatever comes first with their own name."""

    def __init__(self, net, *names):
        self.net = net
        self.modules = "".join(conf.module(name, conf.to(self._serve(name))) for name in names)

    def _serve(self, name):
        def answer(connection):
            if connection.recv(1 << 16):
                connection.sendall(name.encode().ljust(4))
                connection.recv(1)  # stays until the client is done

        return self.net.serve(answer)

    def ask(self, *pieces, dst=("192.0.2.1", 80), **how):
        """The name of the upstream that a new connection is led to."""
        with socks5.connect(self.net, *dst, **how) as client:
            for piece in pieces[:-1]:
                client.sendall(piece)
                assert silent(client, 0.1)
            client.sendall(pieces[-1])
            return client.recv(4).decode().strip()


@pytest.fixture
def labels(net):
    return Labels(net, "hit", "miss")


def configuration(labels, *rules):
    return conf.tcp_global("tcpProxy = miss") + conf.socks5() + "".join(rules) + labels.modules


REQUESTS = [
    # Each kind, and the kind negated
    (["reg_string = ^[A-Z]+ /PATH"], [GET], [POST, PROXY_GET, RAW]),
    (["reg_string! = HTTP/"], [RAW], [GET, POST]),
    (["reg_string = HTTP/1.1.$"], [GET], [RAW]),  # $ stands before a line feed
    (["uri = ^/deep/b$"], [PROXY_GET], [GET]),
    (["uri = nothing"], [BARE], [GET]),  # an unreadable request line holds
    (["uri! = ^/path"], [POST, PROXY_GET], [GET, RAW]),  # undecidable is unsatisfied even when negated
    (["url = ^HTTP://other"], [PROXY_GET], [GET, RAW]),
    (["method! = GET|PUT"], [POST, RAW], [GET, BARE]),
    (["hdr_key(x-KIND) = ^blue"], [GET], [POST, RAW]),
    (["hdr_key(Host)! = example"], [POST, PROXY_GET, RAW], [GET]),
    (["dst_ip = 10.9.8.0/21"], [V4, ("10.9.15.255", 1)], [("10.9.16.0", 1), V6]),
    (["dst_ip! = fd00:1::/32"], [V4, ("fd00:2::8", 1)], [V6]),
    (["dst_port = 80:443"], [("1.1.1.1", 80), V6], [("1.1.1.1", 79), ("1.1.1.1", 444)]),
    (["dst_port! = 443"], [("1.1.1.1", 80)], [V4]),
    # Alternatives and conjunctions
    (["dst_port = 80", "dst_port = 443"], [("1.1.1.1", 80), V6], [("1.1.1.1", 81)]),
    (["continue_match:dst_port! = 443", "dst_ip = 10.0.0.0/8"], [("10.9.8.7", 80)], [V4, ("11.1.1.1", 80)]),
    # The mark goes to the first condition, wherever the key stands.
    (["dst_ip = 10.0.0.0/8", "continue_match:dst_port = 443"], [V4], [V6, ("10.9.8.7", 80)]),
    (["continue_match:dst_ip = 10.0.0.0/8"], [], [V4]),  # goes on to nothing
    ([], [], [V4, GET, RAW]),
]


def test_conditions_of_a_request(labels, vrox):
    """Each case is a rule of its own, listed by the rule of its client's address."""
    text = ""
    for i, (lines, _, _) in enumerate(REQUESTS):
        text += conf.rule(f"by{i}", "matchMode = firstMatch", f"src_ip = 127.0.7.{i + 1}", "tcpProxy = miss",
                          f"reMatch = r{i}")
        text += conf.rule(f"r{i}", "matchMode = no_auto_match", "tcpProxy = hit", *lines)
    vrox(configuration(labels, text))
    for i, (lines, hits, misses) in enumerate(REQUESTS):
        for case in hits + misses:
            dst, first = (case, RAW) if isinstance(case, tuple) else (("192.0.2.1", 80), case)
            expected = "hit" if case in hits else "miss"
            assert labels.ask(first, dst=dst, source=f"127.0.7.{i + 1}") == expected, (lines, case)


@pytest.mark.parametrize("mode", ["firstMatch", "other"])
def test_client_address(labels, vrox, mode):
    lines = ["src_ip = 127.0.1.0/24", "src_ip = ::1"]
    vrox(configuration(labels, conf.rule("r", f"matchMode = {mode}", "tcpProxy = hit", *lines)))
    for how, name in (({"source": "127.0.1.9"}, "hit"), ({"source": "127.0.2.9"}, "miss"), ({"via": "::1"}, "hit"),
                      ({"via": "::1", "source": "fd77::1"}, "miss")):
        assert labels.ask(RAW, **how) == name


@pytest.mark.parametrize("lines, dst, name", [
    (["dst_port = 443"], V4, "hit"),
    # Kinds that need a request take the last result, at first "does not hold".
    (["method! = GET"], V4, "hit"),
    (["continue_match:dst_port = 443", "hdr_key(Host) = x"], V4, "hit"),
    (["continue_match:include_module = port", "method = GET"], V4, "hit"),
    (["include_module! = port"], V4, "miss"),
])
def test_conditions_at_connection_time(labels, vrox, lines, dst, name):
    vrox(configuration(labels, conf.rule("r", "matchMode = firstMatch", "tcpProxy = hit", *lines),
                       conf.rule("port", "dst_port = 443")))
    assert labels.ask(GET, dst=dst) == name


def test_include_module(labels, vrox):
    vrox(configuration(
        labels,
        conf.rule("r", "tcpProxy = hit", "include_module = two", "include_module = loop"),
        conf.rule("two", "matchMode = no_auto_match", "continue_match:dst_port = 443", "method = GET"),
        # A circle: whoever is being evaluated already does not match.
        conf.rule("loop", "matchMode = no_auto_match", "include_module = back", "method = POST"),
        conf.rule("back", "matchMode = no_auto_match", "include_module = loop", "include_module = back")))
    for first, dst, name in (GET, V4, "hit"), (RAW, V4, "miss"), (GET, ("1.1.1.1", 80), "miss"), (POST, V4, "hit"):
        assert labels.ask(first, dst=dst) == name


def test_file_order_and_defaults(net, vrox):
    """The first rule wins; proxies and conditions of tcp::Global go to rules that open behind them."""
    labels = Labels(net, "miss", "one", "two", "last", "own")
    vrox(conf.tcp_global("tcpProxy = miss") + conf.socks5()
         + conf.rule("a", "tcpProxy = one", "dst_port = 1:10") + conf.rule("b", "tcpProxy = two", "dst_port = 5:20")
         + conf.rule("c", "matchMode = firstMatch", "tcpProxy = last", "dst_port = 7")  # asked before either
         + conf.section("tcp::Global", "dst_port = 30")
         + conf.rule("own", "matchMode = firstMatch", "tcpProxy = own", "dst_port = 31") + labels.modules)
    for port, name in ((5, "one"), (11, "two"), (7, "last"), (21, "miss"), (30, "own"), (31, "own")):
        assert labels.ask(RAW, dst=("1.1.1.1", port)) == name


def test_rematch_on_the_first_request(net, vrox):
    labels = Labels(net, "miss", "zero", "one", "two")
    vrox(configuration(
        labels,
        conf.rule("zero", "matchMode = firstMatch", "tcpProxy = zero", "reMatch = one two", "dst_port = 80"),
        conf.rule("two", "matchMode = no_auto_match", "tcpProxy = two", "method = GET|POST"),
        conf.rule("one", "matchMode = no_auto_match", "tcpProxy = one", "method = GET")))
    for first, name in (GET, "one"), (POST, "two"), (RAW, "zero"):  # the first listed one; none: the rule stays
        assert labels.ask(first) == name
        assert labels.ask(first, dst=("1.1.1.1", 81)) == "miss"  # no_auto_match is no rule of its own


def test_rematch_leaves_the_first_upstream(net, vrox):
    old, new = net.listen(), net.listen()
    vrox(conf.fixed(old, rule_keys=["tcpProxy = up", "reMatch = r nowhere"])
         + conf.rule("r", "matchMode = no_auto_match", "tcpProxy = new", "method = GET", "reMatch = nowhere")
         + conf.rule("nowhere", "matchMode = no_auto_match", "tcpProxy = deny", "method = POST")
         + conf.module("new", conf.to(new)) + conf.module("deny", "destAddr = deny_network"))
    client, first = net.joined(old)
    client.sendall(GET)
    second = net.accept(new)
    assert read_exactly(second, len(GET)) == GET
    assert ended(first)
    client.sendall(POST)  # only once in a session's life
    assert read_exactly(second, len(POST)) == POST
    assert net.idle(old, 0.1)
    client, upstream = net.joined(old)
    client.sendall(POST)
    assert ended(client) and ended(upstream)


def test_tls_server_name(labels, vrox):
    """Of a real client; what merely looks like a hello names nobody."""
    false_hello = b"\x16\x03\x01\x00\x39" + b"\x01" * 20 + b"www.example.test\x01" + b"\x02" * 20
    vrox(configuration(labels, conf.rule("r", "tcpProxy = hit", r"hdr_key(Host) = ^www\.example\.test$")))
    for pieces, name in (([HELLO], "hit"), ([HELLO[:3], HELLO[3:-1], HELLO[-1:]], "hit"),
                         ([client_hello("example.other")], "miss"), ([false_hello], "miss"), ([RAW], "miss")):
        assert labels.ask(*pieces) == name


LARGE = b"GET / HTTP/1.1\r\nX: " + b"y" * 20000 + b"\r\n\r\n"


def test_request_heads_are_gathered(net, vrox):
    """Held back until they are complete; anything else goes on at once."""
    origin = net.listen()
    vrox(conf.later(origin))
    for *pieces, last in ([GET[:20], GET[20:-1], GET[-1:]], [GET + PROXY_GET], [GET + PROXY_GET[:10], PROXY_GET[10:]],
                          [LARGE[:-2], LARGE[-2:]], [b"\x00"], [b"get / HTTP/1.1\r\n"], [b"GE"]):
        client = net.connect()
        for piece in pieces:
            client.sendall(piece)
            assert net.idle(origin, 0.1)
        client.sendall(last)
        seen = b"".join([*pieces, last])
        assert read_exactly(net.accept(origin), len(seen)) == seen
