#pragma once
#include <atomic>
#include <mutex>
#include <vector>

#include "agent/flow/FlowFeed.h"

namespace agent::flow {

class FlowCache;

/// A meter's feeds. The meter's thread fills them between packets, a bounded number of flows at a
/// time, and forgets a feed when nobody else holds it any more.
class FlowFeeds {
 public:
  /// Any thread.
  void add(FlowFeedPtr feed);

  // The meter's thread.
  /// Writes the flows in the next `places` places of the cache to one feed. Several take turns.
  void fill(FlowCache& cache, size_t places);
  /// There are feeds to fill. Costs next to nothing.
  bool any() const { return !walks_.empty() || fresh_.load(std::memory_order_relaxed); }
  /// How long, in milliseconds, the thread may sleep until it calls `fill` again; at most `most`.
  int sleepMs(int most) const { return !any() ? most : full_ ? 2 : 0; }
  /// Ends all feeds, and those that are added later, as not whole.
  void end();

 private:
  /// A feed, and where in the cache its next flows are.
  struct Walk {
    FlowFeedPtr feed;
    size_t table = 0;
    size_t place = 0;
  };
  void takeFresh();

  std::vector<Walk> walks_;
  size_t turn_ = 0;
  bool full_ = false;  // no feed had room in the last `fill`
  std::atomic<bool> fresh_{false};
  std::mutex mutex_;  // guards what follows
  std::vector<FlowFeedPtr> new_;
  bool over_ = false;
};

}  // namespace agent::flow
