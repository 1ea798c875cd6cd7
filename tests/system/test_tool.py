"""Each command of the tool against a running agent, and what it says when something is in the way."""

import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import pytest

import traffic
from lab import SLOW, parse_json_lines, run, wait_for
from tarnflow import AGENT, TOOL, Agent, collectors, config, counters, exporter, listen, tool
from wire import Capture
from wire_maker import message, pcap, send, template

SOCKET = pathlib.Path("/run/tarnflow/control.sock")


def edge(interval="60s", **more):
    return {"edge": {"id": 7, "exporter": {"main": exporter(
        "up0", collectors(a="10.99.0.2", six="fd99::2"), template_interval=interval), **more}}}


def tool_json(*argv, code=0):
    got, text, error = tool(*argv, "--json", check=False)
    assert got == code, (argv, got, text, error)
    (line,) = text.splitlines()
    return json.loads(line)


def states():
    code, text, _ = tool("show", "collectors", "--json", check=False)
    found = json.loads(text)["collectors"]
    assert code == (0 if all(c["state"] == "sending" for c in found) else 1)
    return {c["collector"]: c for c in found}


def rows(text):
    """A printed table's rows, split where two blanks or more are."""
    return [re.split(r" {2,}", line.strip()) for line in text.splitlines() if line.strip()]


def test_states_of_collectors(lab, far):
    more = {"lost": exporter("up0", collectors(away="198.51.100.9")),
            "none": exporter("nope0", collectors(x="10.99.0.3")),
            "red": exporter("up1", collectors(z="10.92.0.2"), vrf="red")}
    started = time.time()
    agent = Agent(lab, config(edge("1s", **more), vrfs={"red": 9}))
    wait_for("the kernel's refusal is noticed", lambda: states()["away"]["state"] == "refused", 10)
    before = states()
    assert {n: (c["state"], c["detail"]) for n, c in before.items()} == {
        "a": ("sending", ""), "six": ("sending", ""), "away": ("refused", "Network is unreachable"),
        "x": ("waiting for address", "there is no interface nope0 in VRF default"),
        "z": ("waiting for namespace", "there is no namespace ns-red")}
    assert all(started - 1 < c["since"] < time.time() for c in before.values()), before
    assert before["away"]["refused"]["ENETUNREACH"] > 0 and before["a"]["refused"] == {}
    a = before["a"]
    assert a["sourcePort"] > 0 and before["x"]["sourcePort"] is None
    assert abs(a["dataTemplatesSent"] - time.time()) < 5 * SLOW
    expected = {"tracker": "edge", "domain": 7, "exporter": "main", "address": "10.99.0.2",
                "port": 4739, "sourceAddress": "10.99.0.1", "vrf": "default", "interface": "up0"}
    assert a.items() >= expected.items()
    # What was refused counts as exported, and is counted as refused beside it.
    lost = wait_for("refusals are counted", lambda: [
        e for e in tool_json("show", "counters", "--exporter", "lost")["endpoints"]
        if e["refused"]])[0]
    assert (lost["family"], lost["sent"], lost["causes"]) == (4, 0, {"ENETUNREACH": lost["refused"]})
    tool("metrics", "--textfile", "/run/metrics.prom")
    assert re.search('refused_datagrams_total{.*exporter="lost",family="ipv4"} [1-9]',
                     pathlib.Path("/run/metrics.prom").read_text())
    text = tool("show", "collectors", "--exporter", "main")[1]
    assert [r[2:5] for r in rows(text)] == [
        ["collector", "address", "state"], ["a", "10.99.0.2:4739", "sending"],
        ["six", "[fd99::2]:4739", "sending"]] and "\x1b" not in text

    # What was missing comes: each state changes by itself, and its time with it.
    lab.namespace("ns-red")
    wait_for("the namespace is there", lambda: states()["z"]["state"] == "waiting for address")
    lab.veth("up1", "dn1", far, ns="ns-red")
    lab.address("up1", "10.92.0.1/24", ns="ns-red")
    run("ip", "route", "add", "198.51.100.0/24", "via", "10.99.0.3")
    wait_for("all can be sent to", lambda: [n for n, c in states().items()
                                            if c["state"] != "sending"] == ["x"], 10)
    assert {n for n, c in states().items() if c["since"] > before[n]["since"]} == {"away", "z"}
    agent.program.wait_log("warning collector away of exporter lost .*Network is unreachable")


