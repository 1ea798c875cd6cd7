"""The local collector of a hardware tracker: what devices send there leaves, reduced to what the
registry knows, in the tracker's own messages: each record once to each collector."""

import collections
import random
import re
import socket
import struct
import time

import pytest

from lab import descriptors, inside, parse_json_lines, resident_kib, run, wait_for
from tarnflow import TOOL, Agent, collectors, config, exporter
from wire import Capture, tshark
from wire_maker import message, template

HERE = {4: "10.97.0.1", 6: "fd97::1"}
THERE = {4: "10.97.0.2", 6: "fd97::2"}
DOMAIN = 7


class Place:
    """Near end with the tracker's exporter; at the far end the collectors and the device."""

    def __init__(self, lab, vrf="default", families=(4, 6)):
        self.lab = lab
        self.near = None if vrf == "default" else f"ns-{vrf}"
        self.families = families
        self.far = lab.namespace("tt-far")
        self.plug()
        self.text = config({"edge": {"id": DOMAIN, "type": "hardware", "exporter": {
            "main": exporter("up0", collectors(**{f"c{f}": THERE[f] for f in families}), vrf=vrf,
                             template_interval="60s")}}},
            vrfs={} if vrf == "default" else {vrf: 10})

    def plug(self):
        """Makes the near end, its namespace included, and the cable."""
        if self.near:
            self.lab.namespace(self.near)
        self.lab.veth("up0", "dn0", self.far, ns=self.near)
        for family in self.families:
            self.address("add", family)
            self.lab.address("dn0", *self._prefix(THERE, family), ns=self.far)
        self.capture = Capture(self.lab, "dn0", ns=self.far)

    @staticmethod
    def _prefix(ends, family):
        return [f"{ends[family]}/{24 if family == 4 else 64}"]

    def address(self, verb, family):
        self.lab.address("up0", *self._prefix(HERE, family), ns=self.near, verb=verb)

    def send(self, *messages, family=4, sources=1, ns=None):
        """Datagrams from the far end (or `ns`), each of `sources` sockets sending all of them."""
        kind = socket.AF_INET if family == 4 else socket.AF_INET6
        with inside(ns or self.far):
            for _ in range(sources):
                with socket.socket(kind, socket.SOCK_DGRAM) as s:
                    for octets in messages:
                        s.sendto(octets, (HERE[family], 4739))

    def softflowd(self, pcap, family):
        """Runs to the end of the capture file; returns how many flows it says it exported."""
        to = HERE[family] if family == 4 else f"[{HERE[family]}]"
        program = self.lab.start("softflowd", "softflowd", "-d", "-6", "-r", pcap, "-n",
                                 f"{to}:4739", "-v", "10", "-A", "milli", "-c", "none", "-p",
                                 self.lab.path("softflowd.pid"), ns=self.far)
        assert program.wait_exit(20) == 0, program.log()
        return int(re.search(r"\((\d+) records\)", program.log())[1])


def data_records(decoded, to):
    return [record for d in decoded if d.dst == to for _, record in d.records
            if "cflow.octets" in record or "cflow.octets64" in record]


def flows(count, start):
    """Frames of `count` UDP flows of both families, and {five-tuple: (packets, octets)}."""
    frames, sums = [], {}
    for n in range(start + 1, start + count + 1):
        packets, payload = n % 3 + 1, bytes(10 + n % 90)
        udp = struct.pack(">HHHH", 1024 + n, 53, 8 + len(payload), 0) + payload
        if n % 2:
            src, dst = f"192.0.2.{n % 250 + 1}", "198.51.100.7"
            frame = bytes(12) + b"\x08\x00" + struct.pack(
                ">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), n & 0xffff, 0, 64, 17, 0,
                socket.inet_aton(src), socket.inet_aton(dst)) + udp
        else:
            src, dst = f"2001:db8::{n:x}", "2001:db8:1::7"
            frame = bytes(12) + b"\x86\xdd" + struct.pack(
                ">IHBB", 6 << 28, len(udp), 17, 64) + socket.inet_pton(
                    socket.AF_INET6, src) + socket.inet_pton(socket.AF_INET6, dst) + udp
        frames += [(1700000000 + n * 0.001 + k, frame) for k in range(packets)]
        sums[src, dst, 1024 + n, 53] = (packets, packets * (len(frame) - 14))
    return sorted(frames, key=lambda f: f[0]), sums


def write_pcap(path, frames):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for at, frame in frames:
            file.write(struct.pack("<IIII", int(at), int(at % 1 * 1e6), len(frame),
                                   len(frame)) + frame)
    return path


