#pragma once
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace cli {

/// Adds the commands that ask a running agent over its control socket, to the tool and to its
/// "show". The one that is given sets `status` to its exit status.
void addControl(CLI::App& app, CLI::App& show, int& status);

struct FlowListOptions {
  std::string socket;
  std::string tracker;  ///< empty: the only one
  std::string filter;
  std::optional<size_t> limit;
  bool json;
};
/// Lists flows under way. Returns the exit status.
int listFlows(const FlowListOptions& options);
/// The interfaces that are tracked now, a list; null: the agent with this process id does not
/// answer at the socket within a second.
nlohmann::ordered_json trackedInterfaces(const std::string& socket, int pid);

}  // namespace cli
