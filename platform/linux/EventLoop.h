#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/TaskScheduler.h"

namespace platform {

/// The agent's one thread: epoll for descriptors, a timerfd on the monotonic clock for tasks.
///
///   auto loop = eventLoopFactory();
///   auto watch = loop->fdWatch(fd, EPOLLIN, [](uint32_t events) { ... });
///   loop->run();                       // until stop()
///
/// One round: wait for descriptors or the next due task, run the handlers of the ready
/// descriptors, then the tasks that were due when the waiting ended; after each handler and each
/// task run the end-of-task hooks that were asked for inside it. Handlers have 10 ms of a round,
/// and tasks have 10 ms: what does not fit is left to the next round, which begins with it. So
/// neither waits for longer than the other's share and the one handler or body that exceeds it; a
/// handler of a descriptor that may be flooded returns after a few milliseconds of its own accord.
/// A handler may be called for a descriptor that is no longer ready: reads must not block.
/// Watches, hooks and tasks keep their loop alive.
class EventLoop : public TaskSchedulerRoot {
 public:
  /// A descriptor under watch; destroying it ends the watch, also from inside its own or another
  /// handler, and leaves the descriptor open. To be destroyed before the descriptor is closed.
  class FdWatch {
   public:
    virtual ~FdWatch() = default;
    /// EPOLLIN, EPOLLOUT or both; 0 keeps the watch but hears errors only.
    virtual void eventsIs(uint32_t events) = 0;
  };

  /// What is to run at the end of a handler or task. Destroying it takes it back; its own body may
  /// not.
  class EndHook {
   public:
    virtual ~EndHook() = default;
    /// Runs it once, however often it is asked for, when the handler or task under way is over;
    /// outside the loop, at the start of its next round. Asked for by a hook it waits for the next
    /// such end, or the start of the next round, which is then at once.
    virtual void ask() = 0;
  };

  /// Throws ErrnoException when epoll refuses the descriptor.
  virtual std::unique_ptr<FdWatch> fdWatch(int fd, uint32_t events,
                                           std::function<void(uint32_t events)> handler) = 0;
  /// Endpoints send there what gathered. `body` must not throw.
  virtual std::unique_ptr<EndHook> endHook(std::function<void()> body) = 0;

  /// Runs rounds until `stop`. Returns at once when `stop` was called before.
  virtual void run() = 0;
  /// Runs one round, waiting at most `maxWait` (negative: any time) for something to do. Neither
  /// may be called from inside a handler, task or hook.
  virtual void runOnce(Seconds maxWait) = 0;
  /// The round under way is the last of `run`.
  virtual void stop() = 0;
};

/// Throws ErrnoException when the kernel has no descriptor left.
Ptr<EventLoop> eventLoopFactory();

}  // namespace platform
