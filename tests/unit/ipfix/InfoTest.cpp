#include <cerrno>
#include <functional>
#include <random>
#include <set>

#include "Ipfix/FlowTrackingTypes.h"
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

/// Tells `heard` of what each notification is about, whichever entity it comes from.
struct Spy : HwFlowTracking::ExporterConfig::Watcher {
  using Heard = std::function<void(const std::string&)>;
  Spy(Ptr<const HwFlowTracking::ExporterConfig> config, Heard h)
      : Watcher(std::move(config)), heard(std::move(h)) {}
  void handleExporter4Ready() override { heard("ready4"); }
  void handleExporter6Ready() override { heard("ready6"); }
  void handleRxPort4() override { heard("port4"); }
  void handleRxPort6() override { heard("port6"); }
  Heard heard;
};
struct InfoSpy : ExporterInfo::Watcher {
  InfoSpy(Ptr<const ExporterInfo> info, Spy::Heard h)
      : Watcher(std::move(info)), heard(std::move(h)) {}
  void handleCollInfo(const std::string& name) override { heard("info " + name); }
  void handleUdpPam4() override { heard("pam4"); }
  void handleUdpPam6() override { heard("pam6"); }
  void handleRxPort4() override { heard("info port4"); }
  void handleRxPort6() override { heard("info port6"); }
  Spy::Heard heard;
};

TEST_F(InfoTest, TellsInOrderAndOnlyWhatChanged) {
  std::string log;
  const auto heard = [&](const std::string& what) { log += what + ' '; };
  const auto logged = [&] { return std::exchange(log, {}); };
  makeTree();
  const Spy spy(exporter, heard);
  exporter->srcIpAddrIs(source4);
  EXPECT_EQ(logged(), "port4 ready4 ");
  exporter->srcIp6AddrIs(source6);
  EXPECT_EQ(logged(), "ready6 port6 ");
  const auto old = expInfo()->udpPam4();
  exporter->srcIpAddrIs(IpAddr(5));
  EXPECT_EQ(logged(), "port4 ") << "ready all the time, through another endpoint";
  EXPECT_EQ(old->mode(), UdpPam::outOfService);
  EXPECT_EQ(expInfo()->udpPam4()->rxPort(), exporter->rxPort4());
  sim->namespaceIs("ns-red", true);
  exporter->vrfNameIs(VrfName("red"));
  EXPECT_EQ(logged(), "ready4 port4 port4 ready4 ready6 port6 ready6 port6 ");
  EXPECT_EQ(sim->openEndpoints(), 2u);

  exporter->srcIp6AddrIs(Ip6Addr());
  EXPECT_EQ(logged(), "ready6 port6 ");
  exporter->srcIp6AddrIs(source6);
  sim->traceLevelIs(TraceLevel::event);
  const InfoSpy infoSpy(expInfo(), [&](const std::string& what) {
    heard(what);
    EXPECT_TRUE(what != "info c" || !expInfo() || sim->takeTrace().empty()) << "made, then traced";
  });
  exporter->collectorIpAndPortIs("c", dst4(1));
  const std::string prefix = "ExporterInfoSm::handleCollector for ft1 for exp1 for, collector: c ";
  EXPECT_EQ(sim->takeTrace(), std::vector<std::string>{prefix + "Initiated sequence number for c"});
  struct SeqNoSpy : CollectorInfo::Watcher {
    using Watcher::Watcher;
    void handleIpfixMsgSeqNo() override { heard.push_back(entity()->ipfixMsgSeqNo().value()); }
    std::vector<uint32_t> heard;
  } seqNo(expInfo()->collInfo("c"));
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(3);
  expInfo()->collInfo("c")->ipfixMsgSeqNoInc(0);
  EXPECT_EQ(seqNo.heard, std::vector<uint32_t>{3});

  logged();
  tracker->expConfigDel("exp1");
  EXPECT_EQ(logged(), "pam4 info port4 pam6 info port6 info c port4 ready4 port6 ready6 ");
}

