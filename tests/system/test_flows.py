"""The software flow path: known traffic over a veth pair, and from a file; what an independent
collector stored is compared flow by flow with what was sent."""

import datetime
import pathlib
import re
import resource
import signal
import socket
import time

import pytest

import traffic
from lab import SLOW, descriptors, parse_json_lines, run, wait_for
from flow_path import FAR, RECORD_LEN, of_flows, reading, settings, tracking
from tarnflow import flows, listen, tool
from traffic import Key, Sum, play
from wire import Capture, Nfcapd, no_faults, tshark
from wire_maker import pcap

FLOWS = 10000


def same_flows(stored, expected, times):
    """What nfcapd stored are these flows, first and last packet at these times; returns the ingress
    interfaces."""
    sums, found_times = {}, {}
    for r in stored:
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
        if protocol == traffic.TCP:
            one.flags |= sum(1 << n for n, letter in enumerate("FSRPA") if letter in r["tcp_flags"])
        first, last = (datetime.datetime.fromisoformat(r[k] + "+00:00").timestamp() * 1000
                       for k in ("first", "last"))
        before = found_times.get(key, (first, last))
        found_times[key] = min(before[0], first), max(before[1], last)
    wrong = {k: (sums.get(k), expected.get(k)) for k in {*sums, *expected}
             if sums.get(k) != expected.get(k)}
    assert not wrong, (len(wrong), list(wrong.items())[:5])
    wrong = {k: (found_times[k], v) for k, v in times.items()
             if max(abs(a - b) for a, b in zip(found_times[k], v)) > 1.001}
    assert not wrong, (len(wrong), list(wrong.items())[:5])
    return {r["input_snmp"] for r in stored}


def captured_times(file):
    """First and last packet of each flow, milliseconds, as tcpdump saw them: the frames come in the
    order in which they were sent."""
    stamps = run("tshark", "-r", file, "-T", "fields", "-e", "frame.time_epoch").split()
    keys = [key for _, key, _, _ in traffic.mixture(FLOWS)]
    assert len(stamps) == len(keys)
    times = {}
    for at, key in zip((float(s) * 1000 for s in stamps), keys):
        times[key] = times.get(key, (at,))[0], at
    return times


