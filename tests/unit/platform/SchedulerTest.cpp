// The task scheduler's contract, over both platforms; then the queue that both share against a
// plain model.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "platform/TimerQueue.h"
#include "tests/support/Random.h"
#include "tests/unit/platform/Host.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

class Scheduler : public testing::TestWithParam<HostKind> {
 protected:
  std::unique_ptr<TimerTask> task(
      const std::string& name, TaskPriority priority = 2, std::function<void()> more = [] {}) {
    return host->scheduler()->timerTask(name, priority, [this, name, more] {
      ran += name + ' ';
      more();
    });
  }
  const std::unique_ptr<Host> host = GetParam().make();
  std::string ran;
};

TEST_P(Scheduler, RunsByDueTimeThenPriorityThenOrderOfScheduling) {
  auto late = task("late", 0);
  auto mid = task("mid", 9);
  auto a = task("a"), b = task("b", 1), c = task("c"), d = task("d", 1), e = task("e");
  late->scheduleIs(12ms);
  mid->scheduleIs(6ms);
  a->scheduleIs(0ms);
  b->scheduleIs(0ms);
  c->scheduleIs(-5s);
  d->scheduleIs(0ms);
  e->scheduleIs(0ms);
  a->scheduleIs(0ms);  // again: its place is now the last
  EXPECT_EQ(ran, "") << "never inside the call that schedules";
  host->pass(20ms);
  EXPECT_EQ(ran, "b d c e a mid late ");
  std::unique_ptr<TimerTask> self = task("self", 0, [&] {
    EXPECT_TRUE(self->running() && !self->scheduled());
    EXPECT_FALSE(self->shouldYield()) << "the body has only begun";
    self = nullptr;
    b = nullptr;
  });
  ran.clear();
  self->scheduleIs(0s);
  b->scheduleIs(0s);
  host->pass(5ms);
  EXPECT_EQ(ran, "self ") << "a body may destroy any task";
}

INSTANTIATE_TEST_SUITE_P(On, Scheduler, testing::ValuesIn(hostKinds),
                         [](const auto& info) { return std::string(info.param.name); });

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
    const int ms = static_cast<int>(random_() % 5);
    const TimerQueue::Time at = ms == 0 ? roundTime_ : now_ + std::chrono::milliseconds(ms);
    switch (random_() % 5) {
      case 0:
      case 1:
        e.task->scheduleIs(std::chrono::milliseconds(ms));
        due(e, at);
        break;
      case 2:
        e.task->scheduleLowestIs(std::chrono::milliseconds(ms));
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
    now_ += std::chrono::milliseconds(random_() % 3);
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
  const Ptr<TimerQueue> queue_ = Ptr<TimerQueue>::adopt(new TimerQueue(*this, 1ns));
  std::map<int, Entry> entries_;
};

TEST(TimerQueue, AgreesWithAPlainModel) {
  support::eachSeed(20, [](unsigned seed) { Model(seed).run(2000); });
}

TEST(TimerQueue, RoundsDueTimesUpToItsGrain) {
  struct Clock final : TimerQueue::Host {
    TimerQueue::Time now() const override { return t; }
    bool shouldYield() const override { return false; }
    TimerQueue::Time t{1500us};
  } clock;
  auto queue = Ptr<TimerQueue>::adopt(new TimerQueue(clock, 1ms));
  std::string ran;
  auto a = queue->timerTask("a", 2, [&] { ran += 'a'; });
  auto b = queue->timerTask("b", 1, [&] { ran += 'b'; });
  a->scheduleIs(200us);
  clock.t += 100us;
  b->scheduleIs(300us);
  EXPECT_EQ(queue->nextDue(), TimerQueue::Time(2ms)) << "never early";
  queue->roundIs(2ms);
  while (queue->runNext()) {
  }
  EXPECT_EQ(ran, "ba");
  a->scheduleIs(Seconds(1e300));
  EXPECT_GT(*queue->nextDue(), 24h) << "no overflow";
  a->scheduleIs(Seconds(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_EQ(queue->nextDue(), TimerQueue::Time(2ms));
  queue->hostDel();
}

}  // namespace
