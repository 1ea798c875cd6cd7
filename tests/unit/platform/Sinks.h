#pragma once
#include <functional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/Trace.h"
#include "platform/UdpPam.h"

/// Keeps the trace lines of level 0.
struct Lines final : platform::TraceSink {
  bool enabled(int level) const override { return level <= platform::TraceLevel::error; }
  void line(int level, std::string_view text) override {
    if (enabled(level)) all.emplace_back(text);
  }
  std::vector<std::string> all;
};
/// The errno that `f` throws; 0: none.
inline int errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const platform::ErrnoException& e) {
    return e.code().value();
  }
  return 0;
}
struct NoLog final : platform::LogSink {
  void log(const platform::LogMessage&, std::span<const std::string>) override {}
};
