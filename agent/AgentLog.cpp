#include "agent/AgentLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "agent/Printable.h"

namespace agent {
namespace {

/// The journal says which file it reads as "<device>:<inode>"; standard error may lead elsewhere
/// all the same.
bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat st {};
  if (!stream || fstat(STDERR_FILENO, &st) < 0) return false;
  return std::to_string(st.st_dev) + ':' + std::to_string(st.st_ino) == stream;
}

std::string_view wordOf(Severity s) {
  switch (s) {
    case Severity::error:
      return "error";
    case Severity::warning:
      return "warning";
    case Severity::notice:
      return "notice";
    case Severity::info:
      return "info";
    default:
      return "debug";
  }
}

/// UTC, milliseconds.
std::string timeNow() {
  const auto now = std::chrono::system_clock::now();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  std::array<char, 32> text{};
  const size_t n = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &tm);
  std::snprintf(text.data() + n, text.size() - n, ".%03dZ", static_cast<int>(ms.count() % 1000));
  return text.data();
}

}  // namespace

AgentLog::AgentLog(Style style, Output output) : style_(style), output_(std::move(output)) {}

AgentLog AgentLog::standard() {
  return AgentLog(
      standardErrorIsJournal() ? Style::journal : Style::plain, [](std::string_view line) {
        // One call per line, so that lines of two processes do not mix. What the
        // other end does not take is lost: the agent does not wait for its log.
        [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
      });
}

void AgentLog::write(Severity severity, std::string_view word, std::string_view text) {
  std::string out;
  if (style_ == Style::journal) {
    out = '<' + std::to_string(static_cast<int>(severity)) + '>';
  } else {
    out = timeNow() + ' ';
    out += word;
    out += ' ';
  }
  out += printable(text);
  out += '\n';
  output_(out);
}

void AgentLog::say(Severity severity, std::string_view text) {
  write(severity, wordOf(severity), text);
}

void AgentLog::line(int level, std::string_view text) {
  if (!enabled(level)) return;
  const Severity severity = level <= TraceLevel::error   ? Severity::warning
                            : level < TraceLevel::detail ? Severity::info
                                                         : Severity::debug;
  write(severity, "trace" + std::to_string(level), text);
}

void AgentLog::log(const LogMessage& message, std::span<const std::string> args) {
  const auto severity = static_cast<Severity>(message.severity);
  say(severity, std::string(message.name) + ": " + logText(message, args));
}

int traceLevelFromText(std::string_view text) {
  if (text == "error") return TraceLevel::error;
  if (text == "event") return TraceLevel::event;
  if (text == "detail") return TraceLevel::detail;
  if (text == "packet") return TraceLevel::packet;
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') return text[0] - '0';
  return -1;
}

}  // namespace agent
