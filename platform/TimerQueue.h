#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "platform/TaskScheduler.h"

namespace platform {

/// The task scheduler without a clock or an operating system: the order of tasks, rounds, and what
/// a body may do to its own and other tasks. A host that knows the time drives it; the Linux and
/// the simulated platform both do. Scheduling and stopping cost O(log n) and, from a task's second
/// time on, no allocation. Tasks keep their queue alive.
class TimerQueue final : public TaskScheduler {
 public:
  using Time = std::chrono::nanoseconds;  ///< since whatever the host counts from

  class Host {
   public:
    virtual ~Host() = default;
    virtual Time now() const = 0;
    /// Asked on behalf of the body under way.
    virtual bool shouldYield() const = 0;
  };

  /// Due times are rounded up to multiples of `grain`, so that a clock that never shows the same
  /// time twice still has equal times, and priority its meaning. One nanosecond: kept as they are.
  TimerQueue(Host& host, Time grain) : host_(&host), grain_(grain) {}
  /// The host is going away: tasks can still be scheduled, and never run.
  void hostDel() { host_ = nullptr; }

  std::unique_ptr<TimerTask> timerTask(std::string name, TaskPriority priority,
                                       std::function<void()> body) override;

  /// When the next pending task is due; nothing when none is pending.
  std::optional<Time> nextDue() const;
  /// Begins a round: `runNext` then runs what is due now, and nothing that is scheduled later on.
  /// "As soon as possible" means this time until the next round begins.
  void roundIs(Time now);
  /// Runs one task of the round; false when none is left.
  bool runNext();
  /// A body is under way.
  bool running() const { return running_ != nullptr; }

  AttrRows attrRows() const override;

 private:
  class Task;
  /// A run. What decides on its turn stands beside it: tasks are far from each other in memory.
  struct Run {
    Time due{0};
    TaskPriority priority = 0;
    uint64_t seq = UINT64_MAX;
    Task* task = nullptr;
    bool operator<(const Run& o) const;
  };
  using Pending = std::set<Run>;

  Time dueAfter(Seconds delay) const;

  Host* host_;
  const Time grain_;
  Time round_{0};
  uint64_t roundSeq_ = 0;  // tasks scheduled at or after this number wait for the next round
  uint64_t nextSeq_ = 0;
  Task* running_ = nullptr;  // null also once the task under way has been destroyed
  Pending pending_;
};

}  // namespace platform