def test_tables_templates_state(lab, far):
    agent = Agent(lab, config(edge(), vrfs={"red": 9, "blue": 10}))
    index = socket.if_nametoindex("up0")
    found = {t["name"]: (t["templateId"], t["rows"]) for t in tool_json("show", "tables")["tables"]}
    assert {n: i for n, (i, _) in found.items()} == {
        "interfaces": 65281, "vrfs": 65280, "trackers": 65283, "flow-keys": 65282}
    assert {"ingressInterface": index, "interfaceName": "up0"} in found["interfaces"][1]
    assert {r["VRFname"]: r["ingressVRFID"] for r in found["vrfs"][1]} == {
        "default": 0, "red": 9, "blue": 10, "": 16777215}
    assert [r["observationDomainId"] for r in found["trackers"][1]] == [7]
    assert {r["templateId"]: r["keys"][0] for r in found["flow-keys"][1]} == {
        256: "sourceIPv4Address", 257: "sourceIPv6Address"}
    assert [str(index), "up0"] in rows(tool("show", "tables", "interfaces")[1])
    text = tool("show", "tables", "--limit", 1)[1]
    assert "... 3 more" in text and len(re.findall(r"^\w[\w-]*: \d+ record", text, re.M)) == 4

    found = tool_json("show", "templates")["templates"]
    assert [(t["id"], t["kind"], t["domain"]) for t in found] == [
        (256, "data", 7), (257, "data", 7), *((i, "options", 7) for i in range(65280, 65284))]
    assert found[0]["fields"][0] == {"name": "sourceIPv4Address", "id": 8, "enterprise": 0,
                                     "length": 4, "scope": False, "key": True}
    assert all(abs(t["lastSent"] - time.time()) < 5 * SLOW for t in found)
    text = tool("show", "templates", "--tracker", "edge")[1]
    assert "tracker edge, domain 7: options template 65281, 2 fields, last sent " in text
    assert ["10", "ingressInterface", "4", "scope"] in rows(text)

    tree = tool_json("show", "state")
    main = tree["software-config"]["ftConfig"]["edge"]["expConfig"]["main"]
    assert main.items() >= {"srcIpAddr": "10.99.0.1", "exporter4Ready": "True",
                            "collectorIpAndPort": {"a": "10.99.0.2:4739"}}.items()
    dscp = tool("show", "state", "software-config/ftConfig/edge/expConfig/main/dscp")[1]
    assert "dscp 0" in dscp and "mtu" not in dscp
    text = tool("show", "state", "elements", "--limit", 2)[1]
    assert "... more" in text and "octetDeltaCount" in text and "protocolIdentifier" not in text
    assert "  initialized True" in text.splitlines(), "what follows a collection that was cut"

    # Cleared, then counted on; rates between two looks.
    wait_for("tables have been sent", lambda: all(c["records"] for c in counters().values()))
    assert tool_json("clear", "counters") == {"cleared": True}
    assert all(c["messages"] == 0 and c["lastClearedTime"] for c in counters().values())
    watch = lab.start("watch", TOOL, "show", "counters", "--watch", "0.4", "--json")

    def rates():
        return [e["perSecond"] for x in parse_json_lines(watch.out()) for e in x["entries"]]
    wait_for("two looks", lambda: len(rates()) >= 4)
    assert rates()[:2] == [None, None] and tool("resend")[0] == 0
    wait_for("the rate shows what was sent", lambda: any(
        r["messages"] > 0 and r["octets"] > 100 for r in rates()[2:]))
    watch.stop()
    assert tool("show", "counters", "--tracker", "edge", "--exporter", "other", check=False)[0] == 1


