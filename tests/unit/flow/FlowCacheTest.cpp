#include "agent/flow/FlowCache.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>

#include "Ipfix/Ipfix.h"
#include "agent/FlowTemplates.h"
#include "platform/sim/SimPlatform.h"

namespace agent::flow {
namespace {

constexpr int64_t start = 1'700'000'000'000;

/// A record as a collector reads it: octets by element id.
using Record = std::map<uint16_t, std::string>;
uint64_t number(const Record& r, uint16_t id) {
  uint64_t v = 0;
  for (const char c : r.at(id)) v = v << 8 | static_cast<uint8_t>(c);
  return v;
}

/// Reads what the cache reports by the templates that collectors are told.
class Reader {
 public:
  Reader() {
    const auto platform = simPlatform();  // the registry's trace
    Platform::install(platform.get());
    std::string problem;
    const auto registry = Ipfix::elementIdCollFactory();
    registry->doInitialize();
    for (const auto& t : flowTemplates(*registry, problem)) {
      auto& fields = fields_[t->templateId()];
      for (const auto& [position, entry] : t->ftTemplateEntry())
        fields.emplace_back(static_cast<uint16_t>(entry.fieldId().value()), entry.fieldLen());
    }
    Platform::install(nullptr);
  }
  std::vector<Record> records(RecordQueue& queue) {
    queue.flush();
    std::vector<Record> out;
    while (RecordBlock* block = queue.take()) {
      const auto& fields = fields_.at(block->ipv6 ? ipv6FlowTemplate : ipv4FlowTemplate);
      for (size_t at = 0; at < block->used;) {
        Record& r = out.emplace_back();
        for (const auto& [id, len] : fields) {
          r[id] = std::string(block->octets.data() + at, len);
          at += len;
        }
        EXPECT_LE(at, block->used) << "a record is longer than its template";
      }
      queue.release(block);
    }
    return out;
  }

 private:
  std::map<uint16_t, std::vector<std::pair<uint16_t, uint16_t>>> fields_;
};

struct FlowCacheTest : testing::Test {
  void cacheIs(size_t maxFlows, FlowTimes times = {}) {
    queue.emplace();
    cache.emplace(maxFlows, times, 7, *queue);
    cache->holdIs(false);
  }
  FlowCache::Sample sample(uint16_t port, int64_t ms, uint8_t flags = 0, uint32_t octets = 100,
                           bool ipv6 = false) {
    FlowCache::Sample s;
    s.timeMs = start + ms;
    s.parsed.ipv6 = ipv6;
    s.parsed.tcpFlags = flags;
    s.parsed.ipOctets = octets;
    FlowClass rest{.srcPort = port, .dstPort = 80, .protocol = 6, .interface = 3};
    if (ipv6) {
      s.parsed.key6 = {{0xfd, 1}, {0xfd, 2}, rest};
    } else {
      s.parsed.key4 = {{10, 0, 0, 1}, {10, 0, 0, 2}, rest};
    }
    return s;
  }
  void packet(const FlowCache::Sample& s) {
    auto copy = s;
    cache->samplesIs(&copy, 1);
  }
  /// "port:packets:reason" of each record since the last look, in order.
  std::string seen() {
    std::string out;
    for (const Record& r : reader.records(*queue))
      out += std::to_string(number(r, 7)) + ':' + std::to_string(number(r, 2)) + ':' +
             std::to_string(number(r, 136)) + ' ';
    return out;
  }

