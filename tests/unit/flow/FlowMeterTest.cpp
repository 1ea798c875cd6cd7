#include "agent/flow/FlowMeter.h"

#include <gtest/gtest.h>

#include "Frames.h"

namespace agent::flow {
namespace {

/// Counts `flows` flows of one packet each, without a capture.
class PlainMeter final : public FlowMeter {
 public:
  PlainMeter(uint32_t flows, const MeterOrders& orders)
      : FlowMeter(1 << 20, 7, orders), flows_(flows) {
    start();
  }
  ~PlainMeter() override { stop(); }

 private:
  void run() override {
    for (uint32_t i = 0; i < flows_; ++i) {
      Ip4 ip;
      ip.src = Octets{}.u32(0x0a000000 + i);
      Boxed boxed(ethernet(0x0800, ip(17, udp(1, 2, 20))));
      boxed.packet.timeNs = 1'700'000'000'000'000'000;
      packetIs(boxed.packet, 3);
    }
    settle();
    cache_.waiterIs([this] { return waitForRoom(); });
    cache_.endAll(EndReason::forcedEnd);
  }
  uint32_t flows_;
};

TEST(FlowMeterTest, DrainsInBoundedStepsAndGivesUpWithoutACollector) {
  constexpr uint32_t flows = 100000;  // three times what the queue has room for
  MeterOrders orders;
  orders.hold = false;
  PlainMeter meter(flows, orders);
  meter.endSoon();
  size_t taken = 0;
  size_t step = 0;
  while (meter.drain(1000, [&](const RecordBlock& b) { step += b.used / flowRecordLen4; })) {
    EXPECT_LT(step, 1000 + RecordBlock::size / flowRecordLen4);
    if (step == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    taken += std::exchange(step, 0);
  }
  EXPECT_EQ(taken + step, flows);
  EXPECT_TRUE(meter.done());

  orders.hold = true;
  PlainMeter held(flows, orders);
  held.endSoon();
  const auto nothing = [](const RecordBlock&) { FAIL() << "a record without a collector"; };
  EXPECT_TRUE(held.drain(1000, nothing)) << "it waits for a collector";
  held.giveUp();
  while (held.drain(1000, nothing)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(held.counters().cache.lost[static_cast<size_t>(Loss::noCollector)], flows);
  EXPECT_EQ(held.counters().cache.lostPackets, flows);
}

}  // namespace
}  // namespace agent::flow
