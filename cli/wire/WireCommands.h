#pragma once

namespace CLI {
class App;
}

namespace cli {

// Each adds a command that decodes IPFIX. The command that is given sets `status` to its exit
// status.
void addListen(CLI::App& app, int& status);
void addDecode(CLI::App& app, int& status);

}  // namespace cli
