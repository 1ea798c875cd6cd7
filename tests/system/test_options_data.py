"""Templates and options tables at every collector: interfaces, VRFs, trackers and flow keys of real
namespaces.

One run of the agent lives through everything that can happen; after each event every collector must
know the truth, and afterwards the whole capture is judged by tshark, by `tarnflow listen` and against
the counters. Two trackers export to two collectors of each family; one of them with the smallest mtu.
"""

import collections
import json
import struct
import time

from lab import SLOW, run, wait_for
from tarnflow import (DATA_TEMPLATES, OPTIONS_TEMPLATES, Agent, config, exporter, listen,
                      show_counters)
from tarnflow import collectors as to
from wire import TEMPLATES, Capture, tshark

COLLECTORS = {"a4": "10.99.0.2", "b4": ("10.99.0.3", 9995), "a6": "fd99::2", "b6": ("fd99::3", 9995)}
ADDRESSES = ("10.99.0.2", "10.99.0.3", "fd99::2", "fd99::3")
LATE = "10.99.0.4"
EDGE, CORE = 7, 8  # observation domains
MTU = {EDGE: 1500, CORE: 327}
DSCP = {EDGE: 46, CORE: 0}
STREAMS = {(domain, address) for domain in (EDGE, CORE) for address in ADDRESSES}
LONG = "v" * 100  # the longest name of a VRF

VRF, INTERFACE, FLOW_KEY, TRACKER = range(65280, 65284)  # template ids
PSEUDO = {0x80000000: "multicast", 0x40000000: "discard", 0x3FFFFFFF: "CPU", 0: "unknown"}
FIRST_GIVEN = 0x1000000  # no kernel's index is as high here

# Seconds until a change is at the collectors: what coalesces it, and a margin.
SOON, TRACKER_SOON = 1 + 2.0, 3 + 2.0


def records(message):
    """(set id, key, values) of each data record, by the layout that the templates give."""
    at = 16
    for set_id, length in message.sets:
        end, pos = at + length, at + 4
        while set_id not in TEMPLATES and pos < end:
            if set_id == FLOW_KEY:
                key, bits = struct.unpack_from(">HQ", message.octets, pos)
                pos += 10
                yield set_id, key, (bits,)
                continue
            key, name_len = struct.unpack_from(">IB", message.octets, pos)
            name = message.octets[pos + 5:pos + 5 + name_len].decode()
            pos += 5 + name_len
            values = ()
            if set_id == TRACKER:
                values = struct.unpack_from(">HHHIIH", message.octets, pos)
                pos += 16
            assert pos <= end, "a record longer than its set"
            yield set_id, key, (name, *values)
        at = end


def is_data(message):
    return message.sets[0][0] not in TEMPLATES


def of(messages, stream):
    return [m for m in messages if (m.domain, m.dst) == stream]


