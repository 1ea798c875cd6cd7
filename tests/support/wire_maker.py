"""Hand-made IPFIX messages, for what needs right and wrong ones that our encoder never made."""

import socket
import struct
import time


def template(template_id, fields, scope_count=None):
    """A template record (RFC 7011, 3.4). Fields: (element, length[, enterprise number])."""
    out = struct.pack(">HH", template_id, len(fields))
    if scope_count is not None:
        out += struct.pack(">H", scope_count)
    for element, length, *enterprise in fields:
        enterprise = enterprise[0] if enterprise else 0
        out += struct.pack(">HH", element | (0x8000 if enterprise else 0), length)
        if enterprise:
            out += struct.pack(">I", enterprise)
    return out


def message(sets, sequence=0, domain=7, export_time=None):
    """A message of (set id, octets) pairs."""
    body = b"".join(struct.pack(">HH", i, len(octets) + 4) + octets for i, octets in sets)
    now = int(time.time()) if export_time is None else export_time
    return struct.pack(">HHIII", 10, 16 + len(body), now, sequence, domain) + body


def hostile(rng):
    """Datagrams that a device would not send: right ones with octets changed, and ever new streams,
    templates and layouts."""
    good = message([(2, template(300, [(8, 4), (82, 65535), (1, 8)])),
                    (300, bytes(4) + b"\3abc" + bytes(8)),
                    (3, template(400, [(149, 4), (41, 8)], 1)), (400, bytes(12))])
    for _ in range(20000):
        bad = bytearray(good)
        for _ in range(rng.randrange(1, 6)):
            bad[rng.randrange(4 if rng.random() < 0.9 else 0, len(bad))] = rng.randrange(256)
        yield bytes(bad)
    for domain in range(3000):
        yield message([(2, b"".join(template(256 + i, [(82, 1 + (domain + i) % 1400)])
                                    for i in range(500)))], domain=domain)
    for n in range(3000):
        yield message([(2, template(300, [(82, 1 + n % 1400), (236, 1 + n // 1400)]))])


def pcap(frames):
    """A capture of Ethernet frames, or of (time, frame) pairs."""
    out = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)
    for n, frame in enumerate(frames):
        at, octets = frame if isinstance(frame, tuple) else (1800000000 + n, frame)
        out += struct.pack("<IIII", int(at), int(at % 1 * 1e6), len(octets), len(octets)) + octets
    return out


def send(messages, address, port=4739, tos=0, source=None):
    """Sends datagrams from one socket of this process; returns the port they came from."""
    v6 = ":" in address
    with socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_DGRAM) as s:
        if v6:
            s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_TCLASS, tos)
        else:
            s.setsockopt(socket.IPPROTO_IP, socket.IP_TOS, tos)
        if source:
            s.bind((source, 0))
        for octets in messages:
            s.sendto(octets, (address, port))
        return s.getsockname()[1]
