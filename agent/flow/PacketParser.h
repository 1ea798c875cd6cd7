#pragma once
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "agent/flow/FlowKey.h"
#include "agent/flow/TunnelParser.h"
#include "platform/linux/Packet.h"

namespace agent::flow {
using platform::LinkLayer;
using platform::NetworkLayer;
using platform::Packet;

/// Why a packet has no key of an IP flow. Records without such a key count `notIp` all the same.
enum class ParseError : uint8_t {
  none,
  notIp,      ///< another network protocol: ARP, LLDP, MPLS, ...
  truncated,  ///< a header up to the transport ports does not lie within the captured octets
  malformed,  ///< a length or version contradicts the packet
};
inline constexpr size_t parseErrors = 4;
std::string_view toText(ParseError e);  ///< "notIp", ...

/// What a flow needs to know of one packet.
struct Parsed {
  ParseError error = ParseError::none;
  bool ipv6 = false;
  uint8_t tcpFlags = 0;    ///< of TCP; 0 of others, and of fragments without the header
  uint16_t packets = 1;    ///< more than one of a packet that is several segments
  uint16_t headers = 0;    ///< of several packets: octets of the headers that each has
  uint32_t ipOctets = 0;   ///< of the IP packet or all its segments, headers included
  uint32_t flowLabel = 0;  ///< of IPv6, 20 bits
  FlowKey4 key4;           ///< when not `ipv6`
  FlowKey6 key6;           ///< when `ipv6`

  /// Octets that are headers of all packets but one.
  uint32_t repeated() const { return (packets - 1u) * headers; }
};

/// What the parser found behind the tunnel headers of a packet.
struct TunnelFacts {
  size_t innerAt = 0;    ///< where the inner IP packet begins; 0: there is none
  uint32_t segment = 0;  ///< as in TunnelContent, of the innermost header that names one
};

/// What lies in front of a packet's network layer. MAC addresses and the MPLS label are octets as
/// they lie in the packet, the first one lowest.
struct LinkFacts {
  NetworkLayer network;
  size_t ipAt = 0;      ///< where an IP packet begins, behind any MPLS labels
  uint64_t srcMac = 0;  ///< 0: the link layer has none
  uint64_t dstMac = 0;
  uint64_t mpls = 0;          ///< top label, traffic class and bottom bit, three octets; 0: none
  uint16_t customerVlan = 0;  ///< id in the second tag; 0: none
};
/// Of a packet in which the parser found the network layer.
LinkFacts linkFacts(const Packet& packet);
/// The network layer behind the MPLS labels (RFC 3032), where `n` is MPLS: IPv4 or IPv6, as the
/// first octet there says. Else `n`.
NetworkLayer behindLabels(const Packet& packet, NetworkLayer n);

/// The transport ports that first fragments had, for the fragments behind them, which have none.
/// Bounded: when it is full, a new datagram takes the place of the oldest it collides with.
class FragmentTable {
 public:
  /// Padded to whole words by `unused`, so that equal keys are equal octets.
  struct Key {
    std::array<uint8_t, 16> src{};  ///< of IPv4 the first four octets
    std::array<uint8_t, 16> dst{};
    uint32_t id = 0;
    uint32_t interface = 0;
    uint32_t segment = 0;  ///< of the tunnel around: each may use the same addresses
    uint8_t version = 0;   ///< 4 or 6; 0 of an empty entry
    uint8_t protocol = 0;  ///< of IPv6 always 0: fragments of one packet may differ in it
    std::array<uint8_t, 2> unused{};
  };
  static_assert(sizeof(Key) == 48);
  /// What the first fragment said.
  struct Ports {
    uint16_t src = 0;
    uint16_t dst = 0;
    uint8_t protocol = 0;
  };
  static constexpr int64_t lifetimeNs = 30'000'000'000;  ///< as long as hosts wait for the rest
  static constexpr size_t ways = 4;

  /// For `sets` times four packets; a power of two.
  FragmentTable(uint64_t seed, size_t sets) : entries_(ways * sets), seed_(seed) {}
  void portsIs(const Key& key, int64_t timeNs, const Ports& ports);
  /// Null when no first fragment came within the lifetime, before or after `timeNs`.
  const Ports* ports(const Key& key, int64_t timeNs) const;

