#include "agent/settings/SettingsFile.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "agent/host/Names.h"
#include "agent/host/Printable.h"
#include "agent/settings/SettingsKeys.h"
#include "agent/settings/SettingsSection.h"

namespace agent {
namespace {
using FlowTracking::FlowTrackingType;
using Section = SettingsSection;

constexpr size_t keyDepthMax = 64;  // the deepest key has seven steps

/// Where a key of too many steps is, if there is one. The parser's tables are as deep as their key
/// and taken down by recursion: such a file would exhaust the stack.
std::optional<toml::source_position> tooDeepKey(std::string_view toml) {
  toml::source_position at{1, 0};
  size_t steps = 0;
  char quote = 0;
  for (size_t i = 0; i < toml.size(); ++i) {
    const char c = toml[i];
    ++at.column;
    if (c == '\n') {
      at = {at.line + 1, 0};
      steps = 0;
      quote = 0;
    } else if (quote != 0) {
      if (c == '\\' && quote == '"' && i + 1 < toml.size() && toml[i + 1] != '\n') {
        ++i;
        ++at.column;
      } else if (c == quote) {
        quote = 0;
      }
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '#') {
      i = std::min(toml.find('\n', i), toml.size()) - 1;
    } else if (c == '.') {
      if (++steps > keyDepthMax) return at;
    } else if (!isBareKey({&c, 1}) && c != ' ' && c != '\t') {
      steps = 0;
    }
  }
  return std::nullopt;
}

/// Lays one file's table over those before it: tables become one, any other value is replaced.
/// Keys and values keep the place where they stand.
void merge(toml::table& into, toml::table&& from) {
  for (auto&& [key, node] : from) {
    toml::node* const old = into.get(key.str());
    if (old && old->is_table() && node.is_table()) {
      merge(*old->as_table(), std::move(*node.as_table()));
      continue;
    }
    if (old) into.erase(key.str());
    node.visit([&, &k = key](auto& value) { into.insert(k, std::move(value)); });
  }
}

std::function<std::string(const std::string&)> nameRule(const std::string& what) {
  return [=](const std::string& name) -> std::string {
    if (!name.empty() && name.size() <= settingsNameMax && !hasControl(name)) return {};
    return what + "'s name has 1 to " + std::to_string(settingsNameMax) +
           " octets, without control characters";
  };
}

/// Values that must not occur twice, with the path of who has them.
template <class K>
class Unique {
 public:
  /// The path of the one that has `key` already, or nothing.
  std::string take(const K& key, const std::string& path) {
    auto [it, fresh] = owner_.emplace(key, path);
    return fresh ? std::string() : it->second;
  }

