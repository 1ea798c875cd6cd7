#pragma once
// Random packets, in tunnels or not, and what a record should tell of each.
#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "Frames.h"
#include "agent/flow/RecordPlan.h"
#include "tests/unit/agent/World.h"

namespace agent::flow {

inline constexpr int64_t startMs = 1'700'000'000'000;

/// A packet and what each field of it is worth, told by whoever made it.
struct Made {
  Octets frame;
  PacketKinds kind = 0;
  std::map<uint16_t, std::vector<uint8_t>> value;  // by element, as on the wire
  uint32_t packets = 1;
  uint64_t ipOctets = 0;
  uint64_t packetOctets = 0;  // on average
  uint64_t layer2Octets = 0;
  uint64_t ttl = 0;
  uint64_t tcpFlags = 0;
  int64_t timeNs = 0;
  uint32_t interface = 0;
  bool leaves = false;
  bool back = false;    // the other way round than its conversation
  bool answer = false;  // whoever sent it did not begin the conversation
};

/// One IP packet of those in each other.
struct Layer {
  PacketKinds kind = 0;
  std::map<uint16_t, std::vector<uint8_t>> value;
  size_t len = 0;
  size_t headers = 0;  // of IP, and of TCP or UDP
  uint64_t ttl = 0;
  uint64_t tcpFlags = 0;
  bool back = false;   // the other way round than its conversation
  bool reply = false;  // of ICMP
  // Of the tunnel that it is:
  uint64_t segment = 0;
  enum { none, fragment, header, content, padded } spoilt = none;
};

inline Octets number(uint64_t v, unsigned len) {
  Octets o;
  while (len-- > 0) o.u8(len < 8 ? static_cast<uint32_t>(v >> 8 * len) : 0);
  return o;
}

class RandomPackets {
 public:
  Made operator()(Tunnel tunnel) {
    Made m;
    m.timeNs = now_ += static_cast<int64_t>(pick(3'000'000));
    const uint32_t vlan = pick(3), customer = vlan > 0 ? pick(2) : 0;
    const unsigned what = pick(5);
    const bool mpls = what < 4 && pick(4) == 0;
    const uint32_t label = 0x12340 + pick(2) * 0x1000;
    const auto put = [&](uint16_t element, const Octets& o) { m.value[element] = o; };
    Octets rest;
    size_t payload = 0;  // of all segments together
    uint16_t type = 0x0806;
    put(351, Octets{}.fill(8));
    if (what < 4) {
      std::vector<Layer> layers(1);
      rest = innermost(layers[0], what >= 2);
      const size_t tunnels = pick(2) ? 1 + pick(tunnelsMax + 1) : 0;
      while (layers.size() <= tunnels) {
        const bool v6 = layers.back().kind == ipv6Packets;
        rest = wrapped(layers.emplace_back(), v6, std::move(rest));
      }
      if (layers[0].len > layers[0].headers + 4) m.packets = 1 + pick(4);
      size_t counted = tunnels, last = tunnels;  // whose headers could be read
      for (bool first = true; last > 0 && last + tunnelsMax > tunnels; --last, first = false) {
        const Layer& l = layers[last];
        if (l.spoilt == Layer::fragment || l.spoilt == Layer::header) break;
        if (l.segment != 0 && (first || tunnel == Tunnel::inner)) put(351, number(l.segment, 8));
        if (l.spoilt == Layer::content || (l.spoilt == Layer::padded && m.packets > 1)) break;
      }
      if (tunnel == Tunnel::inner) counted = last;
      const Layer& l = layers[counted];
      m.kind = l.kind;
      m.value.insert(l.value.begin(), l.value.end());
      m.ttl = l.ttl;
      m.tcpFlags = l.tcpFlags;
      m.back = l.back;
      m.answer = both && (l.tcpFlags == 0x12 || l.reply);
      const size_t headers = l.len - layers[last].len + layers[last].headers;
      payload = l.len - headers;
      m.ipOctets = l.len + (m.packets - 1) * headers;
      m.packetOctets = (m.ipOctets + m.packets - 1) / m.packets;
      type = layers.back().kind == ipv4Packets ? 0x0800 : 0x86dd;
    } else {
      m.kind = otherFrames;
      rest = Octets{}.fill(46, 1);
      if (pick(2)) type = 46;  // the length of an 802.3 frame
    }
    if (mpls) {  // two labels, 20 bits each with the traffic class and the bottom bit
      rest = Octets{}.u32(label << 8 | 64).u32(0x00777100 | 63).add(rest);
      type = 0x8847;
    }
    put(70, mpls ? Octets{}.u8(label >> 16).u16(label) : Octets{0, 0, 0});
    put(256, Octets{}.u16(type < 0x600 ? 0 : type));
    if (customer > 0) rest = Octets{}.u16(customer).u16(type).add(rest), type = 0x8100;
    if (vlan > 0) rest = Octets{}.u16(0x6000 | vlan).u16(type).add(rest), type = 0x88a8;
    m.frame = ethernet(type, rest);
    m.frame[5] = static_cast<uint8_t>(pick(2));
    m.frame[11] = static_cast<uint8_t>(pick(2));
    m.layer2Octets = m.packets * m.frame.size() - (m.packets - 1) * payload;
    put(80, Octets(m.frame.begin(), m.frame.begin() + 6));
    put(56, Octets(m.frame.begin() + 6, m.frame.begin() + 12));
    for (const uint16_t element : {58, 243}) put(element, Octets{}.u16(vlan));
    put(245, Octets{}.u16(customer));
    const uint32_t interface = 3 + pick(2);
    Octets name = {'e', 't', 'h', static_cast<uint8_t>('0' + interface)};
    put(82, name.fill(28));
    // One address of each family is this machine's; what is sent to it or from it meets the CPU.
    m.leaves = pick(3) == 0;
    const Octets own4 = {10, 0, 0, 1},
                 own6 = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const auto own = [&](uint16_t address4, uint16_t address6) {
      if (m.kind == otherFrames) return false;
      return m.kind == ipv4Packets ? m.value[address4] == own4 : m.value[address6] == own6;
    };
    const bool fromOwn = m.back ? own(12, 28) : own(8, 27),
               toOwn = m.back ? own(8, 27) : own(12, 28);
    const bool group = m.kind == ipv4Packets && m.value.at(m.back ? 8 : 12)[0] == 224;
    const uint32_t ends = group ? 0x80000000 : toOwn ? 0x3fffffff : 0;
    put(61, {static_cast<uint8_t>(m.leaves)});
    put(10, Octets{}.u32(!m.leaves ? interface : fromOwn ? 0x3fffffff : 0));
    put(14, Octets{}.u32(m.leaves ? interface : ends));
    m.interface = interface;
    put(234, Octets{}.u32(10));
    put(34, Octets{}.u32(9));
    put(15, Octets{}.fill(4));  // told by routes, which are looked up later
    put(62, Octets{}.fill(16));
    return m;
  }
  Random pick;
  bool both = false;  ///< each conversation in both directions