def test_resend_and_log_level(lab, far):
    capture = Capture(lab, "dn0", ns=far)
    agent = Agent(lab, config(edge(
        other=exporter("up0", collectors(b="10.99.0.3"), template_interval="60s"))))
    sent = {"10.99.0.2": 0, "10.99.0.3": 0}

    def whole(address):
        """Templates, options templates, and then tables, after what was sent before."""
        def all_of(messages):
            ids = [i for m in messages[sent[address]:] for i in m.sets]
            return ids[:2] == [2, 3] and {65280, 65281, 65282, 65283} <= set(ids)
        capture.wait_until(f"everything at {address}", all_of, dst=address)
    for address in sent:
        whole(address)
    time.sleep(1.2)  # single changes of the start
    sent.update((a, len(capture.messages(dst=a))) for a in sent)
    assert tool_json("resend", "--tracker", "edge", "--exporter", "other") == {"exporters": 1}
    whole("10.99.0.3")
    assert len(capture.messages(dst="10.99.0.2")) == sent["10.99.0.2"]
    assert tool("resend")[1].startswith("2 exporters send")
    whole("10.99.0.2")
    assert tool("log-level", "detail")[1] == "5\n" and tool_json("log-level") == {"level": 5}
    tool("resend")
    agent.program.wait_log("trace5 TemplateExporterSmBase")
    assert agent.stop() == 0
    capture.stop()
    # What was captured decodes, with everything in order.
    _, text, error = tool("decode", capture.file)
    assert "options template 65281, new" in text and "SEQUENCE" not in text and not error
    assert "interfaceName" in tool("decode", capture.file, "--tables")[1]


def test_reload(lab, far):
    agent = Agent(lab, config(edge()))
    more = config(edge(other=exporter("up0", collectors(b="10.99.0.3"))))
    agent.write(more)
    summary = f"reloaded {agent.file}: exporters: 1 added; collectors: 1 added"
    assert tool_json("reload") == {"done": True, "errors": [], "warnings": [], "summary": summary}
    assert summary in agent.program.log() and "nothing changed" in tool("reload")[1]
    agent.write(config(edge()).replace(str(SOCKET), "/run/other.sock"))
    assert "take effect at the next start" in tool("reload")[2]
    agent.write(more.replace("id = 7", "id = -7"))
    (line,) = tool_json("reload", code=1)["errors"]
    assert f"{agent.file}:" in line and "-7" in line and line in agent.program.log()
    assert line in tool("reload", check=False)[2]
    agent.file.unlink()
    assert str(agent.file) in tool_json("reload", code=1)["errors"][0]
    assert "b" not in states(), "what goes with an error does not happen"
    agent.reload(more)
    assert "b" in states(), "put right, it does"


def test_what_is_in_the_way(lab, far):
    def refused(*argv, code=2):
        got, text, error = tool(*argv, check=False)
        assert got == code and not text, (argv, got, text, error)
        return error
    for argv in (["show", "collectors"], ["show", "tables"], ["show", "templates"], ["show", "state"],
                 ["clear", "counters"], ["resend"], ["reload"], ["log-level"]):
        error = refused(*argv)
        assert str(SOCKET) in error and "Is tarnflowd running?" in error and "--socket" in error
    assert "no agent runs: there is no" in refused("show", "counters", code=1)
    agent = Agent(lab, config(edge()))
    for argv, says in ((["show", "tables", "nope"], "interfaces, vrfs, trackers, flow-keys"),
                       (["resend", "--exporter", "nope"], "no exporter 'nope'"),
                       (["show", "counters", "--name", "without-slash"], "--name"),
                       (["show", "counters", "--watch", "0"], "--watch"),
                       (["log-level", "loud"], "0 to 9")):
        assert says in refused(*argv)
    run("ip", "link", "set", "up0", "down")
    wait_for("nothing is ready", lambda: states()["a"]["state"] != "sending")
    assert "show collectors" in refused("resend", code=1)

    agent.program.stop(signal.SIGKILL)
    assert "Start tarnflowd" in refused("reload")


def listening(lab, *argv):
    listener = listen(lab, "--port", 0, *argv)
    return listener, parse_json_lines(listener.out())[0]["sockets"][0]["port"]


