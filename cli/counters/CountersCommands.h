#pragma once

namespace CLI {
class App;
}

namespace cli {

struct FlowsAtAgent;

// Each adds a command that reads the agent's shared memory. The command that is given sets `status`
// to its exit status.
void addCounters(CLI::App& show, int& status);
void addFlows(CLI::App& show, int& status, const FlowsAtAgent& agent);
void addMetrics(CLI::App& app, int& status);

}  // namespace cli
