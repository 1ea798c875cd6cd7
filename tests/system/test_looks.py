"""Looks at the flows under way: known traffic, and what `top` and `show flows --list` say of it."""

import collections
import fcntl
import ipaddress
import json
import os
import pathlib
import pty
import signal
import socket
import struct
import subprocess
import termios
import time

import pytest

import traffic
from lab import wait_for
from tarnflow import TOOL, Agent, config, edge, flows, tool
from traffic import play

FLOWS = 2000


@pytest.fixture
def house(lab, far):
    lab.source()
    return lab


def asked(*argv):
    return json.loads(tool(*argv, "--json")[1])


def heaviest(expected, ends, sum_of):
    """The sums of groups: `ends(key)` are those that a flow counts for."""
    groups = collections.Counter()
    for key, one in expected.items():
        for end in set(ends(key)):
            groups[end] += sum_of(one)
    return groups


def test_what_is_under_way(house):
    agent = Agent(house, edge({"nc": ("10.99.0.2", 9995)}, tracker={
        "interfaces": ["in*"], "active-interval": "300s", "inactive-timeout": "200s"}))
    agent.program.wait_log("tracking flows on in0")
    play(FLOWS)
    truth = traffic.truth(FLOWS)
    expected = {k: s for k, s in truth.items() if not s.flags & traffic.FIN}
    wait_for("connections are over, all else is under way",
             lambda: flows()["edge"]["flowsActive"] == len(expected), 15)

    def listed(*argv):
        answer = asked("show", "flows", "--list", *argv)
        assert not answer["incomplete"] and not answer["more"], answer
        found = {traffic.Key(*(r.get(v4) or r.get(v6) for v4, v6 in (
            ("sourceIPv4Address", "sourceIPv6Address"),
            ("destinationIPv4Address", "destinationIPv6Address"))), r["protocolIdentifier"],
            r["sourceTransportPort"], r["destinationTransportPort"], r["vlanId"]):
            (r["packets"], r["octets"]) for r in answer["rows"]}
        assert len(found) == len(answer["rows"]) and answer["flows"] == len(expected)
        assert {r["ingressName"] for r in answer["rows"]} <= {"in0"}
        assert {r["egressName"] for r in answer["rows"]} <= {"unknown", "multicast"}
        return found

    ported = (traffic.TCP, traffic.UDP)
    for text, matches in (
            (None, lambda k: True),
            ("host 10.1.0.2", lambda k: k.src == "10.1.0.2"),
            ("host 10.1.4.0/23 and port 53",
             lambda k: k.src.startswith(("10.1.4.", "10.1.5.")) and k.dst_port == 53),
            ("port 2048", lambda k: k.protocol in ported and 2048 in (k.src_port, k.dst_port)),
            ("host 2001:db8:2::/48 and protocol udp",
             lambda k: ":" in k.dst and k.protocol == traffic.UDP),
            ("protocol 1 and interface in0 and vrf default", lambda k: k.protocol == traffic.ICMP),
            ("interface multicast", lambda k: ipaddress.ip_address(k.dst).is_multicast),
            ("interface unknown", lambda k: not ipaddress.ip_address(k.dst).is_multicast)):
        found = listed(*(("--filter", text) if text else ()))
        assert found == {k: (s.packets, s.octets) for k, s in expected.items() if matches(k)}, text
    for text, why in (("hots 1.2.3.4", "'hots' is not allowed"), ("port 65536", "port '65536'"),
                      ("port", "has no value"), ("port 1 port 2", "'and' belongs"),
                      ("host 1.2.3.4/33", "host '1.2.3.4/33'"), ("port 1 and", "last 'and'"),
                      ("interface no", "no interface 'no'"),
                      ("vrf other", "nothing in VRF 'other'; it counts in 'default'")):
        code, _, error = tool("show", "flows", "--list", "--filter", text, check=False)
        assert code == 2 and why in error, (text, error)

    for by, ends, name in (
            ("flows", lambda k: [k], None),
            ("hosts", lambda k: [k.src, k.dst], lambda r: r["host"]),
            ("ports", lambda k: [(k.protocol, p) for p in (k.src_port, k.dst_port)
                                 if k.protocol in ported], lambda r: (r["protocol"], r["port"])),
            ("interfaces", lambda k: ["in0"], lambda r: r["interface"])):
        for order in ("octets", "packets"):
            wanted = heaviest(expected, ends, lambda s: getattr(s, order))
            rows = asked("top", "--by", by, "--order", order, "--count", 30)["rows"]
            assert [r[order] for r in rows] == [n for _, n in wanted.most_common(30)], (by, order)
            assert not name or all(r[order] == wanted[name(r)] for r in rows), (by, order)
            assert all(r["seconds"] and abs(r["octets"] * 8 / r["seconds"] - r["bitsPerSecond"]) < 1
                       for r in rows), rows
    assert [(i["interface"], i["packets"], i["octets"])
            for i in asked("show", "flows")["interfaces"]] == [
        ("in0", sum(s.packets for s in truth.values()), sum(s.octets for s in truth.values()))]
    assert "in0" in tool("show", "flows")[1] and "192.0.2.7" in tool("top", "--by", "hosts")[1]
    rude_clients_do_not_matter(len(expected))
    on_a_terminal(agent)
    agent.reload(edge({"nc": ("10.99.0.2", 9995)}, tracker={"interfaces": ["in*"],
                                                           "record": "layer2"}))
    for what in ("hosts", "ports"):
        wait_for("the other record", lambda: tool("top", "--by", what, check=False)[0] == 2)
        assert "have no" in tool("top", "--by", what, check=False)[2]
    # Nobody is told of them: what is over is not under way.
    agent.reload(config({"edge": {"id": 7, "interfaces": ["in*"], "inactive-timeout": "1s"}}))
    play(9)
    wait_for("flows end", lambda: flows()["edge"]["endedIdle"] and not flows()["edge"]["flowsActive"])
    agent.reload(edge({"nc": ("10.99.0.2", 9995)}))
    code, _, error = tool("top", check=False)
    assert code == 2 and "no tracker looks at packets" in error, error
    assert agent.stop() == 0


