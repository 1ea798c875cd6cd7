"""What a tracker looks at: patterns and exclusions, what the log says of them, promiscuous
interfaces, and filters, judged by what tcpdump takes of the same packets."""

import json
import os
import signal
import time

import pytest

import traffic
from lab import run, wait_for
from tarnflow import AGENT, Agent, edge, flows, tool
from traffic import play
from wire_maker import pcap

TO = {"far": ("10.99.0.2", 9995)}


def settings(**tracker):
    return edge(TO, tracker={"inactive-timeout": "1s", **tracker})


def link(device):
    return json.loads(run("ip", "-j", "-d", "link", "show", device))[0]


def test_what_is_taken_and_what_is_said_of_it(lab, far):
    lab.source()
    lab.veth("port0", "port1", "tt-src")
    for device, kind in (("br1", ["type", "bridge"]),
                         ("v0", ["index", "4000", "type", "veth", "peer", "name", "v1"]),
                         ("mac0", ["link", "in0", "type", "macvlan"])):
        run("ip", "link", "add", "name", device, "up", *kind)
        lab.links.append(device)
    run("ip", "link", "set", "port0", "master", "br1")
    without = ["!lo", "nope*", "*", "!br1", "!up0"]
    agent = Agent(lab, settings(interfaces=without, promiscuous=True))
    tracked = agent.program.wait_log("tracking flows on (.*)")[1]
    assert set(tracked.split(", ")) == {"in0", "mac0", "port0", "v0", "v1"}
    wait_for("v0 takes everything", lambda: link("v0")["promiscuity"] == 1)
    idle, above, port = 'is there that "nope', "in0 and mac0: ", "port0 and br1: "

    def said(*counts):
        log = agent.program.log()
        return tuple(log.count(text) for text in (idle, above, port, " and v")) == (*counts, 0)
    wait_for("what is wrong is said", lambda: said(1, 1, 0))
    # Another list: what was said of pairs is not said again; one that becomes true is.
    agent.reload(settings(interfaces=["*", "!lo", "nope*", "!up0"]))
    wait_for("the bridge is said", lambda: said(2, 1, 1))
    wait_for("nobody asks any more", lambda: link("v0")["promiscuity"] == 0)
    run("ip", "link", "set", "port0", "nomaster")
    time.sleep(0.5)  # pairs are looked at some 10 ms after a change
    agent.reload()
    run("ip", "link", "set", "port0", "master", "br1")
    wait_for("it is true anew", lambda: said(2, 1, 2))
    agent.reload(settings(interfaces=without, promiscuous=True))
    wait_for("it is asked for again", lambda: link("v0")["promiscuity"] == 1)
    # It leaves and returns with its index, and the agent hears of both at once.
    os.kill(agent.pid, signal.SIGSTOP)
    run("ip", "link", "set", "v0", "netns", "tt-src")
    run("ip", "-n", "tt-src", "link", "set", "v0", "netns", str(agent.pid))
    os.kill(agent.pid, signal.SIGCONT)
    assert link("v0")["ifindex"] == 4000
    wait_for("it is asked for once more", lambda: link("v0")["promiscuity"] == 1)
    assert agent.stop() == 0 and link("v0")["promiscuity"] == 0
    code, _, error = tool("check", agent.file)
    assert code == 0 and error.count("note: ") == 1 and 'is taken by "nope*" now' in error


@pytest.mark.parametrize("expression", [
    "not port 53", "vlan and tcp", "ip6 or (vlan and ip6)", "udp and less 100"])
def test_filters_are_what_tcpdump_takes(lab, far, expression):
    """Live, where tags are taken off on the way, and from a file."""
    lab.source()
    file = lab.path("frames.pcap")
    file.write_bytes(pcap([frame for frame, *_ in traffic.mixture(300)]))
    wanted = len(run("tcpdump", "-nr", file, expression).splitlines())
    agent = Agent(lab, settings(interfaces=["in0"], filter=expression))
    agent.program.wait_log("tracking flows on in0")
    play(300)
    wait_for("all that is chosen is seen", lambda: flows()["edge"]["packetsSeen"] >= wanted)
    agent.reload(settings(interfaces=["in0"], filter="udp dst port 9"))
    play("burst", 50)
    wait_for("another filter holds", lambda: flows()["edge"]["packetsSeen"] >= wanted + 50)
    assert flows()["edge"]["packetsSeen"] == wanted + 50
    assert agent.stop() == 0
    agent.write(settings(filter=expression))
    reader = lab.start("reader", AGENT, "--config", agent.file, "--read", file)
    reader.wait_log(f": {wanted} packets seen, ") if wanted else None
    assert reader.wait_exit(20) == 0
