"""What records tell: chosen fields, sampling, both directions; as independent collectors read it."""

import collections
import datetime
import functools
import json
import random
import re
import signal

import traffic
from lab import parse_json_lines, run, wait_for
from flow_path import FAR, of_flows, reading, settings, tracking
from tarnflow import flows, tool
from traffic import play
from wire import Capture, Nfacctd, Nfcapd, no_faults, tshark
from wire_maker import pcap

def test_records_of_ones_own(house):
    """Each built-in record at two decoders; and a record that is changed while flows are under way:
    these leave in the old record, later ones in the new, each behind its template."""
    lab = house
    capture = lab.path("records.pcap")
    capture.write_bytes(pcap([frame for frame, *_ in traffic.mixture(200)]))
    expected = traffic.truth(200)
    sent = sum(s.packets for s in expected.values())
    for record in ("minimal", "layer2", "full"):
        wire = Capture(lab, "dn0", ns="tt-far", ports=(9995,))
        store = Nfcapd(lab, "10.99.0.2", port=9995, ns="tt-far")
        text = settings({"one": FAR["nf4"]}, record=record)
        assert reading(lab, record, capture, text)[0].wait_exit(30) == 0
        stored = store.stop()
        wire.wait_until("the records", of_flows)
        wire.stop()
        records = [r for m in tshark(wire.file, ports=(9995,)) for i, r in m.records if i < 65280]
        assert sum(int(r["cflow.packets"]) for r in records) == sent, record
        assert sum(r["in_packets"] for r in stored) == sent, record
        octets = sum(s.octets for s in expected.values())
        assert sum(int(r["cflow.octets"]) for r in records if "cflow.octets" in r) == octets
        if record == "full":
            assert {r["cflow.ttl_min"] for r in records} == {"64"}
            assert len(records) >= len(expected)

    wire = Capture(lab, "dn0", ns="tt-far", ports=(9996,))
    agent = tracking(lab, settings(**{"inactive-timeout": "60s"}))
    long = {"inactive-timeout": "60s"}
    for n, record in enumerate(("full", "layer2", None), 1):
        play("burst", 10 * n)
        wait_for("the packets", lambda: flows()["edge"]["packets"] == 5 * n * (n + 1))
        if record:
            agent.reload(settings(record=record, **long))
            wait_for("it tracks anew", lambda: len(re.findall(
                "tracking flows on in0", agent.program.log())) == n + 1)
            wait_for("it is reported", lambda: flows()["edge"]["flowsActive"] == 0)
    templates = tool("show", "templates")[1]
    assert re.findall(r"data template (\d+)", templates) == ["264", "266"], templates
    assert agent.stop() == 0
    wire.stop()
    messages = tshark(wire.file, ports=(9996,))
    found = [(i, int(r["cflow.packets"])) for m in messages for i, r in m.records if i < 65280]
    assert found == [(256, 10), (260, 20), (264, 30)]
    # Each record while its template is among those told last, so that a new collector knows it.
    told = []
    for m in messages:
        told = [t.id for t in m.templates if t.id < 65280] or told
        assert all(i in told for i, _ in m.records if i < 65280), (told, m)
    assert told == [264, 266]


# Fields of records, as tshark and nfdump name them.
NAMES = {
    "octetDeltaCount": ("cflow.octets", "in_bytes"), "packetDeltaCount": ("cflow.packets", "in_packets"),
    "protocolIdentifier": ("cflow.protocol", "proto"), "ipClassOfService": ("cflow.tos", "src_tos"),
    "tcpControlBits": ("cflow.tcpflags", None), "sourceTransportPort": ("cflow.srcport", "src_port"),
    "sourceIPv4Address": ("cflow.srcaddr", "src4_addr"), "ingressInterface": ("cflow.inputint", "input_snmp"),
    "destinationTransportPort": ("cflow.dstport", None), "egressInterface": ("cflow.outputint", "output_snmp"),
    "destinationIPv4Address": ("cflow.dstaddr", "dst4_addr"), "minimumIpTotalLength": ("cflow.length_min", None),
    "maximumIpTotalLength": ("cflow.length_max", None), "sourceIPv6Address": ("cflow.srcaddrv6", "src6_addr"),
    "destinationIPv6Address": ("cflow.dstaddrv6", "dst6_addr"), "minimumTTL": ("cflow.ttl_min", None),
    "maximumTTL": ("cflow.ttl_max", None), "sourceMacAddress": ("cflow.srcmac", "in_src_mac"),
    "vlanId": ("cflow.vlanid", "src_vlan"), "flowDirection": ("cflow.direction", "direction"),
    "destinationMacAddress": ("cflow.dstmac", "in_dst_mac"), "flowEndReason": ("cflow.flow_end_reason", None),
    "octetTotalCount": ("cflow.permanent_octets", None), "ethernetType": ("cflow.ethernet_type", None),
    "layer2OctetDeltaCount": ("cflow.layer2_octet_delta_count", None)}
