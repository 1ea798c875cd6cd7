"""The options tables at every collector: interfaces, VRFs, trackers and flow keys of real namespaces.

One run of the agent lives through everything that can happen; while it does, the fixture waits for
what each event must send and for nothing else, and afterwards the whole capture is judged by tshark,
by `tarnflow listen` and against the counters. Two trackers export to two collectors of each family;
one of them with the smallest mtu.
"""

import collections
import dataclasses
import json
import struct
import time

import pytest

from lab import SLOW, Lab, parse_json_lines, run, wait_for
from tarnflow import TOOL, Agent, collectors, config, exporter, show_counters
from wire import TEMPLATES, Capture, tshark

NEAR = ("10.99.0.1/24", "fd99::1/64")
COLLECTORS = {"a4": "10.99.0.2", "b4": "10.99.0.3", "a6": "fd99::2", "b6": "fd99::3"}
LATE = "10.99.0.4"
EDGE, CORE = 7, 8  # observation domains
MTU = {EDGE: 1500, CORE: 327}
STREAMS = {(domain, address) for domain in (EDGE, CORE) for address in COLLECTORS.values()}
LONG = "v" * 100  # the longest name of a VRF

VRF, INTERFACE, FLOW_KEY, TRACKER = range(65280, 65284)  # template ids
PSEUDO = {0x80000000: "multicast", 0x40000000: "discard", 0x3FFFFFFF: "CPU", 0: "unknown"}
FIRST_GIVEN = 0x1000000  # no kernel's index is as high here

SOON = 1 + 1.0     # seconds until a change is at the collectors: what coalesces it, and a margin
TRACKER_SOON = 3 + 1.0


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


def whole_tables(messages):
    """The picture that each whole transmission to one collector gives, with when it ended."""
    picture, found = None, []
    for m in messages:
        for set_id, key, values in records(m):
            if (set_id, key) == (INTERFACE, 0x80000000):  # the first record of all
                picture = {}
            if picture is None:
                continue
            assert (set_id, key) not in picture, f"twice in one transmission: {set_id} {key}"
            picture[set_id, key] = values
            if set_id == TRACKER:  # the last table, and its only record
                found.append((m.time, picture))
                picture = None
    return found


