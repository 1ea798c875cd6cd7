#include "cli/wire/Datagrams.h"

#include <arpa/inet.h>

#include <algorithm>

namespace cli {
namespace {
using Octets = std::span<const uint8_t>;

// https://www.iana.org/assignments/protocol-numbers
constexpr uint8_t hopByHop = 0, udp = 17, routing = 43, fragment = 44, authentication = 51,
                  destinationOptions = 60;
constexpr int extensionsMax = 16;  // extension headers of one IPv6 packet that are skipped

uint16_t u16(Octets o, size_t at) { return static_cast<uint16_t>(o[at] << 8 | o[at + 1]); }

std::string addressText(int family, const uint8_t* octets) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(family, octets, text.data(), text.size());
  return text.data();
}

/// What an IP packet carries, and what its header says of it.
struct IpPayload {
  Octets octets;     ///< of what is there, without padding behind the packet
  bool cut = false;  ///< the capture has less than was on the wire
  uint8_t tos = 0;
  std::string source;
  std::string destination;
};

/// Nothing when the packet carries no UDP, or is counted as a fragment or as malformed.
std::optional<IpPayload> udpIn4(Octets o, DatagramCounts& counts) {
  if (o.size() < 20 || o[9] != udp) return std::nullopt;
  const size_t headerLen = size_t{o[0] & 15U} * 4;
  const size_t totalLen = u16(o, 2);
  if (headerLen < 20 || totalLen < headerLen) {
    ++counts.malformed;
    return std::nullopt;
  }
  if ((u16(o, 6) & 0x3fff) != 0) {  // more fragments, or an offset
    ++counts.fragments;
    return std::nullopt;
  }
  IpPayload p;
  p.cut = o.size() < totalLen;
  p.tos = o[1];
  p.source = addressText(AF_INET, &o[12]);
  p.destination = addressText(AF_INET, &o[16]);
  o = o.first(std::min(o.size(), totalLen));
  p.octets = o.subspan(std::min(o.size(), headerLen));
  return p;
}

/// The same for IPv6. Extension headers: RFC 8200, 4; the authentication header: RFC 4302, 2.
std::optional<IpPayload> udpIn6(Octets o, DatagramCounts& counts) {
  if (o.size() < 40) return std::nullopt;
  IpPayload p;
  const size_t totalLen = 40 + size_t{u16(o, 4)};
  p.cut = o.size() < totalLen;
  p.tos = static_cast<uint8_t>(o[0] << 4 | o[1] >> 4);
  p.source = addressText(AF_INET6, &o[8]);
  p.destination = addressText(AF_INET6, &o[24]);
  uint8_t next = o[6];
  o = o.first(std::min(o.size(), totalLen)).subspan(40);
  for (int n = 0; n < extensionsMax; ++n) {
    if (next == udp) {
      p.octets = o;
      return p;
    }
    const bool extension = next == hopByHop || next == routing || next == fragment ||
                           next == authentication || next == destinationOptions;
    if (!extension || o.size() < 8) return std::nullopt;
    if (next == fragment && (u16(o, 2) & 0xfff9) != 0) {  // an offset, or more fragments
      counts.fragments += o[0] == udp;
      return std::nullopt;
    }
    const size_t len = next == fragment         ? 8
                       : next == authentication ? (size_t{o[1]} + 2) * 4
                                                : (size_t{o[1]} + 1) * 8;
    next = o[0];
    o = o.subspan(std::min(o.size(), len));
  }
  return std::nullopt;
}
}  // namespace

std::optional<Datagram> datagramIn(const platform::Packet& packet, DatagramCounts& counts) {
  ++counts.packets;
  const auto network = platform::networkLayer(packet);
  if (packet.capLen <= network.at || (network.etherType != platform::etherTypeIpv4 &&
                                      network.etherType != platform::etherTypeIpv6))
    return std::nullopt;
  const Octets o = Octets(packet.octets, packet.capLen).subspan(network.at);
  const int version = o[0] >> 4;
  const auto ip = version == 4   ? udpIn4(o, counts)
                  : version == 6 ? udpIn6(o, counts)
                                 : std::nullopt;
  if (!ip) return std::nullopt;
  constexpr size_t headerLen = 8;
  if (ip->octets.size() < headerLen) {
    ++(ip->cut ? counts.cutShort : counts.malformed);
    return std::nullopt;
  }
  const size_t len = u16(ip->octets, 4);
  if (len < headerLen || (!ip->cut && len > ip->octets.size())) {
    ++counts.malformed;
    return std::nullopt;
  }
  if (len > ip->octets.size()) {
    ++counts.cutShort;
    return std::nullopt;
  }
  ++counts.udp;
  Datagram d;
  d.octets = ip->octets.subspan(headerLen, len - headerLen);
  d.time = static_cast<double>(packet.timeNs) / 1e9;
  d.source = {ip->source, u16(ip->octets, 0)};
  d.destination = {ip->destination, u16(ip->octets, 2)};
  d.tos = ip->tos;
  return d;
}

}  // namespace cli
