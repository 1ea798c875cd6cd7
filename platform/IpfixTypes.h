#pragma once
#include <charconv>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Values.h"

namespace Ipfix {

/// Information element identifier: the element's number, whatever the registry it comes from
/// (IANA's or the enterprise's). Text form: the plain number. Default 1.
class RecordType {
 public:
  constexpr RecordType() = default;
  constexpr RecordType(uint32_t value) : value_(value) {}
  constexpr uint32_t value() const { return value_; }
  std::string stringValue() const { return std::to_string(value_); }
  static std::optional<RecordType> fromString(std::string_view s) {
    uint32_t v = 0;
    auto [end, err] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (err != std::errc{} || end != s.data() + s.size()) return std::nullopt;
    return RecordType(v);
  }
  auto operator<=>(const RecordType&) const = default;

 private:
  uint32_t value_ = 1;
};

/// Numbers of the IPFIX protocol (RFC 7011).
struct IpfixConst {
  static constexpr uint16_t version() { return 10; }
  static constexpr uint32_t messageHeaderLen() { return 16; }
  static constexpr uint32_t setHeaderLen() { return 4; }
  static constexpr uint16_t templateSetId() { return 2; }
  static constexpr uint16_t optionsTemplateSetId() { return 3; }
  static constexpr uint16_t firstDataSetId() { return 256; }
  static constexpr uint16_t variableLen() { return 65535; }  // RFC 7011, 7
  /// What a message may use of a UDP datagram of 65535 octets: less the IPv4 and UDP headers.
  static constexpr uint32_t maxUdpPayload() { return 65507; }
  /// The enterprise number written into field specifiers of enterprise elements.
  static constexpr uint32_t enterpriseNumber() { return 99991; }
  /// The enterprise number of reverse information elements (RFC 5103, 6.1): they tell of a two-way
  /// flow's other direction what IANA's element of the same number tells of the first.
  static constexpr uint32_t reverseEnterpriseNumber() { return 29305; }
  /// The number of a reverse element in the registry of elements: that of IANA's element with bit
  /// 15, which no number has on the wire.
  static constexpr RecordType reverseElement(RecordType id) { return id.value() | 0x8000; }
  /// The enterprise number that goes with an enterprise element of the registry.
  static constexpr uint32_t enterpriseNumberOf(RecordType id) {
    return (id.value() & 0x8000) != 0 ? reverseEnterpriseNumber() : enterpriseNumber();
  }
  /// Octets of an IPv6 and a UDP header: `ipfixMtu` less this is the largest message.
  static constexpr uint32_t ipUdpHeaderLen() { return 48; }
};

}  // namespace Ipfix

namespace FlowTracking {

/// The options tables with a reserved template id.
enum class StaticTemplateId : uint16_t {
  vrfTable = 0,
  intfTable = 1,
  flowKey = 2,
  flowTrackerTable = 3
};

struct Constants {
  /// The template id of an options table. The four stand near the top of the range, so that
  /// whoever numbers data templates may start at 256.
  static constexpr TemplateId reservedTemplateId(StaticTemplateId id) {
    return static_cast<TemplateId>(65280 + static_cast<uint16_t>(id));
  }
  static constexpr bool isReserved(TemplateId id) { return id >= 65280 && id <= 65283; }
};

}  // namespace FlowTracking
