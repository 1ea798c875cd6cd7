#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/wire/decoder/Decoder.h"

namespace decoder {

using Octets = std::vector<uint8_t>;

/// Octets from hexadecimal digits; blanks in `text` are layout.
inline Octets hex(std::string text) {
  std::erase(text, ' ');
  Octets out;
  for (size_t i = 0; i < text.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return out;
}
inline void put16(Octets& o, size_t at, size_t v) {
  o[at] = static_cast<uint8_t>(v >> 8);
  o[at + 1] = static_cast<uint8_t>(v);
}
/// A message around `sets`, which are hexadecimal.
inline Octets message(uint32_t sequence, const std::string& sets, uint16_t domain = 7) {
  Octets out = hex("000a 0000 67400000 00000000 00000000" + sets);
  put16(out, 2, out.size());
  put16(out, 8, sequence >> 16);
  put16(out, 10, sequence);
  put16(out, 14, domain);
  return out;
}

/// IANA's elements and one of an enterprise.
inline const Element* testElement(uint32_t enterprise, uint16_t id) {
  static constexpr Element trackingType{"flowTrackingType", Type::unsigned16};
  if (enterprise == 99991) return id == 1001 ? &trackingType : nullptr;
  return enterprise == 0 ? ianaElement(id) : nullptr;
}

/// One of everything: 127 octets, sequence 5, four data records. Beside each line where it begins.
inline const Octets rich =
    hex("000a 007f 67400000 00000005 00000007"                         // 0
        "0002 0024"                                                    // 16
        " 0100 0004 0008 0004 0001 0004 0052 ffff 83e9 0002 00018697"  // 20
        " 0101 0001 0096 0004"                                         // 44
        "0003 0014 ff01 0002 0001 000a 0004 0052 ffff 0000"            // 52, padding at 70
        "0100 0021"                                                    // 72
        " 0a000001 00000064 04 65746830 0002"                          // 76
        " 0a000002 ffffffff 00 0103"                                   // 91
        " 000000"                                                      // 102
        "ff01 000e 00000003 ff 0003 6c6f30"                            // 105
        "0101 0008 67400000");                                         // 119

}  // namespace decoder
