#pragma once
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/control/StateTree.h"
#include "agent/exports/CollectorStates.h"
#include "agent/exports/Exports.h"
#include "agent/host/AgentLog.h"
#include "agent/records/FlowLook.h"

namespace agent {

struct ControlRequest;

/// What a reload did, in the words of the log.
struct ReloadOutcome {
  bool done = false;
  std::string summary;
  std::vector<std::string> errors;    ///< of the configuration, a line each; empty when done
  std::vector<std::string> warnings;  ///< what to know besides
};

/// What requests ask of the agent.
struct ControlHost {
  std::string config = {};  ///< the configuration's name, for people
  const Exports* exports = nullptr;
  std::vector<StateTree::Root> roots = {};  ///< that are shown behind those of `exports`
  std::function<ReloadOutcome()> reload = {};
  std::function<void()> clearCounters = {};
  FlowLooks* flows = nullptr;
};

/// What each request of the control socket is answered; docs/control-socket.md describes them. What
/// is walked for one answer is bounded, and an answer that has more to follow says how to ask for
/// it.
class ControlAnswers {
 public:
  using Json = nlohmann::ordered_json;
  struct Verb {
    std::string_view name;
    Json (ControlAnswers::*run)(const ControlRequest&);
    bool changes;  ///< or shows who talks to whom: only for those who may change what runs
    std::vector<std::string_view> keys;  ///< besides "request" and "id"
  };

  ControlAnswers(ControlHost host, CollectorStates* states, double startTime, AgentLog& log)
      : host_(std::move(host)), states_(states), startTime_(startTime), log_(log) {}
  static std::span<const Verb> verbs();

 private:
  Json agent(const ControlRequest& request);
  Json collectors(const ControlRequest& request);
  Json tables(const ControlRequest& request);
  Json templates(const ControlRequest& request);
  Json clearCounters(const ControlRequest& request);
  Json resend(const ControlRequest& request);
  Json flows(const ControlRequest& request);
  Json tracked(const ControlRequest& request);
  Json state(const ControlRequest& request);
  Json reload(const ControlRequest& request);
  Json logLevel(const ControlRequest& request);
  Json collector(const LibraryTree& tree, const CollectorName& name, const TrackerSettings& t,
                 const ExporterSettings& e, const CollectorSettings& c);
  std::vector<StateTree::Root> roots() const;

  const ControlHost host_;
  CollectorStates* const states_;
  const double startTime_;  // UTC seconds
  AgentLog& log_;
};

}  // namespace agent
