#pragma once

namespace CLI {
class App;
}

namespace cli {

/// `check` has the agent's own parser judge a configuration file: becomes `tarnflowd --check FILE
/// --effective`, the program beside this one, in ../sbin, or in PATH. Sets `status` to 2 only when
/// there is none.
void addCheck(CLI::App& app, int& status);

}  // namespace cli
