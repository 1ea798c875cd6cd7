#include <algorithm>
#include <numeric>

#include "Ipfix/OptionsDataManagerSm.h"
#include "Receiver.h"

namespace FlowTracking {
namespace {

// --- The whole, on simulated time ---

class OptionsData : public Tree {
 public:
  OptionsData() {
    tracker->activeIntervalIs(60000);
    ftStatus->activeIntervalIs(Seconds(60));
    ftStatus->inactiveTimeoutIs(Seconds(15));
  }
  void makeTree() {
    makeReadyTree();
    makeManager();
    sim->runDue();
  }
  void intfIs(const std::string& name, uint32_t index) {
    intfs->intfIdIs(index, IntfId(name));
    intfs->intfIndexIs(IntfId(name), index);
  }
  Ptr<OptionsDataExporterSm> dataExporter() {
    return manager->ftManagerSm("ft1")->exporterSm("exp1");
  }
  /// What has arrived since the last look: templates and records by set id, to each destination.
  std::map<std::string, std::map<uint16_t, uint64_t>> arrived() {
    Receiver::Count none;
    for (auto& [to, count] : receiver.counts()) count = none;
    for (const auto& s : seen()) {
      receiver.take(s);
      if (testing::Test::HasFatalFailure()) break;
    }
    std::map<std::string, std::map<uint16_t, uint64_t>> out;
    for (const auto& [to, count] : receiver.counts())
      for (const auto& bySet : {count.templatesBySet, count.recordsBySet})
        for (const auto& [set, n] : bySet)
          if (n > 0) out[to.substr(to.find('>') + 2)][set] += n;
    return out;
  }

  /// A ready tree whose interface table, some 180 messages, takes 90 ms to its collector.
  void makeSlowTree(uint64_t queuedBefore = 0) {
    for (uint32_t i = 1; i <= 5000; ++i) intfIs("eth" + std::to_string(i), i);
    exporter->collectorIpAndPortIs("a", dst4(1));
    exporter->ipfixMtuIs(400);
    sim->paceIs(2, queuedBefore);
    makeTree();
    dataExporter()->updateDataCoalesceTimeIs(0.01);
  }

  Receiver receiver;
};
class OptionsDataTest : public testing::Test, public OptionsData {};
using Arrived = std::map<std::string, std::map<uint16_t, uint64_t>>;

TEST_F(OptionsDataTest, ChangesLeaveWithinTheCoalescingDelayOrWhenAMessageIsFull) {
  exporter->collectorIpAndPortIs("a", dst4(1));
  makeTree();
  arrived();
  intfIs("eth0", 1);
  sim->advance(Seconds(0.1));
  intfIs("eth1", 2);
  vrfs->vrfIs(10, VrfName("red"));
  sim->advance(Seconds(0.8));
  EXPECT_TRUE(arrived().empty());
  sim->advance(Seconds(0.2));
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{intfTable, 2}, {vrfTable, 1}}}}));
  EXPECT_EQ(statsOf(dst4(1))->exportedMessageTotalCount(), 4u) << "one message for the three";

  intfs->intfIndexDel(IntfId("eth0"));
  sim->advance(Seconds(5));
  EXPECT_TRUE(arrived().empty()) << "a removal has no form on the wire";

  exporter->ipfixMtuIs(48 + 20 + 3 * 90);
  intfIs(std::string(85, 'a'), 11);
  intfIs(std::string(85, 'b'), 12);
  EXPECT_TRUE(arrived().empty());
  intfIs(std::string(85, 'c'), 13);  // 20 octets of headers and 270 of records: full
  sim->runDue();
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{intfTable, 3}}}}));

  ftStatus->activeIntervalIs(Seconds(30));
  ftStatus->inactiveTimeoutIs(Seconds(5));
  ftStatus->sampleRateIs(100);
  exporter->ipfixMtuIs(1500);
  sim->advance(Seconds(2.9));
  EXPECT_TRUE(arrived().empty());
  sim->advance(Seconds(0.2));
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{trackerTable, 1}}}}));
  ftStatus->templateStatus(256)->genIdIs(5);
  sim->advance(Seconds(1.1));
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{2, 1}, {flowKeyTable, 1}}}}));
}

