#include "cli/wire/MessagePrinter.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "cli/text/Table.h"

namespace cli {
namespace {

using decoder::Field;
using decoder::Message;
using decoder::SequenceCheck;
using decoder::Set;
using decoder::Stream;
using decoder::Template;
using decoder::TemplateRecord;
using decoder::Type;
using decoder::Value;
using Json = nlohmann::ordered_json;

constexpr size_t valueMax = 64;  // characters of a value in a table

std::string loud(const PrintOptions& o, const std::string& text) {
  return o.style.bad("  !! " + text) + '\n';
}
/// Empty for a code point without a name.
std::string_view dscpName(int dscp) {
  // https://www.iana.org/assignments/dscp-registry
  static constexpr std::pair<int, std::string_view> names[] = {
      {0, "CS0"},   {1, "LE"},           {8, "CS1"},   {10, "AF11"}, {12, "AF12"}, {14, "AF13"},
      {16, "CS2"},  {18, "AF21"},        {20, "AF22"}, {22, "AF23"}, {24, "CS3"},  {26, "AF31"},
      {28, "AF32"}, {30, "AF33"},        {32, "CS4"},  {34, "AF41"}, {36, "AF42"}, {38, "AF43"},
      {40, "CS5"},  {44, "VOICE-ADMIT"}, {46, "EF"},   {48, "CS6"},  {56, "CS7"}};
  const auto it = std::ranges::find(names, dscp, &std::pair<int, std::string_view>::first);
  return it == std::end(names) ? "" : it->second;
}
std::string tosText(uint8_t tos) {
  const uint8_t dscp = tos >> 2;
  std::string out = fmt::format("DSCP {}", dscp);
  if (const auto name = dscpName(dscp); !name.empty()) out += fmt::format(" ({})", name);
  if (tos & 3) out += fmt::format(", ECN {}", tos & 3);
  return out;
}
std::string elementText(const Field& f) {
  return f.enterprise == 0 ? fmt::to_string(f.id) : fmt::format("{}/{}", f.enterprise, f.id);
}
std::string lengthText(const Field& f) { return f.variable() ? "variable" : fmt::to_string(f.len); }
std::string shortText(const Value& v) {
  std::string text = v.text();
  if (text.size() <= valueMax) return text;
  size_t cut = valueMax;
  while (cut > 0 && (text[cut] & 0xc0) == 0x80) --cut;  // not inside a character
  return fmt::format("{}... ({} octets)", text.substr(0, cut), v.octets.size());
}

std::string templateText(const Set& set, const TemplateRecord& r) {
  const bool options = set.kind() == Set::Kind::optionsTemplates;
  const std::string_view kind = options ? "options template" : "template";
  const std::string_view change = decoder::changeName(r.change);
  if (!r.definition) return fmt::format("  {} {}, {}\n", kind, r.id, change);
  const Template& t = *r.definition;
  std::string out = fmt::format("  {} {}, {}: {}, records of {}{}\n", kind, r.id, change,
                                plural(t.fields.size(), "field"), t.variable() ? "at least " : "",
                                plural(t.recordLen, "octet"));
  if (r.change == TemplateRecord::Change::repeated) return out;
  Table table({true, false, true});
  table.add({"element", "name", "octets", ""});
  for (const Field& f : t.fields)
    table.add({elementText(f), f.name(), lengthText(f), f.scope ? "scope" : ""});
  return out + table.text(4);
}

std::string recordList(const Set& set, size_t width) {
  std::string out;
  for (size_t i = 0; i < set.recordCount(); ++i) {
    std::string line = fmt::format("    #{}", i + 1);
    for (const Value& v : set.record(i)) {
      const std::string item = "  " + v.field->name() + " " + shortText(v);
      if (line.size() + item.size() > width && line.size() > 6) {
        out += line + '\n';
        line = "      ";
      }
      line += item;
    }
    out += line + '\n';
  }
  return out;
}

std::string dataText(const Set& set, const PrintOptions& options) {
  if (!set.definition)
    return fmt::format(
        "  !  data {}, {}: no template of this id heard; sequence not checkable until the next "
        "message\n",
        set.id, plural(set.len - 4U, "octet"));
  const Template& t = *set.definition;
  std::string out = fmt::format(
      "  data {}{}, {}{}\n", set.id, t.options() ? " (options)" : "",
      plural(set.recordCount(), "record"),
      set.padding > 0 ? fmt::format(", {} of padding", plural(set.padding, "octet")) : "");
  if (options.quietData || set.recordCount() == 0) return out;
  std::vector<bool> right;
  Table::Row names;
  for (const Value& v : set.record(0)) {
    right.push_back(v.unsignedValue() || v.signedValue() || v.floatValue());
    names.push_back(v.field->name());
  }
  Table table(right);
  table.add(names);
  for (size_t i = 0; i < set.recordCount(); ++i) {
    Table::Row row;
    for (const Value& v : set.record(i)) row.push_back(shortText(v));
    table.add(std::move(row));
  }
  return out + (table.width(4) <= options.width ? table.text(4) : recordList(set, options.width));
}

Json faultJson(const decoder::Fault& f) { return {{"offset", f.offset}, {"text", f.text}}; }

Json templateJson(const TemplateRecord& r) {
  Json out = {{"id", r.id}, {"change", decoder::changeName(r.change)}};
  if (!r.definition) return out;
  out["scopeFieldCount"] = r.definition->scopeCount;
  out["fields"] = Json::array();
  for (const Field& f : r.definition->fields)
    out["fields"].push_back({{"name", f.name()},
                             {"id", f.id},
                             {"enterprise", f.enterprise},
                             {"length", f.len},
                             {"scope", f.scope}});
  return out;
}

Json recordJson(std::span<const Value> record) {
  Json out = Json::object();
  for (const Value& v : record) {
    const std::string name = v.field->name();
    std::string key = name;
    for (int n = 2; out.contains(key); ++n) key = fmt::format("{}#{}", name, n);
    out[key] = valueJson(v);
  }
  return out;
}

Json setJson(const Set& set, bool quietData) {
  Json out = {{"id", set.id}, {"offset", set.offset}, {"length", set.len}};
  if (set.kind() != Set::Kind::data) {
    out["kind"] = set.kind() == Set::Kind::templates ? "templates" : "optionsTemplates";
    out["templates"] = Json::array();
    for (const auto& r : set.templates) out["templates"].push_back(templateJson(r));
    return out;
  }
  out["kind"] = "data";
  out["known"] = set.known();
  if (!set.known()) return out;
  out["options"] = set.definition->options();
  out["recordCount"] = set.recordCount();
  if (quietData) return out;
  out["records"] = Json::array();
  for (size_t i = 0; i < set.recordCount(); ++i)
    out["records"].push_back(recordJson(set.record(i)));
  return out;
}

}  // namespace

PrintOptions PrintOptions::ofOutput(bool quietData) {
  PrintOptions o{.quietData = quietData, .style = Style::ofOutput()};
  winsize size{};
  if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 40)
    o.width = size.ws_col;
  return o;
}

