"""tarnflowd and tarnflow as the tests use them."""

import json
import signal
import subprocess
import tempfile

from lab import AGENT_WRAP, BUILD, Notify, wait_for

AGENT = f"{BUILD}/bin/tarnflowd"
TOOL = f"{BUILD}/bin/tarnflow"

# Octets of the elements that our templates use, as IANA's IPFIX registry gives their types.
LENGTH = {1: 8, 2: 8, 4: 1, 5: 1, 6: 2, 7: 2, 8: 4, 10: 4, 11: 2, 12: 4, 14: 4, 27: 16, 28: 16,
          31: 4, 36: 2, 37: 2, 58: 2, 61: 1, 82: 65535, 136: 1, 145: 2, 149: 4, 152: 8, 153: 8, 173: 8, 234: 4,
          236: 65535, 300: 65535, 304: 2, 309: 4, 310: 4}
ENTERPRISE = 99991

# Flow templates: 5-tuple, class of service, where it came in; then what is counted.
FLOW4 = (8, 12, 7, 11, 4, 5, 58, 10, 234, 14, 61, 1, 2, 152, 153, 6, 136)
FLOW6 = (27, 28, *FLOW4[2:], 31)
DATA_TEMPLATES = {256: (0, tuple((e, LENGTH[e], 0) for e in FLOW4)),
                  257: (0, tuple((e, LENGTH[e], 0) for e in FLOW6))}
# Options templates: (scope fields, fields) by id.
OPTIONS_TEMPLATES = {
    template: (1, tuple((e, LENGTH[e], 0) for e in elements) + extra)
    for template, elements, extra in (
        (65280, (234, 236), ()), (65281, (10, 82), ()), (65282, (145, 173), ()),
        (65283, (149, 300, 36, 37, 304, 309, 310), ((1001, 2, ENTERPRISE),)))}


def toml(value):
    """A TOML value: JSON's scalars and lists are TOML too."""
    return json.dumps(value, ensure_ascii=False)


def collectors(**addresses):
    """A collector's section each, of an address or of (address, port)."""
    return {name: {"address": to} if isinstance(to, str) else {"address": to[0], "port": to[1]}
            for name, to in addresses.items()}


def exporter(interface, collector, **keys):
    """An exporter's section; key names with _ for -."""
    return {"local-interface": interface, **{k.replace("_", "-"): v for k, v in keys.items()},
            "collector": collector}


def config(trackers, vrfs=None):
    """The text of a configuration file. trackers: {name: {"id": .., "exporter": {..}}}."""
    lines = []

    def section(path, table):
        lines.append(f"[{path}]")
        lines.extend(f"{k} = {toml(v)}" for k, v in table.items() if not isinstance(v, dict))
        for key, inner in table.items():
            if isinstance(inner, dict):
                for name, child in inner.items():
                    section(f"{path}.{key}.{toml(name)}", child)
    section("agent", {"statistics": "/tarnflow", "control": "/run/tarnflow/control.sock"})
    for name, vrf_id in (vrfs or {}).items():
        section(f"vrf.{toml(name)}", {"id": vrf_id})
    for name, table in trackers.items():
        section(f"tracker.{toml(name)}", table)
    return "\n".join(lines) + "\n"


def edge(to, interface="up0", tracker=None, vrfs=None, **keys):
    """The text of a file with one tracker, edge of domain 7, and its one exporter to `to`."""
    main = {"main": exporter(interface, collectors(**to), **keys)}
    return config({"edge": {"id": 7, **(tracker or {}), "exporter": main}}, vrfs=vrfs)


class Agent:
    """A running tarnflowd with its configuration file; it has to end well, by the end of its test."""

    def __init__(self, lab, text, ns=None, ready=True, env=None):
        self.lab = lab
        self.file = lab.path("tarnflow.toml")
        self.write(text)
        self.notify = Notify(tempfile.mktemp(".notify", dir="/run"))
        self.program = lab.start("tarnflowd", *AGENT_WRAP, AGENT, "--config", self.file, ns=ns,
                                 env={"NOTIFY_SOCKET": self.notify.path, **(env or {})})
        self.program.ends_well = True
        self.pid = self.program.pid
        if ready:
            self.wait_notified("READY=1")

    def wait_notified(self, line, count=1, seconds=5.0):
        def heard():
            if self.notify.lines().count(line) >= count:
                return True
            if not self.program.running():
                raise AssertionError(f"tarnflowd ended ({self.program.process.returncode}) before "
                                     f"{line}:\n{self.program.log()}")
            return False
        wait_for(f"tarnflowd notifies {line} ({count})", heard, seconds)

    def write(self, text):
        """Replaces the file whole: at no moment is there half of one."""
        new = self.file.with_suffix(".new")
        new.write_text(text)
        new.rename(self.file)

    def reload(self, text=None, ready=True):
        """Rewrites the file, sends SIGHUP and waits until the agent is done with it."""
        if text is not None:
            self.write(text)
        before = self.notify.lines().count("READY=1")
        self.program.process.send_signal(signal.SIGHUP)
        if ready:
            self.wait_notified("READY=1", before + 1)

    def stop(self):
        return self.program.stop()


def tool(*argv, check=True):
    """Runs tarnflow; (exit code, standard output, standard error)."""
    done = subprocess.run([TOOL, *map(str, argv)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True)
    if check and done.returncode:
        raise AssertionError(f"tarnflow {argv}: exit {done.returncode}: {done.stderr}")
    return done.returncode, done.stdout, done.stderr


def listen(lab, *argv, ns=None):
    """`tarnflow listen --json` at work."""
    program = lab.start("listen", TOOL, "listen", "--json", *argv, ns=ns)
    wait_for("tarnflow listen listens", lambda: "listening" in program.out())
    return program


def _shown(what):
    code, text, error = tool("show", what, "--json", check=False)
    assert code in (0, 1) and text, (code, text, error)
    return json.loads(text)


def show_counters():
    """`tarnflow show counters --json`, whatever it finds."""
    return _shown("counters")


def flows():
    """`tarnflow show flows --json`: the counters of each tracker that looks at packets."""
    return {t["tracker"]: t for t in _shown("flows")["trackers"]}


def counters():
    """The counters of each collector by its address; each has one exporter only in our tests."""
    found = show_counters()
    assert found["unreadable"] == 0, found
    entries = {e["collectorAddress"]: e for e in found["entries"]}
    assert len(entries) == len(found["entries"]), found
    return entries
