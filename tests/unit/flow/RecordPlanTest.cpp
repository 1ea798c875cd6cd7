#include "agent/flow/RecordPlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "Frames.h"
#include "agent/flow/FlowCache.h"
#include "cli/wire/decoder/Element.h"
#include "tests/unit/agent/World.h"

namespace agent::flow {
namespace {
constexpr int64_t startMs = 1'700'000'000'000;

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
};

/// One IP packet of those in each other.
struct Layer {
  PacketKinds kind = 0;
  std::map<uint16_t, std::vector<uint8_t>> value;
  size_t len = 0;
  size_t headers = 0;  // of IP, and of TCP or UDP
  uint64_t ttl = 0;
  uint64_t tcpFlags = 0;
  // Of the tunnel that it is:
  uint64_t segment = 0;
  enum { none, fragment, header, content, padded } spoilt = none;
};

Octets number(uint64_t v, unsigned len) {
  Octets o;
  while (len-- > 0) o.u8(static_cast<uint32_t>(v >> 8 * len));
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
    const bool group = m.kind == ipv4Packets && m.value.at(12)[0] == 224;
    const uint32_t ends = group ? 0x80000000 : own(12, 28) ? 0x3fffffff : 0;
    put(61, {static_cast<uint8_t>(m.leaves)});
    put(10, Octets{}.u32(!m.leaves ? interface : own(8, 27) ? 0x3fffffff : 0));
    put(14, Octets{}.u32(m.leaves ? interface : ends));
    m.interface = interface;
    put(234, Octets{}.u32(10));
    put(34, Octets{}.u32(9));
    put(15, Octets{}.fill(4));  // told by routes, which are looked up later
    put(62, Octets{}.fill(16));
    return m;
  }
  Random pick;

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
      packet = ip(protocol, rest);
    } else {
      Ip4 ip{tos, 0, fragment};
      ip.src = {10, 0, static_cast<uint8_t>(pick(2)), static_cast<uint8_t>(pick(2))};
      if (!twoHosts) ip.dst = pick(2) ? Octets{224, 0, 0, 9} : Octets{10, 0, 0, 1};
      l.value = {{8, ip.src}, {12, ip.dst}};
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
    if (what < 2) {
      Octets packet = ip(l, v6, v6 ? 58 : 1, Octets{}.u8(8).u8(port).fill(6 + pick(50)));
      l.value[11] = l.value[v6 ? 139 : 32] = Octets{}.u16(0x800u + port);
      return packet;
    }
    if (what > 3) l.tcpFlags = 0x10 + pick(2) * 8;
    const auto to = static_cast<uint16_t>(80 + port);
    Octets packet = what > 3 ? ip(l, v6, 6, tcp(7, to, static_cast<uint8_t>(l.tcpFlags), pick(300)))
                             : ip(l, v6, 17, udp(7, to, pick(300)));
    l.value[7] = Octets{}.u16(7);
    l.value[11] = Octets{}.u16(to);
    return packet;
  }
  Octets wrapped(Layer& l, bool v6, Octets rest) {
    const unsigned how = pick(4);
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
    if (port > 0) l.value[7] = Octets{}.u16(from), l.value[11] = Octets{}.u16(port);
    return rest;
  }

  int64_t now_ = startMs * 1'000'000;
};

RecordDefinition randomRecord(Random& pick) {
  RecordDefinition r;
  const auto all = recordFields();
  const unsigned of = 2 + pick(all.size() - 1);
  for (const RecordField& f : all)
    if ((pick(all.size()) < of ||
         f.element == 2) &&  // one form of each: what is read is by element
        (r.fields.empty() || recordField(r.fields.back())->element != f.element))
      r.fields.emplace_back(f.name);
  std::shuffle(r.fields.begin(), r.fields.end(), pick.engine());
  for (size_t at = 0; at < r.fields.size() && at < 31; ++at)
    if (recordField(r.fields[at])->ofPacket && pick(3) == 0) r.keys.push_back(r.fields[at]);
  for (size_t at = r.fields.size(); at-- > 0;)
    if (!fieldProblem(r, at).empty()) r.fields.erase(r.fields.begin() + static_cast<ptrdiff_t>(at));
  r.prefix4 = pick(2) ? 32 : 1 + pick(32);
  r.prefix6 = pick(2) ? 128 : 1 + pick(128);
  return r;
}

/// The addresses of an element, or nothing, cut to their prefix.
std::vector<uint8_t> cut(const RecordDefinition& r, uint16_t element, std::vector<uint8_t> value) {
  const uint32_t bits = element == 8 || element == 12    ? r.prefix4
                        : element == 27 || element == 28 ? r.prefix6
                                                         : 8 * 64;
  for (uint32_t bit = bits; bit < 8 * value.size(); ++bit)
    value[bit / 8] &= static_cast<uint8_t>(~(0x80 >> bit % 8));
  return value;
}