/// A host whose handlers change the configuration again, whatever they hear and while it is heard.
class RestlessHost : public InfoTest {
 protected:
  using ExpConfig = HwFlowTracking::ExporterConfig;
  struct TreeSpy : FlowTrackingInfo::Watcher {
    TreeSpy(RestlessHost& h) : Watcher(h.info), host(h) {}
    void handleFtInfo(const std::string& name) override {
      if (const auto ft = entity()->ftInfo(name))
        host.trackerSpies.push_back(std::make_unique<TrackerSpy>(ft, host));
      host.act();
    }
    RestlessHost& host;
  };
  struct TrackerSpy : FlowTrackerInfo::Watcher {
    TrackerSpy(const Ptr<FlowTrackerInfo>& ft, RestlessHost& h) : Watcher(ft), host(h) {}
    void handleExpInfo(const std::string& name) override {
      if (const auto exp = entity()->expInfo(name))
        host.infoSpies.push_back(
            std::make_unique<InfoSpy>(exp, [&h = host](const std::string&) { h.act(); }));
      host.act();
    }
    RestlessHost& host;
  };

  size_t pick(size_t n) { return random() % n; }
  void act() {
    if (depth < 5 && pick(4) == 0) change();
  }
  void change() {
    ++depth;
    const std::string ftName = pick(3) ? "ft1" : "ft2";
    const std::string name = pick(2) ? "a" : "b";
    const auto ft = hwConfig->ftConfig(ftName);
    const auto e = ft ? ft->expConfig(name) : nullptr;
    switch (pick(e ? 10 : 3)) {
      case 0: {
        const auto fresh = HwFlowTracking::ftConfigFactory(ftName, 7);
        hwConfig->ftConfigIs(pick(2) || !ft ? fresh : ft);
        break;
      }
      case 1:
        if (ft) ft->expConfigIs(newExporter(name));
        break;
      case 2:
        if (pick(3)) break;
        hwConfig->ftConfigDel(ftName);
        if (ft && pick(2)) hwConfig->ftConfigIs(ft);
        break;
      case 3:
        ft->expConfigDel(name);
        if (pick(2)) ft->expConfigIs(e);
        break;
      case 4:
        e->srcIpAddrIs(IpAddr(static_cast<uint32_t>(pick(3))));
        break;
      case 5:
        e->srcIp6AddrIs(pick(3) ? source6 : Ip6Addr());
        break;
      case 6:
        e->vrfNameIs(VrfName(pick(3) == 0 ? "default" : pick(2) ? "red" : "refused"));
        break;
      case 7:
        e->collectorIpAndPortIs(pick(2) ? "c" : "d", dst4(static_cast<uint8_t>(pick(5))));
        break;
      case 8:
        e->collectorIpAndPortDel(pick(2) ? "c" : "d");
        break;
      default:
        e->collectorIp6AndPortIs("c", dst6(1));
        e->collectorIp6AndPortDel("d");
    }
    --depth;
  }
  Ptr<ExpConfig> newExporter(const std::string& name) {
    auto e = HwFlowTracking::exporterConfigFactory(name);
    if (pick(2)) e->srcIpAddrIs(source4);
    if (pick(2)) e->srcIp6AddrIs(source6);
    if (pick(2)) e->collectorIpAndPortIs("c", dst4(1));
    all.push_back(e);
    spies.push_back(std::make_unique<Spy>(e, [this](const std::string&) { act(); }));
    return e;
  }
  /// The trees hold what is configured, each endpoint is the source's, and nothing else is open.
  void check() {
    size_t open = 0;
    std::set<const ExpConfig*> configured;
    ASSERT_EQ(keysOf(info->ftInfo()), keysOf(hwConfig->ftConfig()));
    for (const auto& [ftName, ft] : hwConfig->ftConfig()) {
      const auto sm = infoSm->ftInfoSm(ftName);
      ASSERT_EQ(sm->hwFtConfig(), ft);
      ASSERT_EQ(keysOf(info->ftInfo(ftName)->expInfo()), keysOf(ft->expConfig()));
      for (const auto& [name, e] : ft->expConfig()) {
        const auto expInfo = info->ftInfo(ftName)->expInfo(name);
        ASSERT_EQ(sm->expInfoSm(name)->hwExpConfig(), e);
        ASSERT_EQ(sm->expInfoSm(name)->expInfo(), expInfo);
        const bool canOpen = e->vrfName().stringValue() != "refused";
        ASSERT_EQ(bool{expInfo->udpPam4()}, canOpen && !e->srcIpAddr().isZero());
        ASSERT_EQ(bool{expInfo->udpPam6()}, canOpen && !e->srcIp6Addr().isZero());
        for (const auto& pam : {expInfo->udpPam4(), expInfo->udpPam6()}) {
          if (!pam) continue;
          ++open;
          ASSERT_EQ(pam->mode(), UdpPam::inService);
        }
        ASSERT_EQ(e->rxPort4(), expInfo->udpPam4() ? expInfo->udpPam4()->rxPort() : 0);
        ASSERT_EQ(e->rxPort6(), expInfo->udpPam6() ? expInfo->udpPam6()->rxPort() : 0);
        for (const auto& [c, dst] : e->collectorIpAndPort())
          ASSERT_TRUE(expInfo->collInfo(c) || e->srcIpAddr().isZero());
        for (const auto& [c, collInfo] : expInfo->collInfo())
          ASSERT_TRUE(e->collectorIpAndPort().contains(c) || e->collectorIp6AndPort().contains(c));
        configured.insert(e.get());
      }
    }
    ASSERT_EQ(sim->openEndpoints(), open);
    for (const auto& e : all) {
      ASSERT_TRUE(configured.contains(e.get()) || e->rxPort4() + e->rxPort6() == 0);
      ASSERT_EQ(e->exporter4Ready(), e->rxPort4() != 0);
      ASSERT_EQ(e->exporter6Ready(), e->rxPort6() != 0);
    }
  }

