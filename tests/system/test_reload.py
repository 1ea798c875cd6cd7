"""A reload changes what changed in the file and nothing else."""

import json
import re

import pytest

from lab import SLOW, run, wait_for
from tarnflow import TOOL, Agent, collectors, config, counters, exporter
from wire import TEMPLATES, Capture, tshark

HERE4, HERE6 = "10.97.0.1", "fd97::1"


@pytest.fixture
def far(lab):
    name = lab.namespace("tt-far")
    lab.veth("up0", "dn0", name)
    lab.address("up0", f"{HERE4}/24", f"{HERE6}/64")
    lab.address("dn0", *(f"10.97.0.{n}/24" for n in range(2, 6)), *(f"fd97::{n}/64" for n in (2, 3)),
                ns=name)
    return name


def trackers(interval="1s", **addresses):
    return {"edge": {"id": 7, "exporter": {"main": exporter("up0", collectors(**addresses),
                                                            template_interval=interval)}}}


def rounds(messages):
    """Times at which a collector's data templates came."""
    return [m.time for m in messages if m.sets[0][0] == 2]


def test_one_collector_more_and_one_less(lab, far):
    before = {"a": "10.97.0.2", "b": "10.97.0.3", "six": "fd97::2"}
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    agent = Agent(lab, config(trackers("3s", **before)))
    for address in before.values():
        capture.wait(4, dst=address, seconds=6)
    ports = {a: capture.messages(dst=a)[0].src_port for a in before.values()}
    quiet = {a: len(capture.messages(dst=a)) for a in before.values()}

    # Half a period later, so that a timer which starts anew shows.
    wait_for("half a period", half_a_period_after(capture, "10.97.0.2", 1.5))
    agent.reload(config(trackers("3s", **before, new="10.97.0.4")))
    capture.wait(2, dst="10.97.0.4", seconds=1)
    assert {a: len(capture.messages(dst=a)) for a in before.values()} == quiet

    # The new one joins the period of the others, whose rounds go on as if nothing had been.
    capture.wait(4, dst="10.97.0.4", seconds=4)
    for address in before.values():
        messages = capture.wait(quiet[address] + 2, dst=address, seconds=1)
        assert {m.src_port for m in messages} == {ports[address]}
        times = rounds(messages)
        assert all(abs(b - a - 3) < 0.2 * SLOW for a, b in zip(times, times[1:])), times
    assert capture.messages(dst="10.97.0.4")[0].src_port == ports["10.97.0.2"]

    # One leaves: its counters go at once, the others' stay and go on.
    assert set(counters()) == {*before.values(), "10.97.0.4"}
    agent.reload(config(trackers("3s", **{k: v for k, v in before.items() if k != "a"},
                                 new="10.97.0.4")))
    assert set(counters()) == {"10.97.0.3", "fd97::2", "10.97.0.4"}
    gone = len(capture.messages(dst="10.97.0.2"))
    capture.wait(len(capture.messages(dst="10.97.0.3")) + 2, dst="10.97.0.3", seconds=4)
    assert len(capture.messages(dst="10.97.0.2")) == gone

    # Another address: heard there at once, and the entry of the old address is gone.
    agent.reload(config(trackers("3s", b="10.97.0.5", six="fd97::3", new="10.97.0.4")))
    capture.wait(2, dst="10.97.0.5", seconds=1)
    capture.wait(2, dst="fd97::3", seconds=1)
    assert set(counters()) == {"10.97.0.5", "fd97::3", "10.97.0.4"}
    assert agent.stop() == 0
    capture.stop()
    tshark(capture.file)  # every stream's sequence numbers go on over the reloads


def half_a_period_after(capture, address, seconds):
    import time
    last = capture.messages(dst=address)[-1].time
    return lambda: time.time() > last + seconds


def test_interval_changes(lab, far):
    """A new interval sends at once and then holds; the port stays."""
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    agent = Agent(lab, config(trackers("60s", a="10.97.0.2")))
    capture.wait(2)
    agent.reload(config(trackers("1s", a="10.97.0.2")))
    messages = capture.wait(8, seconds=5)
    assert len({m.src_port for m in messages}) == 1
    times = rounds(messages)
    assert all(abs(b - a - 1) < 0.2 * SLOW for a, b in zip(times[1:], times[2:])), times
    assert agent.stop() == 0


# What is wrong -> line of the file it is in, and what the message says besides.
FAULTS = {
    'dscp = 64': ("dscp", "64", "0 to 63"),
    'dscp = "high"': ("dscp", '"high"', "0 to 63"),
    'mtu = 100': ("mtu", "100", "65535"),
    'template-interval = "0s"': ("template-interval", '"0s"', "1s"),
    'template-interval = "20h"': ("template-interval", '"20h"', "65535s"),
    'dcsp = 46': ("dcsp", "dscp"),
    'collector.bad.address = "10.0.0.256"': ("bad", '"10.0.0.256"', "IPv6"),
    'vrf = "' + "x" * 200 + '"': ("vrf", "100 octets"),
    'dscp = = 3': (),
}


