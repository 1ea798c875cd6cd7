#include "platform/linux/Printable.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace platform {
namespace {
/// Octets of the well-formed UTF-8 sequence at the start of `s` (RFC 3629); 0: there is none.
size_t sequenceLen(std::string_view s) {
  const auto octet = [&](size_t i) { return static_cast<uint8_t>(s[i]); };
  const uint8_t lead = octet(0);
  if (lead < 0x80) return 1;
  const size_t len = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || s.size() < len) return 0;
  for (size_t i = 1; i < len; ++i)
    if ((octet(i) & 0xc0) != 0x80) return 0;
  // Overlong forms, surrogates, and what lies beyond U+10FFFF.
  if ((lead == 0xe0 && octet(1) < 0xa0) || (lead == 0xed && octet(1) > 0x9f)) return 0;
  if ((lead == 0xf0 && octet(1) < 0x90) || (lead == 0xf4 && octet(1) > 0x8f)) return 0;
  return len;
}

/// The character that a well-formed sequence stands for.
uint32_t codeOf(std::string_view s) {
  const auto lead = static_cast<uint8_t>(s[0]);
  if (s.size() == 1) return lead;
  uint32_t code = lead & (0x7fU >> s.size());
  for (const char c : s.substr(1)) code = code << 6 | (static_cast<uint8_t>(c) & 0x3f);
  return code;
}

/// Would move the cursor, turn the direction of writing or not be seen at all: control characters
/// and the format characters of Unicode (general category Cf, Zl and Zp).
bool deceives(uint32_t c) {
  struct Range {
    uint32_t first;
    uint32_t last;
  };
  static constexpr Range ranges[] = {{0x0, 0x1f},      {0x7f, 0x9f},      {0xad, 0xad},
                                     {0x61c, 0x61c},   {0x180e, 0x180e},  {0x200b, 0x200f},
                                     {0x2028, 0x202e}, {0x2060, 0x206f},  {0xfeff, 0xfeff},
                                     {0xfff9, 0xfffb}, {0xe0000, 0xe007f}};
  return std::any_of(std::begin(ranges), std::end(ranges),
                     [c](const Range& r) { return c >= r.first && c <= r.last; });
}
}  // namespace

std::string printable(std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const size_t len = sequenceLen(text);
    const std::string_view c = text.substr(0, std::max<size_t>(len, 1));
    text.remove_prefix(c.size());
    if (c == "\n") {
      out += "\\n";
    } else if (c == "\t") {
      out += "\\t";
    } else if (len == 0 || deceives(codeOf(c))) {
      for (const char octet : c) {
        out += "\\x";
        out += hex[static_cast<uint8_t>(octet) >> 4];
        out += hex[static_cast<uint8_t>(octet) & 15];
      }
    } else {
      out += c;
    }
  }
  return out;
}

std::string printable(std::string_view text, size_t max) {
  // No text becomes shorter, so that what lies far behind the cut need not be looked at.
  std::string out = printable(text.substr(0, max + 4));
  if (out.size() <= max) return out;
  size_t cut = max - 3;
  while (cut > 0 && (out[cut] & 0xc0) == 0x80) --cut;
  return out.substr(0, cut) + "...";
}

}  // namespace platform
