"""Each command of the tool against a running agent, what it says when something is in the way, and
that whoever asks does not delay an export."""

import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import threading
import time

import pytest

import traffic
from lab import AGENT_WRAP, SLOW, run, wait_for
from tarnflow import AGENT, TOOL, Agent, collectors, config, counters, exporter, tool
from wire import Capture
from wire_maker import message, pcap, template

SOCKET = pathlib.Path("/run/tarnflow/control.sock")
HERE4, HERE6 = "10.91.0.1", "fd91::1"


@pytest.fixture
def far(lab):
    name = lab.namespace("tt-far")
    lab.veth("up0", "dn0", name)
    lab.address("up0", f"{HERE4}/24", f"{HERE6}/64")
    lab.address("dn0", *(f"10.91.0.{n}/24" for n in (2, 3)), "fd91::2/64", ns=name)
    return name


def edge(interval="60s", **more):
    return {"edge": {"id": 7, "exporter": {"main": exporter(
        "up0", collectors(a="10.91.0.2", six="fd91::2"), template_interval=interval), **more}}}


def tool_json(*argv, code=0):
    got, text, error = tool(*argv, "--json", check=False)
    assert got == code, (argv, got, text, error)
    lines = text.splitlines()
    assert len(lines) == 1, text
    return json.loads(lines[0])


def states(**filters):
    argv = [a for k, v in filters.items() for a in (f"--{k}", v)]
    code, text, _ = tool("show", "collectors", "--json", *argv, check=False)
    found = json.loads(text)["collectors"]
    assert code == (0 if all(c["state"] == "sending" for c in found) else 1)
    return {c["collector"]: c for c in found}


def rows(text):
    """A printed table's rows, split where two blanks or more are."""
    return [re.split(r" {2,}", line.strip()) for line in text.splitlines() if line.strip()]


def test_states_of_collectors(lab, far):
    more = {"lost": exporter("up0", collectors(away="198.51.100.9")),
            "none": exporter("nope0", collectors(x="10.91.0.3")),
            "red": exporter("up1", collectors(z="10.92.0.2"), vrf="red")}
    trackers = edge("1s", **more)
    started = time.time()
    agent = Agent(lab, config(trackers, vrfs={"red": 9}))
    wait_for("the kernel's refusal is noticed",
             lambda: states(exporter="lost")["away"]["state"] == "refused", 10)
    found = states()
    assert {n: c["state"] for n, c in found.items()} == {
        "a": "sending", "six": "sending", "away": "refused", "x": "waiting for address",
        "z": "waiting for namespace"}
    assert all(started - 1 < c["since"] < time.time() for c in found.values()), found
    assert found["away"]["detail"] == "Network is unreachable"
    assert found["away"]["refused"]["ENETUNREACH"] > 0 and found["a"]["refused"] == {}
    assert "no interface nope0" in found["x"]["detail"] and "ns-red" in found["z"]["detail"]
    # What was refused counts as exported, and is counted as refused beside it.
    lost = wait_for("refusals are counted", lambda: [
        e for e in tool_json("show", "counters", "--exporter", "lost")["endpoints"]
        if e["refused"]])[0]
    assert (lost["family"], lost["sent"], lost["causes"]) == (4, 0, {"ENETUNREACH": lost["refused"]})
    assert ["edge", "lost", "IPv4", "0"] in [r[:4] for r in rows(tool("show", "counters")[1])]
    metrics = lab.path("metrics.prom")
    tool("metrics", "--textfile", metrics)
    found_refused = dict(re.findall(r'tarnflow_refused_datagrams_total{.*exporter="(\w+)",family='
                                    r'"ipv4"} (\d+)', metrics.read_text()))
    assert int(found_refused["lost"]) >= lost["refused"] and found_refused["main"] == "0"
    a = found["a"]
    assert (a["tracker"], a["domain"], a["exporter"], a["address"], a["port"], a["sourceAddress"],
            a["vrf"], a["interface"]) == ("edge", 7, "main", "10.91.0.2", 4739, HERE4, "default",
                                          "up0")
    assert a["sourcePort"] > 0 and found["x"]["sourcePort"] is None
    assert abs(a["dataTemplatesSent"] - time.time()) < 5 * SLOW

    code, text, _ = tool("show", "collectors", check=False)
    table = rows(text)
    assert code == 1 and table[0] == ["tracker", "exporter", "collector", "address", "state",
                                      "since", "detail"]
    assert [r[2:5] for r in table if r[1] == "main"] == [
        ["a", "10.91.0.2:4739", "sending"], ["six", "[fd91::2]:4739", "sending"]]
    assert "\x1b" not in text
    assert tool("show", "collectors", "--exporter", "main")[0] == 0

    # What was missing comes: each state changes by itself, and its time with it.
    before = states()
    lab.namespace("ns-red")
    wait_for("the namespace is there",
             lambda: states(exporter="red")["z"]["state"] == "waiting for address")
    lab.veth("up1", "dn1", far, ns="ns-red")
    lab.address("up1", "10.92.0.1/24", ns="ns-red")
    run("ip", "route", "add", "198.51.100.0/24", "via", "10.91.0.3")
    wait_for("all can be sent to", lambda: [n for n, c in states().items()
                                            if c["state"] != "sending"] == ["x"], 10)
    after = states()
    assert after["a"]["since"] == before["a"]["since"] and after["x"]["since"] == before["x"]["since"]
    assert all(after[n]["since"] > before[n]["since"] for n in ("away", "z"))
    agent.program.wait_log("warning collector away of exporter lost .*Network is unreachable")
    run("ip", "link", "set", "up0", "down")
    wait_for("its link is down", lambda: "is down" in states(exporter="main")["a"]["detail"])
    assert agent.stop() == 0


