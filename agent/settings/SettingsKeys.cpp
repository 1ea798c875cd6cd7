#include "agent/settings/SettingsKeys.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <optional>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/host/Names.h"
#include "agent/settings/SettingsErrors.h"

namespace agent {
namespace {
using FlowTracking::FlowTrackingType;
using std::chrono::milliseconds;

constexpr size_t interfaceNameMax = 15;  // IFNAMSIZ without its terminator
constexpr size_t socketPathMax = 107;    // sockaddr_un::sun_path without its terminator
// What must fit into one packet: IPv6, UDP, message and set headers with the longest record. That
// is an options record about an interface (index, length, 254 octets of name); one about a tracker
// has up to 21 + 128. Templates travel in one message, which is shorter: 168 octets for flows.
constexpr uint32_t mtuMin = 40 + 8 + 16 + 4 + (4 + 1 + FlowTracking::IntfIndexMap::nameMax);
constexpr uint32_t mtuMax = 65535;          // the length field of an IPv4 packet
constexpr int64_t maxFlowsMax = 100000000;  // 17 GB

// --- Kinds of values: what each is in words and in a schema, how it is read and written ---

std::string member(const char* name, const std::string& json) {
  return std::string("\"") + name + "\": " + json;
}
/// A text as JSON writes it: of what stands in this file, which has no control characters.
std::string jsonText(std::string_view text) { return tomlText(text); }

template <class T>
struct Integer {
  const char* noun;
  int64_t min;
  int64_t max;
  const char* more = "";  // for the documents

  std::string range() const { return std::to_string(min) + " to " + std::to_string(max); }
  std::string values() const { return "integer, " + range() + more; }
  std::string schema() const {
    return member("type", "\"integer\"") + ", " + member("minimum", std::to_string(min)) + ", " +
           member("maximum", std::to_string(max));
  }
  std::string read(const toml::node& node, T& out) const {
    const auto* value = node.as_integer();
    if (!value || value->get() < min || value->get() > max)
      return std::string(noun) + " is an integer from " + range();
    out = static_cast<T>(value->get());
    return {};
  }
  std::string write(const T& v) const { return std::to_string(v); }
};

struct Dscp {
  static constexpr Integer<uint32_t> number{"a DSCP", 0, DscpValue::max};
  std::string values() const { return number.values(); }
  std::string schema() const { return number.schema(); }
  std::string read(const toml::node& node, DscpValue& out) const {
    uint32_t v = 0;
    std::string expected = number.read(node, v);
    if (expected.empty()) out = DscpValue(v);
    return expected;
  }
  std::string write(const DscpValue& v) const { return v.stringValue(); }
};

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
/// A time from one second on.
struct Duration {
  const char* noun;
  int maxSeconds;

  std::string max() const { return timeText(std::chrono::seconds(maxSeconds)); }
  std::string values() const { return "time, `1s` to `" + max() + '`'; }
  std::string schema() const { return R"("type": "string", "pattern": "^[0-9]+(ms|s|m|h)$")"; }
  std::string read(const toml::node& node, milliseconds& out) const {
    const auto* value = node.as_string();
    const auto parsed = value ? parseTime(value->get()) : std::nullopt;
    if (!parsed || *parsed < std::chrono::seconds(1) || *parsed > std::chrono::seconds(maxSeconds))
      return std::string(noun) + " is a time from 1s to " + max() +
             R"(, in quotes, like "1500ms", "30s", "5m" or "1h")";
    out = *parsed;
    return {};
  }
  std::string write(milliseconds v) const { return tomlText(timeText(v)); }
};

struct Text {
  const char* words;
  std::string members;
  std::string expected;
  bool (*good)(const std::string&);

