#include "agent/host/Readiness.h"

#include <utility>

#include "agent/host/Priorities.h"
#include "agent/host/ServiceManager.h"

namespace agent {
namespace {
constexpr Seconds settlePoll{0.01};
constexpr int settlePolls = 200;
constexpr Seconds statusDelay{0.2};
constexpr Seconds notifyDelay{0.1};  // until a message that found no room is sent again
constexpr Seconds heldDelay{10};     // until the log says how much it held back
}  // namespace

Readiness::Readiness(const Ptr<TaskScheduler>& scheduler, AgentLog& log)
    : log_(log),
      startedTask_(scheduler->timerTask("agent-started", afterAll, [this] { handleStarted(); })),
      statusTask_(scheduler->timerTask("agent-status", afterAll,
                                       [this] { ServiceManager::status(status_()); })),
      notifyTask_(scheduler->timerTask("agent-notify", afterAll, [] { ServiceManager::flush(); })),
      heldTask_(scheduler->timerTask("log-held", afterAll, [this] { log_.tellHeld(); })),
      watchdogTask_(
          scheduler->timerTask("agent-watchdog", afterAll, [this] { handleWatchdog(); })) {
  ServiceManager::queuedHandlerIs([this] { notifyTask_->scheduleLowestIs(notifyDelay); });
  log_.heldHandlerIs([this] { heldTask_->scheduleLowestIs(heldDelay); });
}
Readiness::~Readiness() {
  ServiceManager::queuedHandlerIs({});
  log_.heldHandlerIs({});
  log_.tellHeld();
}

void Readiness::start(std::function<bool()> settled, std::function<std::string()> status) {
  settled_ = std::move(settled);
  status_ = std::move(status);
  startedTask_->scheduleIs(Seconds(0));
  if (ServiceManager::watchdog().count() > 0) handleWatchdog();
}

void Readiness::handleStarted() {
  if (settled_) {
    const bool settled = settled_() || ++polls_ > settlePolls;
    if (settled) settled_ = nullptr;
    startedTask_->scheduleIs(settled ? Seconds(0) : settlePoll);
    return;
  }
  ready_ = true;
  ServiceManager::ready(status_());
}

void Readiness::statusChanged() {
  if (ready_) statusTask_->scheduleLowestIs(statusDelay);
}
void Readiness::reloaded() const {
  if (ready_) ServiceManager::ready(status_());
}

void Readiness::handleWatchdog() {
  ServiceManager::alive();
  watchdogTask_->scheduleIs(ServiceManager::watchdog() / 2);
}

}  // namespace agent