def test_tables_templates_counters(lab, far):
    agent = Agent(lab, config(edge(), vrfs={"red": 9, "blue": 10}))
    index = socket.if_nametoindex("up0")

    found = {t["name"]: t for t in tool_json("show", "tables")["tables"]}
    assert {n: t["templateId"] for n, t in found.items()} == {
        "interfaces": 65281, "vrfs": 65280, "trackers": 65283, "flow-keys": 65282}
    assert all(len(t["rows"]) == t["records"] for t in found.values()), found
    assert {"ingressInterface": index, "interfaceName": "up0"} in found["interfaces"]["rows"]
    assert {r["VRFname"]: r["ingressVRFID"] for r in found["vrfs"]["rows"]} == {
        "default": 0, "red": 9, "blue": 10, "": 16777215}
    assert [(r["tracker"], r["observationDomainId"], r["observationDomainName"])
            for r in found["trackers"]["rows"]] == [("edge", 7, "edge")]
    keys = {r["templateId"]: r["keys"] for r in found["flow-keys"]["rows"]}
    assert keys[256][0] == "sourceIPv4Address" and keys[257][0] == "sourceIPv6Address"
    assert [t["name"] for t in tool_json("show", "tables", "vrfs")["tables"]] == ["vrfs"]
    text = tool("show", "tables", "interfaces")[1]
    assert [str(index), "up0"] in rows(text)
    assert re.search(r"^interfaces: \d+ records$", text, re.M)
    text = tool("show", "tables", "--limit", 1)[1]
    assert "... 3 more" in text and len(re.findall(r"^\w[\w-]*: \d+ record", text, re.M)) == 4

    found = tool_json("show", "templates")["templates"]
    assert [(t["id"], t["kind"], t["domain"]) for t in found] == [
        (256, "data", 7), (257, "data", 7), *((i, "options", 7) for i in range(65280, 65284))]
    assert found[0]["fields"][0] == {"name": "sourceIPv4Address", "id": 8, "enterprise": 0,
                                     "length": 4, "scope": False, "key": True}
    assert found[3]["fields"] == [
        {"name": "ingressInterface", "id": 10, "enterprise": 0, "length": 4, "scope": True},
        {"name": "interfaceName", "id": 82, "enterprise": 0, "length": 65535, "scope": False}]
    assert all(abs(t["lastSent"] - time.time()) < 5 * SLOW for t in found)
    text = tool("show", "templates", "--tracker", "edge")[1]
    assert re.search(r"^tracker edge, domain 7: options template 65281, 2 fields, last sent \S+ ago$",
                     text, re.M)
    assert ["10", "ingressInterface", "4", "scope"] in rows(text)

    # Cleared, then counted on; rates between two looks.
    wait_for("tables have been sent", lambda: all(c["records"] for c in counters().values()))
    assert tool_json("clear", "counters") == {"cleared": True}
    assert all(c["messages"] == 0 and c["lastClearedTime"] for c in counters().values())
    assert "are 0" in tool("clear", "counters")[1]
    watch = lab.start("watch", TOOL, "show", "counters", "--watch", "0.4", "--json", "--tracker",
                      "edge", "--exporter", "main")
    looks = wait_for("two looks", lambda: len(watch.out().splitlines()) >= 2 and
                     [json.loads(x) for x in watch.out().splitlines()])
    assert [e["perSecond"] for e in looks[0]["entries"]] == [None, None]
    assert [set(e["perSecond"]) for e in looks[1]["entries"]] == [{"messages", "records", "octets"}] * 2
    assert tool("resend")[0] == 0
    wait_for("the rate shows what was sent", lambda: any(
        e["perSecond"] and e["perSecond"]["messages"] > 0 and e["perSecond"]["octets"] > 100
        for x in watch.out().splitlines() for e in json.loads(x)["entries"]))
    watch.stop()
    assert tool("show", "counters", "--tracker", "edge", "--exporter", "other", check=False)[0] == 1
    assert agent.stop() == 0


