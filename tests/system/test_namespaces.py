"""An exporter follows its network: the namespace, the interface and the addresses, as they come
and go. What goes out, the log and the counters follow within seconds."""

import pytest

from lab import descriptors, run, wait_for
from tarnflow import Agent, counters, edge, tool
from wire import TEMPLATES, Capture

HERE4, HERE6 = "10.99.0.1", "fd99::1"
THERE4, THERE6 = "10.99.0.2", "fd99::2"
PREFIX = {HERE4: f"{HERE4}/24", HERE6: f"{HERE6}/64"}
SOON = 3  # seconds until a change shows; a namespace: see wait_for


class Place:
    """The far end with its capture, and the near end that a test makes and breaks."""

    def __init__(self, lab, vrf):
        self.lab = lab
        self.near = None if vrf == "default" else f"ns-{vrf}"
        self.far = lab.namespace("tt-far")
        self.text = edge({"four": THERE4, "six": THERE6}, vrf=vrf, template_interval="1s",
                         vrfs={} if vrf == "default" else {vrf: 10})

    def plug(self):
        """The far device is made with the near one each time, and so is its capture."""
        self.lab.veth("up0", "dn0", self.far, ns=self.near)
        self.lab.address("dn0", f"{THERE4}/24", f"{THERE6}/64", ns=self.far)
        self.capture = Capture(self.lab, "dn0", ns=self.far, kinds=TEMPLATES)
        self.mark = 0  # messages that the test has dealt with
        self.lab.address("up0", *PREFIX.values(), ns=self.near)

    def arrive(self, *sources, seconds=SOON):
        """Data and options templates arrive from each source, after what was dealt with."""
        for source in sources:
            self.capture.wait_until(
                f"both templates from {source}",
                lambda messages, source=source: {m.sets[0][0] for m in messages[self.mark:]
                                                 if m.src == source} == {2, 3}, seconds)
        self.mark = len(self.capture.messages())


def test_namespace_of_a_vrf(lab):
    place = Place(lab, "red")
    # Devices send to another tracker, which listens in the namespace.
    agent = Agent(lab, place.text + '[tracker.dev]\nid = 8\ntype = "hardware"\n'
                  '[tracker.dev.exporter.main]\nlocal-interface = "up0"\nvrf = "red"\n')
    assert counters() == {}
    assert "has sent nothing to any collector yet" in tool("show", "counters", check=False)[2]

    # The namespace, and in it interface and addresses, come after the agent.
    def appear():
        lab.namespace("ns-red")
        listening = agent.program.log().count("devices send to")
        place.plug()
        place.arrive(HERE4, HERE6, seconds=5)
        wait_for("it listens", lambda: agent.program.log().count("devices send to") > listening)

    appear()
    agent.program.wait_log("FLOWTRACKING_EXPORTER_ACTIVE")
    open_then = descriptors(agent.pid)
    for _ in range(3):
        # Deleting the namespace takes the device at its other end away only when nobody holds it.
        lab.namespace_del("ns-red")
        wait_for("the namespace is let go",
                 lambda: "dn0" not in run("ip", "-o", "link", ns=place.far))
        appear()
    assert descriptors(agent.pid) == open_then


@pytest.mark.parametrize("vrf", ["default", "red"])
def test_interface_and_addresses(lab, vrf):
    place = Place(lab, vrf)
    if place.near:
        lab.namespace(place.near)
    place.plug()
    agent = Agent(lab, place.text)
    place.arrive(HERE4, HERE6, seconds=5)
    agent.program.wait_log("FLOWTRACKING_EXPORTER_ACTIVE")
    open_then = descriptors(agent.pid)

    for gone, other in ((HERE4, HERE6), (HERE6, HERE4)):
        lab.address("up0", PREFIX[gone], ns=place.near, verb="del")
        # From one round of the other family later on, nothing comes from the one that is gone.
        start = len(place.capture.messages(src=other))
        place.capture.wait(start + 2, src=other)
        seen = len(place.capture.messages(src=gone))
        place.capture.wait(start + 6, src=other)
        assert len(place.capture.messages(src=gone)) == seen
        place.mark = len(place.capture.messages())
        lab.address("up0", PREFIX[gone], ns=place.near)
        place.arrive(gone)

    for _ in range(3):
        inactive = agent.program.log().count("FLOWTRACKING_EXPORTER_INACTIVE")
        run("ip", "link", "del", "up0", ns=place.near)
        place.capture.program.wait_exit()
        wait_for("the exporter is inactive", lambda n=inactive: agent.program.log().count(
            "FLOWTRACKING_EXPORTER_INACTIVE") > n, SOON)
        still = counters()
        place.plug()
        place.arrive(HERE4, HERE6)
        assert all(counters()[k]["messages"] > still[k]["messages"] for k in still)
    assert descriptors(agent.pid) == open_then
