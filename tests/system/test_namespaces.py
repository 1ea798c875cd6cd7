"""An exporter follows its network: the namespace, the interface and the addresses, as they come
and go. What goes out, the log and the counters follow within seconds."""

import pytest

from lab import descriptors, run, wait_for
from tarnflow import Agent, counters, edge, tool
from wire import TEMPLATES, Capture

HERE4, HERE6 = "10.99.0.1", "fd99::1"
THERE4, THERE6 = "10.99.0.2", "fd99::2"
PREFIX = {HERE4: f"{HERE4}/24", HERE6: f"{HERE6}/64"}


@pytest.mark.parametrize("vrf", ["default", "red"])
def test_follows_its_network(lab, vrf):
    near = None if vrf == "default" else f"ns-{vrf}"
    far = lab.namespace("tt-far")
    # Devices send to another tracker, which listens in the same namespace.
    agent = Agent(lab, edge({"four": THERE4, "six": THERE6}, vrf=vrf, template_interval="1s",
                            vrfs={vrf: 10} if near else {}) + '[tracker.dev]\nid = 8\n'
                  'type = "hardware"\n[tracker.dev.exporter.main]\nlocal-interface = "up0"\n'
                  f'vrf = "{vrf}"\n')
    assert counters() == {}
    assert "has sent nothing to any collector yet" in tool("show", "counters", check=False)[2]

    def said(what, before=0):
        wait_for(what, lambda: agent.program.log().count(what) > before)

    def arrive(capture, *sources, mark=0):
        """Data and options templates arrive from each source, after so many messages."""
        for source in sources:
            capture.wait_until(f"both templates from {source}", lambda messages, source=source: {
                m.sets[0][0] for m in messages[mark:] if m.src == source} == {2, 3})

    def appear():
        """The namespace, and in it interface and addresses, come after the agent."""
        listening = agent.program.log().count("devices send to")
        if near:
            lab.namespace(near)
        lab.veth("up0", "dn0", far, ns=near)
        lab.address("dn0", f"{THERE4}/24", f"{THERE6}/64", ns=far)
        capture = Capture(lab, "dn0", ns=far, kinds=TEMPLATES)
        lab.address("up0", *PREFIX.values(), ns=near)
        arrive(capture, HERE4, HERE6)
        said("devices send to", listening)
        return capture

    capture = appear()
    said("FLOWTRACKING_EXPORTER_ACTIVE")
    open_then = descriptors(agent.pid)
    for gone, other in ((HERE4, HERE6), (HERE6, HERE4)):
        lab.address("up0", PREFIX[gone], ns=near, verb="del")
        wait_for("its collector waits", lambda: "waiting for address" in tool(
            "show", "collectors", check=False)[1])
        # From one round of the other family later on, nothing comes from the one that is gone.
        start = len(capture.messages(src=other))
        capture.wait(start + 2, src=other)
        seen = len(capture.messages(src=gone))
        capture.wait(start + 6, src=other)
        assert len(capture.messages(src=gone)) == seen
        mark = len(capture.messages())
        lab.address("up0", PREFIX[gone], ns=near)
        arrive(capture, gone, mark=mark)

    for _ in range(3):
        inactive = agent.program.log().count("FLOWTRACKING_EXPORTER_INACTIVE")
        still = counters()
        if near:
            lab.namespace_del(near)
        else:
            run("ip", "link", "del", "up0")
        # Deleting the namespace takes the device at its other end away only when nobody holds it.
        wait_for("the namespace is let go", lambda: "dn0" not in run("ip", "-o", "link", ns=far))
        said("FLOWTRACKING_EXPORTER_INACTIVE", inactive)
        appear()
        assert all(counters()[k]["messages"] > still[k]["messages"] for k in still)
    assert descriptors(agent.pid) == open_then
