#pragma once
#include "agent/flow/FlowMeter.h"
#include "agent/flow/PacketRing.h"
#include "platform/linux/Fd.h"

namespace agent::flow {

/// Captures from interfaces of one network namespace: that of the thread that makes it.
class CaptureMeter final : public FlowMeter {
 public:
  /// Throws ErrnoException (EPERM: needs CAP_NET_RAW).
  CaptureMeter(RecordPlanPtr plan, size_t maxFlows, uint64_t seed, const MeterOrders& orders);
  ~CaptureMeter() override;

 private:
  void run() override;
  /// False: the kernel refused, and it is to be tried again.
  bool filterIs();
  size_t readBlocks();

  std::map<uint32_t, uint32_t> known_;  // interfaces that ever were ours: their packets may wait
  void wake() override;

  PacketRing ring_;
  platform::Fd wakeFd_;  // closed, too, when the constructor cannot start the thread
};

}  // namespace agent::flow
