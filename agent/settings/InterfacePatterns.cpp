#include "agent/settings/InterfacePatterns.h"

#include <fnmatch.h>

#include <algorithm>

namespace agent {
namespace {
bool matches(const char* pattern, const std::string& name) {
  return fnmatch(pattern, name.c_str(), FNM_PATHNAME) == 0;
}
}  // namespace

bool takes(const InterfacePatterns& patterns, const std::string& name) {
  bool some = false;
  for (const std::string& pattern : patterns) {
    if (!excludes(pattern)) {
      some = some || matches(pattern.c_str(), name);
    } else if (matches(pattern.c_str() + 1, name)) {
      return false;
    }
  }
  return some;
}

InterfacePatterns idlePatterns(const InterfacePatterns& patterns,
                               const std::vector<std::string>& names) {
  InterfacePatterns idle;
  for (const std::string& pattern : patterns) {
    if (excludes(pattern) || std::find(idle.begin(), idle.end(), pattern) != idle.end()) continue;
    if (std::none_of(names.begin(), names.end(), [&](const std::string& name) {
          return matches(pattern.c_str(), name) && takes(patterns, name);
        }))
      idle.push_back(pattern);
  }
  return idle;
}

}  // namespace agent
