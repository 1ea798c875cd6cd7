"""The software flow path: known traffic over a veth pair, and from a file; what an independent
collector stored is compared flow by flow with what was sent."""

import datetime
import json
import os
import pathlib
import re
import resource
import signal
import socket
import struct
import threading
import time

import pytest

import traffic
from lab import descriptors, inside, parse_json_lines, run, wait_for
from tarnflow import AGENT, Agent, collectors, config, exporter, flows, listen, tool
from traffic import Key, Sum
from wire import Capture, Nfcapd, no_faults, tshark

FLOWS = 10000
RECORD_LEN = {256: 63, 257: 91}
SEND = str(pathlib.Path(traffic.__file__))
FAR = {"nf4": ("10.99.0.2", 9995), "nf6": ("fd99::2", 9995), "more4": ("10.99.0.3", 9996),
       "more6": ("fd99::3", 9996)}


@pytest.fixture
def house(lab):
    """A source of traffic behind in0, collectors behind up0."""
    lab.namespace("tt-far")
    lab.veth("up0", "dn0", "tt-far")
    lab.address("up0", "10.99.0.1/24", "fd99::1/64")
    lab.address("dn0", "10.99.0.2/24", "10.99.0.3/24", "fd99::2/64", "fd99::3/64", ns="tt-far")
    lab.namespace("tt-src")
    lab.veth("in0", "src0", "tt-src")
    for ns, device in ((None, "in0"), ("tt-src", "src0")):  # nothing else on that cable
        run("sysctl", "-qw", f"net.ipv6.conf.{device}.disable_ipv6=1", ns=ns)
    return lab


def settings(far=FAR, **tracker):
    return config({"edge": {"id": 7, "interfaces": ["in*"], "active-interval": "60s",
                            "inactive-timeout": "2s", **tracker,
                            "exporter": {"main": exporter("up0", collectors(**far))}}})


def link(device):
    return json.loads(run("ip", "-j", "-s", "link", "show", device))[0]


def records_of(octets):
    """How many flow records a message has."""
    assert int.from_bytes(octets[2:4], "big") == len(octets)
    count, at = 0, 16
    while at < len(octets):
        id, length = (int.from_bytes(octets[i:i + 2], "big") for i in (at, at + 2))
        if id in RECORD_LEN:
            assert (length - 4) % RECORD_LEN[id] == 0
            count += (length - 4) // RECORD_LEN[id]
        at += length
    return count


def summed(records):
    """What nfcapd stored: the sums, the times in milliseconds and the ingress interfaces, by key."""
    sums, times, interfaces = {}, {}, set()
    for r in records:
        v6 = "src6_addr" in r
        protocol = r["proto"]
        if protocol in (traffic.ICMP, traffic.ICMP6):
            ports = 0, r["icmp_type"] * 256 + r["icmp_code"]
        else:
            ports = r["src_port"], r["dst_port"]
        key = Key(r["src6_addr" if v6 else "src4_addr"], r["dst6_addr" if v6 else "dst4_addr"],
                  protocol, *ports, r.get("src_vlan", 0))
        one = sums.setdefault(key, Sum())
        one.packets += r["in_packets"]
        one.octets += r["in_bytes"]
        flags = r["tcp_flags"] if protocol == traffic.TCP else ""
        one.flags |= sum(bit for bit, letter in ((1, "F"), (2, "S"), (4, "R"), (8, "P"), (16, "A"))
                         if letter in flags)
        first, last = millis(r["first"]), millis(r["last"])
        before = times.get(key, (first, last))
        times[key] = min(before[0], first), max(before[1], last)
        interfaces.add(r["input_snmp"])
    return sums, times, interfaces


def millis(text):
    date, part = text.rsplit(".", 1)
    moment = datetime.datetime.strptime(date, "%Y-%m-%dT%H:%M:%S")
    return int(moment.replace(tzinfo=datetime.timezone.utc).timestamp()) * 1000 + int(part[:3])


