"""What a reload changes, what an error in the file does not, and a collector given by its host. (That
nothing else changes is for the storm of reloads.)"""

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


def every(period, times):
    assert all(abs(b - a - period) < 0.2 * SLOW for a, b in zip(times, times[1:])), times


def test_interval_changes(lab, far):
    """A new interval sends at once and then holds; the port stays."""
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    agent = Agent(lab, config(trackers("60s", a="10.97.0.2")))
    capture.wait(2)
    agent.reload(config(trackers("1s", a="10.97.0.2")))
    messages = capture.wait(8, seconds=5)
    assert len({m.src_port for m in messages}) == 1
    every(1, rounds(messages)[1:])
    assert agent.stop() == 0


def test_a_file_with_an_error_changes_nothing(lab, far):
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    right = config(trackers(a="10.97.0.2"))
    agent = Agent(lab, right)
    capture.wait(4, seconds=3)
    other = right.replace("10.97.0.2", "10.97.0.3")  # a change beside it that must not happen
    line = right[:right.index("template-interval")].count("\n") + 1

    def reload(where):
        before = len(agent.program.log())
        agent.reload(ready=False)
        wait_for(f"the error: {where}", lambda: re.search(
            re.escape(str(agent.file)) + where, agent.program.log()[before:]))
    for fault, says in (("dcsp = 46", "dscp"), ('template-interval = "20h"', "65535s"),
                        ("dscp = = 3", "")):
        agent.write(other.replace('template-interval = "1s"', fault))
        reload(rf":{line}:\d+: .*{says}")
    agent.file.unlink()
    reload("")
    messages = capture.wait(len(capture.messages()) + 4, seconds=4)
    every(1, rounds(messages))
    assert {m.dst for m in messages} == {"10.97.0.2"} and len({m.src_port for m in messages}) == 1
    # Put right, it is taken.
    agent.reload(other)
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
    every(1, rounds(others))
    capture.stop()
    tshark(capture.file)
