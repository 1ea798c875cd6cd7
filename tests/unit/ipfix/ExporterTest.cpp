#include <cerrno>
#include <cmath>
#include <tuple>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "Tree.h"

namespace FlowTracking {
namespace {

constexpr uint16_t dataSet = 2;
constexpr uint16_t optionsSet = 3;
using Counts = std::map<std::string, std::map<uint16_t, int>>;
const Counts four{{"10.0.0.1:4739", {{dataSet, 1}, {optionsSet, 1}}}};
const Counts dataOnly{{"10.0.0.1:4739", {{dataSet, 1}}}};
const Counts optionsOnly{{"10.0.0.1:4739", {{optionsSet, 1}}}};

class TemplateTest : public TreeTest {
 protected:
  TemplateTest() {
    makeReadyTree();
    exporter->collectorIpAndPortIs("a", dst4(1));
    seen();
  }
  /// How many messages of each set id went to each destination since the last look.
  Counts seenCounts() {
    Counts out;
    for (const auto& s : seen()) ++out[s.to()][s.setId()];
    return out;
  }
  Ptr<FtExporterSm> ftExporter() const {
    return templateSm->ftTemplateSm("ft1")->ftExporterSm("exp1");
  }
};

TEST_F(TemplateTest, TemplatesToTheOctet) {
  exporter->dscpIs(DscpValue(46));
  ftStatus->templateStatusIs(templateOf(257, {8, 1001, 82}));
  sim->runDue();
  const auto all = seen();
  ASSERT_EQ(all.size(), 1u);
  const std::vector<uint8_t> expected{
      0x00, 0x0a, 0x00, 0x38, 0x65, 0x53, 0xf1, 0x00, 0,    0,    0,    0,
      0,    0,    0,    7,                                                     // 1700000000, 0, 7
      0x00, 0x02, 0x00, 0x28,                                                  //
      0x01, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04, 0x00, 0x0c, 0x00, 0x04,  // 256
      0x00, 0x01, 0x00, 0x08,                                                  //
      0x01, 0x01, 0x00, 0x03, 0x00, 0x08, 0x00, 0x04,                          // 257
      0x83, 0xe9, 0x00, 0x02, 0x00, 0x01, 0x86, 0x97, 0x00, 0x52, 0xff, 0xff};
  EXPECT_EQ(all[0].datagram.octets, expected);
  EXPECT_EQ(all[0].datagram.tos, 184);
  EXPECT_EQ(all[0].datagram.src, IpGenAddr(source4));
  EXPECT_EQ(all[0].datagram.srcPort, exporter->rxPort4());
}

TEST_F(TemplateTest, EveryWholeSecondsOfTheInterval) {
  for (const auto& [ms, seconds, expected] :
       {std::tuple(30000, 90.5, 3), std::tuple(1500, 10.5, 10), std::tuple(1000, 10.5, 10)}) {
    exporter->templateIntervalIs(static_cast<uint32_t>(ms + 1));
    seen();
    exporter->templateIntervalIs(static_cast<uint32_t>(ms));
    EXPECT_EQ(seenCounts(), four) << "a change sends at once";
    sim->advance(Seconds(seconds));
    EXPECT_EQ(seenCounts()["10.0.0.1:4739"][dataSet], expected) << ms;
  }
  // Below a second the task is due again at once: one message per round of the scheduler.
  exporter->templateIntervalIs(999);
  for (int round = 0; round < 5; ++round) {
    EXPECT_EQ(seenCounts(), four);
    sim->runRound();
  }
}

TEST_F(TemplateTest, FollowsTheTrackersTemplates) {
  const auto sent = [this] {
    sim->runDue();
    return seenCounts();
  };
  ftStatus->templateStatus(256)->ftTemplateEntryIs(
      HwFlowTracking::FtTemplateEntry(7, ::Ipfix::RecordType(2)));
  EXPECT_EQ(sent(), Counts()) << "only the generation tells";
  ftStatus->templateStatus(256)->genIdIs(2);
  ftStatus->templateStatusIs(templateOf(300, {27, 28}));
  EXPECT_EQ(sent(), dataOnly) << "two changes, one message";
  EXPECT_EQ(ftExporter()->templatePktMsgLen(), 16 + 4 + 4 + 4 * 4 + 4 + 2 * 4);
  const auto replaced = templateOf(300, {27});  // the same id, another object
  ftStatus->templateStatusIs(replaced);
  EXPECT_EQ(sent(), dataOnly);
  replaced->genIdIs(9);
  EXPECT_EQ(sent(), dataOnly) << "the new object is the one that is watched";
  for (const TemplateId id : {256, 300}) ftStatus->templateStatusDel(id);
  sim->advance(Seconds(30));
  EXPECT_EQ(sent(), optionsOnly) << "that goes on";
  templateSm->optTemplateConfig()->versionInc(1);
  EXPECT_EQ(sent(), optionsOnly);
}

TEST_F(TemplateTest, CountersAreReadableAndCleared) {
  sim->advance(Seconds(60));
  // Three times a message of 36 octets with one template, and one of 104 with four.
  const auto says = [this](const char* total, const char* cleared, const char* two,
                           const char* three) {
    EXPECT_EQ(statsOf(dst4(1))->readable(sim->clock().now() + 10),
              std::string("[ft1 exp1 10.0.0.1:4739] ") + total +
                  ", last message: 10, template: 10, data: inf, options data: inf, cleared: " +
                  cleared + ", set 2: (flows: 0, templates: " + two +
                  "), set 3: (flows: 0, templates: " + three + ")");
  };
  says("msgs: 6, flows: 0, octets: 420", "inf", "3", "12");
  req->clearCountersIs(1);
  says("msgs: 0, flows: 0, octets: 0", "10", "0", "0");
}

TEST_F(TemplateTest, TemplatesThatNoDatagramHoldsAreRefusedForThatReason) {
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

// What the random hosts of RestlessTest do not see of exporters and of the local collector: what is
// told, in which order, and when a refused endpoint is tried again.
class InfoTest : public TreeTest {
 protected:
  InfoTest() {
    tracker->expConfigIs(exporter);
    hwConfig->ftConfigIs(tracker);
    makeInfoSm();
  }
};

TEST_F(InfoTest, SequenceNumbersStayWithTheCollectorsName) {
  exporter->collectorIpAndPortIs("c", dst4(1));
  const auto number = [this] { return expInfo()->collInfo("c")->ipfixMsgSeqNo().value(); };
  expInfo()->collInfo("c")->ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo(4294967295u));
  exporter->collectorIpAndPortIs("c", dst4(2));
  exporter->collectorIp6AndPortIs("c", dst6(1));
  exporter->collectorIpAndPortDel("c");
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(3);
  EXPECT_EQ(number(), 2u);
  exporter->collectorIp6AndPortDel("c");
  EXPECT_FALSE(expInfo()->collInfo("c"));
  exporter->collectorIpAndPortIs("c", dst4(1));
  EXPECT_EQ(number(), 0u);
}

TEST_F(InfoTest, TellsInOrderAndOnlyWhatChanged) {
  struct Spy : HwFlowTracking::ExporterConfig::Watcher {
    using Watcher::Watcher;
    void handleExporter4Ready() override { log += "ready4 "; }
    void handleExporter6Ready() override { log += "ready6 "; }
    void handleRxPort4() override { log += "port4 "; }
    void handleRxPort6() override { log += "port6 "; }
    std::string log;
  } spy(exporter);
  const auto logged = [&] { return std::exchange(spy.log, {}); };
  exporter->srcIpAddrIs(source4);
  EXPECT_EQ(logged(), "port4 ready4 ");
  exporter->srcIp6AddrIs(source6);
  EXPECT_EQ(logged(), "ready6 port6 ");
  const auto old = expInfo()->udpPam4();
  exporter->srcIpAddrIs(IpAddr(5));
  EXPECT_EQ(logged(), "port4 ") << "ready all the time, through another endpoint";
  EXPECT_EQ(old->mode(), UdpPam::outOfService);
  sim->namespaceIs("ns-red", true);
  exporter->vrfNameIs(VrfName("red"));
  EXPECT_EQ(logged(), "ready4 port4 port4 ready4 ready6 port6 ready6 port6 ");
  expInfo()->rxPort4Is(0);  // readiness follows the port, too
  EXPECT_EQ(logged(), "ready4 port4 ");
}

TEST_F(TreeTest, ARefusedLocalCollectorIsTriedAgainAfterFiftyMilliseconds) {
  const auto config = configFactory();
  config->swExportIs(true);
  sim->traceLevelIs(TraceLevel::error);
  sim->openErrorIs(EADDRNOTAVAIL);
  exporter->srcIpAddrIs(source4);
  const auto second = HwFlowTracking::exporterConfigFactory("z");
  second->srcIpAddrIs(IpAddr(8));
  const auto sm =
      localCollectorConfigSmFactory("ft1", config, tracker, localCollectorPamsFactory("ft1"),
                                    Ip::allVrfStatusLocalFactory(), sim->scheduler());
  const auto told = tracker->localCollectorConfig();
  for (const auto& e : {second, exporter}) tracker->expConfigIs(e);
  EXPECT_EQ(sm->exporterReviewList().size(), 2u);
  sim->yieldAfterIs(1);
  sim->advance(Seconds(0.049));
  sim->openErrorIs(0);
  EXPECT_FALSE(told->exporterReady());
  sim->advance(Seconds(0.001));
  EXPECT_EQ(told->destIp(), IpGenAddr(source4));
  EXPECT_EQ(sm->exporterReviewList().size(), 1u) << "the review goes by name, and yields";
  sim->yieldAfterIs(0);
  sim->advance(Seconds(0.05));
  EXPECT_TRUE(sm->exporterReviewList().empty() && !sm->pamRetryTask()->scheduled());

  // For as long as it takes, and the operator hears of it once.
  tracker->expConfigDel("z");
  sim->takeTrace();
  sim->openErrorIs(EADDRINUSE);
  exporter->srcIpAddrIs(IpAddr(9));
  sim->advance(Seconds(5));
  EXPECT_EQ(sim->takeTrace().size(), 1u);
  // Or until there is nobody to serve.
  tracker->expConfigDel("exp1");
  sim->openErrorIs(0);
  sim->advance(Seconds(1));
  EXPECT_TRUE(sm->exporterReviewList().empty() && !sm->pamRetryTask()->scheduled());
  EXPECT_FALSE(told->exporterReady());
  for (const double bad : {0.0, -1.0, 1e9, std::nan("")})
    EXPECT_THROW(sm->pamCreateRetryIntervalIs(bad), std::range_error);
}

}  // namespace
}  // namespace FlowTracking
