#include <algorithm>
#include <string>

#include "agent/settings/SettingsKeys.h"

// The keys of the configuration as a JSON schema for editors and as tables for the documents.

namespace agent {
namespace {
std::string jsonText(std::string_view text) { return tomlText(text); }
std::string member(const char* name, const std::string& json) {
  return jsonText(name) + ": " + json;
}

/// What the key means and what a change of it does, with Markdown's marks or as plain text.
template <class S>
std::string meaningOf(const SettingsKey<S>& key, bool marks) {
  std::string text = key.meaning;
  if (key.effect == Effect::nextStart) text += " Takes effect at the next start.";
  if (key.effect == Effect::flowsAnew) text += " Changing it reports all flows and starts anew.";
  if (key.effect == Effect::trackerAnew)
    text +=
        " Changing it makes it another tracker to collectors: its exporters start anew, with "
        "new sockets and counters.";
  if (marks) return text;
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ']' && text.compare(i, 2, "](") == 0) {
      i = text.find(')', i);
    } else if (text[i] != '`' && text[i] != '[') {
      plain += text[i];
    }
  }
  return plain;
}

/// The schema of a table with these keys; `below`: of the tables in it.
template <class S>
std::string tableSchema(const std::string& below = {}) {
  std::string members;
  for (const SettingsKey<S>& key : settingsKeys<S>()) {
    members += (members.empty() ? "" : ",\n") + jsonText(key.name) + ": {" +
               member("description", jsonText(meaningOf(key, false))) + ", " + key.schema;
    if (!key.missing) members += ", " + member("default", key.write(S{}));
    members += '}';
  }
  if (!below.empty()) members += ",\n" + below;
  return R"({"type": "object", "additionalProperties": false, "properties": {)"
         "\n" +
         members + "}}";
}
std::string namedTables(const char* key, const char* description, const std::string& each,
                        size_t longest = settingsNameMax) {
  return jsonText(key) + ": {" + member("description", jsonText(description)) +
         R"(, "type": "object", "propertyNames": {)" + member("minLength", "1") + ", " +
         member("maxLength", std::to_string(longest)) +
         R"(, "pattern": "^[^\\u0000-\\u001f\\u007f]*$"}, "additionalProperties": )" + each + '}';
}

template <class S>
std::string tableReference() {
  std::string rows = "| key | value | default | meaning |\n|---|---|---|---|\n";
  for (const SettingsKey<S>& key : settingsKeys<S>())
    rows += std::string("| `") + key.name + "` | " + key.values + " | " +
            (key.missing ? "required" : '`' + key.write(S{}) + '`') + " | " + meaningOf(key, true) +
            " |\n";
  return rows;
}
}  // namespace

std::string settingsSchema() {
  const std::string collectors =
      namedTables("collector", "Where the messages go.", tableSchema<CollectorSettings>());
  const std::string exporters =
      namedTables("exporter", "Who sends what the tracker knows to collectors.",
                  tableSchema<ExporterSettings>(collectors));
  return R"({"$schema": "http://json-schema.org/draft-07/schema#",
"title": "tarnflowd configuration",
"description": "The TOML file that tarnflowd reads, and each file of the directory beside it.",
"type": "object", "additionalProperties": false, "properties": {
"agent": )" +
         tableSchema<Settings>() + ",\n" +
         namedTables("vrf", "Ids of VRFs: network namespaces ns-NAME.", tableSchema<VrfId>(),
                     VrfName::maxLength) +
         ",\n" + namedTables("record", "What is told of flows.", tableSchema<RecordDefinition>()) +
         ",\n" +
         namedTables("tracker", "What tracks flows, each an observation domain.",
                     tableSchema<TrackerSettings>(exporters)) +
         "}}\n";
}

std::string settingsReference(std::string_view section) {
  if (section == "agent") return tableReference<Settings>();
  if (section == "vrf.NAME") return tableReference<VrfId>();
  if (section == "record.NAME") return tableReference<RecordDefinition>();
  if (section == "tracker.NAME") return tableReference<TrackerSettings>();
  if (section == "tracker.NAME.exporter.NAME") return tableReference<ExporterSettings>();
  if (section == "tracker.NAME.exporter.NAME.collector.NAME")
    return tableReference<CollectorSettings>();
  return {};
}

std::string fieldReference() {
  std::string rows = "| field | element | of | in |\n|---|---|---|---|\n";
  for (const RecordField& f : recordFields()) {
    std::string in;
    for (const auto& [name, record] : builtInRecords()) {
      const auto has = [&](const std::vector<std::string>& names) {
        return std::find(names.begin(), names.end(), f.name) != names.end();
      };
      if (has(record.fields))
        in += (in.empty() ? "" : ", ") + name + (has(record.keys) ? " (key)" : "");
    }
    const char* const of = f.kinds == allPackets    ? "all"
                           : f.kinds == ipPackets   ? "IP"
                           : f.kinds == ipv4Packets ? "IPv4"
                                                    : "IPv6";
    rows += std::string("| `") + f.name + "` | " + std::to_string(f.element) + " | " + of +
            (f.ofPacket ? "" : ", no key") + " | " + in + " |\n";
  }
  return rows;
}

}  // namespace agent
