"""Start, stop, a second agent, the demonstration."""

import pathlib
import re
import signal
import time

import pytest

from lab import BUILD, SLOW, run
from tarnflow import AGENT, Agent, counters, edge, tool

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SEGMENT = pathlib.Path("/dev/shm/tarnflow")
ONE = edge({"four": "127.0.0.1", "six": "::1"}, interface="lo")


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_stops_in_order(lab, sig):
    agent = Agent(lab, ONE)
    assert SEGMENT.exists() and len(counters()) == 2
    assert agent.program.stop(sig) == 0
    assert not list(pathlib.Path("/dev/shm").iterdir())
    assert agent.notify.lines()[-1] != "READY=1" and "STOPPING=1" in agent.notify.lines()
    assert re.search("started with.*stopping.*stopped", agent.program.log(), re.S)


def test_started_on_a_wrong_file(lab):
    agent = Agent(lab, ONE.replace("id = 7", "id = -7"), ready=False)
    assert agent.program.wait_exit() == 1
    assert re.search(rf"{re.escape(str(agent.file))}:\d+:\d+: .*-7.*4294967295", agent.program.log())
    assert not SEGMENT.exists()
    with pytest.raises(AssertionError, match="exit 1: .*/absent.toml"):
        run(AGENT, "--config", "/absent.toml")
    # The tool says the same of it as the agent.
    assert tool("check", agent.file, check=False)[0] != 0
    agent.file.write_text(ONE)
    assert tool("check", agent.file)[0] == 0


def test_demo_shows_templates(lab):
    """What `make run` shows within five seconds of the start."""
    program = lab.start("run-demo", "setsid", ROOT / "scripts" / "run-demo", BUILD,
                        env={"RUN_SECONDS": "6"})
    for shown in ("256", "257", "65280", "65281", "65282", "65283", "sourceIPv4Address",
                  "sourceIPv6Address", "VRFname", "interfaceName", "flowKeyIndicator",
                  "observationDomainName", r"127\.0\.0\.1", "::1"):
        program.wait_log(rf"(?<!\w){shown}\b")
    assert time.monotonic() - program.started < 5 * SLOW
    assert program.wait_exit(8) == 0
    sockets = open("/proc/net/udp").read() + open("/proc/net/udp6").read()
    assert ":1283 " not in sockets and not SEGMENT.exists()
