"""What a configuration file may say, and what is printed about one that is refused."""
import pytest

from lib import conf
from lib.dns import A, AAAA, Names
from lib.net import exchange, listeners, port_of

G = "tcp::Global {\n%s\n}\n"
FORMAT = "configuration file format error\n"
OWN_NAMES = {"VROX_INIT_CONFIG_DNS": "127.0.0.53"}


def line(key, value):
    return f"error line: [{key} = {value}]\n"


ACCEPTED = {
    "no blocks": "just = text\n",
    "only the prefix of a key counts": G % "max_sessions_x = 5\ntimeout_extra = 2\nkeepAlive_s!? = 1",
    "the header may stand on a line of its own": "tcp::Global\n{\n}\n",
    "a name touching its brace ends the file": "socks5{\nnonsense\n",
    "an empty body at the end of the file": "tcp::Global { tcp_nonsense = 1",
    "CR behind the semicolon is dropped": "tcp::Global {\r\nmatchMode = no_auto_match;\r\n}\r\n",
    "matchMode of another kind": G % "matchMode = sometimes",
    "reMatch of a rule further down": conf.rule("a", "reMatch = b a") + conf.rule("b"),
    "numbers that are none": G % "max_sessions = many\nkeepAlive_s = x\nlimit_client_ip = a b\nmaxData = G\nmaxSpeed = K",
    "a statistics file that does not exist yet": G % "maxData_savePath = 0 /nowhere/file",
    "all of a module": conf.module(
        "m", "destAddr = 127.0.0.1:1", "destAddr6 = [::1]:2", "destAddr4 = 127.0.0.1:3", "destAddr = original_dst",
        "destAddr = deny_network", "tcp_option = TFO", "socks5_client = user word", "tunnel_proxy = httpoverTUNNEL"),
}


@pytest.mark.parametrize("text", ACCEPTED.values(), ids=ACCEPTED.keys())
def test_accepted(run_vrox, text):
    status, out, err = run_vrox(conf=text)
    assert (status, err) == (0, "") and out.endswith("11\n")


REFUSED = {
    # Blocks
    "an unknown section": ("udp::Global {\n}\n", FORMAT),
    "a first header behind blanks": ("  tcp::Global {\n}\n", FORMAT),
    "a header behind a brace and a blank": ("tcp::Global {\n} socks5 {\n}\n", FORMAT),
    "no closing line": ("tcp::Global {\ntimeout = 1\n", ""),
    # Lines
    "no '='": (G % "  nonsense ;", line("nonsense ", "(null)")),
    "no value": (G % "timeout = ;", line("timeout ", "(null)")),
    "an unknown key": (G % "colour = red;", line("colour ", "red")),
    "a CR without a semicolon stays": (b"tcp::Global {\r\ncolour=red\r\n}\r\n", line("colour", "red\r")),
    "a blank before the semicolon stays": (G % "colour=red ;", line("colour", "red ")),
    "one pair of double quotes goes": (G % 'colour = ""a b"";', line("colour ", '"a b"')),
    "escapes become bytes in httpMod": ("httpMod::m {\ncolour = a\\tb\n}\n", line("colour ", "a\tb")),
    "escapes become bytes in dnsAcl": ("dnsAcl {\ncolour = a\\vb\n}\n", line("colour ", "a\vb")),
    "escapes stay in tcpAcl": (conf.rule("r", r"colour = a\tb"), line("colour ", r"a\tb")),
    # Keys
    "a global key in a rule": (conf.rule("r", "max_sessions = 1"), line("max_sessions ", "1")),
    "an address without a port": (G % "tcp_listen = 1080", line("tcp_listen ", "1080")),
    "a statistics file without a blank": (G % "maxData_savePath = 60", line("maxData_savePath ", "60")),
    "an unknown key of dns::Global": ("dns::Global {\nfoo = 1\n}\n", line("foo ", "1")),
    "credentials without a blank": ("socks5 {\nuser_pass = me\n}\n", line("user_pass ", "me")),
    "an unknown key of Tun": ("Tun {\nfoo = 1\n}\n", ""),
    "an unknown key of a module": (conf.module("m", "foo = 1"), line("foo ", "1")),
    "an unknown tunnel": (conf.module("m", "tunnel_proxy = off"), line("tunnel_proxy ", "off")),
    "an unclosed header condition": (conf.rule("r", "hdr_key(Host = a"), line("hdr_key(Host ", "a")),
    "an invalid expression": (conf.rule("r", "uri = (a"), line("uri ", "(a")),
    # References
    "an unknown module": (conf.rule("r", "tcpProxy = M"), "Can't find tcp proxy module: [M]\n"),
    "tcp::Global is resolved as well": (G % "tcpProxy = m", "Can't find tcp proxy module: [m]\n"),
    "an unknown httpMod": (
        G % "tcpProxy = m" + conf.module("m", "httpMod = h"), "Can't find http modify module: [h]\n"),
    "an unknown tunnelHttpMod": (
        G % "tcpProxy = m" + conf.module("m", "tunnelHttpMod = h"), "Can't find http tunnel modify module: [h]\n"),
    "a reMatch of a module": (
        conf.rule("r", "reMatch = m") + conf.module("m"), "Can't find reMatch module name at [r]\n"),
    "an unknown httpMod of httpUDP": ("httpUDP {\nhttpMod = h\n}\n", ""),
    # Load-time addresses
    "no IPv6 address": (conf.module("m", "destAddr6 = 127.0.0.1:80"), line("destAddr6 ", "127.0.0.1:80")),
}


