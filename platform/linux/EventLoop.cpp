#include "platform/linux/EventLoop.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <utility>

#include "platform/Assert.h"
#include "platform/TimerQueue.h"
#include "platform/UdpPam.h"
#include "platform/linux/Fd.h"

namespace platform {
namespace {

using Time = TimerQueue::Time;
using namespace std::chrono_literals;

constexpr Time grain = 1ms;
/// How long the handlers of one round may take before tasks get their turn, the tasks of one round
/// before handlers do, and one body before other tasks do.
constexpr Time share = 10ms;
/// A body that asks to yield in a tight loop makes no more system calls than this.
constexpr Time pollEvery = 250us;

Time monotonicNow() {
  timespec t{};
  ::clock_gettime(CLOCK_MONOTONIC, &t);
  return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
}

Fd opened(int fd, const char* what) {
  if (fd < 0) throw ErrnoException(errno, what);
  return Fd(fd);
}

class EpollLoop final : public EventLoop, private TimerQueue::Host {
 public:
  EpollLoop()
      : epoll_(opened(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
        timer_(opened(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC),
                      "timerfd_create")),
        tasks_(Ptr<TimerQueue>::adopt(new TimerQueue(*this, grain))) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = nullptr;  // the timer is the one without a watch
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer_.get(), &ev) != 0)
      throw ErrnoException(errno, "epoll_ctl");
  }
  ~EpollLoop() override { tasks_->hostDel(); }

  Ptr<TaskScheduler> taskScheduler() const override { return tasks_; }
  std::unique_ptr<FdWatch> fdWatch(int fd, uint32_t events,
                                   std::function<void(uint32_t)> handler) override;
  std::unique_ptr<EndHook> endHook(std::function<void()> body) override;

  void run() override {
    while (!stopped_) runOnce(Seconds(-1));
    stopped_ = false;
  }
  void runOnce(Seconds maxWait) override;
  void stop() override { stopped_ = true; }
  AttrRows attrRows() const override {
    static constexpr AttrRow rows[] = {childRow<&EpollLoop::taskScheduler>("taskScheduler")};
    return rows;
  }

 private:
  class Watch;
  class Hook;

  Time now() const override { return monotonicNow(); }
  bool shouldYield() const override;
  void waitForEvents(int timeoutMs);
  void runHandlers(Time began);
  void runHooks();
  void armTimer(Time due);

  const Fd epoll_;
  const Fd timer_;
  const Ptr<TimerQueue> tasks_;
  Time armed_{0};                    // what the timer is set to; 0: not set
  std::vector<Hook*> hooks_;         // asked for; null: taken back
  std::vector<Hook*> runningHooks_;  // those whose turn it is; empty between
  bool inRound_ = false;
  bool stopped_ = false;

  // The batch of events under way, which may last for several rounds, and the watch whose handler
  // is running.
  std::array<epoll_event, 128> events_;
  size_t next_ = 0;
  size_t count_ = 0;
  Watch* running_ = nullptr;

  Time handlersTook_{0};  // in the round under way
  Time bodyStart_{0};
  mutable Time lastPoll_{0};
};

class EpollLoop::Watch final : public FdWatch {
 public:
  Watch(Ptr<EpollLoop> loop, int fd, uint32_t events, std::function<void(uint32_t)> handler)
      : loop_(std::move(loop)), fd_(fd), events_(events), handler_(std::move(handler)) {
    control(EPOLL_CTL_ADD);
  }
  ~Watch() override {
    // Fails when the descriptor was closed before, and then there is nothing to take out.
    ::epoll_ctl(loop_->epoll_.get(), EPOLL_CTL_DEL, fd_, nullptr);
    // What the batch under way still holds for this watch must reach neither freed memory nor a
    // new watch at the same address.
    for (size_t i = loop_->next_; i < loop_->count_; ++i)
      if (loop_->events_[i].data.ptr == this) loop_->events_[i].events = 0;
    if (loop_->running_ == this) loop_->running_ = nullptr;
  }
  void eventsIs(uint32_t events) override {
    if (events == events_) return;
    std::swap(events, events_);
    try {
      control(EPOLL_CTL_MOD);
    } catch (...) {
      events_ = events;
      throw;
    }
  }

 private:
  friend class EpollLoop;
  void control(int op) {
    epoll_event ev{};
    ev.events = events_;
    ev.data.ptr = this;
    if (::epoll_ctl(loop_->epoll_.get(), op, fd_, &ev) != 0)
      throw ErrnoException(errno, "epoll_ctl");
  }

  const Ptr<EpollLoop> loop_;
  const int fd_;
  uint32_t events_;
  std::function<void(uint32_t)> handler_;
};

class EpollLoop::Hook final : public EndHook {
 public:
  Hook(Ptr<EpollLoop> loop, std::function<void()> body)
      : loop_(std::move(loop)), body_(std::move(body)) {}
  ~Hook() override {
    if (!asked_) return;
    for (auto* hooks : {&loop_->hooks_, &loop_->runningHooks_})
      std::replace(hooks->begin(), hooks->end(), this, static_cast<Hook*>(nullptr));
  }
  void ask() override {
    if (std::exchange(asked_, true)) return;
    loop_->hooks_.push_back(this);
  }
  void run() noexcept {
    asked_ = false;
    body_();
  }