KEYS = {"sourceIPv4Address": "src", "sourceIPv6Address": "src", "destinationIPv4Address": "dst",
        "destinationIPv6Address": "dst", "protocolIdentifier": "protocol", "sourceTransportPort": "src_port",
        "destinationTransportPort": "dst_port", "vlanId": "vlan"}


def test_random_records_at_three_decoders(house):
    """Twenty records of random fields: each field of each record is the same for our decoder, tshark
    and nfdump, and by their keys they sum up to what was captured."""
    capture = house.path("records.pcap")
    capture.write_bytes(pcap([frame for frame, *_ in traffic.mixture(40)]))
    seed = random.randrange(1 << 32)
    print("seed", seed)
    rng = random.Random(seed)
    wire = Capture(house, "dn0", ns="tt-far", ports=(9995,))
    store = Nfcapd(house, "10.99.0.2", port=9995, ns="tt-far")
    keys, sent = {}, 0
    for domain in range(1, 21):
        keys[domain] = rng.sample(sorted(KEYS), rng.randrange(1, 8))
        fields = {*keys[domain], *rng.sample(sorted(NAMES), rng.randrange(15)), "octetDeltaCount",
                  "packetDeltaCount"}
        text = settings({"one": FAR["nf4"]}, record="r", id=domain) + (
            f"[record.r]\nfields = {rng.sample(sorted(fields), len(fields))}\nkeys = {keys[domain]}\n")
        reader = reading(house, f"r{domain}", capture, text)[0]
        assert reader.wait_exit(30) == 0, reader.log()
        sent += int(re.search(r"sent in (\d+) messages", reader.log())[1])
    wire.wait_until("the last message", lambda seen: len(of_flows(seen)) == sent)
    wire.stop()
    stored = store.stop()
    theirs = [r for m in tshark(wire.file, ports=(9995,)) for i, r in m.records if i < 65280]
    ours = [(m["domain"], r) for m in parse_json_lines(tool("decode", "--json", wire.file)[1])
            if m["type"] == "message" for s in m["sets"] if s["id"] < 65280 for r in s.get("records", ())]
    assert len(ours) == len(theirs) == len(stored)

    def plain(value):
        text = str(value)
        return int(text, 0) if re.fullmatch(r"\d+|0x[0-9a-f]+", text) else text
    for (domain, record), there, kept in zip(ours, theirs, stored):
        for name, value in record.items():
            for decoder, field in zip((there, kept), NAMES[name]):
                assert not field or plain(decoder.get(field, 0)) == plain(value), (domain, name, record, decoder)
    expected, found = collections.Counter(), collections.Counter()
    for domain, chosen in keys.items():
        for key, total in traffic.truth(40).items():
            told = frozenset((name, str(getattr(key, KEYS[name]))) for name in chosen
                             if ("IPv" not in name or ("v6" in name) == (":" in key.src)))
            expected[domain, told] += 1j * total.packets + total.octets
    for domain, record in ours:
        told = frozenset((name, str(record[name])) for name in keys[domain] if name in record)
        found[domain, told] += 1j * record["packetDeltaCount"] + record["octetDeltaCount"]
    assert found == expected


