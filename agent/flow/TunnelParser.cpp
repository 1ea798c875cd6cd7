#include "agent/flow/TunnelParser.h"

#include <algorithm>

namespace agent::flow {
namespace {
using platform::LinkLayer;
using platform::NetworkLayer;
using platform::Packet;

constexpr uint16_t etherTypeFrame = 0x6558;  // "Trans Ether Bridging" of IANA's registry

uint16_t be16(const uint8_t* o) { return static_cast<uint16_t>(o[0] << 8 | o[1]); }
uint32_t be32(const uint8_t* o) { return uint32_t{be16(o)} << 16 | be16(o + 2); }

/// Where the header of `len` octets at `at` lies. Null: it goes beyond `end`, or was not captured.
const uint8_t* headerAt(const Packet& p, size_t at, size_t end, size_t len) {
  return at + len <= std::min<size_t>(end, p.capLen) ? p.octets + at : nullptr;
}

/// The content at `at`, of the protocol type that the tunnel's header names. The header was
/// captured.
std::optional<TunnelContent> contentOf(const Packet& p, uint16_t type, size_t at, size_t end,
                                       uint32_t segment) {
  if (type != etherTypeFrame) return TunnelContent{{.at = at, .etherType = type}, end, segment};
  Packet frame;
  frame.octets = p.octets + at;
  frame.capLen = static_cast<uint32_t>(std::min<size_t>(end, p.capLen) - at);
  NetworkLayer network = networkLayer(frame);
  network.at += at;
  return TunnelContent{network, end, segment};
}

/// The header is four octets of flags and reserved bits, which are 0 but for the flag I, three of
/// the identifier, and one that is reserved (RFC 7348, 5).
std::optional<TunnelContent> vxlanContent(const Packet& p, size_t at, size_t end) {
  constexpr size_t len = 8;
  const uint8_t* const o = headerAt(p, at, end, len);
  if (!o || be32(o) != 0x08000000 || o[7] != 0) return {};
  return contentOf(p, etherTypeFrame, at + len, end, segmentOfVxlan << 24 | be32(o + 4) >> 8);
}

/// RFC 8926, 3.4. A packet with the flag O is refused: it is for the tunnel's end itself.
std::optional<TunnelContent> geneveContent(const Packet& p, size_t at, size_t end) {
  constexpr size_t len = 8;
  constexpr uint8_t optionsLen = 0x3f;  // the bits before it are the version, which is 0
  constexpr uint8_t critical = 0x40;    // the only flag that data may have
  const uint8_t* const o = headerAt(p, at, end, len);
  if (!o || o[0] > optionsLen || (o[1] & ~critical) != 0 || o[7] != 0) return {};
  const size_t whole = len + size_t{o[0]} * 4;
  if (!headerAt(p, at, end, whole)) return {};
  return contentOf(p, be16(o + 2), at + whole, end, segmentOfGeneve << 24 | be32(o + 4) >> 8);
}

/// RFC 2784 and 2890. Version 1, that of PPTP, is refused with the reserved bits. Frames behind a
/// key, without checksum and sequence number, are NVGRE: its segment is the key's first 24 bits.
std::optional<TunnelContent> greContent(const Packet& p, size_t at, size_t end) {
  constexpr uint16_t checksum = 0x8000, key = 0x2000, sequence = 0x1000;
  const uint8_t* const o = headerAt(p, at, end, 4);
  if (!o || (be16(o) & ~(checksum | key | sequence)) != 0) return {};
  size_t len = 4;
  for (const uint16_t flag : {checksum, key, sequence})
    if (be16(o) & flag) len += 4;
  if (!headerAt(p, at, end, len)) return {};
  const uint16_t type = be16(o + 2);
  const bool nvgre = be16(o) == key && type == etherTypeFrame;
  return contentOf(p, type, at + len, end, nvgre ? segmentOfNvgre << 24 | be32(o + 4) >> 8 : 0);
}

/// Of an IP packet whose payload is UDP. The length in the UDP header is 0 where it exceeds 65535
/// (RFC 2675, 4).
std::optional<TunnelContent> udpContent(const Packet& p, size_t at, size_t end) {
  constexpr size_t len = 8;
  const uint8_t* const o = headerAt(p, at, end, len);
  if (!o) return {};
  const size_t stated = be16(o + 4);
  if (stated != 0 && (stated < len || stated > end - at)) return {};
  if (stated != 0) end = at + stated;
  switch (be16(o + 2)) {
    case TunnelNumber::vxlanPort:
      return vxlanContent(p, at + len, end);
    case TunnelNumber::genevePort:
      return geneveContent(p, at + len, end);
    default:
      return {};
  }
}
}  // namespace

std::optional<TunnelContent> tunnelContent(const Packet& p, const IpPayload& payload) {
  const auto [at, end, protocol, fragment] = payload;
  if (fragment) return {};
  switch (protocol) {
    case TunnelNumber::ipv4:
      return TunnelContent{{.at = at, .etherType = platform::etherTypeIpv4}, end, 0};
    case TunnelNumber::ipv6:
      return TunnelContent{{.at = at, .etherType = platform::etherTypeIpv6}, end, 0};
    case TunnelNumber::gre:
      return greContent(p, at, end);
    case TunnelNumber::udp:
      return udpContent(p, at, end);
    default:
      return {};
  }
}

}  // namespace agent::flow
