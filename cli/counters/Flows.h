#pragma once
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "cli/counters/Counters.h"

namespace cli {

struct FlowsOptions : CountersOptions {
  std::string socket = "/run/tarnflow/control.sock";
  bool list = false;   ///< the flows instead of the counters
  std::string filter;  ///< of the flows that are listed
  std::optional<size_t> limit;
};
/// What is not in shared memory: the agent is asked for it.
struct FlowsAtAgent {
  /// Lists the flows under way. Returns the exit status.
  std::function<int(const FlowsOptions&)> list;
  /// The interfaces that the agent with this process id tracks now, a list; null: it does not
  /// answer, or another one does.
  std::function<nlohmann::ordered_json(const FlowsOptions&, int pid)> tracked;
};

/// What the software flow paths count, out of the segment beside the collectors' statistics:
/// `options.name` is that of the statistics. The exit status is 1 without a living agent or without
/// a tracker that looks at packets.
int showFlows(const FlowsOptions& options, const FlowsAtAgent& agent);

}  // namespace cli
