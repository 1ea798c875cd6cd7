"""The local collector of a hardware tracker: what devices send there leaves, reduced to what the
registry knows, in the tracker's own messages: each record once to each collector."""

import collections
import json
import os
import random
import re
import socket
import time

import pytest

import traffic
from lab import inside, parse_json_lines, resident_kib, run, wait_for
from tarnflow import Agent, edge, listen
from tarnflow import flows as shared
from wire import Capture, Nfcapd, tshark
from wire_maker import hostile, message, pcap, send, template

HERE = {4: "10.99.0.1", 6: "fd99::1"}
THERE = {4: "10.99.0.2", 6: "fd99::2"}


def flows(count):
    """(time, frame) of so many UDP flows of both families, and {five-tuple: (packets, octets)}."""
    frames, sums = [], collections.defaultdict(traffic.Sum)
    for n, (frame, key, octets, _) in enumerate(traffic.mixture(count * 4)):
        if key.protocol == traffic.UDP and key.dst_port == 53:
            frames.append((1700000000 + n * 0.001, frame))
            sums[key.src, key.dst, key.src_port, key.dst_port].add(octets, 0)
    return frames, {key: (s.packets, s.octets) for key, s in sums.items()}


def stored_flows(stored):
    for r in stored:
        v = "6" if "src6_addr" in r else "4"
        yield ((r[f"src{v}_addr"], r[f"dst{v}_addr"], r["src_port"], r["dst_port"]),
               (r["in_packets"], r["in_bytes"]))


@pytest.mark.parametrize("vrf, family", [("default", 4), ("red", 6)])
def test_softflowd(lab, vrf, family):
    near = None if vrf == "default" else lab.namespace(f"ns-{vrf}")
    far = lab.far(ns=near)
    if family == 6:  # it listens at one address, of IPv4 if there is one
        lab.address("up0", f"{HERE[4]}/24", ns=near, verb="del")
    capture = Capture(lab, "dn0", ns=far)
    store = Nfcapd(lab, THERE[family], ns=far)
    agent = Agent(lab, edge({"c": THERE[family]}, vrf=vrf,
                            tracker={"type": "hardware", "exporter-address": True},
                            vrfs={vrf: 10} if near else {}, template_interval="60s"))
    here = f"{HERE[family]}:4739" if family == 4 else f"[{HERE[family]}]:4739"
    agent.program.wait_log(rf"tracker edge: devices send to {re.escape(here)} .*VRF {vrf}")
    frames, expected = flows(1000)
    file = lab.path("flows.pcap")
    file.write_bytes(pcap(frames))
    device = lab.start("softflowd", "softflowd", "-d", "-6", "-r", file, "-n", here, "-v", "10",
                       "-A", "milli", "-c", "none", "-p", lab.path("softflowd.pid"), ns=far)
    assert device.wait_exit(20) == 0 and "(1000 records)" in device.log(), device.log()
    wait_for("every record is on the wire", lambda: sum(
        m.length - 20 for m in capture.messages() if 256 <= m.sets[0] < 65280) >=
        sum(48 if ":" not in key[0] else 72 for key in expected), 10)
    assert agent.stop() == 0
    assert "not passed on" not in agent.program.log()
    capture.stop()
    decoded = [d for d in tshark(capture.file) if d.dst == THERE[family]]
    found = collections.Counter(stored_flows(store.stop()))
    assert found == collections.Counter(expected.items())
    # The fields of softflowd, with the lengths that softflowd uses, and then its address.
    fields = {f for d in decoded for t in d.templates if t.scope_count == 0 for f in t.fields}
    known = {element for element, _, _ in fields}
    address = {4: 130, 6: 131}[family]
    assert known == {1, 2, 4, 5, 6, 7, 8, 10, 11, 12, 14, 27, 28, 32, 60, 61, 136, 139, 152, 153, address}
    assert all(t.fields[-1][0] == address for d in decoded for t in d.templates if not t.scope_count)
    text = {4: "cflow.exporter_addr", 6: "cflow.exporter_addr_v6"}[family]
    assert {r.get(text) for d in decoded for i, r in d.records if i < 65280} == {
        json.loads(run("ip", "-j", "route", "get", HERE[family], ns=far))[0]["prefsrc"]}
    assert {length for element, length, _ in fields if element in (1, 2)} == {4}


def test_hostile_messages(lab, far):
    seed = int(os.environ.get("TARN_SEED", random.randrange(1 << 32)))
    print("TARN_SEED", seed)
    collector = listen(lab, "--quiet-data", ns=far)
    agent = Agent(lab, edge({"c": THERE[4]}, tracker={"type": "hardware"}, template_interval="60s"))
    agent.program.wait_log("devices send to")
    # Another device that was there before has its place.
    with inside(far):
        device = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    device.bind(("10.99.0.3", 0))
    device.connect((HERE[4], 4739))
    device.send(message([(2, template(300, [(8, 4)]))], domain=99))
    start = resident_kib(agent.pid)
    worst = list(hostile(random.Random(seed)))
    for at in range(0, len(worst), 100):
        with inside(far):
            send(worst[at:at + 100] * 2, HERE[4])
        time.sleep(0.003)
    assert resident_kib(agent.pid) - start < 64 << 10
    agent.program.wait_log("not passed on: .*datagrams that are not IPFIX", 15)
    assert len(agent.program.log().splitlines()) < 60, agent.program.log()
    before = shared()["edge"]["records"]
    device.send(message([(300, bytes([192, 0, 2, 1]))], domain=99))
    wait_for("its record goes on", lambda: shared()["edge"]["records"] == before + 1)
    device.close()
    assert agent.stop() == 0
    # What the collector was sent is right, whatever it is made of.
    assert collector.stop() == 0, collector.out()[-3000:]
    summary = parse_json_lines(collector.out())[-1]
    assert not summary["notIpfix"] and sum(s["records"] for s in summary["streams"]) > 1000