  std::string values() const { return words; }
  std::string schema() const { return R"("type": "string", )" + members; }
  std::string read(const toml::node& node, std::string& out) const {
    const auto* value = node.as_string();
    if (!value || !good(value->get())) return expected;
    out = value->get();
    return {};
  }
  std::string write(const std::string& v) const { return tomlText(v); }
};
std::string lengths(size_t min, size_t max) {
  return member("minLength", std::to_string(min)) + ", " + member("maxLength", std::to_string(max));
}

struct Vrf {
  std::string values() const { return "name of a VRF"; }
  std::string schema() const {
    return R"("type": "string", )" + lengths(1, VrfName::maxLength) +
           R"(, "pattern": "^[^/ \\u0000-\\u001f\\u007f]*$")";
  }
  std::string read(const toml::node& node, VrfName& out) const {
    const auto* value = node.as_string();
    const std::string name = value ? value->get() : std::string();
    std::string problem = vrfNameProblem(name);
    if (problem.empty()) out = VrfName(name);
    return problem;
  }
  std::string write(const VrfName& v) const { return tomlText(v.stringValue()); }
};

/// One of several words.
template <class T>
struct Choice {
  const char* noun;
  std::vector<T> all;

  std::string values() const { return joined("`"); }
  std::string schema() const {
    std::string texts;
    for (const T v : all) texts += (texts.empty() ? "" : ", ") + jsonText(toText(v));
    return "\"enum\": [" + texts + ']';
  }
  std::string read(const toml::node& node, T& out) const {
    const auto* value = node.as_string();
    for (const T v : all)
      if (value && value->get() == toText(v)) {
        out = v;
        return {};
      }
    return std::string(noun) + " is " + joined("");
  }
  std::string write(T v) const { return tomlText(toText(v)); }

 private:
  std::string joined(const char* quote) const {
    std::string text;
    for (size_t i = 0; i < all.size(); ++i) {
      if (i > 0) text += i + 1 < all.size() ? ", " : " or ";
      text += quote + tomlText(toText(all[i])) + quote;
    }
    return text;
  }
};

struct YesNo {
  const char* noun;

