"""Templates and options tables at collectors of both families, by the agent itself; afterwards all
that they were sent is judged by tshark. (What changes meanwhile is for the random life; what is
counted, when, and how long a message may be, for the model of OptionsDataModelTest.cpp.)"""

import json
import time

from lab import SLOW, parse_json_lines, run, wait_for
from tarnflow import DATA_TEMPLATES, OPTIONS_TEMPLATES, Agent, edge, listen, show_counters
from wire import TEMPLATES, Capture, tshark

PORTS = {"10.99.0.2": 4739, "fd99::2": 9995}
LONG = "v" * 100  # the longest name of a VRF
VRF, INTERFACE, FLOW_KEY, TRACKER = range(65280, 65284)  # template ids
PSEUDO = {0x80000000: "multicast", 0x40000000: "discard", 0x3FFFFFFF: "CPU", 0: "unknown"}
FIRST_GIVEN = 0x1000000  # no kernel's index is as high here


def records(message):
    """(set id, key, values) of each data record."""
    for one in message["sets"]:
        for record in one.get("records", ()):
            key, *values = record.values()
            yield one["id"], key, tuple(values)


def test_every_collector_knows_the_truth(lab, far):
    lab.namespace(f"ns-{LONG}")
    capture = Capture(lab, "dn0", ns=far, ports=PORTS.values())
    listeners = {a: listen(lab, "--address", a, "--port", p, ns=far) for a, p in PORTS.items()}

    def settings(timeout, rate):
        return edge({"four": "10.99.0.2", "six": ("fd99::2", 9995)}, dscp=46, template_interval="1s",
                    tracker={"inactive-timeout": f"{timeout}s", "sample-rate": rate}, vrfs={"red": 10})

    def heard(address):
        return [m for m in parse_json_lines(listeners[address].out()) if m["type"] == "message"]

    def wait_truth(timeout, rate, seconds=3.0):
        """All tables; the first nine fields of either flow template are its keys."""
        links = json.loads(run("ip", "-j", "link", "show"))
        truth = {**{(INTERFACE, i): (n,) for i, n in (PSEUDO | {FIRST_GIVEN: f"{LONG}/lo"} | {
            link["ifindex"]: link["ifname"] for link in links}).items()},
            **{(VRF, i): (n,) for i, n in {0: "default", 10: "red", 1: LONG, 0xFFFFFF: ""}.items()},
            **{(FLOW_KEY, t): (0x7FF,) for t in (256, 257)},
            (TRACKER, 7): ("edge", 60, timeout, 3, 1, rate, 1)}
        wait_for("every table everywhere", lambda: all(
            {r[:2]: r[2] for m in heard(a) for r in records(m)}.items() >= truth.items()
            for a in PORTS), seconds)

    agent = Agent(lab, settings(15, 1))
    wait_truth(15, 1, seconds=5)
    run("ip", "link", "add", "eth7", "type", "veth", "peer", "name", "eth8")
    wait_truth(15, 1)
    quiet = time.time()
    agent.reload(settings(5, 100))
    wait_truth(5, 100, seconds=5)
    for address in PORTS:
        told = [list(records(m)) for m in heard(address) if m["time"] > quiet and m["recordCount"]]
        assert told == [[(TRACKER, 7, ("edge", 60, 5, 3, 1, 100, 1))]], "this and nothing else"
    for entry in show_counters()["entries"]:
        last = {m["recordCount"] > 0: m["time"] for m in heard(entry["collectorAddress"])}
        assert abs(entry["lastOptionsDataTime"] - last[True]) < 0.3 * SLOW
        assert abs(entry["lastTemplateTime"] - last[False]) < 0.3 * SLOW
    assert agent.stop() == 0
    time.sleep(0.2)
    assert [p.stop() for p in listeners.values()] == [0] * 2, "malformed, or out of sequence"
    capture.stop()
    packets = tshark(capture.file, ports=PORTS.values())
    for address in PORTS:
        messages, decoded = heard(address), [d for d in packets if d.dst == address]
        assert len(decoded) == len(messages) and len({m["sourcePort"] for m in messages}) == 1
        for theirs, ours in zip(decoded, messages):
            assert theirs.tos == 46 << 2 and theirs.sequence == ours["sequence"]
            assert -1 < ours["time"] - ours["exportTime"] < 2 * SLOW
            assert [i for i, _ in theirs.records] == [r[0] for r in records(ours)]
        whole = {t.id: (t.scope_count, t.fields) for d in decoded for t in d.templates}
        assert whole == {**DATA_TEMPLATES, **OPTIONS_TEMPLATES}
        for kind in TEMPLATES:
            times = [m["time"] for m in messages if m["sets"][0]["id"] == kind]
            assert times and all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
