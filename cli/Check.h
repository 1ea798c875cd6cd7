#pragma once

namespace CLI {
class App;
}

namespace cli {

/// Adds `check`, which lets the agent's own parser judge a configuration file: it replaces this
/// process by `tarnflowd --check FILE --effective`. It looks for tarnflowd beside this program, in
/// ../sbin and in PATH; only when none can be run does it return, with `status` 2.
void addCheck(CLI::App& app, int& status);

}  // namespace cli
