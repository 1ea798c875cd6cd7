#include "agent/flow/RecordPlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "RandomPackets.h"
#include "agent/flow/FlowCache.h"
#include "agent/flow/RecordView.h"
#include "cli/wire/decoder/Element.h"

namespace agent::flow {
namespace {
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

/// What a record should say of one flow, made of its packets; `all`: with those of its earlier
/// reports. Of no packets it says 0.
std::vector<uint8_t> expectedField(const RecordDefinition& r, const RecordField& f,
                                   const std::vector<Made>& packets, const std::vector<Made>& all,
                                   EndReason reason) {
  const uint16_t element = f.element & 0x7fff;
  const auto number = [&](uint64_t v) { return flow::number(v, f.len); };
  const auto is = [&](auto... one) { return ((element == one) || ...); };
  const auto sum = [&](auto what) {
    uint64_t v = 0;
    for (const Made& m : is(85, 86, 353) ? all : packets) v += m.*what;
    return number(v);
  };
  const auto extreme = [&](uint64_t Made::*what, bool most) {
    uint64_t v = packets.empty() ? 0 : packets[0].*what;
    for (const Made& m : packets) v = most ? std::max(v, m.*what) : std::min(v, m.*what);
    return number(v);
  };
  const bool first = element % 2 == 0;  // of the times
  if (packets.empty() && element >= 150 && element <= 157) return number(0);
  const int64_t ns = packets.empty() ? 0 : first ? packets.front().timeNs : packets.back().timeNs;
  if (is(1, 85)) return sum(&Made::ipOctets);
  if (is(352, 353)) return sum(&Made::layer2Octets);
  if (is(2, 86)) return sum(&Made::packets);
  if (is(9, 13)) return number(r.prefix4);
  if (is(29, 30)) return number(r.prefix6);
  if (is(25, 26)) return extreme(&Made::packetOctets, is(26));
  if (is(52, 53)) return extreme(&Made::ttl, is(53));
  if (is(136)) return number(static_cast<uint64_t>(reason));
  if (is(150, 151)) return number(static_cast<uint64_t>(ns / 1'000'000'000));
  if (is(152, 153)) return number(static_cast<uint64_t>(ns / 1'000'000));
  if (!is(6)) return all.empty() ? number(0) : cut(r, element, all.front().value.at(element));
  uint64_t flags = 0;
  for (const Made& m : packets) flags |= m.tcpFlags;
  return number(flags);
}

/// The record of two-way flows of any record, which gets the keys that it lacks.
RecordDefinition twoWay(RecordDefinition r) {
  for (const uint16_t element : {7, 8, 11, 12, 27, 28})
    for (const RecordField& f : recordFields())
      if (f.element == element)
        for (auto* names : {&r.fields, &r.keys})
          if (std::find(names->begin(), names->end(), f.name) == names->end())
            names->insert(names->begin(), f.name);
  r.prefix4 = 32;
  r.prefix6 = 128;
  return biflowRecord(r);
}

/// One conversation: its packets, a report behind the other, in the order of what they should say.
struct Talk {
  std::vector<std::vector<Made>> reports;
  size_t told = 0;
  bool turned() const { return reports[0][0].back != reports[0][0].answer; }
  bool sure() const { return reports[0][0].value.at(4)[0] != 6 || (reports[0][0].tcpFlags & 2); }
  /// Of one direction: in the report at `told`, or up to it.
  std::vector<Made> packets(bool reverse, bool earlier) const {
    std::vector<Made> some;
    for (size_t i = earlier ? 0 : told; i <= told; ++i)
      for (const Made& m : reports[i])
        if ((m.back != turned()) == reverse) some.push_back(m);
    return some;
  }
};

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

/// A look finds both directions in a record.
void seenWhole(const RecordView& view, const char* record, const std::vector<Made>& packets) {
  uint64_t octets = 0;
  for (const Made& m : packets) octets += m.ipOctets;
  EXPECT_TRUE(view.octets.element != 1 || view.allOctets(record) == octets);
  const int64_t startMs = packets[0].timeNs / 1'000'000;
  EXPECT_TRUE(view.start.element < 152 || view.startMs(record) == startMs);
}

/// Random packets through parser, plan and cache: the record of every flow, field by field, against
/// a map of what the packets were made of. The built-in records, too; and of each record the one of
/// two-way flows, which are reported several times.
TEST(RecordPlan, EachFieldIsWhatThePacketsSay) {
  RandomPackets next;
  std::vector<RecordDefinition> records;
  for (const auto& [name, record] : builtInRecords()) records.push_back(record);
  const RecordDefinition standard = builtInRecords().at(standardRecordName);
  while (records.size() < 24) records.push_back(randomRecord(next.pick));
  for (size_t n = 0; n < 24; ++n) records.push_back(twoWay(records[n]));
  for (const RecordDefinition& r : records) {
    std::string text;
    for (const std::string& f : r.fields) text += f + ' ';
    for (const std::string& k : r.keys) text += "| " + k;
    SCOPED_TRACE(text);
    const auto tunnel = r == standard ? Tunnel::inner : tunnels[next.pick(2)];
    const RecordPlan plan(r, 260, tunnel);
    const RecordLayouts layouts = recordLayouts(r);
    RecordQueue queue(plan.recordLens());
    next.both = r.biflow;
    const int64_t activeMs = r.biflow ? 1000 : 600000;
    const EndReason reason = r.biflow ? EndReason::activeTimeout : EndReason::idleTimeout;
    FlowCache cache(100000, {.activeMs = activeMs, .inactiveMs = 66000}, 7, plan, queue);
    HostAddresses host;
    host.ipv4.insert({10, 0, 0, 1});
    host.ipv6.insert({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    cache.contextIs(
        {.vrfId = 10, .sampleRate = 9, .interfaceNames = {{3, "eth3"}, {4, "eth4"}}, .host = host});
    cache.holdIs(false);
    PacketParser parser(7, 4, plan.mpls());
    using Flow = std::pair<size_t, std::vector<uint8_t>>;  // its layout and the octets of its key
    std::map<Flow, Talk> flows;
    size_t reports = 0;
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
      auto& packets = flows[flow].reports;
      if (packets.empty() ||
          m.timeNs / 1'000'000 >= packets.back()[0].timeNs / 1'000'000 + activeMs) {
        packets.emplace_back();
        ++reports;
      }
      packets.back().push_back(m);
      cache.samplesIs(&sample, 1);
    }
    cache.nowIs(startMs + 600000);
    EXPECT_EQ(cache.size(), 0u) << "a flow that the wheel forgot";
    queue.flush();
    size_t found = 0;
    while (RecordBlock* block = queue.take()) {
      const RecordLayout& layout = layouts[block->place];
      const RecordView view(layout);
      for (uint32_t at = 0; at < block->used;) {
        std::map<uint16_t, std::vector<uint8_t>> fields;
        Flow flow{block->place, {}};
        const char* const from = block->octets.data() + at;
        for (const auto& [field, key] : layout.fields) {
          const auto* const o = reinterpret_cast<const uint8_t*>(block->octets.data()) + at;
          fields[field->element].assign(o, o + field->len);
          at += field->len;
        }
        auto it = flows.end();
        for (int turn = 0; turn < (r.biflow ? 2 : 1) && it == flows.end(); ++turn) {
          if (turn > 0)
            for (const auto& [source, destination] : {std::pair{7, 11}, {8, 12}, {27, 28}})
              std::swap(fields[source], fields[destination]);
          flow.second.clear();
          for (const auto& [field, key] : layout.fields)
            if (key)
              flow.second.insert(flow.second.end(), fields[field->element].begin(),
                                 fields[field->element].end());
          it = flows.find(flow);
          ASSERT_TRUE(it == flows.end() || turn == it->second.turned());
        }
        ASSERT_NE(it, flows.end());
        Talk& talk = it->second;
        ASSERT_LT(talk.told, talk.reports.size());
        ++found;
        seenWhole(view, from, talk.reports[talk.told]);
        const std::vector<Made> sides[] = {talk.packets(false, false), talk.packets(true, false),
                                           talk.packets(false, true), talk.packets(true, true)};
        for (const auto& [field, key] : layout.fields) {
          const auto& is = fields[field->element];
          const bool reverse = field->reverse();
          const uint16_t element = field->element & 0x7fff;
          const auto& all = sides[2 + reverse];
          const auto* packets = &sides[reverse];
          if (element == 239) {
            ASSERT_EQ(is, std::vector<uint8_t>{talk.sure()});
          } else if (element == 15 || element == 34 || element == 62 || element == 234 || key) {
            ASSERT_EQ(is, expectedField(r, *field, all, talk.reports[0], reason)) << field->name;
          } else {
            if (packets->empty() && element >= 150 && element <= 157 && !reverse)
              packets = &sides[1];
            if (packets->empty() || element < 154 || element > 157) {
              ASSERT_EQ(is, expectedField(r, *field, *packets, all, reason)) << field->name;
              continue;
            }
            const Made& m = element % 2 == 0 ? packets->front() : packets->back();
            const int64_t unit = element < 156 ? 1000 : 1;
            ASSERT_EQ(fromNtp(is) / unit, m.timeNs / unit) << field->name;
          }
        }
        ++talk.told;
      }
      queue.release(block);
    }
    EXPECT_EQ(found, reports);
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
