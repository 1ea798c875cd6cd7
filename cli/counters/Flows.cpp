#include "cli/counters/Flows.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/text/Output.h"
#include "cli/text/Quoted.h"
#include "cli/text/Table.h"
#include "cli/text/Text.h"

namespace cli {
namespace {
using FlowTracking::FlowPathRecord;
using Json = nlohmann::ordered_json;

int look(platform::ShmTableReader& reader, const CountersOptions& options, bool clearScreen) {
  const auto snapshot = reader.snapshot();
  std::vector<FlowPathRecord> records;
  for (const auto& record : snapshot.records)
    if (const auto r = FlowPathRecord::fromOctets(record.value)) records.push_back(*r);
  std::ranges::sort(records, {}, [](const FlowPathRecord& r) { return r.key.tracker; });
  const bool live = snapshot.state == Counters::State::live;
  std::string note = stateNote(snapshot.state, snapshot.writerPid, options.name);
  if (note.empty() && records.empty())
    note = "no tracker looks at packets: give one of type \"software\" its interfaces";
  if (options.json) {
    Output::write(jsonLine({{"name", options.name},
                            {"state", stateName(snapshot.state)},
                            {"time", utcNow()},
                            {"trackers", flowsJson(records)}}));
  } else {
    if (clearScreen) Output::write("\x1b[H\x1b[2J");
    Output::flush();
    if (!note.empty()) complain("tarnflow: {}\n", note);
    Output::write(flowsText(records));
  }
  Output::flush();
  return live && !records.empty() ? 0 : 1;
}
}  // namespace

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

int showFlows(CountersOptions options) {
  options.name += FlowTracking::flowPathSuffix;
  return showTable(options, sizeof(FlowTracking::FlowPathKey), sizeof(FlowPathRecord), look);
}

}  // namespace cli
