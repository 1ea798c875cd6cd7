"""A collector given by its host."""

from lab import SLOW, run
from tarnflow import Agent, counters, edge, tool
from wire import Capture, tshark


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
        assert {m.sets[0] for m in messages[:2]} == {2, 3}
        assert set(counters()) == {address, "10.99.0.5"}
    assert agent.program.log().count("cannot be looked up") == 1, agent.program.log()
    assert agent.stop() == 0
    # The other collector of the exporter heard nothing of it.
    times = [m.time for m in capture.messages(dst="10.99.0.5") if m.sets[0] == 2]
    assert all(abs(b - a - 1) < 0.3 * SLOW for a, b in zip(times, times[1:])), times
    capture.stop()
    tshark(capture.file)
    for target in files:
        run("umount", target)
