#pragma once
#include <memory>

#include "agent/flow/FlowMeter.h"
#include "platform/linux/CaptureFile.h"

namespace agent::flow {
using platform::CaptureFile;

/// Reads a capture file as fast as the records are taken; time is the packets'.
class FileMeter final : public FlowMeter {
 public:
  FileMeter(std::unique_ptr<CaptureFile> file, size_t maxFlows, const MeterOrders& orders);
  ~FileMeter() override;
  const CaptureFile& file() const { return *file_; }  ///< once `done`

 private:
  void run() override;

  std::unique_ptr<CaptureFile> file_;
};

}  // namespace agent::flow