def test_state(lab, far):
    agent = Agent(lab, config(edge()))
    tree = tool_json("show", "state")
    main = tree["software-config"]["ftConfig"]["edge"]["expConfig"]["main"]
    assert (main["srcIpAddr"], main["exporter4Ready"]) == (HERE4, "True")
    assert main["collectorIpAndPort"] == {"a": "10.91.0.2:4739"}
    assert tree["interfaces"]["intfIndex"]["up0"] and tree["vrfs"]["vrf"] == {"0": "default"}
    path = "software-config/ftConfig/edge/expConfig/main/dscp"
    assert tool_json("show", "state", path)["software-config"]["ftConfig"]["edge"]["expConfig"] == {
        "main": {"dscp": "0"}}
    text = tool("show", "state", "elements", "--limit", 2)[1]
    assert "... more" in text and "octetDeltaCount" in text and "protocolIdentifier" not in text
    assert "  initialized True" in text.splitlines(), "what follows a collection that was cut"
    # Every part of a tree that takes several answers, once.
    assert len(tree["elements"]["elementIdCollection"]["elementIdColl"]) == 87
    assert agent.stop() == 0


def test_resend_and_log_level(lab, far):
    both = edge(other=exporter("up0", collectors(b="10.91.0.3"), template_interval="60s"))
    capture = Capture(lab, "dn0", ns=far)
    agent = Agent(lab, config(both))

    def whole(messages):
        """Templates, options templates, and then tables."""
        ids = [s[0] for m in messages for s in m.sets]
        return ids[:2] == [2, 3] and {65280, 65281, 65282, 65283} <= set(ids)
    for address in ("10.91.0.2", "10.91.0.3"):
        capture.wait_until("everything was sent once", whole, dst=address)
    time.sleep(1.2)  # single changes of the start
    before = {a: len(capture.messages(dst=a)) for a in ("10.91.0.2", "10.91.0.3")}
    assert tool_json("resend", "--tracker", "edge", "--exporter", "other") == {"exporters": 1}
    capture.wait_until("everything again", lambda ms: whole(ms[before["10.91.0.3"]:]),
                       dst="10.91.0.3")
    assert len(capture.messages(dst="10.91.0.2")) == before["10.91.0.2"]
    assert tool("resend")[1].startswith("2 exporters send")
    capture.wait_until("everything again", lambda ms: whole(ms[before["10.91.0.2"]:]),
                       dst="10.91.0.2")

    assert "TemplateExporterSmBase" not in agent.program.log()
    assert tool("log-level", "detail")[1] == "5\n" and tool_json("log-level") == {"level": 5}
    tool("resend")
    agent.program.wait_log("trace5 TemplateExporterSmBase")
    assert tool_json("log-level", 0) == {"level": 0}
    assert agent.stop() == 0
    capture.stop()
    # What was captured decodes, with everything in order.
    _, text, error = tool("decode", capture.file)
    assert "options template 65281, new" in text and "SEQUENCE" not in text and not error
    assert "interfaceName" in tool("decode", capture.file, "--tables")[1]


