#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/records/FlowLook.h"
#include "agent/records/FlowRecords.h"

namespace agent::flow {

/// Reads flow records of one layout: where in the octets lies what flows are compared by.
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

  Place octets, packets;  ///< deltas where the record has them, else totals
  Place start, last;
  Place protocol, source, destination, sourcePort, destinationPort, ingress, egress;

  static uint64_t number(const char* record, Place place);
  /// Milliseconds since 1970, of a field of any of the time elements.
  static int64_t timeMs(const char* record, Place place);
  /// The protocol is one that has ports, or the record does not say which it is.
  bool hasPorts(const char* record) const;
  /// Fields by name as values, but for the counts and times above and the reason for an end.
  void addFields(const char* record, FlowRow& to) const;

 private:
  RecordLayout layout_;
};

/// An address of 4 or 16 octets in network order.
std::string addressText(const char* octets, size_t len);

}  // namespace agent::flow
