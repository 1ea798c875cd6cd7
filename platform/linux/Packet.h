#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

/// What the first octet of a packet belongs to.
enum class LinkLayer : uint8_t {
  ethernet,  ///< LINKTYPE 1
  raw,       ///< an IPv4 or IPv6 header (LINKTYPE 101, 228, 229; devices without link layer)
  linuxSll,  ///< LINKTYPE 113, "cooked"
  linuxSll2  ///< LINKTYPE 276
};

/// One packet where it lies: in a capture ring or a mapped file. Nothing in it can be trusted.
struct Packet {
  const uint8_t* octets = nullptr;
  uint32_t capLen = 0;     ///< octets that are there
  uint32_t wireLen = 0;    ///< octets that were on the wire, without frame check sequence
  int64_t timeNs = 0;      ///< UTC, since 1970; never negative
  uint32_t interface = 0;  ///< the kernel's index, or the file's interface number from 1
  LinkLayer link = LinkLayer::ethernet;
  bool hasVlan = false;  ///< the outermost tag was taken off by the device; it stands in `vlanTci`
  uint16_t vlanTci = 0;
  bool leaves = false;  ///< this machine sends it on the interface; otherwise it arrived there
  /// Packets that it is on the wire, where the device or the kernel cuts it, or put it together,
  /// elsewhere; each has the headers again.
  uint32_t segments = 1;
};

// https://www.iana.org/assignments/ieee-802-numbers
inline constexpr uint16_t etherTypeIpv4 = 0x0800;
inline constexpr uint16_t etherTypeIpv6 = 0x86dd;

/// What a packet carries behind its link-layer header and its VLAN tags.
struct NetworkLayer {
  size_t at = 0;           ///< where it begins; beyond `capLen`: that much would have to be there
  uint16_t etherType = 0;  ///< of IP without link layer by its version; 0: neither IPv4 nor IPv6
  uint16_t vlanId = 0;     ///< of the outermost tag; 0: none
};

/// Knows the tags 0x8100, 0x88a8 and 0x9100. More than eight are an attack or noise: the type is
/// that of the ninth.
inline NetworkLayer networkLayer(const Packet& p) {
  constexpr size_t tagLen = 4;
  constexpr int tagsMax = 8;
  struct Header {
    uint8_t len;
    uint8_t etherTypeAt;
  };
  static constexpr Header headers[] = {{14, 12}, {0, 0}, {16, 14}, {20, 0}};  // by link layer
  const auto load16 = [o = p.octets](size_t at) {
    return static_cast<uint16_t>(o[at] << 8 | o[at + 1]);
  };
  const auto [len, etherTypeAt] = headers[static_cast<size_t>(p.link)];
  NetworkLayer n{.at = len, .vlanId = static_cast<uint16_t>(p.hasVlan ? p.vlanTci & 0xfff : 0)};
  if (p.link == LinkLayer::raw) {
    if (p.capLen < 1) {
      n.at = 1;
      return n;
    }
    // Only the version tells what it is. Tunnels carry other protocols, too.
    if (p.octets[0] >> 4 == 4) n.etherType = etherTypeIpv4;
    if (p.octets[0] >> 4 == 6) n.etherType = etherTypeIpv6;
    return n;
  }
  if (p.capLen < n.at) return n;
  n.etherType = load16(etherTypeAt);
  bool tagged = p.hasVlan;
  for (int tags = 0; n.etherType == 0x8100 || n.etherType == 0x88a8 || n.etherType == 0x9100;
       ++tags) {
    if (tags == tagsMax) break;
    n.at += tagLen;
    if (p.capLen < n.at) break;
    if (!tagged) n.vlanId = load16(n.at - tagLen) & 0xfff;
    tagged = true;
    n.etherType = load16(n.at - 2);
  }
  return n;
}

}  // namespace platform
