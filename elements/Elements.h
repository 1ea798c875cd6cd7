#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

/// IPFIX information elements: what a field of a record means and how its octets are to be read.
namespace elements {

/// The abstract data types of RFC 7012, 3.1, and the structured ones of RFC 6313.
enum class Type : uint8_t {
  octetArray,
  unsigned8,
  unsigned16,
  unsigned32,
  unsigned64,
  signed8,
  signed16,
  signed32,
  signed64,
  float32,
  float64,
  boolean,
  macAddress,
  string,
  dateTimeSeconds,
  dateTimeMilliseconds,
  dateTimeMicroseconds,
  dateTimeNanoseconds,
  ipv4Address,
  ipv6Address,
  basicList,
  subTemplateList,
  subTemplateMultiList
};
std::string_view typeName(Type type);

/// Octets of the type at full size; SIZE_MAX: any number.
size_t typeLen(Type type);
/// Whether a field of the type may have `len` octets. Integers may be shortened and float64 sent as
/// float32 (RFC 7011, 6.2); what has no size of its own may have any.
bool typeAllows(Type type, size_t len);
/// Those lengths in words: "1 to 4", "6", "4 or 8", "any".
std::string_view typeLengths(Type type);

/// RFC 7012, 3.2, and RFC 6313; the numbers of RFC 5610. IANA calls `plain` "default".
enum class Semantics : uint8_t {
  plain,
  quantity,
  totalCounter,
  deltaCounter,
  identifier,
  flags,
  list,
  snmpCounter,
  snmpGauge
};

/// The numbers of RFC 5610.
enum class Units : uint8_t {
  none,
  bits,
  octets,
  packets,
  flows,
  seconds,
  milliseconds,
  microseconds,
  nanoseconds,
  fourOctetWords,
  messages,
  hops,
  entries,
  frames
};

struct Element {
  std::string_view name;
  Type type;
  Semantics semantics = Semantics::plain;
  Units units = Units::none;
};

/// The element of this number in IANA's registry (https://www.iana.org/assignments/ipfix); null
/// when the list in IanaElements.cpp has none.
const Element* ianaElement(uint16_t id);
/// What it tells of a two-way flow's other direction: `reverseOctetDeltaCount` of `octetDeltaCount`
/// (RFC 5103, 6.1; enterprise number 29305). Null where IANA has none of this number.
const Element* reverseElement(uint16_t id);
inline constexpr uint32_t reverseEnterprise = 29305;

/// The largest number that `ianaElement` knows.
uint16_t lastIanaElement();

/// The type of an element that has `len` octets at full size. The enterprise's own are addresses,
/// numbers, or else octets; so are those without a number of IANA's that are sent without the
/// enterprise's.
Type typeOf(bool enterprise, uint16_t id, size_t len);

}  // namespace elements
