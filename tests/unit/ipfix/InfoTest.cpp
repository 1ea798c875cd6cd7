#include <functional>

#include "Ipfix/FlowTrackingTypes.h"
#include "Tree.h"

/// What the random hosts of RestlessTest do not see: which changes are told, and in which order.
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

TEST_F(InfoTest, SequenceNumbersStayWithTheCollectorsName) {
  exporter->srcIpAddrIs(source4);
  exporter->collectorIpAndPortIs("c", dst4(1));
  makeTree();
  const auto number = [this] { return expInfo()->collInfo("c")->ipfixMsgSeqNo().value(); };
  expInfo()->collInfo("c")->ipfixMsgSeqNoIs(::Ipfix::IpfixMsgSeqNo(4294967295u));
  exporter->collectorIpAndPortIs("c", dst4(2));
  exporter->collectorIp6AndPortIs("c", dst6(1));
  exporter->collectorIpAndPortDel("c");
  EXPECT_EQ(number(), 4294967295u);
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(3);
  EXPECT_EQ(number(), 2u);
  exporter->collectorIp6AndPortDel("c");
  EXPECT_FALSE(expInfo()->collInfo("c"));
  exporter->collectorIpAndPortIs("c", dst4(1));
  EXPECT_EQ(number(), 0u);
}

/// Tells `heard` of what each notification is about.
struct Spy : HwFlowTracking::ExporterConfig::Watcher {
  using Heard = std::function<void(const std::string&)>;
  Spy(Ptr<const HwFlowTracking::ExporterConfig> config, Heard h)
      : Watcher(std::move(config)), heard(std::move(h)) {}
  void handleExporter4Ready() override { heard("ready4 "); }
  void handleExporter6Ready() override { heard("ready6 "); }
  void handleRxPort4() override { heard("port4 "); }
  void handleRxPort6() override { heard("port6 "); }
  Heard heard;
};

TEST_F(InfoTest, TellsInOrderAndOnlyWhatChanged) {
  std::string log;
  const auto logged = [&] { return std::exchange(log, {}); };
  makeTree();
  const Spy spy(exporter, [&](const std::string& what) { log += what; });
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
  exporter->srcIp6AddrIs(Ip6Addr());
  EXPECT_EQ(logged(), "ready6 port6 ");
  expInfo()->rxPort4Is(0);  // readiness follows the port, too
  EXPECT_EQ(logged(), "ready4 port4 ");
}

TEST_F(InfoTest, ARefusedEndpointIsTriedAgainEachSecond) {
  exporter->vrfNameIs(VrfName("red"));
  exporter->srcIpAddrIs(source4);
  exporter->srcIp6AddrIs(source6);
  sim->traceLevelIs(TraceLevel::event);
  makeTree();
  const auto refusals = [&] {
    size_t n = 0;
    for (const auto& line : sim->takeTrace()) n += line.find("Caught ErrnoException:") != line.npos;
    return n;
  };
  EXPECT_EQ(refusals(), 2u);
  sim->advance(Seconds(3.5));
  EXPECT_EQ(refusals(), 6u);
  sim->namespaceIs("ns-red", true);
  sim->advance(Seconds(1));
  EXPECT_TRUE(exporter->exporter4Ready() && exporter->exporter6Ready());
}

}  // namespace
}  // namespace FlowTracking
