#pragma once
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agent/exports/Exports.h"

namespace agent {

/// The options tables and the templates as they are now, a part at a time. `after` of each is what
/// "next" of the part before it said; null: from the start. An `after` of another form reads as the
/// nearest there is.
struct ControlTables {
  using Json = nlohmann::ordered_json;

  /// The names of the tables.
  static std::vector<std::string_view> names();
  /// All tables with their size.
  static Json list(const Exports& exports);
  /// The records of one table, decoded: of all trackers, or of one.
  static Json rows(const Exports& exports, std::string_view name, const std::string& tracker,
                   const Json& after);
  /// Data and options templates of all trackers, or of one.
  static Json templates(const Exports& exports, const std::string& tracker, const Json& after);
};

}  // namespace agent
