#include "Ipfix/CollectorStats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "Ipfix/MessageBuilder.h"
#include "platform/sim/SimPlatform.h"
#include "tests/support/Random.h"

/// What needs no tree: the statistics' records and their table, the registry of elements, messages.
using namespace platform;
using namespace FlowTracking;
using namespace Tarn::Ipfix;

namespace {

const CollectorInfo place4(IpAddr(0x0a000001), 4739);
const CollectorInfo place6(*Ip6Addr::fromString("2001:db8::1"), 4739);

TEST(CollectorStatsTest, KeysCompareByOctets) {
  const CollectorStatisticsKey a("t1", "e1", place4);
  CollectorStatisticsKey b("a much longer tracker name", "e1", place4);
  EXPECT_LT(b, a);
  b.trackerIs("t1");  // shorter again: no octet of the longer name may stay behind
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
  EXPECT_EQ(std::hash<CollectorStatisticsKey>{}(a), std::hash<CollectorStatisticsKey>{}(b));
  b.trackerStorageIs(StringIndex(2), 'x');
  EXPECT_EQ(b.stringValue(), "t1x e1 10.0.0.1:4739");
  b.trackerStorageDel(StringIndex(2));
  EXPECT_EQ(a, b);
  EXPECT_LT(place4, CollectorInfo(IpAddr(0x0a000001), 4740));
  EXPECT_LT(CollectorInfo(IpAddr(0x0a000002), 1), place6);
  const std::string longest(128, 'n');
  EXPECT_EQ(CollectorStatisticsKey(longest, longest, place6).exporter(), longest);
  EXPECT_DEATH(b.trackerIs(longest + 'n'), "sz <= StringIndex::max\\(\\) \\+ 1");
}

// Each set id has a slot of its own until it is removed, and 20 have one.
TEST(CollectorStatsTest, SlotsAgreeWithAMap) {
  support::eachSeed(20, [](unsigned seed) {
    std::mt19937 random(seed);
    CollectorStatisticsEntry entry(CollectorStatisticsKey("t", "e", place4));
    std::map<uint16_t, CollectorSetStatisticsEntry> model;
    std::map<uint16_t, uint8_t> slots;
    for (int step = 0; step < 500; ++step) {
      const auto id = static_cast<uint16_t>(256 + random() % 25);
      const bool fits = model.contains(id) || model.size() < 20;
      CollectorSetStatisticsEntry fresh(id, random() % 100, random() % 100);
      ASSERT_EQ(entry.hasRoomFor(SetId(id)), fits);
      switch (random() % 3) {
        case 0:
          ASSERT_EQ(entry.setEntryInc(SetId(id), 3, 1), fits);
          if (!fits) break;
          model.try_emplace(id, id);
          model[id].exportedFlowRecordCountInc(3);
          model[id].exportedTemplateCountInc(1);
          break;
        case 1:
          if (fits) {
            entry.setEntryIs(model[id] = fresh);
          } else {
            ASSERT_THROW(entry.setEntryIs(fresh), std::range_error);
          }
          break;
        default:
          ASSERT_EQ(entry.setEntryDel(SetId(id)), model[id]);
          model.erase(id);
          slots.erase(id);
      }
      for (const auto& [set, counts] : model) {
        const uint8_t slot = entry.indexForSetId(SetId(set));
        ASSERT_LT(slot, 20);
        ASSERT_EQ(slots.try_emplace(set, slot).first->second, slot) << "it stays where it is";
        ASSERT_EQ(entry.setEntry(SetId(set)), counts);
      }
      if (!model.contains(id)) {
        ASSERT_EQ(entry.setEntry(SetId(id)), CollectorSetStatisticsEntry());
      }
    }
  });
}

TEST(CollectorStatsTest, FormsReadBackAndValuesOutsideAreRefused) {
  for (const std::string& text : {place6.strep(), place6.stringValue()})
    EXPECT_EQ(CollectorInfo::fromString(text), place6) << text;
  const CollectorSetStatisticsEntry set(300, 1ULL << 40, 3);
  EXPECT_EQ(CollectorSetStatisticsEntry::fromString(set.strep()), set);
  EXPECT_EQ(SetId::fromString(SetId(256).strep()), SetId(256));
  EXPECT_EQ(SetIndex::fromString(SetIndex(19).strep()), SetIndex(19));
  EXPECT_EQ(StringIndex::fromString("127"), StringIndex(127));
  EXPECT_THROW(StringIndex(127) + StringIndex(127), std::range_error);
  EXPECT_FALSE(SetIndex::fromString("20"));
  for (const char* bad : {"255", "-1", "", "4", "Value('Tarn::Ipfix::SetIndex', ** {'value': 0})"})
    EXPECT_FALSE(SetId::fromString(bad)) << bad;
  for (const uint16_t bad : {0, 4, 255}) EXPECT_DEATH(SetId{bad}, "optionsTemplateSetId");
  const ::Ipfix::ElementId odd(true, 1042, 2, "it's, {odd}': \\ \n");
  EXPECT_EQ(::Ipfix::ElementId::fromString(odd.stringValue()), odd);
  EXPECT_FALSE(::Ipfix::ElementId::fromString("Value('Ipfix::ElementId', ** {'id': 8})"));
  const ::Ipfix::IpfixMsgSeqNo last(4294967295u);
  EXPECT_EQ(::Ipfix::IpfixMsgSeqNo::fromString(last.stringValue()), last);
  EXPECT_FALSE(::Ipfix::IpfixMsgSeqNo::fromString("4294967296"));

  const CollectorStatisticsEntry entry(CollectorStatisticsKey("t", "e", place4));
  const auto octets = std::as_bytes(std::span(&entry, 1));
  EXPECT_EQ(CollectorStatisticsEntry::fromOctets(octets), entry);
  EXPECT_FALSE(CollectorStatisticsEntry::fromOctets(octets.first(sizeof entry - 1)));
  // The tracker's length and the slots in use.
  for (const auto& [at, impossible] : {std::pair(20, 129), std::pair(356, 21)}) {
    std::vector<std::byte> bad(octets.begin(), octets.end());
    bad[static_cast<size_t>(at)] = static_cast<std::byte>(impossible);
    EXPECT_FALSE(CollectorStatisticsEntry::fromOctets(bad)) << at;
  }
}

class WithPlatform : public testing::Test {
 protected:
  WithPlatform() { Platform::install(sim.get()); }
  ~WithPlatform() override { Platform::install(nullptr); }
  const std::unique_ptr<SimPlatform> sim = simPlatform();
};

TEST_F(WithPlatform, TheTableSurvivesBeingFull) {
  sim->traceLevelIs(0);
  auto stats = collectorStatisticsFactory(
      simTableFactory(CollectorStatistics::keyLen, CollectorStatistics::valueLen, 2));
  const auto keyOf = [](uint16_t port) {
    return CollectorStatisticsKey("t", "e", CollectorInfo(IpAddr(1), port));
  };
  for (const uint16_t port : {1, 2, 3, 4}) stats->statsIs(CollectorStatisticsEntry(keyOf(port)));
  const auto said = sim->takeTrace();
  ASSERT_EQ(said.size(), 1u) << "once, not for every entry";
  EXPECT_NE(said[0].find("full at 2 entries"), std::string::npos) << said[0];
  EXPECT_TRUE(stats->stats(keyOf(2)) && !stats->stats(keyOf(3)));
  stats->statsDel(keyOf(1));
  stats->statsIs(CollectorStatisticsEntry(keyOf(3)));
  EXPECT_TRUE(stats->stats(keyOf(3)));
}

TEST_F(WithPlatform, MisuseStopsTheProgram) {
  auto builder = messageBuilderFactory(100, 1);
  EXPECT_DEATH(builder->addSetRecordStr(256, "x"), "builder->pkt\\(\\)");
  EXPECT_DEATH(builder->finalizeMsg(), "pkt\\(\\)");
  builder->startMsg();
  EXPECT_DEATH(builder->startMsg(), "!pkt\\(\\).*MessageBuilder");
  EXPECT_DEATH(builder->finalizeMsg(), "offset\\(\\) > IpfixConst::messageHeaderLen\\(\\)");
  EXPECT_DEATH(builder->addSetRecordStr(256, std::string(65535, 'x')), "UINT16_MAX");
  const auto held = dataRecordFactory("x");
  const Ptr<const DataRecord> queued = held;  // whoever counts its octets
  EXPECT_DEATH(held->append(reinterpret_cast<const unsigned char*>("y"), 1), "refs\\(\\) == 1");
}

// Records of any length, empty ones and those at the limit among them, into messages of any size:
// each leaves once, in order, one by one as in bulk; what fits no message is named by its place.
TEST_F(WithPlatform, PacksEachRecordOnceWhateverItsLength) {
  support::eachSeed(2000, [](unsigned seed) {
    std::mt19937 random(seed);
    const auto max = static_cast<uint16_t>(seed % 50 == 0 ? 65535 : 40 + random() % 400);
    const uint32_t room = max - 20u;
    const bool bulk = random() % 2 == 0;
    std::vector<Ptr<const DataRecord>> records(1 + random() % 60);
    std::string whole;
    bool misfit = false;
    for (auto& r : records) {
      const uint32_t lens[] = {1, 1 + static_cast<uint32_t>(random() % room), room};
      const uint32_t misfits[] = {0, room + 1, 65532, 65534};
      const bool fits = random() % 100 > 0;
      if (bulk && random() % 20 == 0) continue;  // a place whose record was removed
      r = dataRecordFactory(std::string(fits ? lens[random() % 3] : misfits[random() % 4],
                                        static_cast<char>(random())));
      misfit |= r->dataLen() == 0 || r->dataLen() > room;
      if (!misfit) whole += r->data();
    }
    const auto builder = messageBuilderFactory(max, 1);
    std::string sent;
    auto it = records.begin();
    for (bool more = true; more;) {
      builder->startMsg();
      uint64_t added = 0;
      if (bulk) {
        it = builder->addSetRecords(256, it, records.end(), added);
      } else {
        for (; it != records.end() && builder->addSetRecord(256, **it) > 0; ++it) ++added;
      }
      ASSERT_EQ(builder->recordCount(), added);
      more = added > 0;
      if (!more) break;
      const auto message = builder->finalizeMsg();
      const auto octets = message->pktHolder_p()->octets();
      ASSERT_LE(octets.size(), max);
      ASSERT_EQ(size_t{octets[18]} << 8 | octets[19], octets.size() - 16);
      sent.append(octets.begin() + 20, octets.end());
    }
    ASSERT_EQ(it == records.end(), !misfit);
    ASSERT_EQ(sent, whole);
  });
}

TEST(DataRecord, AppendsBeyondItsBlock) {
  std::string all = "ab";
  const auto record = dataRecordFactory(all);
  for (unsigned n = 0; n < 40; ++n) {
    const std::string more(n, static_cast<char>('a' + n % 26));
    record->append(reinterpret_cast<const unsigned char*>(more.data()), n);
    all += more;
    if (n % 5 == 0) {  // its own octets, that lie in the block which is left
      record->append(reinterpret_cast<const unsigned char*>(record->data().data()), n);
      all += all.substr(0, n);
    }
    ASSERT_EQ(record->data(), all);
  }
  EXPECT_EQ(dataRecordFactory()->dataLen(), 0u);
}

}  // namespace
