#pragma once
#include <string>

namespace cli {

/// Has the agent's own parser judge a configuration file: becomes `tarnflowd --check FILE
/// --effective`, the program beside this one, in ../sbin, or in PATH. Returns 2 only when there is
/// none.
int check(const std::string& file);

}  // namespace cli