  std::string values() const { return "`true` or `false`"; }
  std::string schema() const { return member("type", "\"boolean\""); }
  std::string read(const toml::node& node, bool& out) const {
    const auto* value = node.as_boolean();
    if (!value) return std::string(noun) + " is true or false, without quotes";
    out = value->get();
    return {};
  }
  std::string write(bool v) const { return v ? "true" : "false"; }
};

struct Patterns {
  static constexpr size_t longest = VrfName::maxLength + 1 + settingsNameMax;
  std::string values() const { return "list of names and patterns"; }
  std::string schema() const {
    return R"("type": "array", "items": {"type": "string", )" + lengths(1, longest) +
           R"(, "pattern": "^[^ \\u0000-\\u001f\\u007f]*$"})";
  }
  std::string read(const toml::node& node, std::vector<std::string>& out) const {
    const auto* all = node.as_array();
    const auto good = [](const toml::node& n) {
      const auto* s = n.as_string();
      return s && !s->get().empty() && s->get().size() <= longest && !hasControlOrBlank(s->get());
    };
    if (!all || !std::all_of(all->begin(), all->end(), good))
      return R"(interfaces is a list of names or patterns without blanks, like ["eth*", "red/eth0"])";
    for (const auto& n : *all) out.push_back(n.as_string()->get());
    return {};
  }
  std::string write(const std::vector<std::string>& v) const {
    std::string out;
    for (const std::string& p : v) out += (out.empty() ? "" : ", ") + tomlText(p);
    return '[' + out + ']';
  }
};

struct FieldNames {
  std::string values() const { return "list of names"; }
  std::string schema() const {
    std::string names;
    for (const RecordField& f : recordFields())
      names += (names.empty() ? "" : ", ") + jsonText(f.name);
    return R"("type": "array", "minItems": 1, "uniqueItems": true, "items": {"enum": [)" + names +
           "]}";
  }
  std::string read(const toml::node& node, std::vector<std::string>& out) const {
    const auto* all = node.as_array();
    if (!all || all->empty() || !all->is_homogeneous<std::string>())
      return R"(it is a list of names, like ["sourceIPv4Address", "packetDeltaCount"])";
    for (const auto& n : *all) out.push_back(n.as_string()->get());
    return {};
  }
  std::string write(const std::vector<std::string>& v) const { return Patterns{}.write(v); }
};

struct Rate {
  std::string values() const { return "text"; }
  std::string schema() const { return R"("type": "string", "minLength": 1)"; }
  std::string read(const toml::node& node, RateLimit& out) const {
    const auto* value = node.as_string();
    const auto limit = value ? RateLimit::fromString(value->get()) : std::nullopt;
    if (limit) out = *limit;
    return limit ? std::string()
                 : "a rate limit is \"default\", \"none\" or a number with a unit: "
                   "\"100 Mbit/s\", \"12 MB/s\", \"8000 messages/s\"";
  }
  std::string write(const RateLimit& v) const { return tomlText(v.stringValue()); }
};

/// A collector's place: an address, or the name of a host.
struct AddressOrHost {
  std::string values() const { return "IPv4 or IPv6 address, or host name"; }
  std::string schema() const { return R"("type": "string", "minLength": 1)"; }
  std::string read(const toml::node& node, CollectorSettings& out) const {
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
  std::string write(const CollectorSettings& c) const {
    return tomlText(c.host.empty() ? c.address.stringValue() : c.host);
  }
};

// --- The tables ---

template <class S, class T, class Kind>
SettingsKey<S> key(const char* name, T S::*at, const Kind& kind, const char* meaning,
                   Effect effect = Effect::atOnce, const char* missing = nullptr) {
  return {.name = name,
          .missing = missing,
          .effect = effect,
          .meaning = meaning,
          .values = kind.values(),
          .schema = kind.schema(),
          .read = [=](const toml::node& node, S& s) -> std::string {
            T value{};
            std::string expected = kind.read(node, value);
            if (expected.empty()) s.*at = std::move(value);
            return expected;
          },
          .write = [=](const S& s) { return kind.write(s.*at); },
          .same = [=](const S& a, const S& b) { return a.*at == b.*at; }};
}
/// Of a key that is all of `S`, or more than one member of it.
template <class S, class Kind>
SettingsKey<S> keyOfAll(const char* name, const Kind& kind, const char* meaning,
                        const char* missing) {
  return {.name = name,
          .missing = missing,
          .effect = Effect::atOnce,
          .meaning = meaning,
          .values = kind.values(),
          .schema = kind.schema(),
          .read = [=](const toml::node& node, S& s) { return kind.read(node, s); },
          .write = [=](const S& s) { return kind.write(s); },
          .same = [=](const S& a, const S& b) { return kind.write(a) == kind.write(b); }};
}
/// The record of a tracker. Two are the same when their fields are, whatever their names.
SettingsKey<TrackerSettings> recordKey() {
  using S = TrackerSettings;
  auto record = key(
      "record", &S::record,
      Text{"name of a record", R"("minLength": 1)", "a record's name is a text",
           [](const std::string&) { return true; }},
      "Of a tracker of type `\"software\"`: what it tells of a flow, and what tells flows apart: "
      "`\"standard\"`, `\"minimal\"`, `\"layer2\"`, `\"full\"` or the name of a "
      "[section](#recordname) "
      "`record.NAME`.",
      Effect::flowsAnew);
  record.same = [](const S& a, const S& b) { return a.definition == b.definition; };
  return record;
}
}  // namespace

template <>
const std::vector<SettingsKey<Settings>>& settingsKeys() {
  using S = Settings;
  static const std::vector<SettingsKey<S>> keys = {
      key("statistics", &S::statistics,
          Text{"text: `/` and 1 to 254 octets without another `/`",
               lengths(2, NAME_MAX) + R"(, "pattern": "^/[^/\\u0000-\\u001f\\u007f]*$")",
               "the name of the statistics begins with '/', has no other '/' and 2 to 255 octets",
               [](const std::string& v) {
                 return v.size() >= 2 && v.size() <= NAME_MAX && v[0] == '/' && v != "/." &&
                        v != "/.." && v.find('/', 1) == v.npos && !hasControl(v);
               }},
          "POSIX shared-memory segment with the counters per collector, which any local process "
          "may read. Two agents on one machine need two names: the second refuses to start.",
          Effect::nextStart),
      key("control", &S::control,
          Text{"absolute path, at most 107 octets",
               lengths(2, socketPathMax) + R"(, "pattern": "^/[^\\u0000-\\u001f\\u007f]*$")",
               "the control socket is an absolute path of at most " +
                   std::to_string(socketPathMax) + " octets",
               [](const std::string& v) {
                 return v.size() >= 2 && v.size() <= socketPathMax && v[0] == '/' && !hasControl(v);
               }},
          "Path of the [control socket](control-socket.md), which the commands of `tarnflow` ask. "
          "Its directory is made if the one above it is there.",
          Effect::nextStart),
      key("resolve-interval", &S::resolveInterval, Duration{"a resolve interval", 86400},
          "Time between two lookups of a collector's host."),
  };
  return keys;
}

template <>
const std::vector<SettingsKey<VrfId>>& settingsKeys() {
  static const std::vector<SettingsKey<VrfId>> keys = {keyOfAll<VrfId>(
      "id", Integer<VrfId>{"a VRF's id", 0, vrfIdMax, ", unique"},
      "The number that stands for the VRF in what is exported (ingressVRFID). 0 is taken by "
      "`default`, also when that is given another id.",
      "the number that is exported as ingressVRFID")};
  return keys;
}

template <>
const std::vector<SettingsKey<RecordDefinition>>& settingsKeys() {
  using S = RecordDefinition;
  static const std::vector<SettingsKey<S>> keys = {
      key("fields", &S::fields, FieldNames{},
          "What a record tells, in this order: names of the table below.", Effect::atOnce,
          "the names of the fields that the record has"),
      key("keys", &S::keys, FieldNames{},
          "Those of the fields that tell flows apart: packets that have the same values of them "
          "are one flow.",
          Effect::atOnce, "the names of the fields that tell flows apart"),
      key("prefix4", &S::prefix4, Integer<uint32_t>{"a prefix of IPv4 addresses", 1, 32, ", bits"},
          "So much counts of an IPv4 address; what is behind is 0 in records, and tells no flows "
          "apart."),
      key("prefix6", &S::prefix6, Integer<uint32_t>{"a prefix of IPv6 addresses", 1, 128, ", bits"},
          "The same of an IPv6 address."),
  };
  return keys;
}

template <>
const std::vector<SettingsKey<TrackerSettings>>& settingsKeys() {
  using S = TrackerSettings;
  static const std::vector<SettingsKey<S>> keys = {
      key("id", &S::id,
          Integer<FlowTracking::FtId>{"an observation domain id", 0, UINT32_MAX, ", unique"},
          "Observation domain id of all messages of this tracker.", Effect::trackerAnew,
          "the observation domain id, an integer of its own for each tracker"),
      key("type", &S::type,
          Choice<FlowTrackingType>{"a tracker's type",
                                   {FlowTrackingType::software, FlowTrackingType::hardware}},
          "Who tracks the flows.", Effect::trackerAnew),
      key("interfaces", &S::interfaces, Patterns{},
          "Interfaces whose packets are tracked, as they come and go, of a tracker of type "
          "`\"software\"`: `\"eth0\"`, `\"eth*\"`, in other VRFs `\"red/eth0\"`, `\"red/*\"`. "
          "Needs CAP_NET_RAW."),
      key("direction", &S::direction,
          Choice<Direction>{"a direction", {std::begin(directions), std::end(directions)}},
          "Of a tracker of type `\"software\"`: the packets that are counted at its interfaces: "
          "those that arrive, those that leave, or both; or each packet once, which is what "
          "arrives and what this machine sends itself ([below](#direction)).",
          Effect::flowsAnew),
      key("egress", &S::egress,
          Choice<Egress>{"where egress interfaces are known from",
                         {std::begin(egresses), std::end(egresses)}},
          "Of a tracker of type `\"software\"`: how records know by which interface, and to which "
          "next hop, a packet for somebody else leaves: not at all, or from the kernel's routing "
          "tables ([below](#direction)).",
          Effect::flowsAnew),
      key("own-export", &S::ownExport, YesNo{"own-export"},
          "Of a tracker of type `\"software\"`: whether it counts the messages that this agent "
          "itself sends ([below](#direction))."),
      key("sample-rate", &S::sampleRate,
          Integer<uint32_t>{"a sample rate, one packet out of so many,", 1, UINT32_MAX},
          "One packet out of so many is looked at."),
      key("active-interval", &S::activeInterval, Duration{"an active interval", 65534},
          "How often a flow that goes on is reported, and the options tables are sent whole: "
          "interfaces, VRFs, this tracker, its flow keys. Collectors are told in whole seconds."),
      key("inactive-timeout", &S::inactiveTimeout, Duration{"an inactive timeout", 65534},
          "Silence after which a flow is over."),
      key("max-flows", &S::maxFlows,
          Integer<size_t>{"a number of flows that have room at a time", 1, maxFlowsMax},
          "Of a tracker of type `\"software\"`: flows under way that have room, in each VRF. "
          "Beyond it a new flow ends the one that is nearest to its end. Memory is used for flows "
          "that there are, 80 to 125 octets each of a standard record "
          "([operating.md](operating.md#memory)).",
          Effect::flowsAnew),
      recordKey(),
      key("local-port", &S::localPort, Integer<uint16_t>{"a port that devices send to", 0, 65535},
          "Of a tracker of type `\"hardware\"`: the UDP port that devices send to. 0: one that the "
          "kernel chooses; the log says which."),
  };
  return keys;
}

template <>
const std::vector<SettingsKey<ExporterSettings>>& settingsKeys() {
  using S = ExporterSettings;
  static const std::vector<SettingsKey<S>> keys = {
      key("local-interface", &S::localInterface,
          Text{"name, 1 to 15 octets",
               lengths(1, interfaceNameMax) + R"(, "pattern": "^[^/ \\u0000-\\u001f\\u007f]*$")",
               "an interface's name has 1 to " + std::to_string(interfaceNameMax) +
                   " octets, without blank and '/'",
               [](const std::string& v) {
                 return !v.empty() && v.size() <= interfaceNameMax && v != "." && v != ".." &&
                        v.find('/') == v.npos && !hasControlOrBlank(v);
               }},
          "The source addresses are this interface's. See below.", Effect::atOnce,
          "the interface that the source addresses come from"),
      key("vrf", &S::vrf, Vrf{}, "Where the interface is, and the collectors are reached."),
      key("dscp", &S::dscp, Dscp{},
          "Differentiated services code point of all messages, IPv4 and IPv6; 46 is seen as TOS or "
          "traffic class 184."),
      key("mtu", &S::mtu, Integer<uint32_t>{"an mtu, in octets,", mtuMin, mtuMax, ", octets"},
          "The largest IP packet. Messages are 48 octets smaller, the IPv6 and UDP headers. 327 "
          "holds the longest record of an options table, about an interface; templates need "
          "less."),
      key("template-interval", &S::templateInterval, Duration{"a template interval", 65535},
          "How often templates are sent again, in whole seconds: `\"1500ms\"` is every second. A "
          "change sends at once."),
      key("rate-limit", &S::rateLimit, Rate{},
          "How fast this exporter sends at most, in each family: `\"100 Mbit/s\"`, "
          "`\"12.5 MB/s\"`, `\"8000 messages/s\"` (k, M and G are powers of 1000; octets are those "
          "of UDP payload), "
          "or `\"none\"`. What is beyond waits, nothing is dropped for it. `\"default\"` is 8000 "
          "messages a second in bursts of 32, which a collector's socket holds that was given no "
          "more room than usual."),
  };
  return keys;
}

template <>
const std::vector<SettingsKey<CollectorSettings>>& settingsKeys() {
  using S = CollectorSettings;
  static const std::vector<SettingsKey<S>> keys = {
      keyOfAll<S>("address", AddressOrHost{},
                  "Where messages go. Not an unspecified, broadcast, multicast, link-local or "
                  "IPv4-mapped address.",
                  "the collector's IPv4 or IPv6 address, or host name"),
      key("port", &S::port, Integer<uint16_t>{"a port", 1, 65535}, "UDP port."),
  };
  return keys;
}

namespace {
template <class S>
bool same(const S& a, const S& b, std::optional<Effect> effect = {}) {
  const auto& keys = settingsKeys<S>();
  return std::all_of(keys.begin(), keys.end(), [&](const SettingsKey<S>& key) {
    return (effect && key.effect != *effect) || key.same(a, b);
  });
}
}  // namespace
bool sameKeys(const TrackerSettings& a, const TrackerSettings& b) { return same(a, b); }
bool sameKeys(const ExporterSettings& a, const ExporterSettings& b) { return same(a, b); }
bool sameKeys(const TrackerSettings& a, const TrackerSettings& b, Effect effect) {
  return same(a, b, effect);
}

std::string tomlText(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      (out += '\\') += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out += '"';
}
std::string tomlKey(std::string_view key) {
  return isBareKey(key) ? std::string(key) : tomlText(key);
}

}  // namespace agent
