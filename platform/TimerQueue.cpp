#include "platform/TimerQueue.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "platform/Assert.h"

namespace platform {

class TimerQueue::Task final : public TimerTask {
 public:
  Task(Ptr<TimerQueue> queue, std::string name, TaskPriority priority, std::function<void()> body)
      : queue_(std::move(queue)), name_(std::move(name)), body_(std::move(body)) {
    // The set's node is made once and then moves in and out.
    at_ = queue_->pending_.insert({.priority = priority, .task = this}).first;
    idle_ = queue_->pending_.extract(at_);
  }
  ~Task() override {
    stop();
    if (queue_->running_ == this) queue_->running_ = nullptr;
  }

  const std::string& name() const override { return name_; }
  void scheduleIs(Seconds delay) override { dueIs(queue_->dueAfter(delay)); }
  void scheduleLowestIs(Seconds delay) override {
    const Time due = queue_->dueAfter(delay);
    if (!scheduled() || due < at_->due) dueIs(due);
  }
  void stop() override {
    if (scheduled()) idle_ = queue_->pending_.extract(at_);
  }
  bool scheduled() const override { return idle_.empty(); }
  bool running() const override { return queue_->running_ == this; }
  bool shouldYield() const override {
    return running() && queue_->host_ && queue_->host_->shouldYield();
  }

 private:
  friend class TimerQueue;
  void dueIs(Time due) {
    stop();
    idle_.value().due = due;
    idle_.value().seq = queue_->nextSeq_++;
    at_ = queue_->pending_.insert(std::move(idle_)).position;
  }

  const Ptr<TimerQueue> queue_;
  const std::string name_;
  std::function<void()> body_;
  Pending::iterator at_;
  Pending::node_type idle_;  // the node while no run is pending
};

bool TimerQueue::Run::operator<(const Run& o) const {
  return std::tie(due, priority, seq) < std::tie(o.due, o.priority, o.seq);
}

std::unique_ptr<TimerTask> TimerQueue::timerTask(std::string name, TaskPriority priority,
                                                 std::function<void()> body) {
  return std::make_unique<Task>(Ptr<TimerQueue>(this), std::move(name), priority, std::move(body));
}

std::optional<TimerQueue::Time> TimerQueue::nextDue() const {
  if (pending_.empty()) return std::nullopt;
  return pending_.begin()->due;
}

void TimerQueue::roundIs(Time now) {
  round_ = now;
  roundSeq_ = nextSeq_;
}

bool TimerQueue::runNext() {
  TARN_ASSERT_AS(!running_, "no round inside a task's body");
  // Tasks scheduled in this round carry times at or after its own, but a lower priority value may
  // have brought them before others of the round.
  auto it = std::find_if(pending_.begin(), pending_.end(),
                         [this](const Run& r) { return r.due > round_ || r.seq < roundSeq_; });
  if (it == pending_.end() || it->due > round_) return false;
  Task* task = it->task;
  if (++it != pending_.end()) __builtin_prefetch(it->task);  // its turn is probably the next
  task->stop();
  // A body may destroy its own task, and with it what the body itself holds.
  const Ptr<TimerQueue> hold(this);
  std::function<void()> body = std::move(task->body_);
  running_ = task;
  [&]() noexcept { body(); }();
  if (running_) {
    running_->body_ = std::move(body);
    running_ = nullptr;
  }
  return true;
}

TimerQueue::Time TimerQueue::dueAfter(Seconds delay) const {
  if (!(delay.count() > 0)) return round_;
  constexpr double longest = 3e9;  // a century: nothing overflows
  const Time now = host_ ? host_->now() : round_;
  const Time due = now + Time(std::llround(std::min(delay.count(), longest) * 1e9));
  return (due + grain_ - Time(1)) / grain_ * grain_;
}

AttrRows TimerQueue::attrRows() const {
  static constexpr AttrRow rows[] = {
      {.name = "pending", .each = [](const Entity& e, const AttrRow::Visitor& visit) {
         const auto& queue = static_cast<const TimerQueue&>(e);
         const Time now = queue.host_ ? queue.host_->now() : queue.round_;
         for (const Run& r : queue.pending_)
           visit(toQuoted(r.task->name_), nullptr, toText(Seconds(r.due - now)));
       }}};
  return rows;
}

}  // namespace platform
