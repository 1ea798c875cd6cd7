"""The judge of the other tests finds what is wrong: right messages pass, each wrong one fails."""

import contextlib

import pytest

from traffic import UDP, ethernet, ipv4, udp
from wire import tshark
from wire_maker import message, pcap, template

DATA = message([(2, template(300, [(1, 8)])), (300, bytes(16))])
CASES = {
    "nothing": [DATA, message([(2, template(301, [(1, 8)]))], sequence=2), message([(301, bytes(8))], 2)],
    "sequence grows less than by records": [DATA, message([(300, bytes(8))], sequence=1)],
    "sequence grows by templates": [DATA, message([(2, template(301, [(1, 8)]))], sequence=3)],
    "set longer than the message": [DATA[:18] + b"\x7f\xff" + DATA[20:]],
    "octets missing": [DATA[:-2]],
    "not IPFIX": [b"\x00\x01" + DATA[2:]],
    "data without its template": [message([(300, bytes(8))])],
}


@pytest.mark.parametrize("wrong", CASES)
def test_judge(tmp_path, wrong):
    file = tmp_path / "x.pcap"
    file.write_bytes(pcap(ethernet(0x0800, ipv4("10.0.0.1", "10.0.0.2", UDP, udp(
        40000, 4739, octets))) for octets in CASES[wrong]))
    with contextlib.nullcontext() if wrong == "nothing" else pytest.raises(AssertionError):
        tshark(file)
