// The times at which the local collector's endpoint is tried; what it tells is RestlessTest's.
#include "Ipfix/LocalCollectorConfigSm.h"

#include <cerrno>
#include <cmath>

#include "Tree.h"

namespace FlowTracking {
namespace {

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
    size_t n = 0;
    for (const auto& line : sim->takeTrace()) n += line.find(part) != line.npos;
    return n;
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