def five_tuples(decoded, to):
    """How often each flow, with its packets and octets, reached the collector."""
    def one(r):
        v6 = "cflow.srcaddrv6" in r
        return ((r["cflow.srcaddrv6" if v6 else "cflow.srcaddr"],
                 r["cflow.dstaddrv6" if v6 else "cflow.dstaddr"],
                 int(r["cflow.srcport"]), int(r["cflow.dstport"])),
                (int(r.get("cflow.packets", r.get("cflow.packets64"))),
                 int(r.get("cflow.octets", r.get("cflow.octets64")))))
    return collections.Counter(one(r) for r in data_records(decoded, to))


@pytest.mark.parametrize("vrf, family", [("default", 4), ("red", 6)])
def test_softflowd(lab, vrf, family):
    place = Place(lab, vrf, families=(family,))
    stored = lab.path("stored")
    stored.mkdir()
    nfcapd = lab.start("nfcapd", "nfcapd", f"-{family}", "-b", THERE[family], "-p", 4739, "-w",
                       stored, ns=place.far)
    nfcapd.wait_log("Startup nfcapd")
    agent = Agent(lab, place.text)
    port = 4739
    here = HERE[family] if family == 4 else f"[{HERE[family]}]"
    listening = rf"tracker edge: devices send to {re.escape(here)}:{port} .*VRF {vrf}"
    agent.program.wait_log(listening)
    open_then = len(descriptors(agent.pid))
    expected = {}

    def export(count):
        frames, sums = flows(count, len(expected))
        pcap = write_pcap(lab.path("flows.pcap"), frames)
        assert place.softflowd(pcap, family) == count
        expected.update(sums)
        wait_for("every record is on the wire", lambda: sum(
            m.length - 20 for m in place.capture.messages() if 256 <= m.sets[0][0] < 65280) >=
            sum(48 if ":" not in key[0] else 72 for key in expected), 10)

    export(2000)
    # The address goes and comes back: the local collector does, too, and so do its records.
    place.address("del", family)
    agent.program.wait_log("nobody listens any more at")
    place.address("add", family)
    wait_for("it listens again", lambda: len(re.findall(listening, agent.program.log())) == 2)
    export(300)
    assert len(descriptors(agent.pid)) == open_then
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

    assert nfcapd.stop() == 0
    listed = run("nfdump", "-q", "-6", "-R", stored, "-o", "fmt:%sa %da %sp %dp %ipkt %ibyt")
    found = collections.Counter()
    for line in listed.splitlines():
        src, dst, sport, dport, packets, octets = line.split()
        found[(src, dst, int(sport), int(dport)), (int(packets), int(octets))] += 1
    assert found == collections.Counter(expected.items())


def test_what_the_registry_does_not_know(lab):
    place = Place(lab)
    agent = Agent(lab, place.text)
    agent.program.wait_log("devices send to")
    fields = [(60, 1), (8, 4), (12, 4), (7, 2, 29305), (1001, 2, 99991), (1, 5), (82, 65535),
              (371, 65535), (2, 8)]
    record = b"-" + bytes([192, 0, 2, 1, 192, 0, 2, 2]) + b"--" + b"\0\3" + bytes([0, 0, 0, 4, 210])
    record += b"\4eth0" + b"\xff\1\0" + bytes(256) + bytes(7) + b"\x09"
    device = [
        message([(2, template(300, fields)), (300, record + record)]),
        message([(3, template(400, [(149, 4), (41, 8)], 1)), (400, bytes(12))], sequence=2),
        message([(2, template(301, [(60, 1), (7, 2, 1)])), (301, bytes(9))], sequence=3),
        message([(2, template(302, [(8, 4), (27, 16)])), (302, bytes(20))], sequence=6),
        message([(999, bytes(20)), (300, record)], sequence=7)]
    place.send(*device)

    def passed():
        return [m for m in place.capture.messages() if m.sets[0][0] == 256]
    wait_for("three records for each collector", lambda: sum(
        sum(n - 4 for _, n in m.sets) for m in passed()) == 2 * 3 * (4 + 4 + 2 + 5 + 5 + 8))
    agent.program.wait_log("not passed on: .*", 15)
    said = re.search("not passed on: (.*)", agent.program.log())[1]
    assert said == ("1 templates without a known field, 1 templates with addresses of both "
                    "families, 1 sets that came before their template")
    assert agent.stop() == 0
    place.capture.stop()
    decoded = tshark(place.capture.file)
    for family in (4, 6):
        records = data_records(decoded, THERE[family])
        assert len(records) == 3
        for r in records:
            assert r["cflow.srcaddr"] == "192.0.2.1"
            assert int(r.get("cflow.octets64", r.get("cflow.octets"))) == 1234
            assert int(r.get("cflow.packets64", r.get("cflow.packets"))) == 9
            assert r["cflow.if_name"] == "eth0" or "eth0" in str(r)
    assert {t.fields for d in decoded for t in d.templates if t.scope_count == 0} == {
        ((8, 4, 0), (12, 4, 0), (1001, 2, 99991), (1, 5, 0), (82, 65535, 0), (2, 8, 0))}


