#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace agent::flow {

/// Some flows under way as records of one layout.
struct FlowFeedBlock {
  uint8_t place = 0;  ///< the layout's, in the meter's plan
  size_t used = 0;    ///< octets
  int64_t nowMs = 0;  ///< when it was filled, by the packets' clock
  std::vector<char> octets;
};

/// Takes one meter's flows under way to the agent's thread: a ring of blocks without a lock, which
/// the meter's thread fills as long as there is room.
class FlowFeed {
 public:
  static constexpr size_t blockFlows = 1024;  ///< flows in a block, at most

  explicit FlowFeed(size_t recordLen) {
    for (auto& block : blocks_) block.octets.resize(blockFlows * recordLen);
  }

  // The meter's thread.
  /// Null: there is no room.
  FlowFeedBlock* room() {
    const uint32_t at = filled_.load(std::memory_order_relaxed);
    if (at - taken_.load(std::memory_order_acquire) == blocks_.size()) return nullptr;
    return &blocks_[at % blocks_.size()];
  }
  /// Hands over the block that `room` returned.
  void fill() { filled_.fetch_add(1, std::memory_order_release); }
  /// No block follows. `whole`: all flows were in the blocks.
  void end(bool whole) {
    whole_ = whole;
    ended_.store(true, std::memory_order_release);
  }

  // The agent's thread.
  /// The next block, or null; `release` it before the next one.
  const FlowFeedBlock* take() const {
    const uint32_t at = taken_.load(std::memory_order_relaxed);
    if (at == filled_.load(std::memory_order_acquire)) return nullptr;
    return &blocks_[at % blocks_.size()];
  }
  void release() { taken_.fetch_add(1, std::memory_order_release); }
  /// Once true, no block follows those that `take` finds from then on.
  bool ended() const { return ended_.load(std::memory_order_acquire); }
  bool whole() const { return whole_; }  ///< valid once `ended`

 private:
  std::array<FlowFeedBlock, 8> blocks_;
  std::atomic<uint32_t> filled_{0};
  std::atomic<uint32_t> taken_{0};
  bool whole_ = false;
  std::atomic<bool> ended_{false};
};
using FlowFeedPtr = std::shared_ptr<FlowFeed>;

}  // namespace agent::flow