Json valueJson(const Value& v) {
  if (v.type() == Type::boolean && (v.octets[0] == 1 || v.octets[0] == 2)) return v.octets[0] == 1;
  if (const auto n = v.unsignedValue()) return *n;
  if (const auto n = v.signedValue()) return *n;
  if (const auto x = v.floatValue(); x && std::isfinite(*x)) return *x;
  if (const auto s = v.stringValue()) return std::string(*s);
  return v.text();
}

std::string messageText(const Datagram& from, const Message& m, const PrintOptions& options) {
  std::string out = fmt::format("{}  {} > {}", utcText(from.time), from.source.stringValue(),
                                from.destination.stringValue());
  if (m.header)
    out += fmt::format("  domain {}  seq {}  exported {:%Y-%m-%d %H:%M:%S}Z", m.header->domain,
                       m.header->sequence,
                       fmt::gmtime(static_cast<std::time_t>(m.header->exportTime)));
  out += fmt::format("  {}", plural(from.octets.size(), "octet"));
  if (from.tos) out += "  " + tosText(*from.tos);
  out = options.style.strong(out) + '\n';

  if (m.sequence.error()) {
    out += loud(options, "SEQUENCE ERROR: " + m.sequence.stringValue(m.header->sequence));
  } else if (m.header && (m.sequence.state == SequenceCheck::State::late ||
                          m.sequence.state == SequenceCheck::State::unchecked)) {
    out += fmt::format("  {}\n", m.sequence.stringValue(m.header->sequence));
  }
  for (const Set& set : m.sets) {
    for (const TemplateRecord& r : set.templates) out += templateText(set, r);
    if (set.kind() == Set::Kind::data) out += dataText(set, options);
  }
  if (m.error) out += loud(options, "MALFORMED " + m.error->stringValue());
  for (const auto& w : m.warnings) out += fmt::format("  !  {}\n", w.stringValue());
  return out;
}

