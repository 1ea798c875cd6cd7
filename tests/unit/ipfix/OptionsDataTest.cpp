#include <algorithm>

#include "Receiver.h"

/// What the random life of OptionsDataModelTest leaves open: when a change is sent, how much at
/// once, and what a collector gets that is new.
namespace FlowTracking {
namespace {

using Arrived = std::map<std::string, std::map<uint16_t, uint64_t>>;

class OptionsDataTest : public TreeTest {
 protected:
  OptionsDataTest() {
    tracker->activeIntervalIs(60000);
    ftStatus->activeIntervalIs(Seconds(60));
    ftStatus->inactiveTimeoutIs(Seconds(15));
  }
  /// A ready tree with one collector, which knows the tables.
  void makeTree() {
    exporter->collectorIpAndPortIs("a", dst4(1));
    makeReadyTree();
    makeManager();
    sim->runDue();
    arrived();
  }
  void intfsAre(uint32_t first, uint32_t last) {
    for (uint32_t i = first; i <= last; ++i) {
      intfs->intfIdIs(i, IntfId("eth" + std::to_string(i)));
      intfs->intfIndexIs(IntfId("eth" + std::to_string(i)), i);
    }
  }
  /// What has arrived since the last look: templates and records by set id, to each destination.
  Arrived arrived() {
    Receiver::Count none;
    for (auto& [to, count] : receiver.counts()) count = none;
    for (const auto& s : seen()) receiver.take(s);
    Arrived out;
    for (const auto& [to, count] : receiver.counts())
      for (const auto& bySet : {count.templatesBySet, count.recordsBySet})
        for (const auto& [set, n] : bySet)
          if (n > 0) out[to.substr(to.find('>') + 2)][set] += n;
    return out;
  }
  /// Nothing arrives within `seconds`; soon after, these do at the one collector.
  void after(double seconds, const std::map<uint16_t, uint64_t>& expected) {
    sim->advance(Seconds(seconds));
    EXPECT_EQ(arrived(), Arrived());
    sim->advance(Seconds(0.2));
    EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", expected}}));
  }

  Receiver receiver;
};

TEST_F(OptionsDataTest, ChangesLeaveWithinTheCoalescingDelayOrWhenAMessageIsFull) {
  makeTree();
  intfsAre(1, 1);
  sim->advance(Seconds(0.1));
  intfsAre(2, 2);
  vrfs->vrfIs(10, VrfName("red"));
  after(0.8, {{intfTable, 2}, {vrfTable, 1}});
  EXPECT_EQ(statsOf(dst4(1))->exportedMessageTotalCount(), 4u) << "one message for the three";
  intfs->intfIndexDel(IntfId("eth1"));
  sim->advance(Seconds(5));
  EXPECT_EQ(arrived(), Arrived()) << "a removal has no form on the wire";

  exporter->ipfixMtuIs(48 + 20 + 30 * 10);
  intfsAre(10, 38);
  sim->runDue();
  EXPECT_EQ(arrived(), Arrived());
  intfsAre(39, 39);  // 20 octets of headers and 300 of records: full
  sim->runDue();
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{intfTable, 30}}}}));
  sim->yieldAfterIs(10);
  intfsAre(1001, 2000);
  sim->runRound();
  const auto first = arrived()["10.0.0.1:4739"][intfTable];
  EXPECT_TRUE(first > 0 && first < 1000) << "a long flush yields";
  sim->runDue();
  EXPECT_EQ(first + arrived()["10.0.0.1:4739"][intfTable], 1000u);

  ftStatus->activeIntervalIs(Seconds(30));
  ftStatus->inactiveTimeoutIs(Seconds(5));
  ftStatus->sampleRateIs(100);
  after(2.9, {{trackerTable, 1}});
  hwStatus->sampleRateIs(9);
  sim->advance(Seconds(5));
  EXPECT_EQ(arrived(), Arrived()) << "the tracker's own rate hides that of all trackers";
  ftStatus->templateStatus(256)->genIdIs(5);
  sim->advance(Seconds(1.1));
  EXPECT_EQ(arrived(), (Arrived{{"10.0.0.1:4739", {{2, 1}, {flowKeyTable, 1}}}}));
}

TEST_F(OptionsDataTest, UnderARateLimitLittleWaitsInTheEndpoint) {
  intfsAre(1, 5000);
  exporter->rateLimitIs({RateLimit::Unit::messages, 5});
  exporter->ipfixMtuIs(400);
  sim->paceIs(2);  // the tables, some 180 messages, take 90 ms
  makeTree();
  manager->ftManagerSm("ft1")->exporterSm("exp1")->updateDataCoalesceTimeIs(0.01);
  uint64_t waited = 0;
  for (uint32_t i = 5001; i <= 5500; ++i) {
    intfsAre(i, i);
    sim->advance(Seconds(0.001));
    waited = std::max(waited, expInfo()->udpPam4()->counters().queued);
  }
  EXPECT_TRUE(waited > 0 && waited <= 5) << "what leaves within a second";
  sim->advance(Seconds(50));
  EXPECT_GE(arrived()["10.0.0.1:4739"][intfTable], 5500u);
}

TEST_F(OptionsDataTest, ASetIdTooManyIsTracedOnceAndInTheTotals) {
  Tarn::Ipfix::CollectorStatisticsEntry entry(Tarn::Ipfix::CollectorStatisticsKey(
      "ft1", "exp1", Tarn::Ipfix::CollectorInfo::fromIpAndPort(dst4(1))));
  for (uint16_t id = 300; id < 320; ++id) entry.setEntryInc(Tarn::Ipfix::SetId(id), 1, 0);
  stats->statsIs(entry);
  sim->traceLevelIs(TraceLevel::event);
  makeTree();
  sim->advance(Seconds(61));
  EXPECT_EQ(statsOf(dst4(1))->exportedFlowRecordTotalCount(), 14u);
  EXPECT_EQ(std::ranges::count_if(
                sim->takeTrace(),
                [](const std::string& line) { return line.find("in the totals") != line.npos; }),
            1);
}

}  // namespace
}  // namespace FlowTracking
