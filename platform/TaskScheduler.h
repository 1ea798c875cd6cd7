#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/Entity.h"

namespace platform {

/// Urgency of a task among those that are due: a lower value runs first. The library uses 2.
using TaskPriority = uint8_t;
using Seconds = std::chrono::duration<double>;

/// A task that its owner schedules; idle when made. Its body runs on the scheduler's thread, never
/// inside the call that schedules it, once per scheduling. Destroying it stops it, also from
/// inside its own body.
class TARN_API TimerTask {
 public:
  TimerTask() = default;
  TimerTask(const TimerTask&) = delete;
  TimerTask& operator=(const TimerTask&) = delete;
  virtual ~TimerTask() = default;

  virtual const std::string& name() const = 0;
  /// Runs once after `delay`, in place of any pending run; never early. 0 or less: as soon as
  /// possible, which is one and the same time until the next round begins.
  virtual void scheduleIs(Seconds delay) = 0;
  /// The same, except that an earlier pending run is kept.
  virtual void scheduleLowestIs(Seconds delay) = 0;
  /// Drops the pending run, if any. A body under way finishes.
  virtual void stop() = 0;
  /// A run is pending. False inside the body until that schedules the task again.
  virtual bool scheduled() const = 0;
  /// The body is under way.
  virtual bool running() const = 0;
  /// For long loops inside a body: other work waits, or the body has had its share of time
  /// (10 ms, of which it has at least as much as the work before it took). Schedule again and
  /// return.
  virtual bool shouldYield() const = 0;
};

/// Runs tasks in the order of their due time, equal times by priority, equal priorities in the
/// order of scheduling. On Linux due times are whole milliseconds, rounded up. Time is monotonic:
/// setting the wall clock moves no task. A round runs what was due when it began; between two
/// rounds the thread's other work (sockets, signals) gets its turn, so a task that schedules itself
/// with delay 0 starves nobody.
class TARN_API TaskScheduler : public Entity {
 public:
  /// `body` must not throw. `name` appears in traces and in the control socket's listing.
  virtual std::unique_ptr<TimerTask> timerTask(std::string name, TaskPriority priority,
                                               std::function<void()> body) = 0;
};

/// A task of the reactor `sm`, a member of it: runs `body` while `sm` is not retired, and keeps
/// `sm` alive meanwhile.
template <class Sm>
std::unique_ptr<TimerTask> reactorTask(const Ptr<TaskScheduler>& scheduler, const std::string& name,
                                       TaskPriority priority, Sm& sm, void (Sm::*body)()) {
  return scheduler->timerTask(name, priority, [&sm, body] {
    if (sm.retired()) return;
    const Ptr<Sm> hold(&sm);
    (sm.*body)();
  });
}

inline std::string toText(const std::unique_ptr<TimerTask>& task) {
  return !task ? "null" : task->running() ? "running" : task->scheduled() ? "scheduled" : "idle";
}

/// What the agent hands to root reactors: the place to get the thread's scheduler from.
class TARN_API TaskSchedulerRoot : public Entity {
 public:
  virtual Ptr<TaskScheduler> taskScheduler() const = 0;
};

}  // namespace platform