def captured_times(file):
    """First and last packet of each flow, milliseconds, as tcpdump saw them: the frames come in the
    order in which they were sent."""
    text = run("tshark", "-r", file, "-T", "fields", "-e", "frame.time_epoch")
    times = {}
    lines = text.splitlines()
    frames = list(traffic.mixture(FLOWS))
    assert len(lines) == len(frames)
    for line, (_, key, _, _) in zip(lines, frames):
        at = float(line) * 1000
        first, _ = times.get(key, (at, at))
        times[key] = first, at
    return times


def same_flows(found, expected):
    sums, times, _ = found
    wrong = {k: (sums.get(k), v) for k, v in expected.items() if sums.get(k) != v}
    assert not wrong, (len(wrong), list(wrong.items())[:5])
    assert not set(sums) - set(expected), list(set(sums) - set(expected))[:5]


def same_times(found, expected):
    wrong = {k: (found[1][k], v) for k, v in expected.items()
             if max(abs(a - b) for a, b in zip(found[1][k], v)) > 1.001}
    assert not wrong, (len(wrong), list(wrong.items())[:5])


def test_every_flow_as_it_was(house):
    """Live and from the capture of the same traffic; four collectors on both families."""
    lab = house
    wire = Capture(lab, "dn0", ns="tt-far", ports=(9995, 9996))
    stores = [Nfcapd(lab, a, port=9995, ns="tt-far") for a in ("10.99.0.2", "fd99::2")]
    tables = listen(lab, "--tables", "--quiet-data", "--address", "10.99.0.3", "--port", 9996,
                    ns="tt-far")
    agent = Agent(lab, settings())
    agent.program.wait_log("tracking flows on in0")
    seen = lab.path("in0.pcap")
    tcpdump = lab.start("tcpdump-in0", "tcpdump", "-Z", "root", "-i", "in0", "-U", "-B", "32768",
                        "--direction=in", "--time-stamp-precision=nano", "-w", seen)
    tcpdump.wait_log("listening on")

    expected = traffic.truth(FLOWS)
    sent = sum(s.packets for s in expected.values())
    run("/usr/bin/python3", SEND, "src0", FLOWS, ns="tt-src")
    edge = wait_for("all packets are counted and all flows over", lambda: (
        lambda f: f and f["packets"] == sent and f["flowsActive"] == 0 and f)(flows().get("edge")),
        20)
    assert edge["packetsSeen"] == sent and edge["kernelDrops"] == 0, edge
    assert edge["notIp"] == edge["truncated"] == edge["malformed"] == 0, edge
    reported = sum(edge[k] for k in edge if k.startswith("ended"))
    assert edge["endedEndOfFlow"] > 0 and edge["endedIdle"] > 0, edge
    wait_for("all records are sent", lambda: flows()["edge"]["records"] == 4 * reported, 10)
    index = link("in0")["ifindex"]
    assert agent.stop() == 0
    tcpdump.stop()

    times = captured_times(seen)
    for store in stores:
        found = summed(store.stop())
        same_flows(found, expected)
        same_times(found, times)
        assert found[2] == {index}
    assert tables.stop() == 0, tables.log()
    assert any('"in0"' in json.dumps(line) for line in parse_json_lines(tables.out())
               if line["type"] == "tables"), "in0 is in the interface table"
    wire.stop()
    no_faults(wire.file, ports=(9995, 9996))

    # The same from the file, twice, and as another maker's programs cut and merged it (pcapng): it
    # gives the same messages but for their times.
    halves = [lab.path("half1.pcapng"), lab.path("half2.pcapng")]
    merged = lab.path("merged.pcapng")
    run("editcap", "-r", seen, halves[0], f"1-{sent // 2}")
    run("editcap", "-r", seen, halves[1], f"{sent // 2 + 1}-{sent}")
    run("mergecap", "-w", merged, *halves)
    contents = []
    for file_read in (seen, seen, merged):
        wire = Capture(lab, "dn0", ns="tt-far", ports=(9995,))
        store = Nfcapd(lab, "10.99.0.2", port=9995, ns="tt-far")
        file = lab.path("read.toml")
        file.write_text(settings({"one": FAR["nf4"]}))
        reader = lab.start("read", AGENT, "--config", file, "--read", file_read)
        assert reader.wait_exit(30) == 0, reader.log()
        assert f"{sent} packets seen, {sent} in flows" in reader.err(), reader.err()
        wait_for("the last message is captured",
                 lambda: f"{sum(m.sets[0][0] in (256, 257) for m in wire.messages())} messages"
                 in reader.err())
        found = summed(store.stop())
        same_flows(found, expected)
        same_times(found, times)
        wire.stop()
        no_faults(wire.file, ports=(9995,))
        contents.append([m.octets[16:] for m in wire.messages() if m.sets[0][0] in (256, 257)])
    assert contents[0] == contents[1] == contents[2]


