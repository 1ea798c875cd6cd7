"""An exporter follows its network: the namespace, the interface, the addresses and a collector's name,
as they come and go. What goes out, the log and the counters follow within seconds."""

from lab import SLOW, descriptors, run, wait_for
from tarnflow import Agent, counters, edge, tool
from wire import TEMPLATES, Capture, tshark

HERE4, HERE6 = "10.99.0.1", "fd99::1"
THERE4, THERE6 = "10.99.0.2", "fd99::2"


def test_follows_its_network(lab):
    far = lab.namespace("tt-far")
    # Devices send to another tracker, which listens in the same namespace.
    agent = Agent(lab, edge({"four": THERE4, "six": THERE6}, vrf="red", template_interval="1s",
                            vrfs={"red": 10}) + '[tracker.dev]\nid = 8\ntype = "hardware"\n'
                  '[tracker.dev.exporter.main]\nlocal-interface = "up0"\nvrf = "red"\n')
    assert counters() == {}
    assert "has sent nothing to any collector yet" in tool("show", "counters", check=False)[2]
    open_then = None

    def said(what, times):
        wait_for(what, lambda: agent.program.log().count(what) >= times)
    for n in range(1, 4):
        # The namespace, and in it interface and addresses, come after the agent.
        lab.namespace("ns-red")
        lab.veth("up0", "dn0", far, ns="ns-red")
        lab.address("dn0", f"{THERE4}/24", f"{THERE6}/64", ns=far)
        capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
        lab.address("up0", f"{HERE4}/24", f"{HERE6}/64", ns="ns-red")
        for here in (HERE4, HERE6):
            capture.wait_until("both templates", lambda ms: {m.sets[0] for m in ms} == {2, 3},
                               src=here)
        said("FLOWTRACKING_EXPORTER_ACTIVE", n)
        said("devices send to", n)
        open_then = open_then or descriptors(agent.pid)
        assert descriptors(agent.pid) == open_then

        gone, prefix, other = (HERE4, 24, HERE6) if n == 1 else (HERE6, 64, HERE4)
        lab.address("up0", f"{gone}/{prefix}", ns="ns-red", verb="del")
        wait_for("its collector waits", lambda: "waiting for address" in tool(
            "show", "collectors", check=False)[1])
        # From one round of the other family later on, nothing comes from the one that is gone.
        start = len(capture.messages(src=other))
        capture.wait(start + 2, src=other)
        seen = len(capture.messages(src=gone))
        capture.wait(start + 6, src=other)
        assert len(capture.messages(src=gone)) == seen
        lab.address("up0", f"{gone}/{prefix}", ns="ns-red")
        capture.wait(seen + 2, src=gone)
        lab.namespace_del("ns-red")
        # Deleting the namespace takes the device at its other end away only when nobody holds it.
        wait_for("the namespace is let go", lambda: "dn0" not in run("ip", "-o", "link", ns=far))
        said("FLOWTRACKING_EXPORTER_INACTIVE", n)
    assert agent.program.log().count("_ACTIVE: software") == 3, "of either family"


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
