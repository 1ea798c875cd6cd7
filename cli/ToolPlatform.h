#pragma once
#include "cli/text/Text.h"
#include "platform/Platform.h"

namespace cli {

/// What the library asks of its host, as far as the tool needs it: a clock. The tool has no
/// endpoints, and what the library traces or logs is dropped.
class ToolPlatform final : public platform::Platform {
 public:
  platform::Ptr<platform::UdpPam> udpPam(const std::string&) override {
    throw platform::ErrnoException(EOPNOTSUPP, "the tool has no endpoints");
  }
  const platform::Clock& clock() const override { return clock_; }
  platform::TraceSink& trace() override { return trace_; }
  platform::LogSink& log() override { return log_; }

 private:
  struct SystemClock : platform::Clock {
    double now() const override { return utcNow(); }
  };
  struct NoTrace : platform::TraceSink {
    bool enabled(int) const override { return false; }
    void line(int, std::string_view) override {}
  };
  struct NoLog : platform::LogSink {
    void log(const platform::LogMessage&, std::span<const std::string>) override {}
  };
  SystemClock clock_;
  NoTrace trace_;
  NoLog log_;
};

}  // namespace cli
