"""Five hundred reloads at random, right and wrong ones, while flows are tracked: what is the same in
all of them hears nothing of the others."""

import os
import random

import traffic
from lab import AGENT_WRAP, SLOW, descriptors, parse_json_lines, resident_kib, run, wait_for
from tarnflow import Agent, collectors, config, counters, exporter, listen
from wire import Capture, no_faults

RELOADS = int(os.environ.get("TARN_RELOADS", 500)) if SLOW == 1 else 30
STEADY = {"steady4": "10.99.0.2", "steady6": "fd99::2"}


def steady():
    return {"id": 7, "interfaces": ["in0"], "inactive-timeout": "1s", "active-interval": "2s",
            "exporter": {"main": exporter("up0", collectors(**STEADY), template_interval="1s")}}


def other_exporter(rng):
    names = rng.sample(["a", "b", "c", "d"], rng.randrange(4))
    return exporter(rng.choice(["up0", "lo", "nowhere"]),
                    collectors(**{n: (rng.choice(["10.99.0.3", "10.99.0.4", "fd99::3", "nobody"]),
                                      2000 + i) for i, n in enumerate(names)}),
                    dscp=rng.randrange(64), mtu=rng.choice([327, 1500]),
                    template_interval=rng.choice(["1s", "7s"]),
                    vrf=rng.choice(["default", "default", "blue"]))


def one(rng):
    """A right configuration: the steady part, and anything else."""
    edge = steady()
    edge["sample-rate"] = 1
    edge["exporter"].update({f"e{i}": other_exporter(rng) for i in range(rng.randrange(3))})
    edge["exporter"]["main"]["collector"].update(
        collectors(**{f"c{i}": (rng.choice(["10.99.0.3", "fd99::3"]), 3000 + i)
                      for i in range(rng.randrange(4))}))
    found = {"edge": edge}
    for i in range(rng.randrange(3)):
        found[f"t{i}"] = {"id": rng.choice([20, 30]) + i, "type": rng.choice(["software", "hardware"]),
                          "interfaces": rng.choice([[], ["in0"], ["blue/*"]]),
                          "local-port": 5000 + i, "sample-rate": rng.choice([1, 10]),
                          "exporter": {f"e{j}": other_exporter(rng) for j in range(rng.randrange(3))}}
    return config(found, vrfs=rng.choice([{}, {"blue": 3}, {"blue": 4, "red": 5}]))


def wrong(rng, text):
    cut = rng.randrange(len(text))
    return rng.choice([lambda: text[:cut] + "= =\n" + text[cut:],
                       lambda: text + '[tracker.x]\nid = 7\n',
                       lambda: text + "colour = 1\n",
                       lambda: text.replace('"10.99.0.2"', '"224.0.0.1"'),
                       lambda: text.replace("id = 7", "id = -7")])()


def test_reload_storm(lab, far):
    seed = int(os.environ.get("TARN_SEED", random.randrange(1 << 32)))
    print("TARN_SEED", seed)
    rng = random.Random(seed)
    lab.source()
    lab.namespace("ns-blue")
    steady_ones = {a: listen(lab, "--quiet-data", "--address", a, ns=far) for a in STEADY.values()}
    capture = Capture(lab, "dn0", ns=far)
    base = config({"edge": steady()})
    agent = Agent(lab, base)
    agent.program.wait_log("tracking flows on in0")
    again = f"while :; do /usr/bin/python3 {traffic.__file__} src0 300; sleep 0.2; done"
    sender = lab.start("traffic", "sh", "-c", again, ns="tt-src")
    capture.wait_until("flows of both families", lambda ms: {256, 257} <= {m.sets[0][0] for m in ms},
                       15)
    fds = memory = None
    refused = 0
    for n in range(RELOADS):
        if n in (RELOADS // 2, RELOADS - 1):
            agent.reload(base)  # the same as at the start, to compare
            if fds is None:
                fds, memory = descriptors(agent.pid).total(), resident_kib(agent.pid)
            continue
        text = one(rng)
        bad = rng.random() < 0.3
        refused += bad
        agent.reload(wrong(rng, text) if bad else text)
    capture.wait_until("rounds of templates, however few the reloads were", lambda ms: sum(
        m.sets[0][0] == 2 and m.dst in STEADY.values() for m in ms) >= 8, 10)
    wait_for("as many descriptors as before", lambda: descriptors(agent.pid).total() <= fds)
    grown = resident_kib(agent.pid) - memory
    print(f"{RELOADS} reloads, {refused} of them wrong; {grown} KiB more, {fds} descriptors")
    # Few reloads end before the heap has found its size.
    assert AGENT_WRAP or RELOADS < 500 or grown < 4096, f"{grown} KiB more"
    assert agent.program.log().count("not reloaded") == refused
    assert set(counters()) == set(STEADY.values())
    run("kill", sender.pid)
    assert agent.stop() == 0
    for address, program in steady_ones.items():
        assert program.stop() == 0, program.log()[-2000:]
        (stream,) = parse_json_lines(program.out())[-1]["streams"]
        assert not stream["sequenceErrors"] + stream["malformed"] + stream["unknownSets"], stream
        assert stream["records"] > 300, stream
        messages = [m for m in capture.messages(dst=address) if m.dst_port == 4739 and m.domain == 7]
        assert len({m.src_port for m in messages}) == 1
        assert stream["messages"] == len(messages)
        times = [m.time for m in messages if m.sets[0][0] == 2]
        # A layout, an id or an endpoint that changed would send at once: only the period does.
        assert all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
    capture.stop()
    no_faults(capture.file)
