#include "agent/settings/SettingsKeys.h"

#include <algorithm>
#include <climits>
#include <optional>

#include "Ipfix/FlowTrackingTypes.h"
#include "agent/host/Names.h"
#include "agent/settings/SettingsKinds.h"

namespace agent {
namespace {
using namespace kinds;
using FlowTracking::FlowTrackingType;

constexpr size_t interfaceNameMax = 15;  // IFNAMSIZ without its terminator
constexpr size_t socketPathMax = 107;    // sockaddr_un::sun_path without its terminator
// What must fit into one packet: IPv6, UDP, message and set headers with the longest record. That
// is an options record about an interface (index, length, 254 octets of name); one about a tracker
// has up to 21 + 128. Templates travel in one message, which is shorter: 168 octets for flows.
constexpr uint32_t mtuMin = 40 + 8 + 16 + 4 + (4 + 1 + FlowTracking::IntfIndexMap::nameMax);
constexpr uint32_t mtuMax = 65535;          // the length field of an IPv4 packet
constexpr int64_t maxFlowsMax = 100000000;  // 17 GB

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
/// Those of a tracker's keys that say which packets count.
std::vector<SettingsKey<TrackerSettings>> packetKeys() {
  using S = TrackerSettings;
  return {
      key("interfaces", &S::interfaces, Patterns{},
          "Interfaces whose packets are tracked, as they come and go, of a tracker of type "
          "`\"software\"`: `\"eth0\"`, `\"eth*\"`, in other VRFs `\"red/eth0\"`, `\"red/*\"`; "
          "`\"!veth*\"`: but not these ([below](#interfaces)). Needs CAP_NET_RAW."),
      key("direction", &S::direction, choice("a direction", directions),
          "Of a tracker of type `\"software\"`: the packets that are counted at its interfaces: "
          "those that arrive, those that leave, or both; or each packet once, which is what "
          "arrives and what this machine sends itself ([below](#direction)).",
          Effect::flowsAnew),
      key("egress", &S::egress, choice("where egress interfaces are known from", egresses),
          "Of a tracker of type `\"software\"`: how records know by which interface, and to which "
          "next hop, a packet for somebody else leaves: not at all, or from the kernel's routing "
          "tables ([below](#direction)).",
          Effect::flowsAnew),
      key("tunnel", &S::tunnel, choice("the packet of a tunnel that counts", tunnels),
          "Of a tracker of type `\"software\"`: whether a packet in a tunnel counts as what it is "
          "on the wire, or as the IP packet inside ([below](#tunnels)).",
          Effect::flowsAnew),
      key("own-export", &S::ownExport, YesNo{"own-export"},
          "Of a tracker of type `\"software\"`: whether it counts the messages that this agent "
          "itself sends ([below](#direction))."),
      key("biflow", &S::biflow, YesNo{"biflow"},
          "Of a tracker of type `\"software\"`: whether one record tells of both directions of a "
          "conversation ([below](#two-way-flows)).",
          Effect::flowsAnew),
      key("promiscuous", &S::promiscuous, YesNo{"promiscuous"},
          "Of a tracker of type `\"software\"`: whether its interfaces take packets for other "
          "stations as well, as those of a mirror port ([below](#interfaces))."),
      key("filter", &S::filter, Expression{},
          "Of a tracker of type `\"software\"`: the packets that are counted, in the language of "
          "packet captures: `\"not port 4739\"` ([below](#filter)). Empty: all."),
      key("sample-rate", &S::sampleRate,
          Integer<uint32_t>{"a sample rate, one packet out of so many,", 1, UINT32_MAX},
          "One packet out of so many is looked at, of those that pass the filter."),
      key("sampling-option", &S::samplingOption, YesNo{"sampling-option"},
          "Of a tracker of type `\"software\"`: whether an options record of its own, which goes "
          "with the templates, tells the sample rate as well: for collectors that read the rate "
          "from nothing else ([below](#sampling))."),
  };
}
/// Those that say how its flows are told, and where a device sends its own.
std::vector<SettingsKey<TrackerSettings>> flowKeys() {
  using S = TrackerSettings;
  return {
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
      key("exporter-address", &S::exporterAddress, YesNo{"exporter-address"},
          "Of a tracker of type `\"hardware\"`: whether each record gets the address of its "
          "device, as exporterIPv4Address or exporterIPv6Address "
          "([below](#trackers-of-type-hardware)).",
          Effect::trackerAnew),
  };
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
  static const std::vector<SettingsKey<S>> keys = [] {
    std::vector<SettingsKey<S>> all = {
        key("id", &S::id,
            Integer<FlowTracking::FtId>{"an observation domain id", 0, UINT32_MAX, ", unique"},
            "Observation domain id of all messages of this tracker.", Effect::trackerAnew,
            "the observation domain id, an integer of its own for each tracker"),
        key("type", &S::type,
            Choice<FlowTrackingType>{"a tracker's type",
                                     {FlowTrackingType::software, FlowTrackingType::hardware}},
            "Who tracks the flows.", Effect::trackerAnew),
    };
    for (auto* more : {packetKeys, flowKeys})
      for (SettingsKey<S>& one : more()) all.push_back(std::move(one));
    return all;
  }();
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

}  // namespace agent
