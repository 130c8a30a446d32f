"""Addresses, ports and file names inside a cell, where nobody else is."""

NEAR = "127.0.0.1"
PROXY_PORT, SERVER_PORT, DNS_PORT, STUB_PORT, RELAY_PORT = 1080, 7000, 5353, 5301, 1090
NEAR_SERVER = f"{NEAR}:{SERVER_PORT}"

TUN_DEVICE = "tun3"
HERE, FAR = "192.168.77.1", "192.168.77.2"  # a pair of virtual cards: the server behind a TUN device
FAR_SERVER = f"{FAR}:{SERVER_PORT}"

CLIENT_UID = 64999  # the client's user where its traffic is redirected or routed by user

CONF, CACHE, COUNTER = "contender.conf", "cache", "counter"
VROX, LOAD = "vrox", "./load"
MAX_CONNS = 6000
