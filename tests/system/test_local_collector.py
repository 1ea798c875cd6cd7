"""The local collector of a hardware tracker: what devices send there leaves, reduced to what the
registry knows, in the tracker's own messages: each record once to each collector."""

import collections
import random
import re
import socket
import struct
import threading
import time

import pytest

import traffic
from lab import descriptors, inside, parse_json_lines, resident_kib, run, wait_for
from tarnflow import Agent, collectors, config, exporter, flows as shared, listen, tool
from wire import Capture, Nfcapd, tshark
from wire_maker import message, pcap, send, template

HERE = {4: "10.97.0.1", 6: "fd97::1"}
THERE = {4: "10.97.0.2", 6: "fd97::2"}
DOMAIN = 7


class Place:
    """Near end with the tracker's exporter; at the far end the collector and the device."""

    def __init__(self, lab, vrf="default", family=4):
        self.lab = lab
        self.near = None if vrf == "default" else f"ns-{vrf}"
        self.family = family
        self.length = 24 if family == 4 else 64  # of the prefixes
        self.far = lab.namespace("tt-far")
        if self.near:
            lab.namespace(self.near)
        lab.veth("up0", "dn0", self.far, ns=self.near)
        self.address("add")
        lab.address("dn0", f"{THERE[family]}/{self.length}", ns=self.far)
        self.capture = Capture(lab, "dn0", ns=self.far)
        self.text = config({"edge": {"id": DOMAIN, "type": "hardware", "exporter": {
            "main": exporter("up0", collectors(c=THERE[family]), vrf=vrf,
                             template_interval="60s")}}},
            vrfs={} if vrf == "default" else {vrf: 10})

    def address(self, verb):
        self.lab.address("up0", f"{HERE[self.family]}/{self.length}", ns=self.near, verb=verb)

    def softflowd(self, file, to):
        """Runs to the end of the capture file; returns how many flows it says it exported."""
        program = self.lab.start("softflowd", "softflowd", "-d", "-6", "-r", file, "-n", to, "-v", "10",
                                 "-A", "milli", "-c", "none", "-p", self.lab.path("softflowd.pid"),
                                 ns=self.far)
        assert program.wait_exit(20) == 0, program.log()
        return int(re.search(r"\((\d+) records\)", program.log())[1])


def flows(count, start):
    """(time, frame) of `count` UDP flows of both families, and {five-tuple: (packets, octets)}."""
    frames, sums = [], {}
    for n in range(start + 1, start + count + 1):
        body = traffic.udp(1024 + n, 53, bytes(10 + n % 90))
        if n % 2:
            src, dst = f"192.0.2.{n % 250 + 1}", "198.51.100.7"
            packet = traffic.ipv4(src, dst, traffic.UDP, body, ident=n & 0xffff)
        else:
            src, dst = f"2001:db8::{n:x}", "2001:db8:1::7"
            packet = traffic.ipv6(src, dst, traffic.UDP, body)
        frame = traffic.ethernet(0x0800 if n % 2 else 0x86DD, packet)[:14 + len(packet)]
        packets = n % 3 + 1
        frames += [(1700000000 + n * 0.001 + k, frame) for k in range(packets)]
        sums[src, dst, 1024 + n, 53] = (packets, packets * len(packet))
    return sorted(frames, key=lambda f: f[0]), sums


def five_tuples(decoded, to):
    """How often each flow, with its packets and octets, reached the collector."""
    def one(r):
        v6 = "v6" if "cflow.srcaddrv6" in r else ""
        return ((r["cflow.srcaddr" + v6], r["cflow.dstaddr" + v6], int(r["cflow.srcport"]),
                 int(r["cflow.dstport"])), (int(r["cflow.packets"]), int(r["cflow.octets"])))
    return collections.Counter(one(record) for d in decoded if d.dst == to
                               for _, record in d.records if "cflow.octets" in record)