@pytest.mark.parametrize("text, message", REFUSED.values(), ids=REFUSED.keys())
def test_refused(run_vrox, text, message):
    status, out, err = run_vrox(conf=text)
    assert (status, out) == (1, "")
    assert err == message


def test_unreadable_file(run_vrox):
    assert run_vrox("-d", "-c", "/nowhere/vrox.conf") == (1, "", "fopen(): No such file or directory\n")


def test_listeners(vrox):
    vrox(conf.tcp_global(listen="127.0.0.1:2001") + conf.socks5(listen="::1:2002")
         + conf.dns_global(listen="127.0.0.2:2003")
         + conf.section("httpUDP", "udp_socks5_listen = :::2004", "udp_tproxy_listen = 0.0.0.0:2005"))
    assert listeners("tcp") == {("127.0.0.1", 2001), ("::1", 2002)}
    assert listeners("udp") == {("127.0.0.2", 2003), ("::", 2004), ("0.0.0.0", 2005)}


def test_occupied_port(net, run_vrox):
    status, _, err = run_vrox(conf=conf.socks5(listen=f"127.0.0.1:{port_of(net.listen())}"))
    assert (status, err) == (1, "bind(): Address already in use\n")


def resolving(line_):
    return conf.tcp_global("tcpProxy = m") + conf.module("m", line_) + conf.at_connect()


def test_names_are_resolved_while_loading(net, vrox, run_vrox):
    """Both families for `destAddr`; only a key of one family must find it."""
    four = net.listen("127.0.0.1")
    port = port_of(four)
    six = net.listen("::1", port)
    names = Names(net, {("both.test", AAAA): ["::1"], ("both.test", A): ["127.0.0.1"], ("four.test", A): ["127.0.0.1"]})
    for key, asked, reached in (
            ("destAddr = both.test", [("both.test", AAAA), ("both.test", A)], [six, four]),  # used in turn
            ("destAddr = four.test", [("four.test", AAAA), ("four.test", A)], [four]),
            ("destAddr4 = both.test", [("both.test", A)], [four]), ("destAddr6 = both.test", [("both.test", AAAA)], [six])):
        names.asked.clear()
        daemon = vrox(resolving(f"{key}:{port}"), env=OWN_NAMES)
        assert names.asked == asked
        for listener in reached:
            exchange(*net.joined(listener))
        daemon.stop()
    status, _, err = run_vrox(conf=resolving(f"destAddr6 = four.test:{port}"), env=OWN_NAMES)
    assert (status, err) == (1, line("destAddr6 ", f"four.test:{port}"))


def test_conditions_by_domain(net, vrox):
    Names(net, {("clients.test", A): ["127.0.0.8", "127.0.1.0"]})
    hit, miss = net.listen(), net.listen()
    vrox(conf.later(miss) + conf.module("hit", conf.to(hit)) + conf.rule(
        "clients", "matchMode = firstMatch", "tcpProxy = hit", "src_ip_byDomain = clients.test/24"), env=OWN_NAMES)
    for source, listener in (("127.0.0.77", hit), ("127.0.1.200", hit), ("127.0.2.1", miss)):
        net.joined(listener, b"\x01", source=source)


@pytest.mark.slow
def test_a_silent_name_server_is_asked_three_times(net, run_vrox):
    names = Names(net, {("host.test", A): None})
    status, _, err = run_vrox(conf=resolving("destAddr4 = host.test:80"), env=OWN_NAMES)
    waits = "".join(
        f"read(): Resource temporarily unavailable\nwait dns response timeout {n}.\n" for n in (1, 2, 3))
    assert (status, names.asked) == (1, 3 * [("host.test", A)])
    assert err == waits + line("destAddr4 ", "host.test:80")
