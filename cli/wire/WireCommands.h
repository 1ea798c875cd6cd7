#pragma once

namespace CLI {
class App;
}

namespace cli {

// The commands that decode IPFIX. Each sets `status` to its exit status when it is given.
void addListen(CLI::App& app, int& status);
void addDecode(CLI::App& app, int& status);

}  // namespace cli