def test_sampling_at_collectors(house):
    """Collectors that were told of the rate show all of the traffic: ten times what was counted."""
    lab, capture, rate = house, house.path("sampled.pcap"), 10
    capture.write_bytes(pcap([frame for frame, *_ in traffic.mixture(500)]))
    keys = ["sourceIPv4Address", "destinationIPv4Address", "sourceIPv6Address",
            "destinationIPv6Address", "sourceTransportPort", "destinationTransportPort",
            "protocolIdentifier"]
    fields = [*keys, "packetDeltaCount", "octetDeltaCount", "flowStartMilliseconds",
              "flowEndMilliseconds", "tcpControlBits/1", "samplingInterval"]
    own = f"[record.own]\nfields = {json.dumps(fields)}\nkeys = {json.dumps(keys)}\n"
    for name, port, tracker, more in (("option", 9996, {"sampling-option": True}, ""),
                                      ("field", 9997, {"record": "own"}, own)):
        to = {"a": FAR["nf4"], "b": ("10.99.0.3", port)}  # the first nfacctd may still hold its port
        scaled = Nfacctd(lab, *to["b"], ns="tt-far")
        store = Nfcapd(lab, "10.99.0.2", port=9995, ns="tt-far")
        wire = Capture(lab, "dn0", ns="tt-far", ports=(9995,))
        text = settings(to, **{"sample-rate": rate}, **tracker) + more
        reader = reading(lab, name, capture, text)[0]
        assert reader.wait_exit(30) == 0, reader.log()
        counted = int(re.search(r"(\d+) in flows", reader.err())[1])
        wait_for(f"nfacctd shows all, by {name}", lambda: sum(
            flow["packets"] for flow in scaled.flows()) == rate * counted, 30)
        seen = [flow for flow in scaled.flows() if flow["ip_proto"] == "tcp"]
        assert any(int(flow["tcp_flags"]) for flow in seen) == (name == "field")
        scaled.program.stop(signal.SIGKILL)
        factor = rate if name == "option" else 1
        assert sum(r["in_packets"] for r in store.stop()) == factor * counted
        wire.stop()
        no_faults(wire.file, (9995,))


TALKED = ("ip.src", "ipv6.src", "ip.dst", "ipv6.dst", "ip.proto", "ipv6.nxt", "tcp.srcport", "udp.srcport",
          "tcp.dstport", "udp.dstport", "icmp.type", "icmpv6.type", "ip.len", "ipv6.plen", "tcp.flags",
          "frame.time_epoch")
SERVE = """
import socket, threading
def answer(u):
    while True:
        data, to = u.recvfrom(9999)
        u.sendto(2 * data, to)
u = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
u.bind(("::", 7000))
threading.Thread(target=answer, args=(u,), daemon=True).start()
s = socket.create_server(("::", 7000), family=socket.AF_INET6, dualstack_ipv6=True)
while True:
    c = s.accept()[0]
    while c.recv(9999): pass
    c.sendall(bytes(20000)), c.close()
"""
TALK = """
import socket, sys
for name in sys.argv[1:]:
    v6 = ":" in name
    with socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_RAW, 58 if v6 else 1) as i:
        i.sendto(bytes([128, 0, 0, 0] if v6 else [8, 0, 0xf7, 0xfe]) + bytes([0, 1, 0, 0]), (name, 0)), i.recv(9999)
    with socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM) as u:
        for n in range(3): u.sendto(bytes(100 + n), (name, 7000)), u.recv(9999)
    with socket.create_connection((name, 7000)) as c:
        c.sendall(bytes(3000)), c.shutdown(socket.SHUT_WR)
        while c.recv(9999): pass
"""


def conversations(file, known=()):
    """Maps each conversation to both directions' (packets, octets, TCP flags, first and last time in
    milliseconds). `known` says who began; otherwise who sent first."""
    found = {key: ([], []) for key in known}
    fields = [a for f in TALKED for a in ("-e", f)]
    for line in run("tshark", "-r", file, "-T", "fields", *fields).splitlines():
        (s4, s6, d4, d6, p4, p6, st, su, dt, du, i4, i6, len4, len6, flags, time) = line.split("\t")
        ports = int(st or su or 0), int(dt or du or 0)
        echo = {"8": 0x800, "0": 0x800, "128": 0x8000, "129": 0x8000}.get(i4 or i6)
        key, back = ((*ends, int(p4 or p6), *((0, echo) if echo else ports[::way]))
                     for way, ends in ((1, (s4 or s6, d4 or d6)), (-1, (d4 or d6, s4 or s6))))
        forward = (i4 or i6) in ("8", "128") if echo else back not in found
        both = found.setdefault(key if forward else back, ([], []))
        both[not forward].append((int(len4 or int(len6) + 40), int(flags or "0", 16),
                                  int(time.replace(".", "")[:13])))
    for key, both in found.items():
        times = [[t for _, _, t in way or both[1]] for way in both]  # where the source was silent
        found[key] = [(len(way), sum(o for o, _, _ in way), functools.reduce(int.__or__, (f for _, f, _ in way), 0),
                       times[n][0], times[n][-1]) for n, way in enumerate(both)]
    return found