  Reader reader;
  std::optional<RecordQueue> queue;
  std::optional<FlowCache> cache;
};

TEST_F(FlowCacheTest, EveryFieldStandsWhereItsTemplateSaysIt) {
  cacheIs(10);
  cache->vrfIdIs(10);
  auto s = sample(0x1234, 5, tcpSyn | 0x10, 1500, true);
  s.parsed.flowLabel = 0xabcde;
  s.parsed.key6.rest = {0x1234, 0x5678, 6, 0xb8, 100, 0x01020304};
  packet(s);
  s.timeMs += 7;
  packet(s);
  cache->endAll(EndReason::forcedEnd);
  const auto records = reader.records(*queue);
  ASSERT_EQ(records.size(), 1u);
  const Record& r = records[0];
  EXPECT_EQ(r.at(27), std::string("\xfd\x01", 2) + std::string(14, '\0'));
  EXPECT_EQ(r.at(28), std::string("\xfd\x02", 2) + std::string(14, '\0'));
  const std::map<uint16_t, uint64_t> expected = {
      {7, 0x1234},        {11, 0x5678},     {4, 6},
      {5, 0xb8},          {58, 100},        {10, 0x01020304},
      {234, 10},          {14, 0},          {2, 2},
      {1, 3000},          {152, start + 5}, {153, start + 12},
      {6, tcpSyn | 0x10}, {136, 4},         {31, 0xabcde}};
  for (const auto& [id, value] : expected) EXPECT_EQ(number(r, id), value) << "element " << id;
  EXPECT_EQ(r.size(), expected.size() + 2);
}

TEST_F(FlowCacheTest, EndsForEachReason) {
  cacheIs(10, {.activeMs = 60000, .inactiveMs = 15000});
  packet(sample(1, 0));
  cache->nowIs(start + 14900);
  EXPECT_EQ(seen(), "");
  cache->nowIs(start + 15200);
  EXPECT_EQ(seen(), "1:1:1 ") << "idle";

  for (int ms = 20000; ms <= 81000; ms += 1000) packet(sample(2, ms));
  EXPECT_EQ(seen(), "2:60:2 ") << "long: the packet at 60 s begins the next record";
  packet(sample(3, 81000, tcpFin));
  packet(sample(3, 81200));  // the last acknowledgement
  cache->nowIs(start + 82400);
  EXPECT_EQ(seen(), "3:2:3 ") << "FIN";
  packet(sample(4, 82500, tcpRst));
  packet(sample(4, 82600, tcpSyn));
  EXPECT_EQ(seen(), "4:1:3 ") << "RST, and a new connection from the same port";
  // The wheel was not moved on: the packet itself tells that the flow before it is over.
  packet(sample(5, 82600));
  packet(sample(5, 97600));
  EXPECT_EQ(seen(), "2:2:1 5:1:1 ") << "silence ends a flow to the millisecond";
}

TEST_F(FlowCacheTest, WhatCannotBeReportedStaysAndGoesOn) {
  cacheIs(4, {.activeMs = 60000, .inactiveMs = 1000});
  cache->holdIs(true);
  for (uint16_t port = 1; port <= 4; ++port) packet(sample(port, port));
  cache->nowIs(start + 30000);
  packet(sample(1, 30001));
  EXPECT_EQ(seen(), "");
  EXPECT_EQ(cache->size(), 4u);
  packet(sample(9, 30002));  // needs the place of one that is over
  EXPECT_EQ(cache->counters().lost[static_cast<size_t>(Loss::noCollector)], 1u);
  EXPECT_EQ(cache->counters().lostPackets, 1u);
  cache->holdIs(false);
  cache->nowIs(start + 40000);
  EXPECT_EQ(cache->size(), 0u);
  uint64_t packets = 0;
  for (const Record& r : reader.records(*queue)) packets += number(r, 2);
  EXPECT_EQ(packets, 5u) << "six came, one was lost";

  // The queue is full of records that nobody takes.
  cacheIs(100000, {.activeMs = 60000, .inactiveMs = 1000});
  const size_t room = RecordQueue::blocks * (RecordBlock::size / flowRecordLen4);
  size_t sent = 0;
  for (int64_t round = 0; round < 100; ++round)
    for (uint16_t port = 0; port < 1000; ++port, ++sent) packet(sample(port, round * 2000));
  ASSERT_GT(sent, 2 * room);
  // One flow per port at most: they went on instead of being lost.
  EXPECT_LE(cache->size(), 1000u);
  EXPECT_EQ(cache->counters().lost[static_cast<size_t>(Loss::queueFull)], 0u);
  packets = 0;
  for (const Record& r : reader.records(*queue)) packets += number(r, 2);
  cache->endAll(EndReason::forcedEnd);
  for (const Record& r : reader.records(*queue)) packets += number(r, 2);
  EXPECT_EQ(packets, sent);
}

/// Random lives against plain sums: whatever ends and in what order, nothing is counted twice or
/// lost, no record lasts longer than it may, none spans a silence.
TEST_F(FlowCacheTest, SumsAreTheTruth) {
  for (const size_t maxFlows : {5u, 40u, 100000u}) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed) + ", " + std::to_string(maxFlows) + " flows");
    std::mt19937 random(seed);
    const FlowTimes times{.activeMs = 5000, .inactiveMs = 2000};
    cacheIs(maxFlows, times);
    struct Sum {
      uint64_t packets = 0;
      uint64_t octets = 0;
      bool operator==(const Sum&) const = default;
    };
    std::map<std::pair<bool, uint64_t>, Sum> truth;  // by family and port
    std::map<std::pair<bool, uint64_t>, Sum> reported;
    const auto look = [&] {
      for (const Record& r : reader.records(*queue)) {
        Sum& sum = reported[{r.contains(27), number(r, 7)}];
        sum.packets += number(r, 2);
        sum.octets += number(r, 1);
        EXPECT_LT(number(r, 153) - number(r, 152), 5000u);
      }
    };
    int64_t now = 0;
    std::vector<FlowCache::Sample> batch;
    for (int i = 0; i < 20000; ++i) {
      now += static_cast<int64_t>(random() % 20);
      if (random() % 2000 == 0) now += static_cast<int64_t>(random() % 200000);
      const uint8_t flags = random() % 50 == 0 ? tcpFin : random() % 50 == 0 ? tcpSyn : 0;
      const auto port = static_cast<uint16_t>(random() % 300);
      const bool ipv6 = random() % 3 == 0;
      batch.push_back(sample(port, now, flags, 40 + random() % 1400, ipv6));
      Sum& sum = truth[{ipv6, port}];
      ++sum.packets;
      sum.octets += batch.back().parsed.ipOctets;
      if (batch.size() == 64) {
        cache->samplesIs(batch.data(), batch.size());
        batch.clear();
        look();
        ASSERT_LE(cache->size(), maxFlows);
      }
    }
    cache->samplesIs(batch.data(), batch.size());
    cache->nowIs(start + now + 3000);
    EXPECT_EQ(cache->size(), 0u);
    look();
    EXPECT_EQ(reported, truth);
    EXPECT_EQ(cache->counters().lost, (std::array<uint64_t, losses>{}));
    const auto& expired = cache->counters().expired;
    EXPECT_EQ(expired[5] > 0, maxFlows < 600);
    if (maxFlows > 600) {
      EXPECT_TRUE(expired[1] > 0 && expired[2] > 0 && expired[3] > 0);
    }
  }
}

