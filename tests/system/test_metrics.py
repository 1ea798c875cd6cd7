"""`tarnflow metrics` and the reader of examples/, beside agents that live, stop and are killed."""

import http.client
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

from prometheus_client import parser
from prometheus_client.openmetrics import parser as open_parser

from lab import SLOW, parse_json_lines, wait_for
from tarnflow import TOOL, Agent, collectors, config, exporter, show_counters, tool

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
READER = ROOT / "examples" / "read_counters.py"
# Names that Prometheus' text would break at: its quote, its escape, its line end spelled out.
EVIL = 'a "b" \\n \\ é'
ONE = config({EVIL: {"id": 7, "interfaces": ["lo"], "exporter": {"main": exporter(
    "lo", collectors(four="127.0.0.1", six="::1"), template_interval="1s")}}})
OPEN = "application/openmetrics-text; version=1.0.0"


class Metrics:
    """A running `tarnflow metrics`."""

    def __init__(self, lab):
        self.program = lab.start("metrics", TOOL, "metrics", "--listen", "127.0.0.1:0")
        self.port = int(self.program.wait_log(r"^serving http://\S+:(\d+)/metrics$")[1])

    def get(self, path="/metrics", method="GET", **headers):
        to = http.client.HTTPConnection("127.0.0.1", self.port, timeout=5)
        to.request(method, path, headers=headers)
        answer = to.getresponse()
        return answer.status, answer.getheader("Content-Type"), answer.read().decode()

    def samples(self):
        status, _, text = self.get()
        assert status == 200, text
        return samples(text)

    def up(self):
        return self.samples()["tarnflow_up", ()]


def samples(text, read=parser):
    """{(name, labels): value}, as an independent parser has them."""
    found = [((s.name, tuple(sorted(s.labels.items()))), s.value)
             for family in read.text_string_to_metric_families(text) for s in family.samples]
    assert len(dict(found)) == len(found), "a sample twice"
    return dict(found)


# All there is when no agent lives.
DOWN = {("tarnflow_up", ()), ("tarnflow_build_info", (
    ("version", tool("--version")[1].split()[1]),))}


