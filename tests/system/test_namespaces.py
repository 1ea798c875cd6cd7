"""An exporter follows its network: the namespace, the interface and the addresses, as they come
and go. What goes out, the log and the counters follow within a second, a namespace within five."""

import pytest

from lab import descriptors, run, wait_for
from tarnflow import Agent, collectors, config, counters, exporter
from wire import TEMPLATES, Capture

HERE4, HERE6 = "10.98.0.1", "fd98::1"
THERE4, THERE6 = "10.98.0.2", "fd98::2"
OF_NAMESPACE, OF_ADDRESS = 5, 1  # seconds until a change shows


class Place:
    """The far end with its capture, and the near end that a test makes and breaks."""

    def __init__(self, lab, vrf, **more):
        self.lab = lab
        self.near = None if vrf == "default" else f"ns-{vrf}"
        self.far = lab.namespace("tt-far")
        self.text = config({"edge": {"id": 7, "exporter": {"main": exporter(
            "up0", collectors(four=THERE4, six=THERE6), vrf=vrf, template_interval="1s")}}, **more},
            vrfs={} if vrf == "default" else {vrf: 10})
        # The near end's name outlives its device: the far device is made with it each time.
        self.captures = []

    def plug(self):
        self.lab.veth("up0", "dn0", self.far, ns=self.near)
        self.lab.address("dn0", f"{THERE4}/24", f"{THERE6}/64", ns=self.far)
        self.captures.append(Capture(self.lab, "dn0", ns=self.far, kinds=TEMPLATES))
        self.mark = 0  # messages that the test has dealt with

    def unplug(self):
        run("ip", "link", "del", "up0", ns=self.near)
        self.captures[-1].program.wait_exit()

    def address(self, verb, *which):
        prefixes = {HERE4: f"{HERE4}/24", HERE6: f"{HERE6}/64"}
        self.lab.address("up0", *(prefixes[a] for a in which or prefixes), ns=self.near, verb=verb)

    def arrive(self, seconds, *sources):
        """Data and options templates arrive from each source, after what was dealt with."""
        for source in sources:
            self.captures[-1].wait_until(
                f"both templates from {source}",
                lambda messages, source=source: {m.sets[0][0] for m in messages[self.mark:]
                                                 if m.src == source} == {2, 3}, seconds)
        self.mark = len(self.captures[-1].messages())

    def silent(self, source, other):
        """One round of the other family later at the latest, nothing comes from `source`."""
        capture = self.captures[-1]
        start = len(capture.messages(src=other))
        capture.wait(start + 2, src=other)
        seen = len(capture.messages(src=source))
        capture.wait(start + 6, src=other)
        assert len(capture.messages(src=source)) == seen
        self.mark = len(capture.messages())


def test_namespace_of_a_vrf(lab):
    # Devices send to the other tracker, which listens in the namespace.
    place = Place(lab, "red", dev={"id": 8, "type": "hardware", "exporter": {
        "main": exporter("up0", {}, vrf="red")}})
    agent = Agent(lab, place.text)
    assert counters() == {}

    # The namespace, and in it interface and addresses, come after the agent.
    def appear():
        lab.namespace("ns-red")
        place.plug()
        listening = agent.program.log().count("devices send to")
        place.address("add")
        place.arrive(OF_NAMESPACE, HERE4, HERE6)
        wait_for("it listens", lambda: agent.program.log().count("devices send to") > listening)

    appear()
    agent.program.wait_log("FLOWTRACKING_EXPORTER_ACTIVE", OF_ADDRESS)
    open_then = descriptors(agent.pid)

    for _ in range(3):
        # Deleting the namespace takes the device at its other end away only when nobody holds it.
        lab.namespace_del("ns-red")
        wait_for("the namespace is let go",
                 lambda: "dn0" not in run("ip", "-o", "link", ns=place.far), OF_NAMESPACE)
        appear()
    assert descriptors(agent.pid) == open_then
    assert agent.stop() == 0


@pytest.mark.parametrize("vrf", ["default", "red"])
def test_interface_and_addresses(lab, vrf):
    place = Place(lab, vrf)
    if place.near:
        lab.namespace(place.near)
    place.plug()
    place.address("add")
    agent = Agent(lab, place.text)
    place.arrive(OF_NAMESPACE, HERE4, HERE6)
    agent.program.wait_log("FLOWTRACKING_EXPORTER_ACTIVE", OF_ADDRESS)
    open_then = descriptors(agent.pid)

    def sent(address):
        return counters()[address]["messages"]

    for gone, other, to in ((HERE4, HERE6, THERE4), (HERE6, HERE4, THERE6)):
        place.address("del", gone)
        place.silent(gone, other)
        before = sent(to)
        place.address("add", gone)
        place.arrive(OF_ADDRESS, gone)
        wait_for("the counters follow", lambda to=to, before=before: sent(to) >= before + 2,
                 OF_ADDRESS)

    for _ in range(3):
        inactive = agent.program.log().count("FLOWTRACKING_EXPORTER_INACTIVE")
        place.unplug()
        wait_for("the exporter is inactive",
                 lambda n=inactive: agent.program.log().count("FLOWTRACKING_EXPORTER_INACTIVE") > n,
                 OF_ADDRESS)
        still = counters()
        place.plug()
        place.address("add")
        place.arrive(OF_ADDRESS, HERE4, HERE6)
        assert all(counters()[k]["messages"] > still[k]["messages"] for k in still)
    assert descriptors(agent.pid) == open_then
    assert agent.stop() == 0


