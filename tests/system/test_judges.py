"""The judges of the other tests find what is wrong: a right message passes, each wrong one fails."""

import pytest

from lab import wait_for
from tarnflow import DATA_TEMPLATES, OPTIONS_TEMPLATES
from wire import Capture, tshark
from wire_maker import message, send, template


def templates_set():
    return b"".join(template(i, fields) for i, (_, fields) in DATA_TEMPLATES.items())


def options_set():
    return b"".join(template(i, fields, scope) for i, (scope, fields) in OPTIONS_TEMPLATES.items())


def interface_records(*numbers):
    return b"".join(n.to_bytes(4, "big") + b"\x04eth0" for n in numbers)


RIGHT = [message([(2, templates_set())]), message([(3, options_set())]),
         message([(65281, interface_records(1, 2))]),
         message([(65281, interface_records(3))], sequence=2)]
WRONG = {
    "sequence does not grow by the records": [*RIGHT[:3],
                                              message([(65281, interface_records(3))], sequence=1)],
    "sequence grows by templates": [message([(2, templates_set())]),
                                    message([(2, templates_set())], sequence=2)],
    "set longer than the message": [RIGHT[0][:18] + b"\x7f\xff" + RIGHT[0][20:]],
    "message length too small": [RIGHT[0][:2] + b"\x00\x20" + RIGHT[0][4:]],
    "octets missing": [RIGHT[0][:-2]],
    "not IPFIX": [b"\x00\x01" + RIGHT[0][2:]],
    "data without its template": [message([(300, bytes(8))])],
}


@pytest.fixture
def cable(lab):
    coll = lab.namespace("tt-judges")
    lab.veth("up0", "dn0", coll)
    lab.address("up0", "10.99.0.1/24", "fd99::1/64")
    lab.address("dn0", "10.99.0.2/24", "fd99::2/64", ns=coll)
    return Capture(lab, "dn0", ns=coll)


def capture(cable, messages, address):
    send(messages, address, tos=184)
    wait_for("the capture has all", lambda: cable.packets() == len(messages))
    cable.stop()


@pytest.mark.parametrize("address", ["10.99.0.2", "fd99::2"])
def test_right(cable, address):
    capture(cable, RIGHT, address)
    decoded = tshark(cable.file)
    assert [d.set_ids for d in decoded] == [(2,), (3,), (65281,), (65281,)]
    assert {t.id: (t.scope_count, t.fields) for d in decoded for t in d.templates} == {
        **DATA_TEMPLATES, **OPTIONS_TEMPLATES}
    assert [m.sequence for m in cable.messages()] == [0, 0, 0, 2]
    assert {d.tos for d in decoded} == {m.tos for m in cable.messages()} == {184}


@pytest.mark.parametrize("fault", WRONG)
def test_wrong(cable, fault):
    capture(cable, WRONG[fault], "10.99.0.2")
    with pytest.raises(AssertionError):
        tshark(cable.file)
