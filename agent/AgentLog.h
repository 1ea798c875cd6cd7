#pragma once
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "platform/Trace.h"

namespace agent {
using namespace platform;

/// Severities as syslog's.
enum class Severity : int { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

/// Where all that the agent and the library have to say goes, one line each: "<time> <level>
/// <text>", or "<N><text>" for the journal, which has its own time and level. Lines are printable
/// whatever stands in them.
class AgentLog final : public TraceSink, public LogSink {
 public:
  enum class Style { plain, journal };
  using Output = std::function<void(std::string_view line)>;  ///< gets lines with their newline

  explicit AgentLog(Style style, Output output);
  /// To standard error, in the journal's style when that is where it leads.
  static AgentLog standard();

  /// What an operator is told, whatever the level.
  void say(Severity severity, std::string_view text);
  void error(std::string_view text) { say(Severity::error, text); }
  void warning(std::string_view text) { say(Severity::warning, text); }
  void info(std::string_view text) { say(Severity::info, text); }

  /// Trace lines up to this level are written; -1: none.
  void levelIs(int level) { level_ = level; }
  int level() const { return level_; }
  bool enabled(int level) const override { return level <= level_; }
  void line(int level, std::string_view text) override;
  void log(const LogMessage& message, std::span<const std::string> args) override;

 private:
  void write(Severity severity, std::string_view word, std::string_view text);

  Style style_;
  Output output_;
  int level_ = TraceLevel::error;
};

/// A level's number from its number or name (error, event, detail, packet); -1: neither.
int traceLevelFromText(std::string_view text);

}  // namespace agent