 private:
  const Ptr<EpollLoop> loop_;
  const std::function<void()> body_;
  bool asked_ = false;
};

std::unique_ptr<EventLoop::EndHook> EpollLoop::endHook(std::function<void()> body) {
  return std::make_unique<Hook>(Ptr<EpollLoop>(this), std::move(body));
}

std::unique_ptr<EventLoop::FdWatch> EpollLoop::fdWatch(int fd, uint32_t events,
                                                       std::function<void(uint32_t)> handler) {
  return std::make_unique<Watch>(Ptr<EpollLoop>(this), fd, events, std::move(handler));
}

void EpollLoop::runOnce(Seconds maxWait) {
  TARN_ASSERT_AS(!inRound_, "no round inside a task or handler");
  const Ptr<EpollLoop> hold(this);
  inRound_ = true;
  const bool hadHooks = !hooks_.empty();
  runHooks();

  if (next_ == count_) {
    int timeoutMs = -1;
    if (maxWait.count() >= 0)
      timeoutMs = static_cast<int>(std::ceil(std::min(maxWait.count() * 1e3, 1e9)));
    if (stopped_ || hadHooks) timeoutMs = 0;  // there was something to do; a hook may ask for more
    waitForEvents(timeoutMs);
  }

  const Time began = now();
  tasks_->roundIs(began);
  runHandlers(began);
  // What does not fit into the share is first in the next round. At least one task runs in each,
  // however long the handlers took.
  const Time tasksBegan = now();
  handlersTook_ = tasksBegan - began;
  for (Time t = tasksBegan; t - tasksBegan < share; t = now()) {
    bodyStart_ = lastPoll_ = t;
    if (!tasks_->runNext()) break;
    runHooks();
  }
  inRound_ = false;
}

void EpollLoop::waitForEvents(int timeoutMs) {
  if (const auto due = tasks_->nextDue(); due && timeoutMs != 0) {
    if (*due <= now()) {
      timeoutMs = 0;
    } else {
      armTimer(*due);
    }
  }
  const int n =
      ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), timeoutMs);
  TARN_ASSERT(n >= 0 || errno == EINTR);
  next_ = 0;
  count_ = n > 0 ? static_cast<size_t>(n) : 0;
}

/// Runs the handlers of the batch until the share is used up. The next round goes on with the same
/// batch: epoll would report the descriptors that were handled here, if they are ready again,
/// before the others, which would never get their turn.
void EpollLoop::runHandlers(Time began) {
  for (Time t = began; next_ < count_ && t - began < share; t = now()) {
    const epoll_event ev = events_[next_++];
    if (!ev.data.ptr) {
      uint64_t expirations = 0;
      if (::read(timer_.get(), &expirations, sizeof expirations) > 0) armed_ = Time(0);
      continue;
    }
    if (ev.events == 0) continue;  // its watch is gone
    Watch* watch = static_cast<Watch*>(ev.data.ptr);
    // A handler or task since then may have changed what this watch wants to hear.
    const uint32_t events = ev.events & (watch->events_ | EPOLLERR | EPOLLHUP);
    if (events == 0) continue;
    std::function<void(uint32_t)> handler = std::move(watch->handler_);
    running_ = watch;
    [&]() noexcept { handler(events); }();
    if (running_) running_->handler_ = std::move(handler);
    running_ = nullptr;
    runHooks();
  }
}

void EpollLoop::runHooks() {
  if (hooks_.empty()) return;
  // A hook asked for by a hook waits for the next end, or the next round: no endless loop here.
  runningHooks_.swap(hooks_);
  for (Hook*& hook : runningHooks_)
    if (Hook* h = std::exchange(hook, nullptr)) h->run();
  runningHooks_.clear();
}

void EpollLoop::armTimer(Time due) {
  if (due == armed_) return;
  const auto s = std::chrono::duration_cast<std::chrono::seconds>(due);
  itimerspec spec{};
  spec.it_value.tv_sec = s.count();
  spec.it_value.tv_nsec = (due - s).count();
  TARN_ASSERT(::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &spec, nullptr) == 0);
  armed_ = due;
}

bool EpollLoop::shouldYield() const {
  const Time t = now();
  const Time used = t - bodyStart_;
  if (used >= share) return true;
  // Descriptors that are always ready leave a body as much time as their handlers took.
  if (used < handlersTook_ || t - lastPoll_ < pollEvery) return false;
  lastPoll_ = t;
  pollfd p{epoll_.get(), POLLIN, 0};
  return next_ < count_ || ::poll(&p, 1, 0) > 0;
}

}  // namespace

Ptr<EventLoop> eventLoopFactory() { return Ptr<EventLoop>::adopt(new EpollLoop); }

}  // namespace platform