def reader(lab, name, capture, interface="up0"):
    """tarnflowd that reads a capture, with counters of its own."""
    file = lab.path(f"{name}.toml")
    file.write_text(settings({"one": FAR["nf4"]}).replace('"/tarnflow"', f'"/{name}"').replace(
        "control.sock", f"{name}.sock").replace("up0", interface))
    return lab.start(name, AGENT, "--config", file, "--read", capture), file


def test_reading_always_ends(house):
    """Without a collector, with a reload, and of a file of 40 GB that has nothing to be counted."""
    lab = house
    capture, sparse = lab.path("capture.pcap"), lab.path("sparse.pcap")
    header = bytes.fromhex("d4c3b2a1 02000400 00000000 00000000 ffff0000")
    frames = [next(traffic.mixture(1))[0]] * 3
    capture.write_bytes(header + bytes([1, 0, 0, 0]) + b"".join(
        struct.pack("<IIII", 1700000000, 0, len(f), len(f)) + f for f in frames))
    sparse.write_bytes(header + bytes([127, 0, 0, 0]))
    os.truncate(sparse, 40 << 30)
    run("ip", "link", "set", "up0", "down")
    never, _ = reader(lab, "never", capture, "none0")
    later, file = reader(lab, "later", capture)
    long, _ = reader(lab, "long", sparse)
    long.wait_log("started with")
    assert long.stop() == 0
    later.wait_log("started with")
    file.write_text(file.read_text().replace("edge", "other"))
    later.process.send_signal(signal.SIGHUP)
    later.wait_log("not reloaded: .*capture.pcap is read")
    run("ip", "link", "set", "up0", "up")
    assert later.wait_exit(10) == 0 and "3 packets seen, 3 in flows" in later.log()
    assert never.wait_exit(25) == 1
    assert "the capture is not exported: no collector was ready for 15 s" in never.log()


def test_sampling(house):
    lab = house
    count, rate = 1000000, 64
    agent = Agent(lab, settings({"one": FAR["more4"]}, **{"sample-rate": rate}))
    agent.program.wait_log("tracking flows on in0")
    run("/usr/bin/python3", SEND, "src0", "burst", count, ns="tt-src")
    wait_for("the flow is over", lambda: flows()["edge"]["endedIdle"] == 1, 10)
    edge = flows()["edge"]
    # Each packet is taken with 1 in 64 by itself. Three standard deviations would fail one run in
    # 370 of a right sampler; five fail for faults only.
    deviation = (count * (1 / rate) * (1 - 1 / rate)) ** 0.5
    off = (edge["packetsSeen"] - count / rate) / deviation
    print(f"{edge['packetsSeen']} of {count} packets: {off:.2f} standard deviations off")
    assert abs(off) < 5, edge
    assert edge["packets"] + edge["kernelDrops"] == edge["packetsSeen"]
    assert agent.stop() == 0


