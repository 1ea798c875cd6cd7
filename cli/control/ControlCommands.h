#pragma once

namespace CLI {
class App;
}

namespace cli {

/// Adds the commands that ask a running agent over its control socket, to the tool and to its
/// "show". The one that is given sets `status` to its exit status.
void addControl(CLI::App& app, CLI::App& show, int& status);

}  // namespace cli