 private:
  struct alignas(64) Entry {
    Key key;
    int64_t timeNs = 0;
    Ports ports;
  };
  static_assert(sizeof(Entry) == 64, "one cache line each");
  size_t firstWay(const Key& key) const;

  std::vector<Entry> entries_;
  uint64_t seed_;
};

/// Finds the flow of each packet. What lies in a packet is believed nowhere: reads stay within
/// `capLen`. One per thread.
///
///  - Ethernet with any of the tags 0x8100, 0x88a8 and 0x9100, IP without link layer, and the two
///    cooked headers. 802.3 length frames are `notIp`.
///  - What follows the IP packet (padding, a trailer) does not count. A total length of 0, which
///    segmentation offload leaves, means all that was on the wire.
///  - Ports of TCP, UDP, UDP-Lite, DCCP and SCTP; type and code of ICMP and ICMPv6. They are 0 of
///    other protocols, where the IP packet ends before them, and of fragments whose first one was
///    not seen before.
///  - A packet of several segments counts as these: each has the IP header and those of TCP, UDP,
///    UDP-Lite or SCTP, and where tunnels are around that header, all headers up to it.
///  - A packet cut short by the snap length is fine as long as the key is there; the TCP flags of
///    one cut before them are 0.
class PacketParser {
 public:
  /// `seed`: for the hash of the fragment table, whose places nobody on the wire shall foresee;
  /// the same seed and packets give the same results. `fragmentSets`: sets of four packets whose
  /// fragments are remembered, a power of two; 256 octets each. `mpls`: IP packets behind MPLS
  /// labels belong to flows as well; otherwise they are `notIp`.
  explicit PacketParser(uint64_t seed, size_t fragmentSets = 1024, bool mpls = false)
      : fragments_(seed, fragmentSets), mpls_(mpls) {}

  /// True when the packet has the key of an IP flow. Otherwise `out.error` says why and the rest of
  /// `out` means nothing. Of the two keys only the one that `out.ipv6` names is written.
  bool parse(const Packet& packet, Parsed& out) {
    if (parseCommon(packet, out)) return true;
    out.error = parseAny(packet, out);
    return out.error == ParseError::none;
  }
  /// Looks for tunnels in a packet that `parse` filled `out` of. Not `inner`: `out` stays as it is,
  /// and the segment is that of the packet's own tunnel. `inner`: `out` becomes what the innermost
  /// IP packet says, whose headers lie within the captured octets and the outer packets' lengths;
  /// interface and VLAN id stay. Where a tunnel's content is no such packet, or only a fragment of
  /// the outer one, `out` is what `parse` would say of the IP packet that the tunnel begins in.
  TunnelFacts lookInside(const Packet& packet, Parsed& out, bool inner) {
    const FlowClass& flow = out.ipv6 ? out.key6.rest : out.key4.rest;
    return mayBeTunnel(flow.protocol, flow.dstPort) ? lookInTunnel(packet, out, inner)
                                                    : TunnelFacts{};
  }

 private:
  static uint16_t load16(const uint8_t* o) { return static_cast<uint16_t>(o[0] << 8 | o[1]); }
  static uint32_t load32(const uint8_t* o) { return uint32_t{load16(o)} << 16 | load16(o + 2); }
  template <class Key>
  static void keyIs(Key& key, const uint8_t* addresses, const FlowClass& rest) {
    std::memcpy(static_cast<void*>(&key), addresses, 2 * Key::ipLen);
    if constexpr (std::endian::native == std::endian::little) {
      // One store of eight octets: who hashes the key at once would wait for several to be joined.
      const uint64_t head = uint64_t{rest.srcPort} | uint64_t{rest.dstPort} << 16 |
                            uint64_t{rest.protocol} << 32 | uint64_t{rest.tos} << 40 |
                            uint64_t{rest.vlanId} << 48;
      std::memcpy(static_cast<void*>(&key.rest), &head, sizeof head);
      key.rest.interface = rest.interface;
    } else {
      key.rest = rest;
    }
  }