def test_a_namespace_that_is_replaced(lab):
    place = Place(lab, "red", families=(4,))
    agent = Agent(lab, place.text)
    device = message([(2, template(300, [(8, 4), (1, 8)])), (300, bytes([192, 0, 2, 1]) + bytes(8))])

    def arrives(times):
        wait_for("it listens", lambda: agent.program.log().count("devices send to") == times)
        place.send(device)
        wait_for("the record goes on", lambda: any(
            m.sets[0] == (256, 16) for m in place.capture.messages()))

    arrives(1)
    open_then = len(descriptors(agent.pid))
    for times in (2, 3):
        lab.namespace_del("ns-red")
        wait_for("the namespace is let go",
                 lambda: "dn0" not in run("ip", "-o", "link", ns=place.far))
        agent.program.wait_log("nobody listens any more at")
        place.plug()
        arrives(times)
    assert len(descriptors(agent.pid)) == open_then
    assert agent.stop() == 0


def hostile(rng):
    """Datagrams that a device would not send: right ones with octets changed, and worse."""
    good = message([(2, template(300, [(8, 4), (82, 65535), (1, 8)])),
                    (300, bytes(4) + b"\3abc" + bytes(8)),
                    (3, template(400, [(149, 4), (41, 8)], 1)), (400, bytes(12))])
    for _ in range(20000):
        bad = bytearray(good)
        for _ in range(rng.randrange(1, 6)):
            bad[rng.randrange(4 if rng.random() < 0.9 else 0, len(bad))] = rng.randrange(256)
        bad = bad[:rng.randrange(len(bad) + 1)] if rng.random() < 0.2 else bad
        if rng.random() < 0.8 and len(bad) >= 4:
            bad[2:4] = struct.pack(">H", len(bad))
        yield bytes(bad)
    for count in (0, 1, 255, 256, 8000, 65535):  # fields that are not there, and very many
        yield message([(2, struct.pack(">HH", 300, count) + bytes(range(200)))])
        yield message([(2, template(301, [(82, 65535)] * min(count, 8000)))])
        yield message([(2, template(302, [(1, 65534)] * min(count, 8000))), (302, bytes(5000))])
    for domain in range(3000):  # bombs: streams, templates, layouts
        yield message([(2, b"".join(template(256 + i, [(82, 1 + (domain + i) % 1400)])
                                    for i in range(500)))], domain=domain)
    for n in range(3000):
        yield message([(2, template(300, [(82, 1 + n % 1400), (236, 1 + n // 1400)]))])
    for n in range(3000):
        yield bytes(rng.randrange(256) for _ in range(rng.randrange(100)))


def test_hostile_messages(lab):
    seed = random.randrange(1 << 32)
    print("seed", seed)
    place = Place(lab, families=(4,))
    # Devices on a cable of their own: what they send is not for the capture.
    devices = lab.namespace("tt-devices")
    lab.veth("up1", "dv0", devices)
    lab.address("up1", "10.96.0.1/24")
    lab.address("dv0", "10.96.0.2/24", ns=devices)
    run("ip", "route", "add", "default", "via", "10.96.0.1", ns=devices)
    listen = lab.start("listen", TOOL, "listen", "--json", "--quiet-data", ns=place.far)
    wait_for("tarnflow listen listens", lambda: "listening" in listen.out())
    agent = Agent(lab, place.text)
    agent.program.wait_log("devices send to")
    # A device that was there before has its place.
    before = message([(2, template(300, [(8, 4), (12, 4), (2, 8), (1, 8)]))], domain=99)
    with inside(devices):
        device = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    device.sendto(before, (HERE[4], 4739))
    wait_for("its template is told", lambda: any(
        m.sets[0] == (2, 4 + 4 + 4 * 4) for m in place.capture.messages()))
    start = resident_kib(agent.pid)
    worst = list(hostile(random.Random(seed)))
    for at in range(0, len(worst), 200):
        place.send(*worst[at:at + 200], sources=2, ns=devices)
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
    assert listen.stop() == 0, listen.out()[-3000:]
    summary = parse_json_lines(listen.out())[-1]
    assert summary["notIpfix"] == 0
    for stream in summary["streams"]:
        assert not stream["malformed"] + stream["unknownSets"] + stream["sequenceErrors"], summary
    assert sum(stream["records"] for stream in summary["streams"]) > 1000
