#include "agent/flow/FlowSurveys.h"

#include <algorithm>
#include <chrono>
#include <random>

#include "agent/host/Priorities.h"

namespace agent::flow {
namespace {
using Clock = FlowSurvey::Clock;

constexpr size_t surveysMax = 8;
constexpr std::chrono::seconds patience{10};     // until the client must ask for the next part
constexpr std::chrono::seconds patienceFull{1};  // the same while another client wants to begin
constexpr std::chrono::seconds lookMax{10};      // for a look at all flows
constexpr std::chrono::seconds listMax{60};      // the same of a list, which waits for its client
constexpr std::chrono::microseconds workShare{500};  // of all surveys, in one run of the task
constexpr Seconds pause{0.002};                      // until the next run
constexpr Seconds idlePause{0.2};                    // the same where there is nothing to take

/// Random: no other client can guess it and take the rows away.
std::string newId() {
  std::random_device device;
  return std::to_string(device()) + '-' + std::to_string(device());
}
}  // namespace

FlowSurveys::FlowSurveys(const Ptr<EventLoop>& loop)
    : task_(loop->taskScheduler()->timerTask("flowSurveys", afterAll, [this] { work(); })) {}

void FlowSurveys::mustHaveRoom() {
  const auto now = Clock::now();
  if (surveys_.size() < surveysMax) return;
  const auto oldest = std::min_element(
      surveys_.begin(), surveys_.end(),
      [](const auto& a, const auto& b) { return a.second->asked < b.second->asked; });
  if (now - oldest->second->asked < patienceFull)
    throw FlowLookError("others look at flows already, and no more than " +
                            std::to_string(surveysMax) + " can at a time: try again in a moment",
                        "busy");
  surveys_.erase(oldest);
}

FlowPart FlowSurveys::begin(std::unique_ptr<FlowSurvey> survey) {
  const std::string id = newId();
  surveys_[id] = std::move(survey);
  task_->scheduleIs(pause);
  return partOf(id, 0);
}

FlowPart FlowSurveys::more(const std::string& id, size_t next) {
  if (!surveys_.contains(id))
    throw FlowLookError(
        "there is no such look at flows any more: it is over, or its next part was not asked for "
        "within " +
            std::to_string(patience.count()) + " s, or " + std::to_string(patienceFull.count()) +
            " s while others wait: begin again",
        "notFound");
  task_->scheduleLowestIs(pause);
  return partOf(id, next);
}

FlowPart FlowSurveys::partOf(const std::string& id, size_t next) {
  FlowSurvey& survey = *surveys_.at(id);
  survey.asked = Clock::now();
  FlowPart part = survey.part(next);
  if (survey.over()) {
    surveys_.erase(id);
  } else {
    part.survey = id;
  }
  return part;
}

void FlowSurveys::work() {
  const auto now = Clock::now();
  std::erase_if(surveys_, [&](const auto& s) { return now - s.second->asked > patience; });
  bool any = false;
  for (const auto& [id, survey] : surveys_) {
    const auto most = survey->isList() ? listMax : lookMax;
    if (now - survey->begun > most) survey->hurry();
    any = survey->work(Clock::now() + workShare / surveys_.size()) || any;
  }
  // Pauses at least as long as this run took: others have half of the loop's time or more.
  const std::chrono::duration<double> took = Clock::now() - now;
  if (!surveys_.empty())
    task_->scheduleIs(any ? std::max(pause, Seconds(took.count())) : idlePause);
}

}  // namespace agent::flow