def test_a_file_with_an_error_changes_nothing(lab, far):
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    right = config(trackers(a="10.97.0.2"))
    agent = Agent(lab, right)
    capture.wait(4, seconds=3)
    head, tail = right.split("template-interval", 1)
    for fault, said in FAULTS.items():
        # In the exporter's section, and with a change beside it that must not happen.
        text = (head + fault + "\n" + ("" if "interval" in fault else "template-interval") +
                (tail if "interval" not in fault else tail.split("\n", 1)[1]))
        line = head.count("\n") + 1
        before = len(agent.program.log())
        agent.reload(text.replace("10.97.0.2", "10.97.0.3"), ready=False)
        where = wait_for(f"the error of {fault}", lambda b=before, n=line: re.search(
            rf"^.*{re.escape(str(agent.file))}:{n}:\d+: .*$", agent.program.log()[b:], re.M))
        assert all(word in where[0] for word in said), where[0]
    agent.file.unlink()
    before = len(agent.program.log())
    agent.reload(ready=False)
    wait_for("the missing file is named",
             lambda: str(agent.file) in agent.program.log()[before:])

    seen = len(capture.messages())
    messages = capture.wait(seen + 4, seconds=4)
    times = rounds(messages)
    assert all(abs(b - a - 1) < 0.2 * SLOW for a, b in zip(times, times[1:])), times
    assert {m.dst for m in messages} == {"10.97.0.2"} and len({m.src_port for m in messages}) == 1
    # Put right, it is taken.
    agent.reload(right.replace("10.97.0.2", "10.97.0.3"))
    capture.wait(2, dst="10.97.0.3", seconds=1)
    assert agent.stop() == 0


@pytest.fixture
def names(tmp_path):
    """Sets the machine's host names, by a file in this private world."""
    files = {"/etc/nsswitch.conf": tmp_path / "nsswitch", "/etc/hosts": tmp_path / "hosts"}
    files["/etc/nsswitch.conf"].write_text("hosts: files\n")

    def write(text):  # at once: nobody reads a file that is half written
        with open(files["/etc/hosts"], "r+b", buffering=0) as file:
            file.write(text.encode().ljust(200, b"\n"))
    files["/etc/hosts"].touch()
    write("")
    for target, file in files.items():
        run("mount", "--bind", file, target)
    yield write
    for target in files:
        run("umount", target)


def test_a_collector_by_the_name_of_its_host(lab, far, names):
    capture = Capture(lab, "dn0", ns=far)
    text = config(trackers(a="coll", b="10.97.0.5")).replace(
        "[agent]", '[agent]\nresolve-interval = "1s"')
    agent = Agent(lab, text)
    agent.program.wait_log("host coll cannot be looked up: .*; its collectors wait")

    def state():
        shown = run(TOOL, "show", "collectors", "--json", check=False)
        return {c["collector"]: (c["host"], c["address"], c["state"])
                for c in json.loads(shown)["collectors"]}
    assert state()["a"] == ("coll", "", "waiting for address")
    assert "its host coll cannot be looked up: " in run(TOOL, "show", "collectors", check=False)
    capture.wait(4, dst="10.97.0.5")
    names("10.97.0.2 coll\n")
    capture.wait(6, dst="10.97.0.2")
    assert state() == {"a": ("coll", "10.97.0.2", "sending"), "b": (None, "10.97.0.5", "sending")}
    names("fd97::2 coll\n10.97.0.3 coll\n")
    first = capture.wait_until("a message to another address", lambda messages: [
        m for m in messages if m.dst in ("fd97::2", "10.97.0.3")])
    here = next(m.dst for m in first if m.dst in ("fd97::2", "10.97.0.3"))
    capture.wait(6, dst=here)
    assert set(counters()) == {here, "10.97.0.5"}
    names("")
    agent.program.wait_log("host coll cannot be looked up: .*; its address stays", 3)
    seen = len(capture.messages(dst=here))
    capture.wait(seen + 4, dst=here)
    assert agent.program.log().count("cannot be looked up") == 2, agent.program.log()
    assert agent.stop() == 0
    for address in ("10.97.0.2", here):  # a session each: from 0, the templates first
        messages = capture.messages(dst=address)
        assert [m.sequence for m in messages[:3]] == [0, 0, 0]
        assert {m.sets[0][0] for m in messages[:2]} == {2, 3}
    assert messages[-1].sequence > 0
    # The other collector of the exporter heard nothing of it.
    others = capture.messages(dst="10.97.0.5")
    assert len({m.src_port for m in others}) == 1
    times = rounds(others)
    assert all(abs(b - a - 1) < 0.2 * SLOW for a, b in zip(times, times[1:])), times
    capture.stop()
    tshark(capture.file)