class Story:
    """What has happened, what is true now, and what the collectors heard of it."""

    def __init__(self, lab):
        self.lab = lab
        self.far = lab.namespace("tt-far")
        lab.veth("up0", "dn0", self.far)
        lab.address("up0", *NEAR)
        lab.address("dn0", *(f"{a}/{64 if ':' in a else 24}" for a in (*COLLECTORS.values(), LATE)),
                    ns=self.far)
        for vrf in ("red", LONG):
            lab.namespace(f"ns-{vrf}")
        run("ip", "-n", "ns-red", "link", "add", "r0", "type", "veth", "peer", "name", "r1")
        self.configured = {"red": 10}
        self.vrfs = {0: "default", 10: "red", 1: LONG, 0xFFFFFF: ""}
        self.index = {}  # of interfaces outside the default namespace, as first heard
        self.tracker = {EDGE: ("edge", 60, 15, 3, 1, 1, 1), CORE: ("core", 60, 15, 3, 1, 1000, 1)}
        self.late = {}
        self.capture = Capture(lab, "dn0", ns=self.far)
        self.listen = {a: lab.start(f"listen-{a}", TOOL, "listen", "--json", "--address", a, ns=self.far)
                       for a in (*COLLECTORS.values(), LATE)}
        for one in self.listen.values():
            wait_for("tarnflow listen listens", lambda one=one: "listening" in one.out())
        self.agent = Agent(lab, self.config())
        self.mark = 0

    def config(self):
        def tracker(domain, **late):
            _, active, inactive, _, _, rate, _ = self.tracker[domain]
            return {"id": domain, "sample-rate": rate, "active-interval": f"{active}s",
                    "inactive-timeout": f"{inactive}s",
                    "exporter": {"main": exporter("up0", collectors(**COLLECTORS, **late),
                                                  mtu=MTU[domain], template_interval="1s")}}
        return config({"edge": tracker(EDGE), "core": tracker(CORE, **self.late)},
                      vrfs=self.configured)

    def truth(self, domain):
        """All tables of a tracker; interfaces as the kernel has them."""
        found = {(INTERFACE, i): (n,) for i, n in PSEUDO.items()}
        for vrf in ("default", *self.vrfs.values()):
            if not vrf:
                continue
            ns = [] if vrf == "default" else ["-n", f"ns-{vrf}"]
            for link in json.loads(run("ip", "-j", *ns, "link", "show")):
                name = link["ifname"] if not ns else f"{vrf}/{link['ifname']}"
                index = link["ifindex"] if not ns else self.index[name]
                found[INTERFACE, index] = (name,)
        found.update({(VRF, i): (n,) for i, n in self.vrfs.items()})
        # The first nine fields of either flow template are its keys.
        found.update({(FLOW_KEY, t): (0x1FF,) for t in (256, 257)})
        found[TRACKER, domain] = self.tracker[domain]
        return found

    def learn(self, heard):
        """Remembers indexes given outside the default namespace: each is one interface's only."""
        for set_id, key, values in heard:
            if set_id == INTERFACE and "/" in values[0]:
                assert self.index.setdefault(values[0], key) == key, (key, values)
        assert len(set(self.index.values())) == len(self.index), self.index
        assert all(i >= FIRST_GIVEN for i in self.index.values()), self.index

    def news(self):
        """The records of each stream that came since the last settled moment."""
        found = {}
        for m in self.capture.messages()[self.mark:]:
            if is_data(m):
                found.setdefault((m.domain, m.dst), []).extend(records(m))
        return found

    def settle(self):
        self.mark = len(self.capture.messages())

    def expect(self, what, expected, streams=None, seconds=SOON):
        """These records, given as a function of what was heard, come to each of the streams; nothing
        else comes to anybody."""
        streams = streams or STREAMS | {(CORE, a) for a in self.late.values()}

        def right():
            news = self.news()
            return news.keys() == streams and all(
                sorted(heard) == sorted(expected(heard)) for heard in news.values())
        try:
            wait_for(what, right, seconds)
        except AssertionError as failed:
            raise AssertionError(f"{failed}: {self.news()}") from None
        time.sleep(0.1)
        assert right(), (what, self.news())
        self.settle()

    def silence(self, seconds):
        time.sleep(seconds)
        assert not self.news(), self.news()
        self.settle()

    def expect_tables(self, streams, since, seconds):
        """A whole transmission that began after `since` gave each stream the truth."""
        for stream in sorted(streams):
            def pictures(stream=stream):
                return [p for t, p in whole_tables(of(self.capture.messages(), stream))
                        if t > since and p]
            wait_for(f"whole tables at {stream}", pictures, seconds)
            assert pictures()[-1] == self.truth(stream[0]), stream


def interface(name, index=None):
    """A record about an interface; with an index of the agent's choice when none is given."""
    def record(heard):
        if index is not None:
            return INTERFACE, index, (name,)
        return INTERFACE, next((k for s, k, v in heard if s == INTERFACE and v == (name,)), None), (
            name,)
    return record


def told(*what):
    return lambda heard: [w(heard) if callable(w) else w for w in what]


def kernel_index(name):
    return json.loads(run("ip", "-j", "link", "show", "dev", name))[0]["ifindex"]


@dataclasses.dataclass
class Heard:
    """What the run left behind."""
    messages: list
    decoded: list
    listen: dict  # by collector's address
    counters: dict
    counted: int  # messages captured when the counters were read