def test_overload(house):
    """The agent stands still while more comes than its ring holds: what it did not see is counted."""
    lab = house
    agent = Agent(lab, settings({"one": FAR["more4"]}))
    agent.program.wait_log("tracking flows on in0")

    def arrived():
        return link("in0")["stats64"]["rx"]["packets"]
    before, count = arrived(), 400000
    agent.program.process.send_signal(signal.SIGSTOP)
    run("/usr/bin/python3", SEND, "src0", "burst", count, ns="tt-src")
    agent.program.process.send_signal(signal.SIGCONT)
    came = arrived() - before
    assert came == count
    edge = wait_for("what came is accounted for",
                    lambda: (lambda f: f["packetsSeen"] >= came and f)(flows()["edge"]), 10)
    assert edge["packetsSeen"] == came == edge["packets"] + edge["kernelDrops"], edge
    assert edge["kernelDrops"] > 0, "the ring was large enough for all: this test tested nothing"
    assert agent.stop() == 0


@pytest.mark.parametrize("end", ["agent", "tracker"])
def test_ending_reports_what_is_under_way(house, end):
    """At the pace of the exporter, to a collector whose socket holds a tenth of it, with the agent
    free for others meanwhile."""
    lab, count = house, 20000
    text = settings({"one": FAR["more4"]}, **{"inactive-timeout": "60s"}).replace(
        'local-interface =', 'rate-limit = "400 messages/s"\nlocal-interface =')
    with inside("tt-far"):
        collector = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    collector.bind(FAR["more4"])
    collector.settimeout(1)
    heard = []
    agent = Agent(lab, text)
    agent.program.wait_log("tracking flows on in0")

    def hear():
        while True:
            try:
                heard.append(records_of(collector.recv(2000)))
            except TimeoutError:
                if not agent.program.running():
                    return
    listener = threading.Thread(target=hear)
    listener.start()
    run("/usr/bin/python3", SEND, "src0", count, ns="tt-src")
    wait_for("every flow is seen", lambda: flows()["edge"]["flowsCreated"] == count, 5)
    before = flows()["edge"]["records"]
    if end == "tracker":
        agent.reload(text.replace("edge", "other"))
        wait_for("the other tracker tracks", lambda: "other" in flows(), 2)
        agent.program.wait_log("reload is complete.*trackers: 1 removed", 10)
    assert agent.stop() == 0
    listener.join()
    assert before < count / 2, "most flows were over: this test tested nothing"
    assert sum(heard) == count


def test_what_is_refused_is_tried_again(house):
    """Memory for flows, and for the stack of a thread: nothing else of the agent notices."""
    lab, mib = house, 1 << 20
    stack = resource.getrlimit(resource.RLIMIT_STACK)
    resource.setrlimit(resource.RLIMIT_STACK, (1024 * mib, stack[1]))  # of each thread, too
    try:
        agent = Agent(lab, settings({"one": FAR["more4"]}, **{"max-flows": 1000}))
    finally:
        resource.setrlimit(resource.RLIMIT_STACK, stack)
    agent.program.wait_log("tracking flows on in0")
    everything = resource.prlimit(agent.pid, resource.RLIMIT_AS)
    for room, flows_max, problem in ((-400, 2000, "cannot start a thread: "),
                                     (4000, 100000000, r"table of 64\d+ octets")):
        status = pathlib.Path(f"/proc/{agent.pid}/status").read_text()
        size = int(re.search(r"VmSize:\s+(\d+)", status)[1]) * 1024
        resource.prlimit(agent.pid, resource.RLIMIT_AS, (size + room * mib, everything[1]))
        agent.reload(settings({"one": FAR["more4"]}, **{"max-flows": flows_max}))
        agent.program.wait_log(f"cannot track flows, trying again: .*{problem}")
        time.sleep(2)
        assert flows()["edge"]["flowsMax"] == 0
        assert re.search(f"edge in VRF default.*{problem}", tool("show", "state", "captures")[1])
        assert descriptors(agent.pid)["anon_inode:[eventfd]"] < 3, "no try leaves anything behind"
        resource.prlimit(agent.pid, resource.RLIMIT_AS, everything)
        wait_for("it tracks", lambda: flows()["edge"]["flowsMax"] == flows_max)
        assert len(re.findall(problem, agent.program.log())) == 1, "each is said once"
    seen = flows()["edge"]["packets"]
    run("/usr/bin/python3", SEND, "src0", "burst", 10, ns="tt-src")
    wait_for("packets are counted", lambda: flows()["edge"]["packets"] == seen + 10)
    assert agent.stop() == 0


