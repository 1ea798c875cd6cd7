#pragma once
#include <map>
#include <memory>
#include <string>

#include "agent/flow/FlowSurvey.h"
#include "platform/linux/EventLoop.h"

namespace agent::flow {
using namespace platform;

/// The surveys under way, bounded in number, in time, and in what they take of the agent's thread.
class FlowSurveys {
 public:
  explicit FlowSurveys(const Ptr<EventLoop>& loop);

  /// Makes room for one more, if need be by forgetting the survey whose client has been silent for
  /// longest. Throws FlowLookError when none has been silent for long enough.
  void mustHaveRoom();
  /// Starts the survey. The first part has no rows yet.
  FlowPart begin(std::unique_ptr<FlowSurvey> survey);
  /// Throws FlowLookError when there is no such survey, or `next` is not where its last part ended.
  FlowPart more(const std::string& id, size_t next);

 private:
  void work();
  FlowPart partOf(const std::string& id, size_t next);

  std::map<std::string, std::unique_ptr<FlowSurvey>> surveys_;
  std::unique_ptr<TimerTask> task_;
};

}  // namespace agent::flow
