"""What is on the wire: captured by tcpdump, judged by tshark.

The few fields that a test waits for are read from the capture here; everything that a test judges
goes through tshark, which shares nothing with us.
"""

import collections
import ipaddress
import json
import re
import struct

from lab import parse_json_lines, run, wait_for

PORT = 4739
TEMPLATES = (2, 3)  # the set ids of templates (RFC 7011, 3.3.2)


# One captured IPFIX message, by its IP and message headers; sets: the set ids.
Message = collections.namedtuple("Message", "time src dst tos length sequence sets octets")


def _messages(data):
    """The messages of a pcap file under construction, of Ethernet frames without IP options."""
    at = 24
    while at + 16 <= len(data):
        seconds, part, captured = struct.unpack_from("<III", data, at)
        frame = data[at + 16:at + 16 + captured]
        at += 16 + captured
        if at > len(data):
            return
        v6 = frame[12:14] == b"\x86\xdd"
        src, dst = (frame[22:38], frame[38:54]) if v6 else (frame[26:30], frame[30:34])
        tos = struct.unpack_from(">H", frame, 14)[0] >> 4 & 0xFF if v6 else frame[15]
        body = frame[62 if v6 else 42:]
        _, length, _, sequence = struct.unpack_from(">HHII", body)
        sets, to = [], 16
        while to + 4 <= len(body):
            set_id, set_len = struct.unpack_from(">HH", body, to)
            sets.append(set_id)
            to += max(set_len, 4)
        yield Message(seconds + part * 1e-6, str(ipaddress.ip_address(src)),
                      str(ipaddress.ip_address(dst)), tos, length, sequence, sets, bytes(body))


class Capture:
    """tcpdump on a device of a namespace. With `kinds`, `messages` and what is built on it know only
    messages whose first set has one of these ids."""

    def __init__(self, lab, device, ns=None, ports=(PORT,), kinds=None):
        self.kinds = kinds
        self.file = lab.path(f"{device}.pcap")
        self.program = lab.start(
            f"tcpdump-{device}", "tcpdump", "-Z", "root", "-i", device, "-U", "--immediate-mode",
            "-B", "16384", "--direction=in", "-w", self.file,
            "udp and (" + " or ".join(f"dst port {p}" for p in ports) + ")", ns=ns)
        self.program.wait_log("listening on")

    def messages(self, **fields):
        """The messages so far, in order; only those whose fields equal `fields`."""
        data = self.file.read_bytes() if self.file.exists() else b""
        return [m for m in _messages(data) if (self.kinds is None or m.sets[0] in self.kinds)
                and all(getattr(m, k) == v for k, v in fields.items())]

    def wait(self, count, seconds=5.0, **fields):
        """Waits for at least `count` such messages."""
        wait_for(f"{count} messages with {fields}",
                 lambda: len(self.messages(**fields)) >= count, seconds)
        return self.messages(**fields)

    def wait_until(self, what, condition, seconds=5.0, **fields):
        """Waits until `condition` holds for the list of messages."""
        return wait_for(what, lambda: condition(self.messages(**fields)), seconds)

    def stop(self):
        self.program.stop()
        lost = re.search(r"(\d+) packets? dropped by kernel", self.program.err())
        assert lost and lost[1] == "0", f"the capture itself lost packets: {self.program.err()}"


class Nfcapd:
    """A collector that shares nothing with us, and what it stored."""

    def __init__(self, lab, address, port=PORT, ns=None):
        self.directory = lab.path("nfcapd")
        self.directory.mkdir()
        self.program = lab.start("nfcapd", "nfcapd", "-6" if ":" in address else "-4", "-b", address,
                                 "-p", port, "-w", self.directory, "-B", 8 << 20, ns=ns)
        self.program.wait_log("Startup nfcapd")

    def stop(self):
        """Ends it, and returns the stored records as nfdump reads them."""
        assert self.program.stop() == 0
        log = self.program.log()
        # It does not count options records, and so finds gaps where tshark finds none.
        wrong = r"(?<!Sequence )error|fail|malformed|corrupt|skip|unknown|not enough|Packets: [1-9]\d*$"
        assert not re.search(wrong, log, re.I | re.M), log
        return json.loads(run("env", "TZ=UTC", "nfdump", "-R", self.directory, "-o", "json"))