Json messageJson(const Datagram& from, const Message& m, bool quietData) {
  Json out = {{"type", "message"},
              {"time", from.time},
              {"sourceAddress", from.source.address},
              {"sourcePort", from.source.port},
              {"destinationAddress", from.destination.address},
              {"destinationPort", from.destination.port},
              {"tos", nullptr},
              {"dscp", nullptr},
              {"octets", from.octets.size()}};
  if (from.tos) {
    out["tos"] = *from.tos;
    out["dscp"] = *from.tos >> 2;
  }
  if (m.header) {
    out["version"] = m.header->version;
    out["length"] = m.header->length;
    out["exportTime"] = m.header->exportTime;
    out["sequence"] = m.header->sequence;
    out["domain"] = m.header->domain;
    out["sequenceState"] = decoder::sequenceStateName(m.sequence.state);
    const bool expected = m.sequence.state != SequenceCheck::State::first &&
                          m.sequence.state != SequenceCheck::State::unchecked;
    out["sequenceExpected"] = expected ? Json(m.sequence.expected) : Json(nullptr);
  }
  out["recordCount"] = m.recordCount();
  out["sets"] = Json::array();
  for (const Set& set : m.sets) out["sets"].push_back(setJson(set, quietData));
  out["error"] = m.error ? faultJson(*m.error) : Json(nullptr);
  out["warnings"] = Json::array();
  for (const auto& w : m.warnings) out["warnings"].push_back(faultJson(w));
  return out;
}

bool flawless(const decoder::Decoder& d) {
  if (d.strangers() > 0) return false;
  for (const auto& [key, s] : d.streams())
    if (s.malformed > 0 || s.sequenceErrors > 0) return false;
  return true;
}

std::string summaryText(const Summary& s) {
  std::string out =
      fmt::format("\n{} in {:.1f} s\n", plural(s.decoder.streams().size(), "stream"), s.seconds);
  Table table({false, true, true, true, true, true, true, true, true, true});
  table.add({"source", "domain", "messages", "octets", "records", "templates", "unknown",
             "malformed", "seq errors", "missing"});
  for (const auto& [key, t] : s.decoder.streams())
    table.add({key.session, fmt::to_string(key.domain), fmt::to_string(t.messages),
               fmt::to_string(t.octets), fmt::to_string(t.dataRecords),
               fmt::to_string(t.templateRecords), fmt::to_string(t.unknownSets),
               fmt::to_string(t.malformed), fmt::to_string(t.sequenceErrors),
               fmt::to_string(t.missing)});
  if (!s.decoder.streams().empty()) out += table.text(2);
  for (const auto& [key, t] : s.decoder.streams())
    for (const Stream::SequenceError& e : t.lastErrors)
      out += fmt::format("  {} domain {}, message {}: {}\n", key.session, key.domain, e.message,
                         e.check.stringValue(e.sequence));
  if (s.decoder.strangers() > 0)
    out += fmt::format("  not IPFIX: {}\n", plural(s.decoder.strangers(), "datagram"));
  if (s.decoder.evicted() > 0)
    out += fmt::format("  {} forgotten to make room; not in this table\n",
                       plural(s.decoder.evicted(), "stream"));
  if (s.drops > 0)
    out += fmt::format("  {} lost in this host's receive buffers: missing records may be ours\n",
                       plural(s.drops, "datagram"));
  return out;
}

Json summaryJson(const Summary& s) {
  Json out = {{"type", "summary"},
              {"seconds", s.seconds},
              {"notIpfix", s.decoder.strangers()},
              {"streamsForgotten", s.decoder.evicted()},
              {"localDrops", s.drops},
              {"streams", Json::array()}};
  for (const auto& [key, t] : s.decoder.streams()) {
    Json errors = Json::array();
    for (const Stream::SequenceError& e : t.lastErrors)
      errors.push_back({{"message", e.message},
                        {"state", decoder::sequenceStateName(e.check.state)},
                        {"sequence", e.sequence},
                        {"expected", e.check.expected}});
    out["streams"].push_back({{"source", key.session},
                              {"domain", key.domain},
                              {"messages", t.messages},
                              {"octets", t.octets},
                              {"records", t.dataRecords},
                              {"templates", t.templateRecords},
                              {"unknownSets", t.unknownSets},
                              {"malformed", t.malformed},
                              {"warnings", t.warnings},
                              {"sequenceErrors", t.sequenceErrors},
                              {"missingRecords", t.missing},
                              {"lastSequenceErrors", errors}});
  }
  return out;
}

}  // namespace cli
