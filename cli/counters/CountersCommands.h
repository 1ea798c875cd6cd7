#pragma once

namespace CLI {
class App;
}

namespace cli {

// The commands that read the agent's shared memory. Each sets `status` to its exit status when it
// is given.
void addCounters(CLI::App& show, int& status);
void addFlows(CLI::App& show, int& status);
void addMetrics(CLI::App& app, int& status);

}  // namespace cli
