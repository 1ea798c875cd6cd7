#include "cli/counters/Flows.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/text/Quoted.h"
#include "cli/text/Table.h"
#include "cli/text/Text.h"

namespace cli {
namespace {
using FlowTracking::FlowPathRecord;
using Json = nlohmann::ordered_json;

std::string flowsText(const std::vector<FlowPathRecord>& records) {
  if (records.empty()) return {};
  // A column per tracker: there are many counters and few trackers.
  std::vector<bool> right(records.size() + 1, true);
  right[0] = false;
  Table table(right);
  Table::Row head = {"tracker"};
  for (const auto& r : records) head.push_back(nameText(r.key.name()));
  table.add(head);
  for (const auto& field : FlowPathRecord::fields()) {
    Table::Row row = {std::string(field.name)};
    for (const auto& r : records) row.push_back(fmt::to_string(r.*field.value));
    table.add(row);
  }
  return table.text(0);
}

std::string interfacesText(const Json& interfaces) {
  if (interfaces.is_null() || interfaces.empty()) return {};
  Table table({false, false, false, true, true, true});
  table.add({"tracker", "VRF", "interface", "index", "packets", "octets"});
  for (const Json& i : interfaces)
    table.add({nameText(i.at("tracker").get<std::string>()),
               nameText(i.at("vrf").get<std::string>()),
               nameText(i.at("interface").get<std::string>()), i.at("index").dump(),
               i.at("packets").dump(), i.at("octets").dump()});
  return '\n' + table.text(0);
}

Json flowsJson(const std::vector<FlowPathRecord>& records) {
  Json all = Json::array();
  for (const auto& r : records) {
    Json one = {{"tracker", r.key.name()}};
    for (const auto& field : FlowPathRecord::fields())
      one[std::string(field.name)] = r.*field.value;
    one["updatedTime"] = r.updatedTime;
    all.push_back(std::move(one));
  }
  return all;
}
}  // namespace

int showFlows(const FlowsOptions& options, const FlowsAtAgent& agent) {
  if (options.list) return agent.list(options);
  const std::string name = options.name + std::string(FlowTracking::flowPathSuffix);
  return showTables(options, [&](CounterTables& tables) {
    const auto table = tables.flows();
    auto records = recordsOf<FlowPathRecord>(table);
    std::ranges::sort(records, {}, [](const FlowPathRecord& r) { return r.key.tracker; });
    Look look{.text = {}, .note = stateNote(table, name), .status = 0};
    if (table.state != Counters::State::live || records.empty()) look.status = 1;
    if (look.note.empty() && records.empty())
      look.note = "no tracker looks at packets: give one of type \"software\" its interfaces";
    const Json interfaces = look.status == 0 ? agent.tracked(options, table.writerPid) : Json();
    look.text = options.json ? jsonLine({{"name", name},
                                         {"state", stateName(table.state)},
                                         {"time", utcNow()},
                                         {"trackers", flowsJson(records)},
                                         {"interfaces", interfaces}})
                             : flowsText(records) + interfacesText(interfaces);
    return look;
  });
}

}  // namespace cli
