#pragma once
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/control/ControlAnswers.h"
#include "agent/host/AgentLog.h"
#include "agent/settings/Settings.h"
#include "platform/Platform.h"
#include "platform/linux/EventLoop.h"

namespace agent {

struct AgentOptions {
  std::string configFile;  ///< empty: the embedded default
  std::string netnsDir = "/run/netns";
  /// A capture whose packets the software trackers see; empty: they see the interfaces'.
  std::string readFile = {};
};

/// The life of the running agent: it starts, is reloaded, finishes and stops.
///
///   Agent agent(loop, log, options);
///   if (!agent.start()) return 1;   // it said why
///   loop->run();                    // reload() from inside, as often as asked, and finish()
///   agent.stop();
class Agent {
 public:
  Agent(Ptr<EventLoop> loop, AgentLog& log, AgentOptions options);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Reads the configuration and starts on it. False: the reasons are in the log, and nothing runs.
  bool start();
  /// Reads the configuration again. A valid one is applied by difference; an invalid one changes
  /// nothing. What happened is in the log and returned.
  ReloadOutcome reload();
  /// Reports the flows under way at the exporters' pace, for some seconds at most, and stops the
  /// loop. Asked for again, at once.
  void finish();
  /// Releases the library's reactors, then what they stood on. Nothing after the first time.
  void stop();

  /// After `stop`: a file was to be read, and what was exported is not all of it.
  bool fileFailed() const { return fileFailed_; }

 private:
  struct Parts;

  std::optional<Settings> readConfig(std::vector<std::string>* errors = nullptr) const;
  std::string configName() const;
  void startControl(const std::string& path);
  void applyReload(const Settings& settings, ReloadOutcome& outcome);

  const Ptr<EventLoop> loop_;
  AgentLog& log_;
  const AgentOptions options_;
  bool finishing_ = false;
  bool fileFailed_ = false;
  std::unique_ptr<Platform> platform_;
  std::unique_ptr<Parts> parts_;  // null: nothing runs
};

}  // namespace agent
