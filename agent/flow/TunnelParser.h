#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/linux/Packet.h"

namespace agent::flow {

/// How many tunnels around a packet the parser looks through. What lies in more of them counts as
/// the packet that is found behind this many.
inline constexpr int tunnelsMax = 4;

/// What an IP packet carries, by its own headers. These octets may not all be captured.
struct IpPayload {
  size_t at = 0;   ///< where it begins, counted from the beginning of the captured packet
  size_t end = 0;  ///< where the IP packet ends, not before `at`
  uint8_t protocol = 0;
  bool fragment = false;  ///< the IP packet carries only a part of what was sent
};

/// What follows a tunnel's header.
struct TunnelContent {
  /// Where the network layer begins and what it is, behind the Ethernet header and the VLAN tags
  /// where the tunnel carries frames. The position may lie beyond the captured octets.
  platform::NetworkLayer network;
  size_t end = 0;  ///< where the outer headers say that the content ends
  /// The network segment as the tunnel's header names it, or 0: its kind in the highest octet
  /// (segmentOfVxlan, ...), its identifier in the other three.
  uint32_t segment = 0;
};

// Kinds of segments, of IANA's description of layer2SegmentId. It has none for GENEVE, whose
// identifiers have the kind 0, which nobody will be given.
inline constexpr uint32_t segmentOfVxlan = 1, segmentOfNvgre = 2, segmentOfGeneve = 0;

/// IANA's numbers: of protocols that are tunnels, or may carry one, and of their UDP ports.
struct TunnelNumber {
  static constexpr uint8_t ipv4 = 4, udp = 17, ipv6 = 41, gre = 47;
  static constexpr uint16_t vxlanPort = 4789, genevePort = 6081;
};

/// Whether packets of this protocol and UDP destination port may be those of a tunnel.
inline bool mayBeTunnel(uint8_t protocol, uint16_t dstPort) {
  using N = TunnelNumber;
  return protocol == N::ipv4 || protocol == N::ipv6 || protocol == N::gre ||
         (protocol == N::udp && (dstPort == N::vxlanPort || dstPort == N::genevePort));
}

/// Reads the header of the tunnel that the payload of an IP packet begins with: VXLAN (RFC 7348),
/// GENEVE (RFC 8926), GRE (RFC 2784, 2890) with NVGRE (RFC 7637), or the IP packet itself is the
/// content (RFC 2003, 2473, 4213). Nothing where there is none, where the header was not captured
/// whole, and where it has another version, flags that the RFC reserves, or a length beyond `end`:
/// a packet with the port of VXLAN need not be VXLAN.
std::optional<TunnelContent> tunnelContent(const platform::Packet& packet,
                                           const IpPayload& payload);

}  // namespace agent::flow
