#pragma once
#include <string>
#include <vector>

namespace agent {

/// The interfaces that a tracker's key `interfaces` takes: those whose exported name ("eth0",
/// "red/eth0") some pattern matches, and no pattern behind a "!". The order does not matter; a
/// wildcard does not match '/'.
using InterfacePatterns = std::vector<std::string>;

inline bool excludes(const std::string& pattern) { return pattern.starts_with('!'); }
bool takes(const InterfacePatterns& patterns, const std::string& name);
/// The patterns, without exclusions, that take none of the names: each once, in their order.
InterfacePatterns idlePatterns(const InterfacePatterns& patterns,
                               const std::vector<std::string>& names);

}  // namespace agent
