#pragma once
#include <functional>
#include <memory>
#include <string>

#include "agent/host/AgentLog.h"
#include "platform/TaskScheduler.h"

namespace agent {

/// What a daemon reports while it runs: to the service manager that it is ready, how it fares and
/// that it lives, and to the log how many lines were held back.
class Readiness {
 public:
  Readiness(const Ptr<TaskScheduler>& scheduler, AgentLog& log);
  ~Readiness();

  /// The daemon is ready once `settled` and after one more round of the loop, in which what was
  /// found is acted on; or after 2 s, so that nothing which does not answer delays it longer.
  /// `status` is the line that the service manager shows.
  void start(std::function<bool()> settled, std::function<std::string()> status);
  /// There is another status. A daemon that is not ready yet tells it when it is.
  void statusChanged();
  /// A reload is over; the service manager was told that it began.
  void reloaded() const;

 private:
  void handleStarted();
  void handleWatchdog();

  AgentLog& log_;
  std::function<bool()> settled_;
  std::function<std::string()> status_;
  bool ready_ = false;  // and the service manager knows
  int polls_ = 0;
  const std::unique_ptr<TimerTask> startedTask_;
  const std::unique_ptr<TimerTask> statusTask_;
  const std::unique_ptr<TimerTask> notifyTask_;
  const std::unique_ptr<TimerTask> heldTask_;
  const std::unique_ptr<TimerTask> watchdogTask_;
};

}  // namespace agent