@pytest.mark.parametrize("address", ["127.0.0.1", "::1"])
def test_listen(lab, address):
    """Each message is shown at once; in the end there is a summary, and status 1 for a fault."""
    first = message([(2, template(300, [(8, 4)])), (300, b"\n\1\1\1")])
    listener, port = listening(lab, "--messages", 3)
    source = send([first], address, port, tos=184)
    one = wait_for("the first message", lambda: parse_json_lines(listener.out())[1:])[0]
    assert one.items() >= {"sourceAddress": address, "sourcePort": source, "tos": 184, "octets": 36,
                           "destinationAddress": address, "destinationPort": port}.items()
    assert one["sets"][1]["records"] == [{"sourceIPv4Address": "10.1.1.1"}]
    send([first, message([(300, b"\n\1\1\2")], sequence=3)], address, port)
    assert listener.wait_exit() == 1, "a sequence error was seen"
    *_, gap, summary = parse_json_lines(listener.out())
    assert (gap["sequenceState"], gap["sequenceExpected"]) == ("missing", 1)
    assert sorted((s["messages"], s["records"], s["missingRecords"])
                  for s in summary["streams"]) == [(1, 1, 0), (2, 2, 2)]

    listener, port = listening(lab, "--address", address)
    for argv, says in ((("--address", address, "--port", port), f"{port}: Address already in use\n"),
                       (("--messages", 0), "--mess"), (("--seconds", "x"), "--sec"),
                       (("--address", "localhost"), '"localhost" is no numeric')):
        code, _, said = tool("listen", *argv, check=False)
        assert code == 2 and says in said, said
    assert listener.stop(signal.SIGINT) == 0


def test_listen_tells_its_own_drops(lab):
    """What this host loses is not taken for the exporter's loss without a word."""
    listener, port = listening(lab, "--quiet-data")
    count = 400  # more than fits its buffer
    listener.process.send_signal(signal.SIGSTOP)
    send([message([(300, bytes(60000))], sequence=15000 * i) for i in range(count)], "127.0.0.1", port)
    listener.process.send_signal(signal.SIGCONT)

    def accounted():
        lines = parse_json_lines(listener.out())[1:]
        dropped = sum(line.get("datagrams", 0) for line in lines)
        return dropped + sum(line["type"] == "message" for line in lines) == count and dropped
    dropped = wait_for("all are heard or dropped", accounted)
    assert 0 < dropped < count and listener.stop() == 0
    assert parse_json_lines(listener.out())[-1]["localDrops"] == dropped


def test_decode(lab):
    """What captures hold besides whole messages."""
    def frame(payload, fragment=0, vlan=0):
        return traffic.ethernet(0x0800, traffic.ipv4(
            "10.0.0.1", "10.0.0.2", traffic.UDP, traffic.udp(40000, 4739, payload),
            fragment=fragment, tos=184), vlan)
    good = message([(2, template(300, [(8, 4)])), (300, b"\n\1\1\1")])
    after = message([(300, b"\n\1\1\2")], sequence=1)
    behind = traffic.udp(40000, 4739, good)
    six = traffic.ethernet(0x86DD, traffic.ipv6("::1", "::2", traffic.UDP, behind, bytes(
        [traffic.UDP, 0, 1, 4, 0, 0, 0, 0]), 0, tos=184))
    other = frame(b"\0\x0a" + bytes(60))  # begins as a message does
    file = lab.path("x.pcap")

    def decode(*frames, argv=()):
        file.write_bytes(pcap(frames))
        return tool("decode", file, *argv, check=False)

    def decoded(*frames):
        code, text, _ = decode(*frames, argv=["--json"])
        *messages, summary = parse_json_lines(text)
        assert summary["type"] == "summary", text
        return code, messages
    code, found = decoded(frame(good), frame(good, vlan=5), six, other, bytes(60))
    assert code == 1 and [(m["sequenceState"], m["dscp"], m["sourceAddress"]) for m in found] == [
        ("first", 46, "10.0.0.1"), ("back", 46, "10.0.0.1"), ("first", 46, "::1")]
    assert decode(frame(good))[0] == 0
    # Captured before a segmented send was cut up: several messages in one datagram.
    for junk in b"", b"junk":
        code, found = decoded(frame(good + after + junk))
        assert code == bool(junk) == len(found) - 2
        assert [s["records"] for m in found[:2] for s in m["sets"] if "records" in s] == [
            [{"sourceIPv4Address": f"10.1.1.{n}"}] for n in (1, 2)]
        assert not junk or found[2]["error"]
    assert "!!" in decode(other, argv=["--port", "4739"])[1]
    for frames, says in (((other,), "no IPFIX among 1 packets"),
                         ((frame(good), frame(good, fragment=0x2000)), "1 fragment"),
                         ((frame(good), frame(good)[:-5]), "not captured whole"),
                         ((frame(good), frame(good)[:38] + b"\0\1" + frame(good)[40:]),
                          "contradict")):
        code, _, error = decode(*frames)
        assert code == 1 and says in error, error


