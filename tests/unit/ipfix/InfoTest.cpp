#include <algorithm>
#include <cerrno>
#include <cmath>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "Tree.h"

/// What the random hosts of RestlessTest do not see of exporters and of the local collector: what
/// is told, in which order, and when a refused endpoint is tried again.
namespace FlowTracking {
namespace {

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

class LocalCollectorTest : public TreeTest {
 protected:
  LocalCollectorTest() {
    config->swExportIs(true);
    tracker->localPortIs(4739);
    sim->openErrorIs(EADDRNOTAVAIL);
    sim->traceLevelIs(TraceLevel::event);
    sm = localCollectorConfigSmFactory("ft1", config, tracker, localCollectorPamsFactory("ft1"),
                                       Ip::allVrfStatusLocalFactory(), sim->scheduler());
  }
  ~LocalCollectorTest() override { sm = nullptr; }
  Ptr<HwFlowTracking::ExporterConfig> exporterIs(const std::string& name, IpAddr src) {
    auto e = HwFlowTracking::exporterConfigFactory(name);
    e->srcIpAddrIs(src);
    tracker->expConfigIs(e);
    return e;
  }
  std::string where() const {
    const auto& told = *tracker->localCollectorConfig();
    return told.exporterReady() ? told.expName() + ' ' + told.destIp().stringValue() : "";
  }
  std::string reviewed() const {
    std::string names;
    for (const auto& [name, on] : sm->exporterReviewList()) names += name;
    return names;
  }
  size_t traced(const std::string& part) {
    return std::ranges::count_if(
        sim->takeTrace(), [&](const std::string& line) { return line.find(part) != line.npos; });
  }
  Ptr<Config> config = configFactory();
  Ptr<LocalCollectorConfigSm> sm;
};

TEST_F(LocalCollectorTest, ARefusedEndpointIsTriedAgainAfterFiftyMilliseconds) {
  auto e = exporterIs("exp1", source4);
  EXPECT_EQ(reviewed(), "exp1");
  sim->advance(Seconds(0.049));
  sim->openErrorIs(0);
  EXPECT_EQ(where(), "");
  sim->advance(Seconds(0.001));
  EXPECT_EQ(where(), "exp1 192.0.2.1");
  EXPECT_EQ(reviewed(), "");
  EXPECT_FALSE(sm->pamRetryTask()->scheduled());

  // For as long as it takes, and the operator hears of it once.
  sim->traceLevelIs(TraceLevel::error);
  sim->takeTrace();
  sim->openErrorIs(EADDRINUSE);
  e->srcIpAddrIs(IpAddr(9));
  sim->advance(Seconds(5));
  EXPECT_EQ(traced(""), 1u);
  // Or until there is nobody to serve.
  tracker->expConfigDel("exp1");
  sim->openErrorIs(0);
  sim->advance(Seconds(1));
  EXPECT_EQ(where() + reviewed(), "");
  EXPECT_FALSE(sm->pamRetryTask()->scheduled());
  for (const double bad : {0.0, -1.0, 1e9, std::nan("")})
    EXPECT_THROW(sm->pamCreateRetryIntervalIs(bad), std::range_error);
}

TEST_F(LocalCollectorTest, TheReviewGoesByNameAndYields) {
  exporterIs("b", source4);
  exporterIs("a", IpAddr(9));
  EXPECT_EQ(reviewed(), "ab") << "b was tried before a had an address";
  sim->yieldAfterIs(1);
  sim->openErrorIs(0);
  sim->advance(Seconds(0.05));
  EXPECT_EQ(where(), "a 0.0.0.9");
  EXPECT_EQ(reviewed(), "b");
  EXPECT_EQ(traced("YIELDING::"), 1u);
  sim->yieldAfterIs(0);
  sim->advance(Seconds(0.05));
  EXPECT_EQ(reviewed(), "");
  EXPECT_EQ(where(), "a 0.0.0.9");
}

}  // namespace
}  // namespace FlowTracking
