// The queue of tasks that both platforms share, against a plain model.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "platform/TimerQueue.h"
#include "tests/support/Random.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

/// A queue under random operations, from outside and from inside bodies, against a list that is
/// searched from end to end.
class Model : public TimerQueue::Host {
 public:
  explicit Model(unsigned seed) : random_(seed) {}
  ~Model() override { queue_->hostDel(); }
  TimerQueue::Time now() const override { return now_; }
  bool shouldYield() const override { return false; }

  void run(int steps) {
    queue_->roundIs(now_);
    for (int i = 0; i < steps; ++i) {
      change();
      if (random_() % 4 == 0) round();
    }
  }

 private:
  struct Entry {
    std::unique_ptr<TimerTask> task;
    TaskPriority priority = 0;
    bool pending = false;
    TimerQueue::Time due{0};
    uint64_t seq = 0;
  };

  static constexpr auto never = TimerQueue::Time::max();

  void due(Entry& e, TimerQueue::Time at) {
    e.pending = true;
    e.due = at;
    e.seq = seq_++;
  }
  void change() {
    const int id = static_cast<int>(random_() % 12);
    auto it = entries_.find(id);
    if (it == entries_.end()) {
      Entry& e = entries_[id];
      e.priority = static_cast<TaskPriority>(random_() % 3);
      const auto held = std::make_shared<int>(id);  // until the body returns, whatever it destroys
      e.task = queue_->timerTask(std::to_string(id), e.priority, [this, held] {
        body(*held);
        ASSERT_GE(held.use_count(), 1);
      });
      return;
    }
    Entry& e = it->second;
    const Seconds delays[] = {0us, -5s, Seconds(std::nan("")), 700us, 1ms, 2200us, Seconds(1e300)};
    const Seconds delay = delays[random_() % std::size(delays)];
    TimerQueue::Time at = roundTime_;
    if (delay > 1h) at = never;
    if (delay > 0s && delay < 1h)
      at = std::chrono::ceil<std::chrono::milliseconds>(
          now_ + std::chrono::round<TimerQueue::Time>(delay));
    switch (random_() % 5) {
      case 0:
      case 1:
        e.task->scheduleIs(delay);
        due(e, at);
        break;
      case 2:
        e.task->scheduleLowestIs(delay);
        if (!e.pending || at < e.due) due(e, at);
        break;
      case 3:
        e.task->stop();
        e.pending = false;
        break;
      case 4:
        entries_.erase(it);
        break;
    }
  }
  void body(int id) {
    got_ = id;
    auto it = entries_.find(id);
    ASSERT_NE(it, entries_.end()) << "a destroyed task ran";
    it->second.pending = false;
    for (const auto& [other, e] : entries_) ASSERT_EQ(e.task->running(), other == id);
    for (unsigned n = random_() % 4; n > 0; --n) change();
  }
  int expected() const {
    const Entry* best = nullptr;
    int id = -1;
    for (const auto& [i, e] : entries_) {
      if (!e.pending || e.due > roundTime_ || e.seq >= roundSeq_) continue;
      if (best &&
          std::tie(best->due, best->priority, best->seq) < std::tie(e.due, e.priority, e.seq))
        continue;
      best = &e;
      id = i;
    }
    return id;
  }
  void round() {
    now_ += std::chrono::microseconds(random_() % 3000);
    auto first = never;
    for (const auto& [id, e] : entries_)
      if (e.pending) first = std::min(first, e.due);
    const auto next = queue_->nextDue().value_or(never);
    ASSERT_TRUE(next == first || (first == never && next > now_ + 24h));
    roundTime_ = now_;
    roundSeq_ = seq_;
    queue_->roundIs(now_);
    for (;;) {
      const int want = expected();
      got_ = -1;
      const bool ran = queue_->runNext();
      ASSERT_EQ(ran, want >= 0);
      ASSERT_EQ(got_, want);
      for (const auto& [id, e] : entries_) ASSERT_EQ(e.task->scheduled(), e.pending) << id;
      if (!ran) break;
    }
  }

  std::mt19937 random_;
  TimerQueue::Time now_{0};
  TimerQueue::Time roundTime_{0};
  uint64_t seq_ = 0;
  uint64_t roundSeq_ = 0;
  int got_ = -1;
  const Ptr<TimerQueue> queue_ = Ptr<TimerQueue>::adopt(new TimerQueue(*this, 1ms));
  std::map<int, Entry> entries_;
};

TEST(TimerQueue, AgreesWithAPlainModel) {
  support::eachSeed(20, [](unsigned seed) { Model(seed).run(2000); });
}

}  // namespace
