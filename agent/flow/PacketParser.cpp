#include "agent/flow/PacketParser.h"

#include <algorithm>
#include <optional>

#include "agent/flow/KeyHash.h"

namespace agent::flow {
namespace {
// IANA "Assigned Internet Protocol Numbers".
enum Protocol : uint8_t {
  hopByHop = 0,
  icmp = 1,
  tcp = 6,
  udp = 17,
  dccp = 33,
  routing = 43,
  fragment = 44,
  authentication = 51,
  icmp6 = 58,
  destination = 60,
  sctp = 132,
  mobility = 135,
  udpLite = 136,
  hip = 139,
  shim6 = 140
};
// Beyond this the packet is an attack or noise; hosts give up much earlier.
constexpr int extensionsMax = 16;

bool isExtension(uint8_t nextHeader) {
  switch (nextHeader) {
    case hopByHop:
    case routing:
    case fragment:
    case authentication:
    case destination:
    case mobility:
    case hip:
    case shim6:
      return true;
    default:
      return false;
  }
}

/// Why the octets before `end` are not all there.
ParseError lacking(const Packet& p, size_t end) {
  return end > p.wireLen ? ParseError::malformed : ParseError::truncated;
}

/// What the wire has from `at` on, padding included.
size_t roomAt(const Packet& p, size_t at) { return p.wireLen > at ? p.wireLen - at : 0; }

uint16_t be16(const uint8_t* o) { return static_cast<uint16_t>(o[0] << 8 | o[1]); }

/// Ports and flags of the transport header at `at`, of an IP packet that ends at `end` >= `at`.
ParseError parseTransport(const Packet& p, size_t at, size_t end, FlowClass& flow,
                          uint8_t& tcpFlags, uint8_t icmpProtocol) {
  size_t need = 0;
  switch (flow.protocol) {
    case tcp:
    case udp:
    case dccp:
    case sctp:
    case udpLite:
      need = 4;
      break;
    case icmp:
    case icmp6:
      if (flow.protocol == icmpProtocol) need = 2;
      break;
    default:
      break;
  }
  if (need == 0 || end - at < need) return ParseError::none;
  if (at + need > p.capLen) return ParseError::truncated;
  const uint8_t* o = p.octets + at;
  if (need == 2) {
    flow.dstPort = be16(o);  // type * 256 + code
    return ParseError::none;
  }
  flow.srcPort = be16(o);
  flow.dstPort = be16(o + 2);
  if (flow.protocol == tcp && end - at >= 14 && at + 14 <= p.capLen) tcpFlags = o[13];
  return ParseError::none;
}

/// Of a packet whose transport header is at `at`, and that ends at `end` >= `at`: how many it is.
void countSegments(const Packet& p, size_t ipAt, size_t at, size_t end, uint8_t protocol,
                   Parsed& out) {
  size_t headers = at - ipAt;
  switch (protocol) {
    case tcp:
      headers += p.capLen > at + 12 ? size_t{p.octets[at + 12]} >> 4 << 2 : 20;
      break;
    case udp:
    case udpLite:
      headers += 8;
      break;
    case sctp:
      headers += 12;
      break;
    default:
      break;
  }
  // Each has an octet of its own, or it would not be there.
  if (ipAt + headers + p.segments > end || std::max<size_t>(headers, p.segments) > UINT16_MAX)
    return;
  out.packets = static_cast<uint16_t>(p.segments);
  out.headers = static_cast<uint16_t>(headers);
  out.ipOctets += out.repeated();
}
}  // namespace

std::string_view toText(ParseError e) {
  static constexpr std::string_view names[parseErrors] = {"none", "notIp", "truncated",
                                                          "malformed"};
  return names[static_cast<size_t>(e)];
}

namespace {
constexpr uint16_t etherTypeMpls = 0x8847, etherTypeMplsUpstream = 0x8848;  // RFC 5332
constexpr int mplsLabelsMax = 16;
}  // namespace

NetworkLayer behindLabels(const Packet& p, NetworkLayer n) {
  if (n.etherType != etherTypeMpls && n.etherType != etherTypeMplsUpstream) return n;
  n.etherType = 0;
  for (int labels = 0; labels < mplsLabelsMax; ++labels) {
    n.at += 4;
    if (n.at >= p.capLen) {
      ++n.at;  // the octet with the version has to be there
      return n;
    }
    if ((p.octets[n.at - 2] & 1) == 0) continue;  // not the bottom of the stack
    if (p.octets[n.at] >> 4 == 4) n.etherType = platform::etherTypeIpv4;
    if (p.octets[n.at] >> 4 == 6) n.etherType = platform::etherTypeIpv6;
    return n;
  }
  return n;
}

LinkFacts linkFacts(const Packet& p) {
  LinkFacts facts{.network = networkLayer(p)};
  const NetworkLayer& n = facts.network;
  facts.ipAt = behindLabels(p, n).at;
  if (facts.ipAt > n.at && n.at + 3 <= p.capLen) std::memcpy(&facts.mpls, p.octets + n.at, 3);
  if (p.link != LinkLayer::ethernet) return facts;
  constexpr size_t headerLen = 14;
  constexpr size_t tagLen = 4;
  std::memcpy(&facts.dstMac, p.octets, 6);
  std::memcpy(&facts.srcMac, p.octets + 6, 6);
  const size_t second = headerLen + (p.hasVlan ? 0 : tagLen);
  if (n.at >= second + tagLen) facts.customerVlan = be16(p.octets + second) & 0xfff;
  return facts;
}

ParseError PacketParser::parseAny(const Packet& p, Parsed& out) {
  const NetworkLayer ip = outermost(p);
  IpPayload payload;
  const ParseError e = parseIp(p, ip, 0, out, payload);
  if (e != ParseError::none || out.packets == 1) return e;
  // Segments are those of the innermost packet, and each repeats all headers in front of its own.
  Parsed inner;
  const TunnelFacts facts = descend(p, 0, payload, inner);
  const size_t headers = facts.innerAt + inner.headers - ip.at;
  if (facts.innerAt == 0 || inner.packets == 1 || headers > UINT16_MAX) return e;
  out.ipOctets -= out.repeated();
  out.headers = static_cast<uint16_t>(headers);
  out.ipOctets += out.repeated();
  return e;
}

ParseError PacketParser::parseIp(const Packet& p, NetworkLayer ip, uint32_t segment, Parsed& out,
                                 IpPayload& payload) {
  if (p.capLen < ip.at) return lacking(p, ip.at);
  if (ip.etherType == platform::etherTypeIpv4) return parse4(p, ip, segment, out, payload);
  if (ip.etherType == platform::etherTypeIpv6) return parse6(p, ip, segment, out, payload);
  return ParseError::notIp;
}

TunnelFacts PacketParser::lookInTunnel(const Packet& p, Parsed& out, bool inner) {
  const NetworkLayer ip = outermost(p);
  Parsed again;
  IpPayload payload;
  parseIp(p, ip, 0, again, payload);
  if (inner) return descend(p, ip.vlanId, payload, out);
  const auto content = tunnelContent(p, payload);
  return {.segment = content ? content->segment : 0};
}

TunnelFacts PacketParser::descend(Packet p, uint16_t vlanId, IpPayload payload, Parsed& out) {
  TunnelFacts facts;
  for (int depth = 0; depth < tunnelsMax; ++depth) {
    const auto content = tunnelContent(p, payload);
    if (!content) break;
    if (content->segment != 0) facts.segment = content->segment;
    NetworkLayer ip = content->network;
    ip.vlanId = vlanId;
    p.wireLen = static_cast<uint32_t>(content->end);
    p.capLen = std::min(p.capLen, p.wireLen);
    Parsed inner;
    if (parseIp(p, ip, facts.segment, inner, payload) != ParseError::none) break;
    // Where the content goes on behind the inner packet, the segments are tunnel packets that were
    // put together, each with an inner packet of its own.
    if (p.segments > 1 && payload.end != content->end) break;
    out = inner;
    facts.innerAt = ip.at;
  }
  return facts;
}

ParseError PacketParser::parse4(const Packet& p, NetworkLayer ip, uint32_t segment, Parsed& out,
                                IpPayload& payload) {
  if (p.capLen - ip.at < 20) return lacking(p, ip.at + 20);
  const uint8_t* o = p.octets + ip.at;
  const size_t headerLen = size_t{o[0] & 0xfu} * 4;
  const size_t room = roomAt(p, ip.at);
  size_t total = load16(o + 2);
  if (total == 0) total = room;
  if (o[0] >> 4 != 4 || headerLen < 20 || total < headerLen || total > room)
    return ParseError::malformed;

  out.ipv6 = false;
  out.tcpFlags = 0;
  out.packets = 1;
  out.ipOctets = static_cast<uint32_t>(total);
  out.flowLabel = 0;
  FlowClass flow{0, 0, o[9], o[1], ip.vlanId, p.interface};
  const uint16_t fragmentWord = load16(o + 6);
  const bool first = (fragmentWord & 0x1fff) == 0;
  const bool more = (fragmentWord & 0x2000) != 0;
  payload = {ip.at + headerLen, ip.at + total, flow.protocol, !first || more};
  if (first) {
    const ParseError e = parseTransport(p, payload.at, payload.end, flow, out.tcpFlags, icmp);
    if (e != ParseError::none) return e;
  }
  if (p.segments > 1) countSegments(p, ip.at, payload.at, payload.end, flow.protocol, out);
  if (!first || more) {
    FragmentTable::Key key;
    std::memcpy(key.src.data(), o + 12, 4);
    std::memcpy(key.dst.data(), o + 16, 4);
    key.id = load16(o + 4);
    key.interface = p.interface;
    key.segment = segment;
    key.version = 4;
    key.protocol = flow.protocol;
    fragmentIs(key, p, first, flow);
  }
  keyIs(out.key4, o + 12, flow);
  return ParseError::none;
}

void PacketParser::fragmentIs(const FragmentTable::Key& key, const Packet& p, bool first,
                              FlowClass& flow) {
  if (first) {
    fragments_.portsIs(key, p.timeNs, {flow.srcPort, flow.dstPort, flow.protocol});
  } else if (const FragmentTable::Ports* known = fragments_.ports(key, p.timeNs)) {
    flow.srcPort = known->src;
    flow.dstPort = known->dst;
    // In IPv6 extension headers may have stood between the fragment header and the transport's.
    flow.protocol = known->protocol;
  }
}

namespace {
constexpr size_t header6Len = 40;

/// Octets behind the IPv6 header at `at`; nothing where the jumbo payload option contradicts
/// itself.
std::optional<size_t> payload6(const Packet& p, size_t at) {
  constexpr size_t payloadMax = 0xffff;
  const uint8_t* o = p.octets + at;
  if (const size_t payload = be16(o + 4); payload > 0) return payload;
  // The jumbo payload option (RFC 2675), where it comes first, as it does in practice; or a
  // packet of segmentation offload that has no room for its length. Any other is just empty.
  if (o[6] == hopByHop && p.capLen - at >= header6Len + 8 && o[header6Len + 2] == 0xc2 &&
      o[header6Len + 3] == 4) {
    const size_t payload = size_t{be16(o + header6Len + 4)} << 16 | be16(o + header6Len + 6);
    return payload > payloadMax ? std::optional(payload) : std::nullopt;
  }
  const size_t room = roomAt(p, at);
  return room > header6Len + payloadMax ? room - header6Len : 0;
}

/// What the headers between an IPv6 header and its transport's say.
struct Extensions {
  size_t at;          // where the transport's header begins
  uint8_t next;       // what it is
  bool first = true;  // the fragment that has it, or no fragment
  bool more = false;  // fragments follow
  uint32_t id = 0;    // of the fragments

