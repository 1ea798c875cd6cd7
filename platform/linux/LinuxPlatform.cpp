#include "platform/linux/LinuxPlatform.h"

#include <time.h>

#include "platform/linux/UdpPamLinux.h"

namespace platform {
namespace {

class RealtimeClock final : public Clock {
 public:
  double now() const override {
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
  }
  /// As of the kernel's last tick, for a tenth of what reading the hardware's clock takes.
  uint32_t nowU32() const override { return static_cast<uint32_t>(::time(nullptr)); }
};

class LinuxPlatform final : public Platform {
 public:
  LinuxPlatform(Ptr<EventLoop> loop, TraceSink& trace, LogSink& log,
                const LinuxPlatformOptions& options)
      : loop_(std::move(loop)), trace_(trace), log_(log), options_(options) {}

  Ptr<UdpPam> udpPam(const std::string& name) override {
    return udpPamLinux(name, loop_, trace_, options_);
  }
  const Clock& clock() const override { return clock_; }
  TraceSink& trace() override { return trace_; }
  LogSink& log() override { return log_; }

 private:
  const Ptr<EventLoop> loop_;
  TraceSink& trace_;
  LogSink& log_;
  const LinuxPlatformOptions options_;
  const RealtimeClock clock_;
};

}  // namespace

std::unique_ptr<Platform> linuxPlatform(Ptr<EventLoop> loop, TraceSink& trace, LogSink& log,
                                        const LinuxPlatformOptions& options) {
  return std::make_unique<LinuxPlatform>(std::move(loop), trace, log, options);
}

}  // namespace platform