/// What a record should say of one flow, made of its packets.
std::vector<uint8_t> expectedField(const RecordDefinition& r, const RecordField& f,
                                   const std::vector<Made>& packets) {
  const auto number = [&](uint64_t v) { return flow::number(v, f.len); };
  const auto sum = [&](auto what) {
    uint64_t v = 0;
    for (const Made& m : packets) v += m.*what;
    return number(v);
  };
  const auto extreme = [&](uint64_t Made::*what, bool most) {
    uint64_t v = packets[0].*what;
    for (const Made& m : packets) v = most ? std::max(v, m.*what) : std::min(v, m.*what);
    return number(v);
  };
  const bool first = f.element % 2 == 0;  // of the times
  const int64_t ns = first ? packets.front().timeNs : packets.back().timeNs;
  const auto is = [&](auto... element) { return ((f.element == element) || ...); };
  if (is(1, 85)) return sum(&Made::ipOctets);
  if (is(352, 353)) return sum(&Made::layer2Octets);
  if (is(2, 86)) return sum(&Made::packets);
  if (is(9, 13)) return number(r.prefix4);
  if (is(29, 30)) return number(r.prefix6);
  if (is(25, 26)) return extreme(&Made::packetOctets, is(26));
  if (is(52, 53)) return extreme(&Made::ttl, is(53));
  if (is(136)) return number(static_cast<uint64_t>(EndReason::idleTimeout));
  if (is(150, 151)) return number(static_cast<uint64_t>(ns / 1'000'000'000));
  if (is(152, 153)) return number(static_cast<uint64_t>(ns / 1'000'000));
  if (!is(6)) return cut(r, f.element, packets.front().value.at(f.element));
  uint64_t flags = 0;
  for (const Made& m : packets) flags |= m.tcpFlags;
  return number(flags);
}

/// A time in NTP's form as whole nanoseconds since 1970.
int64_t fromNtp(const std::vector<uint8_t>& o) {
  uint64_t v = 0;
  for (const uint8_t octet : o) v = v << 8 | octet;
  const auto fraction = static_cast<unsigned __int128>(v & 0xffffffff) * 1'000'000'000 >> 32;
  return static_cast<int64_t>((v >> 32) - 2208988800) * 1'000'000'000 +
         static_cast<int64_t>(fraction);
}

/// Whatever is missing or wrong, what is read lies in the packet, and so does what counts.
void damage(const RecordPlan& plan, const Octets& frame, Random& pick) {
  for (size_t n = 0; n < frame.size(); ++n) {
    Boxed box(frame, n, frame.size(), LinkLayer::ethernet);
    if (n > 0 && pick(2)) box.block[pick(n)] = static_cast<uint8_t>(pick(256));
    PacketParser parser(7, 1, plan.mpls());
    Parsed parsed;
    PlannedSample sample;
    if (!parser.parse(box.packet, parsed)) continue;
    const TunnelFacts inside = parser.lookInside(box.packet, parsed, true);
    plan.sample(box.packet, parsed, 3, {}, sample, inside);
    ASSERT_LE(inside.innerAt + parsed.ipOctets, frame.size());
  }
}

/// Random packets through parser, plan and cache: the record of every flow, field by field, against
/// a map of what the packets were made of. The built-in records, too.
TEST(RecordPlan, EachFieldIsWhatThePacketsSay) {
  RandomPackets next;
  std::vector<RecordDefinition> records;
  for (const auto& [name, record] : builtInRecords()) records.push_back(record);
  const RecordDefinition standard = builtInRecords().at(standardRecordName);
  while (records.size() < 24) records.push_back(randomRecord(next.pick));
  for (const RecordDefinition& r : records) {
    std::string text;
    for (const std::string& f : r.fields) text += f + ' ';
    for (const std::string& k : r.keys) text += "| " + k;
    SCOPED_TRACE(text);
    const auto tunnel = r == standard ? Tunnel::inner : tunnels[next.pick(2)];
    const RecordPlan plan(r, 260, tunnel);
    const RecordLayouts layouts = recordLayouts(r);
    RecordQueue queue(plan.recordLens());
    FlowCache cache(100000, {.activeMs = 600000, .inactiveMs = 66000}, 7, plan, queue);
    HostAddresses host;
    host.ipv4.insert({10, 0, 0, 1});
    host.ipv6.insert({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    cache.contextIs({.vrfId = 10,
                     .sampleRate = 9,
                     .interfaceNames = {{3, "eth3"}, {4, "eth4"}},
                     .host = host});
    cache.holdIs(false);
    PacketParser parser(7, 4, plan.mpls());
    using Flow = std::pair<size_t, std::vector<uint8_t>>;  // its layout and the octets of its key
    std::map<Flow, std::vector<Made>> flows;
    for (int i = 0; i < 2000; ++i) {
      Made m = next(tunnel);
      if (i % 100 == 0) damage(plan, m.frame, next.pick);
      Boxed box(m.frame);
      box.packet.timeNs = m.timeNs;
      box.packet.leaves = m.leaves;
      box.packet.segments = m.packets;
      Parsed parsed;
      PlannedSample sample;
      TunnelFacts inside;
      if (parser.parse(box.packet, parsed) && plan.tunnels())
        inside = parser.lookInside(box.packet, parsed, plan.inner());
      const bool isMpls = m.value.at(256) == Octets{0x88, 0x47};
      const PacketKinds kind = isMpls && !plan.mpls() ? otherFrames : m.kind;
      const auto layout =
          static_cast<size_t>(std::find_if(layouts.begin(), layouts.end(),
                                           [&](const RecordLayout& l) { return l.kinds & kind; }) -
                              layouts.begin());
      ASSERT_EQ(plan.sample(box.packet, parsed, m.interface, host, sample, inside), layout < 3);
      if (layout == 3) continue;
      if (kind != m.kind) {  // nobody looked for its addresses
        m.ipOctets = m.packetOctets = m.tcpFlags = 0;
        m.packets = 1;
        m.layer2Octets = m.frame.size();
        m.value[m.leaves ? 10 : 14] = Octets{}.u32(0);
        m.value[351] = Octets{}.fill(8);
      }
      Flow flow{layout, {}};
      for (const auto& [field, key] : layouts[layout].fields)
        if (key)
          for (const uint8_t o : cut(r, field->element, m.value.at(field->element)))
            flow.second.push_back(o);
      auto& packets = flows[flow];
      packets.push_back(m);
      cache.samplesIs(&sample, 1);
    }
    cache.nowIs(startMs + 600000);
    EXPECT_EQ(cache.size(), 0u) << "a flow that the wheel forgot";
    queue.flush();
    size_t found = 0;
    while (RecordBlock* block = queue.take()) {
      const RecordLayout& layout = layouts[block->place];
      for (uint32_t at = 0; at < block->used;) {
        std::map<uint16_t, std::vector<uint8_t>> fields;
        Flow flow{block->place, {}};
        for (const auto& [field, key] : layout.fields) {
          const auto* const o = reinterpret_cast<const uint8_t*>(block->octets.data()) + at;
          fields[field->element].assign(o, o + field->len);
          if (key) flow.second.insert(flow.second.end(), o, o + field->len);
          at += field->len;
        }
        const auto it = flows.find(flow);
        ASSERT_NE(it, flows.end());
        ++found;
        for (const auto& [field, key] : layout.fields) {
          if (field->element < 154 || field->element > 157) {
            ASSERT_EQ(fields[field->element], expectedField(r, *field, it->second)) << field->name;
            continue;
          }
          const Made& m = field->element % 2 == 0 ? it->second.front() : it->second.back();
          const int64_t unit = field->element < 156 ? 1000 : 1;
          ASSERT_EQ(fromNtp(fields[field->element]) / unit, m.timeNs / unit) << field->name;
        }
      }
      queue.release(block);
    }
    EXPECT_EQ(found, flows.size());
  }
}

/// Totals go on over the reports of a long flow, and begin anew after silence.
TEST(RecordPlan, TotalsGoOn) {
  const RecordPlan plan(
      {{"vlanId", "packetDeltaCount", "packetTotalCount", "flowStartSeconds"}, {"vlanId"}}, 256);
  RecordQueue queue(plan.recordLens());
  FlowCache cache(10, {.activeMs = 5000, .inactiveMs = 60000}, 7, plan, queue);
  cache.holdIs(false);
  const Octets frame = tagged(0x8100, 5, 0x0806, Octets{}.fill(46));
  for (const int second : {0, 1, 2, 5, 6, 30, 100}) {
    Boxed box(frame);
    box.packet.timeNs = second * 1'000'000'000LL;
    Parsed parsed;
    PlannedSample sample;
    PacketParser(7, 4).parse(box.packet, parsed);
    ASSERT_TRUE(plan.sample(box.packet, parsed, 1, {}, sample));
    cache.samplesIs(&sample, 1);
  }
  cache.nowIs(200'000);
  queue.flush();
  std::string seen;
  RecordBlock* const block = queue.take();
  ASSERT_TRUE(block);
  for (uint32_t at = 0; at < block->used; at += 22)
    for (const uint32_t last : {9, 17, 21})
      (seen += std::to_string(block->octets[at + last])) += last == 21 ? ' ' : ':';
  EXPECT_EQ(seen, "3:3:0 2:5:5 1:6:30 1:1:100 ");
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(cache.counters().created, 2u);
}

/// The table of fields is IANA's, as the tool's decoder has it, and every field is in the plan.
TEST(RecordPlan, FieldsAreThoseOfTheRegistry) {
  std::set<std::string> names;
  for (const RecordField& f : recordFields()) {
    const auto* const element = decoder::ianaElement(f.element);
    ASSERT_TRUE(element) << f.name;
    const bool reduced = std::string_view(f.name).ends_with("/1");
    EXPECT_EQ(std::string(element->name) + (reduced ? "/1" : ""), f.name);
    EXPECT_TRUE(decoder::typeAllows(element->type, f.len)) << f.name;
    const auto type = static_cast<unsigned>(element->type);  // of 1, 2, 4 and 8 octets
    EXPECT_TRUE(type < 1 || type > 4 || f.len == (reduced ? 1u : 1u << (type - 1))) << f.name;
    EXPECT_TRUE(names.insert(f.name).second);
  }
}

}  // namespace
}  // namespace agent::flow
