#pragma once
#include <atomic>
#include <memory>

#include "agent/flow/FlowMeter.h"
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

  std::unique_ptr<CaptureFile> file_;
  std::atomic<unsigned> percent_{0};
};

}  // namespace agent::flow