def test_reload(lab, far):
    agent = Agent(lab, config(edge()))
    agent.write(config(edge(other=exporter("up0", collectors(b="10.91.0.3")))))
    answer = tool_json("reload")
    assert answer == {"done": True, "errors": [], "warnings": [],
                      "summary": f"reloaded {agent.file}: exporters: 1 added; collectors: 1 added"}
    assert answer["summary"] in agent.program.log()
    assert "nothing changed" in tool("reload")[1]
    agent.write(config(edge()).replace("id = 7", "id = -7"))
    code, text, error = tool("reload", check=False)
    line = re.search(rf"^{re.escape(str(agent.file))}:\d+:\d+: .*-7.*$", error, re.M)
    assert code == 1 and not text and line and line[0] in agent.program.log()
    assert line[0] in tool_json("reload", code=1)["errors"]
    # A drop-in that would wait for a writer, and files that somebody removed or cut off.
    fifo = agent.file.with_suffix(".d") / "x.toml"
    fifo.parent.mkdir()
    os.mkfifo(fifo)
    code, _, error = tool("reload", check=False)
    assert code == 1 and f"{fifo}: is not a regular file" in error, error
    fifo.unlink()
    agent.write(config(edge()))
    tool("reload")
    for file in (SOCKET, "/dev/shm/tarnflow"):
        os.unlink(file)
    os.truncate("/dev/shm/tarnflow-endpoints", 0)
    agent.program.process.send_signal(signal.SIGHUP)
    for what in (f"control socket {SOCKET} was removed", "/dev/shm/tarnflow was removed",
                 "/dev/shm/tarnflow-endpoints was truncated"):
        agent.program.wait_log(f"{what}: it is made again")
    assert "nothing changed" in tool("reload")[1] and counters()
    agent.write(config(edge()).replace(str(SOCKET), "/run/other.sock"))
    assert "take effect at the next start" in tool("reload")[2]
    assert agent.stop() == 0


def test_what_is_in_the_way(lab, far):
    def refused(*argv, code=2):
        got, text, error = tool(*argv, check=False)
        assert got == code and not text, (argv, got, text, error)
        return error
    commands = (["show", "collectors"], ["show", "tables"], ["show", "templates"],
                ["show", "state"], ["clear", "counters"], ["resend"], ["reload"], ["log-level"])
    for argv in commands:
        error = refused(*argv)
        assert str(SOCKET) in error and "Is tarnflowd running?" in error and "--socket" in error
    agent = Agent(lab, config(edge()))
    for argv, says in ((["show", "tables", "nope"], "interfaces, vrfs, trackers, flow-keys"),
                       (["show", "state", "nope"], "software-config"),
                       (["show", "collectors", "--tracker", "nope"], "no tracker 'nope'"),
                       (["resend", "--exporter", "nope"], "no exporter 'nope'"),
                       (["log-level", "loud"], "0 to 9")):
        assert says in refused(*argv)
    run("ip", "link", "set", "up0", "down")
    wait_for("nothing is ready", lambda: states()["a"]["state"] != "sending")
    assert "show collectors" in refused("resend", code=1)

    agent.program.stop(signal.SIGKILL)
    assert "Start tarnflowd" in refused("reload")
    with socket.socket(socket.AF_UNIX) as strange:
        strange.bind("/run/strange.sock")
        strange.listen()
        answer = threading.Thread(target=lambda: strange.accept()[0].sendall(b"hello\n"))
        answer.start()
        assert "no tarnflowd" in refused("reload", "--socket", "/run/strange.sock")
        answer.join()


