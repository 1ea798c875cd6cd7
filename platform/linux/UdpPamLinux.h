#pragma once
#include <string>

#include "platform/Trace.h"
#include "platform/UdpPam.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/LinuxPlatformOptions.h"

namespace platform {

/// An endpoint over one UDP socket of the kernel, sending through `loop`.
Ptr<UdpPam> udpPamLinux(const std::string& name, Ptr<EventLoop> loop, TraceSink& trace,
                        const LinuxPlatformOptions& options);

}  // namespace platform