 private:
  Octets ip(Layer& l, bool v6, uint8_t protocol, const Octets& rest, uint16_t fragment = 0) {
    const uint8_t tos = pick(2) ? 0xb8 : 0;
    const bool twoHosts = pick(2) == 0;
    Octets packet;
    l.ttl = 60 + pick(5);
    if (v6) {
      Ip6 ip{tos, 0xabc00 + pick(2)};
      ip.src[7] = static_cast<uint8_t>(pick(2));
      ip.src[15] = static_cast<uint8_t>(pick(2));
      if (!twoHosts) ip.dst = ip.src;
      l.value = {{27, ip.src}, {28, ip.dst}, {31, Octets{}.u32(ip.flowLabel)}};
      if (l.back) std::swap(ip.src, ip.dst);
      packet = ip(protocol, rest);
    } else {
      Ip4 ip{tos, 0, fragment};
      ip.src = {10, 0, static_cast<uint8_t>(pick(2)), static_cast<uint8_t>(pick(2))};
      if (!twoHosts) ip.dst = pick(2) ? Octets{224, 0, 0, 9} : Octets{10, 0, 0, 1};
      l.value = {{8, ip.src}, {12, ip.dst}};
      if (l.back) std::swap(ip.src, ip.dst);
      packet = ip(protocol, rest);
    }
    packet[v6 ? 7 : 8] = static_cast<uint8_t>(l.ttl);
    l.kind = v6 ? ipv6Packets : ipv4Packets;
    l.len = packet.size();
    l.headers = (v6 ? 40 : 20) + (protocol == 6 ? 20 : protocol == 17 ? 8 : 0);
    l.value[4] = {protocol};
    l.value[5] = {tos};
    l.value[v6 ? 139 : 32] = {0, 0};
    for (const uint16_t element : {7, 11}) l.value[element] = {0, 0};
    return packet;
  }
  Octets innermost(Layer& l, bool v6) {
    const auto port = static_cast<uint16_t>(pick(2));
    const unsigned what = pick(6);  // two of them ICMP, and two UDP
    l.back = both && pick(3) == 0;
    if (what < 2) {
      l.reply = l.back;
      const uint32_t request = v6 ? 128 : 8, reply = v6 ? 129 : 0;
      Octets packet = ip(l, v6, v6 ? 58 : 1,
                         Octets{}.u8(l.reply ? reply : request).u8(port).fill(6 + pick(50)));
      l.value[11] = l.value[v6 ? 139 : 32] = Octets{}.u16(request << 8 | port);
      return packet;
    }
    if (what > 3) l.tcpFlags = std::array{0x10, 0x18, 0x02, 0x12}[pick(4)];
    uint16_t from = 7, to = static_cast<uint16_t>(80 + port);
    const std::map<uint16_t, Octets> ports = {{7, Octets{}.u16(from)}, {11, Octets{}.u16(to)}};
    if (l.back) std::swap(from, to);
    Octets packet = ip(l, v6, what > 3 ? 6 : 17,
                       what > 3 ? tcp(from, to, static_cast<uint8_t>(l.tcpFlags), pick(300))
                                : udp(from, to, pick(300)));
    for (const auto& [element, octets] : ports) l.value[element] = octets;
    return packet;
  }
  Octets wrapped(Layer& l, bool v6, Octets rest) {
    const unsigned how = pick(4);
    l.back = both && pick(3) == 0;
    const uint32_t id = 0xabcd00 + pick(2);
    if (pick(6) == 0)
      l.spoilt = std::array{Layer::fragment, Layer::header, Layer::content, Layer::padded}[pick(4)];
    if (how == 0 && l.spoilt == Layer::header) l.spoilt = Layer::content;
    if (l.spoilt == Layer::content) rest[0] ^= 0x50;
    if (l.spoilt == Layer::padded) rest.fill(1 + pick(20));
    uint16_t type = v6 ? 0x86dd : 0x0800;
    if (how == 1 || (how > 1 && pick(2))) {
      rest = pick(2) ? tagged(0x8100, 5, type, rest) : ethernet(type, rest);
      type = 0x6558;
    }
    uint8_t protocol = v6 ? 41 : 4;
    uint16_t port = 0;
    Octets header, fixed;  // and the bits of it that are not free
    if (how == 1) {        // VXLAN
      port = 4789;
      header.u8(8).u8(0).u16(0).u32(id << 8);
      fixed = {0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0xff};
      l.segment = uint64_t{1} << 56 | id;
    } else if (how == 2) {  // GENEVE
      port = 6081;
      const uint32_t words = pick(4);
      header.u8(words).u8(words > 0 ? 0x40 : 0).u16(type).u32(id << 8).fill(4 * words, 9);
      fixed = {0xc0, 0xbf, 0, 0, 0, 0, 0, 0xff};
      l.segment = id;
    } else if (how == 3) {  // GRE: checksum, key, sequence number
      protocol = 47;
      const uint32_t flags = pick(2) << 15 | pick(2) << 13 | pick(2) << 12;
      header.u16(flags).u16(type);
      fixed = {0x4f, 0xff};
      if (flags & 0x8000) header.fill(4, 7);
      if (flags & 0x2000) header.u32(id << 8 | 3);
      if (flags & 0x1000) header.fill(4, 7);
      if (flags == 0x2000 && type == 0x6558) l.segment = uint64_t{2} << 56 | id;
    }
    const bool lies = l.spoilt == Layer::header && port > 0 && pick(2);  // the length of UDP
    if (l.spoilt == Layer::header && !lies) {
      size_t bit = pick(8 * fixed.size());
      while (!(fixed[bit / 8] >> bit % 8 & 1)) bit = (bit + 1) % (8 * fixed.size());
      header[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
    }
    const auto from = static_cast<uint16_t>(50000 + pick(2));
    if (port > 0) {
      protocol = 17;
      Octets outer = udp(from, port);
      outer.put16(4, static_cast<uint32_t>(8 + header.size() + rest.size() + lies));
      header = outer.add(header);
    }
    const bool fragment = l.spoilt == Layer::fragment;
    rest = ip(l, !fragment && pick(2) == 0, protocol, header.add(rest), fragment ? 0x2000 : 0);
    // From a host to itself, nothing but the ports tells the directions apart.
    if (l.value[l.kind == ipv6Packets ? 27 : 8] == l.value[l.kind == ipv6Packets ? 28 : 12])
      l.back = false;
    if (port > 0)
      l.value[l.back ? 11 : 7] = Octets{}.u16(from), l.value[l.back ? 7 : 11] = Octets{}.u16(port);
    return rest;
  }

  int64_t now_ = startMs * 1'000'000;
};

}  // namespace agent::flow
