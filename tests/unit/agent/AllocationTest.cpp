// In steady state, sending allocates for no record and no message: counted, over real sockets.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "agent/records/FlowExport.h"
#include "bench/Tree.h"
#include "platform/BlockPool.h"

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
using namespace FlowTracking;

TEST(Allocation, NothingForARecordOrAMessage) {
#ifdef TARN_NO_POOLS
  GTEST_SKIP() << "a sanitizer is to see each packet freed";
#endif
  if (!support::privateNetwork()) GTEST_SKIP() << "no namespace of its own (run as root)";
  bench::Wire::get();
  bench::Host host;
  bench::Tree tree(host, 20000, 1, 2, false);
  tree.config->ftConfig("ft")->activeIntervalIs(1000);
  constexpr TemplateId flows = 256;
  const auto layout = HwFlowTracking::templateStatusFactory(flows);
  HwFlowTracking::FtTemplateEntry address(0, 8);  // sourceIPv4Address
  address.fieldLenIs(4);
  layout->ftTemplateEntryIs(address);
  tree.status->ftStatus("ft")->templateStatusIs(layout);
  const auto until = [&](uint64_t messages) {
    for (int rounds = 0; tree.sent() < messages && rounds < 1000; ++rounds)
      host.loop->runOnce(Seconds(0.1));
  };

  until(2 * 2 + 2 * 200);  // templates, then the tables for the first time
  const uint64_t tables = tree.sent();
  ASSERT_GT(tables, 400u);
  until(tables + 400);  // once more: now everything has its place
  const uint64_t before = allocations;
  const uint64_t sentBefore = tree.sent();
  until(sentBefore + 400);
  EXPECT_GE(tree.sent() - sentBefore, 400u);
  EXPECT_LT(allocations - before, 100u) << "for 40000 records in 400 messages";

  agent::LibraryTree library{.config = tree.config,
                             .statistics = tree.stats,
                             .info = tree.info,
                             .templateSm = tree.templates};
  agent::FlowExport exportOf("ft", library);
  const std::string records(4 * 100000, 'r');
  for (const bool measured : {false, true}) {
    const uint64_t sum = allocations;
    const uint64_t had = tree.sent();
    for (int i = 0; i < 10; ++i) {
      exportOf.recordsIs(flows, 4, records);
      host.loop->runOnce(Seconds(0));
    }
    EXPECT_GT(tree.sent() - had, 5000u);
    EXPECT_LT(allocations - sum, measured ? 1000u : 100000u) << "for a million records";
  }
  EXPECT_EQ(tree.pam()->counters().dropped, 0u);
  // Lost is what no way leads to the exporter of, and what none of its collectors is there for.
  const auto e0 = tree.config->ftConfig("ft")->expConfig("e0");
  for (const char* c : {"c0", "c1"}) e0->collectorIpAndPortDel(c);
  for (const auto& info : {flowTrackingInfoFactory(FlowTrackingType::software), tree.info}) {
    library.info = info;
    agent::FlowExport lost("ft", library);
    lost.recordsIs(flows, 4, records);
    lost.end();
    EXPECT_EQ(lost.counters().recordsLost, 100000u);
  }
}
}  // namespace
