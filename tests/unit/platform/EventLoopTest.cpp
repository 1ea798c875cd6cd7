// The queue of tasks that both platforms share, against a plain model; and what the Linux loop adds
// to it: descriptors, hooks, fairness between them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <map>
#include <random>

#include "platform/TimerQueue.h"
#include "platform/UdpPam.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"
#include "tests/support/Random.h"
#include "tests/unit/platform/Sinks.h"

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

using Clock = std::chrono::steady_clock;

/// A pipe that is readable once `fill` was called, for as long as nobody reads.
struct Pipe {
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
      in = Fd(fds[0]);
      out = Fd(fds[1]);
    }
  }
  void fill() const { ASSERT_EQ(::write(out.get(), "x", 1), 1); }
  void drain() const {
    char c;
    while (::read(in.get(), &c, 1) == 1) {
    }
  }
  Fd in, out;
};

class Loop : public testing::Test {
 protected:
  /// What this thread has worked: other processes on the machine do not lengthen it.
  static std::chrono::nanoseconds worked() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
  }
  static void busy(std::chrono::milliseconds d) {
    for (const auto end = Clock::now() + d; Clock::now() < end;) {
    }
  }
  std::unique_ptr<TimerTask> task(std::function<void()> body, TaskPriority priority = 2) {
    return loop->taskScheduler()->timerTask("t", priority, std::move(body));
  }
  Ptr<EventLoop> loop = eventLoopFactory();
};

// Descriptors that are ready all the time, as those of flooded sockets are, and whose handlers take
// longer than a round's share, each or together; and tasks that are always due.
TEST_F(Loop, DescriptorsAndTasksLetEachOtherIn) {
  struct Row {
    size_t count;
    std::chrono::milliseconds each;
    size_t tasks;  // of 2 ms
  };
  for (const auto& [count, each, busyTasks] : {Row{1, 15ms, 0}, Row{60, 4ms, 0}, Row{1, 0ms, 60}}) {
    SCOPED_TRACE(each.count());
    int runs = 0, mostRuns = 0;  // of those tasks since a handler was called
    std::vector<std::unique_ptr<TimerTask>> tasks(busyTasks);
    for (auto& t : tasks) {
      t = task([&] {
        mostRuns = std::max(mostRuns, ++runs);
        busy(2ms);
        t->scheduleIs(0s);
      });
      t->scheduleIs(0s);
    }
    std::vector<Pipe> pipes(count);
    std::vector<std::unique_ptr<EventLoop::FdWatch>> watches;
    std::vector<int> calls(count, 0);
    for (size_t i = 0; i < count; ++i) {
      pipes[i].fill();
      watches.push_back(loop->fdWatch(pipes[i].in.get(), EPOLLIN, [&, i, each = each](uint32_t) {
        ++calls[i];
        runs = 0;
        busy(each);
      }));
    }
    std::chrono::nanoseconds latest{0};
    auto asked = worked();
    std::unique_ptr<TimerTask> periodic = task([&] {
      latest = std::max(latest, worked() - asked);
      asked = worked();
      periodic->scheduleIs(5ms);
    });
    periodic->scheduleIs(0s);
    // A long body works for as long as the handlers did, though descriptors wait all the time.
    std::chrono::nanoseconds longest{0};
    std::unique_ptr<TimerTask> lengthy = task(
        [&] {
          const auto began = Clock::now();
          while (!lengthy->shouldYield()) {
          }
          longest = std::max<std::chrono::nanoseconds>(longest, Clock::now() - began);
          lengthy->scheduleIs(0s);
        },
        3);
    lengthy->scheduleIs(0s);
    for (const auto end = worked() + 800ms; worked() < end;) loop->runOnce(1s);
    EXPECT_LT(std::max(latest, worked() - asked), 400ms);
    EXPECT_TRUE(longest >= 5ms || each == 0ms);
    EXPECT_LE(mostRuns, 6) << "10 ms are five of these";
    const auto [least, most] = std::minmax_element(calls.begin(), calls.end());
    EXPECT_LE(*most - *least, 1) << "all in turn";
  }
}

