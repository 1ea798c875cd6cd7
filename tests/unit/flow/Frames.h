#pragma once
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/flow/PacketParser.h"

namespace agent::flow {

/// Octets in network order, put together from the front.
struct Octets : std::vector<uint8_t> {
  using std::vector<uint8_t>::vector;
  Octets& u8(uint32_t v) {
    push_back(static_cast<uint8_t>(v));
    return *this;
  }
  Octets& u16(uint32_t v) { return u8(v >> 8).u8(v); }
  Octets& u32(uint32_t v) { return u16(v >> 16).u16(v); }
  Octets& add(const std::vector<uint8_t>& o) {
    insert(end(), o.begin(), o.end());
    return *this;
  }
  Octets& fill(size_t n, uint8_t v = 0) {
    insert(end(), n, v);
    return *this;
  }
  void put16(size_t at, uint32_t v) {
    (*this)[at] = static_cast<uint8_t>(v >> 8);
    (*this)[at + 1] = static_cast<uint8_t>(v);
  }
};

inline Octets ethernet(uint16_t etherType, const Octets& rest) {
  return Octets{2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2}.u16(etherType).add(rest);
}
inline Octets tagged(uint16_t tagType, uint16_t tci, uint16_t etherType, const Octets& rest) {
  return ethernet(tagType, Octets{}.u16(tci).u16(etherType).add(rest));
}
inline Octets udp(uint16_t src, uint16_t dst, size_t payload = 0) {
  return Octets{}.u16(src).u16(dst).u16(static_cast<uint32_t>(8 + payload)).u16(0).fill(payload);
}
inline Octets tcp(uint16_t src, uint16_t dst, uint8_t flags, size_t payload = 0) {
  Octets o;
  o.u16(src).u16(dst).u32(1).u32(2).u8(0x50).u8(flags).u16(1000).u32(0).fill(payload);
  return o;
}

struct Ip4 {
  uint8_t tos = 0;
  uint16_t id = 0;
  uint16_t fragment = 0;  // flags and offset
  size_t optionsLen = 0;
  Octets src = {10, 1, 2, 3};
  Octets dst = {192, 0, 2, 200};
  Octets operator()(uint8_t protocol, const Octets& rest) const {
    Octets o;
    o.u8(static_cast<uint32_t>(0x45 + optionsLen / 4)).u8(tos);
    o.u16(static_cast<uint32_t>(20 + optionsLen + rest.size())).u16(id).u16(fragment);
    o.u8(64).u8(protocol).u16(0).add(src).add(dst).fill(optionsLen, 1);
    return o.add(rest), o;
  }
};
struct Ip6 {
  uint8_t trafficClass = 0;
  uint32_t flowLabel = 0;
  Octets src = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  Octets dst = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 2};
  Octets operator()(uint8_t next, const Octets& rest) const {
    Octets o;
    o.u32(0x60000000u | uint32_t{trafficClass} << 20 | flowLabel);
    o.u16(static_cast<uint32_t>(rest.size())).u8(next).u8(64).add(src).add(dst);
    return o.add(rest), o;
  }
};
/// An extension header of `len` octets in front of `rest`; `kind` is its own number.
inline Octets extension(uint8_t kind, uint8_t next, size_t len, const Octets& rest) {
  Octets o;
  o.u8(next).u8(static_cast<uint32_t>(kind == 51 ? len / 4 - 2 : len / 8 - 1));
  if (kind == 0 || kind == 60) {  // one option that pads
    o.u8(1).u8(static_cast<uint32_t>(len - 4)).fill(len - 4);
  } else {
    o.fill(len - 2);
  }
  return o.add(rest), o;
}
inline Octets fragmentHeader(uint8_t next, uint16_t offset, bool more, uint32_t id,
                             const Octets& rest) {
  return Octets{}.u8(next).u8(0).u16(offset | (more ? 1u : 0u)).u32(id).add(rest);
}

/// A packet in a heap block of exactly its length, so that the sanitizer sees a read beyond it.
struct Boxed {
  std::unique_ptr<uint8_t[]> block;
  Packet packet;
  explicit Boxed(const Octets& octets, LinkLayer link = LinkLayer::ethernet)
      : Boxed(octets, octets.size(), octets.size(), link) {}
  Boxed(const Octets& octets, size_t capLen, size_t wireLen, LinkLayer link)
      : block(new uint8_t[capLen]) {
    packet.octets = std::copy_n(octets.begin(), capLen, block.get()) - capLen;
    packet.capLen = static_cast<uint32_t>(capLen);
    packet.wireLen = static_cast<uint32_t>(wireLen);
    packet.link = link;
    packet.interface = 3;
  }
};

/// All that a parse says, in one line: addresses, "protocol source port>destination port octets of
/// the packet", and by name what else is not 0.
inline std::string textOf(const Parsed& p) {
  if (p.error != ParseError::none) return std::string(toText(p.error));
  std::string text;
  const auto addresses = [&](const auto& key) {
    for (const auto& address : {key.src, key.dst}) {
      for (const uint8_t o : address)
        (text += "0123456789abcdef"[o >> 4]) += "0123456789abcdef"[o & 15];
      text += ' ';
    }
  };
  p.ipv6 ? addresses(p.key6) : addresses(p.key4);
  const FlowClass& rest = p.ipv6 ? p.key6.rest : p.key4.rest;
  text += std::to_string(rest.protocol) + ' ' + std::to_string(rest.srcPort) + '>' +
          std::to_string(rest.dstPort) + ' ' + std::to_string(p.ipOctets);
  const std::pair<const char*, uint32_t> others[] = {{" tos ", rest.tos},
                                                     {" vlan ", rest.vlanId},
                                                     {" flags ", p.tcpFlags},
                                                     {" label ", p.flowLabel}};
  for (const auto& [name, n] : others)
    if (n != 0) text += name + std::to_string(n);
  return text;
}
inline std::string parsed(PacketParser& parser, const Packet& packet) {
  Parsed out;
  const bool ok = parser.parse(packet, out);
  return ok == (out.error == ParseError::none) ? textOf(out) : "result contradicts error";
}

}  // namespace agent::flow
