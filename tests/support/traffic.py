"""Traffic whose flows are known: frames of many kinds, and what they add up to.

    python3 traffic.py DEVICE FLOWS        sends the mixture once
    python3 traffic.py DEVICE burst COUNT  sends COUNT frames of one flow as fast as it can
"""

import collections
import dataclasses
import ipaddress
import socket
import struct
import sys
import time

from lab import run

FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16
TCP, UDP, ICMP, ICMP6 = 6, 17, 1, 58

# What tells flows apart; ports as IPFIX has them, of ICMP type * 256 + code.
Key = collections.namedtuple("Key", "src dst protocol src_port dst_port vlan")


@dataclasses.dataclass
class Sum:
    """What a flow adds up to: packets, octets of the IP packets, all TCP flags."""
    packets: int = 0
    octets: int = 0
    flags: int = 0

    def add(self, octets, flags):
        self.packets += 1
        self.octets += octets
        self.flags |= flags


def ethernet(kind, payload, vlan=0):
    tag = struct.pack(">HH", 0x8100, vlan) if vlan else b""
    frame = bytes.fromhex("ffffffffffff020000000001") + tag + struct.pack(">H", kind) + payload
    return frame.ljust(60, b"\xee")  # padding must not count


def ipv4(src, dst, protocol, payload, ident=0, fragment=0, options=b"", tos=0):
    # The check sum is 0: who counts flows does not look at it.
    return struct.pack(">BBHHHBBH4s4s", 0x45 + len(options) // 4, tos,
                       20 + len(options) + len(payload), ident, fragment, 64, protocol, 0,
                       ipaddress.ip_address(src).packed,
                       ipaddress.ip_address(dst).packed) + options + payload


def ipv6(src, dst, protocol, payload, extensions=b"", first=None, tos=0):
    """`extensions` begin with the header of kind `first` and end with one that names `protocol`."""
    return struct.pack(">IHBB", 0x60000000 + (tos << 20), len(extensions) + len(payload),
                       protocol if first is None else first, 64) + \
        ipaddress.ip_address(src).packed + ipaddress.ip_address(dst).packed + extensions + payload


def tcp(src_port, dst_port, flags, data=b""):
    return struct.pack(">HHIIBBHHH", src_port, dst_port, 1, 1, 0x50, flags, 1000, 0, 0) + data


def udp(src_port, dst_port, data=b""):
    return struct.pack(">HHHH", src_port, dst_port, 8 + len(data), 0) + data


def mixture(flows):
    """Yields (frame, key, octets, flags) of about three packets for each of `flows` flows, the
    flows' packets mixed."""
    def one(i, part):
        """src, dst, protocol, ports, what follows the IP header, TCP flags."""
        four = f"10.1.{i >> 8 & 255}.{i & 255}", "192.0.2.7"
        six = f"2001:db8:1::{i:x}", "2001:db8:2::7"
        port, size = 1024 + i % 60000, 20 + (i * 7 + part * 131) % 1200
        kind = i % 8
        if kind in (0, 1):  # whole connections
            flags = (SYN, ACK | PSH, FIN | ACK)[part]
            body = tcp(port, 443, flags, bytes(size if part == 1 else 0))
            return *(four, six)[kind], TCP, port, 443, body, flags
        if kind in (4, 5):
            protocol, echo = ((ICMP, 8), (ICMP6, 128))[kind - 4]
            body = struct.pack(">BBHI", echo, 0, 0, i) + bytes(size)
            return *(four, six)[kind - 4], protocol, 0, echo * 256, body, 0
        to = 53 if kind in (2, 3) else 161
        return *(six if kind == 3 else four), UDP, port, to, udp(port, to, bytes(size)), 0

    for begin in range(0, flows, 500):
        for part in range(3):
            for i in range(begin, min(begin + 500, flows)):
                src, dst, protocol, sport, dport, body, flags = one(i, part)
                vlan = 1 + i % 4000 if i % 8 == 6 else 0
                key = Key(src, dst, protocol, sport, dport, vlan)
                if ":" in src:
                    # A hop-by-hop header in front of every other packet.
                    extra = (bytes([protocol, 0, 1, 4, 0, 0, 0, 0]), 0) if part == 1 else (b"", None)
                    packet = ipv6(src, dst, protocol, body, *extra)
                    yield ethernet(0x86DD, packet, vlan), key, len(packet), flags
                elif i % 8 == 7:
                    # Fragments: only the first has the ports.
                    ident, cut = (i * 3 + part) & 0xFFFF, 16
                    for offset, piece, more in ((0, body[:cut], 0x2000), (cut // 8, body[cut:], 0)):
                        packet = ipv4(src, dst, protocol, piece, ident, more | offset)
                        yield ethernet(0x0800, packet, vlan), key, len(packet), flags
                else:
                    packet = ipv4(src, dst, protocol, body, options=b"\x01" * 4 * (part % 2))
                    yield ethernet(0x0800, packet, vlan), key, len(packet), flags


def truth(flows):
    """The sums of the mixture, by key."""
    sums = collections.defaultdict(Sum)
    for _, key, octets, flags in mixture(flows):
        sums[key].add(octets, flags)
    return dict(sums)


def play(*argv, device="src0"):
    """Sends from a device of the namespace tt-src: a number of flows, or "burst" and a number."""
    run("/usr/bin/python3", __file__, device, *argv, ns="tt-src")


def main():
    device, what = sys.argv[1:3]
    out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    out.bind((device, 0))
    if what == "burst":
        frame = ethernet(0x0800, ipv4("10.2.0.1", "192.0.2.7", UDP, udp(7, 9, bytes(18))))
        send = out.send
        for _ in range(int(sys.argv[3])):
            send(frame)
    else:
        for n, (frame, *_) in enumerate(mixture(int(what)), 1):
            out.send(frame)
            if n % 1000 == 0:
                time.sleep(0.02)  # 50,000 a second: the tests' own capture keeps up


if __name__ == "__main__":
    main()