// Watches, tasks and hooks that change each other at random from wherever they are called.
TEST_F(Loop, CallsWhatIsThereAndHooksInTheirOrder) {
  struct Slot {
    Pipe pipe = {};
    std::unique_ptr<EventLoop::FdWatch> watch = {};
    int id = 0, born = 0, heard = 0;
    bool full = false, on = false;
  };
  support::eachSeed(200, [this](unsigned seed) {
    std::mt19937 random(seed);
    const auto pick = [&](size_t n) { return random() % n; };
    Slot slots[5];
    std::unique_ptr<EventLoop::EndHook> hooks[4];
    std::vector<size_t> asked, due;  // hooks that wait for the next end, and that run at this one
    size_t inHook = std::size(hooks);
    int round = 0, last = 0;
    bool quiet = false, begun = false;  // the round has called somebody
    std::function<void()> meddle;
    const auto called = [&] {
      EXPECT_TRUE(due.empty()) << "a hook did not run at its end";
      begun = true;
      meddle();
      due = std::exchange(asked, {});
    };
    const auto watch = [&](Slot& s) {
      const auto held = std::make_shared<int>(++last);
      s.on = true;
      s.id = last;
      s.born = begun ? round : round - 1;
      s.watch = loop->fdWatch(s.pipe.in.get(), EPOLLIN, [&, held](uint32_t) {
        EXPECT_TRUE(s.watch && s.on && s.id == *held);
        EXPECT_LT(s.born, round) << "the event was its predecessor's";
        ++s.heard;
        called();
        EXPECT_GT(*held, 0) << "a handler may destroy its own watch";
      });
    };
    const auto hook = [&](size_t h) {
      hooks[h] = loop->endHook([&, h] {
        ASSERT_TRUE(!due.empty() && due.front() == h);
        due.erase(due.begin());
        inHook = h;
        meddle();
        inHook = std::size(hooks);
      });
    };
    for (size_t h = 0; h < std::size(hooks); ++h) hook(h);
    meddle = [&] {
      for (size_t n = quiet ? 0 : pick(4); n > 0; --n) {
        Slot& s = slots[pick(std::size(slots))];
        const size_t what = pick(8), h = pick(std::size(hooks));
        if (what < 3) {
          s.watch = nullptr;
          if (what > 0) watch(s);
        } else if (what == 3 && s.watch) {
          s.watch->eventsIs((s.on = !s.on) ? uint32_t{EPOLLIN} : 0u);
        } else if (what == 4) {
          s.full = !s.full;
          s.full ? s.pipe.fill() : s.pipe.drain();
        } else if (what == 5 && h != inHook) {  // which is taken back
          hook(h);
          for (auto* list : {&asked, &due}) std::erase(*list, h);
        } else if (what > 5) {
          hooks[h]->ask();
          const bool waits = std::ranges::count(asked, h) + std::ranges::count(due, h) > 0;
          if (!waits) asked.push_back(h);
        }
      }
    };
    const std::unique_ptr<TimerTask> tasks[] = {task(called), task(called)};
    for (; round < 100; ++round) {
      for (Slot& s : slots) s.heard = 0;
      quiet = round % 10 == 0;
      for (const auto& t : tasks)
        if (pick(2)) t->scheduleIs(0s);
      begun = false;
      meddle();  // from outside the loop, too
      due = std::exchange(asked, {});
      loop->runOnce(due.empty() ? 0s : 30s);  // and does not sleep in front of a hook
      EXPECT_TRUE(due.empty());
      const auto missed = [](const Slot& s) { return s.watch && s.on && s.full && s.heard == 0; };
      for (int more = quiet ? 100 : 0; more > 0 && std::ranges::any_of(slots, missed); --more)
        loop->runOnce(0s);  // what does not fit into a round's share on a busy machine
      EXPECT_TRUE(!quiet || std::ranges::none_of(slots, missed));
    }
  });
}

TEST_F(Loop, WaitsForTheDueTimeAndNoLess) {
  for (const auto delay : {1ms, 3ms, 17ms}) {
    bool ran = false;
    auto t = task([&] { ran = true; });
    const auto start = Clock::now();
    t->scheduleIs(delay);
    int rounds = 0;
    while (!ran) {
      loop->runOnce(1h);
      ++rounds;
    }
    EXPECT_GE(Clock::now() - start, delay);
    EXPECT_LE(rounds, 3) << "it sleeps in between";
    loop->runOnce(delay);
    EXPECT_GE(Clock::now() - start, 2 * delay - 1ms);
  }
}

TEST_F(Loop, RefusesAndOutlivesWhatItMust) {
  Pipe p;
  EXPECT_EQ(errorOf([&] { loop->fdWatch(-1, EPOLLIN, [](uint32_t) {}); }), EBADF);
  auto watch = loop->fdWatch(p.in.get(), EPOLLIN, [](uint32_t) {});
  EXPECT_EQ(errorOf([&] { auto twice = loop->fdWatch(p.in.get(), EPOLLIN, [](uint32_t) {}); }),
            EEXIST);
  auto t = task([] {});
  t->scheduleIs(0s);
  auto scheduler = loop->taskScheduler();
  loop = nullptr;
  watch->eventsIs(0);
  watch = nullptr;  // the last to hold the loop
  t->scheduleIs(1s);
  EXPECT_TRUE(t->scheduled()) << "and never runs";
  EXPECT_FALSE(t->shouldYield());
}

}  // namespace