def live(lab):
    story = Story(lab)
    capture, agent = story.capture, story.agent

    # At the start: whole tables, and then what was found while they went out.
    wait_for("the first tables", lambda: all(
        whole_tables(of(capture.messages(), s)) for s in STREAMS))
    time.sleep(SOON * SLOW)
    for stream in STREAMS:
        story.learn(r for m in of(capture.messages(), stream) for r in records(m))
        picture = {(s, k): v for m in of(capture.messages(), stream) for s, k, v in records(m)}
        assert picture == story.truth(stream[0]), stream
    story.settle()

    # Interfaces of the default namespace: added, renamed; down and up is no news.
    run("ip", "link", "add", "eth7", "type", "veth", "peer", "name", "eth8")
    lab.links.append("wan0")
    eth7, eth8 = kernel_index("eth7"), kernel_index("eth8")
    story.expect("two interfaces", told(interface("eth7", eth7), interface("eth8", eth8)))
    run("ip", "link", "set", "eth7", "name", "wan0")
    story.expect("a renamed interface", told(interface("wan0", eth7)))
    for state in ("up", "down"):
        run("ip", "link", "set", "eth8", state)
    # Interfaces of a VRF.
    run("ip", "-n", "ns-red", "link", "set", "r0", "name", "left")
    story.index["red/left"] = story.index.pop("red/r0")
    story.expect("a renamed interface of a VRF", told(interface("red/left", story.index["red/left"])))
    run("ip", "-n", "ns-red", "link", "add", "r2", "type", "veth", "peer", "name", "r3")
    story.expect("two interfaces of a VRF",
                 lambda heard: story.learn(heard) or told(interface("red/r2"),
                                                          interface("red/r3"))(heard))

    # A VRF that nobody configured comes with its interfaces; then it is configured.
    run("ip", "netns", "add", "ns-blue")
    lab.namespaces.append("ns-blue")
    links = [f"blue/{x['ifname']}" for x in json.loads(run("ip", "-n", "ns-blue", "-j", "link"))]
    story.vrfs[2] = "blue"
    story.expect("a VRF and its interfaces", lambda heard: story.learn(heard) or told(
        (VRF, 2, ("blue",)), *(interface(n) for n in links))(heard))
    story.configured["blue"] = 20
    story.vrfs[20] = story.vrfs.pop(2)
    agent.reload(story.config())
    story.expect("the VRF's configured id", told((VRF, 20, ("blue",))))

    # What goes is told by the next whole tables only.
    run("ip", "-n", "ns-red", "link", "del", "r2")
    run("ip", "link", "del", "wan0")
    lab.namespace_del("ns-blue")
    story.index = {n: i for n, i in story.index.items()
                   if n not in ("red/r2", "red/r3") and not n.startswith("blue/")}
    del story.configured["blue"], story.vrfs[20]
    agent.reload(story.config())
    story.silence(SOON * SLOW)

    # The tracker's sampling and time-outs: one record, to its collectors only.
    ports = {s: of(capture.messages(), s)[0].src_port for s in STREAMS}
    story.tracker[EDGE] = ("edge", 60, 5, 3, 1, 100, 1)
    agent.reload(story.config())
    edge = {s for s in STREAMS if s[0] == EDGE}
    story.expect("the tracker's parameters", told((TRACKER, EDGE, story.tracker[EDGE])), edge,
                 TRACKER_SOON)
    # The active interval is the tables' period, too: whole tables every two seconds.
    story.tracker[EDGE] = ("edge", 2, 5, 3, 1, 100, 1)
    changed = time.time()
    agent.reload(story.config())
    story.expect_tables(edge, changed + TRACKER_SOON, 3 * 2 + 1)
    for stream in edge:
        times = [t for t, _ in whole_tables(of(capture.messages(), stream)) if t > changed]
        assert len(times) >= 2 and all(abs(b - a - 2) < 0.2 * SLOW for a, b in zip(times, times[1:]))
    assert {s for s in story.news() if s[0] == CORE} == set()
    story.tracker[EDGE] = ("edge", 60, 5, 3, 1, 100, 1)
    agent.reload(story.config())
    time.sleep(TRACKER_SOON * SLOW)
    assert {s for s in story.news() if s[0] == CORE} == set()
    story.settle()
    assert {s: of(capture.messages(), s)[-1].src_port for s in STREAMS} == ports

    # A collector that comes late: templates, then everything, at once; others hear nothing of it.
    story.late["late"] = LATE
    late_at = time.time()
    agent.reload(story.config())
    story.expect_tables({(CORE, LATE)}, late_at, 0.5)
    time.sleep(0.3)
    assert story.news().keys() == {(CORE, LATE)}
    story.settle()
    # From then on it hears what the others hear.
    run("ip", "link", "add", "last0", "type", "veth", "peer", "name", "last1")
    lab.links.append("last0")
    story.expect("interfaces for all", told(*(interface(n, kernel_index(n))
                                              for n in ("last0", "last1"))))

    # When as many are captured as are counted, between two rounds of templates, they are the same.
    def quiet():
        before = len(capture.messages())
        found = show_counters()["entries"]
        total = sum(e["messages"] for e in found)
        return len(capture.messages()) == before == total and (before, found)
    counted, entries = wait_for("a quiet moment", quiet)
    assert agent.stop() == 0
    time.sleep(0.2)
    messages = capture.messages()
    for one in story.listen.values():
        assert one.stop() == 0, one.log()
    capture.stop()
    ids = {"edge": EDGE, "core": CORE}
    counters = {(ids[e["tracker"]], e["collectorAddress"]): e for e in entries}
    assert len(counters) == len(entries)
    listen = {a: parse_json_lines(one.out()) for a, one in story.listen.items()}
    return Heard(messages, tshark(capture.file), listen, counters, counted)


