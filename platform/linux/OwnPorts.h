#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "platform/linux/Netns.h"

namespace platform {

struct OwnPort;

/// The UDP ports of this process's endpoints, by network namespace: who captures packets can leave
/// out those that the process sends itself. For any thread.
class OwnPorts {
 public:
  /// What an endpoint sent last may still wait in a capture when it closes, so its port stays here
  /// for so long.
  static constexpr std::chrono::seconds linger{2};

  /// Of an endpoint, while it has the port.
  class Use {
   public:
    Use(const NetnsId& netns, uint16_t port);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

   private:
    std::list<OwnPort>::iterator at_;
  };

  /// Another one with each new port.
  static uint64_t version() { return version_.load(std::memory_order_acquire); }
  /// Sorted.
  static std::vector<uint16_t> of(const NetnsId& netns);

 private:
  inline static std::atomic<uint64_t> version_{1};
};

}  // namespace platform
