#include "cli/text/Quoted.h"

#include <cstdint>

namespace cli {
namespace {
/// The length of the UTF-8 sequence at the start of `s` and its code point; 0 when there is none.
size_t utf8Length(std::string_view s, uint32_t& code) {
  const auto octet = [&](size_t i) { return static_cast<uint8_t>(s[i]); };
  const uint8_t first = octet(0);
  code = first;
  if (first < 0x80) return 1;
  const size_t len = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || s.size() < len) return 0;
  code = first & (0x7fU >> len);
  for (size_t i = 1; i < len; ++i) {
    if ((octet(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (octet(i) & 0x3fU);
  }
  constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < least[len] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000)) return 0;
  return len;
}
/// Characters that move the cursor, change the direction of writing or cannot be seen.
bool deceptive(uint32_t c) {
  return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0xad || c == 0x61c ||
         (c >= 0x200b && c <= 0x200f) || (c >= 0x2028 && c <= 0x202e) ||
         (c >= 0x2060 && c <= 0x206f) || c == 0xfeff;
}

}  // namespace

bool validUtf8(std::string_view text) {
  for (uint32_t code; !text.empty();) {
    const size_t n = utf8Length(text, code);
    if (n == 0) return false;
    text.remove_prefix(n);
  }
  return true;
}

std::string quoted(std::string_view text) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out = "\"";
  while (!text.empty()) {
    uint32_t code = 0;
    const size_t len = utf8Length(text, code);
    const size_t taken = len == 0 ? 1 : len;
    if (len == 0 || deceptive(code)) {
      for (const char c : text.substr(0, taken)) {
        out += "\\x";
        out += digits[static_cast<uint8_t>(c) >> 4];
        out += digits[static_cast<uint8_t>(c) & 15];
      }
    } else {
      if (code == '"' || code == '\\') out += '\\';
      out += text.substr(0, taken);
    }
    text.remove_prefix(taken);
  }
  return out + '"';
}

std::string shown(std::string_view text) {
  std::string q = quoted(text);
  return q.size() == text.size() + 2 ? std::string(text) : q;
}

std::string nameText(std::string_view name) {
  const bool word = !name.empty() && name.find(' ') == std::string_view::npos;
  return word ? shown(name) : quoted(name);
}

}  // namespace cli
