#pragma once
#include <optional>
#include <string>

#include "cli/control/ControlClient.h"

namespace cli {

struct TopOptions {
  std::string socket;
  std::string tracker;
  std::string by = "flows";
  std::string order = "octets";
  std::string filter;
  std::optional<size_t> count;  ///< none: as many as the terminal has room for, else 20
  double interval = 2;          ///< seconds between two looks
  bool once = false;
  bool json = false;
};

/// Shows the heaviest flows, hosts, ports or interfaces: once, or on a terminal again and again
/// until the user or a signal ends it. Throws what ControlClient does, but for an agent that goes
/// away while its flows are shown: that is told on the screen. Returns the exit status.
int top(ControlClient& agent, TopOptions options);

}  // namespace cli
