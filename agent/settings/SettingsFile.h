#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/settings/Settings.h"

namespace agent {

/// Either valid settings or at least one error, each a line for people:
///   file:line:column: key 'tracker.edge.exporter.main.dscp': 64 is not allowed: a DSCP is ...
/// in the order of the file; of very many the first `settingsErrorsMax`, and a line that says how
/// many there are besides.
struct SettingsResult {
  std::optional<Settings> settings;
  std::vector<std::string> errors;
};

/// The largest configuration file that is read, octets.
inline constexpr size_t settingsFileMax = 16 << 20;

/// One file's content; the name only appears in the errors.
struct SettingsText {
  std::string name;
  std::string toml;
};

/// Parses TOML and validates it as a whole. Of several files later ones go before earlier ones:
/// their tables are merged, and the same key in a later file overrides. Names are different.
SettingsResult parseSettings(const std::vector<SettingsText>& files);
SettingsResult parseSettings(std::string_view toml, const std::string& fileName);
/// Reads the file, and then the files *.toml of the directory beside it, in the order of their
/// names: tarnflow.d for tarnflow.toml. A file that cannot be read, is too large or is no regular
/// file is an error like others; the directory need not be there. Waits for nobody.
SettingsResult readSettings(const std::string& fileName);

/// The settings as TOML, every key with its value: read again, it gives equal settings.
std::string settingsText(const Settings& settings);

/// The configuration that runs when no file is given; its comments explain each key.
std::string_view defaultSettingsText();

}  // namespace agent
