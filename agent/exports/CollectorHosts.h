#pragma once
#include <functional>
#include <memory>

#include "agent/exports/LibraryTrees.h"
#include "agent/network/Resolver.h"
#include "agent/settings/Settings.h"

namespace agent {

/// Follows the addresses of the hosts that collectors are given by. Looks all of them up again when
/// sending fails: what cannot be sent may be on its way to a host that is elsewhere by now.
class CollectorHosts {
 public:
  /// `changed` is called from the loop, once for all that changed in a round.
  CollectorHosts(const Ptr<EventLoop>& loop, AgentLog& log, const LibraryTrees& trees,
                 std::function<void()> changed);

  void follow(const Settings& settings);
  /// Calls `changed` in this round of the loop.
  void changedSoon() { changedTask_->scheduleIs(Seconds(0)); }
  const Resolver& resolver() const { return resolver_; }

 private:
  void handleSendErrors();

  const LibraryTrees& trees_;
  uint64_t sendErrors_ = 0;  // that the last look found
  const std::unique_ptr<TimerTask> changedTask_;
  const std::unique_ptr<TimerTask> sendErrorsTask_;
  Resolver resolver_;
};

}  // namespace agent
