#include "platform/linux/OwnPorts.h"

#include <algorithm>
#include <optional>

namespace platform {
using Clock = std::chrono::steady_clock;

struct OwnPort {
  NetnsId netns;
  uint16_t port;
  std::optional<Clock::time_point> end;  // when it is forgotten, of one that was closed
};

namespace {
std::mutex mutex;  // guards what follows
std::list<OwnPort> all;
}  // namespace

OwnPorts::Use::Use(const NetnsId& netns, uint16_t port) {
  const std::lock_guard lock(mutex);
  at_ = all.insert(all.end(), {netns, port, {}});
  ++version_;
}
OwnPorts::Use::~Use() {
  const std::lock_guard lock(mutex);
  at_->end = Clock::now() + linger;
}

std::vector<uint16_t> OwnPorts::of(const NetnsId& netns) {
  std::vector<uint16_t> ports;
  const std::lock_guard lock(mutex);
  std::erase_if(all, [now = Clock::now()](const OwnPort& p) { return p.end && *p.end <= now; });
  for (const OwnPort& p : all)
    if (p.netns == netns) ports.push_back(p.port);
  std::sort(ports.begin(), ports.end());
  return ports;
}

}  // namespace platform
