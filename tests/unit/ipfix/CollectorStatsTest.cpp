#include "Ipfix/CollectorStats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/sim/SimPlatform.h"

using namespace platform;
using namespace Tarn::Ipfix;
using V4 = IpAndPort;
using TarnInfo = Tarn::Ipfix::CollectorInfo;

namespace {

const V4 v4{IpAddr(0x0a000001), 4739};
const Ip6AndPort v6{*Ip6Addr::fromString("2001:db8::1"), 4739};

TEST(CollectorStatsTest, KeysOrderPrintAndCompareByOctets) {
  const CollectorStatisticsKey a("t1", "e1", TarnInfo::fromIpAndPort(v4));
  CollectorStatisticsKey b("a much longer tracker name", "e1", TarnInfo::fromIpAndPort(v4));
  EXPECT_EQ(a.stringValue(), "t1 e1 10.0.0.1:4739");
  EXPECT_LT(b, a);
  b.trackerIs("t1");  // shorter again: no octet of the longer name may stay behind
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
  EXPECT_EQ(std::hash<CollectorStatisticsKey>{}(a), std::hash<CollectorStatisticsKey>{}(b));

  const auto info6 = TarnInfo::fromIp6AndPort(v6);
  EXPECT_EQ(info6.stringValue(), "[2001:db8::1]:4739");
  EXPECT_EQ(info6.addr(), IpGenAddr(v6.addr));
  EXPECT_LT(TarnInfo::fromIpAndPort(v4), info6);
  EXPECT_LT(TarnInfo(IpAddr(0x0a000001), 4739), TarnInfo(IpAddr(0x0a000001), 4740));
  EXPECT_LT(TarnInfo(IpAddr(0x0a000001), 9), TarnInfo(IpAddr(0x0a000002), 1));

  b.trackerStorageIs(StringIndex(2), 'x');
  EXPECT_EQ(b.tracker(), "t1x");
  b.trackerStorageDel(StringIndex(2));
  EXPECT_EQ(a, b);
  const std::string longest(128, 'n');
  EXPECT_EQ(CollectorStatisticsKey(longest, longest, info6).exporter(), longest);
  EXPECT_DEATH(b.trackerIs(std::string(129, 'n')), "sz <= StringIndex::max\\(\\) \\+ 1");
  EXPECT_DEATH(CollectorStatisticsKey::fromStrep(a.strep()),
               "No String constructor for CollectorStatisticsKey - has collection");
}

TEST(CollectorStatsTest, SetSlotsAreFoundFreedAndReused) {
  CollectorStatisticsEntry entry(CollectorStatisticsKey("t", "e", TarnInfo::fromIpAndPort(v4)));
  EXPECT_EQ(entry.setEntry(SetId(256)), CollectorSetStatisticsEntry());
  const auto put = [&](uint16_t id, uint64_t n) {
    entry.setEntryIs(CollectorSetStatisticsEntry(id, n));
  };
  put(256, 1);
  put(257, 2);
  put(258, 3);
  EXPECT_EQ(entry.setEntryCount(), 3u);
  EXPECT_EQ(entry.indexForSetId(SetId(258)), 2);
  EXPECT_EQ(entry.setEntryDel(SetId(257)).exportedFlowRecordCount(), 2u);
  EXPECT_EQ(entry.setEntryDel(SetId(257)).setId(), 0);
  EXPECT_EQ(entry.nextIdx(), 1);
  put(300, 4);
  EXPECT_EQ(entry.indexForSetId(SetId(300)), 1);
  EXPECT_EQ(entry.setEntryCount(), 3u);
  for (uint16_t id = 400; entry.setEntryCount() < 20; ++id) put(id, id);
  EXPECT_FALSE(entry.setEntryInc(SetId(999), 1, 0));
  EXPECT_TRUE(entry.hasRoomFor(SetId(300)));
  EXPECT_THROW(put(999, 1), std::range_error);
  entry.setEntryDel(SetId(256));
  EXPECT_TRUE(entry.hasRoomFor(SetId(999)));
  put(999, 1);
  EXPECT_EQ(entry.indexForSetId(SetId(999)), 0);

  EXPECT_THROW(SetIndex(20), std::range_error);
  EXPECT_THROW(StringIndex(128), std::range_error);
  for (const int bad : {0, 1, 4, 255})
    EXPECT_DEATH(SetId(static_cast<uint16_t>(bad)), "optionsTemplateSetId.*templateSetId");
}

TEST(CollectorStatsTest, ReadableFormsAndClearing) {
  CollectorStatisticsEntry entry(CollectorStatisticsKey("t1", "e1", TarnInfo::fromIp6AndPort(v6)));
  entry.exportedMessageTotalCountInc(3);
  entry.exportedOctetTotalCountInc(300);
  entry.lastSentTimeIs(990);
  entry.lastTemplateSentTimeIs(989.6);
  entry.setEntryIs(CollectorSetStatisticsEntry(2, 0, 6));
  EXPECT_EQ(entry.readable(1000),
            "[t1 e1 [2001:db8::1]:4739] msgs: 3, flows: 0, octets: 300, last message: 10, "
            "template: 10, data: inf, options data: inf, cleared: inf, "
            "set 2: (flows: 0, templates: 6)");
  entry.clear(1000);
  EXPECT_EQ(entry.exportedMessageTotalCount(), 0u);
  EXPECT_EQ(entry.setEntry(SetId(2)).exportedTemplateCount(), 0u);
  EXPECT_EQ(entry.lastClearedTime(), 1000);
}

TEST(CollectorStatsTest, FormsReadBackAndValuesOutsideAreRefused) {
  const auto info = TarnInfo::fromIp6AndPort(v6);
  for (const std::string& text : {info.strep(), info.stringValue()})
    EXPECT_EQ(TarnInfo::fromString(text), info) << text;
  const CollectorSetStatisticsEntry set(300, 1ULL << 40, 3);
  EXPECT_EQ(CollectorSetStatisticsEntry::fromString(set.strep()), set);
  EXPECT_EQ(SetId::fromString(SetId(256).strep()), SetId(256));
  EXPECT_EQ(SetIndex::fromString(SetIndex(19).strep()), SetIndex(19));
  EXPECT_EQ(StringIndex::fromString("127"), StringIndex(127));
  EXPECT_THROW(StringIndex(127) + StringIndex(127), std::range_error);
  EXPECT_EQ(StringIndex(127) + StringIndex(0), StringIndex(127));
  for (const char* bad : {"255", "-1", "", "4", "Value('Tarn::Ipfix::SetIndex', ** {'value': 0})"})
    EXPECT_FALSE(SetId::fromString(bad)) << bad;
  EXPECT_FALSE(SetIndex::fromString("20"));
  EXPECT_FALSE(TarnInfo::fromString(set.strep()));
}

TEST(CollectorStatsTest, ForeignOctetsAreRefused) {
  const CollectorStatisticsEntry entry(
      CollectorStatisticsKey("t", "e", TarnInfo::fromIpAndPort(v4)));
  std::vector<std::byte> octets(sizeof entry);
  std::memcpy(octets.data(), &entry, sizeof entry);
  EXPECT_EQ(CollectorStatisticsEntry::fromOctets(octets), entry);
  octets[20] = std::byte{129};  // the tracker's length
  EXPECT_FALSE(CollectorStatisticsEntry::fromOctets(octets));
  octets[20] = std::byte{1};
  octets[356] = std::byte{21};  // slots in use
  EXPECT_FALSE(CollectorStatisticsEntry::fromOctets(octets));
  octets.pop_back();
  EXPECT_FALSE(CollectorStatisticsEntry::fromOctets(octets));
}

TEST(CollectorStatsTest, TableKeepsEntriesAndSurvivesBeingFull) {
  const auto sim = simPlatform();
  Platform::install(sim.get());
  sim->traceLevelIs(0);
  {
    auto stats = collectorStatisticsFactory(
        simTableFactory(CollectorStatistics::keyLen, CollectorStatistics::valueLen, 2));
    const auto entryFor = [](uint16_t port) {
      CollectorStatisticsEntry e(CollectorStatisticsKey("t", "e", TarnInfo(IpAddr(1), port)));
      e.exportedMessageTotalCountIs(port);
      return e;
    };
    for (const uint16_t port : {1, 2, 3, 4}) stats->statsIs(entryFor(port));
    EXPECT_EQ(stats->size(), 2u);
    const auto said = sim->takeTrace();
    ASSERT_EQ(said.size(), 1u) << "once, not for every entry";
    EXPECT_NE(said[0].find("full at 2 entries"), std::string::npos) << said[0];
    EXPECT_EQ(stats->stats(entryFor(2).key()), entryFor(2));
    EXPECT_FALSE(stats->stats(entryFor(3).key()));
    stats->statsDel(entryFor(1).key());
    stats->statsIs(entryFor(3));
    EXPECT_EQ(stats->stats(entryFor(3).key()), entryFor(3));
    stats->statsDelAll();
    EXPECT_EQ(stats->size(), 0u);
  }
  Platform::install(nullptr);
}

}  // namespace
