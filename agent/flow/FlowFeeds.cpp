#include "agent/flow/FlowFeeds.h"

#include <algorithm>
#include <utility>

#include "agent/flow/FlowCache.h"

namespace agent::flow {

void FlowFeeds::add(FlowFeedPtr feed) {
  const std::lock_guard lock(mutex_);
  if (over_) return feed->end(false);
  new_.push_back(std::move(feed));
  fresh_ = true;
}

void FlowFeeds::takeFresh() {
  // Packets must not wait for the lock: if another thread has it, the next call tries again.
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return;
  for (FlowFeedPtr& feed : new_) walks_.push_back({std::move(feed)});
  new_.clear();
  fresh_ = false;
}

void FlowFeeds::fill(FlowCache& cache, size_t places) {
  if (!any()) return;
  if (fresh_) takeFresh();
  std::erase_if(walks_, [](const Walk& w) { return w.feed.use_count() == 1; });
  full_ = true;
  for (size_t tries = walks_.size(); tries > 0 && full_; --tries) {
    Walk& walk = walks_[turn_++ % walks_.size()];
    FlowFeedBlock* const block = walk.feed->room();
    if (!block) continue;
    full_ = false;
    const bool more = cache.feed(walk.table, walk.place, places, *block);
    if (block->used > 0) walk.feed->fill();
    if (more) continue;
    walk.feed->end(true);
    walks_.erase(walks_.begin() + (&walk - walks_.data()));
  }
}

void FlowFeeds::end() {
  const std::lock_guard lock(mutex_);
  over_ = true;
  for (const Walk& walk : walks_) walk.feed->end(false);
  for (const FlowFeedPtr& feed : new_) feed->end(false);
  walks_.clear();
  new_.clear();
}

}  // namespace agent::flow
