"""The service's files, and what the agent does with many, few and no capabilities."""

import pathlib
import re
import shutil
import subprocess

import pytest

from lab import BUILD, run, wait_for
from tarnflow import Agent, counters, edge

SAID = (pathlib.Path(__file__).resolve().parent.parent.parent / "docs" / "tarnflowd.md").read_text()
NET_RAW, SYS_ADMIN = 1 << 13, 1 << 21
SYS_MODULE, DAC_OVERRIDE, SETUID = 1 << 16, 1 << 1, 1 << 7


@pytest.mark.parametrize("name", ["tarnflowd", "tarnflow-metrics"])
def test_unit_file(name, tmp_path):
    unit = tmp_path / f"{name}.service"
    text = (pathlib.Path(BUILD) / "packaging" / unit.name).read_text()
    assert {"TasksMax", "MemoryMax"} <= set(re.findall(r"^(\w+)=", text, re.M))
    # As if this build were installed: the programs that the file names must be there.
    unit.write_text(re.sub(r"=/\S+/s?bin/(tarnflow)", rf"={BUILD}/bin/\1", text))
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0 and not done.stdout, done.stdout
    said = run("systemd-analyze", "security", "--offline=true", unit)
    exposure = float(re.search(r"exposure level for \S+: ([\d.]+)", said)[1])
    assert exposure <= float(re.search(rf"{name}\.service\D*?\sof\s([\d.]+)", SAID)[1]), said


def capabilities(pid):
    """What is in the capability sets of the first thread, and in those of the others."""
    sets = {int(status.parent.name): {int(v, 16) for v in re.findall(
        r"^Cap(?:Prm|Eff|Inh|Amb):\s+(\w+)", status.read_text(), re.M)}
        for status in pathlib.Path(f"/proc/{pid}/task").glob("*/status")}
    return sets.pop(pid), list(sets.values())


def test_root_gives_up_what_it_does_not_need(lab):
    agent = Agent(lab, edge({"four": "127.0.0.1"}, "lo", {"interfaces": ["lo"]}))
    agent.program.wait_log("tracking flows on lo")
    first, others = capabilities(agent.pid)
    assert others == [{0}], "who parses packets has no capability"
    has = max(first)
    assert has & NET_RAW and has & SYS_ADMIN
    assert not has & (SYS_MODULE | DAC_OVERRIDE | SETUID), hex(has)


def test_nobody_runs_what_needs_no_capability(lab):
    """Exports from the addresses of this namespace, and says what is left out and why."""
    lab.namespace("ns-red")
    home = pathlib.Path("/run/nobody")  # where nobody may read, unlike the test's directories
    home.mkdir()
    shutil.copy(f"{BUILD}/bin/tarnflowd", home)
    shutil.copy(f"{BUILD}/lib/libtarnipfix.so.0", home)
    file = home / "tarnflow.toml"
    file.write_text(edge({"four": "127.0.0.1"}, "lo", {"interfaces": ["lo"]}))
    agent = lab.start("nobody", "setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                      home / "tarnflowd", "--config", file, env={"LD_LIBRARY_PATH": str(home)})
    agent.wait_log(r"tracker edge, VRF default: cannot track flows.*CAP_NET_RAW")
    agent.wait_log(r"ns-red cannot be looked at:.*CAP_SYS_ADMIN.*its VRF is left out")
    wait_for("templates and options data leave", lambda: counters()["127.0.0.1"]["records"] > 0)
    assert capabilities(agent.pid)[0] == {0}
    assert len(re.findall("CAP_", agent.log())) == 2, "each is said once"
