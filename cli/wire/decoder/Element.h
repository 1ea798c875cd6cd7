#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace decoder {

/// How an element's octets are to be read: the abstract data types of RFC 7012, 3.1, and the
/// structured ones of RFC 6313.
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

/// Whether a field of the type may have `len` octets. Integers may be shortened and float64 sent as
/// float32 (RFC 7011, 6.2); what has no size of its own may have any.
bool typeAllows(Type type, size_t len);
/// Those lengths in words: "1 to 4", "6", "4 or 8", "any".
std::string_view typeLengths(Type type);

/// What is known about an information element.
struct Element {
  std::string_view name;
  Type type;
  bool flags = false;  ///< a bit field: shown in hexadecimal
};

/// Finds an element; enterprise 0 is IANA's registry. Null when unknown. What it returns must
/// outlive the decoder and every message.
using ElementLookup = std::function<const Element*(uint32_t enterprise, uint16_t id)>;

/// IANA's registry (https://www.iana.org/assignments/ipfix), elements 1 to 371.
const Element* ianaElement(uint16_t id);

}  // namespace decoder