  std::mt19937 random;
  int depth = 0;
  std::vector<Ptr<ExpConfig>> all;
  std::vector<std::unique_ptr<Spy>> spies;
  std::vector<std::unique_ptr<InfoSpy>> infoSpies;
  std::vector<std::unique_ptr<TrackerSpy>> trackerSpies;
};
TEST_F(RestlessHost, EndsWithWhatIsConfigured) {
  sim->namespaceIs("ns-red", true);
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    random.seed(seed);
    const TreeSpy treeSpy(*this);
    makeInfoSm();
    for (int step = 0; step < 300; ++step) {
      SCOPED_TRACE(step);
      change();
      ASSERT_NO_FATAL_FAILURE(check());
    }
    infoSm = nullptr;
    for (const auto& e : all) EXPECT_FALSE(e->exporter4Ready() || e->exporter6Ready());
    all.clear();
    spies.clear();
    infoSpies.clear();
    trackerSpies.clear();
    hwConfig = HwFlowTracking::configFactory();
    info = flowTrackingInfoFactory(FlowTrackingType::software);
  }
}
TEST(IntfIndexMap, IsReadByKeyAndNotifiesByKey) {
  struct Heard : IntfIndexMap::Watcher {
    using Watcher::Watcher;
    void handleIntfIndex(const IntfId& id) override { log += id.stringValue() + ' '; }
    void handleIntfId(uint32_t index) override { log += std::to_string(index) + ' '; }
    std::string log;
  };
  const auto map = intfIndexMapFactory();
  map->intfIndexIs(IntfId("eth0"), 5);
  map->intfIdIs(5, IntfId("eth0"));
  Heard heard(map);
  EXPECT_EQ(map->intfIndex(IntfId("eth0")), 5u);
  EXPECT_EQ(map->intfId(5), IntfId("eth0"));
  map->intfIndexDel(IntfId("eth0"));
  map->intfIdDelAll();
  EXPECT_EQ(heard.log, "eth0 5 ");
  EXPECT_EQ(map->intfIndex(IntfId("eth0")), IntfIndexMap::unknownIndex);
  EXPECT_EQ(map->intfId(5), IntfId());
}
TEST_F(InfoTest, AnEntryWithoutConfigurationGoes) {
  makeTree();
  sim->traceLevelIs(TraceLevel::event);
  info->ftInfo("ft1")->expInfoIs("left");
  infoSm->ftInfoSm("ft1")->handleHwExpConfig("left");
  info->ftInfoIs("left");
  infoSm->handleHwFtConfig("left");
  EXPECT_FALSE(info->ftInfo("left") || info->ftInfo("ft1")->expInfo("left"));
  EXPECT_EQ(sim->takeTrace(),
            (std::vector<std::string>{
                "FlowTrackerInfoSm::handleHwExpConfig for ft1 Deleted ExporterInfoSm for left",
                "FlowTrackingInfoSm::handleHwFtConfig Deleted FlowTrackerInfoSm for left"}));
}

}  // namespace
}  // namespace FlowTracking
