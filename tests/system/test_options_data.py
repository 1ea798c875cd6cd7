"""Templates and options tables at every collector, through what may happen in one run of the agent.
Afterwards all that they were sent is judged by tshark. (Interfaces and VRFs that come, go and change
their names are for the random life; what is counted, for the model of OptionsDataModelTest.cpp.)

Two trackers export to collectors of both families; one of them with the smallest mtu.
"""

import json
import time

from lab import SLOW, parse_json_lines, run, wait_for
from tarnflow import DATA_TEMPLATES, OPTIONS_TEMPLATES, Agent, config, exporter, listen, show_counters
from tarnflow import collectors as to
from wire import TEMPLATES, Capture, tshark

COLLECTORS = {"four": "10.99.0.2", "six": ("fd99::2", 9995)}
PORTS = {"10.99.0.2": 4739, "fd99::2": 9995}
EDGE, CORE = 7, 8  # observation domains
MTU = {EDGE: 1500, CORE: 327}
DSCP = {EDGE: 46, CORE: 0}
STREAMS = {(domain, address) for domain in (EDGE, CORE) for address in PORTS}
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


def is_data(message):
    return message["sets"][0]["id"] not in TEMPLATES


def test_every_collector_knows_the_truth(lab):
    far = lab.far()
    lab.namespace(f"ns-{LONG}")
    tracker = {EDGE: ("edge", 60, 15, 3, 1, 1, 1), CORE: ("core", 60, 15, 3, 1, 1000, 1)}
    capture = Capture(lab, "dn0", ns=far, ports=(4739, 9995))
    listeners = {a: listen(lab, "--address", a, "--port", p, ns=far) for a, p in PORTS.items()}

    def settings():
        def one(domain):
            _, active, inactive, _, _, rate, _ = tracker[domain]
            return {"id": domain, "sample-rate": rate, "active-interval": f"{active}s",
                    "inactive-timeout": f"{inactive}s",
                    "exporter": {"main": exporter("up0", to(**COLLECTORS), mtu=MTU[domain],
                                                  dscp=DSCP[domain], template_interval="1s")}}
        return config({"edge": one(EDGE), "core": one(CORE)}, vrfs={"red": 10})

    def heard(stream):
        return [m for m in parse_json_lines(listeners[stream[1]].out())
                if m.get("domain") == stream[0]]

    def truth(domain):
        """All tables of a tracker."""
        found = {(INTERFACE, i): (n,) for i, n in (PSEUDO | {FIRST_GIVEN: f"{LONG}/lo"}).items()}
        for link in json.loads(run("ip", "-j", "link", "show")):
            found[INTERFACE, link["ifindex"]] = (link["ifname"],)
        vrfs = {0: "default", 10: "red", 1: LONG, 0xFFFFFF: ""}
        # The first nine fields of either flow template are its keys.
        return {**found, **{(VRF, i): (n,) for i, n in vrfs.items()},
                **{(FLOW_KEY, t): (0x1FF,) for t in (256, 257)}, (TRACKER, domain): tracker[domain]}

    def wait_truth(what, *streams, seconds=3.0):
        def knows():
            return all({r[:2]: r[2] for m in heard(s) for r in records(m)}.items() >=
                       truth(s[0]).items() for s in streams)
        wait_for(f"{what} at {streams}", knows, seconds)

    agent = Agent(lab, settings())
    wait_truth("the first tables", *STREAMS, seconds=5)
    run("ip", "link", "add", "eth7", "type", "veth", "peer", "name", "eth8")
    wait_truth("interfaces", *STREAMS)

    # The tracker's sampling and time-outs: one record, to its collectors only.
    quiet = time.time()
    tracker[EDGE] = ("edge", 60, 5, 3, 1, 100, 1)
    agent.reload(settings())
    ours = [s for s in STREAMS if s[0] == EDGE]
    wait_truth("the tracker's parameters", *ours, seconds=5)
    told = {s: [list(records(m)) for m in heard(s) if is_data(m) and m["time"] > quiet]
            for s in STREAMS}
    assert told == {s: [[(TRACKER, EDGE, tracker[EDGE])]] if s in ours else [] for s in STREAMS}

    for entry in show_counters()["entries"]:
        stream = {"edge": EDGE, "core": CORE}[entry["tracker"]], entry["collectorAddress"]
        last = {is_data(m): m["time"] for m in heard(stream)}
        assert abs(entry["lastOptionsDataTime"] - last[True]) < 0.3 * SLOW
        assert abs(entry["lastTemplateTime"] - last[False]) < 0.3 * SLOW
    assert agent.stop() == 0
    time.sleep(0.2)
    assert [p.stop() for p in listeners.values()] == [0] * 2, "malformed, or out of sequence"
    capture.stop()
    decoded = tshark(capture.file, ports=(4739, 9995))
    for stream in STREAMS:
        on_the_wire(stream, heard(stream), [d for d in decoded if (d.domain, d.dst) == stream])


def on_the_wire(stream, messages, decoded):
    """tshark() itself fails on a set before its template and on any wrong sequence number."""
    assert len(decoded) == len(messages) and len({m["sourcePort"] for m in messages}) == 1
    for theirs, ours in zip(decoded, messages):
        assert theirs.length <= MTU[stream[0]] - 48 and theirs.tos == DSCP[stream[0]] << 2
        assert theirs.sequence == ours["sequence"]
        assert -1 < ours["time"] - ours["exportTime"] < 2 * SLOW
        assert [i for i, _ in theirs.records] == [r[0] for r in records(ours)]
    whole = {t.id: (t.scope_count, t.fields) for d in decoded for t in d.templates}
    assert whole == {**DATA_TEMPLATES, **OPTIONS_TEMPLATES}
    for kind in TEMPLATES:
        times = [m["time"] for m in messages if m["sets"][0]["id"] == kind]
        assert times and all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
