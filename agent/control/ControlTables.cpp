#include "agent/control/ControlTables.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>

namespace agent {
namespace {
using FlowTracking::OptionsDataSource;
using FlowTracking::OptionsTemplate;
using FlowTracking::StaticTemplateId;
using FlowTracking::TemplateId;
using HwFlowTracking::FtTemplateEntry;
using Json = nlohmann::ordered_json;

/// Bounds one part of an answer: JSON of a row takes about a microsecond and 100 octets.
class Share {
 public:
  /// False: the part has had its share, and what was just added is its last.
  bool more() { return ++items_ < itemsMax && (items_ % 16 != 0 || Clock::now() < end_); }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t itemsMax = 1000;
  size_t items_ = 0;
  const Clock::time_point end_ = Clock::now() + std::chrono::milliseconds(2);
};

struct TableKind {
  std::string_view name;
  const char* source;
  StaticTemplateId id;
  bool ofTracker;
};
constexpr std::array<TableKind, 4> kinds = {
    {{"interfaces", "InterfaceTable", StaticTemplateId::intfTable, false},
     {"vrfs", "VrfTable", StaticTemplateId::vrfTable, false},
     {"trackers", "FlowTrackerTable", StaticTemplateId::flowTrackerTable, true},
     {"flow-keys", "FlowKey", StaticTemplateId::flowKey, true}}};

constexpr std::array types = {FlowTracking::FlowTrackingType::software,
                              FlowTracking::FlowTrackingType::hardware};

Ptr<OptionsDataSource> sourceIn(const Ptr<FlowTracking::OptionsDataSourceColl>& data,
                                const TableKind& kind) {
  return data ? data->source(kind.source) : nullptr;
}
/// Of a global table; each kind of tracking has the same one.
Ptr<OptionsDataSource> globalSource(const Exports& exports, const TableKind& kind) {
  for (const auto type : types)
    if (const auto sm = exports.tree(type).optionsDataSm)
      if (auto source = sourceIn(sm->dataAll()->globalData(), kind)) return source;
  return {};
}
Ptr<OptionsDataSource> trackerSource(const LibraryTree& tree, const std::string& tracker,
                                     const TableKind& kind) {
  const auto data =
      tree.optionsDataSm ? tree.optionsDataSm->dataAll()->trackerData(tracker) : nullptr;
  return data ? sourceIn(data->data(), kind) : nullptr;
}

Ptr<const OptionsTemplate> layoutOf(const Exports& exports, TemplateId id) {
  for (const auto type : types)
    if (const auto sm = exports.tree(type).templateSm)
      for (const auto& [name, entry] : sm->optTemplateConfig()->templateEntry())
        if (entry->templateId() == id) return entry;
  return {};
}

std::vector<FtTemplateEntry> fieldsOf(const OptionsTemplate& layout) {
  std::vector<FtTemplateEntry> fields;
  for (const auto* part : {&layout.scopeField(), &layout.field()})
    for (const auto& [position, entry] : *part) fields.push_back(entry);
  return fields;
}
std::string nameOf(const Exports& exports, Ipfix::RecordType id) {
  return exports.elements().elementIdColl(id).str();
}

/// Takes one field off the record: numbers in network order, text behind its length (RFC 7011, 7).
Json take(std::string_view& record, const FtTemplateEntry& field) {
  size_t len = field.fieldLen();
  const bool text = len == Ipfix::IpfixConst::variableLen();
  if (text) {
    if (record.empty()) return nullptr;
    len = static_cast<uint8_t>(record.front());
    record.remove_prefix(1);
  }
  if (record.size() < len) return nullptr;
  const std::string_view octets = record.substr(0, len);
  record.remove_prefix(len);
  if (text) return octets;
  uint64_t value = 0;
  for (const char c : octets) value = value << 8 | static_cast<uint8_t>(c);
  return value;
}

/// The names of the fields that a flow key indicator's bits stand for, the lowest bit the first
/// field (RFC 7011, 4.4).
Json keyNames(const Exports& exports, const LibraryTree& tree, const std::string& tracker,
              TemplateId id, uint64_t bits) {
  Json names = Json::array();
  const auto ftStatus = tree.status ? tree.status->ftStatus(tracker) : nullptr;
  const auto status = ftStatus ? ftStatus->templateStatus(id) : nullptr;
  if (!status) return names;
  for (const auto& [position, entry] : status->ftTemplateEntry()) {
    if (bits & 1) names.push_back(nameOf(exports, entry.fieldId()));
    bits >>= 1;
  }
  return names;
}

std::string textAt(const Json& after, size_t i) {
  return after.is_array() && after.size() > i && after[i].is_string() ? after[i].get<std::string>()
                                                                      : std::string();
}
uint64_t numberAt(const Json& after, size_t i) {
  return after.is_array() && after.size() > i && after[i].is_number_unsigned()
             ? after[i].get<uint64_t>()
             : 0;
}

/// The settings' trackers from the one where `after` is, or the one of that name.
template <class Visit>
void eachTracker(const Exports& exports, const std::string& only, const std::string& from,
                 Visit&& visit) {
  const auto& trackers = exports.runningSettings().trackers;
  auto it = trackers.lower_bound(only.empty() ? from : std::max(only, from));
  for (; it != trackers.end() && (only.empty() || it->first == only); ++it)
    if (!visit(it->first, it->second)) return;
}

template <class Entries>
void addFields(Json& fields, const Exports& exports, const Entries& entries, bool scope) {
  for (const auto& [position, e] : entries) {
    Json out = {
        {"name", nameOf(exports, e.fieldId())},
        {"id", e.fieldId().value() & 0x7fff},
        {"enterprise", e.enterpriseIe() ? Ipfix::IpfixConst::enterpriseNumberOf(e.fieldId()) : 0},
        {"length", e.fieldLen()},
        {"scope", scope}};
    if (e.flowKey()) out["key"] = true;
    fields.push_back(std::move(out));
  }
}
}  // namespace

std::vector<std::string_view> ControlTables::names() {
  std::vector<std::string_view> all;
  all.reserve(std::size(kinds));
  for (const TableKind& k : kinds) all.push_back(k.name);
  return all;
}

Json ControlTables::list(const Exports& exports) {
  Json tables = Json::array();
  for (const TableKind& kind : kinds) {
    uint64_t records = 0;
    if (!kind.ofTracker) {
      if (const auto source = globalSource(exports, kind)) records = source->dataRecords();
    } else {
      for (const auto& [name, tracker] : exports.runningSettings().trackers)
        if (const auto source = trackerSource(exports.tree(tracker.type), name, kind))
          records += source->dataRecords();
    }
    tables.push_back({{"name", kind.name},
                      {"templateId", FlowTracking::Constants::reservedTemplateId(kind.id)},
                      {"records", records}});
  }
  return {{"tables", std::move(tables)}};
}

Json ControlTables::rows(const Exports& exports, std::string_view name, const std::string& only,
                         const Json& after) {
  const auto found =
      std::find_if(kinds.begin(), kinds.end(), [&](const TableKind& k) { return k.name == name; });
  const TableKind& kind = *found;
  const TemplateId id = FlowTracking::Constants::reservedTemplateId(kind.id);
  Json out = {{"name", kind.name}, {"templateId", id}, {"rows", Json::array()}, {"next", nullptr}};
  const auto layout = layoutOf(exports, id);
  if (!layout) return out;  // no tracker, no table
  std::vector<std::pair<std::string, FtTemplateEntry>> fields;
  for (const FtTemplateEntry& e : fieldsOf(*layout))
    fields.emplace_back(nameOf(exports, e.fieldId()), e);

  Share share;
  const auto addAll = [&](const OptionsDataSource& source, const std::string& tracker,
                          const LibraryTree* tree, uint64_t from) {
    const auto places = source.places();
    for (uint64_t i = from; i < places.size(); ++i) {
      if (!places[i]) continue;
      std::string_view record = places[i]->data();
      Json row = Json::object();
      if (tree) row["tracker"] = tracker;
      for (const auto& [fieldName, field] : fields) row[fieldName] = take(record, field);
      if (kind.id == StaticTemplateId::flowKey)
        row["keys"] = keyNames(exports, *tree, tracker, row.value("templateId", TemplateId{0}),
                               row.value("flowKeyIndicator", uint64_t{0}));
      out["rows"].push_back(std::move(row));
      if (share.more()) continue;
      out["next"] = {tracker, i + 1};
      return false;
    }
    return true;
  };
  if (!kind.ofTracker) {
    if (const auto source = globalSource(exports, kind))
      addAll(*source, {}, nullptr, numberAt(after, 1));
    return out;
  }
  const std::string first = textAt(after, 0);
  eachTracker(exports, only, first,
              [&](const std::string& tracker, const TrackerSettings& settings) {
                const LibraryTree& tree = exports.tree(settings.type);
                const auto source = trackerSource(tree, tracker, kind);
                return !source ||
                       addAll(*source, tracker, &tree, tracker == first ? numberAt(after, 1) : 0);
              });
  return out;
}

namespace {
/// When the newest of a tracker's messages of one kind left, UTC seconds; null: none did.
template <class Exporters>
Json lastSent(const Exporters& exporters) {
  // Enough to know: all collectors of a tracker are sent to within one interval.
  constexpr size_t looksMax = 1000;
  uint32_t last = 0;
  size_t looks = 0;
  for (const auto& [name, sm] : exporters)
    for (const auto& [collector, time] : sm->exportTimeU32()) {
      last = std::max(last, time);
      if (++looks > looksMax) return last;
    }
  return last == 0 ? Json(nullptr) : Json(last);
}
}  // namespace

Json ControlTables::templates(const Exports& exports, const std::string& only, const Json& after) {
  Json out = {{"templates", Json::array()}, {"next", nullptr}};
  Share share;
  const std::string first = textAt(after, 0);
  eachTracker(exports, only, first, [&](const std::string& name, const TrackerSettings& tracker) {
    const LibraryTree& tree = exports.tree(tracker.type);
    const auto from =
        name == first ? static_cast<TemplateId>(numberAt(after, 1) + 1) : TemplateId{0};
    const auto sms = tree.templateSm ? tree.templateSm->ftTemplateSm(name) : nullptr;
    if (!sms) return true;
    const auto add = [&](TemplateId id, const char* kind, Json fields, const Json& sent) {
      out["templates"].push_back({{"tracker", name},
                                  {"domain", tracker.id},
                                  {"id", id},
                                  {"kind", kind},
                                  {"fields", std::move(fields)},
                                  {"lastSent", sent}});
      // A template has many fields: it counts as some rows.
      bool more = true;
      for (int i = 0; i < 16; ++i) more = share.more() && more;
      if (!more) out["next"] = {name, id};
      return more;
    };
    // The options templates have the ids above all others.
    if (const auto status = tree.status->ftStatus(name)) {
      const Json sent = lastSent(sms->ftExporterSm());
      const auto& all = status->templateStatus();
      for (auto it = all.lower_bound(from); it != all.end(); ++it) {
        Json fields = Json::array();
        addFields(fields, exports, it->second->ftTemplateEntry(), false);
        if (!add(it->first, "data", std::move(fields), sent)) return false;
      }
    }
    const Json sent = lastSent(sms->optTemplateExporterSm());
    std::map<TemplateId, Ptr<OptionsTemplate>> byId;
    for (const auto& [entryName, entry] : tree.templateSm->optTemplateConfig()->templateEntry())
      byId[entry->templateId()] = entry;
    for (auto it = byId.lower_bound(from); it != byId.end(); ++it) {
      Json fields = Json::array();
      addFields(fields, exports, it->second->scopeField(), true);
      addFields(fields, exports, it->second->field(), false);
      if (!add(it->first, "options", std::move(fields), sent)) return false;
    }
    return true;
  });
  return out;
}

}  // namespace agent