  /// Nearly all packets: untagged Ethernet, no options, no fragments, TCP or UDP. False: look
  /// closer. Says of these packets what parseAny says.
  static bool parseCommon(const Packet& packet, Parsed& out);
  ParseError parseAny(const Packet& packet, Parsed& out);
  /// Where the packet's own network layer begins.
  NetworkLayer outermost(const Packet& packet) const {
    const NetworkLayer n = networkLayer(packet);
    return mpls_ && packet.capLen >= n.at ? behindLabels(packet, n) : n;
  }
  /// Parses the IP packet at `ip`. Fills `payload` when there is no error. `segment` is that of the
  /// tunnel around.
  ParseError parseIp(const Packet& packet, NetworkLayer ip, uint32_t segment, Parsed& out,
                     IpPayload& payload);
  ParseError parse4(const Packet& packet, NetworkLayer ip, uint32_t segment, Parsed& out,
                    IpPayload& payload);
  ParseError parse6(const Packet& packet, NetworkLayer ip, uint32_t segment, Parsed& out,
                    IpPayload& payload);
  TunnelFacts lookInTunnel(const Packet& packet, Parsed& out, bool inner);
  /// Goes into tunnels from the IP packet with this payload. `out` becomes what the innermost
  /// packet says that can be read; it stays where there is none.
  TunnelFacts descend(Packet packet, uint16_t vlanId, IpPayload payload, Parsed& out);

  /// Of a packet in fragments: the first one leaves its ports, which those behind it find.
  void fragmentIs(const FragmentTable::Key& key, const Packet& packet, bool first, FlowClass& flow);

  FragmentTable fragments_;
  bool mpls_;
};

inline bool PacketParser::parseCommon(const Packet& p, Parsed& out) {
  constexpr uint32_t link = 14;
  constexpr uint32_t ports = 4;
  constexpr uint32_t flags = 14;  // of a TCP header up to its flags
  constexpr uint8_t tcp = 6, udp = 17;
  // Without a branch: which of the two it is cannot be foretold.
  const auto isCommon = [](uint8_t protocol) {
    return protocol < 32 && (1u << protocol & (1u << tcp | 1u << udp)) != 0;
  };
  if (p.link != LinkLayer::ethernet || p.capLen < link + 40 + ports || p.segments != 1)
    return false;
  const uint8_t* ip = p.octets + link;
  const uint16_t vlan = p.hasVlan ? p.vlanTci & 0xfff : 0;
  const uint16_t type = load16(ip - 2);
  if (type == platform::etherTypeIpv4) {
    const uint32_t total = load16(ip + 2);
    const uint8_t protocol = ip[9];
    if (ip[0] != 0x45 || (load16(ip + 6) & 0x3fff) != 0 || total < 20 + flags ||
        total + link > p.wireLen || !isCommon(protocol))
      return false;
    const uint8_t* transport = ip + 20;
    out.ipv6 = false;
    out.tcpFlags = static_cast<uint8_t>(transport[13] & -int{protocol == tcp});
    out.ipOctets = total;
    out.flowLabel = 0;
    keyIs(out.key4, ip + 12,
          {load16(transport), load16(transport + 2), protocol, ip[1], vlan, p.interface});
  } else if (type == platform::etherTypeIpv6) {
    const uint32_t head = load32(ip);
    const uint32_t payload = load16(ip + 4);
    const uint8_t protocol = ip[6];
    if (head >> 28 != 6 || payload + 40 + link > p.wireLen) return false;
    const uint8_t* transport = ip + 40;
    if (protocol == tcp && payload >= flags && p.capLen >= link + 40 + flags) {
      out.tcpFlags = transport[13];
    } else if (protocol == udp && payload >= ports) {
      out.tcpFlags = 0;
    } else {
      return false;
    }
    out.ipv6 = true;
    out.ipOctets = payload + 40;
    out.flowLabel = head & 0xfffff;
    keyIs(out.key6, ip + 8,
          {load16(transport), load16(transport + 2), protocol,
           static_cast<uint8_t>(head >> 20 & 0xff), vlan, p.interface});
  } else {
    return false;
  }
  out.error = ParseError::none;
  out.packets = 1;
  return true;
}

}  // namespace agent::flow
