#pragma once
#include <string>
#include <string_view>

namespace agent {

/// A text as TOML writes it, in quotes, and a key, in quotes if it needs them.
std::string tomlText(std::string_view text);
std::string tomlKey(std::string_view key);

}  // namespace agent
