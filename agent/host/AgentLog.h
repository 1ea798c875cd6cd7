#pragma once
#include <chrono>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "platform/Trace.h"
#include "platform/linux/Fd.h"

namespace agent {
using namespace platform;

/// Severities as syslog's.
enum class Severity : int { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

/// Whom a line is about, as far as that is known: in the journal each is a field of its own
/// (TARN_TRACKER, TARN_EXPORTER, TARN_COLLECTOR, TARN_VRF), to search by.
struct LogFields {
  std::string_view tracker = {};
  std::string_view exporter = {};
  std::string_view collector = {};
  std::string_view vrf = {};
};

/// Where all that the agent and the library have to say goes, one line each: to the journal with
/// its fields; or as "<time> <level> <text>", or as "<N><text>" for a reader that knows the time
/// and takes the level off. Lines are printable whatever stands in them. The agent does not wait
/// for its log.
///
/// What goes wrong often is not told each time: of one kind of line `burst` are written, and then
/// one each `refill`; how many were held back is told with the next one, or by `tellHeld`. A kind
/// is one place in the agent's code, one named message, or what trace lines of level 0 begin with;
/// trace lines of other levels were asked for and are all written.
class AgentLog final : public TraceSink, public LogSink {
 public:
  enum class Style { plain, journal, fields };
  using Output = std::function<void(std::string_view line)>;  ///< gets lines with their newline
  using Clock = std::chrono::steady_clock;

  static constexpr size_t lineMax = 4096;  ///< PIPE_BUF: a pipe takes it whole or not at all
  static constexpr double burst = 50;
  static constexpr std::chrono::seconds refill{2};

  /// With `fields`, `output` gets in the journal's style what the journal does not take.
  explicit AgentLog(Style style, Output output);
  /// To standard error, or to the journal when that is where it leads.
  static AgentLog standard();

  /// What an operator is told, whatever the level. Leave out `line` and `file`.
  void say(Severity severity, std::string_view text, const LogFields& fields = {},
           int line = __builtin_LINE(), const char* file = __builtin_FILE());
  void error(std::string_view text, const LogFields& fields = {}, int line = __builtin_LINE(),
             const char* file = __builtin_FILE()) {
    say(Severity::error, text, fields, line, file);
  }
  void warning(std::string_view text, const LogFields& fields = {}, int line = __builtin_LINE(),
               const char* file = __builtin_FILE()) {
    say(Severity::warning, text, fields, line, file);
  }
  void info(std::string_view text, const LogFields& fields = {}, int line = __builtin_LINE(),
            const char* file = __builtin_FILE()) {
    say(Severity::info, text, fields, line, file);
  }
  /// The same, and never held back: what the operator waits for.
  void tell(Severity severity, std::string_view text) { write(severity, {}, text, {}); }

  /// Trace lines up to this level are written; -1: none.
  void levelIs(int level) { level_ = level; }
  int level() const { return level_; }
  bool enabled(int level) const override { return level <= level_; }
  void line(int level, std::string_view text) override;
  void log(const LogMessage& message, std::span<const std::string> args) override {
    log(message, args, {});
  }
  void log(const LogMessage& message, std::span<const std::string> args, const LogFields& fields);

  /// Writes how many lines of each kind were held back since that was told last. `handler` is
  /// called when the first one is, so that this can be called some time later.
  void tellHeld();
  void heldHandlerIs(std::function<void()> handler) { heldHandler_ = std::move(handler); }
  /// Another clock, for tests.
  void nowIs(std::function<Clock::time_point()> now) { now_ = std::move(now); }

 private:
  struct Kind {
    double tokens = burst;
    Clock::time_point filled;
    uint64_t held = 0;
    Clock::time_point heldSince;
    Severity severity = Severity::info;
    std::string lastHeld;
  };

  /// False: the line of this kind is held back, and counted.
  bool mayWrite(std::string_view kind, Severity severity, std::string_view text);
  void tellHeld(Kind& kind);
  /// `word` stands for the severity in the plain style; empty: its own.
  void write(Severity severity, std::string_view word, std::string_view text,
             const LogFields& fields, const LogMessage* message = nullptr);
  /// False: there is no journal.
  bool toJournal(Severity severity, std::string_view text, const LogFields& fields,
                 const LogMessage* message);

  Style style_;
  Output output_;
  Fd journal_;
  uint64_t lost_ = 0;  // lines that the journal did not take
  int level_ = TraceLevel::error;
  std::map<std::string, Kind, std::less<>> kinds_;
  std::function<void()> heldHandler_;
  std::function<Clock::time_point()> now_ = [] { return Clock::now(); };
};

/// A level's number from its number or name (error, event, detail, packet); -1: neither.
int traceLevelFromText(std::string_view text);

}  // namespace agent
