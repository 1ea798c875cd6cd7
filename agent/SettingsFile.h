#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Settings.h"

namespace agent {

/// Either valid settings or at least one error, each a line for people:
///   file:line:column: key 'tracker.edge.exporter.main.dscp': 64 is not allowed: a DSCP is ...
/// in the order of the file.
struct SettingsResult {
  std::optional<Settings> settings;
  std::vector<std::string> errors;
};

/// The largest configuration file that is read, octets.
inline constexpr size_t settingsFileMax = 16 << 20;

/// Parses and validates TOML as a whole. `fileName` only appears in the errors.
SettingsResult parseSettings(std::string_view toml, const std::string& fileName);
/// Reads the file first; a file that cannot be read, or is too large, is an error like others.
SettingsResult readSettings(const std::string& fileName);

/// The configuration that runs when no file is given; its comments explain each key.
std::string_view defaultSettingsText();

}  // namespace agent