class Nfacctd:
    """Another one, told to scale sampled traffic up, and the flows that it printed. It prints late and may
    not hear SIGTERM: to be waited for by what it printed, and killed."""

    def __init__(self, lab, address, port, ns=None):
        self.directory = lab.path("nfacctd")
        self.directory.mkdir()
        config = self.directory / "config"
        config.write_text(f"nfacctd_ip: {address}\nnfacctd_port: {port}\nnfacctd_renormalize: true\n"
                          "plugins: print\naggregate: src_host,dst_host,src_port,dst_port,proto,tcpflags\n"
                          "print_output: json\nprint_refresh_time: 1\nprint_output_file_append: true\n"
                          f"print_output_file: {self.directory}/flows.json\n")
        self.program = lab.start("nfacctd", "nfacctd", "-f", config, ns=ns)
        self.program.wait_log("Purging cache - END", 30)  # from here on it takes records

    def flows(self):
        return [flow for file in self.directory.glob("*.json") for flow in parse_json_lines(file.read_text())]


# A template as tshark read it (scope_count 0: a data template), fields: (element id, length,
# enterprise number or 0) of each; and a packet, records: (set id, {tshark's field: its text}) of each.
Template = collections.namedtuple("Template", "id scope_count fields")
Decoded = collections.namedtuple("Decoded", "dst tos sequence templates records")


def _template(record):
    fields, scopes = [], 0
    for key, field in record.items():
        if not key.startswith("Field ("):
            continue
        scopes += "[Scope]" in key
        enterprise = field["cflow.template_ipfix_pen_provided"] == "1"
        # Reverse elements (RFC 5103) are called as IANA's of their number are.
        name = "cflow.template_ipfix_field_type"
        element = field.get(f"{name}_enterprise", field.get(name))
        fields.append((int(element), int(field["cflow.template_field_length"]),
                       int(field["cflow.template_ipfix_field_pen"]) if enterprise else 0))
    said = record.get("cflow.template_ipfix_total_field_count",
                      record.get("cflow.template_field_count"))
    scope_said = int(record.get("cflow.template_ipfix_scope_field_count", 0))
    assert scope_said == scopes and int(said) == len(fields), record
    return Template(int(record["cflow.template_id"]), scopes, tuple(fields))


def _tshark(file, ports, *argv):
    as_ipfix = [a for port in ports for a in ("-d", f"udp.port=={port},cflow")]
    return run("tshark", "-r", file, *as_ipfix, *argv)


def tshark(file, ports=(PORT,)):
    """Decodes a capture. Fails on whatever tshark finds wrong in it (malformed packets, unexpected
    sequence numbers, unknown templates) and on lengths that disagree: of the datagram, the message
    and its sets."""
    no_faults(file, ports)
    text = _tshark(file, ports, "-T", "json", "--no-duplicate-keys", "-J",
                   "frame ip ipv6 udp cflow _ws.malformed data")
    # Some of the kernel's own ports are also those of traceroute.
    bad = re.findall(r'.*(?:malformed|undecoded|expert.message": "(?!Possible traceroute)).*', text)
    assert not bad, f"tshark: {bad}"
    decoded = []
    for number, packet in enumerate(json.loads(text), 1):
        layer = packet["_source"]["layers"]
        assert "cflow" in layer, f"packet {number} is not IPFIX: {layer.keys()}"
        assert layer["frame"]["frame.protocols"].endswith(":udp:cflow"), layer["frame"]
        cflow = layer["cflow"]
        assert cflow["cflow.version"] == "10", f"packet {number} is not IPFIX: {cflow}"
        ip = layer.get("ip") or layer["ipv6"]
        sets = [v for k, v in cflow.items() if re.match(r"Set \d+ \[", k)]
        records = [v for one in sets for k, v in one.items()
                   if re.match(r"(Options )?Template \(", k)]
        lengths = [int(one["cflow.flowset_length"]) for one in sets]
        said = (int(layer["udp"]["udp.length"]) - 8, int(cflow["cflow.len"]), 16 + sum(lengths))
        assert len(set(said)) == 1, f"packet {number}: UDP payload, message, sets: {said}"
        decoded.append(Decoded(
            ip.get("ip.dst", ip.get("ipv6.dst")),
            int(ip.get("ip.dsfield", ip.get("ipv6.tclass")), 16), int(cflow["cflow.sequence"]),
            tuple(_template(r) for r in records),
            tuple((int(one["cflow.flowset_id"]), v) for one in sets for k, v in one.items()
                  if re.match(r"Flow \d+$", k))))
    return decoded


def no_faults(file, ports=(PORT,)):
    """Fails when tshark's expert list of a capture has anything of IPFIX, or malformed."""
    experts = _tshark(file, ports, "-q", "-z", "expert")
    assert "CFLOW" not in experts and "Malformed" not in experts, experts

