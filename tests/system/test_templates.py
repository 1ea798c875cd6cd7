"""Templates on the wire: two collectors of each family, decoded by tshark, accepted by nfcapd, shown
by `tarnflow listen`, counted in shared memory. One run of the agent is judged from every side."""

import dataclasses
import re
import time

import pytest

from lab import SLOW, Lab, parse_json_lines, run, wait_for
from tarnflow import (DATA_LEN, DATA_TEMPLATES, OPTIONS_LEN, OPTIONS_TEMPLATES, TOOL, Agent,
                      config, counters, exporter)
from wire import TEMPLATES, Capture, tshark
from wire_maker import message, send

HERE = {4: "10.99.0.1", 6: "fd99::1"}
# Collector -> address and port: `tarnflow listen` on the first of each family, nfcapd on the other.
COLLECTORS = {"listen4": ("10.99.0.2", 4739), "listen6": ("fd99::2", 4739),
              "nfcapd4": ("10.99.0.3", 9995), "nfcapd6": ("fd99::3", 9995)}
DOMAIN, DSCP, INTERVAL, ROUNDS = 77, 46, 2, 4


@dataclasses.dataclass
class Heard:
    """What one run of the agent left behind."""
    messages: list  # of all kinds, here and in `decoded`
    decoded: list
    listen: list
    counters: dict
    nfcapd: dict   # family -> (log, flows that nfdump read back)
    read_at: float


@pytest.fixture(scope="module")
def heard(tmp_path_factory):
    lab = Lab(tmp_path_factory.mktemp("templates"))
    try:
        yield listen_to_agent(lab)
    except BaseException:
        print(lab.report())
        raise
    finally:
        lab.close()


def listen_to_agent(lab):
    far = lab.namespace("tt-far")
    lab.veth("up0", "dn0", far)
    lab.address("up0", f"{HERE[4]}/24", f"{HERE[6]}/64")
    lab.address("dn0", "10.99.0.2/24", "10.99.0.3/24", "fd99::2/64", "fd99::3/64", ns=far)
    capture = Capture(lab, "dn0", ns=far, ports=(4739, 9995))
    templates = Capture(lab, "dn0", ns=far, ports=(4739, 9995), kinds=TEMPLATES)
    listen = lab.start("listen", TOOL, "listen", "--json", ns=far)
    nfcapd, flows = {}, {}
    for family, address in ((4, "10.99.0.3"), (6, "fd99::3")):
        flows[family] = lab.path(f"flows{family}")
        flows[family].mkdir()
        nfcapd[family] = lab.start(f"nfcapd{family}", "nfcapd", f"-{family}", "-b", address, "-p",
                                   9995, "-w", flows[family], ns=far)
    wait_for("tarnflow listen listens", lambda: "listening" in listen.out())
    for one in nfcapd.values():
        one.wait_log("Startup nfcapd")

    agent = Agent(lab, config({"edge": {"id": DOMAIN, "exporter": {"main": exporter(
        "up0", {n: {"address": a, "port": p} for n, (a, p) in COLLECTORS.items()}, dscp=DSCP,
        template_interval=f"{INTERVAL}s")}}}))
    per_round = 2 * len(COLLECTORS)
    templates.wait(ROUNDS * per_round, seconds=ROUNDS * INTERVAL + 3)

    # Between two rounds nothing is under way: what was counted is what was captured.
    def quiet():
        before = len(capture.messages())
        found = counters()
        return (len(capture.messages()) == before and len(templates.messages()) % per_round == 0 and
                sum(c["messages"] for c in found.values()) == before and (before, found))
    count, found = wait_for("a quiet moment", quiet)
    read_at = time.time()
    assert agent.stop() == 0
    messages = capture.messages()
    assert len(messages) == count, "more was sent while stopping"

    # A flow record in the layout of the received template, in the agent's name, must reach nfcapd's
    # file with the values that were put in.
    send([flow_message(4, 256)], "10.99.0.3", port=9995, source=HERE[4])
    send([flow_message(6, 257)], "fd99::3", port=9995, source=HERE[6])
    capture.wait(count + 2)
    accepted = {}
    for family, one in nfcapd.items():
        assert one.stop() == 0
        accepted[family] = (one.log(), run("nfdump", "-R", flows[family], "-o", "json"))
    assert listen.stop() == 0, listen.log()
    capture.stop()
    # The capture as the agent left it, without the two hand-made flow messages.
    own = lab.path("own.pcap")
    run("tshark", "-r", capture.file, "-c", count, "-w", own)
    return Heard(messages, tshark(own, ports=(4739, 9995)), parse_json_lines(listen.out()), found,
                 accepted, read_at)


FLOW = {1: 123456, 2: 789, 4: 17, 7: 1111, 11: 2222, 14: 9, 10: 8}


