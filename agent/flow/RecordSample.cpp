// What a record tells of one packet, out of what the parser said and the packet's own octets.
#include <algorithm>
#include <cstring>

#include "agent/flow/RecordPlan.h"

namespace agent::flow {
namespace {
uint64_t load64(const void* from) {
  uint64_t v = 0;
  std::memcpy(&v, from, sizeof v);
  return v;
}
constexpr uint64_t sixOctets = 0xffffffffffff;

/// What the link layer says, into its words. Returns where the IP packet begins.
size_t takeLink(const Packet& p, const Parsed& parsed, uint32_t interface, PacketFacts& f) {
  size_t ipAt = 14;
  const uint64_t observed = uint64_t{interface} << 32 | uint64_t{p.leaves} << 24;
  const uint8_t* const o = p.octets;
  const bool plain = p.link == LinkLayer::ethernet && parsed.error == ParseError::none &&
                     (parsed.ipv6 ? o[12] == 0x86 && o[13] == 0xdd : o[12] == 8 && o[13] == 0);
  if (plain) {
    f.word[PacketFacts::dstMac / 8] = (load64(o) & sixOctets) | (load64(o + 6) & ~sixOctets);
    f.word[PacketFacts::srcMac / 8] = load64(o + 6) & sixOctets;
    f.word[PacketFacts::observed / 8] = observed;
    f.word[PacketFacts::ingress / 8] = 0;
  } else {
    const LinkFacts link = linkFacts(p);
    const uint16_t type = link.network.etherType;
    const uint64_t etherType = type < 0x600 ? 0 : networkOrder(type);
    f.word[PacketFacts::dstMac / 8] = link.dstMac | etherType << 48;
    f.word[PacketFacts::srcMac / 8] = link.srcMac;
    f.word[PacketFacts::observed / 8] = link.customerVlan | observed;
    f.word[PacketFacts::ingress / 8] = uint64_t{link.mpls} << 32;
    ipAt = link.ipAt;
    // The VLAN id. Of IP packets the parser's key overwrites this word.
    f.word[PacketFacts::srcPort / 8] = uint64_t{link.network.vlanId} << 48;
  }
  f.word[PacketFacts::egress / 8] = 0;
  return ipAt;
}
}  // namespace

bool RecordPlan::sample(const Packet& packet, const Parsed& parsed, uint32_t interface,
                        const HostAddresses& host, PlannedSample& out) const {
  const size_t kind = parsed.error != ParseError::none ? 2 : parsed.ipv6 ? 1 : 0;
  out.layout = formatOf_[kind];
  if (out.layout == noLayout) return false;
  PacketFacts& f = out.facts;
  const size_t ipAt = takeLink(packet, parsed, interface, f);
  FlowInterfaces interfaces;
  const auto flow = [&](const auto& key, uint8_t icmpProtocol, size_t ttlAt) {
    std::memcpy(&f.word[0], &key, 2 * key.ipLen);
    f.word[PacketFacts::srcPort / 8] = load64(&key.rest);
    uint64_t icmp = key.rest.dstPort;
    if (biflow_) {
      auto both = key;
      out.side = orient(both, parsed.tcpFlags);
      std::memcpy(&f.word[0], &both, 2 * both.ipLen);
      f.word[PacketFacts::srcPort / 8] = load64(&both.rest);
      icmp = both.rest.srcPort | both.rest.dstPort;  // one of them is 0
    }
    if (key.rest.protocol == icmpProtocol) f.word[PacketFacts::srcMac / 8] |= icmp << 48;
    out.ipOctets = parsed.ipOctets;
    out.tcpFlags = parsed.tcpFlags;
    out.ttl = packet.octets[ipAt + ttlAt];
    if (tellsInterfaces_)
      interfaces = flowInterfaces(interface, packet.leaves, key.src, key.dst, host);
  };
  if (kind == 0) {
    flow(parsed.key4, 1, 8);
  } else if (kind == 1) {
    flow(parsed.key6, 58, 7);
    f.word[PacketFacts::egress / 8] |= uint64_t{parsed.flowLabel} << 32;
  } else {
    out.ipOctets = 0;
    out.tcpFlags = 0;
    out.ttl = 0;
    // No address of a kind that this machine's could be compared with.
    using None = std::array<uint8_t, 4>;
    interfaces = flowInterfaces(interface, packet.leaves, None{}, None{}, host);
  }
  f.word[PacketFacts::ingress / 8] |= interfaces.ingress;
  f.word[PacketFacts::egress / 8] |= interfaces.egress;
  // A tag that the device took off was on the wire as well.
  const uint32_t tagLen = packet.hasVlan ? 4 : 0;
  out.layer2Octets = packet.wireLen + tagLen;
  out.segments = kind < 2 ? parsed.packets : 1;
  uint32_t each = out.ipOctets;
  if (out.segments > 1) {
    out.layer2Octets +=
        parsed.repeated() + (out.segments - 1) * (static_cast<uint32_t>(ipAt) + tagLen);
    each = (each + out.segments - 1) / out.segments;
  }
  out.packetOctets = static_cast<uint16_t>(std::min<uint32_t>(each, UINT16_MAX));
  out.timeMs = packet.timeNs / 1000000;
  out.timeNs = static_cast<uint32_t>(packet.timeNs - out.timeMs * 1000000);
  formats_[out.layout].takeKey(out);
  return true;
}

bool RecordPlan::sample(const Packet& packet, const Parsed& parsed, uint32_t interface,
                        const HostAddresses& host, PlannedSample& out,
                        const TunnelFacts& tunnel) const {
  if (!sample(packet, parsed, interface, host, out)) return false;
  // The kind of segment in the first octet, and its identifier in the last three.
  out.facts.word[PacketFacts::segment / 8] =
      uint64_t{tunnel.segment >> 24} << 56 | (tunnel.segment & 0xffffff);
  if (tunnel.innerAt > 0) {
    out.ttl = packet.octets[tunnel.innerAt + (parsed.ipv6 ? 7 : 8)];
    const size_t tagLen = packet.hasVlan ? 4 : 0;
    const size_t again = tunnel.innerAt + parsed.headers + tagLen;
    out.layer2Octets = static_cast<uint32_t>(packet.wireLen + tagLen + (out.segments - 1) * again);
  }
  formats_[out.layout].takeKey(out);
  return true;
}

}  // namespace agent::flow