@pytest.fixture(scope="module")
def heard(tmp_path_factory):
    lab = Lab(tmp_path_factory.mktemp("options"))
    try:
        yield live(lab)
    except BaseException:
        print(lab.report())
        raise
    finally:
        lab.close()


ALL = sorted(STREAMS | {(CORE, LATE)})


def in_tshark(set_id, fields):
    """One of tshark's records in the form of ours."""
    def number(name):
        return int(fields[name])
    if set_id == FLOW_KEY:
        return set_id, number("cflow.template_id"), (
            int(fields["cflow.post_key"].replace(":", ""), 16),)
    if set_id == INTERFACE:
        return set_id, number("cflow.inputint"), (fields["cflow.if_name"],)
    if set_id == VRF:
        return set_id, number("cflow.ingress_vrfid"), (fields.get("cflow.vrfname", ""),)
    assert set_id == TRACKER, set_id
    return set_id, number("cflow.od_id"), (
        fields["cflow.observation_domain_name"], number("cflow.flow_active_timeout"),
        number("cflow.flow_inactive_timeout"), number("cflow.selector_algorithm"),
        number("cflow.sampling_size"), number("cflow.sampling_population"),
        int(fields["cflow.enterprise_private_entry"].replace(":", ""), 16))


def test_tshark_decodes_every_record(heard):
    """tshark() itself fails on a set without its template and on any sequence number."""
    assert len(heard.decoded) == len(heard.messages)
    kinds = collections.Counter()
    for theirs, ours in zip(heard.decoded, heard.messages):
        assert (theirs.dst, theirs.domain, theirs.sequence) == (ours.dst, ours.domain, ours.sequence)
        decoded = [in_tshark(*r) for r in theirs.records]
        assert decoded == list(records(ours))
        kinds.update(r[0] for r in decoded)
    assert kinds.keys() == {VRF, INTERFACE, FLOW_KEY, TRACKER}


@pytest.mark.parametrize("stream", ALL)
def test_sequence_numbers_and_sizes(heard, stream):
    messages = of(heard.messages, stream)
    sent = 0
    for m in messages:
        assert m.sequence == sent
        sent += len(list(records(m)))
        assert m.length <= MTU[stream[0]] - 48
    # Templates and tables are mixed, and tables never come before their templates.
    kinds = [m.sets[0][0] for m in messages]
    first = next(i for i, m in enumerate(messages) if is_data(m))
    assert {2, 3} >= set(kinds[:first]) >= {3}
    assert sum(k == 3 for k in kinds[first:]) >= (1 if stream[1] == LATE else 10)


def test_small_and_large_messages(heard):
    """Tables that do not fit into one message are cut between records, and fill messages."""
    for domain, whole in ((CORE, False), (EDGE, True)):
        first = [m for m in of(heard.messages, (domain, "10.99.0.2")) if is_data(m)][0]
        found = {set_id for set_id, _ in first.sets}
        assert (found == {VRF, INTERFACE, FLOW_KEY, TRACKER}) == whole, first.sets


def test_counters_are_what_was_captured(heard):
    assert heard.counters.keys() == set(ALL)
    for stream, entry in heard.counters.items():
        messages = of(heard.messages[:heard.counted], stream)
        found = collections.Counter(r[0] for m in messages for r in records(m))
        assert entry["messages"] == len(messages)
        assert entry["octets"] == sum(m.length for m in messages)
        assert entry["records"] == sum(found.values())
        rounds = {kind: sum(m.sets[0][0] == kind for m in messages) for kind in TEMPLATES}
        assert {s["id"]: (s["records"], s["templates"]) for s in entry["sets"]} == {
            2: (0, 2 * rounds[2]), 3: (0, 4 * rounds[3]), **{i: (n, 0) for i, n in found.items()}}
        last = [m for m in messages if is_data(m)][-1]
        assert abs(entry["lastOptionsDataTime"] - last.time) < 0.1 * SLOW
        assert entry["lastDataTime"] is None


