#pragma once
#include <span>
#include <string>
#include <string_view>

#include "platform/Api.h"

namespace platform {

/// A named log message: what an operator is told, with what it means and what to do.
struct LogMessage {
  std::string_view name;
  int severity;             ///< as syslog's: 3 error, 4 warning, 5 notice, 6 informational
  std::string_view format;  ///< each "%s" takes the next argument
  std::string_view explanation;
  std::string_view recommendedAction;  ///< empty: none
};

/// The message's text with its arguments in place.
TARN_API std::string logText(const LogMessage& message, std::span<const std::string> args);

class TARN_API LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void log(const LogMessage& message, std::span<const std::string> args) = 0;
};

}  // namespace platform
