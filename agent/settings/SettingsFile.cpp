#include "agent/settings/SettingsFile.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/host/Names.h"
#include "agent/host/Printable.h"
#include "agent/settings/SettingsSection.h"

namespace agent {
namespace {
using FlowTracking::FlowTrackingType;
using std::chrono::milliseconds;
using Section = SettingsSection;
template <class T>
using Rule = SettingsRule<T>;

constexpr size_t nameMax = 128;          // what a statistics entry holds of a name
constexpr size_t interfaceNameMax = 15;  // IFNAMSIZ without its terminator
constexpr size_t socketPathMax = 107;    // sockaddr_un::sun_path without its terminator
// What must fit into one packet: IPv6, UDP, message and set headers with the longest record. That
// is an options record about an interface (index, length, 254 octets of name); one about a tracker
// has up to 21 + 128. Templates travel in one message, which is shorter: 152 octets for flows.
constexpr uint32_t mtuMin = 40 + 8 + 16 + 4 + (4 + 1 + FlowTracking::IntfIndexMap::nameMax);
constexpr uint32_t mtuMax = 65535;  // the length field of an IPv4 packet
constexpr milliseconds second{1000};
constexpr int64_t maxFlowsMax = 100000000;  // 17 GB

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

// Rules. Each is made of what the value is, in words, and a test.

template <class T>
Rule<T> integer(const std::string& noun, int64_t min, int64_t max) {
  return [=](const toml::node& node, T& out) -> std::string {
    const auto* value = node.as_integer();
    if (!value || value->get() < min || value->get() > max)
      return noun + " is an integer from " + std::to_string(min) + " to " + std::to_string(max);
    out = static_cast<T>(value->get());
    return {};
  };
}

Rule<std::string> text(const std::string& expected,
                       const std::function<bool(const std::string&)>& good) {
  return [=](const toml::node& node, std::string& out) -> std::string {
    const auto* value = node.as_string();
    if (!value || !good(value->get())) return expected;
    out = value->get();
    return {};
  };
}

std::optional<milliseconds> parseTime(std::string_view text) {
  int64_t value = 0;
  auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (err != std::errc{} || text.empty() || text[0] == '-') return std::nullopt;
  const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
  const int64_t factor = unit == "ms"  ? 1
                         : unit == "s" ? 1000
                         : unit == "m" ? 60000
                         : unit == "h" ? 3600000
                                       : 0;
  if (factor == 0 || value > INT64_MAX / factor) return std::nullopt;
  return milliseconds(value * factor);
}
Rule<milliseconds> duration(const std::string& noun, milliseconds min, milliseconds max) {
  return [=](const toml::node& node, milliseconds& out) -> std::string {
    const auto* value = node.as_string();
    const auto parsed = value ? parseTime(value->get()) : std::nullopt;
    if (!parsed || *parsed < min || *parsed > max)
      return noun + " is a time from " + timeText(min) + " to " + timeText(max) +
             R"(, in quotes, like "1500ms", "30s", "5m" or "1h")";
    out = *parsed;
    return {};
  };
}

/// A collector's place: an address, or the name of a host.
struct Place {
  IpGenAddr address;
  std::string host;
};
std::string placeRule(const toml::node& node, Place& out) {
  const auto* value = node.as_string();
  const auto parsed = value ? IpGenAddr::fromString(value->get()) : std::nullopt;
  if (parsed && parsed->family() != IpGenAddr::Family::none) {
    if (const std::string what = collectorAddressProblem(*parsed); !what.empty())
      return "a collector has an address of its own, and this is " + what;
    out.address = *parsed;
  } else if (value && isHostName(value->get())) {
    out.host = value->get();
  } else {
    return "a collector's address is one IPv4 or IPv6 address, or the name of a host, in quotes";
  }
  return {};
}

std::string typeRule(const toml::node& node, FlowTrackingType& out) {
  const auto* value = node.as_string();
  if (value && value->get() == "software") {
    out = FlowTrackingType::software;
  } else if (value && value->get() == "hardware") {
    out = FlowTrackingType::hardware;
  } else {
    return R"(a tracker's type is "software" or "hardware")";
  }
  return {};
}

std::string patternsRule(const toml::node& node, std::vector<std::string>& out) {
  const auto* all = node.as_array();
  const auto good = [](const toml::node& n) {
    const auto* s = n.as_string();
    return s && !s->get().empty() && s->get().size() <= VrfName::maxLength + 1 + nameMax &&
           !hasControlOrBlank(s->get());
  };
  if (!all || !std::all_of(all->begin(), all->end(), good))
    return R"(interfaces is a list of names or patterns without blanks, like ["eth*", "red/eth0"])";
  for (const auto& n : *all) out.push_back(n.as_string()->get());
  return {};
}

std::function<std::string(const std::string&)> nameRule(const std::string& what) {
  return [=](const std::string& name) -> std::string {
    if (!name.empty() && name.size() <= nameMax && !hasControl(name)) return {};
    return what + "'s name has 1 to " + std::to_string(nameMax) +
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

void readCollectors(Section& exporter, ExporterSettings& out) {
  Unique<std::tuple<IpGenAddr, std::string, uint16_t>> taken;
  exporter.tables(
      "collector", "collector", nameRule("a collector"), [&](const std::string& name, Section& s) {
        CollectorSettings c;
        Place place;
        const bool valid = s.required<Place>("address", place, placeRule,
                                             "the collector's IPv4 or IPv6 address, or host name");
        c.address = place.address;
        c.host = place.host;
        s.optional<uint16_t>("port", c.port, integer<uint16_t>("a port", 1, 65535));
        if (valid) {
          // Its counters are kept under address and port.
          const std::string other = taken.take({c.address, c.host, c.port}, keyText(name));
          if (!other.empty())
            s.refuse("address",
                     "collector " + other + " of this exporter has the same address and port");
        }
        out.collectors.emplace(name, c);
      });
}

void readExporters(Section& tracker, TrackerSettings& out) {
  tracker.tables(
      "exporter", "exporter", nameRule("an exporter"), [&](const std::string& name, Section& s) {
        ExporterSettings e;
        std::string vrf{defaultVrf};
        s.optional<std::string>("vrf", vrf, [](const toml::node& node, std::string& v) {
          const auto* value = node.as_string();
          if (value) v = value->get();
          return vrfNameProblem(v);
        });
        e.vrf = VrfName(vrf);
        const auto interfaceRule =
            text("an interface's name has 1 to " + std::to_string(interfaceNameMax) +
                     " octets, without blank and '/'",
                 [](const std::string& v) {
                   return !v.empty() && v.size() <= interfaceNameMax && v != "." && v != ".." &&
                          v.find('/') == v.npos && !hasControlOrBlank(v);
                 });
        s.required<std::string>("local-interface", e.localInterface, interfaceRule,
                                "the interface that the source addresses come from");
        uint32_t dscp = 0;
        s.optional<uint32_t>("dscp", dscp, integer<uint32_t>("a DSCP", 0, DscpValue::max));
        e.dscp = DscpValue(dscp);
        s.optional<uint32_t>("mtu", e.mtu, integer<uint32_t>("an mtu, in octets,", mtuMin, mtuMax));
        s.optional<milliseconds>("template-interval", e.templateInterval,
                                 duration("a template interval", second, 65535 * second));
        s.optional<RateLimit>("rate-limit", e.rateLimit, [](const toml::node& node, RateLimit& v) {
          const auto* value = node.as_string();
          const auto limit = value ? RateLimit::fromString(value->get()) : std::nullopt;
          if (limit) v = *limit;
          return limit ? std::string()
                       : "a rate limit is \"default\", \"none\" or a number with a unit: "
                         "\"100 Mbit/s\", \"12 MB/s\", \"8000 messages/s\"";
        });
        readCollectors(s, e);
        out.exporters.emplace(name, std::move(e));
      });
}

void readTrackers(Section& root, Settings& out) {
  Unique<FlowTracking::FtId> taken;
  Unique<std::tuple<std::string, std::string, uint16_t>> listening;
  root.tables(
      "tracker", "tracker", nameRule("a tracker"), [&](const std::string& name, Section& s) {
        TrackerSettings t;
        if (s.required<FlowTracking::FtId>(
                "id", t.id, integer<FlowTracking::FtId>("an observation domain id", 0, UINT32_MAX),
                "the observation domain id, an integer of its own for each tracker")) {
          const std::string other = taken.take(t.id, keyText(name));
          if (!other.empty())
            s.refuse("id", "tracker " + other + " has this observation domain id");
        }
        s.optional<FlowTrackingType>("type", t.type, typeRule);
        s.optional<std::vector<std::string>>("interfaces", t.interfaces, patternsRule);
        s.optional<uint32_t>(
            "sample-rate", t.sampleRate,
            integer<uint32_t>("a sample rate, one packet out of so many,", 1, UINT32_MAX));
        s.optional<milliseconds>("active-interval", t.activeInterval,
                                 duration("an active interval", second, 65534 * second));
        s.optional<milliseconds>("inactive-timeout", t.inactiveTimeout,
                                 duration("an inactive timeout", second, 65534 * second));
        s.optional<uint16_t>("local-port", t.localPort,
                             integer<uint16_t>("a port that devices send to", 0, 65535));
        s.optional<size_t>(
            "max-flows", t.maxFlows,
            integer<size_t>("a number of flows that have room at a time", 1, maxFlowsMax));
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
  std::map<VrfId, std::string> taken;
  root.tables("vrf", "VRF", vrfNameProblem, [&](const std::string& name, Section& s) {
    VrfId id = 0;
    if (!s.required<VrfId>("id", id, integer<VrfId>("a VRF's id", 0, vrfIdMax),
                           "the number that is exported as ingressVRFID"))
      return;
    const auto [owner, fresh] = taken.emplace(id, name);
    if (!fresh) s.refuse("id", "VRF " + keyText(owner->second) + " has this id");
    if (id == 0 && name != defaultName) s.refuse("id", "0 is the id of the VRF \"default\"");
    out.vrfs[name] = id;
  });
  out.vrfs.emplace(defaultName, 0);
}

void readAgent(Section& s, Settings& out) {
  s.optional<std::string>(
      "statistics", out.statistics,
      text("the name of the statistics begins with '/', has no other '/' and 2 to 255 octets",
           [](const std::string& v) {
             return v.size() >= 2 && v.size() <= NAME_MAX && v[0] == '/' && v != "/." &&
                    v != "/.." && v.find('/', 1) == v.npos && !hasControl(v);
           }));
  s.optional<std::string>("control", out.control,
                          text("the control socket is an absolute path of at most " +
                                   std::to_string(socketPathMax) + " octets",
                               [](const std::string& v) {
                                 return v.size() >= 2 && v.size() <= socketPathMax && v[0] == '/' &&
                                        !hasControl(v);
                               }));
  s.optional<milliseconds>("resolve-interval", out.resolveInterval,
                           duration("a resolve interval", second, 86400 * second));
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
    root.table("agent", [&](Section& s) { readAgent(s, settings); });
    readVrfs(root, settings);
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