@pytest.mark.parametrize("vrf, family", [("default", 4), ("red", 6)])
def test_softflowd(lab, vrf, family):
    place = Place(lab, vrf, family)
    store = Nfcapd(lab, THERE[family], ns=place.far)
    agent = Agent(lab, place.text)
    here = f"{HERE[family]}:4739" if family == 4 else f"[{HERE[family]}]:4739"
    listening = rf"tracker edge: devices send to {re.escape(here)} .*VRF {vrf}"
    agent.program.wait_log(listening)
    open_then = descriptors(agent.pid)
    expected = {}

    def export(count):
        frames, sums = flows(count, len(expected))
        file = lab.path("flows.pcap")
        file.write_bytes(pcap(frames))
        assert place.softflowd(file, here) == count
        expected.update(sums)
        wait_for("every record is on the wire", lambda: sum(
            m.length - 20 for m in place.capture.messages() if 256 <= m.sets[0][0] < 65280) >=
            sum(48 if ":" not in key[0] else 72 for key in expected), 10)

    export(2000)
    # The address goes and comes back: the local collector does, too, and so do its records.
    place.address("del")
    agent.program.wait_log("nobody listens any more at")
    place.address("add")
    wait_for("it listens again", lambda: len(re.findall(listening, agent.program.log())) == 2)
    export(300)
    assert descriptors(agent.pid) == open_then
    assert agent.stop() == 0
    assert "not passed on" not in agent.program.log()
    place.capture.stop()

    decoded = tshark(place.capture.file)
    assert {d.domain for d in decoded} == {DOMAIN}
    assert five_tuples(decoded, THERE[family]) == collections.Counter(expected.items())
    # The fields of softflowd that the registry knows, with the lengths that softflowd uses.
    templates = {t.fields for d in decoded for t in d.templates if t.scope_count == 0}
    known = {e for fields in templates for e, _, _ in fields}
    assert known >= {1, 2, 4, 7, 8, 11, 12, 27, 28, 152, 153}
    assert not known & {32, 60, 61, 139}, known
    assert {fields_len for fields in templates for e, fields_len, _ in fields if e in (1, 2)} == {4}

    found = collections.Counter()
    for r in store.stop():
        v = "6" if "src6_addr" in r else "4"
        found[(r[f"src{v}_addr"], r[f"dst{v}_addr"], r["src_port"], r["dst_port"]),
              (r["in_packets"], r["in_bytes"])] += 1
    assert found == collections.Counter(expected.items())


def test_what_does_not_leave_is_counted(lab):
    """The only collector is of a family that the exporter has no address of; then a flood of the
    smallest records, during which the agent answers as before."""
    place = Place(lab)
    nowhere = {"main": exporter("up0", collectors(c=THERE[6]))}
    agent = Agent(lab, config({
        "edge": {"id": DOMAIN, "type": "hardware", "exporter": nowhere},
        "packets": {"id": DOMAIN + 1, "interfaces": ["up0"], "exporter": nowhere}}))
    agent.program.wait_log("devices send to")
    agent.program.wait_log("tracking flows on up0")
    with inside(place.far):
        device = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    to = (HERE[4], 4739)
    device.sendto(message([(2, template(300, [(82, 65535)])), (2, template(301, [(60, 1)]))]), to)
    for _ in range(10):
        device.sendto(message([(300, bytes(1000)), (301, bytes(20))]), to)
        time.sleep(0.01)

    def counted():
        found = shared().get("edge", {})
        return [found.get(k) for k in ("deviceRecords", "recordsLost", "deviceRecordsRefused",
                                       "records")]
    wait_for("all is counted", lambda: counted() == [10200, 10000, 200, 0])

    over = threading.Event()
    small = message([(300, bytes(60000))])

    def flood():
        while not over.is_set():
            device.sendto(small, to)
    sender = threading.Thread(target=flood)
    sender.start()
    slowest = 0
    try:
        for _ in range(10):
            began = time.monotonic()
            tool("show", "collectors", check=False)
            slowest = max(slowest, time.monotonic() - began)
    finally:
        over.set()
        sender.join()
    print("slowest answer", slowest)
    assert slowest < 1.5
    assert agent.stop() == 0
    assert re.search(r"tracker edge: at its end, .*\b\d+ records of exporters without a ready",
                     agent.program.log())
    # The devices' datagrams were packets of a flow, which was under way at the end.
    assert re.search(r"tracker packets: at its end, lost in all: .*\b[1-9]\d* ",
                     agent.program.log())
    device.close()


