#pragma once
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Ipfix/Ipfix.h"
#include "platform/Ip.h"

namespace agent {

inline uint8_t octetAt(std::string_view s, size_t at) { return static_cast<uint8_t>(s[at]); }
inline uint16_t u16At(std::string_view s, size_t at) {
  return static_cast<uint16_t>(octetAt(s, at) << 8 | octetAt(s, at + 1));
}
inline uint32_t u32At(std::string_view s, size_t at) {
  return uint32_t{u16At(s, at)} << 16 | u16At(s, at + 2);
}

/// Octets of the field specifier (RFC 7011, 3.2) that begins with `word`: with an enterprise number
/// or without.
inline size_t specifierLen(uint16_t word) { return (word & 0x8000) != 0 ? 8 : 4; }

/// One field of the records that are passed on.
struct PassedField {
  uint16_t element = 0;  ///< its number in the registry
  uint16_t len = 0;      ///< as the device sends it, which may be reduced; 65535: variable
  bool enterprise = false;
  auto operator<=>(const PassedField&) const = default;
};
using PassedLayout = std::vector<PassedField>;

/// Adds to the registry the IANA elements that it lacks, each with the length of its type. Lists
/// of records by template (RFC 6313) are left out: they name templates by the ids of the device.
void addIanaElements(Ipfix::ElementIdColl& registry);

/// How the records of a device's template are made, and what is left of them when they are reduced
/// to the fields that the registry knows.
struct RecordReduction {
  RecordReduction() = default;
  /// `fields`: the template's field specifiers, each of them whole.
  RecordReduction(std::string_view fields, const Ipfix::ElementIdColl& registry);

  /// Puts the address of the device behind each record: exporterIPv4Address or
  /// exporterIPv6Address. A record that has one already, or of which no field is kept, stays so.
  void exporterAddressIs(const platform::IpGenAddr& address);

  /// Sets `len` to the length of the record that `rest` begins with and appends its fields that are
  /// kept to `kept`, unless that is null. False: the record is longer than `rest`.
  bool take(std::string_view rest, size_t& len, std::string* kept) const;
  /// The same for `n` records of a template without fields of variable length.
  void takeFixed(const char* records, uint64_t n, std::string& kept) const;

  /// Neighbouring octets of a record that are treated alike.
  struct Step {
    uint16_t len = 0;  // of fixed fields
    bool variable = false;
    bool keep = false;
  };
  std::vector<Step> steps;
  std::string behind;  // octets that each record gets behind its own
  PassedLayout passed;
  bool fixed = true;       ///< no field of variable length
  bool whole = true;       ///< records are passed on as they are
  uint32_t minLen = 0;     ///< of a record
  uint32_t keptLen = 0;    ///< of the fixed fields that are kept, and of `behind`
  uint32_t unknown = 0;    ///< fields that are left out: not in the registry
  uint32_t badLength = 0;  ///< left out: no encoding of the element has this length
};

}  // namespace agent
