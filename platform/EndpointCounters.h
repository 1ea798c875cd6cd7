#pragma once
#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

#include "platform/SharedTable.h"

/// What the kernel made of an exporter's datagrams, as it stands in shared memory: one record per
/// exporter and address family. The library counts what it hands to an endpoint; here stands how
/// much of that was refused.
namespace FlowTracking {

/// The table's key. The names are padded with zeros.
struct EndpointKey {
  std::array<char, 128> trackerName{};
  std::array<char, 128> exporterName{};
  uint64_t family = 4;  ///< 4: IPv4, 6: IPv6

  EndpointKey() = default;
  EndpointKey(std::string_view tracker, std::string_view exporter, bool ipv6)
      : family(ipv6 ? 6 : 4) {
    tracker.copy(trackerName.data(), trackerName.size());
    exporter.copy(exporterName.data(), exporterName.size());
  }
  std::string_view tracker() const {
    return {trackerName.data(), strnlen(trackerName.data(), 128)};
  }
  std::string_view exporter() const {
    return {exporterName.data(), strnlen(exporterName.data(), 128)};
  }
  auto operator<=>(const EndpointKey&) const = default;
};
static_assert(sizeof(EndpointKey) == 264);

/// The table's value. Counts are of datagrams and only grow, also when the endpoint is replaced.
struct EndpointRecord {
  struct Cause {
    uint64_t error = 0;  ///< errno; 0: the place is free, or, in the last place, any other cause
    uint64_t datagrams = 0;
  };
  EndpointKey key;
  uint64_t sent = 0;            ///< that the kernel took
  uint64_t refused = 0;         ///< that it refused, or that found no room in the endpoint's queue
  std::array<Cause, 8> causes;  ///< of `refused`
  uint64_t undelivered = 0;     ///< of `sent`, those that ICMP messages say did not arrive

  void addRefused(int error, uint64_t datagrams) {
    refused += datagrams;
    for (Cause& c : causes) {
      const bool last = &c == &causes.back();
      if (!last && c.datagrams != 0 && c.error != static_cast<uint64_t>(error)) continue;
      c.error = last ? 0 : static_cast<uint64_t>(error);
      c.datagrams += datagrams;
      return;
    }
  }

  /// Nothing when the length is another.
  static std::optional<EndpointRecord> fromOctets(platform::SharedTable::Octets octets) {
    EndpointRecord r;
    if (octets.size() != sizeof r) return std::nullopt;
    std::memcpy(&r, octets.data(), sizeof r);
    return r;
  }
};
static_assert(std::is_trivially_copyable_v<EndpointRecord>);
static_assert(sizeof(EndpointRecord) == 264 + 19 * 8);

/// The segment that holds it, beside the collectors' statistics.
inline constexpr std::string_view endpointSuffix = "-endpoints";

}  // namespace FlowTracking
