// What the Linux loop adds to the scheduler: descriptors, hooks, fairness between them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "platform/UdpPam.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/Fd.h"
#include "tests/unit/platform/Sinks.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

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
  static void busy(std::chrono::milliseconds d) {
    for (const auto end = Clock::now() + d; Clock::now() < end;) {
    }
  }
  std::unique_ptr<TimerTask> task(std::function<void()> body, TaskPriority priority = 2) {
    return loop->taskScheduler()->timerTask("t", priority, std::move(body));
  }
  Ptr<EventLoop> loop = eventLoopFactory();
};

TEST_F(Loop, ManyDueTasksLetDescriptorsIn) {
  Pipe p;
  int runs = 0;
  int runsBefore = -1;
  std::vector<std::unique_ptr<TimerTask>> tasks;
  for (int i = 0; i < 60; ++i) {
    tasks.push_back(task([&] {
      if (++runs == 1) p.fill();
      busy(2ms);
    }));
    tasks.back()->scheduleIs(0s);
  }
  auto watch = loop->fdWatch(p.in.get(), EPOLLIN, [&](uint32_t) {
    runsBefore = runs;
    p.drain();
  });
  while (runs < 60) loop->runOnce(1s);
  EXPECT_GE(runsBefore, 1);
  EXPECT_LE(runsBefore, 6) << "10 ms are five of these";
}

// Descriptors that are ready all the time, as those of flooded sockets are, and whose handlers take
// longer than a round's share, each or together.
TEST_F(Loop, DescriptorsThatAreAlwaysReadyLetTasksAndEachOtherIn) {
  struct Row {
    size_t count;
    std::chrono::milliseconds each;
  };
  for (const auto& [count, each] : {Row{1, 15ms}, Row{60, 4ms}}) {
    SCOPED_TRACE(count);
    std::vector<Pipe> pipes(count);
    std::vector<std::unique_ptr<EventLoop::FdWatch>> watches;
    std::vector<int> calls(count, 0);
    for (size_t i = 0; i < count; ++i) {
      pipes[i].fill();
      watches.push_back(loop->fdWatch(pipes[i].in.get(), EPOLLIN, [&, i, each = each](uint32_t) {
        ++calls[i];
        busy(each);
      }));
    }
    std::chrono::nanoseconds latest{0};
    auto due = Clock::now();
    std::unique_ptr<TimerTask> periodic = task([&] {
      latest = std::max<std::chrono::nanoseconds>(latest, Clock::now() - due);
      due = Clock::now() + 5ms;
      periodic->scheduleIs(5ms);
    });
    periodic->scheduleIs(0s);
    // A long body works for as long as the handlers did, though descriptors wait all the time.
    std::chrono::nanoseconds worked{0};
    std::unique_ptr<TimerTask> lengthy = task(
        [&] {
          const auto began = Clock::now();
          while (!lengthy->shouldYield()) {
          }
          worked = std::max<std::chrono::nanoseconds>(worked, Clock::now() - began);
          lengthy->scheduleIs(0s);
        },
        3);
    lengthy->scheduleIs(0s);
    for (const auto end = Clock::now() + 800ms; Clock::now() < end;) loop->runOnce(1s);
    EXPECT_LT(std::max<std::chrono::nanoseconds>(latest, Clock::now() - due), 500ms);
    EXPECT_GE(worked, 5ms);
    const auto [least, most] = std::minmax_element(calls.begin(), calls.end());
    EXPECT_LE(*most - *least, 1) << "all in turn";
  }
}

TEST_F(Loop, AWatchDestroyedInTheBatchHearsNothing) {
  // Both are ready in one batch; whichever handler comes first does it to the other.
  enum { own, other, anew, muted };
  for (const int how : {own, other, anew, muted}) {
    SCOPED_TRACE(how);
    Pipe pipes[2];
    std::unique_ptr<EventLoop::FdWatch> watches[2];
    int calls[2] = {0, 0};
    int late = 0;
    for (int i = 0; i < 2; ++i) {
      pipes[i].fill();
      const auto held = std::make_shared<int>(1);
      watches[i] = loop->fdWatch(pipes[i].in.get(), EPOLLIN, [&, i, held, how](uint32_t) {
        if (++calls[i] > 1) return;
        auto& victim = watches[how == own ? i : 1 - i];
        if (how == muted) {
          victim->eventsIs(0);
        } else {
          victim = nullptr;
        }
        if (how == anew)
          victim = loop->fdWatch(pipes[1 - i].in.get(), EPOLLIN, [&](uint32_t) { ++late; });
        EXPECT_EQ(*held, 1) << "a handler may destroy its own watch";
      });
    }
    loop->runOnce(0s);
    EXPECT_EQ(calls[0] + calls[1], how == own ? 2 : 1);
    EXPECT_EQ(late, 0) << "the event was its predecessor's";
    loop->runOnce(0s);  // what is left of the watches hears again: both pipes stay readable
    EXPECT_EQ(late, how == anew ? 1 : 0);
    EXPECT_EQ(calls[0] + calls[1], 2);
  }
}

TEST_F(Loop, HooksRunAtTheEndOfWhatAskedForThem) {
  std::string log;
  std::map<char, std::unique_ptr<EventLoop::EndHook>> hooks;
  for (const char name : std::string_view("abdho"))
    hooks[name] = loop->endHook([&log, name] { log += name; });
  hooks['c'] = loop->endHook([&] {
    log += "c";
    hooks['d']->ask();
    hooks['o'] = nullptr;  // asked for beside it, and taken back
  });
  Pipe p;
  p.fill();
  auto watch = loop->fdWatch(p.in.get(), EPOLLIN, [&](uint32_t) {
    p.drain();
    hooks['h']->ask();
    log += "H";
  });
  auto a = task([&] {
    for (const char name : std::string_view("aba")) hooks[name]->ask();
    log += "A";
  });
  auto b = task([&] {
    hooks['c']->ask();
    hooks['o']->ask();
    log += "B";
  });
  a->scheduleIs(0s);
  b->scheduleIs(0s);
  hooks['o']->ask();
  loop->runOnce(0s);
  EXPECT_EQ(log, "oHhAabBc");
  const auto start = Clock::now();
  loop->runOnce(30s);
  EXPECT_EQ(log, "oHhAabBcd");
  EXPECT_LT(Clock::now() - start, 10s) << "nothing waits behind a sleeping loop";
  hooks['a']->ask();
  hooks['a'] = nullptr;
  loop->runOnce(0s);
  EXPECT_EQ(log, "oHhAabBcd");
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