  /// Goes through the extension headers of a packet that ends at `end`.
  ParseError skip(const Packet& p, size_t end) {
    for (int n = 0; first && isExtension(next); ++n) {
      if (n == extensionsMax || end - at < 8) return ParseError::malformed;
      if (at + 8 > p.capLen) return ParseError::truncated;
      const uint8_t* h = p.octets + at;
      size_t len = (size_t{h[1]} + 1) * 8;
      if (next == authentication) len = (size_t{h[1]} + 2) * 4;
      if (next == fragment) {
        len = 8;
        first = (be16(h + 2) & 0xfff8) == 0;
        more = (h[3] & 1) != 0;
        id = uint32_t{be16(h + 4)} << 16 | be16(h + 6);
      }
      if (end - at < len) return ParseError::malformed;
      next = h[0];
      at += len;
    }
    return ParseError::none;
  }
};
}  // namespace

ParseError PacketParser::parse6(const Packet& p, NetworkLayer ip, uint32_t segment, Parsed& out,
                                IpPayload& payload) {
  if (p.capLen - ip.at < header6Len) return lacking(p, ip.at + header6Len);
  const uint8_t* o = p.octets + ip.at;
  const uint32_t head = load32(o);
  const auto octets = payload6(p, ip.at);
  if (!octets || head >> 28 != 6 || header6Len + *octets > roomAt(p, ip.at))
    return ParseError::malformed;

  out.ipv6 = true;
  out.tcpFlags = 0;
  out.packets = 1;
  out.ipOctets = static_cast<uint32_t>(header6Len + *octets);
  out.flowLabel = head & 0xfffff;
  FlowClass flow{0, 0, 0, static_cast<uint8_t>(head >> 20 & 0xff), ip.vlanId, p.interface};
  const size_t end = ip.at + header6Len + *octets;
  Extensions x{.at = ip.at + header6Len, .next = o[6]};
  if (const ParseError e = x.skip(p, end); e != ParseError::none) return e;
  flow.protocol = x.next;
  payload = {x.at, end, flow.protocol, !x.first || x.more};
  if (x.first) {
    const ParseError e = parseTransport(p, x.at, end, flow, out.tcpFlags, icmp6);
    if (e != ParseError::none) return e;
  }
  if (p.segments > 1) countSegments(p, ip.at, x.at, end, flow.protocol, out);
  if (!x.first || x.more) {
    FragmentTable::Key key;
    std::memcpy(key.src.data(), o + 8, 16);
    std::memcpy(key.dst.data(), o + 24, 16);
    key.id = x.id;
    key.interface = p.interface;
    key.segment = segment;
    key.version = 6;
    fragmentIs(key, p, x.first, flow);
  }
  keyIs(out.key6, o + 8, flow);
  return ParseError::none;
}

namespace {
bool within(int64_t a, int64_t b) {
  const uint64_t apart = a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                               : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
  return apart <= static_cast<uint64_t>(FragmentTable::lifetimeNs);
}
}  // namespace

size_t FragmentTable::firstWay(const Key& key) const {
  return (keyHash(key, seed_) & (entries_.size() / ways - 1)) * ways;
}

void FragmentTable::portsIs(const Key& key, int64_t timeNs, const Ports& ports) {
  Entry* const set = &entries_[firstWay(key)];
  Entry* place = set;
  for (Entry* e = set; e != set + ways; ++e) {
    if (std::memcmp(&e->key, &key, sizeof key) == 0) {
      place = e;
      break;
    }
    if (place->key.version != 0 && (e->key.version == 0 || e->timeNs < place->timeNs)) place = e;
  }
  *place = {key, timeNs, ports};
}

const FragmentTable::Ports* FragmentTable::ports(const Key& key, int64_t timeNs) const {
  const Entry* const set = &entries_[firstWay(key)];
  for (const Entry* e = set; e != set + ways; ++e)
    if (std::memcmp(&e->key, &key, sizeof key) == 0)
      return within(e->timeNs, timeNs) ? &e->ports : nullptr;
  return nullptr;
}

}  // namespace agent::flow