TEST_F(OptionsDataTest, NothingPutsOffThePeriod) {
  exporter->collectorIpAndPortIs("a", dst4(1));
  makeTree();
  arrived();
  for (int i = 0; i < 4; ++i) {
    tracker->activeIntervalIs(i % 2 == 0 ? 61000 : 60000);
    sim->advance(Seconds(17));
  }
  EXPECT_EQ(arrived()["10.0.0.1:4739"][intfTable], 4u) << "intervals that are set again";
}

TEST_F(OptionsDataTest, WhatIsDroppedUnreadyDoesNotComeBackOlder) {
  const auto rename = [this](const char* from, const char* to) {
    intfs->intfIndexDel(IntfId(from));
    intfIs(to, 7);
  };
  makeSlowTree(255);  // what is left of the tables waits in the exporter
  dataExporter()->updateDataCoalesceTimeIs(0);
  sim->advance(Seconds(0.01));
  rename("eth7", "old7");
  sim->advance(Seconds(0.01));
  exporter->srcIpAddrIs({});
  arrived();  // with the endpoint all leaves that waited in it
  receiver = Receiver();
  rename("old7", "new7");
  sim->runRound();  // drops it, while the tables are on their way
  dataExporter()->updateDataCoalesceTimeIs(0.1);
  sim->advance(Seconds(0.01));
  exporter->srcIpAddrIs(source4);
  sim->advance(Seconds(5));
  arrived();
  EXPECT_EQ(receiver.pictures().begin()->second[intfTable][netOctets(7, 4)], "new7");
}

TEST_F(OptionsDataTest, UnderARateLimitLittleWaitsInTheEndpoint) {
  exporter->rateLimitIs({RateLimit::Unit::messages, 5});
  makeSlowTree();
  uint64_t waited = 0;
  for (uint32_t i = 5001; i <= 5500; ++i) {
    intfIs("eth" + std::to_string(i), i);
    sim->advance(Seconds(0.001));
    waited = std::max(waited, expInfo()->udpPam4()->counters().queued);
  }
  EXPECT_GT(waited, 0u);
  EXPECT_LE(waited, 5u) << "what leaves within a second";
  sim->advance(Seconds(50));
  EXPECT_GE(arrived()["10.0.0.1:4739"][intfTable], 5504u);
}

TEST_F(OptionsDataTest, ASetIdTooManyIsTracedOnceAndInTheTotals) {
  Tarn::Ipfix::CollectorStatisticsEntry entry(Tarn::Ipfix::CollectorStatisticsKey(
      "ft1", "exp1", Tarn::Ipfix::CollectorInfo::fromIpAndPort(dst4(1))));
  for (uint16_t id = 300; id < 320; ++id) entry.setEntryInc(Tarn::Ipfix::SetId(id), 1, 0);
  stats->statsIs(entry);
  exporter->collectorIpAndPortIs("a", dst4(1));
  sim->traceLevelIs(TraceLevel::event);
  makeTree();
  sim->advance(Seconds(61));
  EXPECT_EQ(statsOf(dst4(1))->exportedFlowRecordTotalCount(), 14u);
  const auto lines = sim->takeTrace();
  EXPECT_EQ(
      std::count_if(lines.begin(), lines.end(),
                    [](const auto& line) { return line.find("in the totals") < line.size(); }),
      1);
}

