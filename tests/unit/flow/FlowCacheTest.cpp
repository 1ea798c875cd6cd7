#include "agent/flow/FlowCache.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <set>

#include "Ipfix/Ipfix.h"
#include "agent/device/RecordReduction.h"
#include "agent/flow/FlowMeter.h"
#include "agent/records/FlowTemplates.h"
#include "platform/sim/SimPlatform.h"
#include "tests/unit/agent/World.h"

namespace agent::flow {
namespace {

constexpr int64_t start = 1'700'000'000'000;

/// A record as a collector reads it.
struct Record {
  bool ipv6;
  uint8_t firstOctet;                   // of the source address
  std::map<uint16_t, uint64_t> number;  // by element; of an address its last eight octets
};

struct FlowCacheTest : testing::Test {
  void SetUp() override {
    const auto platform = simPlatform();  // the registry's trace
    Platform::install(platform.get());
    std::string problem;
    const auto registry = Ipfix::elementIdCollFactory();
    registry->doInitialize();
    addIanaElements(*registry);
    for (const auto& t : flowTemplates(recordLayouts(builtInRecords().at(standardRecordName)),
                                       firstFlowTemplate, *registry, problem))
      for (const auto& [position, entry] : t->ftTemplateEntry())
        templates[t->templateId()].emplace_back(entry.fieldId().value(), entry.fieldLen());
    Platform::install(nullptr);
  }
  /// Reads what the cache reports by the templates that collectors are told.
  template <class Visit>
  void eachRecord(Visit visit) {
    queue->flush();
    while (RecordBlock* block = queue->take()) {
      const char* at = block->octets.data();
      const char* const end = at + block->used;
      while (at < end) {
        Record r{block->place == 1, static_cast<uint8_t>(*at), {}};
        for (const auto& [element, len] : templates.at(plan.templateId(block->place))) {
          uint64_t& n = r.number[element];
          for (size_t i = 0; i < len; ++i) n = n << 8 | static_cast<uint8_t>(*at++);
        }
        visit(r);
      }
      EXPECT_EQ(at, end) << "a record is longer than its template";
      queue->release(block);
    }
  }
  void cacheIs(size_t maxFlows, FlowTimes times = {}) {
    queue.emplace(plan.recordLens());
    cache.emplace(maxFlows, times, 7, plan, *queue);
    cache->contextIs({.vrfId = 10, .interfaceNames = {}, .host = {}});
    cache->holdIs(false);
  }
  FlowCache::Sample sample(uint16_t port, int64_t ms, uint8_t flags = 0, uint32_t octets = 100,
                           bool ipv6 = false) {
    FlowCache::Sample s;
    s.timeMs = start + ms;
    s.parsed.ipv6 = ipv6;
    s.parsed.tcpFlags = flags;
    s.parsed.ipOctets = octets;
    s.parsed.flowLabel = ipv6 ? 0xabcde : 0;
    FlowClass rest{port, 80, 6, 0xb8, 100, 0x01020304};
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
  /// Gives the sample the nth of the addresses that met in one place, whatever the seed, when the
  /// hash took the seed after a product with a constant.
  static void choose(FlowCache::Sample& s, uint32_t n) {
    constexpr std::array<uint8_t, 8> factor = {21, 124, 74, 127, 185, 121, 55, 158};
    if (s.parsed.ipv6) {
      std::memcpy(s.parsed.key6.src.data(), factor.data(), 8);
      std::memcpy(s.parsed.key6.src.data() + 8, &n, 4);
    } else {
      std::memcpy(s.parsed.key4.src.data(), factor.data(), 4);
      std::memcpy(s.parsed.key4.dst.data(), factor.data() + 4, 4);
      s.parsed.key4.rest.srcPort = static_cast<uint16_t>(n);
      s.parsed.key4.rest.vlanId = static_cast<uint16_t>(n >> 16);
    }
  }
  /// "port:packets:reason:start+duration" of each record since the last look, in order.
  std::string seen() {
    std::string out;
    eachRecord([&](Record& r) {
      const auto first = static_cast<int64_t>(r.number[152]);
      const auto duration = static_cast<int64_t>(r.number[153]) - first;
      for (const uint16_t element : {7, 2, 136}) out += std::to_string(r.number[element]) + ':';
      out += std::to_string(first - start) + '+' + std::to_string(duration) + ' ';
    });
    return out;
  }

  const RecordPlan plan{builtInRecords().at(standardRecordName), firstFlowTemplate};
  std::map<uint16_t, std::vector<std::pair<uint16_t, size_t>>> templates;  // element, octets
  std::optional<RecordQueue> queue;
  std::optional<FlowCache> cache;
};

TEST_F(FlowCacheTest, EndsForEachReason) {
  cacheIs(10, {.activeMs = 60000, .inactiveMs = 15000});
  packet(sample(1, 0));
  cache->nowIs(start + 14900);
  EXPECT_EQ(seen(), "");
  cache->nowIs(start + 15200);
  EXPECT_EQ(seen(), "1:1:1:0+0 ") << "idle";

  for (int ms = 20000; ms <= 81000; ms += 1000) packet(sample(2, ms));
  EXPECT_EQ(seen(), "2:60:2:20000+59000 ") << "long: the packet at 60 s begins the next record";
  packet(sample(3, 81000, tcpFin));
  packet(sample(3, 81200));  // the last acknowledgement
  cache->nowIs(start + 82400);
  EXPECT_EQ(seen(), "3:2:3:81000+200 ") << "FIN";
  packet(sample(4, 82500, tcpRst));
  packet(sample(4, 82600, tcpSyn));
  EXPECT_EQ(seen(), "4:1:3:82500+0 ") << "RST, and a new connection from the same port";
  // The wheel was not moved on: the packet itself tells that the flow before it is over.
  packet(sample(5, 82600));
  packet(sample(5, 97600));
  EXPECT_EQ(seen(), "2:2:1:80000+1000 5:1:1:82600+0 ") << "silence ends a flow to the millisecond";
}

/// Nobody could be sent the record when the clock was set back: the flow goes on by the new clock,
/// as long as it was. (What can be sent is for the random lives.)
TEST_F(FlowCacheTest, HeldFlowsGoOnWhenTheClockIsSetBack) {
  constexpr int64_t hour = 3'600'000;
  cacheIs(10, {.activeMs = 60000, .inactiveMs = 2000});
  packet(sample(6, 0));
  packet(sample(6, 700));
  cache->holdIs(true);
  packet(sample(6, -hour));
  packet(sample(6, -hour + 100));
  cache->holdIs(false);
  cache->nowIs(start - hour + 4000);
  EXPECT_EQ(seen(), "6:4:1:-3600700+800 ");
}

/// Random lives against plain sums: whatever ends and in what order, and whether somebody takes the
/// records or not, nothing is counted twice or lost without being counted. No record ends before it
/// begins; when all are taken, none lasts longer than it may.
TEST_F(FlowCacheTest, SumsAreTheTruth) {
  Random pick;
  auto& random = pick.engine();
  // Protocol, class of service, interface, flow label, VRF.
  const std::map<uint16_t, uint64_t> fixed = {
      {4, 6}, {5, 0xb8}, {10, 0x01020304}, {31, 0xabcde}, {234, 10}};
  struct Run {
    size_t maxFlows;
    unsigned keys;
    int packets;
    bool taken;  // always, and at once
  };
  for (const Run& run : {Run{5, 300, 20000, true}, Run{40, 300, 20000, false},
                         Run{100000, 300, 20000, true}, Run{100000, 40000, 120000, false}}) {
    SCOPED_TRACE(std::to_string(run.maxFlows) + " flows, " + std::to_string(run.keys) + " keys");
    cacheIs(run.maxFlows, {.activeMs = 5000, .inactiveMs = 2000});
    using Key = std::tuple<uint64_t, bool, bool>;  // source port, IPv6, a chosen address
    std::map<Key, uint64_t> truth, reported;       // packets
    bool paused = false;
    const auto look = [&] {
      eachRecord([&](Record& r) {
        reported[{r.number[7], r.ipv6, r.firstOctet == 21}] += r.number[2];
        EXPECT_EQ(r.number[1], r.number[2] * (40 + r.number[11])) << "octets";
        const uint64_t duration = r.number[153] - r.number[152];
        EXPECT_LT(duration, run.taken ? 5000u : 1u << 31) << "ends before it begins, or too late";
        for (const auto& [element, value] : fixed)
          EXPECT_EQ(element == 31 && !r.ipv6 ? value : r.number[element], value) << element;
      });
    };
    int64_t now = 0;
    std::vector<FlowCache::Sample> batch;
    for (int i = 0; i < run.packets; ++i) {
      const auto oneOf = [&](unsigned n) { return random() % n == 0; };
      now += static_cast<int64_t>(random() % (run.keys < 1000 ? 20 : 3));
      if (oneOf(2000)) now += static_cast<int64_t>(random() % 200000);
      if (oneOf(2000)) now -= static_cast<int64_t>(random() % 200000);
      const int64_t late = oneOf(10) ? static_cast<int64_t>(random() % 900) : 0;
      const uint8_t flags = oneOf(50) ? tcpFin : oneOf(50) ? tcpSyn : 0;
      const auto port = static_cast<uint16_t>(random() % run.keys);
      auto& s = batch.emplace_back(sample(port, now - late, flags, 0, oneOf(3)));
      (s.parsed.ipv6 ? s.parsed.key6.rest : s.parsed.key4.rest).dstPort = port % 100;
      s.parsed.ipOctets = 40 + port % 100;
      const bool chosen = oneOf(4);
      if (chosen) choose(s, port);
      ++truth[{port, s.parsed.ipv6, chosen}];
      if (batch.size() < 64) continue;
      cache->samplesIs(batch.data(), batch.size());
      batch.clear();
      if (!run.taken && oneOf(20)) cache->holdIs(oneOf(2));
      if (!run.taken && oneOf(300)) paused = !paused;
      if (!paused) look();
      ASSERT_LE(cache->size(), run.maxFlows);
    }
    cache->samplesIs(batch.data(), batch.size());
    cache->holdIs(false);
    for (int more = 0; more < 8; ++more) {  // what fills the queue is taken in between
      look();
      cache->nowIs(start + (now += 3000));
    }
    EXPECT_EQ(cache->size(), 0u) << "flows expire";
    look();
    const auto& counters = cache->counters();
    uint64_t missing = 0;
    for (const auto& [key, packets] : truth) {
      ASSERT_LE(reported[key], packets);
      missing += packets - reported[key];
    }
    EXPECT_EQ(reported.size(), truth.size()) << "no record of a flow that never was";
    EXPECT_EQ(missing, counters.lostPackets);
    EXPECT_EQ(missing > 0, run.maxFlows < 100 && !run.taken) << "lost only for want of room";
    EXPECT_EQ(counters.packets, static_cast<uint64_t>(run.packets));
    const auto& expired = counters.expired;
    EXPECT_EQ(expired[5] > 0, run.maxFlows < 100);
    for (const int reason : {1, 2, 3, 4}) EXPECT_TRUE(run.maxFlows < 100 || expired[reason] > 0);
  }
}

/// Octets of this process' memory that are there.
size_t resident() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(FlowCacheTest, AMeterWithoutMemoryEndsByItself) {
  struct Meter : FlowMeter {
    explicit Meter(RecordPlanPtr p) : FlowMeter(std::move(p), 9, 1, {}) { start(); }
    ~Meter() override { stop(); }
    void run() override { throw std::bad_alloc(); }
  } const meter(std::make_shared<const RecordPlan>(plan));
  while (!meter.done()) std::this_thread::yield();
  EXPECT_EQ(meter.failure(), "std::bad_alloc");
}

/// Four hundred thousand flows of one packet for which there is room, and as many that take their
/// places, over 100 s: held, taken at once, and taken with addresses that somebody chose.
TEST_F(FlowCacheTest, AFloodTakesNoMoreThanItsBoundAndGivesItBack) {
  constexpr size_t maxFlows = 400000;
  constexpr size_t slack = 6 << 20;
  std::clock_t took[3];
  const auto takeAll = [&] {
    while (auto* block = queue->take()) queue->release(block);
  };
  for (const int mode : {0, 1, 2}) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    cacheIs(maxFlows);
    cache->holdIs(mode == 0);
    const size_t before = resident();
    const auto began = std::clock();
    for (uint32_t i = 0; i < 2 * maxFlows; ++i) {
      auto s = sample(1, i / 4, 0, 100, i % 2 == 0);
      std::memcpy(s.parsed.key4.src.data(), &i, 4);
      std::memcpy(s.parsed.key6.src.data(), &i, 4);
      if (mode == 2) choose(s, i);
      packet(s);
      if (mode > 0) takeAll();
    }
    took[mode] = std::clock() - began;
    EXPECT_LT(resident(), before + maxFlows * (96 + 45) + slack);
    FlowFeedBlock block{.octets = std::vector<char>(FlowFeed::blockFlows * flowRecordLen6)};
    size_t table = 0, place = 0, told = 0;
    for (bool more = true; more; told += block.used / plan.recordLens()[block.place])
      more = cache->feed(table, place, FlowFeed::blockFlows, block);
    EXPECT_EQ(told, cache->size());
    cache->holdIs(false);
    for (int64_t s = 0; cache->size() > 0 && s < 60; ++s) {
      takeAll();
      cache->nowIs(start + static_cast<int64_t>(maxFlows / 2) + s * 1000);
    }
    EXPECT_EQ(cache->size(), 0u);
    EXPECT_LT(resident(), before + slack + (1 << 20) * 5) << "a chunk of each family is kept";
  }
  EXPECT_LT(took[2], 5 * took[1]) << "packets chosen by their sender stall the capture";
}

/// Three hashes that a fifth of the keys share, around the end of the index, and 700 others.
struct BadHash : FixedFormat<FlowEntry4> {
  static uint32_t number(const FlowKey4& key) {
    uint32_t n = 0;
    std::memcpy(&n, key.src.data(), 4);
    return n;
  }
  static uint32_t hash(const FlowKey4& key) {
    const uint32_t n = number(key);
    return n % 5 == 0 ? 511 - n % 3 : n % 700;
  }
};

/// The table alone, with hashes that collide all the time, against a map. What is in the way of
/// another with the same hash is removed, and never are there more than the bound. A walk that goes
/// on piece by piece meanwhile finds each entry that stays.
TEST(FlowTableTest, IsAMapWhateverTheHash) {
  Random pick;
  auto& random = pick.engine();
  FlowTable<BadHash> table(3000, {});
  std::map<uint32_t, uint64_t> truth;  // key, packets
  std::map<uint32_t, int> equal;       // by hash
  size_t removed = 0;
  std::set<uint32_t> stay;  // keys that the walk has yet to come to
  size_t place = 0;
  size_t walks = 0;
  const auto forget = [&](FlowEntry4& e) {
    stay.erase(BadHash::number(e.key));
    --equal[table.hash(e.key)];
    ASSERT_EQ(e.packets, truth.at(BadHash::number(e.key)));
    truth.erase(BadHash::number(e.key));
    table.remove(e);
  };
  for (int i = 0; i < 100000; ++i) {
    const uint32_t n = random() % 4000;
    FlowKey4 key;
    std::memcpy(key.src.data(), &n, 4);
    const uint32_t hash = table.hash(key);
    auto* entry = table.find(key, hash);
    ASSERT_EQ(entry != nullptr, truth.contains(n));
    if (entry && random() % 2 == 0) {
      forget(*entry);
    } else if (!entry && !table.full()) {
      for (; auto* other = table.inTheWay(hash); ++removed) forget(*other);
      auto& fresh = table.add(key, hash, start);
      fresh.packets = truth[n] = random();
      table.dueAt(fresh, start);
      ASSERT_LE(++equal[hash], FlowIndex::equalMax);
    }
    ASSERT_EQ(table.size(), truth.size());
    place = table.visit(place, random() % 8,
                        [&](const FlowEntry4& e) { stay.erase(BadHash::number(e.key)); });
    if (place < table.capacity()) continue;
    ASSERT_TRUE(stay.empty()) << "the walk missed " << *stay.begin();
    for (const auto& [key, packets] : truth) stay.insert(key);
    place = 0;
    ++walks;
  }
  EXPECT_TRUE(removed > 0 && walks > 10);
  table.takeAll([&](const FlowEntry4& e) { EXPECT_EQ(truth.erase(BadHash::number(e.key)), 1u); });
  EXPECT_TRUE(truth.empty() && table.size() == 0);
}

TEST(FlowTableTest, EvictsWhereTheIndexCannotGrow) {
  const auto child = [] {
    FlowTable<FixedFormat<FlowEntry4>> table(1 << 20, {7});
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t most = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + (1 << 20);
    const rlimit limit{most, most};
    if (setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(1);
    for (uint32_t i = 0; i < 200000; ++i) {
      FlowKey4 key;
      std::memcpy(key.src.data(), &i, 4);
      while (auto* other = table.inTheWay(table.hash(key))) table.remove(*other);
      table.dueAt(table.add(key, table.hash(key), start), start);
    }
    std::_Exit(table.size() > 10000 && table.size() < 200000 ? 0 : 2);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace agent::flow
