"""Which packets are counted for each direction: two hosts and a router with the agent, between them
wires that cut segmented sends, as a network card does; what a collector is told is compared with
what captures saw."""

import collections
import json
import socket

import pytest

from lab import run, wait_for
from tarnflow import Agent, edge, flows
from wire import Nfcapd

CPU, MULTICAST, UNKNOWN = 0x3fffffff, 0x80000000, 0
PORT = 9995
TRACKED = ("mv0", "br0", "co0")
OWN = {f"10.9{n}.0.1" for n in (7, 8, 9)} | {f"fd9{n}::1" for n in (7, 8, 9)}
HOSTS = {"tt-client": 98, "tt-server": 99}
GROUPS = ("239.1.2.3", "ff15::1")
FIELDS = ("ip.src", "ipv6.src", "ip.dst", "ipv6.dst", "ip.proto", "ipv6.nxt", "ipv6.fraghdr.nxt",
          "ip.len", "ipv6.plen")
# Takes connections, reads each to its end and answers with much; sends what fits one packet and what
# does not, and over TCP little or much.
SERVE = """
import socket
s = socket.create_server(("::", 7000), family=socket.AF_INET6, dualstack_ipv6=True)
while True:
    c = s.accept()[0]
    while c.recv(1 << 20): pass
    c.sendall(bytes(300000)), c.close()
"""
TALK = """
import socket, sys
for name, much in zip(sys.argv[2::2], sys.argv[3::2]):
    v6 = ":" in name
    with socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM) as s:
        if v6: s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, socket.if_nametoindex(sys.argv[1]))
        for n in range(9): s.sendto(bytes(100 + n * (1 if much == "0" else 500)), (name, 7))
    if much != "0":
        with socket.create_connection((name, 7000)) as c:
            c.sendall(bytes(int(much))), c.shutdown(socket.SHUT_WR)
            while c.recv(1 << 20): pass
"""


@pytest.fixture
def router(lab):
    """mv0, on top of cl0, leads to tt-client, the bridge br0 to tt-server, co0 to the collector."""
    wire = lab.namespace("tt-wire")
    for (host, n), near, far in zip(HOSTS.items(), ("cl0", "sv0"), ("cl1", "sv1")):
        lab.namespace(host)
        lab.veth(near, f"{near}w", wire)
        lab.veth(f"{far}w", far, host, ns=wire)
        run("ip", "link", "add", f"w{n}", "up", "type", "bridge", ns=wire)
        for end in (f"{near}w", f"{far}w"):
            run("ip", "link", "set", end, "master", f"w{n}", ns=wire)
        run("ethtool", "-K", f"{far}w", "tso", "off", "gso", "off", ns=wire)
    run("ethtool", "-K", "sv1", "tso", "off", "gso", "off", ns="tt-server")
    for n, ns in enumerate((None, "tt-client")):
        # Or the device below answers for the address as well, and packets go there.
        run("sysctl", "-qw", "net.ipv4.conf.all.arp_ignore=1", ns=ns)
        run("ip", "link", "add", "link", f"cl{n}", "name", f"mv{n}", "up", "type", "macvlan", ns=ns)
    run("ip", "link", "add", "br0", "up", "type", "bridge")
    lab.links.append("br0")
    run("ip", "link", "set", "sv0", "master", "br0")
    lab.veth("co0", "co1", lab.namespace("tt-src"))
    for device, n, at, ns in (("co0", 97, 1, None), ("mv0", 98, 1, None), ("br0", 99, 1, None),
                              ("co1", 97, 2, "tt-src"), ("mv1", 98, 2, "tt-client"),
                              ("sv1", 99, 2, "tt-server")):
        lab.address(device, f"10.{n}.0.{at}/24", f"fd{n}::{at}/64", ns=ns)
        for via in (f"10.{n}.0.1", f"fd{n}::1") if ns else ():
            run("ip", "route", "add", "default", "via", via, ns=ns)
    for ns in (None, *HOSTS):
        lab.start(f"serve-{ns}", "/usr/bin/python3", "-c", SERVE, ns=ns)
    run("ip", "route", "add", "239.0.0.0/8", "dev", "br0")
    for key in ("ipv4.ip_forward", "ipv6.conf.all.forwarding"):
        run("sysctl", "-qw", f"net.{key}=1")
    return lab


