#include "cli/control/FlowRows.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "cli/text/Quoted.h"
#include "cli/text/Text.h"

namespace cli {
namespace {
using Json = FlowRows::Json;
constexpr std::chrono::milliseconds lookAgain{5};  // where rows are not ready yet

bool has(const Json& row, const char* key) { return row.contains(key) && !row[key].is_null(); }
/// Empty where the row has no such value.
std::string text(const Json& row, const char* key) {
  if (!has(row, key)) return {};
  return row[key].is_string() ? shown(row[key].get<std::string>()) : row[key].dump();
}

std::string protocolText(uint64_t number) {
  switch (number) {  // IANA's protocol numbers
    case 1:
      return "icmp";
    case 2:
      return "igmp";
    case 6:
      return "tcp";
    case 17:
      return "udp";
    case 47:
      return "gre";
    case 50:
      return "esp";
    case 58:
      return "icmpv6";
    case 132:
      return "sctp";
    default:
      return fmt::to_string(number);
  }
}

/// Three digits: "950", "1.23k", "45.6M".
std::string shortText(const Json& row, const char* key) {
  if (!has(row, key)) return "-";
  auto value = row[key].get<double>();
  static constexpr std::array units = {"", "k", "M", "G", "T"};
  size_t unit = 0;
  for (; value >= 999.5 && unit + 1 < units.size(); ++unit) value /= 1000;
  const int digits = value >= 99.95 || value == 0 ? 0 : value >= 9.995 ? 1 : 2;
  return fmt::format("{:.{}f}{}", value, digits, units[unit]);
}

// Keys that are no fields of the record.
constexpr std::array wholes = {
    "vrf",     "start", "last",          "packets",          "octets",        "reversePackets",
    "seconds", "flows", "bitsPerSecond", "packetsPerSecond", "reverseOctets",
};

/// One end of a flow: its address and port, or what the record has instead.
std::string endText(const Json& row, const char* ipv4, const char* ipv6, const char* mac,
                    const char* port) {
  const auto protocol = row.value("protocolIdentifier", uint64_t{0});
  const bool icmp = protocol == 1 || protocol == 58;
  const std::string number = icmp ? std::string() : text(row, port);
  if (has(row, ipv6))
    return number.empty() ? text(row, ipv6) : fmt::format("[{}]:{}", text(row, ipv6), number);
  std::string address = has(row, ipv4) ? text(row, ipv4) : text(row, mac);
  return number.empty() ? address : address + ':' + number;
}
std::string source(const Json& row) {
  return endText(row, "sourceIPv4Address", "sourceIPv6Address", "sourceMacAddress",
                 "sourceTransportPort");
}
std::string destination(const Json& row) {
  return endText(row, "destinationIPv4Address", "destinationIPv6Address", "destinationMacAddress",
                 "destinationTransportPort");
}
std::string protocol(const Json& row) {
  if (!has(row, "protocolIdentifier")) return {};
  const auto number = row["protocolIdentifier"].get<uint64_t>();
  std::string name = protocolText(number);
  if ((number == 1 || number == 58) && has(row, "destinationTransportPort")) {
    const auto type = row["destinationTransportPort"].get<uint64_t>();
    name += fmt::format(" {}/{}", type / 256, type % 256);
  }
  return name;
}
std::string interfaceOf(const Json& row, const char* name, const char* index) {
  return has(row, name) ? text(row, name) : text(row, index) == "0" ? "" : text(row, index);
}
/// All fields, for records without addresses.
std::string fields(const Json& row) {
  std::string all;
  for (const auto& [key, value] : row.items())
    if (std::find(wholes.begin(), wholes.end(), key) == wholes.end() && !value.is_null())
      all += (all.empty() ? "" : " ") + shown(key) + '=' + text(row, key.c_str());
  return all;
}

struct Column {
  const char* name;
  bool right;
  std::function<std::string(const Json&)> cell;
};
}  // namespace

FlowRows FlowRows::ask(ControlClient& agent, Json request, size_t max) {
  FlowRows all;
  agent.askAll(std::move(request), [&](const Json& answer) -> Json {
    all.tracker = answer.at("tracker").get<std::string>();
    all.flows = answer.at("flows").get<uint64_t>();
    all.incomplete = answer.at("incomplete");
    for (const Json& row : answer.at("rows")) {
      if (max > 0 && all.rows.size() == max) {
        all.more = true;
        return false;
      }
      all.rows.push_back(row);
    }
    if (answer.at("rows").empty() && !answer.at("next").is_null()) agent.pause(lookAgain);
    return nullptr;
  });
  return all;
}

Json FlowRows::json() const {
  return {{"time", utcNow()},         {"tracker", tracker}, {"flows", flows},
          {"incomplete", incomplete}, {"more", more},       {"rows", rows}};
}

Table FlowRows::table() const {
  std::vector<Column> columns;
  const auto any = [&](const auto& cell) {
    return std::any_of(rows.begin(), rows.end(), [&](const Json& r) { return !cell(r).empty(); });
  };
  const auto add = [&](const char* name, bool right, auto cell) {
    if (any(cell)) columns.push_back({name, right, cell});
  };
  const auto plain = [&](const char* name, bool right) {
    add(name, right, [name](const Json& r) { return text(r, name); });
  };
  add("VRF", false,
      [](const Json& r) { return text(r, "vrf") == "default" ? std::string() : text(r, "vrf"); });
  plain("host", false);
  plain("interface", false);
  add("port", false, [](const Json& r) {
    if (!has(r, "port")) return std::string();
    const std::string port = text(r, "port");
    return has(r, "protocol") ? protocolText(r["protocol"].template get<uint64_t>()) + '/' + port
                              : port;
  });
  const bool grouped = any([](const Json& r) { return text(r, "flows"); });
  if (!grouped && !any(source) && !any(destination)) add("flow", false, fields);
  if (!grouped) {
    add("source", false, source);
    add("destination", false, destination);
    add("protocol", false, protocol);
    add("in", false,
        [](const Json& r) { return interfaceOf(r, "ingressName", "ingressInterface"); });
    add("out", false,
        [](const Json& r) { return interfaceOf(r, "egressName", "egressInterface"); });
  }
  plain("flows", true);
  plain("packets", true);
  plain("octets", true);
  add("came back", true, [](const Json& r) { return text(r, "reverseOctets"); });
  add("packets/s", true, [](const Json& r) { return shortText(r, "packetsPerSecond"); });
  add("bit/s", true, [](const Json& r) { return shortText(r, "bitsPerSecond"); });
  std::vector<bool> right;
  Table::Row head;
  for (const Column& c : columns) {
    right.push_back(c.right);
    head.emplace_back(c.name);
  }
  Table table(right);
  table.add(head);
  for (const Json& row : rows) {
    Table::Row line;
    for (const Column& c : columns) line.push_back(c.cell(row));
    table.add(std::move(line));
  }
  return table;
}

}  // namespace cli