TEST_F(OptionsDataTest, ExportersOfOneTrackerShareTheMessagesTheyAgreeOn) {
  const auto other = HwFlowTracking::exporterConfigFactory("exp2");
  const auto smaller = HwFlowTracking::exporterConfigFactory("exp3");
  smaller->ipfixMtuIs(1000);
  uint8_t last = 1;
  for (const auto& e : {exporter, other, smaller}) {
    e->srcIpAddrIs(source4);
    e->collectorIpAndPortIs("a", dst4(last++));
    tracker->expConfigIs(e);
  }
  makeTree();
  const auto tables = [&](const char* name) {
    return manager->ftManagerSm("ft1")->exporterSm(name)->msgCache(0);
  };
  const auto before = tables("exp1");
  ASSERT_TRUE(before);
  EXPECT_EQ(tables("exp2"), before);
  EXPECT_NE(tables("exp3"), before);
  intfIs("eth0", 1);
  sim->advance(Seconds(61));
  EXPECT_NE(tables("exp1"), before);
  EXPECT_EQ(tables("exp2"), tables("exp1"));
  // Each collector's numbers are its own all the same.
  EXPECT_EQ(arrived().size(), 3u);
}

TEST_F(OptionsDataTest, ALongFlushYieldsAndGoesOn) {
  exporter->collectorIpAndPortIs("a", dst4(1));
  makeTree();
  arrived();
  sim->yieldAfterIs(10);
  for (uint32_t i = 1; i <= 1000; ++i) intfIs("eth" + std::to_string(i), i);
  sim->runRound();
  const auto first = arrived()["10.0.0.1:4739"][intfTable];
  EXPECT_GT(first, 0u);
  EXPECT_LT(first, 1000u);
  sim->runDue();
  EXPECT_EQ(first + arrived()["10.0.0.1:4739"][intfTable], 1000u);
}

/// A tree whose parts come in any order, with what is due in between run or not.
struct Order final : OptionsData {
  static constexpr int parts = 7;
  void add(int part) {
    if (part == 0) makeInfoSm();
    if (part == 1) makeTemplateSm();
    if (part == 2) makeManager();
    if (part == 3) hwConfig->ftConfigIs(tracker);
    if (part == 4) hwStatus->ftStatusIs(ftStatus);
    if (part == 5) {
      exporter->srcIp6AddrIs(source6);
      exporter->srcIpAddrIs(source4);
    }
    if (part == 6) {
      exporter->collectorIpAndPortIs("a", dst4(1));
      exporter->collectorIp6AndPortIs("b", dst6(1));
    }
  }
  void run(const std::vector<int>& order, bool tasks) {
    const std::map<uint16_t, uint64_t> templates{{2, 1}, {3, 4}};
    const std::map<uint16_t, uint64_t> all{
        {2, 1}, {3, 4}, {vrfTable, 1}, {intfTable, 4}, {flowKeyTable, 1}, {trackerTable, 1}};
    ftStatus->templateStatusIs(templateOf(256, {8, 12, 1}));
    tracker->expConfigIs(exporter);
    for (const int part : order) {
      add(part);
      if (tasks) sim->runDue();
    }
    sim->runDue();
    EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", all}, {"[2001:db8::1]:4739", all}}));
    sim->advance(Seconds(29));
    EXPECT_TRUE(arrived().empty());
    sim->advance(Seconds(2));
    EXPECT_EQ(arrived(),
              (Arrived{{"10.0.0.1:4739", templates}, {"[2001:db8::1]:4739", templates}}));
  }
};

// Whatever comes last, and whoever hears first: each collector gets everything exactly once.
TEST(OptionsDataOrder, OfEventsDoesNotChangeWhatIsSent) {
  std::vector<int> order(Order::parts);
  std::iota(order.begin(), order.end(), 0);
  int orders = 0;
  do {
    SCOPED_TRACE(testing::PrintToString(order) + (orders % 2 == 0 ? " with tasks" : ""));
    Order().run(order, orders % 2 == 0);
    ++orders;
  } while (!testing::Test::HasFailure() && std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(orders, 5040);
}

}  // namespace
}  // namespace FlowTracking
