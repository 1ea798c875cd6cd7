#include "agent/flow/FileMeter.h"

#include <stdexcept>
#include <utility>

namespace agent::flow {
namespace {
constexpr uint64_t fileSeed = 0x7461726e666c6f77;  // a file gives the same records each time
}  // namespace

FileMeter::FileMeter(RecordPlanPtr plan, std::unique_ptr<CaptureFile> file, size_t maxFlows,
                     const MeterOrders& orders)
    : FlowMeter(std::move(plan), maxFlows, fileSeed, orders), file_(std::move(file)) {
  cache_.waiterIs([this] { return waitForRoom(); });
  // A file can be long and hold nothing that is counted.
  file_->goOnIs([this] {
    percent_.store(static_cast<unsigned>(100.0 * static_cast<double>(file_->position()) /
                                         static_cast<double>(file_->size())),
                   std::memory_order_relaxed);
    return !stopped();
  });
  start();
}
FileMeter::~FileMeter() { stop(); }

void FileMeter::run() {
  uint64_t random = fileSeed;
  uint32_t untilLook = 0;
  Packet packet;
  while (file_->next(packet)) {
    if (++untilLook == 4096) {
      untilLook = 0;
      if (stopped()) break;
      takeOrders();
      tellCounters();
      feeds_.fill(cache_, FlowFeed::blockFlows);
    }
    if (!orders_.expression.empty() && !chosen(packet)) continue;
    if (orders_.sampleRate > 1) {
      random = random * 6364136223846793005 + 1442695040888963407;
      if ((random >> 32) % orders_.sampleRate != 0) continue;
    }
    packetIs(packet, packet.interface);
  }
  settle();
  cache_.endAll(EndReason::forcedEnd);
}

/// Throws where the expression has no meaning for the packet's link layer.
bool FileMeter::chosen(const Packet& packet) {
  auto& program = programs_[packet.link];
  if (program.empty()) {
    PacketProgram compiled = compilePacketExpression(orders_.expression, packet.link);
    if (!compiled.problem.empty()) throw std::runtime_error("its filter: " + compiled.problem);
    program = std::move(compiled.code);
  }
  return chooses(program, packet);
}

}  // namespace agent::flow