def seen_on(file):
    """By source, destination and protocol: packets and octets of a capture, without ours to the
    collector and without what neighbours say to each other."""
    sums = collections.Counter()
    keep = f"(ip or ipv6) and not udp.port == {PORT} and not igmp and not icmpv6.type >= 130"
    for line in run("tshark", "-r", file, "-o", "ip.defragment:FALSE", "-o", "ipv6.defragment:FALSE",
                    "-Y", keep, "-T", "fields", "-E", "occurrence=f",
                    *(a for f in FIELDS for a in ("-e", f))).splitlines():
        src4, src6, dst4, dst6, protocol, protocol6, behind, len4, len6 = line.split("\t")
        key = src4 or src6, dst4 or dst6, int(protocol or behind or protocol6)
        sums[*key, "packets"] += 1
        sums[*key, "bytes"] += int(len4) if len4 else int(len6) + 40
    return sums


@pytest.mark.parametrize("direction,egress", [("ingress", "none"), ("egress", "none"), ("both", "none"),
                                              ("once", "none"), ("once", "route")])
def test_each_direction_is_what_the_wire_saw(router, direction, egress):
    lab = router
    store = Nfcapd(lab, "10.97.0.2", port=PORT, ns="tt-src")
    agent = Agent(lab, edge({"one": ("10.97.0.2", PORT)}, interface="co0", tracker={
        "interfaces": list(TRACKED), "direction": direction, "egress": egress,
        "inactive-timeout": "1s"}))
    agent.program.wait_log("tracking flows on .*co0")
    captures = {}
    for device, way, ns in [(d, w, None) for d in TRACKED for w in ("in", "out")] + [
            ("mv1", "in", "tt-client"), ("sv1", "in", "tt-server")]:
        file = lab.path(f"{device}-{way}.pcap")
        captures[device, way] = file, lab.start(
            f"tcpdump-{device}-{way}", "tcpdump", "-Z", "root", "-i", device, "-U", "-B", "16384",
            f"--direction={way}", "-w", file, ns=ns)
    for _, program in captures.values():
        program.wait_log("listening on")
    # The client's much goes where it is cut, and nowhere else.
    for ns, device, talk in (
            ("tt-client", "mv1", {1: 900, 2: 300000}), (None, "br0", {2: 300000})):
        to = {f: much for at, much in talk.items() for f in (f"10.99.0.{at}", f"fd99::{at}")}
        to |= {g: 0 for g in GROUPS} | ({} if ns else {"10.98.0.2": 0, "fd98::2": 0})
        run("/usr/bin/python3", "-c", TALK, device, *(a for one in to.items() for a in one), ns=ns)
    wait_for("flows are over", lambda: flows()["edge"]["endedIdle"] > 0
             and flows()["edge"]["flowsActive"] <= 2, 10)
    assert agent.stop() == 0
    for _, program in captures.values():
        program.stop()

    seen = {at: seen_on(file) for at, (file, _) in captures.items()}
    cut = seen.pop(("mv1", "in")) | seen.pop(("sv1", "in"))
    expected = collections.Counter()
    for (device, way), sums in seen.items():
        for (src, dst, *rest), n in sums.items():
            if {"ingress": way == "in", "egress": way == "out", "both": True,
                    "once": way == "in" or src in OWN}[direction]:
                here = socket.if_nametoindex(device)
                other = MULTICAST if dst in GROUPS else CPU if dst in OWN else UNKNOWN
                if (other, way, egress) == (UNKNOWN, "in", "route"):
                    gone = json.loads(run("ip", "-j", "route", "get", dst, "from", src, "iif", device))
                    other = socket.if_nametoindex(gone[0]["dev"])
                ends = (here, other) if way == "in" else (CPU if src in OWN else UNKNOWN, here)
                whole = cut.get((src, dst, *rest), n) if rest[0] == 6 else n
                expected[src, dst, *rest, *ends, int(way == "out")] += whole
    assert sum(sums[k] < n / 2 for k, n in cut.items() for sums in seen.values() if k in sums) > 4

    found = collections.Counter()
    for r in store.stop():
        src, dst = (r.get(f"{e}4_addr") or r[f"{e}6_addr"] for e in ("src", "dst"))
        for what in ("packets", "bytes") if r["proto"] != 2 and r.get(
                "icmp_type", 0) < 130 else ():
            found[src, dst, r["proto"], what, *(r[k] for k in (
                "input_snmp", "output_snmp", "direction"))] += r[f"in_{what}"]
    assert len(expected) > 20 and found == expected, (found - expected, expected - found)
