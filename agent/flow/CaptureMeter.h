#pragma once
#include <cstdint>
#include <map>
#include <memory>

#include "agent/flow/FlowMeter.h"
#include "agent/flow/PacketRing.h"
#include "platform/linux/Fd.h"
#include "platform/linux/Netns.h"

namespace agent::flow {

/// Captures from interfaces of one network namespace: that of the thread that makes it.
class CaptureMeter final : public FlowMeter {
 public:
  /// `netns`: that namespace. Throws ErrnoException (EPERM: needs CAP_NET_RAW).
  CaptureMeter(RecordPlanPtr plan, size_t maxFlows, uint64_t seed, const MeterOrders& orders,
               const platform::NetnsId& netns);
  ~CaptureMeter() override;
  void ordersIs(const MeterOrders& orders) override;

 private:
  /// The same with the filter for them, which is made here: the meter's thread has no rights.
  MeterOrders withFilter(MeterOrders orders);
  void run() override;
  /// False: the kernel refused, and it is to be tried again.
  bool filterIs();
  void promiscuousIs();
  size_t readBlocks();
  void followOwnPorts(bool due);

  std::map<uint32_t, uint32_t> known_;  // interfaces that ever were ours: their packets may wait
  void wake() override;

  const platform::NetnsId netns_;
  uint64_t portsVersion_ = 0;
  PacketRing ring_;
  std::shared_ptr<const PacketFilter> filter_;  // the agent's thread's, as it was made last
  platform::Fd wakeFd_;  // closed, too, when the constructor cannot start the thread
};

}  // namespace agent::flow
