#include "agent/settings/TomlText.h"

#include <cstdio>

#include "agent/host/Names.h"

namespace agent {

std::string tomlText(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      (out += '\\') += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out += '"';
}
std::string tomlKey(std::string_view key) {
  return isBareKey(key) ? std::string(key) : tomlText(key);
}

}  // namespace agent