def flow_message(family, template_id):
    values = dict(FLOW)
    now = int(time.time() * 1000)
    values[152], values[153] = now - 1000, now
    octets = b""
    for element, length, _ in DATA_TEMPLATES[template_id][1]:
        if element in (8, 12):
            octets += bytes([10, 1, 2, element])
        elif element in (27, 28):
            octets += bytes.fromhex("fd01") + bytes(13) + bytes([element])
        else:
            octets += values.get(element, 0).to_bytes(length, "big")
    return message([(template_id, octets)], domain=DOMAIN)


def of(messages, name):
    return [m for m in messages if m.dst == COLLECTORS[name][0]]


def is_template(message):
    return message.sets[0][0] in TEMPLATES


@pytest.mark.parametrize("name", COLLECTORS)
def test_every_collector_hears_everything(heard, name):
    """Alternating kinds, at once and then with the period; one port."""
    messages = of(heard.messages, name)
    address, port = COLLECTORS[name]
    assert {(m.src, m.dst_port, m.domain) for m in messages} == {
        (HERE[6 if ":" in address else 4], port, DOMAIN)}
    assert len({m.src_port for m in messages}) == 1
    assert {m.tos for m in messages} == {DSCP << 2} == {184}
    for kind, length in ((2, DATA_LEN), (3, OPTIONS_LEN)):
        of_kind = [m for m in messages if m.sets[0][0] == kind]
        assert len(of_kind) >= ROUNDS and {m.length for m in of_kind} == {length}
        gaps = [b.time - a.time for a, b in zip(of_kind, of_kind[1:])]
        assert all(abs(g - INTERVAL) < 0.1 * SLOW for g in gaps), gaps
    assert all(0 <= m.time - m.export_time < 1.1 * SLOW for m in messages)


def test_tshark_decodes_everything(heard):
    assert len(heard.decoded) == len(heard.messages)
    for packet, seen in zip(heard.decoded, heard.messages):
        assert (packet.version, packet.domain, packet.tos) == (10, DOMAIN, 184)
        assert (packet.src, packet.dst, packet.length, packet.sequence) == (
            seen.src, seen.dst, seen.length, seen.sequence)
        if not is_template(seen):
            continue
        expected = {2: DATA_TEMPLATES, 3: OPTIONS_TEMPLATES}[packet.set_ids[0]]
        assert len(packet.set_ids) == 1
        assert {t.id: (t.scope_count, t.fields) for t in packet.templates} == expected
        assert all(t.field_count == len(t.fields) for t in packet.templates)
        if packet.set_ids == (2,):
            assert [t.id for t in packet.templates] == [256, 257]


@pytest.mark.parametrize("family", [4, 6])
def test_nfcapd_accepts_the_templates(heard, family):
    log, flows = heard.nfcapd[family]
    assert re.search(rf"New ipfix exporter: .*Observation domain {DOMAIN} from: "
                     rf"{re.escape(HERE[family])}", log), log
    errors = [line for line in log.splitlines()
              if re.search(r"error|fail|malformed|corrupt|skip|unknown|not enough", line, re.I)
              and "Sequence Errors: 0, Bad Packets: 0" not in line]
    assert not errors and "Sequence Errors: 0, Bad Packets: 0" in log, log
    import json
    (flow,) = json.loads(flows)
    src, dst = {4: (8, 12), 6: (27, 28)}[family]
    expected = {"in_bytes": FLOW[1], "in_packets": FLOW[2], "proto": FLOW[4],
                "src_port": FLOW[7], "dst_port": FLOW[11], "input_snmp": FLOW[10],
                "output_snmp": FLOW[14],
                f"src{family}_addr": f"10.1.2.{src}" if family == 4 else f"fd01::{src:x}",
                f"dst{family}_addr": f"10.1.2.{dst}" if family == 4 else f"fd01::{dst:x}"}
    assert {k: flow.get(k) for k in expected} == expected, flow


@pytest.mark.parametrize("name", COLLECTORS)
def test_counters_are_what_was_captured(heard, name):
    messages = of(heard.messages, name)
    address, port = COLLECTORS[name]
    entry = heard.counters[address]
    assert (entry["tracker"], entry["exporter"], entry["collectorPort"]) == ("edge", "main", port)
    assert entry["messages"] == len(messages)
    assert entry["octets"] == sum(m.length for m in messages)
    rounds = {kind: sum(m.sets[0][0] == kind for m in messages) for kind in (2, 3)}
    assert [s for s in entry["sets"] if s["id"] in TEMPLATES] == [
        {"id": 2, "records": 0, "templates": len(DATA_TEMPLATES) * rounds[2]},
        {"id": 3, "records": 0, "templates": len(OPTIONS_TEMPLATES) * rounds[3]}]
    last = [m for m in messages if is_template(m)][-1]
    assert abs(entry["lastTemplateTime"] - last.time) < 0.1 * SLOW
    assert entry["lastMessageTime"] == max(entry["lastTemplateTime"], entry["lastOptionsDataTime"])
    assert entry["lastDataTime"] is entry["lastClearedTime"] is None


