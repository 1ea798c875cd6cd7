#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/records/FlowRecords.h"
#include "agent/settings/InterfacePatterns.h"
#include "platform/FlowTracking.h"
#include "platform/Ip.h"
#include "platform/UdpPam.h"
#include "platform/Values.h"

namespace agent {
using namespace platform;

/// A configuration that was read and found valid as a whole; docs/configuration.md describes each
/// key. Equal settings need no work.
struct CollectorSettings {
  IpGenAddr address;      ///< none as long as only the host's name is known
  uint16_t port = 4739;   // IANA's port for IPFIX over UDP
  std::string host = {};  ///< name that the address is looked up by; empty: the address is given
  bool operator==(const CollectorSettings&) const = default;
};

struct ExporterSettings {
  VrfName vrf{std::string(defaultVrf)};
  std::string localInterface;
  DscpValue dscp;
  uint32_t mtu = 1500;  ///< octets of the largest IP packet
  std::chrono::milliseconds templateInterval{60000};
  RateLimit rateLimit;  ///< of each family's endpoint
  std::map<std::string, CollectorSettings> collectors;
  bool operator==(const ExporterSettings&) const = default;
};

struct TrackerSettings {
  FlowTracking::FtId id = 0;  ///< observation domain id, unique over all trackers
  FlowTracking::FlowTrackingType type = FlowTracking::FlowTrackingType::software;
  InterfacePatterns interfaces;           ///< of the interfaces whose packets are tracked
  Direction direction = Direction::once;  ///< of the packets that are tracked
  Egress egress = Egress::none;           ///< where records know from by what they leave
  Tunnel tunnel = Tunnel::outer;          ///< which packet of a tunnel's is tracked
  bool ownExport = false;                 ///< the agent's own messages are tracked as well
  bool biflow = false;                    ///< one record tells of both directions
  bool promiscuous = false;               ///< packets for other stations are asked for
  std::string filter;           ///< an expression that chooses packets; empty: all of them
  uint32_t sampleRate = 1;      ///< one packet out of this many
  bool samplingOption = false;  ///< an options record says so
  std::chrono::milliseconds activeInterval{60000};
  std::chrono::milliseconds inactiveTimeout{15000};
  uint16_t localPort = 4739;     ///< where devices send to, of a hardware tracker; 0: any
  bool exporterAddress = false;  ///< records of devices get the device's address
  size_t maxFlows = 1000000;     ///< flows under way in each VRF, of a software tracker
  std::string record = standardRecordName;  ///< what is told of a flow, of a software tracker ...
  RecordDefinition definition = builtInRecords().at(standardRecordName);  ///< ... and its fields
  std::map<std::string, ExporterSettings> exporters;
  bool operator==(const TrackerSettings&) const = default;
};

struct Settings {
  std::string statistics = "/tarnflow";                ///< name of the shared-memory segment
  std::string control = "/run/tarnflow/control.sock";  ///< path of the control socket
  std::chrono::milliseconds resolveInterval{60000};    ///< between two lookups of a host's name
  std::map<std::string, VrfId> vrfs;                   ///< exported ids; always has "default"
  std::map<std::string, RecordDefinition> records;     ///< by name; without those built in
  std::map<std::string, TrackerSettings> trackers;
  bool operator==(const Settings&) const = default;
};

inline constexpr VrfId vrfIdMax = 0xfffffe;  ///< 0xffffff is exported for "no VRF"

/// Octets of a tracker's, exporter's or collector's name: what a statistics entry holds.
inline constexpr size_t settingsNameMax = 128;

/// Errors of one configuration that are kept, the first ones; the others are counted.
inline constexpr size_t settingsErrorsMax = 100;

/// What a change of a key does to what runs.
enum class Effect {
  atOnce,       ///< nothing starts anew
  flowsAnew,    ///< flows under way are reported and end
  trackerAnew,  ///< the exporters get new sockets and counters
  nextStart,    ///< nothing before the agent is started again
};

/// No own key differs; those of tables below it may.
bool sameKeys(const TrackerSettings& a, const TrackerSettings& b);
bool sameKeys(const ExporterSettings& a, const ExporterSettings& b);
/// No own key of this effect differs.
bool sameKeys(const TrackerSettings& a, const TrackerSettings& b, Effect effect);

/// A time as the configuration writes it: "1500ms", "60s".
std::string timeText(std::chrono::milliseconds t);

/// How many of each a configuration has, for messages.
struct SettingsCount {
  size_t trackers = 0;
  size_t exporters = 0;
  size_t collectors = 0;
};
SettingsCount count(const Settings& settings);
/// "2 trackers, 1 exporter, 3 collectors".
std::string describe(const SettingsCount& n);

}  // namespace agent
