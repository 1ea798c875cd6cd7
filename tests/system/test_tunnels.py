"""What tunnels carry, counted at the interface below them, is what the same tracker counts at the
tunnels' own interfaces. The tunnels are the kernel's: VXLAN, one of them within another."""

import collections

from lab import parse_json_lines, run, wait_for
from tarnflow import Agent, collectors, config, exporter, flows, listen
from test_directions import SERVE, TALK

FIELDS = ("sourceIPv4Address", "destinationIPv4Address", "sourceIPv6Address",
          "destinationIPv6Address", "sourceTransportPort", "destinationTransportPort",
          "protocolIdentifier", "ipClassOfService", "flowDirection", "layer2SegmentId")
SUMS = ("packetDeltaCount", "octetDeltaCount")
VXLAN = 1 << 56
# Of each device: the address below, its identifier, its addresses but for their last digit.
DEVICES = {"vx0": ("10.97.0.", 7, ("10.60.0.", "fd60::")), "vx1": ("fd60::", 8, ("10.61.0.", "fd61::")),
           "vx2": ("fd97::", 9, ("10.62.0.", "fd62::"))}


def test_inner_flows_are_those_of_the_tunnels(lab):
    far = lab.namespace("tt-far")
    lab.veth("up0", "dn0", far)
    for device, at, ns in (("up0", 1, None), ("dn0", 2, far)):
        lab.address(device, f"10.97.0.{at}/24", f"fd97::{at}/64", ns=ns)
        for tunnel, (below, vni, own) in DEVICES.items():
            run("ip", "link", "add", tunnel, "mtu", 1300 if tunnel == "vx1" else 1400, "up", "type",
                "vxlan", "id", vni, "dstport", 4789, "local", f"{below}{at}", "remote",
                f"{below}{3 - at}", ns=ns)
            lab.address(tunnel, *(f"{a}{at}/{64 if ':' in a else 24}" for a in own), ns=ns)
    lab.links += DEVICES
    lab.start("serve", "/usr/bin/python3", "-c", SERVE, ns=far)
    collector = listen(lab, "--address", "127.0.0.1")
    tracker = {"direction": "both", "record": "own", "inactive-timeout": "1s",
               "exporter": {"main": exporter("lo", collectors(c="127.0.0.1"))}}
    agent = Agent(lab, f"[record.own]\nfields = {[*FIELDS, *SUMS]}\nkeys = {[*FIELDS]}\n" + config({
        "over": {"id": 1, "interfaces": ["vx*"], **tracker},
        "under": {"id": 2, "interfaces": ["up0"], "tunnel": "inner", **tracker}}))
    for name in ("over", "under"):
        agent.program.wait_log(f"tracker {name}.*tracking flows on")
    for device, (*_, own) in DEVICES.items():
        run("/usr/bin/python3", "-c", TALK, device, *(a for net in own for a in (f"{net}2", 100000)))
    wait_for("flows are over", lambda: all(f["endedIdle"] > 20 and f["flowsActive"] < 9
                                           for f in flows().values()), 10)
    assert agent.stop() == 0

    found = {1: collections.Counter(), 2: collections.Counter()}
    outer, segments = collections.Counter(), collections.defaultdict(set)
    for m in parse_json_lines(collector.out()):
        for r in (r for s in m.get("sets", ()) for r in s.get("records", ())):
            if "octetDeltaCount" not in r:
                continue
            src, *key, segment = (r[f] for f in FIELDS if f in r)
            if r["destinationTransportPort"] == 4789:
                outer[m["domain"], src, segment] += r["packetDeltaCount"]
            elif src.startswith(("10.6", "fd6")) and (key[3] != 58 or key[2] < 130 << 8):
                for f in SUMS:
                    found[m["domain"]][src, *key, f] += r[f]
                segments[m["domain"], src[:-1]].add(segment)
    over, under = found[1], found[2]
    # To and from each address: TCP, UDP, and ICMP that nobody takes the latter.
    assert len(over) == 6 * 4 * len(SUMS) and over == under, (over - under, under - over)
    assert segments == {(n, net): {VXLAN | vni if n == 2 else 0}
                        for n in (1, 2) for _, vni, own in DEVICES.values() for net in own}
    # ARP and the like in a tunnel are no IP packets: they count as the packets they are in.
    assert 0 < outer[2, "10.97.0.1", VXLAN | 7] < 40
