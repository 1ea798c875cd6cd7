// The local collector's endpoint and what the tracking side is told of it, on virtual time.
#include "Ipfix/LocalCollectorConfigSm.h"

#include <cerrno>
#include <cmath>
#include <random>

#include "Tree.h"

namespace FlowTracking {
namespace {

class LocalCollectorTest : public testing::Test {
 protected:
  LocalCollectorTest() {
    Platform::install(sim.get());
    config->swExportIs(true);
    tracker->localPortIs(4739);
  }
  ~LocalCollectorTest() override {
    sm = nullptr;
    EXPECT_EQ(sim->openEndpoints(), 0u);
    Platform::install(nullptr);
  }
  void make() {
    sm = localCollectorConfigSmFactory("ft1", config, tracker, pams, vrfs, sim->scheduler());
  }
  Ptr<HwFlowTracking::ExporterConfig> exporter(const std::string& name, IpAddr src = {}) {
    auto e = HwFlowTracking::exporterConfigFactory(name);
    e->srcIpAddrIs(src);
    tracker->expConfigIs(e);
    return e;
  }
  const HwFlowTracking::LocalCollectorConfig& told() const {
    return *tracker->localCollectorConfig();
  }
  /// "exporter vrf address:port dscp", or "not ready".
  std::string where() const {
    const auto& t = told();
    const bool open = pams->udpPam4Ready() || pams->udpPam6Ready();
    EXPECT_EQ(open, t.exporterReady());
    if (!t.exporterReady()) {
      EXPECT_EQ(t.expName() + t.destIp().stringValue(), "");
      EXPECT_EQ(t.dscpValue().value(), 0);
      EXPECT_FALSE(pams->udpPam4() || pams->udpPam6());
      return "not ready";
    }
    const auto& pam = pams->udpPam4() ? pams->udpPam4() : pams->udpPam6();
    EXPECT_NE(bool{pams->udpPam4()}, bool{pams->udpPam6()}) << "one family at a time";
    EXPECT_EQ(pam->mode(), UdpPam::inService);
    EXPECT_EQ(pam->rxPort(), t.destPort());
    EXPECT_EQ(t.srcIp(), t.destIp());
    EXPECT_EQ(t.srcPort(), t.destPort());
    return t.expName() + ' ' + t.vrfName().stringValue() + ' ' + t.destIp().stringValue() + ':' +
           std::to_string(t.destPort()) + ' ' + t.dscpValue().stringValue();
  }
  std::vector<std::string> traced(const std::string& part) {
    std::vector<std::string> lines;
    for (auto& line : sim->takeTrace())
      if (line.find(part) != line.npos) lines.push_back(line);
    return lines;
  }

