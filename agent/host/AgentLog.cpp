#include "agent/host/AgentLog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "agent/host/Printable.h"

namespace agent {
namespace {

constexpr size_t prefixMax = 64;  // octets of time, severity and newline around a line's text
constexpr std::string_view journalSocket = "/run/systemd/journal/socket";

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

/// Writes to standard error without ever waiting for its reader: what does not fit is lost. The
/// descriptor itself stays as it is, because its O_NONBLOCK would be every other process's that
/// shares it; a pipe or a terminal is opened once more instead.
class StandardError {
 public:
  StandardError() {
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) < 0) return;
    socket_ = S_ISSOCK(st.st_mode);
    if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode))
      own_ = Fd(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  }
  /// One call per line, so that lines of two processes do not mix.
  void write(std::string_view line) const {
    ssize_t n = 0;
    if (socket_) {
      n = send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } else if (own_) {
      n = ::write(own_.get(), line.data(), line.size());
    } else {
      // A file never waits; a pipe of another user has room for a line if it has any.
      pollfd room{STDERR_FILENO, POLLOUT, 0};
      if (poll(&room, 1, 0) != 0) n = ::write(STDERR_FILENO, line.data(), line.size());
    }
    static_cast<void>(n);
  }

 private:
  bool socket_ = false;
  Fd own_;
};

}  // namespace

AgentLog::AgentLog(Style style, Output output) : style_(style), output_(std::move(output)) {}

AgentLog AgentLog::standard() {
  return AgentLog(
      standardErrorIsJournal() ? Style::fields : Style::plain,
      [to = std::make_shared<StandardError>()](std::string_view line) { to->write(line); });
}

/// A field per name that is known, as the journal's own protocol has them
/// (https://systemd.io/JOURNAL_NATIVE_PROTOCOL): values are lines, since they are printable.
/// sd_journal_sendv would do the same but wait for a journal that is behind, and exports with it;
/// here its line is lost, and how many were is told when the journal takes lines again.
bool AgentLog::toJournal(Severity severity, std::string_view text, const LogFields& fields,
                         const LogMessage* message) {
  if (!journal_) journal_ = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  journalSocket.copy(to.sun_path, sizeof to.sun_path - 1);
  const auto send = [&](const std::string& entry) {
    return sendto(journal_.get(), entry.data(), entry.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
  };
  const auto start = [](Severity s, std::string_view line) {
    return "MESSAGE=" + std::string(line) + "\nPRIORITY=" + std::to_string(static_cast<int>(s)) +
           "\nSYSLOG_IDENTIFIER=tarnflowd\n";
  };
  if (lost_ > 0 &&
      send(start(Severity::warning,
                 "the journal was behind: " + std::to_string(lost_) + " lines before are lost")))
    lost_ = 0;
  std::string entry = start(severity, text);
  const auto add = [&](const char* name, std::string_view value) {
    if (!value.empty()) entry += name + ('=' + printable(value)) + '\n';
  };
  add("TARN_TRACKER", fields.tracker);
  add("TARN_EXPORTER", fields.exporter);
  add("TARN_COLLECTOR", fields.collector);
  add("TARN_VRF", fields.vrf);
  if (message) {
    add("TARN_MESSAGE", message->name);
    add("TARN_EXPLANATION", message->explanation);
    add("TARN_ACTION", message->recommendedAction);
  }
  if (send(entry)) return true;
  if (errno != EAGAIN && errno != ENOBUFS) return false;
  ++lost_;
  return true;
}

void AgentLog::write(Severity severity, std::string_view word, std::string_view text,
                     const LogFields& fields, const LogMessage* message) {
  const std::string clean = printable(text, lineMax - prefixMax);
  if (style_ == Style::fields && toJournal(severity, clean, fields, message)) return;
  std::string out;
  if (style_ == Style::plain) {
    out = timeNow() + ' ';
    out += word.empty() ? wordOf(severity) : word;
    out += ' ';
  } else {
    out = '<' + std::to_string(static_cast<int>(severity)) + '>';
  }
  out += clean;
  out += '\n';
  output_(out);
}

bool AgentLog::mayWrite(std::string_view name, Severity severity, std::string_view text) {
  // What trace lines begin with could be anything: at some point all others are one kind.
  constexpr size_t kindsMax = 256;
  auto it = kinds_.find(name);
  const auto now = now_();
  if (it == kinds_.end()) {
    it = kinds_.try_emplace(kinds_.size() < kindsMax ? std::string(name) : "others").first;
    if (it->second.filled == Clock::time_point()) it->second.filled = now;
  }
  Kind& kind = it->second;
  const std::chrono::duration<double> since = now - kind.filled;
  kind.tokens = std::min(burst, kind.tokens + since / refill);
  kind.filled = now;
  if (kind.tokens >= 1) {
    kind.tokens -= 1;
    tellHeld(kind);
    return true;
  }
  const bool first =
      std::none_of(kinds_.begin(), kinds_.end(), [](const auto& k) { return k.second.held > 0; });
  if (kind.held++ == 0) kind.heldSince = now;
  kind.severity = severity;
  kind.lastHeld = text;
  if (first && heldHandler_) heldHandler_();
  return false;
}

void AgentLog::tellHeld(Kind& kind) {
  if (kind.held == 0) return;
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(now_() - kind.heldSince).count();
  write(kind.severity, {},
        "held back within " + std::to_string(seconds) + " s: " + std::to_string(kind.held) +
            (kind.held == 1 ? " line: " : " lines of one kind, the last: ") + kind.lastHeld,
        {});
  kind.held = 0;
  kind.lastHeld.clear();
}
void AgentLog::tellHeld() {
  for (auto& [name, kind] : kinds_) tellHeld(kind);
}

void AgentLog::say(Severity severity, std::string_view text, const LogFields& fields, int line,
                   const char* file) {
  if (mayWrite(std::string(file) + ':' + std::to_string(line), severity, text))
    write(severity, {}, text, fields);
}

namespace {
/// "Class::" where the line begins with one; else two words behind the name of who speaks.
std::string_view kindOfTrace(std::string_view text) {
  if (const size_t end = text.substr(0, text.find(' ')).find("::"); end != text.npos)
    return text.substr(0, end);
  size_t at = text.find(": ");
  at = at == text.npos ? 0 : at + 2;
  const size_t word = text.find(' ', at);
  const size_t end = word == text.npos ? word : text.find(' ', word + 1);
  return text.substr(at, end == text.npos ? end : end - at);
}
}  // namespace

void AgentLog::line(int level, std::string_view text) {
  if (!enabled(level)) return;
  const Severity severity = level <= TraceLevel::error   ? Severity::warning
                            : level < TraceLevel::detail ? Severity::info
                                                         : Severity::debug;
  if (level > TraceLevel::error || mayWrite(kindOfTrace(text), severity, text))
    write(severity, "trace" + std::to_string(level), text, {});
}

void AgentLog::log(const LogMessage& message, std::span<const std::string> args,
                   const LogFields& fields) {
  const auto severity = static_cast<Severity>(message.severity);
  const std::string text = std::string(message.name) + ": " + logText(message, args);
  if (mayWrite(message.name, severity, text)) write(severity, {}, text, fields, &message);
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
