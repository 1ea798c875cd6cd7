#pragma once
#include <memory>

#include "platform/Platform.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/LinuxPlatformOptions.h"

namespace platform {

/// The platform of a Linux host: real sockets, the system's clock. `loop`, `trace` and `log` must
/// outlive it; it must outlive its endpoints.
std::unique_ptr<Platform> linuxPlatform(Ptr<EventLoop> loop, TraceSink& trace, LogSink& log,
                                        const LinuxPlatformOptions& options = {});

}  // namespace platform