def test_two_way_flows(lab, far):
    """TCP, UDP and ICMP between two hosts: as two decoders read what is exported, each conversation is
    one record, its source who began it; also where the first packets were not seen. A look has both
    directions."""
    lab.veth("in0", "src0", lab.namespace("tt-src"))
    for n, (device, ns) in enumerate((("in0", None), ("src0", "tt-src")), 1):
        lab.address(device, f"10.98.0.{n}/24", f"fd98::{n}/64", ns=ns)
    for ns in (None, "tt-src"):
        lab.start(f"serve-{ns}", "/usr/bin/python3", "-c", SERVE, ns=ns)
        wait_for("it serves", lambda ns=ns: "7000" in run("ss", "-Hlnt", ns=ns))
    seen, later = lab.path("seen.pcap"), lab.path("later.pcap")
    tcpdump = lab.start("tcpdump", "tcpdump", "-Z", "root", "-i", "in0", "-U", "--immediate-mode", "-B",
                        "32768", "-w", seen, "port 7000 or icmp or (icmp6 and ip6[40] & 0xfe == 0x80)")
    tcpdump.wait_log("listening on")
    agent = tracking(lab, settings({"one": FAR["nf4"]}, biflow=True, **{
        "active-interval": "300s", "inactive-timeout": "200s"}))
    for n, ns in ((1, "tt-src"), (2, None)):
        run("/usr/bin/python3", "-c", TALK, f"10.98.0.{n}", f"fd98::{n}", ns=ns)
    tcpdump.stop()
    run("tshark", "-r", seen, "-w", later, "-Y", "not (tcp.flags & 0x12 == 2) and "
        "not icmp.type == 8 and not icmpv6.type == 128")
    whole = conversations(seen)
    assert len(whole) == 12 and all(both[1][0] for both in whole.values())
    looked = {}
    for r in json.loads(tool("show", "flows", "--list", "--json")[1])["rows"]:
        key = (r.get("sourceIPv4Address") or r["sourceIPv6Address"],
               r.get("destinationIPv4Address") or r["destinationIPv6Address"], *(r[f] for f in (
                   "protocolIdentifier", "sourceTransportPort", "destinationTransportPort")))
        looked[key] = [r[f] for f in ("packets", "octets", "reversePackets", "reverseOctets")]
    lasting = {key: both for key, both in whole.items() if key[2] != traffic.TCP}
    assert {key: looked.get(key) for key in lasting} == {
        key: [one[0] + other[0], one[1] + other[1], *other[:2]] for key, (one, other) in lasting.items()}
    assert agent.stop() == 0
    for file in (seen, later):
        expected = conversations(file, whole)
        wire = Capture(lab, "dn0", ns="tt-far", ports=(9995,))
        store = Nfcapd(lab, "10.99.0.2", port=9995, ns="tt-far")
        reader = reading(lab, "read", file, settings({"one": FAR["nf4"]}, biflow=True))[0]
        assert reader.wait_exit(30) == 0, reader.log()
        wire.wait_until("the records", lambda all: {m.sets[0] for m in of_flows(all)} == {256, 257})
        stored = store.stop()
        wire.stop()
        found = {}
        for r in (r for m in tshark(wire.file, ports=(9995,)) for i, r in m.records if i < 65280):
            key = (r.get("cflow.srcaddr") or r["cflow.srcaddrv6"],
                   r.get("cflow.dstaddr") or r["cflow.dstaddrv6"],
                   *(int(r[f"cflow.{f}"]) for f in ("protocol", "srcport", "dstport")))
            assert key not in found and r["cflow.biflow_direction"] == "1"
            times = [[int(datetime.datetime.strptime(t[f"cflow.abstime{end}"][:-7] + "+0000", "%b %d, %Y "
                      "%H:%M:%S.%f%z").timestamp() * 1000 + .5) for end in ("start", "end")]
                     for t in r["cflow.timedelta_tree"]]
            found[key] = [(*(int(r[f"cflow.{f}"][n], 0) for f in ("packets", "octets", "tcpflags")), *times[n])
                          for n in (0, 1)]
        assert found == expected
        assert sorted([r[k] for k in ("in_packets", "in_bytes", "out_packets", "out_bytes")] for r in stored) \
            == sorted([*one[:2], *other[:2]] for one, other in expected.values())
    assert "reverseOctetDeltaCount" in tool("decode", wire.file, "--port", 9995)[1]
