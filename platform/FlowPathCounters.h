#pragma once
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

#include "platform/SharedTable.h"

/// What a host counts of each tracker's flow records, as it stands in shared memory: its software
/// flow path, or what devices send to its local collector.
namespace FlowTracking {

/// The table's key.
struct FlowPathKey {
  std::array<char, 128> tracker{};  ///< its name, zero behind it

  explicit FlowPathKey(std::string_view name = {}) { name.copy(tracker.data(), tracker.size()); }
  std::string_view name() const {
    return {tracker.data(), strnlen(tracker.data(), tracker.size())};
  }
};
static_assert(sizeof(FlowPathKey) == 128);

/// The table's value; counts only grow as long as the tracker lives, unless said otherwise.
/// `packetsSeen` = `packets` + `kernelDrops` + `notIp` + `truncated` + `malformed`, but for what is
/// under way.
struct FlowPathRecord {
  FlowPathKey key;
  uint64_t packetsSeen = 0;      ///< that reached the capture, after sampling
  uint64_t kernelDrops = 0;      ///< lost there, since the agent was behind
  uint64_t notIp = 0;            ///< of another network protocol
  uint64_t truncated = 0;        ///< without all the headers that make a flow
  uint64_t malformed = 0;        ///< with lengths that contradict each other
  uint64_t packets = 0;          ///< counted in flows
  uint64_t octets = 0;           ///< of their IP packets
  uint64_t flowsActive = 0;      ///< now
  uint64_t flowsMax = 0;         ///< that have room
  uint64_t flowsCreated = 0;     ///< since the start
  uint64_t endedIdle = 0;        ///< flow records by flowEndReason, IANA element 136
  uint64_t endedActive = 0;      ///< reported while they lasted
  uint64_t endedEndOfFlow = 0;   ///< FIN or RST
  uint64_t endedForced = 0;      ///< the agent or the interface stopped
  uint64_t endedResources = 0;   ///< their place was needed
  uint64_t lostNoCollector = 0;  ///< flows without record: no collector was ready for too long
  uint64_t lostQueueFull = 0;    ///< flows without record: more ended than could be sent
  uint64_t lostPackets = 0;      ///< of both
  uint64_t records = 0;          ///< sent, once per collector
  uint64_t recordsLost = 0;      ///< of an exporter without a ready collector
  uint64_t messages = 0;         ///< sent, once per collector
  uint64_t sampleRate = 0;       ///< one packet out of so many is seen, now
  // What devices send to a tracker of type hardware. Others have zeros here, and it has in the rest
  // but `records`, `recordsLost` and `messages`.
  uint64_t deviceMessages = 0;         ///< datagrams that are IPFIX messages
  uint64_t deviceRecords = 0;          ///< data records in them, of templates that were known
  uint64_t deviceRecordsRefused = 0;   ///< of these, of a refused template, or too large
  uint64_t deviceSetsUnknown = 0;      ///< sets of records whose template was not known
  uint64_t deviceDatagramsBad = 0;     ///< that are no IPFIX messages
  uint64_t deviceDatagramsLost = 0;    ///< for which the receive buffer had no room
  uint64_t deviceDatagramsLooped = 0;  ///< of this agent's own exporters, not looked at
  double updatedTime = 0;              ///< UTC seconds

  /// Nothing when the length is another.
  static std::optional<FlowPathRecord> fromOctets(platform::SharedTable::Octets octets) {
    FlowPathRecord r;
    if (octets.size() != sizeof r) return std::nullopt;
    std::memcpy(&r, octets.data(), sizeof r);
    return r;
  }

  struct Field {
    std::string_view name;
    uint64_t FlowPathRecord::*value;
  };
  static constexpr auto fields() {
    using R = FlowPathRecord;
    return std::to_array<Field>({{"packetsSeen", &R::packetsSeen},
                                 {"kernelDrops", &R::kernelDrops},
                                 {"notIp", &R::notIp},
                                 {"truncated", &R::truncated},
                                 {"malformed", &R::malformed},
                                 {"packets", &R::packets},
                                 {"octets", &R::octets},
                                 {"flowsActive", &R::flowsActive},
                                 {"flowsMax", &R::flowsMax},
                                 {"flowsCreated", &R::flowsCreated},
                                 {"endedIdle", &R::endedIdle},
                                 {"endedActive", &R::endedActive},
                                 {"endedEndOfFlow", &R::endedEndOfFlow},
                                 {"endedForced", &R::endedForced},
                                 {"endedResources", &R::endedResources},
                                 {"lostNoCollector", &R::lostNoCollector},
                                 {"lostQueueFull", &R::lostQueueFull},
                                 {"lostPackets", &R::lostPackets},
                                 {"records", &R::records},
                                 {"recordsLost", &R::recordsLost},
                                 {"messages", &R::messages},
                                 {"sampleRate", &R::sampleRate},
                                 {"deviceMessages", &R::deviceMessages},
                                 {"deviceRecords", &R::deviceRecords},
                                 {"deviceRecordsRefused", &R::deviceRecordsRefused},
                                 {"deviceSetsUnknown", &R::deviceSetsUnknown},
                                 {"deviceDatagramsBad", &R::deviceDatagramsBad},
                                 {"deviceDatagramsLost", &R::deviceDatagramsLost},
                                 {"deviceDatagramsLooped", &R::deviceDatagramsLooped}});
  }
};
static_assert(std::is_trivially_copyable_v<FlowPathRecord>);
static_assert(sizeof(FlowPathRecord) == 128 + 30 * 8);

/// The segment that holds it, beside the collectors' statistics.
inline constexpr std::string_view flowPathSuffix = "-flows";

}  // namespace FlowTracking
