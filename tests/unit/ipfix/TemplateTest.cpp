#include <algorithm>

#include "Tree.h"

namespace FlowTracking {
namespace {

using TemplateTest = TreeTest;

constexpr uint16_t dataSet = 2;
constexpr uint16_t optionsSet = 3;
using Counts = std::map<std::string, std::map<uint16_t, int>>;
const std::map<uint16_t, int> oneOfEach{{dataSet, 1}, {optionsSet, 1}};

TEST_F(TemplateTest, TemplatesToTheOctet) {
  ftStatus->templateStatusIs(templateOf(257, {8, 1001, 82}));
  makeReadyTree();
  exporter->dscpIs(DscpValue(46));
  exporter->collectorIpAndPortIs("c", dst4(1));
  auto all = seen();
  const auto it = std::find_if(all.begin(), all.end(), [](auto& s) { return s.setId() == 2; });
  ASSERT_NE(it, all.end());
  const std::vector<uint8_t> expected{
      0x00, 0x0a, 0x00, 0x38, 0x65, 0x53, 0xf1, 0x00, 0,    0,    0,    0,
      0,    0,    0,    7,                                                     // 1700000000, 0, 7
      0x00, 0x02, 0x00, 0x28,                                                  //
      0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04, 0x00, 0x0c, 0x00, 0x04,  // 256
      0x00, 0x01, 0x00, 0x08,                                                  //
      0x01, 0x01, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04,                          // 257
      0x83, 0xe9, 0x00, 0x02, 0x00, 0x01, 0x86, 0x97, 0x00, 0x52, 0xff, 0xff};
  EXPECT_EQ(it->datagram.octets, expected);
  EXPECT_EQ(it->datagram.tos, 184);
  EXPECT_EQ(it->datagram.src, IpGenAddr(source4));
  EXPECT_EQ(it->datagram.srcPort, exporter->rxPort4());
  EXPECT_EQ(it->to(), "10.0.0.1:4739");
  EXPECT_EQ(ftExporter()->getFtTemplateLength(), 36u);

  // Of the options templates the one that has everything; their order in the set is free.
  const std::vector<uint8_t> trackerTable{
      0xff, 3, 0,  8, 0, 1, 0,  149, 0, 4, 1,  44, 0xff, 0xff, 0,    36, 0, 2, 0, 37,   0,
      2,    1, 48, 0, 2, 1, 53, 0,   4, 1, 54, 0,  4,    0x83, 0xe9, 0,  2, 0, 1, 0x86, 0x97};
  const auto options = std::find_if(all.begin(), all.end(), [](auto& s) { return s.setId() == 3; });
  ASSERT_NE(options, all.end());
  const auto& o = options->datagram.octets;
  EXPECT_NE(std::search(o.begin(), o.end(), trackerTable.begin(), trackerTable.end()), o.end());
  EXPECT_EQ(o.size(), 16u + 4 + 14 + 14 + 14 + 42);
}

TEST_F(TemplateTest, EveryWholeSecondsOfTheInterval) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("c", dst4(1));
  seen();
  struct Row {
    uint32_t ms;
    double wait;
    int expected;
  };
  for (const Row& r : {Row{30000, 90.5, 3}, Row{1500, 10.5, 10}, Row{1000, 10.5, 10}}) {
    exporter->templateIntervalIs(r.ms + 500000);  // away, so that the next is a change
    exporter->templateIntervalIs(r.ms);
    EXPECT_GE(seenCounts()["10.0.0.1:4739"][dataSet], 1) << "a change sends at once";
    sim->advance(Seconds(r.wait));
    EXPECT_EQ(seenCounts()["10.0.0.1:4739"][dataSet], r.expected) << r.ms;
  }
  // Below a second the task is due again at once: one message per round of the scheduler.
  exporter->templateIntervalIs(999);
  seen();
  EXPECT_TRUE(ftExporter()->periodicTemplateTxTask()->scheduled());
  for (int round = 0; round < 5; ++round) {
    sim->runRound();
    EXPECT_EQ(seenCounts()["10.0.0.1:4739"][dataSet], 1);
  }
}

TEST_F(TemplateTest, WhatIsNewStartsWithTheTemplates) {
  makeReadyTree();
  sim->namespaceIs("ns-red", true);
  exporter->collectorIpAndPortIs("a", dst4(1));
  exporter->collectorIp6AndPortIs("b", dst6(1));
  const Counts four{{"10.0.0.1:4739", oneOfEach}};
  const Counts both{{"10.0.0.1:4739", oneOfEach}, {"[2001:db8::1]:4739", oneOfEach}};
  EXPECT_EQ(seenCounts(), both);
  exporter->srcIpAddrIs(IpAddr(0xc0000202));
  EXPECT_EQ(seenCounts(), four);
  exporter->vrfNameIs(VrfName("red"));
  EXPECT_EQ(seenCounts(), both);
  const uint16_t port = expInfo()->rxPort4();
  expInfo()->rxPort4Is(0);
  expInfo()->rxPort4Is(port);
  EXPECT_EQ(seenCounts(), four) << "ready again, same endpoint";
  exporter->srcIpAddrIs(IpAddr());
  exporter->srcIp6AddrIs(Ip6Addr());
  EXPECT_FALSE(ftExporter()->periodicTemplateTxTask()->scheduled());
  // In the other family it is the same collector.
  sim->advance(Seconds(5));
  exporter->collectorIp6AndPortIs("a", dst6(2));
  exporter->collectorIpAndPortDel("a");
  EXPECT_EQ(ftExporter()->exportTimeU32("a"), 1700000000u);
  exporter->collectorIp6AndPortDel("a");
  EXPECT_EQ(ftExporter()->exportTimeU32("a"), 0u);
}

TEST_F(TemplateTest, FollowsTheTrackersTemplates) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  seen();
  const auto dataOnly = Counts{{"10.0.0.1:4739", {{dataSet, 1}}}};

