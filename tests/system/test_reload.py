"""What a reload changes, what it does not, and a collector given by its host."""

import re
import time

from lab import SLOW, parse_json_lines, run, wait_for
from tarnflow import Agent, collectors, config, counters, edge, exporter, listen, tool
from wire import TEMPLATES, Capture, tshark


def every_second(messages):
    """A collector's data templates came every second."""
    times = [m.time for m in messages if m.sets[0][0] == 2]
    assert all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
    assert len({m.src_port for m in messages}) == 1


def test_others_hear_nothing_of_reloads(lab, far, rng):
    """Many of them, right and wrong ones: a collector that is the same in all has its templates each
    second from one port, and each record once."""
    def other():
        to = {n: (rng.choice(["10.99.0.3", "fd99::3", "nobody"]), 2000 + i)
              for i, n in enumerate("abc"[:rng.randrange(4)])}
        return exporter(rng.choice(["up0", "lo", "nowhere"]), collectors(**to),
                        dscp=rng.randrange(64), mtu=rng.choice([327, 1500]),
                        vrf=rng.choice(["default", "blue"]))

    def settings():
        life = {f"t{i}": {"id": 20 + i, "type": rng.choice(["software", "hardware"]),
                          "local-port": 5000 + i, "exporter": {"other": other()}}
                for i in range(rng.randrange(3))}
        more = {"new": ("10.99.0.3", 3000)} if rng.random() < 0.5 else {}
        main = exporter("up0", collectors(a="10.99.0.2", **more), template_interval="1s")
        life["edge"] = {"id": 7, "sample-rate": rng.choice([1, 10]),
                        "exporter": {"main": main, "other": other()}}
        return config(life, vrfs=rng.choice([{}, {"blue": 3}, {"blue": 4, "red": 5}]))
    heard = listen(lab, "--address", "10.99.0.2", ns=far)
    capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
    agent = Agent(lab, settings())
    wrong, end = 0, time.monotonic() + 8 * SLOW
    while time.monotonic() < end:
        fault = rng.choice(["", "", "colour = 1\n", "[tracker.x]\nid = 7\n"])
        wrong += bool(fault)
        agent.reload(settings() + fault)
    assert agent.program.log().count("not reloaded") == wrong
    every_second(capture.messages(dst="10.99.0.2"))
    assert agent.stop() == 0 and heard.stop() == 0
    assert parse_json_lines(heard.out())[-1]["streams"][0]["records"] > 10


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
    shown = tool("show", "collectors", check=False)[1]
    assert "waiting for address" in shown and "its host coll cannot be looked up: " in shown
    for address in ("10.99.0.2", "10.99.0.3"):  # a session each: from 0, the templates first
        names(f"{address} coll\n")
        messages = capture.wait(6, dst=address)
        assert [m.sequence for m in messages[:3]] == [0, 0, 0]
        assert {m.sets[0][0] for m in messages[:2]} == {2, 3}
        assert set(counters()) == {address, "10.99.0.5"}
    names("")
    agent.program.wait_log("host coll cannot be looked up: .*; its address stays")
    capture.wait(len(capture.messages(dst=address)) + 4, dst=address)
    assert agent.program.log().count("cannot be looked up") == 2, agent.program.log()
    assert agent.stop() == 0
    # The other collector of the exporter heard nothing of it.
    every_second(capture.messages(dst="10.99.0.5"))
    capture.stop()
    tshark(capture.file)
    for target in files:
        run("umount", target)