class Story:
    """What is true now, and what the collectors know of it."""

    def __init__(self, lab):
        far = lab.far()
        for vrf in ("red", LONG):
            lab.namespace(f"ns-{vrf}")
        run("ip", "-n", "ns-red", "link", "add", "r0", "type", "veth", "peer", "name", "r1")
        self.configured = {"red": 10}
        self.vrfs = {0: "default", 10: "red", 1: LONG, 0xFFFFFF: ""}
        self.tracker = {EDGE: ("edge", 60, 15, 3, 1, 1, 1), CORE: ("core", 60, 15, 3, 1, 1000, 1)}
        self.late = {}
        self.capture = Capture(lab, "dn0", ns=far, ports=(4739, 9995))
        self.listen = [listen(lab, "--address", a, "--port", port, ns=far)
                       for a, port in zip((*ADDRESSES, LATE), (4739, 9995) * 2 + (4739,))]
        self.agent = Agent(lab, self.config())

    def config(self):
        def tracker(domain, **late):
            _, active, inactive, _, _, rate, _ = self.tracker[domain]
            return {"id": domain, "sample-rate": rate, "active-interval": f"{active}s",
                    "inactive-timeout": f"{inactive}s",
                    "exporter": {"main": exporter("up0", to(**COLLECTORS, **late), mtu=MTU[domain],
                                                  dscp=DSCP[domain], template_interval="1s")}}
        return config({"edge": tracker(EDGE), "core": tracker(CORE, **self.late)},
                      vrfs=self.configured)

    def reload(self):
        self.agent.reload(self.config())

    def truth(self, domain, index):
        """All tables of a tracker; interfaces as the kernel has them. `index` are those that the
        agent gave outside the default namespace."""
        found = {(INTERFACE, i): (n,) for i, n in PSEUDO.items()}
        for vrf in filter(None, self.vrfs.values()):
            ns = [] if vrf == "default" else ["-n", f"ns-{vrf}"]
            for link in json.loads(run("ip", "-j", *ns, "link", "show")):
                name = link["ifname"] if not ns else f"{vrf}/{link['ifname']}"
                found[INTERFACE, link["ifindex"] if not ns else index.get(name)] = (name,)
        found.update({(VRF, i): (n,) for i, n in self.vrfs.items()})
        # The first nine fields of either flow template are its keys.
        found.update({(FLOW_KEY, t): (0x1FF,) for t in (256, 257)})
        found[TRACKER, domain] = self.tracker[domain]
        return found

    def picture(self, stream):
        """What a collector knows: of each record the last it heard."""
        return {(s, k): v for m in of(self.capture.messages(), stream) for s, k, v in records(m)}

    def index(self, stream):
        """The interfaces that it knows outside the default namespace."""
        found = {v[0]: k for (s, k), v in self.picture(stream).items()
                 if s == INTERFACE and "/" in v[0]}
        assert len(set(found.values())) == len(found), found
        assert all(i >= FIRST_GIVEN for i in found.values()), found
        return found

    def wait_truth(self, what, seconds=SOON):
        for stream in STREAMS | {(CORE, a) for a in self.late.values()}:
            def knows(stream=stream):
                picture = self.picture(stream)
                return picture and picture.items() >= self.truth(
                    stream[0], self.index(stream)).items()
            wait_for(f"{what}, at {stream}", knows, seconds)


def test_every_collector_knows_the_truth(lab):
    story = Story(lab)
    capture, agent, one = story.capture, story.agent, (EDGE, "fd99::2")
    story.wait_truth("the first tables", 5)

    run("ip", "link", "add", "eth7", "type", "veth", "peer", "name", "eth8")
    lab.links += ["wan0", "last0"]
    story.wait_truth("interfaces")
    before = story.index(one)
    run("ip", "link", "set", "eth7", "name", "wan0")
    run("ip", "-n", "ns-red", "link", "set", "r0", "name", "left")
    story.wait_truth("renamed interfaces")
    assert story.index(one)["red/left"] == before["red/r0"]

    # A VRF that nobody configured comes with its interfaces; then it is configured.
    lab.namespace("ns-blue")
    story.vrfs[2] = "blue"
    story.wait_truth("a VRF and its interfaces")
    story.configured["blue"] = 20
    story.vrfs[20] = story.vrfs.pop(2)
    story.reload()
    story.wait_truth("the VRF's configured id")

    # What goes is told by the next whole tables only; down and up is no news.
    time.sleep(SOON * SLOW)
    quiet = sum(map(is_data, capture.messages()))
    run("ip", "link", "set", "eth8", "up")
    run("ip", "link", "del", "wan0")
    lab.namespace_del("ns-blue")
    del story.configured["blue"], story.vrfs[20]
    story.reload()
    time.sleep(SOON * SLOW)
    assert sum(map(is_data, capture.messages())) == quiet

    # The tracker's sampling and time-outs: one record, to its collectors only.
    story.tracker[EDGE] = ("edge", 60, 5, 3, 1, 100, 1)
    story.reload()
    story.wait_truth("the tracker's parameters", TRACKER_SOON)
    new = [m for m in capture.messages() if is_data(m)][quiet:]
    assert {(m.domain, m.dst) for m in new} == {s for s in STREAMS if s[0] == EDGE}
    assert all(list(records(m)) == [(TRACKER, EDGE, story.tracker[EDGE])] for m in new)

    # A collector that comes late: templates, then everything, at once; others hear nothing of it.
    story.late["late"] = LATE
    story.reload()
    late = CORE, LATE
    wait_for("whole tables at once",
             lambda: story.picture(late) == story.truth(CORE, story.index(late)))
    time.sleep(0.3)
    told = [m for m in capture.messages() if is_data(m) and m.time > new[-1].time]
    assert {m.dst for m in told} == {LATE}
    assert told[-1].time - of(capture.messages(), late)[0].time < 0.5 * SLOW
    # From then on it hears what the others hear.
    run("ip", "link", "add", "last0", "type", "veth", "peer", "name", "last1")
    story.wait_truth("interfaces for all")

    # When as many are captured as are counted, between two rounds of templates, they are the same.
    def quiet_moment():
        before = capture.messages()
        found = show_counters()["entries"]
        total = sum(e["messages"] for e in found)
        return len(capture.messages()) == len(before) == total and (before, found)
    messages, entries = wait_for("a quiet moment", quiet_moment)
    counted_as_captured(messages, entries)
    assert agent.stop() == 0
    time.sleep(0.2)
    assert [program.stop() for program in story.listen] == [0] * 5, "malformed, or out of sequence"
    capture.stop()
    on_the_wire(capture.messages(), tshark(capture.file, ports=(4739, 9995)))


