#pragma once
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agent/control/ControlSocket.h"
#include "agent/control/StateTree.h"
#include "agent/exports/CollectorStates.h"
#include "agent/exports/Exports.h"
#include "agent/host/AgentLog.h"

namespace agent {

/// What a reload did, in the words of the log.
struct ReloadOutcome {
  bool done = false;
  std::string summary;
  std::vector<std::string> errors;    ///< of the configuration, a line each; empty when done
  std::vector<std::string> warnings;  ///< what to know besides
};

/// What requests ask of the agent.
struct ControlHost {
  std::string version;
  std::string config;  ///< the configuration's name, for people
  double startTime = 0;
  const Exports* exports = nullptr;
  CollectorStates* states = nullptr;
  std::function<std::vector<StateTree::Root>()> roots;
  std::function<ReloadOutcome()> reload;
  std::function<void()> clearCounters;
};

/// Answers the requests of the control socket; docs/control-socket.md describes them.
class ControlRequests {
 public:
  using Json = nlohmann::ordered_json;

  ControlRequests(ControlHost host, AgentLog& log) : host_(std::move(host)), log_(log) {}

  /// One line for one line. Never throws; what is walked for one answer is bounded, and an answer
  /// that has more to follow says how to ask for it.
  std::string answer(const ControlPeer& peer, std::string_view line);

 private:
  struct Request;
  struct Verb;
  static const Verb verbs[];

  Json agent(const Request& request);
  Json collectors(const Request& request);
  Json tables(const Request& request);
  Json templates(const Request& request);
  Json clearCounters(const Request& request);
  Json resend(const Request& request);
  Json state(const Request& request);
  Json collector(const LibraryTree& tree, const CollectorName& name, const TrackerSettings& t,
                 const ExporterSettings& e, const CollectorSettings& c);
  static std::string askedBy(const Request& request);
  Json reload(const Request& request);
  Json logLevel(const Request& request);

  ControlHost host_;
  AgentLog& log_;
};

}  // namespace agent