def lint(text):
    """What promtool has to say about names, types, units and help texts."""
    done = subprocess.run(["promtool", "check", "metrics"], input=text, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0 and not done.stdout, done.stdout


def labels(entry, **more):
    address = entry["collectorAddress"]
    collector = f"[{address}]" if ":" in address else address
    return tuple(sorted({"tracker": entry["tracker"], "exporter": entry["exporter"],
                         "collector": f"{collector}:{entry['collectorPort']}", **more}.items()))


def test_says_what_the_counters_say(lab):
    agent, metrics = Agent(lab, ONE), Metrics(lab)
    wait_for("templates went twice", lambda: all(
        e["messages"] >= 4 for e in show_counters()["entries"]))
    wait_for("the flow path wrote its counters", lambda: any(
        n == "tarnflow_capture_packets_total" for n, _ in metrics.samples()))
    # No sooner than the agent rests do two readings agree.
    agent.program.process.send_signal(signal.SIGSTOP)
    time.sleep(0.15)  # what is served is at most 100 ms old
    _, kind, text = metrics.get()
    assert kind == "text/plain; version=0.0.4; charset=utf-8"
    lint(text)
    found = samples(text)
    assert found["tarnflow_up", ()] == 1
    said = show_counters()["entries"]
    assert len(said) == 2 and all(e["tracker"] == EVIL for e in said)

    def family(name, value, each=lambda e: [(e, {})]):
        """One of ours has these samples and no other."""
        name = f"tarnflow_{name}"
        assert {l: v for (n, l), v in found.items() if n == name} == {
            labels(e, **more): value(one) for e in said for one, more in each(e)}, name
    for name, key in (("messages", "messages"), ("data_records", "records"), ("bytes", "octets")):
        family(f"exported_{name}_total", lambda e, key=key: e[key])
    family("exported_templates_total", lambda e: sum(s["templates"] for s in e["sets"]))
    for name, key, data in (("data_records", "records", True), ("templates", "templates", False)):
        family(f"exported_set_{name}_total", lambda s, key=key: s[key], lambda e, data=data: [
            (s, {"set": str(s["id"])}) for s in e["sets"] if (s["id"] > 255) == data])
    for name, key in (("message", "lastMessageTime"), ("options_data", "lastOptionsDataTime")):
        family(f"last_{name}_timestamp_seconds", lambda e, key=key: round(e[key], 3))
    assert all(e["records"] > 0 and len(e["sets"]) > 2 for e in said)

    # Sums mean something: each packet is in one place.
    def total(name):
        return sum(v for (n, _), v in found.items() if n == f"tarnflow_{name}_total")
    assert total("capture_packets") == total("flow_packets") + total("capture_packets_uncounted")
    # The example reads the same, by the documentation of the layout alone.
    done = subprocess.run([READER], stdout=subprocess.PIPE, text=True, check=True)
    assert sorted(parse_json_lines(done.stdout), key=labels) == sorted(said, key=labels)
    _, kind, text = metrics.get(Accept=OPEN)
    assert kind == f"{OPEN}; charset=utf-8" and samples(text, open_parser) == found
    agent.program.process.send_signal(signal.SIGCONT)


def test_everyone_recovers_from_kill(lab, tmp_path):
    """An agent dies without warning: who reads its counters tells a living agent from a dead one, and
    shows nothing of the dead."""
    agent, metrics = Agent(lab, ONE), Metrics(lab)
    watch = lab.start("watch", TOOL, "show", "counters", "--json", "--watch", "0.05")
    file = tmp_path / "tarnflow.prom"
    tool("metrics", "--textfile", file)
    lint(file.read_text())
    first = file.open("rb")  # held, so that nothing else gets its inode
    assert os.fstat(first.fileno()).st_mode & 0o777 == 0o644
    writer = lab.start("textfile", TOOL, "metrics", "--textfile", file, "--interval", "0.02")

    def judge(alive):
        wait_for(f"metrics say {alive}", lambda: metrics.up() == alive)
        assert any(n.startswith("tarnflow_exported") for n, _ in metrics.samples()) == alive
        # Each time it is another file, whole; none besides is what node-exporter would take for one.
        wait_for(f"the file says {alive}", lambda: (samples(file.read_text()).keys() > DOWN) == alive)
        assert {f.name for f in tmp_path.glob("*.prom")} == {file.name}
        done = subprocess.run([READER], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert (done.returncode == 0) == bool(done.stdout) == alive, done
        assert (tool("show", "counters", check=False)[0] == 0) == alive
        expected = ("live", agent.pid) if alive else ("dead", agent.pid)
        wait_for(f"the watcher sees {expected}", lambda: (lambda last: (
            last["state"], last["writerPid"]) == expected)(parse_json_lines(watch.out())[-1]))
    judge(True)
    for _ in range(2):
        agent.program.stop(signal.SIGKILL)
        judge(False)
        assert show_counters()["entries"], "what it last wrote can still be read"
        agent = Agent(lab, ONE)
        judge(True)
    assert agent.stop() == 0
    assert show_counters()["state"] == "absent"
    wait_for("nobody is up", lambda: metrics.samples().keys() == DOWN)
    assert not os.path.samestat(os.fstat(first.fileno()), file.stat())
    assert writer.stop() == 0 and list(tmp_path.glob("*.prom*")) == []


def test_clients_do_not_wait_for_each_other(lab):
    """Slow, silent and wrong clients cost a slot each, and nobody a scrape."""
    agent, metrics = Agent(lab, ONE), Metrics(lab)

    def connect(octets=b"GET"):
        s = socket.create_connection(("127.0.0.1", metrics.port), timeout=5)
        s.sendall(octets)
        return s

    def scrape():
        began = time.monotonic()
        assert metrics.up() == 1 and time.monotonic() - began < 2 * SLOW
    slow = [connect(o) for o in (b"", b"GET /met", b"GET /metrics HTTP/1.1\r\nHost: x\r\nA:") * 10]
    stuffed = connect(b"GET / HTTP/1.1\r\nHost: x\r\nA: " + b"x" * 100000)
    scrape()
    assert re.match(rb"HTTP/1.1 4(31|14|13|00)", stuffed.recv(99))
    for method, path, status in (("GET", "/other", 404), ("POST", "/metrics", 405), ("GET", "/", 200),
                                 ("HEAD", "/metrics", 200)):
        assert metrics.get(path, method)[0] == status
    # Beyond the limit whoever comes takes the slot of the one that was silent for longest; and when
    # all are gone at once, it listens on.
    for _ in range(3):
        slow += [connect() for _ in range(100)]
        scrape()
        assert len(os.listdir(f"/proc/{metrics.program.pid}/fd")) < 64 + 20
        while slow:
            slow.pop().close()
        scrape()