def counted_as_captured(messages, entries):
    counters = {({"edge": EDGE, "core": CORE}[e["tracker"]], e["collectorAddress"]): e
                for e in entries}
    assert len(counters) == len(entries) and counters.keys() == STREAMS | {(CORE, LATE)}
    for stream, entry in counters.items():
        captured = of(messages, stream)
        found = collections.Counter(r[0] for m in captured for r in records(m))
        assert entry["messages"] == len(captured)
        assert entry["octets"] == sum(m.length for m in captured)
        assert entry["records"] == sum(found.values())
        rounds = {kind: sum(m.sets[0][0] == kind for m in captured) for kind in TEMPLATES}
        assert {s["id"]: (s["records"], s["templates"]) for s in entry["sets"]} == {
            2: (0, 2 * rounds[2]), 3: (0, 4 * rounds[3]), **{i: (n, 0) for i, n in found.items()}}
        last = {is_data(m): m.time for m in captured}
        assert abs(entry["lastOptionsDataTime"] - last[True]) < 0.3 * SLOW
        assert abs(entry["lastTemplateTime"] - last[False]) < 0.3 * SLOW
        assert entry["lastMessageTime"] == max(entry["lastTemplateTime"],
                                               entry["lastOptionsDataTime"])
        assert entry["lastDataTime"] is entry["lastClearedTime"] is None


def on_the_wire(messages, decoded):
    """tshark() itself fails on a set before its template and on any wrong sequence number."""
    assert len(decoded) == len(messages)
    kinds = collections.Counter()
    for theirs, ours in zip(decoded, messages):
        assert (theirs.dst, theirs.domain, theirs.sequence) == (ours.dst, ours.domain, ours.sequence)
        assert theirs.length <= MTU[theirs.domain] - 48 and theirs.tos == DSCP[theirs.domain] << 2
        assert 0 <= ours.time - ours.export_time < 2 * SLOW
        assert collections.Counter(i for i, _ in theirs.records) == collections.Counter(
            r[0] for r in records(ours))
        kinds.update(i for i, _ in theirs.records)
    assert kinds.keys() == {VRF, INTERFACE, FLOW_KEY, TRACKER}
    for stream in STREAMS:
        captured = of(messages, stream)
        assert len({(m.src, m.src_port, m.dst_port) for m in captured}) == 1
        whole = {t.id: (t.scope_count, t.fields) for d in of(decoded, stream) for t in d.templates}
        assert whole == {**DATA_TEMPLATES, **OPTIONS_TEMPLATES}
        for kind in TEMPLATES:
            times = [m.time for m in captured if m.sets[0][0] == kind]
            gaps = [b - a for a, b in zip(times, times[1:])]
            assert len(gaps) > 3 and all(abs(g - 1) < 0.3 * SLOW for g in gaps), gaps