def test_decode(lab):
    """What captures hold besides whole messages."""
    def frame(payload, fragment=0, vlan=0, v6=False):
        body = traffic.udp(40000, 4739, payload)
        if v6:
            hop = bytes([traffic.UDP, 0, 1, 4, 0, 0, 0, 0]), 0
            return traffic.ethernet(0x86DD, traffic.ipv6("::1", "::2", traffic.UDP, body, *hop,
                                                         tos=184))
        return traffic.ethernet(0x0800, traffic.ipv4(
            "10.0.0.1", "10.0.0.2", traffic.UDP, body, fragment=fragment, tos=184), vlan)
    good = message([(2, template(300, [(8, 4)])), (300, b"\n\1\1\1")], export_time=1800000000)
    other = b"\0\x0a" + bytes(60)  # begins as a message does
    file = lab.path("x.pcap")

    def decode(*frames, argv=()):
        file.write_bytes(pcap(frames))
        return tool("decode", file, *argv, check=False)
    code, text, error = decode(frame(good), frame(good, vlan=5), frame(good, v6=True),
                               frame(other), bytes(60), argv=["--json"])
    lines = [json.loads(x) for x in text.splitlines()]
    assert code == 1 and [x["type"] for x in lines] == ["message"] * 3 + ["summary"], (lines, error)
    assert lines[0]["sets"][1]["records"] == [{"sourceIPv4Address": "10.1.1.1"}]
    assert [x["sequenceState"] for x in lines[:3]] == ["first", "back", "first"]
    assert lines[0]["dscp"] == 46 and lines[2]["sourceAddress"] == "::1" and lines[2]["dscp"] == 46
    assert decode(frame(good))[0] == 0
    # Captured before a segmented send was cut up: several messages in one datagram.
    after = message([(300, b"\n\1\1\2")], sequence=1, export_time=1800000000)
    for junk, status in ((b"", 0), (b"junk", 1)):
        code, text, _ = decode(frame(good + after + junk), argv=["--json"])
        lines = [json.loads(x) for x in text.splitlines()]
        assert code == status, text
        assert [s["records"] for x in lines[:2] for s in x["sets"] if "records" in s] == [
            [{"sourceIPv4Address": "10.1.1.1"}], [{"sourceIPv4Address": "10.1.1.2"}]], text
        assert len(lines) == 3 + bool(junk) and (not junk or lines[2]["error"]), text
    code, text, error = decode(frame(other), argv=["--port", "4739"])
    assert code == 1 and "!!" in text
    for frames, says in (((frame(other),), "no IPFIX among 1 packets"),
                         ((frame(good), frame(good, fragment=0x2000)), "1 fragment"),
                         ((frame(good), frame(good)[:-5]), "not captured whole"),
                         ((frame(good), frame(good)[:38] + b"\0\1" + frame(good)[40:]),
                          "contradict")):
        code, _, error = decode(*frames)
        assert code == 1 and says in error, error
    file.write_bytes(b"not a capture at all, but text of some length")
    code, _, error = tool("decode", file, check=False)
    assert code == 2 and str(file) in error
    assert tool("decode", "/nope", check=False)[0] == 2


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
    commands += [(AGENT, "--version"), (AGENT, "--check", agent.file),
                 (AGENT, "--print-default-config")]
    for argv in commands:
        for to in (">/dev/full", ">&-"):
            done = subprocess.run(["sh", "-c", f'exec "$@" {to}', "sh", *map(str, argv)], timeout=20,
                                  stderr=subprocess.PIPE, text=True)
            assert done.returncode == 2, (argv, to, done)
            assert "cannot write to standard output: " in done.stderr, (argv, to, done)
    # The same for standard error, whose loss is no fault.
    for to in ("2>/dev/full", "2>&-"):
        assert subprocess.run(["sh", "-c", f"exec {TOOL} decode /nope {to}"]).returncode == 2
    assert agent.stop() == 0