 private:
  std::map<K, std::string> owner_;
};

/// Reads the keys of one table. Returns those that are wrong or missing.
template <class S>
std::set<std::string_view> readKeys(Section& section, S& out) {
  std::set<std::string_view> bad;
  for (const SettingsKey<S>& key : settingsKeys<S>())
    if (!section.value(key.name, key.missing,
                       [&](const toml::node& node) { return key.read(node, out); }))
      bad.insert(key.name);
  return bad;
}

void readCollectors(Section& exporter, ExporterSettings& out) {
  Unique<std::tuple<IpGenAddr, std::string, uint16_t>> taken;
  exporter.tables(
      "collector", "collector", nameRule("a collector"), [&](const std::string& name, Section& s) {
        CollectorSettings c;
        if (!readKeys(s, c).contains("address")) {
          // Its counters are kept under address and port.
          const std::string other = taken.take({c.address, c.host, c.port}, keyText(name));
          if (!other.empty())
            s.refuse("address",
                     "collector " + other + " of this exporter has the same address and port");
        }
        out.collectors.emplace(name, c);
      });
}

void checkRecordLen(Section& exporter, const TrackerSettings& t, const ExporterSettings& e) {
  if (t.type != FlowTrackingType::software) return;
  const uint32_t least =
      ::Ipfix::IpfixConst::ipUdpHeaderLen() + messageLenFor(recordLayouts(t.definition));
  if (e.mtu < least)
    exporter.refuse("mtu", "record " + keyText(t.record) + " of the tracker needs one of " +
                               std::to_string(least) + " octets at least");
}

void readExporters(Section& tracker, TrackerSettings& out) {
  tracker.tables("exporter", "exporter", nameRule("an exporter"),
                 [&](const std::string& name, Section& s) {
                   ExporterSettings e;
                   if (!readKeys(s, e).contains("mtu")) checkRecordLen(s, out, e);
                   readCollectors(s, e);
                   out.exporters.emplace(name, std::move(e));
                 });
}

/// What is wrong with the name of a field, or nothing.
std::string nameProblem(const std::string& name) {
  std::vector<std::string_view> known;
  for (const RecordField& f : recordFields()) known.emplace_back(f.name);
  if (std::find(known.begin(), known.end(), name) != known.end()) return {};
  return "no field has this name; " + suggestion(name, known, "there are");
}

void readRecord(Section& s, RecordDefinition& r) {
  if (!readKeys(s, r).empty()) return;
  s.elements("fields", [&](size_t at) {
    const std::string unknown = nameProblem(r.fields[at]);
    return unknown.empty() ? fieldProblem(r, at) : unknown;
  });
  s.elements("keys", [&](size_t at) {
    const std::string unknown = nameProblem(r.keys[at]);
    return unknown.empty() ? keyProblem(r, at) : unknown;
  });
  const auto any = [&](const auto& good) {
    return std::any_of(r.fields.begin(), r.fields.end(), [&](const std::string& name) {
      const RecordField* f = recordField(name);
      return !f || good(*f);
    });
  };
  if (!any([](const RecordField& f) { return (f.kinds & ipPackets) == ipPackets; }))
    s.refuse("fields", "one field at least is of all IP packets, like packetDeltaCount");
  const auto hasAddress = [&](uint16_t source, uint16_t destination) {
    return any(
        [=](const RecordField& f) { return f.element == source || f.element == destination; });
  };
  if (r.prefix4 < 32 && !hasAddress(8, 12))
    s.refuse("prefix4", "none of the fields is an IPv4 address");
  if (r.prefix6 < 128 && !hasAddress(27, 28))
    s.refuse("prefix6", "none of the fields is an IPv6 address");
}

void readRecords(Section& root, Settings& out) {
  const auto rule = [](const std::string& name) {
    return builtInRecords().contains(name) ? "a record of this name is built in"
                                           : nameRule("a record")(name);
  };
  root.tables("record", "record", rule,
              [&](const std::string& name, Section& s) { readRecord(s, out.records[name]); });
}

/// Makes the tracker's record that of two-way flows, unless something else forbids it.
void followBiflow(Section& s, TrackerSettings& t) {
  if (const std::string problem = biflowProblem(t.definition); !problem.empty())
    return s.refuse("biflow", "record " + keyText(t.record) + " " + problem);
  if (t.direction == Direction::both)
    s.refuse("direction",
             "with \"both\" a forwarded packet would count twice in one two-way flow, which has "
             "no flowDirection among its keys: the tracker needs another direction, or biflow = "
             "false");
  t.definition = biflowRecord(t.definition);
}

/// Finds the tracker's record, and looks whether it fits what its exporters send.
void followRecord(Section& s, const Settings& all, TrackerSettings& t) {
  std::vector<std::string_view> known;
  for (const auto* records : {&builtInRecords(), &all.records}) {
    for (const auto& [name, record] : *records) known.emplace_back(name);
    if (const auto it = records->find(t.record); it != records->end()) {
      t.definition = it->second;
      const auto& keys = t.definition.keys;
      if (t.biflow) {
        followBiflow(s, t);
      } else if (t.direction == Direction::both &&
                 std::find(keys.begin(), keys.end(), "flowDirection") == keys.end())
        s.refuse("direction",
                 "record " + keyText(t.record) +
                     " does not tell what arrives from what leaves, so a forwarded packet would "
                     "count twice in one flow: it needs flowDirection among its keys, or the "
                     "tracker another direction");
      if (const std::string problem = egressProblem(t.definition, t.egress); !problem.empty())
        s.refuse("egress", "record " + keyText(t.record) + " " + problem);
      if (t.egress == Egress::route && t.tunnel == Tunnel::inner)
        s.refuse(
            "egress",
            "the kernel routes the outer packet of a tunnel, and the tracker counts the inner one");
      return;
    }
  }
  s.refuse("record", "no record has this name; " + suggestion(t.record, known, "there are"));
}
void readTrackers(Section& root, Settings& out) {
  Unique<FlowTracking::FtId> taken;
  Unique<std::tuple<std::string, std::string, uint16_t>> listening;
  root.tables(
      "tracker", "tracker", nameRule("a tracker"), [&](const std::string& name, Section& s) {
        TrackerSettings t;
        if (!readKeys(s, t).contains("id")) {
          const std::string other = taken.take(t.id, keyText(name));
          if (!other.empty())
            s.refuse("id", "tracker " + other + " has this observation domain id");
        }
        followRecord(s, out, t);
        readExporters(s, t);
        if (t.type == FlowTrackingType::hardware && t.localPort != 0 && !t.exporters.empty()) {
          const ExporterSettings& first = t.exporters.begin()->second;
          const std::string other = listening.take(
              {first.vrf.stringValue(), first.localInterface, t.localPort}, keyText(name));
          if (!other.empty())
            s.refuse("local-port", "devices of tracker " + other + " send to " +
                                       first.localInterface + ", port " +
                                       std::to_string(t.localPort) +
                                       ", as well: each needs a port of its own");
        }
        out.trackers.emplace(name, std::move(t));
      });
}

void readVrfs(Section& root, Settings& out) {
  const std::string defaultName{defaultVrf};
  Unique<VrfId> taken;
  root.tables("vrf", "VRF", vrfNameProblem, [&](const std::string& name, Section& s) {
    VrfId id = 0;
    if (!readKeys(s, id).empty()) return;
    if (const std::string other = taken.take(id, keyText(name)); !other.empty())
      s.refuse("id", "VRF " + other + " has this id");
    if (id == 0 && name != defaultName) s.refuse("id", "0 is the id of the VRF \"default\"");
    out.vrfs[name] = id;
  });
  out.vrfs.emplace(defaultName, 0);
}

}  // namespace

SettingsResult parseSettings(std::string_view toml, const std::string& fileName) {
  return parseSettings({{fileName, std::string(toml)}});
}

SettingsResult parseSettings(const std::vector<SettingsText>& files) {
  SettingsResult result;
  SettingsErrors errors;
  toml::table all;
  for (const SettingsText& file : files) {
    errors.fileIs(file.name);
    const auto path = std::make_shared<const std::string>(file.name);
    if (const auto at = tooDeepKey(file.toml)) {
      errors.add({*at, *at, path}, "a key has at most " + std::to_string(keyDepthMax) + " steps");
      continue;
    }
    try {
      merge(all, toml::parse(file.toml, file.name));
    } catch (const toml::parse_error& e) {
      errors.add({e.source().begin, e.source().end, path},
                 "not TOML: " + printable(e.description(), 1000));
    }
  }
  Settings settings;
  if (errors.empty()) {
    Section root(errors, all, {}, {{1, 1}, {1, 1}, {}});
    root.table("agent", [&](Section& s) { readKeys(s, settings); });
    readVrfs(root, settings);
    readRecords(root, settings);
    readTrackers(root, settings);
  }
  if (errors.empty()) {
    result.settings = std::move(settings);
  } else {
    result.errors = errors.inFileOrder();
  }
  return result;
}

}  // namespace agent
