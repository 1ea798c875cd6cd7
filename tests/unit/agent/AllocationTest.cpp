// In steady state, sending allocates for no record and no message: counted, over real sockets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "agent/FlowExport.h"
#include "platform/BlockPool.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ShmTable.h"
#include "tests/support/Net.h"

namespace {
uint64_t allocations = 0;
}
[[gnu::noinline]] void* operator new(size_t n) {
  ++allocations;
  if (void* p = std::malloc(n)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {
using namespace platform;
using namespace FlowTracking;

class Silent final : public TraceSink, public LogSink {
 public:
  bool enabled(int) const override { return false; }
  void line(int, std::string_view) override {}
  void log(const LogMessage&, std::span<const std::string>) override {}
};

TEST(Allocation, NothingForARecordOrAMessage) {
#ifdef TARN_NO_POOLS
  GTEST_SKIP() << "a sanitizer is to see each packet freed";
#endif
  constexpr uint32_t interfaces = 20000;
  constexpr TemplateId flows = 256;
  constexpr IpAddr here(0x7f000001);
  Silent silent;
  const auto loop = eventLoopFactory();
  const auto host = linuxPlatform(loop, silent, silent, {.paceBurst = 0});
  Platform::install(host.get());
  {
    const auto init = ::Ipfix::ipfixInitSmFactory();
    const auto config = HwFlowTracking::configFactory();
    const auto status = HwFlowTracking::statusFactory();
    const auto info = flowTrackingInfoFactory(FlowTrackingType::software);
    const auto stats = Tarn::Ipfix::collectorStatisticsFactory(shmTableFactory(
        "/tarnflow-alloc-" + std::to_string(::getpid()), Tarn::Ipfix::CollectorStatistics::keyLen,
        Tarn::Ipfix::CollectorStatistics::valueLen, 64));
    const auto intfs = intfIndexMapFactory();
    for (uint32_t i = 1; i <= interfaces; ++i)
      intfs->intfIndexIs(IntfId("eth" + std::to_string(i)), i);
    const auto tracker = HwFlowTracking::ftConfigFactory("ft", 1);
    tracker->activeIntervalIs(1000);
    const auto exporter = HwFlowTracking::exporterConfigFactory("exp");
    exporter->srcIpAddrIs(here);
    const support::Receiver sinks[] = {support::Receiver(here), support::Receiver(here)};
    for (const auto& sink : sinks)
      exporter->collectorIpAndPortIs(std::to_string(sink.port()), {here, sink.port()});
    tracker->expConfigIs(exporter);
    config->ftConfigIs(tracker);
    const auto ftStatus = HwFlowTracking::ftStatusFactory("ft");
    const auto layout = HwFlowTracking::templateStatusFactory(flows);
    HwFlowTracking::FtTemplateEntry address(0, 8);  // sourceIPv4Address
    address.fieldLenIs(4);
    layout->ftTemplateEntryIs(address);
    ftStatus->templateStatusIs(layout);
    status->ftStatusIs(ftStatus);
    const auto infoSm = flowTrackingInfoSmFactory(loop, config, info, init->agentInfo());
    const auto templates =
        templateSmFactory(configReqFactory(), config, status, info, init->elementIdCollection(),
                          stats, loop->taskScheduler());
    const auto optionsData = optionsDataManagerSmFactory(
        config, status, info, intfs, Vrf::VrfIdMap::statusFactory(), stats, loop->taskScheduler());
    const auto& pam = info->ftInfo("ft")->expInfo("exp")->udpPam4();
    ASSERT_TRUE(pam);
    const auto sent = [&] { return pam->counters().sent; };
    const auto until = [&](uint64_t messages) {
      for (int rounds = 0; sent() < messages && rounds < 1000; ++rounds)
        loop->runOnce(Seconds(0.1));
    };

    until(2 * 2 + 2 * 200);  // templates, then the tables for the first time
    const uint64_t tables = sent();
    ASSERT_GT(tables, 400u);
    until(tables + 400);  // once more: now everything has its place
    const uint64_t before = allocations;
    const uint64_t sentBefore = sent();
    until(sentBefore + 400);
    EXPECT_GE(sent() - sentBefore, 400u);
    EXPECT_LT(allocations - before, 100u) << "for 40000 records in 400 messages";

    agent::FlowExport exportOf("ft", {config, info, templates, stats});
    const std::string records(4 * 100000, 'r');
    for (uint64_t sum = 0; const bool measured : {false, true}) {
      sum = allocations;
      const uint64_t had = sent();
      for (int i = 0; i < 10; ++i) {
        exportOf.recordsIs(flows, 4, records);
        loop->runOnce(Seconds(0));
      }
      EXPECT_GT(sent() - had, 5000u);
      EXPECT_LT(allocations - sum, measured ? 1000u : 100000u) << "for a million records";
    }
    EXPECT_EQ(pam->counters().dropped, 0u);
  }
  Platform::install(nullptr);
}
}  // namespace
