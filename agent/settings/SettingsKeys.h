#pragma once
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/settings/Settings.h"
#include "agent/settings/Toml.h"
#include "agent/settings/TomlText.h"

namespace agent {

/// One key of the file, in a table that fills an `S`. Reading, checking and writing the file, the
/// editors' schema and the documents' reference all come from here; its default is that of the `S`.
template <class S>
struct SettingsKey {
  const char* name;
  const char* missing;  ///< what a file lacks that is without it; null: it may be left out
  Effect effect;
  const char* meaning;  ///< sentences, in Markdown
  std::string values;   ///< what may stand there, in words
  std::string schema;   ///< members of its JSON schema
  /// Sets it in `S`, or returns what would be right.
  std::function<std::string(const toml::node& node, S& settings)> read;
  /// The value as TOML.
  std::function<std::string(const S& settings)> write;
  std::function<bool(const S& a, const S& b)> same;
};

/// The keys of `[agent]` (Settings), `[vrf.NAME]` (VrfId), `[record.NAME]` (RecordDefinition),
/// `[tracker.NAME]` (TrackerSettings), its exporters (ExporterSettings) and their collectors
/// (CollectorSettings).
template <class S>
const std::vector<SettingsKey<S>>& settingsKeys();
template <>
const std::vector<SettingsKey<Settings>>& settingsKeys();
template <>
const std::vector<SettingsKey<VrfId>>& settingsKeys();
template <>
const std::vector<SettingsKey<RecordDefinition>>& settingsKeys();
template <>
const std::vector<SettingsKey<TrackerSettings>>& settingsKeys();
template <>
const std::vector<SettingsKey<ExporterSettings>>& settingsKeys();
template <>
const std::vector<SettingsKey<CollectorSettings>>& settingsKeys();

/// The JSON schema (draft 7) of the file, for editors.
std::string settingsSchema();
/// The documents' table of the keys of one section, in Markdown. `section`: its header, with NAME
/// for names: "tracker.NAME".
std::string settingsReference(std::string_view section);
/// The documents' table of the fields that a record may have, and of the records built in.
std::string fieldReference();

}  // namespace agent