/// The table alone, with hashes that collide all the time, against a map.
TEST(FlowTableTest, IsAMap) {
  std::mt19937 random(11);
  FlowTable<FlowEntry4> table(3000);
  std::map<uint32_t, uint32_t> truth;  // key, packets
  table.advance(start, [](FlowEntry4&) {});
  const auto keyAndHash = [](uint32_t n) {
    FlowKey4 key;
    std::memcpy(key.src.data(), &n, 4);
    return std::pair(key, n % 5 == 0 ? 4095 - n % 3 : n % 700);  // around the end of the index, too
  };
  for (int i = 0; i < 100000; ++i) {
    const uint32_t n = random() % 4000;
    const auto [key, hash] = keyAndHash(n);
    auto* entry = table.find(key, hash);
    ASSERT_EQ(entry != nullptr, truth.contains(n));
    if (entry && random() % 2 == 0) {
      ASSERT_EQ(entry->packets, truth[n]);
      table.remove(*entry);
      truth.erase(n);
    } else if (!entry && !table.full()) {
      auto& fresh = table.add(key, hash, start);
      fresh.packets = truth[n] = random();
      table.dueAt(fresh, start);
    }
    ASSERT_EQ(table.size(), truth.size());
  }
  size_t visited = 0;
  table.takeAll([&](const FlowEntry4& e) {
    uint32_t n = 0;
    std::memcpy(&n, e.key.src.data(), 4);
    EXPECT_EQ(e.packets, truth.at(n));
    ++visited;
  });
  EXPECT_EQ(visited, truth.size());
  EXPECT_EQ(table.size(), 0u);
}

}  // namespace
}  // namespace agent::flow
