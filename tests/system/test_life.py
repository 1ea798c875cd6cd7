"""Start, stop, a second agent, the demonstration."""

import pathlib
import re
import signal
import subprocess
import time

import pytest

from lab import BUILD, SLOW
from tarnflow import AGENT, Agent, collectors, config, counters, exporter, tool

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SEGMENT = pathlib.Path("/dev/shm/tarnflow")
ONE = config({"edge": {"id": 7, "exporter": {"main": exporter(
    "lo", collectors(four="127.0.0.1", six="::1"))}}})


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_stops_in_order(lab, sig):
    agent = Agent(lab, ONE)
    assert SEGMENT.exists() and len(counters()) == 2
    agent.program.process.send_signal(sig)
    assert agent.program.wait_exit() == 0
    assert not SEGMENT.exists() and not list(pathlib.Path("/dev/shm").iterdir())
    assert agent.notify.lines()[-1] != "READY=1" and "STOPPING=1" in agent.notify.lines()
    log = agent.program.log()
    steps = ["started with", "stopping", "stopped"]
    places = [log.find(s) for s in steps]
    assert -1 not in places and places == sorted(places), log


def test_second_agent_is_refused(lab):
    first = Agent(lab, ONE)
    before = counters()
    second = Agent(lab, ONE, ready=False)
    assert second.program.wait_exit() == 1
    error = second.program.log()
    assert "statistics" in error and str(first.pid) in error and "/tarnflow" in error
    assert counters() == before
    # Under another name both run.
    third = Agent(lab, ONE.replace('"/tarnflow"', '"/other"'))
    assert len(counters("/other")) == 2
    assert third.stop() == 0 and len(counters()) == 2
    assert first.stop() == 0


def test_started_on_a_wrong_file(lab):
    agent = Agent(lab, ONE.replace("id = 7", "id = -7"), ready=False)
    assert agent.program.wait_exit() == 1
    assert re.search(rf"{re.escape(str(agent.file))}:\d+:\d+: .*-7.*4294967295", agent.program.log())
    assert not SEGMENT.exists()
    for argv in (["--check", agent.file], ["--config", lab.path("absent.toml")]):
        done = subprocess.run([AGENT, *argv], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, timeout=5)
        assert done.returncode == 1 and str(argv[1]) in done.stderr, done.stderr
    # The tool says the same of it as the agent.
    assert tool("check", agent.file, check=False)[0] != 0
    agent.file.write_text(ONE)
    assert tool("check", agent.file)[0] == 0


def test_demo_shows_templates(lab):
    """What `make run` shows within five seconds of the start."""
    program = lab.start("run-demo", "setsid", ROOT / "scripts" / "run-demo", BUILD,
                        env={"RUN_SECONDS": "6"})
    for template, name in ((256, "sourceIPv4Address"), (257, "sourceIPv6Address"),
                           (65280, "VRFname"), (65281, "interfaceName"),
                           (65282, "flowKeyIndicator"), (65283, "observationDomainName")):
        program.wait_log(rf"\b{template}\b", 5)
        program.wait_log(rf"\b{name}\b", 5)
    for receiver in ("127.0.0.1", "::1"):
        assert receiver in program.out()
    assert time.monotonic() - program.started < 5 * SLOW
    assert program.wait_exit(8) == 0
    sockets = open("/proc/net/udp").read() + open("/proc/net/udp6").read()
    assert ":1283 " not in sockets and not SEGMENT.exists()