  std::unique_ptr<SimPlatform> sim = simPlatform();
  Ptr<Config> config = configFactory();
  Ptr<HwFlowTracking::FtConfig> tracker = HwFlowTracking::ftConfigFactory("ft1", 7);
  Ptr<LocalCollectorPams> pams = localCollectorPamsFactory("ft1");
  Ptr<Ip::AllVrfStatusLocal> vrfs = Ip::allVrfStatusLocalFactory();
  Ptr<LocalCollectorConfigSm> sm;
};

TEST_F(LocalCollectorTest, ListensOnTheExportersAddressAndFollowsIt) {
  auto e = exporter("exp1", source4);
  e->dscpIs(DscpValue(46));
  make();
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(where(), "exp1 default 192.0.2.1:4739 46");
  EXPECT_EQ(pams->udpPam4()->name(), "StftPam4-exp1");
  const auto first = pams->udpPam4();
  e->dscpIs(DscpValue(10));
  e->exporter4ReadyIs(true);
  e->srcIp6AddrIs(source6);
  EXPECT_EQ(where(), "exp1 default 192.0.2.1:4739 10");
  EXPECT_EQ(pams->udpPam4(), first) << "what concerns it not reopens nothing";

  e->srcIpAddrIs(IpAddr(5));
  EXPECT_EQ(where(), "exp1 default 0.0.0.5:4739 10");
  EXPECT_EQ(first->mode(), UdpPam::outOfService);
  e->srcIpAddrIs({});
  EXPECT_EQ(where(), "exp1 default 2001:db8:1::1:4739 10");
  EXPECT_EQ(pams->udpPam6()->name(), "StftPam6-exp1");
  e->srcIp6AddrIs({});
  EXPECT_EQ(where(), "not ready");
  sim->advance(Seconds(10));
  EXPECT_EQ(sim->openEndpoints(), 0u);
  e->srcIpAddrIs(source4);
  EXPECT_EQ(where(), "exp1 default 192.0.2.1:4739 10");

  tracker->localPortIs(2055);
  EXPECT_EQ(where(), "exp1 default 192.0.2.1:2055 10");
  tracker->localPortIs(0);
  EXPECT_TRUE(told().exporterReady());
  EXPECT_GE(told().destPort(), 40000) << "the kernel's choice";
  for (const double bad : {0.0, -1.0, 1e9, std::nan("")})
    EXPECT_THROW(sm->pamCreateRetryIntervalIs(bad), std::range_error);
}

TEST_F(LocalCollectorTest, ARefusedEndpointIsTriedAgainAfterFiftyMilliseconds) {
  auto e = exporter("exp1", source4);
  sim->traceLevelIs(TraceLevel::event);
  sim->openErrorIs(EADDRNOTAVAIL);
  make();
  EXPECT_EQ(where(), "not ready");
  EXPECT_EQ(sm->exporterReviewList(), (std::map<std::string, bool>{{"exp1", true}}));
  ASSERT_TRUE(sm->pamRetryTask()->scheduled());
  EXPECT_EQ(sm->pamRetryTask()->name(), "ipfixLocalCollectorTask");
  EXPECT_EQ(traced("Caught ErrnoException: ").size(), 1u);

  sim->advance(Seconds(0.049));
  sim->openErrorIs(0);
  EXPECT_EQ(where(), "not ready");
  sim->advance(Seconds(0.001));
  EXPECT_EQ(where(), "exp1 default 192.0.2.1:4739 0");
  EXPECT_TRUE(sm->exporterReviewList().empty());
  EXPECT_FALSE(sm->pamRetryTask()->scheduled());

  // For as long as it takes, and the operator hears of it once.
  sim->traceLevelIs(TraceLevel::error);
  sim->takeTrace();
  sim->openErrorIs(EADDRINUSE);
  e->srcIpAddrIs(IpAddr(9));
  sim->advance(Seconds(5));
  EXPECT_EQ(sim->takeTrace().size(), 1u);
  EXPECT_EQ(where(), "not ready");
  sim->openErrorIs(0);
  sim->advance(Seconds(0.05));
  EXPECT_EQ(where(), "exp1 default 0.0.0.9:4739 0");

  // Or until there is nobody to serve.
  sim->openErrorIs(EMFILE);
  e->srcIpAddrIs(source4);
  tracker->expConfigDel("exp1");
  sim->openErrorIs(0);
  sim->advance(Seconds(1));
  EXPECT_EQ(where(), "not ready");
  EXPECT_TRUE(sm->exporterReviewList().empty());
  EXPECT_FALSE(sm->pamRetryTask()->scheduled());
}

TEST_F(LocalCollectorTest, TheReviewGoesByNameAndYields) {
  sim->traceLevelIs(TraceLevel::event);
  sim->openErrorIs(EADDRNOTAVAIL);
  make();
  auto b = exporter("b", source4);
  auto a = exporter("a", IpAddr(9));
  EXPECT_EQ(sm->exporterReviewList().size(), 2u) << "b was tried before a had an address";
  sim->yieldAfterIs(1);
  sim->takeTrace();
  sim->openErrorIs(0);
  sim->advance(Seconds(0.05));
  EXPECT_EQ(where(), "a default 0.0.0.9:4739 0");
  EXPECT_EQ(sm->exporterReviewList(), (std::map<std::string, bool>{{"b", true}}));
  EXPECT_EQ(traced("YIELDING::").size(), 1u);
  sim->yieldAfterIs(0);
  sim->advance(Seconds(0.049));
  EXPECT_EQ(sm->exporterReviewList().size(), 1u);
  sim->advance(Seconds(0.001));
  EXPECT_TRUE(sm->exporterReviewList().empty());
  EXPECT_EQ(traced("review done ::").size(), 1u);
  EXPECT_EQ(where(), "a default 0.0.0.9:4739 0");
  sm->reviewPamCreation();
  EXPECT_EQ(traced("nothing to review ::").size(), 1u);
}

/// A host whose handlers change everything again, or take the local collector away, while it
/// writes.
class RestlessLocalHost : public LocalCollectorTest {
 protected:
  struct ConfigSpy : HwFlowTracking::LocalCollectorConfig::Watcher {
    explicit ConfigSpy(RestlessLocalHost& h)
        : Watcher(h.tracker->localCollectorConfig()), host(h) {}
    void handleExpName() override { host.act(); }
    void handleVrfName() override { host.act(); }
    void handleSrcIp() override { host.act(); }
    void handleSrcPort() override { host.act(); }
    void handleDestIp() override { host.act(); }
    void handleDestPort() override { host.act(); }
    void handleDscpValue() override { host.act(); }
    void handleExporterReady() override { host.act(); }
    RestlessLocalHost& host;
  };
  struct PamsSpy : LocalCollectorPams::Watcher {
    explicit PamsSpy(RestlessLocalHost& h) : Watcher(h.pams), host(h) {}
    void handleUdpPam4() override { host.act(); }
    void handleUdpPam6() override { host.act(); }
    void handleUdpPam4Ready() override { host.act(); }
    void handleUdpPam6Ready() override { host.act(); }
    RestlessLocalHost& host;
  };
  size_t pick(size_t n) { return random() % n; }
  void act() {
    if (depth < 4 && pick(6) == 0) change();
  }
  void change() {
    ++depth;
    const std::string name = pick(2) ? "a" : "b";
    const auto e = tracker->expConfig(name);
    switch (e ? pick(8) : 0) {
      case 0:
        exporter(name, IpAddr(static_cast<uint32_t>(pick(3))));
        break;
      case 1:
        e->srcIpAddrIs(IpAddr(static_cast<uint32_t>(pick(3))));
        break;
      case 2:
        e->srcIp6AddrIs(pick(2) ? source6 : Ip6Addr());
        break;
      case 3:
        e->vrfNameIs(VrfName(pick(3) ? "default" : "refused"));
        break;
      case 4:
        e->dscpIs(DscpValue(static_cast<unsigned>(pick(64))));
        break;
      case 5:
        tracker->localPortIs(pick(2) ? 0 : 4739);
        break;
      case 6:
        vrfs->vrfIs(VrfName("default"), 1 + pick(3));
        break;
      default:
        if (pick(2)) tracker->expConfigDel(name);
        if (pick(4) == 0) sm = nullptr;
    }
    --depth;
  }
  std::string expected() const {
    for (const auto& [name, e] : tracker->expConfig()) {
      if (e->srcIpAddr().isZero() && e->srcIp6Addr().isZero()) continue;
      if (!sm || e->vrfName().stringValue() == "refused") break;
      EXPECT_TRUE(tracker->localPort() == told().destPort() || tracker->localPort() == 0);
      return name + " default " +
             (e->srcIpAddr().isZero() ? e->srcIp6Addr().stringValue()
                                      : e->srcIpAddr().stringValue()) +
             ':' + std::to_string(told().destPort()) + ' ' + e->dscp().stringValue();
    }
    return "not ready";
  }
  std::mt19937 random;
  int depth = 0;
};
TEST_F(RestlessLocalHost, EndsWithWhatIsConfigured) {
  const ConfigSpy configSpy(*this);
  const PamsSpy pamsSpy(*this);
  for (unsigned seed = 1; seed <= 40 && !HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    random.seed(seed);
    for (int step = 0; step < 300 && !HasFailure(); ++step) {
      SCOPED_TRACE(step);
      if (!sm) make();
      change();
      EXPECT_EQ(where(), expected());
      EXPECT_EQ(sim->openEndpoints(), told().exporterReady() ? 1u : 0u);
    }
  }
}

}  // namespace
}  // namespace FlowTracking
