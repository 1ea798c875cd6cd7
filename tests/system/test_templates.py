"""Templates on the wire: two collectors of each family, captured and decoded by tshark. One run of
the agent is judged from every side."""

import pytest

from lab import SLOW, Lab
from tarnflow import (DATA_LEN, DATA_TEMPLATES, OPTIONS_LEN, OPTIONS_TEMPLATES, Agent, config,
                      exporter)
from wire import TEMPLATES, Capture, tshark

HERE = {4: "10.99.0.1", 6: "fd99::1"}
COLLECTORS = {"a": ("10.99.0.2", 4739), "b": ("10.99.0.3", 9995),
              "a6": ("fd99::2", 4739), "b6": ("fd99::3", 9995)}
DOMAIN, DSCP, INTERVAL, ROUNDS = 77, 46, 2, 4


@pytest.fixture(scope="module")
def heard(tmp_path_factory):
    """The messages of one run of the agent, and what tshark makes of them."""
    lab = Lab(tmp_path_factory.mktemp("templates"))
    far = lab.namespace("tt-far")
    lab.veth("up0", "dn0", far)
    lab.address("up0", f"{HERE[4]}/24", f"{HERE[6]}/64")
    lab.address("dn0", "10.99.0.2/24", "10.99.0.3/24", "fd99::2/64", "fd99::3/64", ns=far)
    ports = (4739, 9995)
    capture = Capture(lab, "dn0", ns=far, ports=ports)
    try:
        agent = Agent(lab, config({"edge": {"id": DOMAIN, "exporter": {"main": exporter(
            "up0", {n: {"address": a, "port": p} for n, (a, p) in COLLECTORS.items()}, dscp=DSCP,
            template_interval=f"{INTERVAL}s")}}}))
        capture.wait_until("all rounds of templates", lambda messages: sum(
            m.sets[0][0] in TEMPLATES for m in messages) >= ROUNDS * 2 * len(COLLECTORS),
            seconds=ROUNDS * INTERVAL + 3)
        assert agent.stop() == 0
        capture.stop()
        yield capture.messages(), tshark(capture.file, ports=ports)
    except BaseException:
        print(lab.report())
        raise
    finally:
        lab.close()


@pytest.mark.parametrize("address, port", COLLECTORS.values())
def test_every_collector_hears_everything(heard, address, port):
    """Both kinds, at once and then with the period; one port."""
    messages = [m for m in heard[0] if m.dst == address]
    assert {(m.src, m.dst_port, m.domain) for m in messages} == {
        (HERE[6 if ":" in address else 4], port, DOMAIN)}
    assert len({m.src_port for m in messages}) == 1
    for kind, length in ((2, DATA_LEN), (3, OPTIONS_LEN)):
        of_kind = [m for m in messages if m.sets[0][0] == kind]
        assert len(of_kind) >= ROUNDS and {m.length for m in of_kind} == {length}
        gaps = [b.time - a.time for a, b in zip(of_kind, of_kind[1:])]
        assert all(abs(g - INTERVAL) < 0.1 * SLOW for g in gaps), gaps
    assert all(0 <= m.time - m.export_time < 1.1 * SLOW for m in messages)


def test_tshark_decodes_everything(heard):
    assert len(heard[0]) == len(heard[1])
    for seen, packet in zip(*heard):
        assert (packet.domain, packet.tos) == (DOMAIN, DSCP << 2)
        assert (packet.src, packet.dst, packet.length, packet.sequence) == (
            seen.src, seen.dst, seen.length, seen.sequence)
        if seen.sets[0][0] not in TEMPLATES:
            continue
        expected = {2: DATA_TEMPLATES, 3: OPTIONS_TEMPLATES}[seen.sets[0][0]]
        assert len(packet.set_ids) == 1
        assert {t.id: (t.scope_count, t.fields) for t in packet.templates} == expected
        assert all(t.field_count == len(t.fields) for t in packet.templates)
