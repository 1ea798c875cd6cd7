#include "agent/settings/SettingsErrors.h"

#include <algorithm>

#include "agent/host/Names.h"
#include "agent/host/Printable.h"

namespace agent {

std::string keyText(std::string_view key) {
  constexpr size_t max = 200;  // octets: more than any valid name has, 128
  if (key.size() <= max && isBareKey(key)) return std::string(key);
  return '"' + printable(key, max) + '"';
}

void SettingsErrors::add(const toml::source_region& at, std::string text) {
  ++count_;
  errors_.emplace(positionOf(at), std::move(text));
  if (errors_.size() > settingsErrorsMax) errors_.erase(std::prev(errors_.end()));
}
bool SettingsErrors::wanted(const toml::source_region& at) {
  if (errors_.size() < settingsErrorsMax || positionOf(at) < errors_.rbegin()->first) return true;
  ++count_;
  return false;
}
std::vector<std::string> SettingsErrors::inFileOrder() const {
  std::vector<std::string> lines;
  lines.reserve(errors_.size() + 1);
  for (const auto& [at, text] : errors_)
    lines.push_back(printable(files_[at.file]) + ':' + std::to_string(at.line) + ':' +
                    std::to_string(at.column) + ": " + text);
  if (const size_t more = count_ - errors_.size(); more > 0)
    lines.push_back("and " + counted(more, "more error"));
  return lines;
}
SettingsErrors::Position SettingsErrors::positionOf(const toml::source_region& at) const {
  const auto it = at.path ? std::find(files_.begin(), files_.end(), *at.path) : files_.begin();
  return {it == files_.end() ? 0 : static_cast<size_t>(it - files_.begin()), at.begin.line,
          at.begin.column};
}

}  // namespace agent
