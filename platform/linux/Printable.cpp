#include "platform/linux/Printable.h"

#include <cstdint>

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
}  // namespace

std::string printable(std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<uint8_t>(text[i]);
    size_t len = sequenceLen(text.substr(i));
    const bool c1 = len == 2 && c == 0xc2 && static_cast<uint8_t>(text[i + 1]) < 0xa0;
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f || len == 0 || c1) {
      len = 1;
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += text.substr(i, len);
    }
    i += len;
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
