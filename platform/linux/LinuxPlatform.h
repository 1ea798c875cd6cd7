#pragma once
#include <memory>

#include "platform/Platform.h"
#include "platform/linux/EventLoop.h"

namespace platform {

struct LinuxPlatformOptions {
  /// Where network namespaces are mounted, as `ip netns` does.
  std::string netnsDir = "/run/netns";
  /// Datagrams that one endpoint may hold while its socket is full.
  size_t endpointQueueMax = 65536;
};

/// The platform of a Linux host: real sockets, the system's clock. `loop`, `trace` and `log` must
/// outlive it; it must outlive its endpoints.
std::unique_ptr<Platform> linuxPlatform(Ptr<EventLoop> loop, TraceSink& trace, LogSink& log,
                                        const LinuxPlatformOptions& options = {});

}  // namespace platform