def test_output_that_cannot_be_written(lab, far):
    """Standard output full or closed: no crash, status 2, and nothing lands in another file."""
    agent = Agent(lab, config(edge()))
    wait_for("it sends", lambda: states()["a"]["state"] == "sending")
    file = lab.path("x.pcap")
    file.write_bytes(pcap([]))
    commands = [(TOOL, *x) for x in (
        ("--help",), ("show", "collectors"), ("show", "collectors", "--json"), ("show", "counters"),
        ("show", "counters", "--watch", "0.1"), ("show", "flows", "--json"), ("show", "tables"),
        ("show", "templates"), ("show", "state"), ("log-level",), ("reload",), ("resend",),
        ("clear", "counters"), ("decode", file), ("check", agent.file), ("listen", "--port", "0"))]
    commands += [(AGENT, f"--{x}") for x in ("version", "print-default-config", "print-schema")]
    for argv in commands:
        for to in (">/dev/full", ">&-"):
            done = subprocess.run(["sh", "-c", f'exec "$@" {to}', "sh", *map(str, argv)], timeout=20,
                                  stderr=subprocess.PIPE, text=True)
            assert done.returncode == 2, (argv, to, done)
            assert "cannot write to standard output: " in done.stderr, (argv, to, done)
    # The same for standard error, whose loss is no fault.
    for to in ("2>/dev/full", "2>&-"):
        assert subprocess.run(["sh", "-c", f"exec {TOOL} decode /nope {to}"]).returncode == 2


def test_log_goes_to_the_journal_with_fields(lab, far):
    """What a journal gets when standard error leads to it."""
    os.makedirs("/run/systemd/journal", exist_ok=True)
    stderr = lab.directory / "tarnflowd.err"
    stderr.touch()
    stat = stderr.stat()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as journal:
        journal.bind("/run/systemd/journal/socket")
        journal.settimeout(5 * SLOW)
        agent = Agent(lab, config(edge(lost=exporter("up0", collectors(away="198.51.100.9"),
                                                     template_interval="1s"))),
                      env={"JOURNAL_STREAM": f"{stat.st_dev}:{stat.st_ino}"})
        for expected in ({"MESSAGE": "FLOWTRACKING_EXPORTER_ACTIVE: software exporter",
                          "TARN_MESSAGE": "FLOWTRACKING_EXPORTER_ACTIVE", "TARN_EXPORTER": "main",
                          "TARN_TRACKER": "edge", "TARN_VRF": "default", "PRIORITY": "6",
                          "SYSLOG_IDENTIFIER": "tarnflowd",
                          "TARN_EXPLANATION": "This exporter is ready to export packets."},
                         {"TARN_COLLECTOR": "away", "PRIORITY": "4",
                          "MESSAGE": "Network is unreachable"}):
            entry = {}
            while not all(value in entry.get(key, "") for key, value in expected.items()):
                entry = dict(line.split("=", 1) for line in journal.recv(65536).decode().splitlines())
        for _ in range(12):  # more than it takes unread
            agent.reload()
        assert agent.stop() == 0
    assert agent.program.err() == ""
