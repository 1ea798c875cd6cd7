"""The judges of the other tests find what is wrong: a right message passes, each wrong one fails."""

import pytest

from lab import wait_for
from tarnflow import DATA_TEMPLATES, OPTIONS_TEMPLATES
from wire import Capture, tshark
from wire_maker import message, send, template


def interface_records(*numbers):
    return b"".join(n.to_bytes(4, "big") + b"\x04eth0" for n in numbers)


DATA = message([(2, b"".join(template(i, fields) for i, (_, fields) in DATA_TEMPLATES.items()))])
RIGHT = [DATA, message([(3, b"".join(template(i, fields, scope) for i, (scope, fields)
                                     in OPTIONS_TEMPLATES.items()))]),
         message([(65281, interface_records(1, 2))]),
         message([(65281, interface_records(3))], sequence=2)]
WRONG = {
    "sequence grows less than by records": [*RIGHT[:3], message([(65281, interface_records(3))], 1)],
    "sequence grows by templates": [DATA, message([(2, template(300, [(1, 8)]))], sequence=2)],
    "set longer than the message": [DATA[:18] + b"\x7f\xff" + DATA[20:]],
    "octets missing": [DATA[:-2]],
    "not IPFIX": [b"\x00\x01" + DATA[2:]],
    "data without its template": [message([(300, bytes(8))])],
}


@pytest.mark.parametrize("fault", [None, *WRONG])
def test_judges(lab, far, fault):
    cable = Capture(lab, "dn0", ns=far)
    messages = WRONG[fault] if fault else RIGHT
    send(messages, "10.99.0.2", tos=184)
    wait_for("the capture has all", lambda: len(cable.messages()) == len(messages))
    cable.stop()
    if fault:
        with pytest.raises(AssertionError):
            tshark(cable.file)
        return
    decoded = tshark(cable.file)
    assert [d.set_ids for d in decoded] == [(2,), (3,), (65281,), (65281,)]
    assert {t.id: (t.scope_count, t.fields) for d in decoded for t in d.templates} == {
        **DATA_TEMPLATES, **OPTIONS_TEMPLATES}
    assert {d.tos for d in decoded} == {m.tos for m in cable.messages()} == {184}
