"""A world for the software flow path: traffic comes in at in0, collectors are behind up0."""

from tarnflow import AGENT, Agent, edge

RECORD_LEN = {256: 64, 257: 92}
FAR = {"nf4": ("10.99.0.2", 9995), "nf6": ("fd99::2", 9995), "more4": ("10.99.0.3", 9996),
       "more6": ("fd99::3", 9996)}


def settings(to=None, **tracker):
    return edge(to or {"more4": FAR["more4"]}, tracker={
        "interfaces": ["in*"], "active-interval": "60s", "inactive-timeout": "2s", **tracker})


def tracking(lab, text):
    agent = Agent(lab, text)
    agent.program.wait_log("tracking flows on in0")
    return agent


def of_flows(messages):
    return [m for m in messages if m.sets[0] in RECORD_LEN]


def reading(lab, name, capture, text):
    """tarnflowd that reads a capture, with counters of its own; and its configuration file."""
    file = lab.path(f"{name}.toml")
    text = text.replace("control.sock", f"{name}.sock")
    file.write_text(text.replace('"/tarnflow"', f'"/{name}"'))
    return lab.start(name, AGENT, "--config", file, "--read", capture), file
