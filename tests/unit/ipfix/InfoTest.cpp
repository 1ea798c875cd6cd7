#include <cerrno>

#include "Tree.h"

namespace FlowTracking {
namespace {

class InfoTest : public TreeTest {
 protected:
  void makeTree() {
    tracker->expConfigIs(exporter);
    hwConfig->ftConfigIs(tracker);
    makeInfoSm();
  }
};

TEST_F(InfoTest, FamiliesBecomeReadyByThemselvesAndBack) {
  makeTree();
  EXPECT_EQ(sim->openEndpoints(), 0u);
  exporter->srcIpAddrIs(source4);
  EXPECT_TRUE(exporter->exporter4Ready());
  EXPECT_FALSE(exporter->exporter6Ready());
  EXPECT_NE(exporter->rxPort4(), 0);
  EXPECT_EQ(exporter->rxPort4(), expInfo()->udpPam4()->rxPort());
  EXPECT_EQ(expInfo()->udpPam4()->name(), "udpPam4-ft1-exp1");
  exporter->srcIp6AddrIs(source6);
  EXPECT_TRUE(exporter->exporter6Ready());
  EXPECT_EQ(expInfo()->udpPam6()->name(), "udpPam6-ft1-exp1");

  expInfo()->rxPort4Is(0);  // readiness follows the port, too
  EXPECT_FALSE(exporter->exporter4Ready());
  EXPECT_EQ(exporter->rxPort4(), 0);
  EXPECT_TRUE(exporter->exporter6Ready());

  exporter->srcIpAddrIs(IpAddr());
  EXPECT_FALSE(expInfo()->udpPam4());
  EXPECT_EQ(sim->openEndpoints(), 1u);
  hwConfig->ftConfigDel("ft1");
  EXPECT_FALSE(exporter->exporter6Ready());
  EXPECT_EQ(exporter->rxPort6(), 0);
  EXPECT_EQ(sim->openEndpoints(), 0u);
  EXPECT_TRUE(info->ftInfo().empty());
}

TEST_F(InfoTest, ARefusedEndpointIsTriedAgainByItself) {
  sim->traceLevelIs(TraceLevel::event);
  exporter->vrfNameIs(VrfName("red"));
  exporter->srcIpAddrIs(source4);
  exporter->srcIp6AddrIs(source6);
  makeTree();
  EXPECT_FALSE(exporter->exporter4Ready());
  bool told = false;
  for (const auto& line : sim->takeTrace())
    told = told || line.find("Caught ErrnoException:") != std::string::npos;
  EXPECT_TRUE(told);
  sim->advance(Seconds(3));
  EXPECT_FALSE(exporter->exporter4Ready());
  sim->namespaceIs("ns-red", true);
  sim->advance(Seconds(5));
  EXPECT_TRUE(exporter->exporter4Ready());
  EXPECT_TRUE(exporter->exporter6Ready());
  const auto pam = expInfo()->udpPam4();
  sim->advance(Seconds(5));
  EXPECT_EQ(expInfo()->udpPam4(), pam) << "an open endpoint is left alone";

  sim->openErrorIs(EMFILE);
  exporter->srcIpAddrIs(IpAddr(5));
  EXPECT_FALSE(exporter->exporter4Ready());
  EXPECT_TRUE(exporter->exporter6Ready());
  sim->openErrorIs(0);
  sim->advance(Seconds(5));
  EXPECT_TRUE(exporter->exporter4Ready());
}

TEST_F(InfoTest, SequenceNumbersStayWithTheCollectorsName) {
  exporter->srcIpAddrIs(source4);
  exporter->collectorIpAndPortIs("c", dst4(1));
  makeTree();
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(41);
  exporter->collectorIpAndPortIs("c", dst4(2));
  EXPECT_EQ(expInfo()->collInfo("c")->ipfixMsgSeqNo().value(), 41u);
  exporter->collectorIp6AndPortIs("c", dst6(1));
  exporter->collectorIpAndPortDel("c");
  EXPECT_EQ(expInfo()->collInfo("c")->ipfixMsgSeqNo().value(), 41u);
  exporter->collectorIp6AndPortDel("c");
  EXPECT_FALSE(expInfo()->collInfo("c"));
  exporter->collectorIpAndPortIs("c", dst4(1));
  EXPECT_EQ(expInfo()->collInfo("c")->ipfixMsgSeqNo().value(), 0u);
  expInfo()->collInfo("c")->ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo(4294967295u));
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(3);
  EXPECT_EQ(expInfo()->collInfo("c")->ipfixMsgSeqNo().value(), 2u);
}

TEST_F(InfoTest, AnotherConfigurationUnderTheSameNameIsAnotherExporter) {
  exporter->srcIpAddrIs(source4);
  exporter->collectorIpAndPortIs("c", dst4(1));
  makeTree();
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(41);
  const auto oldInfo = expInfo();
  const auto other = HwFlowTracking::exporterConfigFactory("exp1");
  other->srcIpAddrIs(source4);
  other->collectorIpAndPortIs("c", dst4(1));
  tracker->expConfigIs(other);
  EXPECT_FALSE(exporter->exporter4Ready());
  EXPECT_TRUE(other->exporter4Ready());
  EXPECT_NE(expInfo(), oldInfo);
  EXPECT_EQ(expInfo()->collInfo("c")->ipfixMsgSeqNo().value(), 0u);
  EXPECT_EQ(sim->openEndpoints(), 1u);

  const auto otherTracker = HwFlowTracking::ftConfigFactory("ft1", 8);
  hwConfig->ftConfigIs(otherTracker);
  EXPECT_FALSE(other->exporter4Ready());
  EXPECT_EQ(sim->openEndpoints(), 0u);
  EXPECT_TRUE(info->ftInfo("ft1")->expInfo().empty());
}

// A host may answer readiness by taking the exporter away: whoever is at work then must survive.
class Remover : public HwFlowTracking::ExporterConfig::Watcher {
 public:
  Remover(Ptr<const HwFlowTracking::ExporterConfig> config, std::function<void()> remove)
      : Watcher(std::move(config)), remove_(std::move(remove)) {}
  void handleExporter4Ready() override { remove_(); }

 private:
  std::function<void()> remove_;
};
TEST_F(InfoTest, TheExporterMayGoAwayInsideItsOwnNotification) {
  for (const bool watchFirst : {true, false}) {
    exporter = HwFlowTracking::exporterConfigFactory("exp1");
    std::unique_ptr<Remover> remover;
    const auto watch = [&] {
      remover = std::make_unique<Remover>(exporter, [&] { tracker->expConfigDel("exp1"); });
    };
    if (watchFirst) watch();
    exporter->collectorIpAndPortIs("c", dst4(1));
    ftStatus->templateStatusIs(templateOf(256, {8}));
    hwStatus->ftStatusIs(ftStatus);
    makeTree();
    makeTemplateSm();
    sim->runDue();
    if (!watchFirst) watch();
    exporter->srcIpAddrIs(source4);
    sim->runDue();
    EXPECT_TRUE(info->ftInfo("ft1")->expInfo().empty());
    EXPECT_EQ(sim->openEndpoints(), 0u);
    EXPECT_EQ(stats->size(), 0u);
    templateSm = nullptr;
    infoSm = nullptr;
  }
}

}  // namespace
}  // namespace FlowTracking
