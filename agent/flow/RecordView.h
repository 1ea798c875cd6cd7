#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/records/FlowLook.h"
#include "agent/records/FlowRecords.h"

namespace agent::flow {

/// Reads flow records of one layout: knows where those fields are by which flows are chosen and
/// summed.
class RecordView {
 public:
  struct Place {
    uint16_t at = 0;
    uint16_t len = 0;  ///< 0: the record has no such field
    uint16_t element = 0;
    explicit operator bool() const { return len > 0; }
  };

  RecordView() = default;
  explicit RecordView(const RecordLayout& layout);

  Place octets, packets;  ///< deltas rather than totals, of IP rather than link layer
  Place start, last;
  Place reverseOctets, reversePackets, reverseStart, reverseLast;  ///< of two-way flows
  Place protocol, source, destination, sourcePort, destinationPort, ingress, egress;

  /// An unsigned number of up to 8 octets; 0 where the record has no such field.
  static uint64_t number(const char* record, Place place);
  /// Octets, packets of both directions, where the record tells of two.
  uint64_t allOctets(const char* record) const {
    return number(record, octets) + number(record, reverseOctets);
  }
  uint64_t allPackets(const char* record) const {
    return number(record, packets) + number(record, reversePackets);
  }
  /// When the first packet came of either direction; INT64_MAX where the record has no such field.
  int64_t startMs(const char* record) const;
  /// When the last one came, of a record that has such a field.
  int64_t lastMs(const char* record) const;
  /// Whether the record's protocol has ports; true where the record has no protocol.
  bool hasPorts(const char* record) const;
  /// Adds all fields by name, but for those of octets and packets above, times and the reason for
  /// the end.
  void addFields(const char* record, FlowRow& to) const;

 private:
  /// Milliseconds since 1970, of a field of any of the time elements.
  static int64_t timeMs(const char* record, Place place);

  RecordLayout layout_;
};

/// An address of 4 or 16 octets in network order.
std::string addressText(const char* octets, size_t len);

}  // namespace agent::flow
