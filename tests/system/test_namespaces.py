"""An exporter follows its network: the namespace, the interface and the addresses, as they come
and go. What goes out, the log and the counters follow within seconds."""

from lab import descriptors, run, wait_for
from tarnflow import Agent, counters, edge, tool
from wire import TEMPLATES, Capture

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