def test_every_flow_as_it_was(house):
    """Live and from the capture of the same traffic; four collectors on both families."""
    lab, ports = house, (9995, 9996)
    wire = Capture(lab, "dn0", ns="tt-far", ports=ports)
    stores = [Nfcapd(lab, a, port=9995, ns="tt-far") for a in ("10.99.0.2", "fd99::2")]
    agent = tracking(lab, settings(FAR))
    seen = lab.path("in0.pcap")
    tcpdump = lab.start("tcpdump-in0", "tcpdump", "-Z", "root", "-i", "in0", "-U", "-B", "32768",
                        "--direction=in", "--time-stamp-precision=nano", "-w", seen)
    tcpdump.wait_log("listening on")

    expected = traffic.truth(FLOWS)
    sent = sum(s.packets for s in expected.values())
    play(FLOWS)
    edge = wait_for("all packets are counted and all flows over", lambda: (
        lambda f: f and f["packets"] == sent and f["flowsActive"] == 0 and f)(flows().get("edge")),
        20)
    assert edge["packetsSeen"] == sent and edge["kernelDrops"] == 0, edge
    assert edge["notIp"] == edge["truncated"] == edge["malformed"] == 0, edge
    reported = sum(edge[k] for k in edge if k.startswith("ended"))
    assert edge["endedEndOfFlow"] > 0 and edge["endedIdle"] > 0, edge
    wait_for("all records are sent", lambda: flows()["edge"]["records"] == 4 * reported, 10)
    assert agent.stop() == 0
    assert flows() == {}, "a stopped agent leaves no counters"
    tcpdump.stop()
    times = captured_times(seen)
    for store in stores:
        assert same_flows(store.stop(), expected, times) == {socket.if_nametoindex("in0")}
    wire.stop()
    no_faults(wire.file, ports)

    # The same from the file, and as another maker's programs cut and merged it (pcapng): it gives
    # the same messages but for their times.
    merged = lab.path("merged.pcapng")
    run("editcap", "-c", sent // 2 + 1, seen, lab.path("half.pcapng"))
    run("mergecap", "-w", merged, *sorted(lab.directory.glob("half_*")))
    contents = []
    for file in (seen, merged):
        wire = Capture(lab, "dn0", ns="tt-far", ports=ports)
        store = Nfcapd(lab, "10.99.0.2", port=9995, ns="tt-far")
        reader = reading(lab, "read", file, settings({"one": FAR["nf4"]}))[0]
        assert reader.wait_exit(30) == 0, reader.log()
        assert f"{sent} packets seen, {sent} in flows" in reader.err(), reader.err()
        wait_for("the last message is captured",
                 lambda: f"{len(of_flows(wire.messages()))} messages" in reader.err())
        same_flows(store.stop(), expected, times)
        wire.stop()
        no_faults(wire.file, ports)
        contents.append([m.octets[16:] for m in of_flows(wire.messages())])
    assert contents[0] == contents[1]


def test_reading_always_ends(house):
    """Without a collector, with a reload, and stopped in a long file that holds nothing to count."""
    lab = house
    capture, sparse = lab.path("capture.pcap"), pathlib.Path("/run/sparse.pcap")
    capture.write_bytes(pcap([next(traffic.mixture(1))[0]] * 3))
    sparse.write_bytes(pcap([])[:20] + b"\x93\0\0\0")  # a link type for private use
    run("truncate", "-s", "512G", sparse)
    long, _ = reading(lab, "long", sparse, settings())
    long.wait_log("started with")
    run("ip", "link", "set", "up0", "down")
    never, _ = reading(lab, "never", capture, settings().replace("up0", "none0"))
    later, file = reading(lab, "later", capture, settings())
    later.wait_log("started with")
    file.write_text(file.read_text().replace("edge", "other"))
    later.process.send_signal(signal.SIGHUP)
    later.wait_log("not reloaded: .*capture.pcap is read")
    run("ip", "link", "set", "up0", "up")
    assert later.wait_exit(10) == 0 and "3 packets seen, 3 in flows" in later.log()
    assert never.wait_exit(25) == 1
    assert "the capture is not exported: no collector was ready for 15 s" in never.log()
    long.wait_log(r"[1-9]\d* % of the capture was read", 25)
    assert long.stop() == 0


def test_sampling(house):
    count, rate = 1000000, 64
    agent = tracking(house, settings(**{"sample-rate": rate}))
    play("burst", count)
    wait_for("the flow is over", lambda: flows()["edge"]["endedIdle"] == 1, 10)
    edge = flows()["edge"]
    # Each packet is taken with 1 in 64 by itself. Three standard deviations would fail one run in
    # 370 of a right sampler; five fail for faults only.
    deviation = (count * (1 / rate) * (1 - 1 / rate)) ** 0.5
    off = (edge["packetsSeen"] - count / rate) / deviation
    assert abs(off) < 5, (off, edge)
    assert edge["packets"] + edge["kernelDrops"] == edge["packetsSeen"]


def test_overload(house):
    """The agent stands still while more comes than its ring holds: what it did not see is counted."""
    agent, count = tracking(house, settings()), 400000
    agent.program.process.send_signal(signal.SIGSTOP)
    play("burst", count)
    agent.program.process.send_signal(signal.SIGCONT)
    wait_for("what came is accounted for", lambda: flows()["edge"]["packetsSeen"] >= count, 10)
    edge = flows()["edge"]
    assert edge["packetsSeen"] == count == edge["packets"] + edge["kernelDrops"], edge
    assert edge["kernelDrops"] > 0, "the ring was large enough for all: this test tested nothing"


@pytest.mark.parametrize("end", ["agent", "agent at once", "tracker"])
def test_ending_reports_what_is_under_way(house, end):
    """At the pace of the exporter, with the agent free for others and for a second signal meanwhile."""
    count = 60000 if end == "agent at once" else 20000
    text = settings(**{"inactive-timeout": "60s"}).replace(
        'local-interface =', 'rate-limit = "400 messages/s"\nlocal-interface =')
    collector = listen(house, "--quiet-data", "--port", FAR["more4"][1], ns="tt-far")
    agent = tracking(house, text)
    play(count)
    wait_for("every flow is seen", lambda: flows()["edge"]["flowsCreated"] == count)
    before = flows()["edge"]["records"]
    if end == "tracker":
        agent.reload(text.replace("edge", "other"))
        wait_for("the other tracker tracks", lambda: "other" in flows(), 2)
        agent.program.wait_log("reload is complete.*trackers: 1 removed", 10)
    if end == "agent at once":
        agent.program.process.send_signal(signal.SIGTERM)
        time.sleep(0.3)
    assert agent.stop() == 0 and collector.stop() == 0
    lost = re.search(r"[1-9]\d* that could not be sent in time", agent.program.log())
    assert bool(lost) == (end == "agent at once")
    heard = [(m["time"], s["recordCount"]) for m in parse_json_lines(collector.out())
             if m["type"] == "message" for s in m["sets"] if s["id"] in RECORD_LEN]
    assert before < count / 2, "most flows were over: this test tested nothing"
    assert lost or sum(records for _, records in heard) == count
    most = max(sum(at <= other < at + 0.1 for other, _ in heard) for at, _ in heard)
    assert lost or most < 3 * 40 * SLOW, f"{most} messages in 0.1 s"


def test_what_is_refused_is_tried_again(house):
    """Memory for flows: nothing else of the agent notices."""
    agent = tracking(house, settings(**{"max-flows": 1000}))
    everything = resource.prlimit(agent.pid, resource.RLIMIT_AS)
    status = pathlib.Path(f"/proc/{agent.pid}/status").read_text()
    size = int(re.search(r"VmSize:\s+(\d+)", status)[1]) << 10
    resource.prlimit(agent.pid, resource.RLIMIT_AS, (size + (4000 << 20), everything[1]))
    agent.reload(settings(**{"max-flows": 100000000}))
    problem = r"table of 64\d+ octets"
    agent.program.wait_log(f"cannot track flows, trying again: .*{problem}")
    time.sleep(2)
    assert flows()["edge"]["flowsMax"] == 0
    assert re.search(f"edge in VRF default.*{problem}", tool("show", "state", "captures")[1])
    assert descriptors(agent.pid)["anon_inode:[eventfd]"] < 3, "no try leaves anything behind"
    resource.prlimit(agent.pid, resource.RLIMIT_AS, everything)
    wait_for("it tracks", lambda: flows()["edge"]["flowsMax"] == 100000000)
    assert len(re.findall(problem, agent.program.log())) == 1, "it is said once"
    play("burst", 10)
    wait_for("packets are counted", lambda: flows()["edge"]["packets"] == 10)


def test_interfaces_and_collectors_come_and_go(house):
    """An interface in a namespace that appears, flows that wait for a collector's address, and another
    namespace mounted over the first."""
    lab = house
    lab.address("up0", "10.99.0.1/24", verb="del")
    agent = tracking(lab, settings(interfaces=["in0", "red/*"]))
    wire = Capture(lab, "dn0", ns="tt-far", ports=(9996,))

    def counted(device, new, total):
        play("burst", new, device=device)
        wait_for(f"{total} packets", lambda: flows()["edge"]["packets"] >= total)
    counted("src0", 10, 10)
    lab.namespace("ns-red")
    lab.source("red0", "src1", ns="ns-red")
    agent.program.wait_log("VRF red: tracking flows on (lo, )?red0")
    counted("src1", 20, 30)
    time.sleep(2.5)  # the flows are over, and nobody can be told
    assert flows()["edge"]["endedIdle"] == 0 and not of_flows(wire.messages())
    lab.address("up0", "10.99.0.1/24")
    wire.wait_until("records", of_flows)
    wait_for("nothing is left", lambda: flows()["edge"]["endedIdle"] >= 2)
    # The name, the interfaces and their indexes are as before; the packets are others.
    lab.namespace("tt-red")
    lab.source("red0", "src2", ns="tt-red")
    run("mount", "--bind", "/run/netns/tt-red", "/run/netns/ns-red")
    try:
        wait_for("it is tracked in the new one", lambda: len(re.findall(
            "VRF red: tracking flows on .*red0", agent.program.log())) == 2)
        counted("src2", 5, 35)
    finally:
        run("umount", "/run/netns/ns-red")
    assert agent.stop() == 0
    wire.stop()
    records = [r for m in tshark(wire.file, ports=(9996,)) for id, r in m.records if id == 256]
    burst = [r for r in records if r.get("cflow.srcport") == "7"]
    assert sorted(int(r["cflow.packets"]) for r in burst) == [5, 10, 20], records
