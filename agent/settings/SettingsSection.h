#pragma once
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/settings/SettingsErrors.h"

namespace agent {

/// "did you mean 'x'?" with the candidate that was probably meant, or `otherwise` and all of them.
std::string suggestion(std::string_view wrong, const std::vector<std::string_view>& candidates,
                       const std::string& otherwise);

/// One table of the file: hands out its keys and, in the end, complains about the others.
class SettingsSection {
 public:
  SettingsSection(SettingsErrors& errors, const toml::table& table, std::string path,
                  toml::source_region at)
      : errors_(errors), table_(table), path_(std::move(path)), at_(std::move(at)) {}
  SettingsSection(const SettingsSection&) = delete;
  SettingsSection& operator=(const SettingsSection&) = delete;
  ~SettingsSection() { refuseUnknown(); }

  std::string pathOf(std::string_view key) const {
    return path_.empty() ? keyText(key) : path_ + '.' + keyText(key);
  }

  /// Reads the value at `key` if there is one: `read` returns what would be right, or nothing.
  /// `missing`: what the file lacks without it; null: it may be left out. False: an error.
  bool value(std::string_view key, const char* missing,
             const std::function<std::string(const toml::node& node)>& read);

  /// Judges each text of the list at `key` by its index: `problem` returns what would be right, or
  /// nothing.
  void elements(std::string_view key, const std::function<std::string(size_t at)>& problem);

  /// Visits the table at `key` when it is there.
  void table(std::string_view key, const std::function<void(SettingsSection& section)>& visit);

  /// Visits the tables below `key` in the file's order, each with its name. `nameRule` answers what
  /// would be right for a name that is wrong, and nothing for one that is right.
  void tables(std::string_view key, const std::string& what,
              const std::function<std::string(const std::string& name)>& nameRule,
              const std::function<void(const std::string& name, SettingsSection& section)>& visit);

  /// An error about the value of a key, or about its default.
  void refuse(std::string_view key, const std::string& expected);

 private:
  void refuse(std::string_view key, const toml::node& node, const std::string& expected);
  void refuseUnknown();

  SettingsErrors& errors_;
  const toml::table& table_;
  std::string path_;
  toml::source_region at_;
  std::vector<std::string_view> known_;
};

}  // namespace agent