def rude_clients_do_not_matter(flows_under_way):
    """Those that begin and go are forgotten; several at once each get all of their own."""
    def ask(request):
        with socket.socket(socket.AF_UNIX) as s:
            s.connect("/run/tarnflow/control.sock")
            s.sendall(json.dumps({"request": "flows", **request}).encode() + b"\n")
            return json.loads(s.makefile().readline())
    answers = [ask({}) for _ in range(10)]
    assert [a["ok"] for a in answers] == [True] * 8 + [False] * 2
    assert "at a time" in answers[-1]["error"] and answers[-1]["code"] == "busy"
    assert ask({"after": ["1-1", 0]})["code"] == "notFound"
    assert ask({"request": "tracked", "after": "in0"})["code"] == "badRequest"
    wait_for("there is room again", lambda: tool("top", check=False)[0] == 0)
    clients = [subprocess.Popen([TOOL, "show", "flows", "--list", "--json"],
                                stdout=subprocess.PIPE) for _ in range(4)]
    for client in clients:
        assert len(json.loads(client.communicate()[0])["rows"]) == flows_under_way


def on_a_terminal(agent):
    """Keys and a new size change what is shown; each way out leaves the terminal as it was."""
    for way_out in (b"q", signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        leader, terminal = pty.openpty()
        before = termios.tcgetattr(terminal)
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 12, 100, 0, 0))
        top = subprocess.Popen([TOOL, "top", "--interval", "0.2"], stdin=terminal, stdout=terminal)
        seen = bytearray()

        def shows(text):
            seen.extend(os.read(leader, 65536))
            return text in bytes(seen)
        wait_for("flows are shown", lambda: shows(b"the heaviest flows by octets"))
        os.write(leader, b"h")
        wait_for("hosts are shown", lambda: shows(b"the heaviest hosts by octets"))
        os.write(leader, b"p")
        wait_for("by packets", lambda: shows(b"the heaviest hosts by packets"))
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 20, 0, 0))
        top.send_signal(signal.SIGWINCH)  # which the kernel sends where it is in the foreground
        wait_for("lines are cut", lambda: shows(b"\x1b[Htracker edge: the he\x1b[K"))
        top.send_signal(signal.SIGTSTP)
        wait_for("it is stopped", lambda: pathlib.Path(
            f"/proc/{top.pid}/stat").read_text().rsplit(")", 1)[1].split()[0] == "T")
        assert termios.tcgetattr(terminal) == before
        top.send_signal(signal.SIGCONT)
        wait_for("it goes on", lambda: termios.tcgetattr(terminal) != before)
        if isinstance(way_out, bytes):
            os.kill(agent.pid, signal.SIGSTOP)
            began = time.monotonic()
            assert asked("show", "flows")["interfaces"] is None and time.monotonic() - began < 5
            os.write(leader, way_out)
        else:
            top.send_signal(way_out)
        assert top.wait(5) == 0
        os.kill(agent.pid, signal.SIGCONT)
        wait_for("its lines are gone", lambda: shows(b"\x1b[?1049l"))
        assert termios.tcgetattr(terminal) == before, way_out
        os.close(leader)
        os.close(terminal)
