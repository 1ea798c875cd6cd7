#pragma once
#include <nlohmann/json.hpp>
#include <string>

#include "cli/control/ControlClient.h"
#include "cli/text/Table.h"

namespace cli {

/// The agent's answer about flows under way, put together from its parts.
struct FlowRows {
  using Json = nlohmann::ordered_json;

  std::string tracker;
  uint64_t flows = 0;  ///< that were looked at
  Json incomplete;     ///< why these are not all, a text; null: they are
  bool more = false;   ///< there are more rows than were wanted
  Json rows = Json::array();

  /// `request`: as docs/control-socket.md has it. Takes the first `max` rows, 0: all. Waits while
  /// the agent looks at the flows. Throws what ControlClient does.
  static FlowRows ask(ControlClient& agent, Json request, size_t max);
  Json json() const;
  /// A head, and a line for each row, with the columns that such rows need.
  Table table() const;
};

}  // namespace cli
