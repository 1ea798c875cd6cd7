#pragma once
#include <compare>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/settings/Settings.h"
#include "agent/settings/Toml.h"

namespace agent {

/// One step of a key's path, as TOML writes it; a long one is cut.
std::string keyText(std::string_view key);

/// Collects errors with their position in the files, in the order in which these are read. Keeps
/// the first `settingsErrorsMax` of them and counts the others: a file of a million wrong keys
/// would otherwise cost the agent a gigabyte, and the log a million lines.
class SettingsErrors {
 public:
  /// The next file that is read.
  void fileIs(std::string name) { files_.push_back(std::move(name)); }
  void add(const toml::source_region& at, std::string text);
  void atKey(const toml::source_region& at, const std::string& path, const std::string& text) {
    add(at, "key '" + path + "': " + text);
  }
  /// False: as many errors stand before this position as are kept. The error is only counted, and
  /// its text need not be made.
  bool wanted(const toml::source_region& at);
  bool empty() const { return count_ == 0; }
  bool before(const toml::source_region& a, const toml::source_region& b) const {
    return positionOf(a) < positionOf(b);
  }
  std::vector<std::string> inFileOrder() const;

 private:
  struct Position {
    size_t file = 0;
    toml::source_index line = 0;
    toml::source_index column = 0;
    auto operator<=>(const Position&) const = default;
  };
  Position positionOf(const toml::source_region& at) const;

  std::vector<std::string> files_;
  std::multimap<Position, std::string> errors_;
  size_t count_ = 0;
};

}  // namespace agent
