"""vrox-check, and the texts that have to know every key: manual, completions, editor file."""
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from lib.daemon import BIN, run

CHECK = str(Path(BIN).with_name("vrox-check"))
ROOT = Path(__file__).parents[2]
MANUAL = (ROOT / "man/vrox.conf.5").read_text()


def check(directory, text, *options):
    """(exit status, findings without the file's name)"""
    path = directory / "checked.conf"
    path.write_text(text)
    status, out, err = run(directory, *options, path, binary=CHECK)
    assert out == ""
    return status, [line.removeprefix(f"{path}:") for line in err.splitlines()]


def keys():
    """Section -> its keys, in the order in which they are tried."""
    table = {}
    for line in run("/", "--keys", binary=CHECK)[1].splitlines():
        section, key = line.split(" ", 1)
        table.setdefault(section, []).append(key)
    return table


WRONG = [
    # (why, text, exit status, findings)
    ("nothing is", "tcpProxy::p {\ndestAddr = a.example:1\n}\n", 0, []),
    ("sections by their nearest name, and what follows is read on", "tcp::Globl {\na = b\n}\nTun {\nmtu = 1\nx = 1\n}\n", 1,
     ["1:1: error: no section begins like this; did you mean 'tcp::Global'?", "6:1: error: Tun has no key 'x'"]),
    ("headers that blanks are not skipped before", " Tun {\n}\n", 1, ["1:1: error: no blank may stand here before a header"]),
    ("keys by their nearest, by their owner, by their beginning", "socks5 {\n  socks5_lisen = 1\n\tcacheLimit = 1\nmax_sessionss = 1\n}\n", 1,
     ["2:3: error: socks5 has no key 'socks5_lisen'; did you mean 'socks5_listen'?",
      "3:2: error: socks5 has no key 'cacheLimit'; it is one of dns::Global",
      "4:1: warning: 'max_sessionss' is read as 'max_sessions'"]),
    ("values by their form", "tcp::Global {\ntcp_listen = localhost:1\ncontinue_match:url! = [\n}\n", 1,
     ["2:14: error: 'tcp_listen' takes a numeric ADDRESS:PORT, IPv6 without brackets (:::1080)",
      "3:23: error: 'url' takes a POSIX extended regular expression"]),
    ("lines without a value or '='", "Tun {\nmtu =\nmtu\n}\n", 1, ["2:1: error: 'mtu' has no value", "3:1: error: this line has no '='"]),
    ("names once, though every rule inherits them",
     "tcp::Global {\ntcpProxy = direkt\n}\ntcpProxy::direct {\nhttpMod = m\n}\ntcpAcl::a {\nurl = x\nreMatch = a b\n}\n"
     "tcpAcl::n {\n}\ndnsAcl {\nhttpMod = \"m\"\n}\n", 1,
     ["2:12: error: there is no section tcpProxy::direkt; did you mean 'direct'?",
      "9:13: error: there is no section tcpAcl::b",
      "11:1: warning: a rule without a condition never matches", "14:12: error: there is no section httpMod::m"]),
    ("a section that is left open, and nothing of what it swallows", "tcpAcl::a {\nurl = x\ntcpAcl::b {\nurl = y\n}\n", 1,
     ["1:1: error: this section is not closed: its '}' must begin a line"]),
    ("what is taken otherwise than it looks",
     "tcpAcl::a { url = w\nurl = x; // y\nurl = y\r\nurl = z; \n}\nTun {\ntun_device = t\nmtu = 1\n}\nTun{\n", 0,
     ["1:12: warning: what stands behind the '{' on its line is not read",
      "2:8: warning: a comment has a line of its own: this one belongs to the value",
      "3:7: warning: a carriage return ends the value: end the line with ';', or with LF alone",
      "4:7: warning: the ';' belongs to the value: blanks follow it",
      "8:1: warning: this comes too late: 'tun_device' has made the device",
      "10:1: warning: the configuration ends here: a blank is missing before the '{'"]),
]


@pytest.mark.parametrize("why,text,status,findings", WRONG, ids=[row[0] for row in WRONG])
def test_says_what_is_wrong_and_where(tmp_path, why, text, status, findings):
    assert check(tmp_path, text) == (status, findings)
    assert check(tmp_path, text, "-q") == (status, [])


def test_nothing_is_opened_or_asked(tmp_path):
    text = f"dns::Global {{\ncachePath = {tmp_path}/cache;\ndns_listen = 192.0.2.1:53\n}}\ndnsAcl {{\ndestAddr = a.example:53\n}}\n"
    assert check(tmp_path, text) == (0, [])
    assert not (tmp_path / "cache").exists()
    status, said = check(tmp_path, text, "-r")  # there is no network to ask
    assert status == 1 and said[-1] == "6:12: error: 'destAddr' takes HOST:PORT, original_dst or deny_network"
    assert run(tmp_path, tmp_path / "none", binary=CHECK)[0] == run(tmp_path, binary=CHECK)[0] == 2


def test_the_manual_has_every_key_in_order():
    documented = {}
    for section, body in re.findall(r"^\.Ss (\S+)(.*?)(?=^\.S[sh] )", MANUAL.replace(r"\&", ""), re.S | re.M):
        documented[section] = re.findall(r"^\.It Ic (\S+) No =", body, re.M)
    documented["tcp::Global"] += documented["tcpAcl::"]
    table = keys()
    assert {section: documented[section] for section in table} == table
    assert [section for section in documented if section in table] == list(table)


def test_the_recipes_load(tmp_path):
    recipes = re.findall(r"^\.Bd -literal\n(.*?)^\.Ed", MANUAL.split(".Sh EXAMPLES")[1], re.S | re.M)
    tour = re.findall(r"^```conf\n(.*?)^```", (ROOT / "README.md").read_text(), re.S | re.M)
    assert recipes and tour
    for recipe in recipes + tour:
        assert check(tmp_path, recipe.replace(r"\e", "\\")) == (0, []), recipe


def test_vim_knows_every_key():
    syntax = (ROOT / "editors/vim/syntax/vrox.vim").read_text()
    known = set(re.findall(r"[\w:]+", syntax))
    for key in sum(keys().values(), []):
        word = re.sub(r"[46]$|\(NAME\)|KEY", "", key) if key != "tun_addr6" else key
        assert word in known, key


@pytest.mark.parametrize("command", ["bash -n completions/vrox.bash", "zsh -n completions/_vrox", "mandoc -T lint man/*"])
def test_texts_are_well_formed(command):
    program, *arguments = command.split()
    if not shutil.which(program):
        pytest.skip(f"no {program}")
    options, pattern = arguments[:-1], arguments[-1]
    done = subprocess.run([program, *options, *sorted(ROOT.glob(pattern))], capture_output=True, text=True)
    # Which other manuals are installed is the machine's matter.
    assert [line for line in done.stdout.splitlines() if "referenced manual not found" not in line] == [], done.stdout
    assert done.returncode == 0 or program == "mandoc", done.stderr