def hostile(rng):
    """Datagrams that a device would not send: right ones with octets changed, and ever new streams,
    templates and layouts."""
    good = message([(2, template(300, [(8, 4), (82, 65535), (1, 8)])),
                    (300, bytes(4) + b"\3abc" + bytes(8)),
                    (3, template(400, [(149, 4), (41, 8)], 1)), (400, bytes(12))])
    for _ in range(20000):
        bad = bytearray(good)
        for _ in range(rng.randrange(1, 6)):
            bad[rng.randrange(4 if rng.random() < 0.9 else 0, len(bad))] = rng.randrange(256)
        yield bytes(bad)
    for domain in range(3000):
        yield message([(2, b"".join(template(256 + i, [(82, 1 + (domain + i) % 1400)])
                                    for i in range(500)))], domain=domain)
    for n in range(3000):
        yield message([(2, template(300, [(82, 1 + n % 1400), (236, 1 + n // 1400)]))])


def test_hostile_messages(lab):
    seed = random.randrange(1 << 32)
    print("seed", seed)
    place = Place(lab)
    # Devices on a cable of their own: what they send is not for the capture.
    devices = lab.namespace("tt-devices")
    lab.veth("up1", "dv0", devices)
    lab.address("up1", "10.96.0.1/24")
    lab.address("dv0", "10.96.0.2/24", "10.96.0.3/24", ns=devices)
    run("ip", "route", "add", "default", "via", "10.96.0.1", ns=devices)
    collector = listen(lab, "--quiet-data", ns=place.far)
    agent = Agent(lab, place.text)
    agent.program.wait_log("devices send to")
    # A device that was there before has its place.
    before = message([(2, template(300, [(8, 4), (12, 4), (2, 8), (1, 8)]))], domain=99)
    with inside(devices):
        device = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        device.bind(("10.96.0.3", 0))
    device.sendto(before, (HERE[4], 4739))
    wait_for("its template is told", lambda: any(
        m.sets[0] == (2, 4 + 4 + 4 * 4) for m in place.capture.messages()))
    start = resident_kib(agent.pid)
    worst = list(hostile(random.Random(seed)))
    for at in range(0, len(worst), 200):
        with inside(devices):
            for _ in range(2):
                send(worst[at:at + 200], HERE[4])
        time.sleep(0.003)
        assert agent.program.running(), agent.program.log()
    grown = resident_kib(agent.pid) - start
    print("grown by", grown, "KiB")
    assert grown < 64 << 10, f"{grown} KiB more"
    agent.program.wait_log("not passed on: .*datagrams that are not IPFIX", 15)
    lines = len(agent.program.log().splitlines())
    assert lines < 60, agent.program.log()

    mark = len(place.capture.messages())
    record = bytes([192, 0, 2, 1, 192, 0, 2, 2]) + struct.pack(">QQ", 5, 4321)
    device.sendto(message([(300, record)], domain=99), (HERE[4], 4739))
    wait_for("its record goes on", lambda: any(
        record in m.octets for m in place.capture.messages()[mark:]))
    device.close()
    assert agent.stop() == 0
    # What the collector was sent is right, whatever it is made of. (tshark takes templates of
    # variable-length fields only for none at all.)
    assert collector.stop() == 0, collector.out()[-3000:]
    summary = parse_json_lines(collector.out())[-1]
    assert not summary["notIpfix"] and not any(s["unknownSets"] for s in summary["streams"])
    assert sum(stream["records"] for stream in summary["streams"]) > 1000
