"""Start, stop, crash, a second agent, the demonstration."""

import pathlib
import re
import signal
import subprocess
import time

import pytest

from lab import BUILD, SLOW, parse_json_lines, wait_for
from tarnflow import (AGENT, TOOL, Agent, collectors, config, counters, exporter, show_counters,
                      tool)

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


def test_crash_and_restart(lab):
    """A reader that stays tells a crash from a life, and finds the next agent's table by itself."""
    reader = lab.start("reader", TOOL, "show", "counters", "--json", "--watch", "0.05")

    def seen(state, pid):
        wait_for(f"the reader sees {state} {pid}", lambda: any(
            (r["state"], r["writerPid"]) == (state, pid) for r in parse_json_lines(reader.out())))
        return next(r for r in parse_json_lines(reader.out())
                    if (r["state"], r["writerPid"]) == (state, pid))

    first = Agent(lab, ONE)
    alive = seen("live", first.pid)
    last = counters()
    assert first.program.stop(signal.SIGKILL) == -signal.SIGKILL
    # What it last wrote can still be read, and is not taken for a living agent's.
    seen("dead", first.pid)
    assert tool("show", "counters", check=False)[0] == 1 and counters() == last

    second = Agent(lab, ONE)
    assert seen("live", second.pid)["generation"] != alive["generation"]
    # Counted from the start: one transmission of the two data templates.
    assert [s["templates"] for c in counters().values() for s in c["sets"] if s["id"] == 2] == [2, 2]
    assert second.stop() == 0
    assert show_counters()["state"] == "absent"
    reader.stop()
    assert all(r["unreadable"] == 0 for r in parse_json_lines(reader.out()))


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


def demo(lab, seconds, **env):
    return lab.start("run-demo", "setsid", ROOT / "scripts" / "run-demo", BUILD,
                     env={"RUN_SECONDS": str(seconds), **env})


def receiver_is_up():
    return ":1283 " in open("/proc/net/udp").read() + open("/proc/net/udp6").read()


def test_demo_shows_templates(lab):
    """What `make run` shows within five seconds of the start."""
    program = demo(lab, 6)
    for template in (256, 257, 65280, 65281, 65282, 65283):
        program.wait_log(rf"\b{template}\b", 5)
    for name in ("sourceIPv4Address", "sourceIPv6Address", "interfaceName", "flowKeyIndicator",
                 "VRFname", "observationDomainName"):
        program.wait_log(rf"\b{name}\b", 5)
    for receiver in ("127.0.0.1", "::1"):
        assert receiver in program.out()
    assert time.monotonic() - program.started < 5 * SLOW
    assert program.wait_exit(8) == 0
    assert not receiver_is_up() and not SEGMENT.exists()