def test_a_namespace_mounted_over_another(house):
    """Its name, its interfaces and their indexes are as before; its packets are others."""
    lab = house
    for ns, source in (("ns-red", "src1"), ("tt-red", "src2")):
        lab.namespace(ns)
        lab.veth("red0", source, "tt-src", ns=ns)
        for where, device in ((ns, "red0"), ("tt-src", source)):
            run("sysctl", "-qw", f"net.ipv6.conf.{device}.disable_ipv6=1", ns=where)
    agent = Agent(lab, settings({"one": FAR["nf4"]}, interfaces=["red/red0"]))
    agent.program.wait_log("VRF red: tracking flows on red0")
    run("/usr/bin/python3", SEND, "src1", "burst", 10, ns="tt-src")
    wait_for("10 packets", lambda: flows()["edge"]["packets"] == 10)
    run("mount", "--bind", "/run/netns/tt-red", "/run/netns/ns-red")
    try:
        wait_for("it is tracked in the new one", lambda: len(re.findall(
            "VRF red: tracking flows on red0", agent.program.log())) == 2)
        run("/usr/bin/python3", SEND, "src2", "burst", 20, ns="tt-src")
        wait_for("30 packets", lambda: flows()["edge"]["packets"] == 30)
    finally:
        run("umount", "/run/netns/ns-red")
    assert agent.stop() == 0


def test_interfaces_and_collectors_come_and_go(house):
    """An interface in a namespace that appears, one that is renamed away, and flows that wait for a
    collector's address."""
    lab = house
    lab.address("up0", "10.99.0.1/24", verb="del")
    agent = Agent(lab, settings({"one": FAR["nf4"]}, interfaces=["in0", "red/*"]))
    agent.program.wait_log("tracking flows on in0")
    wire = Capture(lab, "dn0", ns="tt-far", ports=(9995,))
    run("/usr/bin/python3", SEND, "src0", "burst", 10, ns="tt-src")
    lab.namespace("ns-red")
    lab.veth("red0", "src1", "tt-src", ns="ns-red")
    agent.program.wait_log("VRF red: tracking flows on (lo, )?red0")
    wait_for("10 packets", lambda: flows()["edge"]["packets"] >= 10, 5)
    run("/usr/bin/python3", SEND, "src1", "burst", 20, ns="tt-src")
    wait_for("30 packets", lambda: flows()["edge"]["packets"] >= 30, 5)
    time.sleep(2.5)  # the flows are over, and nobody can be told
    assert flows()["edge"]["endedIdle"] == 0
    assert not [m for m in wire.messages() if m.sets[0][0] in (256, 257)]
    lab.address("up0", "10.99.0.1/24")
    wire.wait_until("both records", lambda ms: sum(m.sets[0][0] == 256 for m in ms) >= 1)
    wait_for("nothing is left", lambda: flows()["edge"]["endedIdle"] >= 2, 5)
    run("ip", "link", "set", "in0", "down")
    run("ip", "link", "set", "in0", "name", "other0")
    lab.links.append("other0")
    agent.program.wait_log("VRF default: no interface to track flows on any more")
    assert agent.stop() == 0
    wire.stop()
    records = [r for m in tshark(wire.file, ports=(9995,)) for id, r in m.records if id == 256]
    burst = [r for r in records if r.get("cflow.srcport") == "7"]
    assert sorted(int(r["cflow.packets"]) for r in burst) == [10, 20], records
    assert flows() == {}, "a stopped agent leaves no counters"
