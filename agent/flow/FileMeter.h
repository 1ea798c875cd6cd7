#pragma once
#include <atomic>
#include <map>
#include <memory>
#include <vector>

#include "agent/flow/FlowMeter.h"
#include "agent/settings/PacketExpression.h"
#include "platform/linux/CaptureFile.h"

namespace agent::flow {
using platform::CaptureFile;

/// Reads a capture file as fast as the records are taken; time is the packets'.
class FileMeter final : public FlowMeter {
 public:
  FileMeter(RecordPlanPtr plan, std::unique_ptr<CaptureFile> file, size_t maxFlows,
            const MeterOrders& orders);
  ~FileMeter() override;
  const CaptureFile& file() const { return *file_; }  ///< once `done`
  /// How much of the file was read so far, in percent.
  unsigned percent() const { return percent_.load(std::memory_order_relaxed); }

 private:
  void run() override;
  bool chosen(const Packet& packet);

  std::map<platform::LinkLayer, std::vector<sock_filter>> programs_;  // of the orders' expression
  std::unique_ptr<CaptureFile> file_;
  std::atomic<unsigned> percent_{0};
};

}  // namespace agent::flow
