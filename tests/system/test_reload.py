"""What a reload and an error in its file leave as it was, and a collector given by its host. (That
nobody hears of others' changes is for the random reloads of EntitiesTest.cpp.)"""

import re

from lab import SLOW, run, wait_for
from tarnflow import Agent, counters, edge, tool
from wire import TEMPLATES, Capture, tshark


def every_second(messages):
    """A collector's data templates came every second."""
    times = [m.time for m in messages if m.sets[0][0] == 2]
    assert all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
    assert len({m.src_port for m in messages}) == 1


def test_a_file_with_an_error_changes_nothing(lab, far):
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    right = edge({"a": "10.99.0.2"}, template_interval="1s")
    agent = Agent(lab, right)
    capture.wait(4)
    other = right.replace("10.99.0.2", "10.99.0.3")  # a change beside it that must not happen
    line = right[:right.index("template-interval")].count("\n") + 1
    for fault, says in (("dcsp = 46", "dscp"), ('template-interval = "20h"', "65535s"),
                        ("dscp = = 3", ""), (None, None)):
        before = len(agent.program.log())
        agent.write(other.replace('template-interval = "1s"', fault or ""))
        if fault is None:
            agent.file.unlink()
        where = "" if fault is None else rf":{line}:\d+: .*{says}"
        agent.reload(ready=False)
        wait_for(f"the error: {where}", lambda: re.search(
            re.escape(str(agent.file)) + where, agent.program.log()[before:]))
    messages = capture.wait(len(capture.messages()) + 4)
    every_second(messages)
    assert {m.dst for m in messages} == {"10.99.0.2"}
    # Put right, it is taken.
    agent.reload(other.replace("template-interval", "dscp = 46\ntemplate-interval"))
    capture.wait(2, dst="10.99.0.3", tos=46 << 2)


def test_a_collector_by_the_name_of_its_host(lab, far, tmp_path):
    files = {"/etc/nsswitch.conf": tmp_path / "nsswitch", "/etc/hosts": tmp_path / "hosts"}
    for target, file in files.items():
        file.write_text("hosts: files\n" if "nsswitch" in target else "\n" * 40)
        run("mount", "--bind", file, target)

    def names(text):  # in one write: nobody reads a file that is half written
        with open(files["/etc/hosts"], "r+b", buffering=0) as file:
            file.write(text.encode().ljust(40, b"\n"))
    capture = Capture(lab, "dn0", ns=far)
    agent = Agent(lab, edge({"a": "coll", "b": "10.99.0.5"}, template_interval="1s").replace(
        "[agent]", '[agent]\nresolve-interval = "1s"'))
    agent.program.wait_log("host coll cannot be looked up: .*; its collectors wait")
    assert "its host coll cannot be looked up: " in tool("show", "collectors", check=False)[1]
    for address in ("10.99.0.2", "10.99.0.3"):  # a session each: from 0, the templates first
        names(f"{address} coll\n")
        messages = capture.wait(6, dst=address)
        assert [m.sequence for m in messages[:3]] == [0, 0, 0]
        assert {m.sets[0][0] for m in messages[:2]} == {2, 3}
        assert set(counters()) == {address, "10.99.0.5"}
    assert agent.program.log().count("cannot be looked up") == 1, agent.program.log()
    assert agent.stop() == 0
    # The other collector of the exporter heard nothing of it.
    every_second(capture.messages(dst="10.99.0.5"))
    capture.stop()
    tshark(capture.file)
    for target in files:
        run("umount", target)