  ftStatus->templateStatus(256)->ftTemplateEntryIs(
      HwFlowTracking::FtTemplateEntry(7, ::Ipfix::RecordType(2)));
  sim->runDue();
  EXPECT_TRUE(seen().empty()) << "only the generation tells";
  ftStatus->templateStatus(256)->genIdIs(2);
  ftStatus->templateStatusIs(templateOf(300, {27, 28}));
  sim->runDue();
  auto all = seen();
  ASSERT_EQ(all.size(), 1u) << "two changes, one message";
  EXPECT_EQ(all[0].field16(22), 4) << "field count of 256";
  EXPECT_EQ(all[0].field16(40), 300);

  const auto replaced = templateOf(300, {27});  // the same id, another object
  ftStatus->templateStatusIs(replaced);
  sim->runDue();
  EXPECT_EQ(seenCounts(), dataOnly);
  replaced->genIdIs(9);
  sim->runDue();
  EXPECT_EQ(seenCounts(), dataOnly) << "the new object is the one that is watched";

  ftStatus->templateStatusDel(256);
  ftStatus->templateStatusDel(300);
  sim->advance(Seconds(30));
  EXPECT_EQ(ftExporter()->templatePktMsgLen(), 0);
  EXPECT_EQ(seenCounts(), (Counts{{"10.0.0.1:4739", {{optionsSet, 1}}}})) << "that goes on";
  templateSm->optTemplateConfig()->versionInc(1);
  sim->runDue();
  EXPECT_EQ(seenCounts(), (Counts{{"10.0.0.1:4739", {{optionsSet, 1}}}}));
}

TEST_F(TemplateTest, CountersAreClearedAndForgottenWithTheExporter) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  sim->advance(Seconds(60));
  auto entry = statsOf(dst4(1));
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->exportedMessageTotalCount(), 6u);
  EXPECT_EQ(entry->setEntry(Tarn::Ipfix::SetId(3)).exportedTemplateCount(), 12u);
  EXPECT_EQ(entry->lastTemplateSentTime(), sim->clock().now());
  EXPECT_EQ(entry->lastOptionsDataSentTime(), 0);
  req->clearCountersIs(1);
  entry = statsOf(dst4(1));
  EXPECT_EQ(entry->exportedMessageTotalCount(), 0u);
  EXPECT_EQ(entry->setEntry(Tarn::Ipfix::SetId(3)).exportedTemplateCount(), 0u);
  EXPECT_EQ(entry->lastClearedTime(), sim->clock().now());
  tracker->expConfigDel("exp1");
  sim->advance(Seconds(100));
  EXPECT_EQ(stats->size(), 0u);
}

TEST_F(TemplateTest, TemplatesThatNoDatagramHoldsAreRefusedForThatReason) {
  makeReadyTree();
  exporter->collectorIpAndPortIs("a", dst4(1));
  sim->traceLevelIs(TraceLevel::error);
  ftStatus->templateStatusIs(templateOf(300, std::vector<uint32_t>(16370, 8)));
  sim->runDue();
  EXPECT_EQ(sim->takeTrace(),
            std::vector<std::string>{"FtExporterSm::handleTemplateCreationTask for ft1 for exp1 "
                                     "Returning because the templates take 65500 octets and a "
                                     "datagram has room for 65487"});
  EXPECT_FALSE(ftExporter()->templateReady());
  ftStatus->templateStatusIs(templateOf(300, std::vector<uint32_t>(16366, 8)));
  sim->runDue();
  EXPECT_TRUE(sim->takeTrace().empty());
  EXPECT_EQ(ftExporter()->templatePktMsgLen(), 65504);
}

TEST_F(TemplateTest, WhatTheRegistryDoesNotKnowStopsTheProgram) {
  makeReadyTree();
  auto wrong = HwFlowTracking::templateStatusFactory(300);
  const auto sent = [&](uint32_t element, bool enterprise) {
    HwFlowTracking::FtTemplateEntry e(0, ::Ipfix::RecordType(element));
    e.enterpriseIeIs(enterprise);
    wrong->ftTemplateEntryIs(e);
    ftStatus->templateStatusIs(wrong);
    sim->runDue();
  };
  EXPECT_DEATH(sent(3, false), "elementIdCollHas\\( te->fieldId\\(\\) \\)");
  EXPECT_DEATH(sent(8, true), "te->enterpriseIe\\(\\) == elementIdColl\\(\\)");
}

}  // namespace
}  // namespace FlowTracking
