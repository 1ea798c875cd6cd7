#include "cli/wire/OptionsTables.h"

#include <fmt/format.h>

#include "cli/text/Table.h"
#include "cli/wire/MessagePrinter.h"

namespace cli {
namespace {

// Rows of all streams together: anybody may send here, and memory is bounded.
constexpr size_t rowsKept = 1 << 22;

// IANA elements that name what the usual tables are about.
constexpr uint16_t ingressInterface = 10;
constexpr uint16_t templateId = 145;
constexpr uint16_t observationDomainId = 149;
constexpr uint16_t flowKeyIndicator = 173;
constexpr uint16_t ingressVrfId = 234;

std::string titleOf(const decoder::Template& t) {
  const decoder::Field& scope = t.fields.front();
  if (t.scopeCount == 1 && scope.enterprise == 0) {
    switch (scope.id) {
      case ingressInterface:
        return "interfaces";
      case ingressVrfId:
        return "VRFs";
      case observationDomainId:
        return "flow trackers";
      case templateId:
        return "flow keys";
      default:
        break;
    }
  }
  return fmt::format("options {}", t.id);
}

bool isFlowKeys(const std::vector<decoder::Field>& fields) {
  return fields.size() == 2 && fields[0].enterprise == 0 && fields[0].id == templateId &&
         fields[1].enterprise == 0 && fields[1].id == flowKeyIndicator;
}
}  // namespace

/// The names of the fields that a row of the table of flow keys tells of: empty while their
/// template is unknown. Nothing for the rows of other tables, or of a stream that is forgotten.
std::optional<std::string> OptionsTables::keyNames_p(const decoder::Decoder& decoder,
                                                     const decoder::StreamKey& key,
                                                     const Table& table, const Row& row) {
  if (!isFlowKeys(table.fields)) return std::nullopt;
  const auto stream = decoder.streams().find(key);
  const auto& id = row.cells[0].value;
  const auto& indicator = row.cells[1].value;
  if (stream == decoder.streams().end() || !id.is_number() || !indicator.is_number())
    return std::nullopt;
  std::string out;
  const auto& templates = stream->second.templates;
  const auto t = templates.find(id.get<uint16_t>());
  if (t == templates.end()) return out;
  for (size_t i = 0; i < t->second->fields.size() && i < 64; ++i)
    if (indicator.get<uint64_t>() >> i & 1)
      out += (out.empty() ? "" : ", ") + t->second->fields[i].name();
  return out;
}

bool OptionsTables::take(const Datagram& from, const decoder::Message& message) {
  if (!message.header || message.error) return false;
  bool changed = false;
  for (const auto& set : message.sets) {
    if (!set.definition || !set.definition->options() || set.recordCount() == 0) continue;
    Table& table = tables_[{from.source.stringValue(), message.header->domain}][set.id];
    if (table.fields != set.definition->fields) {  // new, or redefined: the old rows mean nothing
      rows_ -= table.rows.size();
      table = {.title = titleOf(*set.definition), .fields = set.definition->fields, .rows = {}};
    }
    for (size_t i = 0; i < set.recordCount(); ++i) {
      std::string scope;
      std::vector<Cell> cells;
      for (const auto& value : set.record(i)) {
        if (value.field->scope) {
          scope += fmt::format("{}:", value.octets.size());
          scope.append(value.octets.begin(), value.octets.end());
        }
        cells.push_back({value.text(), valueJson(value)});
      }
      auto row = table.rows.find(scope);
      if (row == table.rows.end()) {
        if (rows_ >= rowsKept) {
          ++refused_;
          continue;
        }
        row = table.rows.emplace(scope, Row{}).first;
        ++rows_;
      }
      row->second.heard = from.time;
      if (row->second.cells == cells) continue;
      row->second.cells = std::move(cells);
      changed = true;
    }
  }
  return changed;
}

std::string OptionsTables::text(const decoder::Decoder& decoder, double now, size_t rowsMax) const {
  std::string out;
  for (const auto& [key, tables] : tables_) {
    out += fmt::format("{}  domain {}\n", key.session, key.domain);
    for (const auto& [id, table] : tables) {
      out += fmt::format("  {} ({})\n", table.title, table.rows.size());
      if (table.rows.empty()) continue;  // all of them refused
      const Row& first = table.rows.begin()->second;
      const bool keys = keyNames_p(decoder, key, table, first).has_value();
      std::vector<bool> right;
      for (const auto& cell : first.cells) right.push_back(cell.value.is_number());
      cli::Table shown(std::move(right));
      cli::Table::Row names;
      for (const auto& field : table.fields) names.push_back(field.name());
      if (keys) names.emplace_back("keys");
      names.emplace_back("told");
      shown.add(std::move(names));
      size_t n = 0;
      for (const auto& [scope, row] : table.rows) {
        if (++n > rowsMax) break;
        cli::Table::Row cells;
        for (const auto& cell : row.cells) cells.push_back(cell.text);
        if (keys) cells.push_back(keyNames_p(decoder, key, table, row).value_or(""));
        cells.push_back(fmt::format("{:.0f} s ago", now - row.heard));
        shown.add(std::move(cells));
      }
      out += shown.text(4);
      if (table.rows.size() > rowsMax)
        out += fmt::format("    and {} more (--json has all)\n", table.rows.size() - rowsMax);
    }
  }
  if (refused_ > 0) out += fmt::format("  !  {} rows not kept: the tables are full\n", refused_);
  return out;
}

nlohmann::ordered_json OptionsTables::json(const decoder::Decoder& decoder, double now) const {
  using Json = nlohmann::ordered_json;
  Json streams = Json::array();
  for (const auto& [key, tables] : tables_) {
    Json list = Json::array();
    for (const auto& [id, table] : tables) {
      Json rows = Json::array();
      for (const auto& [scope, row] : table.rows) {
        Json r = Json::object();
        for (size_t i = 0; i < row.cells.size() && i < table.fields.size(); ++i)
          r[table.fields[i].name()] = row.cells[i].value;
        if (const auto names = keyNames_p(decoder, key, table, row)) r["keys"] = *names;
        r["age"] = now - row.heard;
        rows.push_back(std::move(r));
      }
      list.push_back({{"title", table.title}, {"templateId", id}, {"rows", std::move(rows)}});
    }
    streams.push_back(
        {{"source", key.session}, {"domain", key.domain}, {"tables", std::move(list)}});
  }
  return {{"type", "tables"},
          {"time", now},
          {"streams", std::move(streams)},
          {"rowsRefused", refused_}};
}

}  // namespace cli