def test_log_goes_to_the_journal_with_fields(lab, far):
    """What a journal gets when standard error leads to it."""
    os.makedirs("/run/systemd/journal", exist_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as journal:
        journal.bind("/run/systemd/journal/socket")
        journal.setblocking(False)
        trackers = edge(lost=exporter("up0", collectors(away="198.51.100.9"), template_interval="1s"))
        file = lab.path("journal.toml")
        file.write_text(config(trackers))
        stderr = lab.path("journal.stderr")
        with open(stderr, "wb") as f:
            stat = os.fstat(f.fileno())
            program = subprocess.Popen([*AGENT_WRAP, AGENT, "--config", file], stderr=f, env={
                **os.environ, "JOURNAL_STREAM": f"{stat.st_dev}:{stat.st_ino}"})
        entries = []

        def heard(**fields):
            try:
                while True:
                    lines = journal.recv(65536).decode().splitlines()
                    entries.append(dict(line.split("=", 1) for line in lines))
            except BlockingIOError:
                pass
            return [e for e in entries if all(re.search(v, e.get(k, "")) for k, v in fields.items())]
        try:
            active = wait_for("the named message", lambda: heard(
                TARN_MESSAGE="^FLOWTRACKING_EXPORTER_ACTIVE$", TARN_EXPORTER="^main$"))[0]
            assert active["TARN_TRACKER"] == "edge" and active["TARN_VRF"] == "default"
            assert active["PRIORITY"] == "6" and active["SYSLOG_IDENTIFIER"] == "tarnflowd"
            assert active["MESSAGE"].startswith("FLOWTRACKING_EXPORTER_ACTIVE: software exporter")
            assert active["TARN_EXPLANATION"] == "This exporter is ready to export packets."
            wait_for("the refused collector", lambda: heard(
                TARN_COLLECTOR="^away$", PRIORITY="^4$", MESSAGE="Network is unreachable"))

        finally:
            program.terminate()
            assert program.wait(10) == 0
        assert stderr.read_text() == ""


GREEDY = """
import select, socket, sys
ask = b'{"request":"state"}\\n{"request":"tables","name":"interfaces"}\\n' * 20
reading = [socket.socket(socket.AF_UNIX) for _ in range(20)]
stuck = [socket.socket(socket.AF_UNIX) for _ in range(8)]
for s in reading + stuck:
    s.connect(sys.argv[1])
    s.setblocking(False)
    s.send(ask)
print("asking", flush=True)
octets = 0
while True:
    for s in select.select(reading, [], [])[0]:
        got = s.recv(1 << 20)
        octets += len(got)
        if got.endswith(b"\\n"):
            s.send(ask[:20])
"""


@pytest.mark.skipif(SLOW != 1, reason="counts milliseconds")
def test_nobody_who_asks_delays_an_export(lab, far):
    """Templates leave every second, while 20 clients ask for as much as they can get and 8 more never
    fetch what they asked for."""
    capture = Capture(lab, "dn0", ns=far, kinds=(2,))
    agent = Agent(lab, config(edge("1s")))
    try:  # what others do on this machine is no fault of the agent
        os.sched_setscheduler(agent.pid, os.SCHED_FIFO, os.sched_param(10))
    except PermissionError:
        pytest.skip("needs real-time priority")
    capture.wait(3, dst="10.91.0.2")
    greedy = lab.start("greedy", "/usr/bin/python3", "-c", GREEDY, SOCKET)
    greedy.wait_log("asking")
    busy = cpu_seconds(agent.pid)
    before = len(capture.messages(dst="10.91.0.2"))
    messages = capture.wait(before + 8, dst="10.91.0.2", seconds=12)
    times = [m.time for m in messages[before - 1:]]
    gaps = [b - a for a, b in zip(times, times[1:])]
    print("between templates:", [f"{g:.4f}" for g in gaps])
    assert all(0.998 < g < 1.010 for g in gaps), gaps
    assert cpu_seconds(agent.pid) - busy > 1, "it was asked a lot"
    assert greedy.running()
    # Whoever comes politely is served meanwhile, and those who never read are let go.
    start = time.monotonic()
    assert tool("show", "collectors", "--exporter", "main")[0] == 0
    assert time.monotonic() - start < 3
    assert agent.stop() == 0


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
